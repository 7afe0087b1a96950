// orvo check: how well the rectified pair lines up, measured as the row difference of features
// matched between the two rectified images.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

struct Match {
    cv::Point2f first, second;
    double row_error() const { return double(second.y) - double(first.y); }
};

// Cross-checked ORB matches, kept only when they agree with one epipolar geometry (RANSAC on
// the fundamental matrix, which assumes nothing about rectification and so does not bias rows).
std::vector<Match> matchFeatures(const cv::Mat& first, const cv::Mat& second, double max_shift) {
    auto orb = cv::ORB::create(3000);
    std::vector<cv::KeyPoint> k1, k2;
    cv::Mat d1, d2;
    orb->detectAndCompute(first, cv::noArray(), k1, d1);
    orb->detectAndCompute(second, cv::noArray(), k2, d2);
    if (d1.empty() || d2.empty()) return {};
    std::vector<cv::DMatch> raw;
    cv::BFMatcher(cv::NORM_HAMMING, true).match(d1, d2, raw);

    std::vector<cv::Point2f> p1, p2;
    for (const cv::DMatch& m : raw) {
        const cv::Point2f a = k1[size_t(m.queryIdx)].pt, b = k2[size_t(m.trainIdx)].pt;
        if (std::fabs(a.x - b.x) <= max_shift && std::fabs(a.y - b.y) <= max_shift / 4) {
            p1.push_back(a);
            p2.push_back(b);
        }
    }
    std::vector<Match> out;
    if (p1.size() < 8) return out;
    std::vector<uchar> inlier;
    cv::findFundamentalMat(p1, p2, cv::FM_RANSAC, 1.5, 0.999, inlier);
    for (size_t i = 0; i < p1.size(); ++i)
        if (i < inlier.size() && inlier[i]) out.push_back({p1[i], p2[i]});
    return out;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    size_t k = std::min(v.size() - 1, size_t(std::floor(p * double(v.size() - 1) + 0.5)));
    std::nth_element(v.begin(), v.begin() + long(k), v.end());
    return v[k];
}

cv::Scalar errorColour(double e) {
    e = std::fabs(e);
    if (e < 0.5) return cv::Scalar(0, 220, 0);
    if (e < 1.0) return cv::Scalar(0, 220, 220);
    return cv::Scalar(0, 0, 255);
}

}  // namespace

int runCheck(int argc, char** argv, int first) {
    Command cmd("orvo check", "[--frames N] [--max-error PX] [--out DIR] [--device PATH | --virtual[=SCENE]] [calibration options]",
                "Matches features between the rectified images and measures their row difference:\n"
                "with a good calibration a point and its match lie on the same row. Prints the\n"
                "median, mean and 95th percentile of |row difference| in pixels and writes\n"
                "DIR/check.png (the rectified pair, guide lines, each match drawn green under 0.5 px,\n"
                "yellow under 1 px, red above). Exits with 3 when the median exceeds --max-error.");
    addDeviceOptions(cmd, true);
    cmd.option({"frames", Value::Required, "N", "frames to gather matches from", "1"});
    cmd.option({"skip", Value::Required, "N", "frames to drop first", "0"});
    cmd.option({"max-error", Value::Required, "PX", "largest acceptable median row error", "1.0"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 1);
    const int skip = args.count("skip", 0);
    const double limit = args.positiveNumber("max-error", 1.0);
    const std::string out = args.text("out", ".");

    Session session(args);
    if (!session.calibration().any())
        throw UsageError("check needs the camera's calibration: give --intrinsics and --extrinsics, or --fisheye");
    ensureDirectory(out);
    auto camera = session.open();
    for (int i = 0; i < skip; ++i) camera->Grab();

    std::vector<double> errors, magnitudes;
    cv::Mat picture;
    for (int i = 0; i < frames; ++i) {
        if (!camera->Grab()) throw RunError("the calibration did not give rectification maps");
        cv::Mat r1, r2;
        camera->getRectImage(r1, r2);
        std::vector<Match> matches = matchFeatures(r1, r2, r1.cols / 3.0);
        if (i == frames - 1) {
            picture = pairWithGuideLines(r1, r2);
            for (const Match& m : matches) {
                cv::Point2f b = m.second + cv::Point2f(float(r1.cols), 0);
                cv::line(picture, m.first, b, errorColour(m.row_error()), 1, cv::LINE_AA);
                cv::circle(picture, m.first, 2, errorColour(m.row_error()), 1, cv::LINE_AA);
                cv::circle(picture, b, 2, errorColour(m.row_error()), 1, cv::LINE_AA);
            }
        }
        for (const Match& m : matches) {
            errors.push_back(m.row_error());
            magnitudes.push_back(std::fabs(m.row_error()));
        }
    }
    writePng(joinPath(out, "check.png"), picture);
    if (magnitudes.size() < 8)
        throw RunError("too few features matched (" + std::to_string(magnitudes.size()) +
                       "): point the camera at a textured scene");
    double mean = 0, signed_mean = 0;
    for (size_t i = 0; i < errors.size(); ++i) mean += magnitudes[i], signed_mean += errors[i];
    mean /= double(errors.size());
    signed_mean /= double(errors.size());
    const double median = percentile(magnitudes, 0.5);
    const bool pass = median <= limit;
    std::printf("row error: median %.3f px, mean %.3f px, 95th percentile %.3f px, "
                "offset %+.3f px over %zu matches (limit %.2f px): %s\n",
                median, mean, percentile(magnitudes, 0.95), signed_mean, magnitudes.size(), limit,
                pass ? "PASS" : "FAIL");
    return pass ? kExitOk : kExitCheckFailed;
}

}  // namespace orvo_tool
