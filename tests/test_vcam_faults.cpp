// The virtual camera's fault injection: the grammar and call counting per session. What each fault
// does to the library is walked by the fault matrix.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include <orvo/vcam/faults.hpp>
#include "run_capture.h"
#include "v4l2_client.h"

using orvo::vcam::FaultPlan;
using orvo_test::V4l2Client;

namespace {

constexpr const char* kNode = "/dev/video-vcam-test2";

TEST(VcamFaultGrammar, ParsesEveryFormAndNamesEachBadEntry) {
    std::string complaints;
    FaultPlan plan = FaultPlan::parse(
        " DQBUF@5=EIO, ioctl=EINTR:3,S_FMT@2=EBUSY:2,REQBUFS@2=grant:0,caps=no-capture,,meminfo=unreadable,"
        "bytesused@4=0,QUERYBUF=bad-offset,close=EIO,open=ENOENT,meminfo=no-memfree,caps=no-streaming,",
        &complaints);
    EXPECT_EQ("", complaints);
    ASSERT_EQ(12u, plan.entries().size());
    EXPECT_EQ("DQBUF@5=EIO", plan.entries()[0].text);
    // From N on, K calls: S_FMT@2=EBUSY:2 hits calls 2 and 3 only.
    const auto& fmt = plan.entries()[2];
    EXPECT_EQ("0110", std::string() + "01"[fmt.hits(1)] + "01"[fmt.hits(2)] + "01"[fmt.hits(3)] + "01"[fmt.hits(4)]);
    EXPECT_EQ(0u, plan.entries()[3].grant);

    complaints.clear();
    FaultPlan bad = FaultPlan::parse("DQBUF,DQBUF@0=EIO,DQBUF=EWHAT,DQBUF=EIO:0,REQBUFS=grant:33,G_STD=EIO,QBUF=EIO",
                                     &complaints);
    ASSERT_EQ(1u, bad.entries().size()) << "only the last entry is good";
    EXPECT_EQ("QBUF=EIO", bad.entries()[0].text);
    EXPECT_EQ(
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF': expected TARGET[@N]=ACTION[:K]\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF@0=EIO': bad call number '@0' (expected @N with N >= 1)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF=EWHAT': unknown action 'EWHAT' for target 'DQBUF'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'DQBUF=EIO:0': bad count ':0' (expected :K with K >= 1)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'REQBUFS=grant:33': grant needs a buffer count from 0 to 32 "
        "(REQBUFS=grant:K)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'G_STD=EIO': unknown target 'G_STD'\n",
        complaints);
}

// Calls are counted from the start of each session; a malformed entry is reported once per session
// on stderr, and the rest still apply.
TEST(VcamFaults, CallsAreCountedPerSessionAndABadEntryIsReportedOnce) {
    const orvo_test::VirtualNode env(kNode, "pattern", "DQBUF@3=EIO,ioctl=EINTR:3,G_PARM@2=EIO,DQBUF@x=EIO");
    for (int session = 0; session < 2; ++session) {
        SCOPED_TRACE(session);
        std::unique_ptr<V4l2Client> c;
        auto out = orvo_test::captureOutput([&] { c.reset(new V4l2Client(kNode)); });
        EXPECT_NE(std::string::npos, out.err.find("ignoring 'DQBUF@x=EIO'")) << out.err;
        out = orvo_test::captureOutput([&] { V4l2Client second(kNode); });
        EXPECT_EQ("", out.err) << "read once per session";
        v4l2_capability cap;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(EINTR, c->call(VIDIOC_QUERYCAP, &cap)) << "ioctl " << i + 1;
        EXPECT_EQ(0, c->call(VIDIOC_QUERYCAP, &cap)) << "the fourth goes through";
        v4l2_streamparm p{};
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(0, c->call(VIDIOC_G_PARM, &p));
        EXPECT_EQ(EIO, c->call(VIDIOC_G_PARM, &p));
        EXPECT_EQ(EIO, c->call(VIDIOC_G_PARM, &p)) << "every call from the second on";
        ASSERT_EQ(0, c->start(4));
        v4l2_buffer b;
        for (int k = 0; k < 2; ++k) {
            ASSERT_EQ(0, c->dequeue(&b));
            ASSERT_EQ(0, c->queue(b.index));
        }
        EXPECT_EQ(EIO, c->dequeue(&b));
        EXPECT_EQ(EIO, c->dequeue(&b)) << "every call from the third on";
    }
}

}  // namespace
