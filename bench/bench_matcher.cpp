// orvo::StereoMatcher beside OpenCV's matchers at 752 x 480, 64 disparities, on a rendered pair with
// per-pixel truth: time ratios (wall and CPU, timed in alternation) and, after the timings, the
// bad-pixel rate (> 2 px) and density of each against the truth.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

#include "paired_timing.h"
#include "stereo_scene.h"  // the tests' rendered pairs with per-pixel truth
#include "orvo/stereo_matcher.hpp"

namespace {

const orvo_test::StereoPair& scene() {
    static const cv::Size size(752, 480);
    static const orvo_test::StereoPair pair = orvo_test::render(size, orvo_test::default_layers(size), 7);
    return pair;
}

cv::Ptr<cv::StereoSGBM> sgbm(int mode) {
    const int block = 5;
    return cv::StereoSGBM::create(0, 64, block, 8 * block * block, 32 * block * block, 1, 63, 10, 100,
                                  2, mode);
}

cv::Ptr<cv::StereoBM> block_matcher() {
    auto bm = cv::StereoBM::create(64, 15);
    bm->setUniquenessRatio(10);
    bm->setSpeckleWindowSize(100);
    bm->setSpeckleRange(32);
    bm->setDisp12MaxDiff(1);
    return bm;
}

// Each contender: a name and the disparity (CV_32F pixels, invalid negative or NaN) it computes.
struct Contender {
    const char* name;
    std::function<cv::Mat(const cv::Mat&, const cv::Mat&)> run;
};

std::vector<Contender>& contenders() {
    static std::vector<Contender> all = [] {
        std::vector<Contender> c;
        auto ours = [](int paths) {
            orvo::MatcherParams p;
            p.paths = paths;
            auto m = std::make_shared<orvo::StereoMatcher>(p);
            return [m](const cv::Mat& l, const cv::Mat& r) { return m->compute(l, r).disparity; };
        };
        auto opencv = [](cv::Ptr<cv::StereoMatcher> m) {
            return [m](const cv::Mat& l, const cv::Mat& r) {
                cv::Mat d16, d;
                m->compute(l, r, d16);
                d16.convertTo(d, CV_32F, 1.0 / 16);
                return d;
            };
        };
        c.push_back({"orvo 4 paths", ours(4)});
        c.push_back({"orvo 8 paths", ours(8)});
        c.push_back({"SGBM 3WAY", opencv(sgbm(cv::StereoSGBM::MODE_SGBM_3WAY))});
        c.push_back({"SGBM HH", opencv(sgbm(cv::StereoSGBM::MODE_HH))});
        c.push_back({"StereoBM", opencv(block_matcher())});
        return c;
    }();
    return all;
}

// Contender range(0) against SGBM 3WAY, timed in alternation so that both see the same load.
void BM_VsSgbm3Way(benchmark::State& state) {
    Contender& op = contenders()[state.range(0)];
    Contender& base = contenders()[2];
    state.SetLabel(op.name);
    const cv::Mat& l = scene().left;
    const cv::Mat& r = scene().right;
    op.run(l, r);
    base.run(l, r);
    orvo_bench::paired(state, [&] { benchmark::DoNotOptimize(op.run(l, r).data); },
                       [&] { benchmark::DoNotOptimize(base.run(l, r).data); });
}
BENCHMARK(BM_VsSgbm3Way)->DenseRange(0, 4)->Iterations(30)->Unit(benchmark::kMillisecond)->UseRealTime();

// The timed pair and two noisier renderings of the same layout (sensor noise sigma 3 and 5).
void print_accuracy() {
    const cv::Size size(752, 480);
    struct Scene {
        uint64_t seed;
        double noise;
    } scenes[] = {{7, 1.5}, {21, 3}, {33, 5}};
    std::printf("\naccuracy against the rendered truth (752 x 480, 64 disparities, columns >= 63, "
                "pixels seen by both cameras):\n");
    for (const Scene& sc : scenes) {
        const auto pair = orvo_test::render(size, orvo_test::default_layers(size), sc.seed, sc.noise);
        std::printf("  scene seed %llu, noise sigma %.1f:\n", static_cast<unsigned long long>(sc.seed),
                    sc.noise);
        for (Contender& c : contenders()) {
            const auto s = orvo_test::score(c.run(pair.left, pair.right), pair, 63);
            std::printf("    %-14s bad (> 2 px) %5.2f %%   density %6.2f %%\n", c.name, 100 * s.bad,
                        100 * s.density);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    print_accuracy();
    return 0;
}
