// The virtual camera's frame sources: one abstract source, several implementations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <orvo/vcam/scene.hpp>
#include <orvo/vcam/truth.hpp>

namespace orvo {
namespace vcam {

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

// The sources makeFrameSource chooses from.
std::unique_ptr<FrameSource> makePatternSource();
std::unique_ptr<FrameSource> makeRawSource(const std::string& path, std::string* error);
std::unique_ptr<FrameSource> makeSceneSource(const std::string& path, std::string* error);
std::unique_ptr<FrameSource> makeSceneSource(const Scene& scene, std::string* error);
std::unique_ptr<FrameSource> makeDefaultSceneSource(std::string* error);

// `inner` with every trailer time stamp (the frame's and each inertial record's) and their truth
// moved on by `ticks`, modulo 2^32: a camera whose clock started elsewhere, so that the 32-bit
// wrap comes within seconds (ORVO_VCAM_TICK_OFFSET).
std::unique_ptr<FrameSource> withTickOffset(std::unique_ptr<FrameSource> inner, uint32_t ticks);

}  // namespace vcam
}  // namespace orvo
