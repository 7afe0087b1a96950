// What the vector kernels and the code that runs them share: jobs, per-pass state, entry points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "depth/matcher_internal.h"

namespace orvo {
namespace depth {

// One aggregation block per pixel: guard lanes around the ndisp data lanes, so that the kernel
// reads L(k-1) and L(k+1) with plain unaligned loads.
constexpr int kGuardLanes = 8;
constexpr uint16_t kGuard = 0xFFFF;

struct CensusJob {
    const cv::Mat* padded;  // the image with its edge replicated around it
    int width, height, win_w, win_h;
    bool mirrored;          // the image is flipped left-right: negate the window's dx
    uint8_t* planes;        // byte b of the code of (x, y) at planes[b * plane_size + y * stride + x]
    size_t plane_size, stride;
};

// Everything one aggregation pass keeps from row to row.
struct PassState {
    int dir = 1;  // +1: rows top to bottom, x left to right; -1: the opposite
    bool has_prev = false;
    int cur = 0;
    std::vector<uint16_t> rows[3][2];     // straight, from x-1, from x+1: previous and current row
    std::vector<uint16_t> mins[3][2];
    std::vector<uint16_t> horiz[8];       // up to four horizontal chains: their last two pixels
    std::vector<uint16_t> zero;           // the predecessor of a pixel that starts a path
    std::vector<uint16_t> total;          // one pixel's summed costs
    // A first-visit row's costs and sums stay here (in cache) until its horizontal paths are
    // done, then go to the volumes with streaming stores; two rows are handled at a time.
    std::vector<uint8_t> cost_rows[2];
    std::vector<uint16_t> sum_rows[2];
};

struct PassArgs {
    const Problem* pb;
    const uint8_t* left_planes;   // census byte planes of the left image
    const uint8_t* right_planes;  // of the flipped right image, shifted by right_offset columns
    size_t plane_size, stride, right_offset;
    uint16_t* sums;               // height x width x ndisp: the first pass over a row leaves its sum
    uint8_t* costs;               // height x width x ndisp: the first pass over a row leaves its costs
    Winners* out;
};

// The vector kernels, each dispatched to the best target this CPU has.
void census_rows(const CensusJob& job, int y0, int y1);
// One row of a pass: a first visit (slot 0 or 1: the scratch rows it fills) or a second one.
void pass_row(const PassArgs& a, PassState& st, int y, bool second, int slot);
// Horizontal paths of first-visit rows y0 (slot 0) and y1 (slot 1, unless negative).
void horizontal_rows(const PassArgs& a, PassState& st, int y0, int y1);

}  // namespace depth
}  // namespace orvo
