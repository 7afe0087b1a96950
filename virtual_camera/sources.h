// Constructors of the built-in frame sources, for makeFrameSource.
#pragma once

#include <memory>
#include <string>

#include "frame_source.h"

namespace orvo {
namespace vcam {

std::unique_ptr<FrameSource> makePatternSource();
std::unique_ptr<FrameSource> makeRawSource(const std::string& path, std::string* error);

// The frame time of a trailer whose count leaves a slot for it (count <= 19); false otherwise.
bool trailerFrameTicks(const uint8_t* frame, size_t length, uint32_t* ticks);

}  // namespace vcam
}  // namespace orvo
