// orvo::Calibration: the calibration files read by the classic reader, rectified by the shared code.
#include "orvo/calibration.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <initializer_list>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "ZUNCVHelper.h"
#include "calib_layout.h"
#include "orvo/error.hpp"
#include "stereo_rectify.h"

namespace orvo {

namespace {

// Checked here so that the reader never has a reason to print: a missing or unreadable file is an
// Error with its errno.
void requireReadable(const std::string& path, const char* what) {
    struct stat st;
    if (path.empty()) throw Error(ENOENT, std::string("no ") + what + " calibration file given");
    if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0)
        throw Error(errno, "cannot read the " + std::string(what) + " calibration file '" + path +
                               "'; pass the files orvo calibrate wrote");
    if (S_ISDIR(st.st_mode))
        throw Error(EISDIR, "the " + std::string(what) + " calibration file '" + path + "' is a directory");
}

std::vector<cv::Mat> readLayout(const std::string& path, zuncvFileType type, const char* what) {
    requireReadable(path, what);
    std::vector<cv::Mat> slots;
    try {
        if (!readYML(path, type, slots))
            throw Error(EIO, "cannot read the " + std::string(what) + " calibration file '" + path + "'");
    } catch (const cv::Exception& e) {
        throw Error(EINVAL, "malformed " + std::string(what) + " calibration file '" + path + "': " + e.err);
    }
    return slots;
}

template <size_t N>
void requireSlots(const std::vector<cv::Mat>& slots, std::initializer_list<size_t> needed,
                  const char* const (&keys)[N], const std::string& path) {
    for (size_t i : needed)
        if (slots.size() <= i || slots[i].empty())
            throw Error(EINVAL, "the calibration file '" + path + "' has no '" + keys[i] +
                                    "' matrix; recalibrate with orvo calibrate");
}

}  // namespace

// The stored R1/R2/P1/P2 of the extrinsics file are not used: the rectification is computed afresh
// from the lenses and their pose, exactly as the classic remap builder does, so both APIs rectify
// the same way.
Calibration Calibration::load(const std::string& intrinsics_file, const std::string& extrinsics_file,
                              cv::Size image_size) {
    namespace in = layout::intrinsics;
    namespace ex = layout::extrinsics;
    const auto intr = readLayout(intrinsics_file, ZUNCV_INTRINSICS, "intrinsics");
    requireSlots(intr, {in::M1, in::D1, in::M2, in::D2}, in::kKeys, intrinsics_file);
    const auto extr = readLayout(extrinsics_file, ZUNCV_EXTRINSICS, "extrinsics");
    requireSlots(extr, {ex::R, ex::T}, ex::kKeys, extrinsics_file);
    Calibration c;
    c.size_ = image_size;
    c.m1_ = intr[in::M1];
    c.d1_ = intr[in::D1];
    c.m2_ = intr[in::M2];
    c.d2_ = intr[in::D2];
    c.r_ = extr[ex::R];
    c.t_ = extr[ex::T];
    shared::PinholeRectification rect;
    try {
        shared::rectifyPinhole(c.m1_, c.d1_, c.m2_, c.d2_, c.r_, c.t_, image_size, rect);
    } catch (const cv::Exception& e) {
        throw Error(EINVAL, "the calibration in '" + intrinsics_file + "' and '" + extrinsics_file +
                                "' cannot be rectified: " + e.err);
    }
    c.r1_ = rect.r1;
    c.r2_ = rect.r2;
    c.p1_ = rect.p1;
    c.p2_ = rect.p2;
    c.q_ = rect.q;
    for (int i = 0; i < 4; ++i) c.maps_[i] = rect.maps[i];
    return c;
}

cv::Mat Calibration::rectified_camera_matrix() const { return p1_(cv::Rect(0, 0, 3, 3)).clone(); }

// P2's translation column is -f * baseline for a right lens to the right of the left one.
double Calibration::baseline() const { return std::fabs(p2_.at<double>(0, 3) / p2_.at<double>(0, 0)); }

StereoGeometry Calibration::geometry() const {
    StereoGeometry g;
    g.fx = p1_.at<double>(0, 0);
    g.fy = p1_.at<double>(1, 1);
    g.cx = p1_.at<double>(0, 2);
    g.cy = p1_.at<double>(1, 2);
    g.baseline = baseline();
    return g;
}

// Bilinear, black outside the source, as the classic engine rectifies.
void Calibration::rectify(const cv::Mat& left, const cv::Mat& right, cv::Mat& left_out,
                          cv::Mat& right_out) const {
    cv::remap(left, left_out, maps_[0], maps_[1], cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
    cv::remap(right, right_out, maps_[2], maps_[3], cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
}

}  // namespace orvo
