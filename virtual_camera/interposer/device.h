// The emulated capture device of one session: format, frame interval, buffer queue and pacing.
#pragma once

#include <linux/videodev2.h>
#include <sys/types.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <orvo/vcam/faults.hpp>
#include <orvo/vcam/frame_source.hpp>
#include <orvo/vcam/statistics.hpp>

#include "registry_lock.h"
#include "truth_writer.h"

namespace orvo {
namespace vcam {

// One open file description of the node.
struct OpenFile {
    uint64_t id = 0;
    int fd = -1;
};

// Readiness of the node for poll/select.
enum class Readiness { Ready, NotYet, Error };

// The calls of a session, counted for the faults.
struct CallCounts {
    uint64_t ioctl = 0, open = 0, close = 0, meminfo = 0, dequeues = 0;
    std::vector<uint64_t> requests;  // by request slot
};

// What a session started by a replug takes over from the one unplugged: its call counts, so that
// each fault still hits its calls once in the node's life, and its timeline, so that sequence
// numbers and the source's frames go on from where they were.
struct Carry {
    CallCounts calls;
    uint64_t next_index = 0;     // the source's frame index the unplugged stream had reached
    uint64_t next_sequence = 0;  // and its sequence number
    double rate = 30;            // frames per second of that timeline
};

class Device {
public:
    // fps < 0: pace at the S_PARM rate; 0: free-running; > 0: pace at fps. Without driver
    // timestamps, buffers carry none and no V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC.
    Device(double fps, std::unique_ptr<FrameSource> source, FaultPlan faults, TruthWriter truth,
           std::condition_variable& wake, bool driver_timestamps = true);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Takes note of the memory (a memfd) that backs every descriptor of the node; the device keeps
    // no descriptor of its own.
    bool init(int memfd, std::string* error);
    bool backs(int fd) const;  // fd is an open file of this device's memory

    // Handles one request of a file; returns 0 or a negative errno. A blocking dequeue waits on
    // the wake condition with the lock released.
    int request(const OpenFile& file, unsigned long code, void* arg, RegistryLock& lock);

    // Unplugged by its fault: every request answers ENODEV from then on and poll reports POLLERR.
    // The fault that did it, or null.
    const Fault* unplugged() const { return unplugged_; }
    // Where the timeline stood when it was unplugged, for the session that the replug starts.
    const Carry& carry() const { return carried_; }
    // Continues the carried timeline, `skipped` frames on (those that fell due while unplugged).
    void resume(const Carry& from, uint64_t skipped);

    int countOpen();    // the errno this open of the node fails with, or 0
    int countClose();   // the errno this close reports, or 0
    int countMeminfo(bool* hide_memfree);  // the errno fopen fails with, or 0
    void opened(uint64_t file_id);         // a new open file of the node
    void release(uint64_t file_id);        // the file was closed

    Readiness readiness();
    // Monotonic time in ns at which readiness may change without any request, or -1 for never.
    int64_t nextChangeNs() const;

    Statistics stats() const;

private:
    struct Buffer {
        enum class State { Dequeued, Queued, Done };
        State state = State::Dequeued;
        uint32_t offset = 0;  // the m.offset cookie: where the buffer lies in the memfd
        uint32_t bytesused = 0;
        uint32_t sequence = 0;
        int64_t timestamp_ns = 0;
        bool mapped = false;  // a client mapping was seen at the last look
        FrameTruth truth;
    };

    // First-in first-out list of buffer indices.
    class IndexFifo {
    public:
        void clear() { head_ = size_ = 0; }
        bool empty() const { return size_ == 0; }
        void push(uint32_t i) { slots_[(head_ + size_++) % slots_.size()] = i; }
        uint32_t pop() {
            uint32_t i = slots_[head_];
            head_ = (head_ + 1) % slots_.size();
            --size_;
            return i;
        }

    private:
        std::array<uint32_t, VIDEO_MAX_FRAME> slots_{};
        size_t head_ = 0, size_ = 0;
    };

    // Format requests (device_format.cpp).
    int querycap(v4l2_capability& cap, uint64_t call);
    int cropcap(v4l2_cropcap& cc);
    int crop(v4l2_crop& c, bool set);
    int selection(v4l2_selection& s, bool set);
    int setFormat(const OpenFile& file, v4l2_format& f);
    int getFormat(v4l2_format& f, bool try_only);
    int enumFormat(v4l2_fmtdesc& d);
    int enumFrameSizes(v4l2_frmsizeenum& e);
    int enumFrameIntervals(v4l2_frmivalenum& e);
    int getParm(v4l2_streamparm& p);
    int setParm(const OpenFile& file, v4l2_streamparm& p);

    // Inputs, controls, priorities and status (device_controls.cpp).
    int enumInput(v4l2_input& in);
    int getInput(int& input);
    int setInput(const OpenFile& file, int input);
    int control(unsigned long code);
    int getPriority(uint32_t& priority) const;
    int setPriority(const OpenFile& file, uint32_t priority);
    bool outranked(const OpenFile& file) const;  // another file holds a higher priority
    int logStatus() const;

    // Buffers (device_buffers.cpp).
    int reqbufs(const OpenFile& file, v4l2_requestbuffers& rb, uint64_t call);
    int querybuf(v4l2_buffer& b, uint64_t call);
    int allocate(uint32_t count, int via_fd);
    void freeBuffers(int release_via_fd);
    void refreshMapped();
    void describe(uint32_t i, v4l2_buffer& b) const;

    // Streaming and pacing (device_streaming.cpp).
    int qbuf(const OpenFile& file, v4l2_buffer& b);
    int dqbuf(const OpenFile& file, v4l2_buffer& b, RegistryLock& lock);
    int unplug(const Fault& fault);
    int streamon(const OpenFile& file, int type);
    int streamoff(const OpenFile& file, int type);
    void start();
    void stop();
    bool freeRunning() const { return fps_ == 0; }
    int64_t dueNs(uint64_t k) const;
    void advance(int64_t now_ns);
    void skipDueFrames(int64_t now_ns);
    void fill(uint32_t i, uint64_t index, uint32_t sequence, int64_t timestamp_ns);
    void serve(uint32_t i, v4l2_buffer& b);

    bool busy(const OpenFile& file) const { return owner_ != 0 && owner_ != file.id; }
    void claim(const OpenFile& file) {
        if (owner_ == 0) owner_ = file.id;
    }

    double fps_;
    std::unique_ptr<FrameSource> source_;
    FaultPlan faults_;
    TruthWriter truth_;
    std::condition_variable& wake_;
    bool driver_timestamps_;
    const Fault* unplugged_ = nullptr;
    Carry carried_;

    dev_t memfd_dev_ = 0;
    ino_t memfd_ino_ = 0;
    uint64_t memfd_size_ = 0;
    uint64_t next_offset_ = 0;
    uint8_t* region_ = nullptr;  // our own read-write mapping of the current buffers
    uint32_t region_offset_ = 0;
    size_t region_length_ = 0;

    std::vector<Buffer> buffers_;
    IndexFifo queued_, done_;
    uint64_t owner_ = 0;
    std::map<uint64_t, uint32_t> priorities_;  // of every open file
    v4l2_fract interval_{1, 30};

    bool streaming_ = false;
    int64_t stream_start_ns_ = 0;
    double period_ns_ = 0;   // paced: time between frames
    double stream_rate_ = 30;  // frames per second of the source's timeline
    uint64_t next_k_ = 0;      // frames of this stream whose time has been dealt with
    uint64_t index_base_ = 0;  // source index of this stream's first frame (paced), or of the session's (free-running)
    uint64_t sequence_base_ = 0;  // sequence number of each stream's first frame: 0 unless replugged

    CallCounts calls_;
    uint64_t served_ = 0, dropped_ = 0;
};

int64_t monotonicNs();

// A new open file description of the memory behind fd, with open flags of its own.
int reopenDescriptor(int fd, int flags);

}  // namespace vcam
}  // namespace orvo
