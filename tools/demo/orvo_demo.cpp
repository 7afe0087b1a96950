// The demo: streams the built-in virtual scene (or a camera), rectifies, finds the nearest
// obstacle, tracks the attitude, prints one line per frame and writes a montage PNG.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <ZUNCVHelper.h>

#include "cli.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

using namespace orvo_tool;

namespace {

struct Options {
    int frames;
    std::string out;
    winpar region;
};

void printFrame(int i, unsigned int frame_time, const Nearest& n, const AttitudeTracker& att,
                size_t samples) {
    std::printf("frame %3d  ticks %10u  imu %2zu  ", i, frame_time, samples);
    if (n.found) std::printf("nearest x %+6.2f y %+6.2f z %5.2f m  ", n.point.x, n.point.y, n.point.z);
    else std::printf("nearest  (none in the box)            ");
    if (att.settled()) {
        cv::Vec3d e = eulerDegrees(att.quaternion());
        std::printf("roll %+6.1f pitch %+6.1f yaw %+6.1f deg\n", e[0], e[1], e[2]);
    } else {
        std::printf("attitude settling (%zu/500 samples)\n", att.steps());
    }
    std::fflush(stdout);
}

int run(int argc, char** argv) {
    Command cmd("orvo_demo", "[--out DIR] [--frames N] [--virtual[=SCENE] | --device PATH calibration options]",
                "Runs the whole SDK on the built-in virtual camera (no camera or display needed):\n"
                "gyro bias calibration, then per frame rectification, the nearest obstacle and the\n"
                "attitude, one line each; at the end DIR/montage.png shows the raw pair, the\n"
                "rectified pair with guide lines, the disparity and the polar plot of the last frame.");
    addDeviceOptions(cmd, true);
    addRegionOptions(cmd);
    cmd.option({"frames", Value::Required, "N", "frames after the gyro bias calibration", "90"});
    cmd.option({"out", Value::Required, "DIR", "where the montage goes (created if missing)", "out"});
    Args args = cmd.parse(argc, argv, 1);
    if (printedHelp(cmd, args)) return kExitOk;
    Options opt{args.positiveInt("frames", 90), args.text("out", "out"), regionFromArgs(args)};
    ensureDirectory(opt.out);

    Session session(args, Session::kCalibration | Session::kDefaultVirtual);
    std::printf("Orvo demo on the %s\n", session.describe().c_str());
    auto camera = session.open();
    std::printf("measuring the gyro bias over 100 frames...\n");
    std::fflush(stdout);
    withLibraryOutputOnStderr([&] { camera->setImuCorrection(0, 0, 0, 0, 0); });

    NearestSearch search(opt.region);
    AttitudeTracker attitude;
    Nearest nearest;
    bool rectified = false;
    std::vector<ImuData> samples;
    for (int i = 0; i < opt.frames; ++i) {
        rectified = camera->Grab();
        unsigned int frame_time = 0;
        camera->getImuRawData(samples, frame_time);
        attitude.feed(*camera, samples);
        if (rectified) nearest = search.run(*camera);
        printFrame(i, frame_time, nearest, attitude, samples.size());
    }

    cv::Mat o1, o2, r1, r2, disparity;
    camera->getOrgImage(o1, o2);
    camera->getRectImage(r1, r2);
    std::vector<Tile> tiles = {{"raw pair", combineTwoImg(o1, o2)}};
    if (rectified) {
        camera->getDisparity(disparity);
        tiles.push_back({"rectified pair", pairWithGuideLines(r1, r2)});
        tiles.push_back({"disparity (semi-global)", colourDisparity(disparity, 64)});
        // The forward half of the polar plot: every accepted point lies ahead of the camera.
        cv::Mat polar = search.polarPlot(*camera, nearest)(cv::Rect(0, 470, 1000, 530));
        char caption[96];
        if (nearest.found)
            std::snprintf(caption, sizeof caption, "nearest point per bearing: %.2f m ahead", nearest.point.z);
        else
            std::snprintf(caption, sizeof caption, "nearest point per bearing: none in the box");
        tiles.push_back({caption, polar});
    } else {
        std::printf("no calibration: no rectified pair, disparity or polar plot\n");
    }
    const std::string path = joinPath(opt.out, "montage.png");
    writePng(path, montage(tiles, 2, 900));
    std::printf("montage written to %s\n", path.c_str());
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "orvo_demo: %s\nTry 'orvo_demo --help'.\n", e.what());
        return kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvo_demo: %s\n", e.what());
        return kExitFailure;
    }
}
