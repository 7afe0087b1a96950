// Attitude estimation: the filter step against an independent implementation, its settling, gain
// switch and failure paths, the facade's forwarders, and the gyro bias measurement on crafted frames.
#include <array>

#include "engine_test_support.h"

using namespace engine_test;

static const std::string kStart = "Wait for the IMU calibration to finish\n", kFinish = "IMU calibration finish!\n";
static const std::string kNoRecord = "IMU calibration: no inertial record in 100 frames, gyro bias left unchanged\n";

// The filter written out again from its definition, component by component (its integral gain is 0).
struct ReferenceFilter {
    float q[4] = {1, 0, 0, 0};
    unsigned steps = 0;  // steps run so far, not saturated
    void step(const float gyro[3], const float accel[3], float period, float out[4]) {
        const float n = std::sqrt(accel[1] * accel[1] + accel[0] * accel[0] + accel[2] * accel[2]);
        const float a[3] = {accel[0] / n, accel[1] / n, accel[2] / n};
        const float v[3] = {2.0f * (q[1] * q[3] - q[0] * q[2]), 2.0f * (q[0] * q[1] + q[2] * q[3]),
                            q[0] * q[0] - q[1] * q[1] - q[2] * q[2] + q[3] * q[3]};
        const float e[3] = {a[1] * v[2] - a[2] * v[1], a[2] * v[0] - a[0] * v[2], a[0] * v[1] - a[1] * v[0]};
        const float kp = steps >= 501 ? 0.08f : 10.0f;
        float w[3];
        for (int i = 0; i < 3; ++i) w[i] = gyro[i] + kp * e[i] + 0.0f;  // the integral term stays +0
        auto advance = [&](float c, float bracket) { return float(double(c) + double(bracket) * 0.5 * double(period)); };
        q[0] = advance(q[0], -q[1] * w[0] - q[2] * w[1] - q[3] * w[2]);
        q[1] = advance(q[1], q[0] * w[0] + q[2] * w[2] - q[3] * w[1]);
        q[2] = advance(q[2], q[0] * w[1] - q[1] * w[2] + q[3] * w[0]);
        q[3] = advance(q[3], q[0] * w[2] + q[1] * w[1] - q[2] * w[0]);
        const float m = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
        for (float& c : q) c /= m;
        for (int i = 0; i < 4; ++i) out[i] = steps >= 500 ? q[i] : 0.0f;
        ++steps;
    }
};

static bool sameBits(const float* a, const float* b, int n) { return std::memcmp(a, b, sizeof(float) * n) == 0; }

// Through ImuRect (rates, then acceleration), random inputs: zeros while settling (500 steps), kp 10 through
// step 501, 0.08 from 502; the count jumps to 600 and stays there. Without an output a step is refused.
TEST(Attitude, ImuRectStepsMatchAnIndependentImplementationBitForBit) {
    VirtualCamera cam("pattern");
    auto facade = makeFacade("", "");
    StereoCamera* engine = camera_;
    ReferenceFilter ref;
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> rate(-3.0f, 3.0f), acc(-1.5f, 1.5f), period(0.0005f, 0.02f);
    for (int i = 1; i <= 2000; ++i) {
        const float g[3] = {rate(rng), rate(rng), rate(rng)}, a[3] = {acc(rng), acc(rng), acc(rng) + 1.0f};
        const float dt = period(rng);
        float got[4] = {9, 9, 9, 9}, want[4];
        facade->ImuRect(ImuData{uint32_t(i), a[0], a[1], a[2], g[0], g[1], g[2]}, dt, got);
        ref.step(g, a, dt, want);
        SCOPED_TRACE("step " + std::to_string(i));
        ASSERT_TRUE(sameBits(got, want, 4) && sameBits(engine->quaternion, ref.q, 4));
        ASSERT_EQ(engine->solution_count, i <= 500 ? i : 600);
        ASSERT_EQ(engine->kp, i <= 501 ? 10.0f : 0.08f);
    }
    orvo_test::captureOutput([&] { facade.reset(); });
    auto e = makeEngine("", "", "");
    float out[4];
    const auto cap = orvo_test::captureOutput([&] { e->imu_solution(0, 0, 0, 0, 0, 1, 0.01f, nullptr); });
    EXPECT_EQ(cap.err, "imu_solution: no output given\n");
    EXPECT_TRUE(e->solution_count == 0 && e->quaternion[0] == 1.0f);
    for (int i = 0; i < 70000; ++i) e->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);
    EXPECT_EQ(e->solution_count, 600);  // saturated, never wrapped
    EXPECT_EQ(cv::Vec4f(out[0], out[1], out[2], out[3]), cv::Vec4f(1, 0, 0, 0));
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
