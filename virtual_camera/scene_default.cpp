// The default scene: a box obstacle before a textured wall on a textured floor, camera level.
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>

#include <orvo/vcam/frame_source.hpp>
#include <orvo/vcam/scene.hpp>

namespace orvo {
namespace vcam {

namespace {

const char* const kDataDirVariable = "ORVO_DATA_DIR";

// The folder of the file this code was loaded from (this library, or the program it is linked
// into), made absolute; empty when the loader cannot say.
std::string findOwnFolder() {
    Dl_info info;
    if (!dladdr(reinterpret_cast<void*>(&findOwnFolder), &info) || !info.dli_fname || !*info.dli_fname)
        return std::string();
    char resolved[PATH_MAX];
    std::string file = realpath(info.dli_fname, resolved) ? resolved : info.dli_fname;
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string(".") : file.substr(0, slash);
}

const std::string& ownFolder() {
    static const std::string folder = findOwnFolder();
    return folder;
}

// Asked while the library loads: the loader may have been given a relative path (LD_PRELOAD=
// build/...), which only means something in the working folder the program started in.
[[maybe_unused]] const bool kOwnFolderKnown = !ownFolder().empty();

// The data folder: ORVO_DATA_DIR when set, otherwise the one installed with this library, found
// from the library's own place (ORVO_DATA_FROM_LIBDIR is the relative way there, computed at build
// time; the build tree holds a copy at the same place).
std::string dataDir() {
    const char* env = std::getenv(kDataDirVariable);
    if (env && *env) return env;
    return ownFolder() + "/" ORVO_DATA_FROM_LIBDIR;
}

SceneTexture noise(double scale, double mean, double contrast, int octaves, uint32_t seed) {
    SceneTexture t;
    t.kind = SceneTexture::kNoise;
    t.scale = scale;
    t.mean = mean;
    t.contrast = contrast;
    t.octaves = octaves;
    t.seed = seed;
    return t;
}

SceneObject plane(const char* name, cv::Vec3d centre, cv::Vec3d u, cv::Vec3d v, double width,
                  double height, const SceneTexture& texture) {
    SceneObject o;
    o.kind = SceneObject::kPlane;
    o.name = name;
    o.centre = centre;
    o.axis_u = u;
    o.axis_v = v;
    o.size = {width, height, 0};
    o.texture = texture;
    return o;
}

SceneObject box(const char* name, cv::Vec3d centre, cv::Vec3d size, double yaw_deg,
                const SceneTexture& texture) {
    SceneObject o;
    o.kind = SceneObject::kBox;
    o.name = name;
    o.centre = centre;
    o.size = size;
    o.yaw_deg = yaw_deg;
    o.texture = texture;
    return o;
}

}  // namespace

// The scene the virtual camera shows when no source is named, with the default search region
// (half width 0.5, height 0.5, max depth 3) in mind: the camera's left lens 0.5 m above the floor,
// level and still; the obstacle's front face 1.4 m ahead, spanning x -0.1 .. 0.3 and rising 0.3 m
// above the optical axis, so it is the nearest thing in that region; the wall at 4.5 m lies beyond
// the region, the floor below it, and a second box off to the left outside its width.
Scene defaultScene() {
    Scene s;
    // A moderate wide-angle lens: enough distortion that rectification has real work to do, little
    // enough that the rectified focal length stays within 0.5% of the raw one, which is the one the
    // engine's depth uses.
    s.rig.dist_left = {-0.10, 0.03, 0.0008, -0.0005, 0.0};
    s.rig.dist_right = {-0.09, 0.027, -0.0006, 0.0004, 0.0};
    s.calibration.intrinsics = "intrinsics.yml";
    s.calibration.extrinsics = "extrinsics.yml";
    s.imu.gyro_bias = {9, -6, 4};
    s.imu.gyro_noise = 1.5;
    s.imu.accel_noise = 8;
    s.objects.push_back(plane("floor", {0, 4, 0}, {1, 0, 0}, {0, 1, 0}, 16, 12,
                              noise(0.16, 115, 75, 5, 11)));
    s.objects.push_back(plane("wall", {0, 4.5, 2.5}, {1, 0, 0}, {0, 0, 1}, 16, 5,
                              noise(0.20, 150, 80, 5, 17)));
    s.objects.push_back(box("obstacle", {0.1, 1.6, 0.4}, {0.4, 0.4, 0.8}, 0, noise(0.05, 90, 75, 4, 23)));
    s.objects.push_back(box("crate", {-1.1, 2.4, 0.35}, {0.5, 0.5, 0.7}, 25, noise(0.06, 170, 60, 4, 29)));
    return s;
}

// Where the shipped default scene is looked for.
std::string defaultScenePath() { return dataDir() + "/default_scene/scene.yml"; }

// The source used when none is named: the shipped default scene. Null with a message naming the
// place looked in and the variable that changes it when the file is not there.
std::unique_ptr<FrameSource> makeDefaultSceneSource(std::string* error) {
    const std::string path = defaultScenePath();
    if (access(path.c_str(), R_OK) == 0) return makeSceneSource(path, error);
    const char* env = std::getenv(kDataDirVariable);
    if (error) {
        *error = "the default scene " + path + " is missing (looked " +
                 (env && *env ? std::string("in ") + kDataDirVariable + "=" + env
                              : "in the data folder installed beside " + ownFolder()) +
                 "); set " + kDataDirVariable + " to the folder that holds default_scene/scene.yml";
    }
    return nullptr;
}

// Writes the default scene as "scene.yml" with its calibration files "intrinsics.yml" and
// "extrinsics.yml" into an existing folder. Returns false with a message when one cannot be written.
bool writeDefaultScene(const std::string& folder, std::string* error) {
    const std::string path = folder + "/scene.yml";
    Scene written;
    return saveScene(path, defaultScene(), error) && loadScene(path, written, error) &&
           writeSceneCalibration(written, error);
}

}  // namespace vcam
}  // namespace orvo
