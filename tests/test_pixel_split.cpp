// Tests of the frame splitters and the 4:2:2 to BGR converter against definitions written out here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "frame_format.h"
#include "video_device.h"
#include "yuyv_split.h"

namespace {

using Bytes = std::vector<uint8_t>;
using SplitFn = std::function<void(const uint8_t*, int, uint8_t*, uint8_t*)>;
using EvenFn = std::function<void(const uint8_t*, int, uint8_t*)>;

constexpr int kMaxSize = 4096;
constexpr int kAlignments = 32;
constexpr size_t kGuard = 64;

Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}

// Reference for whole frames: what the splitters are defined to produce.
void referenceSplit(const uint8_t* src, int size, Bytes& even, Bytes& odd) {
    int n = size / 2;
    even.assign(n > 0 ? size_t(n) : 0, 0);
    odd.assign(even.size(), 0);
    for (int i = 0; i < n; ++i) {
        even[size_t(i)] = src[2 * i];
        odd[size_t(i)] = src[2 * i + 1];
    }
}

// Reusable buffers for the exhaustive comparison: a source and two outputs, each placed `align`
// bytes past a 64-byte boundary inside a random background; after a call every byte of the output
// areas and of the guards around them must equal the background with the reference written in.
class SplitChecker {
  public:
    explicit SplitChecker(const Bytes& pool)
        : pool_(pool),
          background_(randomBytes(kSpan, 5)),
          src_(kSpan + 64),
          a_(kSpan + 64),
          b_(kSpan + 64) {}

    std::string check(const SplitFn& fn, int size, size_t sa, size_t da, size_t db,
                      bool judgeOdd = true) {
        uint8_t* s = place(src_, sa);
        uint8_t* a = place(a_, da);
        uint8_t* b = place(b_, db);
        std::memcpy(s, pool_.data() + sa, size_t(size));
        const size_t n = size > 1 ? size_t(size / 2) : 0;
        fn(s, size, a, b);
        for (size_t i = 0; i < n; ++i)
            if (a[i] != s[2 * i] || (judgeOdd && b[i] != s[2 * i + 1]))
                return describe("value", size, sa, da, db, i);
        if (!guardsIntact(a, da, n)) return describe("first guard", size, sa, da, db, n);
        if (judgeOdd && !guardsIntact(b, db, n))
            return describe("second guard", size, sa, da, db, n);
        if (std::memcmp(s, pool_.data() + sa, size_t(size)) != 0)
            return describe("source", size, sa, da, db, 0);
        return "";
    }

  private:
    static constexpr size_t kSpan = kGuard + kAlignments + kMaxSize + kGuard;

    uint8_t* place(Bytes& buf, size_t align) {
        std::memcpy(buf.data() + skew(buf), background_.data(), kSpan);
        return buf.data() + skew(buf) + kGuard + align;
    }
    static size_t skew(const Bytes& buf) {
        return (64 - reinterpret_cast<uintptr_t>(buf.data()) % 64) % 64;
    }

    // The guard before the area and the bytes after its n written ones still hold the background.
    bool guardsIntact(const uint8_t* area, size_t align, size_t n) const {
        const uint8_t* bg = background_.data() + kGuard + align;
        return std::memcmp(area - kGuard, bg - kGuard, kGuard) == 0 &&
               std::memcmp(area + n, bg + n, kMaxSize / 2 + kGuard - n) == 0;
    }

    static std::string describe(const char* what, int size, size_t sa, size_t da, size_t db,
                                size_t at) {
        return std::string(what) + " wrong at " + std::to_string(at) + ": size " +
               std::to_string(size) + " src+" + std::to_string(sa) + " first+" +
               std::to_string(da) + " second+" + std::to_string(db);
    }

    const Bytes& pool_;
    Bytes background_, src_, a_, b_;
};

struct Form {
    const char* name;
    SplitFn split;
    EvenFn even;
    bool available;
};

std::vector<Form> allForms() {
    using namespace orvo::yuyv;
    return {
        {"public",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) {
             video_device::yuyv_2_lr_gray(s, n, a, b);
         },
         [](const uint8_t* s, int n, uint8_t* a) { video_device::yuyv_2_y_gray(s, n, a); }, true},
        {"sse2",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) { splitSse2(s, size_t(n / 2), a, b); },
         [](const uint8_t* s, int n, uint8_t* a) { evenSse2(s, size_t(n / 2), a); }, true},
        {"avx2",
         [](const uint8_t* s, int n, uint8_t* a, uint8_t* b) { splitAvx2(s, size_t(n / 2), a, b); },
         [](const uint8_t* s, int n, uint8_t* a) { evenAvx2(s, size_t(n / 2), a); }, haveAvx2()},
    };
}

TEST(PixelSplit, EverySizeAndAlignmentMatchesTheDefinition) {
    const Bytes pool = randomBytes(kMaxSize + kAlignments, 7);
    SplitChecker checker(pool);
    for (const Form& f : allForms()) {
        if (!f.available) {
            std::printf("note: %s kernels not run, the CPU lacks them\n", f.name);
            continue;
        }
        SCOPED_TRACE(f.name);
        SplitFn evenOnly = [&](const uint8_t* s, int n, uint8_t* a, uint8_t*) { f.even(s, n, a); };
        int failures = 0;
        auto run = [&](int size, size_t sa, size_t da, size_t db) {
            std::string e = checker.check(f.split, size, sa, da, db);
            if (e.empty()) e = checker.check(evenOnly, size, sa, db, da, false);
            if (!e.empty() && failures++ < 5) ADD_FAILURE() << e;
        };
        // Every size at every source alignment, the output alignments varying with them.
        for (int size = 0; size <= kMaxSize; ++size)
            for (size_t sa = 0; sa < kAlignments; ++sa)
                run(size, sa, (size_t(size) + 3 * sa) % kAlignments,
                    (size_t(size) * 7 + sa + 13) % kAlignments);
        // Every combination of the three alignments over the sizes around the vector widths.
        for (int size = 0; size <= 200; ++size)
            for (size_t sa = 0; sa < kAlignments; ++sa)
                for (size_t da = 0; da < kAlignments; ++da)
                    run(size, sa, da, (da + sa + size_t(size)) % kAlignments);
    }
}

TEST(PixelSplit, SmallAndDegenerateSizes) {
    const uint8_t src[6] = {10, 11, 12, 13, 14, 15};
    // Nothing may be written for fewer than two bytes: null outputs would crash if touched.
    for (int size : {0, 1, -1, -2, -5, INT32_MIN}) {
        EXPECT_EQ(video_device::yuyv_2_lr_gray(src, size, nullptr, nullptr), 0) << size;
        EXPECT_EQ(video_device::yuyv_2_y_gray(src, size, nullptr), 0) << size;
    }
    uint8_t a[4] = {0xEE, 0xEE, 0xEE, 0xEE}, b[4] = {0xEE, 0xEE, 0xEE, 0xEE},
            y[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(video_device::yuyv_2_lr_gray(src, 5, a, b), 0);
    EXPECT_EQ(video_device::yuyv_2_y_gray(src, 5, y), 0);
    EXPECT_EQ(Bytes(a, a + 4), (Bytes{10, 12, 0xEE, 0xEE}));
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{11, 13, 0xEE, 0xEE}));
    EXPECT_EQ(Bytes(y, y + 4), (Bytes{10, 12, 0xEE, 0xEE}));
    // Null pointers with a real size are refused quietly rather than dereferenced.
    EXPECT_EQ(video_device::yuyv_2_lr_gray(nullptr, 6, a, b), 0);
    EXPECT_EQ(video_device::yuyv_2_lr_gray(src, 6, nullptr, b), 0);
    EXPECT_EQ(video_device::yuyv_2_y_gray(src, 6, nullptr), 0);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{11, 13, 0xEE, 0xEE}));
}

TEST(PixelSplit, WholeCameraFrame) {
    using namespace orvo::frame;
    Bytes frame = randomBytes(kBytes, 11);
    // A recognisable corner: left lens bytes count up, right lens bytes count down.
    for (int i = 0; i < 64; ++i) {
        frame[size_t(2 * i)] = uint8_t(i);
        frame[size_t(2 * i + 1)] = uint8_t(255 - i);
    }
    Bytes first(kPixels + 1, 0x5A), second(kPixels + 1, 0x5A), even, odd;
    ASSERT_EQ(video_device::yuyv_2_lr_gray(frame.data(), int(kBytes), first.data(), second.data()),
              0);
    referenceSplit(frame.data(), int(kBytes), even, odd);
    EXPECT_TRUE(std::equal(even.begin(), even.end(), first.begin()));
    EXPECT_TRUE(std::equal(odd.begin(), odd.end(), second.begin()));
    EXPECT_EQ(first[kPixels], 0x5A);
    EXPECT_EQ(second[kPixels], 0x5A);
    EXPECT_EQ(first[63], 63);
    EXPECT_EQ(second[63], 255 - 63);
    // Last pixel of the last row, stride 752.
    EXPECT_EQ(first[size_t(kWidth) * (kHeight - 1) + kWidth - 1], frame[kBytes - 2]);
    EXPECT_EQ(second[size_t(kWidth) * (kHeight - 1) + kWidth - 1], frame[kBytes - 1]);
}

// ---- packed 4:2:2 to B, G, R
// -----------------------------------------------------------------------

constexpr size_t kRgbSrc = 640 * 480 * 2;
constexpr size_t kRgbOut = 640 * 480 * 3;
constexpr size_t kLastRow = 479 * 1920;  // 919,680

int clampByte(long v) { return v < 0 ? 0 : v > 255 ? 255 : int(v); }

// Truncation toward zero of (scaled / divisor), computed in integers.
long truncDiv(long scaled, long divisor) { return scaled / divisor; }

// B, G, R of one pixel in exact rational arithmetic. Blue and red never land on an integer unless
// the chroma term is 0, so double precision truncates them the same way. Green lands exactly on an
// integer for (u, v) = (-100, 100) and (100, -100) only; the converter's u-then-v order matches the
// exact value for the second pair but falls just below it for the first (see ChosenPixels).
void exactBgr(int y, int u, int v, uint8_t* out) {
    out[0] = uint8_t(clampByte(truncDiv(1000L * y + 1772L * u, 1000)));
    out[1] = uint8_t(clampByte(truncDiv(100000L * y - 34414L * u - 71414L * v, 100000)));
    out[2] = uint8_t(clampByte(truncDiv(1000L * y + 1042L * v, 1000)));
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

TEST(Rgb888, ChosenPixels) {
    Bytes src(kRgbSrc, 128);
    auto put = [&](int row, int group, uint8_t y0, uint8_t u, uint8_t y1, uint8_t v) {
        uint8_t* p = &src[size_t(row) * 1280 + size_t(group) * 4];
        p[0] = y0, p[1] = u, p[2] = y1, p[3] = v;
    };
    put(0, 0, 255, 255, 0, 128);    // clamping at both ends of blue
    put(0, 1, 100, 128, 100, 228);  // red factor 1.042
    put(0, 2, 0, 0, 255, 0);        // u = v = -128
    put(1, 0, 100, 28, 40, 228);    // green lands on an integer: the order of the two terms shows
    put(2, 0, 60, 228, 61, 28);     // the mirrored chroma pair
    put(479, 319, 7, 128, 8, 128);  // last group of the last source row
    const Bytes out = convert(src);

    // Y0 = 255, u = 127: B = 255 + 225.044 -> 255; G = 255 - 43.70578 = 211.29 -> 211; R = 255.
    // Y1 = 0: B = 225.044 -> 225; G = -43.7 -> 0; R = 0.
    EXPECT_EQ(pixelsAt(out, kLastRow), (Bytes{255, 211, 255, 225, 0, 0}));
    // v = 100: R = 100 + 104.2 -> 204 (1.402 would give 240); G = 100 - 71.414 -> 28; B = 100.
    EXPECT_EQ(pixelsAt(out, kLastRow + 6), (Bytes{100, 28, 204, 100, 28, 204}));
    // Y = 0, u = v = -128: B = -226.8 -> 0, G = 44.05 + 91.41 -> 135, R = -133.4 -> 0.
    // Y = 255: B = 28.2 -> 28, G = 390.5 -> 255, R = 121.6 -> 121.
    EXPECT_EQ(pixelsAt(out, kLastRow + 12), (Bytes{0, 135, 0, 28, 255, 121}));
    // u = -100, v = 100: G is exactly Y - 37, but with the u term applied first (Y + 34.414, one
    // rounding) and the v term second the double result falls just below the integer: Y = 100
    // gives 62, Y = 40 gives 3 (the other order would give 63 and 2).
    // B = 100 - 177.2 -> 0, R = 100 + 104.2 -> 204; B = 40 - 177.2 -> 0, R = 144.2 -> 144.
    EXPECT_EQ(pixelsAt(out, 478 * 1920), (Bytes{0, 62, 204, 0, 3, 144}));
    // u = 100, v = -100: G is exactly Y + 37, and here the u-then-v order reaches it (the other
    // order gives 96 and 97). B = Y + 177.2, R = Y - 104.2 -> 0.
    EXPECT_EQ(pixelsAt(out, 477 * 1920), (Bytes{237, 97, 0, 238, 98, 0}));
    // The last source group lands at the end of the first output row.
    EXPECT_EQ(pixelsAt(out, 1920 - 6), (Bytes{7, 7, 7, 8, 8, 8}));
    // Neutral chroma elsewhere leaves grey 128.
    EXPECT_EQ(pixelsAt(out, 200 * 1920 + 600), (Bytes{128, 128, 128, 128, 128, 128}));
}

TEST(Rgb888, WholeImageAgainstExactArithmetic) {
    Bytes src = randomBytes(kRgbSrc, 21);
    // Keep out the chroma pair whose green value the double arithmetic puts just below an integer.
    for (size_t k = 0; k < kRgbSrc; k += 4)
        if (src[k + 1] == 28 && src[k + 3] == 228) src[k + 3] = 227;
    const Bytes out = convert(src);
    int mismatches = 0;
    for (int r = 0; r < 480 && mismatches < 5; ++r) {
        for (int g = 0; g < 320; ++g) {
            const uint8_t* s = &src[size_t(r) * 1280 + size_t(g) * 4];
            uint8_t want[6];
            exactBgr(s[0], s[1] - 128, s[3] - 128, want);
            exactBgr(s[2], s[1] - 128, s[3] - 128, want + 3);
            size_t at = size_t(479 - r) * 1920 + size_t(g) * 6;
            if (std::memcmp(want, &out[at], 6) != 0 && mismatches++ < 5)
                ADD_FAILURE() << "source row " << r << " group " << g;
        }
    }
}

}  // namespace
