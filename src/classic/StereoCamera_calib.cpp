// Interactive chessboard stereo calibration: detection, joint calibration, the two parameter files
// and the rectified preview.
#include "StereoCamera.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <opencv2/calib3d.hpp>
#include <opencv2/highgui.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "calib_layout.h"

namespace {

using Corners = std::vector<cv::Point2f>;

constexpr int kMaxScale = 2;
constexpr int kDetectFlags = cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE;
// The corner preview is scaled so that the longer side is the camera's own width, whatever the
// image size.
constexpr double kCornerPreviewSide = 752.0;
constexpr int kCalibFlags =
    cv::CALIB_FIX_ASPECT_RATIO | cv::CALIB_FIX_K3 | cv::CALIB_SAME_FOCAL_LENGTH;
constexpr int kGuideStep = 16;

const char* const kIntrinsicsFile = "params/intrinsics.yml";
const char* const kExtrinsicsFile = "params/extrinsics.yml";

// Esc, 'q' or 'Q' in the key's low byte.
bool isQuitKey(int key) {
    const int c = key & 0xFF;
    return c == 27 || (c & ~0x20) == 'Q';
}

// Looks for the board at scale 1, then on the image enlarged twice; corners come back on the
// unscaled grid. When the board is not found, corners hold what the detector left at the last
// scale tried.
bool findBoard(const cv::Mat& grey, cv::Size board, Corners& corners) {
    cv::Mat scaled;
    for (int scale = 1; scale <= kMaxScale; ++scale) {
        const cv::Mat* img = &grey;
        if (scale > 1) {
            cv::resize(grey, scaled, cv::Size(), scale, scale, cv::INTER_LINEAR);
            img = &scaled;
        }
        if (cv::findChessboardCorners(*img, board, corners, kDetectFlags)) {
            if (scale > 1) {
                const float back = 1.0f / float(scale);
                for (cv::Point2f& p : corners) p *= back;
            }
            return true;
        }
    }
    return false;
}

// Shows the detection on one image and waits for the operator without time limit. Esc/q/Q ends
// the process at once: the operator refused the set, so nothing must be written.
void showCorners(const std::string& name, const cv::Mat& grey, cv::Size board,
                 const Corners& corners, bool found) {
    std::printf("%s\n", name.c_str());
    cv::Mat colour, shown;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    cv::drawChessboardCorners(colour, board, corners, found);
    const double sf = kCornerPreviewSide / std::max(grey.rows, grey.cols);
    cv::resize(colour, shown, cv::Size(), sf, sf, cv::INTER_LINEAR);
    cv::imshow("corners", shown);
    if (isQuitKey(cv::waitKey(0))) std::exit(-1);
}

struct Detection {
    std::vector<std::string> accepted;  // left, right, left, right ...
    std::vector<Corners> corners[2];
    cv::Size size;
};

// Detects and refines the board in every pair; a pair is kept only when both of its images load,
// match the first image's size and show the whole board.
Detection detectPairs(const std::vector<std::string>& list, cv::Size board) {
    Detection d;
    const size_t pairs = list.size() / 2;
    for (size_t i = 0; i < pairs; ++i) {
        Corners found_corners[2];
        int k = 0;
        for (; k < 2; ++k) {
            const std::string& name = list[2 * i + size_t(k)];
            cv::Mat grey = cv::imread(name, cv::IMREAD_GRAYSCALE);
            if (grey.empty()) break;
            if (d.size == cv::Size()) {
                d.size = grey.size();
            } else if (grey.size() != d.size) {
                std::printf("The image %s has the size different from the first image size. "
                            "Skipping the pair\n",
                            name.c_str());
                break;
            }
            Corners& corners = found_corners[k];
            const bool found = findBoard(grey, board, corners);
            showCorners(name, grey, board, corners, found);
            if (!found) break;
            cv::cornerSubPix(grey, corners, cv::Size(11, 11), cv::Size(-1, -1),
                             cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS,
                                              30, 0.01));
        }
        if (k < 2) continue;
        d.accepted.push_back(list[2 * i]);
        d.accepted.push_back(list[2 * i + 1]);
        for (int lens = 0; lens < 2; ++lens) d.corners[lens].push_back(std::move(found_corners[lens]));
    }
    return d;
}

std::vector<std::vector<cv::Point3f>> boardPoints(size_t views, cv::Size board, float square) {
    std::vector<cv::Point3f> one;
    for (int j = 0; j < board.height; ++j)
        for (int k = 0; k < board.width; ++k)
            one.emplace_back(float(k) * square, float(j) * square, 0.0f);
    return std::vector<std::vector<cv::Point3f>>(views, one);
}

// Mean distance of every corner to the epiline its partner induces. The corner lists are
// undistorted in place (the matrix header shares their storage); the uncalibrated preview
// relies on that.
double epipolarError(std::vector<Corners> (&corners)[2], const cv::Mat (&M)[2],
                     const cv::Mat (&D)[2], const cv::Mat& F) {
    double sum = 0;
    size_t count = 0;
    std::vector<cv::Vec3f> lines[2];
    for (size_t i = 0; i < corners[0].size(); ++i) {
        const size_t n = corners[0][i].size();
        for (int k = 0; k < 2; ++k) {
            cv::Mat pts(corners[k][i]);
            cv::undistortPoints(pts, pts, M[k], D[k], cv::Mat(), M[k]);
            cv::computeCorrespondEpilines(pts, k + 1, F, lines[k]);
        }
        for (size_t j = 0; j < n; ++j) {
            const cv::Point2f& p0 = corners[0][i][j];
            const cv::Point2f& p1 = corners[1][i][j];
            const cv::Vec3f& l0 = lines[0][j];
            const cv::Vec3f& l1 = lines[1][j];
            const float e = std::fabs(p0.x * l1[0] + p0.y * l1[1] + l1[2]) +
                            std::fabs(p1.x * l0[0] + p1.y * l0[1] + l0[2]);
            sum += e;
        }
        count += n;
    }
    return sum / double(count);
}

void saveIntrinsics(const cv::Mat (&M)[2], const cv::Mat (&D)[2]) {
    cv::FileStorage fs(kIntrinsicsFile, cv::FileStorage::WRITE);
    if (!fs.isOpened()) {
        std::printf("Error: can not save the intrinsic parameters\n");
        return;
    }
    orvo::layout::write(fs, orvo::layout::intrinsics::kKeys, {M[0], D[0], M[1], D[1]});
    fs.release();
}

struct Rectification {
    cv::Mat R1, R2, P1, P2, Q;
    cv::Rect roi[2];
};

void saveExtrinsics(const cv::Mat& R, const cv::Mat& T, const Rectification& r) {
    cv::FileStorage fs(kExtrinsicsFile, cv::FileStorage::WRITE);
    if (!fs.isOpened()) {
        std::printf("Error: can not save the extrinsic parameters\n");
        return;
    }
    orvo::layout::write(fs, orvo::layout::extrinsics::kKeys, {R, T, r.R1, r.R2, r.P1, r.P2});
    fs << orvo::layout::extrinsics::kQ << r.Q;
    fs.release();
}

// Rectifying rotations and projections from the fundamental matrix of the (already
// undistorted) corners instead of the calibrated model.
void uncalibratedRectification(const Detection& d, const cv::Mat (&M)[2], Rectification& r) {
    std::vector<cv::Point2f> all[2];
    for (int k = 0; k < 2; ++k)
        for (const Corners& c : d.corners[k]) all[k].insert(all[k].end(), c.begin(), c.end());
    cv::Mat F = cv::findFundamentalMat(all[0], all[1], cv::FM_8POINT, 0, 0);
    cv::Mat H1, H2;
    cv::stereoRectifyUncalibrated(all[0], all[1], F, d.size, H1, H2, 3);
    r.R1 = M[0].inv() * H1 * M[0];
    r.R2 = M[1].inv() * H2 * M[1];
    r.P1 = M[0];
    r.P2 = M[1];
}

// Shows every accepted pair rectified on one canvas, side by side (or stacked for a vertical
// rig), with the valid regions and guide lines along which matches must lie.
void showRectifiedPairs(const Detection& d, const cv::Mat (&M)[2], const cv::Mat (&D)[2],
                   const Rectification& r, bool useCalibrated, bool vertical) {
    cv::Mat maps[2][2];
    cv::initUndistortRectifyMap(M[0], D[0], r.R1, r.P1, d.size, CV_16SC2, maps[0][0], maps[0][1]);
    cv::initUndistortRectifyMap(M[1], D[1], r.R2, r.P2, d.size, CV_16SC2, maps[1][0], maps[1][1]);

    const double sf = (vertical ? 300. : 600.) / std::max(d.size.width, d.size.height);
    const int w = cvRound(d.size.width * sf);
    const int h = cvRound(d.size.height * sf);
    cv::Mat canvas(vertical ? 2 * h : h, vertical ? w : 2 * w, CV_8UC3);

    cv::Mat grey, rectified, colour;
    for (size_t i = 0; i < d.accepted.size() / 2; ++i) {
        for (int k = 0; k < 2; ++k) {
            grey = cv::imread(d.accepted[2 * i + size_t(k)], cv::IMREAD_GRAYSCALE);
            cv::remap(grey, rectified, maps[k][0], maps[k][1], cv::INTER_LINEAR);
            cv::cvtColor(rectified, colour, cv::COLOR_GRAY2BGR);
            cv::Mat part = vertical ? canvas(cv::Rect(0, h * k, w, h))
                                    : canvas(cv::Rect(w * k, 0, w, h));
            cv::resize(colour, part, part.size(), 0, 0, cv::INTER_AREA);
            if (useCalibrated) {
                const cv::Rect& v = r.roi[k];
                cv::Rect scaled(cvRound(v.x * sf), cvRound(v.y * sf), cvRound(v.width * sf),
                                cvRound(v.height * sf));
                cv::rectangle(part, scaled, cv::Scalar(0, 0, 255), 3, cv::LINE_8);
            }
        }
        const cv::Scalar green(0, 255, 0);
        if (!vertical) {
            for (int j = 0; j < canvas.rows; j += kGuideStep)
                cv::line(canvas, cv::Point(0, j), cv::Point(canvas.cols, j), green, 1, cv::LINE_8);
        } else {
            for (int j = 0; j < canvas.cols; j += kGuideStep)
                cv::line(canvas, cv::Point(j, 0), cv::Point(j, canvas.rows), green, 1, cv::LINE_8);
        }
        cv::imshow("rectified", canvas);
        if (isQuitKey(cv::waitKey(0))) break;
    }
}

}  // namespace

// Calibrates the rig from chessboard pairs listed left, right, left, right ... Every loaded image
// is shown with its detected corners and waits for a key (Esc/q/Q ends the process with status
// -1, writing nothing). Needs at least two pairs in which both images show the whole board;
// writes "params/intrinsics.yml" and "params/extrinsics.yml" (the directory must exist), reports
// the reprojection and epipolar errors, and with showRectified shows the pairs rectified, by the
// calibrated model or, with useCalibrated false, by homographies from the fundamental matrix.
// Uses none of the engine's state; exceptions from OpenCV (a degenerate set) pass through.
void StereoCamera::OrvoStereoCalib(const std::vector<std::string>& imagelist, cv::Size boardSize,
                                   float squareSize, bool useCalibrated, bool showRectified) {
    if (imagelist.size() % 2 != 0) {
        std::printf("Error: the image list contains odd (non-even) number of elements\n");
        return;
    }
    Detection d = detectPairs(imagelist, boardSize);
    const size_t pairs = d.accepted.size() / 2;
    std::printf("%zu pairs have been successfully detected.\n", pairs);
    if (pairs < 2) {
        std::printf("Error: too little pairs to run the calibration\n");
        return;
    }
    const auto objectPoints = boardPoints(pairs, boardSize, squareSize);

    std::printf("Running stereo calibration ...\n");
    std::fflush(stdout);
    cv::Mat M[2] = {cv::Mat::eye(3, 3, CV_64F), cv::Mat::eye(3, 3, CV_64F)};
    cv::Mat D[2], R, T, E, F;
    const double rms = cv::stereoCalibrate(
        objectPoints, d.corners[0], d.corners[1], M[0], D[0], M[1], D[1], d.size, R, T, E, F,
        kCalibFlags,
        cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 100, 1e-5));
    std::cout << "done with RMS error=" << rms << std::endl;

    std::cout << "average reprojection err = " << epipolarError(d.corners, M, D, F) << std::endl;

    saveIntrinsics(M, D);
    Rectification r;
    cv::stereoRectify(M[0], D[0], M[1], D[1], d.size, R, T, r.R1, r.R2, r.P1, r.P2, r.Q,
                      cv::CALIB_ZERO_DISPARITY, 0, d.size, &r.roi[0], &r.roi[1]);
    saveExtrinsics(R, T, r);
    const bool vertical = std::fabs(r.P2.at<double>(1, 3)) > std::fabs(r.P2.at<double>(0, 3));

    if (!showRectified) return;
    if (!useCalibrated) uncalibratedRectification(d, M, r);
    showRectifiedPairs(d, M, D, r, useCalibrated, vertical);
}
