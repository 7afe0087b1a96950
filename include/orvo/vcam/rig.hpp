// Synthetic stereo rig of known parameters: writes calibration files in the library's layouts and
// projects 3-D points through the true (distorted) lens model. Shared by the tests and the scenes.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace orvo {
namespace vcam {

struct RigSpec {
    cv::Size size{752, 480};
    double focal = 430.0;                // same focal length in x and y, both lenses (square pixels)
    cv::Point2d principal_left{371.0, 243.0};
    cv::Point2d principal_right{380.0, 236.0};
    // Pinhole: k1, k2, p1, p2, k3 per lens. Fisheye: k1..k4 per lens (only the first four used).
    cv::Vec<double, 5> dist_left{-0.28, 0.09, 0.0008, -0.0005, 0.0};
    cv::Vec<double, 5> dist_right{-0.27, 0.085, -0.0006, 0.0004, 0.0};
    double baseline = 0.12;              // metres; the right lens sits at +x of the left one
    cv::Vec3d rotation{0.004, -0.006, 0.003};  // Rodrigues vector of R (right relative to left)
    bool fisheye = false;
};

// A plausible wide-angle fisheye pair for 752 x 480 (the defaults above describe a pinhole lens).
RigSpec fisheyeRigSpec();

// Camera frames: x right, y down, z forward. A point X_left in the left lens frame is
// X_right = R * X_left + T in the right lens frame, T = (-baseline, 0, 0) rotated as OpenCV's
// stereo calibration reports it.
class Rig {
public:
    explicit Rig(const RigSpec& params = RigSpec());

    const RigSpec& params() const { return spec_; }

    // True lens models (CV_64F): camera matrices, distortion, R (3x3), T (3x1).
    cv::Mat K1, D1, K2, D2, R, T;
    // Rectification of the true rig as the library's builders compute it: pinhole through
    // cv::stereoRectify(CALIB_ZERO_DISPARITY, alpha 0), fisheye through cv::fisheye::stereoRectify.
    cv::Mat R1, R2, P1, P2, Q;

    // Calibration files in the library's layouts; false when a file cannot be written.
    bool writeStereo(const std::string& intrinsics_path, const std::string& extrinsics_path) const;
    bool writeFisheye(const std::string& path) const;
    bool writeMono(const std::string& path, int lens = 0) const;

    // Pixel of a point given in the left lens frame, through the true distorted model of lens 0
    // (left) or 1 (right). Returns false when the point is behind the lens.
    bool project(int lens, const cv::Point3d& p_left, cv::Point2d& pixel) const;
    // Pixel of the same point in the ideal rectified camera of lens 0 or 1.
    bool projectRectified(int lens, const cv::Point3d& p_left, cv::Point2d& pixel) const;
    // Unit ray, in the left lens frame, of every pixel of lens 0 or 1's raw image (CV_32FC3,
    // size() rows x cols), and that lens's optical centre in the left lens frame.
    cv::Mat rays(int lens) const;
    cv::Point3d centre(int lens) const;

private:
    RigSpec spec_;
};

}  // namespace vcam
}  // namespace orvo
