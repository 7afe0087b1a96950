// orvo depth: per frame the semi-global disparity in colour, the polar plot of the nearest-point
// search, and the nearest point on standard output and in a CSV file.
#include <cstdio>
#include <fstream>

#include "commands.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

constexpr double kSgbmDisparities = 64;  // the facade's semi-global matcher searches 0..63

}  // namespace

int runDepth(int argc, char** argv, int first) {
    Command cmd("orvo depth", "[--frames N] [--out DIR] [region options] [--device PATH | --virtual[=SCENE]] [calibration options]",
                "Needs a calibrated camera. For each of N frames writes DIR/disparity_NNNN.png (the\n"
                "semi-global disparity: red near, blue far, black unmatched) and DIR/polar_NNNN.png\n"
                "(the nearest point per degree of bearing seen from above, camera at the centre,\n"
                "forward down, rings every metre), prints the nearest obstacle in the search box and\n"
                "appends it to DIR/nearest.csv (frame,frame_time,found,x,y,z; metres, z forward).");
    addDeviceOptions(cmd, true);
    addRegionOptions(cmd);
    cmd.option({"frames", Value::Required, "N", "frames to process", "1"});
    cmd.option({"skip", Value::Required, "N", "frames to drop first", "0"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 1);
    const int skip = args.count("skip", 0);
    const std::string out = args.text("out", ".");
    const winpar region = regionFromArgs(args);

    Session session(args);
    if (!session.calibration().any())
        throw UsageError("depth needs the camera's calibration: give --intrinsics and --extrinsics, or --fisheye");
    ensureDirectory(out);
    const std::string csv_path = joinPath(out, "nearest.csv");
    std::ofstream csv(csv_path);
    if (!csv) throw RunError("cannot write " + csv_path);
    csv << "frame,frame_time,found,x,y,z\n";

    auto camera = session.open();
    for (int i = 0; i < skip; ++i) camera->Grab();
    NearestSearch search(region);
    int found_count = 0;
    for (int i = 0; i < frames; ++i) {
        if (!camera->Grab()) throw RunError("the calibration did not give rectification maps");
        cv::Mat disparity;
        camera->getDisparity(disparity);
        writePng(joinPath(out, numbered("disparity", i, ".png")), colourDisparity(disparity, kSgbmDisparities));
        Nearest n = search.run(*camera);
        writePng(joinPath(out, numbered("polar", i, ".png")), search.polarPlot(*camera, n));

        char row[160];
        if (n.found) {
            ++found_count;
            std::printf("frame %d: nearest x %+.3f y %+.3f z %.3f\n", i, n.point.x, n.point.y, n.point.z);
            std::snprintf(row, sizeof row, "%d,%u,1,%.6f,%.6f,%.6f\n", i, camera->getImgTime(),
                          n.point.x, n.point.y, n.point.z);
        } else {
            std::printf("frame %d: nothing in the search box\n", i);
            std::snprintf(row, sizeof row, "%d,%u,0,,,\n", i, camera->getImgTime());
        }
        std::fflush(stdout);
        csv << row;
    }
    csv.close();
    if (!csv) throw RunError("cannot write " + csv_path);
    std::fprintf(stderr, "depth: %d of %d frames had an obstacle in the box; pictures and %s in %s\n",
                 found_count, frames, "nearest.csv", out.c_str());
    return kExitOk;
}

}  // namespace orvo_tool
