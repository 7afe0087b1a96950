// Times the frame splitter beside cv::split of the same bytes and a plain byte loop, and prints the
// ratios.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "frame_geometry.h"
#include "video_device.h"
#include "yuyv_split.h"

namespace {

using orvo::frame::kBytes;
using orvo::frame::kHeight;
using orvo::frame::kPixels;
using orvo::frame::kWidth;

struct FrameBuffers {
    FrameBuffers() : frame(kBytes), first(kPixels), second(kPixels) {
        std::mt19937 rng(3);
        for (auto& b : frame) b = uint8_t(rng());
    }
    std::vector<uint8_t> frame, first, second;
};

FrameBuffers& buffers() {
    static FrameBuffers b;
    return b;
}

// The reference the vector code must beat: one byte at a time, kept scalar on purpose.
__attribute__((noinline, optimize("no-tree-vectorize"))) void scalarSplit(const uint8_t* src,
                                                                          size_t n, uint8_t* even,
                                                                          uint8_t* odd) {
    for (size_t i = 0; i < n; ++i) {
        even[i] = src[2 * i];
        odd[i] = src[2 * i + 1];
    }
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

void BM_LrGray(benchmark::State& state) {
    FrameBuffers& b = buffers();
    for (auto _ : state) {
        video_device::yuyv_2_lr_gray(b.frame.data(), int(kBytes), b.first.data(), b.second.data());
        benchmark::DoNotOptimize(b.first.data());
        benchmark::DoNotOptimize(b.second.data());
        benchmark::ClobberMemory();
    }
    setBytes(state);
}

void BM_LrGraySse2(benchmark::State& state) {
    FrameBuffers& b = buffers();
    for (auto _ : state) {
        orvo::yuyv::splitSse2(b.frame.data(), kPixels, b.first.data(), b.second.data());
        benchmark::DoNotOptimize(b.first.data());
        benchmark::DoNotOptimize(b.second.data());
        benchmark::ClobberMemory();
    }
    setBytes(state);
}

// The same bytes seen as a two-channel image, split into preallocated planes (no allocation per
// call).
void BM_CvSplit(benchmark::State& state) {
    FrameBuffers& b = buffers();
    const cv::Mat pairs(kHeight, kWidth, CV_8UC2, b.frame.data());
    cv::Mat planes[2] = {cv::Mat(kHeight, kWidth, CV_8UC1, b.first.data()),
                         cv::Mat(kHeight, kWidth, CV_8UC1, b.second.data())};
    for (auto _ : state) {
        cv::split(pairs, planes);
        benchmark::DoNotOptimize(planes[0].data);
        benchmark::DoNotOptimize(planes[1].data);
        benchmark::ClobberMemory();
    }
    if (planes[0].data != b.first.data()) state.SkipWithError("cv::split reallocated its outputs");
    setBytes(state);
}

void BM_ScalarLoop(benchmark::State& state) {
    FrameBuffers& b = buffers();
    for (auto _ : state) {
        scalarSplit(b.frame.data(), kPixels, b.first.data(), b.second.data());
        benchmark::DoNotOptimize(b.first.data());
        benchmark::DoNotOptimize(b.second.data());
        benchmark::ClobberMemory();
    }
    setBytes(state);
}

BENCHMARK(BM_LrGray);
BENCHMARK(BM_LrGraySse2);
BENCHMARK(BM_CvSplit);
BENCHMARK(BM_ScalarLoop);

// Console output plus, at the end, the splitter's time as a fraction of each reference's. CPU time,
// and the median when repetitions are asked for: the machine is shared, so wall time is noisy.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    RatioReporter() : ConsoleReporter(isatty(1) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            if (r.run_type == Run::RT_Iteration && !median_.count(r.run_name.str()))
                ns_[r.run_name.str()] = r.GetAdjustedCPUTime();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                median_[r.run_name.str()] = true;
                ns_[r.run_name.str()] = r.GetAdjustedCPUTime();
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        ratio("BM_LrGray", "BM_CvSplit");
        ratio("BM_LrGraySse2", "BM_CvSplit");
        ratio("BM_LrGray", "BM_ScalarLoop");
        ratio("BM_LrGraySse2", "BM_ScalarLoop");
    }

  private:
    void ratio(const std::string& a, const std::string& b) {
        if (!ns_.count(a) || !ns_.count(b) || ns_[b] <= 0) return;
        std::printf("%-16s / %-14s = %.3f  (%.2fx faster)\n", a.c_str(), b.c_str(), ns_[a] / ns_[b],
                    ns_[b] / ns_[a]);
    }
    std::map<std::string, double> ns_;
    std::map<std::string, bool> median_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
