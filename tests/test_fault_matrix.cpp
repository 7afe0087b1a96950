// Every fault the virtual camera can inject, walked against the facade's whole life (construct,
// Grab loop, destroy): one row per fault with the exact transcript and exit status it must give.
// The table is checked against the targets and special actions the virtual camera documents and
// accepts, so a new failure branch without a row fails here.
#include <malloc.h>

#include <cerrno>
#include <regex>
#include <set>
#include <sstream>

#include "engine_test_support.h"
#include "faults.h"

using namespace engine_test;

namespace {

const std::string kNode = VirtualCamera::device();
const std::string kOpened = "Orvo Video Open Finish\n";
const std::string kSetUp = kOpened + "Orvo Camera Setting OK \n";
const std::string kGetFrameErr = " QAXMStereoCamera get_frame errr\n";
const std::string kDeadTeardown = "stoping video streaming failclose error 9, Bad file descriptor\n";
constexpr int kGrabs = 4;

std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }
std::string cannotOpen(int e) { return "Cannot open '" + kNode + "': " + errText(e) + "\n"; }
std::string cannotIdentify(int e) { return "Cannot identify '" + kNode + "': " + errText(e) + "\n"; }
std::string failed(const std::string& label, int e) { return label + " error " + errText(e) + "\n"; }

// Three frames whose trailers carry 3, 0 and 19 records, so that every grab's images, frame time
// and sample count tell which frame it saw.
struct Recording {
    std::vector<Frame> frames;
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
        if (!first.empty() && !second.empty() && cv::countNonZero(first) + cv::countNonZero(second) == 0)
            return "zero";
        return "?";
    }
    std::string path;
};

// The transcript a row expects: the library's messages between the markers the child prints.
class Transcript {
public:
    explicit Transcript(const Recording& rec) : rec_(rec) {}
    Transcript& text(const std::string& s) { out_ += s; return *this; }
    Transcript& constructed() { return text(kSetUp + "[constructed]\n"); }
    // A grab that saw recorded frame k, and n healthy ones continuing the recording's loop.
    Transcript& grab(size_t k) { return line("f" + std::to_string(k), rec_.time(k), rec_.frames[k].back()); }
    Transcript& grabs(int n) {
        for (int i = 0; i < n; ++i) grab(size_t(next_) % rec_.frames.size());
        return *this;
    }
    // A grab that changed nothing: before any frame both pairs are black.
    Transcript& unchanged(const std::string& pair = "zero", uint32_t time = 0, size_t imu = 0) {
        return line(pair, time, imu);
    }
    // A failed dequeue, before any frame was dequeued (so nothing is requeued or reused).
    Transcript& failedFirst(int e) { return text(failed("VIDIOC_DQBUF", e) + kGetFrameErr).unchanged(); }
    // A failed dequeue or requeue, then the frame last handed out again.
    Transcript& failedThen(const std::string& dq, int e, size_t last) {
        return text(failed(dq, e) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(last);
    }
    Transcript& dead(size_t last) { return failedThen("VIDIOC_DQBUF", EBADF, last); }
    std::string destroyed(const std::string& teardown = "") { return text(teardown + "[destroyed]\n").out_; }

private:
    Transcript& line(const std::string& pair, uint32_t time, size_t imu) {
        return text("[grab " + std::to_string(++next_) + " rect=0 org=" + pair + " rimg=" + pair +
                    " time=" + std::to_string(time) + " imu=" + std::to_string(imu) + "]\n");
    }
    const Recording& rec_;
    std::string out_;
    int next_ = 0;
};

struct Row {
    std::string faults;
    std::string transcript;  // may hold {E} (an errno left to earlier calls) and {FD} (the node)
    int exit_status;
};

std::vector<Row> faultTable(const Recording& rec) {
    auto t = [&] { return Transcript(rec); };
    const std::string healthy = t().constructed().grabs(kGrabs).destroyed();
    const std::string anyErr = "{E}\n";
    auto refused = [&](const std::string& why) {  // the capability check's refusals
        return kNode + why + "\nCannot identify '" + kNode + "': " + anyErr + "Cannot open '" + kNode + "': " + anyErr;
    };
    auto atSetUp = [&](const std::string& label, int e) { return kOpened + failed(label, e) + cannotOpen(e); };
    const std::string insufficient = kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + kNode + "': " + anyErr;
    const std::string deadFromStart =
        t().constructed().failedFirst(EIO).failedFirst(EBADF).failedFirst(EBADF).failedFirst(EBADF).destroyed(kDeadTeardown);
    std::vector<Row> rows = {
        {"open=ENODEV", cannotOpen(ENODEV) + cannotIdentify(ENODEV) + cannotOpen(ENODEV), 1},
        {"open@2=EBUSY", healthy, 0},  // the library opens the node once
        {"QUERYCAP=EINVAL", kNode + " is no V4L2 device\n" + cannotIdentify(EINVAL) + cannotOpen(EINVAL), 1},
        {"QUERYCAP=EIO", failed("VIDIOC_QUERYCAP", EIO) + cannotIdentify(EIO) + cannotOpen(EIO), 1},
        {"caps=no-capture", refused(" is no video capture device"), 1},
        {"caps=no-streaming", refused(" does not support streaming i/o"), 1},
        // Cropping is optional: a driver without it changes nothing.
        {"CROPCAP=EINVAL", healthy, 0},
        {"CROPCAP=ENOTTY", healthy, 0},
        {"S_CROP=EIO", healthy, 0},
        {"S_FMT=EINVAL", atSetUp("VIDIOC_S_FMT", EINVAL), 1},
        {"G_PARM=EIO", atSetUp("VIDIOC_G_PARM", EIO), 1},
        {"G_PARM@2=ENOTTY", atSetUp("VIDIOC_G_PARM", ENOTTY), 1},
        {"S_PARM=EINVAL", atSetUp("VIDIOC_S_PARM", EINVAL), 1},
        {"meminfo=no-memfree", kOpened + "Cannot open '" + kNode + "': " + anyErr, 1},
        {"meminfo=unreadable", kOpened + "/proc/meminfo can't open\n" + cannotOpen(EACCES), 1},
        {"meminfo=EIO", kOpened + "/proc/meminfo can't open\n" + cannotOpen(EIO), 1},
        {"REQBUFS=EINVAL", kOpened + "{FD} does not support memory mapping\n" + cannotOpen(EINVAL), 1},
        {"REQBUFS=ENOMEM", atSetUp("VIDIOC_REQBUFS", ENOMEM), 1},
        {"REQBUFS=grant:0", insufficient, 1},
        {"REQBUFS=grant:1", insufficient, 1},
        {"REQBUFS=grant:2", atSetUp("VIDIOC_QUERYBUF", EINVAL), 1},  // two granted, six still asked for
        {"REQBUFS=grant:32", healthy, 0},
        {"QUERYBUF=EIO", atSetUp("VIDIOC_QUERYBUF", EIO), 1},
        {"QUERYBUF@6=ENOMEM", atSetUp("VIDIOC_QUERYBUF", ENOMEM), 1},
        {"QUERYBUF=bad-offset", kOpened + "Unable to map buffer 0 (22)\n" + cannotOpen(EINVAL), 1},
        {"QUERYBUF@6=bad-offset", kOpened + "Unable to map buffer 5 (22)\n" + cannotOpen(EINVAL), 1},
        {"QBUF=EIO", atSetUp("VIDIOC_QBUF", EIO), 1},
        {"QBUF@6=EINVAL", atSetUp("VIDIOC_QBUF", EINVAL), 1},
        {"STREAMON=EPIPE", kSetUp + "starting video streaming fail", 1},
        // Interrupted requests are reissued, wherever they fall.
        {"ioctl=EINTR:3", healthy, 0},
        {"ioctl@20=EINTR:5", healthy, 0},
        {"DQBUF=EINTR:2", healthy, 0},
        {"STREAMOFF=EINTR:2", healthy, 0},
        // A failed dequeue or requeue closes the node; every later grab reports both failures and
        // hands out the frame last dequeued again.
        {"DQBUF=EIO", deadFromStart, 0},
        {"ioctl@22=EIO:1", deadFromStart, 0},  // the 22nd request is the first dequeue
        {"DQBUF@3=EIO", t().constructed().grabs(2).failedThen("VIDIOC_DQBUF", EIO, 1).dead(1).destroyed(kDeadTeardown), 0},
        {"DQBUF@2=ENODEV",
         t().constructed().grabs(1).failedThen("VIDIOC_DQBUF", ENODEV, 0).dead(0).dead(0).destroyed(kDeadTeardown), 0},
        // EAGAIN closes before the message; a failing close shows in the errno it prints.
        {"DQBUF@4=EAGAIN", t().constructed().grabs(3).failedThen("VIDIOC_DQBUF EAGAIN", EAGAIN, 2).destroyed(kDeadTeardown), 0},
        {"DQBUF@2=EAGAIN,close=EIO",
         t().constructed().grabs(1).failedThen("VIDIOC_DQBUF EAGAIN", EIO, 0).dead(0).dead(0).destroyed(kDeadTeardown), 0},
        {"QBUF@7=EIO",  // six queued at start-up, so the 7th is the first grab's requeue
         t().constructed().text(failed("VIDIOC_QBUF", EIO)).grab(0).dead(0).dead(0).dead(0).destroyed(kDeadTeardown), 0},
        {"QBUF@9=EBUSY:1",
         t().constructed().grabs(2).text(failed("VIDIOC_QBUF", EBUSY)).grab(2).dead(2).destroyed(kDeadTeardown), 0},
        // Frames that arrive empty leave every output as it was.
        {"bytesused=0", t().constructed().unchanged().unchanged().unchanged().unchanged().destroyed(), 0},
        {"bytesused@3=0",
         t().constructed().grabs(2).unchanged("f1", rec.time(1), 0).unchanged("f1", rec.time(1), 0).destroyed(), 0},
        {"STREAMOFF=EIO", t().constructed().grabs(kGrabs).destroyed("stoping video streaming fail"), 0},
        {"close=EIO", t().constructed().grabs(kGrabs).destroyed(failed("close", EIO)), 0},
    };
    // Requests the library never issues: failing them changes nothing.
    for (const char* unused : {"G_CROP", "G_FMT", "TRY_FMT", "ENUM_FMT", "ENUM_FRAMESIZES", "ENUM_FRAMEINTERVALS",
                               "ENUMINPUT", "G_INPUT", "S_INPUT", "QUERYCTRL", "G_CTRL", "S_CTRL"})
        rows.push_back({std::string(unused) + "=EIO", healthy, 0});
    return rows;
}

// Matches a transcript with {FD} and {E} placeholders; every {E} must be one errno with its text.
void expectTranscript(const std::string& expected, const std::string& actual) {
    if (expected.find('{') == std::string::npos) {
        EXPECT_EQ(actual, expected);
        return;
    }
    std::string pattern;
    for (char c : expected) pattern += std::strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{FD\\\})"), "[0-9]+");
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{E\\\})"), "([0-9]+), ([^\\n]*)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(actual, m, std::regex(pattern))) << "expected:\n" << expected << "\nactual:\n" << actual;
    for (size_t i = 1; i + 1 < m.size(); i += 2) {
        EXPECT_EQ(m[i].str(), m[1].str());
        EXPECT_EQ(m[i + 1].str(), std::strerror(std::stoi(m[i].str())));
    }
}

std::set<std::string> backticked(const std::string& text) {
    std::set<std::string> out;
    std::regex tick("`([^`]+)`");
    for (std::sregex_iterator it(text.begin(), text.end(), tick), e; it != e; ++it) out.insert((*it)[1].str());
    return out;
}

}  // namespace

TEST(FaultMatrix, TheTableCoversEveryFaultTheCameraOffers) {
    TempDir dir;
    Recording rec(dir);
    std::stringstream text;
    text << std::ifstream(ORVO_SOURCE_DIR "/virtual_camera/README.md").rdbuf();
    const std::string readme = text.str();
    // The README's bullets "- `TARGET`" and "- `ACTION`", continuation lines included.
    auto bullet = [&](const std::string& name) {
        const size_t start = readme.find("\n- `" + name + "`");
        return start == std::string::npos ? "" : readme.substr(start, readme.find("\n- ", start + 1) - start);
    };
    std::set<std::string> targets, special_actions;
    for (const std::string& t : backticked(bullet("TARGET")))
        if (t != "TARGET" && t != "VIDIOC_") targets.insert(t);
    for (const std::string& a : backticked(bullet("ACTION"))) {
        std::smatch m;
        if (std::regex_match(a, m, std::regex(R"(([A-Za-z_]+)=([a-z0-9-]+)(:K)?)")))
            special_actions.insert(m[1].str() + "=" + m[2].str());
    }
    ASSERT_GE(targets.size(), 30u);
    ASSERT_GE(special_actions.size(), 7u);

    std::set<std::string> with_errno, actions;
    for (const Row& row : faultTable(rec)) {
        std::string complaints;
        auto plan = orvo::vcam::FaultPlan::parse(row.faults, &complaints);
        EXPECT_EQ(complaints, "") << row.faults;
        std::stringstream s(row.faults);
        size_t n = 0;
        for (std::string e; std::getline(s, e, ','); ++n) {
            const size_t eq = e.find('=');
            const std::string target = e.substr(0, e.find_first_of("@=")), action = e.substr(eq + 1);
            EXPECT_TRUE(targets.count(target)) << "row for an undocumented target: " << e;
            const std::string bare = action.rfind("grant:", 0) == 0 ? "grant" : action.substr(0, action.find(':'));
            if (orvo::vcam::errnoFromName(bare) != 0) with_errno.insert(target);
            else actions.insert(target + "=" + bare);
        }
        EXPECT_EQ(plan.entries().size(), n) << row.faults;
    }
    // Every target that takes an errno has a row failing it with one, every special action a row.
    for (const std::string& t : targets) {
        std::string complaints;
        orvo::vcam::FaultPlan::parse(t + "=EIO", &complaints);
        if (complaints.empty()) {
            EXPECT_TRUE(with_errno.count(t)) << "no row fails target " << t;
        }
    }
    EXPECT_EQ(actions, special_actions);
}

TEST(FaultMatrix, EveryFaultGivesItsDefinedOutcomeOverTheFacadesLife) {
    TempDir dir;
    Recording rec(dir);
    ASSERT_NE(rec.time(0), rec.time(1));
    for (const Row& row : faultTable(rec)) {
        SCOPED_TRACE(row.faults);
        // In a child; heap blocks come back filled with a pattern, so unwritten pixels are not black.
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
                            rec.identify(camera->rect_image_1, camera->rect_image_2).c_str(), camera->getImgTime(),
                            camera->imu_samples.size());
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
