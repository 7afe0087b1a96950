// Bad arguments to the capture class's operations, each with its expected message and result.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "frame_format.h"
#include "run_capture.h"
#include "video_device.h"

namespace {

using orvo_test::captureOutput;
using orvo_test::Captured;

const char* const kNode = "/dev/video-virtual0";

std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }

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
        Captured c = captureOutput([&] { dev.reset(new video_device(kNode, 752, 480)); });
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
        rcs[0] = dev->camera_v4l2_setting(&out_fd, 752, 480, V4L2_PIX_FMT_YUYV, kNode, 17, slots);
        rcs[1] = dev->camera_v4l2_setting(nullptr, 752, 480, V4L2_PIX_FMT_YUYV, kNode, 6, slots);
        rcs[2] = dev->camera_v4l2_setting(&out_fd, 752, 480, V4L2_PIX_FMT_YUYV, nullptr, 6, slots);
        rcs[3] = dev->camera_v4l2_setting(&out_fd, 752, 480, V4L2_PIX_FMT_YUYV, kNode, 6, nullptr);
    });
    for (int rc : rcs) EXPECT_EQ(rc, -1);
    std::string expected;
    for (int i = 0; i < 4; ++i) expected += "camera_v4l2_setting: bad arguments\n";
    EXPECT_EQ(c.out, expected);
    EXPECT_EQ(countOpenFds(), before);
    EXPECT_EQ(out_fd, -5);
    EXPECT_EQ(slots[0], nullptr);
}

TEST_F(CaptureBadArg, BuildingBlocksOnAnInvalidDescriptor) {
    int rc[4] = {};
    Captured c = captureOutput([&] {
        rc[0] = dev->video_set_format(-1, 752, 480, V4L2_PIX_FMT_YUYV);
        rc[1] = dev->video_set_framerate(-1);
        rc[2] = dev->video_reqbufs(-1, 6);
        rc[3] = dev->video_enable(-1, 1);
    });
    for (int r : rc) EXPECT_EQ(r, -1);
    const std::string bad = errText(EBADF) + "\n";
    EXPECT_EQ(c.out, "VIDIOC_S_FMT error " + bad + "VIDIOC_G_PARM error " + bad + "VIDIOC_REQBUFS error " + bad);
    errno = 0;
    EXPECT_EQ(dev->xioctl(-1, VIDIOC_STREAMOFF, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(CaptureBadArg, PathsThatAreNotNodes) {
    char file[] = "/tmp/orvo-not-a-node-XXXXXX";
    int tmp = mkstemp(file);
    ASSERT_GE(tmp, 0);
    close(tmp);
    const int before = countOpenFds();
    int rc[3] = {};
    Captured c = captureOutput([&] {
        rc[0] = dev->video_open("/tmp");
        rc[1] = dev->video_open("");
        rc[2] = dev->video_open(file);
    });
    for (int r : rc) EXPECT_EQ(r, -1);
    EXPECT_EQ(c.out, "Cannot open '/tmp': " + errText(EISDIR) + "\nCannot open '': " + errText(ENOENT) +
                         "\nVIDIOC_QUERYCAP error " + errText(ENOTTY) + "\n");
    // The plain file was opened and is left open on the refusal.
    EXPECT_EQ(countOpenFds(), before + 1);
    unlink(file);
}

}  // namespace
