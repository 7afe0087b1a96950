// The C library's file-system entry points the virtual camera stands in front of, so that its node
// looks like a device file and its sysfs entries exist: the stat family (with the forms older
// programs call, __xstat and the like), access, readlink and realpath.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "node_files.h"
#include "real_calls.h"

using namespace orvo::vcam;

namespace {

// The C library's own definition, looked up once.
#define ORVO_NEXT(type, name) static const auto next = reinterpret_cast<type>(real::symbol(name))

// Every stat form comes here: path relative to dirfd, or the descriptor itself with
// AT_EMPTY_PATH and an empty path.
int statAt(int dirfd, const char* path, struct stat* st, int flags) {
    int r;
    if (node::interceptStat(dirfd, path, flags, st, &r)) return r;
    ORVO_NEXT(int (*)(int, const char*, struct stat*, int), "fstatat");
    return next(dirfd, path, st, flags);
}

int statFd(int fd, struct stat* st) {
    int r;
    if (node::interceptFstat(fd, st, &r)) return r;
    return real::fstat(fd, st);
}

}  // namespace

// struct stat and struct stat64 are one layout on the 64-bit targets this builds for.
static_assert(sizeof(struct stat) == sizeof(struct stat64), "stat64 differs from stat");

extern "C" {

int stat(const char* path, struct stat* st) __THROW { return statAt(AT_FDCWD, path, st, 0); }
int stat64(const char* path, struct stat64* st) __THROW {
    return statAt(AT_FDCWD, path, reinterpret_cast<struct stat*>(st), 0);
}
int lstat(const char* path, struct stat* st) __THROW {
    return statAt(AT_FDCWD, path, st, AT_SYMLINK_NOFOLLOW);
}
int lstat64(const char* path, struct stat64* st) __THROW {
    return statAt(AT_FDCWD, path, reinterpret_cast<struct stat*>(st), AT_SYMLINK_NOFOLLOW);
}
int fstat(int fd, struct stat* st) __THROW { return statFd(fd, st); }
int fstat64(int fd, struct stat64* st) __THROW { return statFd(fd, reinterpret_cast<struct stat*>(st)); }
int fstatat(int dirfd, const char* path, struct stat* st, int flags) __THROW {
    return statAt(dirfd, path, st, flags);
}
int fstatat64(int dirfd, const char* path, struct stat64* st, int flags) __THROW {
    return statAt(dirfd, path, reinterpret_cast<struct stat*>(st), flags);
}

// The versioned forms programs built against older C libraries call; the version is that of the
// one layout above.
int __xstat(int, const char* path, struct stat* st) { return statAt(AT_FDCWD, path, st, 0); }
int __xstat64(int, const char* path, struct stat* st) { return statAt(AT_FDCWD, path, st, 0); }
int __lxstat(int, const char* path, struct stat* st) { return statAt(AT_FDCWD, path, st, AT_SYMLINK_NOFOLLOW); }
int __lxstat64(int, const char* path, struct stat* st) {
    return statAt(AT_FDCWD, path, st, AT_SYMLINK_NOFOLLOW);
}
int __fxstat(int, int fd, struct stat* st) { return statFd(fd, st); }
int __fxstat64(int, int fd, struct stat* st) { return statFd(fd, st); }
int __fxstatat(int, int dirfd, const char* path, struct stat* st, int flags) {
    return statAt(dirfd, path, st, flags);
}
int __fxstatat64(int, int dirfd, const char* path, struct stat* st, int flags) {
    return statAt(dirfd, path, st, flags);
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* stx) __THROW {
    int r;
    if (node::interceptStatx(dirfd, path, flags, stx, &r)) return r;
    ORVO_NEXT(int (*)(int, const char*, int, unsigned int, struct statx*), "statx");
    return next(dirfd, path, flags, mask, stx);
}

int access(const char* path, int mode) __THROW {
    int r;
    if (node::interceptAccess(AT_FDCWD, path, mode, &r)) return r;
    ORVO_NEXT(int (*)(const char*, int), "access");
    return next(path, mode);
}

int faccessat(int dirfd, const char* path, int mode, int flags) __THROW {
    int r;
    if (node::interceptAccess(dirfd, path, mode, &r)) return r;
    ORVO_NEXT(int (*)(int, const char*, int, int), "faccessat");
    return next(dirfd, path, mode, flags);
}

int euidaccess(const char* path, int mode) __THROW {
    int r;
    if (node::interceptAccess(AT_FDCWD, path, mode, &r)) return r;
    ORVO_NEXT(int (*)(const char*, int), "euidaccess");
    return next(path, mode);
}

int eaccess(const char* path, int mode) __THROW { return euidaccess(path, mode); }

ssize_t readlink(const char* path, char* buf, size_t size) __THROW {
    long r;
    if (node::interceptReadlink(AT_FDCWD, path, buf, size, &r)) return ssize_t(r);
    ORVO_NEXT(ssize_t (*)(const char*, char*, size_t), "readlink");
    return next(path, buf, size);
}

ssize_t readlinkat(int dirfd, const char* path, char* buf, size_t size) __THROW {
    long r;
    if (node::interceptReadlink(dirfd, path, buf, size, &r)) return ssize_t(r);
    ORVO_NEXT(ssize_t (*)(int, const char*, char*, size_t), "readlinkat");
    return next(dirfd, path, buf, size);
}

char* realpath(const char* path, char* resolved) __THROW {
    char* r;
    if (node::interceptRealpath(path, resolved, &r)) return r;
    ORVO_NEXT(char* (*)(const char*, char*), "realpath");
    return next(path, resolved);
}

char* __realpath_chk(const char* path, char* resolved, size_t) __THROW { return realpath(path, resolved); }

char* canonicalize_file_name(const char* path) __THROW { return realpath(path, nullptr); }

}  // extern "C"
