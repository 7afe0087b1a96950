// Calibration parameter files: the four layouts, list order and the reader's messages.
#include <gtest/gtest.h>
#include "ZUNCVHelper.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using Entries = std::vector<std::pair<std::string, cv::Mat>>;

void writeFile(const std::string& path, const Entries& entries) {
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
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
    return a.size() == b.size() && a.type() == b.type() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0.0);
}

const cv::Mat M1 = distinct(3, 3, CV_64F, 100), D1 = distinct(1, 5, CV_32S, 200), M2 = distinct(3, 3, CV_64F, 300),
              D2 = distinct(4, 1, CV_32F, 400), R = distinct(3, 3, CV_64F, 500), T = distinct(3, 1, CV_64F, 600),
              R1 = distinct(3, 3, CV_64F, 700), R2 = distinct(3, 3, CV_64F, 800), P1 = distinct(3, 4, CV_64F, 900),
              P2 = distinct(3, 4, CV_64F, 1000), Q = distinct(4, 4, CV_64F, 1100);

// Files written in an order unlike the layout's, with keys the layout does not take (Q, extra).
// Three layouts append to what the list holds (sharing, not copying, its entries); mono empties it
// first. Nothing is converted (the float D2, the integer D1). A missing key leaves an empty entry.
TEST(ReadYml, EachLayoutInItsOrderAndEachFailureWithItsMessage) {
    orvo_test::ScratchDir dir;
    const struct { zuncvFileType type; Entries file; std::vector<cv::Mat> want; std::string out; } cases[] = {
        {ZUNCV_INTRINSICS, {{"D2", D2}, {"extra", Q}, {"M2", M2}, {"D1", D1}, {"M1", M1}}, {M1, D1, M2, D2}, ""},
        {ZUNCV_EXTRINSICS, {{"Q", Q}, {"P2", P2}, {"P1", P1}, {"T", T}, {"R2", R2}, {"R1", R1}, {"R", R}},
         {R, T, R1, R2, P1, P2}, ""},
        {ZUNCV_FISHEYE, {{"P2", P2}, {"P1", P1}, {"R2", R2}, {"R1", R1}, {"D2", D2}, {"D1", D1}, {"K2", M2}, {"K1", M1}},
         {M1, M2, D1, D2, R1, R2, P1, P2}, "read K1\nread D1\n"},
        {ZUNCV_MONO, {{"distortion_coefficients", D1}, {"camera_matrix", M1}}, {M1, D1}, ""},
        {ZUNCV_INTRINSICS, {{"M2", M2}, {"Q", Q}}, {cv::Mat(), cv::Mat(), M2, cv::Mat()}, ""},
    };
    const std::string layout = dir.file("layout.yml");
    const cv::Mat a = distinct(2, 2, CV_8U, 1), b = distinct(7, 1, CV_16S, 2);
    for (const auto& k : cases) {
        SCOPED_TRACE(k.type);
        writeFile(layout, k.file);
        std::vector<cv::Mat> out{a, b};
        auto c = orvo_test::captureOutput([&] { EXPECT_TRUE(readYML(layout, k.type, out)); });
        EXPECT_EQ(c.out, k.out);
        EXPECT_EQ(c.err, "");
        const size_t kept = k.type == ZUNCV_MONO ? 0 : 2;
        ASSERT_EQ(out.size(), kept + k.want.size());
        for (size_t i = 0; i < out.size(); ++i)
            EXPECT_TRUE(i < kept ? out[i].data == (i ? b : a).data : same(out[i], k.want[i - kept])) << i;
    }
    // An unopenable file (missing, a directory, an empty name) is reported whatever the type, an
    // unknown one included; an unknown type on an open file has its own message. The list is kept.
    const std::string mono = dir.file("mono.yml");
    writeFile(mono, {{"camera_matrix", M1}, {"distortion_coefficients", D1}});
    for (const std::string& path : {dir.file("missing.yml"), dir.path(), std::string(), mono})
        for (int type : {0, 1, 2, 3, 4, -1, 1000}) {
            if (path == mono && type >= 0 && type < 4) continue;  // readable
            SCOPED_TRACE(path + " type " + std::to_string(type));
            std::vector<cv::Mat> out{Q, R};
            auto c = orvo_test::captureOutput([&] { EXPECT_FALSE(readYML(path, zuncvFileType(type), out)); });
            EXPECT_EQ(c.err, path == mono ? " Read File TYPE err ! \n" : " Read File : " + path + "Error !\n");
            EXPECT_EQ(c.out, "");
            EXPECT_TRUE(out.size() == 2 && out[0].data == Q.data && out[1].data == R.data);
        }
}

}  // namespace
