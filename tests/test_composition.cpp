// Image composition helpers: canvas sizes, placement, views, the channel message, printMatInfo.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "ZUNCVHelper.h"
#include "run_capture.h"

namespace {

using orvo_test::captureOutput;

cv::Mat noise(int rows, int cols, int type, int seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}

bool identical(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// The canvas is twice the wider input; the right image starts right after the left one (not at
// the canvas's middle), whichever is wider.
TEST(CombineTwoImg, RightImageStartsRightAfterTheLeftOne) {
    struct Case {
        cv::Mat l, r;
        cv::Size canvas;
    };
    const std::vector<Case> cases = {
        {noise(480, 752, CV_8UC1, 1), noise(480, 752, CV_8UC1, 2), {1504, 480}},
        {noise(100, 200, CV_8UC3, 3), noise(120, 300, CV_8UC3, 4), {600, 120}},
        {noise(50, 40, CV_16UC1, 5), noise(30, 10, CV_16UC1, 6), {80, 50}}};
    for (const Case& k : cases) {
        SCOPED_TRACE(k.canvas);
        const cv::Mat c = combineTwoImg(k.l, k.r);
        ASSERT_EQ(c.size(), k.canvas);
        EXPECT_EQ(c.type(), k.l.type());
        EXPECT_TRUE(identical(c(cv::Rect(0, 0, k.l.cols, k.l.rows)), k.l));
        EXPECT_TRUE(identical(c(cv::Rect(k.l.cols, 0, k.r.cols, k.r.rows)), k.r));
    }
}

// The bottom image goes at twice the top's height and is written last, over the lower part of a
// taller middle image; it is neither checked (channels) nor sized (a bottom that does not fit
// raises OpenCV's exception; one that just fits does not).
TEST(CombineTwoImgUpDown, StacksTopMiddleBottom) {
    const cv::Mat t = noise(10, 20, CV_8UC1, 11), m = noise(30, 15, CV_8UC1, 12),
                  b = noise(25, 18, CV_8UC1, 13);
    cv::Mat c = combineTwoImgUpDown(t, m, b);
    ASSERT_EQ(c.size(), cv::Size(20, 90));
    EXPECT_EQ(c.type(), CV_8UC1);
    EXPECT_TRUE(identical(c(cv::Rect(0, 0, 20, 10)), t));
    EXPECT_TRUE(identical(c(cv::Rect(0, 10, 15, 10)), m.rowRange(0, 10)));
    EXPECT_TRUE(identical(c(cv::Rect(0, 20, 18, 25)), b));

    auto out = captureOutput([&] { c = combineTwoImgUpDown(t, t, noise(10, 20, CV_8UC3, 14)); });
    EXPECT_EQ(out.err + out.out, "");
    ASSERT_EQ(c.size(), cv::Size(20, 30));
    EXPECT_TRUE(identical(c.rowRange(10, 20), t));
    const cv::Mat top = noise(5, 10, CV_8UC1, 17), mid = noise(10, 10, CV_8UC1, 18);
    EXPECT_NO_THROW(combineTwoImgUpDown(top, mid, noise(20, 10, CV_8UC1, 19)));
    EXPECT_THROW(combineTwoImgUpDown(top, mid, noise(21, 10, CV_8UC1, 19)), cv::Exception);
    EXPECT_THROW(combineTwoImgUpDown(top, mid, noise(5, 11, CV_8UC1, 19)), cv::Exception);
}

TEST(Combine, ChannelMismatchPrintsAndReturnsEmpty) {
    // 39 bytes with a full-width comma, and the newline.
    const std::string message = " mat channel different\xEF\xBC\x8C" "can't combine \n";
    const cv::Mat grey = noise(10, 10, CV_8UC1, 20), colour = noise(10, 10, CV_8UC3, 21),
                  two = noise(10, 10, CV_16SC2, 22);
    const std::vector<std::pair<const char*, std::function<cv::Mat()>>> cases = {
        {"side by side 3/1", [&] { return combineTwoImg(colour, grey); }},
        {"side by side 1/2", [&] { return combineTwoImg(grey, two); }},
        {"stacked top/middle", [&] { return combineTwoImgUpDown(grey, colour, grey); }}};
    for (const auto& [what, call] : cases) {
        SCOPED_TRACE(what);
        cv::Mat result = cv::Mat::ones(3, 3, CV_32F);
        auto out = captureOutput([&] { result = call(); });
        EXPECT_EQ(out.err, message);
        EXPECT_EQ(out.out, "");
        EXPECT_EQ(result.size(), cv::Size(0, 0));
        EXPECT_EQ(result.type(), CV_8UC1);
    }
}

TEST(SplitMat, HalvesAreViewsOfTheFrame) {
    cv::Mat frame = noise(480, 1504, CV_8UC1, 23);
    cv::Mat left = splitMat(frame, true), right = splitMat(frame, false);
    ASSERT_EQ(left.size(), cv::Size(752, 480));
    ASSERT_EQ(right.size(), cv::Size(752, 480));
    EXPECT_EQ(left.data, frame.data);
    EXPECT_EQ(right.data, frame.data + 752);
    EXPECT_TRUE(identical(combineTwoImg(left, right), frame));  // non-continuous inputs

    // Odd width: the last column is in neither half.
    const cv::Mat odd = (cv::Mat_<uchar>(2, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    EXPECT_TRUE(identical(splitMat(odd, true), (cv::Mat_<uchar>(2, 2) << 1, 2, 6, 7)));
    EXPECT_TRUE(identical(splitMat(odd, false), (cv::Mat_<uchar>(2, 2) << 3, 4, 8, 9)));

    // Multi-channel frames split by pixel, not by byte.
    const cv::Mat colour = noise(4, 6, CV_8UC3, 24), half = splitMat(colour, false);
    EXPECT_EQ(half.data, colour.data + 3 * 3);
    EXPECT_TRUE(identical(half, colour.colRange(3, 6)));
}

TEST(PrintMatInfo, PrintsChannelsAndDepth) {
    const std::vector<std::pair<cv::Mat, std::string>> cases = {
        {cv::Mat(2, 2, CV_8UC3), "Mat info:\n channels = 3\n depth    = 0\n"},
        {cv::Mat(1, 1, CV_64FC(7)), "Mat info:\n channels = 7\n depth    = 6\n"},
        {cv::Mat(1, 1, CV_32FC(512)), "Mat info:\n channels = 512\n depth    = 5\n"},
        {cv::Mat(), "Mat info:\n channels = 1\n depth    = 0\n"}};
    for (const auto& [m, text] : cases) {
        bool ok = false;
        auto out = captureOutput([&] { ok = printMatInfo(m); });
        EXPECT_TRUE(ok);
        EXPECT_EQ(out.out, text);
        EXPECT_EQ(out.err, "");
    }
}

}  // namespace
