// Names of the V4L2 requests the virtual camera knows, for its fault grammar, counters and log.
#pragma once

#include <cstddef>
#include <string>

namespace orvo {
namespace vcam {

struct RequestName {
    unsigned long code;
    const char* name;  // without the VIDIOC_ prefix
    bool emulated;     // answered by the node (others get ENOTTY but are still named in the log)
};

const RequestName* findRequest(unsigned long code);
const RequestName* findRequest(const std::string& name);
size_t requestSlot(const RequestName* request);  // dense index for per-request counters
size_t requestSlots();
std::string describeRequest(unsigned long code);

}  // namespace vcam
}  // namespace orvo
