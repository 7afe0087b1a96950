// Ranges of disparity over which a monotone test holds, found on float bit patterns: the
// arithmetic that lets the nearest-point search decide whole runs of pixels with two comparisons.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

namespace orvo {
namespace classic {

// Positive floats (and +inf) keep their order when their bits are read as a signed 32-bit integer;
// zeros, negatives and NaNs fall outside [kSmallestPositive, kInfinityBits].
constexpr int32_t kSmallestPositive = 1;
constexpr int32_t kInfinityBits = 0x7F800000;

inline int32_t floatBits(float f) {
    int32_t b;
    std::memcpy(&b, &f, sizeof b);
    return b;
}

inline float bitsFloat(int32_t b) {
    float f;
    std::memcpy(&f, &b, sizeof f);
    return f;
}

// Inclusive range of positive-float bit patterns; empty when lo > hi.
struct BitRange {
    int32_t lo = kSmallestPositive;
    int32_t hi = kInfinityBits;
    bool empty() const { return lo > hi; }
    void intersect(const BitRange& o) {
        lo = std::max(lo, o.lo);
        hi = std::min(hi, o.hi);
    }
};

// The disparities d > 0 for which pred(d) holds, where pred is monotone in d (one switch at
// most). A quotient fl(a / d) never decreases or never increases as d grows, so every test of
// the form fl(a / d) <op> constant is such a predicate. guess is a disparity near the switch;
// the search gallops out from it, so a good guess costs a handful of evaluations.
template <typename Pred>
BitRange solveMonotone(Pred pred, float guess) {
    const bool at_lo = pred(bitsFloat(kSmallestPositive));
    const bool at_hi = pred(bitsFloat(kInfinityBits));
    BitRange r;
    if (at_lo == at_hi) {
        if (!at_lo) r.lo = kInfinityBits + 1;
        return r;
    }
    // Find the first bit pattern b with pred(b) != at_lo inside (lo, hi].
    int64_t lo = kSmallestPositive, hi = kInfinityBits;
    int64_t g = floatBits(guess);
    if (!(guess > 0.0f) || g > kInfinityBits) g = (lo + hi) / 2;
    if (pred(bitsFloat(int32_t(g))) == at_lo) {
        lo = g;
        for (int64_t step = 1; lo + step < hi; step *= 2) {
            if (pred(bitsFloat(int32_t(lo + step))) != at_lo) {
                hi = lo + step;
                break;
            }
            lo += step;
        }
    } else {
        hi = g;
        for (int64_t step = 1; hi - step > lo; step *= 2) {
            if (pred(bitsFloat(int32_t(hi - step))) == at_lo) {
                lo = hi - step;
                break;
            }
            hi -= step;
        }
    }
    while (hi - lo > 1) {
        const int64_t mid = lo + (hi - lo) / 2;
        if (pred(bitsFloat(int32_t(mid))) == at_lo)
            lo = mid;
        else
            hi = mid;
    }
    if (at_lo)
        r.hi = int32_t(lo);
    else
        r.lo = int32_t(hi);
    return r;
}

inline float guessDisparity(double numerator, double bound) {
    const double g = std::fabs(numerator / bound);
    return (std::isfinite(g) && g < 3e38) ? float(g) : 1.0f;
}

}  // namespace classic
}  // namespace orvo
