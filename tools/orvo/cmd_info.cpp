// orvo info: what the camera node says about itself, asked with plain V4L2 requests, and whether
// the calibration files load.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "commands.h"
#include "imaging.h"
#include "session.h"

namespace orvo_tool {

namespace {

std::string fourcc(uint32_t f) {
    std::string s;
    for (int i = 0; i < 4; ++i) s += char((f >> (8 * i)) & 0xff);
    return s;
}

std::string capabilityNames(uint32_t caps) {
    struct Name {
        uint32_t bit;
        const char* text;
    };
    static const Name names[] = {{V4L2_CAP_VIDEO_CAPTURE, "video-capture"},
                                 {V4L2_CAP_VIDEO_OUTPUT, "video-output"},
                                 {V4L2_CAP_READWRITE, "read-write"},
                                 {V4L2_CAP_STREAMING, "streaming"},
                                 {V4L2_CAP_META_CAPTURE, "meta-capture"},
                                 {V4L2_CAP_EXT_PIX_FORMAT, "ext-pix-format"}};
    std::string out;
    for (const Name& n : names)
        if (caps & n.bit) out += std::string(out.empty() ? "" : " ") + n.text;
    return out.empty() ? "none" : out;
}

// Issues a request, retrying on EINTR; returns 0 or the errno.
int request(int fd, unsigned long req, void* arg) {
    for (;;) {
        if (ioctl(fd, req, arg) == 0) return 0;
        if (errno != EINTR) return errno;
    }
}

// ENOTTY means the driver does not implement the request: an answer, not a failure.
std::string unanswered(int err) {
    return err == ENOTTY ? "not supported by the driver" : std::string("error: ") + std::strerror(err);
}

void line(const char* key, const std::string& value) { std::printf("%-14s %s\n", key, value.c_str()); }

void reportNode(int fd) {
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    int err = request(fd, VIDIOC_QUERYCAP, &cap);
    if (err) throw RunError("VIDIOC_QUERYCAP: " + std::string(std::strerror(err)));
    char version[32];
    std::snprintf(version, sizeof version, "%u.%u.%u", (cap.version >> 16) & 0xff,
                  (cap.version >> 8) & 0xff, cap.version & 0xff);
    line("driver", reinterpret_cast<const char*>(cap.driver) + std::string(" ") + version);
    line("card", reinterpret_cast<const char*>(cap.card));
    line("bus", reinterpret_cast<const char*>(cap.bus_info));
    uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08x", caps);
    line("capabilities", std::string(hex) + " " + capabilityNames(caps));

    std::string formats;
    for (uint32_t i = 0; i < 64; ++i) {
        v4l2_fmtdesc d;
        std::memset(&d, 0, sizeof d);
        d.index = i;
        d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        err = request(fd, VIDIOC_ENUM_FMT, &d);
        if (err) {
            if (i == 0) formats = unanswered(err == EINVAL ? ENOTTY : err);
            break;
        }
        formats += std::string(formats.empty() ? "" : ", ") + fourcc(d.pixelformat) + " (" +
                   reinterpret_cast<const char*>(d.description) + ")";
    }
    line("formats", formats);

    v4l2_format fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    err = request(fd, VIDIOC_G_FMT, &fmt);
    if (err) {
        line("format", unanswered(err));
    } else {
        char buf[160];
        std::snprintf(buf, sizeof buf, "%ux%u %s, %u bytes per line, %u bytes per frame",
                      fmt.fmt.pix.width, fmt.fmt.pix.height, fourcc(fmt.fmt.pix.pixelformat).c_str(),
                      fmt.fmt.pix.bytesperline, fmt.fmt.pix.sizeimage);
        line("format", buf);
    }

    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    err = request(fd, VIDIOC_G_PARM, &parm);
    const v4l2_fract& tpf = parm.parm.capture.timeperframe;
    if (err) {
        line("frame rate", unanswered(err));
    } else if (tpf.numerator == 0 || tpf.denominator == 0) {
        line("frame rate", "not reported");
    } else {
        char buf[96];
        std::snprintf(buf, sizeof buf, "%.3f fps (%u/%u s per frame)%s",
                      double(tpf.denominator) / tpf.numerator, tpf.numerator, tpf.denominator,
                      (parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME) ? "" : ", fixed");
        line("frame rate", buf);
    }

    v4l2_cropcap crop;
    std::memset(&crop, 0, sizeof crop);
    crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    err = request(fd, VIDIOC_CROPCAP, &crop);
    if (err) {
        line("crop", unanswered(err));
    } else {
        char buf[96];
        std::snprintf(buf, sizeof buf, "default %ux%u at (%d,%d)", crop.defrect.width,
                      crop.defrect.height, crop.defrect.left, crop.defrect.top);
        line("crop", buf);
    }
}

// One line per file; false when a given file does not load.
bool reportCalibration(const CalibrationFiles& files, bool virtual_rig) {
    if (!files.any()) {
        line("calibration", "none given (images will not be rectified)");
        return true;
    }
    bool ok = true;
    auto check = [&](const char* key, const std::string& path, int layout) {
        try {
            std::string summary = checkCalibrationFile(path, layout);
            line(key, (virtual_rig ? std::string("virtual rig: ") : path + ": ") + "loads (" + summary + ")");
        } catch (const RunError& e) {
            line(key, std::string("FAILED: ") + e.what());
            ok = false;
        }
    };
    if (files.pinhole()) {
        check("intrinsics", files.intrinsics, ZUNCV_INTRINSICS);
        check("extrinsics", files.extrinsics, ZUNCV_EXTRINSICS);
        cv::Mat p;
        if (ok && getStereoCameraParameter(files.extrinsics, p) && p.total() == 5 && p.at<double>(0) != 0) {
            char buf[128];
            std::snprintf(buf, sizeof buf, "focal %.2f px, centre (%.2f, %.2f), baseline %.4f",
                          p.at<double>(0), p.at<double>(2), p.at<double>(3),
                          -p.at<double>(4) / p.at<double>(0));
            line("rectified", buf);
        }
    } else if (!files.fisheye.empty()) {
        check("fisheye", files.fisheye, ZUNCV_FISHEYE);
    }
    return ok;
}

void copyFile(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary);
    if (!in || !out || !(out << in.rdbuf()) || !out.flush()) throw RunError("cannot copy " + from + " to " + to);
}

// Keeps the calibration in use (for the virtual camera, its rig's) for other programs.
void saveCalibration(const CalibrationFiles& files, const std::string& dir) {
    if (!files.any()) throw RunError("no calibration to save");
    ensureDirectory(dir);
    if (files.pinhole()) {
        copyFile(files.intrinsics, joinPath(dir, "intrinsics.yml"));
        copyFile(files.extrinsics, joinPath(dir, "extrinsics.yml"));
        line("saved", joinPath(dir, "intrinsics.yml") + ", " + joinPath(dir, "extrinsics.yml"));
    } else {
        copyFile(files.fisheye, joinPath(dir, "fisheye.yml"));
        line("saved", joinPath(dir, "fisheye.yml"));
    }
}

}  // namespace

int runInfo(int argc, char** argv, int first) {
    Command cmd("orvo info", "[--device PATH | --virtual[=SCENE]] [calibration options]",
                "Shows the camera node's driver, capabilities, formats, current format and frame\n"
                "rate, asked with plain V4L2 requests (nothing is streamed), and checks that the\n"
                "calibration files load. Exits with 1 when the node or a file fails.\n"
                "--save-calibration copies the calibration in use (with --virtual and no files\n"
                "given: the virtual rig's) to DIR, for use with your own programs.");
    addDeviceOptions(cmd, true);
    cmd.option({"save-calibration", Value::Required, "DIR", "copy the calibration files in use to DIR", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    Session session(args);

    line("device", session.describe());
    probeDevice(session.device().path);
    int fd = ::open(session.device().path.c_str(), O_RDWR);
    if (fd < 0) throw RunError("cannot open " + session.device().path + ": " + std::strerror(errno));
    try {
        reportNode(fd);
    } catch (...) {
        ::close(fd);
        throw;
    }
    ::close(fd);
    bool virtual_rig = session.device().is_virtual && !args.has("intrinsics") && !args.has("fisheye");
    if (!reportCalibration(session.calibration(), virtual_rig && session.calibration().any()))
        return kExitFailure;
    if (args.has("save-calibration")) saveCalibration(session.calibration(), args.text("save-calibration"));
    return kExitOk;
}

}  // namespace orvo_tool
