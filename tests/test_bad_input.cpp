// Bad input end to end: unreadable, empty, truncated and wrong-layout calibration files given to
// the facade, and device paths that are no camera. Each gives its defined message and outcome and
// never a crash; the cases that end the process run in a child whose exit status is checked.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "OrvoCamera.h"
#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

const std::string kNode = "/dev/video-virtual-bad-input";
const std::string kSetUp = "Orvo Video Open Finish\nOrvo Camera Setting OK \n";

std::string readError(const std::string& path) { return " Read File : " + path + "Error !\n"; }
std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }

// The virtual camera on the test pattern, free-running, for every camera opened in this file.
class BadInput : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("ORVO_VCAM_DEVICE", kNode.c_str(), 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        setenv("ORVO_VCAM_SOURCE", "pattern", 1);
        unsetenv("ORVO_VCAM_FAULTS");
        orvo::vcam::Rig rig;
        intrinsics_ = dir_.file("intrinsics.yml");
        extrinsics_ = dir_.file("extrinsics.yml");
        ASSERT_TRUE(rig.writeStereo(intrinsics_, extrinsics_));
    }
    void TearDown() override { unsetenv("ORVO_VCAM_DEVICE"); }

    std::string write(const std::string& name, const std::string& text) {
        const std::string path = dir_.file(name);
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    static std::string slurp(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    orvo_test::ScratchDir dir_;
    std::string intrinsics_, extrinsics_;
};

int openDescriptors() {
    int n = 0;
    for (int fd = 0; fd < 1024; ++fd) n += fcntl(fd, F_GETFD) != -1;
    return n;
}

struct Built {
    std::unique_ptr<OrvoCamera> camera;
    orvo_test::Captured io;
    bool threw = false;
    std::string what;
};

// Constructs a facade with the given calibration paths, catching OpenCV's exception (the
// contract for a file OpenCV cannot parse).
Built construct(const std::string& intrinsics, const std::string& extrinsics,
                const std::string& fisheye = "") {
    OrvoCameraParameterList p;
    p.device_path = kNode;
    p.intrinsics_file = intrinsics;
    p.extrinsics_file = extrinsics;
    p.fisheye_file = fisheye;
    Built b;
    b.io = orvo_test::captureOutput([&] {
        try {
            b.camera.reset(new OrvoCamera(p));
        } catch (const cv::Exception& e) {
            b.threw = true;
            b.what = e.what();
        }
    });
    return b;
}

// A facade without a usable calibration: no maps, no camera constants, raw pairs from Grab and
// no parameter row; and it keeps running.
void expectUncalibrated(OrvoCamera& cam) {
    ASSERT_NE(camera_, nullptr);
    EXPECT_FALSE(camera_->maps_valid);
    EXPECT_EQ(camera_->fx, 0.0);
    EXPECT_EQ(camera_->cx, 0.0);
    EXPECT_EQ(camera_->baseline, 0.0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(cam.Grab());
        cv::Mat a, b, c, d;
        cam.getOrgImage(a, b);
        cam.getRectImage(c, d);
        EXPECT_EQ(cv::norm(a, c, cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::norm(b, d, cv::NORM_INF), 0.0);
    }
    winpar region{1.0, 1.0, 10.0, 0.0};
    std::vector<nerapot> bins(360);
    cv::Point3d nearest(1, 2, 3);
    cam.getNearestPoint(region, bins.data(), nearest);
    EXPECT_EQ(nearest, cv::Point3d(0, 0, std::numeric_limits<double>::max()));
}

// The files as they are written by the calibration are accepted (the baseline every case departs
// from), and each broken variant is set against it.
TEST_F(BadInput, ValidFilesCalibrate) {
    Built b = construct(intrinsics_, extrinsics_);
    ASSERT_FALSE(b.threw) << b.what;
    EXPECT_EQ(b.io.out, kSetUp);
    EXPECT_EQ(b.io.err, "");
    EXPECT_TRUE(camera_->maps_valid);
    EXPECT_GT(camera_->fx, 100.0);
    EXPECT_TRUE(b.camera->Grab());
}

TEST_F(BadInput, UnreadableCalibrationFilesAreReportedAndLeaveTheCameraUncalibrated) {
    const std::string directory = dir_.file("a-directory");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    const std::string dangling = dir_.file("dangling.yml");
    ASSERT_EQ(symlink(dir_.file("nothing-here").c_str(), dangling.c_str()), 0);
    const std::string through_file = intrinsics_ + "/x.yml";  // a regular file used as a directory
    std::vector<std::string> unreadable = {directory, dangling, through_file, dir_.file("missing.yml")};
    if (geteuid() != 0) {  // permissions do not stop root
        const std::string locked = write("locked.yml", slurp(intrinsics_));
        ASSERT_EQ(chmod(locked.c_str(), 0), 0);
        unreadable.push_back(locked);
    }
    for (const std::string& bad : unreadable) {
        SCOPED_TRACE(bad);
        // Both files are read before anything is decided, intrinsics first.
        Built both = construct(bad, bad);
        ASSERT_FALSE(both.threw) << both.what;
        EXPECT_EQ(both.io.out, kSetUp);
        EXPECT_EQ(both.io.err, readError(bad) + readError(bad));
        expectUncalibrated(*both.camera);
        both.camera.reset();

        Built in = construct(bad, extrinsics_);
        EXPECT_EQ(in.io.err, readError(bad));
        expectUncalibrated(*in.camera);
        // The parameter row needs only the extrinsics, which are fine.
        cv::Mat row;
        EXPECT_TRUE(in.camera->getCameraParameter(row));
        in.camera.reset();

        Built ex = construct(intrinsics_, bad);
        EXPECT_EQ(ex.io.err, readError(bad));
        expectUncalibrated(*ex.camera);
        cv::Mat kept = (cv::Mat_<double>(1, 1) << 5.0);
        const uchar* data = kept.data;
        orvo_test::Captured c = orvo_test::captureOutput([&] { EXPECT_FALSE(ex.camera->getCameraParameter(kept)); });
        EXPECT_EQ(c.err, readError(bad));
        EXPECT_EQ(kept.data, data);
        ex.camera.reset();

        Built fish = construct("", "", bad);
        EXPECT_EQ(fish.io.err, readError(bad));
        expectUncalibrated(*fish.camera);
    }
}

// An empty file is one OpenCV refuses to parse: its exception leaves the constructor before the
// camera is opened, so nothing is left behind.
TEST_F(BadInput, EmptyOrBlankFilesRaiseOpenCvsExceptionBeforeTheCameraOpens) {
    const int before = openDescriptors();
    for (const std::string& text : {std::string(), std::string("  \n\n"), std::string("\x00\x01\x02", 3)}) {
        const std::string empty = write("empty.yml", text);
        for (auto [in, ex] : {std::pair{empty, extrinsics_}, {intrinsics_, empty}, {empty, empty}}) {
            Built b = construct(in, ex);
            EXPECT_TRUE(b.threw);
            EXPECT_EQ(b.camera, nullptr);
            EXPECT_EQ(b.io.out, "");  // the camera was never opened
            EXPECT_EQ(openDescriptors(), before);
        }
        Built fish = construct("", "", empty);
        EXPECT_TRUE(fish.threw);
        EXPECT_EQ(fish.io.out, "");
    }
}

// Every truncation of both files: either OpenCV's exception before the camera opens, or a running
// camera without calibration (keys cut off), or, when only the end of the last line went, the
// full calibration. Never anything in between, and never a crash.
TEST_F(BadInput, EveryTruncationGivesADefinedOutcome) {
    Built full = construct(intrinsics_, extrinsics_);
    ASSERT_TRUE(camera_->maps_valid);
    const double fx = camera_->fx, baseline = camera_->baseline;
    full.camera.reset();

    std::map<std::string, int> outcomes;
    for (const std::string* which : {&intrinsics_, &extrinsics_}) {
        const std::string text = slurp(*which);
        std::vector<size_t> cuts;  // every 17th byte and every line end
        for (size_t cut = 0; cut < text.size(); cut += 17) cuts.push_back(cut);
        for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', nl + 1))
            cuts.push_back(nl + 1);
        for (size_t cut : cuts) {
            SCOPED_TRACE((which == &intrinsics_ ? "intrinsics cut at " : "extrinsics cut at ") + std::to_string(cut));
            const std::string cut_path = write("cut.yml", text.substr(0, cut));
            Built b = which == &intrinsics_ ? construct(cut_path, extrinsics_) : construct(intrinsics_, cut_path);
            if (b.threw) {
                ++outcomes["exception"];
                EXPECT_EQ(b.io.out, "");
                continue;
            }
            EXPECT_EQ(b.io.out, kSetUp);
            EXPECT_EQ(b.io.err, "");
            if (camera_->maps_valid) {
                ++outcomes["calibrated"];
                EXPECT_EQ(camera_->fx, fx);
                EXPECT_EQ(camera_->baseline, baseline);
                EXPECT_TRUE(b.camera->Grab());
            } else {
                ++outcomes["uncalibrated"];
                expectUncalibrated(*b.camera);
            }
        }
    }
    // All three outcomes occur, so the walk did reach each kind of cut.
    EXPECT_GT(outcomes["exception"], 10);
    EXPECT_GT(outcomes["uncalibrated"], 10);
    EXPECT_GE(outcomes["calibrated"], 1);
}

// Files of the wrong layout or with matrices of the wrong shape.
TEST_F(BadInput, WrongLayoutsLeaveTheCameraUncalibratedOrRaiseOpenCvsException) {
    orvo::vcam::Rig fisheye_rig(orvo::vcam::fisheyeRigSpec());
    const std::string fisheye = dir_.file("fisheye.yml");
    ASSERT_TRUE(fisheye_rig.writeFisheye(fisheye));
    const std::string mono = dir_.file("mono.yml");
    ASSERT_TRUE(orvo::vcam::Rig().writeMono(mono));

    // Keys of another layout: no maps, no message (a missing key is not an error of the reader).
    for (auto [in, ex, fish] : {std::tuple{fisheye, fisheye, std::string()},
                                {extrinsics_, intrinsics_, ""},
                                {mono, mono, ""},
                                {"", "", intrinsics_},
                                {"", "", mono}}) {
        SCOPED_TRACE(in + " / " + ex + " / " + fish);
        Built b = construct(in, ex, fish);
        ASSERT_FALSE(b.threw) << b.what;
        const std::string progress = fish.empty() ? "" : "read K1\nread D1\n";
        EXPECT_EQ(b.io.out, progress + kSetUp);
        EXPECT_EQ(b.io.err, "");
        expectUncalibrated(*b.camera);
    }

    // Matrices that are there but of the wrong shape or type.
    auto edited = [&](const std::string& source, const std::string& key, const cv::Mat& value) {
        const std::string path = dir_.file("edited-" + key + ".yml");
        cv::FileStorage in(source, cv::FileStorage::READ), out(path, cv::FileStorage::WRITE);
        for (cv::FileNode node : in.root()) {
            cv::Mat m;
            node >> m;
            out << node.name() << (node.name() == key ? value : m);
        }
        return path;
    };
    // A right projection that is not 3x4: maps are built, but no baseline can be read from it.
    Built p2 = construct(intrinsics_, edited(extrinsics_, "P2", cv::Mat::eye(3, 3, CV_64F)));
    ASSERT_FALSE(p2.threw) << p2.what;
    expectUncalibrated(*p2.camera);
    p2.camera.reset();
    // Single-precision camera matrix: the constants would be misread as doubles, so none are.
    Built m1f = construct(edited(intrinsics_, "M1", cv::Mat::eye(3, 3, CV_32F) * 430), extrinsics_);
    ASSERT_FALSE(m1f.threw) << m1f.what;
    expectUncalibrated(*m1f.camera);
    m1f.camera.reset();
    // Shapes OpenCV's rectification refuses: its exception, before the camera opens.
    for (auto [file, key, value] : {std::tuple{intrinsics_, "M1", cv::Mat(cv::Mat::eye(2, 2, CV_64F))},
                                    {extrinsics_, "R", cv::Mat(cv::Mat::ones(2, 5, CV_64F))},
                                    {extrinsics_, "T", cv::Mat(cv::Mat::ones(1, 1, CV_32S))}}) {
        SCOPED_TRACE(std::string(key));
        const std::string path = edited(file, key, value);
        Built b = file == intrinsics_ ? construct(path, extrinsics_) : construct(intrinsics_, path);
        EXPECT_TRUE(b.threw);
        EXPECT_EQ(b.io.out, "");
    }
}

// A malformed file on which OpenCV 4.6's parser throws std::length_error (an empty key inside a
// matrix node; found by the calibration-file fuzzer): callers get OpenCV's own exception.
TEST_F(BadInput, ParserErrorsOfEveryKindSurfaceAsOpenCvsException) {
    const std::string empty_key = write("empty-key.yml",
                                        "%YAML:1.0\n---\nP1: !!opencv-matrix\n   rows: 3\n   : tdd\n");
    for (zuncvFileType type : {ZUNCV_INTRINSICS, ZUNCV_EXTRINSICS, ZUNCV_MONO, ZUNCV_FISHEYE}) {
        std::vector<cv::Mat> list(2);
        try {
            readYML(empty_key, type, list);
            ADD_FAILURE() << "no exception for layout " << int(type);
        } catch (const cv::Exception& e) {
            EXPECT_EQ(e.code, cv::Error::StsParseError);
            EXPECT_NE(std::string(e.what()).find(empty_key), std::string::npos) << e.what();
        } catch (...) {
            ADD_FAILURE() << "an exception other than OpenCV's for layout " << int(type);
        }
        EXPECT_EQ(list.size(), 2u);
    }
    cv::Mat out;
    EXPECT_THROW(getStereoCameraParameter(empty_key, out), cv::Exception);
    Built b = construct(intrinsics_, empty_key);
    EXPECT_TRUE(b.threw);
    EXPECT_EQ(b.io.out, "");
}

// A 27-byte file on which OpenCV 4.6's parser never returns (a directive on the document-start
// line; found by the calibration-file fuzzer) is refused as malformed. In a child, so that a
// hang shows as a failure within seconds.
TEST_F(BadInput, FilesThatWouldHangTheParserAreRefusedAsMalformed) {
    const std::string hang = write("hang.yml", "%YAML:1.0\n---%YAML:1.\nM10\n-");
    const std::string spaced = write("hang-spaced.yml", "%YAML:1.0\n---  %YAML:1.0\n_\n- ");
    for (const std::string& path : {hang, spaced}) {
        SCOPED_TRACE(path);
        orvo_test::Captured c = orvo_test::runInChild(
            [&] {
                for (zuncvFileType type : {ZUNCV_INTRINSICS, ZUNCV_EXTRINSICS, ZUNCV_MONO, ZUNCV_FISHEYE}) {
                    std::vector<cv::Mat> list;
                    try {
                        readYML(path, type, list);
                        std::printf("no exception\n");
                    } catch (const cv::Exception& e) {
                        std::printf("%d %zu\n", e.code, list.size());
                    }
                }
                Built b = construct(intrinsics_, path);
                std::printf("facade threw %d\n", int(b.threw));
            },
            20);
        EXPECT_EQ(c.signal, 0) << "the parser did not return";
        const std::string refused = std::to_string(int(cv::Error::StsParseError)) + " 0\n";
        EXPECT_EQ(c.out, refused + refused + refused + refused + "facade threw 1\n");
    }
    // A document-start line with an ordinary comment, and an XML file, still read.
    const std::string comment = write("comment.yml", "%YAML:1.0\n--- # calibration\nM1: !!opencv-matrix\n"
                                                     "   rows: 1\n   cols: 1\n   dt: d\n   data: [ 4. ]\n");
    std::vector<cv::Mat> list;
    ASSERT_TRUE(readYML(comment, ZUNCV_INTRINSICS, list));
    EXPECT_EQ(list[0].at<double>(0, 0), 4.0);
    cv::FileStorage xml(dir_.file("m.xml"), cv::FileStorage::WRITE);
    xml << "M1" << cv::Mat::eye(3, 3, CV_64F);
    xml.release();
    list.clear();
    ASSERT_TRUE(readYML(dir_.file("m.xml"), ZUNCV_INTRINSICS, list));
    EXPECT_EQ(list[0].at<double>(2, 2), 1.0);
}

// ---- device paths that are no camera ------------------------------------------------------------

orvo_test::Captured facadeOn(const std::string& device) {
    return orvo_test::runInChild([&] {
        unsetenv("ORVO_VCAM_DEVICE");  // the virtual camera stays out of the way
        OrvoCameraParameterList p;
        p.device_path = device;
        OrvoCamera camera(p);
        std::printf("constructed\n");
    });
}

TEST(BadDevice, PathsThatAreNoCameraEndTheProcessWithTheirMessages) {
    orvo_test::ScratchDir dir;
    const std::string regular = dir.file("not-a-camera");
    std::ofstream(regular) << "hello";
    const std::string directory = dir.file("a-directory");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    const std::string missing = dir.file("no-such-node");

    struct Case {
        std::string path;
        std::string out;
    };
    auto notV4l2 = [](const std::string& p) {  // opens, but the capability query is not understood
        return "VIDIOC_QUERYCAP error " + errText(ENOTTY) + "\nCannot identify '" + p + "': " +
               errText(ENOTTY) + "\nCannot open '" + p + "': " + errText(ENOTTY) + "\n";
    };
    auto unopenable = [](const std::string& p, int e) {
        return "Cannot open '" + p + "': " + errText(e) + "\nCannot identify '" + p + "': " + errText(e) +
               "\nCannot open '" + p + "': " + errText(e) + "\n";
    };
    const std::vector<Case> cases = {
        {regular, notV4l2(regular)},
        {"/dev/null", notV4l2("/dev/null")},
        {directory, unopenable(directory, EISDIR)},
        {missing, unopenable(missing, ENOENT)},
        {"", unopenable("", ENOENT)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        orvo_test::Captured r = facadeOn(c.path);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.signal, 0);
    }
    // The regular file was opened read-write and left as it was.
    std::ifstream in(regular);
    std::string text;
    in >> text;
    EXPECT_EQ(text, "hello");
}

}  // namespace
