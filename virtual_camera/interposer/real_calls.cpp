// Resolves the C library's entry points that the virtual camera stands in front of.
#include "real_calls.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

namespace orvo {
namespace vcam {
namespace real {
namespace {

// The next definition after this library in the lookup order: the C library's, whether this
// library was preloaded or linked into the executable ahead of it. Resolved on first use because
// other libraries' constructors may open files before ours have run.
template <typename Fn>
Fn next(std::atomic<Fn>& slot, const char* name) {
    Fn fn = slot.load(std::memory_order_acquire);
    if (fn) return fn;
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    if (!fn) abort();  // no C library behind us: nothing sensible can be done
    slot.store(fn, std::memory_order_release);
    return fn;
}

#define ORVO_REAL(type, name) \
    static std::atomic<type> slot{nullptr}; \
    auto fn = next(slot, name)

}  // namespace

int open(const char* path, int flags, mode_t mode) {
    ORVO_REAL(int (*)(const char*, int, ...), "open");
    return fn(path, flags, mode);
}

int open64(const char* path, int flags, mode_t mode) {
    ORVO_REAL(int (*)(const char*, int, ...), "open64");
    return fn(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, mode_t mode) {
    ORVO_REAL(int (*)(int, const char*, int, ...), "openat");
    return fn(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, mode_t mode) {
    ORVO_REAL(int (*)(int, const char*, int, ...), "openat64");
    return fn(dirfd, path, flags, mode);
}

int open_2(const char* path, int flags) {
    ORVO_REAL(int (*)(const char*, int), "__open_2");
    return fn(path, flags);
}

int open64_2(const char* path, int flags) {
    ORVO_REAL(int (*)(const char*, int), "__open64_2");
    return fn(path, flags);
}

int openat_2(int dirfd, const char* path, int flags) {
    ORVO_REAL(int (*)(int, const char*, int), "__openat_2");
    return fn(dirfd, path, flags);
}

int openat64_2(int dirfd, const char* path, int flags) {
    ORVO_REAL(int (*)(int, const char*, int), "__openat64_2");
    return fn(dirfd, path, flags);
}

int close(int fd) {
    ORVO_REAL(int (*)(int), "close");
    return fn(fd);
}

int ioctl(int fd, unsigned long request, void* arg) {
    ORVO_REAL(int (*)(int, unsigned long, ...), "ioctl");
    return fn(fd, request, arg);
}

FILE* fopen(const char* path, const char* mode) {
    ORVO_REAL(FILE* (*)(const char*, const char*), "fopen");
    return fn(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    ORVO_REAL(FILE* (*)(const char*, const char*), "fopen64");
    return fn(path, mode);
}

int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout) {
    ORVO_REAL(int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*), "select");
    return fn(nfds, readfds, writefds, exceptfds, timeout);
}

int poll(struct pollfd* fds, nfds_t nfds, int timeout) {
    ORVO_REAL(int (*)(struct pollfd*, nfds_t, int), "poll");
    return fn(fds, nfds, timeout);
}

int fstat(int fd, struct stat* st) {
    ORVO_REAL(int (*)(int, struct stat*), "fstat");
    return fn(fd, st);
}

int epoll_pwait(int epfd, struct epoll_event* events, int max, int timeout, const sigset_t* sigmask) {
    ORVO_REAL(int (*)(int, struct epoll_event*, int, int, const sigset_t*), "epoll_pwait");
    return fn(epfd, events, max, timeout, sigmask);
}

void* symbol(const char* name) {
    void* fn = dlsym(RTLD_NEXT, name);
    if (!fn) abort();
    return fn;
}

}  // namespace real
}  // namespace vcam
}  // namespace orvo
