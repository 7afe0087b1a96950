// The viewer's camera loop: grabs frames on its own thread, runs the matcher, and publishes encoded
// images, the point cloud and telemetry that any number of HTTP clients share.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <opencv2/core.hpp>
#include <orvo/orvo.hpp>
#include <orvo/stereo_matcher.hpp>

#include "imu_attitude.h"

namespace orvo_viewer {

// What the page can change; read once per frame by the loop.
struct ViewerSettings {
    bool matcher = true;
    int disparities = 64;  // the matcher's search range, a multiple of 16 in [16, 256]
    bool rectify = true;   // show rectified images (the matcher always works on rectified ones)
    bool paused = false;   // keep showing the last published frame
};

// One published frame: everything a client may ask for, encoded once for all of them.
struct Products {
    uint64_t version = 0;   // increases by one with every publication
    uint64_t sequence = 0;  // the camera's frame sequence
    std::string left_jpeg, right_jpeg, depth_jpeg;
    cv::Mat left, right, depth_colour;  // for snapshots (grey, grey, BGR)
    cv::Mat points;                     // CV_32FC3, NaN where invalid; empty when the matcher is off
    cv::Mat points_grey;                // the left image the points were coloured from
    std::string cloud;                  // decimated cloud for the page (see encodeCloud)
    std::string telemetry;              // JSON: sequence, IMU samples since the last one, nearest
};

class LivePipeline {
public:
    // Starts the loop on its own thread. `calibration` may be null (then no rectification or depth).
    LivePipeline(orvo::Camera& camera, const orvo::Calibration* calibration);
    ~LivePipeline();
    LivePipeline(const LivePipeline&) = delete;
    LivePipeline& operator=(const LivePipeline&) = delete;

    void stop();

    // The newest publication (null before the first one).
    std::shared_ptr<const Products> latest() const;
    // Waits up to `timeout_ms` for a publication newer than `after`; null on timeout or stop.
    std::shared_ptr<const Products> waitNewer(uint64_t after, int timeout_ms) const;

    ViewerSettings settings() const;
    void setSettings(const ViewerSettings& settings);
    bool hasDepth() const { return calibration_ != nullptr; }

    // Health as JSON: rates, camera counters and state, settings.
    std::string healthJson() const;

    // Clients that stream images; with none the loop only grabs and tracks attitude.
    std::atomic<int> watchers{0};

private:
    void run();
    void publish(const orvo::Frame& frame, const ViewerSettings& s, std::string imu_json);
    void updateRates(uint64_t now_ns);

    orvo::Camera& camera_;
    const orvo::Calibration* calibration_;
    orvo::StereoMatcher matcher_;
    ImuAttitude attitude_;

    mutable std::mutex mutex_;
    mutable std::condition_variable published_;
    std::shared_ptr<const Products> latest_;
    ViewerSettings settings_;
    double camera_fps_ = 0, viewer_fps_ = 0, matcher_ms_ = 0;
    struct RateTick {
        uint64_t ns, delivered, published;
    };
    std::deque<RateTick> rate_ticks_;  // a few per second over the last seconds (see updateRates)
    uint64_t publications_ = 0;

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The page's cloud format: uint32 count, then count x (x, y, z) float32 metres, then count grey
// bytes. Every `step`-th pixel of the organized cloud, invalid points left out.
std::string encodeCloud(const cv::Mat& points, const cv::Mat& grey, int step);

// Disparity as colour (turbo: near red, far blue, unmatched black) on a 0..max_disparity scale.
cv::Mat colourDisparity(const cv::Mat& disparity, int max_disparity);

}  // namespace orvo_viewer
