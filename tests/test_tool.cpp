// The orvo tool and the demo run on the virtual camera: exit statuses, messages, files and values against the truth.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <regex>
#include <sstream>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <orvo/vcam/scene.hpp>
#include <orvo/vcam/truth.hpp>

#include "ZUNCVHelper.h"
#include "calib_fixture.h"
#include "frame_geometry.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using Env = std::map<std::string, std::string>;
using Args = std::vector<std::string>;
struct Result { int status; std::string out, err; };
constexpr auto npos = std::string::npos;

// Runs a program in a child with a clean, free-running virtual-camera environment plus `env`.
Result run(const std::string& program, const Args& args, Env env = {}, int timeout_s = 300) {
    env.emplace("ORVO_VCAM_FPS", "0");
    orvo_test::Captured c = orvo_test::runInChild([&] {
        for (const char* name : {"ORVO_VCAM_DEVICE", "ORVO_VCAM_SOURCE", "ORVO_VCAM_TRUTH", "ORVO_VCAM_TRUTH_BOX",
                                 "ORVO_VCAM_FAULTS"})
            unsetenv(name);
        for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        std::vector<char*> argv = {const_cast<char*>(program.c_str())};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }, timeout_s);
    return {c.signal ? 128 + c.signal : c.exit_status, c.out, c.err};
}
Result tool(const Args& args, const Env& env = {}) { return run(ORVO_TOOL_PATH, args, env); }

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string f; std::getline(in, f, sep);) out.push_back(f);
    return out;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The first number after `label` in `text` (NaN when absent).
double after(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    return at == npos ? NAN : std::strtod(text.c_str() + at + label.size(), nullptr);
}

}  // namespace

TEST(ToolCommandLine, UsageVersionHelpAndErrorsWithTheirExitStatus) {
    Result r = tool({});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("Usage: orvo COMMAND [OPTIONS]\n", 0), 0u) << r.err;
    r = tool({"frobnicate", "--virtual"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("orvo: unknown command 'frobnicate'\n\nUsage: orvo COMMAND", 0), 0u) << r.err;
    r = tool({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "orvo 0.1.0\n");

    orvo_test::ScratchDir dir;
    orvo::vcam::Rig rig;
    ASSERT_TRUE(rig.writeStereo(dir.file("intrinsics.yml"), dir.file("extrinsics.yml")));
    {
        cv::FileStorage fs(dir.file("partial.yml"), cv::FileStorage::WRITE);
        fs << "M1" << rig.K1 << "D1" << rig.D1;
    }
    const std::string node = "/dev/orvo-test-faults", missing = "/dev/orvo-no-such-node";
    const Args on_node = {"grab", "--virtual=pattern", "--device", node, "--out", dir.path()};
    auto with = [&](const std::string& intrinsics) {
        return Args{"grab", "--virtual", "--intrinsics", dir.file(intrinsics), "--extrinsics",
                    dir.file("extrinsics.yml"), "--out", dir.path()};
    };
    struct Case { Args args; std::string faults; int status; std::string err; };
    std::vector<Case> cases = {  // bad arguments (2) and what the tool finds wrong at run time (1)
        {{"grab", "--virtual", "--frames", "0"}, "", 2, "--frames: expected a positive integer, got '0'"},
        {{"grab", "--virtual", "--intrinsics", "a.yml"}, "", 2, "--intrinsics and --extrinsics go together"},
        {{"grab", "--virtual=/nonexistent/scene.yml"}, "", 2, "--virtual: cannot read /nonexistent/scene.yml"},
        {{"depth", "--virtual=pattern"}, "", 2,
         "depth needs the camera's calibration: give --intrinsics and --extrinsics, or --fisheye"},
        {{"imu", "--virtual", "--deadband", "1"}, "", 2, "--deadband: expected LOW,HIGH such as -0.5,0.5, got '1'"},
        {{"imu", "--virtual", "--accel-offset", "0,0"}, "", 2,
         "--accel-offset: expected X,Y,Z such as 0,0,0.02, got '0,0'"},
        {{"calibrate", "--images", "x", "--square", "0.05"}, "", 2, "--board is required"},
        {{"grab", "--device", "/dev/null"}, "", 1, "/dev/null is not a V4L2 device"},
        {on_node, "caps=no-streaming", 1, node + " does not support streaming"},
        {on_node, "caps=no-capture", 1, node + " is not a video capture device"},
        {on_node, "QUERYCAP=EIO", 1, "cannot query " + node + ": Input/output error"},
        {on_node, "open=EACCES", 1, "cannot open " + node +
             ": Permission denied (no permission: add your user to the 'video' group and log in again)"},
        {with("none.yml"), "", 1, "cannot read calibration file " + dir.file("none.yml") + ": No such file or directory"},
        {with("partial.yml"), "", 1, "calibration file " + dir.file("partial.yml") + " lacks M2, D2"},
    };
    // Each command checks the node itself, before the library could end the process.
    for (Args args : {Args{"info"}, Args{"grab"}, Args{"imu"}, Args{"record", "--out", dir.file("x.raw")}}) {
        args.insert(args.end(), {"--device", missing});
        cases.push_back({args, "", 1, "cannot open " + missing + ": No such file or directory (is the camera "
                         "plugged in? list nodes with 'ls /dev/video*', or add --virtual to use the virtual camera)"});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args.back() + " " + c.faults);
        r = tool(c.args, c.faults.empty() ? Env{} : Env{{"ORVO_VCAM_FAULTS", c.faults}});
        const std::string name = "orvo " + c.args[0];
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.err, name + ": " + c.err + (c.status == 2 ? "\nTry '" + name + " --help'." : "") + "\n");
        // info names the node before it checks it; nothing else reaches standard output.
        EXPECT_EQ(r.out, c.args[0] == "info" ? "device         " + missing + "\n" : "");
    }
}

TEST(ToolInfo, ReportsTheVirtualNodeAndSavesItsCalibration) {
    orvo_test::ScratchDir dir;
    Result r = tool({"info", "--virtual", "--save-calibration", dir.file("calib")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("device         virtual camera (built-in scene) at /dev/orvo-virtual0\n", 0), 0u) << r.out;
    EXPECT_NEAR(after(r.out, "baseline "), 0.12, 1e-3) << r.out;  // the default scene's rig
    std::vector<cv::Mat> in;
    EXPECT_TRUE(readYML(dir.file("calib/intrinsics.yml"), ZUNCV_INTRINSICS, in));
}

// The virtual node's row with its card and bus, free; and busy when the driver says another open
// file owns the queue (EBUSY to a request for buffers), which is how the listing tells.
TEST(ToolList, ListsTheVirtualNodeFreeOrBusy) {
    const std::string card = " +Orvo Stereo Camera \\(virtual\\) +platform:orvo-vcam\n";
    Result r = tool({"list", "--virtual=pattern"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("NODE ", 0), 0u) << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\n/dev/orvo-virtual0 +free" + card))) << r.out;
    r = tool({"list", "--virtual=pattern"}, {{"ORVO_VCAM_FAULTS", "REQBUFS=EBUSY"}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\n/dev/orvo-virtual0 +busy" + card))) << r.out;
}

TEST(ToolGrab, WritesOriginalAndRectifiedPairsWithGuideLines) {
    orvo_test::ScratchDir dir;
    Result r = tool({"grab", "--virtual", "--frames", "2", "--separate", "--quiet", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "2 frames from virtual camera (built-in scene) at /dev/orvo-virtual0 written to " + dir.path() + "\n");
    const cv::Mat original = cv::imread(dir.file("original_0001.png"), cv::IMREAD_UNCHANGED);
    const cv::Mat rectified = cv::imread(dir.file("rectified_0001.png"), cv::IMREAD_UNCHANGED);
    const cv::Mat first = cv::imread(dir.file("first_0001.png"), cv::IMREAD_UNCHANGED);
    cv::Mat grey;
    ASSERT_TRUE(original.size() == cv::Size(1504, 480) && original.type() == CV_8UC1) << original.size;
    ASSERT_TRUE(rectified.size() == cv::Size(1504, 480) && rectified.type() == CV_8UC3) << rectified.size;
    EXPECT_EQ(cv::norm(original.colRange(0, 752), first, cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(original.colRange(752, 1504), cv::imread(dir.file("second_0001.png"), 0), cv::NORM_INF), 0);
    // The scene is rendered with lens distortion: rectification moves pixels.
    cv::extractChannel(rectified.colRange(0, 752), grey, 0);
    EXPECT_GT(cv::norm(grey.rowRange(20, 460), first.rowRange(20, 460), cv::NORM_L1) / (440.0 * 752), 3.0);
    EXPECT_TRUE(exists(dir.file("original_0000.png")) && !exists(dir.file("original_0002.png")));
}

TEST(ToolDepth, NearestObstacleMatchesTheSceneTruth) {
    orvo_test::ScratchDir dir;
    const std::string truth = dir.file("truth.txt");
    Result r = tool({"depth", "--classic", "--virtual", "--frames", "3", "--out", dir.path()},
                    {{"ORVO_VCAM_TRUTH", truth}, {"ORVO_VCAM_TRUTH_BOX", "0.5,0.5,3"}});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<std::string> served = split(orvo_test::readFile(truth), '\n');  // one line per frame served
    std::vector<std::string> csv = split(orvo_test::readFile(dir.file("nearest.csv")), '\n'), out = split(r.out, '\n');
    ASSERT_EQ(served.size(), 3u) << orvo_test::readFile(truth).substr(0, 400);
    ASSERT_EQ(csv.size(), 4u);
    EXPECT_EQ(csv[0], "frame,frame_time,found,x,y,z");
    ASSERT_EQ(out.size(), 3u) << r.out;
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(csv[i + 1]);
        const std::vector<std::string> f = split(csv[i + 1], ',');
        ASSERT_EQ(f.size(), 6u);
        EXPECT_EQ(f[0] + f[2], std::to_string(i) + "1");
        const double x = std::stod(f[3]), y = std::stod(f[4]), z = std::stod(f[5]);
        const double true_depth = after(served[i], "nearest_depth=");
        EXPECT_NEAR(z, true_depth, 0.03 * true_depth);
        char expect[96];
        std::snprintf(expect, sizeof expect, "frame %zu: nearest x %+.3f y %+.3f z %.3f", i, x, y, z);
        EXPECT_EQ(out[i], expect);
        cv::Mat polar = cv::imread(dir.file("polar_000" + std::to_string(i) + ".png")), green;
        EXPECT_EQ(cv::imread(dir.file("disparity_000" + std::to_string(i) + ".png")).size(), cv::Size(752, 480));
        ASSERT_EQ(polar.size(), cv::Size(1000, 1000));
        cv::inRange(polar, cv::Scalar(0, 255, 0), cv::Scalar(0, 255, 0), green);
        EXPECT_GT(cv::countNonZero(green), 20);  // the bins' diamonds
    }
}

// The default path: metric depth beside the scene's per-pixel truth, and the point clouds.
TEST(ToolDepth, MetricDepthAgreesWithThePerPixelTruth) {
    orvo_test::ScratchDir dir;
    Result r = tool({"depth", "--virtual", "--truth", "--ply", "--pcd", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("frame 0: ([0-9.]+) % of pixels with depth, ([0-9]+) points "
                                                        "written, median \\|depth - truth\\| ([0-9.]+) mm"))) << r.out;
    EXPECT_GT(std::stod(m[1]), 80);
    EXPECT_LT(std::stod(m[3]), 60);  // the default scene reaches 4.5 m, where a pixel is 0.4 m
    const cv::Mat depth = cv::imread(dir.file("depth_0000.tiff"), cv::IMREAD_UNCHANGED);
    const cv::Mat truth = cv::imread(dir.file("truth_depth_0000.tiff"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(depth.type(), CV_32F);
    ASSERT_EQ(truth.size(), depth.size());
    EXPECT_TRUE(std::isnan(depth.at<float>(240, 10)));  // left of the search range: no match
    EXPECT_NEAR(depth.at<float>(240, 400), truth.at<float>(240, 400), 0.02);  // the obstacle, 1.4 m
    EXPECT_EQ(cv::imread(dir.file("depth_0000.png")).cols, 752);
    EXPECT_EQ(std::stoul(m[2]), size_t(cv::countNonZero(depth == depth)));
    EXPECT_TRUE(exists(dir.file("cloud_0000.ply")) && exists(dir.file("cloud_0000.pcd")));
}

TEST(ToolImu, BiasAndAttitudeOfATiltedStillCamera) {
    orvo_test::ScratchDir dir;
    const std::vector<int> bias = {9, -6, 4};
    {  // Still, nose 10 degrees up, rolled 5 degrees; the default inertial unit's bias, noisy.
        cv::FileStorage fs(dir.file("tilted.yml"), cv::FileStorage::WRITE);
        fs << "camera" << "{" << "attitude_deg" << std::vector<double>{0, 10, 5} << "}";
        fs << "imu" << "{" << "gyro_bias" << bias << "gyro_noise" << 1.5 << "accel_noise" << 8.0 << "}";
    }
    Result r = tool({"imu", "--virtual=" + dir.file("tilted.yml"), "--frames", "100", "--quiet", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("gyro bias \\(counts\\): (-?\\d+) (-?\\d+) (-?\\d+)\n"))) << r.out;
    for (size_t k = 0; k < 3; ++k) EXPECT_NEAR(std::stoi(m[k + 1]), bias[k], 1) << k;

    std::vector<std::string> csv = split(orvo_test::readFile(dir.file("imu.csv")), '\n');
    ASSERT_TRUE(csv.size() > 600u && csv.size() < 700u) << csv.size();  // 100 frames of 6 or 7 samples
    EXPECT_EQ(csv[0], "frame,frame_time,time,accel_x,accel_y,accel_z,gyro_x,gyro_y,gyro_z,period,"
                      "qw,qx,qy,qz,roll,pitch,yaw");
    std::vector<std::string> last = split(csv.back(), ',');
    ASSERT_EQ(last.size(), 17u);
    EXPECT_EQ(last[0], "99");
    EXPECT_NEAR(std::stod(last[14]), 5.0, 1.0);   // roll
    EXPECT_NEAR(std::stod(last[15]), 10.0, 1.0);  // pitch
    // The first 500 samples are the filter settling: zero quaternion.
    EXPECT_EQ(split(csv[1], ',')[10], "0");
    EXPECT_NE(split(csv[501], ',')[10], "0");
    EXPECT_EQ(cv::imread(dir.file("attitude.png")).size(), cv::Size(900, 500));
}

TEST(ToolRecord, RecordingReplaysByteForByte) {
    orvo_test::ScratchDir dir;
    Result r = tool({"record", "--virtual", "--frames", "3", "--quiet", "--out", dir.file("a.raw")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "3 frames (2.2 MB) recorded to " + dir.file("a.raw") + "\n");
    const std::string a = orvo_test::readFile(dir.file("a.raw"));
    ASSERT_EQ(a.size(), 3 * size_t(orvo::frame::kBytes));
    r = tool({"record", "--virtual=" + dir.file("a.raw"), "--frames", "3", "--quiet", "--out", dir.file("b.raw")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(orvo_test::readFile(dir.file("b.raw")) == a);

    // Frames handed over empty are left out and counted.
    r = tool({"record", "--virtual=" + dir.file("a.raw"), "--frames", "2", "--quiet", "--out", dir.file("c.raw")},
             {{"ORVO_VCAM_FAULTS", "bytesused@2=0"}});
    EXPECT_EQ(r.status, 1);
    const std::string message = "orvo record: the camera hands over incomplete frames only (0 bytes instead of 721920)\n";
    EXPECT_EQ(r.err.substr(std::max(r.err.size(), message.size()) - message.size()), message) << r.err;
}

TEST(ToolCheck, PassesWithTheTrueCalibrationAndFailsWithATiltedOne) {
    orvo_test::ScratchDir dir;
    Result r = tool({"check", "--virtual", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("row error: median ([0-9.]+) px, mean ([0-9.]+) px, "
                                                        "95th percentile ([0-9.]+) px, offset ([-+0-9.]+) px "
                                                        "over ([0-9]+) matches \\(limit 1.00 px\\): PASS\n"))) << r.out;
    EXPECT_LT(std::stod(m[1]), 0.5);
    EXPECT_GT(std::stoi(m[5]), 50);
    EXPECT_EQ(cv::imread(dir.file("check.png")).size(), cv::Size(1504, 480));

    // Files that claim the right lens is turned 1.5 degrees about x: rows misalign by ~11 px.
    orvo::vcam::RigSpec wrong;
    wrong.rotation[0] += 0.026;
    ASSERT_TRUE(orvo::vcam::Rig(wrong).writeStereo(dir.file("i.yml"), dir.file("e.yml")));
    r = tool({"check", "--virtual", "--intrinsics", dir.file("i.yml"), "--extrinsics", dir.file("e.yml"),
              "--out", dir.path()});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("median ([0-9.]+) px.*FAIL\n"))) << r.out;
    EXPECT_GT(std::stod(m[1]), 5.0);
}

// --plane on the slanted-plane scene finds the plane the scene file places, seen through the
// rectification of the default files.
TEST(ToolCheck, PlaneOfTheSlantedTarget) {
    const std::string path = std::string(ORVO_SOURCE_DIR) + "/data/stress_scenes/slanted_plane.yml";
    Result r = tool({"check", "--plane", "--virtual=" + path});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("plane: normal ([-+0-9.]+) ([-+0-9.]+) ([-+0-9.]+) distance "
                                                        "([0-9.]+) m, depth RMS ([0-9.]+) mm"))) << r.out;
    orvo::vcam::Scene scene;
    std::string error;
    ASSERT_TRUE(orvo::vcam::loadScene(path, scene, &error)) << error;
    const orvo::vcam::SceneObject& target = scene.objects.at(0);
    const cv::Matx33d to_lens = orvo::vcam::scenePose(scene.motion, 0).world_from_camera.t();
    cv::Mat R1, R2, P1, P2, Q, M1, D1, M2, D2, R, T;
    cv::FileStorage in(scene.calibration.intrinsics, cv::FileStorage::READ), ex(scene.calibration.extrinsics, cv::FileStorage::READ);
    in["M1"] >> M1, in["D1"] >> D1, in["M2"] >> M2, in["D2"] >> D2, ex["R"] >> R, ex["T"] >> T;
    cv::stereoRectify(M1, D1, M2, D2, cv::Size(752, 480), R, T, R1, R2, P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0);
    const cv::Matx33d rect(R1.ptr<double>());
    cv::Vec3d normal = rect * to_lens * target.axis_u.cross(target.axis_v);
    const cv::Vec3d centre = rect * to_lens * (target.centre - scene.motion.position);
    if (normal.dot(centre) < 0) normal = -normal;
    const cv::Vec3d fitted(std::stod(m[1]), std::stod(m[2]), std::stod(m[3]));
    EXPECT_GT(fitted.dot(normal), std::cos(0.5 * CV_PI / 180)) << fitted << " against " << normal;
    EXPECT_NEAR(std::stod(m[4]), normal.dot(centre), 0.01);
    EXPECT_LT(std::stod(m[5]), 40);
}

TEST(ToolCalibrate, UnattendedCalibrationRecoversTheRig) {
    if (!exists("/usr/bin/xdotool") || !exists("/usr/bin/Xvfb")) GTEST_SKIP() << "needs Xvfb and xdotool";
    const auto& rs = orvo_test::renderedSet();
    // The far pair is slow to detect and has its own tests; the pair without a right image stays.
    for (const std::string& name : rs.set.pairs({rs.set.far_pair})) unlink(name.c_str());
    const std::string size = std::to_string(rs.board.inner.width) + "x" + std::to_string(rs.board.inner.height);
    // DISPLAY names a desktop that is gone, as on a build machine: the tool makes its own display.
    const std::string gone = ":" + std::to_string(900 + getpid() % 90);
    Result r = run(ORVO_TOOL_PATH, {"calibrate", "--images", rs.dir, "--board", size, "--square",
                                    std::to_string(rs.board.square), "--out", rs.dir + "/out", "--batch"},
                   {{"DISPLAY", gone}}, 600);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("has no right partner; left out"), npos) << r.err;
    std::vector<cv::Mat> extr;
    ASSERT_TRUE(readYML(rs.dir + "/out/params/extrinsics.yml", ZUNCV_EXTRINSICS, extr));
    // Noisy, blurred views: the baseline within 5 %, and the tool's summary is the file's.
    EXPECT_NEAR(cv::norm(extr[1]), rs.rig.params().baseline, 0.05 * rs.rig.params().baseline);
    EXPECT_NEAR(after(r.out, "baseline "), -extr[5].at<double>(0, 3) / extr[5].at<double>(0, 0), 1e-5) << r.out;
    EXPECT_NE(r.out.find(" (unit of --square)"), npos) << r.out;

    // Without a display and without --batch the tool says what to do instead of crashing.
    r = run(ORVO_TOOL_PATH, {"calibrate", "--images", rs.dir, "--board", size, "--square", "0.05"}, {{"DISPLAY", ""}}, 60);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no display was found (DISPLAY is not set); run it on a desktop or add --batch"), npos) << r.err;
    r = run(ORVO_TOOL_PATH, {"calibrate", "--images", rs.dir, "--board", size, "--square", "0.05"}, {{"DISPLAY", gone}}, 60);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("the display " + gone + " does not answer; run it on a desktop or add --batch"), npos) << r.err;
}

// The demo is the README's first command: it must stream, print a line per frame and write its montage.
TEST(ToolDemo, StreamsPrintsOneLinePerFrameAndWritesTheMontage) {
    orvo_test::ScratchDir dir;
    Result r = run(ORVO_DEMO_PATH, {"--out", dir.path(), "--frames", "4"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::vector<std::string> out = split(r.out, '\n');
    EXPECT_EQ(std::count_if(out.begin(), out.end(),
                            [](const std::string& l) { return l.rfind("frame ", 0) == 0 && l.find("nearest x") != npos; }),
              4);
    EXPECT_EQ(out.front(), "Orvo demo on the virtual camera (built-in scene) at /dev/orvo-virtual0");
    EXPECT_EQ(out.back(), "montage written to " + dir.file("montage.png"));
    // Two rows: the pairs (900 x 287 + caption), the disparity (900 x 574) beside half the polar plot.
    EXPECT_EQ(cv::imread(dir.file("montage.png")).size(), cv::Size(1800, (287 + 28) + (574 + 28)));
}
