// The scene camera's pose over time and the inertial samples it produces, noise included.
#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>

#include <orvo/vcam/truth.hpp>

#include "frame_geometry.h"

namespace orvo {
namespace vcam {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kStandardGravity = 9.80665;  // m/s^2 per g

// The sensor's counts per unit, with the same factors the library divides by, so that a decoded
// sample gives back the generated value up to the counts' rounding.
const double kGyroCountsPerRadS = double(frame::kGyroCountsPerDegS) * frame::kDegPerRad;
const double kAccelCountsPerG = 1.0 / double(frame::kAccelGPerCount);

double radians(double degrees) { return degrees * kPi / 180.0; }

cv::Matx33d rotation(const cv::Vec3d& axis_angle) {
    cv::Matx33d r;
    cv::Rodrigues(axis_angle, r);
    return r;
}

// Body axes in the left lens frame: body x = lens x (right), body y = lens z (forward),
// body z = -lens y (up). This matrix takes lens-frame vectors to body-frame vectors.
const cv::Matx33d kBodyFromCamera(1, 0, 0,
                                  0, 0, 1,
                                  0, -1, 0);

cv::Matx33d initialAttitude(const SceneMotion& m) {
    const cv::Vec3d a(radians(m.attitude_deg[0]), radians(m.attitude_deg[1]), radians(m.attitude_deg[2]));
    return rotation({0, 0, a[0]}) * rotation({a[1], 0, 0}) * rotation({0, a[2], 0});
}

double oscillationAngle(const SceneMotion& m, double t) {
    return radians(m.oscillation_deg) * std::sin(2 * kPi * m.oscillation_hz * t);
}

double oscillationRate(const SceneMotion& m, double t) {
    const double w = 2 * kPi * m.oscillation_hz;
    return radians(m.oscillation_deg) * w * std::cos(w * t);
}

cv::Vec3d turnRate(const SceneMotion& m) {
    return {radians(m.rate_deg_s[0]), radians(m.rate_deg_s[1]), radians(m.rate_deg_s[2])};
}

cv::Matx33d worldFromBody(const SceneMotion& m, double t) {
    return initialAttitude(m) * rotation(turnRate(m) * t) *
           rotation(m.oscillation_axis * oscillationAngle(m, t));
}

// Angular rate in the body frame of R(t) = R0 * exp(w t) * exp(a theta(t)).
cv::Vec3d bodyRate(const SceneMotion& m, double t) {
    const cv::Matx33d swing = rotation(m.oscillation_axis * oscillationAngle(m, t));
    return swing.t() * turnRate(m) + m.oscillation_axis * oscillationRate(m, t);
}

cv::Vec3d worldAcceleration(const SceneMotion& m, double t) {
    const double w = 2 * kPi * m.translation_hz;
    return m.translation_amplitude * (-w * w * std::sin(w * t));
}

// What the accelerometer feels, in g, body frame: acceleration minus gravity, so +1 g up at rest.
cv::Vec3d specificForce(const SceneMotion& m, double t) {
    const cv::Vec3d up(0, 0, 1);
    return worldFromBody(m, t).t() * (worldAcceleration(m, t) / kStandardGravity + up);
}

uint64_t splitmix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Standard normal deviate that depends only on (seed, sample, channel), so a frame's samples are
// the same whichever frames were served before it.
double gaussian(uint64_t seed, int64_t sample, int channel) {
    const uint64_t h = splitmix64(splitmix64(seed) ^ splitmix64(uint64_t(sample) * 8 + uint64_t(channel)));
    const double u1 = (double((h >> 11) & ((1ull << 26) - 1)) + 0.5) / double(1ull << 26);
    const double u2 = (double(h >> 37) + 0.5) / double(1ull << 27);
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2 * kPi * u2);
}

int16_t toCounts(double value) {
    return int16_t(std::clamp(std::lround(value), -32768L, 32767L));
}

uint32_t ticksAt(const SceneImu& imu, double t) {
    return imu.tick_offset + uint32_t(uint64_t(std::llround(t * imu.ticks_per_second)));
}

}  // namespace

// Pose of the scene's camera at time t (seconds of the scene's clock).
ScenePose scenePose(const SceneMotion& m, double t) {
    ScenePose pose;
    pose.world_from_body = worldFromBody(m, t);
    pose.world_from_camera = pose.world_from_body * kBodyFromCamera;
    const double w = 2 * kPi * m.translation_hz;
    pose.position = m.position + m.translation_amplitude * std::sin(w * t);
    return pose;
}

// Unit quaternion (w, x, y, z), w >= 0, of a rotation matrix taking body vectors to the world:
// the convention of an attitude filter that predicts gravity (0, 0, 1) for the identity.
cv::Vec4d attitudeQuaternion(const cv::Matx33d& r) {
    cv::Vec4d q;
    const double trace = r(0, 0) + r(1, 1) + r(2, 2);
    if (trace > 0) {
        const double s = 2 * std::sqrt(1 + trace);
        q = {s / 4, (r(2, 1) - r(1, 2)) / s, (r(0, 2) - r(2, 0)) / s, (r(1, 0) - r(0, 1)) / s};
    } else if (r(0, 0) > r(1, 1) && r(0, 0) > r(2, 2)) {
        const double s = 2 * std::sqrt(1 + r(0, 0) - r(1, 1) - r(2, 2));
        q = {(r(2, 1) - r(1, 2)) / s, s / 4, (r(0, 1) + r(1, 0)) / s, (r(0, 2) + r(2, 0)) / s};
    } else if (r(1, 1) > r(2, 2)) {
        const double s = 2 * std::sqrt(1 + r(1, 1) - r(0, 0) - r(2, 2));
        q = {(r(0, 2) - r(2, 0)) / s, (r(0, 1) + r(1, 0)) / s, s / 4, (r(1, 2) + r(2, 1)) / s};
    } else {
        const double s = 2 * std::sqrt(1 + r(2, 2) - r(0, 0) - r(1, 1));
        q = {(r(1, 0) - r(0, 1)) / s, (r(0, 2) + r(2, 0)) / s, (r(1, 2) + r(2, 1)) / s, s / 4};
    }
    q = cv::normalize(q);
    return q[0] < 0 ? -q : q;
}

// Index of the last inertial sample taken at or before frame `frame`'s time; -1 before frame 0.
// Sample k is taken at k / sample_rate, so frame i's trailer carries the samples after frame
// i-1's time up to and including its own.
int64_t lastSampleOfFrame(const Scene& scene, int64_t frame) {
    if (frame < 0) return -1;
    return int64_t(std::floor(double(frame) * scene.imu.sample_rate / scene.frame_rate + 1e-9));
}

// Trailer time stamp of frame `frame`: its time on the scene's clock in the inertial unit's ticks.
uint32_t frameTicks(const Scene& scene, int64_t frame) {
    return ticksAt(scene.imu, double(frame) / scene.frame_rate);
}

// Inertial sample k: its time stamp, the true rate and specific force in the body frame, and the
// raw counts with the configured bias and noise, saturated to the sensor's 16 bits.
ImuTruthSample imuSample(const Scene& scene, int64_t k) {
    const double t = double(k) / scene.imu.sample_rate;
    const SceneImu& imu = scene.imu;
    const cv::Vec3d rate = bodyRate(scene.motion, t);
    const cv::Vec3d force = specificForce(scene.motion, t);
    ImuTruthSample s;
    s.ticks = ticksAt(imu, t);
    for (int a = 0; a < 3; ++a) {
        s.gyro_rad_s[a] = rate[a];
        s.accel_g[a] = force[a];
        s.gyro_raw[a] = toCounts(rate[a] * kGyroCountsPerRadS + imu.gyro_bias[a] +
                                 imu.gyro_noise * gaussian(imu.seed, k, a));
        s.accel_raw[a] = toCounts(force[a] * kAccelCountsPerG + imu.accel_bias[a] +
                                  imu.accel_noise * gaussian(imu.seed, k, 3 + a));
    }
    return s;
}

}  // namespace vcam
}  // namespace orvo
