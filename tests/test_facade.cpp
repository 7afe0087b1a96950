// The camera facade on the virtual camera: construction, the matchers, Grab and its getters.
#include <set>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

void expectConfiguredMatchers() {
    ASSERT_FALSE(sgbm_.empty() || bm_.empty());
    const cv::StereoSGBM& s = *sgbm_;
    EXPECT_EQ((std::vector<int>{s.getMinDisparity(), s.getNumDisparities(), s.getBlockSize(), s.getP1(),
                                s.getP2(), s.getDisp12MaxDiff(), s.getPreFilterCap(), s.getUniquenessRatio(),
                                s.getSpeckleWindowSize(), s.getSpeckleRange(), s.getMode()}),
              (std::vector<int>{0, 64, 5, 200, 800, 5, 63, 10, 100, 2, cv::StereoSGBM::MODE_HH}));
    const cv::StereoBM& b = *bm_;
    EXPECT_EQ((std::vector<int>{b.getPreFilterType(), b.getPreFilterSize(), b.getPreFilterCap(),
                                b.getBlockSize(), b.getMinDisparity(), b.getNumDisparities(),
                                b.getTextureThreshold(), b.getUniquenessRatio(), b.getSpeckleWindowSize(),
                                b.getSpeckleRange(), b.getDisp12MaxDiff(), b.getSmallerBlockSize()}),
              (std::vector<int>{cv::StereoBM::PREFILTER_NORMALIZED_RESPONSE, 9, 31, 15, 0, 128, 10, 15, 100,
                                32, 1, 0}));
}

}  // namespace

TEST(Facade, ConstructionStartsEmptyWithFourSeparateBlackImages) {
    VirtualCamera cam("pattern");
    auto f = makeFacade("i", "e", "f");  // one-character paths: no calibration
    ASSERT_NE(camera_, nullptr);
    EXPECT_EQ(cv::Size(camera_->width, camera_->height), cv::Size(752, 480));

    cv::Mat a, b, c, d;
    f->getOrgImage(a, b);
    f->getRectImage(c, d);
    std::set<const uchar*> storage;
    for (const cv::Mat* m : {&a, &b, &c, &d}) {
        EXPECT_TRUE(m->size() == cv::Size(752, 480) && m->type() == CV_8UC1);
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
        EXPECT_TRUE(sameImage(a, interleavedImage(frame, 1)) && sameImage(b, interleavedImage(frame, 0)));
        EXPECT_TRUE(sameImage(c, a) && sameImage(d, b));
        EXPECT_TRUE(c.data != a.data && a.data != camera_->odd_buffer);
        EXPECT_EQ(f->getImgTime(), slotTime(frame, kCookedBlockFromEnd, n));

        std::vector<ImuData> s1, s2;
        unsigned int t1 = 0, t2 = 1;
        EXPECT_EQ(f->getImuRawData(s1, t1), f->getImgTime());
        f->getImuRawData(s2, t2);
        EXPECT_TRUE(t1 == f->getImgTime() && t2 == t1);
        expectSameSamples(s1, expectedSamples(frame, kCookedBlockFromEnd, n), "first read");
        expectSameSamples(s2, s1, "second read");
        f->getImuRawData(f->imu_samples, t2);  // with the facade's own vector: left as it is
        EXPECT_EQ(f->imu_samples.size(), size_t(n));
    }
}

TEST(Facade, GrabWithCalibrationRectifiesIntoSharedStorage) {
    TempDir dir;
    std::mt19937 rng(22);
    std::vector<Frame> frames{randomFrame(rng, 1), randomFrame(rng, 2)};
    auto [intr, extr] = writeStereoFiles(dir);
    VirtualCamera cam("raw:" + writeRaw(dir, frames));
    auto f = makeFacade(intr, extr, writeFisheyeFile(dir));
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
    EXPECT_TRUE(camera_ == old_engine && sgbm_.get() == old_sgbm.get());  // the destructor leaves them

    // Make the old matchers differ, so that a reconfigured old object would be caught.
    old_sgbm->setP1(1);
    old_bm->setBlockSize(21);
    auto second = makeFacade("", "");
    EXPECT_TRUE(sgbm_.get() != old_sgbm.get() && bm_.get() != old_bm.get());
    expectConfiguredMatchers();
    EXPECT_EQ(old_sgbm->getP1(), 1);
}
