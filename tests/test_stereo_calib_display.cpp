// The calibration's display through the display double: the "corners" and "rectified" windows,
// their images, the key waits and the quit keys.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>

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

// A scratch working directory with the "params" directory the files go to.
struct WorkDir {
    orvo_test::ScratchDir scratch;
    std::string path;
    std::string params;
    WorkDir() : path(scratch.path()), params(scratch.path() + "/params") {
        mkdir(params.c_str(), 0755);
    }
};

void runCalibration(const std::string& cwd, const std::vector<std::string>& list,
                    bool useCalibrated) {
    const auto& rs = renderedSet();
    orvo_test::ScopedCwd in(cwd);
    camera_->OrvoStereoCalib(list, rs.board.inner, float(rs.board.square), useCalibrated, true);
}

// Runs the calibration with the display double answering `keys` (then space), output captured.
orvo_test::Captured calibrateWithKeys(const std::string& cwd, const std::vector<std::string>& list,
                                      bool useCalibrated, std::vector<int> keys = {}) {
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    display().reset();
    display().keys.assign(keys.begin(), keys.end());
    return orvo_test::captureOutput([&] { runCalibration(cwd, list, useCalibrated); });
}

// What the corner window must show for an image whose board the detector finds as it is.
cv::Mat expectedCornerView(const std::string& name) {
    const cv::Mat grey = cv::imread(name, 0);
    std::vector<cv::Point2f> corners;
    const bool found = cv::findChessboardCorners(grey, renderedSet().board.inner, corners, 3);
    cv::Mat colour, shown;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    cv::drawChessboardCorners(colour, renderedSet().board.inner, corners, found);
    const double sf = 752.0 / std::max(grey.rows, grey.cols);
    cv::resize(colour, shown, cv::Size(), sf, sf, cv::INTER_LINEAR);
    return shown;
}

// The canvases the rectified display must show for the accepted pairs, rebuilt independently
// from the two files the calibration wrote (rectified by the calibrated model).
std::vector<cv::Mat> expectedCanvases(const std::string& params,
                                      const std::vector<std::string>& accepted) {
    std::vector<cv::Mat> in, ex;
    EXPECT_TRUE(readYML(params + "/intrinsics.yml", ZUNCV_INTRINSICS, in));
    EXPECT_TRUE(readYML(params + "/extrinsics.yml", ZUNCV_EXTRINSICS, ex));
    const cv::Size size = cv::imread(accepted[0], 0).size();
    cv::Mat R1, R2, P1, P2, Q;
    cv::Rect roi[2];
    cv::stereoRectify(in[0], in[1], in[2], in[3], size, ex[0], ex[1], R1, R2, P1, P2, Q,
                      cv::CALIB_ZERO_DISPARITY, 0, size, &roi[0], &roi[1]);
    EXPECT_EQ(cv::norm(P2, ex[5], cv::NORM_INF), 0.0);
    const bool vertical = std::fabs(P2.at<double>(1, 3)) > std::fabs(P2.at<double>(0, 3));
    cv::Mat maps[2][2];
    cv::initUndistortRectifyMap(in[0], in[1], ex[2], ex[4], size, CV_16SC2, maps[0][0], maps[0][1]);
    cv::initUndistortRectifyMap(in[2], in[3], ex[3], ex[5], size, CV_16SC2, maps[1][0], maps[1][1]);
    const double sf = (vertical ? 300.0 : 600.0) / std::max(size.width, size.height);
    const int w = cvRound(size.width * sf), h = cvRound(size.height * sf);
    std::vector<cv::Mat> out;
    for (size_t i = 0; i + 1 < accepted.size(); i += 2) {
        cv::Mat canvas(vertical ? 2 * h : h, vertical ? w : 2 * w, CV_8UC3);
        for (int k = 0; k < 2; ++k) {
            cv::Mat rect, colour;
            cv::remap(cv::imread(accepted[i + size_t(k)], 0), rect, maps[k][0], maps[k][1],
                      cv::INTER_LINEAR);
            cv::cvtColor(rect, colour, cv::COLOR_GRAY2BGR);
            cv::Mat part = canvas(vertical ? cv::Rect(0, h * k, w, h) : cv::Rect(w * k, 0, w, h));
            cv::resize(colour, part, part.size(), 0, 0, cv::INTER_AREA);
            const cv::Rect r(cvRound(roi[k].x * sf), cvRound(roi[k].y * sf),
                             cvRound(roi[k].width * sf), cvRound(roi[k].height * sf));
            cv::rectangle(part, r, cv::Scalar(0, 0, 255), 3, 8);
        }
        for (int j = 0; j < (vertical ? canvas.cols : canvas.rows); j += 16)
            cv::line(canvas, vertical ? cv::Point(j, 0) : cv::Point(0, j),
                     vertical ? cv::Point(j, canvas.rows) : cv::Point(canvas.cols, j),
                     cv::Scalar(0, 255, 0), 1, 8);
        out.push_back(canvas);
    }
    return out;
}

double maxDifference(const cv::Mat& a, const cv::Mat& b) {
    return a.size() != b.size() || a.type() != b.type() ? 1e9 : cv::norm(a, b, cv::NORM_INF);
}

int countColour(const cv::Mat& img, const cv::Scalar& colour) {
    cv::Mat mask;
    cv::inRange(img, colour, colour, mask);
    return cv::countNonZero(mask);
}

// Largest row difference between the board corners of the two halves of a side-by-side canvas.
double canvasRowError(const cv::Mat& canvas) {
    cv::Mat grey;
    cv::cvtColor(canvas, grey, cv::COLOR_BGR2GRAY);
    const int w = canvas.cols / 2;
    std::vector<cv::Point2f> c[2];
    for (int k = 0; k < 2; ++k)
        if (!cv::findChessboardCorners(grey(cv::Rect(k * w, 0, w, canvas.rows)),
                                       renderedSet().board.inner, c[k], 3))
            return 1e9;
    double worst = 0;
    for (size_t j = 0; j < c[0].size(); ++j)
        worst = std::max(worst, double(std::fabs(c[0][j].y - c[1][j].y)));
    return worst;
}

// Writes copies of the given pairs of the rendered set, turned a quarter turn or enlarged twice,
// and returns their list.
std::vector<std::string> transformedPairs(const std::string& dir, const std::vector<int>& pairs,
                                          bool turn) {
    std::vector<std::string> out;
    for (const std::string& name : renderedSet().set.pairs(pairs)) {
        cv::Mat t;
        if (turn)
            cv::rotate(cv::imread(name, 0), t, cv::ROTATE_90_CLOCKWISE);
        else
            cv::resize(cv::imread(name, 0), t, cv::Size(), 2, 2, cv::INTER_CUBIC);
        out.push_back(dir + "/t" + std::to_string(out.size()) + ".png");
        EXPECT_TRUE(cv::imwrite(out.back(), t));
    }
    return out;
}

// One calibration of pairs 0..2 shared by the suite, every key that does not quit answered in
// both windows: low bytes other than Esc/q/Q, no key (-1), then 'x' and 'n' (and space after).
class StereoCalibDisplay : public ::testing::Test {
protected:
    struct Run {
        WorkDir work;
        std::vector<std::string> list = renderedSet().set.pairs({0, 1, 2});
        orvo_test::Captured c;
        orvo_test::DisplayDouble d;
    };
    static void SetUpTestSuite() {
        run_ = new Run;
        run_->c = calibrateWithKeys(run_->work.path, run_->list, true,
                                    {'a', -1, 0x1B00, 0x71 | 0x80, 'w', 'Z', 'x', 'n'});
        run_->d = display();
    }
    static void TearDownTestSuite() { delete run_; }
    static Run* run_;
};
StereoCalibDisplay::Run* StereoCalibDisplay::run_ = nullptr;

}  // namespace

TEST_F(StereoCalibDisplay, CornerViewsThenRectifiedCanvasesOfTheCalibratedRig) {
    const auto& list = run_->list;
    const auto& d = run_->d;
    ASSERT_EQ(run_->c.exit_status, 0);
    EXPECT_EQ(orvo_test::listDirectory(run_->work.params),
              (std::vector<std::string>{"extrinsics.yml", "intrinsics.yml"}));
    std::vector<std::string> windows, want(6, "corners");
    want.insert(want.end(), 3, "rectified");
    for (const auto& s : d.shown) windows.push_back(s.window);
    EXPECT_EQ(windows, want);
    EXPECT_EQ(d.waited, windows);
    EXPECT_EQ(d.waits, std::vector<int>(9, 0));  // every wait is unlimited

    const auto corners = d.images("corners");
    for (size_t i = 0; i < corners.size(); ++i)
        EXPECT_EQ(maxDifference(corners[i], expectedCornerView(list[i])), 0.0) << list[i];
    const auto canvases = d.images("rectified");
    const auto expected = expectedCanvases(run_->work.params, list);
    ASSERT_EQ(canvases.size(), expected.size());
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;

    // A 752 x 480 pair at 600 / 752 scale: 600 x 383 halves side by side, red frames.
    EXPECT_EQ(canvases[0].size(), cv::Size(1200, 383));
    EXPECT_GT(countColour(canvases[0], cv::Scalar(0, 0, 255)), 1000);
}

TEST_F(StereoCalibDisplay, UncalibratedRectificationChangesOnlyTheDisplay) {
    const WorkDir work;
    calibrateWithKeys(work.path, run_->list, false);
    for (const char* file : {"/intrinsics.yml", "/extrinsics.yml"})
        EXPECT_EQ(orvo_test::readFile(work.params + file),
                  orvo_test::readFile(run_->work.params + file))
            << file;
    const auto canvases = display().images("rectified");
    const auto calibrated = run_->d.images("rectified");
    ASSERT_EQ(canvases.size(), 3u);
    for (size_t i = 0; i < canvases.size(); ++i) {
        EXPECT_EQ(countColour(canvases[i], cv::Scalar(0, 0, 255)), 0) << "pair " << i;
        EXPECT_GT(maxDifference(canvases[i], calibrated[i]), 0.0) << "pair " << i;
        // The homographies, estimated on the undistorted corners, still align the rows.
        EXPECT_LT(canvasRowError(canvases[i]), 1.5) << "pair " << i;
    }
}

TEST_F(StereoCalibDisplay, FacadeEntryIsTheCalibratedRectification) {
    const auto& list = run_->list;
    const WorkDir facade;
    display().reset();
    const auto& rs = renderedSet();
    const auto c = orvo_test::captureOutput([&] {
        orvo_test::ScopedCwd in(facade.path);
        orvo_test::calibrationCamera().StartStereoCalib(list, rs.board.inner,
                                                        float(rs.board.square));
    });
    EXPECT_EQ(c.out.substr(0, c.out.find("Running")),
              run_->c.out.substr(0, run_->c.out.find("Running")));
    const auto canvases = display().images("rectified");
    const auto expected = run_->d.images("rectified");
    ASSERT_EQ(canvases.size(), 3u);
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;
    EXPECT_EQ(orvo_test::readFile(facade.params + "/extrinsics.yml"),
              orvo_test::readFile(run_->work.params + "/extrinsics.yml"));
}

TEST(StereoCalibKeys, QuitKeysEndTheProcessOnCornersAndOnlyTheLoopOnRectified) {
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
    for (int key : std::vector<int>{27, 'q', 'Q', 0x100000 | 'Q'}) {
        SCOPED_TRACE("rectified, key " + std::to_string(key));
        const WorkDir work;
        std::vector<int> keys(6, ' ');
        keys.push_back(key);
        EXPECT_EQ(calibrateWithKeys(work.path, list, true, keys).exit_status, 0);
        EXPECT_EQ(display().count("rectified"), 1u);
    }
}

TEST(StereoCalibLayout, VerticalRigAndLargeImages) {
    // Turning every view a quarter turn makes the right lens sit below the left one.
    const WorkDir vertical;
    const auto turned = transformedPairs(vertical.path, {0, 1, 2, 3}, true);
    calibrateWithKeys(vertical.path, turned, true);
    std::vector<cv::Mat> ex;
    ASSERT_TRUE(readYML(vertical.params + "/extrinsics.yml", ZUNCV_EXTRINSICS, ex));
    EXPECT_GT(std::fabs(ex[5].at<double>(1, 3)), std::fabs(ex[5].at<double>(0, 3)));
    auto corners = display().images("corners");
    ASSERT_EQ(corners.size(), 8u);
    EXPECT_EQ(corners[0].size(), cv::Size(480, 752));
    auto canvases = display().images("rectified");
    ASSERT_EQ(canvases.size(), 4u);
    EXPECT_EQ(canvases[0].size(), cv::Size(191, 600));  // 300 / 752 scale: halves stacked
    const auto expected = expectedCanvases(vertical.params, turned);
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;

    // Views twice the camera's size are previewed at 752 columns, the canvas stays 600 wide.
    const WorkDir large;
    const auto doubled = transformedPairs(large.path, {0, 1, 2}, false);
    calibrateWithKeys(large.path, doubled, true);
    corners = display().images("corners");
    ASSERT_EQ(corners.size(), 6u);
    EXPECT_EQ(maxDifference(corners[0], expectedCornerView(doubled[0])), 0.0);
    EXPECT_EQ(corners[0].size(), cv::Size(752, 480));
    canvases = display().images("rectified");
    ASSERT_EQ(canvases.size(), 3u);
    EXPECT_EQ(canvases[0].size(), cv::Size(1200, 383));
}
