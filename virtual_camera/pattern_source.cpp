// The built-in test pattern: a scrolling block texture seen by both lenses with a fixed disparity,
// and a steadily yawing inertial unit.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include <orvo/vcam/frame_source.hpp>

#include "frame_geometry.h"
#include "trailer.h"

namespace orvo {
namespace vcam {
namespace {

using namespace orvo::frame;

constexpr int kShiftPeriod = 256;  // the picture scrolls one pixel a frame and repeats after this
constexpr int kDisparity = 12;     // pixels: the right lens sees the left image shifted left by this
constexpr int kLineTexels = kWidth + kShiftPeriod;  // pixel pairs prepared per row

constexpr double kImuRate = 200.0;            // samples per second
constexpr double kTicksPerSecond = 1e6;       // trailer time stamps in microseconds
constexpr double kYawRate = 0.2;              // rad/s about the sensor's z axis (vertical)
constexpr double kVibrationG = 0.01;          // along the sensor's x axis
constexpr double kVibrationHz = 5.0;
constexpr size_t kMaxRecords = kRecordSlots - 1;  // keep a slot for the frame time
constexpr double kPi = 3.14159265358979323846;

uint32_t hash2(uint32_t a, uint32_t b) {
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u) * 0x85EBCA77u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    h *= 0x297A2D39u;
    h ^= h >> 15;
    return h;
}

// Grey level of the texture at column u, row y: 8 x 8 blocks of random level, a fine grain for
// block matching, and a bright grid every 64 columns and 48 rows.
uint8_t texel(int u, int y) {
    if (u % 64 == 0 || y % 48 == 0) return 250;
    uint32_t block = 32 + hash2(uint32_t(u / 8), uint32_t(y / 8)) % 160;
    uint32_t grain = hash2(uint32_t(u) + 7919u, uint32_t(y) + 104729u) & 31u;
    return uint8_t(block + grain);
}

int16_t saturate16(double v) {
    long r = std::lround(v);
    if (r > 32767) return 32767;
    if (r < -32768) return -32768;
    return int16_t(r);
}

// floor(t * rate) for a sample clock, nudged so that times computed as index / fps in different
// ways land on the same sample.
long lastSampleAt(double t) { return long(std::floor(t * kImuRate + 1e-6)); }

class PatternSource : public FrameSource {
public:
    PatternSource() : lines_(size_t(kHeight) * kLineTexels * 2) {
        for (int y = 0; y < kHeight; ++y) {
            uint8_t* line = &lines_[size_t(y) * kLineTexels * 2];
            for (int u = 0; u < kLineTexels; ++u) {
                line[2 * u] = texel(u + kDisparity, y);  // even bytes: right lens
                line[2 * u + 1] = texel(u, y);           // odd bytes: left lens
            }
        }
        records_.reserve(kRecordSlots);
    }

    std::string describe() const override { return "pattern"; }

    void render(uint64_t index, double time_s, uint8_t* dst, FrameTruth& truth) override {
        int shift = int(index % kShiftPeriod);
        for (int y = 0; y < kHeight; ++y)
            std::memcpy(dst + size_t(y) * kBytesPerLine, &lines_[(size_t(y) * kLineTexels + shift) * 2],
                        kBytesPerLine);
        fillImu(index, time_s, truth);
        truth.frame_ticks = uint32_t(uint64_t(std::llround(time_s * kTicksPerSecond)));
        trailer::encode(dst, kBytes, records_, truth.frame_ticks);
        truth.has_attitude = true;
        truth.attitude[0] = std::cos(kYawRate * time_s / 2);
        truth.attitude[1] = 0;
        truth.attitude[2] = 0;
        truth.attitude[3] = std::sin(kYawRate * time_s / 2);
        char extra[96];
        std::snprintf(extra, sizeof extra, "source=pattern shift=%d disparity=%d", shift, kDisparity);
        truth.extra = extra;
    }

private:
    // The samples taken after the previous frame's time up to this one's, the newest 19 at most.
    void fillImu(uint64_t index, double time_s, FrameTruth& truth) {
        long last = lastSampleAt(time_s);
        long first = 0;
        if (index > 0 && time_s > 0) first = lastSampleAt(time_s * double(index - 1) / double(index)) + 1;
        if (last - first + 1 > long(kMaxRecords)) first = last - long(kMaxRecords) + 1;
        records_.clear();
        truth.imu.clear();
        for (long j = first; j <= last; ++j) {
            double t = double(j) / kImuRate;
            ImuTruthSample s;
            s.ticks = uint32_t(uint64_t(std::llround(t * kTicksPerSecond)));
            s.gyro_rad_s[2] = kYawRate;
            s.accel_g[0] = kVibrationG * std::sin(2 * kPi * kVibrationHz * t);
            s.accel_g[2] = 1.0;
            trailer::Record r;
            r.ticks = s.ticks;
            for (int a = 0; a < 3; ++a) {
                s.gyro_raw[a] = saturate16(s.gyro_rad_s[a] * kDegPerRad * double(kGyroCountsPerDegS));
                s.accel_raw[a] = saturate16(s.accel_g[a] / double(kAccelGPerCount));
                r.gyro[a] = s.gyro_raw[a];
                r.accel[a] = s.accel_raw[a];
            }
            truth.imu.push_back(s);
            records_.push_back(r);
        }
    }

    std::vector<uint8_t> lines_;  // per row, kLineTexels interleaved pixel pairs
    std::vector<trailer::Record> records_;
};

}  // namespace

std::unique_ptr<FrameSource> makePatternSource() { return std::make_unique<PatternSource>(); }

}  // namespace vcam
}  // namespace orvo
