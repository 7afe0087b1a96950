// The pinhole stereo rectification and remap tables, shared by the classic builders and orvo::Calibration.
#pragma once

#include <opencv2/core.hpp>

namespace orvo {
namespace shared {

struct PinholeRectification {
    cv::Mat r1, r2, p1, p2, q;
    cv::Mat maps[4];  // left CV_16SC2, left CV_16UC1, right CV_16SC2, right CV_16UC1
};

void rectifyPinhole(const cv::Mat& m1, const cv::Mat& d1, const cv::Mat& m2, const cv::Mat& d2,
                    const cv::Mat& r, const cv::Mat& t, cv::Size size, PinholeRectification& out);

}  // namespace shared
}  // namespace orvo
