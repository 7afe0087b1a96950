// The engine's rectified images and its camera parameter row.
#include <opencv2/imgproc.hpp>

#include "ZUNCVHelper.h"
#include "engine_test_support.h"

using namespace engine_test;

// First image = odd bytes through the left maps, second = even bytes through the right maps (the
// builders' maps, whose geometry test_remap checks), black where a map leaves the source: the
// frame has no zero pixel, and the fisheye file's halved focal lengths send the corners outside.
TEST(Rectification, PinholeAndFisheyePairsGoThroughTheirMaps) {
    for (const bool fisheye : {false, true}) {
        SCOPED_TRACE(fisheye ? "fisheye" : "pinhole");
        TempDir dir;
        std::mt19937 rng(3);
        Frame frame = randomFrame(rng, 0);
        for (auto& b : frame) b = uint8_t(1 + b % 255);
        frame.back() = 0;
        VirtualCamera cam("raw:" + writeRaw(dir, {frame}));
        cv::Mat maps[2][2], k, p;
        std::unique_ptr<StereoCamera> e;
        if (fisheye) {
            const std::string fish = writeFisheyeFile(dir);
            editMatrices(fish, [](std::map<std::string, cv::Mat>& m) {
                for (const char* key : {"P1", "P2"}) m[key](cv::Rect(0, 0, 2, 2)) *= 0.5;
            });
            e = makeEngine("", "", fish);
            ASSERT_TRUE(get_remap_mat_fisheye_file(fish, {kW, kH}, maps[0][0], maps[0][1],
                                                   maps[1][0], maps[1][1], k, p));
        } else {
            auto [intr, extr] = writeStereoFiles(dir);
            e = makeEngine(intr, extr, "");
            ASSERT_TRUE(get_remap_mat(intr, extr, {kW, kH}, maps[0][0], maps[0][1], maps[1][0],
                                      maps[1][1], k, p));
        }
        cv::Mat raw[2], rect[2];
        std::vector<ImuData> imu;
        unsigned int t = 0;
        e->update_cam_imu(raw[0], raw[1], imu, t);
        EXPECT_TRUE(e->getStereoRemapMat(rect[0], rect[1]));
        for (int i = 0; i < 2; ++i) {
            cv::Mat want;
            cv::remap(interleavedImage(frame, 1 - i), want, maps[i][0], maps[i][1],
                      cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
            EXPECT_TRUE(sameImage(rect[i], want)) << "image " << i;
        }
        if (fisheye) {
            EXPECT_GT(cv::countNonZero(rect[0] == 0), 1000);
        }
        // Asked again without a new frame: the same pair, written into the same storage.
        const uchar* data = rect[0].data;
        const cv::Mat again = rect[0].clone();
        e->getStereoRemapMat(rect[0], rect[1]);
        EXPECT_EQ(rect[0].data, data);
        EXPECT_TRUE(sameImage(rect[0], again));
    }
}

// [fx, fy, cx, cy, -P2(0,3), width, height], read afresh on every call; a failed read keeps the
// earlier row.
TEST(CameraParameter, RowComesFromTheExtrinsicsFileOnEveryCall) {
    TempDir dir;
    auto [intr, extr] = writeStereoFiles(dir);
    auto setP2 = [&](double p03) {
        editMatrices(extr, [&](std::map<std::string, cv::Mat>& m) {
            const cv::Matx23d p1(401.25, 0, 370.75, 0, 402.5, 240.125);
            cv::Mat(p1).copyTo(m["P1"](cv::Rect(0, 0, 3, 2)));
            m["P2"].at<double>(0, 3) = p03;
        });
    };
    setP2(-48.5);
    VirtualCamera cam("pattern");
    auto e = makeEngine(intr, extr, "");
    cv::Mat row;
    ASSERT_TRUE(e->getCameraParameter(row));
    EXPECT_TRUE(sameImage(row, cv::Mat(cv::Matx<double, 1, 7>(401.25, 402.5, 370.75, 240.125,
                                                              48.5, 752, 480))));

    // Not cached, and negated rather than made absolute.
    setP2(30.0);
    ASSERT_TRUE(e->getCameraParameter(row));
    EXPECT_EQ(row.at<double>(0, 4), -30.0);

    std::filesystem::remove(extr);
    const cv::Mat before = row.clone();
    const double* data = row.ptr<double>();
    auto c = orvo_test::captureOutput([&] { EXPECT_FALSE(e->getCameraParameter(row)); });
    EXPECT_EQ(c.err, " Read File : " + extr + "Error !\n");
    EXPECT_EQ(row.ptr<double>(), data);
    EXPECT_TRUE(sameImage(row, before));
}
