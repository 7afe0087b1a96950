// Byte de-interleaving kernels behind the frame splitters: scalar, SSE2 and AVX2 forms of one
// definition. Inline so that the tests can run every form on this machine, whichever the library
// dispatches to.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace orvo {
namespace yuyv {

// The definition: even[i] = src[2i], odd[i] = src[2i+1] for i in [from, n). Every form takes a
// null `odd` to keep only the even bytes (the one-lens splitters).
inline void splitScalar(const uint8_t* src, size_t from, size_t n, uint8_t* even, uint8_t* odd) {
    const uint8_t* s = src + 2 * from;
    for (size_t i = from; i < n; ++i, s += 2) {
        even[i] = s[0];
        if (odd) odd[i] = s[1];
    }
}

// SSE2: 64 source bytes give 32 bytes of each output per step. The low byte of each 16-bit lane is
// the even byte; masking or shifting it into place and packing with unsigned saturation (which
// cannot saturate, the lanes are below 256) keeps the order.
inline void splitSse2(const uint8_t* src, size_t n, uint8_t* even, uint8_t* odd) {
    const __m128i low = _mm_set1_epi16(0x00FF);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const uint8_t* s = src + 2 * i;
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 32));
        __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 48));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(even + i),
                         _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(even + i + 16),
                         _mm_packus_epi16(_mm_and_si128(c, low), _mm_and_si128(d, low)));
        if (!odd) continue;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(odd + i),
                         _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(odd + i + 16),
                         _mm_packus_epi16(_mm_srli_epi16(c, 8), _mm_srli_epi16(d, 8)));
    }
    splitScalar(src, i, n, even, odd);
}

// AVX2: the same 32 bytes of each output per step, in one 256-bit store. The 256-bit pack works per
// 128-bit half, so its quarters come out as a0 b0 a1 b1 and are put back in order a0 a1 b0 b1.
__attribute__((target("avx2"))) inline void splitAvx2(const uint8_t* src, size_t n, uint8_t* even,
                                                      uint8_t* odd) {
    const __m256i low = _mm256_set1_epi16(0x00FF);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const uint8_t* s = src + 2 * i;
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(even + i),
                            _mm256_permute4x64_epi64(
                                _mm256_packus_epi16(_mm256_and_si256(a, low), _mm256_and_si256(b, low)), 0xD8));
        if (!odd) continue;
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(odd + i),
                            _mm256_permute4x64_epi64(
                                _mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8)), 0xD8));
    }
    splitScalar(src, i, n, even, odd);
}

inline void evenSse2(const uint8_t* src, size_t n, uint8_t* even) { splitSse2(src, n, even, nullptr); }
inline void evenAvx2(const uint8_t* src, size_t n, uint8_t* even) { splitAvx2(src, n, even, nullptr); }

inline bool haveAvx2() { return __builtin_cpu_supports("avx2"); }

// The best form this processor runs.
inline void split(const uint8_t* src, size_t n, uint8_t* even, uint8_t* odd) {
    if (haveAvx2())
        splitAvx2(src, n, even, odd);
    else
        splitSse2(src, n, even, odd);
}

}  // namespace yuyv
}  // namespace orvo
