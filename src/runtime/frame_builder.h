// Turns a dequeued buffer into an orvo::Frame: split planes, 64-bit device time, host times, IMU.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>

#include "orvo/frame.hpp"

namespace orvo {
class Calibration;
namespace runtime {

class FramePool;

// Extends the trailer's 32-bit microsecond ticks to 64 bits. Within one connection each step is
// taken modulo 2^32, so a wrap adds 2^32; after a reconnect the device counts from afresh and the
// time continues from the last value by the host time that passed.
class DeviceClock {
public:
    uint64_t extend(uint32_t ticks);
    void reconnected(uint64_t host_gap_us);

private:
    bool have_ = false;
    bool fresh_ = false;
    uint32_t last_ticks_ = 0;
    uint64_t last_us_ = 0;
    uint64_t gap_us_ = 0;
};

uint64_t monotonicNowNs();

// Host time of a dequeued buffer, and where it came from.
uint64_t bufferHostTime(const v4l2_buffer& buf, uint64_t dequeued_ns, HostTimeSource& source);

// Fills `out` (sequence set by the caller) from the frame bytes. Planes come from `pool`; with a
// calibration the raw split goes to the scratch planes and the remapped pair into the frame.
void buildFrame(const uint8_t* bytes, size_t length, uint64_t host_ns, DeviceClock& clock,
                FramePool& pool, const Calibration* rectify_with, cv::Mat scratch[2], Frame& out);

}  // namespace runtime
}  // namespace orvo
