// The virtual camera's frame sources: one abstract source, several implementations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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

// A frame source fills whole 752 x 480 x 2 frames. Frames are addressed by index so that a
// free-running stream gets 0, 1, 2, ... and a paced one skips the indices of dropped frames.
class FrameSource {
public:
    virtual ~FrameSource() = default;
    virtual std::string describe() const = 0;
    // Writes frame `index` (exactly orvo::frame::kBytes bytes) into dst, and what it knows of the
    // frame into truth (never null). time_s is the frame's time since the stream started.
    virtual void render(uint64_t index, double time_s, uint8_t* dst, FrameTruth& truth) = 0;
};

// Builds the source named by ORVO_VCAM_SOURCE: "" (the built-in scene), "pattern",
// "raw:FILE" or "scene:FILE". On failure returns null and sets *error.
std::unique_ptr<FrameSource> makeFrameSource(const std::string& name, std::string* error);

}  // namespace vcam
}  // namespace orvo
