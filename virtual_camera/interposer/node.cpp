// The node's descriptors and sessions: configuration from the environment, the open/close/ioctl
// paths, the /proc/meminfo faults, the debug log and the statistics.
#include "node.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <orvo/vcam/statistics.hpp>

#include "device.h"
#include "real_calls.h"
#include "requests.h"

namespace orvo {
namespace vcam {
namespace node {
namespace {

struct Registry {
    std::mutex mutex;
    std::condition_variable wake;
    std::shared_ptr<Device> device;  // the session; null while no descriptor of the node is open
    std::unordered_map<int, OpenFile> files;
    uint64_t next_file_id = 1;
    uint64_t sessions = 0;
    Statistics last;  // what the last session served
    bool log = false;
};

// Never destroyed: descriptors may still be closed while the process exits.
Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

// Lets calls on other descriptors through without taking the lock.
std::atomic<int> g_open_files{0};

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    char text[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    std::fprintf(stderr, "orvo-vcam: %s\n", text);
}

const char* envOr(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v ? v : fallback;
}

bool isNode(int dirfd, const char* path) {
    const char* node = std::getenv("ORVO_VCAM_DEVICE");
    if (!node || !*node || !path) return false;
    if (path[0] != '/' && dirfd != AT_FDCWD) return false;
    return std::strcmp(path, node) == 0;
}

// ORVO_VCAM_FPS: unset or empty follows S_PARM (-1), otherwise a number >= 0.
bool readFps(double* fps, std::string* error) {
    const char* text = envOr("ORVO_VCAM_FPS", "");
    *fps = -1;
    if (!*text) return true;
    char* end = nullptr;
    double v = std::strtod(text, &end);
    if (end == text || *end || !std::isfinite(v) || v < 0) {
        *error = std::string("ORVO_VCAM_FPS: '") + text + "' is not a frame rate (a number >= 0; 0 = free-running)";
        return false;
    }
    *fps = v;
    return true;
}

// Reads the environment and builds the session's device and its memory (*memfd); false with a
// message on a bad setting.
bool startSession(Registry& reg, int* memfd, std::string* error) {
    const char* log = envOr("ORVO_VCAM_LOG", "");
    reg.log = *log && std::strcmp(log, "0") != 0;
    double fps;
    if (!readFps(&fps, error)) return false;
    std::string source_spec = envOr("ORVO_VCAM_SOURCE", "");
    std::unique_ptr<FrameSource> source = makeFrameSource(source_spec, error);
    if (!source) {
        *error = "ORVO_VCAM_SOURCE: " + *error;
        return false;
    }
    TruthWriter truth;
    const char* truth_path = envOr("ORVO_VCAM_TRUTH", "");
    if (*truth_path && !truth.open(truth_path, error)) return false;
    std::string complaints;
    FaultPlan faults = FaultPlan::parse(envOr("ORVO_VCAM_FAULTS", ""), &complaints);
    if (!complaints.empty()) std::fputs(complaints.c_str(), stderr);
    auto device = std::make_shared<Device>(fps, std::move(source), std::move(faults), std::move(truth), reg.wake);
    *memfd = memfd_create("orvo-vcam", MFD_CLOEXEC);
    if (*memfd < 0) {
        *error = std::string("cannot create the buffer memory: ") + std::strerror(errno);
        return false;
    }
    if (!device->init(*memfd, error)) {
        real::close(*memfd);
        return false;
    }
    reg.device = std::move(device);
    ++reg.sessions;
    if (reg.log)
        say("session %llu: source %s, %s", static_cast<unsigned long long>(reg.sessions),
            source_spec.empty() ? "pattern" : source_spec.c_str(),
            fps < 0 ? "paced at the S_PARM rate" : fps == 0 ? "free-running" : "paced at ORVO_VCAM_FPS");
    return true;
}

void endSession(Registry& reg) {
    reg.last = reg.device->stats();
    reg.last.streaming = false;
    reg.device.reset();
    reg.wake.notify_all();
}

// The registered file of a descriptor, dropping the entry when the descriptor no longer refers
// to the node's memory (it was closed behind our back and its number reused).
OpenFile* findFile(Registry& reg, int fd) {
    auto it = reg.files.find(fd);
    if (it == reg.files.end()) return nullptr;
    if (reg.device && reg.device->backs(fd)) return &it->second;
    reg.files.erase(it);
    g_open_files.fetch_sub(1);
    if (reg.files.empty() && reg.device) endSession(reg);
    return nullptr;
}

// One log line; fd < 0 for calls that are not about one descriptor (a failed open, poll, select).
// The first registered descriptor still open on the node; stale entries are dropped on the way.
int anyDescriptor(Registry& reg) {
    while (!reg.files.empty()) {
        int fd = reg.files.begin()->first;
        if (findFile(reg, fd)) return fd;
    }
    return -1;
}

void logResult(const Registry& reg, int fd, const char* what, int result, int error) {
    if (!reg.log) return;
    char who[24] = "";
    if (fd >= 0) std::snprintf(who, sizeof who, "fd %d ", fd);
    if (result < 0) say("%s%s -> -1 %s", who, what, errnoName(error));
    else say("%s%s -> %d", who, what, result);
}

// A copy of /proc/meminfo without its "MemFree:" line, as a stream read from memory.
FILE* meminfoWithoutMemFree() {
    FILE* in = real::fopen("/proc/meminfo", "r");
    if (!in) return nullptr;
    int fd = memfd_create("orvo-vcam-meminfo", MFD_CLOEXEC);
    if (fd < 0) {
        std::fclose(in);
        return nullptr;
    }
    char line[512];
    while (std::fgets(line, sizeof line, in))
        if (std::strncmp(line, "MemFree:", 8) != 0 && write(fd, line, std::strlen(line)) < 0) break;
    std::fclose(in);
    lseek(fd, 0, SEEK_SET);
    FILE* out = fdopen(fd, "r");
    if (!out) real::close(fd);
    return out;
}

// What poll reports for a node descriptor: readable once a dequeue would succeed, an error while
// the queue is not streaming (there is nothing to wait for), as videobuf2 does.
short nodeEvents(Device& device, short events) {
    switch (device.readiness()) {
    case Readiness::Ready: return short(events & (POLLIN | POLLRDNORM));
    case Readiness::Error: return POLLERR;
    default: return 0;
    }
}

bool anyNode(Registry& reg, const pollfd* fds, nfds_t n) {
    for (nfds_t i = 0; i < n; ++i)
        if (fds[i].fd >= 0 && findFile(reg, fds[i].fd)) return true;
    return false;
}

constexpr int64_t kOtherSliceNs = 10000000;  // how often other descriptors are looked at meanwhile

int msUntil(int64_t when_ns, int64_t now_ns) {
    if (when_ns <= now_ns) return 0;
    return int((when_ns - now_ns + 999999) / 1000000);
}

// poll over node descriptors and others: the node's readiness comes from its device, the others'
// from the kernel, looked at in short slices while the node has nothing. deadline_ns < 0 waits
// for ever. Called with the lock held; returns poll's result (errno set on failure).
int pollMixed(Registry& reg, std::unique_lock<std::mutex>& lock, pollfd* fds, nfds_t n, int64_t deadline_ns) {
    std::vector<pollfd> others(fds, fds + n);
    for (;;) {
        std::shared_ptr<Device> device = reg.device;
        int ready = 0;
        bool any_other = false;
        for (nfds_t i = 0; i < n; ++i) {
            fds[i].revents = 0;
            others[i].fd = fds[i].fd;
            if (fds[i].fd < 0) continue;
            if (device && findFile(reg, fds[i].fd)) {
                fds[i].revents = nodeEvents(*device, fds[i].events);
                ready += fds[i].revents != 0;
                others[i].fd = -1;
            } else {
                any_other = true;
            }
        }
        int64_t now = monotonicNs();
        int64_t wake = deadline_ns;
        int64_t change = device ? device->nextChangeNs() : -1;
        if (change >= 0 && (wake < 0 || change < wake)) wake = change;
        if (any_other) {
            int64_t slice_end = now + kOtherSliceNs;
            int slice = ready ? 0 : msUntil(wake >= 0 && wake < slice_end ? wake : slice_end, now);
            lock.unlock();
            int r = real::poll(others.data(), n, slice);
            int error = errno;
            lock.lock();
            if (r < 0) {
                errno = error;
                return -1;
            }
            for (nfds_t i = 0; i < n; ++i)
                if (others[i].fd >= 0) fds[i].revents = others[i].revents;
            ready += r;
        } else if (!ready) {
            if (wake < 0) reg.wake.wait(lock);
            else reg.wake.wait_until(lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(wake)));
        }
        if (ready) return ready;
        if (deadline_ns >= 0 && monotonicNs() >= deadline_ns) return 0;
    }
}

}  // namespace

// Set while this thread works inside the virtual camera under its lock (rendering a frame, loading
// a scene). Whatever that work calls through the interposed entry points (OpenCV reading
// /proc/meminfo when its thread pool starts, closing its own files) is not the client's and goes
// straight to the C library, so it neither takes the lock again nor counts against the faults.
thread_local int t_inside = 0;

struct Inside {
    Inside() { ++t_inside; }
    ~Inside() { --t_inside; }
};

// Each open gets a new open file description of the session's memory, with its own flags, and
// only that one descriptor: the first takes over the number of the memfd it was opened from, so
// that the node, like a real one, gets the lowest free descriptor and costs exactly one.
bool interceptOpen(int dirfd, const char* path, int flags, int* result) {
    if (t_inside || !isNode(dirfd, path)) return false;
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    Inside inside;
    int anchor = anyDescriptor(reg), fresh = -1;
    if (!reg.device) {
        std::string error;
        if (!startSession(reg, &fresh, &error)) {
            say("cannot open %s: %s", path, error.c_str());
            errno = EINVAL;
            *result = -1;
            return true;
        }
        anchor = fresh;
    }
    int error = reg.device->countOpen();
    int fd = -1;
    if (!error) {
        fd = reopenDescriptor(anchor, flags & (O_ACCMODE | O_NONBLOCK | O_CLOEXEC));
        if (fd < 0) error = errno;
    }
    if (fd >= 0 && fresh >= 0) {
        if (dup3(fd, fresh, flags & O_CLOEXEC) < 0) error = errno;
        real::close(fd);
        fd = error ? -1 : fresh;
        if (!error) fresh = -1;
    }
    if (fresh >= 0) real::close(fresh);
    if (error) {
        if (reg.files.empty()) endSession(reg);
        logResult(reg, -1, "open", -1, error);
        errno = error;
        *result = -1;
        return true;
    }
    reg.files[fd] = OpenFile{reg.next_file_id++, fd};
    g_open_files.fetch_add(1);
    logResult(reg, fd, (flags & O_NONBLOCK) ? "open (non-blocking)" : "open", fd, 0);
    *result = fd;
    return true;
}

// Closing the node always closes the descriptor, even when an injected failure is reported.
bool interceptClose(int fd, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    Inside inside;
    OpenFile* file = findFile(reg, fd);
    if (!file) return false;
    int injected = reg.device->countClose();
    reg.device->release(file->id);
    reg.files.erase(fd);
    g_open_files.fetch_sub(1);
    int r = real::close(fd);
    int error = errno;
    if (reg.files.empty()) endSession(reg);
    if (injected) {
        r = -1;
        error = injected;
    }
    logResult(reg, fd, "close", r, error);
    errno = error;
    *result = r;
    return true;
}

bool interceptIoctl(int fd, unsigned long request, void* arg, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    std::unique_lock<std::mutex> lock(reg.mutex);
    Inside inside;
    OpenFile* found = findFile(reg, fd);
    if (!found) return false;
    OpenFile file = *found;
    std::shared_ptr<Device> device = reg.device;  // a waiting dequeue may outlive the session
    int r = device->request(file, request, arg, lock);
    if (reg.log) logResult(reg, fd, describeRequest(request).c_str(), r < 0 ? -1 : r, -r);
    if (r < 0) {
        errno = -r;
        *result = -1;
    } else {
        *result = r;
    }
    return true;
}

// The meminfo faults apply while a descriptor of the node is open.
bool interceptFopen(const char* path, FILE** result) {
    if (t_inside || !path || std::strcmp(path, "/proc/meminfo") != 0 || g_open_files.load() == 0)
        return false;
    Registry& reg = registry();
    bool hide = false;
    int error = 0;
    {
        std::lock_guard<std::mutex> lock(reg.mutex);
        if (!reg.device) return false;
        error = reg.device->countMeminfo(&hide);
    }
    if (error) {
        errno = error;
        *result = nullptr;
        return true;
    }
    if (!hide) return false;
    *result = meminfoWithoutMemFree();
    return true;
}

bool interceptPoll(struct pollfd* fds, nfds_t nfds, int timeout_ms, int* result) {
    if (t_inside || g_open_files.load() == 0 || !fds) return false;
    Registry& reg = registry();
    std::unique_lock<std::mutex> lock(reg.mutex);
    if (!anyNode(reg, fds, nfds)) return false;
    int64_t deadline = timeout_ms < 0 ? -1 : monotonicNs() + int64_t(timeout_ms) * 1000000;
    *result = pollMixed(reg, lock, fds, nfds, deadline);
    if (reg.log) logResult(reg, -1, "poll", *result, errno);
    return true;
}

// select through poll: POLLERR counts as readable and writable, as the kernel's select has it.
bool interceptSelect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout,
                     int* result) {
    if (t_inside || g_open_files.load() == 0 || nfds <= 0) return false;
    if (nfds > FD_SETSIZE) nfds = FD_SETSIZE;
    std::vector<pollfd> fds;
    for (int fd = 0; fd < nfds; ++fd) {
        short events = 0;
        if (readfds && FD_ISSET(fd, readfds)) events |= POLLIN;
        if (writefds && FD_ISSET(fd, writefds)) events |= POLLOUT;
        if (exceptfds && FD_ISSET(fd, exceptfds)) events |= POLLPRI;
        if (events) fds.push_back(pollfd{fd, events, 0});
    }
    Registry& reg = registry();
    std::unique_lock<std::mutex> lock(reg.mutex);
    if (!anyNode(reg, fds.data(), fds.size())) return false;
    int64_t start = monotonicNs();
    int64_t deadline = timeout ? start + int64_t(timeout->tv_sec) * 1000000000 + int64_t(timeout->tv_usec) * 1000 : -1;
    int r = pollMixed(reg, lock, fds.data(), fds.size(), deadline);
    int error = errno;
    if (r > 0) {
        r = 0;
        for (const pollfd& p : fds) {
            if (p.revents & POLLNVAL) {
                r = -1;
                error = EBADF;
                break;
            }
        }
    }
    if (r >= 0) {
        if (readfds) FD_ZERO(readfds);
        if (writefds) FD_ZERO(writefds);
        if (exceptfds) FD_ZERO(exceptfds);
        for (const pollfd& p : fds) {
            if ((p.events & POLLIN) && (p.revents & (POLLIN | POLLRDNORM | POLLHUP | POLLERR))) FD_SET(p.fd, readfds), ++r;
            if ((p.events & POLLOUT) && (p.revents & (POLLOUT | POLLWRNORM | POLLERR))) FD_SET(p.fd, writefds), ++r;
            if ((p.events & POLLPRI) && (p.revents & POLLPRI)) FD_SET(p.fd, exceptfds), ++r;
        }
        if (timeout) {
            int64_t left = deadline - monotonicNs();
            if (left < 0) left = 0;
            timeout->tv_sec = time_t(left / 1000000000);
            timeout->tv_usec = suseconds_t(left % 1000000000 / 1000);
        }
    }
    if (reg.log) logResult(reg, -1, "select", r, error);
    errno = error;
    *result = r;
    return true;
}

}  // namespace node

Statistics statistics() {
    node::Registry& reg = node::registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    Statistics s = reg.device ? reg.device->stats() : reg.last;
    s.sessions = reg.sessions;
    s.active = reg.device != nullptr;
    s.open_descriptors = uint32_t(reg.files.size());
    return s;
}

}  // namespace vcam
}  // namespace orvo
