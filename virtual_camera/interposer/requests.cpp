// The table of V4L2 request codes and names.
#include "requests.h"

#include <linux/videodev2.h>

#include <cstdio>
#include <cstring>

namespace orvo {
namespace vcam {
namespace {

#define ORVO_REQ(name, emulated) {VIDIOC_##name, #name, emulated}

const RequestName kRequests[] = {
    ORVO_REQ(QUERYCAP, true),
    ORVO_REQ(CROPCAP, true),
    ORVO_REQ(S_CROP, true),
    ORVO_REQ(G_CROP, true),
    ORVO_REQ(S_FMT, true),
    ORVO_REQ(G_FMT, true),
    ORVO_REQ(TRY_FMT, true),
    ORVO_REQ(ENUM_FMT, true),
    ORVO_REQ(ENUM_FRAMESIZES, true),
    ORVO_REQ(ENUM_FRAMEINTERVALS, true),
    ORVO_REQ(G_PARM, true),
    ORVO_REQ(S_PARM, true),
    ORVO_REQ(REQBUFS, true),
    ORVO_REQ(QUERYBUF, true),
    ORVO_REQ(QBUF, true),
    ORVO_REQ(DQBUF, true),
    ORVO_REQ(STREAMON, true),
    ORVO_REQ(STREAMOFF, true),
    ORVO_REQ(ENUMINPUT, true),
    ORVO_REQ(G_INPUT, true),
    ORVO_REQ(S_INPUT, true),
    ORVO_REQ(QUERYCTRL, true),
    ORVO_REQ(G_CTRL, true),
    ORVO_REQ(S_CTRL, true),
    ORVO_REQ(G_SELECTION, true),
    ORVO_REQ(S_SELECTION, true),
    ORVO_REQ(G_PRIORITY, true),
    ORVO_REQ(S_PRIORITY, true),
    ORVO_REQ(LOG_STATUS, true),
    // Known only by name: a capture driver without these answers ENOTTY.
    ORVO_REQ(QUERY_EXT_CTRL, false),
    ORVO_REQ(G_EXT_CTRLS, false),
    ORVO_REQ(S_EXT_CTRLS, false),
    ORVO_REQ(TRY_EXT_CTRLS, false),
    ORVO_REQ(QUERYMENU, false),
    ORVO_REQ(G_STD, false),
    ORVO_REQ(S_STD, false),
    ORVO_REQ(ENUMSTD, false),
    ORVO_REQ(QUERYSTD, false),
    ORVO_REQ(EXPBUF, false),
    ORVO_REQ(CREATE_BUFS, false),
    ORVO_REQ(PREPARE_BUF, false),
    ORVO_REQ(G_JPEGCOMP, false),
    ORVO_REQ(S_JPEGCOMP, false),
    ORVO_REQ(ENUMAUDIO, false),
    ORVO_REQ(G_AUDIO, false),
    ORVO_REQ(SUBSCRIBE_EVENT, false),
    ORVO_REQ(DQEVENT, false),
    ORVO_REQ(G_FBUF, false),
    ORVO_REQ(OVERLAY, false),
};

#undef ORVO_REQ

constexpr size_t kCount = sizeof kRequests / sizeof kRequests[0];

}  // namespace

// The table entry of a request code, or null when the code is not a request we know.
const RequestName* findRequest(unsigned long code) {
    for (const RequestName& r : kRequests)
        if (r.code == code) return &r;
    return nullptr;
}

// The table entry of a name without its VIDIOC_ prefix, or null.
const RequestName* findRequest(const std::string& name) {
    for (const RequestName& r : kRequests)
        if (name == r.name) return &r;
    return nullptr;
}

size_t requestSlot(const RequestName* request) { return size_t(request - kRequests); }

size_t requestSlots() { return kCount; }

// "VIDIOC_NAME" for a known code; otherwise the code with its decoded type letter and number.
std::string describeRequest(unsigned long code) {
    if (const RequestName* r = findRequest(code)) return std::string("VIDIOC_") + r->name;
    char text[64];
    unsigned type = _IOC_TYPE(code);
    std::snprintf(text, sizeof text, "request 0x%lx (type '%c', nr %u)", code,
                  type >= 32 && type < 127 ? char(type) : '?', unsigned(_IOC_NR(code)));
    return text;
}

}  // namespace vcam
}  // namespace orvo
