// The ground-truth file: one line of key=value pairs per frame served.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "frame_source.h"

namespace orvo {
namespace vcam {

class TruthWriter {
public:
    bool open(const std::string& path, std::string* error);
    bool enabled() const { return file_ != nullptr; }
    void write(const FrameTruth& truth, uint32_t bytesused, uint64_t hash, int64_t timestamp_us);

private:
    struct Closer {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    std::unique_ptr<FILE, Closer> file_;
};

}  // namespace vcam
}  // namespace orvo
