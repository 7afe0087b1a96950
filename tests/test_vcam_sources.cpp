// The virtual camera's test pattern, trailer encoder and recordings, checked against a decoder
// written here independently of the encoder.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <random>

#include "frame_source.h"
#include "run_capture.h"
#include "v4l2_client.h"
#include "vcam.h"

using orvo::vcam::FrameTruth;
using orvo::vcam::TrailerRecord;
using orvo_test::ScopedEnv;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test1";
constexpr size_t kFrame = 721920;
constexpr int kW = 752, kH = 480;

uint32_t le32(const uint8_t* p) { return uint32_t(p[0] | p[1] << 8 | p[2] << 16) | uint32_t(p[3]) << 24; }

// The trailer as a reader sees it: block at L-489, 24-byte records, count in the last byte,
// frame time in the slot after the last record (none, read as 0, when all 20 are used).
struct Decoded {
    unsigned count = 0;
    std::vector<TrailerRecord> records;
    uint32_t frame_time = 0;
};
Decoded decode(const uint8_t* frame, size_t length = kFrame) {
    Decoded d;
    const uint8_t* block = frame + length - 489;
    d.count = frame[length - 1];
    for (unsigned i = 0; i < d.count && i < 20; ++i) {
        const uint8_t* r = block + 24 * i;
        TrailerRecord rec;
        rec.ticks = le32(r);
        for (int a = 0; a < 3; ++a) {
            rec.gyro[a] = int16_t(r[4 + 2 * a] | r[5 + 2 * a] << 8);
            rec.accel[a] = int16_t(r[10 + 2 * a] | r[11 + 2 * a] << 8);
        }
        d.records.push_back(rec);
    }
    if (d.count < 20) d.frame_time = le32(block + 24 * d.count);
    return d;
}

std::string binaryPath(const char* name) { return std::string(ORVO_BINARY_DIR) + "/" + name; }

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

TEST(VcamTrailer, EncodesRecordsFrameTimeAndCountAtTheFramesEnd) {
    std::mt19937 rng(7);
    for (size_t n : {0, 1, 3, 19, 20, 25}) {
        SCOPED_TRACE(n);
        std::vector<TrailerRecord> recs(n);
        for (TrailerRecord& r : recs) {
            r.ticks = uint32_t(rng());
            for (int a = 0; a < 3; ++a) r.gyro[a] = int16_t(rng()), r.accel[a] = int16_t(rng());
        }
        std::vector<uint8_t> frame(kFrame, 0xAA);
        orvo::vcam::encodeTrailer(frame.data(), frame.size(), recs, 0x89ABCDEFu);
        const Decoded d = decode(frame.data());
        const size_t written = std::min<size_t>(n, 20);
        ASSERT_EQ(written, d.count);
        for (size_t i = 0; i < written; ++i) {
            EXPECT_EQ(0, std::memcmp(&recs[i].ticks, &d.records[i].ticks, 4));
            EXPECT_EQ(0, std::memcmp(recs[i].gyro, d.records[i].gyro, 6));
            EXPECT_EQ(0, std::memcmp(recs[i].accel, d.records[i].accel, 6));
            for (int b = 16; b < 24; ++b) EXPECT_EQ(0, frame[kFrame - 489 + 24 * i + b]) << "padding " << i;
        }
        EXPECT_EQ(written < 20 ? 0x89ABCDEFu : 0u, d.frame_time);
        for (size_t b = kFrame - 9; b < kFrame - 1; ++b) EXPECT_EQ(0, frame[b]) << "reserved byte " << b;
        EXPECT_EQ(0xAA, frame[kFrame - 490]) << "nothing before the trailer is touched";
    }
    // The frame time of an empty trailer is the first word of the block, little-endian.
    std::vector<uint8_t> frame(kFrame, 0);
    orvo::vcam::encodeTrailer(frame.data(), frame.size(), {}, 0x01020304u);
    EXPECT_EQ(0, std::memcmp("\x04\x03\x02\x01", &frame[kFrame - 489], 4));
    std::vector<uint8_t> tiny(488, 0x55);
    orvo::vcam::encodeTrailer(tiny.data(), tiny.size(), std::vector<TrailerRecord>(2), 1);
    EXPECT_EQ(std::vector<uint8_t>(488, 0x55), tiny) << "too short for a trailer: left alone";
    orvo::vcam::encodeTrailer(nullptr, kFrame, {}, 1);
}

TEST(VcamPattern, LensesSeeOneScrollingTextureWithAFixedDisparityAndEverySampleOnce) {
    std::string error;
    auto src = orvo::vcam::makeFrameSource("pattern", &error);
    ASSERT_TRUE(src) << error;
    std::vector<std::vector<uint8_t>> f(2, std::vector<uint8_t>(kFrame));  // the first two frames
    std::vector<uint8_t> frame(kFrame);
    uint32_t expect_ticks = 0;
    for (uint64_t k = 0; k < 60; ++k) {
        FrameTruth t;
        src->render(k, k / 30.0, frame.data(), t);
        if (k < 2) f[k] = frame;
        const Decoded d = decode(frame.data());
        ASSERT_EQ(t.imu.size(), d.count);
        EXPECT_EQ(uint32_t(std::llround(k / 30.0 * 1e6)), d.frame_time);
        EXPECT_EQ(d.frame_time, t.frame_ticks);
        for (size_t i = 0; i < d.count; ++i, expect_ticks += 5000) {
            const TrailerRecord& r = d.records[i];
            EXPECT_EQ(expect_ticks, r.ticks) << "samples every 5 ms, none lost or repeated";
            EXPECT_EQ(t.imu[i].ticks, r.ticks);
            EXPECT_EQ(0, std::memcmp(t.imu[i].gyro_raw, r.gyro, 6));
            EXPECT_EQ(0, std::memcmp(t.imu[i].accel_raw, r.accel, 6));
            EXPECT_TRUE(r.gyro[0] == 0 && r.gyro[2] == 188) << "0.2 rad/s at 57.3 deg/rad and 16.4 counts per deg/s";
            EXPECT_EQ(8192, r.accel[2]) << "1 g";
            EXPECT_EQ(int16_t(std::lround(0.01 * std::sin(2 * M_PI * 5 * r.ticks / 1e6) * 8192)), r.accel[0]);
            EXPECT_TRUE(t.imu[i].gyro_rad_s[2] == 0.2 && t.imu[i].accel_g[2] == 1.0);
        }
        EXPECT_EQ("source=pattern shift=" + std::to_string(k) + " disparity=12", t.extra);
        ASSERT_TRUE(t.has_attitude);
        EXPECT_DOUBLE_EQ(std::cos(0.1 * k / 30), t.attitude[0]);
        EXPECT_DOUBLE_EQ(std::sin(0.1 * k / 30), t.attitude[3]);
    }
    EXPECT_EQ(uint32_t(59 * 200 / 30 + 1) * 5000, expect_ticks);
    // The left lens at x + 12 is the right lens at x; the next frame is scrolled by one pixel.
    const auto left = [&](int k, int x, int y) { return f[k][(size_t(y) * kW + x) * 2 + 1]; };
    const auto right = [&](int k, int x, int y) { return f[k][(size_t(y) * kW + x) * 2]; };
    size_t lens_differ = 0;
    for (int y = 0; y < kH - 1; ++y) {  // the last row carries the trailer
        for (int x = 0; x + 12 < kW; ++x) {
            ASSERT_EQ(left(0, x + 12, y), right(0, x, y)) << x << "," << y;
            lens_differ += left(0, x, y) != right(0, x, y);
        }
        for (int x = 0; x + 1 < kW; ++x) ASSERT_EQ(left(0, x + 1, y), left(1, x, y)) << x << "," << y;
    }
    EXPECT_GT(lens_differ, size_t(kW * (kH - 1) / 2));
    FrameTruth t;
    src->render(0, 0.0, frame.data(), t);
    EXPECT_EQ(f[0], frame) << "deterministic";
    // At 5 frames a second 40 samples fall in one frame: only the newest 19 fit beside the time.
    src->render(1, 0.2, frame.data(), t);
    const Decoded d = decode(frame.data());
    ASSERT_EQ(19u, d.count);
    EXPECT_EQ(110000u, d.records[0].ticks);
    EXPECT_EQ(200000u, d.records[18].ticks);
}

TEST(VcamRaw, ReplaysARecordingInOrderAndLoopsAndBadSourcesAreRefusedWithAClearMessage) {
    std::mt19937 rng(11);
    std::vector<uint8_t> bytes(3 * kFrame);
    for (uint8_t& b : bytes) b = uint8_t(rng());
    const std::string path = binaryPath("vcam_replay.raw");
    writeBytes(path, bytes);
    std::string error;
    auto src = orvo::vcam::makeFrameSource("raw:" + path, &error);
    ASSERT_TRUE(src) << error;
    EXPECT_EQ("raw:" + path, src->describe());
    std::vector<uint8_t> frame(kFrame);
    for (uint64_t k = 0; k < 7; ++k) {
        FrameTruth t;
        src->render(k, 0, frame.data(), t);
        ASSERT_EQ(0, std::memcmp(frame.data(), &bytes[(k % 3) * kFrame], kFrame)) << "frame " << k;
        EXPECT_EQ("source=raw frame=" + std::to_string(k % 3), t.extra);
    }

    const std::string empty = binaryPath("vcam_empty.raw"), odd = binaryPath("vcam_odd.raw");
    writeBytes(empty, {});
    writeBytes(odd, std::vector<uint8_t>(kFrame + 1));
    const std::pair<std::string, std::string> cases[] = {
        {"raw:/nonexistent/x.raw", "'raw:/nonexistent/x.raw': cannot open the file: No such file or directory"},
        {"raw:" + empty, "'raw:" + empty + "': the file is empty"},
        {"raw:" + odd, "'raw:" + odd + "': 721921 bytes is not a whole number of 721920-byte frames"},
        {"raw:", "'raw:' needs a file name (raw:FILE)"},
        {"bogus", "unknown source 'bogus' (expected pattern, raw:FILE or scene:FILE)"},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(orvo::vcam::makeFrameSource(c.first, &error)) << c.first;
        EXPECT_EQ(c.second, error);
    }

    // The node refuses to open on a bad setting and says why on stderr.
    const std::string raw_empty = "raw:" + empty;
    struct Open {
        const char *source, *fps, *truth;
        std::string message;
    } opens[] = {
        {raw_empty.c_str(), nullptr, nullptr, "ORVO_VCAM_SOURCE: '" + raw_empty + "': the file is empty"},
        {"pattern", "fast", nullptr, "ORVO_VCAM_FPS: 'fast' is not a frame rate (a number >= 0; 0 = free-running)"},
        {"pattern", nullptr, "/nonexistent/truth.txt",
         "ORVO_VCAM_TRUTH: cannot open '/nonexistent/truth.txt' for appending: No such file or directory"},
    };
    for (const Open& o : opens) {
        ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode}, {"ORVO_VCAM_SOURCE", o.source}, {"ORVO_VCAM_FPS", o.fps},
                      {"ORVO_VCAM_TRUTH", o.truth}, {"ORVO_VCAM_FAULTS", nullptr}};
        int fd = 0, err = 0;
        const auto out = orvo_test::captureOutput([&] {
            fd = open(kNode, O_RDWR);
            err = errno;
        });
        EXPECT_EQ(-1, fd);
        EXPECT_EQ(EINVAL, err);
        EXPECT_EQ("orvo-vcam: cannot open " + std::string(kNode) + ": " + o.message + "\n", out.err);
        EXPECT_FALSE(orvo::vcam::statistics().active);
    }
}

}  // namespace
