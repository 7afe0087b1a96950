// Metric depth for the tools: rectification, matching and the virtual scene's truth.
#include "metric_depth.h"

#include <orvo/vcam/render.hpp>

namespace orvo_tool {

MetricDepth::MetricDepth(const Session& session) {
    const CalibrationFiles& files = session.calibration();
    if (!files.pinhole())
        throw UsageError("metric depth needs a stereo calibration (--intrinsics and --extrinsics); "
                         "a fisheye calibration works with --classic only");
    calibration_ = std::make_unique<orvo::Calibration>(
        orvo::Calibration::load(files.intrinsics, files.extrinsics));
}

orvo::Depth MetricDepth::compute(OrvoCamera& camera, cv::Mat& left) {
    camera.getOrgImage(raw_left_, raw_right_);
    calibration_->rectify(raw_left_, raw_right_, left, right_);
    return matcher_.compute(left, right_, calibration_->geometry());
}

void MetricDepth::forEachFrame(Session& session, int frames, int skip,
                               const std::function<void(int, const orvo::Depth&, const cv::Mat&)>& each) {
    auto camera = session.open();
    for (int i = 0; i < skip; ++i) camera->Grab();
    cv::Mat left;
    for (int i = 0; i < frames; ++i) {
        camera->Grab();
        const orvo::Depth d = compute(*camera, left);
        each(i, d, left);
    }
}

orvo::vcam::DepthTruth sceneTruth(const Session& session, const orvo::Calibration& calibration,
                                  int index) {
    const DeviceChoice& device = session.device();
    std::string path;
    if (device.is_virtual && device.source.empty()) path = orvo::vcam::defaultScenePath();
    else if (device.is_virtual && device.source.rfind("scene:", 0) == 0) path = device.source.substr(6);
    else throw UsageError("--truth needs the virtual camera showing a scene (--virtual or --virtual=SCENE)");
    orvo::vcam::Scene scene;
    std::string error;
    if (!orvo::vcam::loadScene(path, scene, &error)) {
        if (!device.source.empty()) throw RunError(error);
        scene = orvo::vcam::defaultScene();  // the built-in copy the camera shows without the file
    }
    const orvo::vcam::SceneRenderer renderer(scene, orvo::vcam::Rig(scene.rig));
    const orvo::vcam::ScenePose pose = orvo::vcam::scenePose(scene.motion, index / scene.frame_rate);
    return renderer.depthTruth(pose, calibration.R1(), calibration.P1(), calibration.P2(),
                               calibration.image_size());
}

}  // namespace orvo_tool
