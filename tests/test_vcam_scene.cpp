// The virtual camera's sources (pattern, raw:, scene:), its inertial trailer, truth file and scene files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>

#include "OrvoCamera.h"
#include "calib_fixture.h"
#include "frame_geometry.h"
#include "trailer.h"
#include "run_capture.h"
#include <orvo/vcam/frame_source.hpp>
#include "scratch_dir.h"
#include "v4l2_client.h"
#include <orvo/vcam/truth.hpp>

namespace {

using namespace orvo::vcam;
namespace frame = orvo::frame;
namespace trailer = orvo::trailer;
using orvo_test::readFile;
using orvo_test::ScopedEnv;

constexpr const char* kNode = "/dev/video-virtual-scene";

double rad(double degrees) { return degrees * M_PI / 180; }

void writeText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

struct Decoded { std::vector<trailer::Record> records; uint32_t frame_ticks = 0; };

// The trailer through the wire codec (pinned to hand-made bytes by test_wire): the records, then
// the frame time in the slot after the last one.
Decoded decodeTrailer(const uint8_t* f) {
    Decoded d;
    for (size_t i = 0; i < std::min<size_t>(f[frame::kBytes - 1], 20); ++i)
        d.records.push_back(trailer::readRecord(f + frame::kBytes - 489 + i * 24));
    trailer::frameTicks(f, frame::kBytes, &d.frame_ticks);
    return d;
}

TEST(VcamPattern, TrailersCarryEverySampleOnceAndOnlyTheNewestWhenTheyDoNotFit) {
    std::string error;
    auto src = makeFrameSource("pattern", &error);
    ASSERT_TRUE(src) << error;
    std::vector<uint8_t> f(frame::kBytes);
    uint32_t expect_ticks = 0;
    for (uint64_t k = 0; k < 60; ++k) {
        FrameTruth t;
        src->render(k, k / 30.0, f.data(), t);
        const Decoded d = decodeTrailer(f.data());
        ASSERT_EQ(t.imu.size(), d.records.size());
        EXPECT_EQ(uint32_t(std::llround(k / 30.0 * 1e6)), d.frame_ticks);
        for (size_t i = 0; i < d.records.size(); ++i, expect_ticks += 5000) {
            EXPECT_EQ(expect_ticks, d.records[i].ticks) << "samples every 5 ms, none lost or repeated";
            // 0.2 rad/s at 57.3 deg/rad and 16.4 counts per deg/s; 1 g
            EXPECT_TRUE(d.records[i].gyro[2] == 188 && d.records[i].accel[2] == 8192);
        }
        EXPECT_EQ("source=pattern shift=" + std::to_string(k) + " disparity=12", t.extra);
    }
    EXPECT_EQ(uint32_t(59 * 200 / 30 + 1) * 5000, expect_ticks);
    // At 5 frames a second 40 samples fall in one frame: only the newest 19 fit beside the time.
    FrameTruth t;
    src->render(1, 0.2, f.data(), t);
    const Decoded d = decodeTrailer(f.data());
    ASSERT_EQ(19u, d.records.size());
    EXPECT_TRUE(d.records[0].ticks == 110000u && d.records[18].ticks == 200000u);
}

// Replay itself is checked through the capture class (test_capture); here the node's refusals.
TEST(VcamNode, RefusesToOpenOnBadSettingsSayingWhy) {
    const std::string odd = std::string(ORVO_BINARY_DIR) + "/vcam_odd.raw";
    writeText(odd, std::string(frame::kBytes + 1, '\0'));
    const struct {
        const char* variable;
        std::string value, message;
    } cases[] = {
        {"ORVO_VCAM_SOURCE", "raw:/nonexistent/x.raw",
         "'raw:/nonexistent/x.raw': cannot open the file: No such file or directory"},
        {"ORVO_VCAM_SOURCE", "raw:" + odd, "'raw:" + odd + "': 721921 bytes is not a whole number of 721920-byte frames"},
        {"ORVO_VCAM_SOURCE", "bogus", "unknown source 'bogus' (expected pattern, raw:FILE or scene:FILE)"},
        {"ORVO_VCAM_FPS", "fast", "'fast' is not a frame rate (a number >= 0; 0 = free-running)"},
        {"ORVO_VCAM_TRUTH", "/nonexistent/truth.txt",
         "cannot open '/nonexistent/truth.txt' for appending: No such file or directory"},
    };
    const orvo_test::VirtualNode env(kNode);
    for (const auto& c : cases) {  // the node refuses to open, and says why on stderr
        SCOPED_TRACE(c.value);
        ScopedEnv bad{{c.variable, c.value.c_str()}};
        int fd = 0, err = 0;
        const auto out = orvo_test::captureOutput([&] {
            fd = open(kNode, O_RDWR);
            err = errno;
        });
        EXPECT_TRUE(fd == -1 && err == EINVAL) << fd << " " << err;
        EXPECT_EQ("orvo-vcam: cannot open " + std::string(kNode) + ": " + c.variable + ": " + c.message + "\n",
                  out.err);
    }
}

// A bright box before a dark wall, lit evenly: the outline is a clean step from 50 to 220.
Scene outlineScene(const RigSpec& rig) {
    Scene s;
    s.rig = rig;
    s.render.ambient = 1, s.render.diffuse = 0, s.render.background = 50;
    SceneObject wall, box;
    wall.centre = {0, 6, 0.5}, wall.axis_v = {0, 0, 1}, wall.size = {40, 40, 0};
    box.kind = SceneObject::kBox, box.centre = {0.1, 2.0, 0.5}, box.size = {0.6, 0.4, 1.0};
    wall.texture.kind = box.texture.kind = SceneTexture::kFlat;
    wall.texture.mean = 50, box.texture.mean = 220;
    s.objects = {wall, box};
    return s;
}

struct OutlineError { double worst = 0, mean = 0; int checked = 0; };

// Distance in pixels between the rendered outline of the box's front face (left, right and top
// edges, every 7 pixels) and its projection through the rig's own model at time t.
OutlineError outlineError(const Scene& scene, const cv::Mat& image, int lens, double t) {
    const Rig rig(scene.rig);
    const ScenePose pose = scenePose(scene.motion, t);
    const auto project = [&](const cv::Vec3d& p) {
        const cv::Vec3d c = pose.world_from_camera.t() * (p - pose.position);
        cv::Point2d px;
        EXPECT_TRUE(rig.project(lens, {c[0], c[1], c[2]}, px));
        return px;
    };
    const SceneObject& box = scene.objects[1];
    const double y = box.centre[1] - box.size[1] / 2;
    const double x0 = box.centre[0] - box.size[0] / 2, x1 = box.centre[0] + box.size[0] / 2;
    const double z0 = box.centre[2] - box.size[2] / 2, z1 = box.centre[2] + box.size[2] / 2;
    struct Edge {
        cv::Vec3d a, b;
        bool vertical;   // scanned along rows
        bool box_after;  // the box lies at larger column (row) than the edge
    } edges[] = {{{x0, y, z0}, {x0, y, z1}, true, true}, {{x1, y, z0}, {x1, y, z1}, true, false},
                 {{x0, y, z1}, {x1, y, z1}, false, true}};
    OutlineError err;
    for (const Edge& e : edges) {
        // along(s): the image of a + (b - a) s, as (coordinate along the edge, across it).
        const auto along = [&](double s) {
            const cv::Point2d px = project(e.a + (e.b - e.a) * s);
            return e.vertical ? cv::Point2d(px.y, px.x) : px;
        };
        const bool rising = along(1).x > along(0).x;
        for (int at = int(std::min(along(0).x, along(1).x)) + 8; at < std::max(along(0).x, along(1).x) - 8; at += 7) {
            double lo = 0, hi = 1;  // bisect for the point of the edge imaged on row (column) `at`
            for (int i = 0; i < 60; ++i) ((along((lo + hi) / 2).x < at) == rising ? lo : hi) = (lo + hi) / 2;
            const double across = along(lo).y;
            // With area sampling a 0-to-1 step at s covers (last + 0.5) - s of the window.
            const int first = int(std::lround(across)) - 5;
            double covered = 0;
            for (int i = first; i <= first + 10; ++i) {
                const double c = ((e.vertical ? image.at<uint8_t>(at, i) : image.at<uint8_t>(i, at)) - 50) / 170.0;
                covered += e.box_after ? c : 1 - c;
            }
            const double off = std::fabs(first + 10.5 - covered - across);
            err.worst = std::max(err.worst, off);
            err.mean += off;
            ++err.checked;
        }
    }
    err.mean /= std::max(err.checked, 1);
    return err;
}

TEST(SceneRender, OutlinesFallWhereTheRigProjectsThemAtTheFramesPose) {
    struct Case {
        const char* name;
        Scene scene;
        uint64_t index;
        double t, mean_limit;
    } cases[] = {{"pinhole", outlineScene(RigSpec()), 0, 0, 0.06},
                 {"fisheye", outlineScene(fisheyeRigSpec()), 0, 0, 0.06},
                 {"moving", outlineScene(RigSpec()), 15, 0.5, 0.15}};
    cases[0].scene.motion.attitude_deg = {4, -3, 2};  // an arbitrary pose, so the camera's axes matter
    cases[1].scene.motion.position = {0.05, 0.1, 0.45};
    cases[2].scene.motion.rate_deg_s = {2, 0, 10};  // at t = 0.5 s: turned 5 degrees left, moved 4.8 cm right
    cases[2].scene.motion.translation_amplitude = {0.05, 0, 0};
    cases[2].scene.motion.translation_hz = 0.4;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto src = makeSceneSource(c.scene, &error);
        ASSERT_TRUE(src) << error;
        std::vector<uint8_t> bytes(frame::kBytes);
        FrameTruth truth;
        src->render(c.index, 0, bytes.data(), truth);
        for (int lens = 0; lens < 2; ++lens) {
            SCOPED_TRACE(lens == 0 ? "left lens" : "right lens");
            // Four rays a pixel side place an edge to within an eighth of a pixel.
            cv::Mat image;  // the left lens is on the odd bytes, the right lens on the even ones
            cv::extractChannel(cv::Mat(frame::kHeight, frame::kWidth, CV_8UC2, bytes.data()), image, 1 - lens);
            const OutlineError e = outlineError(c.scene, image, lens, c.t);
            EXPECT_LT(e.worst, 0.15);
            EXPECT_LT(e.mean, c.mean_limit);
            EXPECT_GT(e.checked, 50);
        }
    }
}

TEST(SceneMotion, AttitudeAnglesTurnTheViewAndTheGravityAsNamedAndCountsAreRoundedAndSaturated) {
    const auto C = [](double deg) { return std::cos(rad(deg)); };
    const auto S = [](double deg) { return std::sin(rad(deg)); };
    struct Case {
        const char* name;
        cv::Vec3d attitude, right, forward;  // the lens's x and z axes in the world
        cv::Vec3d accel_g;
        cv::Vec4d q;
    } cases[] = {
        {"pitch: nose up", {0, 10, 0}, {1, 0, 0}, {0, C(10), S(10)}, {0, S(10), C(10)}, {C(5), S(5), 0, 0}},
        {"roll: right side down", {0, 0, 20}, {C(20), 0, -S(20)}, {0, 1, 0}, {-S(20), 0, C(20)}, {C(10), 0, S(10), 0}},
        {"yaw: turned left", {30, 0, 0}, {C(30), S(30), 0}, {-S(30), C(30), 0}, {0, 0, 1}, {C(15), 0, 0, S(15)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Scene s;
        s.motion.attitude_deg = c.attitude;
        const ScenePose pose = scenePose(s.motion, 0);
        const cv::Vec3d axes[3] = {c.right, c.forward.cross(c.right), c.forward};  // x, y (down), z
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i) EXPECT_NEAR(pose.world_from_camera(i, j), axes[j][i], 1e-12) << i << j;
        EXPECT_LT(cv::norm(attitudeQuaternion(pose.world_from_body) - c.q), 1e-12);
        const ImuTruthSample k = imuSample(s, 3);
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(k.accel_g[a], c.accel_g[a], 1e-12) << a;
            EXPECT_EQ(k.accel_raw[a], std::lround(8192 * c.accel_g[a])) << a;  // 8192 sin 10 deg = 1422.53
        }
    }
    // Gyro counts: the rate at 16.4 counts per deg/s, rounded, plus the bias, saturated.
    Scene s;
    s.motion.rate_deg_s = {0, 2500, 30};
    s.imu.gyro_bias = {3, -2, 5};
    const ImuTruthSample turn = imuSample(s, 40);
    EXPECT_TRUE(turn.gyro_raw[0] == 3 && turn.gyro_raw[1] == 32767 && turn.gyro_raw[2] == 492 + 5);
    s.motion.rate_deg_s = {0, 0, -2500};
    EXPECT_EQ(imuSample(s, 5).gyro_raw[2], -32768);
}

// The library's attitude filter, fed the decoded samples of a scene through the virtual camera.
cv::Vec4d filteredAttitude(const Scene& scene, int steps) {
    orvo_test::ScratchDir dir;
    std::string error;
    EXPECT_TRUE(saveScene(dir.file("imu.yml"), scene, &error)) << error;
    const std::string source = "scene:" + dir.file("imu.yml");
    const orvo_test::VirtualNode env(kNode, source.c_str());
    OrvoCameraParameterList p;
    p.device_path = kNode;
    OrvoCamera camera(p);
    float q[4] = {0, 0, 0, 0};
    std::vector<ImuData> samples;
    unsigned int frame_time = 0, last = 0;
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
    return {q[0], q[1], q[2], q[3]};
}

// It ends at the scene's true attitude: the sensor axes, units and quaternion convention agree.
TEST(SceneAttitude, TheLibrarysFilterSettlesOnTheTrueAttitudeStillAndTurning) {
    Scene s = outlineScene(RigSpec());
    s.render.follow_motion = false;
    s.imu.gyro_noise = 1, s.imu.accel_noise = 8;
    s.motion.attitude_deg = {0, 12, -7};
    const int steps = 700;
    const double end = (steps - 1) / s.imu.sample_rate;
    cv::Vec4d q = filteredAttitude(s, steps);
    // Still, only the tilt is observable: the gravity the filter predicts is the true one.
    const cv::Vec3d predicted(2 * (q[1] * q[3] - q[0] * q[2]), 2 * (q[0] * q[1] + q[2] * q[3]),
                              q[0] * q[0] - q[1] * q[1] - q[2] * q[2] + q[3] * q[3]);
    const cv::Vec3d up = scenePose(s.motion, end).world_from_body.t() * cv::Vec3d(0, 0, 1);
    EXPECT_LT(cv::norm(predicted - up), 0.002) << predicted << " vs " << up;
    // Turning about the tilted up axis from heading 0, where the filter starts: the gyro keeps
    // the heading, so the whole attitude agrees.
    s.motion.attitude_deg = {0, 10, 0};
    s.motion.rate_deg_s = {0, 0, 20};
    q = filteredAttitude(s, steps);
    const cv::Vec4d truth = attitudeQuaternion(scenePose(s.motion, end).world_from_body);
    EXPECT_LT(cv::norm(q - truth), 0.02) << q << " vs " << truth;
    EXPECT_GT(truth[3], 0.25);  // it did turn, by about 35 degrees
}

TEST(SceneTruth, NearestDepthIsThatOfTheObjectPointsInsideTheSearchBox) {
    Scene s = outlineScene(RigSpec());
    s.rig.rotation = {0, 0, 0};  // rectification is then the identity for the left lens
    s.rig.principal_right = s.rig.principal_left;
    const Rig rig(s.rig);
    const ScenePose pose = scenePose(s.motion, 0);
    const double inf = HUGE_VAL, edge = 0.06 + 0.5 + 0.3;  // box's half width past the region's side
    const cv::Vec3d size{0.6, 0.4, 1.0};
    struct Case {
        const char* what;
        cv::Vec3d centre, size;
        double yaw, max_depth, tilt, depth, tolerance;
    } cases[] = {
        {"front just beyond max_depth", {0.1, 2, 0.5}, size, 0, 1.8 - 1e-9, 0, inf, 0},
        {"front just within max_depth; the wall is beyond", {0.1, 2, 0.5}, size, 0, 1.8 + 1e-9, 0, 1.8, 1e-12},
        {"top face just below the axis", {0.1, 2, -1e-6}, size, 0, 3, 0, inf, 0},
        {"just right of the region", {edge + 1e-6, 2, 0.5}, size, 0, 3, 0, inf, 0},
        // The front edge lies outside: the nearest point is where a face crosses the side x = 0.56.
        {"turned 45 degrees", {0.8, 2, 0.5}, {0.4, 0.4, 1}, 45, 3, 0, 2 - 0.2 * std::sqrt(2.0) + 0.24, 1e-9},
        {"top 0.01 below the axis, tilted up: lifts what lies ahead", {0.1, 2, -0.01}, size, 0, 3, 0.05,
         0.01 * std::sin(0.05) + 1.8 * std::cos(0.05), 1e-9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        s.objects[1].centre = c.centre;
        s.objects[1].size = c.size;
        s.objects[1].yaw_deg = c.yaw;
        const double depth =
            nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, {0.5, 0.5, c.max_depth, c.tilt});
        if (c.depth == inf) EXPECT_EQ(depth, inf);
        else EXPECT_NEAR(depth, c.depth, c.tolerance);
    }
}

TEST(SceneTruth, TheSearchBoxTextIsCheckedAndABadOneRefusesTheSource) {
    SearchBox box;
    std::string error;
    const std::string usage = "ORVO_VCAM_TRUTH_BOX must be half_width,height,max_depth[,tilt], not \"";
    for (const char* bad :
         {"", "1,1", "1,1,5,0,0", "1,x,5", "1,1,5,", "0,1,5", "1,-1,5", "1,1,0.4", "1,1,nan", "1,,5"}) {
        EXPECT_FALSE(parseSearchBox(bad, box, &error)) << bad;
        EXPECT_EQ(error, usage + bad + "\"");
    }
    ScopedEnv env{{"ORVO_VCAM_TRUTH_BOX", "1;1;5"}};
    EXPECT_FALSE(makeSceneSource(Scene(), &error));
    EXPECT_EQ(error, usage + "1;1;5\"");
}

TEST(SceneFile, SavedScenesLoadBackWithCalibrationPathsBesideTheFile) {
    orvo_test::ScratchDir dir;
    Scene s = defaultScene();
    s.rig = fisheyeRigSpec(), s.calibration = {"", "", "rig/fisheye.yml"}, s.frame_rate = 25;
    s.imu.tick_offset = 4000000000u, s.imu.seed = 3000000000u;  // past the largest int
    s.objects[0].texture.kind = SceneTexture::kChecker;
    std::string error;
    Scene back;
    ASSERT_TRUE(saveScene(dir.file("s.yml"), s, &error)) << error;
    ASSERT_TRUE(loadScene(dir.file("s.yml"), back, &error)) << error;
    EXPECT_EQ(back.calibration.fisheye, dir.file("rig/fisheye.yml"));
    EXPECT_TRUE(back.rig.fisheye && back.frame_rate == 25 && back.objects[0].texture.kind == SceneTexture::kChecker);
    EXPECT_TRUE(back.imu.tick_offset == 4000000000u && back.imu.seed == 3000000000u);
    // Everything else survives too: the loaded scene saves to the same text.
    back.calibration = s.calibration;
    ASSERT_TRUE(saveScene(dir.file("t.yml"), back, &error)) << error;
    EXPECT_EQ(readFile(dir.file("t.yml")), readFile(dir.file("s.yml")));
    // Absent keys keep their defaults; an absolute path stays as it is.
    writeText(dir.file("min.yml"), "%YAML:1.0\n---\ncalibration: { fisheye: \"/abs/f.yml\" }\n"
                                   "rig: { fisheye: 1 }\nobjects:\n  - { type: box }\n");
    ASSERT_TRUE(loadScene(dir.file("min.yml"), back, &error)) << error;
    EXPECT_EQ(back.calibration.fisheye, "/abs/f.yml");
    EXPECT_EQ(back.rig.focal, RigSpec().focal);
    ASSERT_EQ(back.objects.size(), 1u);
    EXPECT_EQ(back.objects[0].size, cv::Vec3d(1, 1, 1));
    s.calibration.fisheye = dir.file("missing/fisheye.yml");
    EXPECT_FALSE(writeSceneCalibration(s, &error));
    EXPECT_EQ(error, "cannot write " + dir.file("missing/fisheye.yml"));
    s.calibration = SceneCalibration();
    EXPECT_FALSE(writeSceneCalibration(s, &error));
    EXPECT_EQ(error, "the scene names no calibration files");
}

// One case or two of each kind: a word out of its set, a list of the wrong length or kind, a number
// out of range, a value that is not a list, keys that contradict each other.
TEST(SceneFile, BadScenesAreRefusedWithTheKeyThatIsWrong) {
    orvo_test::ScratchDir dir;
    const std::string path = dir.file("bad.yml");
    const std::pair<const char*, const char*> cases[] = {
        {"objects:\n  - { type: sphere }\n", "objects[0].type must be plane or box, not \"sphere\""},
        {"objects:\n  - { type: plane, axis_u: [1, 0, 0], axis_v: [2, 0, 0] }\n",
         "objects[0].axis_u and axis_v must be two independent directions"},
        {"objects:\n  - { type: box, size: [1, 1] }\n", "objects[0].size must be 3 numbers"},
        {"objects: { type: box }\n", "objects must be a list"},
        {"imu: { sample_rate: 600 }\n", "imu.sample_rate must be positive and give at most 19 samples a frame"},
        {"imu: { gyro_bias: [1, 2.5, 3] }\n", "imu.gyro_bias must be 3 integer counts"},
        {"calibration: { intrinsics: a.yml }\n", "calibration needs both intrinsics and extrinsics, or neither"},
    };
    std::string error;
    for (const auto& c : cases) {
        writeText(path, std::string("%YAML:1.0\n---\n") + c.first);
        Scene scene = defaultScene();
        EXPECT_FALSE(loadScene(path, scene, &error)) << c.first;
        EXPECT_EQ(error, path + ": " + c.second);
        EXPECT_EQ(scene.objects.size(), defaultScene().objects.size()) << "a refused file changes nothing";
    }
    Scene scene;
    EXPECT_FALSE(loadScene(dir.file("none.yml"), scene, &error));
    EXPECT_EQ(error, "cannot read scene file " + dir.file("none.yml"));
    writeText(path, "%YAML:1.0\n---\nrig: [ unclosed\n");
    EXPECT_FALSE(loadScene(path, scene, &error));
    EXPECT_EQ(error.rfind(path + ": not a readable scene file (", 0), 0u) << error;
}

// The data folder is found beside the library with no environment; ORVO_DATA_DIR moves it, and a
// folder without the scene makes the default source fail with the place and the variable named.
TEST(DefaultScene, DataFolderIsFoundBesideTheLibraryOrWhereTheVariableSays) {
    std::string error;
    {
        ScopedEnv env{{"ORVO_DATA_DIR", nullptr}, {"ORVO_VCAM_TRUTH_BOX", nullptr}};
        EXPECT_NE(defaultScenePath().find("/default_scene/scene.yml"), std::string::npos);
        EXPECT_TRUE(makeFrameSource("", &error)) << error;
    }
    orvo_test::ScratchDir dir;
    ScopedEnv env{{"ORVO_DATA_DIR", dir.path().c_str()}, {"ORVO_VCAM_TRUTH_BOX", nullptr}};
    const std::string expected = dir.path() + "/default_scene/scene.yml";
    EXPECT_EQ(defaultScenePath(), expected);
    EXPECT_FALSE(makeFrameSource("", &error));
    EXPECT_EQ(error, "the default scene " + expected + " is missing (looked in ORVO_DATA_DIR=" + dir.path() +
                         "); set ORVO_DATA_DIR to the folder that holds default_scene/scene.yml");
    ASSERT_EQ(mkdir(dir.file("default_scene").c_str(), 0755), 0);
    ASSERT_TRUE(writeDefaultScene(dir.file("default_scene"), &error)) << error;
    auto source = makeFrameSource("", &error);
    ASSERT_TRUE(source) << error;
    EXPECT_EQ(source->describe(), "scene:" + expected);
}

TEST(DefaultScene, ShippedFilesAreWhatTheGeneratorWritesAndShowTheObstacleInTheDefaultRegion) {
    orvo_test::ScratchDir dir;
    std::string error;
    ASSERT_TRUE(writeDefaultScene(dir.path(), &error)) << error;
    const std::string shipped = std::string(ORVO_SOURCE_DIR) + "/data/default_scene/";
    EXPECT_EQ(readFile(defaultScenePath()), readFile(shipped + "scene.yml")) << defaultScenePath();
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
    const auto depth = [&](const SearchBox& box) {
        return nearestDepthInBox(s, rig, pose.world_from_camera, pose.position, box);
    };
    EXPECT_NEAR(depth(SearchBox()), 1.4, 0.01);
    EXPECT_NEAR(depth({3, 0.5, 6, 0}), 1.4, 0.01);  // the obstacle hides what lies behind it
}

}  // namespace
