// Drawing helpers for the tools' pictures; OpenCV only, no display needed.
#include "imaging.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "cli.h"

namespace orvo_tool {

namespace {

cv::Mat toColour(const cv::Mat& img) {
    cv::Mat out;
    if (img.channels() == 1) cv::cvtColor(img, out, cv::COLOR_GRAY2BGR);
    else out = img.clone();
    return out;
}

std::string formatTick(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, std::fabs(v) >= 100 || v == std::floor(v) ? "%.0f" : "%.1f", v);
    return buf;
}

// A "nice" step (1, 2 or 5 times a power of ten) giving about `target` ticks over the range.
double tickStep(double range, int target) {
    double raw = range / target;
    double p = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * p >= raw) return m * p;
    return 10 * p;
}

}  // namespace

cv::Mat pairWithGuideLines(const cv::Mat& first, const cv::Mat& second, int spacing) {
    cv::Mat canvas;
    cv::hconcat(toColour(first), toColour(second), canvas);
    for (int y = 0; y < canvas.rows; y += spacing)
        cv::line(canvas, cv::Point(0, y), cv::Point(canvas.cols - 1, y), cv::Scalar(0, 255, 0), 1);
    return canvas;
}

cv::Mat colourDisparity(const cv::Mat& disparity16, double max_disparity) {
    CV_Assert(disparity16.type() == CV_16SC1 && max_disparity > 0);
    cv::Mat scaled, colour;
    // 16 fixed-point units per pixel; the colour scale spans 1..255 so that 0 stays for "none".
    disparity16.convertTo(scaled, CV_8U, 254.0 / (16.0 * max_disparity), 1.0);
    cv::applyColorMap(scaled, colour, cv::COLORMAP_JET);
    colour.setTo(cv::Scalar::all(0), disparity16 <= 0);
    return colour;
}

cv::Mat colourDepth(const cv::Mat& depth, double near_m, double far_m) {
    CV_Assert(depth.type() == CV_32FC1 && far_m > near_m);
    const int bar = 40;  // rows below the image for the bar and its labels
    // Near is red (the top of JET), far blue; grey levels 1..255 so that 0 stays for "unknown".
    cv::Mat grey, colour;
    depth.convertTo(grey, CV_8U, -254.0 / (far_m - near_m), 255.0 + 254.0 * near_m / (far_m - near_m));
    cv::applyColorMap(grey, colour, cv::COLORMAP_JET);
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x)
            if (std::isnan(depth.at<float>(y, x))) colour.at<cv::Vec3b>(y, x) = cv::Vec3b(0, 0, 0);
    cv::Mat out(depth.rows + bar, depth.cols, CV_8UC3, cv::Scalar::all(255));
    colour.copyTo(out(cv::Rect(0, 0, depth.cols, depth.rows)));
    const int left = 10, width = depth.cols - 20;
    cv::Mat ramp(1, width, CV_8U);
    for (int x = 0; x < width; ++x) ramp.at<uint8_t>(0, x) = cv::saturate_cast<uint8_t>(255 - 254.0 * x / (width - 1));
    cv::Mat ramp_colour;
    cv::applyColorMap(ramp, ramp_colour, cv::COLORMAP_JET);
    cv::resize(ramp_colour, ramp_colour, cv::Size(width, 12), 0, 0, cv::INTER_NEAREST);
    ramp_colour.copyTo(out(cv::Rect(left, depth.rows + 4, width, 12)));
    const double step = far_m - near_m > 4 ? 1.0 : 0.5;
    for (double m = std::ceil(near_m / step) * step; m <= far_m + 1e-9; m += step) {
        const int x = left + int(std::lround((m - near_m) / (far_m - near_m) * (width - 1)));
        cv::line(out, cv::Point(x, depth.rows + 2), cv::Point(x, depth.rows + 18), cv::Scalar::all(0));
        char label[16];
        std::snprintf(label, sizeof label, "%.1f m", m);
        cv::putText(out, label, cv::Point(std::min(x + 2, out.cols - 45), depth.rows + 34),
                    cv::FONT_HERSHEY_SIMPLEX, 0.4, cv::Scalar::all(0), 1, cv::LINE_AA);
    }
    return out;
}

cv::Vec3d eulerDegrees(const float q[4]) {
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    const double deg = 180.0 / M_PI;
    // Elements of the rotation matrix that the decomposition needs.
    const double r01 = 2 * (x * y - w * z), r11 = 1 - 2 * (x * x + z * z);
    const double r20 = 2 * (x * z - w * y), r21 = 2 * (y * z + w * x), r22 = 1 - 2 * (x * x + y * y);
    const double pitch = std::asin(std::max(-1.0, std::min(1.0, r21)));
    const double roll = std::atan2(-r20, r22);
    const double yaw = std::atan2(-r01, r11);
    return cv::Vec3d(roll * deg, pitch * deg, yaw * deg);
}

cv::Mat plotSeries(const std::vector<double>& x, const std::vector<Series>& series,
                   const std::string& title, const std::string& x_label, const std::string& y_label,
                   cv::Size size) {
    cv::Mat img(size, CV_8UC3, cv::Scalar(255, 255, 255));
    const int left = 70, right = 20, top = 40, bottom = 55;
    const cv::Rect area(left, top, size.width - left - right, size.height - top - bottom);
    const cv::Scalar ink(40, 40, 40), grid(225, 225, 225);
    const auto font = cv::FONT_HERSHEY_SIMPLEX;

    double x0 = 0, x1 = 1, y0 = -1, y1 = 1;
    if (!x.empty()) x0 = *std::min_element(x.begin(), x.end()), x1 = *std::max_element(x.begin(), x.end());
    bool any = false;
    for (const Series& s : series)
        for (double v : s.values) {
            if (!std::isfinite(v)) continue;
            if (!any) y0 = y1 = v, any = true;
            y0 = std::min(y0, v), y1 = std::max(y1, v);
        }
    if (x1 - x0 < 1e-9) x1 = x0 + 1;
    double pad = std::max(1.0, (y1 - y0) * 0.08);
    y0 -= pad, y1 += pad;

    auto px = [&](double v) { return area.x + int(std::lround((v - x0) / (x1 - x0) * area.width)); };
    auto py = [&](double v) { return area.y + area.height - int(std::lround((v - y0) / (y1 - y0) * area.height)); };

    double xs = tickStep(x1 - x0, 8), ys = tickStep(y1 - y0, 6);
    for (double t = std::ceil(x0 / xs) * xs; t <= x1 + 1e-9; t += xs) {
        cv::line(img, {px(t), area.y}, {px(t), area.y + area.height}, grid);
        cv::putText(img, formatTick(t), {px(t) - 12, area.y + area.height + 18}, font, 0.45, ink, 1, cv::LINE_AA);
    }
    for (double t = std::ceil(y0 / ys) * ys; t <= y1 + 1e-9; t += ys) {
        cv::line(img, {area.x, py(t)}, {area.x + area.width, py(t)}, grid);
        cv::putText(img, formatTick(t), {8, py(t) + 5}, font, 0.45, ink, 1, cv::LINE_AA);
    }
    cv::rectangle(img, area, ink, 1);
    cv::putText(img, title, {left, 25}, font, 0.6, ink, 1, cv::LINE_AA);
    cv::putText(img, x_label, {area.x + area.width / 2 - 40, size.height - 12}, font, 0.5, ink, 1, cv::LINE_AA);
    cv::putText(img, y_label, {8, top - 10}, font, 0.45, ink, 1, cv::LINE_AA);

    int legend_x = area.x + area.width - 110, legend_y = area.y + 18;
    for (const Series& s : series) {
        std::vector<cv::Point> pts;
        for (size_t i = 0; i < s.values.size() && i < x.size(); ++i)
            if (std::isfinite(s.values[i])) pts.emplace_back(px(x[i]), py(s.values[i]));
        if (pts.size() > 1) cv::polylines(img, pts, false, s.colour, 2, cv::LINE_AA);
        cv::line(img, {legend_x, legend_y - 4}, {legend_x + 25, legend_y - 4}, s.colour, 2);
        cv::putText(img, s.name, {legend_x + 32, legend_y}, font, 0.5, ink, 1, cv::LINE_AA);
        legend_y += 20;
    }
    return img;
}

cv::Mat montage(const std::vector<Tile>& tiles, int columns, int tile_width) {
    CV_Assert(columns > 0 && tile_width > 0);
    const int caption = 28;
    std::vector<cv::Mat> rows;
    for (size_t start = 0; start < tiles.size(); start += size_t(columns)) {
        std::vector<cv::Mat> cells;
        int height = 0;
        for (size_t i = start; i < std::min(tiles.size(), start + size_t(columns)); ++i) {
            const cv::Mat& src = tiles[i].image;
            int h = src.empty() ? tile_width / 2
                                : int(std::lround(double(src.rows) * tile_width / src.cols));
            height = std::max(height, h);
        }
        for (size_t i = start; i < start + size_t(columns); ++i) {
            cv::Mat cell(height + caption, tile_width, CV_8UC3, cv::Scalar(30, 30, 30));
            if (i < tiles.size()) {
                const cv::Mat& src = tiles[i].image;
                if (!src.empty()) {
                    cv::Mat scaled;
                    int h = int(std::lround(double(src.rows) * tile_width / src.cols));
                    cv::resize(toColour(src), scaled, cv::Size(tile_width, h), 0, 0, cv::INTER_AREA);
                    scaled.copyTo(cell(cv::Rect(0, caption, tile_width, h)));
                }
                cv::putText(cell, tiles[i].label, {8, 20}, cv::FONT_HERSHEY_SIMPLEX, 0.6,
                            cv::Scalar(255, 255, 255), 1, cv::LINE_AA);
            }
            cells.push_back(cell);
        }
        cv::Mat row;
        cv::hconcat(cells, row);
        rows.push_back(row);
    }
    cv::Mat out;
    if (!rows.empty()) cv::vconcat(rows, out);
    return out;
}

void writePng(const std::string& path, const cv::Mat& image) {
    bool ok = false;
    try {
        ok = !image.empty() && cv::imwrite(path, image);
    } catch (const cv::Exception& e) {
        throw RunError("cannot write " + path + ": " + e.msg);
    }
    if (!ok) throw RunError("cannot write " + path);
}

void ensureDirectory(const std::string& path) {
    if (path.empty()) return;
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            throw RunError("cannot create directory " + partial + ": " + std::strerror(errno));
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw RunError(path + " is not a directory");
}

std::string joinPath(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string numbered(const std::string& stem, int index, const std::string& ext) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "_%04d", index);
    return stem + buf + ext;
}

}  // namespace orvo_tool
