// The frame splitters and the 4:2:2 to BGR converter against definitions written out here.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "video_device.h"
#include "yuyv_split.h"

namespace {

using Bytes = std::vector<uint8_t>;
using SplitFn = std::function<void(const uint8_t*, int, uint8_t*, uint8_t*, uint8_t*)>;

constexpr int kMaxSize = 4096;
constexpr size_t kAlign = 32, kGuard = 64, kSpan = kGuard + kAlign + kMaxSize + kGuard;

Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}

// A source and three outputs (left, right, luma), each at its own offset past a 64-byte boundary
// inside a random background. After a call the outputs must hold the even / odd / even source
// bytes, and every other byte of the areas and the guards around them, and the source, must be
// untouched.
struct Arena {
    const Bytes pool = randomBytes(kMaxSize + kAlign, 7), background = randomBytes(kSpan, 5);
    Bytes buf[4] = {Bytes(kSpan + 64), Bytes(kSpan + 64), Bytes(kSpan + 64), Bytes(kSpan + 64)};

    uint8_t* place(int k) {
        uint8_t* base = buf[k].data() + (64 - reinterpret_cast<uintptr_t>(buf[k].data()) % 64) % 64;
        std::memcpy(base, background.data(), kSpan);
        return base + kGuard;
    }
    bool holds(const uint8_t* out, size_t align, const uint8_t* s, size_t first, size_t n) const {
        for (size_t i = 0; i < n; ++i)
            if (out[align + i] != s[2 * i + first]) return false;
        const uint8_t* bg = background.data() + kGuard;
        return std::memcmp(out - kGuard, bg - kGuard, kGuard + align) == 0 &&
               std::memcmp(out + align + n, bg + align + n, kSpan - kGuard - align - n) == 0;
    }
    bool check(const SplitFn& fn, int size, size_t sa, size_t da, size_t db) {
        uint8_t *s = place(0) + sa, *a = place(1), *b = place(2), *y = place(3);
        std::memcpy(s, pool.data() + sa, size_t(size));
        const size_t n = size > 1 ? size_t(size / 2) : 0;
        fn(s, size, a + da, b + db, y + db);
        return holds(a, da, s, 0, n) && holds(b, db, s, 1, n) && holds(y, db, s, 0, n) &&
               std::memcmp(s, pool.data() + sa, size_t(size)) == 0;
    }
};

// A form built of a split kernel and an even-bytes kernel, both counting in byte pairs.
SplitFn kernels(void (*split)(const uint8_t*, size_t, uint8_t*, uint8_t*),
                void (*even)(const uint8_t*, size_t, uint8_t*)) {
    return [=](const uint8_t* s, int n, uint8_t* a, uint8_t* b, uint8_t* y) {
        split(s, size_t(n / 2), a, b);
        even(s, size_t(n / 2), y);
    };
}

TEST(PixelSplit, EverySizeAndAlignmentMatchesTheDefinition) {
    using namespace orvo::yuyv;
    const SplitFn pub = [](const uint8_t* s, int n, uint8_t* a, uint8_t* b, uint8_t* y) {
        video_device::yuyv_2_lr_gray(s, n, a, b);
        video_device::yuyv_2_y_gray(s, n, y);
    };
    const struct {
        const char* name;
        SplitFn fn;
        bool available;
    } forms[] = {{"public", pub, true},
                 {"sse2", kernels(splitSse2, evenSse2), true},
                 {"avx2", kernels(splitAvx2, evenAvx2), haveAvx2()}};
    Arena arena;
    for (const auto& f : forms) {
        if (!f.available) {
            std::printf("note: %s kernels not run, the CPU lacks them\n", f.name);
            continue;
        }
        SCOPED_TRACE(f.name);
        int failures = 0;
        auto run = [&](int size, size_t sa, size_t da, size_t db) {
            if (!arena.check(f.fn, size, sa, da, db) && failures++ < 5)
                ADD_FAILURE() << "size " << size << " src+" << sa << " first+" << da << " second+"
                              << db;
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
    Bytes b(4, 0xEE);
    // Nothing is written for fewer than two bytes, negative sizes included.
    for (int size : {0, 1, -1, -2, -5, INT32_MIN}) {
        EXPECT_EQ(video_device::yuyv_2_lr_gray(src, size, b.data(), b.data() + 2), 0) << size;
        EXPECT_EQ(video_device::yuyv_2_y_gray(src, size, b.data()), 0) << size;
    }
    // Null pointers with a real size are refused quietly rather than dereferenced.
    EXPECT_EQ(video_device::yuyv_2_lr_gray(nullptr, 6, b.data(), b.data()), 0);
    EXPECT_EQ(video_device::yuyv_2_lr_gray(src, 6, nullptr, b.data()), 0);
    EXPECT_EQ(video_device::yuyv_2_y_gray(src, 6, nullptr), 0);
    EXPECT_EQ(b, Bytes(4, 0xEE));
}

// B, G, R of one pixel in exact rational arithmetic, truncated toward zero and clamped.
void exactBgr(long y, long u, long v, uint8_t* out) {
    const long bgr[3] = {(1000 * y + 1772 * u) / 1000,
                         (100000 * y - 34414 * u - 71414 * v) / 100000,
                         (1000 * y + 1042 * v) / 1000};
    for (int i = 0; i < 3; ++i) out[i] = uint8_t(bgr[i] < 0 ? 0 : bgr[i] > 255 ? 255 : bgr[i]);
}

// Random pixels against exact arithmetic, flipped vertically, nothing written past the image. The
// first and last source groups hold the two chroma pairs on which green lands exactly on an
// integer, Y -/+ 37, where the order of the two fused terms decides: the u term first (one
// rounding), then the v term, puts (-100, 100) just below the integer (the other order would give
// 63 and 2) and reaches it for (100, -100) (the other order would give 96 and 97). They also show
// the red factor 1.042: R = Y + 104.2 (1.402 would give 240 for Y = 100); B clamps at 0.
TEST(Rgb888, WholeImageAgainstExactArithmeticAndTheIntegerGreens) {
    constexpr size_t kSrc = 640 * 480 * 2, kOut = 640 * 480 * 3;
    Bytes src = randomBytes(kSrc, 21);
    // Keep out the chroma pair whose green value the double arithmetic puts just below an integer.
    for (size_t k = 0; k < kSrc; k += 4)
        if (src[k + 1] == 28 && src[k + 3] == 228) src[k + 3] = 227;
    const uint8_t pairs[2][4] = {{100, 28, 40, 228}, {60, 228, 61, 28}};
    std::memcpy(&src[0], pairs[0], 4);
    std::memcpy(&src[kSrc - 4], pairs[1], 4);
    Bytes out(kOut + 16, 0xC3);
    EXPECT_EQ(video_device::yuyv_2_rgb888(src.data(), 12345, out.data()), 0);
    EXPECT_EQ(Bytes(out.begin() + kOut, out.end()), Bytes(16, 0xC3)) << "wrote past the image";
    EXPECT_EQ(Bytes(out.begin() + 479 * 1920, out.begin() + 479 * 1920 + 6),
              (Bytes{0, 62, 204, 0, 3, 144}));
    EXPECT_EQ(Bytes(out.begin() + 1914, out.begin() + 1920), (Bytes{237, 97, 0, 238, 98, 0}));
    int mismatches = 0;
    for (size_t r = 0; r < 480; ++r) {
        for (size_t g = (r == 0); g < (r == 479 ? 319u : 320u); ++g) {
            const uint8_t* s = &src[r * 1280 + g * 4];
            uint8_t want[6];
            exactBgr(s[0], s[1] - 128, s[3] - 128, want);
            exactBgr(s[2], s[1] - 128, s[3] - 128, want + 3);
            if (std::memcmp(want, &out[(479 - r) * 1920 + g * 6], 6) != 0 && mismatches++ < 5)
                ADD_FAILURE() << "source row " << r << " group " << g;
        }
    }
}

}  // namespace
