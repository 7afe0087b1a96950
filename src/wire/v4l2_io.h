// The V4L2 request helpers both capture paths share: the signal-proof ioctl and buffer descriptors.
#pragma once

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

namespace orvo {
namespace v4l2 {

// ioctl, reissued for as long as a signal interrupts it; no other error is retried.
inline int retryIoctl(int fd, unsigned long request, void* arg) {
    int r;
    do {
        r = ioctl(fd, request, arg);
    } while (r == -1 && errno == EINTR);
    return r;
}

// A cleared buffer descriptor for memory-mapped capture buffer `index`.
inline v4l2_buffer captureBuffer(unsigned int index) {
    v4l2_buffer buf;
    std::memset(&buf, 0, sizeof buf);
    buf.index = index;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    return buf;
}

}  // namespace v4l2
}  // namespace orvo
