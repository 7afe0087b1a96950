// Bad arguments to the capture class's operations, each with its expected message and result.
#include <fcntl.h>
#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "frame_format.h"
#include "run_capture.h"
#include "video_device.h"

namespace {

using orvo_test::Captured;
using orvo_test::captureOutput;

const char* const kNode = "/dev/video-virtual0";

int countOpenFds() {
    int n = 0;
    for (int fd = 0; fd < 4096; ++fd) n += fcntl(fd, F_GETFD) != -1;
    return n;
}

class CaptureBadArg : public ::testing::Test {
  protected:
    // Any request the tests issue by mistake after setup is refused loudly by these faults.
    void SetUp() override {
        setenv("ORVO_VCAM_DEVICE", kNode, 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        setenv("ORVO_VCAM_FAULTS", "DQBUF=EIO,QBUF@7=EIO", 1);
        unsetenv("ORVO_VCAM_SOURCE");
        Captured c = captureOutput(
            [&] { dev.reset(new video_device(kNode, orvo::frame::kWidth, orvo::frame::kHeight)); });
        ASSERT_EQ(c.out, "Orvo Video Open Finish\nOrvo Camera Setting OK \n");
    }
    void TearDown() override {
        unsetenv("ORVO_VCAM_FAULTS");
        if (dev) captureOutput([&] { dev.reset(); });
    }
    std::unique_ptr<video_device> dev;
};

TEST_F(CaptureBadArg, FrameOutputsMissing) {
    unsigned char* data = nullptr;
    unsigned long len = 0;
    int a = 0, b = 0;
    Captured c = captureOutput([&] {
        a = dev->get_frame(nullptr, &len);
        b = dev->get_frame(&data, nullptr);
    });
    EXPECT_EQ(a, -1);
    EXPECT_EQ(b, -1);
    // No dequeue was issued (it would have failed with EIO and closed the node).
    EXPECT_EQ(c.out, "get_frame: null output pointer\nget_frame: null output pointer\n");
    EXPECT_NE(fcntl(dev->fd, F_GETFD), -1);
    EXPECT_EQ(dev->current_index, -1);
}

TEST_F(CaptureBadArg, SettingArgumentsRefusedBeforeOpening) {
    int out_fd = -5;
    void* slots[32] = {};
    const int before = countOpenFds();
    int rcs[4] = {};
    Captured c = captureOutput([&] {
        rcs[0] = dev->camera_v4l2_setting(&out_fd, orvo::frame::kWidth, orvo::frame::kHeight,
                                          V4L2_PIX_FMT_YUYV, kNode, 17, slots);
        rcs[1] = dev->camera_v4l2_setting(nullptr, orvo::frame::kWidth, orvo::frame::kHeight,
                                          V4L2_PIX_FMT_YUYV, kNode, 6, slots);
        rcs[2] = dev->camera_v4l2_setting(&out_fd, orvo::frame::kWidth, orvo::frame::kHeight,
                                          V4L2_PIX_FMT_YUYV, nullptr, 6, slots);
        rcs[3] = dev->camera_v4l2_setting(&out_fd, orvo::frame::kWidth, orvo::frame::kHeight,
                                          V4L2_PIX_FMT_YUYV, kNode, 6, nullptr);
    });
    for (int rc : rcs) EXPECT_EQ(rc, -1);
    std::string expected;
    for (int i = 0; i < 4; ++i) expected += "camera_v4l2_setting: bad arguments\n";
    EXPECT_EQ(c.out, expected);
    EXPECT_EQ(countOpenFds(), before);
    EXPECT_EQ(out_fd, -5);
    EXPECT_EQ(slots[0], nullptr);
}

}  // namespace
