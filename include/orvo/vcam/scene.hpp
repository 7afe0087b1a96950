// A scene of the virtual camera: its description, its file form and the rig it is seen through.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <orvo/vcam/rig.hpp>

namespace orvo {
namespace vcam {

// World frame of a scene: x right, y forward, z up, metres; the floor is usually z = 0.
struct SceneTexture {
    enum Kind { kFlat, kNoise, kChecker };
    Kind kind = kNoise;
    double scale = 0.05;    // noise feature size or checker square, metres
    double mean = 128;      // grey level
    double contrast = 60;   // noise: grey deviation at full swing; checker: half the step
    int octaves = 4;        // noise octaves, each half the size of the one before
    uint32_t seed = 1;
};

struct SceneObject {
    enum Kind { kPlane, kBox };
    Kind kind = kPlane;
    std::string name;
    cv::Vec3d centre{0, 0, 0};
    // Plane: its two in-plane directions (made orthonormal on load) and its extent along them.
    cv::Vec3d axis_u{1, 0, 0};
    cv::Vec3d axis_v{0, 1, 0};
    // Plane: width along u, height along v (third value unused). Box: extents along x, y, z.
    cv::Vec3d size{1, 1, 1};
    double yaw_deg = 0;  // box: turn about the vertical axis, counter-clockwise seen from above
    SceneTexture texture;
};

// The camera's pose over time. The body (sensor) frame is x right, y forward (the optical axis),
// z up; at zero angles it coincides with the world frame.
struct SceneMotion {
    cv::Vec3d position{0, 0, 0.5};       // left lens centre in the world, metres
    cv::Vec3d attitude_deg{0, 0, 0};     // yaw (about z), pitch (about x, nose up), roll (about y)
    cv::Vec3d rate_deg_s{0, 0, 0};       // constant turn rate about the body axes
    cv::Vec3d oscillation_axis{1, 0, 0}; // body axis of the angular oscillation
    double oscillation_deg = 0;          // its amplitude
    double oscillation_hz = 0;
    cv::Vec3d translation_amplitude{0, 0, 0};  // world-frame linear oscillation, metres
    double translation_hz = 0;

    bool isStatic() const;
};

struct SceneImu {
    double sample_rate = 200;            // samples per second
    double ticks_per_second = 1000000;   // time-stamp clock
    uint32_t tick_offset = 0;            // time stamp of t = 0
    cv::Vec3i gyro_bias{0, 0, 0};        // counts
    cv::Vec3i accel_bias{0, 0, 0};       // counts
    double gyro_noise = 0;               // standard deviation, counts
    double accel_noise = 0;              // standard deviation, counts
    uint64_t seed = 1;
};

struct SceneRender {
    int samples = 4;                     // rays per axis on pixels at surface boundaries
    cv::Vec3d light_direction{0.3, 0.6, -1.0};  // direction the light travels, world frame
    double ambient = 0.4;
    double diffuse = 0.6;
    double background = 40;              // grey of rays that hit nothing
    bool follow_motion = true;           // false: a moving camera keeps its first image
    // Sensor noise: standard deviation of the Gaussian noise added to every pixel, grey levels.
    // Drawn once per rendering from a fixed seed, so a still camera shows the same noisy pair.
    double noise = 0;
};

struct SceneCalibration {
    // Files the library is to be given; empty when not used. Relative paths in a scene file are
    // resolved against its folder on load.
    std::string intrinsics;
    std::string extrinsics;
    std::string fisheye;
};

struct Scene {
    RigSpec rig;                  // the true lens model the images are rendered through
    SceneCalibration calibration;
    double frame_rate = 30;       // the scene's clock: frame i is at time i / frame_rate
    SceneMotion motion;
    SceneImu imu;
    SceneRender render;
    std::vector<SceneObject> objects;
};

bool loadScene(const std::string& path, Scene& scene, std::string* error);
bool saveScene(const std::string& path, const Scene& scene, std::string* error);
bool writeSceneCalibration(const Scene& scene, std::string* error);
Scene defaultScene();
bool writeDefaultScene(const std::string& folder, std::string* error);
std::string defaultScenePath();

}  // namespace vcam
}  // namespace orvo
