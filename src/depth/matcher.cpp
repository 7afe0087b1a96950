// orvo::StereoMatcher: checks, the choice of implementation, and the per-pixel decisions after WTA.
#include "orvo/stereo_matcher.hpp"

#include "orvo/error.hpp"

#include <cmath>
#include <limits>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "depth/matcher_internal.h"

namespace orvo {

namespace {

[[noreturn]] void bad(const std::string& what) {
    throw orvo::Error(EINVAL, "orvo::StereoMatcher: " + what);
}

void check_params(const MatcherParams& p) {
    if (p.num_disparities <= 0 || p.num_disparities % 16 != 0 || p.num_disparities > 1024)
        bad("num_disparities must be a positive multiple of 16 up to 1024, not " +
            std::to_string(p.num_disparities));
    if (std::abs(p.min_disparity) > 100000) bad("min_disparity is out of range");
    if (p.p1 < 1 || p.p2 <= p.p1 || p.p2 > 4000)
        bad("penalties must satisfy 1 <= p1 < p2 <= 4000 (p1 " + std::to_string(p.p1) + ", p2 " +
            std::to_string(p.p2) + ")");
    if (p.census_width < 3 || p.census_height < 1 || p.census_width % 2 == 0 ||
        p.census_height % 2 == 0 || p.census_width * p.census_height - 1 > 64)
        bad("the census window must have odd sides, be at least 3 wide and hold at most 65 "
            "pixels (e.g. 9 x 7 or 7 x 5)");
    if (p.paths != 4 && p.paths != 8) bad("paths must be 4 or 8, not " + std::to_string(p.paths));
    if (p.uniqueness_ratio < 0 || p.uniqueness_ratio > 99) bad("uniqueness_ratio must be 0..99");
    if (p.speckle_window < 0 || p.speckle_range < 0)
        bad("speckle_window and speckle_range must not be negative");
    if (p.threads < 0) bad("threads must not be negative (0 means all hardware threads)");
}

// Drops our reference to an output the caller still holds, so that it is never overwritten.
void fresh(cv::Mat& m, int rows, int cols, int type) {
    if (m.u && m.u->refcount > 1) m.release();
    m.create(rows, cols, type);
}

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// dst = src smoothed by [1 2 1] x [1 2 1] / 16 (rounded), the edge replicated. rows: scratch.
void smooth3(const cv::Mat& src, cv::Mat& dst, std::vector<uint16_t>& rows) {
    const int w = src.cols, h = src.rows;
    dst.create(h, w, CV_8U);
    rows.resize(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y) {
        const uint8_t* s = src.ptr<uint8_t>(y);
        uint16_t* o = rows.data() + static_cast<size_t>(y) * w;
        o[0] = static_cast<uint16_t>(3 * s[0] + s[std::min(1, w - 1)]);
        for (int x = 1; x < w - 1; ++x) o[x] = static_cast<uint16_t>(s[x - 1] + 2 * s[x] + s[x + 1]);
        if (w > 1) o[w - 1] = static_cast<uint16_t>(s[w - 2] + 3 * s[w - 1]);
    }
    for (int y = 0; y < h; ++y) {
        const uint16_t* a = rows.data() + static_cast<size_t>(std::max(y - 1, 0)) * w;
        const uint16_t* b = rows.data() + static_cast<size_t>(y) * w;
        const uint16_t* c = rows.data() + static_cast<size_t>(std::min(y + 1, h - 1)) * w;
        uint8_t* o = dst.ptr<uint8_t>(y);
        for (int x = 0; x < w; ++x) o[x] = static_cast<uint8_t>((a[x] + 2 * b[x] + c[x] + 8) >> 4);
    }
}

}  // namespace

struct StereoMatcher::Impl {
    Params params;
    depth::SimdMatcher simd;
    depth::Winners winners;
    std::vector<int> right_cost[2], right_k[2];  // per half of the image: the right view's winners
    cv::Mat disp16, speckle_buf;
    cv::Mat smooth_left, smooth_right;
    std::vector<uint16_t> smooth_rows[2];
    Depth out;

    int threads() const {
        if (params.threads > 0) return params.threads;
        return std::max(1u, std::thread::hardware_concurrency());
    }
    depth::Problem problem(const cv::Mat& left) const {
        depth::Problem pb;
        pb.width = left.cols;
        pb.height = left.rows;
        pb.min_disp = params.min_disparity;
        pb.ndisp = params.num_disparities;
        pb.census_w = params.census_width;
        pb.census_h = params.census_height;
        pb.p1 = params.p1;
        pb.p2 = params.p2;
        pb.paths = params.paths;
        return pb;
    }
    void decide_rows(const depth::Problem& pb, int y0, int y1, int half);
    void run(const cv::Mat& left, const cv::Mat& right);
};

// Turns the winners of rows [y0, y1) into disparities and confidences. A pixel is invalid in the
// band where some candidate's right pixel leaves the image, when a candidate more than one step
// from the winner comes within uniqueness_ratio percent of its cost, or when the right view's own
// winner at x - d (the lowest-cost left pixel mapping there) differs by more than lr_max_diff.
// Subpixel: the vertex of the parabola through S(k-1), S(k), S(k+1). Confidence: 0 invalid, else
// 1 + 254 * (second - best) / second.
void StereoMatcher::Impl::decide_rows(const depth::Problem& pb, int y0, int y1, int half) {
    const int w = pb.width, xlo = pb.first_valid_x(), xhi = pb.last_valid_x();
    const int keep = 100 - params.uniqueness_ratio, lr = params.lr_max_diff;
    std::vector<int>& rc = right_cost[half];
    std::vector<int>& rk = right_k[half];  // also: -2 marks a left pixel refused as not unique
    rc.resize(w);
    rk.resize(2 * static_cast<size_t>(w));
    int* passed = rk.data() + w;
    for (int y = y0; y < y1; ++y) {
        const uint16_t* best = winners.best.ptr<uint16_t>(y);
        const uint16_t* cost = winners.cost.ptr<uint16_t>(y);
        const uint16_t* second = winners.second.ptr<uint16_t>(y);
        const uint16_t* below = winners.below.ptr<uint16_t>(y);
        const uint16_t* above = winners.above.ptr<uint16_t>(y);
        float* disp = out.disparity.ptr<float>(y);
        uint8_t* conf = out.confidence.ptr<uint8_t>(y);
        std::fill(rc.begin(), rc.end(), std::numeric_limits<int>::max());
        std::fill(rk.begin(), rk.begin() + w, -1);
        std::fill(disp, disp + w, kNaN);
        std::fill(conf, conf + w, 0);
        for (int x = xlo; x <= xhi; ++x) {
            passed[x] = second[x] * keep >= cost[x] * 100;
            if (!passed[x]) continue;
            const int xr = x - pb.min_disp - best[x];
            if (cost[x] < rc[xr]) {
                rc[xr] = cost[x];
                rk[xr] = best[x];
            }
        }
        for (int x = xlo; x <= xhi; ++x) {
            if (!passed[x]) continue;
            const int k = best[x];
            const int xr = x - pb.min_disp - k;
            if (lr >= 0 && rk[xr] >= 0 && std::abs(rk[xr] - k) > lr) continue;
            float d = static_cast<float>(pb.min_disp + k);
            if (params.subpixel && k > 0 && k < pb.ndisp - 1) {
                const int denom = below[x] + above[x] - 2 * cost[x];
                if (denom > 0) d += static_cast<float>(below[x] - above[x]) / (2.0f * denom);
            }
            disp[x] = d;
            conf[x] = static_cast<uint8_t>(
                second[x] == 0 ? 1 : 1 + static_cast<int>(254.0f * (second[x] - cost[x]) / second[x]));
        }
    }
}

void StereoMatcher::Impl::run(const cv::Mat& left, const cv::Mat& right) {
    if (left.empty() || right.empty()) bad("an input image is empty");
    if (left.type() != CV_8UC1 || right.type() != CV_8UC1)
        bad("the images must be 8-bit single-channel (CV_8UC1), rectified");
    if (left.size() != right.size()) bad("the left and right images differ in size");
    const depth::Problem pb = problem(left);
    if (pb.first_valid_x() > pb.last_valid_x())
        bad("the images (" + std::to_string(left.cols) +
            " px wide) are narrower than the disparity range (min_disparity " +
            std::to_string(params.min_disparity) + ", num_disparities " +
            std::to_string(params.num_disparities) + ")");

    const cv::Mat* l = &left;
    const cv::Mat* r = &right;
    if (params.prefilter) {
        struct Job {
            Impl* self;
            const cv::Mat *left, *right;
        } job{this, &left, &right};
        simd.run_pair(
            threads(),
            [](void* j) {
                auto* x = static_cast<Job*>(j);
                smooth3(*x->left, x->self->smooth_left, x->self->smooth_rows[0]);
            },
            [](void* j) {
                auto* x = static_cast<Job*>(j);
                smooth3(*x->right, x->self->smooth_right, x->self->smooth_rows[1]);
            },
            &job);
        l = &smooth_left;
        r = &smooth_right;
    }
    if (params.scalar_reference)
        depth::match_reference(*l, *r, pb, winners);
    else
        simd.match(*l, *r, pb, threads(), winners);

    fresh(out.disparity, pb.height, pb.width, CV_32F);
    fresh(out.confidence, pb.height, pb.width, CV_8U);
    struct Ctx {
        Impl* self;
        const depth::Problem* pb;
    } ctx{this, &pb};
    simd.run_pair(
        threads(),
        [](void* c) {
            auto* x = static_cast<Ctx*>(c);
            x->self->decide_rows(*x->pb, 0, x->pb->height / 2, 0);
        },
        [](void* c) {
            auto* x = static_cast<Ctx*>(c);
            x->self->decide_rows(*x->pb, x->pb->height / 2, x->pb->height, 1);
        },
        &ctx);

    if (params.speckle_window > 0) {
        // filterSpeckles works on fixed point: 1/16 px, with a marker below every disparity.
        const int16_t invalid = static_cast<int16_t>((pb.min_disp - 1) * 16);
        disp16.create(pb.height, pb.width, CV_16S);
        for (int y = 0; y < pb.height; ++y) {
            const float* d = out.disparity.ptr<float>(y);
            int16_t* o = disp16.ptr<int16_t>(y);
            for (int x = 0; x < pb.width; ++x)
                o[x] = std::isnan(d[x]) ? invalid : static_cast<int16_t>(cvRound(d[x] * 16));
        }
        cv::filterSpeckles(disp16, invalid, params.speckle_window, params.speckle_range * 16,
                           speckle_buf);
        for (int y = 0; y < pb.height; ++y) {
            const int16_t* o = disp16.ptr<int16_t>(y);
            float* d = out.disparity.ptr<float>(y);
            uint8_t* c = out.confidence.ptr<uint8_t>(y);
            for (int x = 0; x < pb.width; ++x)
                if (o[x] == invalid) {
                    d[x] = kNaN;
                    c[x] = 0;
                }
        }
    }
}

StereoMatcher::StereoMatcher() : StereoMatcher(Params()) {}

StereoMatcher::StereoMatcher(const Params& params) : impl_(std::make_unique<Impl>()) {
    set_params(params);
}

StereoMatcher::~StereoMatcher() = default;
StereoMatcher::StereoMatcher(StereoMatcher&&) noexcept = default;
StereoMatcher& StereoMatcher::operator=(StereoMatcher&&) noexcept = default;

const StereoMatcher::Params& StereoMatcher::params() const { return impl_->params; }

// Throws std::invalid_argument, saying which value is wrong, for parameters out of range.
void StereoMatcher::set_params(const Params& params) {
    check_params(params);
    impl_->params = params;
}

// Disparity of the left view (CV_32F, NaN where no valid match) and its confidence. Throws
// std::invalid_argument for empty, non-CV_8UC1 or differently sized images, or images narrower
// than the disparity range. The returned matrices are the caller's: a later call never touches
// them while they are held.
Depth StereoMatcher::compute(const cv::Mat& left, const cv::Mat& right) {
    impl_->out.depth.release();
    impl_->out.points.release();
    impl_->run(left, right);
    return impl_->out;
}

// As above, plus metric depth and the organized point cloud from the rectified geometry.
Depth StereoMatcher::compute(const cv::Mat& left, const cv::Mat& right,
                             const StereoGeometry& geometry) {
    if (!(geometry.fx > 0) || !(geometry.fy > 0) || !(geometry.baseline > 0) ||
        !std::isfinite(geometry.cx) || !std::isfinite(geometry.cy))
        bad("the geometry needs positive fx, fy and baseline and a finite principal point");
    impl_->run(left, right);
    fresh(impl_->out.depth, left.rows, left.cols, CV_32F);
    fresh(impl_->out.points, left.rows, left.cols, CV_32FC3);
    disparity_to_depth(impl_->out.disparity, geometry, impl_->out.depth, impl_->out.points);
    return impl_->out;
}

}  // namespace orvo
