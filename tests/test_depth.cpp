// Depth path: bounds, clusters and ties on crafted disparities, plot coordinates and pixels; the facade's
// nearest point on the rendered scene against the virtual camera's true nearest depth.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "run_capture.h"
#include "scratch_dir.h"
#include "v4l2_client.h"

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();
constexpr double kDeg = 0.017453292519943295;
const std::string kScene = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";

// Bins whose stale fields hold recognisable garbage, all empty.
std::vector<nerapot> freshBins(double stale = 7.25) {
    return std::vector<nerapot>(360, nerapot{stale, -stale, stale, kEmpty, stale});
}

int filled(const std::vector<nerapot>& bins) {
    return int(std::count_if(bins.begin(), bins.end(), [](const nerapot& b) { return b.min_depth != kEmpty; }));
}

bool sameBits(const std::vector<nerapot>& a, const std::vector<nerapot>& b) {
    return std::memcmp(a.data(), b.data(), 360 * sizeof(nerapot)) == 0;
}

// One engine for the whole file, on the virtual camera; its camera constants are set per test.
class Depth : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const orvo_test::VirtualNode vcam("/dev/video-virtual-depth");
        DeviceParameter p{};
        std::tie(p.video_path, p.width, p.height) = std::make_tuple("/dev/video-virtual-depth", 752, 480);
        engine_ = new StereoCamera(p);
    }
    static void TearDownTestSuite() { delete engine_; }
    static void setConstants(double cx, double cy, double fx, double b, double deg = kDeg) {
        std::tie(engine_->cx, engine_->cy, engine_->fx, engine_->fy, engine_->baseline, engine_->deg_to_rad) =
            std::make_tuple(cx, cy, fx, fx, b, deg);
    }
    static StereoCamera* engine_;
};
StereoCamera* Depth::engine_ = nullptr;

// B*fx = 50, cx = 376, cy = 240 reach the bounds exactly; column 376 is straight ahead (bin 270).
TEST_F(Depth, StrictBoundsAndTies) {
    setConstants(376.0, 240.0, 400.0, 0.125);
    const winpar w{1.0, 1.0, 5.0, 0.0};
    // The one bin filled (-1: none), and the y it holds (NaN: not checked).
    const struct { const char* name; std::vector<std::pair<cv::Point, float>> pixels; winpar w;
                   int bin; double y; } cases[] = {
        {"Z = 0.4 exactly", {{{376, 200}, 125.0f}}, w, -1, NAN},
        {"just beyond 0.4", {{{376, 200}, std::nextafter(125.0f, 0.0f)}}, w, 270, NAN},
        {"Z = max depth exactly", {{{376, 200}, 10.0f}}, w, -1, NAN},
        {"just nearer than max depth", {{{376, 200}, std::nextafter(10.0f, 20.0f)}}, w, 270, NAN},
        {"Y = 0 on the optical axis", {{{376, 240}, 20.0f}}, w, -1, NAN},
        {"row above the axis", {{{376, 239}, 20.0f}}, w, 270, NAN},
        {"Y = -height exactly", {{{376, 200}, 20.0f}}, {1.0, 0.25, 5.0, 0.0}, -1, NAN},
        {"just inside the height", {{{376, 200}, 20.0f}}, {1.0, 0.2500001, 5.0, 0.0}, 270, NAN},
        // Lateral limits around B/2 = 0.0625: column 536 at d = 20 gives X = 1.0.
        {"X = upper limit", {{{536, 200}, 20.0f}}, {0.9375, 1.0, 5.0, 0.0}, -1, NAN},
        {"X inside upper", {{{536, 200}, 20.0f}}, {0.9376, 1.0, 5.0, 0.0}, 248, NAN},
        {"equal depths: the first found stays",
         {{{376, 100}, 20.0f}, {{376, 200}, 20.0f}}, w, 270, (100 - 240.0) * 0.125 / 20.0f},
    };
    for (const auto& cs : cases) {
        SCOPED_TRACE(cs.name);
        cv::Mat disp = cv::Mat::zeros(480, 752, CV_32F);  // zero but for the case's pixels
        for (const auto& px : cs.pixels) disp.at<float>(px.first) = px.second;
        std::vector<nerapot> bins = freshBins();
        engine_->DispToPointCloud(disp, bins.data(), cs.w);
        EXPECT_EQ(filled(bins), cs.bin < 0 ? 0 : 1);
        if (cs.bin < 0) continue;
        EXPECT_NE(bins[size_t(cs.bin)].min_depth, kEmpty);
        if (!std::isnan(cs.y)) { EXPECT_EQ(bins[size_t(cs.bin)].y, cs.y); }
    }

    // A disparity of another type is refused with a message and leaves the bins alone.
    std::vector<nerapot> bins = freshBins();
    const auto out = orvo_test::captureOutput([&] {
        engine_->DispToPointCloud(cv::Mat(480, 752, CV_16S, cv::Scalar(320)), bins.data(), w);
    });
    EXPECT_EQ(out.err, "DispToPointCloud: the disparity must be single-channel 32-bit float\n");
    engine_->DispToPointCloud(cv::Mat(), bins.data(), w);
    EXPECT_TRUE(sameBits(bins, freshBins()));
}

TEST_F(Depth, ClusterGapFourMembersAndTies) {
    // A gap of exactly 0.05 in x-z joins (0.1 - 0.05 == 0.05 in double); one unit more opens a cluster.
    std::vector<classfic> c(360, classfic{9, 9, 9, 99});
    int last = -5;
    const struct { double x[3], z[3]; int last, members0; } gaps[] = {
        {{0.0, 0.05, 0.1}, {1.0, 1.0, 1.0}, 0, 3},
        {{0.0, 0.05, std::nextafter(0.1, 1.0)}, {1.0, 1.0, 1.0}, 1, 2},
        {{0.3, 0.3, 0.3}, {0.05, 0.1, 0.1500001}, 1, 2}};
    for (const auto& g : gaps) {
        SCOPED_TRACE(g.x[2]);
        std::vector<nerapot> bins = freshBins(3.5);
        for (int i = 0; i < 3; ++i) bins[size_t(20 + i)] = {g.x[i], -0.1, g.z[i], g.z[i], 1.0};
        engine_->getNoiseFilter(bins.data(), c.data(), last);
        EXPECT_EQ(last, g.last);
        EXPECT_EQ(c[0].members, g.members0);
    }

    // Three members are too few however near; equal depths keep the lower index.
    c = {{1, -1, 2.0, 3}, {2, -2, 3.0, 4}, {3, -3, 3.0, 7}, {4, -4, 0.5, 3}, {5, -5, 2.5, 4}};
    c.resize(360, classfic{0, 0, 0, 0});
    EXPECT_EQ(engine_->getPointMin(c.data(), 4), cv::Point3d(5, -5, 2.5));
    EXPECT_EQ(engine_->getPointMin(c.data(), 3), cv::Point3d(2, -2, 3.0));
    EXPECT_EQ(engine_->getPointMin(nullptr, -1), cv::Point3d(0, 0, kEmpty));
    // A last index beyond the 360 clusters is clamped, with a message.
    c[359] = {9, -9, 0.25, 4};
    cv::Point3d p;
    const auto out = orvo_test::captureOutput([&] { p = engine_->getPointMin(c.data(), 1000); });
    EXPECT_EQ(p, cv::Point3d(9, -9, 0.25));
    EXPECT_EQ(out.err, "getPointMin: last cluster 1000 clamped to 359\n");
}

TEST(GetPoint, ScaleRoundingAndSafety) {
    EXPECT_EQ(get_point(4.0f, 0.0f), cv::Point(1000, 500));
    EXPECT_EQ(get_point(0.0f, NAN), cv::Point(500, 500));
    EXPECT_EQ(get_point(-0.0f, 2.0f), cv::Point(500, 500));
    EXPECT_EQ(get_point(2.0f, float(M_PI / 2)), cv::Point(500, 750));  // forward points down
    // Exact half-integers round to even: 62.5 + 500 and 187.5 + 500, and 500 - 62.5.
    EXPECT_EQ(get_point(0.5f, 0.0f), cv::Point(562, 500));
    EXPECT_EQ(get_point(1.5f, 0.0f), cv::Point(688, 500));
    EXPECT_EQ(get_point(0.5f, float(M_PI)), cv::Point(438, 500));
    // 125 pixels a metre; each axis is the exact product plus 500 rounded once to float, then to the
    // nearest integer: inputs (found by a search) where a product rounded on its own lands elsewhere.
    for (const cv::Vec2f& ra : {cv::Vec2f(3.80690193f, 2.26515198f), cv::Vec2f(1.20607734f, 5.84474468f),
                               cv::Vec2f(2.32477212f, 2.29945779f)}) {
        const double s = float(double(ra[0]) * 125), x = s * std::cos(ra[1]) + 500, y = s * std::sin(ra[1]) + 500;
        ASSERT_NE(int(std::nearbyint(float(s) * std::cos(ra[1]) + 500.0f)), int(std::nearbyint(float(x)))) << ra;
        EXPECT_EQ(get_point(ra[0], ra[1]), cv::Point(int(std::nearbyint(float(x))), int(std::nearbyint(float(y))))) << ra;
    }
    // Non-finite and huge ranges give a point far off any plot, never undefined behaviour.
    EXPECT_EQ(get_point(INFINITY, 0.3f), cv::Point(INT_MAX, INT_MAX));
    EXPECT_EQ(get_point(-INFINITY, 0.3f), cv::Point(INT_MIN, INT_MIN));
    EXPECT_EQ(get_point(NAN, 0.3f), cv::Point(INT_MIN, INT_MIN));
    EXPECT_EQ(get_point(3e35f, 0.0f), cv::Point(INT_MAX, 500));
    EXPECT_EQ(get_point(1e7f, float(M_PI)).x, -1249999488);  // -1.25e9 + 500 as a float
}

TEST_F(Depth, PolarPlotPixels) {
    std::vector<nerapot> bins = freshBins();
    for (nerapot& b : bins) b.angle = 1.0;  // stale fields of empty bins must still draw nothing
    const struct { int bin; double depth, angle; } points[] = {
        {270, 2.0, M_PI / 2}, {225, 1.2, 0.8}, {300, 3.0, 2.3}, {200, 6.0, 0.3}};
    for (const auto& f : points) bins[size_t(f.bin)] = nerapot{0.5, -0.1, f.depth, f.depth, f.angle};

    cv::Mat image = cv::Mat::zeros(1000, 1000, CV_8UC3);
    engine_->draw_point_image(bins.data(), cv::Point3d(0.1, -0.2, 1.5), image);
    // A green diamond of size 5 around each point (centre left alone), white text at (10, 10).
    cv::Mat expected = cv::Mat::zeros(1000, 1000, CV_8UC3);
    cv::putText(expected, "1.500000", {10, 10}, cv::FONT_HERSHEY_PLAIN, 1.0, cv::Scalar::all(255), 1, 8);
    const cv::Point diamond[] = {{0, -2}, {1, -1}, {2, 0}, {1, 1}, {0, 2}, {-1, 1}, {-2, 0}, {-1, -1}};
    for (const auto& f : points)  // 125 pixels a metre from the centre, forward down the picture
        for (const cv::Point& d : diamond) {
            const cv::Point q = cv::Point(cvRound(500 + 125 * f.depth * std::cos(f.angle)),
                                          cvRound(500 + 125 * f.depth * std::sin(f.angle))) + d;
            if (q.inside(cv::Rect(0, 0, 1000, 1000))) expected.at<cv::Vec3b>(q) = {0, 255, 0};
        }
    EXPECT_EQ(image.at<cv::Vec3b>(748, 500), cv::Vec3b(0, 255, 0));  // bin 270 at (500, 750)
    EXPECT_EQ(cv::norm(image, expected, cv::NORM_INF), 0.0) << "plot differs from markers plus text";

    // The not-found depth prints the largest double in full and draws into an existing picture.
    cv::Mat grey(200, 300, CV_8UC3, cv::Scalar::all(40)), grey_expected = grey.clone();
    engine_->draw_point_image(freshBins().data(), cv::Point3d(0, 0, kEmpty), grey);
    cv::putText(grey_expected, std::to_string(kEmpty), {10, 10}, cv::FONT_HERSHEY_PLAIN, 1.0, cv::Scalar::all(255), 1, 8);
    EXPECT_EQ(cv::norm(grey, grey_expected, cv::NORM_INF), 0.0);  // "%f": all 316 characters

    // An empty image is refused with a message instead of an OpenCV exception.
    cv::Mat empty;
    const auto out = orvo_test::captureOutput([&] { engine_->draw_point_image(bins.data(), {0, 0, 1}, empty); });
    EXPECT_EQ(out.err, "draw_point_image: no bins or an empty image\n");
    EXPECT_TRUE(empty.empty());
}

// The facade's search on the rendered scene: its wiring, and its answer against the true depth.
TEST(DepthScene, FacadeFindsTheObstacleLevelAndTilted) {
    cv::FileStorage fs(kScene + "extrinsics.yml", cv::FileStorage::READ);
    if (!fs.isOpened()) GTEST_SKIP() << "the default scene is not in this tree";
    const double rectified_focal = fs["P1"].mat().at<double>(0, 0);
    for (double tilt : {0.0, 0.05}) {
        SCOPED_TRACE("tilt " + std::to_string(tilt));
        const winpar region{0.5, 0.5, 3.0, tilt};
        const orvo_test::ScratchDir dir;
        const std::string truth_path = dir.file("truth.txt"), box = "0.5,0.5,3," + std::to_string(tilt);
        const orvo_test::VirtualNode vcam("/dev/video-virtual-depth-scene", "");  // the default scene
        const orvo_test::ScopedEnv truth_env{{"ORVO_VCAM_TRUTH", truth_path.c_str()}, {"ORVO_VCAM_TRUTH_BOX", box.c_str()}};
        OrvoCameraParameterList list;
        std::tie(list.device_path, list.intrinsics_file, list.extrinsics_file) = std::make_tuple(
            "/dev/video-virtual-depth-scene", kScene + "intrinsics.yml", kScene + "extrinsics.yml");
        std::unique_ptr<OrvoCamera> cam;
        orvo_test::captureOutput([&] { cam.reset(new OrvoCamera(list)); });
        ASSERT_TRUE(cam->Grab());  // rectified through the scene's calibration
        std::ifstream in(truth_path);  // the nearest_depth on the truth file's last line
        std::string line, last_line;
        while (std::getline(in, line)) if (!line.empty()) last_line = line;
        ASSERT_NE(last_line.find("nearest_depth="), std::string::npos) << last_line;
        const double truth = std::strtod(last_line.c_str() + last_line.find("nearest_depth=") + 14, nullptr);

        std::vector<nerapot> bins = freshBins();
        for (int i = 0; i < 360; i += 2) bins[size_t(i)].min_depth = 0.01;  // stale, must be reset
        cam->buckets[0] = classfic{1, 1, 0.001, 50};  // a stale cluster that must be overwritten
        cv::Point3d nearest;
        winpar search = region;
        cam->getNearestPoint(search, bins.data(), nearest);
        EXPECT_EQ(std::count_if(bins.begin(), bins.end(), [](const nerapot& b) { return b.min_depth == 0.01; }), 0);
        EXPECT_NE(cam->buckets[0].z, 0.001);
        EXPECT_GT(filled(bins), 10);
        // The disparity searched is the block matcher's in pixels (its 4 fraction bits scaled by
        // 1/16); getDisparity hands out the semi-global matcher's raw output.
        cv::Mat raw, disp, sg, want_sg;
        bm_->compute(cam->rect_image_1, cam->rect_image_2, raw);
        raw.convertTo(disp, CV_32F, 1.0 / 16);
        EXPECT_EQ(cv::norm(cam->disparity, disp, cv::NORM_INF), 0.0);
        cam->getDisparity(sg);
        sgbm_->compute(cam->rect_image_1, cam->rect_image_2, want_sg);
        EXPECT_EQ(cv::norm(sg, want_sg, cv::NORM_INF), 0.0);

        // The engine's unrectified focal length scales depths by its ratio to the rectified one (0.5%).
        const double expected = truth * camera_->fx / rectified_focal;
        EXPECT_NEAR(nearest.z, expected, 0.03 * expected) << "true depth " << truth;
        EXPECT_NEAR(nearest.z, truth, 0.03 * truth);
        // The obstacle's front face spans x -0.1 .. 0.3 and rises 0.3 above the axis (level).
        EXPECT_TRUE(nearest.x > -0.15 && nearest.x < 0.35 && nearest.y < 0 && (tilt != 0 || nearest.y > -0.35)) << nearest;
        orvo_test::captureOutput([&] { cam.reset(); });
    }
}

}  // namespace
