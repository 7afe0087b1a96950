// Ground truth of the virtual camera: what each served frame holds, and the scene's true poses,
// inertial samples and depths that tests compare the library against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <orvo/vcam/rig.hpp>
#include <orvo/vcam/scene.hpp>

namespace orvo {
namespace vcam {

// One inertial sample as generated, before and after conversion to the sensor's raw counts.
struct ImuTruthSample {
    uint32_t ticks = 0;              // the record's time stamp
    double gyro_rad_s[3] = {0, 0, 0};  // true rate in the sensor frame (bias and noise excluded)
    double accel_g[3] = {0, 0, 0};     // true specific force in g
    int16_t gyro_raw[3] = {0, 0, 0};   // counts as written, bias and noise included
    int16_t accel_raw[3] = {0, 0, 0};
};

// Everything a source knows about one frame it served; written to the truth file.
struct FrameTruth {
    uint64_t index = 0;        // frame index in the source's timeline
    uint32_t sequence = 0;     // V4L2 sequence number it was served with
    double time_s = 0;         // frame time since the stream started, seconds
    uint32_t frame_ticks = 0;  // the trailer's frame time
    std::vector<ImuTruthSample> imu;
    bool has_attitude = false;
    double attitude[4] = {1, 0, 0, 0};  // true attitude quaternion w, x, y, z
    std::string extra;                  // source-specific "key=value" pairs, space separated
};

// The hash the truth file gives each frame.
uint64_t frameHash(const void* data, size_t length);

// Poses and inertial samples of a scene's camera.
struct ScenePose {
    cv::Matx33d world_from_body;    // rotation of the sensor frame into the world
    cv::Matx33d world_from_camera;  // rotation of the left lens frame (x right, y down, z forward)
    cv::Vec3d position;             // left lens centre in the world
};
ScenePose scenePose(const SceneMotion& motion, double t);
cv::Vec4d attitudeQuaternion(const cv::Matx33d& world_from_body);
int64_t lastSampleOfFrame(const Scene& scene, int64_t frame);
uint32_t frameTicks(const Scene& scene, int64_t frame);
ImuTruthSample imuSample(const Scene& scene, int64_t k);

// Per-pixel truth of a rectified left view: what a perfect matcher would find at every pixel.
struct DepthTruth {
    cv::Mat disparity;  // CV_32F, pixels (fx * baseline / depth), NaN where no surface is seen
    cv::Mat depth;      // CV_32F, metres along the rectified optical axis, NaN where no surface
    cv::Mat visible;    // CV_8U, 255 where the right lens sees the same surface point within
                        // its rectified image (not occluded, not beyond its left border)
};

// The nearest-point search box the truth reports on.
struct SearchBox {
    double half_width = 0.5;
    double height = 0.5;
    double max_depth = 3.0;
    double tilt = 0;
};

bool parseSearchBox(const std::string& text, SearchBox& box, std::string* error);
double nearestDepthInBox(const Scene& scene, const Rig& rig, const cv::Matx33d& world_from_camera,
                         const cv::Vec3d& camera_position, const SearchBox& box);

}  // namespace vcam
}  // namespace orvo
