// The calibration's display: windows, images and keys, through the display double and for real
// under a virtual X server.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <thread>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "OrvoCamera.h"
#include "ZUNCVHelper.h"
#include "calib_fixture.h"
#include "display_double.h"
#include "run_capture.h"

using orvo_test::display;
using orvo_test::renderedSet;

namespace {

using Clock = std::chrono::steady_clock;

// A scratch working directory with the "params" directory the files go to.
struct WorkDir {
    orvo_test::ScratchDir scratch;
    std::string path;
    std::string params;
    WorkDir() : path(scratch.path()), params(scratch.path() + "/params") {
        mkdir(params.c_str(), 0755);
    }
};

void runCalibration(const std::string& cwd, const std::vector<std::string>& list,
                    bool useCalibrated) {
    const auto& rs = renderedSet();
    orvo_test::ScopedCwd in(cwd);
    camera_->OrvoStereoCalib(list, rs.board.inner, float(rs.board.square), useCalibrated, true);
}

// Runs the calibration with the display double answering `keys` (then space), output captured.
orvo_test::Captured calibrateWithKeys(const std::string& cwd, const std::vector<std::string>& list,
                                      bool useCalibrated, std::vector<int> keys = {}) {
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    display().reset();
    display().keys.assign(keys.begin(), keys.end());
    return orvo_test::captureOutput([&] { runCalibration(cwd, list, useCalibrated); });
}

// What the corner window must show for an image whose board the detector finds as it is.
cv::Mat expectedCornerView(const std::string& name) {
    const cv::Mat grey = cv::imread(name, 0);
    std::vector<cv::Point2f> corners;
    const bool found = cv::findChessboardCorners(grey, renderedSet().board.inner, corners, 3);
    cv::Mat colour, shown;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    cv::drawChessboardCorners(colour, renderedSet().board.inner, corners, found);
    const double sf = 752.0 / std::max(grey.rows, grey.cols);
    cv::resize(colour, shown, cv::Size(), sf, sf, cv::INTER_LINEAR);
    return shown;
}

// The canvases the rectified display must show for the accepted pairs, rebuilt independently
// from the two files the calibration wrote (rectified by the calibrated model).
std::vector<cv::Mat> expectedCanvases(const std::string& params,
                                      const std::vector<std::string>& accepted) {
    std::vector<cv::Mat> in, ex;
    EXPECT_TRUE(readYML(params + "/intrinsics.yml", ZUNCV_INTRINSICS, in));
    EXPECT_TRUE(readYML(params + "/extrinsics.yml", ZUNCV_EXTRINSICS, ex));
    const cv::Size size = cv::imread(accepted[0], 0).size();
    cv::Mat R1, R2, P1, P2, Q;
    cv::Rect roi[2];
    cv::stereoRectify(in[0], in[1], in[2], in[3], size, ex[0], ex[1], R1, R2, P1, P2, Q,
                      cv::CALIB_ZERO_DISPARITY, 0, size, &roi[0], &roi[1]);
    EXPECT_EQ(cv::norm(P2, ex[5], cv::NORM_INF), 0.0);
    const bool vertical = std::fabs(P2.at<double>(1, 3)) > std::fabs(P2.at<double>(0, 3));
    cv::Mat maps[2][2];
    cv::initUndistortRectifyMap(in[0], in[1], ex[2], ex[4], size, CV_16SC2, maps[0][0], maps[0][1]);
    cv::initUndistortRectifyMap(in[2], in[3], ex[3], ex[5], size, CV_16SC2, maps[1][0], maps[1][1]);
    const double sf = (vertical ? 300.0 : 600.0) / std::max(size.width, size.height);
    const int w = cvRound(size.width * sf), h = cvRound(size.height * sf);
    std::vector<cv::Mat> out;
    for (size_t i = 0; i + 1 < accepted.size(); i += 2) {
        cv::Mat canvas(vertical ? 2 * h : h, vertical ? w : 2 * w, CV_8UC3);
        for (int k = 0; k < 2; ++k) {
            cv::Mat rect, colour;
            cv::remap(cv::imread(accepted[i + size_t(k)], 0), rect, maps[k][0], maps[k][1],
                      cv::INTER_LINEAR);
            cv::cvtColor(rect, colour, cv::COLOR_GRAY2BGR);
            cv::Mat part = canvas(vertical ? cv::Rect(0, h * k, w, h) : cv::Rect(w * k, 0, w, h));
            cv::resize(colour, part, part.size(), 0, 0, cv::INTER_AREA);
            const cv::Rect r(cvRound(roi[k].x * sf), cvRound(roi[k].y * sf),
                             cvRound(roi[k].width * sf), cvRound(roi[k].height * sf));
            cv::rectangle(part, r, cv::Scalar(0, 0, 255), 3, 8);
        }
        for (int j = 0; j < (vertical ? canvas.cols : canvas.rows); j += 16) {
            if (vertical)
                cv::line(canvas, {j, 0}, {j, canvas.rows}, cv::Scalar(0, 255, 0), 1, 8);
            else
                cv::line(canvas, {0, j}, {canvas.cols, j}, cv::Scalar(0, 255, 0), 1, 8);
        }
        out.push_back(canvas);
    }
    return out;
}

double maxDifference(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return 1e9;
    return cv::norm(a, b, cv::NORM_INF);
}

int countPixels(const cv::Mat& img, const cv::Vec3b& colour) {
    int n = 0;
    for (int y = 0; y < img.rows; ++y)
        for (int x = 0; x < img.cols; ++x) n += img.at<cv::Vec3b>(y, x) == colour;
    return n;
}

// Writes transformed copies of the given pairs of the rendered set and returns their list.
std::vector<std::string> transformedPairs(const std::string& dir, const std::vector<int>& pairs,
                                          const std::function<cv::Mat(const cv::Mat&)>& f) {
    std::vector<std::string> out;
    for (const std::string& name : renderedSet().set.pairs(pairs)) {
        const std::string copy = dir + "/t" + std::to_string(out.size()) + ".png";
        EXPECT_TRUE(cv::imwrite(copy, f(cv::imread(name, 0))));
        out.push_back(copy);
    }
    return out;
}

}  // namespace

TEST(StereoCalibDisplay, CornerViewsThenRectifiedCanvasesOfTheCalibratedRig) {
    const auto& set = renderedSet().set;
    const WorkDir work;
    const auto list = set.pairs({0, 1, 2});
    const auto c = calibrateWithKeys(work.path, list, true);
    ASSERT_EQ(c.exit_status, 0);

    const auto& d = display();
    std::vector<std::string> windows;
    for (const auto& s : d.shown) windows.push_back(s.window);
    EXPECT_EQ(windows, (std::vector<std::string>{"corners", "corners", "corners", "corners",
                                                 "corners", "corners", "rectified", "rectified",
                                                 "rectified"}));
    EXPECT_EQ(d.waited, windows);
    EXPECT_EQ(d.waits, std::vector<int>(9, 0));  // every wait is unlimited

    const auto corners = d.images("corners");
    for (size_t i = 0; i < corners.size(); ++i)
        EXPECT_EQ(maxDifference(corners[i], expectedCornerView(list[i])), 0.0) << list[i];

    const auto canvases = d.images("rectified");
    const auto expected = expectedCanvases(work.params, list);
    ASSERT_EQ(canvases.size(), expected.size());
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;

    // The canvas of a 752 x 480 pair: 600 / 752 scale, 600 x 383 halves side by side, a green
    // line across every 16th row and only there, red valid-region frames.
    const cv::Mat& canvas = canvases[0];
    ASSERT_EQ(canvas.size(), cv::Size(1200, 383));
    ASSERT_EQ(canvas.type(), CV_8UC3);
    for (int y = 0; y < canvas.rows; ++y) {
        const int green = countPixels(canvas.row(y), cv::Vec3b(0, 255, 0));
        if (y % 16 == 0)
            EXPECT_EQ(green, canvas.cols) << "row " << y;
        else
            EXPECT_LT(green, canvas.cols / 2) << "row " << y;
    }
    EXPECT_GT(countPixels(canvas, cv::Vec3b(0, 0, 255)), 1000);

    // The rectified halves are row-aligned: the board's corners share their rows.
    for (const cv::Mat& cv_canvas : canvases) {
        std::vector<cv::Point2f> l, r;
        cv::Mat grey;
        cv::cvtColor(cv_canvas, grey, cv::COLOR_BGR2GRAY);
        ASSERT_TRUE(cv::findChessboardCorners(grey(cv::Rect(0, 0, 600, 383)),
                                              renderedSet().board.inner, l, 3));
        ASSERT_TRUE(cv::findChessboardCorners(grey(cv::Rect(600, 0, 600, 383)),
                                              renderedSet().board.inner, r, 3));
        for (size_t j = 0; j < l.size(); ++j) EXPECT_NEAR(l[j].y, r[j].y, 1.0);
    }
}

TEST(StereoCalibDisplay, UncalibratedRectificationChangesOnlyTheDisplay) {
    const auto& set = renderedSet().set;
    const auto list = set.pairs({0, 1, 2, 3});
    const WorkDir calibrated, uncalibrated;
    calibrateWithKeys(calibrated.path, list, true);
    const auto calibrated_canvases = display().images("rectified");
    calibrateWithKeys(uncalibrated.path, list, false);
    const auto canvases = display().images("rectified");

    for (const char* file : {"/intrinsics.yml", "/extrinsics.yml"})
        EXPECT_EQ(orvo_test::readFile(uncalibrated.params + file),
                  orvo_test::readFile(calibrated.params + file))
            << file;
    ASSERT_EQ(canvases.size(), 4u);
    for (size_t i = 0; i < canvases.size(); ++i) {
        EXPECT_EQ(countPixels(canvases[i], cv::Vec3b(0, 0, 255)), 0) << "pair " << i;
        EXPECT_GT(maxDifference(canvases[i], calibrated_canvases[i]), 0.0) << "pair " << i;
        // The homographies, estimated on the undistorted corners, still align the rows.
        std::vector<cv::Point2f> l, r;
        cv::Mat grey;
        cv::cvtColor(canvases[i], grey, cv::COLOR_BGR2GRAY);
        ASSERT_TRUE(cv::findChessboardCorners(grey(cv::Rect(0, 0, 600, 383)),
                                              renderedSet().board.inner, l, 3));
        ASSERT_TRUE(cv::findChessboardCorners(grey(cv::Rect(600, 0, 600, 383)),
                                              renderedSet().board.inner, r, 3));
        for (size_t j = 0; j < l.size(); ++j) EXPECT_NEAR(l[j].y, r[j].y, 1.5) << "pair " << i;
    }
}

TEST(StereoCalibDisplay, VerticalRigAndLargeImages) {
    // Turning every view a quarter turn makes the right lens sit below the left one.
    const WorkDir vertical;
    const auto turned = transformedPairs(vertical.path, {0, 1, 2, 3}, [](const cv::Mat& m) {
        cv::Mat t;
        cv::rotate(m, t, cv::ROTATE_90_CLOCKWISE);
        return t;
    });
    calibrateWithKeys(vertical.path, turned, true);
    std::vector<cv::Mat> ex;
    ASSERT_TRUE(readYML(vertical.params + "/extrinsics.yml", ZUNCV_EXTRINSICS, ex));
    EXPECT_GT(std::fabs(ex[5].at<double>(1, 3)), std::fabs(ex[5].at<double>(0, 3)));
    auto corners = display().images("corners");
    ASSERT_EQ(corners.size(), 8u);
    EXPECT_EQ(corners[0].size(), cv::Size(480, 752));
    auto canvases = display().images("rectified");
    ASSERT_EQ(canvases.size(), 4u);
    // 300 / 752 scale: 191 x 300 halves stacked, a green line down every 16th column.
    ASSERT_EQ(canvases[0].size(), cv::Size(191, 600));
    for (int x = 0; x < canvases[0].cols; ++x) {
        const int green = countPixels(canvases[0].col(x), cv::Vec3b(0, 255, 0));
        if (x % 16 == 0)
            EXPECT_EQ(green, canvases[0].rows) << "column " << x;
        else
            EXPECT_LT(green, canvases[0].rows / 2) << "column " << x;
    }
    const auto expected = expectedCanvases(vertical.params, turned);
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;

    // Views twice the camera's size are previewed at 752 columns, the canvas stays 600 wide.
    const WorkDir large;
    const auto doubled = transformedPairs(large.path, {0, 1, 2}, [](const cv::Mat& m) {
        cv::Mat t;
        cv::resize(m, t, cv::Size(), 2, 2, cv::INTER_CUBIC);
        return t;
    });
    calibrateWithKeys(large.path, doubled, true);
    corners = display().images("corners");
    ASSERT_EQ(corners.size(), 6u);
    EXPECT_EQ(corners[0].size(), cv::Size(752, 480));
    EXPECT_EQ(maxDifference(corners[0], expectedCornerView(doubled[0])), 0.0);
    canvases = display().images("rectified");
    ASSERT_EQ(canvases.size(), 3u);
    EXPECT_EQ(canvases[0].size(), cv::Size(1200, 383));
}

TEST(StereoCalibDisplay, QuitKeysInTheCornerWindowEndTheProcessWritingNothing) {
    const auto& set = renderedSet().set;
    const auto list = set.pairs({0, 1, 2});
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    // Esc, q and Q in the key's low byte, whatever the modifier bits above it.
    for (int key : std::vector<int>{27, 'q', 'Q', 0x100000 | 'q', 0x20000 | 27}) {
        const WorkDir work;
        display().reset();
        display().keys = {' ', key};
        const auto c = orvo_test::runInChild([&] { runCalibration(work.path, list, true); });
        EXPECT_EQ(c.exit_status, 255) << "key " << key;
        EXPECT_EQ(c.out, list[0] + "\n" + list[1] + "\n") << "key " << key;
        EXPECT_TRUE(orvo_test::listDirectory(work.params).empty()) << "key " << key;
    }
    // Other keys, no key (-1), and keys whose low byte is neither go on to the next image.
    const WorkDir work;
    const auto c = calibrateWithKeys(work.path, list, true, {'a', -1, 0x1B00, 0x71 | 0x80, 'w', 'Z'});
    EXPECT_EQ(display().count("corners"), 6u);
    EXPECT_EQ(display().count("rectified"), 3u);
    EXPECT_EQ(orvo_test::listDirectory(work.params),
              (std::vector<std::string>{"extrinsics.yml", "intrinsics.yml"}));
}

TEST(StereoCalibDisplay, QuitKeysInTheRectifiedWindowOnlyEndTheLoop) {
    const auto list = renderedSet().set.pairs({0, 1, 2});
    const std::vector<int> corner_keys(6, ' ');
    for (int key : std::vector<int>{27, 'q', 'Q', 0x100000 | 'Q'}) {
        const WorkDir work;
        auto keys = corner_keys;
        keys.push_back(key);
        const auto c = calibrateWithKeys(work.path, list, true, keys);
        EXPECT_EQ(display().count("rectified"), 1u) << "key " << key;
        EXPECT_EQ(c.exit_status, 0);
    }
    const WorkDir work;
    auto keys = corner_keys;
    keys.insert(keys.end(), {'x', 'n'});
    calibrateWithKeys(work.path, list, true, keys);
    EXPECT_EQ(display().count("rectified"), 3u);
}

// ---- the real display under a virtual X server ---------------------------------------------

namespace {

bool haveProgram(const char* name) {
    const std::string cmd = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
}

std::string shell(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[256];
    while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    pclose(p);
    return out;
}

// Polls `done` until it holds or `seconds` pass.
bool waitFor(const std::function<bool()>& done, double seconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

// A private X server on a display number it picks itself; stopped with the object.
class VirtualDisplay {
public:
    VirtualDisplay() {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            const int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
            const std::string fd = std::to_string(fds[1]);
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1600x1000x24",
                   "-nolisten", "tcp", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        // The server writes the number, then a newline: closing before the newline kills it.
        std::string number;
        char ch;
        while (read(fds[0], &ch, 1) == 1 && ch != '\n') number += ch;
        close(fds[0]);
        if (!number.empty()) name_ = ":" + number;
    }
    // True once a client can connect and the server is still ours.
    bool ready() const {
        if (name_.empty() || waitpid(pid_, nullptr, WNOHANG) != 0) return false;
        return waitFor([&] { return !run("xdotool getdisplaygeometry").empty(); }, 10);
    }
    ~VirtualDisplay() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    const std::string& name() const { return name_; }
    std::string run(const std::string& cmd) const {
        return shell("DISPLAY=" + name_ + " " + cmd + " 2>/dev/null");
    }
    std::string window(const std::string& title) const {
        const std::string ids = run("xdotool search --name '^" + title + "$'");
        return ids.substr(0, ids.find('\n'));
    }
    cv::Mat screenshot(const std::string& path) const {
        run("import -window root png:" + path);
        return cv::imread(path, cv::IMREAD_COLOR);
    }

private:
    pid_t pid_ = -1;
    std::string name_;
};

// The calibration in a child that shows real windows on the virtual display.
struct CalibrationChild {
    pid_t pid = -1;
    std::string out_path;
    std::string err_path;
    int status = -1;

    CalibrationChild(const VirtualDisplay& x, const std::string& cwd,
                     const std::vector<std::string>& list)
        : out_path(cwd + "/stdout.txt"), err_path(cwd + "/stderr.txt") {
        std::fflush(nullptr);
        pid = fork();
        if (pid == 0) {
            setenv("DISPLAY", x.name().c_str(), 1);
            const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(err, 2);
            // Line-buffered as on a terminal: the parent follows the progress by the name lines.
            setvbuf(stdout, nullptr, _IOLBF, 0);
            alarm(120);
            display().reset();
            display().passthrough = true;
            runCalibration(cwd, list, true);
            std::fflush(nullptr);
            _exit(0);
        }
    }
    ~CalibrationChild() {
        if (pid > 0 && status < 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    std::string output() const { return orvo_test::readFile(out_path); }
    // For failure messages: how the child stands and what it said.
    std::string state() {
        return (ended() ? "ended with " + std::to_string(status) : std::string("running")) +
               "; stdout: " + output() + "; stderr: " + orvo_test::readFile(err_path);
    }
    // True once the child has ended; its exit status is then in status.
    bool ended() {
        if (status >= 0) return true;
        int st = 0;
        if (waitpid(pid, &st, WNOHANG) != pid) return false;
        status = WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
        return true;
    }
};

// Sends `key` to the window until `progressed` holds (a key that reaches the window before its
// wait has begun can be lost, so it is repeated after a pause).
bool press(const VirtualDisplay& x, const std::string& window, const std::string& key,
           const std::function<bool()>& progressed) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        x.run("xdotool key --window " + window + " " + key);
        if (waitFor(progressed, 3.0)) return true;
    }
    return false;
}

// Where the image appears on the screenshot, if it does (normalised squared difference).
double bestMatch(const cv::Mat& screen, const cv::Mat& image) {
    if (screen.empty() || screen.cols < image.cols || screen.rows < image.rows) return 1.0;
    cv::Mat score;
    cv::matchTemplate(screen, image, score, cv::TM_SQDIFF_NORMED);
    double best = 1;
    cv::minMaxLoc(score, &best);
    return best;
}

size_t lineCount(const std::string& s) { return size_t(std::count(s.begin(), s.end(), '\n')); }

}  // namespace

TEST(StereoCalibDisplayX11, WindowsKeysAndScreenUnderXvfb) {
    if (!haveProgram("Xvfb") || !haveProgram("xdotool") || !haveProgram("import"))
        GTEST_SKIP() << "Xvfb, xdotool or import (imagemagick) is not installed";
    const VirtualDisplay x;
    ASSERT_TRUE(x.ready()) << "Xvfb did not start or does not answer on '" << x.name() << "'";
    orvo_test::calibrationCamera();
    orvo_test::silenceOpenCvLog();
    const auto list = renderedSet().set.pairs({0, 1, 2});

    {
        const WorkDir work;
        CalibrationChild child(x, work.path, list);
        std::string corners;
        ASSERT_TRUE(waitFor([&] { return !(corners = x.window("corners")).empty(); }, 30))
            << "no \"corners\" window; child " << child.state();
        EXPECT_TRUE(x.window("rectified").empty());
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const cv::Mat first = x.screenshot(work.path + "/corners.png");
        EXPECT_LT(bestMatch(first, expectedCornerView(list[0])), 1e-3);

        for (size_t i = 1; i <= list.size(); ++i) {
            const bool last = i == list.size();
            ASSERT_TRUE(press(x, corners, "space", [&] {
                return last ? !x.window("rectified").empty() : lineCount(child.output()) > i;
            })) << "image " << i << "; child " << child.state();
        }
        const std::string rectified = x.window("rectified");
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const cv::Mat screen = x.screenshot(work.path + "/rectified.png");
        EXPECT_LT(bestMatch(screen, expectedCanvases(work.params, list)[0]), 1e-3);

        ASSERT_TRUE(press(x, rectified, "q", [&] { return child.ended(); })) << child.state();
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(orvo_test::listDirectory(work.params),
                  (std::vector<std::string>{"extrinsics.yml", "intrinsics.yml"}));
    }
    {
        const WorkDir work;
        CalibrationChild child(x, work.path, list);
        std::string corners;
        ASSERT_TRUE(waitFor([&] { return !(corners = x.window("corners")).empty(); }, 30))
            << child.state();
        ASSERT_TRUE(press(x, corners, "Escape", [&] { return child.ended(); })) << child.state();
        EXPECT_EQ(child.status, 255);
        EXPECT_EQ(child.output(), list[0] + "\n");
        EXPECT_TRUE(orvo_test::listDirectory(work.params).empty());
    }
}

TEST(StereoCalibDisplay, FacadeEntryShowsTheCalibratedRectification) {
    const auto list = renderedSet().set.pairs({0, 1, 2});
    const WorkDir direct, facade;
    calibrateWithKeys(direct.path, list, true);
    const auto expected = display().images("rectified");

    display().reset();
    const auto& rs = renderedSet();
    const auto c = orvo_test::captureOutput([&] {
        orvo_test::ScopedCwd in(facade.path);
        orvo_test::calibrationCamera().StartStereoCalib(list, rs.board.inner,
                                                        float(rs.board.square));
    });
    EXPECT_EQ(c.out.substr(0, c.out.find("Running")),
              list[0] + "\n" + list[1] + "\n" + list[2] + "\n" + list[3] + "\n" + list[4] +
                  "\n" + list[5] + "\n3 pairs have been successfully detected.\n");
    const auto canvases = display().images("rectified");
    ASSERT_EQ(canvases.size(), 3u);
    for (size_t i = 0; i < canvases.size(); ++i)
        EXPECT_EQ(maxDifference(canvases[i], expected[i]), 0.0) << "pair " << i;
    EXPECT_EQ(orvo_test::readFile(facade.params + "/extrinsics.yml"),
              orvo_test::readFile(direct.params + "/extrinsics.yml"));
}
