// The frame splitters against OpenCV's channel extraction of the same bytes, and the 4:2:2 to BGR
// converter against exact arithmetic.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include <opencv2/core.hpp>

#include "video_device.h"
#include "yuyv_split.h"

namespace {

using Bytes = std::vector<uint8_t>;
using SplitFn = std::function<void(const uint8_t*, int, uint8_t*, uint8_t*, uint8_t*)>;

Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}

// Channel c of `size` source bytes read as two-channel pixels (OpenCV's view of the same bytes),
// between 0xA5 guards: `at` bytes before and 40 after.
Bytes guarded(const uint8_t* src, int size, int c, size_t at) {
    Bytes out(at, 0xA5);
    if (size >= 2) {
        cv::Mat channel;
        cv::extractChannel(cv::Mat(1, size / 2, CV_8UC2, const_cast<uint8_t*>(src)), channel, c);
        out.insert(out.end(), channel.data, channel.data + channel.total());
    }
    out.resize(out.size() + 40, 0xA5);
    return out;
}

// Every size up to 300 bytes (odd ones drop their last byte) and a few frame-sized ones, at every
// source offset within a vector width and outputs at offsets varying with it.
TEST(PixelSplit, EverySizeAndOffsetMatchesOpenCvsChannels) {
    const SplitFn pub = [](const uint8_t* s, int n, uint8_t* a, uint8_t* b, uint8_t* y) {
        video_device::yuyv_2_lr_gray(s, n, a, b);
        video_device::yuyv_2_y_gray(s, n, y);
    };
    const auto kernels = [](void (*split)(const uint8_t*, size_t, uint8_t*, uint8_t*),
                            void (*even)(const uint8_t*, size_t, uint8_t*)) -> SplitFn {
        return [=](const uint8_t* s, int n, uint8_t* a, uint8_t* b, uint8_t* y) {
            split(s, size_t(n / 2), a, b), even(s, size_t(n / 2), y);
        };
    };
    using namespace orvo::yuyv;
    const struct { const char* name; SplitFn fn; bool available; } forms[] = {
        {"public", pub, true}, {"sse2", kernels(splitSse2, evenSse2), true},
        {"avx2", kernels(splitAvx2, evenAvx2), haveAvx2()}};
    const Bytes pool = randomBytes(721920 + 64, 7);
    std::vector<int> sizes;
    for (int size = 0; size <= 300; ++size) sizes.push_back(size);
    for (int size : {1023, 1024, 1025, 4097, 721920}) sizes.push_back(size);
    for (const auto& f : forms) {
        if (!f.available) {
            std::printf("note: %s kernels not run, the CPU lacks them\n", f.name);
            continue;
        }
        SCOPED_TRACE(f.name);
        int failures = 0;
        for (int size : sizes)
            for (size_t sa = 0; sa < 32; ++sa) {
                const uint8_t* s = pool.data() + sa;
                const size_t da = (size_t(size) + 3 * sa) % 32, db = (size_t(size) * 7 + sa + 13) % 32;
                Bytes a(da + size_t(size) / 2 + 40, 0xA5), b(db + size_t(size) / 2 + 40, 0xA5), y = b;
                f.fn(s, size, a.data() + da, b.data() + db, y.data() + db);
                if ((a != guarded(s, size, 0, da) || b != guarded(s, size, 1, db) || y != guarded(s, size, 0, db)) &&
                    failures++ < 5)
                    ADD_FAILURE() << "size " << size << " src+" << sa << " first+" << da << " second+" << db;
            }
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
