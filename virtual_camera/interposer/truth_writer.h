// The ground-truth file: one line of key=value pairs per frame served.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include <orvo/vcam/truth.hpp>

namespace orvo {
namespace vcam {

class TruthWriter {
public:
    bool open(const std::string& path, std::string* error);
    bool enabled() const { return !path_.empty(); }
    void write(const FrameTruth& truth, uint32_t bytesused, uint64_t hash, int64_t timestamp_us);

private:
    std::string path_;
};

}  // namespace vcam
}  // namespace orvo
