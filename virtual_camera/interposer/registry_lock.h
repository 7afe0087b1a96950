// The lock on the virtual camera's shared state, held so that ThreadSanitizer sees it wherever it is taken.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__SANITIZE_THREAD__)
#define ORVO_VCAM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVO_VCAM_TSAN 1
#endif
#endif

#ifdef ORVO_VCAM_TSAN
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

namespace orvo {
namespace vcam {

// A unique_lock on the mutex that also states each acquire and release to ThreadSanitizer.
// ThreadSanitizer's own poll() calls ours as a blocking call, during which it ignores the
// pthread calls made, mutex and condition variable included; without these statements every
// access made under the lock from poll() would look unsynchronised (a program that links this
// library, as the tests do, finds ThreadSanitizer's poll first and ours behind it). Elsewhere they
// only repeat what ThreadSanitizer already saw. Stating the lock here, rather than suppressing
// reports that pass through this library, keeps every race between the SDK and the virtual camera
// (the buffers they share, the descriptors) visible: scripts/sanitizer/tsan.supp names none of ours.
class RegistryLock {
public:
    explicit RegistryLock(std::mutex& mutex) : lock_(mutex) { acquired(); }
    ~RegistryLock() {
        if (lock_.owns_lock()) released();
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    void lock() {
        lock_.lock();
        acquired();
    }
    void unlock() {
        released();
        lock_.unlock();
    }
    void wait(std::condition_variable& cv) {
        released();
        cv.wait(lock_);
        acquired();
    }
    void waitUntil(std::condition_variable& cv, std::chrono::steady_clock::time_point when) {
        released();
        cv.wait_until(lock_, when);
        acquired();
    }

private:
#ifdef ORVO_VCAM_TSAN
    void acquired() { __tsan_acquire(lock_.mutex()); }
    void released() { __tsan_release(lock_.mutex()); }
#else
    void acquired() {}
    void released() {}
#endif
    std::unique_lock<std::mutex> lock_;
};

}  // namespace vcam
}  // namespace orvo
