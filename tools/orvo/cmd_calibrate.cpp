// orvo calibrate: chessboard image pairs in, the two calibration files out, through the library's
// interactive procedure (which shows every board and every rectified pair and waits for a key).
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commands.h"
#include "image_pairs.h"
#include "imaging.h"
#include "session.h"
#include "unattended.h"

namespace orvo_tool {

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string absolute(const std::string& path) {
    char buf[PATH_MAX];
    if (realpath(path.c_str(), buf)) return buf;
    if (!path.empty() && path[0] == '/') return path;
    if (!getcwd(buf, sizeof buf)) return path;
    return joinPath(buf, path);
}

}  // namespace

int runCalibrate(int argc, char** argv, int first) {
    Command cmd("orvo calibrate", "--images DIR|LIST --board WxH --square SIZE [--out DIR] [--batch]",
                "Calibrates the stereo camera from photographs of a chessboard. DIR holds pairs\n"
                "named leftXX/rightXX or firstXX/secondXX (as 'orvo grab --separate' writes them);\n"
                "a LIST file names the images one per line, left then right. --board counts the\n"
                "inner corners (9x6 for a board of 10 x 7 squares); --square is the side of a square\n"
                "in the unit you want distances in (metres: 0.025). Each board is shown with its\n"
                "corners (any key: next; q or Esc: abandon), then each rectified pair (q: finish).\n"
                "Writes DIR/params/intrinsics.yml and DIR/params/extrinsics.yml. --batch answers\n"
                "the windows itself, on a virtual display when there is none (needs Xvfb, xdotool).\n"
                "The procedure runs inside a camera session: by default the virtual camera.");
    addDeviceOptions(cmd, false);
    cmd.option({"images", Value::Required, "DIR|LIST", "image pairs: a directory or a list file", ""});
    cmd.option({"board", Value::Required, "WxH", "inner corners per row x per column", ""});
    cmd.option({"square", Value::Required, "SIZE", "side of one square (sets the unit of distances)", ""});
    cmd.option({"out", Value::Required, "DIR", "where params/ is written (created if missing)", "."});
    cmd.option({"batch", Value::None, "", "run unattended: press every key for the operator", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    if (!args.has("images")) throw UsageError("--images is required");
    if (!args.has("board")) throw UsageError("--board is required");
    if (!args.has("square")) throw UsageError("--square is required");
    int board_w = 0, board_h = 0;
    parseSize("board", args.text("board"), board_w, board_h);
    const float square = float(args.positiveNumber("square", 0));

    const std::string source = args.text("images");
    std::vector<std::string> images = isDirectory(source) ? pairsFromDirectory(source) : imagesFromList(source);
    if (images.size() % 2) throw UsageError("the image list has an odd number of names; it alternates left and right");
    if (images.size() < 4)
        throw UsageError("calibration needs at least 2 image pairs; " + source + " gives " +
                         std::to_string(images.size() / 2));
    for (std::string& name : images) {
        if (access(name.c_str(), R_OK) != 0) std::fprintf(stderr, "calibrate: cannot read %s; its pair will be skipped\n", name.c_str());
        name = absolute(name);
    }

    const bool batch = args.has("batch");
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (!batch && !(wayland && *wayland)) {
        if (!(display && *display))
            throw UsageError("calibrate shows each board in a window and waits for a key, and no display "
                             "was found (DISPLAY is not set); run it on a desktop or add --batch");
        if (!displayReachable(display))
            throw UsageError(std::string("calibrate shows each board in a window and waits for a key, and the "
                                         "display ") + display + " does not answer; run it on a desktop or add --batch");
    }

    // The procedure runs inside a camera session; without a camera named, the virtual one hosts it.
    Session session(args, Session::kDefaultVirtual);
    const DeviceChoice& device = session.device();

    const std::string out = absolute(args.text("out", "."));
    ensureDirectory(joinPath(out, "params"));
    const std::string intrinsics = joinPath(out, "params/intrinsics.yml");
    const std::string extrinsics = joinPath(out, "params/extrinsics.yml");
    unlink(intrinsics.c_str());
    unlink(extrinsics.c_str());

    std::unique_ptr<VirtualDisplay> screen;
    std::unique_ptr<KeyFeeder> feeder;
    if (batch) {
        screen = std::make_unique<VirtualDisplay>();
        feeder = std::make_unique<KeyFeeder>("^(corners|rectified)$", 150);
    }

    probeDevice(device.path);
    OrvoCameraParameterList params;
    params.device_path = device.path;
    auto camera = withLibraryOutputOnStderr([&] { return std::make_unique<OrvoCamera>(params); });

    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) throw RunError("cannot tell the working directory");
    if (chdir(out.c_str()) != 0) throw RunError("cannot enter " + out + ": " + std::strerror(errno));
    std::fprintf(stderr, "calibrate: %zu pairs, board %dx%d, square %g%s\n", images.size() / 2, board_w,
                 board_h, double(square), batch ? " (unattended)" : "");
    std::fflush(stderr);
    camera->StartStereoCalib(images, cv::Size(board_w, board_h), square);
    std::fflush(stdout);
    if (chdir(cwd) != 0) throw RunError("cannot return to " + std::string(cwd));
    feeder.reset();
    camera.reset();
    screen.reset();

    if (access(intrinsics.c_str(), R_OK) != 0 || access(extrinsics.c_str(), R_OK) != 0)
        throw RunError("no calibration written: see the messages above (too few boards found?)");
    cv::Mat p;
    std::printf("calibration written to %s and %s\n", intrinsics.c_str(), extrinsics.c_str());
    if (getStereoCameraParameter(extrinsics, p) && p.total() == 5 && p.at<double>(0) != 0)
        std::printf("focal %.2f px, baseline %.5f (unit of --square)\n", p.at<double>(0),
                    -p.at<double>(4) / p.at<double>(0));
    std::printf("try it: orvo check --intrinsics %s --extrinsics %s\n", intrinsics.c_str(), extrinsics.c_str());
    return kExitOk;
}

}  // namespace orvo_tool
