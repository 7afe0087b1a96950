// orvo::StereoMatcher allocates nothing per frame once its buffers fit the image size (the heap
// calls of this program are counted by interposing malloc and posix_memalign).
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <functional>

#include "orvo/stereo_matcher.hpp"
#include "stereo_scene.h"

#if defined(__SANITIZE_ADDRESS__)
#define ORVO_COUNT_ALLOCS 0
#else
#define ORVO_COUNT_ALLOCS 1
#endif

namespace {
std::atomic<long> g_allocs{0};
std::atomic<bool> g_counting{false};
}  // namespace

#if ORVO_COUNT_ALLOCS
extern "C" void* malloc(size_t n) {
    static auto real = reinterpret_cast<void* (*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
    if (g_counting.load(std::memory_order_relaxed)) ++g_allocs;
    return real(n);
}
extern "C" int posix_memalign(void** p, size_t align, size_t n) {
    static auto real =
        reinterpret_cast<int (*)(void**, size_t, size_t)>(dlsym(RTLD_NEXT, "posix_memalign"));
    if (g_counting.load(std::memory_order_relaxed)) ++g_allocs;
    return real(p, align, n);
}
#endif

namespace {

long allocations_of(const std::function<void()>& f) {
    g_allocs = 0;
    g_counting = true;
    f();
    g_counting = false;
    return g_allocs;
}

TEST(StereoMatcherAllocations, NoneInASteadyFrame) {
    if (!ORVO_COUNT_ALLOCS) GTEST_SKIP() << "the sanitizer owns malloc in this build";
    const cv::Size size(320, 160);
    const auto pair = orvo_test::render(size, orvo_test::default_layers(size), 8);
    const orvo::StereoGeometry g{300, 300, 160, 80, 0.1};
    for (int threads : {1, 2}) {
        for (int paths : {4, 8}) {
            orvo::MatcherParams p;
            p.threads = threads;
            p.paths = paths;
            orvo::StereoMatcher m(p);
            ASSERT_GT(allocations_of([&] { m.compute(pair.left, pair.right, g); }), 0);
            EXPECT_EQ(allocations_of([&] { m.compute(pair.left, pair.right, g); }), 0)
                << "threads " << threads << " paths " << paths;
            // A result the caller keeps is never overwritten: the next frame gets new matrices.
            const orvo::Depth kept = m.compute(pair.left, pair.right, g);
            const cv::Mat copy = kept.disparity.clone();
            EXPECT_GT(allocations_of([&] { m.compute(pair.right, pair.left, g); }), 0);
            EXPECT_EQ(std::memcmp(kept.disparity.data, copy.data, copy.total() * copy.elemSize()), 0);
        }
    }
}

}  // namespace
