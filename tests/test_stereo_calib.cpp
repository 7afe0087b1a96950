// Chessboard stereo calibration on rendered boards of a known rig: accuracy, files, messages.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <regex>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "ZUNCVHelper.h"
#include "calib_fixture.h"
#include "display_double.h"
#include "run_capture.h"

using orvo_test::display;
using orvo_test::renderedSet;

namespace {

const std::string kTooLittle = "Error: too little pairs to run the calibration\n";
const std::string kReport =
    "Running stereo calibration ...\ndone with RMS error=#\naverage reprojection err = #\n";

// Runs the calibration in `cwd` with its output captured and the display double reset.
orvo_test::Captured calibrate(const std::string& cwd, const std::vector<std::string>& list,
                              bool showRectified) {
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    display().reset();
    orvo_test::ScopedCwd in(cwd);
    const auto& rs = renderedSet();
    return orvo_test::captureOutput([&] {
        camera_->OrvoStereoCalib(list, rs.board.inner, float(rs.board.square), true, showRectified);
    });
}

std::string lines(const std::vector<std::string>& names) {
    std::string s;
    for (const std::string& n : names) s += n + "\n";
    return s;
}

// The output with the two figures of the report replaced by "#", and their values.
struct Report {
    std::string text;
    double rms = -1, epipolar = -1;
};
Report maskFigures(const std::string& out) {
    Report r;
    std::smatch m;
    const std::regex figures(
        "done with RMS error=([0-9.e+-]+)\naverage reprojection err = ([0-9.e+-]+)\n");
    if (std::regex_search(out, m, figures)) {
        r.rms = std::stod(m[1]);
        r.epipolar = std::stod(m[2]);
    }
    r.text = std::regex_replace(out, figures, "done with RMS error=#\naverage reprojection err = #\n");
    return r;
}

// Largest row difference between the board corners of a rendered view of the rig rectified
// through the maps built from a pair of files.
double rowErrorThroughFiles(const std::string& intrinsics, const std::string& extrinsics,
                            const orvo::vcam::BoardPose& pose) {
    const auto& rs = renderedSet();
    cv::Mat m[4], camera, p2;
    get_remap_mat(intrinsics, extrinsics, rs.rig.params().size, m[0], m[1], m[2], m[3], camera, p2);
    std::vector<cv::Point2f> c[2];
    for (int k = 0; k < 2; ++k) {
        cv::Mat img;
        cv::remap(rs.renderer.render(k, pose), img, m[2 * k], m[2 * k + 1], cv::INTER_LINEAR);
        if (!cv::findChessboardCorners(img, rs.board.inner, c[k], 3)) return 1e9;
        cv::cornerSubPix(img, c[k], cv::Size(7, 7), cv::Size(-1, -1), cv::TermCriteria(3, 50, 0.001));
    }
    double worst = 0;
    for (size_t j = 0; j < c[0].size(); ++j) worst = std::max(worst, double(std::fabs(c[0][j].y - c[1][j].y)));
    return worst;
}

}  // namespace

TEST(StereoCalib, RecoversTheRigAndWritesFilesThatRectifyIt) {
    const auto& rs = renderedSet();
    const auto& set = rs.set;
    const orvo_test::ScratchDir work;
    mkdir(work.file("params").c_str(), 0755);
    const orvo_test::Captured c = calibrate(work.path(), set.listWithout(set.far_pair), false);

    // The pairs missing an image or of another size drop out with the messages checked below.
    const Report r = maskFigures(c.out);
    const std::string tail = "\n12 pairs have been successfully detected.\n" + kReport;
    ASSERT_GE(r.text.size(), tail.size());
    EXPECT_EQ(r.text.substr(r.text.size() - tail.size()), tail) << r.text;
    EXPECT_GT(r.rms, 0.0);
    EXPECT_LT(r.rms, 0.3);
    EXPECT_GT(r.epipolar, 0.0);
    EXPECT_LT(r.epipolar, 0.3);
    EXPECT_EQ(display().count("corners"), 26u);
    EXPECT_EQ(display().count("rectified"), 0u);

    const std::string intrinsics = work.file("params/intrinsics.yml");
    const std::string extrinsics = work.file("params/extrinsics.yml");
    EXPECT_EQ(cv::FileStorage(intrinsics, cv::FileStorage::READ).root().keys(),
              (std::vector<std::string>{"M1", "D1", "M2", "D2"}));
    EXPECT_EQ(cv::FileStorage(extrinsics, cv::FileStorage::READ).root().keys(),
              (std::vector<std::string>{"R", "T", "R1", "R2", "P1", "P2", "Q"}));
    std::vector<cv::Mat> in, ex;
    ASSERT_TRUE(readYML(intrinsics, ZUNCV_INTRINSICS, in));
    ASSERT_TRUE(readYML(extrinsics, ZUNCV_EXTRINSICS, ex));
    const cv::Mat &M1 = in[0], &D1 = in[1], &M2 = in[2], &D2 = in[3], &T = ex[1];
    ASSERT_EQ(M1.type(), CV_64F);
    ASSERT_EQ(D1.total(), 5u);
    ASSERT_EQ(D2.total(), 5u);
    // The flags tie the model: square pixels, one focal length for both lenses, k3 held at 0.
    EXPECT_EQ(M1.at<double>(0, 0), M1.at<double>(1, 1));
    EXPECT_EQ(M2.at<double>(0, 0), M1.at<double>(0, 0));
    EXPECT_EQ(M2.at<double>(1, 1), M1.at<double>(1, 1));
    EXPECT_EQ(D1.at<double>(4), 0.0);
    EXPECT_EQ(D2.at<double>(4), 0.0);

    const auto& truth = rs.rig.params();
    EXPECT_NEAR(M1.at<double>(0, 0), truth.focal, 0.01 * truth.focal);
    EXPECT_NEAR(cv::norm(T), truth.baseline, 0.005 * truth.baseline);
    EXPECT_LT(T.at<double>(0), 0.0);  // the right lens sits at +x of the left one
    EXPECT_NEAR(M1.at<double>(0, 2), truth.principal_left.x, 2.0);
    EXPECT_NEAR(M1.at<double>(1, 2), truth.principal_left.y, 2.0);
    EXPECT_NEAR(M2.at<double>(0, 2), truth.principal_right.x, 2.0);
    EXPECT_NEAR(M2.at<double>(1, 2), truth.principal_right.y, 2.0);
    EXPECT_NEAR(D1.at<double>(0), truth.dist_left[0], 0.01);
    EXPECT_NEAR(D2.at<double>(0), truth.dist_right[0], 0.01);
    cv::Mat rvec;
    cv::Rodrigues(ex[0], rvec);
    EXPECT_LT(cv::norm(rvec, cv::Mat(truth.rotation)), 0.002);
    EXPECT_EQ(ex[5].at<double>(1, 3), 0.0);  // horizontal rig: P2's vertical term is zero

    // A view of the rig that was not in the set comes out row-aligned through the written files.
    const auto pose = orvo::vcam::boardPoseAt(rs.board, cv::Vec3d(0.04, -0.03, 0.75), 12, -18, 6);
    EXPECT_LE(rowErrorThroughFiles(intrinsics, extrinsics, pose), 0.5);
}

TEST(StereoCalib, ListsThatCannotBeCalibrated) {
    const auto& set = renderedSet().set;
    const orvo_test::ScratchDir work;
    mkdir(work.file("params").c_str(), 0755);
    const std::string blank = work.file("blank.png");
    ASSERT_TRUE(cv::imwrite(blank, cv::Mat(renderedSet().rig.params().size, CV_8U, cv::Scalar(128))));
    const int missing = set.missing_right_pair;
    const std::string other_size = set.list[2 * size_t(set.other_size_pair) + 1];
    const std::string first = lines(set.pairs({0}));
    const std::string none = "0 pairs have been successfully detected.\n" + kTooLittle;
    const std::string one = "1 pairs have been successfully detected.\n" + kTooLittle;
    const struct {
        const char* name;
        std::vector<std::string> list;
        std::string out;
        size_t shown;
    } cases[] = {
        {"odd list: stops before anything is loaded", {set.list[0], set.list[1], set.list[2]},
         "Error: the image list contains odd (non-even) number of elements\n", 0},
        {"empty list: the count, then the refusal", {}, none, 0},
        {"one good pair, no plural form", set.pairs({0}), first + one, 2},
        {"no right image: dropped silently after its left was shown", set.pairs({0, missing}),
         first + set.list[2 * size_t(missing)] + "\n" + one, 3},
        {"no left image: the right one is not even loaded",
         {work.file("nothing.png"), set.list[1]}, none, 0},
        {"left image of another size than the first",
         {set.list[0], set.list[1], other_size, set.list[2]},
         first + "The image " + other_size +
             " has the size different from the first image size. Skipping the pair\n" + one,
         2},
        {"no board: shown all the same, then dropped", {set.list[0], set.list[1], blank, set.list[3]},
         lines({set.list[0], set.list[1], blank}) + one, 3},
    };
    for (const auto& cs : cases) {
        SCOPED_TRACE(cs.name);
        EXPECT_EQ(calibrate(work.path(), cs.list, true).out, cs.out);
        EXPECT_EQ(display().count("corners"), cs.shown);
        EXPECT_EQ(display().shown.size(), cs.shown);
    }
    EXPECT_TRUE(orvo_test::listDirectory(work.file("params")).empty());
}

TEST(StereoCalib, FarBoardDrawnOnTheImageGridAndWithoutParamsBothSavesFail) {
    const auto& rs = renderedSet();
    const int far = rs.set.far_pair;
    // The far board is missed on the image as it is and found on the image enlarged twice.
    for (int lens = 0; lens < 2; ++lens) {
        const cv::Mat img = cv::imread(rs.set.list[2 * size_t(far) + size_t(lens)], 0);
        std::vector<cv::Point2f> c;
        ASSERT_FALSE(cv::findChessboardCorners(img, rs.board.inner, c, 3)) << "lens " << lens;
        cv::Mat big;
        cv::resize(img, big, cv::Size(), 2, 2, cv::INTER_LINEAR);
        ASSERT_TRUE(cv::findChessboardCorners(big, rs.board.inner, c, 3)) << "lens " << lens;
    }
    const orvo_test::ScratchDir work;  // no "params" directory
    const auto list = rs.set.pairs({0, far});
    const Report r = maskFigures(calibrate(work.path(), list, true).out);
    EXPECT_EQ(r.text, lines(list) + "2 pairs have been successfully detected.\n" + kReport +
                          "Error: can not save the intrinsic parameters\n"
                          "Error: can not save the extrinsic parameters\n");
    EXPECT_EQ(display().count("rectified"), 2u);  // the display still runs
    EXPECT_TRUE(orvo_test::listDirectory(work.path()).empty());

    const auto shown = display().images("corners");
    ASSERT_EQ(shown.size(), 4u);
    for (int lens = 0; lens < 2; ++lens) {
        // The drawing is the only colour on a grey view; it must sit on the true corners, not
        // on their positions in the enlarged image.
        const cv::Mat& img = shown[2 + size_t(lens)];
        ASSERT_EQ(img.size(), rs.rig.params().size);
        cv::Mat ch[3];
        cv::split(img, ch);
        const cv::Mat chroma = cv::max(cv::max(ch[0], ch[1]), ch[2]) - cv::min(cv::min(ch[0], ch[1]), ch[2]);
        const cv::Moments m = cv::moments(chroma > 60, true);
        ASSERT_GT(m.m00, 200) << "lens " << lens;
        cv::Point2d mean(0, 0);
        const auto truth = rs.renderer.corners(lens, rs.set.poses[size_t(far)]);
        for (const auto& p : truth) mean += p * (1.0 / double(truth.size()));
        EXPECT_LT(cv::norm(cv::Point2d(m.m10 / m.m00, m.m01 / m.m00) - mean), 2.0) << "lens " << lens;
    }
}
