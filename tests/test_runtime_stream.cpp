// orvo::Camera streaming: frames against the virtual camera's truth, the 32-bit wrap, unplug and
// reconnect, host time without driver timestamps, two cameras at once, several grabbing threads, close.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <set>
#include <thread>

#include <orvo/orvo.hpp>
#include <orvo/vcam/statistics.hpp>

#include "runtime_test_support.h"
#include "scratch_dir.h"

using namespace std::chrono_literals;
using runtime_test::kNode;
using runtime_test::kSecondNode;
using runtime_test::VcamEnv;

namespace {

constexpr double kG = 9.80665;
constexpr double kGyroCountRadS = 1.0 / (57.3 * 16.4);  // one gyro count in rad/s, as the sensor scales it
constexpr double kAccelCountG = 1.0 / 8192;

std::vector<orvo::Frame> grabN(orvo::Camera& camera, size_t n) {
    std::vector<orvo::Frame> frames;
    while (frames.size() < n) {
        auto f = camera.grab(2s);
        if (!f) break;
        frames.push_back(std::move(*f));
    }
    return frames;
}

uint64_t nowNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count());
}

std::map<uint64_t, runtime_test::TruthLine> truthBySequence(const std::string& path) {
    std::map<uint64_t, runtime_test::TruthLine> served;
    for (auto& line : runtime_test::readTruth(path)) served[std::stoull(line["sequence"])] = line;
    return served;
}

// n frames of the pattern at 100 fps through a queue deep enough to keep them all, and what the
// virtual camera says it served, by sequence. `setting` is one more variable for the node, if any.
struct Served {
    std::vector<orvo::Frame> frames;
    std::map<uint64_t, runtime_test::TruthLine> truth;
};

Served grabPatternWithTruth(size_t n, const std::pair<std::string, std::string>& setting = {}) {
    orvo_test::ScratchDir dir;
    const std::string truth = dir.file("truth.txt");
    Served served;
    {
        VcamEnv env("", "pattern", "100", truth);
        if (!setting.first.empty()) env.with(setting.first, setting.second);
        orvo::CameraOptions opt;
        opt.queue_depth = 64;
        orvo::Camera camera(kNode, opt);
        served.frames = grabN(camera, n);
    }
    served.truth = truthBySequence(truth);
    return served;
}

bool listed(const std::string& node) {
    for (const orvo::DeviceInfo& d : orvo::list_devices())
        if (d.node == node) return true;
    return false;
}

}  // namespace

// Frames, times and samples against what the virtual camera says it served.
TEST(RuntimeStream, FramesMatchTheTruthFile) {
    auto [frames, served] = grabPatternWithTruth(20);
    ASSERT_EQ(20u, frames.size());

    size_t samples = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        const orvo::Frame& f = frames[k];
        SCOPED_TRACE("frame " + std::to_string(f.sequence));
        if (k > 0) {
            EXPECT_GT(f.sequence, frames[k - 1].sequence);
            EXPECT_GT(f.device_time_us, frames[k - 1].device_time_us);
            EXPECT_GT(f.host_time_ns, frames[k - 1].host_time_ns);
        }
        ASSERT_EQ(1u, served.count(f.sequence));
        auto& t = served[f.sequence];
        EXPECT_EQ(std::stoull(t["ticks"]), f.device_time_us);
        // The driver stamped the buffer with CLOCK_MONOTONIC: that stamp, to the microsecond.
        EXPECT_EQ(orvo::HostTimeSource::driver_monotonic, f.host_time_source);
        const double stamp = std::stod(t["timestamp"]);
        EXPECT_NEAR(stamp, double(f.host_time_ns) * 1e-9, 2e-6);

        ASSERT_EQ(CV_8UC1, f.left.type());
        ASSERT_EQ(cv::Size(752, 480), f.left.size());
        ASSERT_EQ(cv::Size(752, 480), f.right.size());
        // The pattern's right lens sees the left one's texture 12 pixels further on (the last row
        // ends in the inertial trailer).
        const cv::Rect right_part(0, 0, 740, 479), left_part(12, 0, 740, 479);
        EXPECT_EQ(0, cv::norm(f.right(right_part), f.left(left_part), cv::NORM_INF));
        EXPECT_GT(cv::norm(f.left, f.right, cv::NORM_INF), 0);

        ASSERT_EQ(std::stoul(t["imu"]), f.imu.size());
        for (size_t i = 0; i < f.imu.size(); ++i) {
            const auto want = runtime_test::truthSample(t["imu" + std::to_string(i)]);
            const orvo::ImuSample& s = f.imu[i];
            EXPECT_EQ(want.ticks, s.device_time_us);
            EXPECT_LE(s.device_time_us, f.device_time_us);
            EXPECT_EQ(f.host_time_ns - (f.device_time_us - s.device_time_us) * 1000, s.host_time_ns);
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(want.raw_gyro[a], s.gyro_raw[a]);
                EXPECT_EQ(want.raw_accel[a], s.accel_raw[a]);
                // Within half a count of the true rate and specific force, in SI units.
                EXPECT_NEAR(want.gyro[a], s.gyro_rad_s[a], 0.5 * kGyroCountRadS + 1e-12);
                EXPECT_NEAR(want.accel_g[a] * kG, s.accel_m_s2[a], 0.5 * kAccelCountG * kG + 1e-12);
            }
            ++samples;
        }
    }
    EXPECT_GT(samples, 20u);
}

// The virtual camera's own clock started 67 ms before its 32-bit wrap: device time goes on
// counting up through it, frame by frame, and still matches the trailer's ticks modulo 2^32.
TEST(RuntimeStream, DeviceTimeKeepsIncreasingThroughTheClocksOwnWrap) {
    auto [frames, served] = grabPatternWithTruth(20, {"ORVO_VCAM_TICK_OFFSET", "4294900000"});
    ASSERT_EQ(20u, frames.size());
    for (size_t k = 0; k < frames.size(); ++k) {
        const orvo::Frame& f = frames[k];
        SCOPED_TRACE("frame " + std::to_string(f.sequence));
        ASSERT_EQ(1u, served.count(f.sequence));
        EXPECT_EQ(std::stoull(served[f.sequence]["ticks"]), f.device_time_us & 0xFFFFFFFFu);
        // The pattern's frames are 10,000 ticks apart at 100 fps, dropped ones included.
        EXPECT_EQ(frames[0].device_time_us + 10000 * (f.sequence - frames[0].sequence), f.device_time_us);
        for (size_t i = 1; i < f.imu.size(); ++i) EXPECT_GT(f.imu[i].device_time_us, f.imu[i - 1].device_time_us);
        if (k > 0 && !f.imu.empty() && !frames[k - 1].imu.empty()) {
            EXPECT_GT(f.imu.front().device_time_us, frames[k - 1].imu.back().device_time_us);
        }
    }
    EXPECT_LT(frames.front().device_time_us, uint64_t(1) << 32);
    EXPECT_GT(frames.back().device_time_us, uint64_t(1) << 32);
}

// A driver that stamps no monotonic time: the host time is the dequeue's, and says so.
TEST(RuntimeStream, WithoutDriverTimestampsHostTimeIsTheDequeueTime) {
    VcamEnv env;
    env.with("ORVO_VCAM_TIMESTAMPS", "none");
    const uint64_t before = nowNs();
    orvo::Camera camera(kNode);
    auto frames = grabN(camera, 5);
    const uint64_t after = nowNs();
    ASSERT_EQ(5u, frames.size());
    for (size_t k = 0; k < frames.size(); ++k) {
        const orvo::Frame& f = frames[k];
        EXPECT_EQ(orvo::HostTimeSource::dequeue, f.host_time_source);
        EXPECT_GT(f.host_time_ns, before);
        EXPECT_LT(f.host_time_ns, after);
        if (k > 0) {
            EXPECT_GT(f.host_time_ns, frames[k - 1].host_time_ns);
        }
        for (const orvo::ImuSample& s : f.imu)
            EXPECT_EQ(f.host_time_ns - (f.device_time_us - s.device_time_us) * 1000, s.host_time_ns);
    }
}

// The cable pulled at the fifth dequeue and put back 300 ms later: grab gives nothing meanwhile,
// the node leaves the listing, state goes disconnected, reconnecting, streaming, one reconnect,
// and every frame after it was captured after the replug, later in sequence and both clocks.
TEST(RuntimeStream, UnplugAndReplugReconnectsOnceWithNothingStale) {
    VcamEnv env("unplug@5=300ms");
    std::vector<std::pair<orvo::CameraState, uint64_t>> seen;
    std::mutex seen_mutex;
    orvo::CameraOptions opt;
    opt.queue_depth = 8;
    opt.reconnect_backoff_max = 50ms;
    opt.on_state_change = [&](orvo::CameraState s) {
        std::lock_guard<std::mutex> lock(seen_mutex);
        seen.emplace_back(s, nowNs());
    };
    orvo::Camera camera(kNode, opt);
    std::vector<orvo::Frame> frames;
    size_t empty_while_gone = 0, listed_while_gone = 0, looked_while_gone = 0;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline && (camera.stats().reconnects == 0 || frames.size() < 10)) {
        const bool gone = camera.state() == orvo::CameraState::reconnecting;
        auto f = camera.grab(20ms);
        if (f) frames.push_back(std::move(*f));
        if (gone && !f) ++empty_while_gone;
        if (gone && !orvo::vcam::statistics(kNode).present && looked_while_gone++ < 3) listed_while_gone += listed(kNode);
    }
    EXPECT_GT(empty_while_gone, 0u);
    EXPECT_GT(looked_while_gone, 0u);
    EXPECT_EQ(0u, listed_while_gone) << "an unplugged node is not listed";
    EXPECT_TRUE(listed(kNode));
    const auto stats = camera.stats();
    EXPECT_EQ(1u, stats.reconnects);
    EXPECT_EQ(ENOENT, stats.last_errno) << "the reopens while it was gone found no node";
    std::lock_guard<std::mutex> lock(seen_mutex);
    ASSERT_EQ(3u, seen.size());
    EXPECT_EQ(orvo::CameraState::disconnected, seen[0].first);
    EXPECT_EQ(orvo::CameraState::reconnecting, seen[1].first);
    EXPECT_EQ(orvo::CameraState::streaming, seen[2].first);
    const uint64_t lost_ns = seen[0].second;
    size_t before = 0;
    while (before < frames.size() && frames[before].host_time_ns < lost_ns) ++before;
    EXPECT_GE(before, 1u);
    EXPECT_LE(before, 4u) << "four dequeues succeeded before the unplug";
    ASSERT_GE(frames.size(), before + 5);
    for (size_t k = before; k < frames.size(); ++k)
        EXPECT_GT(frames[k].host_time_ns, lost_ns + 290000000) << "frame " << k << " is from before the replug";
    for (size_t k = 1; k < frames.size(); ++k) {
        EXPECT_GT(frames[k].sequence, frames[k - 1].sequence);
        EXPECT_GT(frames[k].device_time_us, frames[k - 1].device_time_us);
        EXPECT_GT(frames[k].host_time_ns, frames[k - 1].host_time_ns);
    }
}

// Two nodes at once, each with its own source, rate and truth, grabbed from two threads: each
// camera gets its own node's frames at its own pace.
TEST(RuntimeStream, TwoCamerasOnTwoNodesAtOnceEachGetTheirOwnFrames) {
    orvo_test::ScratchDir dir;
    const std::string nodes[2] = {kNode, kSecondNode}, truth[2] = {dir.file("a.txt"), dir.file("b.txt")};
    VcamEnv env("", "pattern", "100", truth[0]);
    env.with("ORVO_VCAM_DEVICE", nodes[0] + "," + nodes[1])
        .with("ORVO_VCAM_SOURCE_1", "")  // the default scene
        .with("ORVO_VCAM_FPS_1", "50")
        .with("ORVO_VCAM_TRUTH_1", truth[1]);
    EXPECT_TRUE(listed(nodes[0]));
    EXPECT_TRUE(listed(nodes[1]));
    std::vector<orvo::Frame> frames[2];
    {
        orvo::CameraOptions opt;
        opt.queue_depth = 32;
        orvo::Camera a(nodes[0], opt), b(nodes[1], opt);
        std::thread ta([&] { frames[0] = grabN(a, 12); }), tb([&] { frames[1] = grabN(b, 12); });
        ta.join();
        tb.join();
    }
    const double period_ns[2] = {1e7, 2e7};
    for (int n = 0; n < 2; ++n) {
        SCOPED_TRACE(nodes[n]);
        ASSERT_EQ(12u, frames[n].size());
        auto served = truthBySequence(truth[n]);
        size_t pattern_pairs = 0;
        for (const orvo::Frame& f : frames[n]) {
            ASSERT_EQ(1u, served.count(f.sequence));
            EXPECT_EQ(std::stoull(served[f.sequence]["ticks"]), f.device_time_us);
            EXPECT_NEAR(std::stod(served[f.sequence]["timestamp"]), double(f.host_time_ns) * 1e-9, 2e-6);
            EXPECT_EQ(n == 0, served[f.sequence]["source"] == "pattern");
            const cv::Rect right_part(0, 0, 740, 479), left_part(12, 0, 740, 479);
            pattern_pairs += cv::norm(f.right(right_part), f.left(left_part), cv::NORM_INF) == 0;
        }
        EXPECT_EQ(n == 0 ? frames[n].size() : 0u, pattern_pairs);
        // Paced frames are due a whole period apart, dropped ones included.
        const orvo::Frame &first = frames[n].front(), &last = frames[n].back();
        EXPECT_NEAR(period_ns[n], double(last.host_time_ns - first.host_time_ns) / double(last.sequence - first.sequence),
                    1e3);
        EXPECT_GE(orvo::vcam::statistics(nodes[n]).frames_served, 12u);
    }
}

// The cable pulled after four frames, no reconnect: nothing stale, nothing more, and it shows.
TEST(RuntimeStream, LostDeviceWithoutReconnectStopsHandingOutFrames) {
    const std::pair<const char*, int> faults[] = {{"DQBUF@5=ENODEV", ENODEV}, {"DQBUF@5=EIO", EIO}};
    for (const auto& [fault, err] : faults) {
        SCOPED_TRACE(fault);
        VcamEnv env(fault);
        std::vector<orvo::CameraState> seen;
        std::mutex seen_mutex;
        orvo::CameraOptions opt;
        opt.reconnect = false;
        opt.queue_depth = 8;
        opt.on_state_change = [&](orvo::CameraState s) {
            std::lock_guard<std::mutex> lock(seen_mutex);
            seen.push_back(s);
        };
        const size_t fds = runtime_test::openDescriptors();
        orvo::Camera camera(kNode, opt);
        auto frames = grabN(camera, 10);
        EXPECT_LE(frames.size(), 4u);
        for (size_t k = 1; k < frames.size(); ++k) EXPECT_GT(frames[k].sequence, frames[k - 1].sequence);
        EXPECT_FALSE(camera.grab(300ms).has_value());
        EXPECT_EQ(orvo::CameraState::disconnected, camera.state());
        const auto stats = camera.stats();
        EXPECT_EQ(err, stats.last_errno);
        EXPECT_NE(stats.last_error.find("DQBUF"), std::string::npos) << stats.last_error;
        EXPECT_GT(stats.last_error_time_ns, 0u);
        EXPECT_EQ(0u, stats.reconnects);
        // The lost stream gave its descriptor back at once; the camera keeps only its wake-up eventfd.
        EXPECT_EQ(fds + 1, runtime_test::openDescriptors());
        std::lock_guard<std::mutex> lock(seen_mutex);
        EXPECT_EQ(std::vector<orvo::CameraState>{orvo::CameraState::disconnected}, seen);
    }
}

// Every frame goes to one caller, and each caller sees its frames in order.
TEST(RuntimeStream, SeveralThreadsGetDistinctFrames) {
    VcamEnv env("", "pattern", "200");
    orvo::CameraOptions opt;
    opt.queue_depth = 4;
    orvo::Camera camera(kNode, opt);
    constexpr int kThreads = 4;
    std::vector<std::vector<uint64_t>> got(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 15; ++i)
                if (auto f = camera.grab(2s)) got[t].push_back(f->sequence);
        });
    for (auto& th : threads) th.join();
    std::set<uint64_t> all;
    size_t total = 0;
    for (const auto& g : got) {
        for (size_t k = 1; k < g.size(); ++k) EXPECT_GT(g[k], g[k - 1]);
        all.insert(g.begin(), g.end());
        total += g.size();
    }
    EXPECT_EQ(size_t(kThreads * 15), total);
    EXPECT_EQ(total, all.size()) << "a frame was handed out twice";
}

TEST(RuntimeStream, CloseEndsGrabsAndFreesTheNode) {
    VcamEnv env;
    orvo::Camera camera(kNode);
    ASSERT_TRUE(camera.grab(2s).has_value());
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        camera.grab(10s);
        returned = true;
    });
    std::this_thread::sleep_for(50ms);
    camera.close();
    waiter.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(orvo::CameraState::closed, camera.state());
    EXPECT_FALSE(camera.grab(0ms).has_value());
    orvo::Camera again(kNode);  // the node is free for the next owner
    EXPECT_TRUE(again.grab(2s).has_value());
}

// A frame kept by the application outlives the camera that made it.
TEST(RuntimeStream, FramesOutliveTheirCamera) {
    VcamEnv env;
    std::optional<orvo::Frame> kept;
    cv::Mat copy;
    {
        orvo::Camera camera(kNode);
        kept = camera.grab(2s);
        ASSERT_TRUE(kept.has_value());
        copy = kept->left.clone();
    }
    EXPECT_EQ(0, cv::norm(copy, kept->left, cv::NORM_INF));
}
