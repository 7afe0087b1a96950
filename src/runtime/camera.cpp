// orvo::Camera: the capture thread, the frame queue grab() serves from, state, stats and reconnect.
#include "orvo/camera.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "frame_builder.h"
#include "frame_geometry.h"
#include "frame_pool.h"
#include "orvo/calibration.hpp"
#include "orvo/error.hpp"
#include "v4l2_stream.h"

namespace orvo {

const char* to_string(CameraState state) {
    switch (state) {
    case CameraState::streaming: return "streaming";
    case CameraState::disconnected: return "disconnected";
    case CameraState::reconnecting: return "reconnecting";
    case CameraState::closed: return "closed";
    }
    return "unknown";
}

using runtime::Dequeue;
using runtime::V4l2Stream;

namespace {

// The frames waiting for grab(), oldest first, in slots made once with the camera: handing frames
// in and out allocates nothing (a deque would take and free a block every other frame).
class FrameQueue {
public:
    explicit FrameQueue(size_t depth) : slots_(std::max<size_t>(depth, 1)) {}
    bool empty() const { return count_ == 0; }
    bool full() const { return count_ == slots_.size(); }
    void push(Frame&& f) {
        slots_[(head_ + count_) % slots_.size()] = std::move(f);
        ++count_;
    }
    Frame pop() {
        Frame f(std::move(slots_[head_]));
        head_ = (head_ + 1) % slots_.size();
        --count_;
        return f;
    }
    void dropOldest() { pop(); }  // its planes go back to the pool as the frame goes
    void clear() {
        while (!empty()) dropOldest();
    }

private:
    std::vector<Frame> slots_;
    size_t head_ = 0;
    size_t count_ = 0;
};

}  // namespace

struct Camera::Impl {
    Impl(const std::string& n, const CameraOptions& o);
    ~Impl();
    void run();
    void deliver(const v4l2_buffer& buf);
    void lost(int err, const std::string& what);
    bool reopen();
    bool pause(std::chrono::milliseconds delay);
    void setState(CameraState s);
    void noteError(int err, const std::string& what);
    void stop();

    const std::string node;
    const CameraOptions options;
    std::unique_ptr<Calibration> calibration;
    runtime::UniqueFd wake;  // an eventfd that stop() makes readable
    runtime::FramePool* pool;

    // Shared with grab(), state() and stats(): guarded by mutex.
    mutable std::mutex mutex;
    std::condition_variable ready;
    FrameQueue queue;
    CameraState state = CameraState::streaming;
    CameraStats stats;
    std::atomic<bool> stopping{false};

    // The capture thread's own.
    std::unique_ptr<V4l2Stream> stream;
    runtime::DeviceClock clock;
    cv::Mat scratch[2];
    bool have_frame = false;
    bool resumed = false;  // the next frame is the first after a reconnect
    uint32_t last_driver_sequence = 0;
    uint64_t sequence_base = 0;
    uint64_t last_sequence = 0;
    uint64_t last_host_ns = 0;

    std::thread thread;
};

// Everything that can fail happens before the thread starts, so a throw leaves nothing running;
// the calibration is read first so that bad files cost no camera session.
Camera::Impl::Impl(const std::string& n, const CameraOptions& o)
    : node(n), options(o), queue(o.queue_depth) {
    if (options.rectify && (options.intrinsics_file.empty() || options.extrinsics_file.empty()))
        throw Error(EINVAL, "rectify needs CameraOptions::intrinsics_file and extrinsics_file");
    if (!options.intrinsics_file.empty() && !options.extrinsics_file.empty())
        calibration = std::make_unique<Calibration>(
            Calibration::load(options.intrinsics_file, options.extrinsics_file));
    stream = std::make_unique<V4l2Stream>(node);
    wake = runtime::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (wake.get() < 0) throw Error(errno, "cannot create the capture thread's wake-up descriptor");
    pool = runtime::FramePool::create(2 * (std::max<size_t>(options.queue_depth, 1) + 2));
    thread = std::thread([this] { run(); });
}

Camera::Impl::~Impl() {
    stop();
    queue.clear();
    pool->retire();
}

void Camera::Impl::stop() {
    if (thread.joinable()) {
        stopping = true;
        const uint64_t one = 1;
        if (::write(wake.get(), &one, sizeof one) < 0) {
            // The counter cannot overflow with one write; the flag alone ends the loop within a wait.
        }
        thread.join();
    }
    stream.reset();
    setState(CameraState::closed);
}

void Camera::Impl::setState(CameraState s) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (state == s || state == CameraState::closed) return;
        state = s;
        if (s != CameraState::streaming) queue.clear();  // nothing from before the loss is handed out
    }
    ready.notify_all();
    if (options.on_state_change) options.on_state_change(s);
}

void Camera::Impl::noteError(int err, const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    stats.last_errno = err;
    stats.last_error = what;
    stats.last_error_time_ns = runtime::monotonicNowNs();
}

// The wait is bounded so that a lost wake-up cannot keep the thread from seeing `stopping`.
void Camera::Impl::run() {
    while (!stopping) {
        if (!stream && !reopen()) return;
        v4l2_buffer buf;
        int err = 0;
        switch (stream->wait(wake.get(), 500, buf, err)) {
        case Dequeue::frame: deliver(buf); break;
        case Dequeue::failed: lost(err, node + ": VIDIOC_DQBUF failed: " + std::strerror(err)); break;
        case Dequeue::timeout:
        case Dequeue::woken: break;
        }
    }
}

// A buffer the driver marks bad, or one shorter than a frame, goes straight back: no frame at all
// is better than a torn one. The buffer is requeued as soon as its bytes are copied out.
void Camera::Impl::deliver(const v4l2_buffer& buf) {
    const uint64_t dequeued_ns = runtime::monotonicNowNs();
    const bool usable = !(buf.flags & V4L2_BUF_FLAG_ERROR) && buf.bytesused >= frame::kBytes &&
                        buf.bytesused <= stream->buffer_length(buf);
    Frame f;
    if (usable) {
        runtime::buildFrame(stream->data(buf), buf.bytesused, 0, clock, *pool,
                            options.rectify ? calibration.get() : nullptr, scratch, f);
        f.host_time_ns = runtime::bufferHostTime(buf, dequeued_ns, f.host_time_source);
        for (ImuSample& s : f.imu) s.host_time_ns += f.host_time_ns;
    }
    if (const int err = stream->requeue(buf)) {
        lost(err, node + ": VIDIOC_QBUF failed: " + std::strerror(err));
        return;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!usable) {
        ++stats.incomplete;
        return;
    }
    uint64_t gaps = 0;
    if (!have_frame) {
        sequence_base = 0;
    } else if (resumed) {
        sequence_base = last_sequence + 1 - buf.sequence;
    } else if (buf.sequence > last_driver_sequence + 1) {
        gaps = buf.sequence - last_driver_sequence - 1;
    }
    f.sequence = sequence_base + buf.sequence;
    if (have_frame && f.sequence <= last_sequence) {  // a driver whose sequence went backwards
        sequence_base += last_sequence + 1 - f.sequence;
        f.sequence = last_sequence + 1;
    }
    have_frame = true;
    resumed = false;
    last_driver_sequence = buf.sequence;
    last_sequence = f.sequence;
    last_host_ns = f.host_time_ns;
    stats.drops += gaps;
    ++stats.frames;
    if (state != CameraState::streaming) return;
    if (queue.full()) {
        queue.dropOldest();
        ++stats.discarded;
    }
    queue.push(std::move(f));
    lock.unlock();
    ready.notify_one();
}

// Releases the stream (descriptor, mappings, queue) at once, then either waits for the node to
// come back or stays disconnected.
void Camera::Impl::lost(int err, const std::string& what) {
    stream.reset();
    noteError(err, what);
    setState(CameraState::disconnected);
}

// Bounded exponential backoff between attempts; each failed attempt is the new last error.
bool Camera::Impl::reopen() {
    if (!options.reconnect) return pause(std::chrono::hours(24 * 365)) && false;
    setState(CameraState::reconnecting);
    std::chrono::milliseconds delay(50);
    while (!stopping) {
        if (!pause(delay)) return false;
        try {
            stream = std::make_unique<V4l2Stream>(node);
        } catch (const Error& e) {
            noteError(e.errno_value(), e.what());
            delay = std::min(delay * 2, std::max(options.reconnect_backoff_max, std::chrono::milliseconds(50)));
            continue;
        }
        const uint64_t now = runtime::monotonicNowNs();
        clock.reconnected(have_frame && now > last_host_ns ? (now - last_host_ns) / 1000u : 0);
        resumed = have_frame;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++stats.reconnects;
        }
        setState(CameraState::streaming);
        return true;
    }
    return false;
}

// Sleeps for `delay` unless stop() wakes the thread; false when it should end.
bool Camera::Impl::pause(std::chrono::milliseconds delay) {
    pollfd p{wake.get(), POLLIN, 0};
    const auto until = std::chrono::steady_clock::now() + delay;
    while (!stopping) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        if (left.count() <= 0) return true;
        ::poll(&p, 1, int(std::min<long long>(left.count(), 1000)));
    }
    return false;
}

Camera::Camera(const std::string& node) : Camera(node, CameraOptions()) {}

Camera::Camera(const std::string& node, const CameraOptions& options)
    : impl_(std::make_unique<Impl>(node, options)) {}

Camera::~Camera() = default;

// The next frame nobody has had yet, oldest first; nothing after a timeout, while the camera is
// gone or once it is closed.
std::optional<Frame> Camera::grab(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(impl_->mutex);
    impl_->ready.wait_for(lock, timeout, [this] {
        return !impl_->queue.empty() || impl_->state == CameraState::closed;
    });
    if (impl_->queue.empty()) return std::nullopt;
    return impl_->queue.pop();
}

CameraState Camera::state() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->state;
}

CameraStats Camera::stats() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->stats;
}

const std::string& Camera::node() const { return impl_->node; }

const Calibration* Camera::calibration() const { return impl_->calibration.get(); }

void Camera::close() { impl_->stop(); }

}  // namespace orvo
