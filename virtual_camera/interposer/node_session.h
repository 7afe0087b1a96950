// The node's sessions and descriptors, shared by the interposed paths: the registry, its lock
// and what is done under it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <orvo/vcam/statistics.hpp>

#include "device.h"

namespace orvo {
namespace vcam {
namespace node {

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

// Reads the environment and builds the session's device and its memory (*memfd); false with a
// message on a bad setting.
bool startSession(Registry& reg, int* memfd, std::string* error);
void endSession(Registry& reg);

// The registered file of a descriptor, dropping the entry when the descriptor no longer refers
// to the node's memory (it was closed behind our back and its number reused).
OpenFile* findFile(Registry& reg, int fd);
// The first registered descriptor still open on the node; stale entries are dropped on the way.
int anyDescriptor(Registry& reg);
// One log line; fd < 0 for calls that are not about one descriptor (a failed open, poll, select).
void logResult(const Registry& reg, int fd, const char* what, int result, int error);

}  // namespace node
}  // namespace vcam
}  // namespace orvo
