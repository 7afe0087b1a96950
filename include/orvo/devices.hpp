// orvo::list_devices(): the capture nodes present that speak the camera's format.
#pragma once

#include <string>
#include <vector>

#include "orvo/export.hpp"

namespace orvo {

struct DeviceInfo {
    std::string node;
    std::string card;
    std::string bus_info;
    std::string driver;
    bool busy = false;
};

ORVO_API std::vector<DeviceInfo> list_devices();

}  // namespace orvo
