// The chessboard calibration on a rendered set beside the OpenCV work it must do on the same
// images, stage by stage; prints the ratio of the two.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include <orvo/vcam/chessboard.hpp>

// No windows in a benchmark: the display calls answer at once, as an operator pressing space
// without looking would.
namespace cv {
__attribute__((visibility("default"))) void imshow(const String&, InputArray) {}
__attribute__((visibility("default"))) int waitKey(int) { return ' '; }
}  // namespace cv

namespace {

using Clock = std::chrono::steady_clock;

// The default rig's calibration set (twelve good pairs, one without its right image, one with
// a right image of another size; the far pair is left out) in a temp dir with "params".
struct Fixture {
    std::string dir;
    std::vector<std::string> list;
    orvo::vcam::BoardSpec board;

    Fixture() {
        char name[] = "/tmp/orvo-bench-calib-XXXXXX";
        dir = mkdtemp(name);
        mkdir((dir + "/params").c_str(), 0755);
        orvo::vcam::Rig rig;
        orvo::vcam::ChessboardRenderer renderer(rig, board);
        orvo::vcam::CalibrationSet set;
        std::string error;
        if (!orvo::vcam::writeCalibrationSet(renderer, dir, set, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            std::exit(1);
        }
        list = set.listWithout(set.far_pair);
    }
    ~Fixture() { std::filesystem::remove_all(dir); }
};

Fixture* fixture = nullptr;

// Keeps the procedure's report off the benchmark's table.
class QuietStdout {
public:
    QuietStdout() : saved_(dup(1)) {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

private:
    int saved_;
};

void BM_OrvoStereoCalib(benchmark::State& state) {
    const bool show = state.range(0) != 0;
    for (auto _ : state) {
        QuietStdout quiet;
        camera_->OrvoStereoCalib(fixture->list, fixture->board.inner,
                                 float(fixture->board.square), true, show);
    }
}
BENCHMARK(BM_OrvoStereoCalib)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond)
    ->Iterations(3);

double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// The OpenCV calls the procedure cannot avoid on the same list, without the rectified display:
// loading, detection at scale 1, the corner preview, refinement, the joint calibration, the
// epipolar check, rectification and the two files. Per-stage seconds are reported as counters.
void BM_RequiredWork(benchmark::State& state) {
    const cv::Size board = fixture->board.inner;
    double detect = 0, calibrate = 0, rest = 0;
    for (auto _ : state) {
        auto t = Clock::now();
        std::vector<std::vector<cv::Point2f>> corners[2];
        cv::Size size;
        for (size_t i = 0; i + 1 < fixture->list.size(); i += 2) {
            std::vector<cv::Point2f> c[2];
            int k = 0;
            for (; k < 2; ++k) {
                cv::Mat grey = cv::imread(fixture->list[i + size_t(k)], cv::IMREAD_GRAYSCALE);
                if (grey.empty()) break;
                if (size == cv::Size()) size = grey.size();
                if (grey.size() != size) break;
                const bool found = cv::findChessboardCorners(grey, board, c[k], 3);
                cv::Mat colour, shown;
                cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
                cv::drawChessboardCorners(colour, board, c[k], found);
                const double sf = 752.0 / std::max(grey.rows, grey.cols);
                cv::resize(colour, shown, cv::Size(), sf, sf, cv::INTER_LINEAR);
                benchmark::DoNotOptimize(shown.data);
                if (!found) break;
                cv::cornerSubPix(grey, c[k], cv::Size(11, 11), cv::Size(-1, -1),
                                 cv::TermCriteria(3, 30, 0.01));
            }
            if (k < 2) continue;
            corners[0].push_back(c[0]);
            corners[1].push_back(c[1]);
        }
        detect += since(t);

        t = Clock::now();
        std::vector<cv::Point3f> one;
        for (int j = 0; j < board.height; ++j)
            for (int k = 0; k < board.width; ++k)
                one.emplace_back(float(k * fixture->board.square),
                                 float(j * fixture->board.square), 0.0f);
        const std::vector<std::vector<cv::Point3f>> object(corners[0].size(), one);
        cv::Mat M1 = cv::Mat::eye(3, 3, CV_64F), M2 = cv::Mat::eye(3, 3, CV_64F);
        cv::Mat D1, D2, R, T, E, F;
        cv::stereoCalibrate(object, corners[0], corners[1], M1, D1, M2, D2, size, R, T, E, F, 642,
                            cv::TermCriteria(3, 100, 1e-5));
        calibrate += since(t);

        t = Clock::now();
        std::vector<cv::Vec3f> lines;
        for (size_t i = 0; i < corners[0].size(); ++i) {
            cv::Mat p0(corners[0][i]), p1(corners[1][i]);
            cv::undistortPoints(p0, p0, M1, D1, cv::Mat(), M1);
            cv::computeCorrespondEpilines(p0, 1, F, lines);
            cv::undistortPoints(p1, p1, M2, D2, cv::Mat(), M2);
            cv::computeCorrespondEpilines(p1, 2, F, lines);
        }
        cv::FileStorage in(fixture->dir + "/params/intrinsics.yml", cv::FileStorage::WRITE);
        in << "M1" << M1 << "D1" << D1 << "M2" << M2 << "D2" << D2;
        in.release();
        cv::Mat R1, R2, P1, P2, Q;
        cv::Rect roi[2];
        cv::stereoRectify(M1, D1, M2, D2, size, R, T, R1, R2, P1, P2, Q, cv::CALIB_ZERO_DISPARITY,
                          0, size, &roi[0], &roi[1]);
        cv::FileStorage ex(fixture->dir + "/params/extrinsics.yml", cv::FileStorage::WRITE);
        ex << "R" << R << "T" << T << "R1" << R1 << "R2" << R2 << "P1" << P1 << "P2" << P2 << "Q"
           << Q;
        ex.release();
        rest += since(t);
    }
    const double n = double(state.iterations());
    state.counters["detect_ms"] = 1e3 * detect / n;
    state.counters["calibrate_ms"] = 1e3 * calibrate / n;
    state.counters["rest_ms"] = 1e3 * rest / n;
}
BENCHMARK(BM_RequiredWork)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

class Collector : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> seconds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && r.iterations > 0)
                seconds[r.benchmark_name()] = r.real_accumulated_time / double(r.iterations);
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);
    Fixture fx;
    fixture = &fx;
    if (chdir(fx.dir.c_str()) != 0) return 1;
    setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-bench-calib", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    OrvoCameraParameterList params;
    params.device_path = "/dev/video-virtual-bench-calib";
    OrvoCamera* facade = new OrvoCamera(params);

    Collector reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    delete facade;

    const auto calib = reporter.seconds.find("BM_OrvoStereoCalib/0/iterations:3/real_time");
    const auto work = reporter.seconds.find("BM_RequiredWork/iterations:3/real_time");
    if (calib != reporter.seconds.end() && work != reporter.seconds.end())
        std::printf("\nOrvoStereoCalib without display / required OpenCV work: %.3fx\n",
                    calib->second / work->second);
    benchmark::Shutdown();
    return 0;
}
