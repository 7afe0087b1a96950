// Shared pieces of the fuzz targets: an engine on the virtual camera, quiet start-up, byte readers
// and the check that turns a broken invariant into a crash libFuzzer records.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "StereoCamera.h"

namespace orvo_fuzz {

// The process's standard error as it was at start-up, for reports made while it is silenced.
inline int reportFd() {
    static const int fd = dup(2);
    return fd;
}

// A broken invariant is a finding: report it and abort, so that libFuzzer saves the input.
#define FUZZ_CHECK(cond)                                                                      \
    do {                                                                                      \
        if (!(cond)) {                                                                        \
            dprintf(orvo_fuzz::reportFd(), "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, \
                    #cond);                                                                   \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)

// Runs fn with the process's standard output (and, if asked, standard error) sent to /dev/null:
// the library's start-up and progress lines would drown libFuzzer's own.
template <typename Fn>
void quietly(Fn fn, bool also_stderr = false) {
    reportFd();
    std::fflush(stdout);
    std::fflush(stderr);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const int saved_out = dup(1), saved_err = also_stderr ? dup(2) : -1;
    dup2(null, 1);
    if (also_stderr) dup2(null, 2);
    fn();
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(saved_out, 1);
    close(saved_out);
    if (also_stderr) {
        dup2(saved_err, 2);
        close(saved_err);
    }
    close(null);
}

// Points the virtual camera, free-running, at `source` for the next camera opened.
inline void useVirtualCamera(const std::string& node, const std::string& source) {
    setenv("ORVO_VCAM_DEVICE", node.c_str(), 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", source.c_str(), 1);
    unsetenv("ORVO_VCAM_FAULTS");
    unsetenv("ORVO_VCAM_TRUTH");
}

// A streaming engine without calibration on the virtual camera's node; lives for the whole run.
inline StereoCamera* makeEngine(const std::string& node) {
    DeviceParameter p{};
    p.video_path = node;
    p.width = 752;
    p.height = 480;
    StereoCamera* engine = nullptr;
    quietly([&] { engine = new StereoCamera(p); });
    return engine;
}

inline uint32_t le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline int16_t le16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

// Consumes fixed-size values from the front of a fuzz input; zeros once it runs dry.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    template <typename T>
    T take() {
        T v{};
        const size_t n = size_ < sizeof v ? size_ : sizeof v;
        std::memcpy(&v, data_, n);
        data_ += n;
        size_ -= n;
        return v;
    }
    const uint8_t* rest() const { return data_; }
    size_t remaining() const { return size_; }

private:
    const uint8_t* data_;
    size_t size_;
};

}  // namespace orvo_fuzz
