// Benchmarks of the depth operations beside the block matchers they must call, on one synthetic
// rectified pair: the nearest-point search against StereoBM::compute alone, getDisparity against
// StereoSGBM::compute alone (timed in alternation; see the counters), and the point-cloud pass
// against the plain per-pixel loop.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "paired_timing.h"
#include <orvo/vcam/statistics.hpp>

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();

// A textured rectified pair: a far wall (disparity 20 px), a nearer box (48 px) and the floor.
void makePair(cv::Mat& left, cv::Mat& right) {
    const int rows = 480, cols = 752;
    cv::Mat noise(rows, cols + 128, CV_8U);
    cv::RNG rng(12345);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::GaussianBlur(noise, noise, cv::Size(5, 5), 1.2);
    left = noise(cv::Rect(0, 0, cols, rows)).clone();
    right.create(rows, cols, CV_8U);
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            int d = 20;
            if (r > 150 && r < 330 && c > 300 && c < 460) d = 48;
            if (r >= 330) d = 20 + (r - 330) / 4;
            right.at<uint8_t>(r, c) = noise.at<uint8_t>(r, std::min(c + d, cols + 127));
        }
    }
}

// One facade on the virtual camera, its rectified images replaced by the synthetic pair and the
// engine given a plausible rectified camera (focal 430 px, baseline 0.12 m).
struct Fixture {
    std::unique_ptr<OrvoCamera> camera;
    Fixture() {
        setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-bench-depth", 1);
        setenv("ORVO_VCAM_SOURCE", "pattern", 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        OrvoCameraParameterList list;
        list.device_path = "/dev/video-virtual-bench-depth";
        camera.reset(new OrvoCamera(list));
        // Also keeps the virtual camera linked in: nothing else here names it.
        if (!orvo::vcam::statistics().streaming) std::fprintf(stderr, "the camera is not streaming\n");
        makePair(camera->rect_image_1, camera->rect_image_2);
        camera_->cx = 371.0;
        camera_->cy = 243.0;
        camera_->fx = 430.0;
        camera_->fy = 430.0;
        camera_->baseline = 0.12;
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

const winpar kLevel{1.0, 0.6, 5.0, 0.0};
const winpar kTilted{1.0, 0.6, 5.0, 0.15};

// getNearestPoint against StereoBM::compute alone; arguments: OpenCV threads, tilted region.
void BM_NearestPointVsBlockMatcher(benchmark::State& state) {
    Fixture& f = fixture();
    const winpar base_region = state.range(1) ? kTilted : kLevel;
    std::vector<nerapot> bins(360);
    cv::Point3d nearest;
    cv::Mat out;
    cv::setNumThreads(int(state.range(0)));
    orvo_bench::paired(
        state,
        [&] {
            winpar region = base_region;
            f.camera->getNearestPoint(region, bins.data(), nearest);
            benchmark::DoNotOptimize(nearest);
        },
        [&] {
            bm_->compute(f.camera->rect_image_1, f.camera->rect_image_2, out);
            benchmark::DoNotOptimize(out.data);
        });
    state.counters["nearest_z"] = nearest.z;
    cv::setNumThreads(-1);
}

// getDisparity against StereoSGBM::compute alone; argument: OpenCV threads.
void BM_DisparityVsSemiGlobalMatcher(benchmark::State& state) {
    Fixture& f = fixture();
    cv::Mat out, disp;
    cv::setNumThreads(int(state.range(0)));
    orvo_bench::paired(
        state,
        [&] {
            f.camera->getDisparity(disp);
            benchmark::DoNotOptimize(disp.data);
        },
        [&] {
            sgbm_->compute(f.camera->rect_image_1, f.camera->rect_image_2, out);
            benchmark::DoNotOptimize(out.data);
        });
    cv::setNumThreads(-1);
}

// The block matcher's disparity of the pair, in pixels, as the search sees it.
cv::Mat floatDisparity() {
    Fixture& f = fixture();
    cv::Mat raw, disp;
    bm_->compute(f.camera->rect_image_1, f.camera->rect_image_2, raw);
    raw.convertTo(disp, CV_32F, 0.0625, 0);
    return disp;
}

void BM_DispToPointCloud(benchmark::State& state) {
    const cv::Mat disp = floatDisparity();
    const winpar region = state.range(0) ? kTilted : kLevel;
    std::vector<nerapot> bins(360);
    for (auto _ : state) {
        for (nerapot& b : bins) b.min_depth = kEmpty;
        camera_->DispToPointCloud(disp, bins.data(), region);
        benchmark::DoNotOptimize(bins.data());
    }
}

// The same pass as a plain loop over every pixel, for comparison.
void BM_PlainPointCloudLoop(benchmark::State& state) {
    const cv::Mat disp = floatDisparity();
    const winpar w = state.range(0) ? kTilted : kLevel;
    const StereoCamera& e = *camera_;
    std::vector<nerapot> bins(360);
    for (auto _ : state) {
        for (nerapot& b : bins) b.min_depth = kEmpty;
        for (int r = 0; r < disp.rows; ++r)
            for (int c = 0; c < disp.cols; ++c) {
                const float d = disp.at<float>(r, c);
                if (d == 0.0) continue;
                double X = (c - e.cx) * e.baseline / d;
                double Y = (r - e.cy) * e.baseline / d;
                double Z = e.baseline * e.fx / d;
                if (w.tilt != 0) {
                    const double s = std::sin(w.tilt), k = std::cos(w.tilt);
                    const double Yn = Y * k - Z * s;
                    Z = Y * s + Z * k;
                    Y = Yn;
                }
                if (Z > 0.4 && Z < w.max_depth && Y > -w.height && Y < 0 &&
                    X > e.baseline / 2 - w.half_width && X < e.baseline / 2 + w.half_width) {
                    const double angle = std::atan2(Z, X);
                    const int idx = std::min(359, int((angle - e.angle_min) / e.deg_to_rad));
                    if (bins[size_t(idx)].min_depth > Z) bins[size_t(idx)] = nerapot{X, Y, Z, Z, angle};
                }
            }
        benchmark::DoNotOptimize(bins.data());
    }
}

}  // namespace

BENCHMARK(BM_NearestPointVsBlockMatcher)
    ->Args({1, 0})->Args({2, 0})->Args({1, 1})->Args({2, 1})
    ->Iterations(60)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DisparityVsSemiGlobalMatcher)
    ->Arg(1)->Arg(2)->Iterations(8)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DispToPointCloud)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_PlainPointCloudLoop)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
