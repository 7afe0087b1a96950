// The nodes' sessions: configuration from the environment, the registry of open descriptors,
// unplug and replug, the debug log and the statistics.
#include "node_session.h"

#include <sys/mman.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "real_calls.h"
#include "requests.h"

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

std::vector<std::string> listedNodes() {
    std::vector<std::string> nodes;
    const char* list = std::getenv("ORVO_VCAM_DEVICE");
    if (!list) return nodes;
    for (const char* p = list;; ++p) {
        const char* comma = std::strchr(p, ',');
        std::string one = comma ? std::string(p, comma) : std::string(p);
        if (!one.empty()) nodes.push_back(one);
        if (!comma) break;
        p = comma;
    }
    return nodes;
}

namespace {

// A node's setting: NAME_I for the node at position I when set, otherwise NAME.
struct Setting {
    std::string name;
    const char* value = "";
};

Setting setting(const char* name, int index) {
    Setting s;
    s.name = std::string(name) + "_" + std::to_string(index);
    if (const char* v = std::getenv(s.name.c_str())) {
        s.value = v;
        return s;
    }
    s.name = name;
    if (const char* v = std::getenv(name)) s.value = v;
    return s;
}

// ORVO_VCAM_FPS: unset or empty follows S_PARM (-1), otherwise a number >= 0.
bool readFps(const Setting& text, double* fps, std::string* error) {
    *fps = -1;
    if (!*text.value) return true;
    char* end = nullptr;
    double v = std::strtod(text.value, &end);
    if (end == text.value || *end || !std::isfinite(v) || v < 0) {
        *error = text.name + ": '" + text.value + "' is not a frame rate (a number >= 0; 0 = free-running)";
        return false;
    }
    *fps = v;
    return true;
}

// ORVO_VCAM_TICK_OFFSET: unset or empty is 0, otherwise a tick count below 2^32.
bool readTickOffset(const Setting& text, uint32_t* ticks, std::string* error) {
    *ticks = 0;
    if (!*text.value) return true;
    uint64_t v = 0;
    const char* p = text.value;
    for (; *p >= '0' && *p <= '9' && v <= UINT32_MAX; ++p) v = v * 10 + uint64_t(*p - '0');
    if (*p || v > UINT32_MAX) {
        *error = text.name + ": '" + text.value + "' is not a tick count (0 to 4294967295)";
        return false;
    }
    *ticks = uint32_t(v);
    return true;
}

// ORVO_VCAM_TIMESTAMPS: unset, empty or "monotonic" stamps buffers; "none" leaves them unstamped.
bool readTimestamps(const Setting& text, bool* stamped, std::string* error) {
    *stamped = std::strcmp(text.value, "none") != 0;
    if (!*text.value || std::strcmp(text.value, "monotonic") == 0 || !*stamped) return true;
    *error = text.name + ": '" + text.value + "' is not a timestamp mode (monotonic or none)";
    return false;
}

}  // namespace

int nodeIndex(const char* path) {
    if (!path) return -1;
    const std::vector<std::string> nodes = listedNodes();
    for (size_t i = 0; i < nodes.size(); ++i)
        if (nodes[i] == path) return int(i);
    return -1;
}

Node& nodeFor(Registry& reg, const std::string& path) {
    std::unique_ptr<Node>& node = reg.nodes[path];
    if (!node) {
        node = std::make_unique<Node>();
        node->path = path;
    }
    return *node;
}

bool present(Node& node, int64_t now_ns) { return !node.replug || now_ns >= node.away_until_ns; }

bool startSession(Registry& reg, Node& node, int index, int* memfd, std::string* error) {
    const char* log = std::getenv("ORVO_VCAM_LOG");
    reg.log = log && *log && std::strcmp(log, "0") != 0;
    double fps = -1;
    uint32_t tick_offset = 0;
    bool stamped = true;
    if (!readFps(setting("ORVO_VCAM_FPS", index), &fps, error) ||
        !readTickOffset(setting("ORVO_VCAM_TICK_OFFSET", index), &tick_offset, error) ||
        !readTimestamps(setting("ORVO_VCAM_TIMESTAMPS", index), &stamped, error))
        return false;
    const Setting source_spec = setting("ORVO_VCAM_SOURCE", index);
    std::unique_ptr<FrameSource> source = makeFrameSource(source_spec.value, error);
    if (!source) {
        *error = source_spec.name + ": " + *error;
        return false;
    }
    if (tick_offset) source = withTickOffset(std::move(source), tick_offset);
    TruthWriter truth;
    const char* truth_path = setting("ORVO_VCAM_TRUTH", index).value;
    if (*truth_path && !truth.open(truth_path, error)) return false;
    std::string complaints;
    FaultPlan faults = FaultPlan::parse(setting("ORVO_VCAM_FAULTS", index).value, &complaints);
    if (!complaints.empty()) std::fputs(complaints.c_str(), stderr);
    auto device =
        std::make_shared<Device>(fps, std::move(source), std::move(faults), std::move(truth), reg.wake, stamped);
    *memfd = memfd_create("orvo-vcam", MFD_CLOEXEC);
    if (*memfd < 0) {
        *error = std::string("cannot create the buffer memory: ") + std::strerror(errno);
        return false;
    }
    if (!device->init(*memfd, error)) {
        real::close(*memfd);
        return false;
    }
    uint64_t skipped = 0;
    if (node.replug) {  // the frames that fell due while the camera was away are gone
        skipped = uint64_t(double(monotonicNs() - node.unplugged_ns) * 1e-9 * node.carry.rate);
        device->resume(node.carry, skipped);
        node.replug = false;
    }
    node.session = std::make_shared<Session>();
    node.session->device = std::move(device);
    node.session->node = &node;
    node.session->number = ++node.sessions;
    reg.last_opened = node.path;
    if (reg.log)
        say("%s session %llu: source %s, %s%s", node.path.c_str(), static_cast<unsigned long long>(node.sessions),
            *source_spec.value ? source_spec.value : "the default scene",
            fps < 0 ? "paced at the S_PARM rate" : fps == 0 ? "free-running" : "paced at ORVO_VCAM_FPS",
            node.sessions > 1 && skipped ? ", replugged" : "");
    return true;
}

void endSession(Registry& reg, Session& session) {
    Node& node = *session.node;
    if (node.session.get() == &session) {
        node.last = session.device->stats();
        node.last.streaming = false;
        node.session.reset();
    }
    reg.wake.notify_all();
}

void noteUnplug(Registry& reg, Session& session) {
    Node& node = *session.node;
    if (node.session.get() != &session) return;
    const Device& device = *session.device;
    const Fault& fault = *device.unplugged();
    node.last = device.stats();
    node.session.reset();
    node.replug = true;
    node.carry = device.carry();
    node.unplugged_ns = monotonicNs();
    const int64_t away = fault.away_frames ? int64_t(double(fault.away_frames) * 1e9 / node.carry.rate) : fault.away_ns;
    node.away_until_ns = node.unplugged_ns + away;
    reg.wake.notify_all();
    if (reg.log) say("%s unplugged (%s)", node.path.c_str(), fault.text.c_str());
}

void dropFile(Registry& reg, int fd) {
    auto it = reg.files.find(fd);
    if (it == reg.files.end()) return;
    const uint64_t id = it->second.file.id;
    std::shared_ptr<Session> session = std::move(it->second.session);
    reg.files.erase(it);
    g_open_files.fetch_sub(1);
    bool shared = false;
    for (const auto& f : reg.files) shared = shared || f.second.file.id == id;
    if (!shared) session->device->release(id);
    if (--session->files == 0) endSession(reg, *session);
}

OpenEntry* findFile(Registry& reg, int fd) {
    auto it = reg.files.find(fd);
    if (it == reg.files.end()) return nullptr;
    if (it->second.session->device->backs(fd)) return &it->second;
    dropFile(reg, fd);
    return nullptr;
}

int anyDescriptor(Registry& reg, const Session& session) {
    std::vector<int> fds;
    for (const auto& f : reg.files)
        if (f.second.session.get() == &session) fds.push_back(f.first);
    for (int fd : fds)
        if (findFile(reg, fd)) return fd;
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

Statistics statistics(const std::string& path) {
    node::Registry& reg = node::registry();
    RegistryLock lock(reg.mutex);
    Statistics s;
    auto it = reg.nodes.find(path);
    if (it == reg.nodes.end()) return s;
    node::Node& n = *it->second;
    s = n.session ? n.session->device->stats() : n.last;
    s.sessions = n.sessions;
    s.present = node::present(n, monotonicNs());
    for (const auto& f : reg.files) s.open_descriptors += f.second.session->node == &n;
    s.active = s.open_descriptors > 0;
    return s;
}

// The first node ORVO_VCAM_DEVICE lists, or the last one opened when it lists none.
Statistics statistics() {
    std::vector<std::string> nodes = node::listedNodes();
    if (!nodes.empty()) return statistics(nodes[0]);
    std::string last;
    {
        node::Registry& reg = node::registry();
        RegistryLock lock(reg.mutex);
        last = reg.last_opened;
    }
    return statistics(last);
}

}  // namespace vcam
}  // namespace orvo
