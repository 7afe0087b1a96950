// Choice of the frame source from ORVO_VCAM_SOURCE.
#include <orvo/vcam/frame_source.hpp>

#include <cstring>

namespace orvo {
namespace vcam {
namespace {

bool startsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

}  // namespace

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
