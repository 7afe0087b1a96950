// Streaming requests of the emulated device: QBUF, DQBUF, STREAMON and STREAMOFF, and the
// pacing that fills queued buffers as frames fall due.
#include <fcntl.h>

#include <chrono>
#include <cmath>

#include "device.h"
#include "device_fields.h"
#include "frame_geometry.h"

namespace orvo {
namespace vcam {

using orvo::frame::kBytes;

constexpr int64_t kIdleDequeueNs = 1000000000;

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
// buffer is queued; with nothing queued it waits a while for another thread to queue one (or to
// stop the stream: EINVAL), then fails with EINVAL rather than hang a single-threaded client.
int Device::dqbuf(const OpenFile& file, v4l2_buffer& b, RegistryLock& lock) {
    if (busy(file)) return -EBUSY;
    if (b.type != kCapture || b.memory != V4L2_MEMORY_MMAP) return -EINVAL;
    bool nonblocking = (fcntl(file.fd, F_GETFL) & O_NONBLOCK) != 0;
    int64_t idle_until = 0;
    for (;;) {
        if (unplugged_) return -ENODEV;
        if (!streaming_) return -EINVAL;
        int64_t now = monotonicNs();
        advance(now);
        if (!done_.empty()) break;
        if (freeRunning() && !queued_.empty()) {
            fill(queued_.pop(), index_base_ + served_, uint32_t(sequence_base_ + next_k_++), now);
            break;
        }
        if (nonblocking) return -EAGAIN;
        if (queued_.empty()) {
            // Another thread may queue a buffer or stop the stream meanwhile; if none does
            // within kIdleDequeueNs, none is going to, and nothing can ever arrive.
            if (idle_until == 0) idle_until = now + kIdleDequeueNs;
            if (now >= idle_until) return -EINVAL;
            lock.waitUntil(wake_, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(idle_until)));
            continue;
        }
        lock.waitUntil(wake_, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(dueNs(next_k_))));
    }
    serve(done_.pop(), b);
    return 0;
}

void Device::serve(uint32_t i, v4l2_buffer& b) {
    Buffer& buf = buffers_[i];
    buf.state = Buffer::State::Dequeued;
    describe(i, b);
    if (faults_.find(FaultAction::ZeroBytes, ++calls_.dequeues)) b.bytesused = 0;
    ++served_;
    if (truth_.enabled()) {
        const uint8_t* bytes = region_ + (buf.offset - region_offset_);
        truth_.write(buf.truth, b.bytesused, frameHash(bytes, kBytes), driver_timestamps_ ? buf.timestamp_ns / 1000 : 0);
    }
}

// The camera is gone: the stream ends where it stood, its timeline is kept for the replug, and
// whoever waits for a frame is woken to find it gone.
int Device::unplug(const Fault& fault) {
    carried_.calls = calls_;
    carried_.next_index = index_base_ + (freeRunning() ? served_ : next_k_);
    carried_.next_sequence = sequence_base_ + next_k_;
    carried_.rate = streaming_ ? stream_rate_ : fps_ > 0 ? fps_ : double(interval_.denominator) / interval_.numerator;
    stop();
    unplugged_ = &fault;
    return -ENODEV;
}

void Device::resume(const Carry& from, uint64_t skipped) {
    calls_ = from.calls;
    index_base_ = from.next_index + skipped;
    sequence_base_ = from.next_sequence + skipped;
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
        fill(queued_.pop(), index_base_ + next_k_, uint32_t(sequence_base_ + next_k_), dueNs(next_k_));
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
    if (!streaming_ || unplugged_) return Readiness::Error;
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
