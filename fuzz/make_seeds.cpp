// Writes the seed corpora of the fuzz targets from known ground truth: pattern frames with crafted
// trailers, the synthetic rig's calibration files (and broken variants of them), and disparity
// maps of a plane seen by the default rig.
// Usage: make_seeds OUT_DIR   (creates OUT_DIR/frames, OUT_DIR/calibration, OUT_DIR/depth)
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <orvo/vcam/frame_source.hpp>
#include <orvo/vcam/rig.hpp>

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T>
void put(Bytes& b, T v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    b.insert(b.end(), p, p + sizeof v);
}

bool writeFile(const std::string& path, const Bytes& b) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
    return bool(out);
}

// ---- frames ------------------------------------------------------------------------------------

// Header of the frames target, then the frame's last `tail` bytes with the count byte forced.
Bytes frameSeed(uint8_t op, float low, float high, const Bytes& frame, size_t tail, uint8_t count) {
    Bytes b;
    put<uint8_t>(b, op);
    for (int32_t bias : {3, -4, 188}) put(b, bias);
    put(b, low);
    put(b, high);
    for (float o : {0.0f, 0.01f, -0.02f}) put(b, o);
    b.insert(b.end(), frame.end() - long(tail), frame.end());
    b.back() = count;
    return b;
}

int frameSeeds(const std::string& dir) {
    std::string error;
    auto source = orvo::vcam::makeFrameSource("pattern", &error);
    if (!source) {
        std::fprintf(stderr, "pattern source: %s\n", error.c_str());
        return 1;
    }
    Bytes frame(752 * 480 * 2);
    orvo::vcam::FrameTruth truth;
    source->render(7, 7.0 / 30, frame.data(), truth);
    int n = 0;
    const uint8_t ops[] = {0, 12, 22, 23, 31};
    const uint8_t counts[] = {0, 1, 6, 19, 20, 21, 255};
    for (uint8_t op : ops)
        for (uint8_t count : counts) {
            const bool band = (op + count) % 2;
            const Bytes seed = frameSeed(op, band ? -0.5f : 0.0f, band ? 0.5f : 0.0f, frame, 600, count);
            if (!writeFile(dir + "/seed" + std::to_string(n++), seed)) return 1;
        }
    return 0;
}

// ---- calibration files ---------------------------------------------------------------------------

using Entries = std::vector<std::pair<std::string, cv::Mat>>;

std::string storageText(const Entries& entries, int format) {
    cv::FileStorage fs(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY | format);
    for (const auto& [key, m] : entries) fs << key << m;
    return fs.releaseAndGetString();
}

int calibrationSeeds(const std::string& dir) {
    const orvo::vcam::Rig pin;
    const orvo::vcam::Rig fish(orvo::vcam::fisheyeRigSpec());
    // One file that every layout can read: both stereo files' keys and the one-lens keys.
    Entries all = {{"M1", pin.K1}, {"D1", pin.D1}, {"M2", pin.K2}, {"D2", pin.D2}, {"R", pin.R},
                   {"T", pin.T},   {"R1", pin.R1}, {"R2", pin.R2}, {"P1", pin.P1}, {"P2", pin.P2},
                   {"Q", pin.Q},   {"camera_matrix", pin.K1}, {"distortion_coefficients", pin.D1},
                   {"K1", fish.K1}, {"K2", fish.K2}};
    Entries fisheye = {{"K1", fish.K1}, {"K2", fish.K2}, {"D1", fish.D1}, {"D2", fish.D2},
                       {"R1", fish.R1}, {"R2", fish.R2}, {"P1", fish.P1}, {"P2", fish.P2}};
    Entries intrinsics(all.begin(), all.begin() + 4), extrinsics(all.begin() + 4, all.begin() + 11);
    Entries mono = {{"camera_matrix", pin.K1}, {"distortion_coefficients", pin.D1}};

    std::vector<std::pair<std::string, std::string>> files = {
        {"all.yml", storageText(all, cv::FileStorage::FORMAT_YAML)},
        {"fisheye.yml", storageText(fisheye, cv::FileStorage::FORMAT_YAML)},
        {"intrinsics.yml", storageText(intrinsics, cv::FileStorage::FORMAT_YAML)},
        {"extrinsics.yml", storageText(extrinsics, cv::FileStorage::FORMAT_YAML)},
        {"mono.yml", storageText(mono, cv::FileStorage::FORMAT_YAML)},
        {"all.xml", storageText(all, cv::FileStorage::FORMAT_XML)},
        {"all.json", storageText(all, cv::FileStorage::FORMAT_JSON)},
        {"all-base64.yml", storageText(all, cv::FileStorage::FORMAT_YAML | cv::FileStorage::BASE64)},
        {"empty.yml", ""},
        {"header-only.yml", "%YAML:1.0\n---\n"},
    };
    // Wrong shapes and types where the builders expect 3x3 and 3x4 doubles.
    Entries odd = all;
    odd[0].second = cv::Mat::eye(2, 2, CV_64F);                 // M1
    odd[9].second = cv::Mat::ones(3, 3, CV_32F);                // P2
    odd[4].second = cv::Mat(3, 3, CV_32S, cv::Scalar(1));       // R
    odd[1].second = cv::Mat();                                  // D1 empty
    files.push_back({"odd-shapes.yml", storageText(odd, cv::FileStorage::FORMAT_YAML)});
    Entries nan = all;
    nan[0].second = pin.K1.clone();
    nan[0].second.at<double>(0, 0) = std::nan("");
    nan[9].second = pin.P2.clone();
    nan[9].second.at<double>(0, 0) = 0.0;
    files.push_back({"nan-focal.yml", storageText(nan, cv::FileStorage::FORMAT_YAML)});
    Entries no_p2(all.begin(), all.begin() + 9);
    files.push_back({"no-p2.yml", storageText(no_p2, cv::FileStorage::FORMAT_YAML)});

    for (const auto& [name, text] : files)
        if (!writeFile(dir + "/" + name, Bytes(text.begin(), text.end()))) return 1;
    return 0;
}

// ---- disparity maps --------------------------------------------------------------------------------

// A wall `depth` metres ahead of the default rig seen through a rows x cols window, with a box in
// front of part of it, as raw float disparities.
Bytes depthSeed(uint8_t flags, double half_width, double height, double max_depth, double tilt,
                int rows, int cols, uint8_t image, double depth) {
    Bytes b;
    put<uint8_t>(b, flags);
    for (double v : {half_width, height, max_depth, tilt}) put(b, v);
    put<uint8_t>(b, uint8_t(rows - 1));
    put<uint8_t>(b, uint8_t(cols - 1));
    put<uint8_t>(b, image);
    put<uint8_t>(b, 3);
    const double bf = 430.0 * 0.12;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const bool box = c > cols / 3 && c < cols / 2 && r < rows / 2;
            float d = float(bf / (box ? depth / 2 : depth));
            if ((r * 7 + c * 3) % 29 == 0) d = 0.0f;  // holes the matcher leaves
            put(b, d);
        }
    return b;
}

int depthSeeds(const std::string& dir) {
    const std::vector<Bytes> seeds = {
        depthSeed(0, 1.5, 2.0, 10.0, 0.0, 48, 64, 5, 3.0),
        depthSeed(0, 1.5, 2.0, 10.0, 0.2, 48, 64, 1, 2.0),
        depthSeed(8, 0.5, 0.5, 4.0, -0.3, 30, 40, 4, 1.2),
        depthSeed(4, 1.0, 1.0, 5.0, 0.0, 16, 16, 2, 1.0),
        depthSeed(16, 1.0, 1.0, 5.0, 0.0, 8, 8, 0, 1.0),
    };
    for (size_t i = 0; i < seeds.size(); ++i)
        if (!writeFile(dir + "/seed" + std::to_string(i), seeds[i])) return 1;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    for (const char* sub : {"", "/frames", "/calibration", "/depth"}) mkdir((out + sub).c_str(), 0755);
    if (frameSeeds(out + "/frames") || calibrationSeeds(out + "/calibration") ||
        depthSeeds(out + "/depth"))
        return 1;
    return 0;
}
