// Grab on a free-running virtual camera beside the work it cannot avoid (split, two clones, two
// remaps of the same images), and the end-to-end frame rate; prints the ratio of the two.
// OpenCV runs single-threaded here so that the CPU time of the calling thread is the whole cost:
// on a shared machine the real time mostly measures waiting for a core.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include "median_reporter.h"
#include "OrvoCamera.h"
#include "frame_geometry.h"
#include <orvo/vcam/rig.hpp>

namespace {

namespace layout = orvo::frame;

// Calibration files from the synthetic rig and a short recording of textured frames, in a temp
// dir that lives as long as the program.
struct Fixture {
    std::string dir, intrinsics, extrinsics, raw;
    std::vector<uint8_t> frame;  // the first recorded frame, for the reference work

    Fixture() {
        char name[] = "/tmp/orvo-bench-grab-XXXXXX";
        dir = mkdtemp(name);
        intrinsics = dir + "/intrinsics.yml";
        extrinsics = dir + "/extrinsics.yml";
        raw = dir + "/frames.raw";
        orvo::vcam::Rig().writeStereo(intrinsics, extrinsics);
        std::mt19937 rng(1);
        std::ofstream out(raw, std::ios::binary);
        std::vector<uint8_t> f(layout::kBytes);
        for (int i = 0; i < 4; ++i) {
            for (auto& b : f) b = uint8_t(rng());
            f.back() = 10;  // ten inertial records per frame, as the camera sends at 30 fps
            out.write(reinterpret_cast<const char*>(f.data()), f.size());
            if (i == 0) frame = f;
        }
    }
    ~Fixture() { std::filesystem::remove_all(dir); }
};

Fixture* fixture = nullptr;
OrvoCamera* facade = nullptr;

void BM_Grab(benchmark::State& state) {
    bool rectified = true;
    for (auto _ : state) rectified = facade->Grab() && rectified;
    if (!rectified) state.SkipWithError("Grab did not rectify");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Grab)->Unit(benchmark::kMicrosecond)->MinTime(1.0)->Repetitions(5);

// What any Grab must do with one frame: split it, copy both images out, rectify both.
void BM_RequiredWork(benchmark::State& state) {
    const cv::Size size(layout::kWidth, layout::kHeight);
    cv::Mat m1, m2, m3, m4, camera_matrix, projection_2;
    get_remap_mat(fixture->intrinsics, fixture->extrinsics, size, m1, m2, m3, m4, camera_matrix,
                  projection_2);
    cv::Mat even(size, CV_8UC1), odd(size, CV_8UC1), copy_1, copy_2, rect_1, rect_2;
    for (auto _ : state) {
        video_device::yuyv_2_lr_gray(fixture->frame.data(), int(layout::kBytes), even.data,
                                     odd.data);
        copy_1 = odd.clone();
        copy_2 = even.clone();
        cv::remap(odd, rect_1, m1, m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
        cv::remap(even, rect_2, m3, m4, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
        benchmark::DoNotOptimize(rect_2.data);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RequiredWork)->Unit(benchmark::kMicrosecond)->MinTime(1.0)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    cv::setNumThreads(0);
    Fixture fx;
    fixture = &fx;
    setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-bench", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", ("raw:" + fx.raw).c_str(), 1);
    OrvoCameraParameterList params;
    params.device_path = "/dev/video-virtual-bench";
    params.intrinsics_file = fx.intrinsics;
    params.extrinsics_file = fx.extrinsics;
    facade = new OrvoCamera(params);

    orvo_bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    delete facade;

    auto grab = reporter.median.find("BM_Grab");
    auto work = reporter.median.find("BM_RequiredWork");
    if (grab != reporter.median.end() && work != reporter.median.end()) {
        const orvo_bench::MedianReporter::Median g = grab->second, w = work->second;
        std::printf("\nMedians: Grab %.0f us CPU (%.0f us real), required work %.0f us CPU (%.0f us real)\n",
                    g.cpu_us, g.real_us, w.cpu_us, w.real_us);
        std::printf("Grab / required work: %.3fx on CPU time, %.3fx on real time (target <= 1.15x)\n",
                    g.cpu_us / w.cpu_us, g.real_us / w.real_us);
        std::printf("Frames per second, free-running end to end: %.0f on CPU time, %.0f on real time "
                    "(target >= 500)\n", 1e6 / g.cpu_us, 1e6 / g.real_us);
    }
    benchmark::Shutdown();
    return 0;
}
