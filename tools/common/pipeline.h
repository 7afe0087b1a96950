// The per-frame work the tool and the demo share: nearest-obstacle search, attitude tracking,
// progress reporting.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <OrvoCamera.h>

#include "cli.h"

namespace orvo_tool {

// Search region options (--half-width, --height, --max-depth, --tilt) and their defaults, metres.
void addRegionOptions(Command& cmd);
winpar regionFromArgs(const Args& args);

struct Nearest {
    cv::Point3d point;
    bool found = false;
};

// The bearing bins live here between calls, as the library expects of an application.
class NearestSearch {
public:
    explicit NearestSearch(const winpar& region) : region_(region) {}
    Nearest run(OrvoCamera& camera);
    // The polar plot of the last search (1000 x 1000, colour).
    cv::Mat polarPlot(OrvoCamera& camera, const Nearest& nearest);

private:
    winpar region_;
    std::array<nerapot, 360> bins_{};
};

// Feeds every inertial sample of a frame to the attitude filter. The filter's step period is the
// sample interval: 1 / rate when the rate is known, else the frame interval shared by the samples.
class AttitudeTracker {
public:
    explicit AttitudeTracker(double imu_rate_hz = 0) : rate_hz_(imu_rate_hz) {}
    // Returns the number of filter steps run for this frame.
    size_t feed(OrvoCamera& camera, const std::vector<ImuData>& samples);
    bool settled() const { return settled_; }
    const float* quaternion() const { return q_; }
    size_t steps() const { return steps_; }
    double periodFor(size_t samples_in_frame) const;

    struct Step {
        ImuData sample;
        float period;
        float q[4];
    };
    const std::vector<Step>& lastFrame() const { return last_; }

private:
    double rate_hz_;
    bool settled_ = false;
    float q_[4] = {0, 0, 0, 0};
    size_t steps_ = 0;
    std::vector<Step> last_;
};

// "label: done/total" on standard error: rewritten in place on a terminal, every tenth otherwise.
class Progress {
public:
    Progress(std::string label, int total, bool enabled = true);
    void step(int done);
    void finish();

private:
    std::string label_;
    int total_;
    bool enabled_, tty_;
    int last_decile_ = -1;
    bool finished_ = false;
};

constexpr double kFrameInterval = 1.0 / 30.0;

}  // namespace orvo_tool
