// Pictures the tools write: guide lines, disparity colours, plots, montages, checked PNG output.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace orvo_tool {

// The pair side by side in colour, with a horizontal green line every `spacing` rows across both
// images, so that a point and its match can be seen on one row.
cv::Mat pairWithGuideLines(const cv::Mat& first, const cv::Mat& second, int spacing = 16);

// Fixed-point disparity (16 x pixels, CV_16S) as colour: far blue, near red, unmatched black.
// max_disparity sets the top of the scale, in pixels.
cv::Mat colourDisparity(const cv::Mat& disparity16, double max_disparity);

// Metric depth (CV_32F metres, NaN where unknown) as colour: near red, far blue, unknown black,
// with a scale bar in metres along the bottom. The scale spans near_m .. far_m.
cv::Mat colourDepth(const cv::Mat& depth, double near_m, double far_m);

// Roll, pitch and yaw in degrees of the filter's w,x,y,z quaternion (world from body; body x right,
// y forward, z up), for world_from_body = Rz(yaw) * Rx(pitch) * Ry(roll): pitch lifts the nose,
// roll turns about the forward axis (right side down), yaw turns left.
cv::Vec3d eulerDegrees(const float q[4]);

struct Series {
    std::string name;
    cv::Scalar colour;
    std::vector<double> values;
};
// A line plot of several series against a common x axis, with axes, ticks and a legend.
cv::Mat plotSeries(const std::vector<double>& x, const std::vector<Series>& series,
                   const std::string& title, const std::string& x_label, const std::string& y_label,
                   cv::Size size = cv::Size(900, 500));

struct Tile {
    std::string label;
    cv::Mat image;  // grey or colour
};
// Tiles in rows of `columns`, each scaled to `tile_width` and captioned.
cv::Mat montage(const std::vector<Tile>& tiles, int columns, int tile_width);

// Writes a PNG; throws RunError naming the file when it cannot be written.
void writePng(const std::string& path, const cv::Mat& image);

// Creates the directory (and parents) when missing; throws RunError when it cannot.
void ensureDirectory(const std::string& path);

// "dir/name", tolerating a trailing slash.
std::string joinPath(const std::string& dir, const std::string& name);
// "frame_0007" style names.
std::string numbered(const std::string& stem, int index, const std::string& ext);

}  // namespace orvo_tool
