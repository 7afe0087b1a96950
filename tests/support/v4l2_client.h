// A bare V4L2 capture client for the tests: the requests a capture program issues, errno kept.
#pragma once

#include <fcntl.h>
#include <linux/videodev2.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orvo_test {

// Sets (or, with a null value, unsets) environment variables and restores them on destruction.
class ScopedEnv {
public:
    ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::vector<std::pair<std::string, std::pair<bool, std::string>>> saved_;
};

// The virtual camera at `device`, free-running from `source`, with `faults` (none when null), no
// truth file and no log.
struct VirtualNode : ScopedEnv {
    explicit VirtualNode(const char* device, const char* source = "pattern", const char* faults = nullptr)
        : ScopedEnv{{"ORVO_VCAM_DEVICE", device},   {"ORVO_VCAM_SOURCE", source},     {"ORVO_VCAM_FPS", "0"},
                    {"ORVO_VCAM_FAULTS", faults},   {"ORVO_VCAM_TRUTH", nullptr},     {"ORVO_VCAM_TRUTH_BOX", nullptr},
                    {"ORVO_VCAM_LOG", nullptr}} {}
};

class V4l2Client {
public:
    explicit V4l2Client(const char* path, int flags = O_RDWR);
    ~V4l2Client();
    V4l2Client(const V4l2Client&) = delete;
    V4l2Client& operator=(const V4l2Client&) = delete;

    int fd() const { return fd_; }
    int openError() const { return open_error_; }  // errno of the open, 0 when it succeeded

    // Each returns 0 or the errno of the failed request.
    int call(unsigned long request, void* arg);
    int setFormat(uint32_t width = 752, uint32_t height = 480, uint32_t fourcc = V4L2_PIX_FMT_YUYV,
                  v4l2_format* out = nullptr);
    int requestBuffers(uint32_t count, uint32_t* granted = nullptr);
    int query(uint32_t index, v4l2_buffer* b);
    int mapAll();  // maps every granted buffer read-only, as the capture class does
    int queue(uint32_t index, v4l2_buffer* out = nullptr);
    int queueAll();
    int streamOn();
    int streamOff();
    int dequeue(v4l2_buffer* b);
    // The usual start: format, `count` buffers mapped and queued, streaming.
    int start(uint32_t count = 6);

    const uint8_t* data(uint32_t index) const { return static_cast<const uint8_t*>(maps_[index]); }
    void unmapAll();
    int close();  // 0 or errno; the descriptor is forgotten either way

private:
    int fd_ = -1;
    int open_error_ = 0;
    std::vector<void*> maps_;
    std::vector<uint32_t> lengths_;
};

}  // namespace orvo_test
