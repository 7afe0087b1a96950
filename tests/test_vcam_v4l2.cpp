// The virtual camera's node driven with bare open/ioctl/mmap: driver semantics, errno values,
// ownership, pacing and drops.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "v4l2_client.h"
#include "vcam.h"

using orvo_test::ScopedEnv;
using orvo_test::V4l2Client;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test0";
constexpr uint32_t kFrame = 721920;
constexpr uint32_t kStride = 724992;  // a frame rounded up to whole 4 KiB pages

class VcamV4l2 : public ::testing::Test {
  protected:
    ScopedEnv env_{{"ORVO_VCAM_DEVICE", kNode},  {"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "0"},
                   {"ORVO_VCAM_TRUTH", nullptr}, {"ORVO_VCAM_FAULTS", nullptr},   {"ORVO_VCAM_LOG", nullptr}};
};

template <typename T>
T capture() {
    T t;
    std::memset(&t, 0, sizeof t);
    t.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return t;
}

int64_t monotonicUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t timestampUs(const v4l2_buffer& b) { return int64_t(b.timestamp.tv_sec) * 1000000 + b.timestamp.tv_usec; }

int openDescriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}

TEST_F(VcamV4l2, IdentityCropFormatAndIntervalAsADriverAnswers) {
    V4l2Client c(kNode);
    ASSERT_GE(c.fd(), 0);
    v4l2_capability cap;
    std::memset(&cap, 0xff, sizeof cap);
    ASSERT_EQ(0, c.call(VIDIOC_QUERYCAP, &cap));
    EXPECT_STREQ("orvo_vcam", reinterpret_cast<const char*>(cap.driver));
    EXPECT_STREQ("Orvo Stereo Camera (virtual)", reinterpret_cast<const char*>(cap.card));
    EXPECT_EQ(cap.device_caps | V4L2_CAP_DEVICE_CAPS, cap.capabilities);
    EXPECT_EQ(uint32_t(V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING),
              cap.device_caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_READWRITE));
    EXPECT_EQ(0u, cap.reserved[0] | cap.reserved[1] | cap.reserved[2]);
    EXPECT_EQ(EFAULT, c.call(VIDIOC_QUERYCAP, nullptr));
    v4l2_std_id std_id = 0;
    EXPECT_EQ(ENOTTY, c.call(VIDIOC_G_STD, &std_id));
    termios tio;
    EXPECT_EQ(ENOTTY, c.call(TCGETS, &tio));
    EXPECT_EQ(0, isatty(c.fd()));

    auto cc = capture<v4l2_cropcap>();
    ASSERT_EQ(0, c.call(VIDIOC_CROPCAP, &cc));
    const v4l2_rect full{0, 0, 752, 480};
    EXPECT_EQ(0, std::memcmp(&full, &cc.defrect, sizeof full));
    EXPECT_EQ(0, std::memcmp(&full, &cc.bounds, sizeof full));
    v4l2_crop crop{V4L2_BUF_TYPE_VIDEO_CAPTURE, cc.defrect};
    EXPECT_EQ(0, c.call(VIDIOC_S_CROP, &crop));
    // Any format asked for becomes the one the camera streams, the only one it lists.
    v4l2_format f;
    ASSERT_EQ(0, c.setFormat(640, 360, V4L2_PIX_FMT_MJPEG, &f));
    EXPECT_EQ(752u, f.fmt.pix.width);
    EXPECT_EQ(480u, f.fmt.pix.height);
    EXPECT_EQ(uint32_t(V4L2_PIX_FMT_YUYV), f.fmt.pix.pixelformat);
    EXPECT_EQ(uint32_t(V4L2_FIELD_NONE), f.fmt.pix.field);
    EXPECT_EQ(1504u, f.fmt.pix.bytesperline);
    EXPECT_EQ(kFrame, f.fmt.pix.sizeimage);
    auto d = capture<v4l2_fmtdesc>();
    d.index = 1;
    EXPECT_EQ(EINVAL, c.call(VIDIOC_ENUM_FMT, &d));
    // Requests for another buffer type are refused; each of these structures starts with the type.
    for (unsigned long r :
         {VIDIOC_CROPCAP, VIDIOC_S_CROP, VIDIOC_G_FMT, VIDIOC_S_FMT, VIDIOC_G_PARM, VIDIOC_S_PARM, VIDIOC_STREAMOFF}) {
        v4l2_format arg{};
        arg.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        EXPECT_EQ(EINVAL, c.call(r, &arg)) << std::hex << r;
    }

    // The frame interval is the nearest supported one, 1/30 to begin with.
    auto p = capture<v4l2_streamparm>();
    ASSERT_EQ(0, c.call(VIDIOC_G_PARM, &p));
    EXPECT_EQ(uint32_t(V4L2_CAP_TIMEPERFRAME), p.parm.capture.capability);
    EXPECT_EQ(1u, p.parm.capture.timeperframe.numerator);
    EXPECT_EQ(30u, p.parm.capture.timeperframe.denominator);
    struct {
        uint32_t num, den, want_den;
    } cases[] = {{1, 25, 30}, {1, 7, 10}, {2, 25, 15}, {1, 1000, 60}, {3, 1, 5}, {0, 0, 30}, {1, 15, 15}};
    for (const auto& k : cases) {
        SCOPED_TRACE(std::to_string(k.num) + "/" + std::to_string(k.den));
        p.parm.capture.timeperframe = {k.num, k.den};
        ASSERT_EQ(0, c.call(VIDIOC_S_PARM, &p));
        EXPECT_EQ(1u, p.parm.capture.timeperframe.numerator);
        EXPECT_EQ(k.want_den, p.parm.capture.timeperframe.denominator);
        auto g = capture<v4l2_streamparm>();
        ASSERT_EQ(0, c.call(VIDIOC_G_PARM, &g));
        EXPECT_EQ(k.want_den, g.parm.capture.timeperframe.denominator);
    }
}

TEST_F(VcamV4l2, BuffersFollowTheVideobuf2Lifecycle) {
    uint32_t granted = 0;
    {
        V4l2Client c(kNode);
        ASSERT_EQ(0, c.requestBuffers(1, &granted));
        EXPECT_EQ(2u, granted) << "the driver's minimum";
        ASSERT_EQ(0, c.requestBuffers(100, &granted));
        EXPECT_EQ(32u, granted) << "and maximum";
        auto rb = capture<v4l2_requestbuffers>();
        rb.count = 4;
        rb.memory = V4L2_MEMORY_USERPTR;
        EXPECT_EQ(EINVAL, c.call(VIDIOC_REQBUFS, &rb));
        rb.memory = V4L2_MEMORY_MMAP;
        rb.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        EXPECT_EQ(EINVAL, c.call(VIDIOC_REQBUFS, &rb));
    }
    V4l2Client c(kNode);

    v4l2_buffer b;
    EXPECT_EQ(EINVAL, c.query(0, &b)) << "no buffers yet";
    EXPECT_EQ(EINVAL, c.streamOn()) << "streaming needs buffers";
    ASSERT_EQ(0, c.requestBuffers(6, &granted));
    ASSERT_EQ(6u, granted);
    EXPECT_EQ(EBUSY, c.setFormat()) << "format is fixed once buffers exist";
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(0, c.query(i, &b));
        EXPECT_EQ(i, b.index);
        EXPECT_EQ(kFrame, b.length);
        EXPECT_EQ(i * kStride, b.m.offset);
        EXPECT_EQ(0u, b.bytesused) << "never filled";
        EXPECT_EQ(uint32_t(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC), b.flags);
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
    EXPECT_EQ(0, c.streamOn()) << "a second STREAMON is harmless";
    EXPECT_EQ(EBUSY, c.requestBuffers(4)) << "streaming";

    ASSERT_EQ(0, c.dequeue(&b));
    EXPECT_EQ(0u, b.index);
    EXPECT_EQ(kFrame, b.bytesused);
    EXPECT_EQ(0u, b.sequence);
    EXPECT_EQ(uint32_t(V4L2_FIELD_NONE), b.field);
    EXPECT_EQ(uint32_t(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_MAPPED), b.flags);
    EXPECT_EQ(0u, b.m.offset);
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
    ASSERT_EQ(0, c.requestBuffers(0, &granted));
    EXPECT_EQ(0u, granted);
    EXPECT_EQ(EINVAL, c.query(0, &b));
    EXPECT_EQ(0, c.setFormat()) << "no buffers any more";
}

TEST_F(VcamV4l2, OnlyTheOwnerMayUseTheQueueAndClosingItStopsStreamingButMappingsKeepTheirPages) {
    const uint64_t sessions = orvo::vcam::statistics().sessions;
    const int lowest = dup(0);
    close(lowest);
    const int fds_before = openDescriptors();
    V4l2Client c(kNode);
    EXPECT_EQ(lowest, c.fd()) << "the lowest free descriptor, as the kernel gives";
    ASSERT_EQ(0, c.setFormat());
    ASSERT_EQ(0, c.requestBuffers(4));
    V4l2Client other(kNode);
    v4l2_buffer b;
    EXPECT_EQ(0, other.query(0, &b)) << "anyone may query";
    EXPECT_EQ(EBUSY, other.requestBuffers(4));
    EXPECT_EQ(EBUSY, other.setFormat());
    EXPECT_EQ(EBUSY, other.queue(0));
    EXPECT_EQ(EBUSY, other.streamOn());
    EXPECT_EQ(EBUSY, other.dequeue(&b));
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {1, 30};
    EXPECT_EQ(EBUSY, other.call(VIDIOC_S_PARM, &parm)) << "nor set the frame interval";
    EXPECT_EQ(2u, orvo::vcam::statistics().open_descriptors);
    EXPECT_EQ(sessions + 1, orvo::vcam::statistics().sessions) << "two descriptors, one session";
    ASSERT_EQ(0, c.mapAll());
    ASSERT_EQ(0, c.queueAll());
    ASSERT_EQ(0, c.streamOn());
    EXPECT_EQ(fds_before + 2, openDescriptors()) << "streaming costs the node's descriptors only";
    ASSERT_EQ(0, c.dequeue(&b));
    const uint8_t* mapped = c.data(b.index);
    const std::vector<uint8_t> copy(mapped, mapped + kFrame);
    ASSERT_EQ(0, c.close());
    EXPECT_FALSE(orvo::vcam::statistics().streaming);
    EXPECT_EQ(0, other.requestBuffers(3)) << "the owner's close freed the queue";
    ASSERT_EQ(0, other.close());
    const orvo::vcam::Statistics s = orvo::vcam::statistics();
    EXPECT_FALSE(s.active);
    EXPECT_EQ(0u, s.open_descriptors);
    EXPECT_EQ(1u, s.frames_served);
    EXPECT_EQ(0, std::memcmp(copy.data(), mapped, kFrame));
    EXPECT_EQ(fds_before, openDescriptors());
    V4l2Client again(kNode);
    EXPECT_EQ(sessions + 2, orvo::vcam::statistics().sessions);
    EXPECT_EQ(0u, orvo::vcam::statistics().frames_served);
}

// A loaded machine may stall the test for longer than the queue lasts, so the checks hold whatever
// was dropped meanwhile: sequence numbers and due times stay in step.
TEST_F(VcamV4l2, PacedFramesKeepTimeAndUnqueuedFramesAreDropped) {
    ScopedEnv fps{{"ORVO_VCAM_FPS", "50"}};
    V4l2Client c(kNode);
    const int64_t before = monotonicUs();
    ASSERT_EQ(0, c.start(4));
    v4l2_buffer b;
    int64_t first = 0;
    uint32_t previous = 0;
    for (uint32_t k = 0; k < 6; ++k) {
        ASSERT_EQ(0, c.dequeue(&b));
        EXPECT_LE(timestampUs(b), monotonicUs()) << "handed out only once due";
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

TEST_F(VcamV4l2, NonBlockingDequeueSaysEagainAndStreamoffWakesABlockedOne) {
    {
        ScopedEnv fps{{"ORVO_VCAM_FPS", "2"}};
        V4l2Client c(kNode, O_RDWR | O_NONBLOCK);
        ASSERT_EQ(0, c.start(2));
        v4l2_buffer b;
        EXPECT_EQ(EAGAIN, c.dequeue(&b)) << "the first frame is 500 ms away";
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        ASSERT_EQ(0, c.dequeue(&b));
        EXPECT_EQ(0u, b.sequence);
        EXPECT_EQ(EAGAIN, c.dequeue(&b)) << "the second frame is due at 1 s";
    }
    ScopedEnv fps{{"ORVO_VCAM_FPS", "0.5"}};
    V4l2Client c(kNode);
    ASSERT_EQ(0, c.start(2));
    int result = -1;
    const auto t0 = std::chrono::steady_clock::now();
    std::thread waiter([&] {
        v4l2_buffer b;
        result = c.dequeue(&b);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(0, c.streamOff());
    waiter.join();
    EXPECT_EQ(EINVAL, result);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.5)
        << "woken by STREAMOFF, not by the frame due after 2 s";
}

extern "C" int __open_2(const char*, int);
extern "C" int __openat_2(int, const char*, int);

TEST_F(VcamV4l2, EveryOpenEntryPointReachesTheNodeAndOtherPathsAreUntouched) {
    const int fds[] = {open64(kNode, O_RDWR), openat(AT_FDCWD, kNode, O_RDWR), openat64(AT_FDCWD, kNode, O_RDWR),
                       __open_2(kNode, O_RDWR), __openat_2(AT_FDCWD, kNode, O_RDWR)};
    v4l2_capability cap;
    for (int fd : fds) EXPECT_EQ(0, ioctl(fd, VIDIOC_QUERYCAP, &cap)) << fd;
    EXPECT_EQ(5u, orvo::vcam::statistics().open_descriptors);
    // A relative path against another directory is not the node, even with the same spelling.
    const int dir = open("/", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(-1, openat(dir, kNode + 1, O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    close(dir);

    // Other descriptors go to the kernel (the capture tests drive /dev/null and a closed node).
    for (int fd : fds) EXPECT_EQ(0, close(fd));
    EXPECT_FALSE(orvo::vcam::statistics().active);

    ScopedEnv inert{{"ORVO_VCAM_DEVICE", nullptr}};
    const uint64_t sessions = orvo::vcam::statistics().sessions;
    EXPECT_EQ(-1, open(kNode, O_RDWR));
    EXPECT_EQ(ENOENT, errno) << "without ORVO_VCAM_DEVICE the path is an ordinary missing file";
    EXPECT_EQ(sessions, orvo::vcam::statistics().sessions);
}

}  // namespace
