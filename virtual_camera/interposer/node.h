// The node's descriptors and sessions: what the interposed entry points call.
#pragma once

#include <poll.h>
#include <sys/select.h>

#include <cstdio>

namespace orvo {
namespace vcam {
namespace node {

// Each returns false when the call is not about the node, leaving it to the C library; otherwise
// it has done the call and stored its result (errno set on failure).
bool interceptOpen(int dirfd, const char* path, int flags, int* result);
bool interceptClose(int fd, int* result);
bool interceptIoctl(int fd, unsigned long request, void* arg, int* result);
bool interceptFopen(const char* path, FILE** result);
bool interceptPoll(struct pollfd* fds, nfds_t nfds, int timeout_ms, int* result);
bool interceptSelect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout,
                     int* result);

}  // namespace node
}  // namespace vcam
}  // namespace orvo
