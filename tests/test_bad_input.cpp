// Bad input end to end: unusable calibration files given to the facade, and device paths that are no
// camera. Each gives its defined message and outcome, never a crash.
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include "calib_fixture.h"
#include "engine_test_support.h"

using namespace engine_test;
using orvo_test::readFile;

namespace {

const std::string kSetUp = "Orvo Video Open Finish\nOrvo Camera Setting OK \n";
std::string readError(const std::string& path) { return " Read File : " + path + "Error !\n"; }
std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }
long openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
using Paths = std::array<std::string, 3>;  // intrinsics, extrinsics, fisheye
std::string name(const Paths& p) { return p[0] + " | " + p[1] + " | " + p[2]; }

class BadInput : public ::testing::Test {
protected:
    void SetUp() override {
        std::tie(in_, ex_) = writeStereoFiles(dir_);
        auto full = makeFacade(in_, ex_);
        ASSERT_TRUE(camera_->maps_valid);
        std::tie(fx_, baseline_) = std::make_tuple(camera_->fx, camera_->baseline);
    }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(dir_.file(name), std::ios::binary) << text;
        return dir_.file(name);
    }
    // A facade on `files` and its outcome, checked: "exception" (OpenCV's, before the camera opened:
    // nothing printed, no descriptor left), "uncalibrated" (running on raw pairs) or "calibrated".
    std::string outcome(const Paths& files, const std::string& err = "", const std::string& read = "") {
        OrvoCameraParameterList p;
        p.device_path = VirtualCamera::device();
        std::tie(p.intrinsics_file, p.extrinsics_file, p.fisheye_file) = std::tie(files[0], files[1], files[2]);
        const long descriptors = openDescriptors();
        std::unique_ptr<OrvoCamera> cam;
        const orvo_test::Captured io = orvo_test::captureOutput([&] {
            try {
                cam.reset(new OrvoCamera(p));
            } catch (const cv::Exception&) {  // leaves cam empty
            }
        });
        if (!cam) {
            EXPECT_EQ(io.out, read);
            EXPECT_EQ(openDescriptors(), descriptors);
            return "exception";
        }
        EXPECT_EQ(io.out, read + kSetUp);
        EXPECT_EQ(io.err, err);
        if (camera_->maps_valid) {
            EXPECT_TRUE(camera_->fx == fx_ && camera_->baseline == baseline_ && cam->Grab());
            return "calibrated";
        }
        EXPECT_EQ(camera_->fx + camera_->cx + camera_->baseline, 0.0);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(cam->Grab());
            EXPECT_TRUE(sameImage(cam->org_image_1, cam->rect_image_1) && sameImage(cam->org_image_2, cam->rect_image_2));
        }
        winpar region{1.0, 1.0, 10.0, 0.0};
        std::vector<nerapot> bins(360);
        cv::Point3d nearest(1, 2, 3);
        cam->getNearestPoint(region, bins.data(), nearest);
        EXPECT_EQ(nearest, cv::Point3d(0, 0, std::numeric_limits<double>::max()));
        return "uncalibrated";
    }
    VirtualCamera cam_{"pattern"};
    TempDir dir_;
    std::string in_, ex_;
    double fx_ = 0, baseline_ = 0;
};

// Unreadable files are reported (both read, intrinsics first, before anything is decided). Files of
// another layout or lacking a matrix the maps need, and files OpenCV cannot parse (empty, blank,
// binary) or rectify, raise its exception; an extrinsics file without P2 leaves the camera uncalibrated.
TEST_F(BadInput, UnusableCalibrationFilesGiveTheirMessagesAndOutcome) {
    const std::string directory = dir_.file("a-directory"), dangling = dir_.file("dangling.yml");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    ASSERT_EQ(symlink(dir_.file("nothing-here").c_str(), dangling.c_str()), 0);
    std::vector<std::string> unreadable = {directory, dangling, in_ + "/x.yml", dir_.file("missing.yml")};
    if (geteuid() != 0) {  // permissions do not stop root
        unreadable.push_back(write("locked.yml", readFile(in_)));
        ASSERT_EQ(chmod(unreadable.back().c_str(), 0), 0);
    }
    for (const std::string& bad : unreadable)
        for (const Paths& c : {Paths{bad, bad, ""}, Paths{bad, ex_, ""}, Paths{in_, bad, ""}, Paths{"", "", bad}}) {
            SCOPED_TRACE(name(c));
            const std::string err = c[0] == bad && c[1] == bad ? readError(bad) + readError(bad) : readError(bad);
            EXPECT_EQ(outcome(c, err), "uncalibrated");
        }
    const std::string fisheye = dir_.file("fisheye.yml"), mono = dir_.file("mono.yml");
    ASSERT_TRUE(orvo::vcam::Rig(orvo::vcam::fisheyeRigSpec()).writeFisheye(fisheye) && orvo::vcam::Rig().writeMono(mono));
    int edits = 0;
    auto edited = [&](const std::string& source, const std::string& key, const cv::Mat& value) {  // empty: erased
        const std::string path = write(key + "-" + std::to_string(++edits) + ".yml", readFile(source));
        editMatrices(path, [&](auto& m) { value.empty() ? void(m.erase(key)) : void(m[key] = value); });
        return path;
    };
    std::vector<Paths> silent;  // files of another layout lack the keys the builder needs
    std::vector<Paths> raising = {{fisheye, fisheye, ""}, {ex_, in_, ""}, {mono, mono, ""}, {"", "", in_}, {"", "", mono}};
    // Each matrix the maps need, missing (the file named after it): OpenCV's exception, naming the key, reaches
    // the caller after outputs 5 and 6 are assigned; the maps are untouched. A missing P2 feeds no call.
    for (const auto& [file, keys] : {std::pair<std::string, std::vector<std::string>>{in_, {"M1", "D1", "M2", "D2"}},
                                     {ex_, {"R", "T", "P2"}}, {fisheye, {"K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"}}})
        for (const std::string& key : keys) {
            const std::string e = edited(file, key, cv::Mat());
            const Paths c = file == fisheye ? Paths{"", "", e} : file == in_ ? Paths{e, ex_, ""} : Paths{in_, e, ""};
            const cv::Mat held = cv::Mat::ones(2, 2, CV_8U);
            cv::Mat o[6] = {held, held, held, held, held, held};
            auto build = [&] {
                return file == fisheye ? get_remap_mat_fisheye_file(e, {kW, kH}, o[0], o[1], o[2], o[3], o[4], o[5])
                                       : get_remap_mat(c[0], c[1], {kW, kH}, o[0], o[1], o[2], o[3], o[4], o[5]);
            };
            const bool feeds_no_call = file == ex_ && key == "P2";
            std::string what;
            orvo_test::captureOutput([&] {
                try {
                    EXPECT_EQ(build(), feeds_no_call) << e;
                } catch (const cv::Exception& x) {
                    what = x.what();
                }
            });
            EXPECT_EQ(what.find("has no '" + key + "' matrix") != std::string::npos, !feeds_no_call) << e << what;
            for (int i = 0; i < 4; ++i) EXPECT_EQ(o[i].data == held.data, !feeds_no_call) << e;
            EXPECT_TRUE(o[5].empty() == (key == "P2") && cv::countNonZero(held) == 4) << e;
            (feeds_no_call ? silent : raising).push_back(c);
        }
    for (const Paths& c : silent) {
        SCOPED_TRACE(name(c));
        EXPECT_EQ(outcome(c, "", c[2].empty() ? "" : "read K1\nread D1\n"), "uncalibrated");
    }
    raising.insert(raising.end(), {{edited(in_, "M1", cv::Mat::eye(2, 2, CV_64F)), ex_, ""},
                                   {in_, edited(ex_, "R", cv::Mat::ones(2, 5, CV_64F)), ""},
                                   {in_, edited(ex_, "T", cv::Mat::ones(1, 1, CV_32S)), ""}});
    for (const Paths& c : raising) {  // a fisheye file is parsed, with its progress lines, before the key is missed
        SCOPED_TRACE(name(c));
        EXPECT_EQ(outcome(c, "", c[2].empty() ? "" : "read K1\nread D1\n"), "exception");
    }
    for (const std::string& text : {std::string(), std::string("  \n\n"), std::string("\x00\x01\x02", 3)}) {
        const std::string e = write("empty" + std::to_string(raising.size()) + ".yml", text);
        for (const Paths& c : {Paths{e, ex_, ""}, Paths{in_, e, ""}, Paths{e, e, ""}, Paths{"", "", e}}) {
            SCOPED_TRACE(name(c));
            EXPECT_EQ(outcome(c), "exception");
        }
    }
}

// Every truncation of both files (every 17th byte, every line end) gives one of the three outcomes,
// the full calibration only when nothing but the end of the last line went.
TEST_F(BadInput, EveryTruncationGivesADefinedOutcome) {
    std::map<std::string, int> outcomes;
    for (const int which : {0, 1}) {
        const std::string text = readFile(which ? ex_ : in_);
        for (size_t cut = 0; cut <= text.size(); ++cut) {
            if (cut % 17 != 0 && text[cut - 1] != '\n') continue;
            SCOPED_TRACE(std::to_string(which) + " cut at " + std::to_string(cut));
            const std::string cut_path = write("cut.yml", text.substr(0, cut));
            ++outcomes[outcome({which ? in_ : cut_path, which ? cut_path : ex_, ""})];
        }
    }
    // All three outcomes occur, so the walk reached each kind of cut: a file cut before its P2 no longer
    // names the right camera's projection, and the camera runs uncalibrated.
    EXPECT_GT(outcomes["exception"], 10);
    EXPECT_GE(outcomes["uncalibrated"], 2);
    EXPECT_GE(outcomes["calibrated"], 1);
}

// Regressions (calibration-file fuzzer): an empty key inside a matrix node made OpenCV 4.6's parser
// throw std::length_error, and read the byte before its line buffer (Valgrind saw it; the
// sanitizers do not see into OpenCV); a directive on the document-start line of a 27-byte file
// made it never return. Both are refused as malformed, with OpenCV's exception, by every layout's
// reader and the facade; in a child, so that a hang fails within seconds.
TEST_F(BadInput, FilesTheParserMishandlesAreRefusedAsMalformed) {
    const std::pair<std::string, std::string> cases[] = {
        {write("empty-key.yml", "%YAML:1.0\n---\nP1: !!opencv-matrix\n   rows: 3\n   : tdd\n"), "an empty key"},
        {write("hang.yml", "%YAML:1.0\n---%YAML:1.\nM10\n-"), "a directive after the document start"},
        {write("hang-spaced.yml", "%YAML:1.0\n---  %YAML:1.0\n_\n- "), "a directive after the document start"}};
    for (const auto& [path, why] : cases) {
        SCOPED_TRACE(path);
        orvo_test::Captured c = orvo_test::runInChild([&] {
            for (zuncvFileType type : {ZUNCV_INTRINSICS, ZUNCV_EXTRINSICS, ZUNCV_MONO, ZUNCV_FISHEYE}) {
                std::vector<cv::Mat> list(2);
                try {
                    readYML(path, type, list);
                } catch (const cv::Exception& e) {
                    const size_t named = std::string(e.what()).find("malformed calibration file '" + path + "': " + why);
                    std::printf("%d %zu %d\n", e.code, list.size(), int(named != std::string::npos));
                }
            }
            std::printf("facade: %s\n", outcome({in_, path, ""}).c_str());
        }, 20);
        EXPECT_EQ(c.signal, 0) << "the parser did not return";
        const std::string refused = std::to_string(int(cv::Error::StsParseError)) + " 2 1\n";
        EXPECT_EQ(c.out, refused + refused + refused + refused + "facade: exception\n");
    }
}

// A regular file and /dev/null open but fail the capability query; the others do not open.
TEST(BadDevice, PathsThatAreNoCameraEndTheProcessWithTheirMessages) {
    TempDir dir;
    const std::string regular = dir.file("not-a-camera"), directory = dir.file("a-directory");
    std::ofstream(regular) << "hello";
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    for (const auto& [path, e] : {std::pair<std::string, int>{regular, ENOTTY}, {"/dev/null", ENOTTY}, {directory, EISDIR},
                                  {dir.file("no-such-node"), ENOENT}, {"", ENOENT}}) {
        SCOPED_TRACE(path);
        orvo_test::Captured r = orvo_test::runInChild([&] {
            OrvoCameraParameterList p;
            p.device_path = path;
            OrvoCamera camera(p);
            std::printf("constructed\n");
        });
        const std::string first = e == ENOTTY ? "VIDIOC_QUERYCAP error " : "Cannot open '" + path + "': ";
        EXPECT_EQ(r.out, first + errText(e) + "\nCannot identify '" + path + "': " + errText(e) + "\nCannot open '" +
                             path + "': " + errText(e) + "\n");
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.signal, 0);
    }
    EXPECT_EQ(readFile(regular), "hello");  // opened read-write and left as it was
}

}  // namespace
