// Tests of the capture class on the virtual camera: every failure branch through injected faults,
// and a healthy stream (pace, zero-copy hand-out, requeueing, no leaks).
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <linux/videodev2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "frame_format.h"
#include "run_capture.h"
#include "video_device.h"

namespace {

using orvo::frame::kBytes;
using orvo_test::Captured;

const std::string kNode = "/dev/video-virtual0";
const std::string kOpened = "Orvo Video Open Finish\n";
const std::string kSetUp = kOpened + "Orvo Camera Setting OK \n";
// What the destructor of a device whose descriptor was closed under it prints.
const std::string kDeadTeardown =
    "stoping video streaming fail" + std::string("close error 9, Bad file descriptor\n");

std::string errText(int e) { return std::to_string(e) + ", " + std::strerror(e); }
std::string cannotOpen(const std::string& path, int e) {
    return "Cannot open '" + path + "': " + errText(e) + "\n";
}
std::string cannotIdentify(const std::string& path, int e) {
    return "Cannot identify '" + path + "': " + errText(e) + "\n";
}

// The capture class is tested on the cheap test pattern; the rendered default scene would add
// the renderer's own threads and caches to the descriptor and mapping counts.
void useVcam(const std::string& faults, const char* fps = "0",
             const std::string& source = "pattern") {
    setenv("ORVO_VCAM_DEVICE", kNode.c_str(), 1);
    setenv("ORVO_VCAM_FAULTS", faults.c_str(), 1);
    setenv("ORVO_VCAM_FPS", fps, 1);
    setenv("ORVO_VCAM_SOURCE", source.c_str(), 1);
}

int nextFreeFd() {
    int probe = open("/dev/null", O_RDONLY);
    close(probe);
    return probe;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

int countOpenFds() {
    int n = 0;
    for (int fd = 0; fd < 4096; ++fd) n += isOpen(fd);
    return n;
}

std::vector<std::string> mapsLines() {
    std::ifstream in("/proc/self/maps");
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

// Permissions of the mapping holding p ("r--s" for a read-only shared mapping), or "" if unmapped.
std::string mappingPerms(const void* p) {
    auto a = reinterpret_cast<uintptr_t>(p);
    for (const std::string& l : mapsLines()) {
        unsigned long lo = 0, hi = 0;
        char perms[5] = {};
        if (std::sscanf(l.c_str(), "%lx-%lx %4s", &lo, &hi, perms) == 3 && a >= lo && a < hi)
            return perms;
    }
    return "";
}

bool isMapped(const void* p) { return !mappingPerms(p).empty(); }

// Number of mappings of the file behind descriptor `fd` (the camera's buffer memory).
struct FileId {
    unsigned major_ = 0, minor_ = 0;
    unsigned long inode = 0;
};

FileId fileOf(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0) return {};
    return {major(st.st_dev), minor(st.st_dev), st.st_ino};
}

int mappingsOf(const FileId& id) {
    int n = 0;
    for (const std::string& l : mapsLines()) {
        unsigned maj = 0, min = 0;
        unsigned long inode = 0;
        if (std::sscanf(l.c_str(), "%*x-%*x %*4s %*x %x:%x %lu", &maj, &min, &inode) == 3)
            n += maj == id.major_ && min == id.minor_ && inode == id.inode;
    }
    return n;
}

// A child run whose facts come back through a pipe, so that its standard output stays exactly the
// library's.
struct ChildRun {
    Captured io;
    std::string report;
};

class Report {
  public:
    explicit Report(int fd) : fd_(fd) {}
    void operator()(const std::string& key, long value) {
        std::string line = key + "=" + std::to_string(value) + " ";
        if (write(fd_, line.data(), line.size()) < 0) std::abort();
    }

  private:
    int fd_;
};

ChildRun inChild(const std::function<void(Report&)>& fn) {
    int p[2];
    if (pipe(p) != 0) throw std::runtime_error("pipe");
    ChildRun r;
    r.io = orvo_test::runInChild([&] {
        Report rep(p[1]);
        fn(rep);
    });
    close(p[1]);
    char buf[512];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) r.report.append(buf, size_t(n));
    close(p[0]);
    return r;
}

long reported(const std::string& report, const std::string& key) {
    const std::string token = key + "=";
    for (size_t at = report.find(token); at != std::string::npos; at = report.find(token, at + 1))
        if (at == 0 || report[at - 1] == ' ') return std::stol(report.substr(at + token.size()));
    return -999;
}

// Constructs the device in a child under `faults`.
ChildRun constructInChild(const std::string& faults, const std::string& path = kNode) {
    return inChild([&](Report& r) {
        useVcam(faults);
        video_device dev(path, orvo::frame::kWidth, orvo::frame::kHeight);
        r("constructed", 1);
    });
}

// Reads a decimal number at `at`; false if there is none.
bool readNumber(const std::string& text, size_t& at, int& value) {
    size_t start = at;
    if (at < text.size() && text[at] == '-') ++at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == start || text[at - 1] == '-') return false;
    value = std::stoi(text.substr(start, at - start));
    return true;
}

// `expected` may hold {FD} (a descriptor number above 2: the virtual camera may hold descriptors of
// its own, so the node's number is checked exactly where the test knows it) and {E} (an errno
// value and its text, left to whatever the last system call set; every {E} in one text must be
// the same value). Returns "" or what differs.
std::string compareOutput(const std::string& expected, const std::string& actual) {
    size_t e = 0, a = 0;
    int firstErrno = -1;
    while (e < expected.size()) {
        if (expected.compare(e, 4, "{FD}") == 0) {
            int fd = -1;
            if (!readNumber(actual, a, fd) || fd < 3)
                return "no descriptor number at " + std::to_string(a);
            e += 4;
        } else if (expected.compare(e, 3, "{E}") == 0) {
            int err = -1;
            if (!readNumber(actual, a, err)) return "no errno at " + std::to_string(a);
            if (firstErrno == -1) firstErrno = err;
            if (err != firstErrno)
                return "errno " + std::to_string(err) + " after " + std::to_string(firstErrno);
            const std::string text = std::string(", ") + std::strerror(err);
            if (actual.compare(a, text.size(), text) != 0)
                return "errno text at " + std::to_string(a);
            a += text.size();
            e += 3;
        } else {
            if (a >= actual.size() || actual[a] != expected[e])
                return "differs at " + std::to_string(a);
            ++a, ++e;
        }
    }
    return a == actual.size() ? "" : "extra output at " + std::to_string(a);
}

void expectOutput(const std::string& expected, const ChildRun& run) {
    if (expected.find('{') == std::string::npos)
        EXPECT_EQ(run.io.out, expected);
    else
        EXPECT_EQ(compareOutput(expected, run.io.out), "") << "stdout was:\n" << run.io.out;
}

// ---- construction
// ---------------------------------------------------------------------------------

struct ConstructionCase {
    const char* faults;
    std::string out;
};

TEST(CaptureConstruction, EveryRefusalEndsTheProcessWithItsMessages) {
    const std::string& n = kNode;
    const std::vector<ConstructionCase> cases = {
        {"QUERYCAP=EINVAL",
         n + " is no V4L2 device\n" + cannotIdentify(n, EINVAL) + cannotOpen(n, EINVAL)},
        {"QUERYCAP=EIO", "VIDIOC_QUERYCAP error 5, Input/output error\n" + cannotIdentify(n, EIO) +
                             cannotOpen(n, EIO)},
        {"caps=no-capture", n + " is no video capture device\nCannot identify '" + n +
                                "': {E}\nCannot open '" + n + "': {E}\n"},
        {"caps=no-streaming", n + " does not support streaming i/o\nCannot identify '" + n +
                                  "': {E}\nCannot open '" + n + "': {E}\n"},
        {"open=EBUSY", cannotOpen(n, EBUSY) + cannotIdentify(n, EBUSY) + cannotOpen(n, EBUSY)},
        // Cropping is optional: a refused capability query skips the crop request, so the third
        // request is the format.
        {"CROPCAP=ENOTTY,ioctl@3=EIO:1",
         kOpened + "VIDIOC_S_FMT error 5, Input/output error\n" + cannotOpen(n, EIO)},
        {"S_FMT=EINVAL",
         kOpened + "VIDIOC_S_FMT error 22, Invalid argument\n" + cannotOpen(n, EINVAL)},
        {"S_PARM=EINVAL",
         kOpened + "VIDIOC_S_PARM error 22, Invalid argument\n" + cannotOpen(n, EINVAL)},
        {"G_PARM=EIO",
         kOpened + "VIDIOC_G_PARM error 5, Input/output error\n" + cannotOpen(n, EIO)},
        {"G_PARM@2=ENOTTY", kOpened + "VIDIOC_G_PARM error 25, Inappropriate ioctl for device\n" +
                                cannotOpen(n, ENOTTY)},
        {"meminfo=no-memfree", kOpened + "Cannot open '" + n + "': {E}\n"},
        {"meminfo=unreadable", kOpened + "/proc/meminfo can't open\n" + cannotOpen(n, EACCES)},
        {"REQBUFS=EINVAL",
         kOpened + "{FD} does not support memory mapping\n" + cannotOpen(n, EINVAL)},
        {"REQBUFS=EIO",
         kOpened + "VIDIOC_REQBUFS error 5, Input/output error\n" + cannotOpen(n, EIO)},
        {"REQBUFS=grant:1",
         kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + n + "': {E}\n"},
        {"REQBUFS=grant:0",
         kOpened + "Insufficient buffer memory on {FD}\nCannot open '" + n + "': {E}\n"},
        // Two buffers are accepted; the setup still maps six, and the driver refuses index 2.
        {"REQBUFS=grant:2",
         kOpened + "VIDIOC_QUERYBUF error 22, Invalid argument\n" + cannotOpen(n, EINVAL)},
        {"QUERYBUF=EIO",
         kOpened + "VIDIOC_QUERYBUF error 5, Input/output error\n" + cannotOpen(n, EIO)},
        {"QUERYBUF=bad-offset", kOpened + "Unable to map buffer 0 (22)\n" + cannotOpen(n, EINVAL)},
        {"QUERYBUF@4=bad-offset",
         kOpened + "Unable to map buffer 3 (22)\n" + cannotOpen(n, EINVAL)},
        {"QBUF@3=EIO", kOpened + "VIDIOC_QBUF error 5, Input/output error\n" + cannotOpen(n, EIO)},
        {"STREAMON=EIO", kSetUp + "starting video streaming fail"},
    };
    for (const ConstructionCase& c : cases) {
        SCOPED_TRACE(c.faults);
        ChildRun run = constructInChild(c.faults);
        expectOutput(c.out, run);
        EXPECT_EQ(run.io.err, "");
        EXPECT_EQ(run.io.exit_status, 1);
        EXPECT_EQ(reported(run.report, "constructed"), -999);
    }
}

TEST(CaptureConstruction, NodesThatAreNotCameras) {
    // A path that does not exist.
    const std::string missing = "/nonexistent/orvo-video9";
    ChildRun run = constructInChild("", missing);
    EXPECT_EQ(run.io.out, cannotOpen(missing, ENOENT) + cannotIdentify(missing, ENOENT) +
                              cannotOpen(missing, ENOENT));
    EXPECT_EQ(run.io.exit_status, 1);
    // A real character device that is no V4L2 node: the kernel answers the capability query with
    // ENOTTY.
    run = constructInChild("", "/dev/null");
    EXPECT_EQ(run.io.out, "VIDIOC_QUERYCAP error 25, Inappropriate ioctl for device\n" +
                              cannotIdentify("/dev/null", ENOTTY) +
                              cannotOpen("/dev/null", ENOTTY));
    EXPECT_EQ(run.io.exit_status, 1);
    EXPECT_EQ(run.io.err, "");
}

TEST(CaptureConstruction, InterruptedOrOptionalRequests) {
    // Refused crop requests are not failures either.
    for (const char* faults :
         {"ioctl=EINTR:3", "S_PARM=EINTR:2,REQBUFS=EINTR:1,STREAMON=EINTR:4", "QBUF@2=EINTR:3",
          "DQBUF=EINTR:2", "CROPCAP=ENOTTY", "S_CROP=EINVAL"}) {
        SCOPED_TRACE(faults);
        ChildRun run = inChild([&](Report& r) {
            useVcam(faults);
            video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
            unsigned char* data = nullptr;
            unsigned long len = 0;
            r("get", dev.get_frame(&data, &len));
            r("len", long(len));
            r("unget", dev.unget_frame());
        });
        EXPECT_EQ(run.io.out, kSetUp);
        EXPECT_EQ(run.io.exit_status, 0);
        EXPECT_EQ(run.report, "get=0 len=721920 unget=0 ");
    }
}

// The building blocks driven on a second descriptor of a streaming camera: the checks that fail in
// video_open leave that descriptor open; a refused format closes it, except for H264.
TEST(CaptureConstruction, DescriptorsLeftOpenOrClosedOnRefusal) {
    struct Case {
        const char* faults;
        unsigned fourcc;
        bool viaSetting;
        std::string out, err;
        long leaked;
    };
    const unsigned yuyv = v4l2_fourcc('Y', 'U', 'Y', 'V'), h264 = v4l2_fourcc('H', '2', '6', '4');
    const std::vector<Case> cases = {
        {"QUERYCAP@2=EINVAL", 0, false, kNode + " is no V4L2 device\n", "", 1},
        {"QUERYCAP@2=EIO", 0, false, "VIDIOC_QUERYCAP error 5, Input/output error\n", "", 1},
        {"S_FMT@2=EINVAL", yuyv, true, kOpened + "VIDIOC_S_FMT error 22, Invalid argument\n", "",
         0},
        {"S_FMT@2=EINVAL", h264, true, kOpened + "VIDIOC_S_FMT error 22, Invalid argument\n",
         " === Set Format Failed : skip for H264 ===  \n", 1},
        // Without a fault the driver refuses a format change while buffers are allocated.
        {"", yuyv, true, kOpened + "VIDIOC_S_FMT error 16, Device or resource busy\n", "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.faults) + (c.fourcc == h264 ? " H264" : ""));
        ChildRun run = inChild([&](Report& r) {
            useVcam(c.faults);
            video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
            std::fflush(stdout);
            // Only the library's messages from here on are judged.
            if (ftruncate(1, 0) != 0 || lseek(1, 0, SEEK_SET) != 0) std::abort();
            const int first = dev.fd, before = countOpenFds(), second = nextFreeFd();
            int rc;
            if (c.viaSetting) {
                int out_fd = -7;
                void* spare[16] = {};
                rc = dev.camera_v4l2_setting(&out_fd, orvo::frame::kWidth, orvo::frame::kHeight,
                                             c.fourcc, kNode.c_str(), 6, spare);
                r("out_fd_is_second", out_fd == second);
                r("member_fd_is_second", dev.fd == second);
            } else {
                rc = dev.video_open(kNode.c_str());
            }
            std::fflush(stdout);
            r("rc", rc);
            r("leaked", countOpenFds() - before);
            dev.fd = first;  // let the destructor stop the first descriptor's stream
        });
        EXPECT_EQ(run.io.out, c.out);
        EXPECT_EQ(run.io.err, c.err);
        EXPECT_EQ(run.io.exit_status, 0);
        EXPECT_EQ(reported(run.report, "rc"), -1);
        EXPECT_EQ(reported(run.report, "leaked"), c.leaked);
        if (c.viaSetting) {
            EXPECT_EQ(reported(run.report, "out_fd_is_second"), 1);
            EXPECT_EQ(reported(run.report, "member_fd_is_second"), 1);
        }
    }
}

// The buffer-request message names the descriptor, not the path: driven here on the streaming
// device's own descriptor, whose number the test knows. (A grant refused on a streaming queue would
// meet the driver's EBUSY first, so the grant message is judged by the construction cases above.)
TEST(CaptureConstruction, BufferRequestMessageNamesTheDescriptor) {
    ChildRun run = inChild([&](Report& r) {
        useVcam("REQBUFS@2=EINVAL");
        video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
        std::fflush(stdout);
        if (ftruncate(1, 0) != 0 || lseek(1, 0, SEEK_SET) != 0) std::abort();
        r("fd", dev.fd);
        r("rc", dev.video_reqbufs(dev.fd, 6));
        std::fflush(stdout);
    });
    EXPECT_EQ(run.io.out,
              std::to_string(reported(run.report, "fd")) + " does not support memory mapping\n");
    EXPECT_EQ(reported(run.report, "rc"), -1);
}

// ---- frames and the dead state
// ----------------------------------------------------------------------

// Dequeue failures close the node: on EAGAIN before the message, otherwise after it. With the
// close itself failing (EIO), the errno the message shows tells which came first.
TEST(CaptureFrames, FailedDequeueLeavesADeadDevice) {
    struct Case {
        const char* faults;
        int okFrames;
        std::string failure;
    };
    const std::vector<Case> cases = {
        {"DQBUF=EAGAIN", 0, "VIDIOC_DQBUF EAGAIN error 11, Resource temporarily unavailable\n"},
        {"DQBUF=EAGAIN,close=EIO", 0, "VIDIOC_DQBUF EAGAIN error 5, Input/output error\n"},
        {"DQBUF=EIO", 0, "VIDIOC_DQBUF error 5, Input/output error\n"},
        {"DQBUF@3=ENODEV,close=EIO", 2, "VIDIOC_DQBUF error 19, No such device\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.faults);
        ChildRun run = inChild([&](Report& r) {
            useVcam(c.faults);
            video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
            unsigned char* data = nullptr;
            unsigned long len = 0;
            for (int i = 0; i < c.okFrames; ++i) {
                r("get", dev.get_frame(&data, &len));
                r("unget", dev.unget_frame());
            }
            r("failed_get", dev.get_frame(&data, &len));
            r("fd_closed", !isOpen(dev.fd));
            r("again_get", dev.get_frame(&data, &len));
            r("again_unget", dev.unget_frame());
        });
        std::string afterwards = "VIDIOC_DQBUF error 9, Bad file descriptor\n";
        std::string okCalls;
        for (int i = 0; i < c.okFrames; ++i) okCalls += "get=0 unget=0 ";
        if (c.okFrames > 0)
            afterwards += "VIDIOC_QBUF error 9, Bad file descriptor\n";  // the held index
        EXPECT_EQ(run.io.out, kSetUp + c.failure + afterwards + kDeadTeardown);
        EXPECT_EQ(run.io.err, "");
        EXPECT_EQ(run.io.exit_status, 0);
        EXPECT_EQ(run.report, okCalls + "failed_get=-1 fd_closed=1 again_get=-1 again_unget=-1 ");
    }
}

TEST(CaptureFrames, RequeueRules) {
    // Before any frame: -1 and no request at all. The first requeue the device really issues is
    // the seventh QBUF (six went out at setup), which the fault refuses.
    ChildRun run = inChild([&](Report& r) {
        useVcam("QBUF@7=EIO");
        video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
        r("early", dev.unget_frame());
        r("early_again", dev.unget_frame());
        unsigned char* data = nullptr;
        unsigned long len = 0;
        r("get", dev.get_frame(&data, &len));
        r("unget", dev.unget_frame());
        r("fd_closed", !isOpen(dev.fd));
    });
    EXPECT_EQ(run.io.out, kSetUp + "VIDIOC_QBUF error 5, Input/output error\n" + kDeadTeardown);
    EXPECT_EQ(run.report, "early=-1 early_again=-1 get=0 unget=-1 fd_closed=1 ");

    // A second requeue of the same buffer: the driver refuses a buffer that is already queued.
    run = inChild([&](Report& r) {
        useVcam("");
        video_device dev(kNode, orvo::frame::kWidth, orvo::frame::kHeight);
        unsigned char* data = nullptr;
        unsigned long len = 0;
        r("get", dev.get_frame(&data, &len));
        r("unget", dev.unget_frame());
        r("unget_again", dev.unget_frame());
        r("fd_closed", !isOpen(dev.fd));
    });
    EXPECT_EQ(run.io.out, kSetUp + "VIDIOC_QBUF error 22, Invalid argument\n" + kDeadTeardown);
    EXPECT_EQ(run.report, "get=0 unget=0 unget_again=-1 fd_closed=1 ");
}

TEST(CaptureFrames, TeardownFailuresAreReportedAndSurvived) {
    ChildRun run = constructInChild("STREAMOFF=EIO");
    EXPECT_EQ(run.io.out, kSetUp + "stoping video streaming fail");
    EXPECT_EQ(run.io.exit_status, 0);
    run = constructInChild("close=EIO");
    EXPECT_EQ(run.io.out, kSetUp + "close error 5, Input/output error\n");
    EXPECT_EQ(run.io.exit_status, 0);
    EXPECT_EQ(run.io.err, "");
}

// ---- a healthy stream, in this process
// ----------------------------------------------------------------

std::unique_ptr<video_device> openCamera(const char* fps, const std::string& source = "pattern") {
    useVcam("", fps, source);
    std::unique_ptr<video_device> dev;
    Captured c = orvo_test::captureOutput(
        [&] { dev.reset(new video_device(kNode, orvo::frame::kWidth, orvo::frame::kHeight)); });
    EXPECT_EQ(c.out, kSetUp);
    EXPECT_EQ(c.err, "");
    return dev;
}

bool isOneOfTheBuffers(const video_device& dev, const unsigned char* p) {
    return std::find(dev.buffers, dev.buffers + dev.buffer_count, static_cast<const void*>(p)) !=
           dev.buffers + dev.buffer_count;
}

TEST(CaptureStream, FramesArriveAtTheRequestedPace) {
    auto dev = openCamera("30");
    ASSERT_TRUE(dev);
    using Clock = std::chrono::steady_clock;
    std::vector<Clock::time_point> at;
    for (int i = 0; i < 16; ++i) {
        unsigned char* data = nullptr;
        unsigned long len = 0;
        ASSERT_EQ(dev->get_frame(&data, &len), 0);
        at.push_back(Clock::now());
        EXPECT_TRUE(isOneOfTheBuffers(*dev, data));
        EXPECT_EQ(len, kBytes);
        ASSERT_EQ(dev->unget_frame(), 0);
    }
    double meanMs =
        std::chrono::duration<double, std::milli>(at.back() - at.front()).count() / 15.0;
    std::printf("mean frame interval at 30 fps: %.2f ms\n", meanMs);
    EXPECT_GT(meanMs, 30.0);
    EXPECT_LT(meanMs, 45.0);
    Captured c = orvo_test::captureOutput([&] { dev.reset(); });
    EXPECT_EQ(c.out, "");
}

// A recording of distinct frames, replayed free-running: every frame handed out is the mapped
// buffer itself, holds exactly the recorded bytes, and stays intact while held.
TEST(CaptureStream, HandsOutTheMappedBuffersInOrder) {
    const int kFrames = 8;
    char path[] = "/tmp/orvo-capture-raw-XXXXXX";
    int tmp = mkstemp(path);
    ASSERT_GE(tmp, 0);
    std::vector<std::vector<uint8_t>> recorded(kFrames, std::vector<uint8_t>(kBytes));
    for (int f = 0; f < kFrames; ++f) {
        for (size_t i = 0; i < kBytes; ++i)
            recorded[size_t(f)][i] = uint8_t((i * 131 + size_t(f) * 29 + i / 997) & 0xFF);
        ASSERT_EQ(write(tmp, recorded[size_t(f)].data(), kBytes), ssize_t(kBytes));
    }
    close(tmp);

    auto dev = openCamera("0", std::string("raw:") + path);
    ASSERT_TRUE(dev);
    auto frameIs = [&](const unsigned char* data, int k) {
        return std::memcmp(data, recorded[size_t(k % kFrames)].data(), kBytes) == 0;
    };
    unsigned char* held = nullptr;
    unsigned long len = 0;
    ASSERT_EQ(dev->get_frame(&held, &len), 0);
    EXPECT_TRUE(isOneOfTheBuffers(*dev, held));
    EXPECT_TRUE(frameIs(held, 0));
    const int heldIndex = dev->current_index;
    EXPECT_EQ(dev->buffers[heldIndex], held);
    for (int i = 0; i < dev->buffer_count; ++i)
        EXPECT_EQ(mappingPerms(dev->buffers[i]), "r--s") << i;
    std::vector<const unsigned char*> seen;
    for (int k = 1; k <= 20; ++k) {
        unsigned char* data = nullptr;
        ASSERT_EQ(dev->get_frame(&data, &len), 0);
        EXPECT_EQ(len, kBytes);
        EXPECT_TRUE(isOneOfTheBuffers(*dev, data));
        EXPECT_NE(data, held);
        EXPECT_EQ(dev->buffers[dev->current_index], data);
        EXPECT_TRUE(frameIs(data, k)) << "frame " << k;
        if (std::find(seen.begin(), seen.end(), data) == seen.end()) seen.push_back(data);
        ASSERT_EQ(dev->unget_frame(), 0);
    }
    // The five buffers still queued took turns; the held one was never refilled.
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_TRUE(frameIs(held, 0));
    dev.reset();
    unlink(path);
}

TEST(CaptureStream, ThousandFramesLeakNothingButTheKeptMappings) {
    const int fdsBefore = countOpenFds();
    const size_t mapsBefore = mapsLines().size();
    auto dev = openCamera("0");
    ASSERT_TRUE(dev);
    const FileId memory = fileOf(dev->fd);
    EXPECT_GE(mappingsOf(memory), 6);
    const int fdsStreaming = countOpenFds();
    EXPECT_GE(fdsStreaming, fdsBefore + 1);  // the node, and whatever the virtual camera keeps
    EXPECT_EQ(dev->buffer_length, 0u);       // bytesused of a buffer never filled
    const size_t mapsStreaming = mapsLines().size();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        unsigned char* data = nullptr;
        unsigned long len = 0;
        ASSERT_EQ(dev->get_frame(&data, &len), 0) << i;
        ASSERT_EQ(len, kBytes);
        ASSERT_EQ(dev->unget_frame(), 0) << i;
    }
    const double s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("1000 free-running frames: %.1f frames/s\n", 1000 / s);
    EXPECT_EQ(mapsLines().size(), mapsStreaming);
    EXPECT_EQ(countOpenFds(), fdsStreaming);

    std::vector<void*> kept(dev->buffers, dev->buffers + dev->buffer_count);
    Captured c = orvo_test::captureOutput([&] { dev.reset(); });
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(countOpenFds(), fdsBefore);
    // Unmapping with a length of 0 fails, so the six mappings of the camera's memory outlive the
    // device; nothing else does (the sanitizers' allocator maps and unmaps on its own, so the
    // overall count is only judged without them).
    EXPECT_EQ(mappingsOf(memory), 6);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_EQ(mapsLines().size(), mapsBefore + 6);
#else
    (void)mapsBefore;
#endif
    for (void* p : kept) EXPECT_TRUE(isMapped(p));
}

TEST(CaptureStream, FreeMemoryReading) {
    auto dev = openCamera("0");
    ASSERT_TRUE(dev);
    auto memFreeKib = [] {
        std::ifstream in("/proc/meminfo");
        for (std::string l; std::getline(in, l);)
            if (l.rfind("MemFree:", 0) == 0) return std::stol(l.substr(8));
        return -1L;
    };
    const long before = memFreeKib();
    int bytes = 0;
    EXPECT_EQ(dev->GetFreeRam(&bytes), 1);
    const long after = memFreeKib();
    // Bytes in a 32-bit signed integer: kibibytes times 1,024, modulo 2^32.
    const uint32_t kib = uint32_t(bytes) >> 10;
    EXPECT_EQ(uint32_t(bytes) & 1023u, 0u);
    const long lo = std::min(before, after) - 65536, hi = std::max(before, after) + 65536;
    bool matches = false;
    for (long k = lo; k <= hi && !matches; k += 1) matches = (uint32_t(k) & 0x3FFFFFu) == kib;
    EXPECT_TRUE(matches) << bytes << " against MemFree " << before << ".." << after << " kB";
}

}  // namespace
