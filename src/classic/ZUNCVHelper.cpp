// Calibration parameter files, the remap-table builders and the image composition helpers.
#include "ZUNCVHelper.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <stdexcept>
#include <utility>

#include <sys/stat.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "calib_layout.h"
#include "stereo_rectify.h"

namespace {

namespace slot = orvo::layout;

// OpenCV logs its own line on standard error for a file it cannot open, throws for an empty name
// and for a directory; checking first keeps the reader's single message the only output.
bool isReadableFile(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return false;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    std::fclose(f);
    return true;
}

cv::Mat readKey(const cv::FileStorage& fs, const char* key) {
    cv::Mat m;
    cv::read(fs[key], m, cv::Mat());
    return m;
}

void append(std::vector<cv::Mat>& out, std::initializer_list<cv::Mat> mats) {
    out.insert(out.end(), mats.begin(), mats.end());
}

// A key missing from a calibration file that was read leaves an empty matrix in its slot; the
// builders raise OpenCV's own exception for it, as the call receiving it would, naming the key
// (OpenCV 4.6's stereoRectify crashes on some empty inputs instead of raising).
void requireKey(const cv::Mat& m, const char* key, const std::string& path) {
    if (m.empty())
        CV_Error(cv::Error::StsBadArg,
                 "calibration file '" + path + "' has no '" + key + "' matrix");
}

// Maps are built into fresh matrices and then assigned, so that an output the caller shares with
// something else is released, never written through.
using MapPair = std::pair<cv::Mat, cv::Mat>;

void assignMaps(const MapPair& maps, cv::Mat& first, cv::Mat& second) {
    first = maps.first;
    second = maps.second;
}

// A 3x4 projection of doubles, or of floats (a file saved in single precision), widened to doubles.
bool projectionAsDouble(const cv::Mat& p, cv::Mat& out) {
    if (p.rows != 3 || p.cols != 4 || (p.type() != CV_64FC1 && p.type() != CV_32FC1)) return false;
    p.convertTo(out, CV_64F);
    return true;
}

// Writes src into the canvas region; the target size equals the source's, so this is a copy
// unless the depths differ, in which case resize reallocates the region and the canvas stays
// unwritten.
void place(const cv::Mat& src, cv::Mat& canvas, const cv::Rect& region) {
    cv::Mat dst(canvas, region);
    cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_LINEAR);
}

cv::Mat channelMismatch() {
    std::cerr << " mat channel different，can't combine " << std::endl;
    return cv::Mat(0, 0, CV_8UC1);
}

// Two kinds of YAML line that OpenCV 4.6's parser mishandles, and that no valid file has, make a
// file refused as malformed before OpenCV sees it (XML and JSON files are left to OpenCV):
// - a directive on the document-start line ("---%YAML:1.0"): with a plain key line and a line
//   starting with '-' after it, the parser never returns (directives stand on lines of their own
//   before "---");
// - an empty key (a line whose first non-blank character is ':') after another key of the same
//   mapping: the parser reads the byte before its line buffer looking for the key's end, then
//   fails on a key of negative length.
// Returns what is wrong, or nullptr.
const char* yamlTheParserMishandles(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    bool first = true;
    while (std::getline(in, line)) {
        const size_t start = line.find_first_not_of(" \t\r");
        if (first) {
            if (start != std::string::npos && (line[start] == '<' || line[start] == '{')) return nullptr;
            first = false;
        }
        if (start != std::string::npos && line[start] == ':') return "an empty key";
        if (line.compare(0, 3, "---") != 0) continue;
        const size_t next = line.find_first_not_of(" \t", 3);
        if (next != std::string::npos && line[next] == '%') return "a directive after the document start";
    }
    return nullptr;
}

bool readLayout(const std::string& path, zuncvFileType type, std::vector<cv::Mat>& out) {
    cv::FileStorage fs;
    if (!isReadableFile(path)) {
        std::cerr << " Read File : " << path << "Error !" << std::endl;
        return false;
    }
    if (const char* wrong = yamlTheParserMishandles(path))
        CV_Error(cv::Error::StsParseError, "malformed calibration file '" + path + "': " + wrong);
    if (!fs.open(path, cv::FileStorage::READ)) {
        std::cerr << " Read File : " << path << "Error !" << std::endl;
        return false;
    }
    switch (static_cast<int>(type)) {
    case ZUNCV_INTRINSICS: {
        using namespace orvo::layout::intrinsics;
        cv::Mat m1 = readKey(fs, kKeys[M1]);
        cv::Mat m2 = readKey(fs, kKeys[M2]);
        cv::Mat d1 = readKey(fs, kKeys[D1]);
        cv::Mat d2 = readKey(fs, kKeys[D2]);
        append(out, {m1, d1, m2, d2});
        break;
    }
    case ZUNCV_EXTRINSICS: {
        using namespace orvo::layout::extrinsics;
        std::vector<cv::Mat> slots(kCount);
        for (size_t slot = 0; slot < kCount; ++slot) slots[slot] = readKey(fs, kKeys[slot]);
        out.insert(out.end(), slots.begin(), slots.end());
        break;
    }
    case ZUNCV_MONO: {
        using namespace orvo::layout::mono;
        cv::Mat k = readKey(fs, kKeys[camera_matrix]);
        cv::Mat d = readKey(fs, kKeys[distortion_coefficients]);
        out.clear();  // unlike the other layouts, the list ends up holding only this file
        append(out, {k, d});
        break;
    }
    case ZUNCV_FISHEYE: {
        using namespace orvo::layout::fisheye;
        std::vector<cv::Mat> slots(kCount);
        for (size_t slot = 0; slot < kCount; ++slot) {
            slots[slot] = readKey(fs, kKeys[slot]);
            if (slot == K1) std::cout << "read K1" << std::endl;
            if (slot == D1) std::cout << "read D1" << std::endl;
        }
        out.insert(out.end(), slots.begin(), slots.end());
        break;
    }
    default:
        std::cerr << " Read File TYPE err ! " << std::endl;
        fs.release();
        return false;
    }
    fs.release();
    return true;
}

}  // namespace

// Loads the matrices of one calibration-file layout and appends them to `out` in the layout's
// order (layout 2 first empties `out`). A missing key gives an empty matrix in its slot. Returns
// false, with a message on standard error and `out` untouched, when the file cannot be opened
// (an empty name or a directory included) or the type is unknown. A malformed file raises
// OpenCV's exception (cv::Exception) and leaves `out` untouched.
bool readYML(std::string path, zuncvFileType type, std::vector<cv::Mat>& out) {
    try {
        return readLayout(path, type, out);
    } catch (const cv::Exception&) {
        throw;
    } catch (const std::logic_error& e) {
        // OpenCV 4.6's YAML parser lets std::length_error out for some malformed files (an empty
        // key inside a mapping); callers are promised OpenCV's own exception for those.
        CV_Error(cv::Error::StsParseError, "malformed calibration file '" + path + "': " + e.what());
    }
}

// Condenses an extrinsics file into [fx, fy, cx, cy, P2(0,3)] (1x5 double) from its P1 and P2.
// Returns false, leaving `out` untouched, when the file cannot be read or P1/P2 are not 3x4
// real matrices (single-precision ones are widened).
bool getStereoCameraParameter(const std::string& path, cv::Mat& out) {
    std::vector<cv::Mat> list;
    if (!readYML(path, ZUNCV_EXTRINSICS, list)) return false;
    cv::Mat p1, p2;
    if (!projectionAsDouble(list[slot::extrinsics::P1], p1) ||
        !projectionAsDouble(list[slot::extrinsics::P2], p2))
        return false;
    cv::Mat values = cv::Mat::zeros(1, 5, CV_64FC1);
    double* v = values.ptr<double>(0);
    v[0] = p1.at<double>(0, 0);
    v[1] = p1.at<double>(1, 1);
    v[2] = p1.at<double>(0, 2);
    v[3] = p1.at<double>(1, 2);
    v[4] = p2.at<double>(0, 3);
    out = values;
    return true;
}

// Pinhole stereo maps: rectifies the intrinsics and extrinsics files' R and T afresh
// (zero disparity, alpha 0) and builds both lenses' CV_16SC2/CV_16UC1 maps of `size`.
// camera_matrix and projection_2 become header copies of the files' M1 and P2.
// Returns false, leaving every output untouched, when either file cannot be read. A key that the
// rectification needs (M1, D1, M2, D2, R, T) missing from a file that was read raises OpenCV's
// exception after outputs 5 and 6 are assigned, as do OpenCV's own exceptions for matrices of the
// wrong shape; a missing P2, which no call receives, leaves projection_2 empty (the engine then
// has no camera constants). The files' R1, R2 and P1 are not used.
bool get_remap_mat(std::string intrinsics_path, std::string extrinsics_path, cv::Size size,
                   cv::Mat& map_1, cv::Mat& map_2, cv::Mat& map_3, cv::Mat& map_4,
                   cv::Mat& camera_matrix, cv::Mat& projection_2) {
    namespace in = slot::intrinsics;
    namespace ex = slot::extrinsics;
    std::vector<cv::Mat> intrinsics, extrinsics;
    const bool read_in = readYML(intrinsics_path, ZUNCV_INTRINSICS, intrinsics);
    const bool read_ex = readYML(extrinsics_path, ZUNCV_EXTRINSICS, extrinsics);
    if (!read_in || !read_ex) return false;

    camera_matrix = intrinsics[in::M1];
    projection_2 = extrinsics[ex::P2];
    const cv::Mat &m1 = intrinsics[in::M1], &d1 = intrinsics[in::D1];
    const cv::Mat &m2 = intrinsics[in::M2], &d2 = intrinsics[in::D2];
    const cv::Mat &r = extrinsics[ex::R], &t = extrinsics[ex::T];
    for (size_t slot : {in::M1, in::D1, in::M2, in::D2})
        requireKey(intrinsics[slot], in::kKeys[slot], intrinsics_path);
    for (size_t slot : {ex::R, ex::T}) requireKey(extrinsics[slot], ex::kKeys[slot], extrinsics_path);
    orvo::shared::PinholeRectification rect;
    orvo::shared::rectifyPinhole(m1, d1, m2, d2, r, t, size, rect);
    assignMaps({rect.maps[0], rect.maps[1]}, map_1, map_2);
    assignMaps({rect.maps[2], rect.maps[3]}, map_3, map_4);
    return true;
}

// Fisheye stereo maps from one file whose stored rectification (R1, R2, P1, P2) is used as it
// stands; camera_matrix and projection_2 become header copies of the file's K1 and P2.
// Returns false, leaving every output untouched, when the file cannot be read; a key missing from
// a file that was read raises OpenCV's exception after outputs 5 and 6 are assigned.
bool get_remap_mat_fisheye_file(const std::string& path, const cv::Size& size, cv::Mat& map_1,
                                cv::Mat& map_2, cv::Mat& map_3, cv::Mat& map_4,
                                cv::Mat& camera_matrix, cv::Mat& projection_2) {
    using namespace slot::fisheye;
    std::vector<cv::Mat> l;
    if (!readYML(path, ZUNCV_FISHEYE, l)) return false;

    camera_matrix = l[K1];
    projection_2 = l[P2];
    for (size_t slot = 0; slot < kCount; ++slot) requireKey(l[slot], kKeys[slot], path);
    MapPair left, right;
    cv::fisheye::initUndistortRectifyMap(l[K1], l[D1], l[R1], l[P1], size, CV_16SC2, left.first,
                                         left.second);
    cv::fisheye::initUndistortRectifyMap(l[K2], l[D2], l[R2], l[P2], size, CV_16SC2, right.first,
                                         right.second);
    assignMaps(left, map_1, map_2);
    assignMaps(right, map_3, map_4);
    return true;
}

// One-lens undistortion maps that keep the whole source field (alpha 1, black borders included).
// Returns false, leaving the outputs untouched, when the file cannot be read; a missing key
// raises OpenCV's exception.
bool get_monoRemap_mat(std::string path, cv::Size size, cv::Mat& map_1, cv::Mat& map_2) {
    using namespace slot::mono;
    std::vector<cv::Mat> l;
    if (!readYML(path, ZUNCV_MONO, l)) return false;

    const cv::Mat &k = l[camera_matrix], &d = l[distortion_coefficients];
    for (size_t slot = 0; slot < kCount; ++slot) requireKey(l[slot], kKeys[slot], path);
    cv::Mat new_k = cv::getOptimalNewCameraMatrix(k, d, size, 1.0, size, nullptr, false);
    MapPair maps;
    cv::initUndistortRectifyMap(k, d, cv::Mat(), new_k, size, CV_16SC2, maps.first, maps.second);
    assignMaps(maps, map_1, map_2);
    return true;
}

// Left and right side by side on an uncleared canvas twice the wider input; the right image
// starts right after the left one. Differing channel counts give a message and an empty 8UC1
// matrix; a region outside the canvas raises OpenCV's exception.
cv::Mat combineTwoImg(const cv::Mat& left, const cv::Mat& right) {
    if (left.channels() != right.channels()) return channelMismatch();
    cv::Mat canvas;
    canvas.create(std::max(left.rows, right.rows), 2 * std::max(left.cols, right.cols),
                  left.type());
    place(left, canvas, cv::Rect(0, 0, left.cols, left.rows));
    place(right, canvas, cv::Rect(left.cols, 0, right.cols, right.rows));
    return canvas;
}

// Three images stacked on an uncleared canvas three times the taller of top and middle; only
// top and middle are checked and sized, so a bottom image that does not fit raises OpenCV's
// exception.
cv::Mat combineTwoImgUpDown(const cv::Mat& top, const cv::Mat& middle, const cv::Mat& bottom) {
    if (top.channels() != middle.channels()) return channelMismatch();
    cv::Mat canvas;
    canvas.create(3 * std::max(top.rows, middle.rows), std::max(top.cols, middle.cols), top.type());
    place(top, canvas, cv::Rect(0, 0, top.cols, top.rows));
    place(middle, canvas, cv::Rect(0, top.rows, middle.cols, middle.rows));
    place(bottom, canvas, cv::Rect(0, 2 * top.rows, bottom.cols, bottom.rows));
    return canvas;
}

// A view (no copy) of the left or right half of a side-by-side frame; with an odd width the
// last column belongs to neither half.
cv::Mat splitMat(cv::Mat frame, bool left) {
    const int half = frame.cols / 2;
    return cv::Mat(frame, cv::Rect(left ? 0 : half, 0, half, frame.rows));
}

// Prints the channel count and depth code of a matrix on standard output; always true.
bool printMatInfo(const cv::Mat& m) {
    std::cout << "Mat info:" << std::endl;
    std::cout << " channels = " << m.channels() << std::endl;
    std::cout << " depth    = " << m.depth() << std::endl;
    return true;
}
