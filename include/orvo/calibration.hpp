// orvo::Calibration: a stereo calibration read from the camera's calibration files.
#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "orvo/export.hpp"
#include "orvo/geometry.hpp"

namespace orvo {

class ORVO_API Calibration {
public:
    static Calibration load(const std::string& intrinsics_file, const std::string& extrinsics_file,
                            cv::Size image_size = cv::Size(752, 480));

    cv::Size image_size() const { return size_; }
    const cv::Mat& M1() const { return m1_; }
    const cv::Mat& D1() const { return d1_; }
    const cv::Mat& M2() const { return m2_; }
    const cv::Mat& D2() const { return d2_; }
    const cv::Mat& R() const { return r_; }
    const cv::Mat& T() const { return t_; }
    const cv::Mat& R1() const { return r1_; }
    const cv::Mat& R2() const { return r2_; }
    const cv::Mat& P1() const { return p1_; }
    const cv::Mat& P2() const { return p2_; }
    const cv::Mat& Q() const { return q_; }
    cv::Mat rectified_camera_matrix() const;
    double baseline() const;
    StereoGeometry geometry() const;

    // CV_16SC2 / CV_16UC1 remap tables of each lens.
    const cv::Mat& left_map1() const { return maps_[0]; }
    const cv::Mat& left_map2() const { return maps_[1]; }
    const cv::Mat& right_map1() const { return maps_[2]; }
    const cv::Mat& right_map2() const { return maps_[3]; }

    void rectify(const cv::Mat& left, const cv::Mat& right, cv::Mat& left_out,
                 cv::Mat& right_out) const;

private:
    Calibration() = default;
    cv::Size size_;
    cv::Mat m1_, d1_, m2_, d2_, r_, t_, r1_, r2_, p1_, p2_, q_;
    cv::Mat maps_[4];
};

}  // namespace orvo
