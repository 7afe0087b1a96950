// Stereo engine depth path: disparity to bearing bins, bin clustering, nearest cluster.
#include "StereoCamera.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "disparity_ranges.h"

namespace {

using namespace orvo::classic;

constexpr int kBinCount = 360;
constexpr double kEmptyDepth = std::numeric_limits<double>::max();
constexpr double kMinDepth = 0.4;        // nearer points are matcher noise
constexpr double kClusterGap = 0.05;     // neighbouring bins closer than this are one obstacle
constexpr int32_t kMinClusterMembers = 4;
constexpr double kStandardAngleMin = -3.141592653589793;
constexpr double kStandardDegToRad = 0.017453292519943295;

// The engine's camera constants and the search region, as the back-projection uses them.
struct Projection {
    double cx, cy, baseline, bf;  // bf = baseline * fx, the numerator of the depth
    double angle_min, deg_to_rad;
    double max_depth, neg_height, x_low, x_high;
    double tilt, sin_tilt, cos_tilt;
};

// Bin of a bearing, truncating toward zero. A bearing that rounds to exactly 180 degrees would
// index one past the last bin; it is kept in the last bin. Non-numeric results are dropped.
bool binOf(const Projection& p, double angle, int& index) {
    const double v = (angle - p.angle_min) / p.deg_to_rad;
    if (!(v >= 0.0)) return false;
    index = v >= kBinCount ? kBinCount - 1 : int(v);
    return true;
}

// Writes the point into its bearing bin when it is strictly nearer than what the bin holds.
void offerPoint(const Projection& p, nerapot* bins, double x, double y, double z) {
    const double angle = std::atan2(z, x);
    int index;
    if (!binOf(p, angle, index)) return;
    nerapot& bin = bins[index];
    if (bin.min_depth > z) {
        bin.x = x;
        bin.y = y;
        bin.z = z;
        bin.min_depth = z;
        bin.angle = angle;
    }
}

bool standardAngles(const Projection& p) {
    return p.angle_min == kStandardAngleMin && p.deg_to_rad == kStandardDegToRad;
}

// The bin of every bearing within a few units in the last place of `angle` (standard angle
// constants), or -1 when the bearing lies so close to a bin edge, or to the ends of the half
// circle, that rounding could move it across.
int certainBin(double angle) {
    const double v = (angle - kStandardAngleMin) / kStandardDegToRad;
    if (!(v > 180.0 && v < 360.0)) return -1;
    const double whole = std::floor(v);
    const double frac = v - whole;
    if (frac < 1e-6 || frac > 1.0 - 1e-6) return -1;
    return int(whole);
}

// Bins by the ratio q = x / z of a point in front of the camera (z > 0), whose bearing is
// acot(q), decreasing in q: a table of small cells of q, each holding the bin that every ratio in
// it (widened by a margin) falls into, or -1 where a cell straddles a bin edge. Lets most points
// find their bin without the arctangent; only for the standard angle constants.
class RatioBins {
public:
    static const RatioBins& instance() {
        static const RatioBins table;
        return table;
    }
    int bin(double q) const {
        if (!(q > -kRange && q < kRange)) return -1;
        return cells_[size_t((q + kRange) * kScale)];
    }

private:
    static constexpr double kRange = 4.0;
    static constexpr int kCells = 16384;
    static constexpr double kScale = kCells / (2 * kRange);
    RatioBins() : cells_(kCells + 1, -1) {
        const double margin = 1e-9;
        for (int i = 0; i < kCells; ++i) {
            const double q_low = -kRange + i / kScale - margin;
            const double q_high = -kRange + (i + 1) / kScale + margin;
            const int a = certainBin(std::atan2(1.0, q_high));
            const int b = certainBin(std::atan2(1.0, q_low));
            cells_[size_t(i)] = (a >= 0 && a == b) ? int16_t(a) : int16_t(-1);
        }
    }
    std::vector<int16_t> cells_;
};

// Per-column terms shared by the searches: the lateral numerator (c - cx) * B and the range of
// disparities whose lateral coordinate fl(cB / d) lies strictly inside the region (both tests are
// monotone in d for a fixed column, so the range is exact).
struct Column {
    double cb;
    BitRange range;
};

void lateralColumns(const Projection& p, int cols, std::vector<Column>& out) {
    out.resize(size_t(cols));
    const double x_low = p.x_low, x_high = p.x_high;
    for (int c = 0; c < cols; ++c) {
        const double cb = (c - p.cx) * p.baseline;
        BitRange r = solveMonotone([&](float d) { return cb / d > x_low; },
                                   guessDisparity(cb, x_low));
        r.intersect(solveMonotone([&](float d) { return cb / d < x_high; },
                                  guessDisparity(cb, x_high)));
        out[size_t(c)] = Column{cb, r};
    }
}

// Level search (no tilt). Every acceptance test on a pixel is a monotone function of its
// disparity alone once the row and the column are fixed, so the tests become ranges of disparity
// bit patterns computed once per column (depth, lateral limits) and per row (height limits), and a
// pixel outside them costs two integer comparisons. Inside, the bearing fl(cB/d) : fl(bf/d) does
// not depend on d beyond rounding, so each column has one bin; a point that cannot beat that
// bin's depth skips the arctangent. Results are bit-identical to testing every pixel in turn.
void levelSearch(const Projection& p, const cv::Mat& disp, nerapot* bins) {
    const int rows = disp.rows, cols = disp.cols;
    thread_local std::vector<Column> columns;
    thread_local std::vector<int> col_bin;
    col_bin.resize(size_t(cols));

    const double bf = p.bf, max_depth = p.max_depth;
    BitRange depth = solveMonotone([&](float d) { return bf / d > kMinDepth; },
                                   guessDisparity(bf, kMinDepth));
    depth.intersect(solveMonotone([&](float d) { return bf / d < max_depth; },
                                  guessDisparity(bf, max_depth)));
    if (depth.empty()) return;

    lateralColumns(p, cols, columns);
    const bool angles_known = standardAngles(p);
    for (int c = 0; c < cols; ++c) {
        Column& col = columns[size_t(c)];
        col.range.intersect(depth);
        const bool tiny = col.cb != 0.0 && std::fabs(col.cb) < 1e-100;
        col_bin[size_t(c)] = (angles_known && !tiny) ? certainBin(std::atan2(bf, col.cb)) : -1;
    }

    const double neg_height = p.neg_height;
    for (int r = 0; r < rows; ++r) {
        const double rb = (r - p.cy) * p.baseline;
        if (!(rb < 0.0)) continue;  // d > 0 here, so fl(rb/d) < 0 needs rb < 0
        BitRange row = solveMonotone([&](float d) { return rb / d > neg_height; },
                                     guessDisparity(rb, neg_height));
        row.intersect(solveMonotone([&](float d) { return rb / d < 0.0; }, 1.0f));
        row.intersect(depth);
        if (row.empty()) continue;

        const float* line = disp.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            const int32_t b = floatBits(line[c]);
            const BitRange& cr = columns[size_t(c)].range;
            if (b < row.lo || b > row.hi || b < cr.lo || b > cr.hi) continue;
            const double d = line[c];
            const double z = bf / d;
            const int bin = col_bin[size_t(c)];
            if (bin >= 0 && !(bins[bin].min_depth > z)) continue;
            offerPoint(p, bins, columns[size_t(c)].cb / d, rb / d, z);
        }
    }
}

// Every test of one pixel in the order of the definition, rotation included; used where no
// shortcut applies.
void plainPixel(const Projection& p, nerapot* bins, double rb, double cb, float df) {
    if (df == 0.0f) return;
    const double d = df;
    double y = rb / d;
    double z = p.bf / d;
    if (p.tilt != 0.0) {
        const double yt = y * p.cos_tilt - z * p.sin_tilt;
        const double zt = y * p.sin_tilt + z * p.cos_tilt;
        y = yt;
        z = zt;
    }
    if (!(z > kMinDepth && z < p.max_depth && y > p.neg_height && y < 0.0)) return;
    const double x = cb / d;
    if (!(x > p.x_low && x < p.x_high)) return;
    offerPoint(p, bins, x, y, z);
}

// The disparities of one row of a tilted camera that can pass the depth tests, as a superset
// (false when no cheap bound is known and the row needs every pixel tested). For d > 0 the
// rotated depth is fl(fl(Y*s) + fl(Z*k)) with Z*k falling as d grows (k > 0). When Y*s falls too
// (rb*s >= 0) the depth is monotone and its range exact; otherwise Y*s <= 0 and the depth never
// exceeds Z*k, which bounds d from above. A negative d mirrors the depth of |d| with its sign
// flipped, so it passes only when Y*s outweighs Z*k, which the row's numerators rule out.
bool tiltedRowRange(const Projection& p, double rb, BitRange& out) {
    const double s = p.sin_tilt, k = p.cos_tilt, bf = p.bf, max_depth = p.max_depth;
    const double guess_near = bf * k / kMinDepth, guess_far = bf * k / max_depth;
    if (rb * s >= 0.0) {
        auto depth = [&](float d) {
            const double y = rb / d, z = bf / d;
            return y * s + z * k;
        };
        out = solveMonotone([&](float d) { return depth(d) > kMinDepth; },
                            guessDisparity(guess_near, 1.0));
        out.intersect(solveMonotone([&](float d) { return depth(d) < max_depth; },
                                    guessDisparity(guess_far, 1.0)));
        return true;
    }
    if (std::fabs(rb) < 1e-250 || !(bf * k >= std::fabs(rb * s) * (1.0 + 1e-9))) return false;
    out = solveMonotone([&](float d) { return (bf / d) * k > kMinDepth; },
                        guessDisparity(guess_near, 1.0));
    return true;
}

// Narrows a tilted row's disparities (d > 0) by the height tests on the rotated height
// Yt = fl(fl(Y*k) - fl(Z*s)), to a superset of those that pass. When both terms move the same
// way as d grows (rb*s <= 0) Yt is monotone and the range exact. Otherwise Yt stays within a
// relative 1e-14 of (rb*k - bf*s) / d, far more than the few roundings involved, which decides
// the sign of Yt for the whole row and bounds d from below.
void tiltedHeightRange(const Projection& p, double rb, BitRange& out) {
    const double s = p.sin_tilt, k = p.cos_tilt, bf = p.bf, neg_height = p.neg_height;
    if (rb == 0.0 || (rb < 0.0) == (s > 0.0)) {
        auto height = [&](float d) {
            const double y = rb / d, z = bf / d;
            return y * k - z * s;
        };
        out.intersect(solveMonotone([&](float d) { return height(d) < 0.0; }, 1.0f));
        out.intersect(solveMonotone([&](float d) { return height(d) > neg_height; },
                                    guessDisparity(rb * k - bf * s, neg_height)));
        return;
    }
    if (std::fabs(rb) < 1e-250 || std::fabs(s) < 1e-200) return;
    const double scale = std::fabs(rb * k) + std::fabs(bf * s);
    const double centre = rb * k - bf * s;
    const double slack = scale * 1e-14;
    if (centre - slack >= 0.0) {  // Yt >= 0 for every d
        out.lo = kInfinityBits + 1;
        return;
    }
    const double upper = centre + slack;  // Yt < upper / d
    if (!(upper < 0.0) || !(neg_height < 0.0)) return;
    const double least = (-upper / -neg_height) * (1.0 - 1e-9);  // Yt > -height needs d > least
    if (!(least > 0.0) || !(least < 3e38)) return;
    const float below = std::nextafter(float(least), 0.0f);
    out.lo = std::max(out.lo, floatBits(below) + 1);
}

// Tilted search: exact lateral ranges per column, a superset of the depth and height ranges per
// row, every rotated test exactly per pixel, and the bearing bin from the ratio table before any
// arctangent. Bit-identical to testing every pixel in turn.
void tiltedSearch(const Projection& p, const cv::Mat& disp, nerapot* bins) {
    const int rows = disp.rows, cols = disp.cols;
    thread_local std::vector<Column> columns;
    lateralColumns(p, cols, columns);
    const RatioBins* ratio_bins = standardAngles(p) ? &RatioBins::instance() : nullptr;
    const double s = p.sin_tilt, k = p.cos_tilt, bf = p.bf;

    for (int r = 0; r < rows; ++r) {
        const double rb = (r - p.cy) * p.baseline;
        const float* line = disp.ptr<float>(r);
        BitRange row;
        if (!tiltedRowRange(p, rb, row)) {
            for (int c = 0; c < cols; ++c) plainPixel(p, bins, rb, columns[size_t(c)].cb, line[c]);
            continue;
        }
        tiltedHeightRange(p, rb, row);
        if (row.empty()) continue;
        for (int c = 0; c < cols; ++c) {
            const int32_t b = floatBits(line[c]);
            const BitRange& cr = columns[size_t(c)].range;
            if (b < row.lo || b > row.hi || b < cr.lo || b > cr.hi) continue;
            const double d = line[c];
            const double y = rb / d, z = bf / d;
            const double yt = y * k - z * s;
            const double zt = y * s + z * k;
            if (!(zt > kMinDepth && zt < p.max_depth && yt > p.neg_height && yt < 0.0)) continue;
            const double x = columns[size_t(c)].cb / d;
            if (ratio_bins) {
                const int bin = ratio_bins->bin(x / zt);
                if (bin >= 0 && !(bins[bin].min_depth > zt)) continue;
            }
            offerPoint(p, bins, x, yt, zt);
        }
    }
}

// Any other case (constants the shortcuts cannot reason about, a camera turned past a right
// angle): every pixel tested in turn.
void plainSearch(const Projection& p, const cv::Mat& disp, nerapot* bins) {
    for (int r = 0; r < disp.rows; ++r) {
        const double rb = (r - p.cy) * p.baseline;
        const float* line = disp.ptr<float>(r);
        for (int c = 0; c < disp.cols; ++c) plainPixel(p, bins, rb, (c - p.cx) * p.baseline, line[c]);
    }
}

}  // namespace

// Back-projects every pixel of a disparity image (single-channel 32-bit float, in pixels) and
// keeps, in each one-degree bearing bin, the nearest point inside the search region. Pixels of
// disparity exactly 0 are skipped; the region's bounds are all strict. Bins are only lowered, so
// the caller resets min_depth before a search. Any other matrix type is refused with a message
// and leaves the bins as they were.
void StereoCamera::DispToPointCloud(cv::Mat disparity, nerapot* bins, winpar region) {
    if (bins == nullptr) {
        std::fprintf(stderr, "DispToPointCloud: no bins given\n");
        return;
    }
    if (disparity.empty()) return;
    if (disparity.type() != CV_32FC1) {
        std::fprintf(stderr, "DispToPointCloud: the disparity must be single-channel 32-bit float\n");
        return;
    }
    Projection p;
    p.cx = cx;
    p.cy = cy;
    p.baseline = baseline;
    p.bf = baseline * fx;
    p.angle_min = angle_min;
    p.deg_to_rad = deg_to_rad;
    p.max_depth = region.max_depth;
    p.neg_height = -region.height;
    p.x_low = baseline / 2 - region.half_width;
    p.x_high = baseline / 2 + region.half_width;
    p.tilt = region.tilt;
    p.sin_tilt = std::sin(region.tilt);
    p.cos_tilt = std::cos(region.tilt);

    // The shortcuts reason about signs and monotone quotients: they need a positive, finite depth
    // numerator, finite geometry and, when tilted, a camera turned less than a right angle.
    const bool sane = p.bf > 0.0 && std::isfinite(p.bf) && std::isfinite(p.cx) &&
                      std::isfinite(p.cy) && std::isfinite(p.baseline);
    if (sane && region.tilt == 0.0)
        levelSearch(p, disparity, bins);
    else if (sane && p.cos_tilt > 0.0 && std::isfinite(p.sin_tilt))
        tiltedSearch(p, disparity, bins);
    else
        plainSearch(p, disparity, bins);
}

// Merges neighbouring filled bins (bearing order) into clusters: a bin joins the current cluster
// when its point lies within 0.05 (in x and z) of the previous filled bin's point, so a chain of
// close bins is one cluster however long. A cluster keeps its nearest member's point. last
// receives the index of the last cluster written; with no filled bin it is 0 and cluster 0 keeps
// whatever it held.
void StereoCamera::getNoiseFilter(nerapot* bins, classfic* clusters, int& last) {
    last = 0;
    if (bins == nullptr || clusters == nullptr) {
        std::fprintf(stderr, "getNoiseFilter: no bins or clusters given\n");
        return;
    }
    bool any = false;
    double prev_x = 0.0, prev_z = 0.0;
    for (int b = 0; b < kBinCount; ++b) {
        const nerapot& bin = bins[b];
        if (bin.min_depth == kEmptyDepth) continue;
        if (any && std::hypot(bin.x - prev_x, bin.z - prev_z) <= kClusterGap) {
            classfic& cluster = clusters[last];
            cluster.members += 1;
            if (cluster.z > bin.min_depth) {
                cluster.x = bin.x;
                cluster.y = bin.y;
                cluster.z = bin.z;
            }
        } else {
            if (any) last += 1;
            clusters[last] = classfic{bin.x, bin.y, bin.z, 1};
        }
        any = true;
        prev_x = bin.x;
        prev_z = bin.z;
    }
}

// The nearest point among clusters 0..last of at least four members; the lower index wins a tie.
// Returns (0, 0, largest double) when there is none or last is negative. The clusters array holds
// 360 entries, so a larger last is clamped with a message.
cv::Point3d StereoCamera::getPointMin(classfic* clusters, int last) {
    cv::Point3d best(0.0, 0.0, kEmptyDepth);
    if (last < 0) return best;
    if (clusters == nullptr) {
        std::fprintf(stderr, "getPointMin: no clusters given\n");
        return best;
    }
    if (last >= kBinCount) {
        std::fprintf(stderr, "getPointMin: last cluster %d clamped to %d\n", last, kBinCount - 1);
        last = kBinCount - 1;
    }
    for (int i = 0; i <= last; ++i) {
        const classfic& cluster = clusters[i];
        if (cluster.members >= kMinClusterMembers && cluster.z < best.z)
            best = cv::Point3d(cluster.x, cluster.y, cluster.z);
    }
    return best;
}

// Placeholder kept for applications that call it: touches neither argument and reports success.
bool StereoCamera::getDisprateMat(cv::Mat&, float*) { return true; }
