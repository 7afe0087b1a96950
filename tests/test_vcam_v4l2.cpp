// The virtual camera's node driven with bare open/ioctl/mmap: driver semantics, errno values, pacing
// and drops, and the node as the file system shows it (ownership is checked through the runtime's
// camera, test_runtime_open and _stream; here only that a duplicate descriptor shares it).
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "v4l2_client.h"
#include <orvo/vcam/statistics.hpp>

using orvo_test::ScopedEnv;
using orvo_test::V4l2Client;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test0";
constexpr uint32_t kFrame = 721920;
constexpr uint32_t kStride = 724992;  // a frame rounded up to whole 4 KiB pages

class VcamV4l2 : public ::testing::Test {
  protected:
    orvo_test::VirtualNode env_{kNode};
};

// The whole of a small file as the C library reads it; "<errno N>" when it cannot be opened.
std::string contents(const char* path) {
    FILE* in = std::fopen(path, "r");
    if (!in) return "<errno " + std::to_string(errno) + ">";
    std::string text;
    char chunk[256];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) text.append(chunk, n);
    std::fclose(in);
    return text;
}

int64_t timestampUs(const v4l2_buffer& b) { return int64_t(b.timestamp.tv_sec) * 1000000 + b.timestamp.tv_usec; }

TEST_F(VcamV4l2, FormatAndBuffersFollowTheVideobuf2Lifecycle) {
    uint32_t granted = 0;
    {
        V4l2Client c(kNode);
        ASSERT_EQ(0, c.requestBuffers(1, &granted));
        EXPECT_EQ(2u, granted) << "the driver's minimum";
        ASSERT_EQ(0, c.requestBuffers(100, &granted));
        EXPECT_EQ(32u, granted) << "and maximum";
    }
    V4l2Client c(kNode);
    // Any format asked for becomes the one the camera streams.
    v4l2_format f;
    ASSERT_EQ(0, c.setFormat(640, 360, V4L2_PIX_FMT_MJPEG, &f));
    const v4l2_pix_format& px = f.fmt.pix;
    EXPECT_EQ((std::vector<uint32_t>{752, 480, V4L2_PIX_FMT_YUYV, V4L2_FIELD_NONE, 1504, kFrame}),
              (std::vector<uint32_t>{px.width, px.height, px.pixelformat, px.field, px.bytesperline, px.sizeimage}));

    v4l2_buffer b;
    EXPECT_EQ(EINVAL, c.query(0, &b)) << "no buffers yet";
    EXPECT_EQ(EINVAL, c.streamOn()) << "streaming needs buffers";
    ASSERT_EQ(0, c.requestBuffers(6));
    EXPECT_EQ(EBUSY, c.setFormat()) << "format is fixed once buffers exist";
    for (uint32_t i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(0, c.query(i, &b));
        EXPECT_EQ((std::vector<uint32_t>{i, kFrame, i * kStride, 0, V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC}),
                  (std::vector<uint32_t>{b.index, b.length, b.m.offset, b.bytesused, b.flags}));
    }
    EXPECT_EQ(EINVAL, c.query(6, &b));
    ASSERT_EQ(0, c.mapAll());

    ASSERT_EQ(0, c.queue(0, &b));
    EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
    EXPECT_EQ(EINVAL, c.queue(0)) << "already queued";
    EXPECT_EQ(EINVAL, c.queue(6)) << "no such buffer";
    EXPECT_EQ(EINVAL, c.dequeue(&b)) << "not streaming";
    for (uint32_t i = 1; i < 6; ++i) ASSERT_EQ(0, c.queue(i));
    ASSERT_EQ(0, c.streamOn());
    EXPECT_EQ(EBUSY, c.requestBuffers(4)) << "streaming";

    ASSERT_EQ(0, c.dequeue(&b));
    EXPECT_EQ((std::vector<uint32_t>{0, kFrame, 0, V4L2_FIELD_NONE,
                                     V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_MAPPED, 0}),
              (std::vector<uint32_t>{b.index, b.bytesused, b.sequence, b.field, b.flags, b.m.offset}));
    ASSERT_EQ(0, c.query(0, &b));
    EXPECT_EQ(kFrame, b.bytesused) << "filled once, it keeps its size";

    ASSERT_EQ(0, c.streamOff());
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(0, c.query(i, &b));
        EXPECT_EQ(0u, b.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE)) << "buffer " << i;
    }
    EXPECT_EQ(EINVAL, c.dequeue(&b));
    ASSERT_EQ(0, c.streamOn());
    EXPECT_EQ(EINVAL, c.dequeue(&b)) << "blocking with nothing queued must not hang";
    ASSERT_EQ(0, c.streamOff());

    EXPECT_EQ(EBUSY, c.requestBuffers(4)) << "buffers are mapped";
    c.unmapAll();
    ASSERT_EQ(0, c.requestBuffers(0));
    EXPECT_EQ(0, c.setFormat()) << "no buffers any more";
}

// No file of the node's name exists, yet tools that stat it, look its sysfs entries up and
// duplicate its descriptors find a V4L2 character device.
TEST_F(VcamV4l2, ItsPathIsACharacterDeviceWithSysfsEntriesAndDuplicatesAreTheSameOpenFile) {
    struct stat st, link;
    struct stat64 st64;
    ASSERT_EQ(0, stat(kNode, &st));
    ASSERT_EQ(0, lstat(kNode, &link));
    ASSERT_EQ(0, stat64(kNode, &st64));
    EXPECT_TRUE(S_ISCHR(st.st_mode) && S_ISCHR(link.st_mode) && S_ISCHR(st64.st_mode));
    EXPECT_EQ(makedev(81, 100), st.st_rdev) << "81 is V4L2's major; minors start at 100 + the path's number";
    EXPECT_EQ(st.st_rdev, st64.st_rdev);
    EXPECT_EQ(0, access(kNode, R_OK | W_OK));
    EXPECT_NE(0, access(kNode, X_OK));
    EXPECT_EQ("Orvo Stereo Camera (virtual)\n", contents("/sys/dev/char/81:100/name"));
    EXPECT_EQ("MAJOR=81\nMINOR=100\nDEVNAME=video100\n", contents("/sys/class/video4linux/video100/uevent"));
    EXPECT_EQ("<errno 2>", contents("/sys/class/video4linux/video100/no-such-entry"));
    EXPECT_NE(0, stat("/sys/dev/char/81:100/no-such-entry", &st));
    EXPECT_EQ(ENOENT, errno);

    V4l2Client c(kNode);
    ASSERT_EQ(0, fstat(c.fd(), &st));
    EXPECT_EQ(makedev(81, 100), st.st_rdev);
    ASSERT_EQ(0, c.requestBuffers(4));
    const int copy = dup(c.fd());
    ASSERT_GE(copy, 0);
    v4l2_requestbuffers rb{};
    rb.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    rb.memory = V4L2_MEMORY_MMAP;
    rb.count = 3;
    EXPECT_EQ(0, ioctl(copy, VIDIOC_REQBUFS, &rb)) << "the duplicate owns the queue with the original";
    EXPECT_EQ(3u, rb.count);
    V4l2Client other(kNode);
    EXPECT_EQ(EBUSY, other.requestBuffers(2));
    ASSERT_EQ(0, ::close(copy));
    EXPECT_EQ(0, c.requestBuffers(2)) << "closing the duplicate left the open file alive";
    ASSERT_EQ(0, c.close());
    EXPECT_EQ(0, other.requestBuffers(2)) << "the last descriptor's close freed the queue";
    ASSERT_EQ(0, other.close());

    // A second listed node whose name ends in no number is a device of its own; a duplicate keeps
    // its session alive until the duplicate, the last descriptor, is closed.
    constexpr const char* kSecond = "/dev/video-vcam-test-b";
    ScopedEnv two{{"ORVO_VCAM_DEVICE", (std::string(kNode) + "," + kSecond).c_str()}};
    ASSERT_EQ(0, stat(kSecond, &st));
    EXPECT_EQ(makedev(81, 101), st.st_rdev) << "100 is the first node's";
    EXPECT_EQ("81:101\n", contents("/sys/class/video4linux/video101/dev"));
    ASSERT_EQ(0, stat(kNode, &st));
    EXPECT_EQ(makedev(81, 100), st.st_rdev);
    const uint64_t sessions = orvo::vcam::statistics(kSecond).sessions;
    V4l2Client b(kSecond);
    ASSERT_EQ(0, fstat(b.fd(), &st));
    EXPECT_EQ(makedev(81, 101), st.st_rdev);
    const int kept = dup(b.fd());
    ASSERT_GE(kept, 0);
    ASSERT_EQ(0, b.close());
    EXPECT_TRUE(orvo::vcam::statistics(kSecond).active);
    V4l2Client again(kSecond);
    ASSERT_EQ(0, again.close());
    EXPECT_EQ(sessions + 1, orvo::vcam::statistics(kSecond).sessions) << "one session throughout";
    ASSERT_EQ(0, ::close(kept));
    EXPECT_FALSE(orvo::vcam::statistics(kSecond).active);
    V4l2Client later(kSecond);
    EXPECT_EQ(sessions + 2, orvo::vcam::statistics(kSecond).sessions);
}

// A loaded machine may stall the test for longer than the queue lasts, so the checks hold whatever
// was dropped meanwhile: sequence numbers and due times stay in step.
TEST_F(VcamV4l2, PacedFramesKeepTimeAndUnqueuedFramesAreDropped) {
    ScopedEnv fps{{"ORVO_VCAM_FPS", "50"}};
    V4l2Client c(kNode);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t before = int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    ASSERT_EQ(0, c.start(4));
    v4l2_buffer b;
    int64_t first = 0;
    uint32_t previous = 0;
    for (uint32_t k = 0; k < 6; ++k) {
        ASSERT_EQ(0, c.dequeue(&b));
        clock_gettime(CLOCK_MONOTONIC, &ts);
        EXPECT_LE(timestampUs(b), int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000) << "handed out once due";
        if (k == 0) {
            EXPECT_EQ(0u, b.sequence) << "the buffers were queued before STREAMON";
            first = timestampUs(b);
            EXPECT_GE(first, before + 19999) << "the first frame is due one period after STREAMON";
        } else {
            EXPECT_GT(b.sequence, previous);
            EXPECT_NEAR(double(first + int64_t(b.sequence) * 20000), double(timestampUs(b)), 1.0);
        }
        previous = b.sequence;
        ASSERT_EQ(0, c.queue(b.index));
    }
    // Hold every buffer for ten frame times, then give one back: the frames in between are gone.
    const uint64_t dropped_before = orvo::vcam::statistics().frames_dropped;
    for (uint32_t held = 0; held < 4; ++held) ASSERT_EQ(0, c.dequeue(&b));
    const uint32_t last = b.sequence;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(0, c.queue(b.index));
    ASSERT_EQ(0, c.dequeue(&b));
    EXPECT_GE(b.sequence, last + 10);
    EXPECT_GE(orvo::vcam::statistics().frames_dropped - dropped_before, uint64_t(b.sequence - last - 1));
    EXPECT_NEAR(double(first + int64_t(b.sequence) * 20000), double(timestampUs(b)), 1.0);
}

}  // namespace
