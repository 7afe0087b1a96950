// Rendered scenes: images against the rig's projection, motion conventions, trailer, truth, files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "OrvoCamera.h"
#include "frame_format.h"
#include "scene.h"
#include "scratch_dir.h"
#include "v4l2_client.h"
#include "video_device.h"

namespace {

using namespace orvo::vcam;
namespace frame = orvo::frame;

constexpr double kPi = 3.14159265358979323846;

double rad(double degrees) { return degrees * kPi / 180; }

// ---- helpers -------------------------------------------------------------------------------

struct Pair {
    cv::Mat left, right;
};

Pair split(const std::vector<uint8_t>& f) {
    Pair p{cv::Mat(frame::kHeight, frame::kWidth, CV_8U), cv::Mat(frame::kHeight, frame::kWidth, CV_8U)};
    for (size_t i = 0; i < frame::kPixels; ++i) {
        p.right.data[i] = f[2 * i];
        p.left.data[i] = f[2 * i + 1];
    }
    return p;
}

uint32_t u32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
int16_t i16(const uint8_t* p) { return int16_t(p[0] | p[1] << 8); }

struct Decoded {
    std::vector<TrailerRecord> records;
    uint32_t frame_ticks = 0;
};

// The camera's trailer, read straight from the bytes.
Decoded decodeTrailer(const std::vector<uint8_t>& f) {
    const uint8_t* block = f.data() + f.size() - frame::kBlockFromEnd;
    Decoded d;
    const size_t n = f.back();
    for (size_t i = 0; i < n && i < frame::kRecordSlots; ++i) {
        const uint8_t* r = block + i * frame::kRecordSize;
        TrailerRecord rec;
        rec.ticks = u32(r);
        for (int a = 0; a < 3; ++a) {
            rec.gyro[a] = i16(r + 4 + 2 * a);
            rec.accel[a] = i16(r + 10 + 2 * a);
        }
        d.records.push_back(rec);
    }
    if (n < frame::kRecordSlots) d.frame_ticks = u32(block + n * frame::kRecordSize);
    return d;
}

SceneTexture flat(double grey) {
    SceneTexture t;
    t.kind = SceneTexture::kFlat;
    t.mean = grey;
    return t;
}

// A bright box before a dark wall, lit evenly, so that the box's outline is a clean step from
// 50 to 220 whose position the pixels' coverage tells to a small fraction of a pixel.
Scene outlineScene(const RigSpec& rig) {
    Scene s;
    s.rig = rig;
    s.render.ambient = 1;
    s.render.diffuse = 0;
    s.render.background = 50;
    SceneObject wall;
    wall.kind = SceneObject::kPlane;
    wall.centre = {0, 6, 0.5};
    wall.axis_u = {1, 0, 0};
    wall.axis_v = {0, 0, 1};
    wall.size = {40, 40, 0};
    wall.texture = flat(50);
    SceneObject box;
    box.kind = SceneObject::kBox;
    box.centre = {0.1, 2.0, 0.5};
    box.size = {0.6, 0.4, 1.0};
    box.texture = flat(220);
    s.objects = {wall, box};
    return s;
}

struct Source {
    std::unique_ptr<FrameSource> source;
    std::vector<uint8_t> bytes = std::vector<uint8_t>(frame::kBytes);
    FrameTruth truth;

    explicit Source(const Scene& scene) {
        std::string error;
        source = makeSceneSource(scene, &error);
        EXPECT_TRUE(source) << error;
    }
    void render(uint64_t index) {
        truth = FrameTruth();
        source->render(index, index / 30.0, bytes.data(), truth);
    }
};

// Column (or row) where the step across a pixel profile sits: with area sampling, a 0-to-1 step
// at e covers sum(v) = (last + 0.5) - e of the window's pixels.
double stepPosition(const std::vector<double>& v, int first) {
    double covered = 0;
    for (double x : v) covered += x;
    return first + int(v.size()) - 0.5 - covered;
}

// Pixel where the world point's image falls in lens `lens`, through the rig's own projection.
cv::Point2d projectWorld(const Rig& rig, const ScenePose& pose, int lens, const cv::Vec3d& p) {
    const cv::Vec3d c = pose.world_from_camera.t() * (p - pose.position);
    cv::Point2d px;
    EXPECT_TRUE(rig.project(lens, {c[0], c[1], c[2]}, px));
    return px;
}

// Point on the world segment a-b whose image lies on the given row (or column), by bisection.
cv::Point2d imageOfSegmentAt(const Rig& rig, const ScenePose& pose, int lens, const cv::Vec3d& a,
                             const cv::Vec3d& b, double at, bool by_row) {
    double lo = 0, hi = 1;
    const auto coord = [&](double s) {
        const cv::Point2d px = projectWorld(rig, pose, lens, a + (b - a) * s);
        return by_row ? px.y : px.x;
    };
    const bool rising = coord(1) > coord(0);
    for (int i = 0; i < 60; ++i) {
        const double mid = (lo + hi) / 2;
        ((coord(mid) < at) == rising ? lo : hi) = mid;
    }
    return projectWorld(rig, pose, lens, a + (b - a) * lo);
}

struct OutlineError {
    double worst = 0, mean = 0;
    int checked = 0;
};

// Distance, in pixels, between the rendered outline of the box's front face and its projection,
// along its left, right and top edges, each checked every 7 pixels.
OutlineError outlineError(const Scene& scene, const cv::Mat& image, int lens, double t = 0) {
    const Rig rig(scene.rig);
    const ScenePose pose = scenePose(scene.motion, t);
    const SceneObject& box = scene.objects[1];
    const double front = box.centre[1] - box.size[1] / 2;
    const double x0 = box.centre[0] - box.size[0] / 2, x1 = box.centre[0] + box.size[0] / 2;
    const double z0 = box.centre[2] - box.size[2] / 2, z1 = box.centre[2] + box.size[2] / 2;
    struct Edge {
        cv::Vec3d a, b;
        bool vertical;   // scanned along rows
        bool box_after;  // the box lies at larger column (row) than the edge
    };
    const Edge edges[] = {{{x0, front, z0}, {x0, front, z1}, true, true},
                          {{x1, front, z0}, {x1, front, z1}, true, false},
                          {{x0, front, z1}, {x1, front, z1}, false, true}};
    OutlineError err;
    for (const Edge& e : edges) {
        const cv::Point2d pa = projectWorld(rig, pose, lens, e.a), pb = projectWorld(rig, pose, lens, e.b);
        const double from = e.vertical ? std::min(pa.y, pb.y) : std::min(pa.x, pb.x);
        const double to = e.vertical ? std::max(pa.y, pb.y) : std::max(pa.x, pb.x);
        for (int at = int(from) + 8; at < to - 8; at += 7) {
            const cv::Point2d expected = imageOfSegmentAt(rig, pose, lens, e.a, e.b, at, e.vertical);
            const double across = e.vertical ? expected.x : expected.y;
            const int first = int(std::lround(across)) - 5;
            std::vector<double> v;
            for (int i = first; i <= first + 10; ++i) {
                const double grey = e.vertical ? image.at<uint8_t>(at, i) : image.at<uint8_t>(i, at);
                const double covered = (grey - 50) / 170;
                v.push_back(e.box_after ? covered : 1 - covered);
            }
            const double off = std::fabs(stepPosition(v, first) - across);
            err.worst = std::max(err.worst, off);
            err.mean += off;
            ++err.checked;
        }
    }
    err.mean /= std::max(err.checked, 1);
    return err;
}

// ---- rendering -----------------------------------------------------------------------------

TEST(SceneRender, OutlinesFallWhereTheRigProjectsThemThroughBothDistortedLenses) {
    Scene pinhole = outlineScene(RigSpec());
    pinhole.motion.attitude_deg = {4, -3, 2};  // an arbitrary pose, so the camera's axes matter
    Scene fisheye = outlineScene(fisheyeRigSpec());
    fisheye.motion.position = {0.05, 0.1, 0.45};
    for (const Scene* scene : {&pinhole, &fisheye}) {
        SCOPED_TRACE(scene->rig.fisheye ? "fisheye" : "pinhole");
        Source src(*scene);
        ASSERT_TRUE(src.source);
        src.render(0);
        const Pair pair = split(src.bytes);
        // The left lens is on the odd bytes, the right lens on the even ones. Four rays a pixel
        // side place an edge to within an eighth of a pixel.
        for (int lens = 0; lens < 2; ++lens) {
            const OutlineError e = outlineError(*scene, lens == 0 ? pair.left : pair.right, lens);
            EXPECT_LT(e.worst, 0.15) << "lens " << lens;
            EXPECT_LT(e.mean, 0.06) << "lens " << lens;
            EXPECT_GT(e.checked, 50) << "lens " << lens;
        }
        // The lenses really differ: the other lens's projection is pixels away.
        EXPECT_GT(outlineError(*scene, pair.right, 0).mean, 3.0);
    }
}

TEST(SceneRender, AMovingCameraIsRenderedAtEachFramesPoseUnlessToldToKeepItsFirstImage) {
    Scene s = outlineScene(RigSpec());
    s.motion.rate_deg_s = {2, 0, 10};
    s.motion.translation_amplitude = {0.05, 0, 0};
    s.motion.translation_hz = 0.4;
    Source first_served_late(s);
    ASSERT_TRUE(first_served_late.source);
    first_served_late.render(15);  // t = 0.5 s: turned 5 degrees left and moved 4.8 cm right
    const Pair late = split(first_served_late.bytes);
    for (int lens = 0; lens < 2; ++lens) {
        const cv::Mat& image = lens == 0 ? late.left : late.right;
        EXPECT_LT(outlineError(s, image, lens, 0.5).worst, 0.15) << lens;
        EXPECT_GT(outlineError(s, image, lens, 0.0).mean, 3.0) << lens;  // pixels off at t = 0
    }
    s.render.follow_motion = false;
    Source kept(s);
    kept.render(15);
    EXPECT_LT(outlineError(s, split(kept.bytes).left, 0, 0.0).worst, 0.15);
}

TEST(SceneRender, TexturedSceneHasDetailEverywhereAndStaticFramesKeepTheirImages) {
    Source src(defaultScene());
    ASSERT_TRUE(src.source);
    src.render(0);
    const std::vector<uint8_t> first = src.bytes;
    src.render(17);
    // Only the trailer changes between frames of a still camera.
    EXPECT_EQ(0, std::memcmp(first.data(), src.bytes.data(), frame::kBytes - frame::kTrailerSize));
    EXPECT_NE(0, std::memcmp(first.data() + frame::kBytes - frame::kTrailerSize,
                             src.bytes.data() + frame::kBytes - frame::kTrailerSize, frame::kTrailerSize));
    // Block matching needs local contrast: every 16 x 16 block of the scene has some.
    const Pair pair = split(first);
    int flat_blocks = 0;
    for (int y = 0; y + 16 <= frame::kHeight - 2; y += 16) {
        for (int x = 0; x + 16 <= frame::kWidth; x += 16) {
            cv::Scalar mean, dev;
            cv::meanStdDev(pair.left(cv::Rect(x, y, 16, 16)), mean, dev);
            if (dev[0] < 2.0) ++flat_blocks;
        }
    }
    EXPECT_LE(flat_blocks, 5);

    // Opening the same file again shows the same images; once the file is edited, the new ones.
    orvo_test::ScratchDir dir;
    Scene scene = defaultScene();
    std::string error;
    ASSERT_TRUE(saveScene(dir.file("s.yml"), scene, &error));
    std::vector<uint8_t> a(frame::kBytes), b(frame::kBytes), c(frame::kBytes);
    FrameTruth truth;
    makeSceneSource(dir.file("s.yml"), &error)->render(0, 0, a.data(), truth);
    makeSceneSource(dir.file("s.yml"), &error)->render(0, 0, b.data(), truth);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, first);
    scene.objects[2].texture.mean += 40;  // a brighter obstacle
    ASSERT_TRUE(saveScene(dir.file("s.yml"), scene, &error));
    makeSceneSource(dir.file("s.yml"), &error)->render(0, 0, c.data(), truth);
    EXPECT_NE(a, c);
}

// ---- motion and inertial conventions ---------------------------------------------------------

TEST(SceneMotion, LevelCameraReadsOneGUpAndPitchTiltsTheViewAndTheGravity) {
    Scene s;
    s.imu.gyro_bias = {0, 0, 0};
    ImuTruthSample level = imuSample(s, 3);
    EXPECT_NEAR(level.accel_g[0], 0, 1e-12);
    EXPECT_NEAR(level.accel_g[1], 0, 1e-12);
    EXPECT_NEAR(level.accel_g[2], 1, 1e-12);
    EXPECT_EQ(level.accel_raw[2], 8192);
    EXPECT_EQ(level.gyro_raw[0], 0);
    EXPECT_EQ(level.ticks, 15000u);  // sample 3 at 200 Hz on a microsecond clock

    s.motion.attitude_deg = {0, 10, 0};  // nose up
    const ScenePose pose = scenePose(s.motion, 0);
    const cv::Vec3d forward = pose.world_from_camera * cv::Vec3d(0, 0, 1);
    const cv::Vec3d down = pose.world_from_camera * cv::Vec3d(0, 1, 0);
    EXPECT_NEAR(forward[1], std::cos(rad(10)), 1e-12);
    EXPECT_NEAR(forward[2], std::sin(rad(10)), 1e-12);
    EXPECT_NEAR(down[2], -std::cos(rad(10)), 1e-12);
    const ImuTruthSample pitched = imuSample(s, 0);
    EXPECT_NEAR(pitched.accel_g[1], std::sin(rad(10)), 1e-12);
    EXPECT_NEAR(pitched.accel_g[2], std::cos(rad(10)), 1e-12);
    EXPECT_EQ(pitched.accel_raw[1], 1423);  // 8192 sin 10 deg = 1422.53
    const cv::Vec4d q = attitudeQuaternion(pose.world_from_body);
    EXPECT_NEAR(q[0], std::cos(rad(5)), 1e-12);
    EXPECT_NEAR(q[1], std::sin(rad(5)), 1e-12);
    // An attitude filter predicts gravity from q as the third row of its rotation matrix.
    const double vy = 2 * (q[0] * q[1] + q[2] * q[3]);
    const double vz = q[0] * q[0] - q[1] * q[1] - q[2] * q[2] + q[3] * q[3];
    EXPECT_NEAR(vy, pitched.accel_g[1], 1e-12);
    EXPECT_NEAR(vz, pitched.accel_g[2], 1e-12);

    s.motion.attitude_deg = {0, 0, 20};  // roll: the right side goes down, so up leans left
    EXPECT_NEAR((scenePose(s.motion, 0).world_from_camera * cv::Vec3d(1, 0, 0))[2], -std::sin(rad(20)), 1e-12);
    EXPECT_NEAR(imuSample(s, 0).accel_g[0], -std::sin(rad(20)), 1e-12);
    s.motion.attitude_deg = {30, 0, 0};  // yaw: turned to the left
    EXPECT_NEAR((scenePose(s.motion, 0).world_from_camera * cv::Vec3d(0, 0, 1))[0], -std::sin(rad(30)), 1e-12);
    EXPECT_NEAR(imuSample(s, 0).accel_g[2], 1, 1e-12);
}

TEST(SceneMotion, GyroReadsTheRateTheAttitudeTurnsAtInCountsOfTheSensor) {
    Scene s;
    s.motion.rate_deg_s = {0, 0, 30};
    s.imu.gyro_bias = {3, -2, 5};
    const ImuTruthSample turn = imuSample(s, 40);
    EXPECT_EQ(turn.gyro_raw[2], 492 + 5);  // 30 deg/s x 16.4 counts
    EXPECT_EQ(turn.gyro_raw[0], 3);
    EXPECT_EQ(turn.gyro_raw[1], -2);
    const cv::Vec4d q = attitudeQuaternion(scenePose(s.motion, 0.2).world_from_body);
    EXPECT_NEAR(q[0], std::cos(rad(3)), 1e-12);
    EXPECT_NEAR(q[3], std::sin(rad(3)), 1e-12);  // 6 degrees to the left after 0.2 s

    // Turning, swinging and shaking at once: the gyro's rate is the derivative of the attitude
    // and the accelerometer's force that of the position, both in the body frame.
    s.motion.attitude_deg = {20, -5, 8};
    s.motion.rate_deg_s = {5, -10, 25};
    s.motion.oscillation_axis = cv::normalize(cv::Vec3d(1, 0.5, 0));
    s.motion.oscillation_deg = 6;
    s.motion.oscillation_hz = 1.5;
    s.motion.translation_amplitude = {0.02, -0.01, 0.03};
    s.motion.translation_hz = 2;
    const double h = 1e-5;
    for (int k : {0, 7, 33, 101}) {
        const double t = k / s.imu.sample_rate;
        const ImuTruthSample sample = imuSample(s, k);
        const cv::Matx33d a = scenePose(s.motion, t - h).world_from_body;
        const cv::Matx33d b = scenePose(s.motion, t + h).world_from_body;
        const cv::Matx33d skew = (a.t() * b - b.t() * a) * (1 / (4 * h));  // ~[w]x
        EXPECT_NEAR(sample.gyro_rad_s[0], skew(2, 1), 1e-6) << k;
        EXPECT_NEAR(sample.gyro_rad_s[1], skew(0, 2), 1e-6) << k;
        EXPECT_NEAR(sample.gyro_rad_s[2], skew(1, 0), 1e-6) << k;
        const double hp = 1e-4;
        const cv::Vec3d acc = (scenePose(s.motion, t + hp).position - 2 * scenePose(s.motion, t).position +
                               scenePose(s.motion, t - hp).position) * (1 / (hp * hp));
        const cv::Vec3d force = scenePose(s.motion, t).world_from_body.t() *
                                (acc / 9.80665 + cv::Vec3d(0, 0, 1));
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(sample.accel_g[i], force[i], 1e-5) << k;
    }
}

// The library's attitude filter, fed the decoded samples of a scene through the virtual camera,
// ends at the scene's true attitude: the sensor axes, units and quaternion convention agree.
cv::Vec4d filteredAttitude(const Scene& scene, int steps) {
    orvo_test::ScratchDir dir;
    std::string error;
    EXPECT_TRUE(saveScene(dir.file("imu.yml"), scene, &error)) << error;
    setenv("ORVO_VCAM_DEVICE", "/dev/video-virtual-scene", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_SOURCE", ("scene:" + dir.file("imu.yml")).c_str(), 1);
    float q[4] = {0, 0, 0, 0};
    {
        OrvoCameraParameterList p;
        p.device_path = "/dev/video-virtual-scene";
        OrvoCamera camera(p);
        std::vector<ImuData> samples;
        unsigned int frame_time = 0;
        uint32_t last = 0;
        for (int done = 0; done < steps;) {
            camera.Grab();
            camera.getImuRawData(samples, frame_time);
            for (const ImuData& sample : samples) {
                const float period = done == 0 ? 0.0f : float((sample.time - last) / scene.imu.ticks_per_second);
                last = sample.time;
                camera.ImuRect(sample, period, q);
                if (++done == steps) break;
            }
        }
    }
    unsetenv("ORVO_VCAM_DEVICE");
    unsetenv("ORVO_VCAM_FPS");
    unsetenv("ORVO_VCAM_SOURCE");
    return {q[0], q[1], q[2], q[3]};
}

TEST(SceneAttitude, TheLibrarysFilterSettlesOnTheTrueAttitudeStillAndTurning) {
    Scene s = outlineScene(RigSpec());
    s.render.follow_motion = false;
    s.imu.gyro_noise = 1;
    s.imu.accel_noise = 8;
    s.motion.attitude_deg = {0, 12, -7};
    const int steps = 700;
    const double end = (steps - 1) / s.imu.sample_rate;
    cv::Vec4d q = filteredAttitude(s, steps);
    // Still, only the tilt is observable: the gravity the filter predicts is the true one.
    const cv::Vec3d predicted(2 * (q[1] * q[3] - q[0] * q[2]), 2 * (q[0] * q[1] + q[2] * q[3]),
                              q[0] * q[0] - q[1] * q[1] - q[2] * q[2] + q[3] * q[3]);
    const cv::Vec3d up = scenePose(s.motion, end).world_from_body.t() * cv::Vec3d(0, 0, 1);
    EXPECT_LT(cv::norm(predicted - up), 0.002) << predicted << " vs " << up;
    EXPECT_GT(std::fabs(up[0]), 0.1);
    EXPECT_GT(std::fabs(up[1]), 0.2);
    cv::Vec4d truth;

    // Turning about the tilted up axis from heading 0, where the filter starts: the gyro keeps
    // the heading, so the whole attitude agrees.
    s.motion.attitude_deg = {0, 10, 0};
    s.motion.rate_deg_s = {0, 0, 20};
    q = filteredAttitude(s, steps);
    truth = attitudeQuaternion(scenePose(s.motion, end).world_from_body);
    EXPECT_LT(cv::norm(q - truth), 0.02) << q << " vs " << truth;
    EXPECT_GT(truth[3], 0.25);  // it did turn, by about 35 degrees
}

// ---- the trailer ---------------------------------------------------------------------------

TEST(SceneTrailer, EachFrameCarriesTheSamplesSinceThePreviousFrameAsTheTruthHasThem) {
    Scene s = outlineScene(RigSpec());
    s.imu.sample_rate = 200;
    s.imu.ticks_per_second = 1000000;
    s.imu.tick_offset = 4294000000u;  // the tick counter wraps during the run
    s.imu.gyro_bias = {7, -3, 11};
    s.imu.gyro_noise = 2;
    s.imu.accel_noise = 5;
    s.motion.rate_deg_s = {0, 0, 12};
    s.render.follow_motion = false;
    Source src(s);
    ASSERT_TRUE(src.source);
    uint32_t expected_ticks = s.imu.tick_offset;
    size_t total = 0;
    for (uint64_t i = 0; i < 31; ++i) {
        src.render(i);
        const Decoded d = decodeTrailer(src.bytes);
        ASSERT_EQ(d.records.size(), src.truth.imu.size()) << i;
        EXPECT_EQ(d.records.size(), i == 0 ? 1u : (i % 3 == 1 ? 6u : 7u)) << i;
        for (size_t r = 0; r < d.records.size(); ++r) {
            const ImuTruthSample& t = src.truth.imu[r];
            EXPECT_EQ(d.records[r].ticks, expected_ticks) << i << "/" << r;
            EXPECT_EQ(t.ticks, expected_ticks);
            expected_ticks += 5000;
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(d.records[r].gyro[a], t.gyro_raw[a]);
                EXPECT_EQ(d.records[r].accel[a], t.accel_raw[a]);
            }
        }
        total += d.records.size();
        const uint32_t frame_ticks = s.imu.tick_offset + uint32_t(std::llround(i * 1e6 / 30));
        EXPECT_EQ(d.frame_ticks, frame_ticks) << i;
        EXPECT_EQ(src.truth.frame_ticks, frame_ticks) << i;
        ASSERT_TRUE(src.truth.has_attitude);
        EXPECT_NEAR(src.truth.attitude[3], std::sin(rad(12 * i / 30.0 / 2)), 1e-12);
        EXPECT_EQ(src.truth.extra, "");
    }
    EXPECT_EQ(total, 201u);  // samples 0 .. 200: one second at 200 Hz
    EXPECT_LT(expected_ticks, s.imu.tick_offset);  // wrapped

    // A frame served out of order, as after drops, carries its own window and nothing else.
    src.render(10);
    const std::vector<ImuTruthSample> ten = src.truth.imu;
    Source fresh(s);
    fresh.render(10);
    ASSERT_EQ(ten.size(), 6u);
    EXPECT_EQ(ten.front().ticks, s.imu.tick_offset + 305000u);  // sample 61, just after 1/3 s
    for (size_t r = 0; r < ten.size(); ++r) {
        EXPECT_EQ(fresh.truth.imu[r].ticks, ten[r].ticks);
        EXPECT_EQ(std::memcmp(fresh.truth.imu[r].gyro_raw, ten[r].gyro_raw, 6), 0);
        EXPECT_EQ(std::memcmp(fresh.truth.imu[r].accel_raw, ten[r].accel_raw, 6), 0);
    }
}

// Splits a truth-file line into its key=value fields.
std::map<std::string, std::string> truthFields(const std::string& line) {
    std::map<std::string, std::string> fields;
    std::stringstream in(line);
    std::string item;
    while (in >> item) {
        const size_t eq = item.find('=');
        if (eq != std::string::npos) fields[item.substr(0, eq)] = item.substr(eq + 1);
    }
    return fields;
}

// "ticks:gx,gy,gz:ax,ay,az:graw x,y,z:araw x,y,z" of one truth sample.
ImuTruthSample truthSample(const std::string& text) {
    ImuTruthSample s;
    int graw[3], araw[3];
    EXPECT_EQ(13, std::sscanf(text.c_str(), "%u:%lf,%lf,%lf:%lf,%lf,%lf:%d,%d,%d:%d,%d,%d", &s.ticks,
                              &s.gyro_rad_s[0], &s.gyro_rad_s[1], &s.gyro_rad_s[2], &s.accel_g[0],
                              &s.accel_g[1], &s.accel_g[2], &graw[0], &graw[1], &graw[2], &araw[0],
                              &araw[1], &araw[2]))
        << text;
    for (int a = 0; a < 3; ++a) {
        s.gyro_raw[a] = int16_t(graw[a]);
        s.accel_raw[a] = int16_t(araw[a]);
    }
    return s;
}

TEST(SceneTrailer, FramesServedByTheVirtualCameraMatchTheTruthFileWithTheConfiguredBiasAndNoise) {
    orvo_test::ScratchDir dir;
    Scene s = defaultScene();
    s.motion.rate_deg_s = {0, 0, 15};
    s.render.follow_motion = false;
    s.imu.gyro_bias = {25, -40, 7};
    s.imu.accel_bias = {100, -50, 0};
    s.imu.gyro_noise = 3;
    s.imu.accel_noise = 6;
    s.imu.seed = 77;
    std::string error;
    ASSERT_TRUE(saveScene(dir.file("scene.yml"), s, &error)) << error;
    const char* node = "/dev/video-virtual-scene";
    const std::string source = "scene:" + dir.file("scene.yml"), truth_path = dir.file("truth.txt");
    orvo_test::ScopedEnv env{{"ORVO_VCAM_DEVICE", node}, {"ORVO_VCAM_SOURCE", source.c_str()},
                             {"ORVO_VCAM_FPS", "0"}, {"ORVO_VCAM_TRUTH", truth_path.c_str()},
                             {"ORVO_VCAM_TRUTH_BOX", "0.5,0.5,3"}, {"ORVO_VCAM_FAULTS", nullptr}};
    const int frames = 300;
    std::vector<Decoded> decoded;
    {
        video_device camera(node, frame::kWidth, frame::kHeight);
        for (int i = 0; i < frames; ++i) {
            unsigned char* data = nullptr;
            unsigned long length = 0;
            ASSERT_EQ(0, camera.get_frame(&data, &length));
            ASSERT_EQ(frame::kBytes, length);
            decoded.push_back(decodeTrailer(std::vector<uint8_t>(data, data + length)));
            camera.unget_frame();
        }
    }
    std::ifstream truth(truth_path);
    std::string line;
    const double gyro_counts = 16.4 * 57.3, accel_counts = 8192;
    double sum[6] = {0}, sq[6] = {0};
    int samples = 0;
    for (int i = 0; i < frames && std::getline(truth, line); ++i) {
        auto f = truthFields(line);
        ASSERT_EQ(f["index"], std::to_string(i));
        const Decoded& d = decoded[i];
        EXPECT_EQ(f["ticks"], std::to_string(d.frame_ticks)) << i;
        EXPECT_EQ(d.frame_ticks, uint32_t(std::llround(i * 1e6 / 30))) << i;
        ASSERT_EQ(f["imu"], std::to_string(d.records.size())) << i;
        for (size_t r = 0; r < d.records.size(); ++r) {
            const ImuTruthSample t = truthSample(f["imu" + std::to_string(r)]);
            EXPECT_EQ(d.records[r].ticks, t.ticks);
            EXPECT_EQ(t.ticks, uint32_t(5000 * samples));
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(d.records[r].gyro[a], t.gyro_raw[a]);
                EXPECT_EQ(d.records[r].accel[a], t.accel_raw[a]);
                const double g = d.records[r].gyro[a] - s.imu.gyro_bias[a] - t.gyro_rad_s[a] * gyro_counts;
                const double acc = d.records[r].accel[a] - s.imu.accel_bias[a] - t.accel_g[a] * accel_counts;
                sum[a] += g, sq[a] += g * g;
                sum[3 + a] += acc, sq[3 + a] += acc * acc;
            }
            EXPECT_NEAR(t.gyro_rad_s[2], 15 * kPi / 180, 1e-12);
            EXPECT_NEAR(t.accel_g[2], 1, 1e-12);
            ++samples;
        }
        const double half_turn = rad(15.0 * i / 30) / 2;
        double q[4];
        ASSERT_EQ(4, std::sscanf(f["attitude"].c_str(), "%lf,%lf,%lf,%lf", &q[0], &q[1], &q[2], &q[3]));
        EXPECT_NEAR(q[0], std::cos(half_turn), 1e-12);
        EXPECT_NEAR(q[3], std::sin(half_turn), 1e-12);
        EXPECT_EQ(f.count("nearest_depth"), 1u);
        if (i == 0) {
            EXPECT_EQ(f["nearest_depth"], "1.399397");
        }
    }
    ASSERT_EQ(samples, 1 + 299 * 20 / 3);  // 200 a second
    // What is left after the truth and the bias is the noise, plus 1/12 count^2 from rounding.
    for (int c = 0; c < 6; ++c) {
        const double sigma = c < 3 ? 3 : 6;
        const double mean = sum[c] / samples;
        const double dev = std::sqrt(sq[c] / samples - mean * mean);
        EXPECT_NEAR(mean, 0, 4 * sigma / std::sqrt(samples)) << c;
        EXPECT_NEAR(dev, std::sqrt(sigma * sigma + 1.0 / 12), 0.08 * sigma) << c;
    }
}

TEST(SceneTrailer, NoiseFollowsTheSeedAndCountsSaturate) {
    Scene s;
    s.imu.gyro_bias = {25, -40, 7};
    s.imu.gyro_noise = 3;
    s.imu.seed = 77;
    const ImuTruthSample a = imuSample(s, 123);
    EXPECT_EQ(std::memcmp(a.gyro_raw, imuSample(s, 123).gyro_raw, 6), 0);
    Scene other = s;
    other.imu.seed = 78;
    int differing = 0;
    for (int k = 0; k < 20; ++k)
        differing += std::memcmp(imuSample(s, k).gyro_raw, imuSample(other, k).gyro_raw, 6) != 0;
    EXPECT_GE(differing, 18);
    // Without noise the counts are the rounded truth plus bias, saturated to 16 bits.
    s.imu.gyro_noise = 0;
    s.motion.rate_deg_s = {0, 2500, -2500};
    const ImuTruthSample fast = imuSample(s, 5);
    EXPECT_EQ(fast.gyro_raw[1], 32767);
    EXPECT_EQ(fast.gyro_raw[2], -32768);
    EXPECT_EQ(fast.gyro_raw[0], 25);
}

// ---- the truth box -------------------------------------------------------------------------

TEST(SceneTruth, NearestDepthIsThatOfTheObjectPointsInsideTheSearchBox) {
    Scene s = outlineScene(RigSpec());
    s.rig.rotation = {0, 0, 0};  // rectification is then the identity for the left lens
    s.rig.principal_right = s.rig.principal_left;
    const Rig rig(s.rig);
    const ScenePose pose = scenePose(s.motion, 0);
    SearchBox box{0.5, 0.5, 3, 0};
    SceneObject& b = s.objects[1];
    const auto depth = [&]() { return nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, box); };
    EXPECT_NEAR(depth(), 1.8, 1e-12);  // the front face; the wall at 6 m is beyond max_depth
    box.max_depth = 1.8 - 1e-9;
    EXPECT_EQ(depth(), HUGE_VAL);
    box.max_depth = 1.8 + 1e-9;
    EXPECT_NEAR(depth(), 1.8, 1e-12);
    box.max_depth = 3;
    b.centre[2] = -1e-6;  // the top face just below the optical axis: nothing above it
    EXPECT_EQ(depth(), HUGE_VAL);
    b.centre[2] = 1e-6;
    EXPECT_NEAR(depth(), 1.8, 1e-12);
    b.centre = {0.06 + 0.5 + 0.3 + 1e-6, 2.0, 0.5};  // right of the region, centred between the lenses
    EXPECT_EQ(depth(), HUGE_VAL);
    b.centre[0] -= 2e-6;
    EXPECT_NEAR(depth(), 1.8, 1e-12);
    // A box turned by 45 degrees: its front edge lies outside the region, so the nearest point
    // inside is where its face crosses the region's side x = 0.56.
    b.centre = {0.8, 2.0, 0.5};
    b.size = {0.4, 0.4, 1.0};
    b.yaw_deg = 45;
    const double corner_y = 2.0 - 0.2 * std::sqrt(2.0);
    EXPECT_NEAR(depth(), corner_y + (0.8 - 0.56), 1e-9);
    // Tilt turns the region about x; a positive one lifts what lies ahead.
    b = outlineScene(RigSpec()).objects[1];
    b.centre[2] = -0.01;  // top face 0.01 below the axis
    EXPECT_EQ(depth(), HUGE_VAL);
    box.tilt = 0.05;
    EXPECT_NEAR(depth(), 0.01 * std::sin(0.05) + 1.8 * std::cos(0.05), 1e-9);
    box.tilt = -0.05;
    EXPECT_EQ(depth(), HUGE_VAL);

    // Through the environment and the frame's extra text.
    setenv("ORVO_VCAM_TRUTH_BOX", "0.5,0.5,3", 1);
    Scene plain = outlineScene(RigSpec());
    plain.rig = s.rig;
    Source src(plain);
    unsetenv("ORVO_VCAM_TRUTH_BOX");
    ASSERT_TRUE(src.source);
    src.render(0);
    EXPECT_EQ(src.truth.extra, "nearest_depth=1.800000");
    Source none(plain);
    none.render(0);
    EXPECT_EQ(none.truth.extra, "");
}

TEST(SceneTruth, SearchBoxTextIsCheckedAndABadOneRefusesTheSource) {
    SearchBox box;
    std::string error;
    EXPECT_TRUE(parseSearchBox("0.4,0.3,2.5", box, &error));
    EXPECT_EQ(box.half_width, 0.4);
    EXPECT_EQ(box.height, 0.3);
    EXPECT_EQ(box.max_depth, 2.5);
    EXPECT_EQ(box.tilt, 0);
    EXPECT_TRUE(parseSearchBox("1,1,5,-0.25", box, &error));
    EXPECT_EQ(box.tilt, -0.25);
    for (const char* bad : {"", "1,1", "1,1,5,0,0", "1,x,5", "1,1,5,", "0,1,5", "1,-1,5", "1,1,0.4",
                            "1,1,nan", "1,,5"}) {
        EXPECT_FALSE(parseSearchBox(bad, box, &error)) << bad;
        EXPECT_EQ(error, std::string("ORVO_VCAM_TRUTH_BOX must be half_width,height,max_depth[,tilt], not \"") +
                             bad + "\"");
    }
    setenv("ORVO_VCAM_TRUTH_BOX", "1;1;5", 1);
    error.clear();
    EXPECT_FALSE(makeSceneSource(Scene(), &error));
    unsetenv("ORVO_VCAM_TRUTH_BOX");
    EXPECT_EQ(error, "ORVO_VCAM_TRUTH_BOX must be half_width,height,max_depth[,tilt], not \"1;1;5\"");
}

// ---- scene files ---------------------------------------------------------------------------

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

TEST(SceneFile, SavedScenesLoadBackWithCalibrationPathsBesideTheFile) {
    orvo_test::ScratchDir dir;
    Scene s = defaultScene();
    s.rig = fisheyeRigSpec();
    s.calibration = {"", "", "rig/fisheye.yml"};
    s.frame_rate = 25;
    s.motion.rate_deg_s = {1, 2, 3};
    s.motion.oscillation_axis = {0, 0, 1};
    s.imu.tick_offset = 4000000000u;
    s.imu.seed = 3000000000u;
    s.objects[0].texture.kind = SceneTexture::kChecker;
    s.objects[2].texture.kind = SceneTexture::kFlat;
    std::string error;
    ASSERT_TRUE(saveScene(dir.file("s.yml"), s, &error)) << error;
    Scene back;
    ASSERT_TRUE(loadScene(dir.file("s.yml"), back, &error)) << error;
    EXPECT_EQ(back.calibration.fisheye, dir.file("rig/fisheye.yml"));
    EXPECT_EQ(back.calibration.intrinsics, "");
    EXPECT_TRUE(back.rig.fisheye);
    EXPECT_EQ(back.rig.dist_left, s.rig.dist_left);
    EXPECT_EQ(back.rig.principal_right, s.rig.principal_right);
    EXPECT_EQ(back.frame_rate, 25);
    EXPECT_EQ(back.motion.rate_deg_s, s.motion.rate_deg_s);
    EXPECT_EQ(back.imu.tick_offset, 4000000000u);
    EXPECT_EQ(back.imu.seed, 3000000000u);
    EXPECT_EQ(back.imu.gyro_bias, s.imu.gyro_bias);
    ASSERT_EQ(back.objects.size(), s.objects.size());
    for (size_t i = 0; i < s.objects.size(); ++i) {
        EXPECT_EQ(back.objects[i].kind, s.objects[i].kind);
        EXPECT_EQ(back.objects[i].name, s.objects[i].name);
        EXPECT_EQ(back.objects[i].centre, s.objects[i].centre);
        EXPECT_EQ(back.objects[i].size, s.objects[i].size);
        EXPECT_EQ(back.objects[i].yaw_deg, s.objects[i].yaw_deg);
        EXPECT_EQ(back.objects[i].texture.kind, s.objects[i].texture.kind);
        EXPECT_EQ(back.objects[i].texture.seed, s.objects[i].texture.seed);
    }
    // Absent keys keep their defaults; an absolute path stays as it is.
    writeText(dir.file("min.yml"), "%YAML:1.0\n---\ncalibration: { fisheye: \"/abs/f.yml\" }\n"
                                   "rig: { fisheye: 1 }\nobjects:\n  - { type: box }\n");
    ASSERT_TRUE(loadScene(dir.file("min.yml"), back, &error)) << error;
    EXPECT_EQ(back.calibration.fisheye, "/abs/f.yml");
    EXPECT_EQ(back.rig.focal, RigSpec().focal);
    EXPECT_EQ(back.imu.sample_rate, 200);
    ASSERT_EQ(back.objects.size(), 1u);
    EXPECT_EQ(back.objects[0].size, cv::Vec3d(1, 1, 1));

    // The calibration files the scene names are written from its rig, in the library's layouts.
    ASSERT_TRUE(loadScene(dir.file("s.yml"), back, &error));
    back.calibration.fisheye = dir.file("fisheye.yml");
    ASSERT_TRUE(writeSceneCalibration(back, &error)) << error;
    cv::FileStorage fs(dir.file("fisheye.yml"), cv::FileStorage::READ);
    cv::Mat K1;
    fs["K1"] >> K1;
    EXPECT_EQ(K1.at<double>(0, 0), fisheyeRigSpec().focal);
    back.calibration.fisheye = dir.file("missing/fisheye.yml");
    EXPECT_FALSE(writeSceneCalibration(back, &error));
    EXPECT_EQ(error, "cannot write " + dir.file("missing/fisheye.yml"));
    back.calibration = SceneCalibration();
    EXPECT_FALSE(writeSceneCalibration(back, &error));
    EXPECT_EQ(error, "the scene names no calibration files");
}

TEST(SceneFile, BadScenesAreRefusedWithTheKeyThatIsWrong) {
    orvo_test::ScratchDir dir;
    const std::string path = dir.file("bad.yml");
    const std::pair<const char*, const char*> cases[] = {
        {"objects:\n  - { type: sphere }\n", "objects[0].type must be plane or box, not \"sphere\""},
        {"objects:\n  - { type: plane, axis_u: [1, 0, 0], axis_v: [2, 0, 0] }\n",
         "objects[0].axis_u and axis_v must be two independent directions"},
        {"objects:\n  - { type: box, size: [1, 0, 1] }\n", "objects[0].size must be positive"},
        {"objects:\n  - { type: box, size: [1, 1] }\n", "objects[0].size must be 3 numbers"},
        {"objects:\n  - { type: box, texture: { kind: marble } }\n",
         "objects[0].texture.kind must be flat, noise or checker, not \"marble\""},
        {"objects:\n  - { type: box, texture: { octaves: 9 } }\n", "objects[0].texture.octaves must be 1 to 8"},
        {"objects: { type: box }\n", "objects must be a list"},
        {"imu: { sample_rate: 600 }\n", "imu.sample_rate must be positive and give at most 19 samples a frame"},
        {"imu: { gyro_bias: [1, 2.5, 3] }\n", "imu.gyro_bias must be 3 integer counts"},
        {"imu: { gyro_noise: -1 }\n", "imu noise must not be negative"},
        {"imu: { seed: -4 }\n", "imu.seed must be a non-negative integer"},
        {"rig: { focal: 0 }\n", "rig.focal must be positive"},
        {"rig: { principal_left: fred }\n", "rig.principal_left must be 2 numbers"},
        {"calibration: { intrinsics: a.yml }\n", "calibration needs both intrinsics and extrinsics, or neither"},
        {"calibration: { fisheye: f.yml }\n", "calibration files must match rig.fisheye"},
        {"render: { samples: 0 }\n", "render.samples must be 1 to 8"},
        {"render: { follow_motion: 2 }\n", "render.follow_motion must be 0 or 1"},
        {"camera: { oscillation_axis: [0, 0, 0] }\n", "camera.oscillation_axis must not be zero"},
        {"frame_rate: 0\n", "frame_rate must be positive"},
    };
    for (const auto& c : cases) {
        writeText(path, std::string("%YAML:1.0\n---\n") + c.first);
        Scene scene = defaultScene();
        std::string error;
        EXPECT_FALSE(loadScene(path, scene, &error)) << c.first;
        EXPECT_EQ(error, path + ": " + c.second);
        EXPECT_EQ(scene.objects.size(), defaultScene().objects.size()) << "a refused file changes nothing";
    }
    std::string error;
    Scene scene;
    EXPECT_FALSE(loadScene(dir.file("none.yml"), scene, &error));
    EXPECT_EQ(error, "cannot read scene file " + dir.file("none.yml"));
    writeText(path, "%YAML:1.0\n---\nrig: [ unclosed\n");
    EXPECT_FALSE(loadScene(path, scene, &error));
    EXPECT_EQ(error.rfind(path + ": not a readable scene file (", 0), 0u) << error;
    EXPECT_FALSE(makeSceneSource(dir.file("none.yml"), &error));
    EXPECT_EQ(error, "cannot read scene file " + dir.file("none.yml"));
}

TEST(DefaultScene, ShippedFilesAreWhatTheGeneratorWritesAndShowTheObstacleInTheDefaultRegion) {
    orvo_test::ScratchDir dir;
    std::string error;
    ASSERT_TRUE(writeDefaultScene(dir.path(), &error)) << error;
    const std::string shipped = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";
    EXPECT_EQ(defaultScenePath(), shipped + "scene.yml");
    for (const char* name : {"scene.yml", "intrinsics.yml", "extrinsics.yml"}) {
        EXPECT_EQ(readFile(dir.file(name)), readFile(shipped + name))
            << name << " differs from the generator's; run make_scene_files --default data/default_scene";
    }
    Scene s;
    ASSERT_TRUE(loadScene(defaultScenePath(), s, &error)) << error;
    EXPECT_TRUE(s.motion.isStatic());
    EXPECT_EQ(s.motion.attitude_deg, cv::Vec3d(0, 0, 0));
    const Rig rig(s.rig);
    const ScenePose pose = scenePose(s.motion, 0);
    const double depth = nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, SearchBox());
    EXPECT_NEAR(depth, 1.4, 0.01);
    // The wall is there, beyond the region: a deeper box sees it.
    const double deeper = nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, {3, 0.5, 6, 0});
    EXPECT_NEAR(deeper, 1.4, 0.01);
    s.objects.erase(s.objects.begin() + 2);  // without the obstacle
    const double behind = nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, {3, 0.5, 6, 0});
    EXPECT_NEAR(behind, 2.4 - 0.25 * std::sqrt(2.0) * std::cos(rad(20)), 0.05);  // the crate's corner
    s.objects.erase(s.objects.begin() + 2);
    EXPECT_NEAR(nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, {3, 0.5, 6, 0}), 4.5, 0.05);

    // The virtual camera's source names: unset is the default scene.
    std::unique_ptr<FrameSource> source = makeFrameSource("", &error);
    ASSERT_TRUE(source) << error;
    EXPECT_EQ(source->describe(), "scene:" + defaultScenePath());
    source = makeFrameSource("scene:" + defaultScenePath(), &error);
    ASSERT_TRUE(source) << error;
    EXPECT_EQ(source->describe(), "scene:" + defaultScenePath());
    EXPECT_FALSE(makeFrameSource("scene:", &error));
    EXPECT_EQ(error, "'scene:' needs a file name (scene:FILE)");
    EXPECT_FALSE(makeFrameSource("scene:/nonexistent/s.yml", &error));
    EXPECT_EQ(error, "cannot read scene file /nonexistent/s.yml");
}

}  // namespace
