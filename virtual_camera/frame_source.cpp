// Choice of the frame source from ORVO_VCAM_SOURCE, and the tick offset laid over any source.
#include <orvo/vcam/frame_source.hpp>

#include <algorithm>
#include <cstring>

#include "frame_geometry.h"
#include "trailer.h"

namespace orvo {
namespace vcam {
namespace {

bool startsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

class TickOffsetSource : public FrameSource {
public:
    TickOffsetSource(std::unique_ptr<FrameSource> inner, uint32_t ticks) : inner_(std::move(inner)), ticks_(ticks) {}

    std::string describe() const override { return inner_->describe() + " +" + std::to_string(ticks_) + " ticks"; }

    // The records' time stamps, and the frame time in the slot after them when there is one.
    void render(uint64_t index, double time_s, uint8_t* dst, FrameTruth& truth) override {
        inner_->render(index, time_s, dst, truth);
        using namespace orvo::frame;
        uint8_t* block = dst + kBytes - kBlockFromEnd;
        const size_t n = std::min<size_t>(dst[kBytes - 1], kRecordSlots);
        for (size_t i = 0; i <= n && i < kRecordSlots; ++i) {
            uint8_t* stamp = block + i * kRecordSize + kRecTime;
            trailer::writeLE32(stamp, trailer::readLE32(stamp) + ticks_);
        }
        if (n < kRecordSlots) truth.frame_ticks += ticks_;
        for (ImuTruthSample& s : truth.imu) s.ticks += ticks_;
    }

private:
    std::unique_ptr<FrameSource> inner_;
    uint32_t ticks_;
};

}  // namespace

std::unique_ptr<FrameSource> withTickOffset(std::unique_ptr<FrameSource> inner, uint32_t ticks) {
    return std::make_unique<TickOffsetSource>(std::move(inner), ticks);
}

// "" gives the default scene, "pattern" the test pattern, "raw:FILE" a recording and
// "scene:FILE" a rendered scene. Returns null and a message naming the problem otherwise.
std::unique_ptr<FrameSource> makeFrameSource(const std::string& name, std::string* error) {
    std::string ignored;
    if (!error) error = &ignored;
    if (name.empty()) return makeDefaultSceneSource(error);
    if (name == "pattern") return makePatternSource();
    if (startsWith(name, "raw:")) return makeRawSource(name.substr(4), error);
    if (name == "scene:") {
        *error = "'scene:' needs a file name (scene:FILE)";
        return nullptr;
    }
    if (startsWith(name, "scene:")) return makeSceneSource(name.substr(6), error);
    *error = "unknown source '" + name + "' (expected pattern, raw:FILE or scene:FILE)";
    return nullptr;
}

}  // namespace vcam
}  // namespace orvo
