// Soak: frames free-running through Grab, getNearestPoint and ImuRect on the virtual camera, the
// resident set sampled every 1,000 frames (flat after warm-up; descriptors and mappings are counted
// by test_capture). ORVO_SOAK_FRAMES sets the length (3,000 here; scripts/soak.sh runs 100,000).
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "engine_test_support.h"

using namespace engine_test;

constexpr int kSampleEvery = 1000;

TEST(Soak, FreeRunningFramesKeepTheResidentSetFlat) {
    // Under AddressSanitizer or Valgrind the memory figures are the tool's: only the work is checked.
    const char* no_figures = std::getenv("ORVO_SOAK_NO_MEMORY_FIGURES");
    bool figures = !(no_figures && *no_figures && *no_figures != '0');
#if defined(__SANITIZE_ADDRESS__)
    figures = false;
#endif
    const char* length = std::getenv("ORVO_SOAK_FRAMES");
    // Three samples at least: the first is the warm-up, and growth needs two more.
    const long frames = std::max<long>(length && *length ? std::strtol(length, nullptr, 10) : 3000,
                                       figures ? 3 * kSampleEvery : 1);
    VirtualCamera cam("pattern");
    TempDir dir;
    auto [in, ex] = writeStereoFiles(dir);
    std::vector<long> rss_kib;
    int rectified = 0, found = 0;
    size_t samples = 0;
    float q[4] = {0, 0, 0, 0};
    // One facade's life: construction, the gyro bias run, `frames` frames of the full per-frame work, destruction.
    auto live = [&](long frames) {
        rss_kib.clear();
        rectified = found = 0;
        samples = 0;
        std::fill(q, q + 4, 0.0f);
        std::unique_ptr<OrvoCamera> camera = makeFacade(in, ex);
        orvo_test::captureOutput([&] { camera->setImuCorrection(-0.3f, 0.3f, 0.0f, 0.0f, 0.0f); });
        winpar region{1.5, 1.0, 8.0, 0.0};
        std::vector<nerapot> bins(360);
        std::vector<ImuData> imu;
        unsigned int frame_time = 0, last_tick = 0;
        const auto start = std::chrono::steady_clock::now();
        for (long f = 1; f <= frames; ++f) {
            rectified += camera->Grab();
            cv::Point3d nearest;
            camera->getNearestPoint(region, bins.data(), nearest);
            found += nearest.z < std::numeric_limits<double>::max();
            camera->getImuRawData(imu, frame_time);
            for (const ImuData& s : imu) {
                camera->ImuRect(s, last_tick == 0 ? 0.005f : float(s.time - last_tick) * 1e-6f, q);
                last_tick = s.time;
            }
            samples += imu.size();
            if (f % kSampleEvery == 0) {
                long size = 0, resident = 0;
                std::ifstream("/proc/self/statm") >> size >> resident;
                rss_kib.push_back(resident * (sysconf(_SC_PAGESIZE) / 1024));
                std::printf("frame %7ld  rss %7ld KiB\n", f, rss_kib.back());
                std::fflush(stdout);
            }
        }
        // The long form's figures, for whoever reads scripts/soak.sh's output.
        std::printf("%ld frames in %.1f s, %zu inertial samples, nearest found in %d\n", frames,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), samples, found);
        orvo_test::captureOutput([&] { camera.reset(); });
    };
    live(50);  // a warm-up life brings up what stays for the process (OpenCV's pool)
    live(frames);

    EXPECT_EQ(rectified, frames);
    EXPECT_GT(found, 0);
    EXPECT_GT(samples, size_t(frames) * 5);
    // After 500 steps the filter hands out a unit quaternion, before that zeros.
    const float norm = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
    EXPECT_TRUE(samples > 500 ? std::fabs(norm - 1.0f) < 1e-3f : norm == 0.0f) << norm;
    if (!figures) return;

    // After the first sample (warm-up) the resident set neither drifts nor wanders.
    const std::vector<long> settled(rss_kib.begin() + 1, rss_kib.end());
    const auto [lo, hi] = std::minmax_element(settled.begin(), settled.end());
    std::printf("resident set after warm-up: %ld..%ld KiB\n", *lo, *hi);
    EXPECT_LE(*hi - *lo, 2048) << "resident set wanders";
    EXPECT_LE(settled.back() - settled.front(), 512) << "resident set grows";
}
