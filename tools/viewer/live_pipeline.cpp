// The viewer's camera loop: grab, rectify, match, encode once, publish to every client.
#include "live_pipeline.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace orvo_viewer {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kJpegQuality = 80;
constexpr int kCloudStep = 4;  // every 4th pixel each way: at most 188 x 120 points for the page

uint64_t nowNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        Clock::now().time_since_epoch()).count());
}

std::string jpeg(const cv::Mat& image) {
    std::vector<uchar> bytes;
    cv::imencode(".jpg", image, bytes, {cv::IMWRITE_JPEG_QUALITY, kJpegQuality});
    return std::string(bytes.begin(), bytes.end());
}

// The box the nearest obstacle is looked for in: the middle third of the image each way.
cv::Rect centralBox(cv::Size size) {
    return cv::Rect(size.width / 3, size.height / 3, size.width / 3, size.height / 3);
}

// The closest valid point in the box, as JSON ({"found":false} when there is none).
std::string nearestJson(const cv::Mat& depth, const cv::Mat& points, cv::Point* at) {
    const cv::Rect box = centralBox(depth.size());
    float best = INFINITY;
    for (int y = box.y; y < box.y + box.height; ++y) {
        const float* row = depth.ptr<float>(y);
        for (int x = box.x; x < box.x + box.width; ++x)
            if (row[x] > 0 && row[x] < best) best = row[x], *at = cv::Point(x, y);
    }
    if (!std::isfinite(best)) return "{\"found\":false}";
    const cv::Vec3f p = points.at<cv::Vec3f>(*at);
    char text[128];
    std::snprintf(text, sizeof text, "{\"found\":true,\"x\":%.3f,\"y\":%.3f,\"z\":%.3f}", p[0], p[1], p[2]);
    return text;
}

cv::Mat placeholder(cv::Size size, const char* text) {
    cv::Mat image(size, CV_8UC3, cv::Scalar(40, 40, 40));
    cv::putText(image, text, cv::Point(size.width / 2 - 110, size.height / 2), cv::FONT_HERSHEY_SIMPLEX,
                1.0, cv::Scalar(200, 200, 200), 2);
    return image;
}

}  // namespace

cv::Mat colourDisparity(const cv::Mat& disparity, int max_disparity) {
    cv::Mat scaled, colour;
    disparity.convertTo(scaled, CV_8U, 255.0 / max_disparity);  // NaN converts to 0
    cv::applyColorMap(scaled, colour, cv::COLORMAP_TURBO);
    // No match is black. (OpenCV's compare does not flag NaN, so `disparity != disparity` would not do.)
    for (int y = 0; y < disparity.rows; ++y) {
        const float* d = disparity.ptr<float>(y);
        cv::Vec3b* c = colour.ptr<cv::Vec3b>(y);
        for (int x = 0; x < disparity.cols; ++x)
            if (std::isnan(d[x])) c[x] = cv::Vec3b(0, 0, 0);
    }
    return colour;
}

std::string encodeCloud(const cv::Mat& points, const cv::Mat& grey, int step) {
    std::vector<float> xyz;
    std::string shade;
    for (int y = 0; y < points.rows; y += step) {
        const cv::Vec3f* row = points.ptr<cv::Vec3f>(y);
        for (int x = 0; x < points.cols; x += step) {
            if (!std::isfinite(row[x][2])) continue;
            xyz.insert(xyz.end(), {row[x][0], row[x][1], row[x][2]});
            shade.push_back(char(grey.at<uchar>(y, x)));
        }
    }
    const uint32_t count = uint32_t(shade.size());
    std::string out(sizeof count, '\0');
    std::memcpy(&out[0], &count, sizeof count);
    out.append(reinterpret_cast<const char*>(xyz.data()), xyz.size() * sizeof(float));
    return out + shade;
}

LivePipeline::LivePipeline(orvo::Camera& camera, const orvo::Calibration* calibration)
    : camera_(camera), calibration_(calibration) {
    if (!calibration_) settings_.matcher = settings_.rectify = false;
    thread_ = std::thread([this] { run(); });
}

LivePipeline::~LivePipeline() { stop(); }

void LivePipeline::stop() {
    stop_ = true;
    published_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::shared_ptr<const Products> LivePipeline::latest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return latest_;
}

std::shared_ptr<const Products> LivePipeline::waitNewer(uint64_t after, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(mutex_);
    published_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [&] { return stop_ || (latest_ && latest_->version > after); });
    if (stop_ || !latest_ || latest_->version <= after) return nullptr;
    return latest_;
}

ViewerSettings LivePipeline::settings() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return settings_;
}

void LivePipeline::setSettings(const ViewerSettings& s) {
    std::lock_guard<std::mutex> lock(mutex_);
    settings_ = s;
    if (!calibration_) settings_.matcher = settings_.rectify = false;
}

std::string LivePipeline::healthJson() const {
    const orvo::CameraStats st = camera_.stats();
    std::lock_guard<std::mutex> lock(mutex_);
    char text[512];
    std::snprintf(text, sizeof text,
                  "{\"state\":\"%s\",\"camera_fps\":%.1f,\"viewer_fps\":%.1f,\"matcher_ms\":%.1f,"
                  "\"frames\":%llu,\"drops\":%llu,\"discarded\":%llu,\"incomplete\":%llu,\"reconnects\":%llu,"
                  "\"watchers\":%d,\"depth_available\":%s,\"settings\":{\"matcher\":%s,\"disparities\":%d,"
                  "\"rectify\":%s,\"paused\":%s},\"attitude\":{\"roll\":%.2f,\"pitch\":%.2f,\"yaw\":%.2f}}",
                  orvo::to_string(camera_.state()), camera_fps_, viewer_fps_, matcher_ms_,
                  (unsigned long long)st.frames, (unsigned long long)st.drops,
                  (unsigned long long)st.discarded, (unsigned long long)st.incomplete,
                  (unsigned long long)st.reconnects, watchers.load(), calibration_ ? "true" : "false",
                  settings_.matcher ? "true" : "false", settings_.disparities,
                  settings_.rectify ? "true" : "false", settings_.paused ? "true" : "false",
                  attitude_.roll(), attitude_.pitch(), attitude_.yaw());
    return text;
}

// Rates over the last few seconds: frames the camera's capture thread delivered (whether or not
// this loop kept up with them) and frames the loop published. A device that delivers in bursts
// (the virtual camera when the machine is busy) still reads as its average, not as 0 between bursts.
void LivePipeline::updateRates(uint64_t now_ns) {
    constexpr uint64_t kTickNs = 250'000'000, kSpanNs = 3'000'000'000;
    if (!rate_ticks_.empty() && now_ns - rate_ticks_.back().ns < kTickNs) return;
    rate_ticks_.push_back({now_ns, camera_.stats().frames, publications_});
    while (rate_ticks_.size() > 2 && now_ns - rate_ticks_[1].ns >= kSpanNs) rate_ticks_.pop_front();
    const RateTick& first = rate_ticks_.front();
    const double seconds = double(now_ns - first.ns) * 1e-9;
    if (seconds < 0.9) return;
    camera_fps_ = double(rate_ticks_.back().delivered - first.delivered) / seconds;
    viewer_fps_ = double(publications_ - first.published) / seconds;
}

void LivePipeline::run() {
    std::string imu_json;  // samples not yet sent, as JSON rows [t, gx, gy, gz, ax, ay, az, roll, pitch, yaw]
    while (!stop_) {
        // Every queued frame's IMU samples are used; only the newest frame's images are.
        std::optional<orvo::Frame> frame = camera_.grab(std::chrono::milliseconds(200));
        std::vector<orvo::ImuSample> samples;
        for (std::optional<orvo::Frame> next = frame; next; next = camera_.grab(std::chrono::milliseconds(0))) {
            samples.insert(samples.end(), next->imu.begin(), next->imu.end());
            frame = std::move(next);
        }
        ViewerSettings s;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (frame) {
                for (const orvo::ImuSample& sample : samples) {
                    attitude_.update(sample);
                    char row[200];
                    std::snprintf(row, sizeof row, "%s[%.4f,%.4f,%.4f,%.4f,%.3f,%.3f,%.3f,%.2f,%.2f,%.2f]",
                                  imu_json.empty() ? "" : ",", double(sample.device_time_us) * 1e-6,
                                  sample.gyro_rad_s[0], sample.gyro_rad_s[1], sample.gyro_rad_s[2],
                                  sample.accel_m_s2[0], sample.accel_m_s2[1], sample.accel_m_s2[2],
                                  attitude_.roll(), attitude_.pitch(), attitude_.yaw());
                    imu_json += row;
                }
            }
            updateRates(nowNs());
            s = settings_;
        }
        // Nobody watching, or paused: keep the camera drained and the attitude current, no more.
        if (!frame || s.paused || watchers.load() == 0) {
            if (frame) imu_json.clear();  // the plots show what arrives while someone watches
            continue;
        }
        publish(*frame, s, std::move(imu_json));
        imu_json.clear();
    }
}

void LivePipeline::publish(const orvo::Frame& frame, const ViewerSettings& s, std::string imu_json) {
    auto p = std::make_shared<Products>();
    p->sequence = frame.sequence;
    cv::Mat rect_left, rect_right;
    if (calibration_) calibration_->rectify(frame.left, frame.right, rect_left, rect_right);
    p->left = s.rectify ? rect_left : frame.left;
    p->right = s.rectify ? rect_right : frame.right;

    std::string nearest = "{\"found\":false}";
    double matcher_ms = 0;
    if (s.matcher && calibration_) {
        orvo::MatcherParams params = matcher_.params();
        if (params.num_disparities != s.disparities) {
            params.num_disparities = s.disparities;
            matcher_.set_params(params);
        }
        const auto t0 = Clock::now();
        orvo::Depth d = matcher_.compute(rect_left, rect_right, calibration_->geometry());
        matcher_ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        p->depth_colour = colourDisparity(d.disparity, s.disparities);
        cv::Point at(-1, -1);
        nearest = nearestJson(d.depth, d.points, &at);
        cv::rectangle(p->depth_colour, centralBox(d.depth.size()), cv::Scalar(255, 255, 255), 1);
        if (at.x >= 0) cv::drawMarker(p->depth_colour, at, cv::Scalar(255, 255, 255), cv::MARKER_CROSS, 18, 2);
        p->points = d.points;
        p->points_grey = rect_left;
        p->cloud = encodeCloud(d.points, rect_left, kCloudStep);
    } else {
        p->depth_colour = placeholder(frame.left.size(), calibration_ ? "matcher off" : "no calibration");
        p->cloud = encodeCloud(cv::Mat(), cv::Mat(), kCloudStep);
    }
    p->left_jpeg = jpeg(p->left);
    p->right_jpeg = jpeg(p->right);
    p->depth_jpeg = jpeg(p->depth_colour);

    const double depth_scale = calibration_ ? calibration_->geometry().fx * calibration_->geometry().baseline : 0;
    char head[200];
    std::snprintf(head, sizeof head, "{\"sequence\":%llu,\"disparities\":%d,\"depth_scale\":%.5f,\"nearest\":",
                  (unsigned long long)frame.sequence, s.disparities, depth_scale);
    p->telemetry = std::string(head) + nearest + ",\"imu\":[" + imu_json + "]}";

    std::lock_guard<std::mutex> lock(mutex_);
    p->version = latest_ ? latest_->version + 1 : 1;
    matcher_ms_ = matcher_ms;
    ++publications_;
    latest_ = std::move(p);
    published_.notify_all();
}

}  // namespace orvo_viewer
