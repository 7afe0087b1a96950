// Input and control requests of the emulated device: one camera input, no controls.
#include <cerrno>
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

}  // namespace vcam
}  // namespace orvo
