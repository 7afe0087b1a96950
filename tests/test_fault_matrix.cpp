// Every fault the virtual camera can inject, walked against the facade's whole life (construct,
// Grab loop, destroy): one row per fault with the exact transcript and exit status it must give.
// The table is checked against the fault targets and special actions the virtual camera documents
// and accepts, so a new failure branch without a row fails here.
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrvoCamera.h"
#include "faults.h"
#include "requests.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

const std::string kNode = "/dev/video-virtual-faults";
const std::string kOpened = "Orvo Video Open Finish\n";
const std::string kSetUp = kOpened + "Orvo Camera Setting OK \n";
const std::string kGetFrameErr = " QAXMStereoCamera get_frame errr\n";
const std::string kDeadTeardown =
    "stoping video streaming fail" + std::string("close error 9, Bad file descriptor\n");
constexpr int kGrabs = 4;
constexpr size_t kFrameBytes = 752 * 480 * 2;

std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }
std::string cannotOpen(int e) { return "Cannot open '" + kNode + "': " + errText(e) + "\n"; }
std::string cannotIdentify(int e) { return "Cannot identify '" + kNode + "': " + errText(e) + "\n"; }
std::string failed(const std::string& label, int e) { return label + " error " + errText(e) + "\n"; }

// Three recorded frames of random pixels whose trailers carry 3, 0 and 19 records, so that every
// grab's images, frame time and sample count tell which frame it saw.
struct Recording {
    std::vector<std::vector<uint8_t>> frames;
    std::vector<uint32_t> times;
    std::vector<size_t> counts;
    std::vector<cv::Mat> odd, even;

    explicit Recording(const std::string& path) {
        std::mt19937 rng(77);
        std::uniform_int_distribution<int> byte(0, 255);
        std::ofstream out(path, std::ios::binary);
        for (uint8_t count : {3, 0, 19}) {
            std::vector<uint8_t> f(kFrameBytes);
            for (auto& b : f) b = uint8_t(byte(rng));
            f.back() = count;
            const uint8_t* slot = f.data() + f.size() - 489 + 24 * count;
            times.push_back(uint32_t(slot[0]) | uint32_t(slot[1]) << 8 | uint32_t(slot[2]) << 16 |
                            uint32_t(slot[3]) << 24);
            counts.push_back(count);
            cv::Mat o(480, 752, CV_8UC1), e(480, 752, CV_8UC1);
            for (size_t i = 0; i < o.total(); ++i) {
                e.data[i] = f[2 * i];
                o.data[i] = f[2 * i + 1];
            }
            odd.push_back(o);
            even.push_back(e);
            out.write(reinterpret_cast<const char*>(f.data()), std::streamsize(f.size()));
            frames.push_back(std::move(f));
        }
    }

    // "f<k>" when the pair is frame k's split, "zero" when both are black, "?" otherwise.
    std::string identify(const cv::Mat& first, const cv::Mat& second) const {
        auto same = [](const cv::Mat& a, const cv::Mat& b) {
            return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
        };
        for (size_t k = 0; k < frames.size(); ++k)
            if (same(first, odd[k]) && same(second, even[k])) return "f" + std::to_string(k);
        if (!first.empty() && !second.empty() && cv::countNonZero(first) == 0 &&
            cv::countNonZero(second) == 0)
            return "zero";
        return "?";
    }
};

// Builds the transcript a row expects: the library's own messages interleaved with the markers the
// child prints after construction, after each Grab and after destruction.
class Transcript {
public:
    explicit Transcript(const Recording& rec) : rec_(rec) {}

    Transcript& text(const std::string& s) {
        out_ += s;
        return *this;
    }
    Transcript& constructed() { return text(kSetUp + "[constructed]\n"); }
    // A grab that saw recorded frame k (its images, time and samples).
    Transcript& grab(size_t k) {
        return line("f" + std::to_string(k), "f" + std::to_string(k), rec_.times[k], rec_.counts[k]);
    }
    // Healthy grabs continuing the recording's loop.
    Transcript& grabs(int n) {
        for (int i = 0; i < n; ++i) grab(size_t(next_) % rec_.frames.size());
        return *this;
    }
    // A grab whose frame arrived with no bytes: nothing changes, the rectified pair is the engine's
    // current split, `rect` ("zero" before any frame was split).
    Transcript& emptyGrab(const std::string& org, const std::string& rect, uint32_t time, size_t imu) {
        return line(org, rect, time, imu);
    }
    // A grab on a dead device: the failed dequeue and requeue, then the frame last handed out again.
    Transcript& deadGrab(size_t last) {
        return text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF))
            .grab(last);
    }
    Transcript& destroyed(const std::string& teardown = "") { return text(teardown + "[destroyed]\n"); }
    std::string str() const { return out_; }

private:
    Transcript& line(const std::string& org, const std::string& rect, uint32_t time, size_t imu) {
        ++next_;
        return text("[grab " + std::to_string(next_) + " rect=0 org=" + org + " rimg=" + rect +
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

// The facade's life in a child under `faults`. Heap blocks come back filled with a pattern, so
// that pixels the library never wrote cannot pass for black.
orvo_test::Captured lifeInChild(const std::string& faults, const std::string& raw, const Recording& rec) {
    return orvo_test::runInChild([&] {
        mallopt(M_MMAP_THRESHOLD, 256 << 20);
        mallopt(M_PERTURB, 0x5a);
        setenv("ORVO_VCAM_DEVICE", kNode.c_str(), 1);
        setenv("ORVO_VCAM_FPS", "0", 1);
        setenv("ORVO_VCAM_SOURCE", ("raw:" + raw).c_str(), 1);
        setenv("ORVO_VCAM_FAULTS", faults.c_str(), 1);
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
}

// Matches `actual` against a transcript with {FD} and {E} placeholders; every {E} in one transcript
// must be the same errno and carry its own text.
void expectTranscript(const std::string& expected, const std::string& actual) {
    if (expected.find('{') == std::string::npos) {
        EXPECT_EQ(actual, expected);
        return;
    }
    std::string pattern;
    for (char c : expected)
        pattern += std::strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{FD\\\})"), "[0-9]+");
    pattern = std::regex_replace(pattern, std::regex(R"(\\\{E\\\})"), "([0-9]+), ([^\\n]*)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(actual, m, std::regex(pattern)))
        << "expected:\n" << expected << "\nactual:\n" << actual;
    for (size_t i = 1; i + 1 < m.size(); i += 2) {
        EXPECT_EQ(m[i].str(), m[1].str());
        EXPECT_EQ(m[i + 1].str(), std::strerror(std::stoi(m[i].str())));
    }
}

std::vector<Row> faultTable(const Recording& rec) {
    auto t = [&] { return Transcript(rec); };
    auto healthy = [&] { return t().constructed().grabs(kGrabs).destroyed().str(); };
    const std::string someErr = "{E}\n";
    std::vector<Row> rows = {
        // Opening the node.
        {"open=ENODEV", cannotOpen(ENODEV) + cannotIdentify(ENODEV) + cannotOpen(ENODEV), 1},
        {"open@2=EBUSY", healthy(), 0},  // the library opens the node once
        {"QUERYCAP=EINVAL", kNode + " is no V4L2 device\n" + cannotIdentify(EINVAL) + cannotOpen(EINVAL), 1},
        {"QUERYCAP=EIO", failed("VIDIOC_QUERYCAP", EIO) + cannotIdentify(EIO) + cannotOpen(EIO), 1},
        {"caps=no-capture", kNode + " is no video capture device\nCannot identify '" + kNode + "': " +
                                someErr + "Cannot open '" + kNode + "': " + someErr, 1},
        {"caps=no-streaming", kNode + " does not support streaming i/o\nCannot identify '" + kNode +
                                  "': " + someErr + "Cannot open '" + kNode + "': " + someErr, 1},
        // Cropping is optional: a driver without it changes nothing.
        {"CROPCAP=EINVAL", healthy(), 0},
        {"CROPCAP=ENOTTY", healthy(), 0},
        {"S_CROP=EIO", healthy(), 0},
        // Format, frame rate, memory check.
        {"S_FMT=EINVAL", kOpened + failed("VIDIOC_S_FMT", EINVAL) + cannotOpen(EINVAL), 1},
        {"G_PARM=EIO", kOpened + failed("VIDIOC_G_PARM", EIO) + cannotOpen(EIO), 1},
        {"G_PARM@2=ENOTTY", kOpened + failed("VIDIOC_G_PARM", ENOTTY) + cannotOpen(ENOTTY), 1},
        {"S_PARM=EINVAL", kOpened + failed("VIDIOC_S_PARM", EINVAL) + cannotOpen(EINVAL), 1},
        {"meminfo=no-memfree", kOpened + "Cannot open '" + kNode + "': " + someErr, 1},
        {"meminfo=unreadable", kOpened + "/proc/meminfo can't open\n" + cannotOpen(EACCES), 1},
        {"meminfo=EIO", kOpened + "/proc/meminfo can't open\n" + cannotOpen(EIO), 1},
        // Buffers.
        {"REQBUFS=EINVAL", kOpened + "{FD} does not support memory mapping\n" + cannotOpen(EINVAL), 1},
        {"REQBUFS=ENOMEM", kOpened + failed("VIDIOC_REQBUFS", ENOMEM) + cannotOpen(ENOMEM), 1},
        {"REQBUFS=grant:0", kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + kNode + "': " + someErr, 1},
        {"REQBUFS=grant:1", kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + kNode + "': " + someErr, 1},
        // Two are accepted, but six are still mapped: the driver refuses the third.
        {"REQBUFS=grant:2", kOpened + failed("VIDIOC_QUERYBUF", EINVAL) + cannotOpen(EINVAL), 1},
        {"REQBUFS=grant:32", healthy(), 0},
        {"QUERYBUF=EIO", kOpened + failed("VIDIOC_QUERYBUF", EIO) + cannotOpen(EIO), 1},
        {"QUERYBUF@6=ENOMEM", kOpened + failed("VIDIOC_QUERYBUF", ENOMEM) + cannotOpen(ENOMEM), 1},
        {"QUERYBUF=bad-offset", kOpened + "Unable to map buffer 0 (22)\n" + cannotOpen(EINVAL), 1},
        {"QUERYBUF@6=bad-offset", kOpened + "Unable to map buffer 5 (22)\n" + cannotOpen(EINVAL), 1},
        {"QBUF=EIO", kOpened + failed("VIDIOC_QBUF", EIO) + cannotOpen(EIO), 1},
        {"QBUF@6=EINVAL", kOpened + failed("VIDIOC_QBUF", EINVAL) + cannotOpen(EINVAL), 1},
        {"STREAMON=EPIPE", kSetUp + "starting video streaming fail", 1},
        // Interrupted requests are reissued, wherever they fall.
        {"ioctl=EINTR:3", healthy(), 0},
        {"ioctl@20=EINTR:5", healthy(), 0},
        {"DQBUF=EINTR:2", healthy(), 0},
        {"STREAMOFF=EINTR:2", healthy(), 0},
        // The grab loop: a failed dequeue or requeue closes the node; every later grab reports
        // both failures and hands out the frame last dequeued again.
        {"DQBUF=EIO",
         t().constructed()
             .text(failed("VIDIOC_DQBUF", EIO) + kGetFrameErr)
             .emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .destroyed(kDeadTeardown).str(), 0},
        {"ioctl@22=EIO:1",  // the 22nd request is the first dequeue
         t().constructed()
             .text(failed("VIDIOC_DQBUF", EIO) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .text(failed("VIDIOC_DQBUF", EBADF) + kGetFrameErr).emptyGrab("zero", "zero", 0, 0)
             .destroyed(kDeadTeardown).str(), 0},
        {"DQBUF@3=EIO",
         t().constructed().grabs(2)
             .text(failed("VIDIOC_DQBUF", EIO) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(1)
             .deadGrab(1).destroyed(kDeadTeardown).str(), 0},
        {"DQBUF@2=ENODEV",
         t().constructed().grabs(1)
             .text(failed("VIDIOC_DQBUF", ENODEV) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(0)
             .deadGrab(0).deadGrab(0).destroyed(kDeadTeardown).str(), 0},
        // EAGAIN closes before the message; a failing close shows in the errno it prints.
        {"DQBUF@4=EAGAIN",
         t().constructed().grabs(3)
             .text(failed("VIDIOC_DQBUF EAGAIN", EAGAIN) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(2)
             .destroyed(kDeadTeardown).str(), 0},
        {"DQBUF@2=EAGAIN,close=EIO",
         t().constructed().grabs(1)
             .text(failed("VIDIOC_DQBUF EAGAIN", EIO) + kGetFrameErr + failed("VIDIOC_QBUF", EBADF)).grab(0)
             .deadGrab(0).deadGrab(0).destroyed(kDeadTeardown).str(), 0},
        {"QBUF@7=EIO",  // six queued at start-up, so the 7th is the first grab's requeue
         t().constructed().text(failed("VIDIOC_QBUF", EIO)).grab(0)
             .deadGrab(0).deadGrab(0).deadGrab(0).destroyed(kDeadTeardown).str(), 0},
        {"QBUF@9=EBUSY:1",
         t().constructed().grabs(2).text(failed("VIDIOC_QBUF", EBUSY)).grab(2)
             .deadGrab(2).destroyed(kDeadTeardown).str(), 0},
        // Frames that arrive empty leave every output as it was.
        {"bytesused=0",
         t().constructed().emptyGrab("zero", "zero", 0, 0).emptyGrab("zero", "zero", 0, 0)
             .emptyGrab("zero", "zero", 0, 0).emptyGrab("zero", "zero", 0, 0).destroyed().str(), 0},
        {"bytesused@3=0",
         t().constructed().grabs(2)
             .emptyGrab("f1", "f1", rec.times[1], rec.counts[1])
             .emptyGrab("f1", "f1", rec.times[1], rec.counts[1]).destroyed().str(), 0},
        // Tear-down.
        {"STREAMOFF=EIO", t().constructed().grabs(kGrabs).destroyed("stoping video streaming fail").str(), 0},
        {"close=EIO", t().constructed().grabs(kGrabs).destroyed(failed("close", EIO)).str(), 0},
    };
    // Requests the library never issues: failing them changes nothing.
    for (const char* unused : {"G_CROP", "G_FMT", "TRY_FMT", "ENUM_FMT", "ENUM_FRAMESIZES",
                               "ENUM_FRAMEINTERVALS", "ENUMINPUT", "G_INPUT", "S_INPUT", "QUERYCTRL",
                               "G_CTRL", "S_CTRL"})
        rows.push_back({std::string(unused) + "=EIO", healthy(), 0});
    return rows;
}

// ---- what the virtual camera offers ----------------------------------------------------------------

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The lines of the README's bullet that starts with `- \`<name>\``, continuation lines included.
std::string readmeBullet(const std::string& readme, const std::string& name) {
    const std::string head = "- `" + name + "`";
    size_t start = readme.find("\n" + head);
    if (start == std::string::npos) return "";
    size_t end = readme.find("\n- ", start + 1);
    return readme.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::vector<std::string> backticked(const std::string& text) {
    std::vector<std::string> out;
    std::regex tick("`([^`]+)`");
    for (std::sregex_iterator it(text.begin(), text.end(), tick), e; it != e; ++it)
        out.push_back((*it)[1].str());
    return out;
}

struct Offer {
    std::set<std::string> targets;          // every documented target
    std::set<std::string> special_actions;  // "TARGET=action" of the special actions
    std::set<std::string> emulated;         // the node's own request table
};

Offer whatTheCameraOffers() {
    Offer o;
    const std::string readme = readFile(ORVO_SOURCE_DIR "/virtual_camera/README.md");
    for (const std::string& t : backticked(readmeBullet(readme, "TARGET")))
        if (t != "TARGET" && t != "VIDIOC_") o.targets.insert(t);
    for (const std::string& a : backticked(readmeBullet(readme, "ACTION"))) {
        std::smatch m;
        if (std::regex_match(a, m, std::regex(R"(([A-Za-z_]+)=([a-z0-9-]+)(:K)?)")))
            o.special_actions.insert(m[1].str() + "=" + m[2].str());
    }
    const std::string table = readFile(ORVO_SOURCE_DIR "/virtual_camera/requests.cpp");
    std::regex entry(R"(ORVO_REQ\((\w+), (true|false)\))");
    size_t entries = 0;
    for (std::sregex_iterator it(table.begin(), table.end(), entry), e; it != e; ++it) {
        ++entries;
        if ((*it)[2] == "true") o.emulated.insert((*it)[1].str());
    }
    EXPECT_EQ(entries, orvo::vcam::requestSlots()) << "requests.cpp no longer reads as the table";
    return o;
}

// "TARGET" and "TARGET=action" of one fault entry.
std::pair<std::string, std::string> targetAndAction(const std::string& entry) {
    const size_t eq = entry.find('=');
    std::string target = entry.substr(0, eq), action = entry.substr(eq + 1);
    target = target.substr(0, target.find('@'));
    if (action.rfind("grant:", 0) != 0) action = action.substr(0, action.find(':'));
    else action = "grant";
    return {target, action};
}

std::vector<std::string> entriesOf(const std::string& faults) {
    std::vector<std::string> out;
    std::stringstream s(faults);
    for (std::string e; std::getline(s, e, ',');) out.push_back(e);
    return out;
}

}  // namespace

TEST(FaultMatrix, TheTableCoversEveryFaultTheCameraOffers) {
    orvo_test::ScratchDir dir;
    Recording rec(dir.file("r.raw"));
    const Offer offer = whatTheCameraOffers();
    ASSERT_GE(offer.targets.size(), 30u);
    ASSERT_GE(offer.special_actions.size(), 7u);

    // The documented request targets are exactly the requests the node answers.
    std::set<std::string> documented_requests;
    for (const std::string& t : offer.targets)
        if (orvo::vcam::findRequest(t)) documented_requests.insert(t);
    EXPECT_EQ(documented_requests, offer.emulated);

    std::set<std::string> with_errno, actions;
    for (const Row& row : faultTable(rec)) {
        std::string complaints;
        auto plan = orvo::vcam::FaultPlan::parse(row.faults, &complaints);
        EXPECT_EQ(complaints, "") << row.faults;
        EXPECT_EQ(plan.entries().size(), entriesOf(row.faults).size()) << row.faults;
        for (const std::string& e : entriesOf(row.faults)) {
            auto [target, action] = targetAndAction(e);
            EXPECT_TRUE(offer.targets.count(target)) << "row for an undocumented target: " << e;
            if (orvo::vcam::errnoFromName(action) != 0)
                with_errno.insert(target);
            else
                actions.insert(target + "=" + action);
        }
    }
    // Every target that takes an errno has a row failing it with one, every special action a row.
    for (const std::string& t : offer.targets) {
        std::string complaints;
        orvo::vcam::FaultPlan::parse(t + "=EIO", &complaints);
        if (complaints.empty()) {
            EXPECT_TRUE(with_errno.count(t)) << "no row fails target " << t;
        }
    }
    for (const std::string& a : offer.special_actions)
        EXPECT_TRUE(actions.count(a)) << "no row for the special action " << a;
    EXPECT_EQ(actions.size(), offer.special_actions.size());
}

TEST(FaultMatrix, EveryFaultGivesItsDefinedOutcomeOverTheFacadesLife) {
    orvo_test::ScratchDir dir;
    const std::string raw = dir.file("r.raw");
    Recording rec(raw);
    ASSERT_NE(rec.times[0], rec.times[1]);
    for (const Row& row : faultTable(rec)) {
        SCOPED_TRACE(row.faults);
        orvo_test::Captured c = lifeInChild(row.faults, raw, rec);
        expectTranscript(row.transcript, c.out);
        EXPECT_EQ(c.exit_status, row.exit_status);
        EXPECT_EQ(c.signal, 0);
        EXPECT_EQ(c.err, "");
    }
}
