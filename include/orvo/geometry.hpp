// The rectified stereo geometry that turns disparities into metric depth.
#pragma once

namespace orvo {

// Focal length and principal point of the rectified left camera (pixels) and the baseline
// (metres, positive). depth = fx * baseline / disparity.
struct StereoGeometry {
    double fx = 0;
    double fy = 0;
    double cx = 0;
    double cy = 0;
    double baseline = 0;
};

}  // namespace orvo
