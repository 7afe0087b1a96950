// Numbered image loading and the ordinary-camera tools, on files and on the virtual camera
// through OpenCV's own V4L2 backend.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstdlib>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "ZUNCVHelper.h"
#include "calib_fixture.h"
#include "display_double.h"
#include "run_capture.h"
#include "scratch_dir.h"

using orvo_test::captureOutput;
using orvo_test::display;

namespace {

cv::Mat greyRamp(cv::Size size, int offset) {
    cv::Mat m(size, CV_8U);
    for (int y = 0; y < m.rows; ++y)
        for (int x = 0; x < m.cols; ++x) m.at<uint8_t>(y, x) = uint8_t((x * 5 + y * 3 + offset) % 256);
    return m;
}

// The frame-problem line as the tools print it: the FOURCC as a double, default formatting.
std::string frameProblem(double fourcc) {
    std::ostringstream s;
    s << "Open vidwoWrite error : " << fourcc << "\n";
    return s.str();
}

const double kYuyv = cv::VideoWriter::fourcc('Y', 'U', 'Y', 'V');
constexpr int kVirtualIndex = 7;

// OpenCV's warnings off, the display double reset, and the virtual camera at /dev/video7
// free-running on its test pattern with the given faults (no virtual node when null).
void prepare(const char* faults) {
    orvo_test::silenceOpenCvLog();
    display().reset();
    if (faults == nullptr) {
        unsetenv("ORVO_VCAM_DEVICE");
        return;
    }
    setenv("ORVO_VCAM_DEVICE", "/dev/video7", 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_FAULTS", faults, 1);
}

}  // namespace

TEST(GetMatByPath, UnpaddedNamesGreyAsThreeChannelsAndMisses) {
    orvo_test::silenceOpenCvLog();
    const orvo_test::ScratchDir dir;
    // Only "image<index>.jpg" with the index unpadded is found: not image0012.jpg, not img0012.jpg.
    const struct {
        const char* name;
        int index;
        cv::Size size;
    } files[] = {{"image0012.jpg", 99, {64, 64}}, {"img0012.jpg", 99, {64, 64}},
                 {"image7.jpg", 7, {40, 30}},     {"image0.jpg", 0, {16, 8}},
                 {"image12.jpg", 12, {20, 10}},   {"image-4.jpg", -4, {12, 6}}};
    for (const auto& f : files) ASSERT_TRUE(cv::imwrite(dir.file(f.name), greyRamp(f.size, f.index)));
    cv::Mat out;
    for (const auto& f : files) {
        if (f.index == 99) continue;
        SCOPED_TRACE(f.name);
        ASSERT_TRUE(getMatByPath(dir.path(), f.index, out));
        ASSERT_EQ(out.type(), CV_8UC3);  // grey files come back as three equal channels
        cv::Mat ch[3];
        cv::split(out, ch);
        const cv::Mat grey = cv::imread(dir.file(f.name), cv::IMREAD_GRAYSCALE);
        for (const cv::Mat& c : ch) EXPECT_EQ(cv::norm(c, grey, cv::NORM_INF), 0.0);
    }
    // A miss empties the output and says nothing; a directory name longer than the name buffer
    // is cut, not overrun.
    bool ok = true;
    const auto c = captureOutput([&] {
        ok = getMatByPath(dir.path(), 7, out) && !getMatByPath(dir.path(), 3, out);
    });
    EXPECT_TRUE(ok);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(c.out + c.err, "");
    out = greyRamp({4, 4}, 0);
    EXPECT_FALSE(getMatByPath(std::string(600, 'd'), 7, out));
    EXPECT_TRUE(out.empty());
}

TEST(CaptureTools, CameraIndexWithNothingThere) {
    prepare(nullptr);
    const orvo_test::ScratchDir dir;
    int captured = -1;
    bool recorded = true;
    const auto cap = captureOutput([&] { captured = capImage(dir.path(), 5); });
    const auto rec = captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), 5); });
    EXPECT_EQ(captured, 0);
    EXPECT_FALSE(recorded);
    for (const auto& c : {cap, rec}) {
        EXPECT_EQ(c.out, "");
        EXPECT_EQ(c.err, "Opencv Camera: 5 error\n");
    }
    EXPECT_TRUE(display().shown.empty());
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());
}

TEST(CaptureTools, RecodeVideoStopsAtTheFirstSuccessfulRead) {
    prepare("");
    const orvo_test::ScratchDir dir;
    bool recorded = true;
    const auto c = captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), kVirtualIndex); });
    EXPECT_FALSE(recorded);
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, frameProblem(kYuyv));
    EXPECT_TRUE(display().shown.empty());  // the inverted test never reaches the preview
    EXPECT_TRUE(display().waits.empty());

    // A failed first read is written and shown: the empty frame makes the preview throw.
    prepare("DQBUF=EIO");
    EXPECT_THROW(recodeVideo(dir.file("broken.avi"), kVirtualIndex), cv::Exception);
    EXPECT_TRUE(display().shown.empty());
}

TEST(CaptureTools, CapImagePreviewsFramesAndQuitsOnLowerCaseQOnly) {
    prepare("");
    const orvo_test::ScratchDir dir;
    display().keys = {-1, 'Q', 'a', 0x100000 | 'q', 'q', 'q'};
    int result = -1;
    const auto c = captureOutput([&] { result = capImage(dir.path(), kVirtualIndex); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(c.out + c.err, "");
    ASSERT_EQ(display().count("recode previwe"), 5u);
    EXPECT_EQ(display().shown.size(), 5u);
    EXPECT_EQ(display().waits, std::vector<int>(5, 1));
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());  // names only, no files
}

TEST(CaptureTools, CapImageRepeatsTheFrameProblemAfterReleasingTheCamera) {
    prepare("DQBUF@3=EIO");
    const orvo_test::ScratchDir dir;
    // The loop never ends by itself: a file-size limit, set once the camera's buffers exist
    // (they count against it too), stops the child when its error output outgrows 4 KiB.
    display().on_wait = [] {
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    const auto c = orvo_test::runInChild([&] { capImage(dir.path(), kVirtualIndex); }, 20);
    display().on_wait = nullptr;
    EXPECT_EQ(c.signal, SIGXFSZ);
    const std::string first = frameProblem(kYuyv), after = frameProblem(0);
    ASSERT_EQ(c.err.compare(0, first.size(), first), 0) << c.err.substr(0, 200);
    EXPECT_EQ(c.err.compare(first.size(), 3 * after.size(), after + after + after), 0)
        << c.err.substr(0, 200);
    EXPECT_GT(c.err.size(), 2048u);
    EXPECT_LE(c.err.size(), 4096u);
    EXPECT_EQ(c.out, "");
}
