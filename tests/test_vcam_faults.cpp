// The virtual camera's fault injection: the grammar and call counting per session. What each fault
// does to the library is walked by the fault matrix.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <orvo/vcam/faults.hpp>
#include <orvo/vcam/statistics.hpp>
#include "frame_geometry.h"
#include "run_capture.h"
#include "trailer.h"
#include "v4l2_client.h"

using orvo::vcam::FaultPlan;
using orvo_test::ScopedEnv;
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
    FaultPlan bad = FaultPlan::parse("DQBUF,DQBUF@0=EIO,DQBUF=EWHAT,DQBUF=EIO:0,REQBUFS=grant:33,G_STD=EIO,"
                                     "unplug=EIO,unplug@2=5m,unplug=2s:2,QBUF=EIO",
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
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'G_STD=EIO': unknown target 'G_STD'\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'unplug=EIO': unplug needs the time away, 'EIO' is none (Ns, Nms or "
        "N frames as Nf)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'unplug@2=5m': unplug needs the time away, '5m' is none (Ns, Nms or "
        "N frames as Nf)\n"
        "orvo-vcam: ORVO_VCAM_FAULTS: ignoring 'unplug=2s:2': unplug happens once, at dequeue N: no ':K' "
        "(unplug@N=T)\n",
        complaints);

    // The unplug's two spellings and three units; it hits its one call only.
    complaints.clear();
    FaultPlan unplugs = FaultPlan::parse("unplug@5=2s,UNPLUG@7+250ms,unplug=30f", &complaints);
    EXPECT_EQ("", complaints);
    ASSERT_EQ(3u, unplugs.entries().size());
    const auto& two_s = unplugs.entries()[0];
    EXPECT_EQ(orvo::vcam::FaultAction::Unplug, two_s.action);
    EXPECT_EQ(2000000000, two_s.away_ns);
    EXPECT_TRUE(two_s.hits(5));
    EXPECT_FALSE(two_s.hits(6));
    EXPECT_EQ(7u, unplugs.entries()[1].from);
    EXPECT_EQ(250000000, unplugs.entries()[1].away_ns);
    EXPECT_EQ(30u, unplugs.entries()[2].away_frames);
    EXPECT_EQ(0, unplugs.entries()[2].away_ns);
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

// The cable pulled at the third dequeue: every request of the session fails with ENODEV, poll says
// POLLERR, the node is gone (ENOENT) for the time away, then a new session goes on with later
// sequence numbers, timestamps and ticks, and does not unplug again. Away by time and by frames
// (30 at 100 fps), in both spellings.
TEST(VcamFaults, UnplugFailsTheSessionHidesTheNodeAndTheReplugContinuesLater) {
    for (const char* fault : {"unplug@3=300ms", "UNPLUG@3+30f"}) {
        SCOPED_TRACE(fault);
        ScopedEnv env{{"ORVO_VCAM_DEVICE", kNode}, {"ORVO_VCAM_SOURCE", "pattern"}, {"ORVO_VCAM_FPS", "100"},
                      {"ORVO_VCAM_TRUTH", nullptr},  {"ORVO_VCAM_FAULTS", fault},     {"ORVO_VCAM_LOG", nullptr}};
        auto ticksOf = [](const V4l2Client& c, const v4l2_buffer& b) {
            uint32_t ticks = 0;
            EXPECT_TRUE(orvo::trailer::frameTicks(c.data(b.index), orvo::frame::kBytes, &ticks));
            return ticks;
        };
        V4l2Client old(kNode);
        ASSERT_EQ(0, old.start(4));
        v4l2_buffer b;
        uint32_t last_ticks = 0;
        for (int k = 0; k < 2; ++k) {
            ASSERT_EQ(0, old.dequeue(&b));
            last_ticks = ticksOf(old, b);
            ASSERT_EQ(0, old.queue(b.index));
        }
        const v4l2_buffer last = b;
        EXPECT_EQ(ENODEV, old.dequeue(&b));
        const auto unplugged = std::chrono::steady_clock::now();
        v4l2_capability cap;
        EXPECT_EQ(ENODEV, old.call(VIDIOC_QUERYCAP, &cap));
        EXPECT_EQ(ENODEV, old.queue(last.index));
        EXPECT_EQ(ENODEV, old.streamOn());
        EXPECT_EQ(ENODEV, old.dequeue(&b));
        pollfd p{old.fd(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&p, 1, 1000));
        EXPECT_EQ(POLLERR, p.revents);
        EXPECT_FALSE(orvo::vcam::statistics(kNode).present);
        EXPECT_EQ(ENOENT, V4l2Client(kNode).openError());
        // Gone from the file system too, as a camera pulled out; its descriptor still answers fstat.
        struct stat st;
        EXPECT_EQ(-1, ::stat(kNode, &st));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_EQ(-1, ::access(kNode, F_OK));
        EXPECT_EQ(-1, ::stat("/sys/dev/char/81:102/uevent", &st));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_EQ(nullptr, std::fopen("/sys/class/video4linux/video102/name", "r"));
        ASSERT_EQ(0, ::fstat(old.fd(), &st));
        EXPECT_EQ(makedev(81, 102), st.st_rdev);

        std::unique_ptr<V4l2Client> fresh;
        while (!fresh && std::chrono::steady_clock::now() - unplugged < std::chrono::seconds(5)) {
            fresh.reset(new V4l2Client(kNode));
            if (fresh->openError() == 0) break;
            EXPECT_EQ(ENOENT, fresh->openError());
            fresh.reset();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ASSERT_TRUE(fresh);
        EXPECT_GE(std::chrono::steady_clock::now() - unplugged, std::chrono::milliseconds(290));
        EXPECT_TRUE(orvo::vcam::statistics(kNode).present);
        EXPECT_EQ(0, ::access(kNode, R_OK)) << "back with the replug";
        EXPECT_EQ(ENODEV, old.call(VIDIOC_QUERYCAP, &cap)) << "the old descriptors stay dead";
        EXPECT_EQ(0, old.close());
        ASSERT_EQ(0, fresh->start(4));
        for (int k = 0; k < 6; ++k) {  // past the third dequeue of the node's life: no second unplug
            ASSERT_EQ(0, fresh->dequeue(&b)) << k;
            if (k == 0) {
                // About 30 frames fell due while away: all of them are skipped.
                EXPECT_GE(b.sequence, last.sequence + 29);
                EXPECT_GE(ticksOf(*fresh, b) - last_ticks, 290000u);
                EXPECT_GT(b.timestamp.tv_sec * 1000000 + b.timestamp.tv_usec,
                          last.timestamp.tv_sec * 1000000 + last.timestamp.tv_usec + 290000);
            }
            ASSERT_EQ(0, fresh->queue(b.index));
        }
    }
}

}  // namespace
