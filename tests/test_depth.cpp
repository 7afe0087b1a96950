// Depth path: bearing bins against a plain per-pixel loop, clustering, the nearest cluster, plot
// coordinates and the polar plot's pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "StereoCamera.h"
#include "run_capture.h"

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();
constexpr double kPi = 3.141592653589793;
constexpr double kDeg = 0.017453292519943295;

// The search as a plain loop over every pixel, in the order and precision the engine promises.
void referenceCloud(const cv::Mat& disp, nerapot* bins, const winpar& w, double cx, double cy,
                    double fx, double b, double deg = kDeg) {
    const double s = std::sin(w.tilt), k = std::cos(w.tilt);
    for (int r = 0; r < disp.rows; ++r)
        for (int c = 0; c < disp.cols; ++c) {
            const float d = disp.at<float>(r, c);
            if (d == 0.0) continue;
            const double X = (c - cx) * b / d, Y0 = (r - cy) * b / d, Z0 = b * fx / d;
            const double Y = w.tilt != 0 ? Y0 * k - Z0 * s : Y0;
            const double Z = w.tilt != 0 ? Y0 * s + Z0 * k : Z0;
            if (!(Z > 0.4 && Z < w.max_depth && Y > -w.height && Y < 0 &&
                  X > b / 2 - w.half_width && X < b / 2 + w.half_width))
                continue;
            const double angle = std::atan2(Z, X);
            const int idx = std::min(359, int((angle - -kPi) / deg));
            ASSERT_GE(idx, 0);
            if (bins[idx].min_depth > Z) bins[idx] = nerapot{X, Y, Z, Z, angle};
        }
}

// Bins whose stale fields hold recognisable garbage, all empty.
std::vector<nerapot> freshBins(double stale = 7.25) {
    return std::vector<nerapot>(360, nerapot{stale, -stale, stale, kEmpty, stale});
}

int filled(const std::vector<nerapot>& bins) {
    return int(std::count_if(bins.begin(), bins.end(), [](const nerapot& b) { return b.min_depth != kEmpty; }));
}

// "" when the bins agree bit for bit, else the first bin that differs.
std::string difference(const std::vector<nerapot>& a, const std::vector<nerapot>& b) {
    for (size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(nerapot)) != 0) return "bin " + std::to_string(i);
    return "";
}

// A disparity map that mixes what a block matcher produces (-1 for unmatched pixels, zeros,
// smooth surfaces of many equal depths) with noise, extreme and non-numeric values.
cv::Mat randomDisparity(std::mt19937& rng, int rows, int cols) {
    cv::Mat d(rows, cols, CV_32F);
    std::uniform_real_distribution<float> uni(0.0f, 1.0f), disp(0.0f, 130.0f);
    const float inf = std::numeric_limits<float>::infinity();
    const float specials[] = {0.0f, -0.0f, -1.0f, inf, -inf, std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::denorm_min(), 1e-30f, 3e38f, 0.0625f};
    const float plane = 10.0f + 60.0f * uni(rng);
    const float slope = (uni(rng) - 0.5f) * 0.2f;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const float u = uni(rng);
            d.at<float>(r, c) =
                u < 0.25f ? -1.0f
                : u < 0.35f ? 0.0f
                : u < 0.37f ? specials[rng() % (sizeof specials / sizeof specials[0])]
                // a slanted surface quantised like the matcher's output
                : u < 0.70f ? std::round((plane + slope * float(c - cols / 2)) * 16.0f) / 16.0f
                            : std::round(disp(rng) * 16.0f) / 16.0f;
        }
    return d;
}

// One engine for the whole file, on the virtual camera; its camera constants are set per test.
class Depth : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-depth", 1);
        setenv("ORVO_VCAM_SOURCE", "pattern", 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        unsetenv("ORVO_VCAM_FAULTS");
        DeviceParameter p{};
        p.video_path = "/dev/video-virtual-depth";
        p.width = 752;
        p.height = 480;
        engine_ = new StereoCamera(p);
    }
    static void TearDownTestSuite() { delete engine_; }
    static void setConstants(double cx, double cy, double fx, double b, double deg = kDeg) {
        engine_->cx = cx;
        engine_->cy = cy;
        engine_->fx = engine_->fy = fx;
        engine_->baseline = b;
        engine_->deg_to_rad = deg;
    }
    // Runs the engine and the plain loop from the same bins; "" when they agree bit for bit.
    static std::string againstPlainLoop(const cv::Mat& disp, const winpar& w,
                                        std::vector<nerapot> got, int& accepted) {
        std::vector<nerapot> want = got;
        engine_->DispToPointCloud(disp, got.data(), w);
        referenceCloud(disp, want.data(), w, engine_->cx, engine_->cy, engine_->fx,
                       engine_->baseline, engine_->deg_to_rad);
        accepted += filled(want);
        return difference(got, want);
    }
    // Bins after a search over a map that is zero except for the given pixels.
    static std::vector<nerapot> search(const std::vector<std::pair<cv::Point, float>>& pixels,
                                       const winpar& w) {
        cv::Mat disp = cv::Mat::zeros(480, 752, CV_32F);
        for (const auto& px : pixels) disp.at<float>(px.first) = px.second;
        std::vector<nerapot> bins = freshBins();
        engine_->DispToPointCloud(disp, bins.data(), w);
        return bins;
    }
    static StereoCamera* engine_;
};
StereoCamera* Depth::engine_ = nullptr;

TEST_F(Depth, RandomMapsMatchThePlainLoopBitForBit) {
    struct Case { double cx, cy, fx, b; winpar w; double deg; };
    const double inf = std::numeric_limits<double>::infinity();
    const double b = double(std::fabs(float(-51.6 / 430.0)));  // baseline kept at float precision
    const Case cases[] = {
        {371.25, 243.5, 430.0, b, {1.0, 0.3, 4.0, 0.0}, kDeg},
        {371.25, 243.5, 430.0, b, {3.0, 2.0, 20.0, 0.0}, kDeg},
        {376.0, 240.0, 430.0, b, {0.5, 0.2, 3.0, 0.0}, kDeg},
        {371.25, 243.5, 430.0, b, {1.0, 0.3, 4.0, 0.2}, kDeg},
        {371.25, 243.5, 430.0, b, {2.0, 1.5, 10.0, -0.35}, kDeg},
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 0.0}, kDeg},
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 1.2}, kDeg},
        {371.25, 243.5, 430.0, b, {2.0, 2.0, 8.0, -1.5}, kDeg},   // rows that may look backwards
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 2.0}, kDeg},    // turned past a right angle
        {371.25, 243.5, -430.0, b, {1.0, 0.3, 4.0, 0.0}, kDeg},  // negative focal length
        {371.25, 243.5, 430.0, 0.0, {1.0, 0.3, 4.0, 0.0}, kDeg},  // no calibration
        {-50.0, 600.0, 430.0, b, {1.0, 0.3, 4.0, 0.0}, kDeg},     // principal point off the image
        {371.25, 243.5, 430.0, 0.12, {1.0, 0.5, 6.0, 0.0}, 0.0174},  // bins off the standard grid
    };
    std::mt19937 rng(20240611);
    int accepted = 0;
    for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
        const Case& cs = cases[k];
        setConstants(cs.cx, cs.cy, cs.fx, cs.b, cs.deg);
        for (int rep = 0; rep < 3; ++rep) {
            std::vector<nerapot> start = freshBins();
            if (rep == 2)  // bins already holding nearer points from an earlier pass
                for (int i = 0; i < 360; i += 3) start[size_t(i)].min_depth = 0.5 + 0.01 * i;
            ASSERT_EQ(againstPlainLoop(randomDisparity(rng, 480, 752), cs.w, start, accepted), "")
                << "case " << k << " rep " << rep;
        }
    }
    EXPECT_GT(accepted, 1000);  // the comparison covered many accepted points
}

// Sparse maps whose pixels sit within a few units in the last place of the edge of one test
// each (depth 0.4, maximum depth, height, lateral limits), one pixel per column in columns 12
// apart so that nearly every accepted pixel has a bin to itself.
TEST_F(Depth, PixelsOnTheEdgesOfEveryTestMatchThePlainLoop) {
    const double cx = 371.25, cy = 243.5, fx = 430.0, b = 0.11999999731779099;
    setConstants(cx, cy, fx, b);
    std::mt19937 rng(31337);
    std::uniform_int_distribution<int> ulps(-40, 40), kind(0, 4);
    int accepted = 0;
    for (double tilt : {0.0, 0.2, -0.2, 0.35, -0.35, 1.2, -1.5}) {
        const winpar w{0.9, 0.45, 3.5, tilt};
        const double s = std::sin(tilt), k = std::cos(tilt);
        for (int r = 0; r < 480; r += 7) {
            cv::Mat disp = cv::Mat::zeros(480, 752, CV_32F);
            const double rb = (r - cy) * b, bf = b * fx;
            for (int c = 3; c < 752; c += 12) {
                const double cb = (c - cx) * b;
                double edge = 0;
                switch (kind(rng)) {
                    case 0: edge = (rb * s + bf * k) / 0.4; break;
                    case 1: edge = (rb * s + bf * k) / w.max_depth; break;
                    case 2: edge = (rb * k - bf * s) / -w.height; break;
                    case 3: edge = cb / (b / 2 - w.half_width); break;
                    default: edge = cb / (b / 2 + w.half_width); break;
                }
                if (!(std::fabs(edge) > 1e-3 && std::fabs(edge) < 1e6)) continue;
                disp.at<float>(r, c) = float(edge * (1.0 + ulps(rng) * 6e-8));
            }
            ASSERT_EQ(againstPlainLoop(disp, w, freshBins(), accepted), "")
                << "tilt " << tilt << " row " << r;
        }
    }
    EXPECT_GT(accepted, 2000);
}

// Exact constants so that boundary values are reached exactly: B*fx = 50, cx = 376, cy = 240.
// Column 376 is straight ahead (X = 0): bearing 90 degrees, bin 270.
TEST_F(Depth, StrictBoundsZeroSkipTiesAndTilt) {
    setConstants(376.0, 240.0, 400.0, 0.125);
    const double nan = std::nan("");
    const winpar w{1.0, 1.0, 5.0, 0.0};
    // The one bin filled (-1: none), with its y and z (NaN: not checked).
    const struct { const char* name; std::vector<std::pair<cv::Point, float>> pixels; winpar w;
                   int bin; double y, z; } cases[] = {
        {"Z = 0.4 exactly", {{{376, 200}, 125.0f}}, w, -1, nan, nan},
        {"just beyond 0.4", {{{376, 200}, std::nextafter(125.0f, 0.0f)}}, w, 270, nan, nan},
        {"Z = max depth exactly", {{{376, 200}, 10.0f}}, w, -1, nan, nan},
        {"just nearer than max depth", {{{376, 200}, std::nextafter(10.0f, 20.0f)}}, w, 270, nan, nan},
        {"Y = 0 on the optical axis", {{{376, 240}, 20.0f}}, w, -1, nan, nan},
        {"row above the axis", {{{376, 239}, 20.0f}}, w, 270, nan, nan},
        {"Y = -height exactly", {{{376, 200}, 20.0f}}, {1.0, 0.25, 5.0, 0.0}, -1, nan, nan},
        {"just inside the height", {{{376, 200}, 20.0f}}, {1.0, 0.2500001, 5.0, 0.0}, 270, nan, nan},
        // Lateral limits around B/2 = 0.0625: column 536 at d = 20 gives X = 1.0, column 216 -1.0.
        {"X = upper limit", {{{536, 200}, 20.0f}}, {0.9375, 1.0, 5.0, 0.0}, -1, nan, nan},
        {"X inside upper", {{{536, 200}, 20.0f}}, {0.9376, 1.0, 5.0, 0.0}, 248, nan, nan},
        {"X = lower limit", {{{216, 200}, 20.0f}}, {1.0625, 1.0, 5.0, 0.0}, -1, nan, nan},
        {"X inside lower", {{{216, 200}, 20.0f}}, {1.0626, 1.0, 5.0, 0.0}, 291, nan, nan},
        {"zeros of either sign, negative",
         {{{376, 200}, 0.0f}, {{377, 200}, -0.0f}, {{378, 200}, -20.0f}}, w, -1, nan, nan},
        {"equal depths: the first found stays",
         {{{376, 100}, 20.0f}, {{376, 200}, 20.0f}}, w, 270, (100 - 240.0) * 0.125 / 20.0f, 2.5},
        {"a nearer point later replaces it",
         {{{376, 100}, 20.0f}, {{376, 200}, 25.0f}}, w, 270, (200 - 240.0) * 0.125 / 25.0f, 2.0},
        // Pitched down by 0.3 rad: the point on the optical axis (Y = 0, Z = 2.5) rises above it.
        {"tilt", {{{376, 240}, 20.0f}}, {1.0, 1.0, 5.0, 0.3}, 270,
         0.0 * std::cos(0.3) - 2.5 * std::sin(0.3), 0.0 * std::sin(0.3) + 2.5 * std::cos(0.3)},
    };
    for (const auto& cs : cases) {
        SCOPED_TRACE(cs.name);
        const auto bins = search(cs.pixels, cs.w);
        EXPECT_EQ(filled(bins), cs.bin < 0 ? 0 : 1);
        if (cs.bin < 0) continue;
        EXPECT_NE(bins[size_t(cs.bin)].min_depth, kEmpty);
        if (!std::isnan(cs.y)) { EXPECT_EQ(bins[size_t(cs.bin)].y, cs.y); }
        if (!std::isnan(cs.z)) { EXPECT_EQ(bins[size_t(cs.bin)].z, cs.z); }
    }

    // A disparity of another type is refused with a message and leaves the bins alone.
    std::vector<nerapot> bins = freshBins();
    const auto out = orvo_test::captureOutput([&] {
        engine_->DispToPointCloud(cv::Mat(480, 752, CV_16S, cv::Scalar(320)), bins.data(), w);
    });
    EXPECT_EQ(out.err, "DispToPointCloud: the disparity must be single-channel 32-bit float\n");
    engine_->DispToPointCloud(cv::Mat(), bins.data(), w);
    EXPECT_EQ(difference(bins, freshBins()), "");
}

// Bins with points placed directly, for the clustering and the nearest cluster.
struct BinSet {
    std::vector<nerapot> bins = freshBins(3.5);
    void put(int b, double x, double z, double y = -0.1) { bins[size_t(b)] = {x, y, z, z, 1.0}; }
};

TEST_F(Depth, ClustersChainThroughThePreviousFilledBinAndNeedFourMembers) {
    BinSet s;
    // Bins 200..207 (205 empty): each member 1/32 in x (and up to 1/64 in z) from the previous
    // filled bin, so one chain although its ends lie 0.19 apart. Its nearest member is bin 204.
    const double step = 1.0 / 32;
    const int member_bins[] = {200, 201, 202, 203, 204, 206, 207};
    const double z[] = {2.0, 2.0, 1.984375, 1.96875, 1.953125, 1.96875, 1.984375};
    for (int i = 0; i < 7; ++i) s.put(member_bins[i], step * i, z[i], -0.01 * i);
    // Bins 208..210: 0.0625 on from bin 207, so a new cluster; three members, all nearer.
    const double x1 = step * 6 + 0.0625;
    for (int i = 0; i < 3; ++i) s.put(208 + i, x1 + step * i, 1.0);
    s.put(250, -1.0, 0.5);  // alone, the nearest of all

    std::vector<classfic> clusters(360, classfic{9, 9, 9, 99});
    int last = -5;
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    ASSERT_EQ(last, 2);
    EXPECT_EQ(clusters[0].members, 7);
    EXPECT_EQ(cv::Point3d(clusters[0].x, clusters[0].y, clusters[0].z),
              cv::Point3d(step * 4, -0.04, 1.953125));
    EXPECT_EQ(clusters[1].members, 3);
    EXPECT_EQ(clusters[1].x, x1);  // the first of equal depths stays
    EXPECT_EQ(clusters[2].members, 1);
    EXPECT_EQ(clusters[3].members, 99);  // untouched beyond last
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(step * 4, -0.04, 1.953125));
    // A fourth member makes cluster 1 the answer.
    s.put(211, x1 + step * 3, 1.0);
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    EXPECT_EQ(clusters[1].members, 4);
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(x1, -0.1, 1.0));

    // A gap of exactly 0.05 joins (0.1 - 0.05 == 0.05 in double); one unit in the last place more
    // opens a new cluster.
    ASSERT_EQ(0.1 - 0.05, 0.05);
    const struct { double x[3], z[3]; int last, members0; } gaps[] = {{{0.0, 0.05, 0.1}, {1.0, 1.0, 1.0}, 0, 3},
                {{0.0, 0.05, std::nextafter(0.1, 1.0)}, {1.0, 1.0, 1.0}, 1, 2},
                {{0.3, 0.3, 0.3}, {0.05, 0.1, 0.1500001}, 1, 2}};
    for (const auto& g : gaps) {
        SCOPED_TRACE(g.x[2]);
        BinSet t;
        for (int i = 0; i < 3; ++i) t.put(20 + i, g.x[i], g.z[i]);
        engine_->getNoiseFilter(t.bins.data(), clusters.data(), last);
        EXPECT_EQ(last, g.last);
        EXPECT_EQ(clusters[0].members, g.members0);
    }
}

TEST_F(Depth, NearestClusterLowerIndexWinsTiesAndStaleClusterZero) {
    // Three members are too few however near; equal depths keep the lower index.
    std::vector<classfic> c = {{1, -1, 2.0, 3}, {2, -2, 3.0, 4}, {3, -3, 3.0, 7}, {4, -4, 0.5, 3},
                               {5, -5, 2.5, 4}};
    c.resize(360, classfic{0, 0, 0, 0});
    EXPECT_EQ(engine_->getPointMin(c.data(), 4), cv::Point3d(5, -5, 2.5));
    EXPECT_EQ(engine_->getPointMin(c.data(), 3), cv::Point3d(2, -2, 3.0));
    EXPECT_EQ(engine_->getPointMin(c.data(), 0), cv::Point3d(0, 0, kEmpty));
    EXPECT_EQ(engine_->getPointMin(c.data(), -1), cv::Point3d(0, 0, kEmpty));
    EXPECT_EQ(engine_->getPointMin(nullptr, -1), cv::Point3d(0, 0, kEmpty));
    // A last index beyond the 360 clusters is clamped, with a message.
    c[359] = {9, -9, 0.25, 4};
    cv::Point3d p;
    const auto out = orvo_test::captureOutput([&] { p = engine_->getPointMin(c.data(), 1000); });
    EXPECT_EQ(p, cv::Point3d(9, -9, 0.25));
    EXPECT_EQ(out.err, "getPointMin: last cluster 1000 clamped to 359\n");

    // An empty search leaves last at 0 and reuses whatever cluster 0 held.
    std::vector<nerapot> bins = freshBins();
    c[0] = {0.3, -0.2, 1.25, 4};
    int last = 17;
    engine_->getNoiseFilter(bins.data(), c.data(), last);
    EXPECT_EQ(last, 0);
    EXPECT_EQ(engine_->getPointMin(c.data(), last), cv::Point3d(0.3, -0.2, 1.25));
}

TEST(GetPoint, ScaleRoundingAndSafety) {
    EXPECT_EQ(get_point(4.0f, 0.0f), cv::Point(1000, 500));
    EXPECT_EQ(get_point(0.0f, std::numeric_limits<float>::quiet_NaN()), cv::Point(500, 500));
    EXPECT_EQ(get_point(-0.0f, 2.0f), cv::Point(500, 500));
    EXPECT_EQ(get_point(2.0f, float(kPi / 2)), cv::Point(500, 750));  // forward points down
    // Exact half-integers round to even: 62.5 + 500 and 187.5 + 500, and 500 - 62.5.
    EXPECT_EQ(get_point(0.5f, 0.0f), cv::Point(562, 500));
    EXPECT_EQ(get_point(1.5f, 0.0f), cv::Point(688, 500));
    EXPECT_EQ(get_point(0.5f, float(kPi)), cv::Point(438, 500));
    // The scale is range*1000/4000*500 in single precision, then one fused multiply-add per
    // axis: check ranges and angles where an unfused sum, or a double-precision scale, rounds to
    // another pixel.
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> range(0.0f, 4.0f), angle(0.0f, float(2 * kPi));
    int fused_matters = 0, scale_matters = 0;
    for (int i = 0; i < 2000000 && (fused_matters < 5 || scale_matters < 5); ++i) {
        const float r = range(rng), a = angle(rng);
        const float s = r * 1000 / 4000 * 500;
        const cv::Point want(int(std::nearbyint(std::fmaf(s, std::cos(a), 500.0f))),
                             int(std::nearbyint(std::fmaf(s, std::sin(a), 500.0f))));
        const bool differs_unfused = int(std::nearbyint(s * std::cos(a) + 500.0f)) != want.x;
        const bool differs_scale =
            int(std::nearbyint(std::fmaf(float(double(r) * 125.0), std::cos(a), 500.0f))) != want.x;
        if (!differs_unfused && !differs_scale) continue;
        fused_matters += differs_unfused;
        scale_matters += differs_scale;
        ASSERT_EQ(get_point(r, a), want) << "range " << r << " angle " << a;
    }
    EXPECT_GE(fused_matters, 5);
    // Non-finite and huge ranges give a point far off any plot, never undefined behaviour.
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(get_point(inf, 0.3f), cv::Point(INT_MAX, INT_MAX));
    EXPECT_EQ(get_point(-inf, 0.3f), cv::Point(INT_MIN, INT_MIN));
    EXPECT_EQ(get_point(std::numeric_limits<float>::quiet_NaN(), 0.3f), cv::Point(INT_MIN, INT_MIN));
    EXPECT_EQ(get_point(3e35f, 0.0f), cv::Point(INT_MAX, 500));
    // Large but representable: -1.25e9 + 500 rounds to the float -1249999488.
    EXPECT_EQ(get_point(1e7f, float(kPi)).x, -1249999488);
}

TEST_F(Depth, PolarPlotPixels) {
    std::vector<nerapot> bins = freshBins();
    for (nerapot& b : bins) b.angle = 1.0;  // stale fields of empty bins must still draw nothing
    const struct { int bin; double depth, angle; } points[] = {{270, 2.0, kPi / 2}, {225, 1.2, 0.8}, {300, 3.0, 2.3}, {200, 6.0, 0.3}};
    for (const auto& f : points) bins[size_t(f.bin)] = nerapot{0.5, -0.1, f.depth, f.depth, f.angle};

    cv::Mat image = cv::Mat::zeros(1000, 1000, CV_8UC3);
    engine_->draw_point_image(bins.data(), cv::Point3d(0.1, -0.2, 1.5), image);
    // A green diamond of size 5 around each point (centre left alone), white text at (10, 10).
    cv::Mat expected = cv::Mat::zeros(1000, 1000, CV_8UC3);
    cv::putText(expected, "1.500000", cv::Point(10, 10), cv::FONT_HERSHEY_PLAIN, 1.0,
                cv::Scalar(255, 255, 255), 1, 8);
    const cv::Point diamond[] = {{0, -2}, {1, -1}, {2, 0}, {1, 1}, {0, 2}, {-1, 1}, {-2, 0}, {-1, -1}};
    for (const auto& f : points)
        for (const cv::Point& d : diamond) {
            const cv::Point q = get_point(float(f.depth), float(f.angle)) + d;
            if (q.inside(cv::Rect(0, 0, 1000, 1000))) expected.at<cv::Vec3b>(q) = {0, 255, 0};
        }
    EXPECT_EQ(image.at<cv::Vec3b>(748, 500), cv::Vec3b(0, 255, 0));  // bin 270 at (500, 750)
    EXPECT_EQ(cv::norm(image, expected, cv::NORM_INF), 0.0) << "plot differs from markers plus text";

    // The not-found depth prints the largest double in full and draws into an existing picture.
    cv::Mat grey(200, 300, CV_8UC3, cv::Scalar(40, 40, 40));
    cv::Mat grey_expected = grey.clone();
    engine_->draw_point_image(freshBins().data(), cv::Point3d(0, 0, kEmpty), grey);
    cv::putText(grey_expected, std::to_string(kEmpty), cv::Point(10, 10), cv::FONT_HERSHEY_PLAIN,
                1.0, cv::Scalar(255, 255, 255), 1, 8);  // "%f": all 316 characters
    EXPECT_EQ(cv::norm(grey, grey_expected, cv::NORM_INF), 0.0);

    // An empty image is refused with a message instead of an OpenCV exception.
    cv::Mat empty;
    const auto out = orvo_test::captureOutput(
        [&] { engine_->draw_point_image(bins.data(), cv::Point3d(0, 0, 1), empty); });
    EXPECT_EQ(out.err, "draw_point_image: no bins or an empty image\n");
    EXPECT_TRUE(empty.empty());
}

}  // namespace
