// What the matcher's stages share: the problem description, the winner-take-all record, kernels.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace orvo {
namespace depth {

// One matching problem: image size and the algorithm's constants (validated by the matcher).
struct Problem {
    int width = 0;
    int height = 0;
    int min_disp = 0;
    int ndisp = 0;     // candidates k = 0..ndisp-1 stand for disparity min_disp + k
    int census_w = 0;
    int census_h = 0;
    int p1 = 0;
    int p2 = 0;
    int paths = 4;

    int census_bits() const { return census_w * census_h - 1; }
    int census_bytes() const { return (census_bits() + 7) / 8; }
    // Cost of a candidate whose right pixel falls outside the image: neither good nor bad.
    int outside_cost() const { return census_bits() / 2; }
    // Columns where every candidate has its right pixel inside the image.
    int first_valid_x() const { return std::max(0, min_disp + ndisp - 1); }
    int last_valid_x() const { return std::min(width - 1, width - 1 + min_disp); }
};

// Per pixel, what the winner-take-all over the aggregated costs S(k) found (all CV_16U, H x W):
// best k (lowest k on ties), S(best), the lowest S(k) with |k - best| > 1, S(best - 1), S(best + 1)
// (0 where that neighbour does not exist).
struct Winners {
    cv::Mat best, cost, second, below, above;
    void create(int height, int width);
};

// The plain scalar implementation: the definition every vector kernel must match.
void match_reference(const cv::Mat& left, const cv::Mat& right, const Problem& pb, Winners& out);

// Census code bit order: window offsets in raster order (dy outer, dx inner), the centre skipped;
// a bit is set where the neighbour is darker than the centre. Bit i lives in byte i / 8.

// The vectorised implementation, with its buffers kept between frames.
class SimdMatcher {
public:
    SimdMatcher();
    ~SimdMatcher();
    SimdMatcher(const SimdMatcher&) = delete;
    SimdMatcher& operator=(const SimdMatcher&) = delete;

    // threads: 1 runs both aggregation passes on the calling thread, 2 or more also uses a worker.
    void match(const cv::Mat& left, const cv::Mat& right, const Problem& pb, int threads,
               Winners& out);
    // Runs a(), and b() on the worker thread when threads > 1, and returns when both are done.
    void run_pair(int threads, void (*a)(void*), void (*b)(void*), void* ctx);

    struct Impl;

private:
    Impl* impl_;
};

}  // namespace depth
}  // namespace orvo
