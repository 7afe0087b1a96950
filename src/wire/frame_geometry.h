// The camera's frame geometry and the inertial trailer's wire layout: the one place that knows them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvo {
namespace frame {

constexpr int kWidth = 752;
constexpr int kHeight = 480;
constexpr int kFps = 30;
constexpr int kBufferCount = 6;
constexpr size_t kPixels = size_t(kWidth) * kHeight;   // 360,960 per lens
constexpr size_t kBytes = kPixels * 2;                  // 721,920 per frame
constexpr size_t kBytesPerLine = size_t(kWidth) * 2;    // 1,504

// Inertial trailer, counted back from the frame's end (L = frame length).
constexpr size_t kRecordSize = 24;
constexpr size_t kRecordSlots = 20;
constexpr size_t kBlockSize = kRecordSize * kRecordSlots;  // 480
constexpr size_t kBlockFromEnd = 489;                      // block starts at L-489
constexpr size_t kRawBlockFromEnd = 481;                   // where update_imu_raw takes it
constexpr size_t kReservedSize = 8;                        // L-9 .. L-2
constexpr size_t kTrailerSize = kBlockFromEnd;             // bytes of the frame the trailer owns

// Offsets inside one record.
constexpr size_t kRecTime = 0;
constexpr size_t kRecGyro = 4;    // x, y, z int16
constexpr size_t kRecAccel = 10;  // x, y, z int16

// Sensor scale factors.
constexpr float kGyroCountsPerDegS = 16.4f;
constexpr double kDegPerRad = 57.3;
constexpr float kAccelGPerCount = 0.0001220703125f;  // 2^-13

}  // namespace frame
}  // namespace orvo
