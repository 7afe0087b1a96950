// poll, select and epoll over the node's descriptors and others: the node's readiness comes from
// its device, the others' from the kernel.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>

#include <chrono>
#include <cerrno>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "node.h"
#include "node_session.h"
#include "real_calls.h"

namespace orvo {
namespace vcam {
namespace node {
namespace {

// What poll reports for a node descriptor: readable once a dequeue would succeed, an error while
// the queue is not streaming (there is nothing to wait for), as videobuf2 does.
short nodeEvents(Device& device, short events) {
    switch (device.readiness()) {
    case Readiness::Ready: return short(events & (POLLIN | POLLRDNORM));
    case Readiness::Error: return POLLERR;
    default: return 0;
    }
}

bool anyNode(Registry& reg, const pollfd* fds, nfds_t n) {
    for (nfds_t i = 0; i < n; ++i)
        if (fds[i].fd >= 0 && findFile(reg, fds[i].fd)) return true;
    return false;
}

constexpr int64_t kOtherSliceNs = 10000000;  // how often other descriptors are looked at meanwhile

int msUntil(int64_t when_ns, int64_t now_ns) {
    if (when_ns <= now_ns) return 0;
    return int((when_ns - now_ns + 999999) / 1000000);
}

// poll over node descriptors and others: the node's readiness comes from its device, the others'
// from the kernel, looked at in short slices while the node has nothing. deadline_ns < 0 waits
// for ever. Called with the lock held; returns poll's result (errno set on failure).
int pollMixed(Registry& reg, RegistryLock& lock, pollfd* fds, nfds_t n, int64_t deadline_ns) {
    std::vector<pollfd> others(fds, fds + n);
    for (;;) {
        int ready = 0;
        bool any_other = false;
        int64_t wake = deadline_ns;
        for (nfds_t i = 0; i < n; ++i) {
            fds[i].revents = 0;
            others[i].fd = fds[i].fd;
            if (fds[i].fd < 0) continue;
            if (OpenEntry* entry = findFile(reg, fds[i].fd)) {
                Device& device = *entry->session->device;
                fds[i].revents = nodeEvents(device, fds[i].events);
                ready += fds[i].revents != 0;
                others[i].fd = -1;
                int64_t change = device.nextChangeNs();
                if (change >= 0 && (wake < 0 || change < wake)) wake = change;
            } else {
                any_other = true;
            }
        }
        int64_t now = monotonicNs();
        if (any_other) {
            int64_t slice_end = now + kOtherSliceNs;
            int slice = ready ? 0 : msUntil(wake >= 0 && wake < slice_end ? wake : slice_end, now);
            lock.unlock();
            int r = real::poll(others.data(), n, slice);
            int error = errno;
            lock.lock();
            if (r < 0) {
                errno = error;
                return -1;
            }
            for (nfds_t i = 0; i < n; ++i)
                if (others[i].fd >= 0) fds[i].revents = others[i].revents;
            ready += r;
        } else if (!ready) {
            if (wake < 0) lock.wait(reg.wake);
            else lock.waitUntil(reg.wake, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(wake)));
        }
        if (ready) return ready;
        if (deadline_ns >= 0 && monotonicNs() >= deadline_ns) return 0;
    }
}

// The node's members of epoll sets: the kernel cannot watch the node's memory file, so they are
// kept here (under the registry's lock) and waits on such a set are done as in pollMixed.
struct EpollMember {
    int fd;
    epoll_event event;
};
std::unordered_map<int, std::vector<EpollMember>> g_epoll_members;  // by epoll descriptor
std::atomic<int> g_epoll_sets{0};

std::vector<EpollMember>::iterator findMember(std::vector<EpollMember>& members, int fd) {
    auto it = members.begin();
    while (it != members.end() && it->fd != fd) ++it;
    return it;
}

// The node members of an epoll set that are ready, into events; members whose descriptor is no
// longer the node's are dropped, as the kernel drops closed ones.
int readyMembers(Registry& reg, std::vector<EpollMember>& members, epoll_event* events, int max) {
    int n = 0;
    for (auto it = members.begin(); it != members.end();) {
        OpenEntry* entry = findFile(reg, it->fd);
        if (!entry) {
            it = members.erase(it);
            continue;
        }
        uint32_t revents = uint16_t(nodeEvents(*entry->session->device, short(it->event.events & 0xffff)));
        if (revents && n < max) events[n++] = epoll_event{revents, it->event.data};
        ++it;
    }
    return n;
}

// The soonest time a member's readiness changes, or -1.
int64_t nextMemberChangeNs(Registry& reg, const std::vector<EpollMember>& members) {
    int64_t soonest = -1;
    for (const EpollMember& m : members) {
        const OpenEntry* entry = findFile(reg, m.fd);
        const int64_t change = entry ? entry->session->device->nextChangeNs() : -1;
        if (change >= 0 && (soonest < 0 || change < soonest)) soonest = change;
    }
    return soonest;
}

}  // namespace

bool interceptEpollCtl(int epfd, int op, int fd, struct epoll_event* event, int* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    Inside inside;  // a stale descriptor found here may end its session
    if (!findFile(reg, fd)) return false;
    std::vector<EpollMember>& members = g_epoll_members[epfd];
    auto it = findMember(members, fd);
    int error = 0;
    if (op == EPOLL_CTL_ADD) {
        if (it != members.end()) error = EEXIST;
        else if (!event) error = EFAULT;
        else members.push_back(EpollMember{fd, *event});
    } else if (it == members.end()) {
        error = op == EPOLL_CTL_MOD || op == EPOLL_CTL_DEL ? ENOENT : EINVAL;
    } else if (op == EPOLL_CTL_MOD) {
        if (event) it->event = *event;
        else error = EFAULT;
    } else if (op == EPOLL_CTL_DEL) {
        members.erase(it);
    } else {
        error = EINVAL;
    }
    if (members.empty()) g_epoll_members.erase(epfd);
    g_epoll_sets.store(int(g_epoll_members.size()));
    errno = error;
    *result = error ? -1 : 0;
    return true;
}

bool interceptEpollWait(int epfd, struct epoll_event* events, int max, int timeout_ms, const sigset_t* sigmask,
                        int* result) {
    if (t_inside || g_epoll_sets.load() == 0) return false;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    auto set = g_epoll_members.find(epfd);
    if (set == g_epoll_members.end() || max <= 0) return false;
    Inside inside;
    int64_t deadline = timeout_ms < 0 ? -1 : monotonicNs() + int64_t(timeout_ms) * 1000000;
    for (;;) {
        set = g_epoll_members.find(epfd);  // the set may have changed while the lock was released
        int n = set == g_epoll_members.end() ? 0 : readyMembers(reg, set->second, events, max);
        int64_t now = monotonicNs();
        int64_t wake = now + kOtherSliceNs;
        if (deadline >= 0 && deadline < wake) wake = deadline;
        int64_t change = set == g_epoll_members.end() ? -1 : nextMemberChangeNs(reg, set->second);
        if (change >= 0 && change < wake) wake = change;
        lock.unlock();
        int r = real::epoll_pwait(epfd, events + n, max - n, n ? 0 : msUntil(wake, now), sigmask);
        int error = errno;
        lock.lock();
        if (r < 0 && n == 0) {
            errno = error;
            *result = -1;
            return true;
        }
        n += r > 0 ? r : 0;
        if (n || (deadline >= 0 && monotonicNs() >= deadline)) {
            *result = n;
            return true;
        }
    }
}

void forgetEpollSet(int fd) {
    if (g_epoll_sets.load() == 0) return;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    g_epoll_members.erase(fd);
    g_epoll_sets.store(int(g_epoll_members.size()));
}

// The node has no read/write I/O: reading or writing it fails with EINVAL, as on a driver
// without V4L2_CAP_READWRITE.
bool interceptReadWrite(int fd, long* result) {
    if (t_inside || g_open_files.load() == 0) return false;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    Inside inside;  // a stale descriptor found here may end its session
    if (!findFile(reg, fd)) return false;
    errno = EINVAL;
    *result = -1;
    return true;
}

bool interceptPoll(struct pollfd* fds, nfds_t nfds, int timeout_ms, int* result) {
    if (t_inside || g_open_files.load() == 0 || !fds) return false;
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    if (!anyNode(reg, fds, nfds)) return false;
    Inside inside;  // rendering a frame that fell due reads the source's files
    int64_t deadline = timeout_ms < 0 ? -1 : monotonicNs() + int64_t(timeout_ms) * 1000000;
    *result = pollMixed(reg, lock, fds, nfds, deadline);
    if (reg.log) logResult(reg, -1, "poll", *result, errno);
    return true;
}

// select through poll: POLLERR counts as readable and writable, as the kernel's select has it.
bool interceptSelect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout,
                     int* result) {
    if (t_inside || g_open_files.load() == 0 || nfds <= 0) return false;
    if (nfds > FD_SETSIZE) nfds = FD_SETSIZE;
    std::vector<pollfd> fds;
    for (int fd = 0; fd < nfds; ++fd) {
        short events = 0;
        if (readfds && FD_ISSET(fd, readfds)) events |= POLLIN;
        if (writefds && FD_ISSET(fd, writefds)) events |= POLLOUT;
        if (exceptfds && FD_ISSET(fd, exceptfds)) events |= POLLPRI;
        if (events) fds.push_back(pollfd{fd, events, 0});
    }
    Registry& reg = registry();
    RegistryLock lock(reg.mutex);
    if (!anyNode(reg, fds.data(), fds.size())) return false;
    Inside inside;
    int64_t start = monotonicNs();
    int64_t deadline = timeout ? start + int64_t(timeout->tv_sec) * 1000000000 + int64_t(timeout->tv_usec) * 1000 : -1;
    int r = pollMixed(reg, lock, fds.data(), fds.size(), deadline);
    int error = errno;
    if (r > 0) {
        r = 0;
        for (const pollfd& p : fds) {
            if (p.revents & POLLNVAL) {
                r = -1;
                error = EBADF;
                break;
            }
        }
    }
    if (r >= 0) {
        if (readfds) FD_ZERO(readfds);
        if (writefds) FD_ZERO(writefds);
        if (exceptfds) FD_ZERO(exceptfds);
        for (const pollfd& p : fds) {
            if ((p.events & POLLIN) && (p.revents & (POLLIN | POLLRDNORM | POLLHUP | POLLERR))) FD_SET(p.fd, readfds), ++r;
            if ((p.events & POLLOUT) && (p.revents & (POLLOUT | POLLWRNORM | POLLERR))) FD_SET(p.fd, writefds), ++r;
            if ((p.events & POLLPRI) && (p.revents & POLLPRI)) FD_SET(p.fd, exceptfds), ++r;
        }
        if (timeout) {
            int64_t left = deadline - monotonicNs();
            if (left < 0) left = 0;
            timeout->tv_sec = time_t(left / 1000000000);
            timeout->tv_usec = suseconds_t(left % 1000000000 / 1000);
        }
    }
    if (reg.log) logResult(reg, -1, "select", r, error);
    errno = error;
    *result = r;
    return true;
}

}  // namespace node
}  // namespace vcam
}  // namespace orvo
