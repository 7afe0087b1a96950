// Writes the ground-truth lines, one per frame served.
#include "truth_writer.h"

#include <cerrno>
#include <cstring>

#include "real_calls.h"

namespace orvo {
namespace vcam {

// Checks that the file can be appended to; false with a message when it cannot be. The file is
// opened for each line, so that it holds no descriptor between frames and a reader sees every
// frame already served.
bool TruthWriter::open(const std::string& path, std::string* error) {
    FILE* f = real::fopen(path.c_str(), "a");
    if (!f) {
        *error = "ORVO_VCAM_TRUTH: cannot open '" + path + "' for appending: " + std::strerror(errno);
        return false;
    }
    std::fclose(f);
    path_ = path;
    return true;
}

void TruthWriter::write(const FrameTruth& t, uint32_t bytesused, uint64_t hash, int64_t timestamp_us) {
    if (path_.empty()) return;
    FILE* f = real::fopen(path_.c_str(), "a");
    if (!f) return;
    std::fprintf(f, "index=%llu sequence=%u time=%.17g timestamp=%lld.%06lld ticks=%u bytes=%u hash=%016llx imu=%zu",
                 static_cast<unsigned long long>(t.index), t.sequence, t.time_s,
                 static_cast<long long>(timestamp_us / 1000000), static_cast<long long>(timestamp_us % 1000000),
                 t.frame_ticks, bytesused, static_cast<unsigned long long>(hash), t.imu.size());
    for (size_t i = 0; i < t.imu.size(); ++i) {
        const ImuTruthSample& s = t.imu[i];
        std::fprintf(f, " imu%zu=%u:%.17g,%.17g,%.17g:%.17g,%.17g,%.17g:%d,%d,%d:%d,%d,%d", i, s.ticks,
                     s.gyro_rad_s[0], s.gyro_rad_s[1], s.gyro_rad_s[2], s.accel_g[0], s.accel_g[1], s.accel_g[2],
                     s.gyro_raw[0], s.gyro_raw[1], s.gyro_raw[2], s.accel_raw[0], s.accel_raw[1], s.accel_raw[2]);
    }
    if (t.has_attitude)
        std::fprintf(f, " attitude=%.17g,%.17g,%.17g,%.17g", t.attitude[0], t.attitude[1], t.attitude[2],
                     t.attitude[3]);
    if (!t.extra.empty()) std::fprintf(f, " %s", t.extra.c_str());
    std::fputc('\n', f);
    std::fclose(f);
}

}  // namespace vcam
}  // namespace orvo
