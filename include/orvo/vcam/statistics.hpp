// In-process view of the virtual camera's nodes, for programs that link it.
#pragma once

#include <cstdint>
#include <string>

namespace orvo {
namespace vcam {

struct Statistics {
    uint64_t sessions = 0;          // sessions started since the library was loaded
    bool active = false;            // a descriptor of the node is open
    bool present = true;            // false while the node is unplugged
    uint32_t open_descriptors = 0;
    bool streaming = false;
    uint64_t frames_served = 0;     // by the current session, or the last one when none is open
    uint64_t frames_dropped = 0;
};

// The node at `path` (all zero before it is first opened).
Statistics statistics(const std::string& path);
// The first node ORVO_VCAM_DEVICE lists, or the last one opened when it lists none.
Statistics statistics();

}  // namespace vcam
}  // namespace orvo
