// Chessboard views rendered through a synthetic rig's true lens model, for calibration fixtures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <orvo/vcam/rig.hpp>

namespace orvo {
namespace vcam {

struct BoardSpec {
    cv::Size inner{9, 6};     // inner corners per row (width) and per column (height)
    double square = 0.05;     // side of one square, metres
    double margin = 1.0;      // light border around the squares, in squares
    double dark = 30.0;       // grey levels
    double light = 220.0;
    double background = 120.0;
};

// Where the board lies in the left lens frame: board point (x, y, 0) sits at R * (x, y, 0) + t.
// Inner corner (k, j) is the board point (k * square, j * square, 0).
struct BoardPose {
    cv::Matx33d R = cv::Matx33d::eye();
    cv::Vec3d t{0.0, 0.0, 1.0};
};

// The pose that puts the middle of the inner-corner grid at `centre` (left lens frame, metres),
// turned by pitch about x, then yaw about y, then roll about the view axis (degrees).
BoardPose boardPoseAt(const BoardSpec& board, const cv::Vec3d& centre, double pitch_deg,
                      double yaw_deg, double roll_deg);

struct ImageNoise {
    double blur_sigma = 0.7;   // Gaussian blur of the lens, pixels
    double noise_sigma = 2.0;  // additive Gaussian noise, grey levels
    uint64_t seed = 1;
};

class ChessboardRenderer {
public:
    ChessboardRenderer(const Rig& rig, const BoardSpec& board);

    const BoardSpec& board() const { return board_; }
    const Rig& rig() const { return rig_; }

    // 8-bit grey view of lens 0 (left) or 1 (right) at the rig's image size, anti-aliased;
    // empty for another lens number.
    cv::Mat render(int lens, const BoardPose& pose, const ImageNoise& noise = ImageNoise()) const;
    // True pixels of the inner corners through lens 0 or 1, row by row along the board's x axis,
    // the order in which a calibration pairs them with its board points; (-1, -1) for a corner
    // behind the lens or a lens number other than 0 and 1.
    std::vector<cv::Point2d> corners(int lens, const BoardPose& pose) const;
    // The same corners in the ideal rectified camera of lens 0 or 1.
    std::vector<cv::Point2d> rectifiedCorners(int lens, const BoardPose& pose) const;

private:
    cv::Point3d cornerInLeftFrame(const BoardPose& pose, int k, int j) const;

    Rig rig_;
    BoardSpec board_;
    cv::Mat rays_[2];  // per-pixel unit rays, CV_32FC3
    cv::Point3d centre_[2];
};

// A calibration set on disk: the list the calibration takes and what each pair is.
struct CalibrationSet {
    std::vector<std::string> list;  // left, right, left, right ...
    std::vector<BoardPose> poses;   // one per listed pair
    int far_pair = -1;              // board found only on the image enlarged twice
    int missing_right_pair = -1;    // right image not written
    int other_size_pair = -1;       // right image of another size
    std::string list_file;          // the list, one name per line

    // The list entries of the given pairs, in the given order.
    std::vector<std::string> pairs(const std::vector<int>& indices) const;
    // The whole list without one pair.
    std::vector<std::string> listWithout(int pair) const;
};

// Twelve varied poses whose boards fill a good part of both views (squares of 16 px and more,
// so that refinement windows of 11 px stay on their own corner), and the far pose, whose squares
// are too small for the detector on the image as it is but not on the image enlarged twice.
std::vector<BoardPose> standardPoses(const BoardSpec& board);
BoardPose farPose(const BoardSpec& board);

// Writes the standard views as "left%02d.png" / "right%02d.png" into an existing directory,
// with the far pair, the pair missing its right image and the pair of another size among them,
// and "list.txt". False with *error set when an image cannot be written.
bool writeCalibrationSet(const ChessboardRenderer& renderer, const std::string& directory,
                         CalibrationSet& set, std::string* error);

}  // namespace vcam
}  // namespace orvo
