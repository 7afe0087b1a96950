// Constructors of the built-in frame sources, for makeFrameSource.
#pragma once

#include <memory>
#include <string>

#include "frame_source.h"

namespace orvo {
namespace vcam {

std::unique_ptr<FrameSource> makePatternSource();
std::unique_ptr<FrameSource> makeRawSource(const std::string& path, std::string* error);

}  // namespace vcam
}  // namespace orvo
