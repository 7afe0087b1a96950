// Format requests of the emulated device: capabilities, cropping, the pixel format and the
// frame interval (QUERYCAP, CROPCAP, G/S_CROP, G/S_SELECTION, ENUM/G/S/TRY_FMT, ENUM_FRAMESIZES/INTERVALS, G/S_PARM).
#include <linux/version.h>

#include <cmath>
#include <cstring>

#include "device.h"
#include "device_fields.h"
#include "frame_geometry.h"

namespace orvo {
namespace vcam {
namespace {

using namespace orvo::frame;

constexpr uint32_t kSupportedRates[] = {60, 30, 15, 10, 5};

// The one format the camera streams, whatever was asked for.
void fillPixFormat(v4l2_format& f) {
    std::memset(&f.fmt, 0, sizeof f.fmt);
    v4l2_pix_format& p = f.fmt.pix;
    p.width = kWidth;
    p.height = kHeight;
    p.pixelformat = V4L2_PIX_FMT_YUYV;
    p.field = V4L2_FIELD_NONE;
    p.bytesperline = uint32_t(kBytesPerLine);
    p.sizeimage = uint32_t(kBytes);
    p.colorspace = V4L2_COLORSPACE_SRGB;
    p.priv = V4L2_PIX_FMT_PRIV_MAGIC;
}

// The supported frame interval nearest to the one asked for; 0/0 (or any zero term) asks for the
// default.
v4l2_fract nearestInterval(v4l2_fract asked) {
    if (asked.numerator == 0 || asked.denominator == 0) return {1, uint32_t(kFps)};
    double want = double(asked.numerator) / double(asked.denominator);
    uint32_t best = kSupportedRates[0];
    for (uint32_t rate : kSupportedRates)
        if (std::fabs(1.0 / rate - want) < std::fabs(1.0 / best - want)) best = rate;
    return {1, best};
}

// The cropping and selection requests take the multi-planar capture type for the single-planar
// one, as the kernel maps it for every driver.
bool isCropType(uint32_t type) { return type == kCapture || type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE; }

}  // namespace

int Device::querycap(v4l2_capability& cap, uint64_t call) {
    std::memset(&cap, 0, sizeof cap);
    copyName(cap.driver, sizeof cap.driver, "orvo_vcam");
    copyName(cap.card, sizeof cap.card, kCardName);
    copyName(cap.bus_info, sizeof cap.bus_info, "platform:orvo-vcam");
    cap.version = LINUX_VERSION_CODE;
    uint32_t caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    if (faults_.find(FaultAction::NoCapture, call)) caps &= ~uint32_t(V4L2_CAP_VIDEO_CAPTURE);
    if (faults_.find(FaultAction::NoStreaming, call)) caps &= ~uint32_t(V4L2_CAP_STREAMING);
    cap.device_caps = caps;
    cap.capabilities = caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int Device::cropcap(v4l2_cropcap& cc) {
    if (!isCropType(cc.type)) return -EINVAL;
    cc.bounds = {0, 0, uint32_t(kWidth), uint32_t(kHeight)};
    cc.defrect = cc.bounds;
    cc.pixelaspect = {1, 1};
    return 0;
}

// The sensor has no cropping: its crop rectangle is the full frame, and any other asked for is
// adjusted to it.
int Device::crop(v4l2_crop& c, bool) {
    if (!isCropType(c.type)) return -EINVAL;
    c.c = {0, 0, uint32_t(kWidth), uint32_t(kHeight)};
    return 0;
}

// The selection view of the same: the crop targets all give the full frame, setting one adjusts
// to it; there is no composing.
int Device::selection(v4l2_selection& s, bool set) {
    if (!isCropType(s.type)) return -EINVAL;
    bool crop_target = s.target == V4L2_SEL_TGT_CROP ||
                       (!set && (s.target == V4L2_SEL_TGT_CROP_DEFAULT || s.target == V4L2_SEL_TGT_CROP_BOUNDS));
    if (!crop_target) return -EINVAL;
    std::memset(s.reserved, 0, sizeof s.reserved);
    s.r = {0, 0, uint32_t(kWidth), uint32_t(kHeight)};
    return 0;
}

int Device::setFormat(const OpenFile& file, v4l2_format& f) {
    if (f.type != kCapture) return -EINVAL;
    if (busy(file) || !buffers_.empty()) return -EBUSY;
    claim(file);
    fillPixFormat(f);
    return 0;
}

int Device::getFormat(v4l2_format& f, bool) {
    if (f.type != kCapture) return -EINVAL;
    fillPixFormat(f);
    return 0;
}

int Device::enumFormat(v4l2_fmtdesc& d) {
    if (d.type != kCapture || d.index != 0) return -EINVAL;
    uint32_t index = d.index, type = d.type;
    std::memset(&d, 0, sizeof d);
    d.index = index;
    d.type = type;
    copyName(d.description, sizeof d.description, "YUYV 4:2:2");
    d.pixelformat = V4L2_PIX_FMT_YUYV;
    return 0;
}

int Device::enumFrameSizes(v4l2_frmsizeenum& e) {
    if (e.index != 0 || e.pixel_format != V4L2_PIX_FMT_YUYV) return -EINVAL;
    std::memset(e.reserved, 0, sizeof e.reserved);
    e.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    e.discrete = {uint32_t(kWidth), uint32_t(kHeight)};
    return 0;
}

int Device::enumFrameIntervals(v4l2_frmivalenum& e) {
    constexpr uint32_t n = sizeof kSupportedRates / sizeof kSupportedRates[0];
    if (e.pixel_format != V4L2_PIX_FMT_YUYV || e.width != uint32_t(kWidth) || e.height != uint32_t(kHeight) ||
        e.index >= n)
        return -EINVAL;
    std::memset(e.reserved, 0, sizeof e.reserved);
    e.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    e.discrete = {1, kSupportedRates[e.index]};
    return 0;
}

int Device::getParm(v4l2_streamparm& p) {
    if (p.type != kCapture) return -EINVAL;
    std::memset(&p.parm, 0, sizeof p.parm);
    p.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p.parm.capture.timeperframe = interval_;
    return 0;
}

int Device::setParm(const OpenFile& file, v4l2_streamparm& p) {
    if (p.type != kCapture) return -EINVAL;
    if (busy(file) || streaming_) return -EBUSY;
    claim(file);
    interval_ = nearestInterval(p.parm.capture.timeperframe);
    return getParm(p);
}

}  // namespace vcam
}  // namespace orvo
