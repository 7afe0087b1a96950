// Numbered image loading and the ordinary-camera tools, on the virtual camera through OpenCV's V4L2.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstdlib>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "ZUNCVHelper.h"
#include "calib_fixture.h"
#include "display_double.h"
#include "run_capture.h"
#include "scratch_dir.h"

using orvo_test::captureOutput;
using orvo_test::display;

namespace {

// The frame-problem line as the tools print it: the FOURCC as a double, default formatting.
std::string frameProblem(double fourcc) {
    std::ostringstream s;
    s << "Open vidwoWrite error : " << fourcc << "\n";
    return s.str();
}

const double kYuyv = cv::VideoWriter::fourcc('Y', 'U', 'Y', 'V');
constexpr int kVirtualIndex = 7;

// Display double reset; the virtual camera at /dev/video7 with the given faults (none there when null).
// OpenCV tries its GStreamer backend before V4L2 for a camera index, and GStreamer's v4l2src opens
// the virtual node as well as a real one (and reports a FOURCC of 0); these tests are about the
// tools on OpenCV's V4L2 backend, so it goes first (read when OpenCV first opens a camera).
void prepare(const char* faults) {
    orvo_test::silenceOpenCvLog();
    setenv("OPENCV_VIDEOIO_PRIORITY_LIST", "V4L2", 1);
    display().reset();
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_FAULTS", faults != nullptr ? faults : "", 1);
    if (faults != nullptr) setenv("ORVO_VCAM_DEVICE", "/dev/video7", 1); else unsetenv("ORVO_VCAM_DEVICE");
}

}  // namespace

TEST(GetMatByPath, UnpaddedNamesGreyAsThreeChannelsAndMisses) {
    orvo_test::silenceOpenCvLog();
    const orvo_test::ScratchDir dir;
    // Only "image<index>.jpg" with the index unpadded is found: not image0012.jpg, not img0012.jpg.
    const struct { const char* name; int index; } files[] = {
        {"image0012.jpg", 99}, {"img0012.jpg", 99}, {"image7.jpg", 7}, {"image12.jpg", 12}, {"image-4.jpg", -4}};
    cv::Mat ramp(16, 24, CV_8U), out, want;
    for (const auto& f : files) {
        cv::randu(ramp, 0, 256);
        ASSERT_TRUE(cv::imwrite(dir.file(f.name), ramp.rowRange(0, 10 + f.index % 7)));
    }
    for (const auto& f : files) {
        if (f.index == 99) continue;
        SCOPED_TRACE(f.name);
        ASSERT_TRUE(getMatByPath(dir.path(), f.index, out));
        cv::cvtColor(cv::imread(dir.file(f.name), cv::IMREAD_GRAYSCALE), want, cv::COLOR_GRAY2BGR);
        EXPECT_EQ(out.type(), CV_8UC3);  // grey files come back as three equal channels
        EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0.0);
    }
    // A miss empties the output and says nothing; a directory name too long for the buffer is cut.
    const auto c = captureOutput([&] { EXPECT_FALSE(getMatByPath(dir.path(), 3, out)); });
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(c.out + c.err, "");
    out = cv::Mat(4, 4, CV_8U);
    EXPECT_FALSE(getMatByPath(std::string(600, 'd'), 7, out));
    EXPECT_TRUE(out.empty());
}

TEST(CaptureTools, NoCameraThenRecodeStopsAtTheFirstSuccessfulRead) {
    prepare(nullptr);
    const orvo_test::ScratchDir dir;
    int captured = -1;
    bool recorded = true;
    for (const auto& c : {captureOutput([&] { captured = capImage(dir.path(), 5); }),
                          captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), 5); })})
        EXPECT_EQ(c.out + "|" + c.err, "|Opencv Camera: 5 error\n");
    EXPECT_EQ(captured, 0);
    EXPECT_FALSE(recorded);
    EXPECT_TRUE(display().shown.empty());
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());

    prepare("");
    recorded = true;
    EXPECT_EQ(captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), kVirtualIndex); }).err,
              frameProblem(kYuyv));
    EXPECT_FALSE(recorded);
    EXPECT_TRUE(display().waits.empty());  // the inverted test never reaches the preview

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
    EXPECT_EQ(display().count("recode previwe"), 5u);
    EXPECT_EQ(display().waits, std::vector<int>(5, 1));
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());  // names only, no files
}

TEST(CaptureTools, CapImageRepeatsTheFrameProblemAfterReleasingTheCamera) {
    prepare("DQBUF@3=EIO");
    const orvo_test::ScratchDir dir;
    // An endless loop: a file-size limit set after the buffers exist stops the child past 4 KiB of errors.
    display().on_wait = [] { const rlimit limit{4096, 4096}; setrlimit(RLIMIT_FSIZE, &limit); };
    const auto c = orvo_test::runInChild([&] { capImage(dir.path(), kVirtualIndex); }, 20);
    display().on_wait = nullptr;
    EXPECT_EQ(c.signal, SIGXFSZ);
    const std::string first = frameProblem(kYuyv), after = frameProblem(0);
    EXPECT_EQ(c.err.substr(0, first.size() + 3 * after.size()), first + after + after + after);
    EXPECT_TRUE(c.err.size() > 2048u && c.err.size() <= 4096u) << c.err.size();
    EXPECT_EQ(c.out, "");
}
