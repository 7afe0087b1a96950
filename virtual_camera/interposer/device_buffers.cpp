// Buffer requests of the emulated device: REQBUFS and QUERYBUF, the buffers' place in the
// session's memory (the m.offset cookies) and which of them the process has mapped.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "device.h"
#include "device_fields.h"
#include "frame_geometry.h"
#include "real_calls.h"

namespace orvo {
namespace vcam {
namespace {

using orvo::frame::kBytes;

constexpr uint32_t kMinBuffers = 2;
constexpr uint32_t kMaxBuffers = VIDEO_MAX_FRAME;
constexpr uint32_t kBadOffsetNudge = 2048;  // half a page: mmap refuses the offset

size_t pageSize() {
    static const size_t size = size_t(sysconf(_SC_PAGESIZE));
    return size;
}

size_t bufferStride() { return (kBytes + pageSize() - 1) / pageSize() * pageSize(); }

timeval toTimeval(int64_t ns) {
    timeval tv;
    tv.tv_sec = time_t(ns / 1000000000);
    tv.tv_usec = suseconds_t(ns % 1000000000 / 1000);
    return tv;
}

}  // namespace

// Frees any buffers (refused while they are mapped or streaming), then allocates the grant:
// the request clamped to 2..32, or what a grant fault says; a count of 0 only frees.
int Device::reqbufs(const OpenFile& file, v4l2_requestbuffers& rb, uint64_t call) {
    if (rb.type != kCapture || rb.memory != V4L2_MEMORY_MMAP) return -EINVAL;
    if (busy(file) || streaming_) return -EBUSY;
    if (!buffers_.empty()) {
        refreshMapped();
        for (const Buffer& b : buffers_)
            if (b.mapped) return -EBUSY;
        freeBuffers(file.fd);
    }
    uint32_t granted = 0;
    if (rb.count > 0) {
        granted = rb.count < kMinBuffers ? kMinBuffers : rb.count > kMaxBuffers ? kMaxBuffers : rb.count;
        if (const Fault* f = faults_.find(FaultAction::Grant, call)) granted = f->grant;
    }
    rb.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    rb.flags = 0;
    std::memset(rb.reserved, 0, sizeof rb.reserved);
    rb.count = 0;
    if (granted == 0) {
        owner_ = 0;
        return 0;
    }
    if (int e = allocate(granted, file.fd)) return -e;
    claim(file);
    rb.count = granted;
    return 0;
}

// Places the buffers after every earlier allocation of the session, so that pages still mapped
// from a freed queue are never reused; offsets are page aligned and fit the 32-bit cookie. The
// memory is reached through a passing descriptor opened from the caller's.
int Device::allocate(uint32_t count, int via_fd) {
    size_t length = count * bufferStride();
    uint64_t start = next_offset_;
    if (start + length > UINT32_MAX) start = 0;
    int fd = reopenDescriptor(via_fd, O_RDWR | O_CLOEXEC);
    if (fd < 0) return ENOMEM;
    void* p = MAP_FAILED;
    if (start + length <= memfd_size_ || ftruncate(fd, off_t(start + length)) == 0) {
        if (start + length > memfd_size_) memfd_size_ = start + length;
        p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, off_t(start));
    }
    real::close(fd);
    if (p == MAP_FAILED) return ENOMEM;
    region_ = static_cast<uint8_t*>(p);
    region_offset_ = uint32_t(start);
    region_length_ = length;
    next_offset_ = start + length;
    buffers_.assign(count, Buffer());
    for (uint32_t i = 0; i < count; ++i) buffers_[i].offset = uint32_t(start + i * bufferStride());
    return 0;
}

// Gives the pages back too when a descriptor is given to reach them (nobody maps them any more).
void Device::freeBuffers(int release_via_fd) {
    munmap(region_, region_length_);
    int fd = release_via_fd >= 0 ? reopenDescriptor(release_via_fd, O_RDWR | O_CLOEXEC) : -1;
    if (fd >= 0) {
        fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(region_offset_), off_t(region_length_));
        real::close(fd);
    }
    region_ = nullptr;
    region_length_ = 0;
    buffers_.clear();
    queued_.clear();
    done_.clear();
}

// Which buffers the process has mapped, from its own memory map (our mapping aside).
void Device::refreshMapped() {
    for (Buffer& b : buffers_) b.mapped = false;
    int fd = real::open("/proc/self/maps", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return;
    std::string maps;
    char chunk[8192];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) maps.append(chunk, size_t(n));
    real::close(fd);
    uintptr_t own = reinterpret_cast<uintptr_t>(region_);
    size_t pos = 0;
    while (pos < maps.size()) {
        size_t end = maps.find('\n', pos);
        if (end == std::string::npos) end = maps.size();
        std::string line = maps.substr(pos, end - pos);
        pos = end + 1;
        unsigned long lo, hi, offset, inode;
        unsigned major, minor;
        char perms[8];
        if (std::sscanf(line.c_str(), "%lx-%lx %7s %lx %x:%x %lu", &lo, &hi, perms, &offset, &major, &minor,
                        &inode) != 7)
            continue;
        if (inode != memfd_ino_ || makedev(major, minor) != memfd_dev_) continue;
        if (lo >= own && lo < own + region_length_) continue;
        for (Buffer& b : buffers_)
            if (offset < uint64_t(b.offset) + kBytes && offset + (hi - lo) > b.offset) b.mapped = true;
    }
}

void Device::describe(uint32_t i, v4l2_buffer& b) const {
    const Buffer& buf = buffers_[i];
    std::memset(&b, 0, sizeof b);
    b.index = i;
    b.type = kCapture;
    b.memory = V4L2_MEMORY_MMAP;
    b.bytesused = buf.bytesused;
    b.flags = driver_timestamps_ ? V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF
                                 : V4L2_BUF_FLAG_TIMESTAMP_UNKNOWN;
    if (buf.state == Buffer::State::Queued) b.flags |= V4L2_BUF_FLAG_QUEUED;
    if (buf.state == Buffer::State::Done) b.flags |= V4L2_BUF_FLAG_DONE;
    if (buf.mapped) b.flags |= V4L2_BUF_FLAG_MAPPED;
    b.field = V4L2_FIELD_NONE;
    if (driver_timestamps_) b.timestamp = toTimeval(buf.timestamp_ns);
    b.sequence = buf.sequence;
    b.m.offset = buf.offset;
    b.length = uint32_t(kBytes);
}

int Device::querybuf(v4l2_buffer& b, uint64_t call) {
    if (b.type != kCapture || b.index >= buffers_.size()) return -EINVAL;
    refreshMapped();
    describe(b.index, b);
    if (faults_.find(FaultAction::BadOffset, call)) b.m.offset += kBadOffsetNudge;
    return 0;
}

}  // namespace vcam
}  // namespace orvo
