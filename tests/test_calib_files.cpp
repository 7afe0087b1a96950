// Calibration parameter files: the four layouts, list order, messages and the camera-parameter row.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "ZUNCVHelper.h"
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
    cv::Mat d(rows, cols, CV_64F), m;
    for (int i = 0; i < rows * cols; ++i) d.at<double>(i) = seed + 0.25 * i;
    d.convertTo(m, type);
    return m;
}

bool same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() &&
           (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0.0);
}

void expectList(const std::vector<cv::Mat>& got, const std::vector<cv::Mat>& want, size_t from) {
    ASSERT_EQ(got.size(), from + want.size());
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_TRUE(same(got[from + i], want[i])) << "entry " << from + i;
}

const cv::Mat M1 = distinct(3, 3, CV_64F, 100), D1 = distinct(1, 5, CV_32S, 200),
              M2 = distinct(3, 3, CV_64F, 300), D2 = distinct(4, 1, CV_32F, 400),
              R = distinct(3, 3, CV_64F, 500), T = distinct(3, 1, CV_64F, 600),
              R1 = distinct(3, 3, CV_64F, 700), R2 = distinct(3, 3, CV_64F, 800),
              P1 = distinct(3, 4, CV_64F, 900), P2 = distinct(3, 4, CV_64F, 1000),
              Q = distinct(4, 4, CV_64F, 1100);

// Files written in an order unlike the layout's, with keys the layout does not take (Q, extra).
// Three layouts append to what the list holds; mono empties it first. Nothing is converted (the
// float D2, the integer D1). A missing key leaves an empty entry in its slot.
TEST(ReadYml, EachLayoutInItsOrderAppendingExceptMono) {
    orvo_test::ScratchDir dir;
    struct Case {
        zuncvFileType type;
        Entries file;
        std::vector<cv::Mat> want;
        std::string out;
    };
    const std::vector<Case> cases = {
        {ZUNCV_INTRINSICS, {{"D2", D2}, {"extra", Q}, {"M2", M2}, {"D1", D1}, {"M1", M1}},
         {M1, D1, M2, D2}, ""},
        {ZUNCV_EXTRINSICS,
         {{"Q", Q}, {"P2", P2}, {"P1", P1}, {"T", T}, {"R2", R2}, {"R1", R1}, {"R", R}},
         {R, T, R1, R2, P1, P2}, ""},
        {ZUNCV_FISHEYE, {{"P2", P2}, {"P1", P1}, {"R2", R2}, {"R1", R1}, {"D2", D2}, {"D1", D1},
                         {"K2", M2}, {"K1", M1}},
         {M1, M2, D1, D2, R1, R2, P1, P2}, "read K1\nread D1\n"},
        {ZUNCV_MONO, {{"distortion_coefficients", D1}, {"camera_matrix", M1}}, {M1, D1}, ""},
        {ZUNCV_INTRINSICS, {{"M2", M2}, {"Q", Q}}, {cv::Mat(), cv::Mat(), M2, cv::Mat()}, ""},
    };
    const std::string path = dir.file("layout.yml");
    const cv::Mat a = distinct(2, 2, CV_8U, 1), b = distinct(7, 1, CV_16S, 2);
    for (const Case& k : cases) {
        SCOPED_TRACE(k.type);
        writeFile(path, k.file);
        std::vector<cv::Mat> out{a, b};
        bool ok = false;
        auto c = captureOutput([&] { ok = readYML(path, k.type, out); });
        EXPECT_TRUE(ok);
        EXPECT_EQ(c.out, k.out);
        EXPECT_EQ(c.err, "");
        const size_t kept = k.type == ZUNCV_MONO ? 0 : 2;
        expectList(out, k.want, kept);
        for (size_t i = 0; i < kept; ++i) EXPECT_EQ(out[i].data, (i ? b : a).data);  // not copies
    }
}

// An unopenable file (missing, a directory, an empty name) is reported whatever the type, an
// unknown one included; an unknown type on an open file has its own message. The list is kept.
TEST(ReadYml, FailuresPrintTheirMessageAndKeepTheList) {
    orvo_test::ScratchDir dir;
    const std::string mono = dir.file("mono.yml");
    writeFile(mono, {{"camera_matrix", M1}, {"distortion_coefficients", D1}});
    std::vector<std::pair<std::string, int>> calls;
    for (const std::string& path : {dir.file("missing.yml"), dir.path(), std::string()})
        for (int type : {0, 1, 2, 3, 7}) calls.emplace_back(path, type);
    for (int type : {4, -1, 1000}) calls.emplace_back(mono, type);
    for (const auto& [path, type] : calls) {
        SCOPED_TRACE(path + " type " + std::to_string(type));
        std::vector<cv::Mat> out{Q, R};
        bool ok = true;
        auto c = captureOutput([&] { ok = readYML(path, zuncvFileType(type), out); });
        EXPECT_FALSE(ok);
        EXPECT_EQ(c.err, path == mono ? " Read File TYPE err ! \n"
                                      : " Read File : " + path + "Error !\n");
        EXPECT_EQ(c.out, "");
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(out[0].data, Q.data);
        EXPECT_EQ(out[1].data, R.data);
    }
}

// [fx, fy, cx, cy, P2(0,3)] from P1 and P2; false, with `out` untouched, without a file or
// without 3x4 double P1 and P2.
TEST(StereoCameraParameter, TakesFocalCentreAndBaselineTermOrLeavesOutAlone) {
    orvo_test::ScratchDir dir;
    // Every element told apart, fx from fy and the raw P2(0,3) from P2(0,3) / P2(0,0) included.
    const cv::Mat p1 = (cv::Mat_<double>(3, 4) << 410.5, 0.1, 370.25, 0.2, 0.3, 412.75, 240.125,
                        0.4, 0, 0, 1, 0);
    const cv::Mat p2 = (cv::Mat_<double>(3, 4) << 2.0, 0, 371, -49.0625, 0, 412.75, 240.125, 0, 0,
                        0, 1, 0);
    const cv::Mat P = cv::Mat::eye(3, 4, CV_64F), I = cv::Mat::eye(3, 3, CV_64F),
                  P32 = cv::Mat::eye(3, 4, CV_32F);
    const std::vector<std::pair<Entries, cv::Mat>> cases = {
        {{{"R", I}, {"T", T}, {"P1", p1}, {"P2", p2}},
         (cv::Mat_<double>(1, 5) << 410.5, 412.75, 370.25, 240.125, -49.0625)},
        {{{"R", I}, {"P2", P}}, {}}, {{{"P1", P}, {"P2", I}}, {}}, {{{"P1", P32}, {"P2", P}}, {}},
        {{}, {}}};  // the last file is not written
    const cv::Mat before = (cv::Mat_<double>(1, 5) << 1, 2, 3, 4, 5);
    for (size_t i = 0; i < cases.size(); ++i) {
        const std::string path = dir.file(std::to_string(i) + ".yml");
        SCOPED_TRACE(path);
        if (!cases[i].first.empty()) writeFile(path, cases[i].first);
        const cv::Mat& want = cases[i].second;
        cv::Mat out = before;
        bool ok = want.empty();
        auto c = captureOutput([&] { ok = getStereoCameraParameter(path, out); });
        EXPECT_EQ(ok, !want.empty());
        EXPECT_TRUE(same(out, want.empty() ? (cv::Mat_<double>(1, 5) << 1, 2, 3, 4, 5) : want));
        if (want.empty()) {
            EXPECT_EQ(out.data, before.data);
        }
        EXPECT_EQ(c.err, cases[i].first.empty() ? " Read File : " + path + "Error !\n" : "");
        EXPECT_EQ(c.out, "");
    }
}

}  // namespace
