// Synthetic stereo rig: true lens models, their rectification, calibration files and projections.
#include <orvo/vcam/rig.hpp>

#include <cmath>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "calib_layout.h"

namespace orvo {
namespace vcam {
namespace {

// The fisheye rectification keeps only pixels both lenses really see (balance 0), as the pinhole
// builder's alpha 0 does; with wider balance the rectified 752 x 480 view would shrink the scene
// into its middle and waste most of the image on black borders.
constexpr double kFisheyeBalance = 0.0;
constexpr double kFisheyeFovScale = 1.0;

constexpr int kNewtonIterations = 50;
constexpr double kNewtonTolerance = 1e-13;

cv::Mat cameraMatrix(double focal, const cv::Point2d& principal) {
    return (cv::Mat_<double>(3, 3) << focal, 0, principal.x, 0, focal, principal.y, 0, 0, 1);
}

// Pinhole lenses keep the five coefficients as a 1x5 row (k3 included); fisheye lenses take the
// first four as a 4x1 column, the shape OpenCV's fisheye calibration reports.
cv::Mat distortion(const cv::Vec<double, 5>& d, bool fisheye) {
    if (fisheye) return (cv::Mat_<double>(4, 1) << d[0], d[1], d[2], d[3]);
    return (cv::Mat_<double>(1, 5) << d[0], d[1], d[2], d[3], d[4]);
}

bool validLens(int lens) { return lens == 0 || lens == 1; }

// Pinhole distortion of a normalised point (k1, k2, p1, p2, k3) with its Jacobian.
struct Distorted {
    cv::Vec2d p;
    cv::Matx22d J;
};

Distorted distortPinhole(const cv::Vec2d& u, const double* k) {
    const double x = u[0], y = u[1];
    const double r2 = x * x + y * y;
    const double radial = 1 + r2 * (k[0] + r2 * (k[1] + r2 * k[4]));
    const double dradial = k[0] + r2 * (2 * k[1] + 3 * k[4] * r2);  // d radial / d r2
    Distorted d;
    d.p = cv::Vec2d(x * radial + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x),
                    y * radial + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y);
    d.J = cv::Matx22d(radial + 2 * x * x * dradial + 2 * k[2] * y + 6 * k[3] * x,
                      2 * x * y * dradial + 2 * k[2] * x + 2 * k[3] * y,
                      2 * x * y * dradial + 2 * k[2] * x + 2 * k[3] * y,
                      radial + 2 * y * y * dradial + 6 * k[2] * y + 2 * k[3] * x);
    return d;
}

// Damped Newton inversion of the pinhole distortion. False when the model cannot reach xd
// (a strongly folding polynomial), which leaves the pixel without a ray.
bool undistortPinhole(const cv::Vec2d& xd, const double* k, cv::Vec2d& u) {
    u = xd;
    Distorted d = distortPinhole(u, k);
    cv::Vec2d residual = d.p - xd;
    for (int i = 0; i < kNewtonIterations; ++i) {
        double err = cv::norm(residual);
        if (err < kNewtonTolerance) return true;
        const double det = d.J(0, 0) * d.J(1, 1) - d.J(0, 1) * d.J(1, 0);
        if (std::abs(det) < 1e-12) return false;
        const cv::Vec2d step((d.J(1, 1) * -residual[0] - d.J(0, 1) * -residual[1]) / det,
                             (d.J(0, 0) * -residual[1] - d.J(1, 0) * -residual[0]) / det);
        double t = 1.0;
        for (; t > 1e-6; t *= 0.5) {
            Distorted trial = distortPinhole(u + t * step, k);
            if (cv::norm(trial.p - xd) < err) {
                u += t * step;
                d = trial;
                residual = trial.p - xd;
                break;
            }
        }
        if (t <= 1e-6) return cv::norm(residual) < 1e-9;
    }
    return cv::norm(residual) < 1e-9;
}

// Incidence angle theta whose distorted angle theta(1 + k1 t^2 + k2 t^4 + k3 t^6 + k4 t^8) is theta_d.
bool undistortFisheyeAngle(double theta_d, const double* k, double& theta) {
    theta = theta_d;
    for (int i = 0; i < kNewtonIterations; ++i) {
        const double t2 = theta * theta;
        const double f = theta * (1 + t2 * (k[0] + t2 * (k[1] + t2 * (k[2] + t2 * k[3])))) - theta_d;
        if (std::abs(f) < kNewtonTolerance) return true;
        const double df = 1 + t2 * (3 * k[0] + t2 * (5 * k[1] + t2 * (7 * k[2] + t2 * 9 * k[3])));
        if (df <= 0) return false;
        theta -= f / df;
        if (theta < 0) return false;
    }
    return false;
}

cv::Point3d toPoint(const cv::Mat& v) {
    return cv::Point3d(v.at<double>(0), v.at<double>(1), v.at<double>(2));
}

cv::Mat toColumn(const cv::Point3d& p) { return (cv::Mat_<double>(3, 1) << p.x, p.y, p.z); }

}  // namespace

RigSpec fisheyeRigSpec() {
    RigSpec s;
    s.fisheye = true;
    s.focal = 300.0;  // about 140 degrees across the 752 columns
    s.dist_left = cv::Vec<double, 5>(0.021, -0.0062, 0.0011, -0.00021, 0.0);
    s.dist_right = cv::Vec<double, 5>(0.018, -0.0055, 0.0009, -0.00018, 0.0);
    return s;
}

// Builds the true model and rectifies it exactly as the library's builders will from the files
// this rig writes, so that tests can compare against the ideal rectified cameras.
Rig::Rig(const RigSpec& params) : spec_(params) {
    K1 = cameraMatrix(params.focal, params.principal_left);
    K2 = cameraMatrix(params.focal, params.principal_right);
    D1 = distortion(params.dist_left, params.fisheye);
    D2 = distortion(params.dist_right, params.fisheye);
    cv::Rodrigues(cv::Mat(params.rotation), R);
    T = R * (cv::Mat_<double>(3, 1) << -params.baseline, 0, 0);
    if (params.fisheye) {
        cv::fisheye::stereoRectify(K1, D1, K2, D2, params.size, R, T, R1, R2, P1, P2, Q,
                                   cv::CALIB_ZERO_DISPARITY, params.size, kFisheyeBalance,
                                   kFisheyeFovScale);
    } else {
        cv::stereoRectify(K1, D1, K2, D2, params.size, R, T, R1, R2, P1, P2, Q,
                          cv::CALIB_ZERO_DISPARITY, 0.0, cv::Size(0, 0), nullptr, nullptr);
    }
}

// Writes the stereo intrinsics and extrinsics files with the keys, in the order, that the
// chessboard calibration writes them. False for a fisheye rig (the pinhole layouts cannot
// describe it) or when a file cannot be opened for writing.
bool Rig::writeStereo(const std::string& intrinsics_path, const std::string& extrinsics_path) const {
    if (spec_.fisheye) return false;
    cv::FileStorage in(intrinsics_path, cv::FileStorage::WRITE);
    if (!in.isOpened()) return false;
    layout::write(in, layout::intrinsics::kKeys, {K1, D1, K2, D2});
    in.release();
    cv::FileStorage ex(extrinsics_path, cv::FileStorage::WRITE);
    if (!ex.isOpened()) return false;
    layout::write(ex, layout::extrinsics::kKeys, {R, T, R1, R2, P1, P2});
    ex << layout::extrinsics::kQ << Q;
    return true;
}

// Writes the one-file fisheye layout. False for a pinhole rig or an unwritable path.
bool Rig::writeFisheye(const std::string& path) const {
    if (!spec_.fisheye) return false;
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
    if (!fs.isOpened()) return false;
    layout::write(fs, layout::fisheye::kKeys, {K1, K2, D1, D2, R1, R2, P1, P2});
    return true;
}

// Writes one lens (0 left, 1 right) in the one-lens layout. False for a fisheye rig, a lens
// other than 0 or 1, or an unwritable path.
bool Rig::writeMono(const std::string& path, int lens) const {
    if (spec_.fisheye || !validLens(lens)) return false;
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
    if (!fs.isOpened()) return false;
    layout::write(fs, layout::mono::kKeys, {lens == 0 ? K1 : K2, lens == 0 ? D1 : D2});
    return true;
}

// Projects through OpenCV's own lens model so that the rig and the library agree by construction.
bool Rig::project(int lens, const cv::Point3d& p_left, cv::Point2d& pixel) const {
    if (!validLens(lens)) return false;
    cv::Mat x = toColumn(p_left);
    if (lens == 1) x = R * x + T;
    if (x.at<double>(2) <= 0) return false;
    std::vector<cv::Point3d> in{toPoint(x)};
    std::vector<cv::Point2d> out;
    const cv::Mat& K = lens == 0 ? K1 : K2;
    const cv::Mat& D = lens == 0 ? D1 : D2;
    cv::Mat zero = cv::Mat::zeros(3, 1, CV_64F);
    if (spec_.fisheye)
        cv::fisheye::projectPoints(in, out, zero, zero, K, D);
    else
        cv::projectPoints(in, zero, zero, K, D, out);
    pixel = out[0];
    return true;
}

// The rectified camera of a lens sees the point after that lens's rectifying rotation, through
// the first three columns of its projection matrix.
bool Rig::projectRectified(int lens, const cv::Point3d& p_left, cv::Point2d& pixel) const {
    if (!validLens(lens)) return false;
    cv::Mat x = toColumn(p_left);
    if (lens == 1) x = R * x + T;
    cv::Mat xr = (lens == 0 ? R1 : R2) * x;
    const double z = xr.at<double>(2);
    if (z <= 0) return false;
    cv::Mat P = (lens == 0 ? P1 : P2).colRange(0, 3);
    cv::Mat h = P * xr;
    pixel = cv::Point2d(h.at<double>(0) / h.at<double>(2), h.at<double>(1) / h.at<double>(2));
    return true;
}

// Unit rays in the left lens frame of every raw pixel of a lens; a pixel the lens model cannot
// produce (only possible with folding distortion) gets the zero vector. Empty for a bad lens.
cv::Mat Rig::rays(int lens) const {
    if (!validLens(lens)) return cv::Mat();
    const cv::Mat& Km = lens == 0 ? K1 : K2;
    const double fx = Km.at<double>(0, 0), fy = Km.at<double>(1, 1);
    const double cx = Km.at<double>(0, 2), cy = Km.at<double>(1, 2);
    const cv::Vec<double, 5>& d = lens == 0 ? spec_.dist_left : spec_.dist_right;
    cv::Matx33d to_left = cv::Matx33d::eye();
    if (lens == 1) to_left = cv::Matx33d(R).t();
    cv::Mat out(spec_.size, CV_32FC3);
    for (int v = 0; v < spec_.size.height; ++v) {
        cv::Vec3f* row = out.ptr<cv::Vec3f>(v);
        for (int c = 0; c < spec_.size.width; ++c) {
            const cv::Vec2d xd((c - cx) / fx, (v - cy) / fy);
            cv::Vec3d ray(0, 0, 0);
            if (spec_.fisheye) {
                const double theta_d = cv::norm(xd);
                double theta;
                if (theta_d < 1e-12) {
                    ray = cv::Vec3d(0, 0, 1);
                } else if (undistortFisheyeAngle(theta_d, d.val, theta)) {
                    const double s = std::sin(theta) / theta_d;
                    ray = cv::Vec3d(xd[0] * s, xd[1] * s, std::cos(theta));
                }
            } else {
                cv::Vec2d u;
                if (undistortPinhole(xd, d.val, u)) ray = cv::normalize(cv::Vec3d(u[0], u[1], 1));
            }
            row[c] = cv::Vec3f(to_left * ray);
        }
    }
    return out;
}

// Optical centre in the left lens frame: the origin, or -R^T T for the right lens.
cv::Point3d Rig::centre(int lens) const {
    if (lens != 1) return cv::Point3d(0, 0, 0);
    cv::Mat c = -R.t() * T;
    return toPoint(c);
}

}  // namespace vcam
}  // namespace orvo
