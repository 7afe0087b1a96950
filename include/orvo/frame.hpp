// orvo::Frame: one stereo pair with its sequence, clocks and the inertial samples that came with it.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace orvo {

enum class HostTimeSource {
    driver_monotonic,  // the driver's CLOCK_MONOTONIC buffer timestamp
    dequeue,           // CLOCK_MONOTONIC read when the buffer was dequeued
};

struct ImuSample {
    uint64_t device_time_us = 0;
    uint64_t host_time_ns = 0;
    std::array<double, 3> gyro_rad_s{};
    std::array<double, 3> accel_m_s2{};
    std::array<int16_t, 3> gyro_raw{};
    std::array<int16_t, 3> accel_raw{};
};

struct Frame {
    uint64_t sequence = 0;
    uint64_t host_time_ns = 0;
    HostTimeSource host_time_source = HostTimeSource::dequeue;
    uint64_t device_time_us = 0;
    bool rectified = false;
    cv::Mat left;   // CV_8UC1, 480 x 752
    cv::Mat right;  // CV_8UC1, 480 x 752
    std::vector<ImuSample> imu;
};

}  // namespace orvo
