// Stereo engine attitude: gyro bias measurement and the complementary attitude filter step.
#include "StereoCamera.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "frame_geometry.h"
#include "trailer.h"

namespace layout = orvo::frame;

namespace {

constexpr int kBiasFrames = 100;

// Filter constants: settling length, the gains after settling, and the dead bands whose reversed
// bounds make them pass every value (kept so the step reads as it was tuned).
constexpr uint16_t kSettlingSteps = 500;
constexpr uint16_t kSettledCount = 600;
constexpr float kSettledKp = 0.08f;
constexpr float kErrorBandLow = 0.01f, kErrorBandHigh = -0.01f;
constexpr float kIntegralBandLow = 0.001f, kIntegralBandHigh = -0.001f;

using orvo::trailer::readLE16;

// Running sums of the raw gyro counts, in 32-bit wrap-around arithmetic.
struct GyroSums {
    uint32_t axis[3] = {0, 0, 0};
    uint32_t records = 0;
};

// Latches the held frame's count byte (clamped to the 20 record slots) and record block into the
// engine's scratch fields, and adds the block's records to sums. A frame too short to carry the
// trailer adds nothing.
void addFrameGyro(StereoCamera& cam, GyroSums& sums) {
    if (!orvo::trailer::latch(cam.frame_data, cam.frame_length, layout::kBlockFromEnd,
                              cam.imu_count, cam.imu_block))
        return;
    for (size_t i = 0; i < cam.imu_count; ++i) {
        const unsigned char* gyro = cam.imu_block + layout::kRecordSize * i + layout::kRecGyro;
        for (int a = 0; a < 3; ++a) sums.axis[a] += uint32_t(int32_t(readLE16(gyro + 2 * a)));
    }
    sums.records += cam.imu_count;
}

}  // namespace

// Stores the gyro dead band (deg/s) and the accelerometer offsets (g) used by all later decoding,
// then measures the gyro's zero-rate bias as the mean raw count of every inertial record in the
// next 100 frames, truncated toward zero. Blocks for those 100 frames; a failed dequeue prints
// "errr" and counts as one of them. If not one record arrives the mean is undefined: the previous
// biases are kept and a message on standard error says so. The filter state is left alone.
void StereoCamera::imu_init(float deadband_low, float deadband_high, float accel_offset_x,
                            float accel_offset_y, float accel_offset_z) {
    std::cout << "Wait for the IMU calibration to finish" << std::endl;
    gyro_deadband_low = deadband_low;
    gyro_deadband_high = deadband_high;
    accel_offset[0] = accel_offset_x;
    accel_offset[1] = accel_offset_y;
    accel_offset[2] = accel_offset_z;

    GyroSums sums;
    for (int i = 0; i < kBiasFrames; ++i) {
        if (device->get_frame(&frame_data, &frame_length) == -1) std::cout << "errr" << std::endl;
        if (frame_length != 0) addFrameGyro(*this, sums);
        device->unget_frame();
    }

    if (sums.records == 0) {
        std::cerr << "IMU calibration: no inertial record in " << kBiasFrames
                  << " frames, gyro bias left unchanged" << std::endl;
    } else {
        for (int a = 0; a < 3; ++a)
            gyro_bias[a] = int32_t(sums.axis[a]) / int32_t(sums.records);
    }
    std::cout << "IMU calibration finish!" << std::endl;
}

// One step of the complementary attitude filter: the accelerometer's direction corrects the gyro
// rates (rad/s) through the proportional gain, the corrected rates integrate the quaternion over
// period seconds. out receives q0..q3, or zeros for the first 500 steps while the high gain pulls
// the quaternion onto gravity. A zero acceleration or a non-finite period makes the quaternion
// NaN for good; nothing guards against it. Without an output the step is refused with a message.
void StereoCamera::imu_solution(float gx, float gy, float gz, float ax, float ay, float az,
                                float period, float* out) {
    if (out == nullptr) {
        std::cerr << "imu_solution: no output given" << std::endl;
        return;
    }
    float& q0 = quaternion[0];
    float& q1 = quaternion[1];
    float& q2 = quaternion[2];
    float& q3 = quaternion[3];

    accel_norm = std::sqrt(ay * ay + ax * ax + az * az);
    ax = ax / accel_norm;
    ay = ay / accel_norm;
    az = az / accel_norm;

    float& vx = gravity_estimate[0];
    float& vy = gravity_estimate[1];
    float& vz = gravity_estimate[2];
    vx = 2 * (q1 * q3 - q0 * q2);
    vy = 2 * (q0 * q1 + q2 * q3);
    vz = q0 * q0 - q1 * q1 - q2 * q2 + q3 * q3;

    float& ex = attitude_error[0];
    float& ey = attitude_error[1];
    float& ez = attitude_error[2];
    ex = ValueLimit_min(ay * vz - az * vy, kErrorBandLow, kErrorBandHigh);
    ey = ValueLimit_min(az * vx - ax * vz, kErrorBandLow, kErrorBandHigh);
    ez = ValueLimit_min(ax * vy - ay * vx, kErrorBandLow, kErrorBandHigh);

    for (int a = 0; a < 3; ++a) {
        integral_error[a] = std::fmaf(ki, attitude_error[a], integral_error[a]);
        integral_error[a] = ValueLimit_min(integral_error[a], kIntegralBandLow, kIntegralBandHigh);
    }

    if (solution_count > kSettlingSteps) kp = kSettledKp;
    gx = (gx + kp * ex) + integral_error[0];
    gy = (gy + kp * ey) + integral_error[1];
    gz = (gz + kp * ez) + integral_error[2];

    // Sequential update: each component uses the ones already updated above it.
    const double dt = period;
    q0 = float(q0 + double(-q1 * gx - q2 * gy - q3 * gz) * 0.5 * dt);
    q1 = float(q1 + double(q0 * gx + q2 * gz - q3 * gy) * 0.5 * dt);
    q2 = float(q2 + double(q0 * gy - q1 * gz + q3 * gx) * 0.5 * dt);
    q3 = float(q3 + double(q0 * gz + q1 * gy - q2 * gx) * 0.5 * dt);

    accel_norm = std::sqrt(q0 * q0 + q1 * q1 + q2 * q2 + q3 * q3);
    q0 = q0 / accel_norm;
    q1 = q1 / accel_norm;
    q2 = q2 / accel_norm;
    q3 = q3 / accel_norm;

    const bool settled = solution_count >= kSettlingSteps;
    for (int i = 0; i < 4; ++i) out[i] = settled ? quaternion[i] : 0.0f;

    solution_count = uint16_t(solution_count + 1);
    if (solution_count > kSettlingSteps) solution_count = kSettledCount;
}
