// The viewer's complementary attitude filter.
#include "imu_attitude.h"

#include <cmath>

namespace orvo_viewer {

namespace {
constexpr double kDeg = 180.0 / M_PI;
}

void ImuAttitude::update(const orvo::ImuSample& s) {
    const auto& a = s.accel_m_s2;
    const double tilt_roll = std::atan2(a[1], a[2]) * kDeg;
    const double tilt_pitch = std::atan2(-a[0], std::hypot(a[1], a[2])) * kDeg;
    if (!started_) {
        started_ = true;
        last_us_ = s.device_time_us;
        roll_ = tilt_roll;
        pitch_ = tilt_pitch;
        return;
    }
    // A gap or a clock step (reconnect) is not integrated: it would spin the estimate.
    double dt = (double(s.device_time_us) - double(last_us_)) * 1e-6;
    last_us_ = s.device_time_us;
    if (!(dt > 0 && dt < 0.1)) dt = 0;
    roll_ += s.gyro_rad_s[0] * kDeg * dt;
    pitch_ += s.gyro_rad_s[1] * kDeg * dt;
    yaw_ += s.gyro_rad_s[2] * kDeg * dt;
    roll_ += kGravityWeight * (tilt_roll - roll_);
    pitch_ += kGravityWeight * (tilt_pitch - pitch_);
    yaw_ = std::remainder(yaw_, 360.0);
}

}  // namespace orvo_viewer
