// A bare V4L2 capture client for the tests.
#include "v4l2_client.h"

#include "v4l2_io.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orvo_test {

ScopedEnv::ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
    for (const auto& v : vars) {
        const char* old = getenv(v.first);
        saved_.push_back({v.first, {old != nullptr, old ? old : ""}});
        if (v.second) setenv(v.first, v.second, 1);
        else unsetenv(v.first);
    }
}

ScopedEnv::~ScopedEnv() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
        if (it->second.first) setenv(it->first.c_str(), it->second.second.c_str(), 1);
        else unsetenv(it->first.c_str());
    }
}

V4l2Client::V4l2Client(const char* path, int flags) {
    fd_ = ::open(path, flags);
    if (fd_ < 0) open_error_ = errno;
}

V4l2Client::~V4l2Client() {
    unmapAll();
    close();
}

int V4l2Client::call(unsigned long request, void* arg) { return ::ioctl(fd_, request, arg) == 0 ? 0 : errno; }

int V4l2Client::setFormat(uint32_t width, uint32_t height, uint32_t fourcc, v4l2_format* out) {
    v4l2_format f;
    std::memset(&f, 0, sizeof f);
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = width;
    f.fmt.pix.height = height;
    f.fmt.pix.pixelformat = fourcc;
    int e = call(VIDIOC_S_FMT, &f);
    if (out) *out = f;
    return e;
}

int V4l2Client::requestBuffers(uint32_t count, uint32_t* granted) {
    v4l2_requestbuffers rb;
    std::memset(&rb, 0, sizeof rb);
    rb.count = count;
    rb.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    rb.memory = V4L2_MEMORY_MMAP;
    int e = call(VIDIOC_REQBUFS, &rb);
    if (e == 0) {
        unmapAll();
        maps_.assign(rb.count, nullptr);
        lengths_.assign(rb.count, 0);
    }
    if (granted) *granted = rb.count;
    return e;
}

int V4l2Client::query(uint32_t index, v4l2_buffer* b) {
    *b = orvo::v4l2::captureBuffer(index);
    return call(VIDIOC_QUERYBUF, b);
}

int V4l2Client::mapAll() {
    for (uint32_t i = 0; i < maps_.size(); ++i) {
        v4l2_buffer b;
        if (int e = query(i, &b)) return e;
        void* p = mmap(nullptr, b.length, PROT_READ, MAP_SHARED, fd_, b.m.offset);
        if (p == MAP_FAILED) return errno;
        maps_[i] = p;
        lengths_[i] = b.length;
    }
    return 0;
}

void V4l2Client::unmapAll() {
    for (size_t i = 0; i < maps_.size(); ++i)
        if (maps_[i]) munmap(maps_[i], lengths_[i]);
    for (void*& p : maps_) p = nullptr;
}

int V4l2Client::queue(uint32_t index, v4l2_buffer* out) {
    v4l2_buffer b = orvo::v4l2::captureBuffer(index);
    int e = call(VIDIOC_QBUF, &b);
    if (out) *out = b;
    return e;
}

int V4l2Client::queueAll() {
    for (uint32_t i = 0; i < maps_.size(); ++i)
        if (int e = queue(i)) return e;
    return 0;
}

int V4l2Client::streamOn() {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return call(VIDIOC_STREAMON, &type);
}

int V4l2Client::streamOff() {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return call(VIDIOC_STREAMOFF, &type);
}

int V4l2Client::dequeue(v4l2_buffer* b) {
    *b = orvo::v4l2::captureBuffer(0);
    return call(VIDIOC_DQBUF, b);
}

int V4l2Client::start(uint32_t count) {
    if (int e = setFormat()) return e;
    if (int e = requestBuffers(count)) return e;
    if (int e = mapAll()) return e;
    if (int e = queueAll()) return e;
    return streamOn();
}

int V4l2Client::close() {
    if (fd_ < 0) return 0;
    int r = ::close(fd_);
    fd_ = -1;
    return r == 0 ? 0 : errno;
}

}  // namespace orvo_test
