// Engine construction and its frame pump on the virtual camera: builder choice, constants,
// buffers, image split, inertial trailer decoding, zero-length frames and failed dequeues.
#include <malloc.h>

#include "engine_test_support.h"
#include "ZUNCVHelper.h"

using namespace engine_test;

namespace {

bool sameMat(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0);
}

void expectNoCalibration(const StereoCamera& e) {
    EXPECT_FALSE(e.maps_valid);
    EXPECT_EQ(e.cx + e.cy + e.fx + e.fy + e.baseline, 0.0);
}

}  // namespace

TEST(ValueLimitMin, ZeroesOnlyStrictlyInsideTheBand) {
    // Bounds with low not below high pass everything, including the default (0, 0).
    const float cases[][4] = {{0.4f, -0.5f, 0.5f, 0.0f}, {-0.49f, -0.5f, 0.5f, 0.0f},
                              {0.5f, -0.5f, 0.5f, 0.5f}, {-0.5f, -0.5f, 0.5f, -0.5f},
                              {0.6f, -0.5f, 0.5f, 0.6f}, {1e-30f, 0.0f, 0.0f, 1e-30f},
                              {0.1f, 0.5f, -0.5f, 0.1f}};
    for (const auto& c : cases) EXPECT_EQ(ValueLimit_min(c[0], c[1], c[2]), c[3]) << c[0];
    EXPECT_TRUE(std::isnan(ValueLimit_min(NAN, -1.0f, 1.0f)));
}

TEST(EngineConstruction, WithoutCalibrationSourceNothingIsReadAndBuffersAreSized) {
    VirtualCamera cam("pattern");
    auto e = makeEngine("i", "e", "f");  // one-character paths count as absent
    expectNoCalibration(*e);
    EXPECT_TRUE(e->map_1.empty() && e->map_3.empty() && e->camera_matrix.empty());
    // Allocations of at least the geometry's product, and not a larger one.
    for (auto [p, bytes] : {std::pair{e->colour_buffer, 1082880}, {e->even_buffer, 360960}, {e->odd_buffer, 360960}}) {
        ASSERT_NE(p, nullptr);
        const size_t usable = malloc_usable_size(p);
        EXPECT_GE(usable, size_t(bytes));
        EXPECT_LT(usable, size_t(bytes) + 8192);
    }
    for (const cv::Mat* m : {&e->first_image, &e->second_image}) {
        EXPECT_TRUE(m->size() == cv::Size(kW, kH) && m->type() == CV_8UC1);
        EXPECT_EQ(cv::countNonZero(*m), 0);
    }
    EXPECT_FALSE(e->new_frame);
    EXPECT_EQ(e->imu_count, 0);
    // (The filter's and the decoder's initial state is pinned by the attitude and trailer tests.)
    EXPECT_EQ(e->angle_min, -3.141592653589793);
    EXPECT_EQ(e->angle_max, 3.141592653589793);
    EXPECT_EQ(e->deg_to_rad, 0.017453292519943295);

    // Without maps the "rectified" pair is a copy of the split pair, in separate storage.
    cv::Mat a, b;
    EXPECT_FALSE(e->getStereoRemapMat(a, b));
    EXPECT_TRUE(sameImage(a, e->first_image) && sameImage(b, e->second_image));
    EXPECT_TRUE(a.data != e->first_image.data && b.data != e->second_image.data);
}

TEST(EngineConstruction, BuilderChoiceAndConstants) {
    TempDir dir;
    VirtualCamera cam("pattern");
    auto [intr, extr] = writeStereoFiles(dir);
    std::string fish = writeFisheyeFile(dir);
    const cv::Size size(kW, kH);
    cv::Mat pin[6], fe[6];
    orvo_test::captureOutput([&] {
        get_remap_mat(intr, extr, size, pin[0], pin[1], pin[2], pin[3], pin[4], pin[5]);
        get_remap_mat_fisheye_file(fish, size, fe[0], fe[1], fe[2], fe[3], fe[4], fe[5]);
    });
    const double pin_fx = orvo::vcam::Rig().K1.at<double>(0, 0);
    const double fe_fx = orvo::vcam::Rig(fisheyeRigParams()).K1.at<double>(0, 0);
    struct Case {
        const char* what;
        std::string intr, extr;
        const cv::Mat* maps;
        double fx;
        bool fisheye_read;
    } cases[] = {{"pinhole wins over fisheye", intr, extr, pin, pin_fx, false},
                 {"one-character intrinsics count as absent", "x", extr, fe, fe_fx, true},
                 {"fisheye only", "", "", fe, fe_fx, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string out;
        auto e = makeEngine(c.intr, c.extr, fish, &out);
        const cv::Mat* m = c.maps;
        EXPECT_TRUE(e->maps_valid);
        EXPECT_TRUE(sameMat(e->map_1, m[0]) && sameMat(e->map_2, m[1]));
        EXPECT_TRUE(sameMat(e->map_3, m[2]) && sameMat(e->map_4, m[3]));
        EXPECT_TRUE(sameMat(e->camera_matrix, m[4]) && sameMat(e->projection_2, m[5]));
        EXPECT_EQ(e->fx, c.fx);
        EXPECT_EQ(e->fy, m[4].at<double>(1, 1));
        EXPECT_EQ(e->cx, m[4].at<double>(0, 2));
        EXPECT_EQ(e->cy, m[4].at<double>(1, 2));
        // The baseline goes through single precision: a double-only quotient is a different value.
        const double quotient = m[5].at<double>(0, 3) / m[5].at<double>(0, 0);
        ASSERT_NE(double(float(quotient)), quotient) << "the rig must exercise the rounding";
        EXPECT_EQ(e->baseline, double(std::fabs(float(quotient))));
        EXPECT_NEAR(e->baseline, 0.12, 1e-3);
        EXPECT_EQ(out.find("read K1\nread D1\n") != std::string::npos, c.fisheye_read) << out;
    }
    // A right projection that is not 3x4, then none at all: no baseline, so no calibration.
    for (bool erase : {false, true}) {
        editMatrices(extr, [&](std::map<std::string, cv::Mat>& m) {
            if (erase) m.erase("P2");
            else m["P2"] = cv::Mat::eye(3, 3, CV_64F);
        });
        auto e = makeEngine(intr, extr, "");
        expectNoCalibration(*e);
        cv::Mat a, b;
        EXPECT_FALSE(e->getStereoRemapMat(a, b)) << erase;
    }
}

// Counts 0..20 and above, on both decoding paths: the facade's path reads the block at 489 bytes
// from the end, the inertial-only path (deliberately) 8 bytes later. Counts above 20 are clamped;
// with 20 records no slot is left for the frame time, which keeps its previous value.
TEST(EngineTrailer, BothPathsDecodeEveryCountBitForBitAndClampIt) {
    TempDir dir;
    std::mt19937 rng(2024);
    std::vector<Frame> frames;
    for (int n = 0; n <= 20; ++n) frames.push_back(randomFrame(rng, uint8_t(n)));
    for (int n : {21, 22, 100, 254, 255}) frames.push_back(randomFrame(rng, uint8_t(n)));
    // Fixed anchors in frame 3; gyro readings at the dead band's edges in frame 4.
    const int16_t anchor_gyro[3] = {0, 164, -164}, anchor_accel[3] = {8192, -32768, 0};
    putRecord(frames[3], kCookedBlockFromEnd, 0, anchor_gyro, anchor_accel);
    DecodeSettings tuned{{5, -7, 100}, float(-82) / 16.4f, float(82) / 16.4f, {0.01f, -0.02f, 0.5f}};
    const int16_t edge_gyro[2][3] = {{5 + 82, -7 - 82, 100 + 81}, {5 - 81, -7 + 83, 100}};
    const int16_t some_accel[3] = {1, -1, 4096};
    putRecord(frames[4], kCookedBlockFromEnd, 0, edge_gyro[0], some_accel);
    putRecord(frames[4], kCookedBlockFromEnd, 1, edge_gyro[1], some_accel);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", "");

    cv::Mat first, second;
    std::vector<ImuData> imu(3);
    unsigned int frame_time = 0;
    for (int pass = 0; pass < 3; ++pass) {  // cooked, cooked with settings, inertial-only
        const DecodeSettings s = pass == 1 ? tuned : DecodeSettings();
        const size_t block = pass == 2 ? kRawBlockFromEnd : kCookedBlockFromEnd;
        if (pass > 0) {  // the first pass runs on the engine's initial (zero) settings
            std::copy(s.bias, s.bias + 3, e->gyro_bias);
            e->gyro_deadband_low = s.low;
            e->gyro_deadband_high = s.high;
            std::copy(s.offset, s.offset + 3, e->accel_offset);
        }
        for (const Frame& f : frames) {
            const int n = std::min<int>(f.back(), 20);
            const unsigned int before = frame_time;
            SCOPED_TRACE("pass " + std::to_string(pass) + " count " + std::to_string(f.back()));
            if (pass == 2) {
                e->update_imu_raw(imu, frame_time);
            } else {
                e->update_cam_imu(first, second, imu, frame_time);
                EXPECT_EQ(e->imu_count, n);
                EXPECT_TRUE(sameImage(first, interleavedImage(f, 1)));
                EXPECT_TRUE(sameImage(second, interleavedImage(f, 0)));
                EXPECT_NE(first.data, e->odd_buffer);
            }
            expectSameSamples(imu, expectedSamples(f, block, n, s), "");
            EXPECT_EQ(frame_time, n < 20 ? slotTime(f, block, n) : before);
            if (pass == 0 && &f == &frames[3]) {
                EXPECT_EQ(imu[0].gyro_x, 0.0f);
                EXPECT_EQ(imu[0].accel_x, 1.0f);
                EXPECT_EQ(imu[0].accel_y, -4.0f);
                EXPECT_EQ(imu[0].accel_z, 0.0f);
                EXPECT_EQ(imu[0].gyro_y, -imu[0].gyro_z);
                EXPECT_NEAR(imu[0].gyro_y, 10.0 / 57.3, 1e-6);
            }
            if (pass == 1 && &f == &frames[4]) {  // strict bounds: exactly +-82 counts pass, 81 do not
                EXPECT_TRUE(imu[0].gyro_x != 0.0f && imu[0].gyro_y != 0.0f && imu[1].gyro_y != 0.0f);
                EXPECT_EQ(imu[0].gyro_z, 0.0f);
                EXPECT_EQ(imu[1].gyro_x, 0.0f);
                EXPECT_EQ(imu[1].gyro_z, 0.0f);
                EXPECT_EQ(imu[1].accel_z, 0.5f + 0.5f);
            }
        }
    }
}

// Every dequeued buffer reports 0 bytes: both paths leave their outputs alone, and hand each
// buffer back to the driver (more calls than buffers).
TEST(EngineTrailer, ZeroLengthFramesLeaveTheOutputsUntouched) {
    TempDir dir;
    std::mt19937 rng(9);
    VirtualCamera cam("raw:" + writeRaw(dir, {randomFrame(rng, 3)}), "bytesused=0");
    auto e = makeEngine("", "", "");
    cv::Mat first(2, 2, CV_8UC1, cv::Scalar(7)), second(3, 3, CV_8UC1, cv::Scalar(9));
    const uchar *first_data = first.data, *second_data = second.data;
    std::vector<ImuData> imu{ImuData{42, 1, 2, 3, 4, 5, 6}};
    const std::vector<ImuData> imu_before = imu;
    unsigned int frame_time = 4242;
    auto c = orvo_test::captureOutput([&] {
        for (int i = 0; i < 8; ++i) {
            e->update_cam_imu(first, second, imu, frame_time);
            e->update_imu_raw(imu, frame_time);
        }
    });
    EXPECT_EQ(c.out, "");
    EXPECT_TRUE(first.data == first_data && second.data == second_data);
    EXPECT_EQ(first.at<uchar>(1, 1), 7);
    expectSameSamples(imu, imu_before, "untouched");
    EXPECT_EQ(frame_time, 4242u);
}

// The split and the in-place flip; then a failed dequeue, reported, reuses the frame last dequeued.
TEST(EngineFrames, UpdateSplitsFlipsAndReusesTheFrameAfterAFailedDequeue) {
    TempDir dir;
    std::mt19937 rng(11);
    std::vector<Frame> frames{randomFrame(rng, 2), randomFrame(rng, 6)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames), "DQBUF@3=EIO");
    auto e = makeEngine("", "", "");

    cv::Mat first, second, rect_first, rect_second;
    e->update(first, second, false);
    EXPECT_TRUE(e->new_frame);
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[0], 1)));
    EXPECT_TRUE(sameImage(second, interleavedImage(frames[0], 0)));
    EXPECT_TRUE(first.data != e->odd_buffer && second.data != e->even_buffer);
    EXPECT_FALSE(e->getStereoRemapMat(rect_first, rect_second));
    EXPECT_FALSE(e->new_frame);

    e->update(first, second, true);
    cv::Mat up_first, up_second;
    cv::flip(interleavedImage(frames[1], 1), up_first, 0);
    cv::flip(interleavedImage(frames[1], 0), up_second, 0);
    EXPECT_TRUE(sameImage(first, up_first) && sameImage(second, up_second));
    EXPECT_EQ(first.at<uchar>(0, 5), frames[1][2 * ((kH - 1) * kW + 5) + 1]);
    // The flip happened in the engine's buffers: the following rectification sees it.
    e->getStereoRemapMat(rect_first, rect_second);
    EXPECT_TRUE(sameImage(rect_first, up_first) && sameImage(rect_second, up_second));

    // (The facade's path through the same failure is walked by the fault matrix.)
    first = cv::Mat();
    auto c = orvo_test::captureOutput([&] { e->update(first, second, false); });
    EXPECT_EQ(c.out,
              "VIDIOC_DQBUF error 5, Input/output error\n"
              " QAXMStereoCamera get_frame errr\n"
              "VIDIOC_QBUF error 9, Bad file descriptor\n");
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[1], 1)));
    EXPECT_TRUE(sameImage(second, interleavedImage(frames[1], 0)));
    orvo_test::captureOutput([&] { e.reset(); });
}
