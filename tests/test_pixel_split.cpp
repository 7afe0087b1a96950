// The frame splitters and the 4:2:2 to BGR converter against definitions written out here.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "video_device.h"
#include "yuyv_split.h"

namespace {

using Bytes = std::vector<uint8_t>;
using SplitFn = std::function<void(const uint8_t*, int, uint8_t*, uint8_t*)>;

constexpr int kMaxSize = 4096;
constexpr size_t kAlign = 32, kGuard = 64, kSpan = kGuard + kAlign + kMaxSize + kGuard;

Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}

// A source and two outputs, each `align` bytes past a 64-byte boundary inside a random background.
// After a call the outputs must hold the even / odd source bytes, and every other byte of the
// areas and the guards around them, and the source, must be untouched.
class SplitChecker {
  public:
    std::string check(const SplitFn& fn, int size, size_t sa, size_t da, size_t db, bool odd) {
        uint8_t *s = place(src_, sa), *a = place(a_, da), *b = place(b_, db);
        std::memcpy(s, pool_.data() + sa, size_t(size));
        const size_t n = size > 1 ? size_t(size / 2) : 0;
        fn(s, size, a, b);
        std::string where = " at size " + std::to_string(size) + " src+" + std::to_string(sa) +
                            " first+" + std::to_string(da) + " second+" + std::to_string(db);
        for (size_t i = 0; i < n; ++i)
            if (a[i] != s[2 * i] || (odd && b[i] != s[2 * i + 1]))
                return "value " + std::to_string(i) + where;
        if (!intact(a, da, n) || (odd && !intact(b, db, n))) return "guard" + where;
        if (std::memcmp(s, pool_.data() + sa, size_t(size)) != 0) return "source" + where;
        return "";
    }

  private:
    uint8_t* place(Bytes& buf, size_t align) {
        uint8_t* base = buf.data() + (64 - reinterpret_cast<uintptr_t>(buf.data()) % 64) % 64;
        std::memcpy(base, background_.data(), kSpan);
        return base + kGuard + align;
    }
    bool intact(const uint8_t* area, size_t align, size_t n) const {
        const uint8_t* bg = background_.data() + kGuard + align;
        return std::memcmp(area - kGuard, bg - kGuard, kGuard) == 0 &&
               std::memcmp(area + n, bg + n, kMaxSize / 2 + kGuard - n) == 0;
    }
    const Bytes pool_ = randomBytes(kMaxSize + kAlign, 7), background_ = randomBytes(kSpan, 5);
    Bytes src_ = Bytes(kSpan + 64), a_ = Bytes(kSpan + 64), b_ = Bytes(kSpan + 64);
};

TEST(PixelSplit, EverySizeAndAlignmentMatchesTheDefinition) {
    using namespace orvo::yuyv;
    struct Form {
        const char* name;
        SplitFn split, even;
        bool available;
    } forms[] = {
        {"public",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) {
             video_device::yuyv_2_lr_gray(s, n, a, b);
         },
         [](const uint8_t* s, int n, uint8_t* a, uint8_t*) {
             video_device::yuyv_2_y_gray(s, n, a);
         },
         true},
        {"sse2",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) { splitSse2(s, size_t(n / 2), a, b); },
         [](const uint8_t* s, int n, uint8_t* a, uint8_t*) { evenSse2(s, size_t(n / 2), a); },
         true},
        {"avx2",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) { splitAvx2(s, size_t(n / 2), a, b); },
         [](const uint8_t* s, int n, uint8_t* a, uint8_t*) { evenAvx2(s, size_t(n / 2), a); },
         haveAvx2()},
    };
    SplitChecker checker;
    for (const Form& f : forms) {
        if (!f.available) {
            std::printf("note: %s kernels not run, the CPU lacks them\n", f.name);
            continue;
        }
        SCOPED_TRACE(f.name);
        int failures = 0;
        auto run = [&](int size, size_t sa, size_t da, size_t db) {
            std::string e = checker.check(f.split, size, sa, da, db, true);
            if (e.empty()) e = checker.check(f.even, size, sa, db, da, false);
            if (!e.empty() && failures++ < 5) ADD_FAILURE() << e;
        };
        // Every size at every source alignment, the output alignments varying with them; then
        // every combination of the three alignments over the sizes around the vector widths.
        for (int size = 0; size <= kMaxSize; ++size)
            for (size_t sa = 0; sa < kAlign; ++sa)
                run(size, sa, (size_t(size) + 3 * sa) % kAlign,
                    (size_t(size) * 7 + sa + 13) % kAlign);
        for (int size = 0; size <= 200; ++size)
            for (size_t sa = 0; sa < kAlign; ++sa)
                for (size_t da = 0; da < kAlign; ++da)
                    run(size, sa, da, (da + sa + size_t(size)) % kAlign);
    }
}

TEST(PixelSplit, DegenerateSizesAndPointers) {
    const uint8_t src[6] = {10, 11, 12, 13, 14, 15};
    // Nothing may be written for fewer than two bytes: null outputs would crash if touched.
    for (int size : {0, 1, -1, -2, -5, INT32_MIN}) {
        EXPECT_EQ(video_device::yuyv_2_lr_gray(src, size, nullptr, nullptr), 0) << size;
        EXPECT_EQ(video_device::yuyv_2_y_gray(src, size, nullptr), 0) << size;
    }
    Bytes a(4, 0xEE), b(4, 0xEE), y(4, 0xEE);
    EXPECT_EQ(video_device::yuyv_2_lr_gray(src, 5, a.data(), b.data()), 0);
    EXPECT_EQ(video_device::yuyv_2_y_gray(src, 5, y.data()), 0);
    EXPECT_EQ(a, (Bytes{10, 12, 0xEE, 0xEE}));
    EXPECT_EQ(b, (Bytes{11, 13, 0xEE, 0xEE}));
    EXPECT_EQ(y, (Bytes{10, 12, 0xEE, 0xEE}));
    // Null pointers with a real size are refused quietly rather than dereferenced.
    EXPECT_EQ(video_device::yuyv_2_lr_gray(nullptr, 6, a.data(), b.data()), 0);
    EXPECT_EQ(video_device::yuyv_2_lr_gray(src, 6, nullptr, b.data()), 0);
    EXPECT_EQ(video_device::yuyv_2_y_gray(src, 6, nullptr), 0);
    EXPECT_EQ(b, (Bytes{11, 13, 0xEE, 0xEE}));
}

// ---- packed 4:2:2 to B, G, R ------------------------------------------------------------------

constexpr size_t kRgbSrc = 640 * 480 * 2, kRgbOut = 640 * 480 * 3;
constexpr size_t kLastRow = 479 * 1920;

uint8_t clampByte(long v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// B, G, R of one pixel in exact rational arithmetic, truncated toward zero and clamped.
void exactBgr(int y, int u, int v, uint8_t* out) {
    out[0] = clampByte((1000L * y + 1772L * u) / 1000);
    out[1] = clampByte((100000L * y - 34414L * u - 71414L * v) / 100000);
    out[2] = clampByte((1000L * y + 1042L * v) / 1000);
}

Bytes convert(const Bytes& src) {
    Bytes out(kRgbOut + 16, 0xC3);
    EXPECT_EQ(video_device::yuyv_2_rgb888(src.data(), 12345, out.data()), 0);
    for (size_t i = kRgbOut; i < out.size(); ++i)
        EXPECT_EQ(out[i], 0xC3) << "wrote past the image at " << i;
    return out;
}

Bytes pixelsAt(const Bytes& out, size_t offset) {
    return Bytes(out.begin() + long(offset), out.begin() + long(offset) + 6);
}

// The two chroma pairs on which green lands exactly on an integer, Y -/+ 37: there the order of the
// two fused terms decides. The u term first (one rounding), then the v term, puts (-100, 100) just
// below the integer (the other order would give 63 and 2) and reaches it for (100, -100) (the other
// order would give 96 and 97). The pixels also show the vertical flip and the red factor 1.042:
// R = Y + 104.2 (1.402 would give 240 for Y = 100); B clamps at 0.
TEST(Rgb888, ChromaPairsWhereGreenIsAnInteger) {
    Bytes src(kRgbSrc, 128);
    const uint8_t pairs[2][4] = {{100, 28, 40, 228}, {60, 228, 61, 28}};
    std::memcpy(&src[0], pairs[0], 4);
    std::memcpy(&src[1280 * 479 + 1276], pairs[1], 4);  // last group of the last source row
    const Bytes out = convert(src);
    EXPECT_EQ(pixelsAt(out, kLastRow), (Bytes{0, 62, 204, 0, 3, 144}));
    EXPECT_EQ(pixelsAt(out, 1920 - 6), (Bytes{237, 97, 0, 238, 98, 0}));
    EXPECT_EQ(pixelsAt(out, 200 * 1920 + 600), (Bytes{128, 128, 128, 128, 128, 128}));
}

TEST(Rgb888, WholeImageAgainstExactArithmetic) {
    Bytes src = randomBytes(kRgbSrc, 21);
    // Keep out the chroma pair whose green value the double arithmetic puts just below an integer.
    for (size_t k = 0; k < kRgbSrc; k += 4)
        if (src[k + 1] == 28 && src[k + 3] == 228) src[k + 3] = 227;
    const Bytes out = convert(src);
    int mismatches = 0;
    for (int r = 0; r < 480; ++r) {
        for (int g = 0; g < 320; ++g) {
            const uint8_t* s = &src[size_t(r) * 1280 + size_t(g) * 4];
            uint8_t want[6];
            exactBgr(s[0], s[1] - 128, s[3] - 128, want);
            exactBgr(s[2], s[1] - 128, s[3] - 128, want + 3);
            if (std::memcmp(want, &out[size_t(479 - r) * 1920 + size_t(g) * 6], 6) != 0 &&
                mismatches++ < 5)
                ADD_FAILURE() << "source row " << r << " group " << g;
        }
    }
}

}  // namespace
