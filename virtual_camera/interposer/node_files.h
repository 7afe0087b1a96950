// The nodes as the file system shows them: a character device at each path and its entries in sysfs.
#pragma once

#include <sys/stat.h>

#include <cstddef>

namespace orvo {
namespace vcam {
namespace node {

// The position in ORVO_VCAM_DEVICE of the node path names (relative to the working directory
// only), or -1; there is no node while ORVO_VCAM_DEVICE is unset.
int whichNode(int dirfd, const char* path);

// Each returns false when the call is not about a node or its sysfs entries, leaving it to the
// C library; otherwise it has done the call and stored its result (errno set on failure).
bool interceptStat(int dirfd, const char* path, int flags, struct stat* st, int* result);
bool interceptFstat(int fd, struct stat* st, int* result);
bool interceptStatx(int dirfd, const char* path, int flags, struct statx* stx, int* result);
bool interceptAccess(int dirfd, const char* path, int mode, int* result);
// Opens of the node's sysfs files (a read-only copy of their text in memory).
bool interceptSysfsOpen(int dirfd, const char* path, int flags, int* result);
bool interceptReadlink(int dirfd, const char* path, char* buf, size_t size, long* result);
bool interceptRealpath(const char* path, char* resolved, char** result);

}  // namespace node
}  // namespace vcam
}  // namespace orvo
