// Attitude estimation: the filter's settling, gain switch and saturation, its answer for still and
// turning cameras (the scene-driven check against the virtual camera's truth is in test_vcam_scene),
// its failure paths, the facade's forwarder, and the gyro bias measurement on crafted frames.
#include <array>

#include "engine_test_support.h"

using namespace engine_test;

static const std::string kStart = "Wait for the IMU calibration to finish\n", kFinish = "IMU calibration finish!\n";
static const std::string kNoRecord = "IMU calibration: no inertial record in 100 frames, gyro bias left unchanged\n";

// Steps the filter through the facade's ImuRect `steps` times with one gyro rate (rad/s) and one
// acceleration (g) every 5 ms; returns the last output.
static cv::Vec4f feed(OrvoCamera& facade, int steps, cv::Vec3f gyro, cv::Vec3f accel) {
    float out[4] = {9, 9, 9, 9};
    for (int i = 0; i < steps; ++i)
        facade.ImuRect(ImuData{uint32_t(i), accel[0], accel[1], accel[2], gyro[0], gyro[1], gyro[2]}, 0.005f, out);
    return {out[0], out[1], out[2], out[3]};
}

// A level still camera: zeros while settling (500 steps), then exactly the identity; kp 10 through
// step 501, 0.08 from 502; the count jumps to 600 and stays there, never wrapping. Without an output
// a step is refused.
TEST(Attitude, LevelStillCameraSettlesOnTheIdentityWithTheDefinedGainsAndCounts) {
    VirtualCamera cam("pattern");
    auto facade = makeFacade("", "");
    StereoCamera* engine = camera_;
    for (int i = 1; i <= 2000; ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        const cv::Vec4f out = feed(*facade, 1, {0, 0, 0}, {0, 0, 1});
        ASSERT_EQ(out, i <= 500 ? cv::Vec4f(0, 0, 0, 0) : cv::Vec4f(1, 0, 0, 0));
        ASSERT_EQ(engine->solution_count, i <= 500 ? i : 600);
        ASSERT_EQ(engine->kp, i <= 501 ? 10.0f : 0.08f);
    }
    for (int i = 0; i < 70000; ++i) feed(*facade, 1, {0, 0, 0}, {0, 0, 1});
    EXPECT_EQ(engine->solution_count, 600);
    const auto cap = orvo_test::captureOutput([&] { engine->imu_solution(0, 0, 1, 0, 0, 1, 0.01f, nullptr); });
    EXPECT_EQ(cap.err, "imu_solution: no output given\n");
    EXPECT_EQ(engine->solution_count, 600);
    orvo_test::captureOutput([&] { facade.reset(); });
}

// Known motions, each on a fresh filter. A turn about the vertical is invisible to gravity: 1 rad/s
// for 0.5 s is a rotation of 0.5 rad about +z. About x or y the gravity term (kp 10) holds the tilt
// where kp times the error meets the rate: 0.1 rad, with the rate's sign. A still camera tilted
// 0.3 rad about x, or about y, settles on that tilt (within the error's dead band of 0.01).
TEST(Attitude, KnownRotationsAndTiltsGiveTheirAxisAndSign) {
    VirtualCamera cam("pattern");
    const float t = 0.3f;
    const struct { const char* what; int steps; cv::Vec3f gyro, accel; cv::Vec4d want; double tol; } cases[] = {
        {"+z turn", 100, {0, 0, 1}, {0, 0, 1}, {std::cos(0.25), 0, 0, std::sin(0.25)}, 2e-4},
        {"+x rate held by gravity", 100, {1, 0, 0}, {0, 0, 1}, {std::cos(0.05), std::sin(0.05), 0, 0}, 6e-3},
        {"tilted about x", 501, {0, 0, 0}, {0, std::sin(t), std::cos(t)}, {std::cos(t / 2), std::sin(t / 2), 0, 0}, 6e-3},
        {"tilted about y", 501, {0, 0, 0}, {-std::sin(t), 0, std::cos(t)}, {std::cos(t / 2), 0, std::sin(t / 2), 0}, 6e-3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto facade = makeFacade("", "");
        feed(*facade, c.steps, c.gyro, c.accel);
        const float* q = camera_->quaternion;
        EXPECT_LT(cv::norm(cv::Vec4d(q[0], q[1], q[2], q[3]) - c.want), c.tol) << cv::Vec4f(q[0], q[1], q[2], q[3]);
        orvo_test::captureOutput([&] { facade.reset(); });
    }
}

// setImuCorrection's gyro bias over 100 frames: the mean of every record, truncated towards zero, with
// counts clamped to the 20 slots, empty frames skipped, and without a record the previous bias kept.
TEST(ImuInit, BiasIsTheTruncatedMeanOfEveryRecordInAHundredFrames) {
    TempDir dir;
    std::mt19937 rng(5);
    // A frame with these gyro readings in its first slots (the rest random) and the count byte `count`.
    auto frame = [&](std::vector<std::array<int16_t, 3>> gyros, uint8_t count) {
        Frame f = randomFrame(rng, count);
        for (auto& g : gyros) putRecord(f, kCookedBlockFromEnd, int(&g - gyros.data()), g.data(), g.data());
        return f;
    };
    const std::vector<std::array<int16_t, 3>> twenty(20, {9, -9, 4});
    const std::string qbuf = "VIDIOC_QBUF error 9, Bad file descriptor\n";
    std::string dead = "VIDIOC_DQBUF error 5, Input/output error\nerrr\n" + qbuf;  // the "dead" row's output
    for (int i = 0; i < 96; ++i) dead += "VIDIOC_DQBUF error 9, Bad file descriptor\nerrr\n" + qbuf;
    const struct {
        const char* what;
        std::vector<Frame> frames;
        std::string faults;
        std::array<int32_t, 3> bias;
        std::string err, between = "";  // on standard error; on standard output between the two lines
    } rows[] = {
        // x +3 and -4 (mean -0.5 -> 0), y +7 and -2 (2.5 -> 2), z -7 and +2 (-2.5 -> -2).
        {"truncated", {frame({{3, 7, -7}, {-4, -2, 2}}, 2)}, "", {0, 2, -2}, ""},
        // A count of 25 (20 slots are read), a count of 0 above random records, 3 records above random ones.
        {"clamped", {frame(twenty, 25), frame({}, 0), frame({twenty.begin(), twenty.begin() + 3}, 3)}, "", {9, -9, 4}, ""},
        {"no record", {frame({{100, 100, 100}}, 0)}, "", {5, -6, 7}, kNoRecord},
        {"all empty", {frame({{10, -10, 30}}, 1)}, "bytesused=0", {5, -6, 7}, kNoRecord},
        // One record, then none, alternating; the 4th dequeue fails and closes the camera, whose later
        // passes reuse the 3rd frame (with its record).
        {"dead", {frame({{40, 0, 0}}, 1), frame({}, 0)}, "DQBUF@4=EIO:1", {40, 0, 0}, "", dead},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        VirtualCamera cam("raw:" + writeRaw(dir, row.frames), row.faults);
        auto facade = makeFacade("", "");
        StereoCamera* engine = camera_;
        std::copy_n(std::array<int32_t, 3>{5, -6, 7}.data(), 3, engine->gyro_bias);
        engine->quaternion[1] = 0.5f;
        engine->solution_count = 42;
        const auto cap = orvo_test::captureOutput([&] { facade->setImuCorrection(-0.2f, 0.2f, 0.01f, -0.02f, 0.03f); });
        EXPECT_EQ(cap.out, kStart + row.between + kFinish);
        EXPECT_EQ(cap.err, row.err);
        EXPECT_EQ((std::array<int32_t, 3>{engine->gyro_bias[0], engine->gyro_bias[1], engine->gyro_bias[2]}), row.bias);
        // The settings are stored all the same, and the filter left alone.
        EXPECT_EQ((std::vector<float>{engine->gyro_deadband_low, engine->gyro_deadband_high, engine->accel_offset[0],
                                      engine->accel_offset[1], engine->accel_offset[2]}),
                  (std::vector<float>{-0.2f, 0.2f, 0.01f, -0.02f, 0.03f}));
        EXPECT_TRUE(engine->quaternion[1] == 0.5f && engine->solution_count == 42 && engine->kp == 10.0f);
        orvo_test::captureOutput([&] { facade.reset(); });  // a dead camera reports its shutdown
    }
}
