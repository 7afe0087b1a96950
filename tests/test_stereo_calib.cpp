// Chessboard stereo calibration on rendered boards of a known rig: accuracy, files, messages.
#include <gtest/gtest.h>

#include <sys/stat.h>

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

using orvo_test::Captured;
using orvo_test::display;
using orvo_test::renderedSet;

namespace {

const char* const kTooLittle = "Error: too little pairs to run the calibration\n";

// Runs the calibration in `cwd` with its output captured and the display double reset.
Captured calibrate(const std::string& cwd, const std::vector<std::string>& list,
                   bool useCalibrated, bool showRectified) {
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    display().reset();
    orvo_test::ScopedCwd in(cwd);
    const auto& rs = renderedSet();
    return orvo_test::captureOutput([&] {
        camera_->OrvoStereoCalib(list, rs.board.inner, float(rs.board.square), useCalibrated,
                                 showRectified);
    });
}

// A scratch working directory, with or without the "params" directory the files go to.
struct WorkDir {
    orvo_test::ScratchDir scratch;
    std::string path;
    explicit WorkDir(bool with_params) : path(scratch.path()) {
        if (with_params) mkdir((path + "/params").c_str(), 0755);
    }
};

std::string lines(const std::vector<std::string>& names) {
    std::string s;
    for (const std::string& n : names) s += n + "\n";
    return s;
}

// The two figures of the report, replaced by "#", and their values.
struct Report {
    std::string text;
    double rms = -1, epipolar = -1;
};
Report maskFigures(const std::string& out) {
    Report r;
    std::smatch m;
    const std::regex rms("done with RMS error=([0-9.e+-]+)\n");
    const std::regex epi("average reprojection err = ([0-9.e+-]+)\n");
    if (std::regex_search(out, m, rms)) r.rms = std::stod(m[1]);
    if (std::regex_search(out, m, epi)) r.epipolar = std::stod(m[1]);
    r.text = std::regex_replace(out, rms, "done with RMS error=#\n");
    r.text = std::regex_replace(r.text, epi, "average reprojection err = #\n");
    return r;
}

// Largest row difference between the board corners of a rectified pair.
double worstRowError(const cv::Mat& left, const cv::Mat& right, cv::Size board) {
    std::vector<cv::Point2f> c[2];
    const cv::Mat* img[2] = {&left, &right};
    for (int k = 0; k < 2; ++k) {
        if (!cv::findChessboardCorners(*img[k], board, c[k], 3)) return 1e9;
        cv::cornerSubPix(*img[k], c[k], cv::Size(7, 7), cv::Size(-1, -1),
                         cv::TermCriteria(3, 50, 0.001));
    }
    double worst = 0;
    for (size_t j = 0; j < c[0].size(); ++j) worst = std::max(worst, double(std::fabs(c[0][j].y - c[1][j].y)));
    return worst;
}

// Rectifies a rendered view of the rig through the maps built from a pair of files.
double rowErrorThroughFiles(const std::string& intrinsics, const std::string& extrinsics,
                            const orvo::vcam::BoardPose& pose) {
    const auto& rs = renderedSet();
    cv::Mat m[4], camera, p2;
    get_remap_mat(intrinsics, extrinsics, rs.rig.spec().size, m[0], m[1], m[2], m[3], camera, p2);
    cv::Mat left, right;
    cv::remap(rs.renderer.render(0, pose), left, m[0], m[1], cv::INTER_LINEAR);
    cv::remap(rs.renderer.render(1, pose), right, m[2], m[3], cv::INTER_LINEAR);
    return worstRowError(left, right, rs.board.inner);
}

std::vector<std::string> topLevelKeys(const std::string& path) {
    cv::FileStorage fs(path, cv::FileStorage::READ);
    return fs.root().keys();
}

bool hasColour(const cv::Vec3b& p) {
    const int hi = std::max({p[0], p[1], p[2]}), lo = std::min({p[0], p[1], p[2]});
    return hi - lo > 60;
}

}  // namespace

TEST(ChessboardRenderer, ViewsMatchTheRigAndTheSetHasItsSpecialPairs) {
    const auto& rs = renderedSet();
    const auto& set = rs.set;
    // The detector, refined, lands on the true projections of the inner corners in our order.
    for (int pose : {0, 4, 9}) {
        for (int lens = 0; lens < 2; ++lens) {
            const cv::Mat img = cv::imread(set.list[2 * size_t(pose) + size_t(lens)], 0);
            ASSERT_EQ(img.size(), rs.rig.spec().size);
            std::vector<cv::Point2f> found;
            ASSERT_TRUE(cv::findChessboardCorners(img, rs.board.inner, found, 3));
            cv::cornerSubPix(img, found, cv::Size(11, 11), cv::Size(-1, -1),
                             cv::TermCriteria(3, 30, 0.01));
            const auto truth = rs.renderer.corners(lens, set.poses[size_t(pose)]);
            ASSERT_EQ(found.size(), truth.size());
            for (size_t j = 0; j < truth.size(); ++j)
                EXPECT_LT(cv::norm(cv::Point2d(found[j]) - truth[j]), 0.15)
                    << "pose " << pose << " lens " << lens << " corner " << j;
        }
    }
    // The far board is missed on the image as it is and found on the image enlarged twice.
    ASSERT_GE(set.far_pair, 0);
    for (int lens = 0; lens < 2; ++lens) {
        const cv::Mat img = cv::imread(set.list[2 * size_t(set.far_pair) + size_t(lens)], 0);
        std::vector<cv::Point2f> c;
        EXPECT_FALSE(cv::findChessboardCorners(img, rs.board.inner, c, 3)) << "lens " << lens;
        cv::Mat big;
        cv::resize(img, big, cv::Size(), 2, 2, cv::INTER_LINEAR);
        EXPECT_TRUE(cv::findChessboardCorners(big, rs.board.inner, c, 3)) << "lens " << lens;
    }
    struct stat st;
    EXPECT_EQ(stat(set.list[2 * size_t(set.missing_right_pair) + 1].c_str(), &st), -1);
    EXPECT_EQ(stat(set.list[2 * size_t(set.missing_right_pair)].c_str(), &st), 0);
    EXPECT_NE(cv::imread(set.list[2 * size_t(set.other_size_pair) + 1], 0).size(),
              rs.rig.spec().size);
    EXPECT_EQ(orvo_test::readFile(set.list_file), lines(set.list));
    EXPECT_EQ(set.list.size(), 2 * set.poses.size());
}

TEST(StereoCalib, RecoversTheRigAndWritesFilesThatRectifyIt) {
    const auto& rs = renderedSet();
    const auto& set = rs.set;
    const WorkDir work(true);
    const std::string& dir = work.path;
    const auto list = set.listWithout(set.far_pair);
    const Captured c = calibrate(dir, list, true, false);

    // Every loaded image of the first size is named; the missing right image is silent, the
    // image of another size gets its message and no name line.
    std::string expected;
    int pairs = 0;
    for (int i = 0; i < int(set.poses.size()); ++i) {
        if (i == set.far_pair) continue;
        const std::string& left = set.list[2 * size_t(i)];
        const std::string& right = set.list[2 * size_t(i) + 1];
        if (i == set.missing_right_pair) {
            expected += left + "\n";
        } else if (i == set.other_size_pair) {
            expected += left + "\nThe image " + right +
                        " has the size different from the first image size. Skipping the pair\n";
        } else {
            expected += left + "\n" + right + "\n";
            ++pairs;
        }
    }
    ASSERT_EQ(pairs, 12);
    expected += "12 pairs have been successfully detected.\n"
                "Running stereo calibration ...\n"
                "done with RMS error=#\n"
                "average reprojection err = #\n";
    const Report r = maskFigures(c.out);
    EXPECT_EQ(r.text, expected);
    EXPECT_GT(r.rms, 0.0);
    EXPECT_LT(r.rms, 0.3);
    EXPECT_GT(r.epipolar, 0.0);
    EXPECT_LT(r.epipolar, 0.3);
    EXPECT_EQ(display().count("corners"), 26u);
    EXPECT_EQ(display().count("rectified"), 0u);

    const std::string intrinsics = dir + "/params/intrinsics.yml";
    const std::string extrinsics = dir + "/params/extrinsics.yml";
    EXPECT_EQ(topLevelKeys(intrinsics), (std::vector<std::string>{"M1", "D1", "M2", "D2"}));
    EXPECT_EQ(topLevelKeys(extrinsics),
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

    const auto& truth = rs.rig.spec();
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

    // A view of the rig that was not in the set comes out row-aligned through the written files,
    // as it does through the true rig's own files.
    const auto pose = orvo::vcam::boardPoseAt(rs.board, cv::Vec3d(0.04, -0.03, 0.75), 12, -18, 6);
    EXPECT_LE(rowErrorThroughFiles(intrinsics, extrinsics, pose), 0.5);
    const WorkDir truth_work(false);
    const std::string& truth_dir = truth_work.path;
    ASSERT_TRUE(rs.rig.writeStereo(truth_dir + "/intrinsics.yml", truth_dir + "/extrinsics.yml"));
    EXPECT_LE(rowErrorThroughFiles(truth_dir + "/intrinsics.yml", truth_dir + "/extrinsics.yml",
                                   pose),
              0.5);
}

TEST(StereoCalib, ListsThatCannotBeCalibrated) {
    const auto& set = renderedSet().set;
    const WorkDir work(true);
    const std::string& dir = work.path;

    // An odd list stops before anything is loaded or shown.
    std::vector<std::string> odd = set.pairs({0, 1});
    odd.pop_back();
    Captured c = calibrate(dir, odd, true, true);
    EXPECT_EQ(c.out, "Error: the image list contains odd (non-even) number of elements\n");
    EXPECT_TRUE(display().shown.empty());

    // An empty list is even: the count, then the refusal.
    c = calibrate(dir, {}, true, true);
    EXPECT_EQ(c.out, std::string("0 pairs have been successfully detected.\n") + kTooLittle);

    // One good pair, no plural form.
    c = calibrate(dir, set.pairs({0}), true, true);
    EXPECT_EQ(c.out, lines(set.pairs({0})) + "1 pairs have been successfully detected.\n" +
                         kTooLittle);
    EXPECT_EQ(display().count("corners"), 2u);

    // A pair without its right image drops out silently after its left image was shown.
    const int m = set.missing_right_pair;
    c = calibrate(dir, set.pairs({0, m}), true, true);
    EXPECT_EQ(c.out, lines(set.pairs({0})) + set.list[2 * size_t(m)] + "\n" +
                         "1 pairs have been successfully detected.\n" + kTooLittle);
    EXPECT_EQ(display().count("corners"), 3u);

    // A missing left image: the right one is not even loaded.
    const std::vector<std::string> no_left = {dir + "/nothing.png", set.list[1]};
    c = calibrate(dir, no_left, true, true);
    EXPECT_EQ(c.out, std::string("0 pairs have been successfully detected.\n") + kTooLittle);
    EXPECT_TRUE(display().shown.empty());

    // A left image of another size than the first loaded image.
    const int s = set.other_size_pair;
    std::vector<std::string> sizes = set.pairs({0});
    sizes.push_back(set.list[2 * size_t(s) + 1]);
    sizes.push_back(set.list[2]);
    c = calibrate(dir, sizes, true, true);
    EXPECT_EQ(c.out, lines(set.pairs({0})) + "The image " + sizes[2] +
                         " has the size different from the first image size. Skipping the pair\n"
                         "1 pairs have been successfully detected.\n" +
                         kTooLittle);

    // An image without a board is shown all the same, then its pair is dropped.
    const std::string blank = dir + "/blank.png";
    ASSERT_TRUE(cv::imwrite(blank, cv::Mat(renderedSet().rig.spec().size, CV_8U, cv::Scalar(128))));
    c = calibrate(dir, {set.list[0], set.list[1], blank, set.list[3]}, true, true);
    EXPECT_EQ(c.out, lines({set.list[0], set.list[1], blank}) +
                         "1 pairs have been successfully detected.\n" + kTooLittle);
    EXPECT_EQ(display().count("corners"), 3u);

    EXPECT_TRUE(orvo_test::listDirectory(dir + "/params").empty());
}

TEST(StereoCalib, WithoutParamsDirectoryBothSavesFailAndTheDisplayStillRuns) {
    const auto& set = renderedSet().set;
    const WorkDir work(false);
    const std::string& dir = work.path;
    const auto list = set.pairs({0, 1, 2});
    const Captured c = calibrate(dir, list, true, true);
    const Report r = maskFigures(c.out);
    EXPECT_EQ(r.text, lines(list) +
                          "3 pairs have been successfully detected.\n"
                          "Running stereo calibration ...\n"
                          "done with RMS error=#\n"
                          "average reprojection err = #\n"
                          "Error: can not save the intrinsic parameters\n"
                          "Error: can not save the extrinsic parameters\n");
    EXPECT_EQ(display().count("rectified"), 3u);
    EXPECT_TRUE(orvo_test::listDirectory(dir).empty());
}

TEST(StereoCalib, FarBoardIsFoundEnlargedAndDrawnOnTheImageGrid) {
    const auto& rs = renderedSet();
    const int far = rs.set.far_pair;
    const WorkDir work(true);
    const std::string& dir = work.path;
    const Captured c = calibrate(dir, rs.set.pairs({0, far}), true, false);
    EXPECT_NE(c.out.find("2 pairs have been successfully detected.\n"), std::string::npos) << c.out;

    const auto shown = display().images("corners");
    ASSERT_EQ(shown.size(), 4u);
    for (int lens = 0; lens < 2; ++lens) {
        // The drawing is the only colour on a grey view; it must sit on the true corners, not
        // on their positions in the enlarged image.
        const cv::Mat& img = shown[2 + size_t(lens)];
        ASSERT_EQ(img.size(), rs.rig.spec().size);
        cv::Point2d sum(0, 0);
        int n = 0;
        for (int y = 0; y < img.rows; ++y)
            for (int x = 0; x < img.cols; ++x)
                if (hasColour(img.at<cv::Vec3b>(y, x))) {
                    sum += cv::Point2d(x, y);
                    ++n;
                }
        ASSERT_GT(n, 200) << "lens " << lens;
        cv::Point2d mean(0, 0);
        const auto truth = rs.renderer.corners(lens, rs.set.poses[size_t(far)]);
        for (const auto& p : truth) mean += p;
        mean *= 1.0 / double(truth.size());
        EXPECT_LT(cv::norm(sum * (1.0 / n) - mean), 2.0) << "lens " << lens;
    }
}
