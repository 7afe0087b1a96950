// Rectified images and the camera parameter row, checked against OpenCV run on the calibration
// files directly.
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

cv::Mat remapped(const cv::Mat& src, const cv::Mat& m1, const cv::Mat& m2) {
    cv::Mat out;
    cv::remap(src, out, m1, m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
    return out;
}

// A frame without zero pixels, so that black in a rectified image can only come from the border.
Frame nonZeroFrame(std::mt19937& rng) {
    Frame f = randomFrame(rng, 0);
    for (auto& b : f) b = uint8_t(1 + b % 255);
    f.back() = 0;
    return f;
}

}  // namespace

TEST(Rectification, PinholePairGoesThroughTheRectifyingMaps) {
    TempDir dir;
    std::mt19937 rng(3);
    std::vector<Frame> frames{nonZeroFrame(rng)};
    auto [intr, extr] = writeStereoFiles(dir);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine(intr, extr, "");

    // The rectification recomputed from the files' lens models and R, T.
    cv::Mat M1 = readMatrix(intr, "M1"), D1 = readMatrix(intr, "D1");
    cv::Mat M2 = readMatrix(intr, "M2"), D2 = readMatrix(intr, "D2");
    cv::Mat R1, R2, P1, P2, Q, l1, l2, r1, r2;
    const cv::Size size(kW, kH);
    cv::stereoRectify(M1, D1, M2, D2, size, readMatrix(extr, "R"), readMatrix(extr, "T"), R1, R2,
                      P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0.0, cv::Size());
    cv::initUndistortRectifyMap(M1, D1, R1, P1, size, CV_16SC2, l1, l2);
    cv::initUndistortRectifyMap(M2, D2, R2, P2, size, CV_16SC2, r1, r2);

    cv::Mat first, second, rect_first, rect_second;
    std::vector<ImuData> imu;
    unsigned int t = 0;
    e->update_cam_imu(first, second, imu, t);
    EXPECT_TRUE(e->getStereoRemapMat(rect_first, rect_second));
    EXPECT_TRUE(sameImage(rect_first, remapped(interleavedImage(frames[0], 1), l1, l2)));
    EXPECT_TRUE(sameImage(rect_second, remapped(interleavedImage(frames[0], 0), r1, r2)));
    EXPECT_FALSE(sameImage(rect_first, first));
    // Asked again without a new frame: the same pair, written into the same storage.
    const uchar* data = rect_first.data;
    cv::Mat again = rect_first.clone();
    e->getStereoRemapMat(rect_first, rect_second);
    EXPECT_EQ(rect_first.data, data);
    EXPECT_TRUE(sameImage(rect_first, again));
}

TEST(Rectification, FisheyeFileIsUsedAsStoredWithBlackOutsideTheSource) {
    TempDir dir;
    std::mt19937 rng(4);
    std::vector<Frame> frames{nonZeroFrame(rng)};
    std::string fish = writeFisheyeFile(dir);
    // Halve the rectified focal lengths so that the corners look outside the lenses' images.
    editMatrices(fish, [](std::map<std::string, cv::Mat>& m) {
        for (const char* key : {"P1", "P2"}) {
            m[key].at<double>(0, 0) *= 0.5;
            m[key].at<double>(1, 1) *= 0.5;
        }
    });
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", fish);

    const cv::Size size(kW, kH);
    cv::Mat l1, l2, r1, r2;
    cv::fisheye::initUndistortRectifyMap(readMatrix(fish, "K1"), readMatrix(fish, "D1"),
                                         readMatrix(fish, "R1"), readMatrix(fish, "P1"), size,
                                         CV_16SC2, l1, l2);
    cv::fisheye::initUndistortRectifyMap(readMatrix(fish, "K2"), readMatrix(fish, "D2"),
                                         readMatrix(fish, "R2"), readMatrix(fish, "P2"), size,
                                         CV_16SC2, r1, r2);

    cv::Mat first, second, rect_first, rect_second;
    std::vector<ImuData> imu;
    unsigned int t = 0;
    e->update_cam_imu(first, second, imu, t);
    EXPECT_TRUE(e->getStereoRemapMat(rect_first, rect_second));
    EXPECT_TRUE(sameImage(rect_first, remapped(first, l1, l2)));
    EXPECT_TRUE(sameImage(rect_second, remapped(second, r1, r2)));
    // Every pixel whose map points more than a pixel outside the source is black; others are not.
    int outside = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const cv::Vec2s p = l1.at<cv::Vec2s>(y, x);
            const bool out = p[0] < -1 || p[1] < -1 || p[0] > kW || p[1] > kH;
            outside += out;
            if (out) {
                ASSERT_EQ(rect_first.at<uchar>(y, x), 0) << x << "," << y;
            }
        }
    EXPECT_GT(outside, 1000);
    EXPECT_NE(rect_first.at<uchar>(kH / 2, kW / 2), 0);
}

TEST(CameraParameter, RowComesFromTheExtrinsicsFileOnEveryCall) {
    TempDir dir;
    auto [intr, extr] = writeStereoFiles(dir);
    auto setP2 = [&](double p03) {
        editMatrices(extr, [&](std::map<std::string, cv::Mat>& m) {
            m["P1"].at<double>(0, 0) = 401.25;
            m["P1"].at<double>(1, 1) = 402.5;
            m["P1"].at<double>(0, 2) = 370.75;
            m["P1"].at<double>(1, 2) = 240.125;
            m["P2"].at<double>(0, 3) = p03;
        });
    };
    setP2(-48.5);
    VirtualCamera cam("pattern");
    auto e = makeEngine(intr, extr, "");

    cv::Mat row;
    ASSERT_TRUE(e->getCameraParameter(row));
    ASSERT_EQ(row.type(), CV_64FC1);
    ASSERT_EQ(row.size(), cv::Size(7, 1));
    const double expected[7] = {401.25, 402.5, 370.75, 240.125, 48.5, 752.0, 480.0};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(row.at<double>(0, i), expected[i]) << "column " << i;

    // Not cached, and negated rather than made absolute.
    setP2(30.0);
    ASSERT_TRUE(e->getCameraParameter(row));
    EXPECT_EQ(row.at<double>(0, 4), -30.0);

    // A failed read leaves the earlier row as it was.
    std::filesystem::remove(extr);
    const double* data = row.ptr<double>();
    auto c = orvo_test::captureOutput([&] { EXPECT_FALSE(e->getCameraParameter(row)); });
    EXPECT_EQ(c.err, " Read File : " + extr + "Error !\n");
    EXPECT_EQ(row.ptr<double>(), data);
    EXPECT_EQ(row.at<double>(0, 4), -30.0);
    EXPECT_EQ(row.at<double>(0, 6), 480.0);
}
