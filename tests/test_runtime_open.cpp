// orvo::Camera opening: every bad node is an orvo::Error with its errno, and failures leak nothing.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <orvo/orvo.hpp>

#include "runtime_test_support.h"
#include <orvo/vcam/statistics.hpp>

using namespace std::chrono_literals;
using runtime_test::kNode;
using runtime_test::VcamEnv;

namespace {

// Opens `node` expecting failure; returns the errno and keeps the message.
int openFails(const std::string& node, std::string* message = nullptr, const orvo::CameraOptions& opt = {}) {
    try {
        orvo::Camera camera(node, opt);
    } catch (const orvo::Error& e) {
        if (message) *message = e.what();
        return e.code().value();
    }
    return 0;
}

}  // namespace

TEST(RuntimeOpen, MissingNodeSaysToListNodes) {
    VcamEnv env;
    std::string message;
    EXPECT_EQ(ENOENT, openFails("/dev/video-runtime-no-such-node", &message));
    EXPECT_NE(message.find("orvo list"), std::string::npos) << message;
    EXPECT_NE(message.find("/dev/video-runtime-no-such-node"), std::string::npos) << message;
}

TEST(RuntimeOpen, NodesThatAreNotCaptureDevices) {
    std::string message;
    EXPECT_EQ(ENOTTY, openFails("/dev/null", &message));
    EXPECT_NE(message.find("not a V4L2 device"), std::string::npos) << message;
    {
        VcamEnv env("caps=no-capture");
        EXPECT_EQ(ENOTTY, openFails(kNode, &message));
        EXPECT_NE(message.find("not a video capture device"), std::string::npos) << message;
    }
    {
        VcamEnv env("caps=no-streaming");
        EXPECT_EQ(ENOTTY, openFails(kNode, &message));
    }
    {
        VcamEnv env("QUERYCAP=EINVAL");
        EXPECT_EQ(EINVAL, openFails(kNode));
    }
}

// Each request of the negotiation, refused, surfaces as its own errno.
TEST(RuntimeOpen, RefusedRequestsKeepTheirErrno) {
    const struct {
        const char* faults;
        int err;
        const char* words;
    } cases[] = {
        {"S_FMT=EINVAL", EINVAL, "752x480 YUYV"},
        {"S_PARM=EIO", EIO, "S_PARM"},
        {"REQBUFS=ENOMEM", ENOMEM, "REQBUFS"},
        {"REQBUFS=grant:1", ENOMEM, "granted 1"},
        {"QUERYBUF=bad-offset", EINVAL, "map capture buffer"},
        {"QBUF@3=EIO", EIO, "QBUF"},
        {"STREAMON=EIO", EIO, "STREAMON"},
        {"open=EACCES", EACCES, "video group"},
    };
    for (const auto& c : cases) {
        VcamEnv env(c.faults);
        std::string message;
        EXPECT_EQ(c.err, openFails(kNode, &message)) << c.faults;
        EXPECT_NE(message.find(c.words), std::string::npos) << c.faults << ": " << message;
    }
}

TEST(RuntimeOpen, InterruptedRequestsAreRetried) {
    VcamEnv env("ioctl=EINTR:3");
    orvo::Camera camera(kNode);
    EXPECT_TRUE(camera.grab(2s).has_value());
}

TEST(RuntimeOpen, SecondCameraOnTheSameNodeIsBusy) {
    VcamEnv env;
    orvo::Camera first(kNode);
    std::string message;
    EXPECT_EQ(EBUSY, openFails(kNode, &message));
    EXPECT_NE(message.find(std::string("is another program using ") + kNode), std::string::npos) << message;
    // The failed second open disturbed nothing: the first camera still streams.
    EXPECT_TRUE(first.grab(2s).has_value());
    EXPECT_EQ(orvo::CameraState::streaming, first.state());
}

TEST(RuntimeOpen, RectifyWithoutCalibrationIsRefused) {
    VcamEnv env;
    orvo::CameraOptions opt;
    opt.rectify = true;
    EXPECT_EQ(EINVAL, openFails(kNode, nullptr, opt));
    EXPECT_FALSE(orvo::vcam::statistics().active);  // refused before the node was opened
}

// Failures late in the negotiation (after buffers are mapped) and early ones, a thousand in all:
// the descriptor and mapping counts come back to where they started.
TEST(RuntimeOpen, AThousandFailedOpensLeakNothing) {
    const char* faults[] = {"STREAMON=EIO", "QBUF@4=EIO", "QUERYBUF@3=bad-offset", "S_FMT=EINVAL",
                            "caps=no-capture"};
    {  // warm up lazily created state (locale, allocator arenas) before counting
        VcamEnv env(faults[0]);
        openFails(kNode);
    }
    const size_t fds = runtime_test::openDescriptors();
    [[maybe_unused]] const size_t maps = runtime_test::mappings();
    const size_t buffers = runtime_test::mappings(runtime_test::kBufferMapping);
    int failed = 0;
    for (int i = 0; i < 1000; ++i) {
        VcamEnv env(faults[i % 5]);
        failed += openFails(kNode) != 0;
    }
    EXPECT_EQ(1000, failed);
    EXPECT_EQ(fds, runtime_test::openDescriptors());
#ifndef __SANITIZE_ADDRESS__  // AddressSanitizer maps its allocator's regions as it goes
    EXPECT_EQ(maps, runtime_test::mappings());
#endif
    EXPECT_EQ(buffers, runtime_test::mappings(runtime_test::kBufferMapping));
    EXPECT_EQ(0u, orvo::vcam::statistics().open_descriptors);
}

TEST(RuntimeOpen, OpenAndCloseRepeatedlyLeaksNothing) {
    VcamEnv env;
    { orvo::Camera warm(kNode); ASSERT_TRUE(warm.grab(2s)); }
    const size_t fds = runtime_test::openDescriptors();
    // Only the buffer mappings: thread stacks come and go with each camera's capture thread (and a
    // sanitizer runtime keeps per-thread mappings of its own).
    const size_t buffers = runtime_test::mappings(runtime_test::kBufferMapping);
    for (int i = 0; i < 20; ++i) {
        orvo::Camera camera(kNode);
        ASSERT_TRUE(camera.grab(2s).has_value());
        EXPECT_GE(runtime_test::mappings(runtime_test::kBufferMapping), buffers + 2);
    }
    EXPECT_EQ(fds, runtime_test::openDescriptors());
    EXPECT_EQ(buffers, runtime_test::mappings(runtime_test::kBufferMapping));
}

TEST(RuntimeDevices, ListsTheVirtualNodeAndWhetherItIsBusy) {
    VcamEnv env;
    auto find = [] {
        for (const auto& d : orvo::list_devices())
            if (d.node == kNode) return std::optional<orvo::DeviceInfo>(d);
        return std::optional<orvo::DeviceInfo>();
    };
    auto free_node = find();
    ASSERT_TRUE(free_node.has_value());
    EXPECT_FALSE(free_node->busy);
    EXPECT_FALSE(free_node->card.empty());
    EXPECT_FALSE(free_node->bus_info.empty());
    {
        orvo::Camera camera(kNode);
        auto busy_node = find();
        ASSERT_TRUE(busy_node.has_value());
        EXPECT_TRUE(busy_node->busy);
        EXPECT_TRUE(camera.grab(2s).has_value());  // listing did not take the queue from the camera
    }
    // Listing left no owner behind: a camera opens.
    EXPECT_NO_THROW(orvo::Camera again(kNode));
    VcamEnv no_capture("caps=no-capture");
    EXPECT_FALSE(find().has_value());
}
