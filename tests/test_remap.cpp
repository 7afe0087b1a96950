// Remap-table builders: geometry against a synthetic rig, map shapes and types, outputs 5 and 6.
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include "ZUNCVHelper.h"
#include "engine_test_support.h"

namespace {

using engine_test::editMatrices;
using engine_test::sameImage;
using orvo::vcam::Rig;
const cv::Size kSize(752, 480);
struct Maps { cv::Mat m1, m2, m3, m4, camera, projection; };

// The raw-image position that a rectified pixel samples, with the map's own sub-pixel table.
cv::Mat floatMap(const cv::Mat& m1, const cv::Mat& m2) {
    cv::Mat f, unused;
    cv::convertMaps(m1, m2, f, unused, CV_32FC2);
    return f;
}

// A float map's value between pixels, interpolated bilinearly.
cv::Point2d sampleMap(const cv::Mat& f, const cv::Point2d& at) {
    const int x = int(std::floor(at.x)), y = int(std::floor(at.y));
    const double ax = at.x - x, ay = at.y - y;
    auto v = [&](int r, int c) { return cv::Point2d(f.at<cv::Point2f>(r, c)); };
    return (1 - ay) * ((1 - ax) * v(y, x) + ax * v(y, x + 1)) + ay * ((1 - ax) * v(y + 1, x) + ax * v(y + 1, x + 1));
}

bool inside(const cv::Point2d& p, double m) {
    return cv::Rect2d(m, m, kSize.width - 1 - 2 * m, kSize.height - 1 - 2 * m).contains(p);
}

// Points at several depths over the left rectified view: each lens's map must sample, at the
// point's rectified pixel (the same row in both views), its raw pixel through the true lens.
void expectRectifiesRig(const Rig& rig, const Maps& maps) {
    const double f = rig.P1.at<double>(0, 0), cx = rig.P1.at<double>(0, 2), cy = rig.P1.at<double>(1, 2);
    const cv::Matx33d back = cv::Matx33d(rig.R1).t();
    const cv::Mat fm[2] = {floatMap(maps.m1, maps.m2), floatMap(maps.m3, maps.m4)};
    int i = 0, used = 0;
    double worst = 0;
    for (int v = 12; v < kSize.height - 12; v += 23)
        for (int u = 12; u < kSize.width - 12; u += 23, ++i) {
            const cv::Point3d x(back * cv::Vec3d((u + 0.37 - cx) / f, (v + 0.61 - cy) / f, 1) * (0.6 + 1.7 * (i % 4)));
            cv::Point2d raw[2], rect[2];
            bool ok = true;
            for (int lens = 0; lens < 2; ++lens)
                ok = ok && rig.project(lens, x, raw[lens]) && rig.projectRectified(lens, x, rect[lens]) &&
                     inside(raw[lens], 6) && inside(rect[lens], 6);
            if (!ok) continue;
            ++used;
            ASSERT_NEAR(rect[0].y, rect[1].y, 1e-6);
            for (int lens = 0; lens < 2; ++lens)
                worst = std::max(worst, cv::norm(sampleMap(fm[lens], rect[lens]) - raw[lens]));
        }
    EXPECT_GT(used, 400);
    EXPECT_LT(worst, 0.05) << "map disagrees with the lens model";
}

struct Files {  // of the default pinhole rig, the fisheye rig and the default rig's left lens
    orvo_test::ScratchDir dir;
    Rig rig, fisheye_rig{orvo::vcam::fisheyeRigSpec()};
    std::string in = dir.file("intrinsics.yml"), ex = dir.file("extrinsics.yml"),
                fisheye = dir.file("fisheye.yml"), mono = dir.file("mono.yml");
    Files() { EXPECT_TRUE(rig.writeStereo(in, ex) && fisheye_rig.writeFisheye(fisheye) && rig.writeMono(mono, 0)); }
    bool pinhole(Maps& m, cv::Size size = kSize) const {
        return get_remap_mat(in, ex, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
    }
    bool fish(Maps& m, cv::Size size = kSize) const {
        return get_remap_mat_fisheye_file(fisheye, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
    }
};

// Pinhole: the rectification is recomputed from the lens models, R and T (the stored R1 and R2 may
// be missing, P1 is ignored); output 6 is the file's own P2, edited here to tell it apart. Fisheye:
// the stored rectification is used as it stands (both views pitched alike in file and rig). Output
// 5 is the file's M1 / K1. Maps are fixed-point, in fresh storage (shared outputs not written through).
TEST(RemapBuilders, MapsRectifyTheRigsDistortedViewsOntoCommonRows) {
    Files files;
    cv::Mat p2 = files.rig.P2.clone();
    p2.at<double>(0, 3) = -12.345, p2.at<double>(0, 0) = 399.5;
    editMatrices(files.ex, [&](auto& m) { m.erase("R1"), m.erase("R2"), m["P1"] *= 1.7, m["P2"] = p2; });
    const cv::Mat held1 = cv::Mat::zeros(kSize, CV_16SC2), held2 = cv::Mat::zeros(kSize, CV_16UC1);
    Maps pinhole{held1, held2, held1, held2, {}, {}}, fisheye = pinhole, p, f, mono;
    ASSERT_TRUE(files.pinhole(pinhole));
    expectRectifiesRig(files.rig, pinhole);
    EXPECT_TRUE(sameImage(pinhole.camera, files.rig.K1) && sameImage(pinhole.projection, p2));
    Rig& rig = files.fisheye_rig;
    cv::Mat pitch;
    cv::Rodrigues(cv::Vec3d(0.05, 0, 0), pitch);
    rig.R1 = pitch * rig.R1, rig.R2 = pitch * rig.R2;
    editMatrices(files.fisheye, [&](auto& m) { m["R1"] = rig.R1, m["R2"] = rig.R2; });
    ASSERT_TRUE(files.fish(fisheye));
    expectRectifiesRig(rig, fisheye);
    EXPECT_TRUE(sameImage(fisheye.camera, rig.K1) && sameImage(fisheye.projection, rig.P2));
    EXPECT_EQ(cv::countNonZero(held1.reshape(1)) + cv::countNonZero(held2), 0);

    // One lens undistorted keeping the whole field: each pixel samples its ray's raw pixel through
    // the true lens, the rays given by OpenCV's alpha-1 camera matrix.
    ASSERT_TRUE(get_monoRemap_mat(files.mono, kSize, mono.m1, mono.m2));
    const cv::Matx33d back(cv::Mat(cv::getOptimalNewCameraMatrix(files.rig.K1, files.rig.D1, kSize, 1.0).inv()));
    const cv::Mat undistort = floatMap(mono.m1, mono.m2);
    int used = 0;
    double worst = 0;
    for (int v = 5; v < kSize.height - 5; v += 19)
        for (int u = 5; u < kSize.width - 5; u += 19) {
            cv::Point2d raw;
            if (!files.rig.project(0, cv::Point3d(back * cv::Vec3d(u, v, 1)), raw) || !inside(raw, 1)) continue;
            ++used;
            worst = std::max(worst, cv::norm(sampleMap(undistort, cv::Point2d(u, v)) - raw));
        }
    EXPECT_GT(used, 800);
    EXPECT_LT(worst, 0.05) << "mono map disagrees with the lens model";
    for (const cv::Mat& map : {pinhole.m1, pinhole.m2, pinhole.m3, pinhole.m4, fisheye.m1, fisheye.m2, fisheye.m3,
                               fisheye.m4, mono.m1, mono.m2})
        EXPECT_EQ(map.type(), map.channels() == 2 ? CV_16SC2 : CV_16UC1);
    const cv::Size small(33, 17);  // the caller's size, not the calibration's
    ASSERT_TRUE(files.pinhole(p, small) && files.fish(f, small) && get_monoRemap_mat(files.mono, small, mono.m1, mono.m2));
    for (const cv::Mat& map : {p.m1, p.m2, p.m3, p.m4, f.m1, f.m2, f.m3, f.m4, mono.m1, mono.m2})
        EXPECT_EQ(map.size(), small);
}

}  // namespace
