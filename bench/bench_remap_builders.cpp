// Time of the remap-table builders for 752 x 480, beside the OpenCV calls they are made of.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>

#include <opencv2/calib3d.hpp>

#include "ZUNCVHelper.h"
#include <orvo/vcam/rig.hpp>

namespace {

const cv::Size kSize(752, 480);

struct Files {
    std::string dir, in, ex, fisheye, mono;
};
Files g_files;

const orvo::vcam::Rig& pinholeRig() {
    static const orvo::vcam::Rig rig;
    return rig;
}

const orvo::vcam::Rig& fisheyeRig() {
    static const orvo::vcam::Rig rig(orvo::vcam::fisheyeRigSpec());
    return rig;
}

// The fisheye reader prints two progress lines per call; they go to /dev/null while timing.
class QuietStdout {
public:
    QuietStdout() {
        std::cout.flush();
        std::fflush(stdout);
        saved_ = dup(1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout() {
        std::cout.flush();
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

private:
    int saved_;
};

void BM_get_remap_mat(benchmark::State& state) {
    cv::Mat m1, m2, m3, m4, k, p;
    for (auto _ : state) {
        bool ok = get_remap_mat(g_files.in, g_files.ex, kSize, m1, m2, m3, m4, k, p);
        benchmark::DoNotOptimize(ok);
        if (!ok) state.SkipWithError("pinhole builder failed");
    }
}
BENCHMARK(BM_get_remap_mat)->Unit(benchmark::kMillisecond);

// The pinhole builder's OpenCV work alone, on matrices already in memory.
void BM_pinhole_opencv_calls(benchmark::State& state) {
    const orvo::vcam::Rig& rig = pinholeRig();
    cv::Mat r1, r2, p1, p2, q, m1, m2, m3, m4;
    for (auto _ : state) {
        cv::stereoRectify(rig.K1, rig.D1, rig.K2, rig.D2, kSize, rig.R, rig.T, r1, r2, p1, p2, q,
                          cv::CALIB_ZERO_DISPARITY, 0.0, cv::Size(0, 0));
        cv::initUndistortRectifyMap(rig.K1, rig.D1, r1, p1, kSize, CV_16SC2, m1, m2);
        cv::initUndistortRectifyMap(rig.K2, rig.D2, r2, p2, kSize, CV_16SC2, m3, m4);
        benchmark::DoNotOptimize(m4.data);
    }
}
BENCHMARK(BM_pinhole_opencv_calls)->Unit(benchmark::kMillisecond);

void BM_get_remap_mat_fisheye_file(benchmark::State& state) {
    cv::Mat m1, m2, m3, m4, k, p;
    QuietStdout quiet;
    for (auto _ : state) {
        bool ok = get_remap_mat_fisheye_file(g_files.fisheye, kSize, m1, m2, m3, m4, k, p);
        benchmark::DoNotOptimize(ok);
        if (!ok) state.SkipWithError("fisheye builder failed");
    }
}
BENCHMARK(BM_get_remap_mat_fisheye_file)->Unit(benchmark::kMillisecond);

void BM_fisheye_opencv_calls(benchmark::State& state) {
    const orvo::vcam::Rig& rig = fisheyeRig();
    cv::Mat m1, m2, m3, m4;
    for (auto _ : state) {
        cv::fisheye::initUndistortRectifyMap(rig.K1, rig.D1, rig.R1, rig.P1, kSize, CV_16SC2, m1, m2);
        cv::fisheye::initUndistortRectifyMap(rig.K2, rig.D2, rig.R2, rig.P2, kSize, CV_16SC2, m3, m4);
        benchmark::DoNotOptimize(m4.data);
    }
}
BENCHMARK(BM_fisheye_opencv_calls)->Unit(benchmark::kMillisecond);

void BM_get_monoRemap_mat(benchmark::State& state) {
    cv::Mat m1, m2;
    for (auto _ : state) {
        bool ok = get_monoRemap_mat(g_files.mono, kSize, m1, m2);
        benchmark::DoNotOptimize(ok);
        if (!ok) state.SkipWithError("mono builder failed");
    }
}
BENCHMARK(BM_get_monoRemap_mat)->Unit(benchmark::kMillisecond);

bool writeFiles() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "orvo-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return false;
    g_files.dir = pattern;
    g_files.in = pattern + "/intrinsics.yml";
    g_files.ex = pattern + "/extrinsics.yml";
    g_files.fisheye = pattern + "/fisheye.yml";
    g_files.mono = pattern + "/mono.yml";
    return pinholeRig().writeStereo(g_files.in, g_files.ex) &&
           fisheyeRig().writeFisheye(g_files.fisheye) && pinholeRig().writeMono(g_files.mono);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    const bool ready = writeFiles();
    int status = 0;
    if (ready) {
        benchmark::RunSpecifiedBenchmarks();
    } else {
        std::cerr << "cannot write the calibration files" << std::endl;
        status = 1;
    }
    benchmark::Shutdown();
    std::error_code ignored;
    if (!g_files.dir.empty()) std::filesystem::remove_all(g_files.dir, ignored);
    return status;
}
