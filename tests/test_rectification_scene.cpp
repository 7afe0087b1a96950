// Rectification of rendered scenes through the facade: features meet on the same row in the
// rectified pair, and not in the raw pair, for a pinhole and a fisheye rig.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "scene.h"
#include "scratch_dir.h"

namespace {

using namespace orvo::vcam;

const char* const kDevice = "/dev/video-virtual-scene";

// Points the virtual camera at a source for the next camera opened in this process.
class VirtualCamera {
public:
    explicit VirtualCamera(const std::string& source) {
        setenv("ORVO_VCAM_DEVICE", kDevice, 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        if (source.empty()) unsetenv("ORVO_VCAM_SOURCE");
        else setenv("ORVO_VCAM_SOURCE", source.c_str(), 1);
    }
    ~VirtualCamera() {
        unsetenv("ORVO_VCAM_DEVICE");
        unsetenv("ORVO_VCAM_FPS");
        unsetenv("ORVO_VCAM_SOURCE");
    }
};

struct Grabbed {
    bool rectified = false;
    cv::Mat raw_left, raw_right, rect_left, rect_right;
};

Grabbed grab(const OrvoCameraParameterList& files) {
    OrvoCameraParameterList p = files;
    p.device_path = kDevice;
    OrvoCamera camera(p);
    Grabbed g;
    g.rectified = camera.Grab();
    camera.getOrgImage(g.raw_left, g.raw_right);
    camera.getRectImage(g.rect_left, g.rect_right);
    g.raw_left = g.raw_left.clone();
    g.raw_right = g.raw_right.clone();
    g.rect_left = g.rect_left.clone();
    g.rect_right = g.rect_right.clone();
    return g;
}

// Vertical offset, in pixels, of each well-matched left-image corner in the right image. The
// right image is searched up to 120 pixels to the left (disparity) and 20 rows up and down; the
// best match's row is refined by a parabola through its neighbours' scores.
std::vector<double> rowOffsets(const cv::Mat& left, const cv::Mat& right) {
    constexpr int kHalf = 8, kReach = 120, kRows = 20;
    std::vector<cv::Point2f> corners;
    cv::goodFeaturesToTrack(left(cv::Rect(0, 0, left.cols, left.rows - 4)), corners, 400, 0.01, 12);
    std::vector<double> offsets;
    for (const cv::Point2f& c : corners) {
        const int x = int(std::lround(c.x)), y = int(std::lround(c.y));
        const cv::Rect patch(x - kHalf, y - kHalf, 2 * kHalf + 1, 2 * kHalf + 1);
        const cv::Rect search = cv::Rect(x - kHalf - kReach, y - kHalf - kRows, 2 * kHalf + 1 + kReach + 4,
                                         2 * kHalf + 1 + 2 * kRows) &
                                cv::Rect(0, 0, right.cols, right.rows - 4);
        if ((patch & cv::Rect(0, 0, left.cols, left.rows)) != patch || search.height < patch.height + 2 ||
            search.width < patch.width + 2)
            continue;
        cv::Mat scores;
        cv::matchTemplate(right(search), left(patch), scores, cv::TM_CCOEFF_NORMED);
        double best;
        cv::Point at;
        cv::minMaxLoc(scores, nullptr, &best, nullptr, &at);
        if (best < 0.9 || at.y == 0 || at.y == scores.rows - 1) continue;
        const float up = scores.at<float>(at.y - 1, at.x), mid = scores.at<float>(at.y, at.x),
                    down = scores.at<float>(at.y + 1, at.x);
        const double curvature = up - 2 * mid + down;
        const double refine = curvature < 0 ? 0.5 * (up - down) / curvature : 0;
        offsets.push_back(search.y + at.y + refine - patch.y);
    }
    return offsets;
}

double medianAbs(std::vector<double> v) {
    for (double& x : v) x = std::fabs(x);
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

void expectRowsAlignOnlyWhenRectified(const Grabbed& g) {
    EXPECT_TRUE(g.rectified);
    const std::vector<double> rect = rowOffsets(g.rect_left, g.rect_right);
    const std::vector<double> raw = rowOffsets(g.raw_left, g.raw_right);
    ASSERT_GE(rect.size(), 60u);
    ASSERT_GE(raw.size(), 60u);
    EXPECT_LE(medianAbs(rect), 0.5);
    EXPECT_GE(medianAbs(raw), 3.0);
}

TEST(RectificationScene, PinholeDefaultSceneRowsAlignAfterRectification) {
    VirtualCamera vcam("");  // the default scene
    const std::string data = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";
    OrvoCameraParameterList files;
    files.intrinsics_file = data + "intrinsics.yml";
    files.extrinsics_file = data + "extrinsics.yml";
    expectRowsAlignOnlyWhenRectified(grab(files));
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
    VirtualCamera vcam("scene:" + dir.file("scene.yml"));
    OrvoCameraParameterList files;
    files.fisheye_file = dir.file("fisheye.yml");
    expectRowsAlignOnlyWhenRectified(grab(files));
}

}  // namespace
