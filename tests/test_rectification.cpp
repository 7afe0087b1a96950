// Rectification: the engine's camera parameter row, and rendered scenes whose features meet on the
// same row once rectified through the facade (and not before).
#include <algorithm>
#include <opencv2/imgproc.hpp>
#include "ZUNCVHelper.h"
#include "engine_test_support.h"
#include <orvo/vcam/scene.hpp>

using namespace engine_test;

namespace {

// The engine's row is [fx, fy, cx, cy, -P2(0,3), width, height], read afresh from the extrinsics
// on every call; getStereoCameraParameter gives the first five with P2(0,3) as stored (not divided
// by P2(0,0)); single-precision P1 and P2 are widened. Without the file, or without 3x4 P1 and
// P2, both fail and leave their output alone; only the missing file is reported.
TEST(CameraParameter, RowComesFromTheExtrinsicsFileOnEveryCall) {
    TempDir dir;
    const auto [intr, extr] = writeStereoFiles(dir);
    VirtualCamera cam("pattern");
    auto e = makeEngine(intr, extr, "");
    for (const double p03 : {-49.0625, 30.0}) {  // negated, not made absolute
        editMatrices(extr, [&](auto& m) {
            m["P1"] = (cv::Mat_<double>(3, 4) << 410.5, 0.1, 370.25, 0.2, 0.3, 412.75, 240.125, 0.4, 0, 0, 1, 0);
            m["P2"] = (cv::Mat_<double>(3, 4) << 2.0, 0, 371, p03, 0, 412.75, 240.125, 0, 0, 0, 1, 0);
        });
        cv::Mat row, five;
        ASSERT_TRUE(e->getCameraParameter(row) && getStereoCameraParameter(extr, five));
        EXPECT_TRUE(sameImage(row, cv::Mat(cv::Matx<double, 1, 7>(410.5, 412.75, 370.25, 240.125, -p03, kW, kH))));
        EXPECT_TRUE(sameImage(five, cv::Mat(cv::Matx<double, 1, 5>(410.5, 412.75, 370.25, 240.125, p03))));
    }
    // Saved in single precision, the projections are read widened to doubles.
    editMatrices(extr, [&](auto& m) { m["P1"].convertTo(m["P1"], CV_32F), m["P2"].convertTo(m["P2"], CV_32F); });
    cv::Mat row;
    ASSERT_TRUE(e->getCameraParameter(row));
    EXPECT_TRUE(sameImage(row, cv::Mat(cv::Matx<double, 1, 7>(410.5, 412.75, 370.25, 240.125, -30.0, kW, kH))));
    for (const std::string damage : {"P2", ""}) {  // a 3x3 P2, no file
        writeStereoFiles(dir);
        if (damage.empty()) std::filesystem::remove(extr);
        else editMatrices(extr, [&](auto& m) { m["P2"] = m["P2"].colRange(0, 3).clone(); });
        cv::Mat row = cv::Mat::ones(1, 2, CV_64F), five = row;
        const uchar* kept = row.data;
        auto c = orvo_test::captureOutput(
            [&] { EXPECT_FALSE(e->getCameraParameter(row) || getStereoCameraParameter(extr, five)); });
        EXPECT_EQ(c.err, damage.empty() ? " Read File : " + extr + "Error !\n Read File : " + extr + "Error !\n" : "");
        EXPECT_TRUE(row.data == kept && five.data == kept && cv::countNonZero(row) == 2);
    }
}

// Median vertical offset, in whole pixels, of the well-matched left-image corners in the right
// image, searched up to 120 pixels to the left and 20 rows up and down (at least 60 matches).
double medianRowOffset(const cv::Mat& left, const cv::Mat& right) {
    constexpr int kHalf = 8, kReach = 120, kRows = 20;
    std::vector<cv::Point2f> corners;
    std::vector<double> offsets;
    cv::goodFeaturesToTrack(left(cv::Rect(0, 0, left.cols, left.rows - 4)), corners, 400, 0.01, 12);
    for (const cv::Point2f& c : corners) {
        const cv::Rect patch(int(std::lround(c.x)) - kHalf, int(std::lround(c.y)) - kHalf, 2 * kHalf + 1, 2 * kHalf + 1);
        const cv::Rect search = cv::Rect(patch.x - kReach, patch.y - kRows, patch.width + kReach + 4,
                                         patch.height + 2 * kRows) & cv::Rect(0, 0, right.cols, right.rows - 4);
        if ((patch & cv::Rect(0, 0, left.cols, left.rows)) != patch || search.height < patch.height + 2 ||
            search.width < patch.width + 2)
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

// The default scene, pinhole and seen by the fisheye rig. The facade's rectified pair is its raw pair
// through the builders' maps (left maps first), black where a map leaves the source.
TEST(RectificationScene, RowsAlignAfterRectificationOnly) {
    TempDir dir;
    orvo::vcam::Scene scene = orvo::vcam::defaultScene();
    scene.rig = orvo::vcam::fisheyeRigSpec();
    scene.calibration = orvo::vcam::SceneCalibration();
    scene.calibration.fisheye = "fisheye.yml";
    std::string error;
    ASSERT_TRUE(saveScene(dir.file("scene.yml"), scene, &error)) << error;
    ASSERT_TRUE(loadScene(dir.file("scene.yml"), scene, &error)) << error;
    ASSERT_TRUE(writeSceneCalibration(scene, &error)) << error;
    const std::string data = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";
    // The same lenses and right projection saved in single precision rectify the same (OpenCV itself
    // refuses a single-precision rotation).
    for (const char* name : {"intrinsics.yml", "extrinsics.yml"}) {
        std::filesystem::copy_file(data + name, dir.file(std::string("f32-") + name));
        editMatrices(dir.file(std::string("f32-") + name), [](auto& m) {
            for (auto& [key, value] : m)
                if (key != "R" && key != "T") value.convertTo(value, CV_32F);
        });
    }
    const std::string rigs[][4] = {{"", data + "intrinsics.yml", data + "extrinsics.yml", ""},
                                   {"", dir.file("f32-intrinsics.yml"), dir.file("f32-extrinsics.yml"), ""},
                                   {"scene:" + dir.file("scene.yml"), "", "", dir.file("fisheye.yml")}};
    for (const auto& r : rigs) {
        SCOPED_TRACE(r[0] + r[3]);
        VirtualCamera vcam(r[0]);
        auto camera = makeFacade(r[1], r[2], r[3]);
        ASSERT_TRUE(camera->Grab());
        cv::Mat raw[2], rect[2], m[6];  // left maps, right maps, camera matrix, right projection
        camera->getOrgImage(raw[0], raw[1]);
        camera->getRectImage(rect[0], rect[1]);
        EXPECT_LE(medianRowOffset(rect[0], rect[1]), 0.5);
        EXPECT_GE(medianRowOffset(raw[0], raw[1]), 3.0);
        ASSERT_TRUE(r[3].empty() ? get_remap_mat(r[1], r[2], {kW, kH}, m[0], m[1], m[2], m[3], m[4], m[5])
                                 : get_remap_mat_fisheye_file(r[3], {kW, kH}, m[0], m[1], m[2], m[3], m[4], m[5]));
        for (int i = 0; i < 2; ++i) {
            cv::Mat want;
            cv::remap(raw[i], want, m[2 * i], m[2 * i + 1], cv::INTER_LINEAR, cv::BORDER_CONSTANT);
            EXPECT_TRUE(sameImage(rect[i], want)) << "image " << i;
        }
    }
}

}  // namespace
