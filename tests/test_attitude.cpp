// Attitude estimation: the filter step against an independent implementation, its settling and
// gain switch, convergence on a tilted rig, and the gyro bias measurement on crafted frames.
#include <array>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

const std::string kStart = "Wait for the IMU calibration to finish\n";
const std::string kFinish = "IMU calibration finish!\n";
const std::string kNoRecord = "IMU calibration: no inertial record in 100 frames, gyro bias left unchanged\n";

// The filter written out again from its definition, component by component.
struct ReferenceFilter {
    float q[4] = {1, 0, 0, 0};
    float integral[3] = {0, 0, 0};
    float kp = 10.0f, ki = 0.0f;
    unsigned steps = 0;  // steps run so far, not saturated

    void step(const float gyro[3], const float accel[3], float period, float out[4]) {
        const float n = std::sqrt(accel[1] * accel[1] + accel[0] * accel[0] + accel[2] * accel[2]);
        const float a[3] = {accel[0] / n, accel[1] / n, accel[2] / n};
        const float v[3] = {2.0f * (q[1] * q[3] - q[0] * q[2]), 2.0f * (q[0] * q[1] + q[2] * q[3]),
                            q[0] * q[0] - q[1] * q[1] - q[2] * q[2] + q[3] * q[3]};
        const float e[3] = {a[1] * v[2] - a[2] * v[1], a[2] * v[0] - a[0] * v[2],
                            a[0] * v[1] - a[1] * v[0]};
        for (int i = 0; i < 3; ++i) integral[i] = std::fmaf(ki, e[i], integral[i]);
        if (steps >= 501) kp = 0.08f;
        float w[3];
        for (int i = 0; i < 3; ++i) w[i] = gyro[i] + kp * e[i] + integral[i];
        auto advance = [&](float component, float bracket) {
            return float(double(component) + double(bracket) * 0.5 * double(period));
        };
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

std::vector<float> settings(const StereoCamera& e) {
    return {e.gyro_deadband_low, e.gyro_deadband_high, e.accel_offset[0], e.accel_offset[1], e.accel_offset[2]};
}

bool sameBits(const float* a, const float* b, int n) { return std::memcmp(a, b, sizeof(float) * n) == 0; }

}  // namespace

// Random inputs make the error term, and so the gain, visible in every step: zeros while
// settling (500 steps), kp 10 through step 501, 0.08 from step 502; the count jumps to 600 and
// saturates there.
TEST(Attitude, StepsMatchAnIndependentImplementationBitForBit) {
    VirtualCamera cam("pattern");
    for (float ki : {0.0f, 0.05f}) {
        auto engine = makeEngine("", "", "");
        if (ki != 0.0f) engine->ki = ki;  // otherwise the engine's initial state is the reference's
        ReferenceFilter ref;
        ref.ki = ki;
        std::mt19937 rng(ki == 0.0f ? 1234u : 4321u);
        std::uniform_real_distribution<float> rate(-3.0f, 3.0f), acc(-1.5f, 1.5f), period(0.0005f, 0.02f);
        for (int i = 1; i <= 2000; ++i) {
            const float g[3] = {rate(rng), rate(rng), rate(rng)};
            const float a[3] = {acc(rng), acc(rng), acc(rng) + 1.0f};
            const float dt = period(rng);
            float got[4] = {9, 9, 9, 9}, want[4];
            engine->imu_solution(g[0], g[1], g[2], a[0], a[1], a[2], dt, got);
            ref.step(g, a, dt, want);
            ASSERT_TRUE(sameBits(got, want, 4)) << "ki " << ki << " step " << i;
            ASSERT_TRUE(sameBits(engine->quaternion, ref.q, 4)) << "ki " << ki << " step " << i;
            ASSERT_TRUE(sameBits(engine->integral_error, ref.integral, 3));
            ASSERT_EQ(engine->solution_count, i <= 500 ? i : 600) << "step " << i;
            ASSERT_EQ(engine->kp, i <= 501 ? 10.0f : 0.08f) << "step " << i;
        }
        if (ki != 0.0f) {
            EXPECT_NE(engine->integral_error[0], 0.0f);
        }
    }
    auto engine = makeEngine("", "", "");
    float out[4];
    for (int i = 0; i < 70000; ++i) engine->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);
    EXPECT_EQ(engine->solution_count, 600);  // saturated, never wrapped
    EXPECT_TRUE(out[0] == 1.0f && out[1] == 0.0f && out[2] == 0.0f && out[3] == 0.0f);
}

TEST(Attitude, TiltedRigConvergesOntoGravity) {
    VirtualCamera cam("pattern");
    auto engine = makeEngine("", "", "");
    // Rig rolled 25 degrees and pitched -40 degrees, at rest.
    const double roll = 25 * M_PI / 180, pitch = -40 * M_PI / 180;
    const double g[3] = {-std::sin(pitch), std::sin(roll) * std::cos(pitch), std::cos(roll) * std::cos(pitch)};
    float out[4];
    for (int i = 0; i < 1500; ++i) engine->imu_solution(0, 0, 0, float(g[0]), float(g[1]), float(g[2]), 0.005f, out);
    // Gravity as the output quaternion predicts it, in the rig's frame.
    const double q0 = out[0], q1 = out[1], q2 = out[2], q3 = out[3];
    const double v[3] = {2 * (q1 * q3 - q0 * q2), 2 * (q0 * q1 + q2 * q3), q0 * q0 - q1 * q1 - q2 * q2 + q3 * q3};
    const double cosine = (v[0] * g[0] + v[1] * g[1] + v[2] * g[2]) / std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    EXPECT_LT(std::acos(std::min(1.0, cosine)) * 180 / M_PI, 0.5);
    EXPECT_NEAR(q0 * q0 + q1 * q1 + q2 * q2 + q3 * q3, 1.0, 1e-6);
}

TEST(Attitude, ZeroAccelerationPoisonsTheQuaternionAndAMissingOutputIsRefused) {
    VirtualCamera cam("pattern");
    auto engine = makeEngine("", "", "");
    const auto cap = orvo_test::captureOutput([&] { engine->imu_solution(0, 0, 0, 0, 0, 1, 0.01f, nullptr); });
    EXPECT_EQ(cap.err, "imu_solution: no output given\n");
    EXPECT_EQ(engine->solution_count, 0);
    EXPECT_EQ(engine->quaternion[0], 1.0f);
    float out[4];
    engine->imu_solution(0, 0, 0, 0, 0, 0, 0.01f, out);
    engine->imu_solution(0, 0, 0, 0, 0, 1, 0.01f, out);
    EXPECT_TRUE(std::isnan(engine->quaternion[0]));
}

TEST(AttitudeFacade, ImuRectPassesRatesThenAccelerationAndSetImuCorrectionItsFive) {
    VirtualCamera cam("pattern");
    auto facade = makeFacade("", "");
    ReferenceFilter ref;
    std::mt19937 rng(77);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int i = 1; i <= 520; ++i) {
        ImuData sample{uint32_t(i), u(rng), u(rng), 1.0f + u(rng), u(rng), u(rng), u(rng)};
        const float gyro[3] = {sample.gyro_x, sample.gyro_y, sample.gyro_z};
        const float accel[3] = {sample.accel_x, sample.accel_y, sample.accel_z};
        float got[4], want[4];
        facade->ImuRect(sample, 0.004f, got);
        ref.step(gyro, accel, 0.004f, want);
        ASSERT_TRUE(sameBits(got, want, 4)) << "step " << i;
    }
    // The 100-frame bias measurement on the pattern source, with the settings stored in order.
    const auto out = orvo_test::captureOutput([&] { facade->setImuCorrection(-1.5f, 2.5f, 0.125f, -0.25f, 0.5f); });
    EXPECT_EQ(out.out.substr(0, kStart.size()), kStart);
    EXPECT_EQ(out.out.substr(out.out.size() - kFinish.size()), kFinish);
    EXPECT_EQ(settings(*camera_), (std::vector<float>{-1.5f, 2.5f, 0.125f, -0.25f, 0.5f}));
    orvo_test::captureOutput([&] { facade.reset(); });
}

// The gyro bias over 100 frames: the mean of every record, truncated towards zero, with counts
// clamped to the 20 slots, empty frames skipped, and without a record the previous bias kept.
TEST(ImuInit, BiasIsTheTruncatedMeanOfEveryRecordInAHundredFrames) {
    TempDir dir;
    std::mt19937 rng(5);
    // A frame with these gyro readings in its first slots (the rest random) and the count byte `count`.
    auto frame = [&](std::vector<std::array<int16_t, 3>> gyros, uint8_t count) {
        Frame f = randomFrame(rng, count);
        const int16_t accel[3] = {0, 0, 8192};
        for (size_t i = 0; i < gyros.size(); ++i) putRecord(f, kCookedBlockFromEnd, int(i), gyros[i].data(), accel);
        return f;
    };
    // Four random frames looped 25 times: a count of 25 (20 slots are read), a count of 0 above
    // random records, three records and a full block of 20.
    std::vector<Frame> clamped{frame({}, 25), frame({}, 0), frame({}, 3), frame({}, 20)};
    int64_t sum[3] = {0, 0, 0}, total = 0;
    for (const Frame& f : clamped)
        for (int i = 0; i < std::min<int>(f.back(), 20); ++i, total += 25)
            for (int a = 0; a < 3; ++a) sum[a] += 25 * le16(f.data() + f.size() - kCookedBlockFromEnd + 24 * i + 4 + 2 * a);
    const std::string fail = "VIDIOC_DQBUF error 5, Input/output error\nerrr\nVIDIOC_QBUF error 9, Bad file descriptor\n";
    std::string dead;  // a closed camera: every pass fails, says "errr" and reuses the frame held
    for (int i = 0; i < 96; ++i)
        dead += "VIDIOC_DQBUF error 9, Bad file descriptor\nerrr\nVIDIOC_QBUF error 9, Bad file descriptor\n";
    struct Row {
        const char* what;
        std::vector<Frame> frames;
        std::string faults;
        std::array<int32_t, 3> bias;
        std::string out, err;
    } rows[] = {
        // x +3 and -4 (mean -0.5 -> 0), y +7 and -2 (2.5 -> 2), z -7 and +2 (-2.5 -> -2).
        {"truncated", {frame({{3, 7, -7}, {-4, -2, 2}}, 2)}, "", {0, 2, -2}, kStart + kFinish, ""},
        {"clamped", clamped, "", {int32_t(sum[0] / total), int32_t(sum[1] / total), int32_t(sum[2] / total)},
         kStart + kFinish, ""},
        {"no record", {frame({{100, 100, 100}}, 0)}, "", {5, -6, 7}, kStart + kFinish, kNoRecord},
        // From the 51st dequeue on the buffers are empty: only 50 frames count.
        {"empty from 51", {frame({{10, -10, 30}, {11, -13, 0}}, 2)}, "bytesused@51=0", {10, -11, 15},
         kStart + kFinish, ""},
        {"all empty", {frame({{10, -10, 30}}, 1)}, "bytesused=0", {5, -6, 7}, kStart + kFinish, kNoRecord},
        // One record, then none, alternating; the 4th dequeue fails and closes the camera, whose
        // later passes reuse the 3rd frame (with its record).
        {"dead", {frame({{40, 0, 0}}, 1), frame({}, 0)}, "DQBUF@4=EIO:1", {40, 0, 0},
         kStart + fail + dead + kFinish, ""},
    };
    for (Row& row : rows) {
        SCOPED_TRACE(row.what);
        VirtualCamera cam("raw:" + writeRaw(dir, row.frames), row.faults);
        auto engine = makeEngine("", "", "");
        const int32_t preset[3] = {5, -6, 7};
        std::copy(preset, preset + 3, engine->gyro_bias);
        engine->quaternion[1] = 0.5f;
        engine->solution_count = 42;
        const auto cap = orvo_test::captureOutput([&] { engine->imu_init(-0.2f, 0.2f, 0.01f, -0.02f, 0.03f); });
        EXPECT_EQ(cap.out, row.out);
        EXPECT_EQ(cap.err, row.err);
        EXPECT_EQ((std::array<int32_t, 3>{engine->gyro_bias[0], engine->gyro_bias[1], engine->gyro_bias[2]}), row.bias);
        // The settings are stored all the same, and the filter left alone.
        EXPECT_EQ(settings(*engine), (std::vector<float>{-0.2f, 0.2f, 0.01f, -0.02f, 0.03f}));
        EXPECT_TRUE(engine->quaternion[1] == 0.5f && engine->solution_count == 42 && engine->kp == 10.0f);
        if (&row == &rows[0]) {  // the next frame decodes with the new settings
            cv::Mat a, b;
            std::vector<ImuData> imu;
            unsigned int t = 0;
            engine->update_cam_imu(a, b, imu, t);
            ASSERT_EQ(imu.size(), 2u);
            EXPECT_EQ(imu[0].gyro_x, 0.0f);  // 3 / 16.4 = 0.18 deg/s lies inside the dead band
            EXPECT_EQ(imu[0].gyro_y, float(double(float(7 - 2) / 16.4f) / 57.3));
            EXPECT_EQ(imu[1].gyro_x, float(double(float(-4) / 16.4f) / 57.3));
            EXPECT_EQ(imu[1].gyro_z, float(double(float(2 - -2) / 16.4f) / 57.3));
            EXPECT_EQ(imu[0].accel_z, std::fmaf(8192.0f, 0.0001220703125f, 0.03f));
        }
        orvo_test::captureOutput([&] { engine.reset(); });  // a dead camera reports its shutdown
    }
}
