// Metric depth for the tools: frames of the classic facade rectified by orvo::Calibration and
// matched by orvo::StereoMatcher, and the virtual scene's per-pixel truth to compare them with.
#pragma once

#include <functional>
#include <memory>

#include <OrvoCamera.h>
#include <orvo/calibration.hpp>
#include <orvo/stereo_matcher.hpp>
#include <orvo/vcam/truth.hpp>

#include "session.h"

namespace orvo_tool {

class MetricDepth {
public:
    // Loads the session's stereo calibration; throws UsageError for a fisheye-only calibration.
    explicit MetricDepth(const Session& session);
    // The facade's last frame rectified, matched and turned into metres; `left` receives the
    // rectified left image (for colouring point clouds).
    orvo::Depth compute(OrvoCamera& camera, cv::Mat& left);
    // Opens the session's camera, lets `skip` frames pass, then hands each of `frames` frames'
    // depth and rectified left image to `each` with the frame's number from 0.
    void forEachFrame(Session& session, int frames, int skip,
                      const std::function<void(int, const orvo::Depth&, const cv::Mat&)>& each);
    const orvo::Calibration& calibration() const { return *calibration_; }

private:
    std::unique_ptr<orvo::Calibration> calibration_;
    orvo::StereoMatcher matcher_;
    cv::Mat raw_left_, raw_right_, right_;
};

// Per-pixel truth of the virtual camera's scene at frame `index` (its time on the scene's clock),
// cast through the calibration's rectification. Throws UsageError when the session does not
// show a scene (a real device, the test pattern or a recording).
orvo::vcam::DepthTruth sceneTruth(const Session& session, const orvo::Calibration& calibration,
                                  int index);

}  // namespace orvo_tool
