// Reading the inertial trailer out of a frame: the one place that takes its count byte and block.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame_format.h"

namespace orvo {
namespace trailer {

inline uint32_t readLE32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline int16_t readLE16(const unsigned char* p) {
    return int16_t(uint16_t(p[0]) | uint16_t(p[1]) << 8);
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

}  // namespace trailer
}  // namespace orvo
