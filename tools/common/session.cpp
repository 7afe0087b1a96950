// Device choice, virtual camera activation, device probing and calibration checks.
#include "session.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <calib_layout.h>
#include <orvo/vcam/rig.hpp>
#include <orvo/vcam/scene.hpp>

namespace orvo_tool {

namespace {

bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string errnoText(int err) { return std::string(std::strerror(err)); }

// A hint for the usual reasons a node does not open.
std::string openHint(int err) {
    switch (err) {
        case ENOENT:
        case ENODEV:
        case ENXIO:
            return " (is the camera plugged in? list nodes with 'ls /dev/video*', or add --virtual "
                   "to use the virtual camera)";
        case EACCES:
        case EPERM:
            return " (no permission: add your user to the 'video' group and log in again)";
        case EBUSY:
            return " (another program is using the camera)";
        default:
            return "";
    }
}

bool readable(const std::string& path) {
    std::ifstream f(path);
    return f.good();
}

std::string makeScratchDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/orvo-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw RunError("cannot create a scratch directory: " + errnoText(errno));
    return buf.data();
}

void removeScratchDir(const std::string& dir) {
    for (const char* name : {"intrinsics.yml", "extrinsics.yml", "fisheye.yml"})
        unlink((dir + "/" + name).c_str());
    rmdir(dir.c_str());
}

}  // namespace

void addDeviceOptions(Command& cmd, bool with_calibration) {
    cmd.option({"device", Value::Required, "PATH",
                "camera node; with --virtual, the node name the virtual camera takes", "/dev/video0"});
    cmd.option({"virtual", Value::Optional, "SCENE",
                "run on the virtual camera: the built-in scene, or 'pattern', a scene file, a "
                "recording (FILE.raw or raw:FILE)", ""});
    if (!with_calibration) return;
    cmd.option({"intrinsics", Value::Required, "FILE", "stereo intrinsics file (M1 D1 M2 D2)", ""});
    cmd.option({"extrinsics", Value::Required, "FILE", "stereo extrinsics file (R T R1 R2 P1 P2)", ""});
    cmd.option({"fisheye", Value::Required, "FILE",
                "fisheye stereo file, used when the pinhole pair is not given", ""});
}

std::string virtualSource(const std::string& value) {
    if (value.empty() || value == "pattern") return value;
    if (value.compare(0, 4, "raw:") == 0 || value.compare(0, 6, "scene:") == 0) return value;
    if (endsWith(value, ".raw")) return "raw:" + value;
    return "scene:" + value;
}

DeviceChoice deviceFromArgs(const Args& args, bool default_virtual) {
    DeviceChoice d;
    d.is_virtual = args.has("virtual") || (default_virtual && !args.has("device"));
    if (d.is_virtual) {
        d.path = args.text("device", kVirtualNode);
        d.source = virtualSource(args.text("virtual"));
        const std::string file = d.source.substr(d.source.find(':') + 1);
        if (d.source.find(':') != std::string::npos && !readable(file))
            throw UsageError("--virtual: cannot read " + file);
    } else {
        d.path = args.text("device", d.path);
    }
    return d;
}

void activateVirtual(const DeviceChoice& device) {
    if (!device.is_virtual) return;
    setenv("ORVO_VCAM_DEVICE", device.path.c_str(), 1);
    setenv("ORVO_VCAM_SOURCE", device.source.c_str(), 1);
}

// Fails with the reason the library's constructor would have died of, in words a user can act on.
void probeDevice(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0) {
        int err = errno;
        throw RunError("cannot open " + path + ": " + errnoText(err) + openHint(err));
    }
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    int rc = ioctl(fd, VIDIOC_QUERYCAP, &cap);
    int err = errno;
    ::close(fd);
    if (rc < 0) {
        if (err == ENOTTY || err == EINVAL) throw RunError(path + " is not a V4L2 device");
        throw RunError("cannot query " + path + ": " + errnoText(err));
    }
    uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_CAPTURE)) throw RunError(path + " is not a video capture device");
    if (!(caps & V4L2_CAP_STREAMING)) throw RunError(path + " does not support streaming");
}

StdoutRedirect::StdoutRedirect() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    if (saved_ >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
}

StdoutRedirect::~StdoutRedirect() {
    std::fflush(stdout);
    if (saved_ < 0) return;
    dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
}

std::string checkCalibrationFile(const std::string& path, int layout) {
    if (!readable(path)) throw RunError("cannot read calibration file " + path + ": " + errnoText(errno));
    namespace slots = orvo::layout;
    const char* const* keys = slots::intrinsics::kKeys;
    size_t count = slots::intrinsics::kCount;
    if (layout == ZUNCV_EXTRINSICS) keys = slots::extrinsics::kKeys, count = slots::extrinsics::kCount;
    if (layout == ZUNCV_FISHEYE) keys = slots::fisheye::kKeys, count = slots::fisheye::kCount;
    std::vector<cv::Mat> mats;
    bool ok = false;
    try {
        // The reader prints progress lines for some layouts; keep them off our standard output.
        ok = withLibraryOutputOnStderr([&] { return readYML(path, zuncvFileType(layout), mats); });
    } catch (const cv::Exception& e) {
        throw RunError("calibration file " + path + " is not a valid OpenCV YAML file: " + e.msg);
    }
    if (!ok || mats.size() != count) throw RunError("cannot read calibration file " + path);
    std::string missing, summary;
    for (size_t i = 0; i < count; ++i) {
        if (mats[i].empty()) {
            missing += std::string(missing.empty() ? "" : ", ") + keys[i];
            continue;
        }
        summary += std::string(summary.empty() ? "" : ", ") + keys[i] + " " +
                   std::to_string(mats[i].rows) + "x" + std::to_string(mats[i].cols);
    }
    if (!missing.empty()) throw RunError("calibration file " + path + " lacks " + missing);
    return summary;
}

Session::Session(const Args& args, int flags)
    : device_(deviceFromArgs(args, (flags & kDefaultVirtual) != 0)) {
    if (flags & kCalibration) {
        calibration_.intrinsics = args.text("intrinsics");
        calibration_.extrinsics = args.text("extrinsics");
        calibration_.fisheye = args.text("fisheye");
        if (calibration_.intrinsics.empty() != calibration_.extrinsics.empty())
            throw UsageError("--intrinsics and --extrinsics go together");
        if (!calibration_.any() && device_.is_virtual) useVirtualCalibration();
    }
    activateVirtual(device_);
}

// The calibration the virtual camera's scene is meant to be used with: the files a scene file names
// when they exist (they may be deliberately wrong), otherwise its rig's own, written to a private
// directory. Patterns and recordings carry no rig: they run uncalibrated unless files are given.
void Session::useVirtualCalibration() {
    orvo::vcam::Scene scene;
    const std::string& src = device_.source;
    if (src.compare(0, 6, "scene:") == 0) {
        std::string error;
        if (!orvo::vcam::loadScene(src.substr(6), scene, &error)) throw RunError(error);
        const orvo::vcam::SceneCalibration& named = scene.calibration;
        if (!named.intrinsics.empty() && readable(named.intrinsics) && readable(named.extrinsics)) {
            calibration_.intrinsics = named.intrinsics;
            calibration_.extrinsics = named.extrinsics;
            return;
        }
        if (named.intrinsics.empty() && !named.fisheye.empty() && readable(named.fisheye)) {
            calibration_.fisheye = named.fisheye;
            return;
        }
    } else if (src.empty()) {
        scene = orvo::vcam::defaultScene();
    } else {
        return;
    }
    scratch_dir_ = makeScratchDir();
    const orvo::vcam::Rig rig(scene.rig);
    bool ok;
    if (scene.rig.fisheye) {
        calibration_.fisheye = scratch_dir_ + "/fisheye.yml";
        ok = rig.writeFisheye(calibration_.fisheye);
    } else {
        calibration_.intrinsics = scratch_dir_ + "/intrinsics.yml";
        calibration_.extrinsics = scratch_dir_ + "/extrinsics.yml";
        ok = rig.writeStereo(calibration_.intrinsics, calibration_.extrinsics);
    }
    if (!ok) throw RunError("cannot write the virtual rig's calibration to " + scratch_dir_);
}

Session::~Session() {
    if (!scratch_dir_.empty()) removeScratchDir(scratch_dir_);
}

std::string Session::describe() const {
    if (!device_.is_virtual) return device_.path;
    std::string src = device_.source.empty() ? "built-in scene" : device_.source;
    return "virtual camera (" + src + ") at " + device_.path;
}

std::unique_ptr<OrvoCamera> Session::open() const {
    if (calibration_.pinhole()) {
        checkCalibrationFile(calibration_.intrinsics, ZUNCV_INTRINSICS);
        checkCalibrationFile(calibration_.extrinsics, ZUNCV_EXTRINSICS);
    } else if (!calibration_.fisheye.empty()) {
        checkCalibrationFile(calibration_.fisheye, ZUNCV_FISHEYE);
    }
    probeDevice(device_.path);
    OrvoCameraParameterList params;
    params.device_path = device_.path;
    params.intrinsics_file = calibration_.intrinsics;
    params.extrinsics_file = calibration_.extrinsics;
    params.fisheye_file = calibration_.fisheye;
    return withLibraryOutputOnStderr([&] { return std::make_unique<OrvoCamera>(params); });
}

}  // namespace orvo_tool
