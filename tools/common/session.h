// Which camera a command runs on (a device node or the virtual camera), its calibration, and
// opening it with clear errors before the library would end the process.
#pragma once

#include <memory>
#include <string>

#include <OrvoCamera.h>

#include "cli.h"

namespace orvo_tool {

constexpr const char* kVirtualNode = "/dev/orvo-virtual0";

struct DeviceChoice {
    std::string path = "/dev/video0";
    bool is_virtual = false;
    std::string source;  // ORVO_VCAM_SOURCE value: "" (built-in scene), pattern, raw:F, scene:F
};

struct CalibrationFiles {
    std::string intrinsics, extrinsics, fisheye;
    bool any() const { return !intrinsics.empty() || !extrinsics.empty() || !fisheye.empty(); }
    bool pinhole() const { return !intrinsics.empty() && !extrinsics.empty(); }
};

// Adds --device, --virtual[=SCENE] (and with calibration, --intrinsics/--extrinsics/--fisheye).
void addDeviceOptions(Command& cmd, bool with_calibration);

// Maps a --virtual value to a source: "", "pattern", "raw:F", "scene:F"; a bare file name is a
// recording when it ends in .raw and a scene otherwise.
std::string virtualSource(const std::string& value);

// With default_virtual, naming no device means the virtual camera's built-in scene.
DeviceChoice deviceFromArgs(const Args& args, bool default_virtual = false);
// Points the linked-in virtual camera at the chosen node and source (it reads them on open).
void activateVirtual(const DeviceChoice& device);

// Opens the node the way the library will and asks for its capabilities; throws RunError with a
// message that says what is wrong and what to try.
void probeDevice(const std::string& path);

// Runs `fn` with the library's progress chatter on standard output moved to standard error, so
// that a command's own results are all that standard output carries.
template <class Fn>
auto withLibraryOutputOnStderr(Fn&& fn) -> decltype(fn());

class Session {
public:
    // Parses the device and calibration options; with the virtual camera and no calibration
    // given, the virtual rig's own calibration is written to a private directory and used.
    enum Flags { kCalibration = 1, kDefaultVirtual = 2 };
    explicit Session(const Args& args, int flags = kCalibration);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const DeviceChoice& device() const { return device_; }
    const CalibrationFiles& calibration() const { return calibration_; }
    std::string describe() const;

    // Probes the device, then constructs the facade (which starts streaming).
    std::unique_ptr<OrvoCamera> open() const;

private:
    void useVirtualCalibration();
    DeviceChoice device_;
    CalibrationFiles calibration_;
    std::string scratch_dir_;
};

// Reads a calibration file through the library's reader and checks that every matrix of its
// layout is present; throws RunError naming the file and the missing keys. Returns a one-line
// summary such as "M1 3x3, D1 1x5, M2 3x3, D2 1x5".
std::string checkCalibrationFile(const std::string& path, int layout);

// ---- implementation of the template ----------------------------------------------------
class StdoutRedirect {
public:
    StdoutRedirect();
    ~StdoutRedirect();
    StdoutRedirect(const StdoutRedirect&) = delete;
    StdoutRedirect& operator=(const StdoutRedirect&) = delete;

private:
    int saved_ = -1;
};

template <class Fn>
auto withLibraryOutputOnStderr(Fn&& fn) -> decltype(fn()) {
    StdoutRedirect redirect;
    return fn();
}

}  // namespace orvo_tool
