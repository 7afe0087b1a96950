// The emulated capture device of one session: its memory, counters and faults, and the dispatch
// of each V4L2 request to the handlers of its area (format, buffers, streaming, controls).
#include "device.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "real_calls.h"
#include "requests.h"

namespace orvo {
namespace vcam {
namespace {

bool needsArgument(unsigned long code) { return _IOC_DIR(code) != _IOC_NONE; }

// The requests that change the device's settings, refused to a file of lower priority than another.
bool needsPriority(unsigned long code) {
    switch (code) {
    case VIDIOC_S_FMT:
    case VIDIOC_S_PARM:
    case VIDIOC_S_INPUT:
    case VIDIOC_S_CROP:
    case VIDIOC_S_SELECTION:
    case VIDIOC_S_CTRL:
    case VIDIOC_S_PRIORITY: return true;
    default: return false;
    }
}

}  // namespace

int reopenDescriptor(int fd, int flags) {
    char self[32];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
    return real::open(self, flags, 0);
}

int64_t monotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Device::Device(double fps, std::unique_ptr<FrameSource> source, FaultPlan faults, TruthWriter truth,
               std::condition_variable& wake, bool driver_timestamps)
    : fps_(fps),
      source_(std::move(source)),
      faults_(std::move(faults)),
      truth_(std::move(truth)),
      wake_(wake),
      driver_timestamps_(driver_timestamps) {
    calls_.requests.assign(requestSlots(), 0);
}

Device::~Device() {
    if (region_) munmap(region_, region_length_);
}

bool Device::init(int memfd, std::string* error) {
    struct stat st;
    if (real::fstat(memfd, &st) != 0) {
        *error = std::string("cannot use the buffer memory: ") + std::strerror(errno);
        return false;
    }
    memfd_dev_ = st.st_dev;
    memfd_ino_ = st.st_ino;
    return true;
}

bool Device::backs(int fd) const {
    struct stat st;
    return real::fstat(fd, &st) == 0 && st.st_dev == memfd_dev_ && st.st_ino == memfd_ino_;
}

int Device::countOpen() { return faults_.errorFor(FaultTarget::Open, 0, ++calls_.open); }

int Device::countClose() { return faults_.errorFor(FaultTarget::Close, 0, ++calls_.close); }

int Device::countMeminfo(bool* hide_memfree) {
    uint64_t call = ++calls_.meminfo;
    if (faults_.find(FaultAction::Unreadable, call)) return EACCES;
    if (int e = faults_.errorFor(FaultTarget::Meminfo, 0, call)) return e;
    *hide_memfree = faults_.find(FaultAction::NoMemfree, call) != nullptr;
    return 0;
}

// Closing the owning file stops streaming and frees the queue; client mappings keep their pages.
void Device::release(uint64_t file_id) {
    priorities_.erase(file_id);
    if (file_id != owner_) return;
    stop();
    if (!buffers_.empty()) freeBuffers(-1);
    owner_ = 0;
}

Statistics Device::stats() const {
    Statistics s;
    s.streaming = streaming_;
    s.frames_served = served_;
    s.frames_dropped = dropped_;
    return s;
}

// Counts the call, applies the injected failures, then dispatches. Injected failures change no
// state, but an unplug: an unplugged device answers nothing any more and counts no call.
int Device::request(const OpenFile& file, unsigned long code, void* arg, RegistryLock& lock) {
    if (unplugged_) return -ENODEV;
    const RequestName* known = findRequest(code);
    ++calls_.ioctl;
    uint64_t call = 0;
    if (known) call = ++calls_.requests[requestSlot(known)];
    advance(monotonicNs());  // frames that fell due while nothing was queued are gone already
    if (code == VIDIOC_DQBUF)
        if (const Fault* f = faults_.find(FaultAction::Unplug, call)) return unplug(*f);
    if (int e = faults_.errorFor(FaultTarget::AnyIoctl, 0, calls_.ioctl)) return -e;
    if (known && known->emulated) {
        if (int e = faults_.errorFor(FaultTarget::Request, requestSlot(known), call)) return -e;
        if (needsArgument(code) && !arg) return -EFAULT;
    }
    if (needsPriority(code) && outranked(file)) return -EBUSY;
    switch (code) {
    case VIDIOC_QUERYCAP: return querycap(*static_cast<v4l2_capability*>(arg), call);
    case VIDIOC_CROPCAP: return cropcap(*static_cast<v4l2_cropcap*>(arg));
    case VIDIOC_S_CROP: return crop(*static_cast<v4l2_crop*>(arg), true);
    case VIDIOC_G_CROP: return crop(*static_cast<v4l2_crop*>(arg), false);
    case VIDIOC_G_SELECTION: return selection(*static_cast<v4l2_selection*>(arg), false);
    case VIDIOC_S_SELECTION: return selection(*static_cast<v4l2_selection*>(arg), true);
    case VIDIOC_G_PRIORITY: return getPriority(*static_cast<uint32_t*>(arg));
    case VIDIOC_S_PRIORITY: return setPriority(file, *static_cast<uint32_t*>(arg));
    case VIDIOC_LOG_STATUS: return logStatus();
    case VIDIOC_S_FMT: return setFormat(file, *static_cast<v4l2_format*>(arg));
    case VIDIOC_G_FMT: return getFormat(*static_cast<v4l2_format*>(arg), false);
    case VIDIOC_TRY_FMT: return getFormat(*static_cast<v4l2_format*>(arg), true);
    case VIDIOC_ENUM_FMT: return enumFormat(*static_cast<v4l2_fmtdesc*>(arg));
    case VIDIOC_ENUM_FRAMESIZES: return enumFrameSizes(*static_cast<v4l2_frmsizeenum*>(arg));
    case VIDIOC_ENUM_FRAMEINTERVALS: return enumFrameIntervals(*static_cast<v4l2_frmivalenum*>(arg));
    case VIDIOC_G_PARM: return getParm(*static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_S_PARM: return setParm(file, *static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_ENUMINPUT: return enumInput(*static_cast<v4l2_input*>(arg));
    case VIDIOC_G_INPUT: return getInput(*static_cast<int*>(arg));
    case VIDIOC_S_INPUT: return setInput(file, *static_cast<int*>(arg));
    case VIDIOC_QUERYCTRL:
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL: return control(code);
    case VIDIOC_REQBUFS: return reqbufs(file, *static_cast<v4l2_requestbuffers*>(arg), call);
    case VIDIOC_QUERYBUF: return querybuf(*static_cast<v4l2_buffer*>(arg), call);
    case VIDIOC_QBUF: return qbuf(file, *static_cast<v4l2_buffer*>(arg));
    case VIDIOC_DQBUF: return dqbuf(file, *static_cast<v4l2_buffer*>(arg), lock);
    case VIDIOC_STREAMON: return streamon(file, *static_cast<int*>(arg));
    case VIDIOC_STREAMOFF: return streamoff(file, *static_cast<int*>(arg));
    default: return -ENOTTY;
    }
}

}  // namespace vcam
}  // namespace orvo
