// Every fault the virtual camera documents and accepts, walked against the facade's whole life
// (construct, Grab loop, destroy): one row per fault with its exact transcript and exit status.
#include <malloc.h>
#include <cerrno>
#include <regex>
#include <set>
#include "calib_fixture.h"
#include "engine_test_support.h"
#include <orvo/vcam/faults.hpp>

using namespace engine_test;

namespace {

const std::string kNode = VirtualCamera::device();
const std::string kOpened = "Orvo Video Open Finish\n", kSetUp = kOpened + "Orvo Camera Setting OK \n";
const std::string kGetFrameErr = " QAXMStereoCamera get_frame errr\n";
const std::string kDeadTeardown = "stoping video streaming failclose error 9, Bad file descriptor\n";
constexpr int kGrabs = 4;
std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }
std::string cannotOpen(int e) { return "Cannot open '" + kNode + "': " + errText(e) + "\n"; }
std::string cannotIdentify(int e) { return "Cannot identify '" + kNode + "': " + errText(e) + "\n"; }
std::string failed(const std::string& label, int e) { return label + " error " + errText(e) + "\n"; }

// Three frames with 3, 0 and 19 trailer records: a grab's images, time and count tell which it saw.
struct Recording {
    std::vector<Frame> frames;
    std::string path;
    explicit Recording(const TempDir& dir) {
        std::mt19937 rng(77);
        for (uint8_t count : {3, 0, 19}) frames.push_back(randomFrame(rng, count));
        path = writeRaw(dir, frames);
    }
    uint32_t time(size_t k) const { return slotTime(frames[k], kCookedBlockFromEnd, frames[k].back()); }
    // "f<k>" when the pair is frame k's split, "zero" when both are black, "?" otherwise.
    std::string identify(const cv::Mat& first, const cv::Mat& second) const {
        for (size_t k = 0; k < frames.size(); ++k)
            if (sameImage(first, interleavedImage(frames[k], 1)) && sameImage(second, interleavedImage(frames[k], 0)))
                return "f" + std::to_string(k);
        return !first.empty() && !second.empty() && cv::countNonZero(first) + cv::countNonZero(second) == 0 ? "zero" : "?";
    }
};

// The transcript a row expects: the library's messages between the markers the child prints.
struct Transcript {
    const Recording& rec;
    std::string out;
    int next;
    Transcript& text(const std::string& s) { return out += s, *this; }
    Transcript& line(const std::string& pair, uint32_t time, size_t imu) {
        return text("[grab " + std::to_string(++next) + " rect=0 org=" + pair + " rimg=" + pair +
                    " time=" + std::to_string(time) + " imu=" + std::to_string(imu) + "]\n");
    }
    // A grab of frame k; n healthy grabs; n that changed nothing (before any frame, black pairs).
    Transcript& grab(size_t k) { return line("f" + std::to_string(k), rec.time(k), rec.frames[k].back()); }
    Transcript& grabs(int n) { return n ? grab(size_t(next) % rec.frames.size()).grabs(n - 1) : *this; }
    Transcript& unchanged(int n) { return n ? line("zero", 0, 0).unchanged(n - 1) : *this; }
    // A failed dequeue before any frame; a failed dequeue or requeue after one (the last frame again).
    Transcript& failedFirst(int e) { return text(failed("VIDIOC_DQBUF", e) + kGetFrameErr).unchanged(1); }
    Transcript& failedThen(const std::string& dq, int e, size_t last) {
        return text(failed(dq, e) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(last);
    }
    Transcript& dead(size_t last) { return failedThen("VIDIOC_DQBUF", EBADF, last); }
    std::string destroyed(const std::string& teardown = "") { return text(teardown + "[destroyed]\n").out; }
};

// A transcript may hold {E} (an errno left to earlier calls) and {FD} (the node's descriptor).
struct Row { std::string faults, transcript; int exit_status; };

std::vector<Row> faultTable(const Recording& rec) {
    auto t = [&] { return Transcript{rec, kSetUp + "[constructed]\n", 0}; };
    const std::string healthy = t().grabs(kGrabs).destroyed(), end = kDeadTeardown;
    auto refused = [&](const std::string& why) {  // the capability check's refusals
        return kNode + why + "\nCannot identify '" + kNode + "': {E}\nCannot open '" + kNode + "': {E}\n";
    };
    auto atSetUp = [&](const std::string& label, int e) { return kOpened + failed(label, e) + cannotOpen(e); };
    const std::string unmapped = kOpened + "Unable to map buffer ", meminfo = kOpened + "/proc/meminfo can't open\n";
    const std::string few = kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + kNode + "': {E}\n";
    const std::string dead_from_start =
        t().failedFirst(EIO).failedFirst(EBADF).failedFirst(EBADF).failedFirst(EBADF).destroyed(end);
    std::vector<Row> rows = {
        {"open=ENODEV", cannotOpen(ENODEV) + cannotIdentify(ENODEV) + cannotOpen(ENODEV), 1},
        {"QUERYCAP=EINVAL", kNode + " is no V4L2 device\n" + cannotIdentify(EINVAL) + cannotOpen(EINVAL), 1},
        {"QUERYCAP=EIO", failed("VIDIOC_QUERYCAP", EIO) + cannotIdentify(EIO) + cannotOpen(EIO), 1},
        {"caps=no-capture", refused(" is no video capture device"), 1},
        {"caps=no-streaming", refused(" does not support streaming i/o"), 1},
        {"meminfo=no-memfree", kOpened + "Cannot open '" + kNode + "': {E}\n", 1},
        {"meminfo=unreadable", meminfo + cannotOpen(EACCES), 1}, {"meminfo=EIO", meminfo + cannotOpen(EIO), 1},
        {"REQBUFS=EINVAL", kOpened + "{FD} does not support memory mapping\n" + cannotOpen(EINVAL), 1},
        {"REQBUFS=grant:0", few, 1}, {"REQBUFS=grant:1", few, 1},
        {"REQBUFS=grant:2", atSetUp("VIDIOC_QUERYBUF", EINVAL), 1},  // two granted, six still asked for
        {"QUERYBUF=bad-offset", unmapped + "0 (22)\n" + cannotOpen(EINVAL), 1},
        {"QUERYBUF@6=bad-offset", unmapped + "5 (22)\n" + cannotOpen(EINVAL), 1},
        {"STREAMON=EPIPE", kSetUp + "starting video streaming fail", 1},
        // A failed dequeue or requeue closes the node; later grabs report both and reuse the last frame.
        {"DQBUF=EIO", dead_from_start, 0},
        {"ioctl@22=EIO:1", dead_from_start, 0},  // the 22nd request is the first dequeue
        {"DQBUF@3=EIO", t().grabs(2).failedThen("VIDIOC_DQBUF", EIO, 1).dead(1).destroyed(end), 0},
        {"DQBUF@2=ENODEV", t().grabs(1).failedThen("VIDIOC_DQBUF", ENODEV, 0).dead(0).dead(0).destroyed(end), 0},
        // The cable pulled at the second dequeue looks the same: the node is closed before it returns.
        {"unplug@2=1s", t().grabs(1).failedThen("VIDIOC_DQBUF", ENODEV, 0).dead(0).dead(0).destroyed(end), 0},
        // EAGAIN closes before the message; a failing close shows in the errno it prints.
        {"DQBUF@4=EAGAIN", t().grabs(3).failedThen("VIDIOC_DQBUF EAGAIN", EAGAIN, 2).destroyed(end), 0},
        {"DQBUF@2=EAGAIN,close=EIO",
         t().grabs(1).failedThen("VIDIOC_DQBUF EAGAIN", EIO, 0).dead(0).dead(0).destroyed(end), 0},
        {"QBUF@7=EIO",  // six queued at start-up, so the 7th is the first grab's requeue
         t().text(failed("VIDIOC_QBUF", EIO)).grab(0).dead(0).dead(0).dead(0).destroyed(end), 0},
        {"QBUF@9=EBUSY:1", t().grabs(2).text(failed("VIDIOC_QBUF", EBUSY)).grab(2).dead(2).destroyed(end), 0},
        // Frames that arrive empty leave every output as it was.
        {"bytesused=0", t().unchanged(kGrabs).destroyed(), 0},
        {"bytesused@3=0", t().grabs(2).line("f1", rec.time(1), 0).line("f1", rec.time(1), 0).destroyed(), 0},
        {"STREAMOFF=EIO", t().grabs(kGrabs).destroyed("stoping video streaming fail"), 0},
        {"close=EIO", t().grabs(kGrabs).destroyed(failed("close", EIO)), 0},
    };
    // A set-up request failing: its message, then the node is reported unopenable.
    for (const std::string f : {"S_FMT=EINVAL", "G_PARM=EIO", "G_PARM@2=ENOTTY", "S_PARM=EINVAL", "REQBUFS=ENOMEM",
                                "QUERYBUF=EIO", "QUERYBUF@6=ENOMEM", "QBUF=EIO", "QBUF@6=EINVAL"})
        rows.push_back({f, atSetUp("VIDIOC_" + f.substr(0, f.find_first_of("@=")),
                                   orvo::vcam::errnoFromName(f.substr(f.find('=') + 1))), 1});
    // Faults that change nothing: the node is opened once, cropping is optional, interrupted requests
    // are reissued wherever they fall, spare buffers do no harm, the other requests are never issued.
    for (const char* none : {"open@2=EBUSY", "CROPCAP=EINVAL", "CROPCAP=ENOTTY", "S_CROP=EIO", "REQBUFS=grant:32",
                             "ioctl=EINTR:3", "ioctl@20=EINTR:5", "DQBUF=EINTR:2", "STREAMOFF=EINTR:2", "G_CROP=EIO",
                             "G_FMT=EIO", "TRY_FMT=EIO", "ENUM_FMT=EIO", "ENUM_FRAMESIZES=EIO",
                             "ENUM_FRAMEINTERVALS=EIO", "ENUMINPUT=EIO", "G_INPUT=EIO", "S_INPUT=EIO",
                             "QUERYCTRL=EIO", "G_CTRL=EIO", "S_CTRL=EIO"})
        rows.push_back({none, healthy, 0});
    return rows;
}

// Matches a transcript with {FD} and {E} placeholders; every {E} must be one errno with its text.
void expectTranscript(const std::string& expected, const std::string& actual) {
    std::string pattern;
    for (char c : expected) pattern += std::string(std::strchr("\\^$.|?*+()[]{}", c) ? "\\" : "") + c;
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{FD\\\})"), "[0-9]+");
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{E\\\})"), "([0-9]+, [^\\n]*)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(actual, m, std::regex(pattern))) << "expected:\n" << expected << "\nactual:\n" << actual;
    for (size_t i = 1; i < m.size(); ++i) EXPECT_EQ(m[i].str(), errText(std::stoi(m[1].str())));
}

}  // namespace

// The table first: each target the README's TARGET bullet names and the parser takes with an errno
// needs a row failing it so, each special action of its ACTION bullet a row. Then each row in a
// child, whose heap blocks come back filled with a pattern so that unwritten pixels are not black.
TEST(FaultMatrix, EveryFaultTheCameraOffersGivesItsDefinedOutcomeOverTheFacadesLife) {
    TempDir dir;
    Recording rec(dir);
    const std::vector<Row> table = faultTable(rec);
    const std::string readme = orvo_test::readFile(ORVO_SOURCE_DIR "/virtual_camera/README.md");
    const size_t from = readme.find("\n- `TARGET`"), to = readme.find("\n- ", readme.find("\n- `ACTION`") + 1);
    ASSERT_TRUE(from < to && to != std::string::npos);
    std::set<std::string> targets, with_errno;
    std::set<int> special_actions, actions;
    const std::regex tick("`([^`]+)`"), count(":K$");
    for (std::sregex_iterator it(readme.begin() + from, readme.begin() + to, tick), e; it != e; ++it) {
        const std::string name = (*it)[1].str();  // a target, or a special action such as "REQBUFS=grant:K"
        const bool is_target = name.find('=') == std::string::npos;
        const std::string entry = is_target ? name + "=EIO" : std::regex_replace(name, count, ":1");
        const auto plan = orvo::vcam::FaultPlan::parse(entry, nullptr);
        if (plan.entries().size() == 1 && is_target) targets.insert(name);
        else if (plan.entries().size() == 1) special_actions.insert(int(plan.entries()[0].action));
    }
    ASSERT_TRUE(targets.size() >= 28 && special_actions.size() >= 7);  // 24 requests, ioctl, open, close, meminfo
    for (const Row& row : table) {
        std::string complaints;
        const orvo::vcam::FaultPlan plan = orvo::vcam::FaultPlan::parse(row.faults, &complaints);
        EXPECT_EQ(complaints, "");
        for (const orvo::vcam::Fault& f : plan.entries()) {
            if (f.action == orvo::vcam::FaultAction::Errno) with_errno.insert(f.text.substr(0, f.text.find_first_of("@=")));
            actions.insert(int(f.action));
        }
    }
    for (const std::string& t : targets) EXPECT_TRUE(with_errno.count(t)) << "no row fails target " << t;
    for (int a : special_actions) EXPECT_TRUE(actions.count(a)) << "no row for special action " << a;

    for (const Row& row : table) {
        SCOPED_TRACE(row.faults);
        orvo_test::Captured c = orvo_test::runInChild([&] {
            mallopt(M_MMAP_THRESHOLD, 256 << 20);
            mallopt(M_PERTURB, 0x5a);
            VirtualCamera cam("raw:" + rec.path, row.faults);
            OrvoCameraParameterList p;
            p.device_path = kNode;
            OrvoCamera* camera = new OrvoCamera(p);
            std::printf("[constructed]\n");
            for (int k = 1; k <= kGrabs; ++k) {
                const bool rectified = camera->Grab();
                std::printf("[grab %d rect=%d org=%s rimg=%s time=%u imu=%zu]\n", k, int(rectified),
                            rec.identify(camera->org_image_1, camera->org_image_2).c_str(),
                            rec.identify(camera->rect_image_1, camera->rect_image_2).c_str(),
                            camera->getImgTime(), camera->imu_samples.size());
                std::fflush(stdout);
            }
            delete camera;
            std::printf("[destroyed]\n");
        });
        expectTranscript(row.transcript, c.out);
        EXPECT_EQ(c.exit_status, row.exit_status);
        EXPECT_EQ(c.signal, 0);
        EXPECT_EQ(c.err, "");
    }
}
