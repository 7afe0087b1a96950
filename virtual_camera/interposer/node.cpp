// The interposed paths about the node itself: open, close, ioctl, and fopen of its sysfs files and
// of /proc/meminfo for its faults.
#include "node.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "node_files.h"
#include "node_session.h"
#include "real_calls.h"
#include "requests.h"

namespace orvo {
namespace vcam {
namespace node {
namespace {

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

// Another descriptor (a duplicate) still refers to the open file.
bool sharesFile(const Registry& reg, uint64_t id) {
    for (const auto& f : reg.files)
        if (f.second.id == id) return true;
    return false;
}

}  // namespace

// A duplicate of a node descriptor refers to the same open file: the same owner, priority and
// queue, released when the last of its descriptors is closed. A node descriptor that the
// duplicate replaced (dup2 onto it) is closed with it.
void registerDuplicate(int fd, int duplicate) {
    if (t_inside || g_open_files.load() == 0 || duplicate < 0 || duplicate == fd) return;
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    Inside inside;
    auto replaced = reg.files.find(duplicate);
    if (replaced != reg.files.end()) {
        uint64_t old_id = replaced->second.id;
        reg.files.erase(replaced);
        g_open_files.fetch_sub(1);
        if (reg.device && !sharesFile(reg, old_id)) reg.device->release(old_id);
    }
    OpenFile* file = findFile(reg, fd);
    if (file) {
        reg.files[duplicate] = OpenFile{file->id, duplicate};
        g_open_files.fetch_add(1);
    } else if (reg.files.empty() && reg.device) {
        endSession(reg);
    }
}

// Each open gets a new open file description of the session's memory, with its own flags, and
// only that one descriptor: the first takes over the number of the memfd it was opened from, so
// that the node, like a real one, gets the lowest free descriptor and costs exactly one.
bool interceptOpen(int dirfd, const char* path, int flags, int* result) {
    if (t_inside) return false;
    if (!isNodePath(dirfd, path)) return interceptSysfsOpen(dirfd, path, flags, result);
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
    reg.device->opened(reg.files[fd].id);
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
    uint64_t id = file->id;
    reg.files.erase(fd);
    if (!sharesFile(reg, id)) reg.device->release(id);
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

// The node's sysfs files are read through fopen too; the meminfo faults apply while a descriptor
// of the node is open.
bool interceptFopen(const char* path, FILE** result) {
    int fd;
    if (interceptSysfsOpen(AT_FDCWD, path, O_RDONLY | O_CLOEXEC, &fd)) {
        *result = fd < 0 ? nullptr : fdopen(fd, "r");
        return true;
    }
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

}  // namespace node
}  // namespace vcam
}  // namespace orvo
