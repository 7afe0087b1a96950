// The tools' building blocks in-process: argument parsing, pictures and plots, image-pair listing.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>

#include "cli.h"
#include "image_pairs.h"
#include "imaging.h"
#include "run_capture.h"
#include "scratch_dir.h"

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

Args parse(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    return sampleCommand().parse(int(argv.size()), argv.data(), 0);
}

}  // namespace

TEST(ToolArguments, OptionFormsHelpAndBadCommandLines) {
    // An optional value is only taken with '='; "--" ends the options.
    Args a = parse({"--frames", "12", "--virtual", "pos1", "--tilt=-0.25", "--", "--quiet", "-h"});
    EXPECT_EQ(cv::Vec2d(a.positiveInt("frames", 1), a.number("tilt", 0)), cv::Vec2d(12, -0.25));
    EXPECT_EQ(a.text("virtual", "x"), "");
    EXPECT_EQ(a.positional(), (std::vector<std::string>{"pos1", "--quiet", "-h"}));
    EXPECT_TRUE(parse({"-h"}).has("help"));
    const std::string help = sampleCommand().help();
    EXPECT_EQ(help.rfind("Usage: orvo sample [options]\n\nA sample.\n\nOptions:\n", 0), 0u) << help;
    for (const char* line : {"  --frames N              frames (default 1)\n", "  --virtual[=SCENE]       virtual camera\n"})
        EXPECT_NE(help.find(line), std::string::npos) << line << help;

    int w = 0, h = 0;  // bad command lines
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[] { parse({"--frame", "3"}); }, "unknown option '--frame'"},
        {[] { parse({"--frames"}); }, "--frames needs a value (N)"},
        {[] { parse({"--frames="}); }, "--frames needs a non-empty value (N)"},
        {[] { parse({"--quiet=yes"}); }, "--quiet takes no value"},
        {[] { parse({"--frames", "3x"}).positiveInt("frames", 1); }, "--frames: expected a positive integer, got '3x'"},
        {[] { parse({"--frames", "-1"}).count("frames", 0); }, "--frames: expected an integer of at least 0, got '-1'"},
        {[] { parse({"--tilt", "nan"}).number("tilt", 0); }, "--tilt: expected a number, got 'nan'"},
        {[] { parse({"--tilt", "0"}).positiveNumber("tilt", 1); }, "--tilt: expected a number above 0, got '0'"},
        {[&] { parseSize("board", "0x6", w, h); }, "--board: expected WIDTHxHEIGHT such as 9x6, got '0x6'"},
    };
    for (const auto& c : cases) {
        std::string what = "(accepted)";
        try { c.first(); } catch (const UsageError& e) { what = e.what(); }
        EXPECT_EQ(what, c.second);
    }
    parseSize("board", "9x6", w, h);
    EXPECT_EQ(cv::Size(w, h), cv::Size(9, 6));
}

TEST(ToolPictures, GuideLinesAndDisparityColours) {
    cv::Mat pair = pairWithGuideLines(cv::Mat(40, 10, CV_8UC1, cv::Scalar(7)), cv::Mat(40, 10, CV_8UC1, cv::Scalar(9)));
    ASSERT_EQ(pair.size(), cv::Size(20, 40));
    ASSERT_EQ(pair.type(), CV_8UC3);
    for (int y = 0; y < 40; ++y)  // every sixteenth row across both images
        for (int x : {0, 9, 10, 19})
            ASSERT_EQ(pair.at<cv::Vec3b>(y, x), y % 16 == 0 ? cv::Vec3b(0, 255, 0) : cv::Vec3b::all(x < 10 ? 7 : 9))
                << "row " << y << " column " << x;

    // Unmatched (the matcher's minimum minus one), none, far, near, top of the scale; 4 fraction bits.
    cv::Mat d = (cv::Mat_<short>(1, 5) << -16, 0, 16 * 4, 16 * 60, 16 * 64), c = colourDisparity(d, 64);
    ASSERT_EQ(c.type(), CV_8UC3);
    EXPECT_EQ(c.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));
    EXPECT_EQ(c.at<cv::Vec3b>(0, 1), cv::Vec3b(0, 0, 0));
    const cv::Vec3b far = c.at<cv::Vec3b>(0, 2), near = c.at<cv::Vec3b>(0, 3);
    EXPECT_TRUE(far[0] > far[2] && near[2] > near[0]) << far << near;  // jet: far blue, near red
    EXPECT_NE(c.at<cv::Vec3b>(0, 4), cv::Vec3b(0, 0, 0));
    EXPECT_THROW(colourDisparity(cv::Mat(2, 2, CV_32FC1), 64), cv::Exception);
}

TEST(ToolPictures, MontageTilesAndPlotSeries) {
    cv::Mat wide(100, 400, CV_8UC1, cv::Scalar(200)), square(300, 300, CV_8UC3, cv::Scalar(10, 20, 30));
    cv::Mat m = montage({{"a", wide}, {"b", square}, {"c", square}}, 2, 200);
    // Each row as tall as its tallest tile (the square, 200) plus a 28 px caption.
    ASSERT_EQ(m.type(), CV_8UC3);
    EXPECT_EQ(m.size(), cv::Size(400, 2 * (200 + 28)));
    EXPECT_EQ(m.at<cv::Vec3b>(28 + 10, 100), cv::Vec3b::all(200));           // grey tile, scaled
    EXPECT_EQ(m.at<cv::Vec3b>(28 + 100, 300), cv::Vec3b(10, 20, 30));        // colour tile
    EXPECT_EQ(m.at<cv::Vec3b>(228 + 28 + 100, 300), cv::Vec3b(30, 30, 30));  // empty cell

    cv::Mat red, blue, p = plotSeries({0, 1, 2, 3}, {{"up", cv::Scalar(0, 0, 255), {0, 1, 2, 3}},
                                                     {"flat", cv::Scalar(255, 0, 0), {1, 1, 1, NAN}}},
                                      "t", "x", "y", {400, 300});
    ASSERT_EQ(p.size(), cv::Size(400, 300));
    cv::inRange(p, cv::Scalar(0, 0, 200), cv::Scalar(60, 60, 255), red);
    cv::inRange(p, cv::Scalar(200, 0, 0), cv::Scalar(255, 60, 60), blue);
    EXPECT_GT(cv::countNonZero(red), 150);   // a diagonal across the plot area
    EXPECT_GT(cv::countNonZero(blue), 100);  // a horizontal line (up to the gap) and legend
    std::vector<cv::Point> pts;              // the rising series ends higher (smaller row) than it starts
    cv::findNonZero(red(cv::Rect(70, 40, 310, 205)), pts);
    ASSERT_FALSE(pts.empty());
    const auto by_x = [](const cv::Point& a, const cv::Point& b) { return a.x < b.x; };
    EXPECT_GT(std::min_element(pts.begin(), pts.end(), by_x)->y, std::max_element(pts.begin(), pts.end(), by_x)->y + 100);
}

TEST(ToolImagePairs, DirectoryPairsByNameListFileKeepsOrder) {
    orvo_test::ScratchDir dir;
    for (const char* name : {"left01.png", "right01.png", "LEFT02.jpg", "Right02.jpg", "first_0000.png",
                             "second_0000.png", "left03.png", "right3.png", "notes.txt", "rightonly.png"})
        std::ofstream(dir.file(name)) << "x";
    std::vector<std::string> list;
    orvo_test::Captured c = orvo_test::captureOutput([&] { list = pairsFromDirectory(dir.path()); });
    // Name order (upper case first), each left followed by its partner.
    EXPECT_EQ(list, (std::vector<std::string>{dir.file("LEFT02.jpg"), dir.file("Right02.jpg"),
                                              dir.file("first_0000.png"), dir.file("second_0000.png"),
                                              dir.file("left01.png"), dir.file("right01.png")}));
    EXPECT_EQ(c.out + "|" + c.err, "|calibrate: left03.png has no right partner; left out\n"
                                   "calibrate: right3.png has no left partner; left out\n"
                                   "calibrate: rightonly.png has no left partner; left out\n");
    EXPECT_THROW(pairsFromDirectory(dir.file("missing")), RunError);

    std::ofstream(dir.file("list.txt")) << "# left, right\nl1.png\r\n  \n/abs/r1.png   \n\nsub/l2.png\n#r2\nr2.png";
    EXPECT_EQ(imagesFromList(dir.file("list.txt")),
              (std::vector<std::string>{dir.file("l1.png"), "/abs/r1.png", dir.file("sub/l2.png"), dir.file("r2.png")}));
    EXPECT_THROW(imagesFromList(dir.file("none.txt")), RunError);
}
