// The virtual camera's fault injection: the grammar, call counting per session, and the faults
// outside the ioctl path. What each fault does to the library is walked by the fault matrix.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "faults.h"
#include "run_capture.h"
#include "v4l2_client.h"
#include "vcam.h"

using orvo::vcam::Fault;
using orvo::vcam::FaultAction;
using orvo::vcam::FaultPlan;
using orvo::vcam::FaultTarget;
using orvo_test::ScopedEnv;
using orvo_test::V4l2Client;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test2";

class VcamFaults : public ::testing::Test {
  protected:
    ScopedEnv env_{{"ORVO_VCAM_DEVICE", kNode},  {"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "0"},
                   {"ORVO_VCAM_TRUTH", nullptr}, {"ORVO_VCAM_FAULTS", nullptr},   {"ORVO_VCAM_LOG", nullptr}};
};

TEST(VcamFaultGrammar, ParsesEveryFormAndNamesEachBadEntry) {
    std::string complaints;
    FaultPlan plan = FaultPlan::parse(
        " DQBUF@5=EIO, ioctl=EINTR:3,S_FMT@2=EBUSY:2,REQBUFS@2=grant:0,caps=no-capture,,meminfo=unreadable,"
        "bytesused@4=0,QUERYBUF=bad-offset,close=EIO,open=ENOENT,meminfo=no-memfree,caps=no-streaming,",
        &complaints);
    EXPECT_EQ("", complaints);
    ASSERT_EQ(12u, plan.entries().size());
    struct Want {
        FaultTarget target;
        FaultAction action;
        uint64_t from, calls;
        int error;
    } want[] = {{FaultTarget::Request, FaultAction::Errno, 5, 0, EIO},
                {FaultTarget::AnyIoctl, FaultAction::Errno, 1, 3, EINTR},
                {FaultTarget::Request, FaultAction::Errno, 2, 2, EBUSY},
                {FaultTarget::Request, FaultAction::Grant, 2, 0, 0},
                {FaultTarget::Caps, FaultAction::NoCapture, 1, 0, 0},
                {FaultTarget::Meminfo, FaultAction::Unreadable, 1, 0, 0},
                {FaultTarget::Bytesused, FaultAction::ZeroBytes, 4, 0, 0},
                {FaultTarget::Request, FaultAction::BadOffset, 1, 0, 0},
                {FaultTarget::Close, FaultAction::Errno, 1, 0, EIO},
                {FaultTarget::Open, FaultAction::Errno, 1, 0, ENOENT},
                {FaultTarget::Meminfo, FaultAction::NoMemfree, 1, 0, 0},
                {FaultTarget::Caps, FaultAction::NoStreaming, 1, 0, 0}};
    for (size_t i = 0; i < 12; ++i) {
        const Fault& f = plan.entries()[i];
        EXPECT_TRUE(f.target == want[i].target && f.action == want[i].action && f.from == want[i].from &&
                    f.calls == want[i].calls && f.error == want[i].error)
            << f.text;
    }
    EXPECT_EQ("DQBUF@5=EIO", plan.entries()[0].text);
    EXPECT_EQ(0u, plan.entries()[3].grant);
    // From N on, K calls: S_FMT@2=EBUSY:2 hits calls 2 and 3 only.
    const Fault& fmt = plan.entries()[2];
    EXPECT_EQ("0110", std::string() + "01"[fmt.hits(1)] + "01"[fmt.hits(2)] + "01"[fmt.hits(3)] + "01"[fmt.hits(4)]);
    EXPECT_TRUE(plan.entries()[0].hits(1000));
    EXPECT_EQ(EINTR, plan.errorFor(FaultTarget::AnyIoctl, 0, 3));
    EXPECT_EQ(0, plan.errorFor(FaultTarget::AnyIoctl, 0, 4));
    EXPECT_EQ(0, plan.errorFor(FaultTarget::Close, 0, 0)) << "call 0 is before the first";
    EXPECT_EQ(nullptr, plan.find(FaultAction::Grant, 1));
    EXPECT_NE(nullptr, plan.find(FaultAction::Grant, 2));

    complaints.clear();
    FaultPlan bad = FaultPlan::parse(
        "DQBUF,FOO=EIO,DQBUF@0=EIO,DQBUF@x=EIO,DQBUF=EWHAT,DQBUF=EIO:0,REQBUFS=grant,REQBUFS=grant:33,caps=EIO,"
        "bytesused=1,QBUF=grant:2,VIDIOC_DQBUF=EIO,G_STD=EIO,QBUF=EIO",
        &complaints);
    ASSERT_EQ(1u, bad.entries().size()) << "only the last entry is good";
    EXPECT_EQ("QBUF=EIO", bad.entries()[0].text);
    EXPECT_EQ(
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF': expected TARGET[@N]=ACTION[:K]\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'FOO=EIO': unknown target 'FOO'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF@0=EIO': bad call number '@0' (expected @N with N >= 1)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF@x=EIO': bad call number '@x' (expected @N with N >= 1)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF=EWHAT': unknown action 'EWHAT' for target 'DQBUF'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF=EIO:0': bad count ':0' (expected :K with K >= 1)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'REQBUFS=grant': grant needs a buffer count from 0 to 32 "
        "(REQBUFS=grant:K)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'REQBUFS=grant:33': grant needs a buffer count from 0 to 32 "
        "(REQBUFS=grant:K)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'caps=EIO': unknown action 'EIO' for target 'caps'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'bytesused=1': unknown action '1' for target 'bytesused'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'QBUF=grant:2': unknown action 'grant' for target 'QBUF'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'VIDIOC_DQBUF=EIO': unknown target 'VIDIOC_DQBUF'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'G_STD=EIO': unknown target 'G_STD'\n",
        complaints);
}

TEST_F(VcamFaults, CallsAreCountedFromTheStartOfEachSession) {
    ScopedEnv faults{{"ORVO_VCAM_FAULTS", "DQBUF@3=EIO,ioctl=EINTR:3,G_PARM@2=EIO"}};
    for (int session = 0; session < 2; ++session) {
        V4l2Client c(kNode);
        v4l2_capability cap;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(EINTR, c.call(VIDIOC_QUERYCAP, &cap)) << "ioctl " << i + 1;
        EXPECT_EQ(0, c.call(VIDIOC_QUERYCAP, &cap)) << "the fourth goes through";
        v4l2_streamparm p;
        std::memset(&p, 0, sizeof p);
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(0, c.call(VIDIOC_G_PARM, &p));
        EXPECT_EQ(EIO, c.call(VIDIOC_G_PARM, &p));
        EXPECT_EQ(EIO, c.call(VIDIOC_G_PARM, &p)) << "every call from the second on";
        ASSERT_EQ(0, c.start(4));
        v4l2_buffer b;
        ASSERT_EQ(0, c.dequeue(&b));
        ASSERT_EQ(0, c.queue(b.index));
        ASSERT_EQ(0, c.dequeue(&b));
        ASSERT_EQ(0, c.queue(b.index));
        EXPECT_EQ(EIO, c.dequeue(&b));
        EXPECT_EQ(EIO, c.dequeue(&b));
        EXPECT_EQ(2u, orvo::vcam::statistics().frames_served) << "failed dequeues serve nothing";
    }
}

// Whether /proc/meminfo opens (else errno) and holds a line starting with `prefix`.
int meminfoHas(const char* prefix) {
    FILE* f = fopen("/proc/meminfo", "r");
    if (!f) return -errno;
    char line[256];
    int found = 0;
    while (fgets(line, sizeof line, f)) found |= std::strncmp(line, prefix, std::strlen(prefix)) == 0;
    fclose(f);
    return found;
}

TEST_F(VcamFaults, MeminfoOpenAndCloseFaults) {
    {
        ScopedEnv faults{{"ORVO_VCAM_FAULTS", "meminfo=no-memfree"}};
        V4l2Client c(kNode);
        EXPECT_EQ(0, meminfoHas("MemFree:"));
        EXPECT_EQ(1, meminfoHas("MemTotal:"));
    }
    EXPECT_EQ(1, meminfoHas("MemFree:")) << "only while the node is open";
    {
        ScopedEnv faults{{"ORVO_VCAM_FAULTS", "meminfo@2=unreadable,open@2=EBUSY:1"}};
        V4l2Client c(kNode);
        EXPECT_EQ(1, meminfoHas("MemFree:"));
        EXPECT_EQ(-EACCES, meminfoHas("MemFree:"));
        errno = 0;
        EXPECT_EQ(nullptr, fopen64("/proc/meminfo", "r"));
        EXPECT_EQ(EACCES, errno);
        FILE* other = fopen("/proc/self/status", "r");
        EXPECT_NE(nullptr, other) << "other files are untouched";
        if (other) fclose(other);
        V4l2Client second(kNode), third(kNode);
        EXPECT_EQ(EBUSY, second.openError());
        EXPECT_GE(third.fd(), 0) << "one call only";
    }
    {
        ScopedEnv faults{{"ORVO_VCAM_FAULTS", "open=ENOENT"}};
        V4l2Client c(kNode);
        EXPECT_EQ(ENOENT, c.openError());
        EXPECT_FALSE(orvo::vcam::statistics().active);
    }
    ScopedEnv faults{{"ORVO_VCAM_FAULTS", "close=EIO"}};
    const int fd = open(kNode, O_RDWR);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(-1, close(fd));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "closed all the same";
    EXPECT_FALSE(orvo::vcam::statistics().active);
}

TEST_F(VcamFaults, AMalformedEntryIsReportedOnceAndTheRestStillApply) {
    ScopedEnv faults{{"ORVO_VCAM_FAULTS", "DQBUF@x=EIO,QUERYCAP=EIO:1"}};
    int fd = -1;
    auto out = orvo_test::captureOutput([&] { fd = open(kNode, O_RDWR); });
    ASSERT_GE(fd, 0);
    EXPECT_EQ("orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF@x=EIO': bad call number '@x' (expected @N with N >= 1)\n",
              out.err);
    v4l2_capability cap;
    EXPECT_EQ(-1, ioctl(fd, VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(EIO, errno);
    out = orvo_test::captureOutput([&] {
        int second = open(kNode, O_RDWR);
        close(second);
    });
    EXPECT_EQ("", out.err) << "read once per session";
    close(fd);
}

}  // namespace
