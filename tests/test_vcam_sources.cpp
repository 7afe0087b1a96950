// The virtual camera's frame sources, inertial trailer encoder, recordings and truth file,
// checked against decoders written here independently of the encoder.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "frame_source.h"
#include "run_capture.h"
#include "v4l2_client.h"
#include "vcam.h"

using orvo::vcam::FrameTruth;
using orvo::vcam::TrailerRecord;
using orvo_test::ScopedEnv;
using orvo_test::V4l2Client;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test1";
constexpr size_t kFrame = 721920;
constexpr int kW = 752, kH = 480;

uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
int16_t le16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

struct Decoded {
    unsigned count = 0;
    std::vector<TrailerRecord> records;
    bool has_time = false;
    uint32_t frame_time = 0;
};

// The trailer as a reader of the camera's frames sees it: block at L-489, 24-byte records, count
// in the last byte, frame time in the slot after the last record.
Decoded decode(const uint8_t* frame, size_t length) {
    Decoded d;
    const uint8_t* block = frame + length - 489;
    d.count = frame[length - 1];
    for (unsigned i = 0; i < d.count && i < 20; ++i) {
        const uint8_t* r = block + 24 * i;
        TrailerRecord rec;
        rec.ticks = le32(r);
        for (int a = 0; a < 3; ++a) {
            rec.gyro[a] = le16(r + 4 + 2 * a);
            rec.accel[a] = le16(r + 10 + 2 * a);
        }
        d.records.push_back(rec);
    }
    if (d.count < 20) {
        d.has_time = true;
        d.frame_time = le32(block + 24 * d.count);
    }
    return d;
}

uint64_t fnv1a(const uint8_t* p, size_t n) {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

uint8_t left(const std::vector<uint8_t>& f, int x, int y) { return f[(size_t(y) * kW + x) * 2 + 1]; }
uint8_t right(const std::vector<uint8_t>& f, int x, int y) { return f[(size_t(y) * kW + x) * 2]; }

std::string binaryPath(const char* name) { return std::string(ORVO_BINARY_DIR) + "/" + name; }

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

TEST(VcamTrailer, EncodesRecordsFrameTimeAndCountAtTheFramesEnd) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> i16(-32768, 32767);
    for (size_t n : {size_t(0), size_t(1), size_t(3), size_t(19), size_t(20), size_t(25)}) {
        std::vector<TrailerRecord> recs(n);
        for (TrailerRecord& r : recs) {
            r.ticks = uint32_t(rng());
            for (int a = 0; a < 3; ++a) {
                r.gyro[a] = int16_t(i16(rng));
                r.accel[a] = int16_t(i16(rng));
            }
        }
        std::vector<uint8_t> frame(kFrame, 0xAA);
        orvo::vcam::encodeTrailer(frame.data(), frame.size(), recs, 0x89ABCDEFu);
        Decoded d = decode(frame.data(), frame.size());
        size_t written = n < 20 ? n : 20;
        ASSERT_EQ(written, d.count) << n << " records";
        for (size_t i = 0; i < written; ++i) {
            EXPECT_EQ(recs[i].ticks, d.records[i].ticks);
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(recs[i].gyro[a], d.records[i].gyro[a]);
                EXPECT_EQ(recs[i].accel[a], d.records[i].accel[a]);
            }
            for (int b = 16; b < 24; ++b) EXPECT_EQ(0, frame[kFrame - 489 + 24 * i + b]);
        }
        EXPECT_EQ(written < 20, d.has_time);
        if (d.has_time) {
            EXPECT_EQ(0x89ABCDEFu, d.frame_time);
        }
        for (size_t b = kFrame - 9; b < kFrame - 1; ++b) EXPECT_EQ(0, frame[b]) << "reserved byte " << b;
        EXPECT_EQ(0xAA, frame[kFrame - 490]) << "nothing before the trailer is touched";
    }
    // The frame time of an empty trailer is the first word of the block, little-endian.
    std::vector<uint8_t> frame(kFrame, 0);
    orvo::vcam::encodeTrailer(frame.data(), frame.size(), {}, 0x01020304u);
    const uint8_t expect[] = {0x04, 0x03, 0x02, 0x01};
    EXPECT_EQ(0, std::memcmp(expect, &frame[kFrame - 489], 4));

    std::vector<uint8_t> tiny(488, 0x55);
    orvo::vcam::encodeTrailer(tiny.data(), tiny.size(), std::vector<TrailerRecord>(2), 1);
    EXPECT_EQ(std::vector<uint8_t>(488, 0x55), tiny) << "too short for a trailer: left alone";
    orvo::vcam::encodeTrailer(nullptr, kFrame, {}, 1);
}

TEST(VcamPattern, LensesSeeOneScrollingTextureWithAFixedDisparity) {
    std::string error;
    auto src = orvo::vcam::makeFrameSource("pattern", &error);
    ASSERT_TRUE(src) << error;

    std::vector<uint8_t> f0(kFrame), f1(kFrame), again(kFrame);
    FrameTruth t0, t1, t;
    src->render(0, 0.0, f0.data(), t0);
    src->render(1, 1.0 / 30, f1.data(), t1);
    src->render(0, 0.0, again.data(), t);
    EXPECT_EQ(f0, again) << "deterministic";
    EXPECT_NE(f0, f1);
    size_t lens_differ = 0;
    for (int y = 0; y < kH - 1; ++y) {  // the last row carries the trailer
        for (int x = 0; x + 12 < kW; ++x) {
            ASSERT_EQ(left(f0, x + 12, y), right(f0, x, y)) << x << "," << y;
            lens_differ += left(f0, x, y) != right(f0, x, y);
        }
        for (int x = 0; x + 1 < kW; ++x) ASSERT_EQ(left(f0, x + 1, y), left(f1, x, y)) << x << "," << y;
    }
    EXPECT_GT(lens_differ, size_t(kW * (kH - 1) / 2));
    EXPECT_NE(std::string::npos, t1.extra.find("source=pattern shift=1"));
    EXPECT_TRUE(t1.has_attitude);
    EXPECT_DOUBLE_EQ(std::cos(0.1 / 30), t1.attitude[0]);
    EXPECT_DOUBLE_EQ(std::sin(0.1 / 30), t1.attitude[3]);
}

TEST(VcamPattern, TrailerCarriesEveryInertialSampleOnceAndMatchesTheTruth) {
    std::string error;
    auto src = orvo::vcam::makeFrameSource("pattern", &error);
    std::vector<uint8_t> frame(kFrame);
    uint32_t expect_ticks = 0;
    for (uint64_t k = 0; k < 60; ++k) {
        FrameTruth t;
        double time = double(k) / 30;
        src->render(k, time, frame.data(), t);
        Decoded d = decode(frame.data(), kFrame);
        ASSERT_EQ(t.imu.size(), d.count);
        ASSERT_TRUE(d.has_time);
        EXPECT_EQ(uint32_t(std::llround(time * 1e6)), d.frame_time);
        EXPECT_EQ(d.frame_time, t.frame_ticks);
        for (size_t i = 0; i < d.count; ++i) {
            const auto& s = t.imu[i];
            EXPECT_EQ(expect_ticks, d.records[i].ticks) << "samples every 5 ms, none lost or repeated";
            expect_ticks += 5000;
            EXPECT_EQ(s.ticks, d.records[i].ticks);
            EXPECT_EQ(188, d.records[i].gyro[2]) << "0.2 rad/s at 57.3 deg/rad and 16.4 counts per deg/s";
            EXPECT_EQ(0, d.records[i].gyro[0]);
            EXPECT_EQ(8192, d.records[i].accel[2]) << "1 g";
            double t_s = s.ticks / 1e6;
            EXPECT_EQ(int16_t(std::lround(0.01 * std::sin(2 * M_PI * 5 * t_s) * 8192)), d.records[i].accel[0]);
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(s.gyro_raw[a], d.records[i].gyro[a]);
                EXPECT_EQ(s.accel_raw[a], d.records[i].accel[a]);
            }
            EXPECT_DOUBLE_EQ(0.2, s.gyro_rad_s[2]);
            EXPECT_DOUBLE_EQ(1.0, s.accel_g[2]);
        }
    }
    EXPECT_EQ(uint32_t(59 * 200 / 30 + 1) * 5000, expect_ticks);
    // At 5 frames a second 40 samples fall in one frame: only the newest 19 fit beside the time.
    FrameTruth t;
    src->render(1, 0.2, frame.data(), t);
    Decoded d = decode(frame.data(), kFrame);
    ASSERT_EQ(19u, d.count);
    EXPECT_EQ(200000u, d.records[18].ticks);
    EXPECT_EQ(110000u, d.records[0].ticks);
}

TEST(VcamRaw, ReplaysARecordingInOrderAndLoops) {
    std::mt19937 rng(11);
    std::vector<uint8_t> bytes(3 * kFrame);
    for (uint8_t& b : bytes) b = uint8_t(rng());
    std::string path = binaryPath("vcam_replay.raw");
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
}

TEST(VcamRaw, BadSourcesAreRefusedWithAClearMessage) {
    std::string empty = binaryPath("vcam_empty.raw"), odd = binaryPath("vcam_odd.raw");
    writeBytes(empty, {});
    writeBytes(odd, std::vector<uint8_t>(kFrame + 1));
    struct Case {
        std::string spec, message;
    } cases[] = {
        {"raw:/nonexistent/x.raw", "'raw:/nonexistent/x.raw': cannot open the file: No such file or directory"},
        {"raw:" + empty, "'raw:" + empty + "': the file is empty"},
        {"raw:" + odd, "'raw:" + odd + "': 721921 bytes is not a whole number of 721920-byte frames"},
        {"raw:", "'raw:' needs a file name (raw:FILE)"},
        {"bogus", "unknown source 'bogus' (expected pattern, raw:FILE or scene:FILE)"},
    };
    for (const Case& k : cases) {
        std::string error;
        EXPECT_FALSE(orvo::vcam::makeFrameSource(k.spec, &error));
        EXPECT_EQ(k.message, error);
    }

    // The node refuses to open on a bad setting and says why on stderr.
    ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode}, {"ORVO_VCAM_SOURCE", ("raw:" + empty).c_str()},
                  {"ORVO_VCAM_FPS", nullptr}, {"ORVO_VCAM_TRUTH", nullptr}, {"ORVO_VCAM_FAULTS", nullptr}};
    int fd = 0, err = 0;
    auto out = orvo_test::captureOutput([&] {
        fd = open(kNode, O_RDWR);
        err = errno;
    });
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(EINVAL, err);
    EXPECT_EQ("orvo-vcam: cannot open " + std::string(kNode) + ": ORVO_VCAM_SOURCE: 'raw:" + empty +
                  "': the file is empty\n",
              out.err);
    EXPECT_FALSE(orvo::vcam::statistics().active);

    ScopedEnv fps{{"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "fast"}};
    out = orvo_test::captureOutput([&] { fd = open(kNode, O_RDWR); });
    EXPECT_EQ(-1, fd);
    EXPECT_EQ("orvo-vcam: cannot open " + std::string(kNode) +
                  ": ORVO_VCAM_FPS: 'fast' is not a frame rate (a number >= 0; 0 = free-running)\n",
              out.err);
    ScopedEnv truth{{"ORVO_VCAM_FPS", nullptr}, {"ORVO_VCAM_TRUTH", "/nonexistent/truth.txt"}};
    out = orvo_test::captureOutput([&] { fd = open(kNode, O_RDWR); });
    EXPECT_EQ(-1, fd);
    EXPECT_EQ("orvo-vcam: cannot open " + std::string(kNode) +
                  ": ORVO_VCAM_TRUTH: cannot open '/nonexistent/truth.txt' for appending: No such file or directory\n",
              out.err);
}

std::map<std::string, std::string> fields(const std::string& line) {
    std::map<std::string, std::string> m;
    std::istringstream in(line);
    std::string word;
    while (in >> word) {
        size_t eq = word.find('=');
        if (eq != std::string::npos) m[word.substr(0, eq)] = word.substr(eq + 1);
    }
    return m;
}

TEST(VcamTruth, OneLinePerFrameServedWithItsSamplesHashAndTime) {
    std::string path = binaryPath("vcam_truth.txt");
    unlink(path.c_str());
    ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode}, {"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "0"},
                  {"ORVO_VCAM_TRUTH", path.c_str()}, {"ORVO_VCAM_FAULTS", nullptr}};
    struct Served {
        v4l2_buffer b;
        uint64_t hash;
        Decoded trailer;
    };
    std::vector<Served> served;
    {
        V4l2Client c(kNode);
        ASSERT_EQ(0, c.start(3));
        for (int k = 0; k < 8; ++k) {
            Served s;
            ASSERT_EQ(0, c.dequeue(&s.b));
            s.hash = fnv1a(c.data(s.b.index), kFrame);
            s.trailer = decode(c.data(s.b.index), kFrame);
            served.push_back(s);
            ASSERT_EQ(0, c.queue(s.b.index));
        }
    }
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(8u, lines.size());
    for (int k = 0; k < 8; ++k) {
        auto f = fields(lines[size_t(k)]);
        const Served& s = served[size_t(k)];
        EXPECT_EQ(std::to_string(k), f["index"]);
        EXPECT_EQ(std::to_string(s.b.sequence), f["sequence"]);
        EXPECT_DOUBLE_EQ(k / 30.0, std::stod(f["time"]));
        char ts[40];
        std::snprintf(ts, sizeof ts, "%ld.%06ld", long(s.b.timestamp.tv_sec), long(s.b.timestamp.tv_usec));
        EXPECT_EQ(ts, f["timestamp"]);
        EXPECT_EQ(std::to_string(s.trailer.frame_time), f["ticks"]);
        EXPECT_EQ("721920", f["bytes"]);
        char hash[20];
        std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(s.hash));
        EXPECT_EQ(hash, f["hash"]);
        ASSERT_EQ(std::to_string(s.trailer.count), f["imu"]);
        for (unsigned i = 0; i < s.trailer.count; ++i) {
            // imuI=ticks:gx,gy,gz:ax,ay,az:raw gyro:raw accel
            std::string v = f["imu" + std::to_string(i)];
            unsigned ticks;
            double g[3], a[3];
            int rg[3], ra[3];
            ASSERT_EQ(13, std::sscanf(v.c_str(), "%u:%lf,%lf,%lf:%lf,%lf,%lf:%d,%d,%d:%d,%d,%d", &ticks, &g[0], &g[1],
                                      &g[2], &a[0], &a[1], &a[2], &rg[0], &rg[1], &rg[2], &ra[0], &ra[1], &ra[2]))
                << v;
            const TrailerRecord& r = s.trailer.records[i];
            EXPECT_EQ(r.ticks, ticks);
            for (int x = 0; x < 3; ++x) {
                EXPECT_EQ(r.gyro[x], rg[x]);
                EXPECT_EQ(r.accel[x], ra[x]);
            }
            EXPECT_DOUBLE_EQ(0.2, g[2]);
        }
        double w, x, y, z;
        ASSERT_EQ(4, std::sscanf(f["attitude"].c_str(), "%lf,%lf,%lf,%lf", &w, &x, &y, &z));
        EXPECT_DOUBLE_EQ(std::cos(0.1 * k / 30), w);
        EXPECT_DOUBLE_EQ(std::sin(0.1 * k / 30), z);
        EXPECT_EQ("pattern", f["source"]);
        EXPECT_EQ(std::to_string(k), f["shift"]);
    }
}

}  // namespace
