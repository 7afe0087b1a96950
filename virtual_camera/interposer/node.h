// The node's descriptors and sessions: what the interposed entry points call.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/select.h>

#include <cstdio>

namespace orvo {
namespace vcam {
namespace node {

// Each returns false when the call is not about the node, leaving it to the C library; otherwise
// it has done the call and stored its result (errno set on failure).
bool interceptOpen(int dirfd, const char* path, int flags, int* result);
bool interceptClose(int fd, int* result);
// Registers duplicate, just made by the C library from fd, when fd is the node's.
void registerDuplicate(int fd, int duplicate);
bool interceptIoctl(int fd, unsigned long request, void* arg, int* result);
bool interceptFopen(const char* path, FILE** result);
bool interceptPoll(struct pollfd* fds, nfds_t nfds, int timeout_ms, int* result);
bool interceptSelect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout,
                     int* result);
bool interceptEpollCtl(int epfd, int op, int fd, struct epoll_event* event, int* result);
bool interceptEpollWait(int epfd, struct epoll_event* events, int max, int timeout_ms, const sigset_t* sigmask,
                        int* result);
void forgetEpollSet(int fd);  // fd is being closed: if it is an epoll set, its node members go
bool interceptReadWrite(int fd, long* result);

}  // namespace node
}  // namespace vcam
}  // namespace orvo
