// Depth measured over every virtual scene against its per-pixel truth (bad-pixel rate, density,
// median depth error per distance band for OpenCV's matchers and ours), then the whole loop
// grab -> rectify -> match -> metric depth -> point cloud on the free-running virtual camera,
// as process CPU time per frame. A plain program: figures, not pass/fail.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

#include <orvo/camera.hpp>
#include <orvo/stereo_matcher.hpp>
#include <orvo/vcam/statistics.hpp>

#include "scene_truth.h"  // the tests' rendering of a scene file with per-pixel truth

namespace {

constexpr int kDisparities = 64;
constexpr int kFirstColumn = kDisparities - 1;  // left of it no matcher can see the whole range
// Distance bands of the depth error, metres: [0, 1), [1, 2), [2, 4), [4, inf).
constexpr double kBands[] = {0, 1, 2, 4, 1e9};
constexpr int kBandCount = 4;

double cpu_ms() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

double median(std::vector<double> v) {
    if (v.empty()) return NAN;
    std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// The four matchers compared, each giving a CV_32F disparity (invalid: negative or NaN).
struct Contender {
    const char* name;
    std::function<cv::Mat(const cv::Mat&, const cv::Mat&)> run;
};

std::function<cv::Mat(const cv::Mat&, const cv::Mat&)> opencv(cv::Ptr<cv::StereoMatcher> m) {
    return [m](const cv::Mat& l, const cv::Mat& r) {
        cv::Mat d16, d;
        m->compute(l, r, d16);
        d16.convertTo(d, CV_32F, 1.0 / 16);
        return d;
    };
}

std::vector<Contender> contenders() {
    const int block = 5;
    auto sgbm = [&](int mode) {
        return cv::StereoSGBM::create(0, kDisparities, block, 8 * block * block, 32 * block * block,
                                      1, 63, 10, 100, 2, mode);
    };
    auto bm = cv::StereoBM::create(kDisparities, 15);
    bm->setUniquenessRatio(10);
    bm->setSpeckleWindowSize(100);
    bm->setSpeckleRange(32);
    bm->setDisp12MaxDiff(1);
    auto ours = std::make_shared<orvo::StereoMatcher>();
    return {{"SGBM HH", opencv(sgbm(cv::StereoSGBM::MODE_HH))},
            {"SGBM 3WAY", opencv(sgbm(cv::StereoSGBM::MODE_SGBM_3WAY))},
            {"StereoBM", opencv(bm)},
            {"orvo", [ours](const cv::Mat& l, const cv::Mat& r) { return ours->compute(l, r).disparity; }}};
}

// Median |depth - true depth| per band of true depth, over valid estimates the score counts.
void depth_errors(const cv::Mat& disparity, const orvo_test::RenderedScene& s, double out[kBandCount],
                  std::vector<double> all[kBandCount]) {
    std::vector<double> band[kBandCount];
    const double fb = s.geometry.fx * s.geometry.baseline;
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = kFirstColumn; x < disparity.cols; ++x) {
            const float d = disparity.at<float>(y, x);
            const float z = s.truth.depth.at<float>(y, x);
            if (!(d > 0) || !s.truth.visible.at<uint8_t>(y, x)) continue;
            int b = 0;
            while (b + 1 < kBandCount && z >= kBands[b + 1]) ++b;
            band[b].push_back(std::abs(fb / d - z));
        }
    for (int b = 0; b < kBandCount; ++b) {
        out[b] = median(band[b]);
        all[b].insert(all[b].end(), band[b].begin(), band[b].end());
    }
}

void accuracy(const std::string& data) {
    std::vector<Contender> all = contenders();
    std::vector<std::vector<double>> pooled(all.size() * kBandCount);
    std::vector<double> bad_sum(all.size()), dense_sum(all.size());
    const auto names = orvo_test::depth_scene_names();
    std::printf("per scene: bad pixels (> 2 px) %% / density %% / median |depth error| mm in bands "
                "<1, 1-2, 2-4, >4 m (columns >= %d, pixels both lenses see)\n", kFirstColumn);
    for (const std::string& name : names) {
        const auto scene = orvo_test::render_scene(data + "/" + name + ".yml");
        const auto pair = orvo_test::as_pair(scene);
        std::printf("%s\n", name.c_str());
        for (size_t c = 0; c < all.size(); ++c) {
            const cv::Mat d = all[c].run(scene.left, scene.right);
            const auto s = orvo_test::score(d, pair, kFirstColumn);
            double err[kBandCount];
            depth_errors(d, scene, err, &pooled[c * kBandCount]);
            bad_sum[c] += s.bad;
            dense_sum[c] += s.density;
            std::printf("  %-10s %6.2f %6.2f   %6.1f %6.1f %6.1f %6.1f\n", all[c].name, 100 * s.bad,
                        100 * s.density, 1e3 * err[0], 1e3 * err[1], 1e3 * err[2], 1e3 * err[3]);
        }
    }
    std::printf("\n| matcher | bad > 2 px (mean of %zu scenes) | density | median depth error <1 m | 1-2 m | 2-4 m | >4 m |\n"
                "|---|---|---|---|---|---|---|\n", names.size());
    for (size_t c = 0; c < all.size(); ++c) {
        std::printf("| %s | %.2f %% | %.1f %% |", all[c].name, 100 * bad_sum[c] / names.size(),
                    100 * dense_sum[c] / names.size());
        for (int b = 0; b < kBandCount; ++b) std::printf(" %.1f mm |", 1e3 * median(pooled[c * kBandCount + b]));
        std::printf("\n");
    }
}

// The robot's loop on the default scene, free-running: after a warm-up, process CPU time (every
// thread: capture, matcher, virtual camera) over the frames, and the wall time.
void loop(const std::string& data, int frames) {
    setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-bench-depth-loop", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", ("scene:" + data + "/default_scene/scene.yml").c_str(), 1);
    const std::string calib_dir = data + "/default_scene/";
    const orvo::Calibration calib =
        orvo::Calibration::load(calib_dir + "intrinsics.yml", calib_dir + "extrinsics.yml");
    const orvo::StereoGeometry g = calib.geometry();
    orvo::CameraOptions options;
    options.queue_depth = 1;
    orvo::Camera camera("/dev/video-virtual-bench-depth-loop", options);
    orvo::StereoMatcher matcher;
    cv::Mat left, right;
    long valid = 0;
    auto step = [&] {
        std::optional<orvo::Frame> f;
        while (!(f = camera.grab(std::chrono::milliseconds(1000)))) {}
        calib.rectify(f->left, f->right, left, right);
        const orvo::Depth d = matcher.compute(left, right, g);  // disparity, depth and points
        valid += cv::countNonZero(d.confidence);
    };
    for (int i = 0; i < 5; ++i) step();
    valid = 0;
    const double c0 = cpu_ms();
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < frames; ++i) step();
    const double cpu = cpu_ms() - c0;
    const double wall = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("\nwhole loop (grab, rectify, match, depth, points), %d frames, default scene: "
                "%.1f ms CPU per frame (%.0f %% of one core at 30 fps, %.0f %% of two), "
                "%.1f ms wall per frame, %.1f %% of pixels valid\n",
                frames, cpu / frames, cpu / frames * 3, cpu / frames * 1.5, wall / frames,
                100.0 * valid / frames / (752.0 * 480.0));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string data = argc > 1 ? argv[1] : ORVO_SOURCE_DIR "/data";
    const int frames = argc > 2 ? std::atoi(argv[2]) : 120;
    if (!orvo::vcam::statistics().streaming) {}  // keeps the virtual camera linked in
    accuracy(data);
    loop(data, frames);
    return 0;
}
