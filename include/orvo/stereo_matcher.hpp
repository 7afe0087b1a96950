// orvo::StereoMatcher: real-time semi-global matching on rectified pairs, with metric depth.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "orvo/export.hpp"
#include "orvo/geometry.hpp"

namespace orvo {

struct MatcherParams {
    int min_disparity = 0;
    int num_disparities = 64;  // a positive multiple of 16
    int p1 = 30;               // penalty for a disparity change of one pixel
    int p2 = 250;              // penalty for larger changes; p1 < p2 <= 4000
    bool prefilter = true;     // 3 x 3 binomial smoothing before the census (sensor noise)
    int census_width = 7;      // odd; census_width * census_height - 1 <= 64
    int census_height = 5;
    int paths = 4;             // 4 or 8 aggregation directions
    int uniqueness_ratio = 5;  // percent; 0 disables
    int lr_max_diff = 1;       // pixels; negative disables the left-right check
    bool subpixel = true;
    int speckle_window = 100;  // pixels; 0 disables the speckle filter
    int speckle_range = 2;     // pixels
    int threads = 0;           // 0: all hardware threads (the matcher uses at most two)
    bool scalar_reference = false;  // the plain scalar implementation (slow; the reference)
};

struct Depth {
    cv::Mat disparity;   // CV_32F, pixels, NaN where there is no valid match
    cv::Mat depth;       // CV_32F, metres, NaN where invalid (only with a geometry)
    cv::Mat confidence;  // CV_8U, 0 where invalid, 1..255 with the margin to the runner-up
    cv::Mat points;      // CV_32FC3, organized, camera frame (x right, y down, z forward), metres
};

// One matcher serves one thread at a time; its buffers are kept between frames of one size.
class ORVO_API StereoMatcher {
public:
    using Params = MatcherParams;

    StereoMatcher();
    explicit StereoMatcher(const Params& params);
    ~StereoMatcher();
    StereoMatcher(StereoMatcher&&) noexcept;
    StereoMatcher& operator=(StereoMatcher&&) noexcept;
    StereoMatcher(const StereoMatcher&) = delete;
    StereoMatcher& operator=(const StereoMatcher&) = delete;

    const Params& params() const;
    void set_params(const Params& params);

    Depth compute(const cv::Mat& left, const cv::Mat& right);
    Depth compute(const cv::Mat& left, const cv::Mat& right, const StereoGeometry& geometry);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Metric depth and an organized point cloud from a disparity map (NaN stays NaN).
ORVO_API void disparity_to_depth(const cv::Mat& disparity, const StereoGeometry& geometry,
                                 cv::Mat& depth, cv::Mat& points);

}  // namespace orvo
