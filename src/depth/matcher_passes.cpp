// Runs the matcher's kernels on one or two threads: census, the two aggregation passes that meet
// in the middle of the image, and the buffers they keep between frames.
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <hwy/aligned_allocator.h>
#include <opencv2/core.hpp>

#include "depth/matcher_kernels.h"

namespace orvo {
namespace depth {

namespace {

// Runs one job at a time on its own thread.
class Worker {
public:
    Worker() : thread_([this] { loop(); }) {}
    ~Worker() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            quit_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    void start(void (*fn)(void*), void* ctx) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            fn_ = fn;
            ctx_ = ctx;
        }
        cv_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait(lock, [this] { return fn_ == nullptr; });
    }

private:
    void loop() {
        std::unique_lock<std::mutex> lock(mu_);
        for (;;) {
            cv_.wait(lock, [this] { return quit_ || fn_ != nullptr; });
            if (quit_) return;
            lock.unlock();
            fn_(ctx_);
            lock.lock();
            fn_ = nullptr;
            cv_.notify_all();
        }
    }
    std::mutex mu_;
    std::condition_variable cv_;
    void (*fn_)(void*) = nullptr;
    void* ctx_ = nullptr;
    bool quit_ = false;
    std::thread thread_;
};

constexpr int kSlack = 64;  // columns beyond the image that a vector may touch

// How many rows a pass has finished. A reader spins a little, then sleeps until told: on a
// machine whose other core is busy the writer may not be running at all.
class Progress {
public:
    void reset() { done_.store(0); }
    void publish(int rows) {
        done_.store(rows);  // sequentially consistent with the load of sleepers_ below
        if (sleepers_.load() > 0) {
            std::lock_guard<std::mutex> lock(mu_);
            cv_.notify_all();
        }
    }
    void wait_for(int rows) {
        for (int spin = 0; spin < 2000; ++spin) {
            if (done_.load(std::memory_order_acquire) >= rows) return;
            if (spin % 64 == 63) std::this_thread::yield();
        }
        std::unique_lock<std::mutex> lock(mu_);
        ++sleepers_;
        cv_.wait(lock, [&] { return done_.load() >= rows; });
        --sleepers_;
    }

private:
    std::atomic<int> done_{0};
    std::atomic<int> sleepers_{0};
    std::mutex mu_;
    std::condition_variable cv_;
};

}  // namespace

struct SimdMatcher::Impl {
    std::unique_ptr<Worker> worker;
    Problem pb;
    bool sized = false;
    cv::Mat flipped, padded_left, padded_right;
    std::vector<uint8_t> planes_left, planes_right;
    size_t plane_size = 0, stride = 0, right_offset = 0;
    hwy::AlignedFreeUniquePtr<uint16_t[]> sums;
    hwy::AlignedFreeUniquePtr<uint8_t[]> costs;
    PassState pass[2];
    Progress rows_done[2];  // pass 0: rows done from the top; pass 1: from the bottom

    void resize(const Problem& p);
};

// Buffers for a problem; kept while the image size and the disparity range stay the same.
void SimdMatcher::Impl::resize(const Problem& p) {
    const bool same = sized && p.width == pb.width && p.height == pb.height &&
                      p.ndisp == pb.ndisp && p.min_disp == pb.min_disp;
    pb = p;
    if (same) return;
    sized = true;
    const int w = p.width, h = p.height, nd = p.ndisp, ls = nd + 2 * kGuardLanes;
    right_offset = static_cast<size_t>(std::max(0, -p.min_disp));
    stride = right_offset + w + std::max(0, p.min_disp) + nd + kSlack;
    plane_size = stride * h;
    planes_left.assign(plane_size * 8, 0);
    planes_right.assign(plane_size * 8, 0);
    sums = hwy::AllocateAligned<uint16_t>(static_cast<size_t>(w) * h * nd);
    costs = hwy::AllocateAligned<uint8_t>(static_cast<size_t>(w) * h * nd);
    for (int i = 0; i < 2; ++i) {
        PassState& st = pass[i];
        st.dir = i == 0 ? 1 : -1;
        for (int r = 0; r < 3; ++r)
            for (int j = 0; j < 2; ++j) {
                st.rows[r][j].assign(static_cast<size_t>(w) * ls, kGuard);
                st.mins[r][j].assign(w, 0);
            }
        for (int j = 0; j < 8; ++j) st.horiz[j].assign(ls, kGuard);
        st.zero.assign(ls, 0);
        st.total.assign(nd + kSlack, 0);
        for (int j = 0; j < 2; ++j) {
            st.cost_rows[j].assign(static_cast<size_t>(w) * nd + kSlack, 0);
            st.sum_rows[j].assign(static_cast<size_t>(w) * nd + kSlack, 0);
        }
    }
}

SimdMatcher::SimdMatcher() : impl_(new Impl) {}
SimdMatcher::~SimdMatcher() { delete impl_; }

void SimdMatcher::run_pair(int threads, void (*a)(void*), void (*b)(void*), void* ctx) {
    if (threads <= 1) {
        a(ctx);
        b(ctx);
        return;
    }
    if (!impl_->worker) impl_->worker = std::make_unique<Worker>();
    impl_->worker->start(b, ctx);
    a(ctx);
    impl_->worker->wait();
}

namespace {

struct MatchCtx {
    SimdMatcher::Impl* m;
    PassArgs args;
    CensusJob census[2];
};


// Pass 0 walks rows down, pass 1 up. Each row is visited by both; the first visitor leaves its
// path sum in the sums volume, the second adds its own and picks the winners. Pass 0 visits the
// top half first, pass 1 the bottom half, so the two threads meet in the middle.
void run_pass(MatchCtx& c, int which, int from, int to) {
    SimdMatcher::Impl& m = *c.m;
    const int h = m.pb.height, mid = h / 2;
    auto row = [&](int i) { return which == 0 ? i : h - 1 - i; };
    auto is_second = [&](int y) { return which == 0 ? y >= mid : y < mid; };
    int pending = -1;  // a first-visit row whose horizontal paths wait for the next row's
    for (int i = from; i < to; ++i) {
        const int y = row(i);
        const bool second = is_second(y);
        if (second) {
            if (which == 0) m.rows_done[1].wait_for(h - y);
            else m.rows_done[0].wait_for(y + 1);
        }
        pass_row(c.args, m.pass[which], y, second, pending < 0 ? 0 : 1);
        if (!second) {
            if (pending < 0 && i + 1 < to && !is_second(row(i + 1))) {
                pending = y;
                continue;
            }
            horizontal_rows(c.args, m.pass[which], pending < 0 ? y : pending,
                                                 pending < 0 ? -1 : y);
            pending = -1;
        }
        m.rows_done[which].publish(i + 1);
    }
}

}  // namespace

void SimdMatcher::match(const cv::Mat& left, const cv::Mat& right, const Problem& pb, int threads,
                        Winners& out) {
    Impl& m = *impl_;
    m.resize(pb);
    out.create(pb.height, pb.width);
    const int hw = pb.census_w / 2, hh = pb.census_h / 2;
    cv::copyMakeBorder(left, m.padded_left, hh, hh, hw, hw + kSlack, cv::BORDER_REPLICATE);
    cv::flip(right, m.flipped, 1);
    cv::copyMakeBorder(m.flipped, m.padded_right, hh, hh, hw, hw + kSlack, cv::BORDER_REPLICATE);

    MatchCtx c{&m, {}, {}};
    c.args = PassArgs{&m.pb, m.planes_left.data(), m.planes_right.data(), m.plane_size, m.stride,
                      m.right_offset, m.sums.get(), m.costs.get(), &out};
    c.census[0] = CensusJob{&m.padded_left, pb.width, pb.height, pb.census_w, pb.census_h, false,
                            m.planes_left.data(), m.plane_size, m.stride};
    c.census[1] = CensusJob{&m.padded_right, pb.width, pb.height, pb.census_w, pb.census_h, true,
                            m.planes_right.data() + m.right_offset, m.plane_size, m.stride};
    run_pair(
        threads,
        [](void* p) {
            auto& c = *static_cast<MatchCtx*>(p);
            census_rows(c.census[0], 0, c.census[0].height);
        },
        [](void* p) {
            auto& c = *static_cast<MatchCtx*>(p);
            census_rows(c.census[1], 0, c.census[1].height);
        },
        &c);

    for (int i = 0; i < 2; ++i) {
        m.pass[i].has_prev = false;
        m.rows_done[i].reset();
    }
    const int h = pb.height, mid = h / 2;
    if (threads <= 1) {
        run_pass(c, 0, 0, mid);
        run_pass(c, 1, 0, h);
        run_pass(c, 0, mid, h);
        return;
    }
    run_pair(
        threads, [](void* p) { run_pass(*static_cast<MatchCtx*>(p), 0, 0, static_cast<MatchCtx*>(p)->m->pb.height); },
        [](void* p) { run_pass(*static_cast<MatchCtx*>(p), 1, 0, static_cast<MatchCtx*>(p)->m->pb.height); },
        &c);
}

}  // namespace depth
}  // namespace orvo
