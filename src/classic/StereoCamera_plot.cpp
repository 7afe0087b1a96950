// Stereo engine depth path, the picture: the bins as a polar plot with the nearest depth.
#include "StereoCamera.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

#include <opencv2/imgproc.hpp>

namespace {

constexpr int kBinCount = 360;
constexpr double kEmptyDepth = std::numeric_limits<double>::max();

// Plot geometry: 125 pixels per unit of depth around (500, 500), marker and text settings.
constexpr float kPlotCentre = 500.0f;
constexpr int kMarkerSize = 5;
const cv::Scalar kMarkerColour(0, 255, 0, 100);
const cv::Scalar kTextColour(255, 255, 255, 0);
const cv::Point kTextOrigin(10, 10);

// Nearest int, ties to even; out-of-range values saturate and NaN gives INT_MIN, so that any
// range, however large or non-numeric, yields a point far off the plot instead of undefined
// behaviour.
int roundToInt(float v) {
    if (!(v >= -2147483648.0f)) return INT_MIN;
    if (v >= 2147483648.0f) return INT_MAX;
    return int(std::nearbyint(v));
}

// A marker this far outside the image leaves no pixel in it.
bool markerTouches(const cv::Mat& image, const cv::Point& p) {
    const int reach = kMarkerSize;
    return p.x >= -reach && p.y >= -reach && p.x <= image.cols + reach && p.y <= image.rows + reach;
}

}  // namespace

// Pixel of a point at the given range and bearing in the polar plot: 125 pixels per unit around
// (500, 500), forward pointing down the image. A range of exactly 0 (or one that scales to 0) is
// the centre whatever the angle.
cv::Point get_point(float range, float angle) {
    const float scale = range == 0.0f ? 0.0f : range * 1000 / 4000 * 500;
    if (scale == 0.0f) return cv::Point(int(kPlotCentre), int(kPlotCentre));
    const float x = std::fmaf(scale, std::cos(angle), kPlotCentre);
    const float y = std::fmaf(scale, std::sin(angle), kPlotCentre);
    return cv::Point(roundToInt(x), roundToInt(y));
}

// Draws every filled bin as a green diamond at its depth and bearing, then the nearest depth as
// text at the top left. The image is the caller's and is neither created nor cleared; empty bins
// draw nothing. An empty image is refused with a message.
void StereoCamera::draw_point_image(nerapot* bins, cv::Point3d nearest, cv::Mat& image) {
    if (bins == nullptr || image.empty()) {
        std::fprintf(stderr, "draw_point_image: no bins or an empty image\n");
        return;
    }
    for (int b = 0; b < kBinCount; ++b) {
        if (bins[b].min_depth == kEmptyDepth) continue;
        const cv::Point p = get_point(float(bins[b].min_depth), float(bins[b].angle));
        if (!markerTouches(image, p)) continue;
        cv::drawMarker(image, p, kMarkerColour, cv::MARKER_DIAMOND, kMarkerSize, 1, 8);
    }
    const int length = std::snprintf(nullptr, 0, "%f", nearest.z);
    std::string text(size_t(std::max(length, 0)), '\0');
    std::snprintf(&text[0], text.size() + 1, "%f", nearest.z);
    cv::putText(image, text, kTextOrigin, cv::FONT_HERSHEY_PLAIN, 1.0, kTextColour, 1, 8, false);
}

