// Frame assembly on the capture thread: the shared pixel split and trailer codec, plus the clocks.
#include "frame_builder.h"

#include <time.h>

#include "frame_geometry.h"
#include "frame_pool.h"
#include "orvo/calibration.hpp"
#include "trailer.h"
#include "yuyv_split.h"

namespace orvo {
namespace runtime {

namespace {

constexpr double kStandardGravity = 9.80665;  // m/s^2 per g
const cv::Size kPlaneSize(frame::kWidth, frame::kHeight);

double gyroRadPerS(int16_t counts) {
    return double(counts) / double(frame::kGyroCountsPerDegS) / frame::kDegPerRad;
}

double accelMPerS2(int16_t counts) { return double(counts) * double(frame::kAccelGPerCount) * kStandardGravity; }

}  // namespace

uint64_t DeviceClock::extend(uint32_t ticks) {
    if (!have_) {
        last_us_ = ticks;
    } else if (fresh_) {
        last_us_ += gap_us_ > 0 ? gap_us_ : 1;
    } else {
        last_us_ = uint64_t(int64_t(last_us_) + int64_t(int32_t(ticks - last_ticks_)));
    }
    have_ = true;
    fresh_ = false;
    last_ticks_ = ticks;
    return last_us_;
}

void DeviceClock::reconnected(uint64_t host_gap_us) {
    fresh_ = have_;
    gap_us_ = host_gap_us;
}

uint64_t monotonicNowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// A driver stamps CLOCK_MONOTONIC when it says so in the flags; any other clock (or none) cannot be
// compared with the host's sensors, so the dequeue time stands in.
uint64_t bufferHostTime(const v4l2_buffer& buf, uint64_t dequeued_ns, HostTimeSource& source) {
    if ((buf.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC &&
        (buf.timestamp.tv_sec != 0 || buf.timestamp.tv_usec != 0)) {
        source = HostTimeSource::driver_monotonic;
        return uint64_t(buf.timestamp.tv_sec) * 1000000000u + uint64_t(buf.timestamp.tv_usec) * 1000u;
    }
    source = HostTimeSource::dequeue;
    return dequeued_ns;
}

// Odd bytes are the left lens, even bytes the right. The frame's tick count is in the trailer; a
// frame with all 20 record slots used has none, and the newest record's time stands in. The
// samples' device and host times are the frame's, less how much earlier their ticks are.
void buildFrame(const uint8_t* bytes, size_t length, uint64_t host_ns, DeviceClock& clock,
                FramePool& pool, const Calibration* rectify_with, cv::Mat scratch[2], Frame& out) {
    cv::Mat* planes = scratch;
    if (rectify_with == nullptr) planes = nullptr;
    pool.attach(out.left, kPlaneSize);
    pool.attach(out.right, kPlaneSize);
    cv::Mat& left = planes ? planes[0] : out.left;
    cv::Mat& right = planes ? planes[1] : out.right;
    if (planes) {
        left.create(kPlaneSize, CV_8UC1);
        right.create(kPlaneSize, CV_8UC1);
    }
    yuyv::split(bytes, frame::kPixels, right.data, left.data);
    if (planes) rectify_with->rectify(left, right, out.left, out.right);
    out.rectified = planes != nullptr;

    uint8_t count = 0;
    unsigned char block[frame::kBlockSize];
    trailer::latch(bytes, length, frame::kBlockFromEnd, count, block);
    uint32_t ticks = 0;
    const bool have_ticks = trailer::frameTicks(bytes, length, &ticks);
    if (!have_ticks && count > 0) ticks = trailer::readRecord(block + (count - 1) * frame::kRecordSize).ticks;
    out.device_time_us = clock.extend(ticks);
    out.host_time_ns = host_ns;

    out.imu.clear();
    out.imu.reserve(count);
    for (uint8_t i = 0; i < count; ++i) {
        const trailer::Record r = trailer::readRecord(block + i * frame::kRecordSize);
        const uint64_t before_us = uint32_t(ticks - r.ticks);
        ImuSample s;
        s.device_time_us = out.device_time_us - before_us;
        s.host_time_ns = host_ns - before_us * 1000u;
        for (int a = 0; a < 3; ++a) {
            s.gyro_raw[a] = r.gyro[a];
            s.accel_raw[a] = r.accel[a];
            s.gyro_rad_s[a] = gyroRadPerS(r.gyro[a]);
            s.accel_m_s2[a] = accelMPerS2(r.accel[a]);
        }
        out.imu.push_back(s);
    }
}

}  // namespace runtime
}  // namespace orvo
