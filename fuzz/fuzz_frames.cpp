// Fuzz target: whole camera frames, served by the virtual camera from a recording, through the
// engine's frame pump (update_cam_imu, update_imu_raw, update) and the gyro bias measurement
// (imu_init), each checked against an independent decoding of the same bytes.
//
// Input: [op u8][gyro bias 3 x i32][dead band low, high f32][accel offsets 3 x f32] then frame
// bytes: a whole frame when there are enough, otherwise they overwrite the end of a fixed pattern
// frame, so that short inputs own the inertial trailer (count byte, records, reserved bytes).
#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include <orvo/vcam/frame_source.hpp>
#include "harness_support.h"

using namespace orvo_fuzz;

namespace {

constexpr size_t kW = 752, kH = 480, kPixels = kW * kH, kBytes = 2 * kPixels;
constexpr size_t kSlots = 20, kRecord = 24;
constexpr size_t kCookedBlock = 489, kRawBlock = 481;
constexpr int kBiasFrames = 100;

const std::string kNode = "/dev/video-virtual-fuzz-frames";

StereoCamera* g_engine = nullptr;
uint8_t* g_frame = nullptr;  // the recording's only frame, shared with the virtual camera
std::vector<uint8_t> g_base;

struct Settings {
    int32_t bias[3];
    float low, high;
    float offset[3];
};

// What one trailer record must decode to, written from the wire format's definition.
ImuData decode(const uint8_t* rec, const Settings& s) {
    float rate[3], accel[3];
    for (int a = 0; a < 3; ++a) {
        const int32_t unbiased = int32_t(uint32_t(int32_t(le16(rec + 4 + 2 * a))) - uint32_t(s.bias[a]));
        float deg_s = float(unbiased) / 16.4f;
        if (s.low < deg_s && deg_s < s.high) deg_s = 0.0f;
        rate[a] = float(double(deg_s) / 57.3);
        accel[a] = std::fmaf(float(le16(rec + 10 + 2 * a)), 0.0001220703125f, s.offset[a]);
    }
    return ImuData{le32(rec), accel[0], accel[1], accel[2], rate[0], rate[1], rate[2]};
}

size_t recordCount() { return std::min<size_t>(g_frame[kBytes - 1], kSlots); }

void checkSamples(const std::vector<ImuData>& imu, unsigned int frame_time, unsigned int before,
                  size_t block_from_end, const Settings& s) {
    const size_t n = recordCount();
    const uint8_t* block = g_frame + kBytes - block_from_end;
    FUZZ_CHECK(g_engine->imu_count == n);
    FUZZ_CHECK(imu.size() == n);
    FUZZ_CHECK(std::memcmp(g_engine->imu_block, block, kSlots * kRecord) == 0);
    for (size_t i = 0; i < n; ++i) {
        const ImuData want = decode(block + kRecord * i, s);
        FUZZ_CHECK(std::memcmp(&imu[i], &want, sizeof want) == 0);
    }
    // With every slot holding a record there is no frame time: the caller's value stays.
    FUZZ_CHECK(frame_time == (n < kSlots ? le32(block + kRecord * n) : before));
}

void checkImages(const cv::Mat& first, const cv::Mat& second, bool flipped) {
    FUZZ_CHECK(first.rows == int(kH) && first.cols == int(kW) && first.type() == CV_8UC1);
    FUZZ_CHECK(second.rows == int(kH) && second.cols == int(kW) && second.type() == CV_8UC1);
    FUZZ_CHECK(first.data != g_engine->odd_buffer && second.data != g_engine->even_buffer);
    for (size_t r = 0; r < kH; ++r) {
        const size_t src_row = flipped ? kH - 1 - r : r;
        const uint8_t* src = g_frame + 2 * kW * src_row;
        const uint8_t* a = first.ptr<uint8_t>(int(r));
        const uint8_t* b = second.ptr<uint8_t>(int(r));
        for (size_t c = 0; c < kW; ++c) {
            FUZZ_CHECK(a[c] == src[2 * c + 1]);
            FUZZ_CHECK(b[c] == src[2 * c]);
        }
    }
}

void applySettings(const Settings& s) {
    std::copy(s.bias, s.bias + 3, g_engine->gyro_bias);
    g_engine->gyro_deadband_low = s.low;
    g_engine->gyro_deadband_high = s.high;
    std::copy(s.offset, s.offset + 3, g_engine->accel_offset);
}

void runCamImu(const Settings& s) {
    cv::Mat first, second;
    std::vector<ImuData> imu(3);  // stale samples must be replaced, not appended to
    const unsigned int before = 0xC0FFEE11u;
    unsigned int frame_time = before;
    g_engine->update_cam_imu(first, second, imu, frame_time);
    checkSamples(imu, frame_time, before, kCookedBlock, s);
    checkImages(first, second, false);
}

void runImuRaw(const Settings& s) {
    std::vector<ImuData> imu(25);
    const unsigned int before = 0x5EED5EEDu;
    unsigned int frame_time = before;
    g_engine->update_imu_raw(imu, frame_time);
    checkSamples(imu, frame_time, before, kRawBlock, s);
}

void runUpdate(bool flip) {
    cv::Mat first, second;
    g_engine->new_frame = false;
    g_engine->update(first, second, flip);
    FUZZ_CHECK(g_engine->new_frame);
    checkImages(first, second, flip);
}

// Every one of the 100 frames is the recording's frame, so the mean is that frame's mean.
void runImuInit(const Settings& s, const Settings& stored) {
    const size_t n = recordCount();
    const uint8_t* block = g_frame + kBytes - kCookedBlock;
    uint32_t sums[3] = {0, 0, 0};
    for (int f = 0; f < kBiasFrames; ++f)
        for (size_t i = 0; i < n; ++i)
            for (int a = 0; a < 3; ++a) sums[a] += uint32_t(int32_t(le16(block + kRecord * i + 4 + 2 * a)));
    quietly([&] { g_engine->imu_init(stored.low, stored.high, stored.offset[0], stored.offset[1], stored.offset[2]); },
            true);
    for (int a = 0; a < 3; ++a) {
        const int32_t want = n == 0 ? s.bias[a] : int32_t(sums[a]) / int32_t(kBiasFrames * n);
        FUZZ_CHECK(g_engine->gyro_bias[a] == want);
        FUZZ_CHECK(std::memcmp(&g_engine->accel_offset[a], &stored.offset[a], sizeof(float)) == 0);
    }
    FUZZ_CHECK(std::memcmp(&g_engine->gyro_deadband_low, &stored.low, sizeof(float)) == 0);
    FUZZ_CHECK(std::memcmp(&g_engine->gyro_deadband_high, &stored.high, sizeof(float)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orvo-fuzz-frames-XXXXXX";
    FUZZ_CHECK(mkdtemp(dir) != nullptr);
    const std::string raw = std::string(dir) + "/frame.raw";

    g_base.resize(kBytes);
    std::string error;
    auto pattern = orvo::vcam::makeFrameSource("pattern", &error);
    FUZZ_CHECK(pattern != nullptr);
    orvo::vcam::FrameTruth truth;
    pattern->render(0, 0.0, g_base.data(), truth);

    const int fd = open(raw.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FUZZ_CHECK(fd >= 0 && ftruncate(fd, off_t(kBytes)) == 0);
    void* map = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    FUZZ_CHECK(map != MAP_FAILED);
    close(fd);
    g_frame = static_cast<uint8_t*>(map);
    std::memcpy(g_frame, g_base.data(), kBytes);
    // The recording is unlinked at once: the mappings keep it alive for the run.
    useVirtualCamera(kNode, "raw:" + raw);
    g_engine = makeEngine(kNode);
    unlink(raw.c_str());
    rmdir(dir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t op = in.take<uint8_t>();
    Settings s;
    for (int32_t& b : s.bias) b = in.take<int32_t>();
    s.low = in.take<float>();
    s.high = in.take<float>();
    for (float& o : s.offset) o = in.take<float>();

    std::memcpy(g_frame, g_base.data(), kBytes);
    if (in.remaining() >= kBytes)
        std::memcpy(g_frame, in.rest(), kBytes);
    else
        std::memcpy(g_frame + kBytes - in.remaining(), in.rest(), in.remaining());
    applySettings(s);

    const int choice = op % 32;
    if (choice < 12) {
        runCamImu(s);
    } else if (choice < 22) {
        runImuRaw(s);
    } else if (choice < 31) {
        runUpdate(choice & 1);
    } else {
        // The same bytes give the new dead band and offsets; the bias before is s.bias.
        Settings stored = s;
        std::reverse(stored.offset, stored.offset + 3);
        std::swap(stored.low, stored.high);
        runImuInit(s, stored);
    }
    return 0;
}
