// Metric depth and organized points from disparities; binary PLY and PCD writers.
#include "orvo/point_cloud.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <system_error>
#include <vector>

#include "orvo/error.hpp"
#include "orvo/stereo_matcher.hpp"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the writers store host floats as little-endian");

namespace orvo {

// depth = fx * baseline / d (metres), NaN where d is NaN or not positive; points
// (x, y, z) = ((u - cx) z / fx, (v - cy) z / fy, z), NaN where the depth is. Throws
// std::invalid_argument for a disparity that is not CV_32F or a geometry without positive fx, fy.
void disparity_to_depth(const cv::Mat& disparity, const StereoGeometry& g, cv::Mat& depth,
                        cv::Mat& points) {
    if (disparity.type() != CV_32F) throw orvo::Error(EINVAL, "orvo::disparity_to_depth: the disparity must be CV_32F");
    if (!(g.fx > 0) || !(g.fy > 0))
        throw orvo::Error(EINVAL, "orvo::disparity_to_depth: the geometry needs positive fx and fy");
    depth.create(disparity.size(), CV_32F);
    points.create(disparity.size(), CV_32FC3);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const double fb = g.fx * g.baseline;
    for (int v = 0; v < disparity.rows; ++v) {
        const float* d = disparity.ptr<float>(v);
        float* z = depth.ptr<float>(v);
        cv::Vec3f* p = points.ptr<cv::Vec3f>(v);
        const double yn = (v - g.cy) / g.fy;
        for (int u = 0; u < disparity.cols; ++u) {
            if (!(d[u] > 0)) {
                z[u] = nan;
                p[u] = cv::Vec3f(nan, nan, nan);
                continue;
            }
            const double zz = fb / d[u];
            z[u] = static_cast<float>(zz);
            p[u] = cv::Vec3f(static_cast<float>((u - g.cx) / g.fx * zz), static_cast<float>(yn * zz),
                             static_cast<float>(zz));
        }
    }
}

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

void check_cloud(const char* who, const cv::Mat& points, const cv::Mat& colour) {
    if (points.empty() || points.type() != CV_32FC3)
        throw orvo::Error(EINVAL, std::string(who) + ": the points must be a non-empty CV_32FC3 matrix");
    if (!colour.empty() && (colour.size() != points.size() ||
                            (colour.type() != CV_8UC1 && colour.type() != CV_8UC3)))
        throw orvo::Error(EINVAL, std::string(who) +
                                    ": the colour image must be CV_8UC1 or CV_8UC3 (BGR) of the "
                                    "points' size");
}

bool valid(const cv::Vec3f& p) {
    return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

std::size_t count_valid(const cv::Mat& points) {
    std::size_t n = 0;
    for (int y = 0; y < points.rows; ++y) {
        const cv::Vec3f* p = points.ptr<cv::Vec3f>(y);
        for (int x = 0; x < points.cols; ++x) n += valid(p[x]);
    }
    return n;
}

// Red, green, blue of pixel (y, x).
void rgb_at(const cv::Mat& colour, int y, int x, uint8_t rgb[3]) {
    if (colour.type() == CV_8UC1) {
        rgb[0] = rgb[1] = rgb[2] = colour.at<uint8_t>(y, x);
    } else {
        const cv::Vec3b& bgr = colour.at<cv::Vec3b>(y, x);
        rgb[0] = bgr[2];
        rgb[1] = bgr[1];
        rgb[2] = bgr[0];
    }
}

// Writes the header, then one record per valid point (x, y, z floats and, with a colour image,
// the bytes that make_colour puts after them), then closes the file, checking every step.
template <class MakeColour>
std::size_t write_cloud(const char* who, const std::string& path, const std::string& header,
                        const cv::Mat& points, const cv::Mat& colour, std::size_t colour_bytes,
                        MakeColour make_colour) {
    std::unique_ptr<std::FILE, FileCloser> f(std::fopen(path.c_str(), "wb"));
    auto fail = [&](int err) {
        throw orvo::Error(err, std::string(who) + ": cannot write " + path +
                                   " (does the folder exist, and may you write there?)");
    };
    if (!f) fail(errno);
    if (std::fwrite(header.data(), 1, header.size(), f.get()) != header.size()) fail(errno);
    const std::size_t rec = 12 + (colour.empty() ? 0 : colour_bytes);
    std::vector<uint8_t> row(rec * points.cols);
    std::size_t written = 0;
    for (int y = 0; y < points.rows; ++y) {
        const cv::Vec3f* p = points.ptr<cv::Vec3f>(y);
        uint8_t* o = row.data();
        for (int x = 0; x < points.cols; ++x) {
            if (!valid(p[x])) continue;
            std::memcpy(o, &p[x][0], 12);
            if (!colour.empty()) {
                uint8_t rgb[3];
                rgb_at(colour, y, x, rgb);
                make_colour(rgb, o + 12);
            }
            o += rec;
            ++written;
        }
        const std::size_t bytes = static_cast<std::size_t>(o - row.data());
        if (std::fwrite(row.data(), 1, bytes, f.get()) != bytes) fail(errno ? errno : EIO);
    }
    if (std::fflush(f.get()) != 0) fail(errno);
    if (std::fclose(f.release()) != 0) fail(errno);
    return written;
}

}  // namespace

// Binary little-endian PLY of the valid points (float x, y, z, and uchar red, green, blue with a
// colour image: grey CV_8UC1 or BGR CV_8UC3). Returns the number of points written; throws
// std::invalid_argument for bad matrices and std::system_error (errno) when the file cannot be
// written.
std::size_t write_ply(const std::string& path, const cv::Mat& points, const cv::Mat& colour) {
    check_cloud("orvo::write_ply", points, colour);
    std::string header = "ply\nformat binary_little_endian 1.0\ncomment written by orvo\n";
    header += "element vertex " + std::to_string(count_valid(points)) + "\n";
    header += "property float x\nproperty float y\nproperty float z\n";
    if (!colour.empty()) header += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
    header += "end_header\n";
    return write_cloud("orvo::write_ply", path, header, points, colour, 3,
                       [](const uint8_t rgb[3], uint8_t* o) { std::memcpy(o, rgb, 3); });
}

// Binary PCD (v0.7, unorganized) of the valid points, with the colour packed as PCL does: a
// 32-bit 0x00RRGGBB stored in a float field "rgb". Returns and throws as write_ply.
std::size_t write_pcd(const std::string& path, const cv::Mat& points, const cv::Mat& colour) {
    check_cloud("orvo::write_pcd", points, colour);
    const std::string n = std::to_string(count_valid(points));
    const bool rgb = !colour.empty();
    std::string header = "# .PCD v0.7 - Point Cloud Data file format\nVERSION 0.7\n";
    header += rgb ? "FIELDS x y z rgb\nSIZE 4 4 4 4\nTYPE F F F F\nCOUNT 1 1 1 1\n"
                  : "FIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\n";
    header += "WIDTH " + n + "\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS " + n + "\nDATA binary\n";
    return write_cloud("orvo::write_pcd", path, header, points, colour, 4,
                       [](const uint8_t c[3], uint8_t* o) {
                           const uint32_t packed = (uint32_t{c[0]} << 16) | (uint32_t{c[1]} << 8) | c[2];
                           std::memcpy(o, &packed, 4);
                       });
}

}  // namespace orvo
