// OpenCV's own V4L2 backend as an independent client of the virtual camera.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "v4l2_client.h"

namespace {

TEST(VcamOpenCV, OpenedByIndexItStreamsTheRecordedFramesConvertedFromYuyv) {
    constexpr size_t kFrame = 721920;
    const std::string path = std::string(ORVO_BINARY_DIR) + "/vcam_opencv.raw";
    std::mt19937 rng(3);
    std::vector<std::vector<uint8_t>> frames(2, std::vector<uint8_t>(kFrame));
    FILE* f = std::fopen(path.c_str(), "wb");
    for (auto& frame : frames) {
        for (uint8_t& b : frame) b = uint8_t(rng());
        std::fwrite(frame.data(), 1, kFrame, f);
    }
    std::fclose(f);
    const std::string source = "raw:" + path;
    orvo_test::ScopedEnv env{
        {"ORVO_VCAM_DEVICE", "/dev/video57"}, {"ORVO_VCAM_SOURCE", source.c_str()}, {"ORVO_VCAM_FPS", "0"},
        {"ORVO_VCAM_TRUTH", nullptr},         {"ORVO_VCAM_FAULTS", nullptr},        {"ORVO_VCAM_LOG", nullptr}};
    cv::VideoCapture cap(57, cv::CAP_V4L2);
    ASSERT_TRUE(cap.isOpened());
    EXPECT_EQ(752, cap.get(cv::CAP_PROP_FRAME_WIDTH));
    EXPECT_EQ(480, cap.get(cv::CAP_PROP_FRAME_HEIGHT));
    EXPECT_EQ(30, cap.get(cv::CAP_PROP_FPS));
    EXPECT_EQ(double(cv::VideoWriter::fourcc('Y', 'U', 'Y', 'V')), cap.get(cv::CAP_PROP_FOURCC));
    // The backend throws away the first frame after STREAMON, so read k is the source's frame k+1.
    for (size_t k = 0; k < 3; ++k) {
        cv::Mat got, want;
        ASSERT_TRUE(cap.read(got)) << "frame " << k;
        cv::cvtColor(cv::Mat(480, 752, CV_8UC2, frames[(k + 1) % 2].data()), want, cv::COLOR_YUV2BGR_YUYV);
        ASSERT_EQ(CV_8UC3, got.type());
        EXPECT_EQ(0, cv::norm(want, got, cv::NORM_INF)) << "frame " << k;
    }
}

}  // namespace
