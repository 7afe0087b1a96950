// Input, control, priority and status requests of the emulated device: one camera input, no
// controls, the access priorities of the open files (G/S_PRIORITY) and LOG_STATUS.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "device.h"
#include "device_fields.h"

namespace orvo {
namespace vcam {

int Device::enumInput(v4l2_input& in) {
    if (in.index != 0) return -EINVAL;
    std::memset(&in, 0, sizeof in);
    copyName(in.name, sizeof in.name, "Camera 1");
    in.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int Device::setInput(const OpenFile& file, int input) {
    if (input != 0) return -EINVAL;
    if (busy(file)) return -EBUSY;
    claim(file);
    return 0;
}

int Device::getInput(int& input) {
    input = 0;
    return 0;
}

// A camera without controls: every control id is unknown.
int Device::control(unsigned long) { return -EINVAL; }

// Every open file has an access priority, INTERACTIVE (the default) until it sets another. The
// highest of them is the node's; requests that change the device's settings are refused with
// EBUSY to a file below it (see Device::request).
void Device::opened(uint64_t file_id) { priorities_[file_id] = V4L2_PRIORITY_DEFAULT; }

int Device::getPriority(uint32_t& priority) const {
    priority = V4L2_PRIORITY_UNSET;
    for (const auto& p : priorities_)
        if (p.second > priority) priority = p.second;
    return 0;
}

bool Device::outranked(const OpenFile& file) const {
    auto it = priorities_.find(file.id);
    uint32_t own = it != priorities_.end() ? it->second : uint32_t(V4L2_PRIORITY_DEFAULT);
    uint32_t highest;
    getPriority(highest);
    return own < highest;
}

int Device::setPriority(const OpenFile& file, uint32_t priority) {
    if (priority < V4L2_PRIORITY_BACKGROUND || priority > V4L2_PRIORITY_RECORD) return -EINVAL;
    priorities_[file.id] = priority;
    return 0;
}

// What a driver writes to the kernel log, on standard error.
int Device::logStatus() const {
    std::fprintf(stderr, "orvo-vcam: status: %s, %zu buffers, %llu frames served, %llu dropped, %u/%u s per frame\n",
                 streaming_ ? "streaming" : "idle", buffers_.size(), static_cast<unsigned long long>(served_),
                 static_cast<unsigned long long>(dropped_), interval_.numerator, interval_.denominator);
    return 0;
}

}  // namespace vcam
}  // namespace orvo
