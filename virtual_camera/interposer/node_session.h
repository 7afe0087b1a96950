// The nodes, their sessions and descriptors, shared by the interposed paths: the registry, its lock
// and what is done under it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <orvo/vcam/statistics.hpp>

#include "device.h"
#include "registry_lock.h"

namespace orvo {
namespace vcam {
namespace node {

struct Node;

// A session of a node: from the open that found no descriptor of it to the close of the last one.
// An unplugged session lives on, answering ENODEV, until its descriptors are closed.
struct Session {
    std::shared_ptr<Device> device;
    Node* node = nullptr;
    uint64_t number = 0;  // 1 for the node's first session
    size_t files = 0;     // registered descriptors
};

// One emulated node, kept for the life of the process once it has been opened.
struct Node {
    std::string path;
    std::shared_ptr<Session> session;  // the live session: null while none is open, or unplugged
    uint64_t sessions = 0;
    Statistics last;  // what the last session served

    // Unplugged: absent until away_until_ns; the next session continues `carry`, skipping the
    // frames that fell due since unplugged_ns.
    bool replug = false;
    int64_t unplugged_ns = 0, away_until_ns = 0;
    Carry carry;
};

struct OpenEntry {
    OpenFile file;
    std::shared_ptr<Session> session;
};

struct Registry {
    std::mutex mutex;
    std::condition_variable wake;
    std::map<std::string, std::unique_ptr<Node>> nodes;  // by path
    std::unordered_map<int, OpenEntry> files;
    uint64_t next_file_id = 1;
    std::string last_opened;  // the node statistics() describes when ORVO_VCAM_DEVICE names none
    bool log = false;
};

Registry& registry();

// Lets calls on other descriptors through without taking the lock.
extern std::atomic<int> g_open_files;

// Set while this thread works inside the virtual camera under its lock (rendering a frame, loading
// a scene). Whatever that work calls through the interposed entry points (OpenCV reading
// /proc/meminfo when its thread pool starts, closing its own files) is not the client's and goes
// straight to the C library, so it neither takes the lock again nor counts against the faults.
extern thread_local int t_inside;

struct Inside {
    Inside() { ++t_inside; }
    ~Inside() { --t_inside; }
};

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ORVO_VCAM_DEVICE's nodes, in order.
std::vector<std::string> listedNodes();
// The position of path in ORVO_VCAM_DEVICE's comma-separated list, or -1 when it is not a node.
int nodeIndex(const char* path);
// The node of a path ORVO_VCAM_DEVICE lists, made on first use.
Node& nodeFor(Registry& reg, const std::string& path);
// Whether the node can be opened now: not while it is unplugged. A replug is noticed here.
bool present(Node& node, int64_t now_ns);

// Reads the node's settings from the environment and starts its session with its memory (*memfd);
// false with a message on a bad setting.
bool startSession(Registry& reg, Node& node, int index, int* memfd, std::string* error);
// The session's last descriptor is gone.
void endSession(Registry& reg, Session& session);
// The session's device unplugged itself: the node goes away for the fault's time.
void noteUnplug(Registry& reg, Session& session);

// The descriptor is gone: its entry goes, its open file is released when no duplicate of it is
// left, and its session ends with the session's last descriptor, duplicates included.
void dropFile(Registry& reg, int fd);
// The registered entry of a descriptor, dropping it when the descriptor no longer refers to its
// session's memory (it was closed behind our back and its number reused).
OpenEntry* findFile(Registry& reg, int fd);
// A registered descriptor of the session that is still open, or -1; stale entries are dropped.
int anyDescriptor(Registry& reg, const Session& session);
// One log line; fd < 0 for calls that are not about one descriptor (a failed open, poll, select).
void logResult(const Registry& reg, int fd, const char* what, int result, int error);

}  // namespace node
}  // namespace vcam
}  // namespace orvo
