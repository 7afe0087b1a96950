// The C library entry points the virtual camera stands in front of; everything not about its node
// goes straight through.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "node.h"
#include "real_calls.h"

using namespace orvo::vcam;

namespace {

bool needsMode(int flags) { return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE; }

using FcntlCall = int (*)(int, int, ...);

// fcntl and fcntl64 alike: the C library's call, and a duplicate it made (F_DUPFD,
// F_DUPFD_CLOEXEC) of a node descriptor is the node's too.
int fcntlThenRegister(FcntlCall next, int fd, int cmd, void* arg) {
    int r = next(fd, cmd, arg);
    if (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) node::registerDuplicate(fd, r);
    return r;
}

}  // namespace

#define ORVO_MODE_ARG(flags)         \
    mode_t mode = 0;                 \
    if (needsMode(flags)) {          \
        va_list ap;                  \
        va_start(ap, flags);         \
        mode = mode_t(va_arg(ap, int)); \
        va_end(ap);                  \
    }

extern "C" {

int open(const char* path, int flags, ...) {
    ORVO_MODE_ARG(flags);
    int fd;
    if (node::interceptOpen(AT_FDCWD, path, flags, &fd)) return fd;
    return real::open(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    ORVO_MODE_ARG(flags);
    int fd;
    if (node::interceptOpen(AT_FDCWD, path, flags, &fd)) return fd;
    return real::open64(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    ORVO_MODE_ARG(flags);
    int fd;
    if (node::interceptOpen(dirfd, path, flags, &fd)) return fd;
    return real::openat(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    ORVO_MODE_ARG(flags);
    int fd;
    if (node::interceptOpen(dirfd, path, flags, &fd)) return fd;
    return real::openat64(dirfd, path, flags, mode);
}

int __open_2(const char* path, int flags) {
    int fd;
    if (node::interceptOpen(AT_FDCWD, path, flags, &fd)) return fd;
    return real::open_2(path, flags);
}

int __open64_2(const char* path, int flags) {
    int fd;
    if (node::interceptOpen(AT_FDCWD, path, flags, &fd)) return fd;
    return real::open64_2(path, flags);
}

int __openat_2(int dirfd, const char* path, int flags) {
    int fd;
    if (node::interceptOpen(dirfd, path, flags, &fd)) return fd;
    return real::openat_2(dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
    int fd;
    if (node::interceptOpen(dirfd, path, flags, &fd)) return fd;
    return real::openat64_2(dirfd, path, flags);
}

int close(int fd) {
    int r;
    node::forgetEpollSet(fd);
    if (node::interceptClose(fd, &r)) return r;
    return real::close(fd);
}

int ioctl(int fd, unsigned long request, ...) __THROW {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    int r;
    if (node::interceptIoctl(fd, request, arg, &r)) return r;
    return real::ioctl(fd, request, arg);
}

FILE* fopen(const char* path, const char* mode) {
    FILE* f;
    if (node::interceptFopen(path, &f)) return f;
    return real::fopen(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    FILE* f;
    if (node::interceptFopen(path, &f)) return f;
    return real::fopen64(path, mode);
}

int poll(struct pollfd* fds, nfds_t nfds, int timeout) {
    int r;
    if (node::interceptPoll(fds, nfds, timeout, &r)) return r;
    return real::poll(fds, nfds, timeout);
}

int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout) {
    int r;
    if (node::interceptSelect(nfds, readfds, writefds, exceptfds, timeout, &r)) return r;
    return real::select(nfds, readfds, writefds, exceptfds, timeout);
}

int dup(int fd) __THROW {
    static const auto next = reinterpret_cast<int (*)(int)>(real::symbol("dup"));
    int r = next(fd);
    node::registerDuplicate(fd, r);
    return r;
}

int dup2(int fd, int fd2) __THROW {
    static const auto next = reinterpret_cast<int (*)(int, int)>(real::symbol("dup2"));
    int r = next(fd, fd2);
    node::registerDuplicate(fd, r);
    return r;
}

int dup3(int fd, int fd2, int flags) __THROW {
    static const auto next = reinterpret_cast<int (*)(int, int, int)>(real::symbol("dup3"));
    int r = next(fd, fd2, flags);
    node::registerDuplicate(fd, r);
    return r;
}

// fcntl's third argument is an int or a pointer: passed on as a pointer-sized value either way.
int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    static const auto next = reinterpret_cast<FcntlCall>(real::symbol("fcntl"));
    return fcntlThenRegister(next, fd, cmd, arg);
}

int fcntl64(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    static const auto next = reinterpret_cast<FcntlCall>(real::symbol("fcntl64"));
    return fcntlThenRegister(next, fd, cmd, arg);
}

int epoll_ctl(int epfd, int op, int fd, struct epoll_event* event) __THROW {
    int r;
    if (node::interceptEpollCtl(epfd, op, fd, event, &r)) return r;
    static const auto next = reinterpret_cast<int (*)(int, int, int, struct epoll_event*)>(real::symbol("epoll_ctl"));
    return next(epfd, op, fd, event);
}

int epoll_wait(int epfd, struct epoll_event* events, int max, int timeout) {
    int r;
    if (node::interceptEpollWait(epfd, events, max, timeout, nullptr, &r)) return r;
    return real::epoll_pwait(epfd, events, max, timeout, nullptr);
}

int epoll_pwait(int epfd, struct epoll_event* events, int max, int timeout, const sigset_t* sigmask) {
    int r;
    if (node::interceptEpollWait(epfd, events, max, timeout, sigmask, &r)) return r;
    return real::epoll_pwait(epfd, events, max, timeout, sigmask);
}

ssize_t read(int fd, void* buf, size_t count) {
    long r;
    if (node::interceptReadWrite(fd, &r)) return ssize_t(r);
    static const auto next = reinterpret_cast<ssize_t (*)(int, void*, size_t)>(real::symbol("read"));
    return next(fd, buf, count);
}

ssize_t __read_chk(int fd, void* buf, size_t count, size_t) { return read(fd, buf, count); }

ssize_t write(int fd, const void* buf, size_t count) {
    long r;
    if (node::interceptReadWrite(fd, &r)) return ssize_t(r);
    static const auto next = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(real::symbol("write"));
    return next(fd, buf, count);
}

}  // extern "C"
