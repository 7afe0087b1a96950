// Nearest-obstacle search, attitude tracking and progress output shared by the tool and the demo.
#include "pipeline.h"

#include <unistd.h>

#include <cfloat>
#include <cstdio>

#include <opencv2/imgproc.hpp>

namespace orvo_tool {

void addRegionOptions(Command& cmd) {
    cmd.option({"half-width", Value::Required, "M", "half-width of the search box, metres", "0.5"});
    cmd.option({"height", Value::Required, "M", "how far above the optical axis to look, metres", "0.5"});
    cmd.option({"max-depth", Value::Required, "M", "farthest depth searched, metres", "3.0"});
    cmd.option({"tilt", Value::Required, "RAD", "camera pitch to correct for, radians", "0"});
}

winpar regionFromArgs(const Args& args) {
    winpar r;
    r.half_width = args.positiveNumber("half-width", 0.5);
    r.height = args.positiveNumber("height", 0.5);
    r.max_depth = args.positiveNumber("max-depth", 3.0);
    r.tilt = args.number("tilt", 0.0);
    return r;
}

// The library reports "nothing found" as a depth of the largest double.
Nearest NearestSearch::run(OrvoCamera& camera) {
    Nearest n;
    camera.getNearestPoint(region_, bins_.data(), n.point);
    n.found = n.point.z < DBL_MAX;
    return n;
}

cv::Mat NearestSearch::polarPlot(OrvoCamera& camera, const Nearest& nearest) {
    cv::Mat plot(1000, 1000, CV_8UC3, cv::Scalar::all(0));
    // Range rings every metre (125 plot pixels) around the camera at the centre, forward down.
    const cv::Scalar grey(70, 70, 70);
    for (int r = 1; r <= 4; ++r) {
        cv::circle(plot, cv::Point(500, 500), 125 * r, grey, 1);
        cv::putText(plot, std::to_string(r) + " m", cv::Point(506, 500 + 125 * r - 5),
                    cv::FONT_HERSHEY_PLAIN, 1.0, cv::Scalar(120, 120, 120), 1);
    }
    cv::line(plot, cv::Point(500, 500), cv::Point(500, 999), grey, 1);
    camera.getPointImage(bins_.data(), nearest.point, plot);
    return plot;
}

double AttitudeTracker::periodFor(size_t samples_in_frame) const {
    if (rate_hz_ > 0) return 1.0 / rate_hz_;
    return samples_in_frame ? kFrameInterval / double(samples_in_frame) : kFrameInterval;
}

size_t AttitudeTracker::feed(OrvoCamera& camera, const std::vector<ImuData>& samples) {
    last_.clear();
    const float period = float(periodFor(samples.size()));
    for (const ImuData& s : samples) {
        Step step{s, period, {0, 0, 0, 0}};
        camera.ImuRect(s, period, step.q);
        if (step.q[0] != 0 || step.q[1] != 0 || step.q[2] != 0 || step.q[3] != 0) {
            settled_ = true;
            for (int i = 0; i < 4; ++i) q_[i] = step.q[i];
        }
        last_.push_back(step);
        ++steps_;
    }
    return samples.size();
}

Progress::Progress(std::string label, int total, bool enabled)
    : label_(std::move(label)), total_(total), enabled_(enabled), tty_(isatty(STDERR_FILENO) == 1) {}

void Progress::step(int done) {
    if (!enabled_ || total_ <= 0) return;
    if (tty_) {
        std::fprintf(stderr, "\r%s: %d/%d", label_.c_str(), done, total_);
        std::fflush(stderr);
        return;
    }
    int decile = done * 10 / total_;
    if (decile != last_decile_ && (done == total_ || decile > 0)) {
        std::fprintf(stderr, "%s: %d/%d\n", label_.c_str(), done, total_);
        last_decile_ = decile;
    }
}

void Progress::finish() {
    if (!enabled_ || finished_) return;
    finished_ = true;
    if (tty_) std::fprintf(stderr, "\n");
}

}  // namespace orvo_tool
