// A recycling allocator for the frames' image planes and their OpenCV headers, so the per-frame
// path allocates neither pixels nor headers.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

namespace orvo {
namespace runtime {

class FramePool final : public cv::MatAllocator {
public:
    // Made with new; retire() instead of delete.
    static FramePool* create(size_t keep);
    // The owner is done with the pool: it deletes itself once no frame holds one of its planes.
    void retire();

    // A CV_8UC1 plane of `size` whose memory comes from, and goes back to, this pool.
    void attach(cv::Mat& plane, cv::Size size);

    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                           cv::AccessFlag flags, cv::UMatUsageFlags usage) const override;
    bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override;
    void deallocate(cv::UMatData* data) const override;

private:
    explicit FramePool(size_t keep);
    ~FramePool() override;

    const size_t keep_;  // at most this many free blocks, and as many free headers, are kept
    mutable std::mutex mutex_;
    mutable std::vector<std::pair<uchar*, size_t>> free_;  // blocks and their sizes
    mutable std::vector<void*> headers_;                   // storage for a cv::UMatData each
    mutable size_t outstanding_ = 0;
    mutable bool retired_ = false;
};

}  // namespace runtime
}  // namespace orvo
