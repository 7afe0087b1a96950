// A scene file's rectified pair as the virtual camera shows it, with its per-pixel truth: the
// common ground of the matcher tests and the depth benchmarks.
#pragma once

#include <stdexcept>
#include <string>

#include <orvo/calibration.hpp>
#include <orvo/vcam/render.hpp>

#include "stereo_scene.h"

namespace orvo_test {

struct RenderedScene {
    orvo::vcam::Scene scene;
    orvo::vcam::ScenePose pose;     // the camera at time 0
    cv::Mat left, right;            // rectified, CV_8UC1
    orvo::vcam::DepthTruth truth;   // rectified left view
    orvo::StereoGeometry geometry;  // from the scene's calibration files
    cv::Mat R1, P1;                 // the rectification the truth was cast through
};

// Renders a still scene at time 0 through its true lens model, rectifies the pair with the
// calibration files the scene names (orvo::Calibration) and casts the truth through that same
// rectification. Throws std::runtime_error when the scene does not load.
inline RenderedScene render_scene(const std::string& path) {
    RenderedScene r;
    std::string error;
    if (!orvo::vcam::loadScene(path, r.scene, &error)) throw std::runtime_error(error);
    const orvo::Calibration calib =
        orvo::Calibration::load(r.scene.calibration.intrinsics, r.scene.calibration.extrinsics,
                                r.scene.rig.size);
    const orvo::vcam::SceneRenderer renderer(r.scene, orvo::vcam::Rig(r.scene.rig));
    r.pose = orvo::vcam::scenePose(r.scene.motion, 0);
    cv::Mat raw_left, raw_right;
    renderer.render(r.pose, raw_left, raw_right);
    calib.rectify(raw_left, raw_right, r.left, r.right);
    r.truth = renderer.depthTruth(r.pose, calib.R1(), calib.P1(), calib.P2(), calib.image_size());
    r.geometry = calib.geometry();
    r.R1 = calib.R1();
    r.P1 = calib.P1();
    return r;
}

// The same as a StereoPair, for score(): truth disparity, and visible where both lenses see it.
inline StereoPair as_pair(const RenderedScene& r) {
    StereoPair p;
    p.left = r.left;
    p.right = r.right;
    p.truth = r.truth.disparity;
    p.visible = r.truth.visible;
    return p;
}

// The scene files the depth measurements run over: the default scene and the stress scenes.
inline std::vector<std::string> depth_scene_names() {
    return {"default_scene/scene", "stress_scenes/textureless_wall", "stress_scenes/repeated_pattern",
            "stress_scenes/slanted_plane", "stress_scenes/thin_poles", "stress_scenes/dim_noisy",
            "stress_scenes/near_edge"};
}

}  // namespace orvo_test
