// The nearest-obstacle search through the facade on the rendered default scene: its wiring
// (matchers, bin reset, engine, clusters, plot) and its answer against the scene's true depth.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "OrvoCamera.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();
const std::string kScene = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";

// The nearest_depth of the last line of the truth file, or NaN.
double lastNearestDepth(const std::string& path) {
    std::ifstream in(path);
    std::string line, last;
    while (std::getline(in, line))
        if (!line.empty()) last = " " + line;
    const size_t at = last.find(" nearest_depth=");
    return at == std::string::npos ? std::nan("") : std::strtod(last.c_str() + at + 15, nullptr);
}

TEST(DepthScene, FacadeFindsTheObstacleLevelAndTilted) {
    cv::FileStorage fs(kScene + "extrinsics.yml", cv::FileStorage::READ);
    if (!fs.isOpened()) GTEST_SKIP() << "the default scene is not in this tree";
    cv::Mat p1;
    fs["P1"] >> p1;
    ASSERT_FALSE(p1.empty());
    for (double tilt : {0.0, 0.05}) {
        SCOPED_TRACE("tilt " + std::to_string(tilt));
        const winpar region{0.5, 0.5, 3.0, tilt};
        const orvo_test::ScratchDir dir;
        const std::string truth_path = dir.file("truth.txt");
        const std::string box = "0.5,0.5,3," + std::to_string(tilt);
        const char* const kNode = "/dev/video-virtual-depth-scene";
        for (const auto& kv : {std::make_pair("ORVO_VCAM_DEVICE", kNode),
                               {"ORVO_VCAM_SOURCE", ""}, {"ORVO_VCAM_FPS", "0"},
                               {"ORVO_VCAM_TRUTH", truth_path.c_str()},
                               {"ORVO_VCAM_TRUTH_BOX", box.c_str()}, {"ORVO_VCAM_FAULTS", ""}})
            setenv(kv.first, kv.second, 1);
        OrvoCameraParameterList list;
        list.device_path = kNode;
        list.intrinsics_file = kScene + "intrinsics.yml";
        list.extrinsics_file = kScene + "extrinsics.yml";
        std::unique_ptr<OrvoCamera> cam;
        orvo_test::captureOutput([&] { cam.reset(new OrvoCamera(list)); });
        ASSERT_TRUE(cam->Grab());  // rectified through the scene's calibration
        const double truth = lastNearestDepth(truth_path);
        ASSERT_TRUE(std::isfinite(truth)) << "no nearest_depth in " << truth_path;

        std::vector<nerapot> bins(360, nerapot{7.25, -7.25, 7.25, kEmpty, 7.25}), want = bins;
        for (int i = 0; i < 360; i += 2) bins[size_t(i)].min_depth = 0.01;  // stale, must be reset
        cam->buckets[0] = classfic{1, 1, 0.001, 50};  // a stale cluster that must be overwritten
        cv::Point3d nearest;
        winpar search = region;
        cam->getNearestPoint(search, bins.data(), nearest);

        // The block matcher's disparity in pixels, searched by the engine into reset bins, then
        // clustered.
        cv::Mat raw, disp;
        bm_->compute(cam->rect_image_1, cam->rect_image_2, raw);
        raw.convertTo(disp, CV_32F, 1.0 / 16);
        ASSERT_EQ(cam->disparity.type(), CV_32FC1);
        EXPECT_EQ(cv::norm(cam->disparity, disp, cv::NORM_INF), 0.0);
        camera_->DispToPointCloud(disp, want.data(), region);
        EXPECT_EQ(std::memcmp(bins.data(), want.data(), 360 * sizeof(nerapot)), 0);
        std::vector<classfic> clusters(360);
        int last = -1;
        camera_->getNoiseFilter(want.data(), clusters.data(), last);
        EXPECT_EQ(cam->bucket_count, last);
        EXPECT_EQ(nearest, camera_->getPointMin(clusters.data(), last));

        // getDisparity is the semi-global matcher's raw output; getPointImage the engine's plot.
        cv::Mat sg, want_sg;
        cam->getDisparity(sg);
        sgbm_->compute(cam->rect_image_1, cam->rect_image_2, want_sg);
        ASSERT_EQ(sg.type(), CV_16SC1);
        EXPECT_EQ(cv::norm(sg, want_sg, cv::NORM_INF), 0.0);
        cv::Mat plot = cv::Mat::zeros(1000, 1000, CV_8UC3), want_plot = plot.clone();
        cam->getPointImage(bins.data(), nearest, plot);
        camera_->draw_point_image(bins.data(), nearest, want_plot);
        EXPECT_EQ(cv::norm(plot, want_plot, cv::NORM_INF), 0.0);

        // The engine's focal length is the unrectified one while the disparity is measured in the
        // rectified images: depths come out scaled by the ratio of the two (within 0.5% here).
        const double expected = truth * camera_->fx / p1.at<double>(0, 0);
        EXPECT_NEAR(nearest.z, expected, 0.03 * expected) << "true depth " << truth;
        EXPECT_NEAR(nearest.z, truth, 0.03 * truth);
        // The obstacle's front face spans x -0.1 .. 0.3 and rises 0.3 above the axis (level).
        EXPECT_GT(nearest.x, -0.15);
        EXPECT_LT(nearest.x, 0.35);
        EXPECT_LT(nearest.y, 0.0);
        if (tilt == 0.0) { EXPECT_GT(nearest.y, -0.35); }
        // Most bins of the face's bearings lie within 3% of its depth, their median within 1.5%.
        const int low = int(std::atan2(1.4, 0.3) * 180 / M_PI + 180) + 1;
        const int high = int(std::atan2(1.4, -0.1) * 180 / M_PI + 180) - 1;
        int near_obstacle = 0;
        std::vector<double> depths;
        for (int b = low; b <= high; ++b) {
            if (bins[size_t(b)].min_depth == kEmpty) continue;
            near_obstacle += std::fabs(bins[size_t(b)].z - expected) < 0.03 * expected;
            depths.push_back(bins[size_t(b)].z);
        }
        EXPECT_GE(near_obstacle, (high - low + 1) * 3 / 4) << near_obstacle << " of " << high - low + 1;
        ASSERT_FALSE(depths.empty());
        std::nth_element(depths.begin(), depths.begin() + long(depths.size() / 2), depths.end());
        EXPECT_NEAR(depths[depths.size() / 2], expected, 0.015 * expected);
        orvo_test::captureOutput([&] { cam.reset(); });
    }
    unsetenv("ORVO_VCAM_TRUTH");
    unsetenv("ORVO_VCAM_TRUTH_BOX");
}

}  // namespace
