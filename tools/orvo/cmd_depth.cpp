// orvo depth: per frame the metric depth of orvo::StereoMatcher in colour, as float images and on
// request as point clouds and beside the virtual scene's truth; with --classic the facade's
// semi-global disparity and its nearest-point search as before.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <orvo/point_cloud.hpp>

#include "commands.h"
#include "imaging.h"
#include "metric_depth.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

constexpr double kSgbmDisparities = 64;  // the facade's semi-global matcher searches 0..63

// A CV_32F image (metres or pixels, NaN where unknown) as a 32-bit float TIFF.
void writeFloat(const std::string& path, const cv::Mat& image) {
    if (!cv::imwrite(path, image)) throw RunError("cannot write " + path);
}

// The classic path: the facade's disparity, the nearest point in the box, nearest.csv.
void classicFrames(Session& session, const Args& args, int frames, int skip, const std::string& out) {
    const winpar region = regionFromArgs(args);
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
}

// Median |depth - truth| over pixels valid in both, and how many there were.
double medianError(const cv::Mat& depth, const cv::Mat& truth, size_t& count) {
    std::vector<float> e;
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x) {
            const float d = depth.at<float>(y, x), t = truth.at<float>(y, x);
            if (!std::isnan(d) && !std::isnan(t)) e.push_back(std::fabs(d - t));
        }
    count = e.size();
    if (e.empty()) return NAN;
    std::nth_element(e.begin(), e.begin() + long(e.size() / 2), e.end());
    return e[e.size() / 2];
}

void matcherFrames(Session& session, const Args& args, int frames, int skip, const std::string& out) {
    const double near_m = args.positiveNumber("near", 0.5);
    const double far_m = args.positiveNumber("far", 6.0);
    if (far_m <= near_m) throw UsageError("--far must be beyond --near");
    MetricDepth metric(session);
    metric.forEachFrame(session, frames, skip, [&](int i, const orvo::Depth& d, const cv::Mat& left) {
        writePng(joinPath(out, numbered("depth", i, ".png")), colourDepth(d.depth, near_m, far_m));
        writeFloat(joinPath(out, numbered("depth", i, ".tiff")), d.depth);
        size_t points = 0;
        if (args.has("ply")) points = orvo::write_ply(joinPath(out, numbered("cloud", i, ".ply")), d.points, left);
        if (args.has("pcd")) points = orvo::write_pcd(joinPath(out, numbered("cloud", i, ".pcd")), d.points, left);
        const double valid = double(cv::countNonZero(d.confidence)) / double(d.confidence.total());
        std::printf("frame %d: %.1f %% of pixels with depth", i, 100 * valid);
        if (points) std::printf(", %zu points written", points);
        if (args.has("truth")) {
            const orvo::vcam::DepthTruth truth = sceneTruth(session, metric.calibration(), skip + i);
            writePng(joinPath(out, numbered("truth_depth", i, ".png")), colourDepth(truth.depth, near_m, far_m));
            writeFloat(joinPath(out, numbered("truth_depth", i, ".tiff")), truth.depth);
            writeFloat(joinPath(out, numbered("truth_disparity", i, ".tiff")), truth.disparity);
            size_t n = 0;
            const double error = medianError(d.depth, truth.depth, n);
            std::printf(", median |depth - truth| %.1f mm over %zu pixels", 1e3 * error, n);
        }
        std::printf("\n");
        std::fflush(stdout);
    });
    std::fprintf(stderr, "depth: %d frames in %s\n", frames, out.c_str());
}

}  // namespace

int runDepth(int argc, char** argv, int first) {
    Command cmd("orvo depth", "[--frames N] [--out DIR] [--ply] [--pcd] [--truth] [--classic [region options]] [--device PATH | --virtual[=SCENE]] [calibration options]",
                "Needs a calibrated camera. For each of N frames rectifies the pair with the\n"
                "calibration and matches it with the SDK's semi-global matcher: writes\n"
                "DIR/depth_NNNN.png (metric depth, red near, blue far, black unknown, scale bar\n"
                "in metres), DIR/depth_NNNN.tiff (32-bit float metres, NaN unknown), with --ply /\n"
                "--pcd DIR/cloud_NNNN.ply / .pcd (binary, coloured by the left image), and with\n"
                "--truth on a virtual scene its per-pixel truth (truth_depth_NNNN.png/.tiff,\n"
                "truth_disparity_NNNN.tiff) and the median depth error.\n"
                "--classic: the facade's disparity DIR/disparity_NNNN.png (red near, blue far,\n"
                "black unmatched), DIR/polar_NNNN.png (the nearest point per degree of bearing seen\n"
                "from above, camera at the centre, forward down, rings every metre), the nearest\n"
                "obstacle in the search box on stdout and in DIR/nearest.csv\n"
                "(frame,frame_time,found,x,y,z; metres, z forward).");
    addDeviceOptions(cmd, true);
    addRegionOptions(cmd);
    cmd.option({"frames", Value::Required, "N", "frames to process", "1"});
    cmd.option({"skip", Value::Required, "N", "frames to drop first", "0"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    cmd.option({"classic", Value::None, "", "the facade's disparity and nearest-point search", ""});
    cmd.option({"ply", Value::None, "", "also write each frame's point cloud as binary PLY", ""});
    cmd.option({"pcd", Value::None, "", "also write each frame's point cloud as binary PCD", ""});
    cmd.option({"truth", Value::None, "", "virtual scenes: also write and compare the per-pixel truth", ""});
    cmd.option({"near", Value::Required, "M", "depth at the red end of the colours", "0.5"});
    cmd.option({"far", Value::Required, "M", "depth at the blue end of the colours", "6"});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 1);
    const int skip = args.count("skip", 0);
    const std::string out = args.text("out", ".");

    Session session(args);
    if (!session.calibration().any())
        throw UsageError("depth needs the camera's calibration: give --intrinsics and --extrinsics, or --fisheye");
    ensureDirectory(out);
    if (args.has("classic")) classicFrames(session, args, frames, skip, out);
    else matcherFrames(session, args, frames, skip, out);
    return kExitOk;
}

}  // namespace orvo_tool
