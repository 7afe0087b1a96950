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

#include "../tests/support/stereo_scene.h"
#include "orvo/stereo_matcher.hpp"

namespace {

const orvo_test::StereoPair& scene() {
    static const cv::Size size(752, 480);
    static const orvo_test::StereoPair pair = orvo_test::render(size, orvo_test::default_layers(size), 7);
    return pair;
}

double cpu_ms() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

double median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return v[v.size() / 2];
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
    std::vector<double> op_ms, base_ms, ratio, op_cpu, base_cpu, cpu_ratio;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        double c0 = cpu_ms();
        base.run(l, r);
        auto t1 = std::chrono::steady_clock::now();
        double c1 = cpu_ms();
        op.run(l, r);
        auto t2 = std::chrono::steady_clock::now();
        double c2 = cpu_ms();
        base_ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        op_ms.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
        base_cpu.push_back(c1 - c0);
        op_cpu.push_back(c2 - c1);
        ratio.push_back(op_ms.back() / base_ms.back());
        cpu_ratio.push_back(op_cpu.back() / base_cpu.back());
    }
    state.counters["base_ms"] = median(base_ms);
    state.counters["op_ms"] = median(op_ms);
    state.counters["ratio"] = median(ratio);
    state.counters["base_cpu_ms"] = median(base_cpu);
    state.counters["op_cpu_ms"] = median(op_cpu);
    state.counters["cpu_ratio"] = median(cpu_ratio);
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
