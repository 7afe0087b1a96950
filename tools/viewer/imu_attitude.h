// A light attitude estimate for the viewer's plots: gyro integration pulled towards gravity.
#pragma once

#include <cstdint>

#include <orvo/frame.hpp>

namespace orvo_viewer {

// Complementary filter in the IMU's own axes: roll and pitch follow the gyro and lean towards the
// tilt the accelerometer sees (gravity), yaw is the integrated z rate and drifts. Degrees.
class ImuAttitude {
public:
    void update(const orvo::ImuSample& sample);
    double roll() const { return roll_; }
    double pitch() const { return pitch_; }
    double yaw() const { return yaw_; }

private:
    static constexpr double kGravityWeight = 0.02;  // per sample: ~0.25 s time constant at 200 Hz
    bool started_ = false;
    uint64_t last_us_ = 0;
    double roll_ = 0, pitch_ = 0, yaw_ = 0;
};

}  // namespace orvo_viewer
