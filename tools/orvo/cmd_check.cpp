// orvo check: how well the rectified pair lines up, measured as the row difference of features
// matched between the two rectified images; with --plane, the plane fitted to the metric depth of
// a flat target and the depth RMS about it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <opencv2/core.hpp>

#include <opencv2/calib3d.hpp>
#include <opencv2/video/tracking.hpp>
#include <opencv2/imgproc.hpp>

#include "commands.h"
#include "imaging.h"
#include "metric_depth.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

// Larger than any disparity the matchers look for (128 pixels).
constexpr double kMaxDisparity = 160;

struct Match {
    cv::Point2f first, second;
    double row_error() const { return double(second.y) - double(first.y); }
};

// Corners of the first image followed into the second by pyramidal optical flow, which places
// them to a fraction of a pixel and is free to move them in any direction, so it does not favour
// rows. Kept: matches that track back to where they started, lie in front (the second image sees
// a point further left), and agree with one epipolar geometry (RANSAC on the fundamental matrix,
// which assumes nothing about rectification).
std::vector<Match> matchFeatures(const cv::Mat& first, const cv::Mat& second, double max_shift) {
    std::vector<cv::Point2f> p1;
    cv::goodFeaturesToTrack(first, p1, 2000, 0.01, 7);
    if (p1.size() < 8) return {};
    cv::cornerSubPix(first, p1, cv::Size(5, 5), cv::Size(-1, -1),
                     cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01));
    const cv::Size window(21, 21);
    const cv::TermCriteria stop(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 40, 0.001);
    std::vector<cv::Point2f> p2, back;
    std::vector<uchar> ok2, ok_back;
    std::vector<float> err;
    cv::calcOpticalFlowPyrLK(first, second, p1, p2, ok2, err, window, 4, stop);
    cv::calcOpticalFlowPyrLK(second, first, p2, back, ok_back, err, window, 4, stop);

    std::vector<cv::Point2f> a, b;
    for (size_t i = 0; i < p1.size(); ++i) {
        const float shift = p1[i].x - p2[i].x;
        if (!ok2[i] || !ok_back[i] || cv::norm(back[i] - p1[i]) > 0.2) continue;
        if (shift < -1 || shift > max_shift || std::fabs(p2[i].y - p1[i].y) > max_shift / 4) continue;
        a.push_back(p1[i]);
        b.push_back(p2[i]);
    }
    std::vector<Match> out;
    if (a.size() < 8) return out;
    std::vector<uchar> inlier;
    cv::findFundamentalMat(a, b, cv::FM_RANSAC, 1.0, 0.999, inlier);
    for (size_t i = 0; i < a.size(); ++i)
        if (i < inlier.size() && inlier[i]) out.push_back({a[i], b[i]});
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

// The pair with its guide lines, every match as a circle on both sides coloured by its row error,
// and a line joining about forty of them so that the pairing can be followed by eye.
cv::Mat drawMatches(const cv::Mat& first, const cv::Mat& second, const std::vector<Match>& matches) {
    cv::Mat picture = pairWithGuideLines(first, second);
    const cv::Point2f offset(float(first.cols), 0);
    const size_t stride = std::max<size_t>(1, matches.size() / 40);
    for (size_t i = 0; i < matches.size(); ++i) {
        const Match& m = matches[i];
        const cv::Scalar colour = errorColour(m.row_error());
        cv::circle(picture, m.first, 3, colour, 1, cv::LINE_AA);
        cv::circle(picture, m.second + offset, 3, colour, 1, cv::LINE_AA);
        if (i % stride == 0) cv::line(picture, m.first, m.second + offset, colour, 1, cv::LINE_AA);
    }
    return picture;
}

// A plane n . X = distance (n unit, pointing away from the camera) in the rectified left camera
// frame, metres.
struct Plane {
    cv::Vec3d normal;
    double distance = 0;
    size_t inliers = 0, points = 0;
    double depth_rms = 0;  // RMS of depth minus the plane's depth along each inlier's ray, metres
};

// Least-squares plane through points (the smallest principal axis of their scatter).
void refit(const std::vector<cv::Vec3d>& pts, Plane& plane) {
    cv::Mat data(int(pts.size()), 3, CV_64F);
    for (size_t i = 0; i < pts.size(); ++i)
        for (int k = 0; k < 3; ++k) data.at<double>(int(i), k) = pts[i][k];
    cv::PCA pca(data, cv::Mat(), cv::PCA::DATA_AS_ROW);
    cv::Vec3d n(pca.eigenvectors.ptr<double>(2));
    const cv::Vec3d mean(pca.mean.ptr<double>());
    if (n.dot(mean) < 0) n = -n;
    plane.normal = n;
    plane.distance = n.dot(mean);
}

// RANSAC on the organised cloud (inliers within 1 % of their depth), then a least-squares refit
// on the inliers. Throws RunError when too few points have depth.
Plane fitPlane(const cv::Mat& points) {
    std::vector<cv::Vec3d> all;
    for (int y = 0; y < points.rows; ++y)
        for (int x = 0; x < points.cols; ++x) {
            const cv::Vec3f p = points.at<cv::Vec3f>(y, x);
            if (!std::isnan(p[2])) all.push_back(cv::Vec3d(p));
        }
    if (all.size() < 1000) throw RunError("too few pixels with depth for a plane (" + std::to_string(all.size()) + ")");
    cv::RNG rng(7);
    auto inliersOf = [&](const cv::Vec3d& n, double dist, std::vector<cv::Vec3d>* keep) {
        size_t count = 0;
        for (const cv::Vec3d& p : all)
            if (std::fabs(n.dot(p) - dist) < 0.01 * p[2]) {
                ++count;
                if (keep) keep->push_back(p);
            }
        return count;
    };
    Plane best;
    for (int i = 0; i < 300; ++i) {
        const cv::Vec3d a = all[rng.uniform(0, int(all.size()))], b = all[rng.uniform(0, int(all.size()))],
                        c = all[rng.uniform(0, int(all.size()))];
        cv::Vec3d n = (b - a).cross(c - a);
        if (cv::norm(n) < 1e-9) continue;
        n = cv::normalize(n);
        const size_t count = inliersOf(n, n.dot(a), nullptr);
        if (count > best.inliers) best.normal = n, best.distance = n.dot(a), best.inliers = count;
    }
    std::vector<cv::Vec3d> inliers;
    inliersOf(best.normal, best.distance, &inliers);
    refit(inliers, best);
    inliers.clear();
    best.inliers = inliersOf(best.normal, best.distance, &inliers);
    best.points = all.size();
    double sum = 0;
    for (const cv::Vec3d& p : inliers) {
        // The plane's depth along the ray through p: z * distance / (n . p).
        const double z = p[2] * best.distance / best.normal.dot(p);
        sum += (p[2] - z) * (p[2] - z);
    }
    best.depth_rms = std::sqrt(sum / double(inliers.size()));
    return best;
}

// --plane: the fitted plane and depth RMS of each frame's metric depth.
int checkPlane(Session& session, int frames, int skip) {
    MetricDepth(session).forEachFrame(session, frames, skip, [](int, const orvo::Depth& d, const cv::Mat&) {
        const Plane p = fitPlane(d.points);
        std::printf("plane: normal %+.4f %+.4f %+.4f distance %.4f m, depth RMS %.1f mm, "
                    "%zu of %zu points within 1 %% of their depth\n",
                    p.normal[0], p.normal[1], p.normal[2], p.distance, 1e3 * p.depth_rms, p.inliers,
                    p.points);
    });
    return kExitOk;
}

}  // namespace

int runCheck(int argc, char** argv, int first) {
    Command cmd("orvo check", "[--frames N] [--max-error PX] [--out DIR] [--device PATH | --virtual[=SCENE]] [calibration options]",
                "Follows corners from the first rectified image into the second (sub-pixel optical\n"
                "flow, checked forwards and backwards) and measures their row difference:\n"
                "with a good calibration a point and its match lie on the same row. Prints the\n"
                "median, mean and 95th percentile of |row difference| in pixels and writes\n"
                "DIR/check.png (the rectified pair, guide lines, each match circled green under\n"
                "0.5 px, yellow under 1 px, red above, some of them joined). Exits with 3 when the\n"
                "median exceeds --max-error.\n"
                "--plane: instead fits a plane to the metric depth of a flat target filling the\n"
                "view (RANSAC, then least squares) and prints its unit normal and distance in the\n"
                "rectified left camera frame (x right, y down, z forward; n . X = distance) and the\n"
                "RMS of depth about it.");
    addDeviceOptions(cmd, true);
    cmd.option({"frames", Value::Required, "N", "frames to gather matches from", "1"});
    cmd.option({"skip", Value::Required, "N", "frames to drop first", "0"});
    cmd.option({"max-error", Value::Required, "PX", "largest acceptable median row error", "1.0"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    cmd.option({"plane", Value::None, "", "fit a plane to the depth of a flat target", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 1);
    const int skip = args.count("skip", 0);
    const double limit = args.positiveNumber("max-error", 1.0);
    const std::string out = args.text("out", ".");

    Session session(args);
    if (!session.calibration().any())
        throw UsageError("check needs the camera's calibration: give --intrinsics and --extrinsics, or --fisheye");
    if (args.has("plane")) return checkPlane(session, frames, skip);
    ensureDirectory(out);
    auto camera = session.open();
    for (int i = 0; i < skip; ++i) camera->Grab();

    std::vector<double> errors, magnitudes;
    cv::Mat picture;
    for (int i = 0; i < frames; ++i) {
        if (!camera->Grab()) throw RunError("the calibration did not give rectification maps");
        cv::Mat r1, r2;
        camera->getRectImage(r1, r2);
        std::vector<Match> matches = matchFeatures(r1, r2, kMaxDisparity);
        if (i == frames - 1) picture = drawMatches(r1, r2, matches);
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
