// The orvo tool and the demo run as programs against the virtual camera: exit statuses, messages,
// the files they write and their values against the scene's truth.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ZUNCVHelper.h"
#include "chessboard.h"
#include "frame_format.h"
#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using Env = std::map<std::string, std::string>;

struct Result {
    int status;
    std::string out, err;
};

// Runs a program in a child with a clean virtual-camera environment plus `env`, from `cwd`.
Result runProgram(const std::string& program, const std::vector<std::string>& args, const Env& env,
                  const std::string& cwd, int timeout_s) {
    orvo_test::Captured c = orvo_test::runInChild(
        [&] {
            for (const char* name : {"ORVO_VCAM_DEVICE", "ORVO_VCAM_SOURCE", "ORVO_VCAM_FPS",
                                     "ORVO_VCAM_TRUTH", "ORVO_VCAM_TRUTH_BOX", "ORVO_VCAM_FAULTS"})
                unsetenv(name);
            for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
            if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
            std::vector<char*> argv = {const_cast<char*>(program.c_str())};
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(program.c_str(), argv.data());
            _exit(127);
        },
        timeout_s);
    return {c.signal ? 128 + c.signal : c.exit_status, c.out, c.err};
}

// The tool on a free-running virtual camera unless `env` says otherwise.
Result runOrvo(const std::vector<std::string>& args, Env env = {}, const std::string& cwd = "",
            int timeout_s = 300) {
    env.emplace("ORVO_VCAM_FPS", "0");
    return runProgram(ORVO_TOOL_PATH, args, env, cwd, timeout_s);
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string l;
    while (std::getline(in, l)) out.push_back(l);
    return out;
}

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> out;
    std::string f;
    std::istringstream in(line);
    while (std::getline(in, f, ',')) out.push_back(f);
    if (!line.empty() && line.back() == ',') out.push_back("");
    return out;
}

bool isGreen(const cv::Vec3b& p) { return p == cv::Vec3b(0, 255, 0); }

// The nearest depth inside the search box that the scene's truth reports for each frame served.
std::vector<double> truthNearestDepths(const std::string& truth) {
    std::vector<double> depths;
    std::regex re("nearest_depth=([0-9.]+|inf)");
    for (const std::string& l : lines(slurp(truth))) {
        std::smatch m;
        if (std::regex_search(l, m, re)) depths.push_back(m[1] == "inf" ? INFINITY : std::stod(m[1]));
    }
    return depths;
}

const char* const kSubcommands[] = {"info", "grab", "depth", "imu", "record", "calibrate", "check"};

}  // namespace

TEST(ToolCommandLine, UsageHelpVersionAndUnknownCommands) {
    Result r = runOrvo({});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("Usage: orvo COMMAND [OPTIONS]\n", 0), 0u) << r.err;

    r = runOrvo({"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char* name : kSubcommands)
        EXPECT_NE(r.out.find(std::string("\n  ") + name + " "), std::string::npos) << name;

    r = runOrvo({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "orvo 0.1.0\n");

    r = runOrvo({"frobnicate", "--virtual"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("orvo: unknown command 'frobnicate'\n\nUsage: orvo COMMAND", 0), 0u) << r.err;
}

TEST(ToolCommandLine, EverySubcommandHasHelpWithTheDeviceOptions) {
    for (const char* name : kSubcommands) {
        Result r = runOrvo({name, "--help"});
        EXPECT_EQ(r.status, 0) << name;
        EXPECT_EQ(r.out.rfind(std::string("Usage: orvo ") + name + " ", 0), 0u) << r.out;
        EXPECT_NE(r.out.find("  --device PATH "), std::string::npos) << name;
        EXPECT_NE(r.out.find("  --virtual[=SCENE] "), std::string::npos) << name;
        EXPECT_EQ(r.err, "") << name;
    }
}

TEST(ToolCommandLine, BadArgumentsExitTwoWithTheReason) {
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{"grab", "--virtual", "--frames", "0"},
         "orvo grab: --frames: expected a positive integer, got '0'\nTry 'orvo grab --help'.\n"},
        {{"grab", "--virtual", "--frame", "2"}, "orvo grab: unknown option '--frame'\nTry 'orvo grab --help'.\n"},
        {{"grab", "--virtual", "--intrinsics", "a.yml"},
         "orvo grab: --intrinsics and --extrinsics go together\nTry 'orvo grab --help'.\n"},
        {{"grab", "--virtual=/nonexistent/scene.yml"},
         "orvo grab: --virtual: cannot read /nonexistent/scene.yml\nTry 'orvo grab --help'.\n"},
        {{"depth", "--virtual=pattern"},
         "orvo depth: depth needs the camera's calibration: give --intrinsics and --extrinsics, or "
         "--fisheye\nTry 'orvo depth --help'.\n"},
        {{"depth", "--virtual", "--max-depth", "-1"},
         "orvo depth: --max-depth: expected a number above 0, got '-1'\nTry 'orvo depth --help'.\n"},
        {{"imu", "--virtual", "--deadband", "1"},
         "orvo imu: --deadband: expected LOW,HIGH such as -0.5,0.5, got '1'\nTry 'orvo imu --help'.\n"},
        {{"imu", "--virtual", "--accel-offset", "0,0"},
         "orvo imu: --accel-offset: expected X,Y,Z such as 0,0,0.02, got '0,0'\nTry 'orvo imu --help'.\n"},
        {{"record", "--virtual", "--quiet=1"}, "orvo record: --quiet takes no value\nTry 'orvo record --help'.\n"},
        {{"calibrate", "--images", "x", "--square", "0.05"},
         "orvo calibrate: --board is required\nTry 'orvo calibrate --help'.\n"},
        {{"calibrate", "--images", "x", "--board", "9by6", "--square", "0.05"},
         "orvo calibrate: --board: expected WIDTHxHEIGHT such as 9x6, got '9by6'\nTry 'orvo calibrate --help'.\n"},
        {{"check", "--virtual", "--max-error", "x"},
         "orvo check: --max-error: expected a number, got 'x'\nTry 'orvo check --help'.\n"},
    };
    for (const Case& c : cases) {
        Result r = runOrvo(c.args);
        EXPECT_EQ(r.status, 2) << c.args[0] << " " << c.args.back();
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
}

TEST(ToolDevice, MissingOrWrongNodesAreReportedBeforeTheLibraryCouldEndTheProcess) {
    orvo_test::ScratchDir dir;
    const std::string missing = "/dev/orvo-no-such-node";
    const std::vector<std::vector<std::string>> commands = {
        {"info"}, {"grab"}, {"imu"}, {"record", "--out", dir.file("x.raw")}};
    for (std::vector<std::string> args : commands) {
        args.insert(args.end(), {"--device", missing});
        Result r = runOrvo(args);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(r.err, "orvo " + args[0] + ": cannot open " + missing +
                             ": No such file or directory (is the camera plugged in? list nodes with "
                             "'ls /dev/video*', or add --virtual to use the virtual camera)\n");
        // Nothing from the library: it never got to try.
        EXPECT_EQ(r.out.find("Cannot open"), std::string::npos) << r.out;
    }
    Result r = runOrvo({"grab", "--device", "/dev/null"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvo grab: /dev/null is not a V4L2 device\n");

    const std::string node = "/dev/orvo-test-faults";
    const std::vector<std::pair<std::string, std::string>> faults = {
        {"caps=no-streaming", "orvo grab: " + node + " does not support streaming\n"},
        {"caps=no-capture", "orvo grab: " + node + " is not a video capture device\n"},
        {"QUERYCAP=EIO", "orvo grab: cannot query " + node + ": Input/output error\n"},
        {"open=EACCES", "orvo grab: cannot open " + node +
                            ": Permission denied (no permission: add your user to the 'video' group "
                            "and log in again)\n"},
    };
    for (const auto& f : faults) {
        r = runOrvo({"grab", "--virtual=pattern", "--device", node, "--out", dir.path()},
                 {{"ORVO_VCAM_FAULTS", f.first}});
        EXPECT_EQ(r.status, 1) << f.first;
        EXPECT_EQ(r.err, f.second) << f.first;
    }
}

TEST(ToolDevice, CalibrationFilesThatDoNotLoadAreNamed) {
    orvo_test::ScratchDir dir;
    orvo::vcam::Rig rig;
    ASSERT_TRUE(rig.writeStereo(dir.file("intrinsics.yml"), dir.file("extrinsics.yml")));
    {
        cv::FileStorage fs(dir.file("partial.yml"), cv::FileStorage::WRITE);
        fs << "M1" << rig.K1 << "D1" << rig.D1;
    }
    std::ofstream(dir.file("junk.yml")) << "%YAML:1.0\n---\nM1: [ unclosed\n";

    Result r = runOrvo({"grab", "--virtual", "--intrinsics", dir.file("none.yml"), "--extrinsics",
                     dir.file("extrinsics.yml"), "--out", dir.path()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvo grab: cannot read calibration file " + dir.file("none.yml") +
                         ": No such file or directory\n");

    r = runOrvo({"grab", "--virtual", "--intrinsics", dir.file("partial.yml"), "--extrinsics",
              dir.file("extrinsics.yml"), "--out", dir.path()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvo grab: calibration file " + dir.file("partial.yml") + " lacks M2, D2\n");

    r = runOrvo({"info", "--virtual", "--intrinsics", dir.file("intrinsics.yml"), "--extrinsics",
              dir.file("junk.yml")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("extrinsics     FAILED: calibration file " + dir.file("junk.yml") +
                         " is not a valid OpenCV YAML file"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("intrinsics     " + dir.file("intrinsics.yml") +
                         ": loads (M1 3x3, D1 1x5, M2 3x3, D2 1x5)\n"),
              std::string::npos)
        << r.out;
}

TEST(ToolInfo, ReportsTheVirtualNodeAndSavesItsCalibration) {
    orvo_test::ScratchDir dir;
    Result r = runOrvo({"info", "--virtual", "--save-calibration", dir.file("calib")});
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, std::string> info;
    for (const std::string& l : lines(r.out)) info[l.substr(0, l.find(' '))] = l.size() > 15 ? l.substr(15) : "";
    EXPECT_EQ(info["device"], "virtual camera (built-in scene) at /dev/orvo-virtual0");
    EXPECT_NE(info["capabilities"].find("video-capture streaming"), std::string::npos) << r.out;
    EXPECT_EQ(info["frame"], "30.000 fps (1/30 s per frame)") << r.out;
    EXPECT_EQ(info["intrinsics"], "virtual rig: loads (M1 3x3, D1 1x5, M2 3x3, D2 1x5)");
    EXPECT_EQ(info["extrinsics"], "virtual rig: loads (R 3x3, T 3x1, R1 3x3, R2 3x3, P1 3x4, P2 3x4)");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(info["rectified"], m, std::regex("baseline ([0-9.]+)"))) << r.out;
    EXPECT_NEAR(std::stod(m[1]), 0.12, 1e-3);  // the default scene's rig

    // The saved files are the rig's own, readable by the library.
    std::vector<cv::Mat> intr, extr;
    ASSERT_TRUE(readYML(dir.file("calib/intrinsics.yml"), ZUNCV_INTRINSICS, intr));
    ASSERT_TRUE(readYML(dir.file("calib/extrinsics.yml"), ZUNCV_EXTRINSICS, extr));
    orvo::vcam::Rig rig;
    EXPECT_EQ(cv::norm(intr[0], rig.K1), 0.0);
    EXPECT_EQ(cv::norm(extr[1], rig.T), 0.0);

    r = runOrvo({"info", "--virtual=pattern"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("calibration    none given (images will not be rectified)\n"), std::string::npos) << r.out;
}

TEST(ToolGrab, WritesOriginalAndRectifiedPairsWithGuideLines) {
    orvo_test::ScratchDir dir;
    Result r = runOrvo({"grab", "--virtual", "--frames", "2", "--separate", "--quiet", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "2 frames from virtual camera (built-in scene) at /dev/orvo-virtual0 written to " +
                         dir.path() + "\n");
    for (int i = 0; i < 2; ++i) {
        const std::string n = "_000" + std::to_string(i) + ".png";
        cv::Mat original = cv::imread(dir.file("original" + n), cv::IMREAD_UNCHANGED);
        cv::Mat rectified = cv::imread(dir.file("rectified" + n), cv::IMREAD_UNCHANGED);
        cv::Mat first = cv::imread(dir.file("first" + n), cv::IMREAD_UNCHANGED);
        cv::Mat second = cv::imread(dir.file("second" + n), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(original.size(), cv::Size(1504, 480));
        ASSERT_EQ(original.type(), CV_8UC1);
        ASSERT_EQ(first.size(), cv::Size(752, 480));
        EXPECT_EQ(cv::norm(original(cv::Rect(0, 0, 752, 480)), first, cv::NORM_INF), 0);
        EXPECT_EQ(cv::norm(original(cv::Rect(752, 0, 752, 480)), second, cv::NORM_INF), 0);
        ASSERT_EQ(rectified.size(), cv::Size(1504, 480));
        ASSERT_EQ(rectified.type(), CV_8UC3);
        for (int y : {0, 16, 464}) EXPECT_TRUE(isGreen(rectified.at<cv::Vec3b>(y, 900))) << y;
        EXPECT_FALSE(isGreen(rectified.at<cv::Vec3b>(8, 900)));
        // The scene is rendered with lens distortion: rectification moves pixels.
        cv::Mat grey;
        cv::extractChannel(rectified(cv::Rect(0, 0, 752, 480)), grey, 0);
        EXPECT_GT(cv::norm(grey.rowRange(20, 460), first.rowRange(20, 460), cv::NORM_L1) / (440.0 * 752), 3.0);
    }
    EXPECT_FALSE(exists(dir.file("original_0002.png")));

    orvo_test::ScratchDir raw_only;
    r = runOrvo({"grab", "--virtual=pattern", "--quiet", "--out", raw_only.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("(originals only: no calibration, so nothing to rectify)"), std::string::npos);
    EXPECT_TRUE(exists(raw_only.file("original_0000.png")));
    EXPECT_FALSE(exists(raw_only.file("rectified_0000.png")));
}

TEST(ToolDepth, NearestObstacleMatchesTheSceneTruth) {
    orvo_test::ScratchDir dir;
    const std::string truth = dir.file("truth.txt");
    Result r = runOrvo({"depth", "--virtual", "--frames", "3", "--out", dir.path()},
                    {{"ORVO_VCAM_TRUTH", truth}, {"ORVO_VCAM_TRUTH_BOX", "0.5,0.5,3"}});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<double> true_depth = truthNearestDepths(truth);
    ASSERT_EQ(true_depth.size(), 3u) << slurp(truth).substr(0, 400);
    const orvo::vcam::Rig rig;  // the default scene's

    std::vector<std::string> csv = lines(slurp(dir.file("nearest.csv")));
    ASSERT_EQ(csv.size(), 4u);
    EXPECT_EQ(csv[0], "frame,frame_time,found,x,y,z");
    std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 3u) << r.out;
    for (int i = 0; i < 3; ++i) {
        std::vector<std::string> f = fields(csv[size_t(i) + 1]);
        ASSERT_EQ(f.size(), 6u) << csv[size_t(i) + 1];
        EXPECT_EQ(f[0], std::to_string(i));
        EXPECT_EQ(f[2], "1");
        const double x = std::stod(f[3]), y = std::stod(f[4]), z = std::stod(f[5]);
        // The library scales depth by the unrectified focal length (M1) while disparities follow
        // the rectified one (P1); block matching on the textured face then lands within 4 %.
        const double expected = true_depth[size_t(i)] * rig.K1.at<double>(0, 0) / rig.P1.at<double>(0, 0);
        EXPECT_NEAR(z, expected, 0.04 * expected) << csv[size_t(i) + 1];
        EXPECT_GT(x, -0.2);  // the obstacle's face spans x -0.1 .. 0.3, its top 0.3 m above the axis
        EXPECT_LT(x, 0.4);
        EXPECT_LT(y, 0.0);
        EXPECT_GT(y, -0.5);
        char expect[96];
        std::snprintf(expect, sizeof expect, "frame %d: nearest x %+.3f y %+.3f z %.3f", i, x, y, z);
        EXPECT_EQ(out[size_t(i)], expect);

        const std::string n = "_000" + std::to_string(i) + ".png";
        cv::Mat disparity = cv::imread(dir.file("disparity" + n), cv::IMREAD_UNCHANGED);
        cv::Mat polar = cv::imread(dir.file("polar" + n), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(disparity.size(), cv::Size(752, 480));
        ASSERT_EQ(disparity.type(), CV_8UC3);
        ASSERT_EQ(polar.size(), cv::Size(1000, 1000));
        cv::Mat green;
        cv::inRange(polar, cv::Scalar(0, 255, 0), cv::Scalar(0, 255, 0), green);
        EXPECT_GT(cv::countNonZero(green), 20);  // the bins' diamonds
    }
}

TEST(ToolImu, BiasAndAttitudeOfATiltedStillCamera) {
    orvo_test::ScratchDir dir;
    // A still camera with its nose 10 degrees up and rolled 5 degrees, the default scene's
    // inertial unit (bias 9, -6, 4 counts, noisy).
    {
        cv::FileStorage fs(dir.file("tilted.yml"), cv::FileStorage::WRITE);
        fs << "camera" << "{" << "attitude_deg" << std::vector<double>{0, 10, 5} << "}";
        fs << "imu" << "{" << "gyro_bias" << std::vector<int>{9, -6, 4} << "gyro_noise" << 1.5
           << "accel_noise" << 8.0 << "}";
    }
    Result r = runOrvo({"imu", "--virtual=" + dir.file("tilted.yml"), "--frames", "100", "--quiet", "--out",
                     dir.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("gyro bias \\(counts\\): (-?\\d+) (-?\\d+) (-?\\d+)\n")))
        << r.out;
    EXPECT_NEAR(std::stoi(m[1]), 9, 1);
    EXPECT_NEAR(std::stoi(m[2]), -6, 1);
    EXPECT_NEAR(std::stoi(m[3]), 4, 1);

    std::vector<std::string> csv = lines(slurp(dir.file("imu.csv")));
    ASSERT_GT(csv.size(), 600u);  // 100 frames of 6 or 7 samples at 200 Hz
    EXPECT_LT(csv.size(), 700u);
    EXPECT_EQ(csv[0], "frame,frame_time,time,accel_x,accel_y,accel_z,gyro_x,gyro_y,gyro_z,period,qw,qx,qy,qz,roll,pitch,yaw");
    std::vector<std::string> last = fields(csv.back());
    ASSERT_EQ(last.size(), 17u);
    EXPECT_EQ(last[0], "99");
    EXPECT_NEAR(std::stod(last[14]), 5.0, 1.0);   // roll
    EXPECT_NEAR(std::stod(last[15]), 10.0, 1.0);  // pitch
    EXPECT_NEAR(std::stod(last[5]), std::cos(10 * M_PI / 180) * std::cos(5 * M_PI / 180), 0.02);  // accel z, g
    // The first 500 samples are the filter settling: zero quaternion.
    EXPECT_EQ(fields(csv[1])[10], "0");
    EXPECT_NE(fields(csv[501])[10], "0");
    EXPECT_TRUE(std::regex_search(r.out, std::regex("attitude: roll [0-9.-]+ pitch [0-9.-]+ yaw [0-9.-]+ degrees\n")));
    cv::Mat plot = cv::imread(dir.file("attitude.png"));
    EXPECT_EQ(plot.size(), cv::Size(900, 500));

    // Too few samples for the filter: the CSV but no plot, and a hint.
    orvo_test::ScratchDir few;
    r = runOrvo({"imu", "--virtual", "--frames", "5", "--quiet", "--out", few.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(exists(few.file("imu.csv")));
    EXPECT_FALSE(exists(few.file("attitude.png")));
    EXPECT_NE(r.err.find("the attitude filter settles after 500 samples"), std::string::npos) << r.err;
}

TEST(ToolRecord, RecordingReplaysByteForByte) {
    orvo_test::ScratchDir dir;
    Result r = runOrvo({"record", "--virtual", "--frames", "3", "--quiet", "--out", dir.file("a.raw")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "3 frames (2.2 MB) recorded to " + dir.file("a.raw") + "\n");
    ASSERT_EQ(fileSize(dir.file("a.raw")), long(3 * orvo::frame::kBytes));
    const std::string a = slurp(dir.file("a.raw"));
    for (int i = 0; i < 3; ++i) {
        // Each frame ends with its trailer: 6 or 7 records at 200 Hz and 30 frames per second.
        unsigned count = uint8_t(a[size_t(i + 1) * orvo::frame::kBytes - 1]);
        EXPECT_TRUE(count == 6 || count == 7 || (i == 0 && count == 1)) << i << ": " << count;
    }

    r = runOrvo({"record", "--virtual=" + dir.file("a.raw"), "--frames", "3", "--quiet", "--out", dir.file("b.raw")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(slurp(dir.file("b.raw")) == a);

    // Frames handed over empty are left out and counted.
    r = runOrvo({"record", "--virtual=" + dir.file("a.raw"), "--frames", "2", "--quiet", "--out", dir.file("c.raw")},
             {{"ORVO_VCAM_FAULTS", "bytesused@2=0"}});
    EXPECT_EQ(r.status, 1);
    const std::string message = "orvo record: the camera hands over incomplete frames only (0 bytes instead of 721920)\n";
    ASSERT_GE(r.err.size(), message.size());
    EXPECT_EQ(r.err.substr(r.err.size() - message.size()), message) << r.err;
}

TEST(ToolCheck, PassesWithTheTrueCalibrationAndFailsWithATiltedOne) {
    orvo_test::ScratchDir dir;
    Result r = runOrvo({"check", "--virtual", "--out", dir.path()});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("row error: median ([0-9.]+) px, mean ([0-9.]+) px, "
                                                        "95th percentile ([0-9.]+) px, offset ([-+0-9.]+) px "
                                                        "over ([0-9]+) matches \\(limit 1.00 px\\): PASS\n")))
        << r.out;
    EXPECT_LT(std::stod(m[1]), 0.5);
    EXPECT_GT(std::stoi(m[5]), 50);
    cv::Mat picture = cv::imread(dir.file("check.png"));
    EXPECT_EQ(picture.size(), cv::Size(1504, 480));

    // Files that claim the right lens is turned 1.5 degrees about x: rows misalign by ~11 px.
    orvo::vcam::RigSpec wrong;
    wrong.rotation[0] += 0.026;
    ASSERT_TRUE(orvo::vcam::Rig(wrong).writeStereo(dir.file("i.yml"), dir.file("e.yml")));
    r = runOrvo({"check", "--virtual", "--intrinsics", dir.file("i.yml"), "--extrinsics", dir.file("e.yml"),
              "--out", dir.path()});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("median ([0-9.]+) px.*FAIL\n"))) << r.out;
    EXPECT_GT(std::stod(m[1]), 5.0);
}

TEST(ToolCalibrate, UnattendedCalibrationRecoversTheRig) {
    if (!exists("/usr/bin/xdotool") || !exists("/usr/bin/Xvfb")) GTEST_SKIP() << "needs Xvfb and xdotool";
    orvo_test::ScratchDir dir;
    orvo::vcam::Rig rig;
    orvo::vcam::BoardSpec board;
    orvo::vcam::ChessboardRenderer renderer(rig, board);
    orvo::vcam::CalibrationSet set;
    std::string error;
    ASSERT_TRUE(orvo::vcam::writeCalibrationSet(renderer, dir.path(), set, &error)) << error;
    // The detector spends long on the far pair's full-size images before it tries them enlarged;
    // it has its own tests. The pair without a right image stays: the tool must report it.
    for (const std::string& name : set.pairs({set.far_pair})) unlink(name.c_str());

    const std::string board_arg = std::to_string(board.inner.width) + "x" + std::to_string(board.inner.height);
    Result r = runProgram(ORVO_TOOL_PATH,
                          {"calibrate", "--images", dir.path(), "--board", board_arg, "--square",
                           std::to_string(board.square), "--out", dir.file("out"), "--batch"},
                          {{"ORVO_VCAM_FPS", "0"}}, "", 600);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // The pair missing its right image is reported by the tool; the library reports the rest.
    EXPECT_NE(r.err.find("has no right partner; left out"), std::string::npos) << r.err;
    EXPECT_NE(r.out.find(" pairs have been successfully detected.\n"), std::string::npos) << r.out;
    std::vector<cv::Mat> extr;
    ASSERT_TRUE(readYML(dir.file("out/params/extrinsics.yml"), ZUNCV_EXTRINSICS, extr));
    // The procedure's model (same focal length, fixed aspect, no k3) on noisy, blurred views:
    // the baseline within 5 %, and the tool's summary is the file's.
    const double baseline = cv::norm(extr[1]);
    EXPECT_NEAR(baseline, rig.spec().baseline, 0.05 * rig.spec().baseline);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("baseline ([0-9.]+) \\(unit of --square\\)")));
    EXPECT_NEAR(std::stod(m[1]), -extr[5].at<double>(0, 3) / extr[5].at<double>(0, 0), 1e-5);

    // Without a display and without --batch the tool says what to do instead of crashing.
    r = runProgram(ORVO_TOOL_PATH,
                   {"calibrate", "--images", dir.path(), "--board", board_arg, "--square", "0.05"},
                   {{"DISPLAY", ""}}, "", 60);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no display was found (DISPLAY is not set); run it on a desktop or add --batch"),
              std::string::npos)
        << r.err;
}

TEST(ToolDemo, StreamsPrintsOneLinePerFrameAndWritesTheMontage) {
    orvo_test::ScratchDir dir;
    Result r = runProgram(ORVO_DEMO_PATH, {"--out", dir.path(), "--frames", "4"}, {{"ORVO_VCAM_FPS", "0"}},
                          "", 300);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::vector<std::string> out = lines(r.out);
    int frame_lines = 0;
    for (const std::string& l : out)
        if (l.rfind("frame ", 0) == 0) {
            EXPECT_NE(l.find("nearest x"), std::string::npos) << l;
            ++frame_lines;
        }
    EXPECT_EQ(frame_lines, 4);
    EXPECT_EQ(out.front(), "Orvo demo on the virtual camera (built-in scene) at /dev/orvo-virtual0");
    EXPECT_EQ(out.back(), "montage written to " + dir.file("montage.png"));
    cv::Mat montage = cv::imread(dir.file("montage.png"));
    ASSERT_FALSE(montage.empty());
    EXPECT_EQ(montage.cols, 1800);
    // Two rows: the pairs (900 x 287 + caption) and the disparity (900 x 574) beside the forward
    // half of the polar plot.
    EXPECT_EQ(montage.rows, (287 + 28) + (574 + 28));
}
