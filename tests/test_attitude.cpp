// Tests of attitude estimation: the filter step against an independent implementation, its
// settling and gain switch, convergence on a tilted rig, and the gyro bias measurement on crafted
// frames replayed by the virtual camera.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "OrvoCamera.h"
#include "StereoCamera.h"
#include "run_capture.h"

namespace {

const char* kNode = "/dev/video-virtual-attitude";
const std::string kStart = "Wait for the IMU calibration to finish\n";
const std::string kFinish = "IMU calibration finish!\n";
constexpr size_t kFrameBytes = 752 * 480 * 2;

// Fresh engine on the virtual camera with the given frame source and faults.
std::unique_ptr<StereoCamera> makeEngine(const std::string& source, const std::string& faults = "") {
    setenv("ORVO_VCAM_DEVICE", kNode, 1);
    setenv("ORVO_VCAM_SOURCE", source.c_str(), 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    if (faults.empty())
        unsetenv("ORVO_VCAM_FAULTS");
    else
        setenv("ORVO_VCAM_FAULTS", faults.c_str(), 1);
    DeviceParameter p{};
    p.video_path = kNode;
    p.width = 752;
    p.height = 480;
    return std::unique_ptr<StereoCamera>(new StereoCamera(p));
}

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

bool sameBits(const float* a, const float* b, int n) { return std::memcmp(a, b, sizeof(float) * n) == 0; }

class Attitude : public ::testing::Test {
protected:
    void SetUp() override { engine_ = makeEngine("pattern"); }
    void TearDown() override { engine_.reset(); }
    std::unique_ptr<StereoCamera> engine_;
};

TEST_F(Attitude, StaticLevelSettlesThenHoldsTheIdentity) {
    float out[4];
    for (int i = 1; i <= 500; ++i) {
        std::fill(out, out + 4, -7.0f);
        engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);
        ASSERT_EQ(out[0], 0.0f) << "step " << i;
        ASSERT_EQ(out[1], 0.0f);
        ASSERT_EQ(out[2], 0.0f);
        ASSERT_EQ(out[3], 0.0f);
        ASSERT_EQ(engine_->solution_count, i);
        ASSERT_EQ(engine_->kp, 10.0f);
    }
    engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);  // step 501
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[1], 0.0f);
    EXPECT_EQ(out[2], 0.0f);
    EXPECT_EQ(out[3], 0.0f);
    EXPECT_EQ(engine_->kp, 10.0f);
    EXPECT_EQ(engine_->solution_count, 600);
    engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);  // step 502
    EXPECT_EQ(engine_->kp, 0.08f);
    EXPECT_EQ(engine_->solution_count, 600);
    for (int i = 0; i < 70000; ++i) engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.005f, out);
    EXPECT_EQ(engine_->solution_count, 600);  // saturated, never wrapped
    EXPECT_EQ(out[0], 1.0f);
}

TEST_F(Attitude, GainDuringSteps501And502) {
    // A quaternion off gravity makes the error term, and so the gain, visible in the result.
    ReferenceFilter high, low;
    float out[4], a[4], b[4];
    const float gyro[3] = {0.01f, -0.02f, 0.03f}, accel[3] = {0.3f, -0.2f, 0.9f};
    for (int i = 0; i < 500; ++i) {
        engine_->imu_solution(gyro[0], gyro[1], gyro[2], accel[0], accel[1], accel[2], 0.001f, out);
        high.step(gyro, accel, 0.001f, a);
    }
    ASSERT_TRUE(sameBits(engine_->quaternion, high.q, 4));
    // Step 501 with kp 10 matches; the same step with 0.08 would not.
    low = high;
    low.kp = 0.08f;
    low.steps = 600;
    engine_->imu_solution(gyro[0], gyro[1], gyro[2], accel[0], accel[1], accel[2], 0.001f, out);
    high.step(gyro, accel, 0.001f, a);
    low.step(gyro, accel, 0.001f, b);
    EXPECT_TRUE(sameBits(out, a, 4));
    EXPECT_FALSE(sameBits(out, b, 4));
    // Step 502 runs with 0.08.
    ReferenceFilter still_high = high;
    still_high.steps = 0;  // keeps kp at 10
    float c[4];
    engine_->imu_solution(gyro[0], gyro[1], gyro[2], accel[0], accel[1], accel[2], 0.001f, out);
    high.step(gyro, accel, 0.001f, a);
    still_high.step(gyro, accel, 0.001f, c);
    EXPECT_TRUE(sameBits(out, a, 4));
    EXPECT_FALSE(sameBits(engine_->quaternion, still_high.q, 4));
}

TEST_F(Attitude, RandomStepsMatchAnIndependentImplementationBitForBit) {
    for (float ki : {0.0f, 0.05f}) {
        engine_.reset();  // one open camera at a time
        engine_ = makeEngine("pattern");
        engine_->ki = ki;
        ReferenceFilter ref;
        ref.ki = ki;
        std::mt19937 rng(ki == 0.0f ? 1234u : 4321u);
        std::uniform_real_distribution<float> rate(-3.0f, 3.0f), acc(-1.5f, 1.5f),
            period(0.0005f, 0.02f);
        for (int i = 0; i < 2000; ++i) {
            const float g[3] = {rate(rng), rate(rng), rate(rng)};
            const float a[3] = {acc(rng), acc(rng), acc(rng) + 1.0f};
            const float dt = period(rng);
            float got[4] = {9, 9, 9, 9}, want[4];
            engine_->imu_solution(g[0], g[1], g[2], a[0], a[1], a[2], dt, got);
            ref.step(g, a, dt, want);
            ASSERT_TRUE(sameBits(got, want, 4)) << "ki " << ki << " step " << i + 1;
            ASSERT_TRUE(sameBits(engine_->quaternion, ref.q, 4)) << "ki " << ki << " step " << i + 1;
            ASSERT_TRUE(sameBits(engine_->integral_error, ref.integral, 3));
        }
        if (ki != 0.0f) {
            EXPECT_NE(engine_->integral_error[0], 0.0f);
        }
    }
}

TEST_F(Attitude, TiltedRigConvergesOntoGravity) {
    // Rig rolled 25 degrees and pitched -40 degrees, at rest: the accelerometer sees gravity in
    // the rig's frame.
    const double roll = 25 * M_PI / 180, pitch = -40 * M_PI / 180;
    const double g[3] = {-std::sin(pitch), std::sin(roll) * std::cos(pitch),
                         std::cos(roll) * std::cos(pitch)};
    float out[4];
    for (int i = 0; i < 1500; ++i)
        engine_->imu_solution(0, 0, 0, float(g[0]), float(g[1]), float(g[2]), 0.005f, out);
    // Gravity as the output quaternion predicts it, in the rig's frame.
    const double q0 = out[0], q1 = out[1], q2 = out[2], q3 = out[3];
    const double v[3] = {2 * (q1 * q3 - q0 * q2), 2 * (q0 * q1 + q2 * q3),
                         q0 * q0 - q1 * q1 - q2 * q2 + q3 * q3};
    const double cosine = (v[0] * g[0] + v[1] * g[1] + v[2] * g[2]) /
                          std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    EXPECT_LT(std::acos(std::min(1.0, cosine)) * 180 / M_PI, 0.5);
    EXPECT_NEAR(q0 * q0 + q1 * q1 + q2 * q2 + q3 * q3, 1.0, 1e-6);
}

TEST_F(Attitude, ZeroAccelerationPoisonsTheQuaternion) {
    float out[4];
    engine_->imu_solution(0, 0, 0, 0, 0, 0, 0.01f, out);
    EXPECT_TRUE(std::isnan(engine_->quaternion[0]));
    engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.01f, out);
    EXPECT_TRUE(std::isnan(engine_->quaternion[0]));
    // Without an output the step is refused and changes nothing.
    engine_.reset();
    engine_ = makeEngine("pattern");
    const auto cap = orvo_test::captureOutput(
        [&] { engine_->imu_solution(0, 0, 0, 0, 0, 1, 0.01f, nullptr); });
    EXPECT_EQ(cap.err, "imu_solution: no output given\n");
    EXPECT_EQ(engine_->solution_count, 0);
    EXPECT_EQ(engine_->quaternion[0], 1.0f);
}

TEST(AttitudeFacade, ImuRectPassesRatesThenAccelerationAndSetImuCorrectionItsFive) {
    setenv("ORVO_VCAM_DEVICE", kNode, 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    unsetenv("ORVO_VCAM_FAULTS");
    OrvoCameraParameterList list;
    list.device_path = kNode;
    std::unique_ptr<OrvoCamera> cam;
    orvo_test::captureOutput([&] { cam.reset(new OrvoCamera(list)); });
    ReferenceFilter ref;
    std::mt19937 rng(77);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int i = 0; i < 520; ++i) {
        ImuData sample{uint32_t(i), u(rng), u(rng), 1.0f + u(rng), u(rng), u(rng), u(rng)};
        const float gyro[3] = {sample.gyro_x, sample.gyro_y, sample.gyro_z};
        const float accel[3] = {sample.accel_x, sample.accel_y, sample.accel_z};
        float got[4], want[4];
        cam->ImuRect(sample, 0.004f, got);
        ref.step(gyro, accel, 0.004f, want);
        ASSERT_TRUE(sameBits(got, want, 4)) << "step " << i + 1;
        ASSERT_TRUE(sameBits(camera_->quaternion, ref.q, 4)) << "step " << i + 1;
    }
    // The 100-frame bias measurement on the pattern source, with the settings stored in order.
    const auto out = orvo_test::captureOutput([&] { cam->setImuCorrection(-1.5f, 2.5f, 0.125f, -0.25f, 0.5f); });
    EXPECT_EQ(out.out.substr(0, kStart.size()), kStart);
    EXPECT_EQ(out.out.substr(out.out.size() - kFinish.size()), kFinish);
    EXPECT_EQ(camera_->gyro_deadband_low, -1.5f);
    EXPECT_EQ(camera_->gyro_deadband_high, 2.5f);
    EXPECT_EQ(camera_->accel_offset[0], 0.125f);
    EXPECT_EQ(camera_->accel_offset[1], -0.25f);
    EXPECT_EQ(camera_->accel_offset[2], 0.5f);
    orvo_test::captureOutput([&] { cam.reset(); });
}

// ---- gyro bias measurement ----------------------------------------------------------------

struct Record {
    uint32_t ticks;
    int16_t gyro[3];
    int16_t accel[3];
};

void putLE16(uint8_t* p, int16_t v) {
    p[0] = uint8_t(uint16_t(v) & 0xff);
    p[1] = uint8_t(uint16_t(v) >> 8);
}

// A frame whose trailer holds the given records in their slots and the given count byte (which
// may exceed the records written). The pixels and the unused slots are filled with a pattern so
// that a reader at the wrong offset sees non-zero values.
std::vector<uint8_t> craftFrame(const std::vector<Record>& records, uint8_t count) {
    std::vector<uint8_t> f(kFrameBytes);
    for (size_t i = 0; i < f.size(); ++i) f[i] = uint8_t(37 + i * 11);
    uint8_t* block = f.data() + f.size() - 489;
    std::memset(block, 0x5A, 480);
    for (size_t i = 0; i < records.size(); ++i) {
        uint8_t* r = block + 24 * i;
        std::memcpy(r, &records[i].ticks, 4);
        for (int a = 0; a < 3; ++a) putLE16(r + 4 + 2 * a, records[i].gyro[a]);
        for (int a = 0; a < 3; ++a) putLE16(r + 10 + 2 * a, records[i].accel[a]);
    }
    f[f.size() - 1] = count;
    return f;
}

class ScratchFile {
public:
    explicit ScratchFile(const std::vector<std::vector<uint8_t>>& frames) {
        char name[] = "/tmp/orvo-attitude-XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        close(fd);
        path_ = name;
        std::ofstream out(path_, std::ios::binary);
        for (const auto& f : frames) out.write(reinterpret_cast<const char*>(f.data()), std::streamsize(f.size()));
    }
    ~ScratchFile() { std::remove(path_.c_str()); }
    std::string source() const { return "raw:" + path_; }

private:
    std::string path_;
};


TEST(ImuInit, BiasIsTheTruncatedMeanOfEveryRecord) {
    // One frame looped 100 times: x +3 and -4 (mean -0.5 -> 0), y +7 and -2 (2.5 -> 2),
    // z -7 and +2 (-2.5 -> -2).
    ScratchFile file({craftFrame({{1, {3, 7, -7}, {0, 0, 8192}}, {2, {-4, -2, 2}, {0, 0, 8192}}}, 2)});
    auto engine = makeEngine(file.source());
    engine->quaternion[1] = 0.5f;
    engine->solution_count = 42;
    const auto cap = orvo_test::captureOutput([&] { engine->imu_init(-0.2f, 0.2f, 0.01f, -0.02f, 0.03f); });
    EXPECT_EQ(cap.out, kStart + kFinish);
    EXPECT_EQ(cap.err, "");
    EXPECT_EQ(engine->gyro_bias[0], 0);
    EXPECT_EQ(engine->gyro_bias[1], 2);
    EXPECT_EQ(engine->gyro_bias[2], -2);
    EXPECT_EQ(engine->gyro_deadband_low, -0.2f);
    EXPECT_EQ(engine->gyro_deadband_high, 0.2f);
    EXPECT_EQ(engine->accel_offset[0], 0.01f);
    EXPECT_EQ(engine->accel_offset[1], -0.02f);
    EXPECT_EQ(engine->accel_offset[2], 0.03f);
    // The filter is left alone.
    EXPECT_EQ(engine->quaternion[1], 0.5f);
    EXPECT_EQ(engine->solution_count, 42);
    EXPECT_EQ(engine->kp, 10.0f);
    // The next frame is decoded with the new bias, dead band and offsets.
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

TEST(ImuInit, CountsAreClampedAndEveryFrameIsSummed) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> raw(-32768, 32767);
    auto records = [&](int n) {
        std::vector<Record> out;
        for (int i = 0; i < n; ++i) {
            Record rec{uint32_t(rng()), {0, 0, 0}, {1, 2, 3}};
            for (int16_t& g : rec.gyro) g = int16_t(raw(rng));
            out.push_back(rec);
        }
        return out;
    };
    // Four frames, looped 25 times: a count of 25 (20 slots are read), a count of 0 above garbage
    // records, three records, and a full block of 20.
    const std::vector<Record> f0 = records(20), f1 = records(20), f2 = records(3), f3 = records(20);
    ScratchFile file({craftFrame(f0, 25), craftFrame(f1, 0), craftFrame(f2, 3), craftFrame(f3, 20)});
    int64_t sum[3] = {0, 0, 0};
    int64_t total = 0;
    for (const auto* frame : {&f0, &f2, &f3}) {
        for (const Record& r : *frame)
            for (int a = 0; a < 3; ++a) sum[a] += 25 * r.gyro[a];
        total += 25 * int64_t(frame->size());
    }
    auto engine = makeEngine(file.source());
    const auto cap = orvo_test::captureOutput([&] { engine->imu_init(0, 0, 0, 0, 0); });
    EXPECT_EQ(cap.out, kStart + kFinish);
    for (int a = 0; a < 3; ++a) EXPECT_EQ(engine->gyro_bias[a], int32_t(sum[a] / total)) << "axis " << a;
}

TEST(ImuInit, NoRecordKeepsThePreviousBias) {
    ScratchFile file({craftFrame({{1, {100, 100, 100}, {0, 0, 0}}}, 0)});
    auto engine = makeEngine(file.source());
    engine->gyro_bias[0] = 5;
    engine->gyro_bias[1] = -6;
    engine->gyro_bias[2] = 7;
    const auto cap = orvo_test::captureOutput([&] { engine->imu_init(1, 2, 3, 4, 5); });
    EXPECT_EQ(cap.out, kStart + kFinish);
    EXPECT_EQ(cap.err, "IMU calibration: no inertial record in 100 frames, gyro bias left unchanged\n");
    EXPECT_EQ(engine->gyro_bias[0], 5);
    EXPECT_EQ(engine->gyro_bias[1], -6);
    EXPECT_EQ(engine->gyro_bias[2], 7);
    EXPECT_EQ(engine->accel_offset[2], 5.0f);  // the settings are stored all the same
}

TEST(ImuInit, EmptyFramesAreSkipped) {
    // From the 51st dequeue on the driver reports empty buffers: only 50 frames count.
    ScratchFile file({craftFrame({{1, {10, -10, 30}, {0, 0, 0}}, {2, {11, -13, 0}, {0, 0, 0}}}, 2)});
    auto engine = makeEngine(file.source(), "bytesused@51=0");
    const auto cap = orvo_test::captureOutput([&] { engine->imu_init(0, 0, 0, 0, 0); });
    EXPECT_EQ(cap.out, kStart + kFinish);
    EXPECT_EQ(engine->gyro_bias[0], 10);   // 21 / 2
    EXPECT_EQ(engine->gyro_bias[1], -11);  // -23 / 2
    EXPECT_EQ(engine->gyro_bias[2], 15);

    engine.reset();
    engine = makeEngine(file.source(), "bytesused=0");
    const auto cap2 = orvo_test::captureOutput([&] { engine->imu_init(0, 0, 0, 0, 0); });
    EXPECT_EQ(cap2.err, "IMU calibration: no inertial record in 100 frames, gyro bias left unchanged\n");
    EXPECT_EQ(engine->gyro_bias[0], 0);
}

TEST(ImuInit, FailedDequeueSaysErrrAndCountsAsAFrame) {
    // Frame A carries one record, frame B none; they alternate. The 4th dequeue fails, which
    // closes the camera: every later pass fails too, says "errr" and reuses the frame the engine
    // still holds (the 3rd, an A).
    ScratchFile file({craftFrame({{1, {40, 0, 0}, {0, 0, 0}}}, 1), craftFrame({}, 0)});
    auto engine = makeEngine(file.source(), "DQBUF@4=EIO:1");
    const auto cap = orvo_test::captureOutput([&] { engine->imu_init(0, 0, 0, 0, 0); });
    std::string want = kStart + "VIDIOC_DQBUF error 5, Input/output error\nerrr\n" +
                       "VIDIOC_QBUF error 9, Bad file descriptor\n";
    for (int i = 0; i < 96; ++i)
        want += "VIDIOC_DQBUF error 9, Bad file descriptor\nerrr\n"
                "VIDIOC_QBUF error 9, Bad file descriptor\n";
    want += kFinish;
    EXPECT_EQ(cap.out, want);
    EXPECT_EQ(engine->gyro_bias[0], 40);
    orvo_test::captureOutput([&] { engine.reset(); });  // a dead camera reports its shutdown
}

}  // namespace
