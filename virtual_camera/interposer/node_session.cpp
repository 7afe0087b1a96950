// The node's sessions: configuration from the environment, the registry of open descriptors,
// the debug log and the statistics.
#include "node_session.h"

#include <sys/mman.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "real_calls.h"

namespace orvo {
namespace vcam {
namespace node {

// Never destroyed: descriptors may still be closed while the process exits.
Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

std::atomic<int> g_open_files{0};

thread_local int t_inside = 0;

void say(const char* format, ...) {
    char text[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    std::fprintf(stderr, "orvo-vcam: %s\n", text);
}

namespace {

const char* envOr(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v ? v : fallback;
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

}  // namespace

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
