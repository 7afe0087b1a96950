// The scalar semi-global matcher: plain loops over whole volumes, the reference for the vector path.
#include <cstdint>
#include <vector>

#include "depth/matcher_internal.h"

namespace orvo {
namespace depth {

void Winners::create(int height, int width) {
    for (cv::Mat* m : {&best, &cost, &second, &below, &above}) m->create(height, width, CV_16U);
}

namespace {

// Census codes with the image edge replicated.
std::vector<uint64_t> census(const cv::Mat& img, int win_w, int win_h) {
    const int w = img.cols, h = img.rows, hw = win_w / 2, hh = win_h / 2;
    std::vector<uint64_t> codes(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const uint8_t centre = img.at<uint8_t>(y, x);
            uint64_t code = 0;
            int bit = 0;
            for (int dy = -hh; dy <= hh; ++dy) {
                for (int dx = -hw; dx <= hw; ++dx) {
                    if (dy == 0 && dx == 0) continue;
                    const int yy = std::clamp(y + dy, 0, h - 1), xx = std::clamp(x + dx, 0, w - 1);
                    if (img.at<uint8_t>(yy, xx) < centre) code |= uint64_t{1} << bit;
                    ++bit;
                }
            }
            codes[static_cast<size_t>(y) * w + x] = code;
        }
    }
    return codes;
}

}  // namespace

// Costs C(x, y, k) from the Hamming distance of census codes; each path r accumulates
// L(p, k) = C(p, k) + min(L(p-r, k), L(p-r, k±1) + P1, min_j L(p-r, j) + P2) - min_j L(p-r, j),
// with L = C where p-r leaves the image; S is the sum over the paths.
void match_reference(const cv::Mat& left, const cv::Mat& right, const Problem& pb, Winners& out) {
    const int w = pb.width, h = pb.height, nd = pb.ndisp;
    const auto cl = census(left, pb.census_w, pb.census_h);
    const auto cr = census(right, pb.census_w, pb.census_h);
    auto at = [&](int y, int x) { return (static_cast<size_t>(y) * w + x) * nd; };

    std::vector<uint8_t> cost(static_cast<size_t>(w) * h * nd);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < nd; ++k) {
                const int xr = x - pb.min_disp - k;
                cost[at(y, x) + k] =
                    (xr >= 0 && xr < w) ? static_cast<uint8_t>(__builtin_popcountll(
                                              cl[static_cast<size_t>(y) * w + x] ^
                                              cr[static_cast<size_t>(y) * w + xr]))
                                        : static_cast<uint8_t>(pb.outside_cost());
            }

    static const int dirs8[8][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1},
                                    {1, 1}, {-1, 1}, {1, -1}, {-1, -1}};
    std::vector<uint32_t> sum(cost.size(), 0);
    std::vector<int> lv(cost.size());
    for (int r = 0; r < pb.paths; ++r) {
        const int dx = dirs8[r][0], dy = dirs8[r][1];
        for (int i = 0; i < h; ++i) {
            const int y = dy >= 0 ? i : h - 1 - i;
            for (int j = 0; j < w; ++j) {
                const int x = dx >= 0 ? j : w - 1 - j;
                const int px = x - dx, py = y - dy;
                const size_t p = at(y, x);
                if (px < 0 || px >= w || py < 0 || py >= h) {
                    for (int k = 0; k < nd; ++k) lv[p + k] = cost[p + k];
                } else {
                    const size_t q = at(py, px);
                    int m = lv[q];
                    for (int k = 1; k < nd; ++k) m = std::min(m, lv[q + k]);
                    for (int k = 0; k < nd; ++k) {
                        int best = std::min(lv[q + k], m + pb.p2);
                        if (k > 0) best = std::min(best, lv[q + k - 1] + pb.p1);
                        if (k < nd - 1) best = std::min(best, lv[q + k + 1] + pb.p1);
                        lv[p + k] = cost[p + k] + best - m;
                    }
                }
                for (int k = 0; k < nd; ++k) sum[p + k] += static_cast<uint32_t>(lv[p + k]);
            }
        }
    }

    out.create(h, w);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint32_t* s = &sum[at(y, x)];
            int best = 0;
            for (int k = 1; k < nd; ++k)
                if (s[k] < s[best]) best = k;
            uint32_t second = 0xFFFF;
            for (int k = 0; k < nd; ++k)
                if (std::abs(k - best) > 1) second = std::min(second, s[k]);
            out.best.at<uint16_t>(y, x) = static_cast<uint16_t>(best);
            out.cost.at<uint16_t>(y, x) = static_cast<uint16_t>(s[best]);
            out.second.at<uint16_t>(y, x) = static_cast<uint16_t>(second);
            out.below.at<uint16_t>(y, x) = static_cast<uint16_t>(best > 0 ? s[best - 1] : 0);
            out.above.at<uint16_t>(y, x) = static_cast<uint16_t>(best < nd - 1 ? s[best + 1] : 0);
        }
}

}  // namespace depth
}  // namespace orvo
