// The nodes as the file system shows them: stat and access of each path answer as for a V4L2
// character device (major 81), and its sysfs entries (/sys/dev/char/81:M, /sys/class/video4linux/
// videoM) are served from memory, as v4l-utils, GStreamer and ffmpeg look them up.
#include "node_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "device_fields.h"
#include "node_session.h"
#include "real_calls.h"

namespace orvo {
namespace vcam {
namespace node {
namespace {

constexpr unsigned kVideoMajor = 81;
// Minors from 100 up, clear of those the kernel gives the cameras actually plugged in.
constexpr unsigned kMinorBase = 100;

// A listed node as the file system shows it.
struct Listed {
    std::string path;
    unsigned minor = 0;
    bool present = true;  // false while it is unplugged
};

// The number a node's name ends with (/dev/video-virtual3: 3), 0 when none.
unsigned pathNumber(const std::string& path) {
    size_t end = path.size(), start = end;
    while (start > 0 && std::isdigit(static_cast<unsigned char>(path[start - 1])) && end - start < 3) --start;
    return start < end ? unsigned(std::atoi(path.c_str() + start)) : 0;
}

// Every node ORVO_VCAM_DEVICE lists, by position: minor 100 + the number its name ends with, or
// the next free one when an earlier node has that already, so that each node has its own.
std::vector<Listed> listed() {
    std::vector<Listed> nodes;
    for (const std::string& path : listedNodes()) {
        unsigned minor = kMinorBase + pathNumber(path);
        for (size_t i = 0; i < nodes.size(); ++i)
            if (nodes[i].minor == minor) {
                ++minor;
                i = size_t(-1);  // look again from the first
            }
        nodes.push_back(Listed{path, minor, true});
    }
    return nodes;
}

// Whether the node of a path is there now: not while it is unplugged, as a real camera.
bool presentNow(const std::string& path) {
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    auto it = reg.nodes.find(path);
    return it == reg.nodes.end() || present(*it->second, monotonicNs());
}

// The listed node a path names, when it names one (relative to the working directory only).
bool nodeOf(int dirfd, const char* path, Listed* node) {
    if (!path || (path[0] != '/' && dirfd != AT_FDCWD)) return false;
    const int index = nodeIndex(path);
    if (index < 0) return false;
    *node = listed()[size_t(index)];
    node->present = presentNow(node->path);
    return true;
}

std::string text(unsigned n) { return std::to_string(n); }

// Where a node's sysfs directory really lies; the other two names are links to it.
std::string sysfsDir(unsigned minor) { return "/sys/devices/virtual/video4linux/video" + text(minor); }
std::string charLink(unsigned minor) { return "/sys/dev/char/" + text(kVideoMajor) + ":" + text(minor); }
std::string classLink(unsigned minor) { return "/sys/class/video4linux/video" + text(minor); }

// The rest of path after prefix when path is prefix itself ("") or lies below it ("/name").
bool below(const std::string& path, const std::string& prefix, std::string* rest) {
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    if (path.size() > prefix.size() && path[prefix.size()] != '/') return false;
    *rest = path.substr(prefix.size());
    return true;
}

std::string withoutTrailingSlashes(const char* path) {
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

// The node a sysfs path is about and the part of the path inside its directory ("" for the
// directory, "/uevent", ...); false when the path is about no node. Absolute paths only.
bool sysfsEntry(const char* path, Listed* node, std::string* rest) {
    if (!path || std::strncmp(path, "/sys/", 5) != 0) return false;
    const std::string p = withoutTrailingSlashes(path);
    for (const Listed& n : listed()) {
        if (below(p, sysfsDir(n.minor), rest) || below(p, charLink(n.minor), rest) || below(p, classLink(n.minor), rest)) {
            *node = n;
            node->present = presentNow(n.path);
            return true;
        }
    }
    return false;
}

// The text of one of a node's sysfs files, as the kernel writes it; false for names it lacks.
bool sysfsFile(const Listed& node, const std::string& entry, std::string* out) {
    const std::string minor = text(node.minor);
    if (entry == "/name") *out = std::string(kCardName) + "\n";
    else if (entry == "/index") *out = "0\n";
    else if (entry == "/dev") *out = text(kVideoMajor) + ":" + minor + "\n";
    else if (entry == "/dev_debug") *out = "0\n";
    else if (entry == "/uevent")
        *out = "MAJOR=" + text(kVideoMajor) + "\nMINOR=" + minor + "\nDEVNAME=video" + minor + "\n";
    else return false;
    return true;
}

void fillStat(struct stat* st, unsigned minor, bool directory, size_t size) {
    static const time_t born = std::time(nullptr);
    std::memset(st, 0, sizeof *st);
    st->st_dev = makedev(0, 5);
    st->st_ino = 1000 + minor + (directory ? 0 : size ? size : 500);
    st->st_nlink = directory ? 2 : 1;
    st->st_uid = geteuid();
    st->st_gid = getegid();
    st->st_blksize = 4096;
    st->st_atim.tv_sec = st->st_mtim.tv_sec = st->st_ctim.tv_sec = born;
    if (directory) {
        st->st_mode = S_IFDIR | 0755;
    } else if (size) {
        st->st_mode = S_IFREG | 0444;
        st->st_size = off_t(size);
    } else {
        st->st_mode = S_IFCHR | 0660;
        st->st_rdev = makedev(kVideoMajor, minor);
    }
}

// What stat says about a path of a node or its sysfs entries; false when it is neither. *found is
// false for sysfs names a node does not have, and for everything of a node that is unplugged.
bool statOf(int dirfd, const char* path, struct stat* st, bool* found) {
    Listed node;
    std::string entry, content;
    if (nodeOf(dirfd, path, &node)) {
        if ((*found = node.present)) fillStat(st, node.minor, false, 0);
        return true;
    }
    if (!sysfsEntry(path, &node, &entry)) return false;
    *found = node.present;
    if (!*found) return true;
    if (entry.empty()) fillStat(st, node.minor, true, 0);
    else if (sysfsFile(node, entry, &content)) fillStat(st, node.minor, false, content.size());
    else *found = false;
    return true;
}

bool answer(int r, int error, int* result) {
    if (r < 0) errno = error;
    *result = r;
    return true;
}

}  // namespace

int whichNode(int dirfd, const char* path) {
    if (!path || (path[0] != '/' && dirfd != AT_FDCWD)) return -1;
    return nodeIndex(path);
}

bool interceptStat(int dirfd, const char* path, int flags, struct stat* st, int* result) {
    if (t_inside) return false;
    if ((flags & AT_EMPTY_PATH) && path && !*path) return interceptFstat(dirfd, st, result);
    bool found;
    if (!statOf(dirfd, path, st, &found)) return false;
    return answer(found ? 0 : -1, ENOENT, result);
}

// A descriptor of a node is a character device too (it is really a file of the session's memory),
// still while the node is unplugged, as the descriptor of a camera pulled out.
bool interceptFstat(int fd, struct stat* st, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    std::string path;
    {
        Registry& reg = registry();
        RegistryLock lock(reg.mutex);
        Inside inside;  // a stale descriptor found here may end its session
        const OpenEntry* entry = findFile(reg, fd);
        if (!entry) return false;
        path = entry->session->node->path;
    }
    unsigned minor = kMinorBase;
    for (const Listed& n : listed())
        if (n.path == path) minor = n.minor;
    fillStat(st, minor, false, 0);
    return answer(0, 0, result);
}

bool interceptStatx(int dirfd, const char* path, int flags, struct statx* stx, int* result) {
    struct stat st;
    int r;
    if (!interceptStat(dirfd, path, flags, &st, &r)) return false;
    if (r == 0) {
        std::memset(stx, 0, sizeof *stx);
        stx->stx_mask = STATX_BASIC_STATS;
        stx->stx_mode = uint16_t(st.st_mode);
        stx->stx_nlink = uint32_t(st.st_nlink);
        stx->stx_uid = st.st_uid;
        stx->stx_gid = st.st_gid;
        stx->stx_ino = st.st_ino;
        stx->stx_size = uint64_t(st.st_size);
        stx->stx_blksize = uint32_t(st.st_blksize);
        stx->stx_rdev_major = major(st.st_rdev);
        stx->stx_rdev_minor = minor(st.st_rdev);
        stx->stx_dev_major = major(st.st_dev);
        stx->stx_dev_minor = minor(st.st_dev);
        stx->stx_atime.tv_sec = stx->stx_mtime.tv_sec = stx->stx_ctime.tv_sec = st.st_mtim.tv_sec;
    }
    return answer(r, errno, result);
}

// The node and its sysfs files can be read (and the node written), nothing of them executed.
bool interceptAccess(int dirfd, const char* path, int mode, int* result) {
    if (t_inside) return false;
    struct stat st;
    bool found;
    if (!statOf(dirfd, path, &st, &found)) return false;
    if (!found) return answer(-1, ENOENT, result);
    bool refused = (mode & X_OK) && !S_ISDIR(st.st_mode);
    if ((mode & W_OK) && S_ISREG(st.st_mode)) refused = true;
    return answer(refused ? -1 : 0, EACCES, result);
}

bool interceptSysfsOpen(int dirfd, const char* path, int flags, int* result) {
    (void)dirfd;  // absolute paths only: dirfd plays no part
    Listed node;
    std::string entry, content;
    if (t_inside || !sysfsEntry(path, &node, &entry)) return false;
    if (!node.present) return answer(-1, ENOENT, result);
    if (entry.empty() || !sysfsFile(node, entry, &content)) return false;  // the directory: ENOENT from the kernel
    if ((flags & O_ACCMODE) != O_RDONLY) return answer(-1, EACCES, result);
    int fd = memfd_create("orvo-vcam-sysfs", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0) return answer(-1, errno, result);
    if (write(fd, content.data(), content.size()) != ssize_t(content.size()) || lseek(fd, 0, SEEK_SET) != 0) {
        int error = errno;
        real::close(fd);
        return answer(-1, error, result);
    }
    return answer(fd, 0, result);
}

// The two links to a node's sysfs directory, relative as the kernel makes them.
bool interceptReadlink(int dirfd, const char* path, char* buf, size_t size, long* result) {
    (void)dirfd;
    Listed node;
    std::string entry;
    if (t_inside || !sysfsEntry(path, &node, &entry) || !entry.empty()) return false;
    const std::string p = withoutTrailingSlashes(path);
    errno = node.present ? EINVAL : ENOENT;  // the directory itself is no link
    *result = -1;
    if (!node.present || (p != charLink(node.minor) && p != classLink(node.minor))) return true;
    const std::string target = "../../devices/virtual/video4linux/video" + text(node.minor);
    size_t n = target.size() < size ? target.size() : size;
    std::memcpy(buf, target.data(), n);
    *result = long(n);
    return true;
}

bool interceptRealpath(const char* path, char* resolved, char** result) {
    if (t_inside) return false;
    Listed node;
    std::string entry, content, full;
    if (nodeOf(AT_FDCWD, path, &node)) full = path;
    else if (sysfsEntry(path, &node, &entry) && (entry.empty() || sysfsFile(node, entry, &content)))
        full = sysfsDir(node.minor) + entry;
    else return false;
    if (!node.present || full.size() >= PATH_MAX) {
        errno = node.present ? ENAMETOOLONG : ENOENT;
        *result = nullptr;
        return true;
    }
    char* out = resolved ? resolved : static_cast<char*>(std::malloc(PATH_MAX));
    if (out) std::memcpy(out, full.c_str(), full.size() + 1);
    *result = out;
    return true;
}

}  // namespace node
}  // namespace vcam
}  // namespace orvo
