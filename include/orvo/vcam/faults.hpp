// The fault plan of ORVO_VCAM_FAULTS: which call of which target fails, and how.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvo {
namespace vcam {

enum class FaultTarget { Request, AnyIoctl, Open, Close, Caps, Meminfo, Bytesused, Unplug };

enum class FaultAction {
    Errno,        // the call fails with `error`
    Grant,        // REQBUFS grants `grant` buffers
    NoCapture,    // QUERYCAP drops V4L2_CAP_VIDEO_CAPTURE
    NoStreaming,  // QUERYCAP drops V4L2_CAP_STREAMING
    NoMemfree,    // /proc/meminfo lacks its "MemFree:" line
    Unreadable,   // fopen of /proc/meminfo fails with EACCES
    ZeroBytes,    // a dequeued buffer reports 0 bytes used
    BadOffset,    // QUERYBUF reports an m.offset that is not page aligned
    Unplug,       // the N-th DQBUF finds the camera unplugged; it is back after `away_ns` or `away_frames`
};

struct Fault {
    std::string text;  // the entry as written
    FaultTarget target = FaultTarget::Request;
    size_t request_slot = 0;  // for FaultTarget::Request
    uint64_t from = 1;        // first call hit, 1-based
    uint64_t calls = 0;       // number of calls hit; 0 = every call from `from` on
    FaultAction action = FaultAction::Errno;
    int error = 0;
    uint32_t grant = 0;
    int64_t away_ns = 0;      // Unplug: how long the node is gone, in time...
    uint64_t away_frames = 0;  // ...or in frame periods of the stream's rate

    bool hits(uint64_t call) const { return call >= from && (calls == 0 || call - from < calls); }
};

class FaultPlan {
public:
    // Parses a comma-separated list; each malformed entry is skipped and described by one line
    // appended to *complaints.
    static FaultPlan parse(const std::string& text, std::string* complaints);

    // The errno the call-th call of the target fails with, or 0.
    int errorFor(FaultTarget target, size_t request_slot, uint64_t call) const;
    // The first entry with this action that hits the call-th call of its target, or null.
    const Fault* find(FaultAction action, uint64_t call) const;

    const std::vector<Fault>& entries() const { return faults_; }

private:
    std::vector<Fault> faults_;
};

// errno value of a name such as "EIO", or 0 when the name is not known.
int errnoFromName(const std::string& name);
const char* errnoName(int error);

}  // namespace vcam
}  // namespace orvo
