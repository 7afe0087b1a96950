// Calibration parameter files: the four layouts, list order, messages and the camera-parameter row.
#include <gtest/gtest.h>

#include <fstream>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "ZUNCVHelper.h"
#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using Entries = std::vector<std::pair<std::string, cv::Mat>>;
using orvo_test::captureOutput;

void writeFile(const std::string& path, const Entries& entries) {
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
    ASSERT_TRUE(fs.isOpened()) << path;
    for (const auto& e : entries) fs << e.first << e.second;
}

// A matrix whose every element differs from those of any other made with another seed.
cv::Mat distinct(int rows, int cols, int type, double seed) {
    cv::Mat m(rows, cols, type);
    cv::Mat d(rows, cols, CV_64F);
    for (int i = 0; i < rows * cols; ++i) d.at<double>(i) = seed + 0.25 * i;
    d.convertTo(m, type);
    return m;
}

bool same(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return false;
    if (a.empty()) return true;
    return cv::norm(a, b, cv::NORM_INF) == 0.0;
}

void expectList(const std::vector<cv::Mat>& got, const std::vector<cv::Mat>& want, size_t from = 0) {
    ASSERT_EQ(got.size(), from + want.size());
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_TRUE(same(got[from + i], want[i])) << "entry " << from + i;
}

struct Fixture {
    orvo_test::ScratchDir dir;
    cv::Mat M1 = distinct(3, 3, CV_64F, 100), D1 = distinct(1, 5, CV_64F, 200);
    cv::Mat M2 = distinct(3, 3, CV_64F, 300), D2 = distinct(1, 5, CV_32F, 400);
    cv::Mat R = distinct(3, 3, CV_64F, 500), T = distinct(3, 1, CV_64F, 600);
    cv::Mat R1 = distinct(3, 3, CV_64F, 700), R2 = distinct(3, 3, CV_64F, 800);
    cv::Mat P1 = distinct(3, 4, CV_64F, 900), P2 = distinct(3, 4, CV_64F, 1000);
    cv::Mat Q = distinct(4, 4, CV_64F, 1100);
    cv::Mat K1 = distinct(3, 3, CV_64F, 1200), K2 = distinct(3, 3, CV_32F, 1300);
    cv::Mat FD1 = distinct(4, 1, CV_64F, 1400), FD2 = distinct(4, 1, CV_64F, 1500);
    cv::Mat CM = distinct(3, 3, CV_64F, 1600), DC = distinct(5, 1, CV_32S, 1700);
};

TEST(ReadYml, IntrinsicsListOrderDoesNotFollowFileOrLookupOrder) {
    Fixture f;
    const std::string as_written = f.dir.file("intrinsics.yml"), reversed = f.dir.file("rev.yml");
    writeFile(as_written, {{"M1", f.M1}, {"D1", f.D1}, {"M2", f.M2}, {"D2", f.D2}});
    writeFile(reversed, {{"D2", f.D2}, {"extra", f.Q}, {"M2", f.M2}, {"D1", f.D1}, {"M1", f.M1}});
    for (const std::string& path : {as_written, reversed}) {
        std::vector<cv::Mat> out;
        bool ok = false;
        auto c = captureOutput([&] { ok = readYML(path, ZUNCV_INTRINSICS, out); });
        EXPECT_TRUE(ok);
        EXPECT_EQ(c.out, "");
        EXPECT_EQ(c.err, "");
        // The float D2 comes back as float: the reader never converts.
        expectList(out, {f.M1, f.D1, f.M2, f.D2});
    }
}

TEST(ReadYml, ExtrinsicsReturnsSixAndNeverQ) {
    Fixture f;
    const std::string calib = f.dir.file("extrinsics.yml"), q_first = f.dir.file("q.yml");
    writeFile(calib, {{"R", f.R}, {"T", f.T}, {"R1", f.R1}, {"R2", f.R2}, {"P1", f.P1},
                      {"P2", f.P2}, {"Q", f.Q}});
    writeFile(q_first, {{"Q", f.Q}, {"P2", f.P2}, {"P1", f.P1}, {"T", f.T}, {"R2", f.R2},
                        {"R1", f.R1}, {"R", f.R}});
    for (const std::string& path : {calib, q_first}) {
        std::vector<cv::Mat> out;
        EXPECT_TRUE(readYML(path, ZUNCV_EXTRINSICS, out));
        expectList(out, {f.R, f.T, f.R1, f.R2, f.P1, f.P2});
        for (const cv::Mat& m : out) EXPECT_FALSE(same(m, f.Q));
    }
}

TEST(ReadYml, FisheyeOrderAndProgressLines) {
    Fixture f;
    const std::string path = f.dir.file("fisheye.yml");
    writeFile(path, {{"P2", f.P2}, {"P1", f.P1}, {"R2", f.R2}, {"R1", f.R1}, {"D2", f.FD2},
                     {"D1", f.FD1}, {"K2", f.K2}, {"K1", f.K1}});
    std::vector<cv::Mat> out;
    bool ok = false;
    auto c = captureOutput([&] { ok = readYML(path, ZUNCV_FISHEYE, out); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.out, "read K1\nread D1\n");
    EXPECT_EQ(c.err, "");
    expectList(out, {f.K1, f.K2, f.FD1, f.FD2, f.R1, f.R2, f.P1, f.P2});
}

TEST(ReadYml, MonoEmptiesTheListWhileOtherLayoutsAppend) {
    Fixture f;
    const std::string in = f.dir.file("in.yml"), ex = f.dir.file("ex.yml"),
                      fe = f.dir.file("fe.yml"), mono = f.dir.file("mono.yml");
    writeFile(in, {{"M1", f.M1}, {"D1", f.D1}, {"M2", f.M2}, {"D2", f.D2}});
    writeFile(ex, {{"R", f.R}, {"T", f.T}, {"R1", f.R1}, {"R2", f.R2}, {"P1", f.P1}, {"P2", f.P2}});
    writeFile(fe, {{"K1", f.K1}, {"K2", f.K2}, {"D1", f.FD1}, {"D2", f.FD2}, {"R1", f.R1},
                   {"R2", f.R2}, {"P1", f.P1}, {"P2", f.P2}});
    writeFile(mono, {{"distortion_coefficients", f.DC}, {"camera_matrix", f.CM}});

    const cv::Mat a = distinct(2, 2, CV_8U, 1), b = distinct(7, 1, CV_16S, 2);
    const std::vector<std::pair<std::string, zuncvFileType>> appending = {
        {in, ZUNCV_INTRINSICS}, {ex, ZUNCV_EXTRINSICS}, {fe, ZUNCV_FISHEYE}};
    const std::vector<std::vector<cv::Mat>> expected = {
        {f.M1, f.D1, f.M2, f.D2},
        {f.R, f.T, f.R1, f.R2, f.P1, f.P2},
        {f.K1, f.K2, f.FD1, f.FD2, f.R1, f.R2, f.P1, f.P2}};
    for (size_t i = 0; i < appending.size(); ++i) {
        std::vector<cv::Mat> out{a, b};
        captureOutput([&] { EXPECT_TRUE(readYML(appending[i].first, appending[i].second, out)); });
        ASSERT_GE(out.size(), 2u);
        EXPECT_EQ(out[0].data, a.data);  // the very same matrices, not copies
        EXPECT_EQ(out[1].data, b.data);
        expectList(out, expected[i], 2);
    }

    cv::Mat held = distinct(4, 4, CV_64F, 3);
    std::vector<cv::Mat> out{held, a, b};
    ASSERT_EQ(held.u->refcount, 2);
    EXPECT_TRUE(readYML(mono, ZUNCV_MONO, out));
    expectList(out, {f.CM, f.DC});
    EXPECT_EQ(held.u->refcount, 1);  // the list let go of what it held
}

TEST(ReadYml, MissingKeysGiveEmptyEntriesOfTheFullCount) {
    Fixture f;
    const std::string other = f.dir.file("other.yml"), only_m2 = f.dir.file("m2.yml");
    writeFile(other, {{"unrelated", f.Q}});
    writeFile(only_m2, {{"M2", f.M2}, {"Q", f.Q}});
    const std::vector<std::pair<zuncvFileType, size_t>> layouts = {
        {ZUNCV_INTRINSICS, 4}, {ZUNCV_EXTRINSICS, 6}, {ZUNCV_MONO, 2}, {ZUNCV_FISHEYE, 8}};
    for (const auto& l : layouts) {
        std::vector<cv::Mat> out;
        bool ok = false;
        auto c = captureOutput([&] { ok = readYML(other, l.first, out); });
        EXPECT_TRUE(ok) << l.first;
        EXPECT_EQ(c.err, "");
        // The fisheye progress lines appear whether or not the keys exist.
        EXPECT_EQ(c.out, l.first == ZUNCV_FISHEYE ? "read K1\nread D1\n" : "");
        ASSERT_EQ(out.size(), l.second);
        for (const cv::Mat& m : out) EXPECT_TRUE(m.empty());
    }
    std::vector<cv::Mat> out;
    EXPECT_TRUE(readYML(only_m2, ZUNCV_INTRINSICS, out));
    expectList(out, {cv::Mat(), cv::Mat(), f.M2, cv::Mat()});
}

TEST(ReadYml, UnopenableFileMessageAndNothingAppended) {
    Fixture f;
    const std::string present = f.dir.file("present.yml");
    writeFile(present, {{"M1", f.M1}});
    const std::vector<std::string> bad = {f.dir.file("missing.yml"), f.dir.path(), ""};
    // The type is not looked at when the file cannot be opened, an unknown one included.
    const std::vector<int> types = {0, 1, 2, 3, 7};
    for (const std::string& path : bad) {
        for (int type : types) {
            std::vector<cv::Mat> out{f.Q};
            bool ok = true;
            auto c = captureOutput([&] { ok = readYML(path, zuncvFileType(type), out); });
            EXPECT_FALSE(ok);
            EXPECT_EQ(c.err, " Read File : " + path + "Error !\n") << "type " << type;
            EXPECT_EQ(c.out, "");
            ASSERT_EQ(out.size(), 1u);
            EXPECT_EQ(out[0].data, f.Q.data);
        }
    }
}

TEST(ReadYml, UnknownTypeOnAnOpenFile) {
    Fixture f;
    const std::string path = f.dir.file("mono.yml");
    writeFile(path, {{"camera_matrix", f.CM}, {"distortion_coefficients", f.DC}});
    for (int type : {4, -1, 1000}) {
        std::vector<cv::Mat> out{f.Q, f.R};
        bool ok = true;
        auto c = captureOutput([&] { ok = readYML(path, zuncvFileType(type), out); });
        EXPECT_FALSE(ok);
        EXPECT_EQ(c.err, " Read File TYPE err ! \n");
        EXPECT_EQ(c.out, "");
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(out[0].data, f.Q.data);
        EXPECT_EQ(out[1].data, f.R.data);
    }
}

TEST(ReadYml, MalformedFileRaisesOpenCvException) {
    orvo_test::ScratchDir dir;
    const std::string broken = dir.file("broken.yml"), empty = dir.file("empty.yml");
    std::ofstream(broken) << "%YAML:1.0\nM1: !!opencv-matrix\n   rows: [3\n   cols: 3 : :\n";
    std::ofstream(empty).flush();
    for (const std::string& path : {broken, empty}) {
        std::vector<cv::Mat> out;
        EXPECT_THROW(captureOutput([&] { readYML(path, ZUNCV_INTRINSICS, out); }), cv::Exception)
            << path;
        EXPECT_TRUE(out.empty());
    }
}

TEST(StereoCameraParameter, TakesFocalCentreAndBaselineTermFromP1AndP2) {
    orvo_test::ScratchDir dir;
    // Hand-made values that tell every element apart, including fx from fy and the raw P2(0,3)
    // from P2(0,3) / P2(0,0).
    cv::Mat P1 = (cv::Mat_<double>(3, 4) << 410.5, 0.1, 370.25, 0.2, 0.3, 412.75, 240.125, 0.4, 0,
                  0, 1, 0);
    cv::Mat P2 = (cv::Mat_<double>(3, 4) << 2.0, 0, 371, -49.0625, 0, 412.75, 240.125, 0, 0, 0, 1, 0);
    const std::string hand = dir.file("hand.yml");
    writeFile(hand, {{"R", cv::Mat::eye(3, 3, CV_64F)}, {"T", cv::Mat::zeros(3, 1, CV_64F)},
                     {"P1", P1}, {"P2", P2}});
    cv::Mat out = cv::Mat::ones(2, 7, CV_8U);
    ASSERT_TRUE(getStereoCameraParameter(hand, out));
    ASSERT_EQ(out.type(), CV_64FC1);
    ASSERT_EQ(out.size(), cv::Size(5, 1));
    const double want[5] = {410.5, 412.75, 370.25, 240.125, -49.0625};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(out.at<double>(0, i), want[i]) << i;

    // The file the calibration writes: the right lens to the right gives a negative term.
    orvo::vcam::Rig rig;
    const std::string in = dir.file("intrinsics.yml"), ex = dir.file("extrinsics.yml");
    ASSERT_TRUE(rig.writeStereo(in, ex));
    ASSERT_TRUE(getStereoCameraParameter(ex, out));
    EXPECT_EQ(out.at<double>(0, 0), rig.P1.at<double>(0, 0));
    EXPECT_EQ(out.at<double>(0, 1), rig.P1.at<double>(1, 1));
    EXPECT_EQ(out.at<double>(0, 2), rig.P1.at<double>(0, 2));
    EXPECT_EQ(out.at<double>(0, 3), rig.P1.at<double>(1, 2));
    EXPECT_EQ(out.at<double>(0, 4), rig.P2.at<double>(0, 3));
    EXPECT_LT(out.at<double>(0, 4), 0.0);
    EXPECT_NEAR(out.at<double>(0, 4), -rig.params().baseline * out.at<double>(0, 0), 1e-9);
}

TEST(StereoCameraParameter, FailureLeavesOutUntouched) {
    orvo_test::ScratchDir dir;
    const cv::Mat P = cv::Mat::eye(3, 4, CV_64F);
    const std::string no_p1 = dir.file("no_p1.yml"), square_p2 = dir.file("p2.yml"),
                      float_p1 = dir.file("float.yml"), missing = dir.file("missing.yml");
    writeFile(no_p1, {{"R", cv::Mat::eye(3, 3, CV_64F)}, {"P2", P}});
    writeFile(square_p2, {{"P1", P}, {"P2", cv::Mat::eye(3, 3, CV_64F)}});
    cv::Mat P32;
    P.convertTo(P32, CV_32F);
    writeFile(float_p1, {{"P1", P32}, {"P2", P}});

    const cv::Mat before = (cv::Mat_<double>(1, 5) << 1, 2, 3, 4, 5);
    for (const std::string& path : {no_p1, square_p2, float_p1, missing}) {
        cv::Mat out = before;
        bool ok = true;
        auto c = captureOutput([&] { ok = getStereoCameraParameter(path, out); });
        EXPECT_FALSE(ok) << path;
        EXPECT_EQ(out.data, before.data);
        EXPECT_TRUE(same(out, (cv::Mat_<double>(1, 5) << 1, 2, 3, 4, 5)));
        EXPECT_EQ(c.err, path == missing ? " Read File : " + path + "Error !\n" : "");
        EXPECT_EQ(c.out, "");
    }
}

}  // namespace
