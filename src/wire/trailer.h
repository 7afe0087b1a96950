// The inertial trailer's codec: the one place that reads and writes its count byte, records and
// frame time. The library decodes with it, the virtual camera encodes with it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "frame_geometry.h"

namespace orvo {
namespace trailer {

inline uint32_t readLE32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline int16_t readLE16(const unsigned char* p) {
    return int16_t(uint16_t(p[0]) | uint16_t(p[1]) << 8);
}

inline void writeLE32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

inline void writeLE16(unsigned char* p, int16_t v) {
    const uint16_t u = uint16_t(v);
    p[0] = uint8_t(u);
    p[1] = uint8_t(u >> 8);
}

// One record in raw sensor counts, as it travels.
struct Record {
    uint32_t ticks = 0;
    int16_t gyro[3] = {0, 0, 0};
    int16_t accel[3] = {0, 0, 0};
};

inline Record readRecord(const unsigned char* rec) {
    Record r;
    r.ticks = readLE32(rec + frame::kRecTime);
    for (int axis = 0; axis < 3; ++axis) {
        r.gyro[axis] = readLE16(rec + frame::kRecGyro + 2 * axis);
        r.accel[axis] = readLE16(rec + frame::kRecAccel + 2 * axis);
    }
    return r;
}

// Copies the trailer's count byte, clamped to the 20 record slots, into count and the 480-byte
// record block that starts block_from_end bytes before the frame's end into block. A frame too
// short to hold the block (or none at all) carries no trailer: count becomes 0, block is left
// alone, and the result is false. Nothing outside the frame is read.
inline bool latch(const unsigned char* frame, size_t length, size_t block_from_end,
                  uint8_t& count, unsigned char* block) {
    if (frame == nullptr || length < block_from_end) {
        count = 0;
        return false;
    }
    count = uint8_t(std::min<size_t>(frame[length - 1], frame::kRecordSlots));
    std::memcpy(block, frame + length - block_from_end, frame::kBlockSize);
    return true;
}

// The frame time stands in the slot after the last record; with all 20 slots used there is none.
inline bool frameTicks(const unsigned char* frame, size_t length, uint32_t* ticks) {
    if (frame == nullptr || length < frame::kTrailerSize) return false;
    const size_t n = frame[length - 1];
    if (n >= frame::kRecordSlots) return false;
    *ticks = readLE32(frame + length - frame::kBlockFromEnd + n * frame::kRecordSize + frame::kRecTime);
    return true;
}

// Writes the trailer as the camera does into the frame's last 489 bytes, which it first clears:
// records in slots 0..N-1 (N at most 20; later records are not written), the frame time at the
// start of slot N when N < 20, N in the last byte. A frame shorter than the trailer is left alone.
inline void encode(unsigned char* frame, size_t length, const std::vector<Record>& records,
                   uint32_t frame_ticks) {
    if (frame == nullptr || length < frame::kTrailerSize) return;
    unsigned char* block = frame + length - frame::kBlockFromEnd;
    std::memset(block, 0, frame::kTrailerSize);
    const size_t n = std::min(records.size(), frame::kRecordSlots);
    for (size_t i = 0; i < n; ++i) {
        unsigned char* rec = block + i * frame::kRecordSize;
        writeLE32(rec + frame::kRecTime, records[i].ticks);
        for (int axis = 0; axis < 3; ++axis) {
            writeLE16(rec + frame::kRecGyro + 2 * axis, records[i].gyro[axis]);
            writeLE16(rec + frame::kRecAccel + 2 * axis, records[i].accel[axis]);
        }
    }
    if (n < frame::kRecordSlots) writeLE32(block + n * frame::kRecordSize + frame::kRecTime, frame_ticks);
    frame[length - 1] = uint8_t(n);
}

}  // namespace trailer
}  // namespace orvo
