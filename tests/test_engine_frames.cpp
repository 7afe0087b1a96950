// The engine and the camera facade on the virtual camera: construction, Grab and its getters, the frame
// pump and the inertial trailer (the dead band's reversed bounds are pinned through the attitude filter).
#include <set>

#include "engine_test_support.h"

using namespace engine_test;

// Which builder runs (a one-character path counts as absent; the pinhole pair wins, the fisheye file then
// unread), the constants from its outputs; a right projection not 3x4 means no calibration. The facade:
// four separate images, the matchers, Grab into members whose storage the getters share.
TEST(EngineConstruction, BuilderChoiceConstantsAndTheFacadesImages) {
    TempDir dir;
    std::mt19937 rng(22);
    std::vector<Frame> frames{randomFrame(rng, 1), randomFrame(rng, 2)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto [intr, extr] = writeStereoFiles(dir);
    const std::string fish = writeFisheyeFile(dir), p2_3x3 = dir.file("p2_3x3.yml");
    std::filesystem::copy_file(extr, p2_3x3);
    editMatrices(p2_3x3, [](std::map<std::string, cv::Mat>& m) { m["P2"] = cv::Mat::eye(3, 3, CV_64F); });
    const struct {
        const char* what;
        std::string intr, extr, fish;
        double fx;  // 0: no calibration
    } cases[] = {{"pinhole wins over fisheye", intr, extr, fish, 430}, {"one-character intrinsics", "x", extr, fish, 300},
                 {"fisheye only", "", "", fish, 300}, {"nothing usable", "i", "e", "f", 0},
                 {"P2 not 3x4", intr, p2_3x3, "", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string out;
        auto e = makeEngine(c.intr, c.extr, c.fish, &out);
        EXPECT_EQ(out.find("read K1\nread D1\n") != std::string::npos, c.fx == 300) << out;
        EXPECT_EQ(e->deg_to_rad, 0.017453292519943295);  // (the angle origin is pinned by the depth tests)
        EXPECT_TRUE(e->fx == c.fx && e->maps_valid == (c.fx != 0)) << e->fx;
        cv::Mat a, b;
        if (c.fx == 0) {
            EXPECT_FALSE(e->getStereoRemapMat(a, b));
            EXPECT_EQ(e->cx + e->cy + e->fy + e->baseline, 0.0);
            continue;
        }
        const cv::Mat& k = e->camera_matrix;
        EXPECT_EQ(cv::Vec3d(e->fy, e->cx, e->cy), cv::Vec3d(k.at<double>(1, 1), k.at<double>(0, 2), k.at<double>(1, 2)));
        // The baseline goes through single precision: a double-only quotient is a different value.
        const double quotient = e->projection_2.at<double>(0, 3) / e->projection_2.at<double>(0, 0);
        ASSERT_NE(double(float(quotient)), quotient) << "the rig must exercise the rounding";
        EXPECT_EQ(e->baseline, double(std::fabs(float(quotient))));
        EXPECT_NEAR(e->baseline, 0.12, 1e-3);
    }
    auto f = makeFacade(intr, extr, fish);
    EXPECT_EQ(camera_->fx, 430.0);  // the fisheye file is ignored
    cv::Mat org1, org2, rect1, rect2;
    f->getOrgImage(org1, org2);
    f->getRectImage(rect1, rect2);
    EXPECT_EQ(std::set<const uchar*>({org1.data, org2.data, rect1.data, rect2.data}).size(), 4u);  // black: fault matrix
    const cv::StereoSGBM& s = *sgbm_;
    const cv::StereoBM& b = *bm_;
    EXPECT_EQ((std::vector<int>{s.getMinDisparity(), s.getNumDisparities(), s.getBlockSize(), s.getP1(), s.getP2(),
                                s.getDisp12MaxDiff(), s.getPreFilterCap(), s.getUniquenessRatio(), s.getSpeckleWindowSize(),
                                s.getSpeckleRange(), s.getMode(), b.getPreFilterType(), b.getPreFilterSize(),
                                b.getPreFilterCap(), b.getBlockSize(), b.getMinDisparity(), b.getNumDisparities(),
                                b.getTextureThreshold(), b.getUniquenessRatio(), b.getSpeckleWindowSize(),
                                b.getSpeckleRange(), b.getDisp12MaxDiff(), b.getSmallerBlockSize()}),
              (std::vector<int>{0, 64, 5, 200, 800, 5, 63, 10, 100, 2, cv::StereoSGBM::MODE_HH,  // then the block matcher
                                cv::StereoBM::PREFILTER_NORMALIZED_RESPONSE, 9, 31, 15, 0, 128, 10, 15, 100, 32, 1, 0}));
    ASSERT_TRUE(f->Grab());
    f->getOrgImage(org1, org2);
    f->getRectImage(rect1, rect2);
    EXPECT_TRUE(org1.data == f->org_image_1.data && rect2.data == f->rect_image_2.data);  // shared, not copied
    const cv::Mat org1_then = org1.clone(), rect1_then = rect1.clone();
    EXPECT_FALSE(sameImage(rect1, org1));
    ASSERT_TRUE(f->Grab());
    EXPECT_TRUE(sameImage(org1, org1_then) && rect1.data == f->rect_image_1.data);
    EXPECT_FALSE(sameImage(rect1, rect1_then));
    EXPECT_TRUE(sameImage(f->org_image_1, interleavedImage(frames[1], 1)));
}

// Counts 0..20 and above through the facade's Grab (uncalibrated: the rectified pair is a copy) and
// through the inertial-only path, which (deliberately) reads the block 8 bytes later. Counts above 20
// are clamped; with 20 records no slot is left for the frame time, which keeps its previous value.
TEST(EngineTrailer, BothPathsDecodeEveryCountBitForBitAndClampIt) {
    TempDir dir;
    std::mt19937 rng(2024);
    std::vector<Frame> frames;
    for (int n = 0; n <= 20; ++n) frames.push_back(randomFrame(rng, uint8_t(n)));
    for (int n : {21, 22, 100, 254, 255}) frames.push_back(randomFrame(rng, uint8_t(n)));
    // Extreme readings in frame 3; gyro readings at the dead band's edges (+-82 counts pass, 81 not) in frame 4.
    const int16_t anchor_gyro[3] = {0, 164, -164}, anchor_accel[3] = {8192, -32768, 0};
    putRecord(frames[3], kCookedBlockFromEnd, 0, anchor_gyro, anchor_accel);
    DecodeSettings tuned{{5, -7, 100}, float(-82) / 16.4f, float(82) / 16.4f, {0.01f, -0.02f, 0.5f}};
    const int16_t edge_gyro[2][3] = {{5 + 82, -7 - 82, 100 + 81}, {5 - 81, -7 + 83, 100}}, some_accel[3] = {1, -1, 4096};
    for (int slot : {0, 1}) putRecord(frames[4], kCookedBlockFromEnd, slot, edge_gyro[slot], some_accel);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto facade = makeFacade("i", "e", "f");  // one-character paths: no calibration
    StereoCamera* e = camera_;
    std::vector<ImuData> imu(3);
    unsigned int frame_time = 0;
    for (int pass = 0; pass < 3; ++pass) {  // Grab, Grab with settings, inertial-only
        const DecodeSettings s = pass == 1 ? tuned : DecodeSettings();
        const size_t block = pass == 2 ? kRawBlockFromEnd : kCookedBlockFromEnd;
        if (pass > 0) {  // the first pass runs on the engine's initial (zero) settings
            std::copy_n(s.bias, 3, e->gyro_bias);
            std::copy_n(s.offset, 3, e->accel_offset);
            std::tie(e->gyro_deadband_low, e->gyro_deadband_high) = std::tie(s.low, s.high);
        }
        for (const Frame& f : frames) {
            const int n = std::min<int>(f.back(), 20);
            const unsigned int before = frame_time;
            SCOPED_TRACE("pass " + std::to_string(pass) + " count " + std::to_string(f.back()));
            if (pass == 2) {
                e->update_imu_raw(imu, frame_time);
            } else {
                EXPECT_FALSE(facade->Grab());
                cv::Mat a, b, c, d;
                facade->getOrgImage(a, b);
                facade->getRectImage(c, d);
                EXPECT_TRUE(sameImage(a, interleavedImage(f, 1)) && sameImage(b, interleavedImage(f, 0)));
                EXPECT_TRUE(sameImage(c, a) && sameImage(d, b) && c.data != a.data && a.data != e->odd_buffer);
                facade->getImuRawData(imu, frame_time);
                facade->getImuRawData(facade->imu_samples, frame_time);  // into its own vector: left as it is
                expectSameSamples(facade->imu_samples, imu, "own vector");
                EXPECT_EQ(frame_time, facade->getImgTime());
            }
            expectSameSamples(imu, expectedSamples(f, block, n, s), "");
            EXPECT_EQ(frame_time, n < 20 ? slotTime(f, block, n) : before);
        }
    }
    orvo_test::captureOutput([&] { facade.reset(); });
}

// Zero-length buffers, more than there are (each is handed back), leave the inertial-only path's outputs
// alone; then the split, the in-place flip, and a failed dequeue, reported, reusing the last frame.
TEST(EngineFrames, ZeroLengthSplitFlipAndAFailedDequeue) {
    TempDir dir;
    std::mt19937 rng(11);
    std::vector<Frame> frames{randomFrame(rng, 2), randomFrame(rng, 6)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames), "bytesused=0:16,DQBUF@19=EIO");
    auto e = makeEngine("", "", "");
    std::vector<ImuData> imu{ImuData{42, 1, 2, 3, 4, 5, 6}};
    unsigned int frame_time = 4242;
    auto c = orvo_test::captureOutput([&] { for (int i = 0; i < 16; ++i) e->update_imu_raw(imu, frame_time); });
    EXPECT_TRUE(c.out.empty() && imu.size() == 1 && imu[0].time == 42 && frame_time == 4242u) << c.out;
    cv::Mat first, second, rect_first, rect_second;
    e->update(first, second, false);  // 16 frames went by: frames[0] again
    EXPECT_TRUE(e->new_frame);
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[0], 1)) && sameImage(second, interleavedImage(frames[0], 0)));
    EXPECT_TRUE(first.data != e->odd_buffer && second.data != e->even_buffer);
    EXPECT_FALSE(e->getStereoRemapMat(rect_first, rect_second));
    EXPECT_FALSE(e->new_frame);
    e->update(first, second, true);
    cv::Mat up_first, up_second;
    cv::flip(interleavedImage(frames[1], 1), up_first, 0);
    cv::flip(interleavedImage(frames[1], 0), up_second, 0);
    EXPECT_TRUE(sameImage(first, up_first) && sameImage(second, up_second));
    e->getStereoRemapMat(rect_first, rect_second);  // sees the flip, done in the engine's buffers
    EXPECT_TRUE(sameImage(rect_first, up_first) && sameImage(rect_second, up_second));
    c = orvo_test::captureOutput([&] { e->update(first, second, false); });
    EXPECT_EQ(c.out, "VIDIOC_DQBUF error 5, Input/output error\n QAXMStereoCamera get_frame errr\n"
                     "VIDIOC_QBUF error 9, Bad file descriptor\n");
    EXPECT_TRUE(sameImage(first, interleavedImage(frames[1], 1)) && sameImage(second, interleavedImage(frames[1], 0)));
    orvo_test::captureOutput([&] { e.reset(); });
}
