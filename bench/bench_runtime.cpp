// orvo::Camera's capture thread + grab beside the classic engine's update on the same free-running
// virtual camera: CPU per frame of the whole process, dequeue-to-grab latency and the grab rate.
// Both arms are timed on process CPU time (the runtime's work is split across two threads) with
// OpenCV single-threaded, so the CPU figures are the whole cost; on a shared machine the real time
// mostly measures waiting for a core.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "median_reporter.h"
#include "StereoCamera.h"
#include "frame_geometry.h"
#include <orvo/orvo.hpp>

// Every operator new of the process, on any thread: the per-frame allocations of each arm. (Image
// planes come from cv::fastMalloc and are not counted; the runtime recycles its own.) The standard
// operator delete frees with std::free, which matches; kept out of line so that the compiler does
// not pair an inlined malloc with a delete and warn.
namespace {
std::atomic<uint64_t> g_news{0};
}
__attribute__((noinline)) void* operator new(size_t size) {
    g_news.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t&) noexcept {
    g_news.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }

namespace {

namespace layout = orvo::frame;
const char* const kNode = "/dev/video-virtual-bench-runtime";

// A short recording of textured frames, each with ten inertial records as at 30 fps, so that the
// virtual camera's own per-frame work is a copy; in a temp dir that lives as long as the program.
struct Fixture {
    std::string dir, raw;
    Fixture() {
        char name[] = "/tmp/orvo-bench-runtime-XXXXXX";
        dir = mkdtemp(name);
        raw = dir + "/frames.raw";
        std::mt19937 rng(1);
        std::ofstream out(raw, std::ios::binary);
        std::vector<uint8_t> f(layout::kBytes);
        for (int i = 0; i < 4; ++i) {
            for (auto& b : f) b = uint8_t(rng());
            f.back() = 10;
            out.write(reinterpret_cast<const char*>(f.data()), f.size());
        }
    }
    ~Fixture() { std::filesystem::remove_all(dir); }
};

// The classic per-frame path: dequeue, split into the two grey images, clone both, requeue.
void BM_ClassicUpdate(benchmark::State& state) {
    DeviceParameter p{};
    p.video_path = kNode;
    p.width = layout::kWidth;
    p.height = layout::kHeight;
    StereoCamera engine(p);
    cv::Mat first, second;
    const uint64_t news = g_news;
    for (auto _ : state) {
        engine.update(first, second, false);
        benchmark::DoNotOptimize(first.data);
    }
    state.counters["news_per_frame"] = double(g_news - news) / double(state.iterations());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClassicUpdate)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime()->MinTime(1.0)->Repetitions(5);

// The runtime: its capture thread dequeues and builds frames while this thread grabs them. Frames
// the capture thread built but replaced in the full queue before this thread came back count in
// the cost per grabbed frame, and are shown as `discarded` per grab.
void BM_RuntimeGrab(benchmark::State& state) {
    orvo::Camera camera(kNode);
    const orvo::CameraStats before = camera.stats();
    const uint64_t news = g_news;
    for (auto _ : state) {
        std::optional<orvo::Frame> f = camera.grab(std::chrono::seconds(2));
        if (!f) {
            state.SkipWithError("grab timed out");
            break;
        }
        benchmark::DoNotOptimize(f->left.data);
    }
    const orvo::CameraStats after = camera.stats();
    const double built = double(after.frames - before.frames);
    state.counters["discarded"] = double(after.discarded - before.discarded) / double(state.iterations());
    state.counters["news_per_frame"] = double(g_news - news) / std::max(built, 1.0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RuntimeGrab)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime()->MinTime(1.0)->Repetitions(5);

// CLOCK_MONOTONIC when grab returns minus the frame's host time, which on the virtual camera is the
// driver's monotonic timestamp taken at the dequeue: queueing, hand-over and wake-up included.
void BM_RuntimeLatency(benchmark::State& state) {
    orvo::Camera camera(kNode);
    std::vector<double> latency_us;
    latency_us.reserve(1 << 20);
    bool from_driver = true;
    for (auto _ : state) {
        std::optional<orvo::Frame> f = camera.grab(std::chrono::seconds(2));
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (!f) {
            state.SkipWithError("grab timed out");
            break;
        }
        const uint64_t now_ns = uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
        from_driver = from_driver && f->host_time_source == orvo::HostTimeSource::driver_monotonic;
        if (latency_us.size() < latency_us.capacity()) latency_us.push_back(double(now_ns - f->host_time_ns) / 1e3);
    }
    if (latency_us.empty()) return;
    if (!from_driver) state.SkipWithError("host time did not come from the driver's dequeue timestamp");
    auto at = [&](double q) {
        auto nth = latency_us.begin() + std::ptrdiff_t(q * double(latency_us.size() - 1));
        std::nth_element(latency_us.begin(), nth, latency_us.end());
        return *nth;
    };
    state.counters["median_us"] = at(0.5);
    state.counters["p99_us"] = at(0.99);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RuntimeLatency)->Unit(benchmark::kMicrosecond)->MinTime(1.0)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    cv::setNumThreads(0);
    Fixture fx;
    setenv("ORVO_VCAM_DEVICE", kNode, 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", ("raw:" + fx.raw).c_str(), 1);
    unsetenv("ORVO_VCAM_FAULTS");

    orvo_bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const auto& m = reporter.median;
    auto classic = m.find("BM_ClassicUpdate"), grab = m.find("BM_RuntimeGrab"), lat = m.find("BM_RuntimeLatency");
    if (classic != m.end() && grab != m.end()) {
        const orvo_bench::MedianReporter::Median c = classic->second, g = grab->second;
        std::printf("\nMedians: runtime grab %.0f us process CPU (%.0f us real), classic update %.0f us process "
                    "CPU (%.0f us real)\n", g.cpu_us, g.real_us, c.cpu_us, c.real_us);
        std::printf("Runtime grab / classic update per frame: %.3fx on process CPU time, %.3fx on real time "
                    "(target <= 1.1x)\n", g.cpu_us / c.cpu_us, g.real_us / c.real_us);
        std::printf("Frames per second, free-running runtime grab: %.0f on real time, %.0f on process CPU time\n",
                    1e6 / g.real_us, 1e6 / g.cpu_us);
    }
    if (lat != m.end())
        std::printf("Latency dequeue to grab return, median / 99th percentile: %.0f / %.0f us\n",
                    lat->second.counters.at("median_us"), lat->second.counters.at("p99_us"));
    benchmark::Shutdown();
    return 0;
}
