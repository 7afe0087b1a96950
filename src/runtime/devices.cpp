// orvo::list_devices(): finds the capture nodes that offer the camera's format and whether they are taken.
#include "orvo/devices.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "frame_geometry.h"
#include "v4l2_io.h"
#include "v4l2_stream.h"

namespace orvo {

namespace {

std::string text(const __u8* field, size_t size) {
    return std::string(reinterpret_cast<const char*>(field), strnlen(reinterpret_cast<const char*>(field), size));
}

bool offersCameraFormat(int fd) {
    for (unsigned i = 0;; ++i) {
        v4l2_fmtdesc desc;
        std::memset(&desc, 0, sizeof desc);
        desc.index = i;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (v4l2::retryIoctl(fd, VIDIOC_ENUM_FMT, &desc) == -1) return false;
        if (desc.pixelformat == V4L2_PIX_FMT_YUYV) break;
    }
    v4l2_frmsizeenum size;
    std::memset(&size, 0, sizeof size);
    size.pixel_format = V4L2_PIX_FMT_YUYV;
    for (size.index = 0; v4l2::retryIoctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
        if (size.type != V4L2_FRMSIZE_TYPE_DISCRETE) return true;  // a range: S_FMT decides
        if (size.discrete.width == unsigned(frame::kWidth) && size.discrete.height == unsigned(frame::kHeight))
            return true;
    }
    return false;
}

// Asking to free the buffers (count 0) takes nothing: a driver answers EBUSY when another open file
// owns the queue, and otherwise leaves the queue unowned.
bool queueTaken(int fd) {
    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof req);
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    return v4l2::retryIoctl(fd, VIDIOC_REQBUFS, &req) == -1 && errno == EBUSY;
}

bool probe(const std::string& node, DeviceInfo& info) {
    runtime::UniqueFd fd(::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) return false;
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (v4l2::retryIoctl(fd.get(), VIDIOC_QUERYCAP, &cap) == -1) return false;
    const uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_CAPTURE) || !(caps & V4L2_CAP_STREAMING)) return false;
    if (!offersCameraFormat(fd.get())) return false;
    info.node = node;
    info.card = text(cap.card, sizeof cap.card);
    info.bus_info = text(cap.bus_info, sizeof cap.bus_info);
    info.driver = text(cap.driver, sizeof cap.driver);
    info.busy = queueTaken(fd.get());
    return true;
}

}  // namespace

// /dev/video* in numeric order, then the virtual camera's nodes (ORVO_VCAM_DEVICE, a comma-separated
// list) that are not among them. Nodes that cannot be opened (absent or unplugged, or not ours to
// open) are left out.
std::vector<DeviceInfo> list_devices() {
    std::vector<std::string> nodes;
    if (DIR* dir = opendir("/dev")) {
        while (dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            if (name.compare(0, 5, "video") == 0 && name.size() > 5 &&
                std::all_of(name.begin() + 5, name.end(), [](char c) { return c >= '0' && c <= '9'; }))
                nodes.push_back("/dev/" + name);
        }
        closedir(dir);
    }
    std::sort(nodes.begin(), nodes.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    if (const char* vcam = std::getenv("ORVO_VCAM_DEVICE")) {
        std::stringstream list(vcam);
        std::string node;
        while (std::getline(list, node, ','))
            if (!node.empty() && std::find(nodes.begin(), nodes.end(), node) == nodes.end()) nodes.push_back(node);
    }
    std::vector<DeviceInfo> found;
    for (const std::string& node : nodes) {
        DeviceInfo info;
        if (probe(node, info)) found.push_back(std::move(info));
    }
    return found;
}

}  // namespace orvo
