// The orvo command-line tool: dispatches to a subcommand and turns failures into exit statuses.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <opencv2/core.hpp>

#include "cli.h"
#include "commands.h"

using namespace orvo_tool;

namespace {

struct Subcommand {
    const char* name;
    int (*run)(int, char**, int);
    const char* summary;
};

const Subcommand kSubcommands[] = {
    {"list", runList, "the camera nodes present, their card and bus, and whether they are busy"},
    {"info", runInfo, "the camera node's capabilities, format and frame rate; calibration check"},
    {"grab", runGrab, "save original and rectified image pairs as PNG"},
    {"depth", runDepth, "disparity images, polar plots and the nearest obstacle per frame"},
    {"imu", runImu, "gyro bias calibration, inertial samples and attitude as CSV and a plot"},
    {"record", runRecord, "record raw frames to a file the virtual camera can replay"},
    {"calibrate", runCalibrate, "stereo calibration from chessboard image pairs"},
    {"view", runView, "a live viewer in the browser: images, depth, 3-D cloud, IMU and health"},
    {"check", runCheck, "how well the rectified pair lines up: row error of matched features"},
    {"vcam", runVcam, "run any program (v4l2-ctl, GStreamer, ffmpeg...) with the virtual camera"},
};

void printUsage(FILE* to) {
    std::fprintf(to,
                 "Usage: orvo COMMAND [OPTIONS]\n\n"
                 "Tools for the Orvo stereo camera. Every command works on a camera node\n"
                 "(--device PATH) or on the built-in virtual camera (--virtual).\n\nCommands:\n");
    for (const Subcommand& s : kSubcommands) std::fprintf(to, "  %-10s %s\n", s.name, s.summary);
    std::fprintf(to,
                 "\nRun 'orvo COMMAND --help' for a command's options.\n"
                 "Exit status: 0 success, 1 failure, 2 bad arguments, 3 check over its limit.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        printUsage(argc < 2 ? stderr : stdout);
        return argc < 2 ? kExitUsage : kExitOk;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("orvo %s\n", ORVO_VERSION);
        return kExitOk;
    }
    const std::string name = argv[1];
    for (const Subcommand& s : kSubcommands) {
        if (name != s.name) continue;
        try {
            return s.run(argc, argv, 2);
        } catch (const UsageError& e) {
            std::fprintf(stderr, "orvo %s: %s\nTry 'orvo %s --help'.\n", s.name, e.what(), s.name);
            return kExitUsage;
        } catch (const RunError& e) {
            std::fprintf(stderr, "orvo %s: %s\n", s.name, e.what());
            return kExitFailure;
        } catch (const cv::Exception& e) {
            std::fprintf(stderr, "orvo %s: OpenCV error: %s\n", s.name, e.what());
            return kExitFailure;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "orvo %s: %s\n", s.name, e.what());
            return kExitFailure;
        }
    }
    std::fprintf(stderr, "orvo: unknown command '%s'\n\n", name.c_str());
    printUsage(stderr);
    return kExitUsage;
}
