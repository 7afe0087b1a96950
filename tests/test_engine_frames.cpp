// Engine construction and its frame pump on the virtual camera: builder choice, constants,
// buffers, image split, inertial trailer decoding, zero-length frames and failed dequeues.
#include <malloc.h>

#include "engine_test_support.h"
#include "ZUNCVHelper.h"

using namespace engine_test;

namespace {

bool sameMat(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() &&
           (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0);
}

// Allocation of at least `bytes`, and not a larger product of the geometry.
void expectAllocation(const unsigned char* p, size_t bytes, const char* what) {
    ASSERT_NE(p, nullptr) << what;
    size_t usable = malloc_usable_size(const_cast<unsigned char*>(p));
    EXPECT_GE(usable, bytes) << what;
    EXPECT_LT(usable, bytes + 8192) << what;
}

void expectNoCalibration(const StereoCamera& e) {
    EXPECT_FALSE(e.maps_valid);
    EXPECT_EQ(e.cx, 0.0);
    EXPECT_EQ(e.cy, 0.0);
    EXPECT_EQ(e.fx, 0.0);
    EXPECT_EQ(e.fy, 0.0);
    EXPECT_EQ(e.baseline, 0.0);
}

}  // namespace

TEST(ValueLimitMin, ZeroesOnlyStrictlyInsideTheBand) {
    EXPECT_EQ(ValueLimit_min(0.4f, -0.5f, 0.5f), 0.0f);
    EXPECT_EQ(ValueLimit_min(-0.49f, -0.5f, 0.5f), 0.0f);
    EXPECT_EQ(ValueLimit_min(0.5f, -0.5f, 0.5f), 0.5f);
    EXPECT_EQ(ValueLimit_min(-0.5f, -0.5f, 0.5f), -0.5f);
    EXPECT_EQ(ValueLimit_min(0.6f, -0.5f, 0.5f), 0.6f);
    // Bounds with low not below high pass everything, including the default (0, 0).
    EXPECT_EQ(ValueLimit_min(0.0f, 0.0f, 0.0f), 0.0f);
    EXPECT_EQ(ValueLimit_min(1e-30f, 0.0f, 0.0f), 1e-30f);
    EXPECT_EQ(ValueLimit_min(0.1f, 0.5f, -0.5f), 0.1f);
    EXPECT_TRUE(std::isnan(ValueLimit_min(NAN, -1.0f, 1.0f)));
}

TEST(EngineConstruction, WithoutCalibrationSourceNothingIsReadAndBuffersAreSized) {
    TempDir dir;
    VirtualCamera cam("pattern");
    DeviceParameter p{};
    p.name_0 = "n0";
    p.name_5 = "n5";
    p.video_path = VirtualCamera::device();
    p.intrinsics_path = "i";  // one character: counts as absent
    p.extrinsics_path = "e";
    p.fisheye_path = "f";
    p.width = kW;
    p.height = kH;
    p.flag_b = true;
    std::unique_ptr<StereoCamera> e;
    orvo_test::captureOutput([&] { e.reset(new StereoCamera(p)); });

    expectNoCalibration(*e);
    EXPECT_TRUE(e->map_1.empty() && e->map_3.empty() && e->camera_matrix.empty());
    EXPECT_EQ(e->name_0, "n0");
    EXPECT_EQ(e->name_5, "n5");
    EXPECT_EQ(e->intrinsics_path, "i");
    EXPECT_EQ(e->extrinsics_path, "e");
    EXPECT_EQ(e->fisheye_path, "f");
    EXPECT_FALSE(e->flag_a);
    EXPECT_TRUE(e->flag_b);
    EXPECT_EQ(e->image_width, kW);
    EXPECT_EQ(e->image_height, kH);
    expectAllocation(e->colour_buffer, 1082880, "colour");
    expectAllocation(e->even_buffer, 360960, "even");
    expectAllocation(e->odd_buffer, 360960, "odd");
    for (const cv::Mat* m : {&e->first_image, &e->second_image}) {
        EXPECT_EQ(m->size(), cv::Size(kW, kH));
        EXPECT_EQ(m->type(), CV_8UC1);
        EXPECT_EQ(cv::countNonZero(*m), 0);
    }
    EXPECT_FALSE(e->new_frame);
    EXPECT_EQ(e->imu_count, 0);
    EXPECT_EQ(e->kp, 10.0f);
    EXPECT_EQ(e->ki, 0.0f);
    EXPECT_EQ(e->quaternion[0], 1.0f);
    EXPECT_EQ(e->quaternion[1] + e->quaternion[2] + e->quaternion[3], 0.0f);
    EXPECT_EQ(e->integral_error[0] + e->integral_error[1] + e->integral_error[2], 0.0f);
    EXPECT_EQ(e->gyro_bias[0] | e->gyro_bias[1] | e->gyro_bias[2], 0);
    EXPECT_EQ(e->gyro_deadband_low, 0.0f);
    EXPECT_EQ(e->gyro_deadband_high, 0.0f);
    EXPECT_EQ(e->solution_count, 0);
    EXPECT_EQ(e->angle_min, -3.141592653589793);
    EXPECT_EQ(e->angle_max, 3.141592653589793);
    EXPECT_EQ(e->deg_to_rad, 0.017453292519943295);

    // Without maps the "rectified" pair is a copy of the split pair, in separate storage.
    cv::Mat a, b;
    EXPECT_FALSE(e->getStereoRemapMat(a, b));
    EXPECT_TRUE(sameImage(a, e->first_image) && sameImage(b, e->second_image));
    EXPECT_NE(a.data, e->first_image.data);
    EXPECT_NE(b.data, e->second_image.data);
}

TEST(EngineConstruction, BuilderChoiceAndConstants) {
    TempDir dir;
    VirtualCamera cam("pattern");
    auto [intr, extr] = writeStereoFiles(dir);
    std::string fish = writeFisheyeFile(dir);
    const cv::Size size(kW, kH);
    orvo::vcam::Rig pinhole_rig, fisheye_rig(fisheyeSpec());

    cv::Mat pin[6], fe[6];
    orvo_test::captureOutput([&] {
        get_remap_mat(intr, extr, size, pin[0], pin[1], pin[2], pin[3], pin[4], pin[5]);
        get_remap_mat_fisheye_file(fish, size, fe[0], fe[1], fe[2], fe[3], fe[4], fe[5]);
    });
    auto expectMaps = [](const StereoCamera& e, const cv::Mat* m, const char* what) {
        EXPECT_TRUE(e.maps_valid) << what;
        EXPECT_TRUE(sameMat(e.map_1, m[0]) && sameMat(e.map_2, m[1])) << what;
        EXPECT_TRUE(sameMat(e.map_3, m[2]) && sameMat(e.map_4, m[3])) << what;
        EXPECT_TRUE(sameMat(e.camera_matrix, m[4]) && sameMat(e.projection_2, m[5])) << what;
        EXPECT_EQ(e.fx, m[4].at<double>(0, 0)) << what;
        EXPECT_EQ(e.fy, m[4].at<double>(1, 1)) << what;
        EXPECT_EQ(e.cx, m[4].at<double>(0, 2)) << what;
        EXPECT_EQ(e.cy, m[4].at<double>(1, 2)) << what;
        // The baseline goes through single precision: a double-only quotient is a different value.
        const double quotient = m[5].at<double>(0, 3) / m[5].at<double>(0, 0);
        ASSERT_NE(double(float(quotient)), quotient) << "the rig must exercise the rounding";
        EXPECT_EQ(e.baseline, double(std::fabs(float(quotient)))) << what;
        EXPECT_GT(e.baseline, 0.0) << what;
        EXPECT_NEAR(e.baseline, 0.12, 1e-3) << what;
    };

    {  // Both pinhole paths win over a fisheye path; the fisheye reader never runs.
        std::string out;
        auto e = makeEngine(intr, extr, fish, &out);
        expectMaps(*e, pin, "pinhole + fisheye");
        EXPECT_EQ(e->fx, pinhole_rig.K1.at<double>(0, 0));
        EXPECT_EQ(out.find("read K1"), std::string::npos) << out;
    }
    {  // A one-character intrinsics path counts as absent: the fisheye file is used.
        std::string out;
        auto e = makeEngine("x", extr, fish, &out);
        expectMaps(*e, fe, "one-character intrinsics");
        EXPECT_EQ(e->fx, fisheye_rig.K1.at<double>(0, 0));
        EXPECT_NE(out.find("read K1\nread D1\n"), std::string::npos) << out;
    }
    {
        auto e = makeEngine("", "", fish);
        expectMaps(*e, fe, "fisheye only");
    }
    // A right projection that is not 3x4, then none at all: no baseline, so no calibration.
    for (bool erase : {false, true}) {
        editMatrices(extr, [&](std::map<std::string, cv::Mat>& m) {
            if (erase)
                m.erase("P2");
            else
                m["P2"] = cv::Mat::eye(3, 3, CV_64F);
        });
        auto e = makeEngine(intr, extr, "");
        expectNoCalibration(*e);
        cv::Mat a, b;
        EXPECT_FALSE(e->getStereoRemapMat(a, b)) << erase;
    }
}

TEST(EngineTrailer, DecodesEveryCountBitForBit) {
    TempDir dir;
    std::mt19937 rng(2024);
    // Frames 0..20 carry 0..20 records. Record 0 of frame 3 holds fixed anchors; frame 4 holds
    // gyro readings at the dead band's edges for the second pass.
    std::vector<Frame> frames;
    for (int n = 0; n <= 20; ++n) frames.push_back(randomFrame(rng, uint8_t(n)));
    const int16_t anchor_gyro[3] = {0, 164, -164}, anchor_accel[3] = {8192, -32768, 0};
    putRecord(frames[3], kCookedBlockFromEnd, 0, anchor_gyro, anchor_accel);
    DecodeSettings tuned;
    tuned.bias[0] = 5;
    tuned.bias[1] = -7;
    tuned.bias[2] = 100;
    tuned.low = float(-82) / 16.4f;
    tuned.high = float(82) / 16.4f;
    tuned.offset[0] = 0.01f;
    tuned.offset[1] = -0.02f;
    tuned.offset[2] = 0.5f;
    const int16_t edge_gyro[2][3] = {{5 + 82, -7 - 82, 100 + 81}, {5 - 81, -7 + 83, 100}};
    const int16_t some_accel[3] = {1, -1, 4096};
    putRecord(frames[4], kCookedBlockFromEnd, 0, edge_gyro[0], some_accel);
    putRecord(frames[4], kCookedBlockFromEnd, 1, edge_gyro[1], some_accel);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", "");

    cv::Mat first, second;
    std::vector<ImuData> imu;
    unsigned int frame_time = 0;
    for (int pass = 0; pass < 2; ++pass) {
        const DecodeSettings s = pass == 0 ? DecodeSettings() : tuned;
        std::copy(s.bias, s.bias + 3, e->gyro_bias);
        e->gyro_deadband_low = s.low;
        e->gyro_deadband_high = s.high;
        std::copy(s.offset, s.offset + 3, e->accel_offset);
        for (int n = 0; n <= 20; ++n) {
            const unsigned int before = frame_time;
            e->update_cam_imu(first, second, imu, frame_time);
            const std::string what = "pass " + std::to_string(pass) + " count " + std::to_string(n);
            expectSameSamples(imu, expectedSamples(frames[n], kCookedBlockFromEnd, n, s), what);
            EXPECT_EQ(e->imu_count, n) << what;
            // With 20 records no slot is left for the frame time: it keeps its previous value.
            EXPECT_EQ(frame_time, n < 20 ? slotTime(frames[n], kCookedBlockFromEnd, n) : before)
                << what;
            EXPECT_TRUE(sameImage(first, interleavedImage(frames[n], 1))) << what;
            EXPECT_TRUE(sameImage(second, interleavedImage(frames[n], 0))) << what;
            EXPECT_NE(first.data, e->odd_buffer);
            if (pass == 0 && n == 3) {
                EXPECT_EQ(imu[0].gyro_x, 0.0f);
                EXPECT_EQ(imu[0].accel_x, 1.0f);
                EXPECT_EQ(imu[0].accel_y, -4.0f);
                EXPECT_EQ(imu[0].accel_z, 0.0f);
                EXPECT_EQ(imu[0].gyro_y, -imu[0].gyro_z);
                EXPECT_NEAR(imu[0].gyro_y, 10.0 / 57.3, 1e-6);
            }
            if (pass == 1 && n == 4) {  // strict bounds: exactly +-82 counts pass, 81 do not
                EXPECT_NE(imu[0].gyro_x, 0.0f);
                EXPECT_NE(imu[0].gyro_y, 0.0f);
                EXPECT_EQ(imu[0].gyro_z, 0.0f);
                EXPECT_EQ(imu[1].gyro_x, 0.0f);
                EXPECT_NE(imu[1].gyro_y, 0.0f);
                EXPECT_EQ(imu[1].gyro_z, 0.0f);
                EXPECT_EQ(imu[1].accel_z, 0.5f + 0.5f);
            }
        }
    }
}

TEST(EngineTrailer, InertialOnlyPathTakesTheBlockEightBytesLater) {
    TempDir dir;
    std::mt19937 rng(77);
    std::vector<Frame> frames;
    for (int n : {0, 1, 7, 19, 20}) frames.push_back(randomFrame(rng, uint8_t(n)));
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", "");

    std::vector<ImuData> imu(3);
    unsigned int frame_time = 0;
    for (const Frame& f : frames) {
        const int n = f.back();
        const unsigned int before = frame_time;
        e->update_imu_raw(imu, frame_time);
        expectSameSamples(imu, expectedSamples(f, kRawBlockFromEnd, n), "count " + std::to_string(n));
        EXPECT_EQ(frame_time, n < 20 ? slotTime(f, kRawBlockFromEnd, n) : before);
        if (n > 0) {
            ASSERT_FALSE(imu.empty());
            EXPECT_NE(imu[0].time, expectedSamples(f, kCookedBlockFromEnd, 1)[0].time);
        }
    }
}

TEST(EngineTrailer, CountsAboveTheSlotsAreClampedAndNeverReadOutsideTheBlock) {
    TempDir dir;
    std::mt19937 rng(5);
    std::vector<Frame> frames{randomFrame(rng, 5)};
    for (int n : {21, 22, 100, 254, 255}) frames.push_back(randomFrame(rng, uint8_t(n)));
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", "");

    cv::Mat first, second;
    std::vector<ImuData> imu;
    unsigned int frame_time = 0;
    e->update_cam_imu(first, second, imu, frame_time);
    const unsigned int known = slotTime(frames[0], kCookedBlockFromEnd, 5);
    ASSERT_EQ(frame_time, known);
    for (size_t i = 1; i < frames.size(); ++i) {
        e->update_cam_imu(first, second, imu, frame_time);
        const std::string what = "count " + std::to_string(frames[i].back());
        expectSameSamples(imu, expectedSamples(frames[i], kCookedBlockFromEnd, 20), what);
        EXPECT_EQ(e->imu_count, 20) << what;
        EXPECT_EQ(frame_time, known) << what;
        EXPECT_TRUE(sameImage(first, interleavedImage(frames[i], 1))) << what;
    }
    // Same clamp on the inertial-only path (the file loops back to the first frame).
    e->update_imu_raw(imu, frame_time);
    EXPECT_EQ(imu.size(), 5u);
    for (size_t i = 1; i < frames.size(); ++i) {
        const unsigned int before = frame_time;
        e->update_imu_raw(imu, frame_time);
        expectSameSamples(imu, expectedSamples(frames[i], kRawBlockFromEnd, 20), "raw");
        EXPECT_EQ(frame_time, before);
    }
}

TEST(EngineTrailer, ZeroLengthFramesLeaveTheOutputsUntouched) {
    TempDir dir;
    std::mt19937 rng(9);
    std::vector<Frame> frames{randomFrame(rng, 3), randomFrame(rng, 4)};
    std::string raw = writeRaw(dir, frames);
    {  // Every dequeued buffer reports 0 bytes.
        VirtualCamera cam("raw:" + raw, "bytesused=0");
        auto e = makeEngine("", "", "");
        cv::Mat first(2, 2, CV_8UC1, cv::Scalar(7)), second(3, 3, CV_8UC1, cv::Scalar(9));
        const uchar *first_data = first.data, *second_data = second.data;
        std::vector<ImuData> imu{ImuData{42, 1, 2, 3, 4, 5, 6}};
        unsigned int frame_time = 4242;
        // More calls than buffers: each one must be handed back to the driver.
        auto c = orvo_test::captureOutput([&] {
            for (int i = 0; i < 8; ++i) {
                e->update_cam_imu(first, second, imu, frame_time);
                e->update_imu_raw(imu, frame_time);
            }
        });
        EXPECT_EQ(c.out, "");
        EXPECT_EQ(first.data, first_data);
        EXPECT_EQ(second.data, second_data);
        EXPECT_EQ(first.at<uchar>(1, 1), 7);
        EXPECT_EQ(second.rows, 3);
        ASSERT_EQ(imu.size(), 1u);
        EXPECT_EQ(imu[0].time, 42u);
        EXPECT_EQ(imu[0].gyro_z, 6.0f);
        EXPECT_EQ(frame_time, 4242u);
    }
    {  // From the second dequeue on: the first frame's results stay.
        VirtualCamera cam("raw:" + raw, "bytesused@2=0");
        auto e = makeEngine("", "", "");
        cv::Mat first, second;
        std::vector<ImuData> imu;
        unsigned int frame_time = 0;
        e->update_cam_imu(first, second, imu, frame_time);
        const uchar* first_data = first.data;
        e->update_cam_imu(first, second, imu, frame_time);
        EXPECT_EQ(first.data, first_data);
        expectSameSamples(imu, expectedSamples(frames[0], kCookedBlockFromEnd, 3), "kept");
        EXPECT_EQ(frame_time, slotTime(frames[0], kCookedBlockFromEnd, 3));
    }
}

TEST(EngineFrames, UpdateSplitsAndFlipsOnRequest) {
    TempDir dir;
    std::mt19937 rng(11);
    std::vector<Frame> frames{randomFrame(rng, 2), randomFrame(rng, 2)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto e = makeEngine("", "", "");

    cv::Mat first, second, rect_first, rect_second;
    e->update(first, second, false);
    EXPECT_TRUE(e->new_frame);
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[0], 1)));
    EXPECT_TRUE(sameImage(second, interleavedImage(frames[0], 0)));
    EXPECT_NE(first.data, e->odd_buffer);
    EXPECT_NE(second.data, e->even_buffer);
    EXPECT_FALSE(e->getStereoRemapMat(rect_first, rect_second));
    EXPECT_FALSE(e->new_frame);
    EXPECT_TRUE(sameImage(rect_first, first));

    e->update(first, second, true);
    cv::Mat up_first, up_second;
    cv::flip(interleavedImage(frames[1], 1), up_first, 0);
    cv::flip(interleavedImage(frames[1], 0), up_second, 0);
    EXPECT_TRUE(sameImage(first, up_first));
    EXPECT_TRUE(sameImage(second, up_second));
    EXPECT_EQ(first.at<uchar>(0, 5), frames[1][2 * ((kH - 1) * kW + 5) + 1]);
    // The flip happened in the engine's buffers: the following rectification sees it.
    e->getStereoRemapMat(rect_first, rect_second);
    EXPECT_TRUE(sameImage(rect_first, up_first));
    EXPECT_TRUE(sameImage(rect_second, up_second));
}

TEST(EngineFrames, FailedDequeueIsReportedAndThePreviousFrameReused) {
    TempDir dir;
    std::mt19937 rng(13);
    std::vector<Frame> frames{randomFrame(rng, 6), randomFrame(rng, 8)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames), "DQBUF@2=EIO");
    auto e = makeEngine("", "", "");

    cv::Mat first, second;
    std::vector<ImuData> imu;
    unsigned int frame_time = 0;
    e->update_cam_imu(first, second, imu, frame_time);
    first = cv::Mat();
    imu.clear();
    frame_time = 0;
    auto c = orvo_test::captureOutput([&] { e->update_cam_imu(first, second, imu, frame_time); });
    EXPECT_EQ(c.out,
              "VIDIOC_DQBUF error 5, Input/output error\n"
              " QAXMStereoCamera get_frame errr\n"
              "VIDIOC_QBUF error 9, Bad file descriptor\n");
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[0], 1)));
    expectSameSamples(imu, expectedSamples(frames[0], kCookedBlockFromEnd, 6), "reused");
    EXPECT_EQ(frame_time, slotTime(frames[0], kCookedBlockFromEnd, 6));

    c = orvo_test::captureOutput([&] { e->update(first, second, false); });
    EXPECT_NE(c.out.find(" QAXMStereoCamera get_frame errr\n"), std::string::npos) << c.out;
    EXPECT_TRUE(sameImage(second, interleavedImage(frames[0], 0)));
    orvo_test::captureOutput([&] { e.reset(); });
}
