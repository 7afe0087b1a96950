// The frame hash that the truth file carries for every frame served.
#include <orvo/vcam/truth.hpp>

namespace orvo {
namespace vcam {

// 64-bit FNV-1a of the bytes: simple enough for any test to recompute.
uint64_t frameHash(const void* data, size_t length) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < length; ++i) {
        h ^= p[i];
        h *= 0x100000001b3ull;
    }
    return h;
}

}  // namespace vcam
}  // namespace orvo
