// The node as the file system shows it: stat and access of its path answer as for a V4L2
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

const char* nodePath() {
    const char* node = std::getenv("ORVO_VCAM_DEVICE");
    return node && *node ? node : nullptr;
}

// 100 + the number the node's name ends with (/dev/video-virtual3: 103), so that two nodes differ.
unsigned nodeMinor() {
    const char* path = nodePath();
    size_t end = std::strlen(path), start = end;
    while (start > 0 && std::isdigit(static_cast<unsigned char>(path[start - 1])) && end - start < 3) --start;
    return kMinorBase + (start < end ? unsigned(std::atoi(path + start)) : 0);
}

std::string minorText() { return std::to_string(nodeMinor()); }

// Where the node's sysfs directory really lies; the other two names are links to it.
std::string sysfsDir() { return "/sys/devices/virtual/video4linux/video" + minorText(); }
std::string charLink() { return "/sys/dev/char/" + std::to_string(kVideoMajor) + ":" + minorText(); }
std::string classLink() { return "/sys/class/video4linux/video" + minorText(); }

// The rest of path after prefix when path is prefix itself ("") or lies below it ("/name").
bool below(const std::string& path, const std::string& prefix, std::string* rest) {
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    if (path.size() > prefix.size() && path[prefix.size()] != '/') return false;
    *rest = path.substr(prefix.size());
    return true;
}

// The part of a sysfs path inside the node's directory ("" for the directory, "/uevent", ...);
// false when the path is not about the node.
bool sysfsEntry(int dirfd, const char* path, std::string* rest) {
    if (!path || path[0] != '/' || std::strncmp(path, "/sys/", 5) != 0 || !nodePath()) return false;
    (void)dirfd;  // absolute paths only: dirfd plays no part
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return below(p, sysfsDir(), rest) || below(p, charLink(), rest) || below(p, classLink(), rest);
}

// The text of one of the node's sysfs files, as the kernel writes it; false for names it lacks.
bool sysfsFile(const std::string& entry, std::string* text) {
    if (entry == "/name") *text = std::string(kCardName) + "\n";
    else if (entry == "/index") *text = "0\n";
    else if (entry == "/dev") *text = std::to_string(kVideoMajor) + ":" + minorText() + "\n";
    else if (entry == "/dev_debug") *text = "0\n";
    else if (entry == "/uevent")
        *text = "MAJOR=" + std::to_string(kVideoMajor) + "\nMINOR=" + minorText() + "\nDEVNAME=video" + minorText() + "\n";
    else return false;
    return true;
}

void fillStat(struct stat* st, bool directory, size_t size) {
    static const time_t born = std::time(nullptr);
    std::memset(st, 0, sizeof *st);
    st->st_dev = makedev(0, 5);
    st->st_ino = 1000 + nodeMinor() + (directory ? 0 : size ? size : 500);
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
        st->st_rdev = makedev(kVideoMajor, nodeMinor());
    }
}

// What stat says about a path of the node or its sysfs entries; false when it is neither.
// *found is false for sysfs names the node does not have.
bool statOf(int dirfd, const char* path, struct stat* st, bool* found) {
    *found = true;
    if (isNodePath(dirfd, path)) {
        fillStat(st, false, 0);
        return true;
    }
    std::string entry, text;
    if (!sysfsEntry(dirfd, path, &entry)) return false;
    if (entry.empty()) fillStat(st, true, 0);
    else if (sysfsFile(entry, &text)) fillStat(st, false, text.size());
    else *found = false;
    return true;
}

bool answer(int r, int error, int* result) {
    if (r < 0) errno = error;
    *result = r;
    return true;
}

}  // namespace

bool isNodePath(int dirfd, const char* path) {
    const char* node = nodePath();
    if (!node || !path) return false;
    if (path[0] != '/' && dirfd != AT_FDCWD) return false;
    return std::strcmp(path, node) == 0;
}

bool interceptStat(int dirfd, const char* path, int flags, struct stat* st, int* result) {
    if (t_inside) return false;
    if ((flags & AT_EMPTY_PATH) && path && !*path) return interceptFstat(dirfd, st, result);
    bool found;
    if (!statOf(dirfd, path, st, &found)) return false;
    return answer(found ? 0 : -1, ENOENT, result);
}

// A descriptor of the node is a character device too (it is really a file of the session's memory).
bool interceptFstat(int fd, struct stat* st, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    if (!findFile(reg, fd)) return false;
    fillStat(st, false, 0);
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
    std::string entry, text;
    if (t_inside || !sysfsEntry(dirfd, path, &entry)) return false;
    if (entry.empty() || !sysfsFile(entry, &text)) return false;  // the directory: ENOENT from the kernel
    if ((flags & O_ACCMODE) != O_RDONLY) return answer(-1, EACCES, result);
    int fd = memfd_create("orvo-vcam-sysfs", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0) return answer(-1, errno, result);
    if (write(fd, text.data(), text.size()) != ssize_t(text.size()) || lseek(fd, 0, SEEK_SET) != 0) {
        int error = errno;
        real::close(fd);
        return answer(-1, error, result);
    }
    return answer(fd, 0, result);
}

// The two links to the node's sysfs directory, relative as the kernel makes them.
bool interceptReadlink(int dirfd, const char* path, char* buf, size_t size, long* result) {
    std::string entry;
    if (t_inside || !sysfsEntry(dirfd, path, &entry) || !entry.empty()) return false;
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    std::string target;
    if (p == charLink()) target = "../../devices/virtual/video4linux/video" + minorText();
    else if (p == classLink()) target = "../../devices/virtual/video4linux/video" + minorText();
    else {
        errno = EINVAL;  // the directory itself is no link
        *result = -1;
        return true;
    }
    size_t n = target.size() < size ? target.size() : size;
    std::memcpy(buf, target.data(), n);
    *result = long(n);
    return true;
}

bool interceptRealpath(const char* path, char* resolved, char** result) {
    std::string entry, text;
    if (t_inside) return false;
    std::string full;
    if (isNodePath(AT_FDCWD, path)) full = path;
    else if (sysfsEntry(AT_FDCWD, path, &entry) && (entry.empty() || sysfsFile(entry, &text)))
        full = sysfsDir() + entry;
    else return false;
    if (full.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
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
