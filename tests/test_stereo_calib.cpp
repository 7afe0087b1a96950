// Stereo calibration on rendered boards of a known rig: accuracy, files, messages, display and keys.
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

// A scratch working directory, with the "params" directory the files go to unless told not to.
struct WorkDir {
    orvo_test::ScratchDir scratch;
    std::string path = scratch.path(), params = path + "/params";
    explicit WorkDir(bool with_params = true) { if (with_params) mkdir(params.c_str(), 0755); }
};

void runCalibration(const std::string& cwd, const std::vector<std::string>& list, bool useCalibrated,
                    bool showRectified = true) {
    const auto& rs = renderedSet();
    orvo_test::ScopedCwd in(cwd);
    camera_->OrvoStereoCalib(list, rs.board.inner, float(rs.board.square), useCalibrated, showRectified);
}

// Runs the calibration with the display double answering `keys` (then space), output captured.
orvo_test::Captured calibrate(const std::string& cwd, const std::vector<std::string>& list,
                              bool useCalibrated = true, std::vector<int> keys = {},
                              bool showRectified = true) {
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    display().reset();
    display().keys.assign(keys.begin(), keys.end());
    return orvo_test::captureOutput([&] { runCalibration(cwd, list, useCalibrated, showRectified); });
}

std::string lines(const std::vector<std::string>& names) {
    std::string s;
    for (const std::string& n : names) s += n + "\n";
    return s;
}

// The output with the two figures of the report replaced by "#"; `figures` receives their values.
std::string maskFigures(const std::string& out, std::smatch* figures = nullptr) {
    static const std::regex report("done with RMS error=([0-9.e+-]+)\naverage reprojection err = ([0-9.e+-]+)\n");
    if (figures != nullptr) std::regex_search(out, *figures, report);
    return std::regex_replace(out, report, "done with RMS error=#\naverage reprojection err = #\n");
}

// Largest row difference between the board corners found in two grey images.
double rowError(const cv::Mat& a, const cv::Mat& b) {
    std::vector<cv::Point2f> c[2];
    for (int k = 0; k < 2; ++k) {
        const cv::Mat& img = k == 0 ? a : b;
        if (!cv::findChessboardCorners(img, renderedSet().board.inner, c[k], 3)) return 1e9;
        cv::cornerSubPix(img, c[k], cv::Size(7, 7), cv::Size(-1, -1), cv::TermCriteria(3, 50, 0.001));
    }
    double worst = 0;
    for (size_t j = 0; j < c[0].size(); ++j) worst = std::max(worst, double(std::fabs(c[0][j].y - c[1][j].y)));
    return worst;
}

// Side-by-side canvas: green guide lines every 16 rows, board rows aligned within `tolerance`.
void checkCanvas(const cv::Mat& canvas, double tolerance) {
    for (int y = 0; y < canvas.rows; ++y)
        ASSERT_EQ(canvas.at<cv::Vec3b>(y, 5) == cv::Vec3b(0, 255, 0), y % 16 == 0) << "row " << y;
    cv::Mat grey;
    cv::cvtColor(canvas, grey, cv::COLOR_BGR2GRAY);
    EXPECT_LT(rowError(grey.colRange(0, canvas.cols / 2), grey.colRange(canvas.cols / 2, canvas.cols)), tolerance);
}

int redPixels(const cv::Mat& img) {
    cv::Mat mask;
    cv::inRange(img, cv::Scalar(0, 0, 255), cv::Scalar(0, 0, 255), mask);
    return cv::countNonZero(mask);
}

}  // namespace

TEST(StereoCalib, RecoversTheRigAndWritesFilesThatRectifyIt) {
    const auto& rs = renderedSet();
    const WorkDir work;
    const orvo_test::Captured c = calibrate(work.path, rs.set.listWithout(rs.set.far_pair), true, {}, false);

    // The pairs missing an image or of another size drop out with the messages checked below.
    std::smatch figures;
    const std::string text = maskFigures(c.out, &figures), tail = "\n12 pairs have been successfully detected.\n" + kReport;
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
    ASSERT_EQ(figures.size(), 3u);
    EXPECT_TRUE(std::stod(figures[1]) > 0.0 && std::stod(figures[1]) < 0.3) << figures[1];  // RMS
    EXPECT_TRUE(std::stod(figures[2]) > 0.0 && std::stod(figures[2]) < 0.3) << figures[2];  // epipolar
    EXPECT_EQ(display().count("corners"), 26u);
    EXPECT_EQ(display().count("rectified"), 0u);

    const std::string intrinsics = work.params + "/intrinsics.yml", extrinsics = work.params + "/extrinsics.yml";
    EXPECT_EQ(cv::FileStorage(intrinsics, cv::FileStorage::READ).root().keys(),
              (std::vector<std::string>{"M1", "D1", "M2", "D2"}));
    EXPECT_EQ(cv::FileStorage(extrinsics, cv::FileStorage::READ).root().keys(),
              (std::vector<std::string>{"R", "T", "R1", "R2", "P1", "P2", "Q"}));
    std::vector<cv::Mat> in, ex;
    ASSERT_TRUE(readYML(intrinsics, ZUNCV_INTRINSICS, in));
    ASSERT_TRUE(readYML(extrinsics, ZUNCV_EXTRINSICS, ex));
    const cv::Mat &M1 = in[0], &D1 = in[1], &M2 = in[2], &D2 = in[3], &T = ex[1];
    ASSERT_EQ(M1.type(), CV_64F);
    ASSERT_TRUE(D1.total() == 5u && D2.total() == 5u);
    // The flags tie the model: square pixels, one focal length for both lenses, k3 held at 0.
    EXPECT_EQ(cv::Vec3d(M1.at<double>(1, 1), M2.at<double>(0, 0), M2.at<double>(1, 1)), cv::Vec3d::all(M1.at<double>(0, 0)));
    EXPECT_EQ(cv::Vec2d(D1.at<double>(4), D2.at<double>(4)), cv::Vec2d(0, 0));

    const auto& truth = rs.rig.params();
    EXPECT_NEAR(M1.at<double>(0, 0), truth.focal, 0.01 * truth.focal);
    EXPECT_NEAR(cv::norm(T), truth.baseline, 0.005 * truth.baseline);
    EXPECT_LT(T.at<double>(0), 0.0);  // the right lens sits at +x of the left one
    EXPECT_EQ(ex[5].at<double>(1, 3), 0.0);  // horizontal rig: P2's vertical term is zero

    // A view of the rig that was not in the set comes out row-aligned through the written files.
    const auto pose = orvo::vcam::boardPoseAt(rs.board, cv::Vec3d(0.04, -0.03, 0.75), 12, -18, 6);
    cv::Mat m[4], camera, p2, img[2];
    get_remap_mat(intrinsics, extrinsics, truth.size, m[0], m[1], m[2], m[3], camera, p2);
    for (int k = 0; k < 2; ++k)
        cv::remap(rs.renderer.render(k, pose), img[k], m[2 * k], m[2 * k + 1], cv::INTER_LINEAR);
    EXPECT_LE(rowError(img[0], img[1]), 0.5);
}

TEST(StereoCalib, ListsThatCannotBeCalibrated) {
    const auto& set = renderedSet().set;
    const WorkDir work;
    const std::string blank = work.path + "/blank.png";
    ASSERT_TRUE(cv::imwrite(blank, cv::Mat(renderedSet().rig.params().size, CV_8U, cv::Scalar(128))));
    const int missing = set.missing_right_pair;
    const std::string other_size = set.list[2 * size_t(set.other_size_pair) + 1];
    const std::string first = lines(set.pairs({0}));
    const std::string none = "0 pairs have been successfully detected.\n" + kTooLittle;
    const std::string one = "1 pairs have been successfully detected.\n" + kTooLittle;
    const struct { const char* name; std::vector<std::string> list; std::string out; size_t shown; } cases[] = {
        {"odd list: stops before anything is loaded", {set.list[0], set.list[1], set.list[2]},
         "Error: the image list contains odd (non-even) number of elements\n", 0},
        {"empty list: the count, then the refusal", {}, none, 0},
        {"one good pair, no plural form", set.pairs({0}), first + one, 2},
        {"no right image: dropped silently after its left was shown", set.pairs({0, missing}),
         first + set.list[2 * size_t(missing)] + "\n" + one, 3},
        {"no left image: the right one is not even loaded", {work.path + "/nothing.png", set.list[1]}, none, 0},
        {"left image of another size than the first", {set.list[0], set.list[1], other_size, set.list[2]},
         first + "The image " + other_size +
             " has the size different from the first image size. Skipping the pair\n" + one, 2},
        {"no board: shown all the same, then dropped", {set.list[0], set.list[1], blank, set.list[3]},
         lines({set.list[0], set.list[1], blank}) + one, 3},
    };
    for (const auto& cs : cases) {
        SCOPED_TRACE(cs.name);
        EXPECT_EQ(calibrate(work.path, cs.list).out, cs.out);
        EXPECT_EQ(display().shown.size(), cs.shown);  // all of them corner views
    }
    EXPECT_TRUE(orvo_test::listDirectory(work.params).empty());
}

TEST(StereoCalib, FarBoardDrawnOnTheImageGridAndWithoutParamsBothSavesFail) {
    const auto& rs = renderedSet();
    const int far = rs.set.far_pair;  // its board is found only on the image enlarged twice
    const WorkDir work(false);
    const auto list = rs.set.pairs({0, far});
    EXPECT_EQ(maskFigures(calibrate(work.path, list).out),
              lines(list) + "2 pairs have been successfully detected.\n" + kReport +
                  "Error: can not save the intrinsic parameters\nError: can not save the extrinsic parameters\n");
    EXPECT_EQ(display().count("rectified"), 2u);  // the display still runs
    EXPECT_TRUE(orvo_test::listDirectory(work.path).empty());

    const auto shown = display().images("corners");
    ASSERT_EQ(shown.size(), 4u);
    for (int lens = 0; lens < 2; ++lens) {
        // The drawing (the only colour) sits on the true corners, not where they are when enlarged.
        cv::Mat hsv, saturation;
        ASSERT_EQ(shown[2 + size_t(lens)].size(), rs.rig.params().size);
        cv::cvtColor(shown[2 + size_t(lens)], hsv, cv::COLOR_BGR2HSV);
        cv::extractChannel(hsv, saturation, 1);
        const cv::Moments m = cv::moments(saturation > 60, true);
        const cv::Scalar mean = cv::mean(cv::Mat(rs.renderer.corners(lens, rs.set.poses[size_t(far)])));
        ASSERT_GT(m.m00, 200) << "lens " << lens;
        EXPECT_LT(std::hypot(m.m10 / m.m00 - mean[0], m.m01 / m.m00 - mean[1]), 2.0) << "lens " << lens;
    }
}

// Keys that do not quit, in both windows: low bytes other than Esc/q/Q, none (-1), 'x', 'n'.
TEST(StereoCalibDisplay, WindowOrderImagesAndUnlimitedWaits) {
    const auto list = renderedSet().set.pairs({0, 1, 2});
    const WorkDir work;
    calibrate(work.path, list, true, {'a', -1, 0x1B00, 0x71 | 0x80, 'w', 'Z', 'x', 'n'});
    const orvo_test::DisplayDouble d = display();
    EXPECT_EQ(orvo_test::listDirectory(work.params), (std::vector<std::string>{"extrinsics.yml", "intrinsics.yml"}));
    std::vector<std::string> windows, want(6, "corners");
    want.insert(want.end(), 3, "rectified");
    for (const auto& s : d.shown) windows.push_back(s.window);
    EXPECT_EQ(windows, want);
    EXPECT_EQ(d.waited, windows);
    EXPECT_EQ(d.waits, std::vector<int>(9, 0));  // every wait is unlimited
    const auto canvases = d.images("rectified");
    for (size_t i = 0; i < canvases.size(); ++i) {
        SCOPED_TRACE("calibrated pair " + std::to_string(i));
        // A 752 x 480 pair at 600 / 752 scale: 600 x 383 halves side by side, red frames.
        EXPECT_EQ(canvases[i].size(), cv::Size(1200, 383));
        EXPECT_GT(redPixels(canvases[i]), 1000);
        checkCanvas(canvases[i], 0.5);
    }
}

TEST(StereoCalibDisplay, QuitKeysEndTheProcessOnCornersAndOnlyTheLoopOnRectified) {
    const auto list = renderedSet().set.pairs({0, 1, 2});
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    // Esc, q and Q in the key's low byte, whatever the modifier bits above it.
    for (int key : std::vector<int>{27, 'q', 'Q', 0x100000 | 'q', 0x20000 | 27}) {
        SCOPED_TRACE("corners, key " + std::to_string(key));
        const WorkDir work;
        display().reset();
        display().keys = {' ', key};
        const auto c = orvo_test::runInChild([&] { runCalibration(work.path, list, true); });
        EXPECT_EQ(c.exit_status, 255);
        EXPECT_EQ(c.out, list[0] + "\n" + list[1] + "\n");
        EXPECT_TRUE(orvo_test::listDirectory(work.params).empty());
    }
    // On the rectified canvases (here also uncalibrated: no frames, rows aligned by homographies).
    for (int key : std::vector<int>{27, 'q', 0x100000 | 'Q'}) {
        SCOPED_TRACE("rectified, key " + std::to_string(key));
        const WorkDir work;
        std::vector<int> keys(6, ' ');
        keys.push_back(key);
        EXPECT_EQ(calibrate(work.path, list, key != 'q', keys).exit_status, 0);
        const auto canvases = display().images("rectified");
        ASSERT_EQ(canvases.size(), 1u);
        EXPECT_EQ(redPixels(canvases[0]) == 0, key == 'q');
        if (key == 'q') checkCanvas(canvases[0], 1.5);
    }
}
