// Preloaded under Valgrind only: stands in for the timer calibration that libhwy (loaded with
// OpenCV's image codecs) runs when it is loaded. It executes rdtscp, which this machine's CPU does
// not advertise, so Valgrind's CPU model stops the process there. Nothing of ours uses the timer.
#include <cstdint>

namespace hwy {
namespace platform {
__attribute__((visibility("default"))) uint64_t TimerResolution() { return 1; }
}  // namespace platform
}  // namespace hwy
