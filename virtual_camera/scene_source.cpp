// The scene frame source: rendered stereo frames with the inertial trailer of the camera's motion.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include <orvo/vcam/frame_source.hpp>
#include <orvo/vcam/render.hpp>

#include "frame_geometry.h"
#include "trailer.h"

namespace orvo {
namespace vcam {

namespace {

const char* const kTruthBoxVariable = "ORVO_VCAM_TRUTH_BOX";

using Images = std::vector<uint8_t>;  // both lenses' images interleaved: one whole frame

// The camera interleaves its lenses byte by byte: the left lens on the odd bytes (the first
// image), the right lens on the even bytes.
void interleave(const cv::Mat& left, const cv::Mat& right, Images& out) {
    const uint8_t* l = left.ptr<uint8_t>();
    const uint8_t* r = right.ptr<uint8_t>();
    for (size_t p = 0; p < frame::kPixels; ++p) {
        out[2 * p] = r[p];
        out[2 * p + 1] = l[p];
    }
}

// Images of a camera that keeps them, rendered once. The last ones are remembered for the process
// under `key` (the scene file's path and text; empty: not remembered), because the virtual camera
// makes a new source at every fresh open and test suites open the same scene many times.
std::shared_ptr<const Images> stillImages(const Scene& scene, const std::string& key) {
    static std::mutex mutex;
    static std::string cached_key;
    static std::shared_ptr<const Images> cached;
    std::lock_guard<std::mutex> lock(mutex);
    if (!key.empty() && key == cached_key) return cached;
    auto images = std::make_shared<Images>(frame::kBytes);
    cv::Mat left, right;
    SceneRenderer(scene, Rig(scene.rig)).render(scenePose(scene.motion, 0), left, right);
    interleave(left, right, *images);
    if (!key.empty()) {
        cached_key = key;
        cached = images;
    }
    return images;
}

class SceneSource : public FrameSource {
public:
    SceneSource(const Scene& scene, std::string name, const std::string& key, bool has_box,
                const SearchBox& box)
        : scene_(scene), name_(std::move(name)), rig_(scene.rig), has_box_(has_box), box_(box) {
        records_.reserve(frame::kRecordSlots);
        // Still images are ready before the first frame is due, so a paced stream is not held up.
        if (scene.render.follow_motion && !scene.motion.isStatic()) {
            renderer_ = std::make_unique<SceneRenderer>(scene_, rig_);
            moving_.resize(frame::kBytes);
        } else {
            still_ = stillImages(scene_, key);
        }
    }

    std::string describe() const override { return name_; }
    void render(uint64_t index, double time_s, uint8_t* dst, FrameTruth& truth) override;

private:
    void fillTrailer(int64_t index, uint8_t* dst, FrameTruth& truth);
    std::string nearestDepthExtra(const ScenePose& pose) const;

    Scene scene_;
    std::string name_;
    Rig rig_;
    bool has_box_;
    SearchBox box_;
    std::shared_ptr<const Images> still_;      // a camera that keeps its images
    std::unique_ptr<SceneRenderer> renderer_;  // a camera whose images follow its motion
    Images moving_;
    cv::Mat left_, right_;
    std::vector<trailer::Record> records_;
};

void SceneSource::fillTrailer(int64_t index, uint8_t* dst, FrameTruth& truth) {
    const int64_t first = lastSampleOfFrame(scene_, index - 1) + 1;
    const int64_t last = lastSampleOfFrame(scene_, index);
    records_.clear();
    truth.imu.clear();
    for (int64_t k = first; k <= last; ++k) {
        const ImuTruthSample s = imuSample(scene_, k);
        trailer::Record r;
        r.ticks = s.ticks;
        std::memcpy(r.gyro, s.gyro_raw, sizeof r.gyro);
        std::memcpy(r.accel, s.accel_raw, sizeof r.accel);
        records_.push_back(r);
        truth.imu.push_back(s);
    }
    truth.frame_ticks = frameTicks(scene_, index);
    trailer::encode(dst, frame::kBytes, records_, truth.frame_ticks);
}

std::string SceneSource::nearestDepthExtra(const ScenePose& pose) const {
    const double depth = nearestDepthInBox(scene_, rig_, pose.world_from_camera, pose.position, box_);
    char text[64];
    std::snprintf(text, sizeof text, "nearest_depth=%.6f", depth);
    return text;
}

// Frame `index` is at index / frame_rate on the scene's clock, whatever time the stream serves it
// at, so a replay gives the same frames and samples; time_s is the server's business.
void SceneSource::render(uint64_t index, double /*time_s*/, uint8_t* dst, FrameTruth& truth) {
    const double t = double(index) / scene_.frame_rate;
    const ScenePose pose = scenePose(scene_.motion, t);
    const uint8_t* images = still_ ? still_->data() : moving_.data();
    if (renderer_) {
        renderer_->render(pose, left_, right_);
        interleave(left_, right_, moving_);
    }
    std::memcpy(dst, images, frame::kBytes);
    fillTrailer(int64_t(index), dst, truth);
    truth.has_attitude = true;
    const cv::Vec4d q = attitudeQuaternion(pose.world_from_body);
    for (int i = 0; i < 4; ++i) truth.attitude[i] = q[i];
    truth.extra = has_box_ ? nearestDepthExtra(pose) : std::string();
}

bool truthBoxFromEnvironment(bool& has_box, SearchBox& box, std::string* error) {
    const char* text = std::getenv(kTruthBoxVariable);
    has_box = text && *text;
    return !has_box || parseSearchBox(text, box, error);
}

std::unique_ptr<FrameSource> makeSource(const Scene& scene, const std::string& name,
                                        const std::string& key, std::string* error) {
    if (scene.rig.size != cv::Size(frame::kWidth, frame::kHeight)) {
        if (error) *error = "the scene's rig must be 752 x 480";
        return nullptr;
    }
    bool has_box = false;
    SearchBox box;
    if (!truthBoxFromEnvironment(has_box, box, error)) return nullptr;
    return std::make_unique<SceneSource>(scene, name, key, has_box, box);
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

// The source of "scene:FILE". Returns null with a message when the file or ORVO_VCAM_TRUTH_BOX
// is unusable.
std::unique_ptr<FrameSource> makeSceneSource(const std::string& path, std::string* error) {
    Scene scene;
    if (!loadScene(path, scene, error)) return nullptr;
    return makeSource(scene, "scene:" + path, path + "\n" + fileText(path), error);
}

// The source of a scene built in code (tests); null with a message as above.
std::unique_ptr<FrameSource> makeSceneSource(const Scene& scene, std::string* error) {
    return makeSource(scene, "scene", "", error);
}

}  // namespace vcam
}  // namespace orvo
