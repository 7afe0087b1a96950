// The camera facade on the virtual camera: construction, the matchers, Grab and its getters.
#include <set>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

void expectConfiguredMatchers() {
    ASSERT_FALSE(sgbm_.empty());
    EXPECT_EQ(sgbm_->getMinDisparity(), 0);
    EXPECT_EQ(sgbm_->getNumDisparities(), 64);
    EXPECT_EQ(sgbm_->getBlockSize(), 5);
    EXPECT_EQ(sgbm_->getP1(), 200);
    EXPECT_EQ(sgbm_->getP2(), 800);
    EXPECT_EQ(sgbm_->getDisp12MaxDiff(), 5);
    EXPECT_EQ(sgbm_->getPreFilterCap(), 63);
    EXPECT_EQ(sgbm_->getUniquenessRatio(), 10);
    EXPECT_EQ(sgbm_->getSpeckleWindowSize(), 100);
    EXPECT_EQ(sgbm_->getSpeckleRange(), 2);
    EXPECT_EQ(sgbm_->getMode(), int(cv::StereoSGBM::MODE_HH));
    ASSERT_FALSE(bm_.empty());
    EXPECT_EQ(bm_->getPreFilterType(), int(cv::StereoBM::PREFILTER_NORMALIZED_RESPONSE));
    EXPECT_EQ(bm_->getPreFilterSize(), 9);
    EXPECT_EQ(bm_->getPreFilterCap(), 31);
    EXPECT_EQ(bm_->getBlockSize(), 15);
    EXPECT_EQ(bm_->getMinDisparity(), 0);
    EXPECT_EQ(bm_->getNumDisparities(), 128);
    EXPECT_EQ(bm_->getTextureThreshold(), 10);
    EXPECT_EQ(bm_->getUniquenessRatio(), 15);
    EXPECT_EQ(bm_->getSpeckleWindowSize(), 100);
    EXPECT_EQ(bm_->getSpeckleRange(), 32);
    EXPECT_EQ(bm_->getDisp12MaxDiff(), 1);
    EXPECT_EQ(bm_->getSmallerBlockSize(), 0);
}

}  // namespace

TEST(Facade, ConstructionMapsThePathsAndStartsEmpty) {
    VirtualCamera cam("pattern");
    OrvoCameraParameterList p;
    p.device_path = VirtualCamera::device();
    p.extrinsics_file = "e";  // one-character paths: no calibration
    p.intrinsics_file = "i";
    p.fisheye_file = "f";
    std::unique_ptr<OrvoCamera> f;
    orvo_test::captureOutput([&] { f.reset(new OrvoCamera(p)); });

    ASSERT_NE(camera_, nullptr);
    EXPECT_EQ(camera_->video_path, VirtualCamera::device());
    EXPECT_EQ(camera_->extrinsics_path, "e");
    EXPECT_EQ(camera_->intrinsics_path, "i");
    EXPECT_EQ(camera_->fisheye_path, "f");
    EXPECT_TRUE(camera_->name_0.empty() && camera_->name_5.empty());
    EXPECT_EQ(camera_->width, 752);
    EXPECT_EQ(camera_->height, 480);
    EXPECT_FALSE(camera_->flag_a || camera_->flag_b);

    cv::Mat a, b, c, d;
    f->getOrgImage(a, b);
    f->getRectImage(c, d);
    std::set<const uchar*> storage;
    for (const cv::Mat* m : {&a, &b, &c, &d}) {
        EXPECT_EQ(m->size(), cv::Size(752, 480));
        EXPECT_EQ(m->type(), CV_8UC1);
        EXPECT_EQ(cv::countNonZero(*m), 0);
        storage.insert(m->data);
    }
    EXPECT_EQ(storage.size(), 4u);
    EXPECT_EQ(a.data, f->org_image_1.data);  // shared, not copied
    EXPECT_EQ(d.data, f->rect_image_2.data);
    EXPECT_EQ(f->getImgTime(), 0u);
    std::vector<ImuData> imu{ImuData{}};
    unsigned int t = 99;
    EXPECT_EQ(f->getImuRawData(imu, t), 0u);
    EXPECT_TRUE(imu.empty());
    EXPECT_EQ(t, 0u);
    EXPECT_EQ(f->bucket_count, 0);
    EXPECT_EQ(f->buckets[359].x + f->buckets[0].z, 0.0);
    EXPECT_TRUE(f->disparity.empty());
}

TEST(Facade, GrabWithoutCalibrationCopiesTheSplitPair) {
    TempDir dir;
    std::mt19937 rng(21);
    std::vector<Frame> frames{randomFrame(rng, 4), randomFrame(rng, 9)};
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto f = makeFacade("", "");

    for (int i = 0; i < 3; ++i) {
        const Frame& frame = frames[i % 2];
        const int n = frame.back();
        EXPECT_FALSE(f->Grab());
        cv::Mat a, b, c, d;
        f->getOrgImage(a, b);
        f->getRectImage(c, d);
        EXPECT_TRUE(sameImage(a, interleavedImage(frame, 1)));
        EXPECT_TRUE(sameImage(b, interleavedImage(frame, 0)));
        EXPECT_TRUE(sameImage(c, a) && sameImage(d, b));
        EXPECT_NE(c.data, a.data);
        EXPECT_NE(a.data, camera_->odd_buffer);
        EXPECT_EQ(f->getImgTime(), slotTime(frame, kCookedBlockFromEnd, n));

        std::vector<ImuData> s1, s2;
        unsigned int t1 = 0, t2 = 1;
        EXPECT_EQ(f->getImuRawData(s1, t1), f->getImgTime());
        f->getImuRawData(s2, t2);
        EXPECT_EQ(t1, f->getImgTime());
        EXPECT_EQ(t1, t2);
        expectSameSamples(s1, expectedSamples(frame, kCookedBlockFromEnd, n), "first read");
        expectSameSamples(s2, s1, "second read");
        // Asking with the facade's own vector leaves it as it is.
        f->getImuRawData(f->imu_samples, t2);
        EXPECT_EQ(f->imu_samples.size(), size_t(n));
    }
}

TEST(Facade, GrabWithCalibrationRectifiesIntoSharedStorage) {
    TempDir dir;
    std::mt19937 rng(22);
    std::vector<Frame> frames{randomFrame(rng, 1), randomFrame(rng, 2)};
    auto [intr, extr] = writeStereoFiles(dir);
    std::string fish = writeFisheyeFile(dir);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto f = makeFacade(intr, extr, fish);
    EXPECT_EQ(camera_->fx, orvo::vcam::Rig().K1.at<double>(0, 0));  // the fisheye file is ignored

    ASSERT_TRUE(f->Grab());
    cv::Mat org1, org2, rect1, rect2;
    f->getOrgImage(org1, org2);
    f->getRectImage(rect1, rect2);
    const cv::Mat org1_then = org1.clone(), rect1_then = rect1.clone();
    EXPECT_FALSE(sameImage(rect1, org1));

    ASSERT_TRUE(f->Grab());
    // The earlier original keeps its pixels; the earlier rectified image shows the new frame.
    EXPECT_TRUE(sameImage(org1, org1_then));
    EXPECT_FALSE(sameImage(rect1, rect1_then));
    EXPECT_EQ(rect1.data, f->rect_image_1.data);
    EXPECT_TRUE(sameImage(f->org_image_1, interleavedImage(frames[1], 1)));
    cv::Mat now1, now2;
    f->getRectImage(now1, now2);
    EXPECT_TRUE(sameImage(now1, rect1));

    // Getting into the members themselves leaves them alone.
    f->getOrgImage(f->org_image_1, f->org_image_2);
    EXPECT_TRUE(sameImage(f->org_image_1, interleavedImage(frames[1], 1)));

    cv::Mat row;
    ASSERT_TRUE(f->getCameraParameter(row));
    EXPECT_EQ(row.at<double>(0, 5), 752.0);
    EXPECT_EQ(row.at<double>(0, 4), -readMatrix(extr, "P2").at<double>(0, 3));
}

TEST(Facade, EachFacadeGetsFreshIdenticallyConfiguredMatchers) {
    VirtualCamera cam("pattern");
    auto first = makeFacade("", "");
    expectConfiguredMatchers();
    const cv::Ptr<cv::StereoSGBM> old_sgbm = sgbm_;
    const cv::Ptr<cv::StereoBM> old_bm = bm_;
    StereoCamera* const old_engine = camera_;
    orvo_test::captureOutput([&] { first.reset(); });
    // The destructor leaves the globals alone.
    EXPECT_EQ(camera_, old_engine);
    EXPECT_EQ(sgbm_.get(), old_sgbm.get());

    // Make the old matchers differ, so that a reconfigured old object would be caught.
    old_sgbm->setP1(1);
    old_bm->setBlockSize(21);
    auto second = makeFacade("", "");
    EXPECT_NE(sgbm_.get(), old_sgbm.get());
    EXPECT_NE(bm_.get(), old_bm.get());
    expectConfiguredMatchers();
    EXPECT_EQ(old_sgbm->getP1(), 1);
}
