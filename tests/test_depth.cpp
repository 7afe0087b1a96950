// Tests of the depth path: bearing bins against a plain per-pixel loop, clustering, the nearest
// cluster, plot coordinates and the polar plot's pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "StereoCamera.h"
#include "run_capture.h"

namespace {

constexpr double kEmpty = std::numeric_limits<double>::max();
constexpr double kPi = 3.141592653589793;
constexpr double kDeg = 0.017453292519943295;

// The search as a plain loop over every pixel, in the order and precision the engine promises.
void referenceCloud(const cv::Mat& disp, nerapot* bins, const winpar& w, double cx, double cy,
                    double fx, double b, double deg = kDeg) {
    for (int r = 0; r < disp.rows; ++r) {
        for (int c = 0; c < disp.cols; ++c) {
            const float d = disp.at<float>(r, c);
            if (d == 0.0) continue;
            double X = (c - cx) * b / d;
            double Y = (r - cy) * b / d;
            double Z = b * fx / d;
            if (w.tilt != 0) {
                const double s = std::sin(w.tilt), k = std::cos(w.tilt);
                const double Yn = Y * k - Z * s;
                const double Zn = Y * s + Z * k;
                Y = Yn;
                Z = Zn;
            }
            if (Z > 0.4 && Z < w.max_depth && Y > -w.height && Y < 0 &&
                X > b / 2 - w.half_width && X < b / 2 + w.half_width) {
                const double angle = std::atan2(Z, X);
                const int idx = std::min(359, int((angle - -kPi) / deg));
                ASSERT_GE(idx, 0);
                if (bins[idx].min_depth > Z) bins[idx] = nerapot{X, Y, Z, Z, angle};
            }
        }
    }
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
    static void TearDownTestSuite() {
        delete engine_;
        engine_ = nullptr;
    }
    void setConstants(double cx, double cy, double fx, double b) {
        engine_->cx = cx;
        engine_->cy = cy;
        engine_->fx = fx;
        engine_->fy = fx;
        engine_->baseline = b;
    }
    static StereoCamera* engine_;
};
StereoCamera* Depth::engine_ = nullptr;

// Bins whose stale fields hold recognisable garbage, all empty.
std::vector<nerapot> freshBins(double stale = 7.25) {
    std::vector<nerapot> bins(360, nerapot{stale, -stale, stale, kEmpty, stale});
    return bins;
}

bool sameBits(const std::vector<nerapot>& a, const std::vector<nerapot>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(nerapot)) == 0;
}

std::string firstDifference(const std::vector<nerapot>& a, const std::vector<nerapot>& b) {
    for (size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(nerapot)) != 0)
            return "bin " + std::to_string(i) + ": got z=" + std::to_string(a[i].z) + " min=" +
                   std::to_string(a[i].min_depth) + ", want z=" + std::to_string(b[i].z) +
                   " min=" + std::to_string(b[i].min_depth);
    return "none";
}

// A disparity map that mixes what a block matcher produces (-1 for unmatched pixels, zeros,
// smooth surfaces of many equal depths) with noise, extreme and non-numeric values.
cv::Mat randomDisparity(std::mt19937& rng, int rows, int cols) {
    cv::Mat d(rows, cols, CV_32F);
    std::uniform_real_distribution<float> uni(0.0f, 1.0f);
    std::uniform_real_distribution<float> disp(0.0f, 130.0f);
    const float specials[] = {0.0f,
                              -0.0f,
                              -1.0f,
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::denorm_min(),
                              1e-30f,
                              3e38f,
                              0.0625f};
    const float plane = 10.0f + 60.0f * uni(rng);
    const float slope = (uni(rng) - 0.5f) * 0.2f;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            const float u = uni(rng);
            float v;
            if (u < 0.25f)
                v = -1.0f;
            else if (u < 0.35f)
                v = 0.0f;
            else if (u < 0.37f)
                v = specials[rng() % (sizeof specials / sizeof specials[0])];
            else if (u < 0.70f)  // a slanted surface quantised like the matcher's output
                v = std::round((plane + slope * float(c - cols / 2)) * 16.0f) / 16.0f;
            else
                v = std::round(disp(rng) * 16.0f) / 16.0f;
            d.at<float>(r, c) = v;
        }
    }
    return d;
}

TEST_F(Depth, RandomMapsMatchThePlainLoopBitForBit) {
    struct Case {
        double cx, cy, fx, b;
        winpar w;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const double b = double(std::fabs(float(-51.6 / 430.0)));  // baseline kept at float precision
    const Case cases[] = {
        {371.25, 243.5, 430.0, b, {1.0, 0.3, 4.0, 0.0}},
        {371.25, 243.5, 430.0, b, {3.0, 2.0, 20.0, 0.0}},
        {376.0, 240.0, 430.0, b, {0.5, 0.2, 3.0, 0.0}},
        {371.25, 243.5, 430.0, b, {1.0, 0.3, 4.0, 0.2}},
        {371.25, 243.5, 430.0, b, {2.0, 1.5, 10.0, -0.35}},
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 0.0}},
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 1.2}},
        {371.25, 243.5, 430.0, b, {2.0, 2.0, 8.0, -1.5}},   // rows that may look backwards
        {371.25, 243.5, 430.0, b, {inf, inf, inf, 2.0}},    // turned past a right angle
        {371.25, 243.5, -430.0, b, {1.0, 0.3, 4.0, 0.0}},  // negative focal length
        {371.25, 243.5, 430.0, 0.0, {1.0, 0.3, 4.0, 0.0}},  // no calibration
        {-50.0, 600.0, 430.0, b, {1.0, 0.3, 4.0, 0.0}},     // principal point off the image
    };
    std::mt19937 rng(20240611);
    int filled_total = 0;
    for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
        const Case& cs = cases[k];
        setConstants(cs.cx, cs.cy, cs.fx, cs.b);
        for (int rep = 0; rep < 3; ++rep) {
            const cv::Mat disp = randomDisparity(rng, 480, 752);
            std::vector<nerapot> got = freshBins(), want = freshBins();
            if (rep == 2) {  // bins already holding nearer points from an earlier pass
                for (int i = 0; i < 360; i += 3) got[size_t(i)].min_depth = 0.5 + 0.01 * i;
                want = got;
            }
            engine_->DispToPointCloud(disp, got.data(), cs.w);
            referenceCloud(disp, want.data(), cs.w, cs.cx, cs.cy, cs.fx, cs.b);
            ASSERT_TRUE(sameBits(got, want))
                << "case " << k << " rep " << rep << ": " << firstDifference(got, want);
            for (const nerapot& n : want) filled_total += n.min_depth != kEmpty;
        }
    }
    EXPECT_GT(filled_total, 1000);  // the comparison covered many accepted points
}

// Sparse maps whose pixels sit within a few units in the last place of the edge of one test
// each (depth 0.4, maximum depth, height, lateral limits), one pixel per column in columns 12
// apart so that nearly every accepted pixel has a bin to itself: a shortcut that wrongly keeps
// or drops a single pixel shows in the bins.
TEST_F(Depth, PixelsOnTheEdgesOfEveryTestMatchThePlainLoop) {
    const double cx = 371.25, cy = 243.5, fx = 430.0, b = 0.11999999731779099;
    setConstants(cx, cy, fx, b);
    const double tilts[] = {0.0, 0.2, -0.2, 0.35, -0.35, 1.2, -1.5};
    std::mt19937 rng(31337);
    std::uniform_int_distribution<int> ulps(-40, 40), kind(0, 4);
    int accepted = 0;
    for (double tilt : tilts) {
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
            std::vector<nerapot> got = freshBins(), want = freshBins();
            engine_->DispToPointCloud(disp, got.data(), w);
            referenceCloud(disp, want.data(), w, cx, cy, fx, b);
            ASSERT_TRUE(sameBits(got, want))
                << "tilt " << tilt << " row " << r << ": " << firstDifference(got, want);
            for (const nerapot& n : want) accepted += n.min_depth != kEmpty;
        }
    }
    EXPECT_GT(accepted, 2000);
}

TEST_F(Depth, NonStandardAngleConstantsStillMatch) {
    const double b = 0.12;
    setConstants(371.25, 243.5, 430.0, b);
    engine_->deg_to_rad = 0.0174;  // every bin candidate must then go the exact way
    std::mt19937 rng(7);
    const cv::Mat disp = randomDisparity(rng, 120, 752);
    const winpar w{1.0, 0.5, 6.0, 0.0};
    std::vector<nerapot> got = freshBins(), want = freshBins();
    engine_->DispToPointCloud(disp, got.data(), w);
    referenceCloud(disp, want.data(), w, 371.25, 243.5, 430.0, b, 0.0174);
    engine_->deg_to_rad = kDeg;
    EXPECT_TRUE(sameBits(got, want)) << firstDifference(got, want);
}

// Exact constants so that boundary values are reached exactly: B*fx = 50, cx = 376, cy = 240.
class DepthBounds : public Depth {
protected:
    void SetUp() override { setConstants(376.0, 240.0, 400.0, 0.125); }
    // Bins after a search over a map that is zero except for the given pixels.
    std::vector<nerapot> search(const std::vector<std::pair<cv::Point, float>>& pixels,
                                const winpar& w) {
        cv::Mat disp = cv::Mat::zeros(480, 752, CV_32F);
        for (const auto& px : pixels) disp.at<float>(px.first) = px.second;
        std::vector<nerapot> bins = freshBins();
        engine_->DispToPointCloud(disp, bins.data(), w);
        return bins;
    }
    static int filled(const std::vector<nerapot>& bins) {
        int n = 0;
        for (const nerapot& b : bins) n += b.min_depth != kEmpty;
        return n;
    }
};

TEST_F(DepthBounds, StrictBoundsAndTheStraightAheadBin) {
    const winpar w{1.0, 1.0, 5.0, 0.0};
    // Column 376 is straight ahead (X = 0): bearing 90 degrees, bin 270. Row 200: Y = -5/d.
    // d = 125 gives Z = 0.4 exactly: rejected; the next float below is accepted.
    EXPECT_EQ(filled(search({{{376, 200}, 125.0f}}, w)), 0);
    auto bins = search({{{376, 200}, std::nextafter(125.0f, 0.0f)}}, w);
    ASSERT_EQ(filled(bins), 1);
    EXPECT_NE(bins[270].min_depth, kEmpty);
    EXPECT_EQ(bins[270].x, 0.0);
    EXPECT_EQ(bins[270].angle, std::atan2(bins[270].z, 0.0));
    // d = 10 gives Z = max_depth = 5 exactly: rejected; a little nearer is accepted.
    EXPECT_EQ(filled(search({{{376, 200}, 10.0f}}, w)), 0);
    EXPECT_EQ(filled(search({{{376, 200}, std::nextafter(10.0f, 20.0f)}}, w)), 1);
    // Row 240 is the optical axis: Y = 0 is rejected, row 239 is accepted.
    EXPECT_EQ(filled(search({{{376, 240}, 20.0f}}, w)), 0);
    EXPECT_EQ(filled(search({{{376, 239}, 20.0f}}, w)), 1);
    // Row 200 at d = 20: Y = -0.25 exactly. A height of 0.25 rejects it, any more accepts it.
    EXPECT_EQ(filled(search({{{376, 200}, 20.0f}}, winpar{1.0, 0.25, 5.0, 0.0})), 0);
    EXPECT_EQ(filled(search({{{376, 200}, 20.0f}}, winpar{1.0, 0.2500001, 5.0, 0.0})), 1);
    // Lateral limits around B/2 = 0.0625: column 536 at d = 20 gives X = 160*0.125/20 = 1.0.
    EXPECT_EQ(filled(search({{{536, 200}, 20.0f}}, winpar{0.9375, 1.0, 5.0, 0.0})), 0);
    EXPECT_EQ(filled(search({{{536, 200}, 20.0f}}, winpar{0.9376, 1.0, 5.0, 0.0})), 1);
    // Column 216 at d = 20 gives X = -1.0, the lower limit of half-width 1.0625.
    EXPECT_EQ(filled(search({{{216, 200}, 20.0f}}, winpar{1.0625, 1.0, 5.0, 0.0})), 0);
    EXPECT_EQ(filled(search({{{216, 200}, 20.0f}}, winpar{1.0626, 1.0, 5.0, 0.0})), 1);
    // Disparities of exactly 0 (either sign) and negative ones never produce a point.
    EXPECT_EQ(filled(search({{{376, 200}, 0.0f}, {{377, 200}, -0.0f}, {{378, 200}, -20.0f}}, w)),
              0);
}

TEST_F(DepthBounds, NearestWinsAndTheFirstFoundKeepsATie) {
    const winpar w{1.0, 1.0, 5.0, 0.0};
    // Same column and disparity in rows 100 and 200: equal depth, same bin; row 100 came first.
    auto bins = search({{{376, 100}, 20.0f}, {{376, 200}, 20.0f}}, w);
    ASSERT_EQ(filled(bins), 1);
    EXPECT_EQ(bins[270].y, (100 - 240.0) * 0.125 / 20.0f);
    // A larger disparity later in the image is nearer and replaces it.
    bins = search({{{376, 100}, 20.0f}, {{376, 200}, 25.0f}}, w);
    EXPECT_EQ(bins[270].z, 2.0);
    EXPECT_EQ(bins[270].y, (200 - 240.0) * 0.125 / 25.0f);
}

TEST_F(DepthBounds, TiltRotatesAboutTheLateralAxis) {
    // Pitched down by 0.3 rad: the point on the optical axis (row 240, Y = 0) rises above it.
    const double tilt = 0.3;
    const winpar w{1.0, 1.0, 5.0, tilt};
    auto bins = search({{{376, 240}, 20.0f}}, w);
    ASSERT_EQ(filled(bins), 1);
    const double Y = 0.0, Z = 2.5;
    EXPECT_EQ(bins[270].y, Y * std::cos(tilt) - Z * std::sin(tilt));
    EXPECT_EQ(bins[270].z, Y * std::sin(tilt) + Z * std::cos(tilt));
    // Untilted the same pixel lies on the axis and is rejected.
    EXPECT_EQ(filled(search({{{376, 240}, 20.0f}}, winpar{1.0, 1.0, 5.0, 0.0})), 0);
}

TEST_F(DepthBounds, BadDisparityTypeIsRefusedWithAMessage) {
    std::vector<nerapot> bins = freshBins();
    const cv::Mat disp(480, 752, CV_16S, cv::Scalar(320));
    const auto out = orvo_test::captureOutput([&] {
        engine_->DispToPointCloud(disp, bins.data(), winpar{1.0, 1.0, 5.0, 0.0});
    });
    EXPECT_EQ(out.err, "DispToPointCloud: the disparity must be single-channel 32-bit float\n");
    EXPECT_EQ(filled(bins), 0);
    // An empty map and a map of a single row are fine.
    engine_->DispToPointCloud(cv::Mat(), bins.data(), winpar{1.0, 1.0, 5.0, 0.0});
    EXPECT_EQ(filled(bins), 0);
}

// Bins with points placed directly, for the clustering and the nearest cluster.
struct BinSet {
    std::vector<nerapot> bins = freshBins(3.5);
    void put(int b, double x, double z, double y = -0.1) { bins[size_t(b)] = {x, y, z, z, 1.0}; }
};

TEST_F(Depth, ClustersChainThroughThePreviousFilledBin) {
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
    // Bin 250 alone, the nearest of all.
    s.put(250, -1.0, 0.5);

    std::vector<classfic> clusters(360, classfic{9, 9, 9, 99});
    int last = -5;
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    ASSERT_EQ(last, 2);
    EXPECT_EQ(clusters[0].members, 7);
    EXPECT_EQ(clusters[0].x, step * 4);
    EXPECT_EQ(clusters[0].y, -0.04);
    EXPECT_EQ(clusters[0].z, 1.953125);
    EXPECT_EQ(clusters[1].members, 3);
    EXPECT_EQ(clusters[1].z, 1.0);
    EXPECT_EQ(clusters[1].x, x1);  // the first of equal depths stays
    EXPECT_EQ(clusters[2].members, 1);
    EXPECT_EQ(clusters[3].members, 99);  // untouched beyond last
    // Only cluster 0 has four members or more.
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(step * 4, -0.04, 1.953125));
    // A fourth member makes cluster 1 the answer.
    s.put(211, x1 + step * 3, 1.0);
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    EXPECT_EQ(clusters[1].members, 4);
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(x1, -0.1, 1.0));
}

TEST_F(Depth, ClusterGapIsInclusiveAtExactly005) {
    std::vector<classfic> clusters(360);
    int last = 0;
    // x 0 -> 0.05 -> 0.1: both differences are exactly 0.05 in double; one cluster.
    BinSet s;
    s.put(20, 0.0, 1.0);
    s.put(21, 0.05, 1.0);
    s.put(22, 0.1, 1.0);
    ASSERT_EQ(0.1 - 0.05, 0.05);
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    EXPECT_EQ(last, 0);
    EXPECT_EQ(clusters[0].members, 3);
    // One unit in the last place more and the third bin opens a cluster of its own.
    s.put(22, std::nextafter(0.1, 1.0), 1.0);
    engine_->getNoiseFilter(s.bins.data(), clusters.data(), last);
    EXPECT_EQ(last, 1);
    EXPECT_EQ(clusters[0].members, 2);
    EXPECT_EQ(clusters[1].members, 1);
    // The same along z.
    BinSet t;
    t.put(30, 0.3, 0.05);
    t.put(31, 0.3, 0.1);
    t.put(32, 0.3, 0.1500001);
    engine_->getNoiseFilter(t.bins.data(), clusters.data(), last);
    EXPECT_EQ(last, 1);
    EXPECT_EQ(clusters[0].members, 2);
    EXPECT_EQ(clusters[0].z, 0.05);
}

TEST_F(Depth, NearestClusterNeedsFourMembersAndLowerIndexWinsTies) {
    std::vector<classfic> c(360, classfic{0, 0, 0, 0});
    c[0] = {1, -1, 2.0, 3};
    c[1] = {2, -2, 3.0, 4};
    c[2] = {3, -3, 3.0, 7};
    c[3] = {4, -4, 0.5, 3};
    c[4] = {5, -5, 2.5, 4};
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
}

TEST_F(Depth, EmptySearchReusesTheStaleClusterZero) {
    std::vector<nerapot> bins = freshBins();
    std::vector<classfic> clusters(360, classfic{0, 0, 0, 0});
    clusters[0] = {0.3, -0.2, 1.25, 4};  // left over from an earlier search
    int last = 17;
    engine_->getNoiseFilter(bins.data(), clusters.data(), last);
    EXPECT_EQ(last, 0);
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(0.3, -0.2, 1.25));
    clusters[0].members = 3;
    engine_->getNoiseFilter(bins.data(), clusters.data(), last);
    EXPECT_EQ(engine_->getPointMin(clusters.data(), last), cv::Point3d(0, 0, kEmpty));
}

TEST(GetPoint, ScaleRoundingAndSafety) {
    EXPECT_EQ(get_point(4.0f, 0.0f), cv::Point(1000, 500));
    EXPECT_EQ(get_point(0.0f, 1.0f), cv::Point(500, 500));
    EXPECT_EQ(get_point(0.0f, std::numeric_limits<float>::quiet_NaN()), cv::Point(500, 500));
    EXPECT_EQ(get_point(-0.0f, 2.0f), cv::Point(500, 500));
    // Forward (bearing 90 degrees) points down the image.
    EXPECT_EQ(get_point(2.0f, float(kPi / 2)), cv::Point(500, 750));
    // Exact half-integers round to even: 62.5 + 500 and 187.5 + 500, and 500 - 62.5.
    EXPECT_EQ(get_point(0.5f, 0.0f), cv::Point(562, 500));
    EXPECT_EQ(get_point(1.5f, 0.0f), cv::Point(688, 500));
    EXPECT_EQ(get_point(0.5f, float(kPi)), cv::Point(438, 500));
    // The scale is range*1000/4000*500 in single precision, then one fused multiply-add per
    // axis. Find ranges and angles where an unfused sum, or a double-precision scale, rounds to
    // another pixel, and check the fused single-precision result.
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> range(0.0f, 4.0f), angle(0.0f, float(2 * kPi));
    int fused_matters = 0, scale_matters = 0;
    for (int i = 0; i < 2000000 && (fused_matters < 5 || scale_matters < 5); ++i) {
        const float r = range(rng), a = angle(rng);
        const float s = r * 1000 / 4000 * 500;
        const float fx = std::fmaf(s, std::cos(a), 500.0f);
        const float fy = std::fmaf(s, std::sin(a), 500.0f);
        const float ux = s * std::cos(a) + 500.0f;
        const double ds = double(r) * 125.0;
        const float dx = std::fmaf(float(ds), std::cos(a), 500.0f);
        const cv::Point want(int(std::nearbyint(fx)), int(std::nearbyint(fy)));
        const bool differs_unfused = int(std::nearbyint(ux)) != want.x;
        const bool differs_scale = int(std::nearbyint(dx)) != want.x;
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
    EXPECT_EQ(get_point(inf, float(kPi / 2)).y, INT_MAX);
    EXPECT_EQ(get_point(3e35f, 0.0f), cv::Point(INT_MAX, 500));
    // Large but representable: -1.25e9 + 500 rounds to the float -1249999488.
    EXPECT_EQ(get_point(1e7f, float(kPi)).x, -1249999488);
}

// Pixels of a diamond marker of size 5 centred on p.
std::vector<cv::Point> diamond(cv::Point p) {
    return {p + cv::Point(0, -2), p + cv::Point(1, -1), p + cv::Point(2, 0), p + cv::Point(1, 1),
            p + cv::Point(0, 2),  p + cv::Point(-1, 1), p + cv::Point(-2, 0), p + cv::Point(-1, -1)};
}

TEST_F(Depth, PolarPlotPixels) {
    std::vector<nerapot> bins = freshBins();
    // Stale fields of empty bins point inside the plot: they must still draw nothing.
    for (nerapot& b : bins) b.angle = 1.0;
    const struct {
        int bin;
        double depth, angle;
    } filled[] = {{270, 2.0, kPi / 2}, {225, 1.2, 0.8}, {300, 3.0, 2.3}, {200, 6.0, 0.3}};
    for (const auto& f : filled) bins[size_t(f.bin)] = nerapot{0.5, -0.1, f.depth, f.depth, f.angle};

    cv::Mat image = cv::Mat::zeros(1000, 1000, CV_8UC3);
    engine_->draw_point_image(bins.data(), cv::Point3d(0.1, -0.2, 1.5), image);
    cv::imwrite(std::string(ORVO_BINARY_DIR) + "/depth_polar_plot.png", image);

    cv::Mat expected = cv::Mat::zeros(1000, 1000, CV_8UC3);
    cv::putText(expected, "1.500000", cv::Point(10, 10), cv::FONT_HERSHEY_PLAIN, 1.0,
                cv::Scalar(255, 255, 255), 1, 8);
    for (const auto& f : filled) {
        const cv::Point p = get_point(float(f.depth), float(f.angle));
        if (p.x < -5 || p.x > 1005 || p.y < -5 || p.y > 1005) continue;
        for (const cv::Point& q : diamond(p))
            if (q.inside(cv::Rect(0, 0, 1000, 1000))) expected.at<cv::Vec3b>(q) = {0, 255, 0};
    }
    // Bin 270 at depth 2 straight ahead: its diamond around (500, 750), centre left alone.
    EXPECT_EQ(image.at<cv::Vec3b>(748, 500), cv::Vec3b(0, 255, 0));
    EXPECT_EQ(image.at<cv::Vec3b>(750, 502), cv::Vec3b(0, 255, 0));
    EXPECT_EQ(image.at<cv::Vec3b>(750, 500), cv::Vec3b(0, 0, 0));
    cv::Mat diff;
    cv::absdiff(image, expected, diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0) << "plot differs from markers plus text";
    // The text is white and sits in the top-left corner.
    EXPECT_GT(cv::countNonZero(image(cv::Rect(10, 0, 80, 11)).reshape(1)), 20);

    // The not-found depth prints the largest double in full and draws into an existing picture.
    cv::Mat grey(200, 300, CV_8UC3, cv::Scalar(40, 40, 40));
    cv::Mat grey_expected = grey.clone();
    std::vector<nerapot> none = freshBins();
    engine_->draw_point_image(none.data(), cv::Point3d(0, 0, kEmpty), grey);
    char text[400];
    std::snprintf(text, sizeof text, "%f", kEmpty);
    ASSERT_EQ(std::strlen(text), 316u);
    cv::putText(grey_expected, text, cv::Point(10, 10), cv::FONT_HERSHEY_PLAIN, 1.0,
                cv::Scalar(255, 255, 255), 1, 8);
    cv::absdiff(grey, grey_expected, diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0);

    // An empty image is refused with a message instead of an OpenCV exception.
    cv::Mat empty;
    const auto out = orvo_test::captureOutput(
        [&] { engine_->draw_point_image(bins.data(), cv::Point3d(0, 0, 1), empty); });
    EXPECT_EQ(out.err, "draw_point_image: no bins or an empty image\n");
    EXPECT_TRUE(empty.empty());
}

TEST_F(Depth, DisprateMatIsAPlaceholder) {
    cv::Mat m(3, 3, CV_32F, cv::Scalar(2.5f));
    float value = 4.5f;
    EXPECT_TRUE(engine_->getDisprateMat(m, &value));
    EXPECT_EQ(value, 4.5f);
    EXPECT_EQ(cv::countNonZero(m != 2.5f), 0);
    EXPECT_TRUE(engine_->getDisprateMat(m, nullptr));
}

// A textured rectified pair: a wall at 20 px of disparity with a nearer box at 48 px.
void texturedPair(cv::Mat& left, cv::Mat& right) {
    cv::Mat noise(480, 752 + 64, CV_8U);
    cv::RNG rng(4242);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::GaussianBlur(noise, noise, cv::Size(5, 5), 1.2);
    left = noise(cv::Rect(0, 0, 752, 480)).clone();
    right.create(480, 752, CV_8U);
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 752; ++c) {
            const int d = (r > 120 && r < 330 && c > 300 && c < 460) ? 48 : 20;
            right.at<uint8_t>(r, c) = noise.at<uint8_t>(r, std::min(c + d, 752 + 63));
        }
}

TEST(DepthFacade, OperationsRunTheirMatcherAndTheEngine) {
    setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-depth-facade", 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    OrvoCameraParameterList list;
    list.device_path = "/dev/video-virtual-depth-facade";
    std::unique_ptr<OrvoCamera> cam;
    orvo_test::captureOutput([&] { cam.reset(new OrvoCamera(list)); });
    texturedPair(cam->rect_image_1, cam->rect_image_2);
    const double cx = 371.25, cy = 243.5, fx = 430.0, b = 0.11999999731779099;
    camera_->cx = cx;
    camera_->cy = cy;
    camera_->fx = fx;
    camera_->baseline = b;

    // getNearestPoint: the block matcher's disparity in pixels, every bin reset, then the search.
    winpar region{1.0, 0.8, 5.0, 0.0};
    std::vector<nerapot> bins = freshBins();
    for (int i = 0; i < 360; i += 2) bins[size_t(i)].min_depth = 0.01;  // stale, must be reset
    cam->buckets[0] = classfic{1, 1, 0.001, 50};  // a stale cluster that must be overwritten
    cv::Point3d nearest;
    cam->getNearestPoint(region, bins.data(), nearest);

    cv::Mat raw, disp;
    bm_->compute(cam->rect_image_1, cam->rect_image_2, raw);
    raw.convertTo(disp, CV_32F, 1.0 / 16);
    ASSERT_EQ(cam->disparity.type(), CV_32FC1);
    EXPECT_EQ(cv::norm(cam->disparity, disp, cv::NORM_INF), 0.0);
    std::vector<nerapot> want = freshBins();
    referenceCloud(disp, want.data(), region, cx, cy, fx, b);
    EXPECT_TRUE(sameBits(bins, want)) << firstDifference(bins, want);
    std::vector<classfic> clusters(360);
    int last = -1;
    camera_->getNoiseFilter(want.data(), clusters.data(), last);
    EXPECT_EQ(cam->bucket_count, last);
    EXPECT_EQ(nearest, camera_->getPointMin(clusters.data(), last));
    // The box at 48 px lies at 0.12 * 430 / 48 = 1.075.
    EXPECT_NEAR(nearest.z, b * fx / 48, 0.03);

    // getDisparity: the semi-global matcher's raw fixed-point output.
    cv::Mat sg, want_sg;
    cam->getDisparity(sg);
    sgbm_->compute(cam->rect_image_1, cam->rect_image_2, want_sg);
    ASSERT_EQ(sg.type(), CV_16SC1);
    EXPECT_EQ(cv::norm(sg, want_sg, cv::NORM_INF), 0.0);

    // getPointImage: the engine's plot.
    cv::Mat plot = cv::Mat::zeros(1000, 1000, CV_8UC3), want_plot = plot.clone();
    cam->getPointImage(bins.data(), nearest, plot);
    camera_->draw_point_image(bins.data(), nearest, want_plot);
    EXPECT_EQ(cv::norm(plot, want_plot, cv::NORM_INF), 0.0);
    EXPECT_GT(cv::countNonZero(plot.reshape(1)), 100);

    // Without bins the search is refused with a message.
    const auto out = orvo_test::captureOutput([&] { cam->getNearestPoint(region, nullptr, nearest); });
    EXPECT_EQ(out.err, "getNearestPoint: no bins given\n");
    EXPECT_EQ(nearest, cv::Point3d(0, 0, kEmpty));
    orvo_test::captureOutput([&] { cam.reset(); });
}

}  // namespace
