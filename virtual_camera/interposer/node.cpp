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

}  // namespace

// A duplicate of a node descriptor refers to the same open file: the same owner, priority and
// queue, released when the last of its descriptors is closed, and it keeps the session alive like
// any other descriptor. A node descriptor that the duplicate replaced (dup2 onto it) is closed
// with it.
void registerDuplicate(int fd, int duplicate) {
    if (t_inside || g_open_files.load() == 0 || duplicate < 0 || duplicate == fd) return;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    Inside inside;
    dropFile(reg, duplicate);
    if (OpenEntry* entry = findFile(reg, fd)) {
        reg.files[duplicate] = OpenEntry{OpenFile{entry->file.id, duplicate}, entry->session};
        ++entry->session->files;
        g_open_files.fetch_add(1);
    }
}

// Each open gets a new open file description of the session's memory, with its own flags, and
// only that one descriptor: the first takes over the number of the memfd it was opened from, so
// that the node, like a real one, gets the lowest free descriptor and costs exactly one.
// While the node is unplugged it is not there: ENOENT.
bool interceptOpen(int dirfd, const char* path, int flags, int* result) {
    if (t_inside) return false;
    const int index = whichNode(dirfd, path);
    if (index < 0) return interceptSysfsOpen(dirfd, path, flags, result);
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    Inside inside;
    Node& node = nodeFor(reg, path);
    if (!present(node, monotonicNs())) {
        logResult(reg, -1, "open", -1, ENOENT);
        errno = ENOENT;
        *result = -1;
        return true;
    }
    int anchor = node.session ? anyDescriptor(reg, *node.session) : -1, fresh = -1;
    if (!node.session) {
        std::string error;
        if (!startSession(reg, node, index, &fresh, &error)) {
            say("cannot open %s: %s", path, error.c_str());
            errno = EINVAL;
            *result = -1;
            return true;
        }
        anchor = fresh;
    }
    std::shared_ptr<Session> session = node.session;
    int error = session->device->countOpen();
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
        if (session->files == 0) endSession(reg, *session);
        logResult(reg, -1, "open", -1, error);
        errno = error;
        *result = -1;
        return true;
    }
    reg.files[fd] = OpenEntry{OpenFile{reg.next_file_id++, fd}, session};
    ++session->files;
    session->device->opened(reg.files[fd].file.id);
    g_open_files.fetch_add(1);
    logResult(reg, fd, (flags & O_NONBLOCK) ? "open (non-blocking)" : "open", fd, 0);
    *result = fd;
    return true;
}

// Closing the node always closes the descriptor, even when an injected failure is reported.
bool interceptClose(int fd, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    Inside inside;
    OpenEntry* entry = findFile(reg, fd);
    if (!entry) return false;
    std::shared_ptr<Session> session = entry->session;
    int injected = session->device->unplugged() ? 0 : session->device->countClose();
    dropFile(reg, fd);
    int r = real::close(fd);
    int error = errno;
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
    RegistryLock lock(reg.mutex);
    Inside inside;
    OpenEntry* found = findFile(reg, fd);
    if (!found) return false;
    OpenFile file = found->file;
    std::shared_ptr<Session> session = found->session;  // a waiting dequeue may outlive the session
    const bool was_plugged = !session->device->unplugged();
    int r = session->device->request(file, request, arg, lock);
    if (was_plugged && session->device->unplugged()) noteUnplug(reg, *session);
    if (reg.log) logResult(reg, fd, describeRequest(request).c_str(), r < 0 ? -1 : r, -r);
    if (r < 0) {
        errno = -r;
        *result = -1;
    } else {
        *result = r;
    }
    return true;
}

// The nodes' sysfs files are read through fopen too; the meminfo faults of each node apply while
// a descriptor of it is open.
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
        RegistryLock lock(reg.mutex);
        for (auto& n : reg.nodes) {
            if (!n.second->session) continue;
            bool hides = false;
            const int e = n.second->session->device->countMeminfo(&hides);
            if (!error) error = e;
            hide = hide || hides;
        }
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
