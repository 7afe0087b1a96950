// Shared fixtures of the engine, rectification and facade suites: the virtual camera's environment,
// crafted raw frames with inertial trailers and an independent trailer decoder.
#pragma once

#include <stdlib.h>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>  // used by the suites that include this header
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include "OrvoCamera.h"
#include "StereoCamera.h"
#include <orvo/vcam/rig.hpp>
#include "run_capture.h"
#include "scratch_dir.h"
#include "v4l2_client.h"

namespace engine_test {

// The camera's wire format, written out here independently of the library's own constants.
constexpr int kW = 752, kH = 480;
constexpr size_t kCookedBlockFromEnd = 489;  // where the facade's path finds the record block
constexpr size_t kRawBlockFromEnd = 481;     // where the inertial-only path finds it
constexpr size_t kRecordBytes = 24;

using Frame = std::vector<uint8_t>;
using TempDir = orvo_test::ScratchDir;

// Points the virtual camera (free-running) at a frame source for cameras opened in its lifetime.
struct VirtualCamera : orvo_test::VirtualNode {
    explicit VirtualCamera(const std::string& source, const std::string& faults = "")
        : VirtualNode(device(), source.c_str(), faults.empty() ? nullptr : faults.c_str()) {}
    static const char* device() { return "/dev/video-virtual-engine"; }
};

// A frame of random pixels and random trailer bytes whose count byte is `count`.
inline Frame randomFrame(std::mt19937& rng, uint8_t count) {
    Frame f(size_t(kW) * kH * 2);
    std::uniform_int_distribution<int> byte(0, 255);
    for (auto& b : f) b = uint8_t(byte(rng));
    f.back() = count;
    return f;
}

// Overwrites the readings of slot `slot` of the block lying block_from_end bytes before the frame's end.
inline void putRecord(Frame& f, size_t block_from_end, int slot, const int16_t gyro[3], const int16_t accel[3]) {
    uint8_t* rec = f.data() + f.size() - block_from_end + kRecordBytes * slot;
    for (int a = 0; a < 6; ++a) {
        const uint16_t v = uint16_t(a < 3 ? gyro[a] : accel[a - 3]);
        rec[4 + 2 * a] = uint8_t(v);
        rec[5 + 2 * a] = uint8_t(v >> 8);
    }
}

inline std::string writeRaw(const TempDir& dir, const std::vector<Frame>& frames, const std::string& name = "frames.raw") {
    std::ofstream out(dir.file(name), std::ios::binary);
    for (const Frame& f : frames) out.write(reinterpret_cast<const char*>(f.data()), f.size());
    return dir.file(name);
}
inline uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
inline int16_t le16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }
struct DecodeSettings {  // gyro bias (counts), dead band (deg/s), accelerometer offsets (g)
    int32_t bias[3] = {0, 0, 0};
    float low = 0, high = 0, offset[3] = {0, 0, 0};
};

// The samples a trailer should decode to: `records` slots of the block at block_from_end.
inline std::vector<ImuData> expectedSamples(const Frame& f, size_t block_from_end, int records,
                                            const DecodeSettings& s = DecodeSettings()) {
    std::vector<ImuData> out;
    for (int i = 0; i < records; ++i) {
        const uint8_t* rec = f.data() + f.size() - block_from_end + kRecordBytes * i;
        float rate[3], accel[3];
        for (int a = 0; a < 3; ++a) {
            float deg_s = float(int32_t(le16(rec + 4 + 2 * a)) - s.bias[a]) / 16.4f;
            if (s.low < deg_s && deg_s < s.high) deg_s = 0.0f;
            rate[a] = float(double(deg_s) / 57.3);
            accel[a] = std::fmaf(float(le16(rec + 10 + 2 * a)), 1.0f / 8192.0f, s.offset[a]);
        }
        out.push_back(ImuData{le32(rec), accel[0], accel[1], accel[2], rate[0], rate[1], rate[2]});
    }
    return out;
}

inline uint32_t slotTime(const Frame& f, size_t block_from_end, int count) {
    return le32(f.data() + f.size() - block_from_end + kRecordBytes * count);
}

// Bit-for-bit comparison (so that -0.0 and 0.0, or one unit in the last place, differ).
inline void expectSameSamples(const std::vector<ImuData>& actual, const std::vector<ImuData>& expected,
                              const std::string& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (size_t i = 0; i < actual.size(); ++i)
        EXPECT_EQ(0, std::memcmp(&actual[i], &expected[i], sizeof(ImuData))) << what << " record " << i;
}

// The grey image made of every second byte of the frame, from byte `first`.
inline cv::Mat interleavedImage(const Frame& f, int first) {
    cv::Mat img(kH, kW, CV_8UC1);
    for (size_t i = 0; i < size_t(kW) * kH; ++i) img.data[i] = f[2 * i + first];
    return img;
}
inline bool sameImage(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// An engine on the virtual camera, its start-up chatter captured.
inline std::unique_ptr<StereoCamera> makeEngine(const std::string& intrinsics, const std::string& extrinsics,
                                                const std::string& fisheye, std::string* out = nullptr) {
    DeviceParameter p{};
    p.video_path = VirtualCamera::device();
    p.intrinsics_path = intrinsics;
    p.extrinsics_path = extrinsics;
    p.fisheye_path = fisheye;
    p.width = kW;
    p.height = kH;
    std::unique_ptr<StereoCamera> engine;
    auto c = orvo_test::captureOutput([&] { engine.reset(new StereoCamera(p)); });
    if (out) *out = c.out;
    return engine;
}
inline std::unique_ptr<OrvoCamera> makeFacade(const std::string& intrinsics, const std::string& extrinsics,
                                              const std::string& fisheye = "") {
    OrvoCameraParameterList p;
    p.device_path = VirtualCamera::device();
    p.intrinsics_file = intrinsics;
    p.extrinsics_file = extrinsics;
    p.fisheye_file = fisheye;
    std::unique_ptr<OrvoCamera> facade;
    orvo_test::captureOutput([&] { facade.reset(new OrvoCamera(p)); });
    return facade;
}

// Stereo calibration files of the default rig in dir: {intrinsics, extrinsics}.
inline std::pair<std::string, std::string> writeStereoFiles(const TempDir& dir) {
    EXPECT_TRUE(orvo::vcam::Rig().writeStereo(dir.file("intrinsics.yml"), dir.file("extrinsics.yml")));
    return {dir.file("intrinsics.yml"), dir.file("extrinsics.yml")};
}

// A fisheye rig's file, told apart from the default pinhole rig (focal 430) by its focal length, 300.
inline std::string writeFisheyeFile(const TempDir& dir) {
    orvo::vcam::RigSpec s;
    s.fisheye = true;
    s.focal = 300.0;
    s.dist_left = {0.05, -0.01, 0.002, -0.0005, 0.0};
    s.dist_right = {0.045, -0.008, 0.001, -0.0004, 0.0};
    EXPECT_TRUE(orvo::vcam::Rig(s).writeFisheye(dir.file("fisheye.yml")));
    return dir.file("fisheye.yml");
}

// Rewrites a calibration file's matrices through edit (which may change or erase entries).
inline void editMatrices(const std::string& path, const std::function<void(std::map<std::string, cv::Mat>&)>& edit) {
    std::map<std::string, cv::Mat> mats;
    cv::FileStorage in(path, cv::FileStorage::READ);
    ASSERT_TRUE(in.isOpened()) << path;
    for (cv::FileNode node : in.root()) node >> mats[node.name()];
    in.release();
    edit(mats);
    cv::FileStorage out(path, cv::FileStorage::WRITE);
    for (auto& [name, m] : mats) out << name << m;
}

}  // namespace engine_test
