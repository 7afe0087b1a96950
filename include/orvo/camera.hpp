// orvo::Camera: one stereo camera streaming on its own capture thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvo/export.hpp"
#include "orvo/frame.hpp"

namespace orvo {

enum class CameraState { streaming, disconnected, reconnecting, closed };

ORVO_API const char* to_string(CameraState state);

struct CameraOptions {
    std::string intrinsics_file;  // both files set: a Calibration is loaded at open
    std::string extrinsics_file;
    bool rectify = false;         // needs the calibration files
    size_t queue_depth = 2;       // frames kept for grab; the oldest goes when full
    bool reconnect = true;
    std::chrono::milliseconds reconnect_backoff_max{2000};
    std::function<void(CameraState)> on_state_change;  // called on the capture thread
};

struct CameraStats {
    uint64_t frames = 0;      // delivered to the queue
    uint64_t drops = 0;       // frames the device produced that never reached us (sequence gaps)
    uint64_t discarded = 0;   // frames replaced in a full queue before anyone grabbed them
    uint64_t incomplete = 0;  // buffers the driver flagged as bad or returned short
    uint64_t reconnects = 0;
    int last_errno = 0;
    std::string last_error;
    uint64_t last_error_time_ns = 0;  // CLOCK_MONOTONIC
};

class Calibration;

class ORVO_API Camera {
public:
    explicit Camera(const std::string& node);
    Camera(const std::string& node, const CameraOptions& options);
    ~Camera();

    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    std::optional<Frame> grab(std::chrono::milliseconds timeout);

    CameraState state() const;
    CameraStats stats() const;
    const std::string& node() const;
    const Calibration* calibration() const;

    void close();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvo
