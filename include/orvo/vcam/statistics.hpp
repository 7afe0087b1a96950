// In-process view of the virtual camera's node, for programs that link it.
#pragma once

#include <cstdint>

namespace orvo {
namespace vcam {

struct Statistics {
    uint64_t sessions = 0;          // sessions started since the library was loaded
    bool active = false;            // a descriptor of the node is open
    uint32_t open_descriptors = 0;
    bool streaming = false;
    uint64_t frames_served = 0;     // by the current session, or the last one when none is open
    uint64_t frames_dropped = 0;
};

Statistics statistics();

}  // namespace vcam
}  // namespace orvo
