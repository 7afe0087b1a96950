// orvo::Calibration from the calibration files, and a Camera that rectifies with it.
#include <gtest/gtest.h>

#include <fstream>

#include <orvo/orvo.hpp>

#include "runtime_test_support.h"
#include "scratch_dir.h"

using namespace std::chrono_literals;

namespace {

const std::string kScene = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";

int loadFails(const std::string& in, const std::string& ex, std::string* message = nullptr) {
    try {
        orvo::Calibration::load(in, ex);
    } catch (const orvo::Error& e) {
        if (message) *message = e.what();
        return e.code().value();
    }
    return 0;
}

}  // namespace

// The default scene's rig is 0.12 m wide (scene.yml); its calibration must say so.
TEST(RuntimeCalibration, DefaultRigGeometry) {
    const auto c = orvo::Calibration::load(kScene + "intrinsics.yml", kScene + "extrinsics.yml");
    const orvo::StereoGeometry g = c.geometry();
    EXPECT_NEAR(0.12, g.baseline, 1e-3);
    EXPECT_GT(g.fx, 100);
    EXPECT_NEAR(g.fx, g.fy, 1e-9);  // the rectified pair shares one focal length
    EXPECT_GT(g.cx, 0);
    EXPECT_LT(g.cx, 752);
    // Q reprojects disparity d at the principal point to depth fx * B / d.
    cv::Mat point = (cv::Mat_<double>(4, 1) << g.cx, g.cy, 10.0, 1.0);
    cv::Mat world = c.Q() * point;
    EXPECT_NEAR(g.fx * g.baseline / 10.0, world.at<double>(2) / world.at<double>(3), 1e-6);
    EXPECT_EQ(CV_16SC2, c.left_map1().type());
    EXPECT_EQ(cv::Size(752, 480), c.right_map1().size());
    EXPECT_EQ(cv::Size(3, 3), c.rectified_camera_matrix().size());
}

TEST(RuntimeCalibration, BadFilesAreErrorsNotMessages) {
    orvo_test::ScratchDir dir;
    std::string message;
    EXPECT_EQ(ENOENT, loadFails(dir.file("none.yml"), kScene + "extrinsics.yml", &message));
    EXPECT_NE(message.find("none.yml"), std::string::npos);
    EXPECT_EQ(EISDIR, loadFails(dir.path(), kScene + "extrinsics.yml"));
    {
        std::ofstream(dir.file("no_t.yml")) << "%YAML:1.0\n---\nR: !!opencv-matrix\n   rows: 3\n   cols: 3\n"
                                               "   dt: d\n   data: [1,0,0,0,1,0,0,0,1]\n";
    }
    EXPECT_EQ(EINVAL, loadFails(kScene + "intrinsics.yml", dir.file("no_t.yml"), &message));
    EXPECT_NE(message.find("'T'"), std::string::npos) << message;
    { std::ofstream(dir.file("junk.yml")) << "%YAML:1.0\n---\nM1: [ unclosed\n"; }
    EXPECT_EQ(EINVAL, loadFails(dir.file("junk.yml"), kScene + "extrinsics.yml"));
}

// The camera hands out what the calibration's rectify makes of the raw split: the same pixels.
TEST(RuntimeCalibration, CameraRectifiesOnRequest) {
    runtime_test::VcamEnv env("", "", "100");  // the default scene, which this rig calibrates
    orvo::CameraOptions opt;
    opt.intrinsics_file = kScene + "intrinsics.yml";
    opt.extrinsics_file = kScene + "extrinsics.yml";
    opt.rectify = true;
    orvo::Camera rectifying(runtime_test::kNode, opt);
    ASSERT_NE(nullptr, rectifying.calibration());
    auto f = rectifying.grab(2s);
    ASSERT_TRUE(f.has_value());
    EXPECT_TRUE(f->rectified);
    EXPECT_EQ(cv::Size(752, 480), f->left.size());
    // Rectification with alpha 0 maps only valid pixels, but it moves them: the picture differs
    // from an unrectified frame of the same scene index.
    rectifying.close();
    orvo::Camera plain(runtime_test::kNode);
    auto g = plain.grab(2s);
    ASSERT_TRUE(g.has_value());
    EXPECT_FALSE(g->rectified);
    EXPECT_GT(cv::norm(f->left, g->left, cv::NORM_L1), 0);
}
