// End-to-end test of the nearest-point search and its polar plot on the rendered default scene,
// against the scene's true depth of the nearest obstacle inside the search region.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "OrvoCamera.h"
#include "run_capture.h"

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();
const char* kNode = "/dev/video-virtual-depth-scene";

// The engine takes its focal length from the unrectified left camera matrix while the disparity
// is measured in the rectified images, so every depth it reports is the true one scaled by the
// ratio of the two focal lengths (430 / 401.3 for the default scene). This is the depth the search
// should report for a true depth z.
double reportedDepth(double z, const StereoCamera& engine) {
    cv::FileStorage fs(std::string(ORVO_SOURCE_DIR) + "/data/default_scene/extrinsics.yml",
                       cv::FileStorage::READ);
    cv::Mat p1;
    fs["P1"] >> p1;
    if (p1.empty()) return std::nan("");
    return z * engine.fx / p1.at<double>(0, 0);
}

// The value of `key=` on the last line of the truth file, or NaN.
double lastTruthValue(const std::string& path, const std::string& key) {
    std::ifstream in(path);
    std::string line, last;
    while (std::getline(in, line))
        if (!line.empty()) last = line;
    std::istringstream fields(last);
    std::string field;
    while (fields >> field)
        if (field.compare(0, key.size() + 1, key + "=") == 0)
            return std::strtod(field.c_str() + key.size() + 1, nullptr);
    return std::nan("");
}

bool sceneAvailable() {
    return std::ifstream(std::string(ORVO_SOURCE_DIR) + "/data/default_scene/extrinsics.yml").good();
}

struct SceneRun {
    std::string truth_path;
    std::unique_ptr<OrvoCamera> camera;

    // The default scene with its calibration, free-running, the true nearest depth recorded for
    // the given region.
    explicit SceneRun(const winpar& region) {
        char name[] = "/tmp/orvo-depth-truth-XXXXXX";
        const int fd = mkstemp(name);
        close(fd);
        truth_path = name;
        char box[128];
        std::snprintf(box, sizeof box, "%g,%g,%g,%g", region.half_width, region.height,
                      region.max_depth, region.tilt);
        setenv("ORVO_VCAM_DEVICE", kNode, 1);
        setenv("ORVO_VCAM_SOURCE", "", 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        setenv("ORVO_VCAM_TRUTH", truth_path.c_str(), 1);
        setenv("ORVO_VCAM_TRUTH_BOX", box, 1);
        unsetenv("ORVO_VCAM_FAULTS");
        OrvoCameraParameterList list;
        list.device_path = kNode;
        list.intrinsics_file = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/intrinsics.yml";
        list.extrinsics_file = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/extrinsics.yml";
        orvo_test::captureOutput([&] { camera.reset(new OrvoCamera(list)); });
    }
    ~SceneRun() {
        orvo_test::captureOutput([&] { camera.reset(); });
        unsetenv("ORVO_VCAM_TRUTH");
        unsetenv("ORVO_VCAM_TRUTH_BOX");
        std::remove(truth_path.c_str());
    }
};

// Bins whose bearing lies within the obstacle's front face, x from -0.1 to 0.3 at 1.4 m.
bool obstacleBin(int b) {
    const double low = std::atan2(1.4, 0.3) * 180 / M_PI + 180;
    const double high = std::atan2(1.4, -0.1) * 180 / M_PI + 180;
    return b >= int(low) + 1 && b <= int(high) - 1;
}

TEST(DepthScene, NearestPointIsTheObstacleAndThePlotShowsIt) {
    if (!sceneAvailable()) GTEST_SKIP() << "the default scene is not in this tree";
    const winpar region{0.5, 0.5, 3.0, 0.0};
    SceneRun run(region);
    ASSERT_TRUE(run.camera->Grab());  // rectified through the scene's calibration
    const double truth = lastTruthValue(run.truth_path, "nearest_depth");
    ASSERT_TRUE(std::isfinite(truth)) << "no nearest_depth in " << run.truth_path;

    std::vector<nerapot> bins(360);
    cv::Point3d nearest;
    winpar search = region;
    run.camera->getNearestPoint(search, bins.data(), nearest);
    const double expected = reportedDepth(truth, *camera_);
    EXPECT_NEAR(nearest.z, expected, 0.03 * expected) << "true depth " << truth;
    // The obstacle's front face spans x -0.1 .. 0.3 and rises 0.3 above the axis.
    EXPECT_GT(nearest.x, -0.15);
    EXPECT_LT(nearest.x, 0.35);
    EXPECT_LT(nearest.y, 0.0);
    EXPECT_GT(nearest.y, -0.35);

    // The obstacle's bearings are filled at about its depth, and one cluster of at least four
    // bins holds the answer.
    int obstacle_bins = 0, near_obstacle = 0;
    std::vector<double> depths;
    for (int b = 0; b < 360; ++b) {
        if (!obstacleBin(b)) continue;
        ++obstacle_bins;
        if (bins[size_t(b)].min_depth == kEmpty) continue;
        near_obstacle += std::fabs(bins[size_t(b)].z - expected) < 0.03 * expected;
        depths.push_back(bins[size_t(b)].z);
    }
    EXPECT_GE(near_obstacle, obstacle_bins * 3 / 4) << near_obstacle << " of " << obstacle_bins;
    ASSERT_FALSE(depths.empty());
    std::nth_element(depths.begin(), depths.begin() + long(depths.size() / 2), depths.end());
    EXPECT_NEAR(depths[depths.size() / 2], expected, 0.015 * expected);
    bool found = false;
    for (int i = 0; i <= run.camera->bucket_count; ++i) {
        const classfic& c = run.camera->buckets[i];
        if (c.z == nearest.z && c.x == nearest.x) found = c.members >= 4;
    }
    EXPECT_TRUE(found);

    // The plot: a diamond at each obstacle bin's point, the depth in the corner.
    cv::Mat plot = cv::Mat::zeros(1000, 1000, CV_8UC3);
    run.camera->getPointImage(bins.data(), nearest, plot);
    cv::imwrite(std::string(ORVO_BINARY_DIR) + "/depth_scene_plot.png", plot);
    int drawn = 0, filled = 0;
    for (int b = 0; b < 360; ++b) {
        if (!obstacleBin(b) || bins[size_t(b)].min_depth == kEmpty) continue;
        const cv::Point p = get_point(float(bins[size_t(b)].min_depth), float(bins[size_t(b)].angle));
        // The diamond's right vertex; the obstacle sits straight ahead, around (500, 675).
        ASSERT_TRUE(cv::Rect(450, 600, 100, 150).contains(p)) << "bin " << b << " at " << p;
        ++filled;
        drawn += plot.at<cv::Vec3b>(p + cv::Point(2, 0)) == cv::Vec3b(0, 255, 0);
    }
    EXPECT_EQ(drawn, filled) << "every filled obstacle bin has its marker";
    EXPECT_GT(cv::countNonZero(plot(cv::Rect(10, 0, 80, 11)).reshape(1)), 20);  // the text
}

TEST(DepthScene, TiltedRegionStillFindsTheObstacle) {
    // Pitching the region by 0.05 rad moves the true nearest point; the search follows it.
    if (!sceneAvailable()) GTEST_SKIP() << "the default scene is not in this tree";
    const winpar region{0.5, 0.5, 3.0, 0.05};
    SceneRun run(region);
    ASSERT_TRUE(run.camera->Grab());
    const double truth = lastTruthValue(run.truth_path, "nearest_depth");
    ASSERT_TRUE(std::isfinite(truth));
    std::vector<nerapot> bins(360);
    cv::Point3d nearest;
    winpar search = region;
    run.camera->getNearestPoint(search, bins.data(), nearest);
    const double expected = reportedDepth(truth, *camera_);
    EXPECT_NEAR(nearest.z, expected, 0.03 * expected) << "true depth " << truth;
}

}  // namespace
