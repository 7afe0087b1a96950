// Image composition helpers: canvas sizes, placement, views, the channel message, printMatInfo.
#include <gtest/gtest.h>

#include "ZUNCVHelper.h"
#include "run_capture.h"

static cv::Mat noise(int rows, int cols, int type, int seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}

static bool identical(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// Side by side the canvas is twice the wider input, the right image right after the left one (not at the
// middle). Stacked, the bottom image goes at twice the top's height, over a taller middle image, unsized.
TEST(Combine, PlacesTheImagesWhereTheyBelong) {
    const struct {
        cv::Mat l, r;
        cv::Size canvas;
    } cases[] = {{noise(480, 752, CV_8UC1, 1), noise(480, 752, CV_8UC1, 2), {1504, 480}},
                 {noise(100, 200, CV_8UC3, 3), noise(120, 300, CV_8UC3, 4), {600, 120}}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.canvas);
        const cv::Mat c = combineTwoImg(k.l, k.r);
        ASSERT_EQ(c.size(), k.canvas);
        EXPECT_TRUE(identical(c(cv::Rect(0, 0, k.l.cols, k.l.rows)), k.l));
        EXPECT_TRUE(identical(c(cv::Rect(k.l.cols, 0, k.r.cols, k.r.rows)), k.r));
    }
    const cv::Mat t = noise(10, 20, CV_8UC1, 11), m = noise(30, 15, CV_8UC1, 12), b = noise(25, 18, CV_8UC1, 13);
    cv::Mat c = combineTwoImgUpDown(t, m, b);
    ASSERT_EQ(c.size(), cv::Size(20, 90));
    EXPECT_TRUE(identical(c(cv::Rect(0, 0, 20, 10)), t) && identical(c(cv::Rect(0, 10, 15, 10)), m.rowRange(0, 10)));
    EXPECT_TRUE(identical(c(cv::Rect(0, 20, 18, 25)), b));
    EXPECT_NO_THROW(combineTwoImgUpDown(t, m.rowRange(0, 20), noise(40, 20, CV_8UC1, 19)));  // just fits
    EXPECT_THROW(combineTwoImgUpDown(t, m.rowRange(0, 20), noise(41, 20, CV_8UC1, 19)), cv::Exception);
}

// 39 bytes with a full-width comma, and the newline, on standard error; an empty 8-bit matrix back.
TEST(Combine, ChannelMismatchPrintsAndReturnsEmpty) {
    const cv::Mat grey = noise(10, 10, CV_8UC1, 20), colour = noise(10, 10, CV_8UC3, 21);
    const cv::Mat two = noise(10, 10, CV_16SC2, 22);
    const cv::Mat cases[][3] = {{colour, grey}, {grey, two}, {grey, colour, grey}};  // the last one stacked
    for (const auto& k : cases) {
        SCOPED_TRACE(&k - cases);
        cv::Mat result = cv::Mat::ones(3, 3, CV_32F);
        auto out = orvo_test::captureOutput(
            [&] { result = k[2].empty() ? combineTwoImg(k[0], k[1]) : combineTwoImgUpDown(k[0], k[1], k[2]); });
        EXPECT_EQ(out.err, " mat channel different\xEF\xBC\x8C" "can't combine \n");
        EXPECT_TRUE(out.out.empty() && result.size() == cv::Size(0, 0) && result.type() == CV_8UC1);
    }
}

// Views of the frame; with an odd width the last column is in neither half.
TEST(SplitMat, HalvesAreViewsOfTheFrame) {
    cv::Mat frame = noise(480, 1504, CV_8UC1, 23);
    cv::Mat left = splitMat(frame, true), right = splitMat(frame, false);
    ASSERT_TRUE(left.size() == cv::Size(752, 480) && right.size() == cv::Size(752, 480));
    EXPECT_TRUE(left.data == frame.data && right.data == frame.data + 752);
    const cv::Mat odd = (cv::Mat_<uchar>(2, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    EXPECT_TRUE(identical(splitMat(odd, true), (cv::Mat_<uchar>(2, 2) << 1, 2, 6, 7)));
    EXPECT_TRUE(identical(splitMat(odd, false), (cv::Mat_<uchar>(2, 2) << 3, 4, 8, 9)));
}

TEST(PrintMatInfo, PrintsChannelsAndDepth) {
    const std::pair<cv::Mat, std::string> cases[] = {
        {cv::Mat(2, 2, CV_8UC3), "Mat info:\n channels = 3\n depth    = 0\n"},
        {cv::Mat(1, 1, CV_64FC(512)), "Mat info:\n channels = 512\n depth    = 6\n"}};
    for (const auto& [m, text] : cases) {
        bool ok = false;
        auto out = orvo_test::captureOutput([&] { ok = printMatInfo(m); });
        EXPECT_EQ(out.out, text);
        EXPECT_TRUE(ok && out.err.empty());
    }
}
