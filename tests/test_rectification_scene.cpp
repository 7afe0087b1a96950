// Rectification of rendered scenes through the facade: features meet on the same row in the
// rectified pair, and not in the raw pair, for a pinhole and a fisheye rig.
#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "engine_test_support.h"
#include "scene.h"
#include "scratch_dir.h"

namespace {

using namespace orvo::vcam;

// Median vertical offset, in whole pixels, of the well-matched left-image corners in the right
// image, searched up to 120 pixels to the left and 20 rows up and down (at least 60 matches).
double medianRowOffset(const cv::Mat& left, const cv::Mat& right) {
    constexpr int kHalf = 8, kReach = 120, kRows = 20;
    std::vector<cv::Point2f> corners;
    cv::goodFeaturesToTrack(left(cv::Rect(0, 0, left.cols, left.rows - 4)), corners, 400, 0.01, 12);
    std::vector<double> offsets;
    for (const cv::Point2f& c : corners) {
        const int x = int(std::lround(c.x)), y = int(std::lround(c.y));
        const cv::Rect patch(x - kHalf, y - kHalf, 2 * kHalf + 1, 2 * kHalf + 1);
        const cv::Rect search = cv::Rect(x - kHalf - kReach, y - kHalf - kRows,
                                         2 * kHalf + 1 + kReach + 4, 2 * kHalf + 1 + 2 * kRows) &
                                cv::Rect(0, 0, right.cols, right.rows - 4);
        if ((patch & cv::Rect(0, 0, left.cols, left.rows)) != patch ||
            search.height < patch.height + 2 || search.width < patch.width + 2)
            continue;
        cv::Mat scores;
        cv::matchTemplate(right(search), left(patch), scores, cv::TM_CCOEFF_NORMED);
        double best;
        cv::Point at;
        cv::minMaxLoc(scores, nullptr, &best, nullptr, &at);
        if (best >= 0.9) offsets.push_back(std::abs(search.y + at.y - patch.y));
    }
    EXPECT_GE(offsets.size(), 60u);
    if (offsets.empty()) return NAN;
    std::nth_element(offsets.begin(), offsets.begin() + offsets.size() / 2, offsets.end());
    return offsets[offsets.size() / 2];
}

void expectRowsAlignOnlyWhenRectified(const std::string& source, const std::string& intrinsics,
                                      const std::string& extrinsics, const std::string& fisheye) {
    engine_test::VirtualCamera vcam(source);
    auto camera = engine_test::makeFacade(intrinsics, extrinsics, fisheye);
    ASSERT_TRUE(camera->Grab());
    cv::Mat raw_left, raw_right, rect_left, rect_right;
    camera->getOrgImage(raw_left, raw_right);
    camera->getRectImage(rect_left, rect_right);
    EXPECT_LE(medianRowOffset(rect_left, rect_right), 0.5);
    EXPECT_GE(medianRowOffset(raw_left, raw_right), 3.0);
}

TEST(RectificationScene, PinholeDefaultSceneRowsAlignAfterRectification) {
    const std::string data = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";
    expectRowsAlignOnlyWhenRectified("", data + "intrinsics.yml", data + "extrinsics.yml", "");
}

TEST(RectificationScene, FisheyeSceneRowsAlignAfterRectification) {
    orvo_test::ScratchDir dir;
    Scene scene = defaultScene();
    scene.rig = fisheyeRigSpec();
    scene.calibration = SceneCalibration();
    scene.calibration.fisheye = "fisheye.yml";
    std::string error;
    ASSERT_TRUE(saveScene(dir.file("scene.yml"), scene, &error)) << error;
    ASSERT_TRUE(loadScene(dir.file("scene.yml"), scene, &error)) << error;
    ASSERT_TRUE(writeSceneCalibration(scene, &error)) << error;
    expectRowsAlignOnlyWhenRectified("scene:" + dir.file("scene.yml"), "", "",
                                     dir.file("fisheye.yml"));
}

}  // namespace
