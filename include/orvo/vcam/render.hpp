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

private:
    struct Impl;
    std::shared_ptr<const Impl> impl_;
};

}  // namespace vcam
}  // namespace orvo
