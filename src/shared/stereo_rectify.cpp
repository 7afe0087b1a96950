// Pinhole stereo rectification: one definition of how the camera's images are made row-aligned.
#include "stereo_rectify.h"

#include <opencv2/calib3d.hpp>

namespace orvo {
namespace shared {

// Rectifies afresh from the lenses and their relative pose (zero disparity at infinity, alpha 0:
// only valid pixels) and builds each lens's fixed-point maps. Inputs must be non-empty; OpenCV's
// exceptions report matrices of the wrong shape.
void rectifyPinhole(const cv::Mat& m1, const cv::Mat& d1, const cv::Mat& m2, const cv::Mat& d2,
                    const cv::Mat& r, const cv::Mat& t, cv::Size size, PinholeRectification& out) {
    cv::stereoRectify(m1, d1, m2, d2, size, r, t, out.r1, out.r2, out.p1, out.p2, out.q,
                      cv::CALIB_ZERO_DISPARITY, 0.0, cv::Size(0, 0), nullptr, nullptr);
    cv::initUndistortRectifyMap(m1, d1, out.r1, out.p1, size, CV_16SC2, out.maps[0], out.maps[1]);
    cv::initUndistortRectifyMap(m2, d2, out.r2, out.p2, size, CV_16SC2, out.maps[2], out.maps[3]);
}

}  // namespace shared
}  // namespace orvo
