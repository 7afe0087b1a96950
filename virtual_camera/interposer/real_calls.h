// The C library's own entry points behind the interposed ones, for forwarding and internal use.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>

namespace orvo {
namespace vcam {
namespace real {

int open(const char* path, int flags, mode_t mode);
int open64(const char* path, int flags, mode_t mode);
int openat(int dirfd, const char* path, int flags, mode_t mode);
int openat64(int dirfd, const char* path, int flags, mode_t mode);
int open_2(const char* path, int flags);
int open64_2(const char* path, int flags);
int openat_2(int dirfd, const char* path, int flags);
int openat64_2(int dirfd, const char* path, int flags);
int close(int fd);
int ioctl(int fd, unsigned long request, void* arg);
FILE* fopen(const char* path, const char* mode);
FILE* fopen64(const char* path, const char* mode);
int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout);
int poll(struct pollfd* fds, nfds_t nfds, int timeout);
int fstat(int fd, struct stat* st);
int epoll_pwait(int epfd, struct epoll_event* events, int max, int timeout, const sigset_t* sigmask);

// The C library's definition of any other entry point, for those forwarded as they are.
void* symbol(const char* name);

}  // namespace real
}  // namespace vcam
}  // namespace orvo
