// Camera facade depth and attitude operations: thin forwarders to the engine held in camera_.
#include "OrvoCamera.h"

#include <cstdio>
#include <limits>

namespace {

constexpr int kBinCount = 360;

// The block matcher's fixed-point output, kept between searches so that neither it nor the
// facade's float disparity is reallocated every frame.
cv::Mat& blockMatcherOutput() {
    static cv::Mat raw;
    return raw;
}

}  // namespace

// The semi-global matcher's disparity of the last rectified pair, in its 16-bit fixed-point form
// (sixteen times the pixel disparity), written straight into out.
void OrvoCamera::getDisparity(cv::Mat& out) { sgbm_->compute(rect_image_1, rect_image_2, out); }

// Nearest obstacle of the last rectified pair inside region: the block matcher's disparity in
// pixels (kept in the facade's disparity member), the 360 bins (which must hold 360 entries)
// refilled, their clusters, and the nearest cluster of at least four bins; (0, 0, largest double)
// when there is none.
void OrvoCamera::getNearestPoint(winpar& region, nerapot* bins, cv::Point3_<double>& nearest) {
    if (bins == nullptr) {
        std::fprintf(stderr, "getNearestPoint: no bins given\n");
        nearest = cv::Point3_<double>(0.0, 0.0, std::numeric_limits<double>::max());
        return;
    }
    cv::Mat& raw = blockMatcherOutput();
    bm_->compute(rect_image_1, rect_image_2, raw);
    raw.convertTo(disparity, CV_32F, 0.0625, 0);
    for (int b = 0; b < kBinCount; ++b) bins[b].min_depth = std::numeric_limits<double>::max();
    camera_->DispToPointCloud(disparity, bins, region);
    camera_->getNoiseFilter(bins, buckets, bucket_count);
    nearest = camera_->getPointMin(buckets, bucket_count);
}

// Draws the bins and the nearest depth into the caller's image.
void OrvoCamera::getPointImage(nerapot* bins, cv::Point3_<double> nearest, cv::Mat& image) {
    camera_->draw_point_image(bins, nearest, image);
}

// Sets the gyro dead band and accelerometer offsets and runs the 100-frame gyro bias measurement.
void OrvoCamera::setImuCorrection(float deadband_low, float deadband_high, float accel_offset_x,
                                  float accel_offset_y, float accel_offset_z) {
    camera_->imu_init(deadband_low, deadband_high, accel_offset_x, accel_offset_y, accel_offset_z);
}

// One attitude filter step on the sample's rates and acceleration (its time is not used).
void OrvoCamera::ImuRect(ImuData sample, float period, float* out) {
    camera_->imu_solution(sample.gyro_x, sample.gyro_y, sample.gyro_z, sample.accel_x,
                          sample.accel_y, sample.accel_z, period, out);
}
