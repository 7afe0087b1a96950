// The tools' building blocks in-process: argument parsing, source naming, pictures and plots.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "cli.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

using namespace orvo_tool;

namespace {

Command sampleCommand() {
    Command cmd("orvo sample", "[options]", "A sample.");
    cmd.option({"frames", Value::Required, "N", "frames", "1"});
    cmd.option({"virtual", Value::Optional, "SCENE", "virtual camera", ""});
    cmd.option({"quiet", Value::None, "", "quiet", ""});
    cmd.option({"tilt", Value::Required, "RAD", "tilt", "0"});
    return cmd;
}

Args parse(const std::vector<std::string>& words) {
    std::vector<char*> argv;
    for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
    return sampleCommand().parse(int(argv.size()), argv.data(), 0);
}

std::string usageError(const std::vector<std::string>& words) {
    try {
        parse(words);
    } catch (const UsageError& e) {
        return e.what();
    }
    return "(accepted)";
}

std::string valueError(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const UsageError& e) {
        return e.what();
    }
    return "(accepted)";
}

}  // namespace

TEST(ToolArguments, OptionFormsValuesAndPositionals) {
    Args a = parse({"--frames", "12", "--virtual", "pos1", "--tilt=-0.25", "--", "--quiet"});
    EXPECT_EQ(a.positiveInt("frames", 1), 12);
    // An optional value is only taken with '=': "pos1" stays positional.
    EXPECT_TRUE(a.has("virtual"));
    EXPECT_EQ(a.text("virtual", "x"), "");
    EXPECT_DOUBLE_EQ(a.number("tilt", 0), -0.25);
    EXPECT_FALSE(a.has("quiet"));
    EXPECT_EQ(a.positional(), (std::vector<std::string>{"pos1", "--quiet"}));

    Args b = parse({"--virtual=scene.yml", "-h"});
    EXPECT_EQ(b.text("virtual"), "scene.yml");
    EXPECT_TRUE(b.has("help"));
    EXPECT_EQ(b.positiveInt("frames", 7), 7);
    EXPECT_EQ(b.count("frames", 0), 0);
}

TEST(ToolArguments, BadCommandLinesSayWhatIsWrong) {
    EXPECT_EQ(usageError({"--frame", "3"}), "unknown option '--frame'");
    EXPECT_EQ(usageError({"-x"}), "unknown option '-x'");
    EXPECT_EQ(usageError({"--frames"}), "--frames needs a value (N)");
    EXPECT_EQ(usageError({"--frames="}), "--frames needs a non-empty value (N)");
    EXPECT_EQ(usageError({"--quiet=yes"}), "--quiet takes no value");

    EXPECT_EQ(valueError([] { parse({"--frames", "0"}).positiveInt("frames", 1); }),
              "--frames: expected a positive integer, got '0'");
    EXPECT_EQ(valueError([] { parse({"--frames", "3x"}).positiveInt("frames", 1); }),
              "--frames: expected a positive integer, got '3x'");
    EXPECT_EQ(valueError([] { parse({"--frames", "99999999999"}).positiveInt("frames", 1); }),
              "--frames: expected a positive integer, got '99999999999'");
    EXPECT_EQ(valueError([] { parse({"--frames", "-1"}).count("frames", 0); }),
              "--frames: expected an integer of at least 0, got '-1'");
    EXPECT_EQ(valueError([] { parse({"--tilt", "nan"}).number("tilt", 0); }),
              "--tilt: expected a number, got 'nan'");
    EXPECT_EQ(valueError([] { parse({"--tilt", "0"}).positiveNumber("tilt", 1); }),
              "--tilt: expected a number above 0, got '0'");

    int w = 0, h = 0;
    parseSize("board", "9x6", w, h);
    EXPECT_EQ(w, 9);
    EXPECT_EQ(h, 6);
    EXPECT_EQ(valueError([&] { parseSize("board", "9*6", w, h); }),
              "--board: expected WIDTHxHEIGHT such as 9x6, got '9*6'");
    EXPECT_EQ(valueError([&] { parseSize("board", "0x6", w, h); }),
              "--board: expected WIDTHxHEIGHT such as 9x6, got '0x6'");
    EXPECT_EQ(valueError([&] { parseSize("board", "9x", w, h); }),
              "--board: expected WIDTHxHEIGHT such as 9x6, got '9x'");
}

TEST(ToolArguments, HelpListsEveryOptionWithItsDefault) {
    std::string help = sampleCommand().help();
    EXPECT_EQ(help.rfind("Usage: orvo sample [options]\n\nA sample.\n\nOptions:\n", 0), 0u) << help;
    EXPECT_NE(help.find("  --frames N              frames (default 1)\n"), std::string::npos) << help;
    EXPECT_NE(help.find("  --virtual[=SCENE]       virtual camera\n"), std::string::npos) << help;
    EXPECT_NE(help.find("  --help                  show this help and exit\n"), std::string::npos);
}

TEST(ToolSession, VirtualSourceNames) {
    EXPECT_EQ(virtualSource(""), "");
    EXPECT_EQ(virtualSource("pattern"), "pattern");
    EXPECT_EQ(virtualSource("take1.raw"), "raw:take1.raw");
    EXPECT_EQ(virtualSource("raw:/tmp/x"), "raw:/tmp/x");
    EXPECT_EQ(virtualSource("scene:/tmp/s.yml"), "scene:/tmp/s.yml");
    EXPECT_EQ(virtualSource("room.yml"), "scene:room.yml");
}

TEST(ToolPictures, GuideLinesEverySixteenRowsAcrossBothImages) {
    cv::Mat a(40, 10, CV_8UC1, cv::Scalar(7)), b(40, 10, CV_8UC1, cv::Scalar(9));
    cv::Mat pair = pairWithGuideLines(a, b);
    ASSERT_EQ(pair.size(), cv::Size(20, 40));
    ASSERT_EQ(pair.type(), CV_8UC3);
    for (int y = 0; y < 40; ++y) {
        bool guide = y % 16 == 0;
        for (int x : {0, 9, 10, 19}) {
            cv::Vec3b expect = guide ? cv::Vec3b(0, 255, 0) : cv::Vec3b::all(x < 10 ? 7 : 9);
            ASSERT_EQ(pair.at<cv::Vec3b>(y, x), expect) << "row " << y << " column " << x;
        }
    }
}

TEST(ToolPictures, DisparityColoursKeepUnmatchedBlackAndOrderNearAboveFar) {
    cv::Mat d(1, 5, CV_16SC1);
    d.at<short>(0, 0) = -16;      // unmatched (the matcher's minimum minus one)
    d.at<short>(0, 1) = 0;        // no disparity
    d.at<short>(0, 2) = 16 * 4;   // far
    d.at<short>(0, 3) = 16 * 60;  // near
    d.at<short>(0, 4) = 16 * 64;  // top of the scale
    cv::Mat c = colourDisparity(d, 64);
    ASSERT_EQ(c.type(), CV_8UC3);
    EXPECT_EQ(c.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));
    EXPECT_EQ(c.at<cv::Vec3b>(0, 1), cv::Vec3b(0, 0, 0));
    // The jet scale: far is mostly blue, near mostly red.
    cv::Vec3b far = c.at<cv::Vec3b>(0, 2), near = c.at<cv::Vec3b>(0, 3);
    EXPECT_GT(far[0], far[2]);
    EXPECT_GT(near[2], near[0]);
    EXPECT_NE(c.at<cv::Vec3b>(0, 4), cv::Vec3b(0, 0, 0));
    EXPECT_THROW(colourDisparity(cv::Mat(2, 2, CV_32FC1), 64), cv::Exception);
}

namespace {

// Hamilton product a * b of w,x,y,z quaternions.
std::vector<double> qmul(const std::vector<double>& a, const std::vector<double>& b) {
    return {a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3],
            a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2],
            a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1],
            a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0]};
}

std::vector<double> turn(int axis, double deg) {
    std::vector<double> q = {std::cos(deg * M_PI / 360), 0, 0, 0};
    q[size_t(axis) + 1] = std::sin(deg * M_PI / 360);
    return q;
}

cv::Vec3d euler(const std::vector<double>& q) {
    const float f[4] = {float(q[0]), float(q[1]), float(q[2]), float(q[3])};
    return eulerDegrees(f);
}

}  // namespace

TEST(ToolPictures, EulerAnglesFollowTheBodyFrame) {
    // Body x right, y forward, z up: pitch about x, roll about y, yaw about z.
    cv::Vec3d e = euler({1, 0, 0, 0});
    EXPECT_NEAR(e[0], 0, 1e-9);
    EXPECT_NEAR(e[1], 0, 1e-9);
    EXPECT_NEAR(e[2], 0, 1e-9);
    e = euler(turn(1, 90));
    EXPECT_NEAR(e[0], 90, 1e-4);
    EXPECT_NEAR(e[1], 0, 1e-4);
    EXPECT_NEAR(e[2], 0, 1e-4);
    e = euler(turn(0, 90));  // gimbal lock: the clamp keeps asin defined
    EXPECT_NEAR(e[1], 90, 0.05);
    e = euler(turn(2, -90));
    EXPECT_NEAR(e[2], -90, 1e-4);
    EXPECT_NEAR(e[0], 0, 1e-4);
    EXPECT_NEAR(std::fabs(euler(turn(2, 180))[2]), 180, 1e-4);
    // The order of the composition: world_from_body = Rz(yaw) Rx(pitch) Ry(roll).
    e = euler(qmul(qmul(turn(2, 30), turn(0, 20)), turn(1, 10)));
    EXPECT_NEAR(e[0], 10, 1e-4);
    EXPECT_NEAR(e[1], 20, 1e-4);
    EXPECT_NEAR(e[2], 30, 1e-4);
    e = euler(qmul(qmul(turn(2, -45), turn(0, -15)), turn(1, 25)));
    EXPECT_NEAR(e[0], 25, 1e-4);
    EXPECT_NEAR(e[1], -15, 1e-4);
    EXPECT_NEAR(e[2], -45, 1e-4);
}

TEST(ToolPictures, MontageTilesCaptionsAndSizes) {
    cv::Mat wide(100, 400, CV_8UC1, cv::Scalar(200));
    cv::Mat square(300, 300, CV_8UC3, cv::Scalar(10, 20, 30));
    cv::Mat m = montage({{"a", wide}, {"b", square}, {"c", square}}, 2, 200);
    // Row 1: 50 px image + 28 px caption (tallest of the row: the square, 200 + 28); row 2 the same.
    ASSERT_EQ(m.type(), CV_8UC3);
    EXPECT_EQ(m.cols, 400);
    EXPECT_EQ(m.rows, 2 * (200 + 28));
    EXPECT_EQ(m.at<cv::Vec3b>(28 + 10, 100), cv::Vec3b::all(200));           // grey tile, scaled
    EXPECT_EQ(m.at<cv::Vec3b>(28 + 100, 300), cv::Vec3b(10, 20, 30));        // colour tile
    EXPECT_EQ(m.at<cv::Vec3b>(228 + 28 + 100, 300), cv::Vec3b(30, 30, 30));  // empty cell
    EXPECT_TRUE(montage({}, 2, 100).empty());
}

TEST(ToolPictures, PlotDrawsEachSeriesInItsColour) {
    std::vector<double> x = {0, 1, 2, 3};
    cv::Scalar red(0, 0, 255), blue(255, 0, 0);
    cv::Mat p = plotSeries(x, {{"up", red, {0, 1, 2, 3}}, {"flat", blue, {1, 1, 1, NAN}}}, "t", "x", "y",
                           cv::Size(400, 300));
    ASSERT_EQ(p.size(), cv::Size(400, 300));
    cv::Mat red_mask, blue_mask;
    cv::inRange(p, cv::Scalar(0, 0, 200), cv::Scalar(60, 60, 255), red_mask);
    cv::inRange(p, cv::Scalar(200, 0, 0), cv::Scalar(255, 60, 60), blue_mask);
    EXPECT_GT(cv::countNonZero(red_mask), 150);   // a diagonal across the plot area
    EXPECT_GT(cv::countNonZero(blue_mask), 100);  // a horizontal line (up to the gap) and legend
    // The rising series ends higher (smaller row) than it starts.
    std::vector<cv::Point> pts;
    cv::findNonZero(red_mask(cv::Rect(70, 40, 310, 205)), pts);
    ASSERT_FALSE(pts.empty());
    auto left = *std::min_element(pts.begin(), pts.end(), [](auto a, auto b) { return a.x < b.x; });
    auto right = *std::max_element(pts.begin(), pts.end(), [](auto a, auto b) { return a.x < b.x; });
    EXPECT_GT(left.y, right.y + 100);
}

TEST(ToolPictures, FileNamesAndDirectories) {
    EXPECT_EQ(numbered("rectified", 7, ".png"), "rectified_0007.png");
    EXPECT_EQ(numbered("x", 12345, ".csv"), "x_12345.csv");
    EXPECT_EQ(joinPath("out", "a.png"), "out/a.png");
    EXPECT_EQ(joinPath("out/", "a.png"), "out/a.png");
    EXPECT_EQ(joinPath("", "a.png"), "a.png");
    EXPECT_THROW(writePng("/nonexistent-dir/x.png", cv::Mat(2, 2, CV_8UC1)), RunError);
    EXPECT_THROW(writePng("/tmp/orvo-empty.png", cv::Mat()), RunError);
    EXPECT_THROW(ensureDirectory("/proc/orvo-nope/a"), RunError);
}

TEST(ToolProgress, PeriodFromRateOrFrameInterval) {
    AttitudeTracker by_frame, by_rate(200);
    EXPECT_DOUBLE_EQ(by_frame.periodFor(10), 1.0 / 300.0);
    EXPECT_DOUBLE_EQ(by_frame.periodFor(0), 1.0 / 30.0);
    EXPECT_DOUBLE_EQ(by_rate.periodFor(10), 0.005);
    EXPECT_FALSE(by_frame.settled());
}
