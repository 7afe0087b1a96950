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

// Points the virtual camera at /dev/video7, free-running on its test pattern.
void useVirtualCamera(const char* faults = "") {
    setenv("ORVO_VCAM_DEVICE", "/dev/video7", 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);
    setenv("ORVO_VCAM_FAULTS", faults, 1);
}

}  // namespace

TEST(GetMatByPath, UnpaddedNamesGreyAsThreeChannelsAndMisses) {
    orvo_test::silenceOpenCvLog();
    const orvo_test::ScratchDir dir;
    ASSERT_TRUE(cv::imwrite(dir.file("image7.jpg"), greyRamp({40, 30}, 0)));
    ASSERT_TRUE(cv::imwrite(dir.file("image0.jpg"), greyRamp({16, 8}, 9)));
    ASSERT_TRUE(cv::imwrite(dir.file("image12.jpg"), greyRamp({20, 10}, 50)));
    ASSERT_TRUE(cv::imwrite(dir.file("image0012.jpg"), greyRamp({64, 64}, 0)));
    ASSERT_TRUE(cv::imwrite(dir.file("img0012.jpg"), greyRamp({64, 64}, 0)));
    ASSERT_TRUE(cv::imwrite(dir.file("image-4.jpg"), greyRamp({12, 6}, 0)));

    cv::Mat out;
    bool ok = false;
    const auto c = captureOutput([&] { ok = getMatByPath(dir.path(), 7, out); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.out + c.err, "");
    ASSERT_EQ(out.type(), CV_8UC3);
    ASSERT_EQ(out.size(), cv::Size(40, 30));
    cv::Mat ch[3];
    cv::split(out, ch);
    EXPECT_EQ(cv::norm(ch[0], ch[1], cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(ch[0], ch[2], cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(ch[0], cv::imread(dir.file("image7.jpg"), cv::IMREAD_GRAYSCALE),
                       cv::NORM_INF),
              0.0);

    EXPECT_TRUE(getMatByPath(dir.path(), 12, out));
    EXPECT_EQ(out.size(), cv::Size(20, 10));  // image12.jpg, not image0012.jpg or img0012.jpg
    EXPECT_TRUE(getMatByPath(dir.path(), 0, out));
    EXPECT_EQ(out.size(), cv::Size(16, 8));
    EXPECT_TRUE(getMatByPath(dir.path(), -4, out));
    EXPECT_EQ(out.size(), cv::Size(12, 6));

    // A miss empties the output and says nothing.
    const auto miss = captureOutput([&] { ok = getMatByPath(dir.path(), 3, out); });
    EXPECT_FALSE(ok);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(miss.out + miss.err, "");
    // A directory name longer than the name buffer is cut, not overrun.
    out = greyRamp({4, 4}, 0);
    EXPECT_FALSE(getMatByPath(std::string(600, 'd'), 7, out));
    EXPECT_TRUE(out.empty());
}

TEST(CaptureTools, CameraIndexWithNothingThere) {
    orvo_test::silenceOpenCvLog();
    unsetenv("ORVO_VCAM_DEVICE");
    const orvo_test::ScratchDir dir;
    display().reset();
    int captured = -1;
    auto c = captureOutput([&] { captured = capImage(dir.path(), 5); });
    EXPECT_EQ(captured, 0);
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, "Opencv Camera: 5 error\n");

    bool recorded = true;
    c = captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), 5); });
    EXPECT_FALSE(recorded);
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, "Opencv Camera: 5 error\n");
    EXPECT_TRUE(display().shown.empty());
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());
}

TEST(CaptureTools, RecodeVideoStopsAtTheFirstSuccessfulRead) {
    orvo_test::silenceOpenCvLog();
    useVirtualCamera();
    const orvo_test::ScratchDir dir;
    display().reset();
    bool recorded = true;
    const auto c = captureOutput([&] { recorded = recodeVideo(dir.file("out.avi"), kVirtualIndex); });
    EXPECT_FALSE(recorded);
    EXPECT_EQ(c.out, "");
    EXPECT_EQ(c.err, frameProblem(kYuyv));
    EXPECT_TRUE(display().shown.empty());  // the inverted test never reaches the preview
    EXPECT_TRUE(display().waits.empty());

    // A failed first read is written and shown: the empty frame makes the preview throw.
    useVirtualCamera("DQBUF=EIO");
    display().reset();
    EXPECT_THROW(recodeVideo(dir.file("broken.avi"), kVirtualIndex), cv::Exception);
    EXPECT_TRUE(display().shown.empty());
}

TEST(CaptureTools, CapImagePreviewsFramesAndQuitsOnLowerCaseQOnly) {
    orvo_test::silenceOpenCvLog();
    useVirtualCamera();
    const orvo_test::ScratchDir dir;
    display().reset();
    display().keys = {-1, 'Q', 'a', 0x100000 | 'q', 'q', 'q'};
    int result = -1;
    const auto c = captureOutput([&] { result = capImage(dir.path(), kVirtualIndex); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(c.out + c.err, "");
    ASSERT_EQ(display().count("recode previwe"), 5u);
    EXPECT_EQ(display().shown.size(), 5u);
    EXPECT_EQ(display().waits, std::vector<int>(5, 1));
    for (const cv::Mat& frame : display().images("recode previwe")) {
        EXPECT_EQ(frame.size(), cv::Size(752, 480));
        EXPECT_EQ(frame.type(), CV_8UC3);
    }
    EXPECT_EQ(display().keys.size(), 1u);
    EXPECT_TRUE(orvo_test::listDirectory(dir.path()).empty());  // names only, no files
}

TEST(CaptureTools, CapImageRepeatsTheFrameProblemAfterReleasingTheCamera) {
    orvo_test::silenceOpenCvLog();
    useVirtualCamera("DQBUF@3=EIO");
    const orvo_test::ScratchDir dir;
    display().reset();
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
