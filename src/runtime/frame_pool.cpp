// The frames' plane allocator: freed planes and headers wait in short free lists for the next frame.
#include "frame_pool.h"

#include <new>

namespace orvo {
namespace runtime {

FramePool* FramePool::create(size_t keep) { return new FramePool(keep); }

// Both lists are reserved up front, so that giving a block or header back never allocates.
FramePool::FramePool(size_t keep) : keep_(keep) {
    free_.reserve(keep_);
    headers_.reserve(keep_);
}

FramePool::~FramePool() {
    for (auto& block : free_) cv::fastFree(block.first);
    for (void* header : headers_) ::operator delete(header);
}

void FramePool::retire() {
    bool last;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        retired_ = true;
        last = outstanding_ == 0;
    }
    if (last) delete this;
}

// The plane gets a block from the pool (a recycled one when there is one) and gives it back when its
// last holder lets go, on whatever thread that is.
void FramePool::attach(cv::Mat& plane, cv::Size size) {
    plane.release();
    plane.allocator = this;
    plane.create(size, CV_8UC1);
}

// As OpenCV's standard allocator, with the memory taken from the free list when a block fits and the
// header built in recycled storage when there is some.
cv::UMatData* FramePool::allocate(int dims, const int* sizes, int type, void* data0, size_t* step,
                                  cv::AccessFlag, cv::UMatUsageFlags) const {
    size_t total = CV_ELEM_SIZE(type);
    for (int i = dims - 1; i >= 0; --i) {
        if (step) {
            if (data0 && step[i] != cv::Mat::AUTO_STEP)
                total = step[i];
            else
                step[i] = total;
        }
        total *= size_t(sizes[i]);
    }
    uchar* data = static_cast<uchar*>(data0);
    void* header = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!headers_.empty()) {
            header = headers_.back();
            headers_.pop_back();
        }
        if (data == nullptr) {
            for (size_t i = 0; i < free_.size(); ++i) {
                if (free_[i].second == total) {
                    data = free_[i].first;
                    free_[i] = free_.back();
                    free_.pop_back();
                    break;
                }
            }
        }
        ++outstanding_;
    }
    if (header == nullptr) header = ::operator new(sizeof(cv::UMatData));
    cv::UMatData* u = new (header) cv::UMatData(this);
    if (data == nullptr) data = static_cast<uchar*>(cv::fastMalloc(total));
    u->data = u->origdata = data;
    u->size = total;
    if (data0) u->flags |= cv::UMatData::USER_ALLOCATED;
    return u;
}

bool FramePool::allocate(cv::UMatData* u, cv::AccessFlag, cv::UMatUsageFlags) const { return u != nullptr; }

// Called by whichever thread drops a plane's last reference.
void FramePool::deallocate(cv::UMatData* u) const {
    if (u == nullptr) return;
    uchar* block = (u->flags & cv::UMatData::USER_ALLOCATED) ? nullptr : u->origdata;
    const size_t size = u->size;
    u->~UMatData();
    void* header = u;
    bool gone;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (block != nullptr && !retired_ && free_.size() < keep_) {
            free_.emplace_back(block, size);
            block = nullptr;
        }
        if (!retired_ && headers_.size() < keep_) {
            headers_.push_back(header);
            header = nullptr;
        }
        --outstanding_;
        gone = retired_ && outstanding_ == 0;
    }
    if (block != nullptr) cv::fastFree(block);
    if (header != nullptr) ::operator delete(header);
    if (gone) delete this;
}

}  // namespace runtime
}  // namespace orvo
