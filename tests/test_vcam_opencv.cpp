// OpenCV's own V4L2 backend on the virtual camera, and poll/select readiness of the node.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "run_capture.h"
#include "v4l2_client.h"
#include "vcam.h"

using orvo_test::ScopedEnv;
using orvo_test::V4l2Client;

namespace {

constexpr int kIndex = 57;
constexpr const char* kNode = "/dev/video57";
constexpr size_t kFrame = 721920;

std::vector<std::vector<uint8_t>> writeRandomRecording(const std::string& path, int frames) {
    std::mt19937 rng(3);
    std::vector<std::vector<uint8_t>> out(static_cast<size_t>(frames), std::vector<uint8_t>(kFrame));
    FILE* f = std::fopen(path.c_str(), "wb");
    for (auto& frame : out) {
        for (uint8_t& b : frame) b = uint8_t(rng());
        std::fwrite(frame.data(), 1, kFrame, f);
    }
    std::fclose(f);
    return out;
}

TEST(VcamOpenCV, TheV4l2BackendReadsFramesConvertedFromYuyv) {
    std::string path = std::string(ORVO_BINARY_DIR) + "/vcam_opencv.raw";
    auto frames = writeRandomRecording(path, 2);
    ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode},   {"ORVO_VCAM_SOURCE", ("raw:" + path).c_str()},
                  {"ORVO_VCAM_FPS", "0"},        {"ORVO_VCAM_TRUTH", nullptr},
                  {"ORVO_VCAM_FAULTS", nullptr}, {"ORVO_VCAM_LOG", "1"}};
    std::vector<cv::Mat> read;
    double width = 0, height = 0, fps = 0, fourcc = 0;
    auto out = orvo_test::captureOutput([&] {
        cv::VideoCapture cap(kIndex, cv::CAP_V4L2);
        ASSERT_TRUE(cap.isOpened());
        width = cap.get(cv::CAP_PROP_FRAME_WIDTH);
        height = cap.get(cv::CAP_PROP_FRAME_HEIGHT);
        fps = cap.get(cv::CAP_PROP_FPS);
        fourcc = cap.get(cv::CAP_PROP_FOURCC);
        for (int k = 0; k < 3; ++k) {
            cv::Mat m;
            ASSERT_TRUE(cap.read(m)) << "frame " << k;
            read.push_back(m.clone());
        }
    });
    EXPECT_EQ(752, width);
    EXPECT_EQ(480, height);
    EXPECT_EQ(30, fps);
    EXPECT_EQ(double(cv::VideoWriter::fourcc('Y', 'U', 'Y', 'V')), fourcc);
    ASSERT_EQ(3u, read.size());
    // The backend throws away the first frame after STREAMON, so read k is the source's frame k+1.
    for (size_t k = 0; k < read.size(); ++k) {
        cv::Mat yuyv(480, 752, CV_8UC2, frames[(k + 1) % 2].data()), bgr;
        cv::cvtColor(yuyv, bgr, cv::COLOR_YUV2BGR_YUYV);
        ASSERT_EQ(CV_8UC3, read[k].type());
        EXPECT_EQ(0, cv::norm(bgr, read[k], cv::NORM_INF)) << "frame " << k;
    }
    EXPECT_FALSE(orvo::vcam::statistics().active) << "released";

    // The requests the backend issued, from the log.
    std::set<std::string> issued;
    std::istringstream log(out.err);
    for (std::string line; std::getline(log, line);) {
        size_t v = line.find("VIDIOC_");
        if (v != std::string::npos) issued.insert(line.substr(v, line.find(' ', v) - v));
    }
    for (const char* r : {"VIDIOC_QUERYCAP", "VIDIOC_S_FMT", "VIDIOC_REQBUFS", "VIDIOC_QUERYBUF", "VIDIOC_QBUF",
                          "VIDIOC_STREAMON", "VIDIOC_DQBUF", "VIDIOC_STREAMOFF"})
        EXPECT_EQ(1u, issued.count(r)) << r;
    EXPECT_EQ(std::string::npos, out.err.find("ENOTTY")) << out.err;
}

TEST(VcamReadiness, PollAndSelectWaitForTheNextFrame) {
    ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode},  {"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "2"},
                  {"ORVO_VCAM_TRUTH", nullptr}, {"ORVO_VCAM_FAULTS", nullptr},   {"ORVO_VCAM_LOG", nullptr}};
    V4l2Client c(kNode, O_RDWR | O_NONBLOCK);
    ASSERT_EQ(0, c.setFormat());
    ASSERT_EQ(0, c.requestBuffers(2));
    ASSERT_EQ(0, c.mapAll());
    ASSERT_EQ(0, c.queueAll());
    pollfd p{c.fd(), POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 0));
    EXPECT_EQ(POLLERR, p.revents) << "not streaming: nothing to wait for";
    ASSERT_EQ(0, c.streamOn());
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(0, poll(&p, 1, 0)) << "the first frame is 500 ms away";
    ASSERT_EQ(1, poll(&p, 1, 3000));
    EXPECT_EQ(POLLIN, p.revents);
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(waited, 0.49);
    EXPECT_LT(waited, 2.5);
    v4l2_buffer b;
    ASSERT_EQ(0, c.dequeue(&b));

    // A pipe that is ready wins over a node that is not, and select reports the time left; once
    // the pipe is drained, select wakes for the node's next frame.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(1, write(fds[1], "x", 1));
    for (int round = 0; round < 2; ++round) {
        fd_set r;
        FD_ZERO(&r);
        FD_SET(c.fd(), &r);
        FD_SET(fds[0], &r);
        timeval tv{5, 0};
        ASSERT_EQ(1, select(std::max(c.fd(), fds[0]) + 1, &r, nullptr, nullptr, &tv));
        EXPECT_EQ(round == 0, FD_ISSET(fds[0], &r) != 0);
        EXPECT_EQ(round == 1, FD_ISSET(c.fd(), &r) != 0);
        EXPECT_GT(tv.tv_sec, 3);
        char x;
        if (round == 0) {
            ASSERT_EQ(1, read(fds[0], &x, 1));
        }
    }
    ASSERT_EQ(0, c.dequeue(&b));
    EXPECT_EQ(1u, b.sequence);
    // Nothing queued: the wait times out; after STREAMOFF the error counts as readable and writable.
    fd_set r, w;
    FD_ZERO(&r);
    FD_SET(c.fd(), &r);
    timeval tv{0, 150000};
    EXPECT_EQ(0, select(c.fd() + 1, &r, nullptr, nullptr, &tv));
    ASSERT_EQ(0, c.streamOff());
    FD_SET(c.fd(), &r);
    FD_ZERO(&w);
    FD_SET(c.fd(), &w);
    tv = {1, 0};
    EXPECT_EQ(2, select(c.fd() + 1, &r, &w, nullptr, &tv));
    close(fds[0]);
    close(fds[1]);
    pollfd bad[2] = {{c.fd(), POLLIN, 0}, {fds[0], POLLIN, 0}};
    ASSERT_EQ(2, poll(bad, 2, 0));
    EXPECT_EQ(POLLNVAL, bad[1].revents) << "a closed descriptor beside the node";
}

}  // namespace
