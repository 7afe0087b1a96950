// The matcher's vector kernels (Highway): census, costs, path aggregation and WTA, compiled for
// several targets, the best chosen at run time.
// Also compile for AVX-512 with VNNI/BITALG (one-instruction byte popcount), chosen at run time.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "depth/matcher_simd.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/cache_control.h>
#include <hwy/aligned_allocator.h>
#include <hwy/highway.h>

#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "depth/matcher_kernels.h"

HWY_BEFORE_NAMESPACE();
namespace orvo {
namespace depth {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void CensusRows(const CensusJob& job, int y0, int y1) {
    const hn::ScalableTag<uint8_t> d8;
    const int n = static_cast<int>(hn::Lanes(d8));
    const int hw = job.win_w / 2, hh = job.win_h / 2, bits = job.win_w * job.win_h - 1;
    for (int y = y0; y < y1; ++y) {
        for (int x = 0; x < job.width; x += n) {
            const auto centre = hn::LoadU(d8, job.padded->ptr<uint8_t>(y + hh) + hw + x);
            int i = 0;
            for (int b = 0; i < bits; ++b) {
                auto acc = hn::Zero(d8);
                for (int bit = 0; bit < 8 && i < bits; ++bit, ++i) {
                    int off = i < (bits / 2) ? i : i + 1;  // skip the centre
                    const int dy = off / job.win_w - hh;
                    const int dx = (off % job.win_w - hw) * (job.mirrored ? -1 : 1);
                    const auto nb = hn::LoadU(d8, job.padded->ptr<uint8_t>(y + hh + dy) + hw + x + dx);
                    acc = hn::Or(acc, hn::IfThenElseZero(hn::Lt(nb, centre),
                                                         hn::Set(d8, static_cast<uint8_t>(1u << bit))));
                }
                hn::StoreU(acc, d8, job.planes + b * job.plane_size + y * job.stride + x);
            }
        }
    }
}

// C(x, k) for one row: popcount of the XOR of the codes, byte plane by byte plane (nibble table).
// The flipped right row puts the candidates k of pixel x side by side, at column
// width-1-x+min_disp+k.
template <class D8>
void CostRow(D8 d8, const PassArgs& a, int y, uint8_t* cost) {
    const Problem& pb = *a.pb;
    const int w = pb.width, nd = pb.ndisp, nb = pb.census_bytes();
    const int n = static_cast<int>(hn::Lanes(d8));
    alignas(16) static constexpr uint8_t kBits[16] = {0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4};
    const auto table = hn::LoadDup128(d8, kBits);
    const auto low = hn::Set(d8, uint8_t{0x0F});
    const uint8_t* lrow = a.left_planes + y * a.stride;
    const uint8_t* rrow = a.right_planes + y * a.stride + a.right_offset;
    for (int x = 0; x < w; ++x) {
        const uint8_t* r = rrow + (w - 1 - x + pb.min_disp);
        for (int k = 0; k < nd; k += n) {
            auto acc = hn::Zero(d8);
            for (int b = 0; b < nb; ++b) {
                const auto l = hn::Set(d8, lrow[b * a.plane_size + x]);
                const auto v = hn::Xor(l, hn::LoadU(d8, r + b * a.plane_size + k));
#if HWY_TARGET == HWY_AVX3_DL
                (void)table;
                (void)low;
                acc = hn::Add(acc, hn::PopulationCount(v));
#else
                acc = hn::Add(acc, hn::Add(hn::TableLookupBytes(table, hn::And(v, low)),
                                           hn::TableLookupBytes(table, hn::ShiftRight<4>(v))));
#endif
            }
            hn::StoreU(acc, d8, cost + x * nd + k);
        }
    }
    // Candidates whose right pixel leaves the image.
    const int xlo = pb.first_valid_x(), xhi = pb.last_valid_x();
    for (int x = 0; x < w; ++x) {
        if (x >= xlo && x <= xhi) {
            x = xhi;
            continue;
        }
        for (int k = 0; k < nd; ++k) {
            const int xr = x - pb.min_disp - k;
            if (xr < 0 || xr >= w) cost[x * nd + k] = static_cast<uint8_t>(pb.outside_cost());
        }
    }
}

// The lowest lane: halves folded down to 128 bits, where x86 has one instruction for the rest.
template <class D>
HWY_INLINE uint16_t MinLane(D d, hn::Vec<D> v) {
#if HWY_TARGET != HWY_SCALAR
    if constexpr (hn::MaxLanes(D()) > 8) {
        const hn::Half<D> dh;
        return MinLane(dh, hn::Min(hn::LowerHalf(dh, v), hn::UpperHalf(dh, v)));
    }
#endif
    return hn::GetLane(hn::MinOfLanes(d, v));
}

// One path step for a chunk of candidates: L = C + min(P, min(P(k-1), P(k+1)) + P1, m + P2) - m.
template <class D>
HWY_INLINE hn::Vec<D> Step(D d, hn::Vec<D> c, const uint16_t* pred, hn::Vec<D> m, hn::Vec<D> p1,
                           hn::Vec<D> mp2) {
    const auto same = hn::LoadU(d, pred);
    const auto near = hn::SaturatedAdd(hn::Min(hn::LoadU(d, pred - 1), hn::LoadU(d, pred + 1)), p1);
    return hn::Add(c, hn::Sub(hn::Min(hn::Min(same, near), mp2), m));
}

// The horizontal paths of one or two rows, added into their sums: the left-to-right and
// right-to-left chains of each row are independent, so one loop runs up to four side by side.
template <class D, int kRows>
void HorizontalPathsT(D d, const Problem& pb, PassState& st, const uint8_t* const* costs,
                      uint16_t* const* sums) {
    constexpr int kChains = 2 * kRows;
    const int w = pb.width, nd = pb.ndisp;
    const int n = static_cast<int>(hn::Lanes(d));
    const hn::Rebind<uint8_t, D> d8h;
    const auto p1 = hn::Set(d, static_cast<uint16_t>(pb.p1));
    const auto p2 = hn::Set(d, static_cast<uint16_t>(pb.p2));
    const auto inf = hn::Set(d, kGuard);
    const uint16_t* pred[kChains];
    uint16_t mins[kChains];
    for (int c = 0; c < kChains; ++c) {
        pred[c] = st.zero.data() + kGuardLanes;
        mins[c] = 0;
    }
    for (int i = 0; i < w; ++i) {
        uint16_t* out[kChains];
        int xs[kChains];
        for (int c = 0; c < kChains; ++c) {
            out[c] = st.horiz[2 * c + (i & 1)].data() + kGuardLanes;
            xs[c] = (c & 1) ? w - 1 - i : i;  // even chains run left to right, odd ones back
        }
        // Written out for up to four chains so that their vectors stay in registers.
        auto lo0 = inf, lo1 = inf, lo2 = inf, lo3 = inf;
        const auto m0 = hn::Set(d, mins[0]), m1 = hn::Set(d, mins[1]);
        const auto m2 = hn::Set(d, mins[kRows == 2 ? 2 : 0]), m3 = hn::Set(d, mins[kRows == 2 ? 3 : 1]);
        const auto m0p = hn::Add(m0, p2), m1p = hn::Add(m1, p2), m2p = hn::Add(m2, p2), m3p = hn::Add(m3, p2);
        for (int k = 0; k < nd; k += n) {
            {
                const uint8_t* cr = costs[0];
                uint16_t* sr = sums[0];
                const auto l0 = Step(d, hn::PromoteTo(d, hn::LoadU(d8h, cr + xs[0] * nd + k)), pred[0] + k, m0, p1, m0p);
                const auto l1 = Step(d, hn::PromoteTo(d, hn::LoadU(d8h, cr + xs[1] * nd + k)), pred[1] + k, m1, p1, m1p);
                hn::StoreU(l0, d, out[0] + k);
                hn::StoreU(l1, d, out[1] + k);
                lo0 = hn::Min(lo0, l0);
                lo1 = hn::Min(lo1, l1);
                hn::StoreU(hn::Add(l0, hn::LoadU(d, sr + xs[0] * nd + k)), d, sr + xs[0] * nd + k);
                hn::StoreU(hn::Add(l1, hn::LoadU(d, sr + xs[1] * nd + k)), d, sr + xs[1] * nd + k);
            }
            if (kRows == 2) {
                const uint8_t* cr = costs[kRows - 1];
                uint16_t* sr = sums[kRows - 1];
                const int c2 = kRows == 2 ? 2 : 0, c3 = kRows == 2 ? 3 : 1;
                const auto l2 = Step(d, hn::PromoteTo(d, hn::LoadU(d8h, cr + xs[c2] * nd + k)), pred[c2] + k, m2, p1, m2p);
                const auto l3 = Step(d, hn::PromoteTo(d, hn::LoadU(d8h, cr + xs[c3] * nd + k)), pred[c3] + k, m3, p1, m3p);
                hn::StoreU(l2, d, out[c2] + k);
                hn::StoreU(l3, d, out[c3] + k);
                lo2 = hn::Min(lo2, l2);
                lo3 = hn::Min(lo3, l3);
                hn::StoreU(hn::Add(l2, hn::LoadU(d, sr + xs[c2] * nd + k)), d, sr + xs[c2] * nd + k);
                hn::StoreU(hn::Add(l3, hn::LoadU(d, sr + xs[c3] * nd + k)), d, sr + xs[c3] * nd + k);
            }
        }
        mins[0] = MinLane(d, lo0);
        mins[1] = MinLane(d, lo1);
        if (kRows == 2) {
            mins[kRows == 2 ? 2 : 0] = MinLane(d, lo2);
            mins[kRows == 2 ? 3 : 1] = MinLane(d, lo3);
        }
        for (int c = 0; c < kChains; ++c) pred[c] = out[c];
    }
}

// Row pointers of the winners' record.
struct WinnerRow {
    uint16_t *best, *cost, *second, *below, *above;
};

// Winner: the lowest k of the lowest sum; runner-up: the lowest sum more than one candidate away.
// lowest/first: per lane, the lowest sum over the chunks and the first k that had it.
template <class D>
HWY_INLINE void Winner(D d, int nd, const uint16_t* total, hn::Vec<D> lowest, hn::Vec<D> first,
                       const WinnerRow& out, int x) {
    const int n = static_cast<int>(hn::Lanes(d));
    const auto inf = hn::Set(d, kGuard);
    const uint16_t best_cost = MinLane(d, lowest);
    const int best = MinLane(d, hn::IfThenElse(hn::Eq(lowest, hn::Set(d, best_cost)), first, inf));
    const auto from = hn::Set(d, static_cast<uint16_t>(best - 1));
    const auto three = hn::Set(d, uint16_t{3});
    auto second_min = inf;
    for (int k = 0; k < nd; k += n) {
        const auto close = hn::Lt(hn::Sub(hn::Iota(d, static_cast<uint16_t>(k)), from), three);
        second_min = hn::Min(second_min, hn::IfThenElse(close, inf, hn::LoadU(d, total + k)));
    }
    out.best[x] = static_cast<uint16_t>(best);
    out.cost[x] = best_cost;
    out.second[x] = MinLane(d, second_min);
    out.below[x] = best > 0 ? total[best - 1] : 0;
    out.above[x] = best < nd - 1 ? total[best + 1] : 0;
}

// One row of a pass. The first visitor of a row computes its costs, its vertical paths and both
// horizontal paths and leaves the sum; the second adds its vertical paths and picks the winners.
template <class D, bool kEight, bool kSecond>
void PassRowT(D d, const PassArgs& a, PassState& st, int y, int slot) {
    constexpr bool second = kSecond;
    const Problem& pb = *a.pb;
    const int w = pb.width, nd = pb.ndisp, ls = nd + 2 * kGuardLanes;
    const int n = static_cast<int>(hn::Lanes(d));
    const hn::Rebind<uint8_t, D> d8h;
    uint8_t* costs = second ? a.costs + static_cast<size_t>(y) * w * nd : st.cost_rows[slot].data();
    if (!second) {
        if (nd % hn::Lanes(hn::ScalableTag<uint8_t>()) == 0)
            CostRow(hn::ScalableTag<uint8_t>(), a, y, costs);
        else
            CostRow(hn::CappedTag<uint8_t, 16>(), a, y, costs);
    }

    const int cur = st.cur, prev = 1 - cur;
    const uint16_t* zero = st.zero.data() + kGuardLanes;
    const auto p1 = hn::Set(d, static_cast<uint16_t>(pb.p1));
    const auto p2 = hn::Set(d, static_cast<uint16_t>(pb.p2));
    const auto inf = hn::Set(d, kGuard);
    uint16_t* srow = second ? a.sums + static_cast<size_t>(y) * w * nd : st.sum_rows[slot].data();
    uint16_t* total = st.total.data();
    Winners& wn = *a.out;
    const WinnerRow out{wn.best.ptr<uint16_t>(y), wn.cost.ptr<uint16_t>(y), wn.second.ptr<uint16_t>(y),
                        wn.below.ptr<uint16_t>(y), wn.above.ptr<uint16_t>(y)};

    for (int x = 0; x < w; ++x) {
        // Predecessors in the previous row: straight, from x-1 and from x+1.
        const uint16_t* pv[3];
        uint16_t pm[3];
        for (int p = 0; p < (kEight ? 3 : 1); ++p) {
            const int px = x + (p == 1 ? -1 : p == 2 ? 1 : 0);
            if (st.has_prev && px >= 0 && px < w) {
                pv[p] = st.rows[p][prev].data() + px * ls + kGuardLanes;
                pm[p] = st.mins[p][prev][px];
            } else {
                pv[p] = zero;
                pm[p] = 0;
            }
        }
        uint16_t* vout0 = st.rows[0][cur].data() + x * ls + kGuardLanes;
        uint16_t* vout1 = kEight ? st.rows[1][cur].data() + x * ls + kGuardLanes : nullptr;
        uint16_t* vout2 = kEight ? st.rows[2][cur].data() + x * ls + kGuardLanes : nullptr;
        const uint8_t* cost = costs + x * nd;
        uint16_t* sp = srow + x * nd;
        if (second) {  // the other pass wrote these long ago: fetch a few pixels ahead
            hwy::Prefetch(sp + 6 * nd);
            hwy::Prefetch(sp + 6 * nd + 32);
            hwy::Prefetch(cost + 6 * nd);
        }

        const auto mv0 = hn::Set(d, pm[0]);
        const auto mv02 = hn::Add(mv0, p2);
        auto minv0 = inf, minv1 = inf, minv2 = inf, mintot = inf, firstk = inf;
        for (int k = 0; k < nd; k += n) {
            const auto c = hn::PromoteTo(d, hn::LoadU(d8h, cost + k));
            const auto lv0 = Step(d, c, pv[0] + k, mv0, p1, mv02);
            hn::StoreU(lv0, d, vout0 + k);
            minv0 = hn::Min(minv0, lv0);
            auto sum = lv0;
            if (kEight) {
                const auto mv1 = hn::Set(d, pm[1]), mv2 = hn::Set(d, pm[2]);
                const auto lv1 = Step(d, c, pv[1] + k, mv1, p1, hn::Add(mv1, p2));
                const auto lv2 = Step(d, c, pv[2] + k, mv2, p1, hn::Add(mv2, p2));
                hn::StoreU(lv1, d, vout1 + k);
                hn::StoreU(lv2, d, vout2 + k);
                minv1 = hn::Min(minv1, lv1);
                minv2 = hn::Min(minv2, lv2);
                sum = hn::Add(sum, hn::Add(lv1, lv2));
            }
            if (second) {
                sum = hn::Add(sum, hn::LoadU(d, sp + k));
                hn::StoreU(sum, d, total + k);
                firstk = hn::IfThenElse(hn::Lt(sum, mintot), hn::Iota(d, static_cast<uint16_t>(k)), firstk);
                mintot = hn::Min(mintot, sum);
            } else {
                hn::StoreU(sum, d, sp + k);
            }
        }
        st.mins[0][cur][x] = MinLane(d, minv0);
        if (kEight) {
            st.mins[1][cur][x] = MinLane(d, minv1);
            st.mins[2][cur][x] = MinLane(d, minv2);
        }
        if (second) Winner(d, nd, total, mintot, firstk, out, x);
    }
    st.cur = prev;
    st.has_prev = true;
}

template <class D, bool kEight>
void PassRowVisit(D d, const PassArgs& a, PassState& st, int y, bool second, int slot) {
    if (second) PassRowT<D, kEight, true>(d, a, st, y, slot);
    else PassRowT<D, kEight, false>(d, a, st, y, slot);
}

void PassRow(const PassArgs& a, PassState& st, int y, bool second, int slot) {
    const hn::ScalableTag<uint16_t> full;
    const hn::CappedTag<uint16_t, 16> capped;  // ndisp is a multiple of 16
    const bool use_full = a.pb->ndisp % hn::Lanes(full) == 0;
    if (a.pb->paths == 8) {
        if (use_full) PassRowVisit<decltype(full), true>(full, a, st, y, second, slot);
        else PassRowVisit<decltype(capped), true>(capped, a, st, y, second, slot);
    } else {
        if (use_full) PassRowVisit<decltype(full), false>(full, a, st, y, second, slot);
        else PassRowVisit<decltype(capped), false>(capped, a, st, y, second, slot);
    }
}

// Copies a finished row to its volume; streaming stores where the row is aligned for them, so
// the volume neither evicts the working rows nor is read before it is written.
template <class T>
void StreamOut(const T* from, T* to, size_t count) {
    const hn::ScalableTag<T> d;
    const size_t n = hn::Lanes(d);
    if (reinterpret_cast<uintptr_t>(to) % (n * sizeof(T)) != 0 || count % n != 0) {
        std::memcpy(to, from, count * sizeof(T));
        return;
    }
    for (size_t i = 0; i < count; i += n) hn::Stream(hn::LoadU(d, from + i), d, to + i);
}

// Horizontal paths of the first-visit rows y0 (slot 0) and y1 (slot 1, unless negative), then
// both rows' costs and sums to the volumes.
void HorizontalRows(const PassArgs& a, PassState& st, int y0, int y1) {
    const Problem& pb = *a.pb;
    const size_t plane = static_cast<size_t>(pb.width) * pb.ndisp;
    const uint8_t* costs[2] = {st.cost_rows[0].data(), st.cost_rows[1].data()};
    uint16_t* sums[2] = {st.sum_rows[0].data(), st.sum_rows[1].data()};
    const hn::ScalableTag<uint16_t> full;
    const hn::CappedTag<uint16_t, 16> capped;
    const bool use_full = pb.ndisp % hn::Lanes(full) == 0;
    if (y1 < 0) {
        if (use_full) HorizontalPathsT<decltype(full), 1>(full, pb, st, costs, sums);
        else HorizontalPathsT<decltype(capped), 1>(capped, pb, st, costs, sums);
    } else {
        if (use_full) HorizontalPathsT<decltype(full), 2>(full, pb, st, costs, sums);
        else HorizontalPathsT<decltype(capped), 2>(capped, pb, st, costs, sums);
    }
    const int rows[2] = {y0, y1};
    for (int i = 0; i < (y1 < 0 ? 1 : 2); ++i) {
        StreamOut(costs[i], a.costs + rows[i] * plane, plane);
        StreamOut(sums[i], a.sums + rows[i] * plane, plane);
    }
    hwy::FlushStream();  // the other pass may read these rows as soon as they are marked done
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace depth
}  // namespace orvo
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace orvo {
namespace depth {

HWY_EXPORT(CensusRows);
HWY_EXPORT(PassRow);
HWY_EXPORT(HorizontalRows);

void census_rows(const CensusJob& job, int y0, int y1) { HWY_DYNAMIC_DISPATCH(CensusRows)(job, y0, y1); }
void pass_row(const PassArgs& a, PassState& st, int y, bool second, int slot) {
    HWY_DYNAMIC_DISPATCH(PassRow)(a, st, y, second, slot);
}
void horizontal_rows(const PassArgs& a, PassState& st, int y0, int y1) {
    HWY_DYNAMIC_DISPATCH(HorizontalRows)(a, st, y0, y1);
}

}  // namespace depth
}  // namespace orvo
#endif  // HWY_ONCE
