// Choice of the frame source from ORVO_VCAM_SOURCE, and the inertial trailer's encoder.
#include "frame_source.h"

#include <cstring>

#include "frame_format.h"
#include "scene.h"
#include "sources.h"

namespace orvo {
namespace vcam {
namespace {

bool startsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

void putU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

void putI16(uint8_t* p, int16_t v) {
    uint16_t u = uint16_t(v);
    p[0] = uint8_t(u);
    p[1] = uint8_t(u >> 8);
}

}  // namespace

// "" gives the default scene, "pattern" the test pattern, "raw:FILE" a recording and
// "scene:FILE" a rendered scene. Returns null and a message naming the problem otherwise.
std::unique_ptr<FrameSource> makeFrameSource(const std::string& spec, std::string* error) {
    std::string ignored;
    if (!error) error = &ignored;
    if (spec.empty()) return makeDefaultSceneSource(error);
    if (spec == "pattern") return makePatternSource();
    if (startsWith(spec, "raw:")) return makeRawSource(spec.substr(4), error);
    if (spec == "scene:") {
        *error = "'scene:' needs a file name (scene:FILE)";
        return nullptr;
    }
    if (startsWith(spec, "scene:")) return makeSceneSource(spec.substr(6), error);
    *error = "unknown source '" + spec + "' (expected pattern, raw:FILE or scene:FILE)";
    return nullptr;
}

// Writes the trailer into the frame's last 489 bytes, which it first clears: records in slots
// 0..N-1 (N at most 20), the frame time at the start of slot N when N < 20, N in the last byte.
// A frame shorter than the trailer is left untouched.
void encodeTrailer(uint8_t* frame, size_t length, const std::vector<TrailerRecord>& records,
                   uint32_t frame_ticks) {
    using namespace orvo::frame;
    if (!frame || length < kTrailerSize) return;
    uint8_t* block = frame + length - kBlockFromEnd;
    std::memset(block, 0, kTrailerSize);
    size_t n = records.size() < kRecordSlots ? records.size() : kRecordSlots;
    for (size_t i = 0; i < n; ++i) {
        uint8_t* rec = block + i * kRecordSize;
        const TrailerRecord& r = records[i];
        putU32(rec + kRecTime, r.ticks);
        for (int axis = 0; axis < 3; ++axis) {
            putI16(rec + kRecGyro + 2 * axis, r.gyro[axis]);
            putI16(rec + kRecAccel + 2 * axis, r.accel[axis]);
        }
    }
    if (n < kRecordSlots) putU32(block + n * kRecordSize + kRecTime, frame_ticks);
    frame[length - 1] = uint8_t(n);
}

bool trailerFrameTicks(const uint8_t* frame, size_t length, uint32_t* ticks) {
    using namespace orvo::frame;
    if (!frame || length < kTrailerSize) return false;
    size_t n = frame[length - 1];
    if (n >= kRecordSlots) return false;
    const uint8_t* p = frame + length - kBlockFromEnd + n * kRecordSize + kRecTime;
    *ticks = uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
    return true;
}

}  // namespace vcam
}  // namespace orvo
