// The scene renderer: both lenses' raw images of a scene, through the rig's true lens model.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include <orvo/vcam/rig.hpp>
#include <orvo/vcam/scene.hpp>
#include <orvo/vcam/truth.hpp>

namespace orvo {
namespace vcam {

// Renders both lenses' images of the scene seen from a pose (8-bit grey, rig size each).
class SceneRenderer {
public:
    SceneRenderer(const Scene& scene, const Rig& rig);
    void render(const ScenePose& pose, cv::Mat& left, cv::Mat& right) const;
    // Per-pixel truth of the rectified left view of `size` seen from `pose`, for the rectification
    // R1, P1, P2 (CV_64F, as cv::stereoRectify gives them, or orvo::Calibration from the rig's
    // files). Each pixel's ray is cast through the ideal rectified camera, so the truth holds
    // where the rectified images are right; the baseline is -P2(0,3) / P2(0,0).
    DepthTruth depthTruth(const ScenePose& pose, const cv::Mat& R1, const cv::Mat& P1,
                          const cv::Mat& P2, cv::Size size) const;

private:
    struct Impl;
    std::shared_ptr<const Impl> impl_;
};

}  // namespace vcam
}  // namespace orvo
