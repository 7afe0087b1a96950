// The emulated capture device: answers each V4L2 request as a videobuf2 capture driver would.
#include "device.h"

#include <fcntl.h>
#include <linux/version.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "frame_geometry.h"
#include "real_calls.h"
#include "requests.h"

namespace orvo {
namespace vcam {
namespace {

using namespace orvo::frame;

constexpr uint32_t kCapture = V4L2_BUF_TYPE_VIDEO_CAPTURE;
constexpr uint32_t kMinBuffers = 2;
constexpr uint32_t kMaxBuffers = VIDEO_MAX_FRAME;
constexpr uint32_t kSupportedRates[] = {60, 30, 15, 10, 5};
constexpr uint32_t kBadOffsetNudge = 2048;  // half a page: mmap refuses the offset

size_t pageSize() {
    static const size_t size = size_t(sysconf(_SC_PAGESIZE));
    return size;
}

size_t bufferStride() { return (kBytes + pageSize() - 1) / pageSize() * pageSize(); }

void copyName(__u8* dst, size_t size, const char* src) {
    std::memset(dst, 0, size);
    std::strncpy(reinterpret_cast<char*>(dst), src, size - 1);
}

timeval toTimeval(int64_t ns) {
    timeval tv;
    tv.tv_sec = time_t(ns / 1000000000);
    tv.tv_usec = suseconds_t(ns % 1000000000 / 1000);
    return tv;
}

// The one format the camera streams, whatever was asked for.
void fillPixFormat(v4l2_format& f) {
    std::memset(&f.fmt, 0, sizeof f.fmt);
    v4l2_pix_format& p = f.fmt.pix;
    p.width = kWidth;
    p.height = kHeight;
    p.pixelformat = V4L2_PIX_FMT_YUYV;
    p.field = V4L2_FIELD_NONE;
    p.bytesperline = uint32_t(kBytesPerLine);
    p.sizeimage = uint32_t(kBytes);
    p.colorspace = V4L2_COLORSPACE_SRGB;
    p.priv = V4L2_PIX_FMT_PRIV_MAGIC;
}

// The supported frame interval nearest to the one asked for; 0/0 (or any zero term) asks for the
// default.
v4l2_fract nearestInterval(v4l2_fract asked) {
    if (asked.numerator == 0 || asked.denominator == 0) return {1, uint32_t(kFps)};
    double want = double(asked.numerator) / double(asked.denominator);
    uint32_t best = kSupportedRates[0];
    for (uint32_t rate : kSupportedRates)
        if (std::fabs(1.0 / rate - want) < std::fabs(1.0 / best - want)) best = rate;
    return {1, best};
}

bool needsArgument(unsigned long code) { return _IOC_DIR(code) != _IOC_NONE; }

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
               std::condition_variable& wake)
    : fps_(fps),
      source_(std::move(source)),
      faults_(std::move(faults)),
      truth_(std::move(truth)),
      wake_(wake),
      request_calls_(requestSlots(), 0) {}

Device::~Device() {
    if (region_) munmap(region_, region_length_);
}

bool Device::init(int memfd, std::string* error) {
    struct stat st;
    if (fstat(memfd, &st) != 0) {
        *error = std::string("cannot use the buffer memory: ") + std::strerror(errno);
        return false;
    }
    memfd_dev_ = st.st_dev;
    memfd_ino_ = st.st_ino;
    return true;
}

bool Device::backs(int fd) const {
    struct stat st;
    return fstat(fd, &st) == 0 && st.st_dev == memfd_dev_ && st.st_ino == memfd_ino_;
}

int Device::countOpen() { return faults_.errorFor(FaultTarget::Open, 0, ++open_calls_); }

int Device::countClose() { return faults_.errorFor(FaultTarget::Close, 0, ++close_calls_); }

int Device::countMeminfo(bool* hide_memfree) {
    uint64_t call = ++meminfo_calls_;
    if (faults_.find(FaultAction::Unreadable, call)) return EACCES;
    if (int e = faults_.errorFor(FaultTarget::Meminfo, 0, call)) return e;
    *hide_memfree = faults_.find(FaultAction::NoMemfree, call) != nullptr;
    return 0;
}

// Closing the owning file stops streaming and frees the queue; client mappings keep their pages.
void Device::release(uint64_t file_id) {
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
// state.
int Device::request(const OpenFile& file, unsigned long code, void* arg, std::unique_lock<std::mutex>& lock) {
    const RequestName* known = findRequest(code);
    ++ioctl_calls_;
    uint64_t call = 0;
    if (known) call = ++request_calls_[requestSlot(known)];
    advance(monotonicNs());  // frames that fell due while nothing was queued are gone already
    if (int e = faults_.errorFor(FaultTarget::AnyIoctl, 0, ioctl_calls_)) return -e;
    if (known && known->emulated) {
        if (int e = faults_.errorFor(FaultTarget::Request, requestSlot(known), call)) return -e;
        if (needsArgument(code) && !arg) return -EFAULT;
    }
    switch (code) {
    case VIDIOC_QUERYCAP: return querycap(*static_cast<v4l2_capability*>(arg), call);
    case VIDIOC_CROPCAP: return cropcap(*static_cast<v4l2_cropcap*>(arg));
    case VIDIOC_S_CROP: return crop(*static_cast<v4l2_crop*>(arg), true);
    case VIDIOC_G_CROP: return crop(*static_cast<v4l2_crop*>(arg), false);
    case VIDIOC_S_FMT: return setFormat(file, *static_cast<v4l2_format*>(arg));
    case VIDIOC_G_FMT: return getFormat(*static_cast<v4l2_format*>(arg), false);
    case VIDIOC_TRY_FMT: return getFormat(*static_cast<v4l2_format*>(arg), true);
    case VIDIOC_ENUM_FMT: return enumFormat(*static_cast<v4l2_fmtdesc*>(arg));
    case VIDIOC_ENUM_FRAMESIZES: return enumFrameSizes(*static_cast<v4l2_frmsizeenum*>(arg));
    case VIDIOC_ENUM_FRAMEINTERVALS: return enumFrameIntervals(*static_cast<v4l2_frmivalenum*>(arg));
    case VIDIOC_G_PARM: return getParm(*static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_S_PARM: return setParm(file, *static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_ENUMINPUT: return enumInput(*static_cast<v4l2_input*>(arg));
    case VIDIOC_G_INPUT: *static_cast<int*>(arg) = 0; return 0;
    case VIDIOC_S_INPUT: return setInput(file, *static_cast<int*>(arg));
    case VIDIOC_QUERYCTRL:  // a camera without controls: every control id is unknown
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL: return -EINVAL;
    case VIDIOC_REQBUFS: return reqbufs(file, *static_cast<v4l2_requestbuffers*>(arg), call);
    case VIDIOC_QUERYBUF: return querybuf(*static_cast<v4l2_buffer*>(arg), call);
    case VIDIOC_QBUF: return qbuf(file, *static_cast<v4l2_buffer*>(arg));
    case VIDIOC_DQBUF: return dqbuf(file, *static_cast<v4l2_buffer*>(arg), lock);
    case VIDIOC_STREAMON: return streamon(file, *static_cast<int*>(arg));
    case VIDIOC_STREAMOFF: return streamoff(file, *static_cast<int*>(arg));
    default: return -ENOTTY;
    }
}

int Device::querycap(v4l2_capability& cap, uint64_t call) {
    std::memset(&cap, 0, sizeof cap);
    copyName(cap.driver, sizeof cap.driver, "orvo_vcam");
    copyName(cap.card, sizeof cap.card, "Orvo Stereo Camera (virtual)");
    copyName(cap.bus_info, sizeof cap.bus_info, "platform:orvo-vcam");
    cap.version = LINUX_VERSION_CODE;
    uint32_t caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    if (faults_.find(FaultAction::NoCapture, call)) caps &= ~uint32_t(V4L2_CAP_VIDEO_CAPTURE);
    if (faults_.find(FaultAction::NoStreaming, call)) caps &= ~uint32_t(V4L2_CAP_STREAMING);
    cap.device_caps = caps;
    cap.capabilities = caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int Device::cropcap(v4l2_cropcap& cc) {
    if (cc.type != kCapture) return -EINVAL;
    cc.bounds = {0, 0, uint32_t(kWidth), uint32_t(kHeight)};
    cc.defrect = cc.bounds;
    cc.pixelaspect = {1, 1};
    return 0;
}

// The sensor has no cropping: any rectangle is adjusted to the full frame.
int Device::crop(v4l2_crop& c, bool set) {
    if (c.type != kCapture) return -EINVAL;
    if (!set) c.c = {0, 0, uint32_t(kWidth), uint32_t(kHeight)};
    return 0;
}

int Device::setFormat(const OpenFile& file, v4l2_format& f) {
    if (f.type != kCapture) return -EINVAL;
    if (busy(file) || !buffers_.empty()) return -EBUSY;
    claim(file);
    fillPixFormat(f);
    return 0;
}

int Device::getFormat(v4l2_format& f, bool) {
    if (f.type != kCapture) return -EINVAL;
    fillPixFormat(f);
    return 0;
}

int Device::enumFormat(v4l2_fmtdesc& d) {
    if (d.type != kCapture || d.index != 0) return -EINVAL;
    uint32_t index = d.index, type = d.type;
    std::memset(&d, 0, sizeof d);
    d.index = index;
    d.type = type;
    copyName(d.description, sizeof d.description, "YUYV 4:2:2");
    d.pixelformat = V4L2_PIX_FMT_YUYV;
    return 0;
}

int Device::enumFrameSizes(v4l2_frmsizeenum& e) {
    if (e.index != 0 || e.pixel_format != V4L2_PIX_FMT_YUYV) return -EINVAL;
    e.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    e.discrete = {uint32_t(kWidth), uint32_t(kHeight)};
    return 0;
}

int Device::enumFrameIntervals(v4l2_frmivalenum& e) {
    constexpr uint32_t n = sizeof kSupportedRates / sizeof kSupportedRates[0];
    if (e.pixel_format != V4L2_PIX_FMT_YUYV || e.width != uint32_t(kWidth) || e.height != uint32_t(kHeight) ||
        e.index >= n)
        return -EINVAL;
    e.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    e.discrete = {1, kSupportedRates[e.index]};
    return 0;
}

int Device::getParm(v4l2_streamparm& p) {
    if (p.type != kCapture) return -EINVAL;
    std::memset(&p.parm, 0, sizeof p.parm);
    p.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p.parm.capture.timeperframe = interval_;
    return 0;
}

int Device::setParm(const OpenFile& file, v4l2_streamparm& p) {
    if (p.type != kCapture) return -EINVAL;
    if (busy(file) || streaming_) return -EBUSY;
    claim(file);
    interval_ = nearestInterval(p.parm.capture.timeperframe);
    return getParm(p);
}

int Device::enumInput(v4l2_input& in) {
    if (in.index != 0) return -EINVAL;
    std::memset(&in, 0, sizeof in);
    copyName(in.name, sizeof in.name, "Camera 1");
    in.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int Device::setInput(const OpenFile& file, int input) {
    if (input != 0) return -EINVAL;
    if (busy(file)) return -EBUSY;
    claim(file);
    return 0;
}

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
    b.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF;
    if (buf.state == Buffer::State::Queued) b.flags |= V4L2_BUF_FLAG_QUEUED;
    if (buf.state == Buffer::State::Done) b.flags |= V4L2_BUF_FLAG_DONE;
    if (buf.mapped) b.flags |= V4L2_BUF_FLAG_MAPPED;
    b.field = V4L2_FIELD_NONE;
    b.timestamp = toTimeval(buf.timestamp_ns);
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

int Device::qbuf(const OpenFile& file, v4l2_buffer& b) {
    if (busy(file)) return -EBUSY;
    if (b.type != kCapture || b.index >= buffers_.size() || b.memory != V4L2_MEMORY_MMAP) return -EINVAL;
    uint32_t i = b.index;
    if (buffers_[i].state != Buffer::State::Dequeued) return -EINVAL;
    buffers_[i].state = Buffer::State::Queued;
    queued_.push(i);
    describe(i, b);
    wake_.notify_all();
    return 0;
}

// Returns the oldest filled buffer. Paced, a blocking call waits for the next frame while a
// buffer is queued; with nothing queued it could never complete and fails with EINVAL.
int Device::dqbuf(const OpenFile& file, v4l2_buffer& b, std::unique_lock<std::mutex>& lock) {
    if (busy(file)) return -EBUSY;
    if (b.type != kCapture || b.memory != V4L2_MEMORY_MMAP) return -EINVAL;
    bool nonblocking = (fcntl(file.fd, F_GETFL) & O_NONBLOCK) != 0;
    for (;;) {
        if (!streaming_) return -EINVAL;
        int64_t now = monotonicNs();
        advance(now);
        if (!done_.empty()) break;
        if (freeRunning() && !queued_.empty()) {
            fill(queued_.pop(), served_, uint32_t(next_k_++), now);
            break;
        }
        if (nonblocking) return -EAGAIN;
        if (queued_.empty()) return -EINVAL;
        wake_.wait_until(lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(dueNs(next_k_))));
    }
    serve(done_.pop(), b);
    return 0;
}

void Device::serve(uint32_t i, v4l2_buffer& b) {
    Buffer& buf = buffers_[i];
    buf.state = Buffer::State::Dequeued;
    describe(i, b);
    if (faults_.find(FaultAction::ZeroBytes, ++dequeues_)) b.bytesused = 0;
    ++served_;
    if (truth_.enabled()) {
        const uint8_t* bytes = region_ + (buf.offset - region_offset_);
        truth_.write(buf.truth, b.bytesused, frameHash(bytes, kBytes), buf.timestamp_ns / 1000);
    }
}

int Device::streamon(const OpenFile& file, int type) {
    if (busy(file)) return -EBUSY;
    if (uint32_t(type) != kCapture || buffers_.empty()) return -EINVAL;
    if (!streaming_) {
        refreshMapped();
        start();
    }
    return 0;
}

int Device::streamoff(const OpenFile& file, int type) {
    if (busy(file)) return -EBUSY;
    if (uint32_t(type) != kCapture) return -EINVAL;
    stop();
    return 0;
}

void Device::start() {
    streaming_ = true;
    stream_start_ns_ = monotonicNs();
    next_k_ = 0;
    stream_rate_ = fps_ > 0 ? fps_ : double(interval_.denominator) / double(interval_.numerator);
    period_ns_ = 1e9 / stream_rate_;
}

// Every buffer returns to the dequeued state; the source's timeline goes on where it was.
void Device::stop() {
    if (streaming_ && !freeRunning()) index_base_ += next_k_;
    streaming_ = false;
    next_k_ = 0;
    for (Buffer& b : buffers_) b.state = Buffer::State::Dequeued;
    queued_.clear();
    done_.clear();
    wake_.notify_all();
}

// Frame k of a paced stream is due one period after frame k-1, the first one period after STREAMON.
int64_t Device::dueNs(uint64_t k) const { return stream_start_ns_ + std::llround(double(k + 1) * period_ns_); }

// Deals with every frame whose time has come: each fills the oldest queued buffer, or is dropped
// when none is queued.
void Device::advance(int64_t now_ns) {
    if (!streaming_ || freeRunning()) return;
    while (dueNs(next_k_) <= now_ns) {
        if (queued_.empty()) {
            skipDueFrames(now_ns);
            return;
        }
        fill(queued_.pop(), index_base_ + next_k_, uint32_t(next_k_), dueNs(next_k_));
        ++next_k_;
    }
}

void Device::skipDueFrames(int64_t now_ns) {
    uint64_t k = uint64_t(double(now_ns - stream_start_ns_) / period_ns_);
    if (k < next_k_) k = next_k_;
    while (dueNs(k) <= now_ns) ++k;
    while (k > next_k_ && dueNs(k - 1) > now_ns) --k;
    dropped_ += k - next_k_;
    next_k_ = k;
}

void Device::fill(uint32_t i, uint64_t index, uint32_t sequence, int64_t timestamp_ns) {
    Buffer& buf = buffers_[i];
    FrameTruth& t = buf.truth;
    t.index = index;
    t.sequence = sequence;
    t.time_s = double(index) / stream_rate_;
    t.frame_ticks = 0;
    t.imu.clear();
    t.has_attitude = false;
    t.attitude[0] = 1;
    t.attitude[1] = t.attitude[2] = t.attitude[3] = 0;
    t.extra.clear();
    source_->render(index, t.time_s, region_ + (buf.offset - region_offset_), t);
    buf.bytesused = uint32_t(kBytes);
    buf.sequence = sequence;
    buf.timestamp_ns = timestamp_ns;
    buf.state = Buffer::State::Done;
    done_.push(i);
}

Readiness Device::readiness() {
    if (!streaming_) return Readiness::Error;
    advance(monotonicNs());
    if (!done_.empty() || (freeRunning() && !queued_.empty())) return Readiness::Ready;
    return Readiness::NotYet;
}

int64_t Device::nextChangeNs() const {
    if (!streaming_ || freeRunning() || queued_.empty()) return -1;
    return dueNs(next_k_);
}

}  // namespace vcam
}  // namespace orvo
