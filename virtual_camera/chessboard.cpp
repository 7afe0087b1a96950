// Renders planar chessboards through the rig's true lens model and writes calibration sets.
#include <orvo/vcam/chessboard.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <fstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace orvo {
namespace vcam {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kFarNoiseSigma = 0.3;

cv::Matx33d rotationX(double a) {
    const double c = std::cos(a), s = std::sin(a);
    return cv::Matx33d(1, 0, 0, 0, c, -s, 0, s, c);
}
cv::Matx33d rotationY(double a) {
    const double c = std::cos(a), s = std::sin(a);
    return cv::Matx33d(c, 0, s, 0, 1, 0, -s, 0, c);
}
cv::Matx33d rotationZ(double a) {
    const double c = std::cos(a), s = std::sin(a);
    return cv::Matx33d(c, -s, 0, s, c, 0, 0, 0, 1);
}

// Integral of the unit square wave that is +1 on [0, 1) and -1 on [1, 2): a triangle wave.
double squareWaveIntegral(double x) {
    const double m = x - 2.0 * std::floor(x / 2.0);
    return m <= 1.0 ? m : 2.0 - m;
}

// The square wave averaged over a box of width w centred on x (w in the same units).
double filteredSquareWave(double x, double w) {
    if (w < 1e-6) return (static_cast<long long>(std::floor(x)) % 2 == 0) ? 1.0 : -1.0;
    return (squareWaveIntegral(x + w / 2) - squareWaveIntegral(x - w / 2)) / w;
}

// Fraction of a box of width w centred on x that falls inside [lo, hi].
double coverage(double x, double w, double lo, double hi) {
    if (w < 1e-6) return (x >= lo && x <= hi) ? 1.0 : 0.0;
    const double a = std::max(x - w / 2, lo), b = std::min(x + w / 2, hi);
    return std::clamp((b - a) / w, 0.0, 1.0);
}

// Derivative of a board-coordinate map along x or y by central differences (one-sided at the
// image border); NaN where the board is not hit.
double derivative(const cv::Mat& m, int y, int x, bool along_x) {
    const int n = along_x ? m.cols : m.rows;
    const int i = along_x ? x : y;
    const int lo = std::max(i - 1, 0), hi = std::min(i + 1, n - 1);
    const double a = along_x ? m.at<double>(y, lo) : m.at<double>(lo, x);
    const double b = along_x ? m.at<double>(y, hi) : m.at<double>(hi, x);
    return (b - a) / double(hi - lo);
}

void addBlurAndNoise(cv::Mat& img, const ImageNoise& noise) {
    if (noise.blur_sigma > 0) cv::GaussianBlur(img, img, cv::Size(0, 0), noise.blur_sigma);
    if (noise.noise_sigma > 0) {
        cv::Mat n(img.size(), CV_64F);
        cv::RNG rng(noise.seed);
        rng.fill(n, cv::RNG::NORMAL, 0.0, noise.noise_sigma);
        img += n;
    }
}

}  // namespace

BoardPose boardPoseAt(const BoardSpec& board, const cv::Vec3d& centre, double pitch_deg,
                      double yaw_deg, double roll_deg) {
    const double d = kPi / 180.0;
    BoardPose p;
    p.R = rotationZ(roll_deg * d) * rotationY(yaw_deg * d) * rotationX(pitch_deg * d);
    const cv::Vec3d middle((board.inner.width - 1) * board.square / 2,
                           (board.inner.height - 1) * board.square / 2, 0.0);
    p.t = centre - p.R * middle;
    return p;
}

ChessboardRenderer::ChessboardRenderer(const Rig& rig, const BoardSpec& board)
    : rig_(rig), board_(board) {
    for (int lens = 0; lens < 2; ++lens) {
        rays_[lens] = rig_.rays(lens);
        centre_[lens] = rig_.centre(lens);
    }
}

cv::Point3d ChessboardRenderer::cornerInLeftFrame(const BoardPose& pose, int k, int j) const {
    const cv::Vec3d p = pose.R * cv::Vec3d(k * board_.square, j * board_.square, 0.0) + pose.t;
    return cv::Point3d(p[0], p[1], p[2]);
}

// Intersects every pixel's ray with the board plane, then shades each pixel with the checker
// pattern averaged over the pixel's footprint on the board (estimated from neighbouring pixels),
// so that edges carry sub-pixel information as a real lens's would.
cv::Mat ChessboardRenderer::render(int lens, const BoardPose& pose, const ImageNoise& noise) const {
    if (lens != 0 && lens != 1) return cv::Mat();
    const cv::Mat& rays = rays_[lens];
    const cv::Vec3d c(centre_[lens].x, centre_[lens].y, centre_[lens].z);
    const cv::Vec3d normal(pose.R(0, 2), pose.R(1, 2), pose.R(2, 2));
    const cv::Matx33d to_board = pose.R.t();
    const double nan = std::numeric_limits<double>::quiet_NaN();

    // Board coordinates in squares, origin at inner corner (0, 0).
    cv::Mat a(rays.size(), CV_64F), b(rays.size(), CV_64F);
    for (int y = 0; y < rays.rows; ++y) {
        const cv::Vec3f* r = rays.ptr<cv::Vec3f>(y);
        for (int x = 0; x < rays.cols; ++x) {
            const cv::Vec3d d(r[x][0], r[x][1], r[x][2]);
            const double denom = normal.dot(d);
            const double s = std::fabs(denom) > 1e-12 ? normal.dot(pose.t - c) / denom : -1.0;
            if (s <= 0) {
                a.at<double>(y, x) = b.at<double>(y, x) = nan;
                continue;
            }
            const cv::Vec3d local = to_board * (c + s * d - pose.t);
            a.at<double>(y, x) = local[0] / board_.square;
            b.at<double>(y, x) = local[1] / board_.square;
        }
    }

    const double cols = board_.inner.width, rows = board_.inner.height, m = board_.margin;
    const double mid = (board_.light + board_.dark) / 2, amp = (board_.light - board_.dark) / 2;
    cv::Mat img(rays.size(), CV_64F);
    for (int y = 0; y < img.rows; ++y) {
        for (int x = 0; x < img.cols; ++x) {
            const double u = a.at<double>(y, x), v = b.at<double>(y, x);
            const double wu = std::hypot(derivative(a, y, x, true), derivative(a, y, x, false));
            const double wv = std::hypot(derivative(b, y, x, true), derivative(b, y, x, false));
            if (!std::isfinite(u) || !std::isfinite(wu) || !std::isfinite(wv)) {
                img.at<double>(y, x) = board_.background;
                continue;
            }
            // Squares span [-1, cols] x [-1, rows]; the top-left one is dark.
            const double checker = filteredSquareWave(u + 1, wu) * filteredSquareWave(v + 1, wv);
            const double in_squares = coverage(u, wu, -1, cols) * coverage(v, wv, -1, rows);
            const double on_board =
                coverage(u, wu, -1 - m, cols + m) * coverage(v, wv, -1 - m, rows + m);
            img.at<double>(y, x) = in_squares * (mid - checker * amp) +
                                   (on_board - in_squares) * board_.light +
                                   (1 - on_board) * board_.background;
        }
    }
    addBlurAndNoise(img, noise);
    cv::Mat out;
    img.convertTo(out, CV_8U);
    return out;
}

std::vector<cv::Point2d> ChessboardRenderer::corners(int lens, const BoardPose& pose) const {
    std::vector<cv::Point2d> out;
    for (int j = 0; j < board_.inner.height; ++j)
        for (int k = 0; k < board_.inner.width; ++k) {
            cv::Point2d px(-1, -1);
            rig_.project(lens, cornerInLeftFrame(pose, k, j), px);
            out.push_back(px);
        }
    return out;
}

std::vector<cv::Point2d> ChessboardRenderer::rectifiedCorners(int lens,
                                                              const BoardPose& pose) const {
    std::vector<cv::Point2d> out;
    for (int j = 0; j < board_.inner.height; ++j)
        for (int k = 0; k < board_.inner.width; ++k) {
            cv::Point2d px(-1, -1);
            rig_.projectRectified(lens, cornerInLeftFrame(pose, k, j), px);
            out.push_back(px);
        }
    return out;
}

std::vector<BoardPose> standardPoses(const BoardSpec& board) {
    struct P {
        double x, y, z, pitch, yaw, roll;
    };
    static const P poses[] = {
        {0.00, 0.00, 0.60, 0, 0, 0},        {-0.15, -0.08, 0.65, 15, 20, 5},
        {0.15, -0.08, 0.65, 15, -20, -5},   {-0.15, 0.08, 0.65, -15, 20, 8},
        {0.15, 0.08, 0.65, -15, -20, -8},   {0.00, 0.00, 0.90, 25, 0, 0},
        {0.00, 0.00, 0.90, -25, 0, 10},     {0.05, 0.00, 0.50, 0, 30, 0},
        {-0.05, 0.00, 0.50, 0, -30, -10},   {0.15, 0.08, 0.85, 10, -15, 15},
        {-0.15, -0.08, 0.85, -10, 15, -15}, {0.00, 0.05, 0.45, 20, 10, 3},
    };
    std::vector<BoardPose> out;
    for (const P& p : poses)
        out.push_back(boardPoseAt(board, cv::Vec3d(p.x, p.y, p.z), p.pitch, p.yaw, p.roll));
    return out;
}

BoardPose farPose(const BoardSpec& board) {
    return boardPoseAt(board, cv::Vec3d(0.06, 0.0, 5.2), 0, 0, 0);
}

std::vector<std::string> CalibrationSet::pairs(const std::vector<int>& indices) const {
    std::vector<std::string> out;
    for (int i : indices) {
        out.push_back(list[2 * size_t(i)]);
        out.push_back(list[2 * size_t(i) + 1]);
    }
    return out;
}

std::vector<std::string> CalibrationSet::listWithout(int pair) const {
    std::vector<int> keep;
    for (int i = 0; i < int(poses.size()); ++i)
        if (i != pair) keep.push_back(i);
    return pairs(keep);
}

bool writeCalibrationSet(const ChessboardRenderer& renderer, const std::string& directory,
                         CalibrationSet& set, std::string* error) {
    const std::vector<BoardPose> standard = standardPoses(renderer.board());
    set = CalibrationSet();
    // Pair kinds in list order: 'n' normal, 'f' far, 'm' missing right image, 's' other size.
    const std::string kinds = "nnnnnnfnnnmnnns";
    size_t next_standard = 0;
    for (size_t i = 0; i < kinds.size(); ++i) {
        const char kind = kinds[i];
        // The two broken pairs reuse standard poses; they never reach the calibration.
        BoardPose pose = kind == 'f'   ? farPose(renderer.board())
                         : kind == 'm' ? standard[2]
                         : kind == 's' ? standard[3]
                                       : standard[next_standard++];
        if (kind == 'f') set.far_pair = int(i);
        if (kind == 'm') set.missing_right_pair = int(i);
        if (kind == 's') set.other_size_pair = int(i);
        set.poses.push_back(pose);
        for (int lens = 0; lens < 2; ++lens) {
            char name[64];
            std::snprintf(name, sizeof name, "/%s%02zu.png", lens == 0 ? "left" : "right", i);
            const std::string path = directory + name;
            set.list.push_back(path);
            if (kind == 'm' && lens == 1) continue;
            ImageNoise noise;
            noise.seed = 1000 + 2 * i + size_t(lens);
            // On a noisy flat background a detector that misses the board searches the noise
            // for seconds; the far view is kept quiet so that its miss at scale 1 is quick.
            if (kind == 'f') noise.noise_sigma = kFarNoiseSigma;
            cv::Mat img = renderer.render(lens, pose, noise);
            if (kind == 's' && lens == 1) img = img(cv::Rect(0, 0, img.cols - 80, img.rows - 48));
            if (!cv::imwrite(path, img)) {
                if (error) *error = "cannot write " + path;
                return false;
            }
        }
    }
    set.list_file = directory + "/list.txt";
    std::ofstream list(set.list_file);
    for (const std::string& name : set.list) list << name << '\n';
    if (!list) {
        if (error) *error = "cannot write " + set.list_file;
        return false;
    }
    return true;
}

}  // namespace vcam
}  // namespace orvo
