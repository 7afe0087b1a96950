// Soak: frames free-running through Grab, getNearestPoint and ImuRect on the virtual camera, the
// resident set sampled every 1,000 frames (flat after warm-up), descriptors and mappings counted
// before and after. ORVO_SOAK_FRAMES sets the length (3,000 here; scripts/soak.sh runs 100,000).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

constexpr int kSampleEvery = 1000;

long residentKiB() {
    long size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int openDescriptors() {
    int n = 0;
    for (int fd = 0; fd < 4096; ++fd) n += fcntl(fd, F_GETFD) != -1;
    return n;
}

// Bytes mapped from each named object, counted in bytes (the kernel merges adjacent mappings of
// one object into one line). Anonymous memory is the resident set's business.
std::map<std::string, unsigned long> namedMappings() {
    std::ifstream in("/proc/self/maps");
    std::map<std::string, unsigned long> bytes;
    for (std::string line; std::getline(in, line);) {
        unsigned long lo = 0, hi = 0;
        char name[512] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %*s %*s %*s %*s %511[^\n]", &lo, &hi, name) == 3 && name[0] != '[')
            bytes[name] += hi - lo;
    }
    return bytes;
}

struct Life {
    std::vector<long> rss_kib;
    int rectified = 0, found = 0;
    size_t samples = 0;
    float quaternion[4] = {0, 0, 0, 0};
};

// One facade's life: construction, the gyro bias run, `frames` frames of the full per-frame work,
// destruction.
Life live(const std::string& intrinsics, const std::string& extrinsics, long frames) {
    Life life;
    std::unique_ptr<OrvoCamera> camera = makeFacade(intrinsics, extrinsics);
    orvo_test::captureOutput([&] { camera->setImuCorrection(-0.3f, 0.3f, 0.0f, 0.0f, 0.0f); });
    winpar region{1.5, 1.0, 8.0, 0.0};
    std::vector<nerapot> bins(360);
    std::vector<ImuData> imu;
    unsigned int frame_time = 0, last_tick = 0;
    const auto start = std::chrono::steady_clock::now();
    for (long f = 1; f <= frames; ++f) {
        life.rectified += camera->Grab();
        cv::Point3d nearest;
        camera->getNearestPoint(region, bins.data(), nearest);
        life.found += nearest.z < std::numeric_limits<double>::max();
        camera->getImuRawData(imu, frame_time);
        for (const ImuData& s : imu) {
            camera->ImuRect(s, last_tick == 0 ? 0.005f : float(s.time - last_tick) * 1e-6f, life.quaternion);
            last_tick = s.time;
        }
        life.samples += imu.size();
        if (f % kSampleEvery == 0) {
            life.rss_kib.push_back(residentKiB());
            std::printf("frame %7ld  rss %7ld KiB\n", f, life.rss_kib.back());
            std::fflush(stdout);
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%ld frames in %.1f s, %zu inertial samples, nearest found in %d\n", frames, seconds,
                life.samples, life.found);
    orvo_test::captureOutput([&] { camera.reset(); });
    return life;
}

}  // namespace

TEST(Soak, FreeRunningFramesKeepMemoryDescriptorsAndMappingsFlat) {
    // Under AddressSanitizer or Valgrind the memory figures are the tool's: only descriptors count.
#if defined(__SANITIZE_ADDRESS__)
    const bool figures = false;
#else
    const char* no_figures = std::getenv("ORVO_SOAK_NO_MEMORY_FIGURES");
    const bool figures = !(no_figures && *no_figures && *no_figures != '0');
#endif
    const char* length = std::getenv("ORVO_SOAK_FRAMES");
    // Two samples at least, the first being the warm-up.
    const long frames = std::max<long>(length && *length ? std::strtol(length, nullptr, 10) : 3000,
                                       figures ? 2 * kSampleEvery : 1);
    VirtualCamera cam("pattern");
    TempDir dir;
    auto [in, ex] = writeStereoFiles(dir);

    // A short first life brings up what stays for the process (OpenCV's thread pool, lazily built
    // tables), so that the counts below see only what one life leaves behind.
    live(in, ex, 50);
    const int fds_before = openDescriptors();
    const auto maps_before = namedMappings();
    const Life life = live(in, ex, frames);

    EXPECT_EQ(life.rectified, frames);
    EXPECT_GT(life.found, 0);
    EXPECT_GT(life.samples, size_t(frames) * 5);
    // After 500 steps the filter hands out a unit quaternion, before that zeros.
    const float* q = life.quaternion;
    const float norm = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
    if (life.samples > 500)
        EXPECT_NEAR(norm, 1.0f, 1e-3f);
    else
        EXPECT_EQ(norm, 0.0f);
    EXPECT_EQ(openDescriptors(), fds_before);
    if (!figures) return;

    // The six frame-buffer mappings outlive the device by design (they are unmapped with the
    // length the driver reported before any frame, 0, which the kernel refuses); nothing else does.
    const std::string buffers = "/memfd:orvo-vcam (deleted)";
    auto maps_after = namedMappings();
    EXPECT_EQ(maps_after[buffers] - maps_before.at(buffers), 6ul * 724992);
    maps_after[buffers] = maps_before.at(buffers);
    EXPECT_EQ(maps_after, maps_before);

    // After the first sample (warm-up) the resident set neither drifts nor wanders.
    const std::vector<long> settled(life.rss_kib.begin() + 1, life.rss_kib.end());
    ASSERT_FALSE(settled.empty());
    const auto [lo, hi] = std::minmax_element(settled.begin(), settled.end());
    std::printf("resident set after warm-up: %ld..%ld KiB\n", *lo, *hi);
    EXPECT_LE(*hi - *lo, 2048) << "resident set wanders";
    EXPECT_LE(settled.back() - settled.front(), 512) << "resident set grows";
}
