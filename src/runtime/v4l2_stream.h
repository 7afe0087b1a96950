// A V4L2 capture stream that reports failures as orvo::Error and owns every resource it takes.
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvo {
namespace runtime {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd();
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_ = -1;
};

class Mapping {
public:
    Mapping(void* data, size_t length) : data_(data), length_(length) {}
    Mapping(Mapping&& o) noexcept : data_(o.data_), length_(o.length_) { o.data_ = nullptr; }
    Mapping& operator=(Mapping&&) = delete;
    Mapping(const Mapping&) = delete;
    ~Mapping();
    const uint8_t* data() const { return static_cast<const uint8_t*>(data_); }
    size_t length() const { return length_; }

private:
    void* data_;
    size_t length_;
};

// The outcome of one wait for a buffer.
enum class Dequeue { frame, timeout, woken, failed };

class V4l2Stream {
public:
    // Opens, checks, negotiates 752 x 480 YUYV at 30 fps, maps, queues and starts streaming.
    explicit V4l2Stream(const std::string& node);
    ~V4l2Stream();
    V4l2Stream(const V4l2Stream&) = delete;
    V4l2Stream& operator=(const V4l2Stream&) = delete;

    Dequeue wait(int wake_fd, int timeout_ms, v4l2_buffer& buf, int& err);
    const uint8_t* data(const v4l2_buffer& buf) const { return maps_[buf.index].data(); }
    size_t buffer_length(const v4l2_buffer& buf) const { return maps_[buf.index].length(); }
    int requeue(const v4l2_buffer& buf);

private:
    [[noreturn]] void fail(int err, const std::string& what) const;
    void negotiate();

    std::string node_;
    UniqueFd fd_;
    std::vector<Mapping> maps_;
    bool streaming_ = false;
};

// What to tell the user for a failed open or request on `node`.
std::string adviceFor(int err, const std::string& node);

}  // namespace runtime
}  // namespace orvo
