// Parser and lookups of the fault grammar TARGET[@N]=ACTION[:K].
#include <orvo/vcam/faults.hpp>

#include <cerrno>
#include <cstring>

#include "requests.h"

namespace orvo {
namespace vcam {
namespace {

struct ErrnoEntry {
    const char* name;
    int value;
};

#define ORVO_E(name) {#name, name}
const ErrnoEntry kErrnos[] = {
    ORVO_E(EPERM),     ORVO_E(ENOENT),    ORVO_E(ESRCH),     ORVO_E(EINTR),     ORVO_E(EIO),
    ORVO_E(ENXIO),     ORVO_E(E2BIG),     ORVO_E(EBADF),     ORVO_E(EAGAIN),    ORVO_E(EWOULDBLOCK),
    ORVO_E(ENOMEM),    ORVO_E(EACCES),    ORVO_E(EFAULT),    ORVO_E(EBUSY),     ORVO_E(EEXIST),
    ORVO_E(ENODEV),    ORVO_E(ENOTDIR),   ORVO_E(EISDIR),    ORVO_E(EINVAL),    ORVO_E(ENFILE),
    ORVO_E(EMFILE),    ORVO_E(ENOTTY),    ORVO_E(EFBIG),     ORVO_E(ENOSPC),    ORVO_E(EROFS),
    ORVO_E(EPIPE),     ORVO_E(ERANGE),    ORVO_E(EDEADLK),   ORVO_E(ENOSYS),    ORVO_E(ENODATA),
    ORVO_E(ETIME),     ORVO_E(ENOLINK),   ORVO_E(EPROTO),    ORVO_E(EOVERFLOW), ORVO_E(EOPNOTSUPP),
    ORVO_E(ENOTSUP),   ORVO_E(ENOBUFS),   ORVO_E(ESHUTDOWN), ORVO_E(ETIMEDOUT), ORVO_E(ECONNRESET),
    ORVO_E(ECANCELED), ORVO_E(EREMOTEIO), ORVO_E(ENOMEDIUM), ORVO_E(ENOSR),     ORVO_E(ESTALE),
};
#undef ORVO_E

constexpr uint32_t kMaxGrant = 32;  // VIDEO_MAX_FRAME

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\n");
    return s.substr(b, e - b + 1);
}

// Strict decimal, no sign, no trailing characters, at most 18 digits.
bool parseCount(const std::string& text, uint64_t* value) {
    if (text.empty() || text.size() > 18) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + uint64_t(c - '0');
    }
    *value = v;
    return true;
}

bool resolveTarget(const std::string& name, Fault* f) {
    if (name == "ioctl") f->target = FaultTarget::AnyIoctl;
    else if (name == "open") f->target = FaultTarget::Open;
    else if (name == "close") f->target = FaultTarget::Close;
    else if (name == "caps") f->target = FaultTarget::Caps;
    else if (name == "meminfo") f->target = FaultTarget::Meminfo;
    else if (name == "bytesused") f->target = FaultTarget::Bytesused;
    else if (name == "unplug") f->target = FaultTarget::Unplug;
    else {
        const RequestName* r = findRequest(name);
        if (!r || !r->emulated) return false;
        f->target = FaultTarget::Request;
        f->request_slot = requestSlot(r);
    }
    return true;
}

// How long an unplugged node stays away: "2s", "500ms" or "30f" (frame periods).
bool parseAway(const std::string& text, Fault* f) {
    uint64_t n = 0;
    size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string::npos || !parseCount(text.substr(0, digits), &n)) return false;
    const std::string unit = text.substr(digits);
    if (unit == "f") f->away_frames = n;
    else if (unit == "ms" && n <= 1000000000) f->away_ns = int64_t(n) * 1000000;
    else if (unit == "s" && n <= 1000000) f->away_ns = int64_t(n) * 1000000000;
    else return false;
    return true;
}

// Which actions each target accepts besides (where allowed) an errno name.
bool resolveAction(const std::string& target, const std::string& action, Fault* f) {
    switch (f->target) {
    case FaultTarget::Unplug:
        f->action = FaultAction::Unplug;
        return parseAway(action, f);
    case FaultTarget::Caps:
        if (action == "no-capture") f->action = FaultAction::NoCapture;
        else if (action == "no-streaming") f->action = FaultAction::NoStreaming;
        else return false;
        return true;
    case FaultTarget::Bytesused:
        if (action != "0") return false;
        f->action = FaultAction::ZeroBytes;
        return true;
    case FaultTarget::Meminfo:
        if (action == "no-memfree") { f->action = FaultAction::NoMemfree; return true; }
        if (action == "unreadable") { f->action = FaultAction::Unreadable; return true; }
        break;
    case FaultTarget::Request:
        if (action == "grant" && target == "REQBUFS") { f->action = FaultAction::Grant; return true; }
        if (action == "bad-offset" && target == "QUERYBUF") {
            f->action = FaultAction::BadOffset;
            return true;
        }
        break;
    default:
        break;
    }
    f->error = errnoFromName(action);
    f->action = FaultAction::Errno;
    return f->error != 0;
}

// Parses one entry; on failure returns the reason. "UNPLUG@N+T" is another spelling of
// "unplug@N=T".
std::string parseEntry(std::string entry, Fault* f) {
    f->text = entry;
    const size_t plus = entry.find('+');
    if (entry.compare(0, 6, "UNPLUG") == 0 && plus != std::string::npos && entry.find('=') == std::string::npos)
        entry = "unplug" + entry.substr(6, plus - 6) + "=" + entry.substr(plus + 1);
    size_t eq = entry.find('=');
    if (eq == std::string::npos) return "expected TARGET[@N]=ACTION[:K]";
    std::string target = entry.substr(0, eq), action = entry.substr(eq + 1);
    size_t at = target.find('@');
    if (at != std::string::npos) {
        std::string n = target.substr(at + 1);
        target.resize(at);
        if (!parseCount(n, &f->from) || f->from == 0)
            return "bad call number '@" + n + "' (expected @N with N >= 1)";
    }
    if (!resolveTarget(target, f)) return "unknown target '" + target + "'";
    std::string count;
    bool has_count = false;
    size_t colon = action.find(':');
    if (colon != std::string::npos) {
        count = action.substr(colon + 1);
        action.resize(colon);
        has_count = true;
    }
    if (!resolveAction(target, action, f))
        return f->target == FaultTarget::Unplug
                   ? "unplug needs the time away, '" + action + "' is none (Ns, Nms or N frames as Nf)"
                   : "unknown action '" + action + "' for target '" + target + "'";
    uint64_t k = 0;
    if (f->action == FaultAction::Unplug) {
        if (has_count) return "unplug happens once, at dequeue N: no ':K' (unplug@N=T)";
        f->calls = 1;
        return "";
    }
    if (f->action == FaultAction::Grant) {
        if (!has_count || !parseCount(count, &k) || k > kMaxGrant)
            return "grant needs a buffer count from 0 to 32 (REQBUFS=grant:K)";
        f->grant = uint32_t(k);
        return "";
    }
    if (has_count) {
        if (!parseCount(count, &k) || k == 0) return "bad count ':" + count + "' (expected :K with K >= 1)";
        f->calls = k;
    }
    return "";
}

}  // namespace

// Entries are separated by commas; blanks around an entry and empty entries are allowed.
FaultPlan FaultPlan::parse(const std::string& text, std::string* complaints) {
    FaultPlan plan;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(',', start);
        if (end == std::string::npos) end = text.size();
        std::string entry = trim(text.substr(start, end - start));
        start = end + 1;
        if (entry.empty()) continue;
        Fault f;
        std::string why = parseEntry(entry, &f);
        if (why.empty()) plan.faults_.push_back(f);
        else if (complaints)
            *complaints += "orvo-vcam: ORVO_VCAM_FAULTS: ignoring '" + entry + "': " + why + "\n";
    }
    return plan;
}

int FaultPlan::errorFor(FaultTarget target, size_t request_slot, uint64_t call) const {
    for (const Fault& f : faults_) {
        if (f.action != FaultAction::Errno || f.target != target) continue;
        if (target == FaultTarget::Request && f.request_slot != request_slot) continue;
        if (f.hits(call)) return f.error;
    }
    return 0;
}

const Fault* FaultPlan::find(FaultAction action, uint64_t call) const {
    for (const Fault& f : faults_)
        if (f.action == action && f.hits(call)) return &f;
    return nullptr;
}

int errnoFromName(const std::string& name) {
    for (const ErrnoEntry& e : kErrnos)
        if (name == e.name) return e.value;
    return 0;
}

// The first name of an errno value in the table ("EAGAIN" rather than "EWOULDBLOCK").
const char* errnoName(int error) {
    for (const ErrnoEntry& e : kErrnos)
        if (e.value == error) return e.name;
    return "E?";
}

}  // namespace vcam
}  // namespace orvo
