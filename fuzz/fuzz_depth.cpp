// Fuzz target: arbitrary disparity maps (NaN, infinities, negative, huge, denormal), search regions
// and camera constants through the nearest-point search: DispToPointCloud, getNoiseFilter,
// getPointMin and draw_point_image, each checked bit for bit against a plain reading of the
// search (every pixel in turn, every bin in turn) written here independently.
//
// Input: [flags u8][cx cy fx baseline f64 if flags&1][angle_min deg_to_rad f64 if flags&2]
// [half_width height max_depth tilt f64][rows u8][cols u8][image u8][last-bin seed u8] then the
// disparities: raw little-endian floats, or (flags&4) one byte per pixel picking from a table of
// awkward values. flags&8 hands over a view into a larger matrix (rows not contiguous); flags&16
// hands over a matrix of the wrong type, which must leave the bins alone.
#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include <opencv2/core.hpp>

#include "harness_support.h"

using namespace orvo_fuzz;

namespace {

constexpr int kBins = 360;
constexpr double kEmpty = std::numeric_limits<double>::max();
const std::string kNode = "/dev/video-virtual-fuzz-depth";

StereoCamera* g_engine = nullptr;

struct Constants {
    double cx = 371.25, cy = 243.5, fx = 430.0, baseline = 0.12;
    double angle_min = -3.141592653589793, deg_to_rad = 0.017453292519943295;
};

const float kAwkward[] = {0.0f, -0.0f, 1.0f, 0.5f, 12.0f, 64.0f, 127.9375f, -1.0f, -64.0f,
                          std::numeric_limits<float>::quiet_NaN(),
                          std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::denorm_min(), FLT_MIN, FLT_MAX, -FLT_MAX,
                          1e-30f, 3e-7f, 0.0625f, 2.0f, 6.0f, 100.0f, 1e30f, 0.1f};

// The search as defined: back-project every pixel in row order, keep the nearest accepted point of
// each bearing bin. A bearing that rounds to the end of the half circle is kept in the last bin and
// one that is not a number is dropped (the engine's documented choices).
void referenceCloud(const Constants& k, const cv::Mat& disp, nerapot* bins, const winpar& w) {
    const double s = std::sin(w.tilt), c = std::cos(w.tilt);
    for (int r = 0; r < disp.rows; ++r)
        for (int col = 0; col < disp.cols; ++col) {
            const float df = disp.at<float>(r, col);
            if (df == 0.0f) continue;
            const double d = df;
            const double x = (col - k.cx) * k.baseline / d;
            double y = (r - k.cy) * k.baseline / d;
            double z = k.baseline * k.fx / d;
            if (w.tilt != 0.0) {
                const double yt = y * c - z * s;
                const double zt = y * s + z * c;
                y = yt;
                z = zt;
            }
            if (!(z > 0.4 && z < w.max_depth && y > -w.height && y < 0.0 &&
                  x > k.baseline / 2 - w.half_width && x < k.baseline / 2 + w.half_width))
                continue;
            const double angle = std::atan2(z, x);
            const double v = (angle - k.angle_min) / k.deg_to_rad;
            if (!(v >= 0.0)) continue;
            const int index = v >= kBins ? kBins - 1 : int(v);
            nerapot& bin = bins[index];
            if (bin.min_depth > z) bin = nerapot{x, y, z, z, angle};
        }
}

void referenceClusters(const nerapot* bins, classfic* clusters, int& last) {
    last = 0;
    bool any = false;
    double px = 0, pz = 0;
    for (int b = 0; b < kBins; ++b) {
        const nerapot& bin = bins[b];
        if (bin.min_depth == kEmpty) continue;
        if (any && std::hypot(bin.x - px, bin.z - pz) <= 0.05) {
            classfic& cl = clusters[last];
            cl.members += 1;
            if (cl.z > bin.min_depth) {
                cl.x = bin.x;
                cl.y = bin.y;
                cl.z = bin.z;
            }
        } else {
            if (any) ++last;
            clusters[last] = classfic{bin.x, bin.y, bin.z, 1};
        }
        any = true;
        px = bin.x;
        pz = bin.z;
    }
}

cv::Point3d referenceMin(const classfic* clusters, int last) {
    cv::Point3d best(0, 0, kEmpty);
    for (int i = 0; i <= std::min(last, kBins - 1); ++i)
        if (clusters[i].members >= 4 && clusters[i].z < best.z)
            best = cv::Point3d(clusters[i].x, clusters[i].y, clusters[i].z);
    return best;
}

bool sameBits(const void* a, const void* b, size_t n) { return std::memcmp(a, b, n) == 0; }

// Clusters compare field by field: the struct's padding is not part of the result.
bool sameClusters(const classfic* a, const classfic* b) {
    for (int i = 0; i < kBins; ++i)
        if (!sameBits(&a[i].x, &b[i].x, 3 * sizeof(double)) || a[i].members != b[i].members) return false;
    return true;
}

cv::Mat disparityFrom(Reader& in, uint8_t flags, int rows, int cols) {
    const bool awkward = flags & 4, view = flags & 8;
    cv::Mat full(rows + (view ? 3 : 0), cols + (view ? 5 : 0), CV_32FC1, cv::Scalar(7.0f));
    cv::Mat disp = view ? full(cv::Rect(2, 1, cols, rows)) : full;
    const uint8_t* p = in.rest();
    const size_t n = in.remaining();
    size_t at = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            float v = 0.0f;
            if (awkward && n > 0) {
                v = kAwkward[p[at++ % n] % (sizeof kAwkward / sizeof kAwkward[0])];
            } else if (n >= sizeof v) {
                std::memcpy(&v, p + (at % (n / sizeof v)) * sizeof v, sizeof v);
                ++at;
            }
            disp.at<float>(r, c) = v;
        }
    return disp;
}

cv::Mat plotImage(uint8_t choice) {
    switch (choice % 8) {
    case 0: return cv::Mat();
    case 1: return cv::Mat(1000, 1000, CV_8UC3, cv::Scalar::all(0));
    case 2: return cv::Mat(1, 1, CV_8UC1, cv::Scalar::all(0));
    case 3: return cv::Mat(20, 30, CV_16UC4, cv::Scalar::all(0));
    case 4: return cv::Mat(520, 520, CV_8UC3, cv::Scalar::all(0));
    default: return cv::Mat(64, 48, CV_8UC3, cv::Scalar::all(0));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    useVirtualCamera(kNode, "pattern");
    g_engine = makeEngine(kNode);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t flags = in.take<uint8_t>();
    Constants k;
    if (flags & 1) {
        k.cx = in.take<double>();
        k.cy = in.take<double>();
        k.fx = in.take<double>();
        k.baseline = in.take<double>();
    }
    if (flags & 2) {
        k.angle_min = in.take<double>();
        k.deg_to_rad = in.take<double>();
    }
    winpar w;
    w.half_width = in.take<double>();
    w.height = in.take<double>();
    w.max_depth = in.take<double>();
    w.tilt = in.take<double>();
    const int rows = 1 + in.take<uint8_t>() % 48, cols = 1 + in.take<uint8_t>() % 64;
    const uint8_t image_choice = in.take<uint8_t>();
    const uint8_t seed = in.take<uint8_t>();
    cv::Mat disp = disparityFrom(in, flags, rows, cols);

    g_engine->cx = k.cx;
    g_engine->cy = k.cy;
    g_engine->fx = k.fx;
    g_engine->baseline = k.baseline;
    g_engine->angle_min = k.angle_min;
    g_engine->deg_to_rad = k.deg_to_rad;

    // Stale contents in every bin (only min_depth is reset per search) and in every cluster.
    std::vector<nerapot> bins(kBins), want_bins(kBins);
    std::vector<classfic> clusters(kBins), want_clusters(kBins);
    for (int b = 0; b < kBins; ++b) {
        bins[b] = nerapot{double(b), -double(seed), 0.5 * b, kEmpty, 1.0};
        clusters[b] = classfic{double(seed), 2.0 * b, double(b % 7), int32_t(b % 6)};
    }
    want_bins = bins;
    want_clusters = clusters;

    if (flags & 16) {
        cv::Mat wrong;
        disp.convertTo(wrong, CV_64F);
        quietly([&] { g_engine->DispToPointCloud(wrong, bins.data(), w); }, true);
        FUZZ_CHECK(sameBits(bins.data(), want_bins.data(), sizeof(nerapot) * kBins));
        return 0;
    }

    g_engine->DispToPointCloud(disp, bins.data(), w);
    referenceCloud(k, disp, want_bins.data(), w);
    FUZZ_CHECK(sameBits(bins.data(), want_bins.data(), sizeof(nerapot) * kBins));

    int last = -7, want_last = -7;
    g_engine->getNoiseFilter(bins.data(), clusters.data(), last);
    referenceClusters(want_bins.data(), want_clusters.data(), want_last);
    FUZZ_CHECK(last == want_last);
    FUZZ_CHECK(last >= 0 && last < kBins);
    FUZZ_CHECK(sameClusters(clusters.data(), want_clusters.data()));

    const cv::Point3d nearest = g_engine->getPointMin(clusters.data(), last);
    const cv::Point3d want = referenceMin(want_clusters.data(), want_last);
    FUZZ_CHECK(sameBits(&nearest, &want, sizeof want));
    const cv::Point3d none = g_engine->getPointMin(clusters.data(), -1);
    FUZZ_CHECK(none.x == 0 && none.y == 0 && none.z == kEmpty);

    cv::Mat image = plotImage(image_choice);
    const cv::Mat before = image;
    quietly([&] { g_engine->draw_point_image(bins.data(), nearest, image); }, true);
    FUZZ_CHECK(image.data == before.data && image.size() == before.size() && image.type() == before.type());
    return 0;
}
