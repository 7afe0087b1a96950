// What the request handlers share: the one buffer type the node has, its name and name fields.
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orvo {
namespace vcam {

constexpr uint32_t kCapture = V4L2_BUF_TYPE_VIDEO_CAPTURE;
// The card name of QUERYCAP, also the node's name in sysfs.
constexpr const char* kCardName = "Orvo Stereo Camera (virtual)";

inline void copyName(__u8* dst, size_t size, const char* src) {
    std::memset(dst, 0, size);
    std::strncpy(reinterpret_cast<char*>(dst), src, size - 1);
}

}  // namespace vcam
}  // namespace orvo
