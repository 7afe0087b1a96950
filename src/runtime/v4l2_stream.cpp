// The modern API's V4L2 capture stream: non-blocking, non-exiting, leak-free on every failure path.
#include "v4l2_stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame_geometry.h"
#include "orvo/error.hpp"
#include "v4l2_io.h"

namespace orvo {
namespace runtime {

UniqueFd& UniqueFd::operator=(UniqueFd&& o) noexcept {
    if (this != &o) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = o.release();
    }
    return *this;
}

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
}

Mapping::~Mapping() {
    if (data_ != nullptr) munmap(data_, length_);
}

// The hint for each errno a user can act on; the errno's own text follows in Error::what().
std::string adviceFor(int err, const std::string& node) {
    switch (err) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return "is the camera plugged in? list nodes with orvo list";
    case EACCES:
    case EPERM:
        return "add yourself to the video group (sudo usermod -aG video $USER, then log in again)";
    case EBUSY:
        return "is another program using " + node + "?";
    case ENOMEM:
        return "not enough memory for the capture buffers; close other capture programs";
    default:
        return "unplug and replug the camera, or see the kernel log (dmesg)";
    }
}

void V4l2Stream::fail(int err, const std::string& what) const {
    throw Error(err, node_ + ": " + what);
}

// O_NONBLOCK: the capture thread waits in poll, where it can also be woken to stop.
V4l2Stream::V4l2Stream(const std::string& node) : node_(node) {
    fd_ = UniqueFd(::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (fd_.get() < 0) {
        const int err = errno;
        fail(err, "cannot open (" + adviceFor(err, node) + ")");
    }
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (v4l2::retryIoctl(fd_.get(), VIDIOC_QUERYCAP, &cap) == -1) {
        const int err = errno;
        if (err == ENOTTY || err == EINVAL)
            fail(err, "not a V4L2 device; list camera nodes with orvo list");
        fail(err, "VIDIOC_QUERYCAP failed (" + adviceFor(err, node) + ")");
    }
    const uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_CAPTURE))
        fail(ENOTTY, "not a video capture device; list camera nodes with orvo list");
    if (!(caps & V4L2_CAP_STREAMING))
        fail(ENOTTY, "the node offers no streaming I/O; list camera nodes with orvo list");
    negotiate();
}

// Format, rate, buffers. Every step that fails throws; members already built release themselves.
void V4l2Stream::negotiate() {
    const int fd = fd_.get();
    v4l2_format fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = frame::kWidth;
    fmt.fmt.pix.height = frame::kHeight;
    fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    fmt.fmt.pix.field = V4L2_FIELD_NONE;
    if (v4l2::retryIoctl(fd, VIDIOC_S_FMT, &fmt) == -1) {
        const int err = errno;
        if (err == EBUSY) fail(err, "the capture queue is taken (" + adviceFor(err, node_) + ")");
        fail(err, "the driver refused the 752x480 YUYV format; is this an Orvo stereo camera?");
    }
    // A driver adjusts rather than refuses: check what it settled on.
    if (fmt.fmt.pix.pixelformat != V4L2_PIX_FMT_YUYV || fmt.fmt.pix.width != unsigned(frame::kWidth) ||
        fmt.fmt.pix.height != unsigned(frame::kHeight) || fmt.fmt.pix.sizeimage < frame::kBytes)
        fail(EINVAL, "the node does not deliver 752x480 YUYV; is this an Orvo stereo camera?");

    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe.numerator = 1;
    parm.parm.capture.timeperframe.denominator = frame::kFps;
    if (v4l2::retryIoctl(fd, VIDIOC_S_PARM, &parm) == -1) {
        const int err = errno;
        fail(err, "VIDIOC_S_PARM (30 fps) failed (" + adviceFor(err, node_) + ")");
    }

    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof req);
    req.count = frame::kBufferCount;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (v4l2::retryIoctl(fd, VIDIOC_REQBUFS, &req) == -1) {
        const int err = errno;
        fail(err, "VIDIOC_REQBUFS failed (" + adviceFor(err, node_) + ")");
    }
    if (req.count < 2)
        fail(ENOMEM, "the driver granted " + std::to_string(req.count) +
                         " capture buffers, at least 2 are needed (" + adviceFor(ENOMEM, node_) + ")");

    maps_.reserve(req.count);
    for (unsigned i = 0; i < req.count; ++i) {
        v4l2_buffer buf = v4l2::captureBuffer(i);
        if (v4l2::retryIoctl(fd, VIDIOC_QUERYBUF, &buf) == -1) {
            const int err = errno;
            fail(err, "VIDIOC_QUERYBUF failed (" + adviceFor(err, node_) + ")");
        }
        if (buf.length < frame::kBytes) fail(EINVAL, "the driver's buffers are smaller than a frame");
        void* p = mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, fd, off_t(buf.m.offset));
        if (p == MAP_FAILED) {
            const int err = errno;
            fail(err, "cannot map capture buffer " + std::to_string(i) + " (" + adviceFor(err, node_) + ")");
        }
        maps_.emplace_back(p, buf.length);
    }
    for (unsigned i = 0; i < maps_.size(); ++i) {
        v4l2_buffer buf = v4l2::captureBuffer(i);
        if (v4l2::retryIoctl(fd, VIDIOC_QBUF, &buf) == -1) {
            const int err = errno;
            fail(err, "VIDIOC_QBUF failed (" + adviceFor(err, node_) + ")");
        }
    }
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (v4l2::retryIoctl(fd, VIDIOC_STREAMON, &type) == -1) {
        const int err = errno;
        fail(err, "VIDIOC_STREAMON failed (" + adviceFor(err, node_) + ")");
    }
    streaming_ = true;
}

// Stops streaming before the mappings and then the descriptor go (members, in reverse order).
V4l2Stream::~V4l2Stream() {
    if (streaming_) {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        v4l2::retryIoctl(fd_.get(), VIDIOC_STREAMOFF, &type);
    }
    maps_.clear();
}

// Waits up to timeout_ms for a filled buffer, or until wake_fd becomes readable. On `failed`, err
// holds the errno of the request that failed.
Dequeue V4l2Stream::wait(int wake_fd, int timeout_ms, v4l2_buffer& buf, int& err) {
    for (;;) {
        buf = v4l2::captureBuffer(0);
        if (v4l2::retryIoctl(fd_.get(), VIDIOC_DQBUF, &buf) == 0) return Dequeue::frame;
        if (errno != EAGAIN) {
            err = errno;
            return Dequeue::failed;
        }
        pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {wake_fd, POLLIN, 0}};
        const int n = ::poll(fds, 2, timeout_ms);
        if (n == -1 && errno == EINTR) continue;
        if (n == -1) {
            err = errno;
            return Dequeue::failed;
        }
        if (fds[1].revents & POLLIN) return Dequeue::woken;
        if (n == 0) return Dequeue::timeout;
        // Readable or in error: the next dequeue says which.
    }
}

int V4l2Stream::requeue(const v4l2_buffer& buf) {
    v4l2_buffer q = v4l2::captureBuffer(buf.index);
    return v4l2::retryIoctl(fd_.get(), VIDIOC_QBUF, &q) == -1 ? errno : 0;
}

}  // namespace runtime
}  // namespace orvo
