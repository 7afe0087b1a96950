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

const std::string kChannelMessage = " mat channel different\xEF\xBC\x8C" "can't combine \n";

cv::Mat noise(int rows, int cols, int type, int seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}

bool identical(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return false;
    return cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(CombineTwoImg, RightImageStartsRightAfterTheLeftOne) {
    const cv::Mat l = noise(480, 752, CV_8UC1, 1), r = noise(480, 752, CV_8UC1, 2);
    cv::Mat c = combineTwoImg(l, r);
    ASSERT_EQ(c.size(), cv::Size(1504, 480));
    EXPECT_EQ(c.type(), CV_8UC1);
    EXPECT_TRUE(identical(c.colRange(0, 752), l));
    EXPECT_TRUE(identical(c.colRange(752, 1504), r));

    // Different sizes: the canvas is twice the wider input, the right image is not centred in
    // its half, and the areas no input covers are left as allocated (not looked at here).
    const cv::Mat l3 = noise(100, 200, CV_8UC3, 3), r3 = noise(120, 300, CV_8UC3, 4);
    c = combineTwoImg(l3, r3);
    ASSERT_EQ(c.size(), cv::Size(600, 120));
    EXPECT_EQ(c.type(), CV_8UC3);
    EXPECT_TRUE(identical(c(cv::Rect(0, 0, 200, 100)), l3));
    EXPECT_TRUE(identical(c(cv::Rect(200, 0, 300, 120)), r3));

    // A wider left image: the right one still follows it directly.
    const cv::Mat lw = noise(50, 40, CV_16UC1, 5), rn = noise(30, 10, CV_16UC1, 6);
    c = combineTwoImg(lw, rn);
    ASSERT_EQ(c.size(), cv::Size(80, 50));
    EXPECT_EQ(c.type(), CV_16UC1);
    EXPECT_TRUE(identical(c(cv::Rect(0, 0, 40, 50)), lw));
    EXPECT_TRUE(identical(c(cv::Rect(40, 0, 10, 30)), rn));

    // The canvas is new storage: writing into it leaves the inputs alone.
    const cv::Mat before = lw.clone();
    c.setTo(0);
    EXPECT_TRUE(identical(lw, before));
}

TEST(CombineTwoImg, ReassemblesTheHalvesOfASplitFrame) {
    const cv::Mat frame = noise(480, 1504, CV_8UC1, 7);
    const cv::Mat left = splitMat(frame, true), right = splitMat(frame, false);
    EXPECT_FALSE(left.isContinuous());
    EXPECT_TRUE(identical(combineTwoImg(left, right), frame));
}

TEST(CombineTwoImgUpDown, StacksTopMiddleBottom) {
    const cv::Mat t = noise(40, 30, CV_8UC3, 8), m = noise(40, 30, CV_8UC3, 9),
                  b = noise(40, 30, CV_8UC3, 10);
    cv::Mat c = combineTwoImgUpDown(t, m, b);
    ASSERT_EQ(c.size(), cv::Size(30, 120));
    EXPECT_EQ(c.type(), CV_8UC3);
    EXPECT_TRUE(identical(c.rowRange(0, 40), t));
    EXPECT_TRUE(identical(c.rowRange(40, 80), m));
    EXPECT_TRUE(identical(c.rowRange(80, 120), b));

    // The bottom image goes at twice the top's height and is written last, so it covers the
    // lower part of a taller middle image; its own size does not enter the canvas size.
    const cv::Mat t2 = noise(10, 20, CV_8UC1, 11), m2 = noise(30, 15, CV_8UC1, 12),
                  b2 = noise(25, 18, CV_8UC1, 13);
    c = combineTwoImgUpDown(t2, m2, b2);
    ASSERT_EQ(c.size(), cv::Size(20, 90));
    EXPECT_TRUE(identical(c(cv::Rect(0, 0, 20, 10)), t2));
    EXPECT_TRUE(identical(c(cv::Rect(0, 10, 15, 10)), m2.rowRange(0, 10)));
    EXPECT_TRUE(identical(c(cv::Rect(0, 20, 18, 25)), b2));
}

TEST(CombineTwoImgUpDown, BottomIsNeitherCheckedNorSized) {
    // A bottom image of another channel count is not reported; it cannot be written into the
    // canvas (its region is reallocated), but top and middle are.
    const cv::Mat t = noise(8, 12, CV_8UC1, 14), m = noise(8, 12, CV_8UC1, 15),
                  b = noise(8, 12, CV_8UC3, 16);
    cv::Mat c;
    auto out = captureOutput([&] { c = combineTwoImgUpDown(t, m, b); });
    EXPECT_EQ(out.err, "");
    EXPECT_EQ(out.out, "");
    ASSERT_EQ(c.size(), cv::Size(12, 24));
    EXPECT_EQ(c.type(), CV_8UC1);
    EXPECT_TRUE(identical(c.rowRange(0, 8), t));
    EXPECT_TRUE(identical(c.rowRange(8, 16), m));

    // A bottom image that does not fit raises OpenCV's exception; one that just fits does not.
    const cv::Mat top = noise(5, 10, CV_8UC1, 17), mid = noise(10, 10, CV_8UC1, 18);
    EXPECT_NO_THROW(combineTwoImgUpDown(top, mid, noise(20, 10, CV_8UC1, 19)));
    EXPECT_THROW(combineTwoImgUpDown(top, mid, noise(21, 10, CV_8UC1, 19)), cv::Exception);
    EXPECT_THROW(combineTwoImgUpDown(top, mid, noise(5, 11, CV_8UC1, 19)), cv::Exception);
}

TEST(Combine, ChannelMismatchPrintsAndReturnsEmpty) {
    ASSERT_EQ(kChannelMessage.size(), 40u);  // 39 bytes and the newline
    const cv::Mat grey = noise(10, 10, CV_8UC1, 20), colour = noise(10, 10, CV_8UC3, 21),
                  two = noise(10, 10, CV_16SC2, 22);
    struct Case {
        const char* what;
        std::function<cv::Mat()> call;
    };
    const std::vector<Case> cases = {
        {"side by side 3/1", [&] { return combineTwoImg(colour, grey); }},
        {"side by side 1/2", [&] { return combineTwoImg(grey, two); }},
        {"stacked top/middle", [&] { return combineTwoImgUpDown(grey, colour, grey); }},
    };
    for (const Case& k : cases) {
        cv::Mat result = cv::Mat::ones(3, 3, CV_32F);
        auto out = captureOutput([&] { result = k.call(); });
        EXPECT_EQ(out.err, kChannelMessage) << k.what;
        EXPECT_EQ(out.out, "") << k.what;
        EXPECT_TRUE(result.empty()) << k.what;
        EXPECT_EQ(result.rows, 0);
        EXPECT_EQ(result.cols, 0);
        EXPECT_EQ(result.type(), CV_8UC1) << k.what;
    }
}

TEST(SplitMat, HalvesAreViewsOfTheFrame) {
    cv::Mat frame = noise(480, 1504, CV_8UC1, 23);
    cv::Mat left = splitMat(frame, true), right = splitMat(frame, false);
    ASSERT_EQ(left.size(), cv::Size(752, 480));
    ASSERT_EQ(right.size(), cv::Size(752, 480));
    EXPECT_EQ(left.data, frame.data);
    EXPECT_EQ(right.data, frame.data + 752);
    left.at<uchar>(7, 3) = 251;
    right.at<uchar>(9, 0) = 252;
    EXPECT_EQ(frame.at<uchar>(7, 3), 251);
    EXPECT_EQ(frame.at<uchar>(9, 752), 252);

    // Odd width: two columns each, the last column in neither half.
    cv::Mat odd = (cv::Mat_<uchar>(2, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    EXPECT_TRUE(identical(splitMat(odd, true), (cv::Mat_<uchar>(2, 2) << 1, 2, 6, 7)));
    EXPECT_TRUE(identical(splitMat(odd, false), (cv::Mat_<uchar>(2, 2) << 3, 4, 8, 9)));

    // Multi-channel frames split by pixel, not by byte.
    cv::Mat colour = noise(4, 6, CV_8UC3, 24);
    cv::Mat half = splitMat(colour, false);
    ASSERT_EQ(half.size(), cv::Size(3, 4));
    EXPECT_EQ(half.data, colour.data + 3 * 3);
    EXPECT_TRUE(identical(half, colour.colRange(3, 6)));

    // A one-column frame has empty halves.
    cv::Mat thin = noise(3, 1, CV_8UC1, 25);
    EXPECT_EQ(splitMat(thin, true).cols, 0);
    EXPECT_EQ(splitMat(thin, false).cols, 0);
}

TEST(PrintMatInfo, PrintsChannelsAndDepth) {
    struct Case {
        cv::Mat m;
        std::string text;
    };
    const std::vector<Case> cases = {
        {cv::Mat(2, 2, CV_8UC3), "Mat info:\n channels = 3\n depth    = 0\n"},
        {cv::Mat(1, 1, CV_64FC(7)), "Mat info:\n channels = 7\n depth    = 6\n"},
        {cv::Mat(3, 1, CV_16SC2), "Mat info:\n channels = 2\n depth    = 3\n"},
        {cv::Mat(1, 1, CV_32FC(512)), "Mat info:\n channels = 512\n depth    = 5\n"},
        {cv::Mat(), "Mat info:\n channels = 1\n depth    = 0\n"},
    };
    for (const Case& k : cases) {
        bool ok = false;
        auto out = captureOutput([&] { ok = printMatInfo(k.m); });
        EXPECT_TRUE(ok);
        EXPECT_EQ(out.out, k.text);
        EXPECT_EQ(out.err, "");
    }
}

}  // namespace
