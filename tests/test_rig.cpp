// The synthetic stereo rig: its lens model, rectified cameras, per-pixel rays and written files.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using orvo::vcam::Rig;
using orvo::vcam::RigSpec;

cv::Point3d at(const cv::Mat& v) { return {v.at<double>(0), v.at<double>(1), v.at<double>(2)}; }

std::vector<std::string> keysOf(const std::string& path) {
    cv::FileStorage fs(path, cv::FileStorage::READ);
    return fs.root().keys();
}

bool sameValues(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

cv::Mat readKey(const std::string& path, const std::string& key) {
    cv::FileStorage fs(path, cv::FileStorage::READ);
    cv::Mat m;
    fs[key] >> m;
    return m;
}

TEST(Rig, TrueModelFollowsTheSpecAndStereoConvention) {
    RigSpec params;
    params.focal = 420.5;
    params.baseline = 0.2;
    Rig rig(params);
    EXPECT_TRUE(sameValues(rig.K1, (cv::Mat_<double>(3, 3) << 420.5, 0, 371, 0, 420.5, 243, 0, 0, 1)));
    EXPECT_TRUE(sameValues(rig.K2, (cv::Mat_<double>(3, 3) << 420.5, 0, 380, 0, 420.5, 236, 0, 0, 1)));
    EXPECT_TRUE(sameValues(rig.D1, cv::Mat(params.dist_left).t()));
    EXPECT_TRUE(sameValues(rig.D2, cv::Mat(params.dist_right).t()));
    cv::Vec3d rvec;
    cv::Rodrigues(rig.R, rvec);
    EXPECT_LT(cv::norm(rvec - params.rotation), 1e-12);
    // The right lens sits at +baseline along the left lens's x axis: X_right = R X_left + T.
    const cv::Point3d c = rig.centre(1);
    EXPECT_LT(cv::norm(c - cv::Point3d(0.2, 0, 0)), 1e-12);
    EXPECT_LT(cv::norm(at(rig.R * cv::Mat(cv::Vec3d(c.x, c.y, c.z)) + rig.T)), 1e-12);
    EXPECT_EQ(rig.centre(0), cv::Point3d(0, 0, 0));

    Rig fisheye(orvo::vcam::fisheyeRigSpec());
    EXPECT_EQ(fisheye.D1.size(), cv::Size(1, 4));
    EXPECT_EQ(fisheye.D2.size(), cv::Size(1, 4));
}

TEST(Rig, ProjectsThroughTheDistortedLensModels) {
    Rig rig;
    const RigSpec& s = rig.params();
    // A point off both axes, evaluated by the textbook pinhole model with k1, k2, p1, p2, k3.
    const cv::Point3d p(0.7, -0.4, 1.6);
    const double x = p.x / p.z, y = p.y / p.z, r2 = x * x + y * y;
    const auto& d = s.dist_left;
    const double radial = 1 + d[0] * r2 + d[1] * r2 * r2 + d[4] * r2 * r2 * r2;
    const double xd = x * radial + 2 * d[2] * x * y + d[3] * (r2 + 2 * x * x);
    const double yd = y * radial + d[2] * (r2 + 2 * y * y) + 2 * d[3] * x * y;
    cv::Point2d px;
    ASSERT_TRUE(rig.project(0, p, px));
    EXPECT_NEAR(px.x, s.focal * xd + s.principal_left.x, 1e-9);
    EXPECT_NEAR(px.y, s.focal * yd + s.principal_left.y, 1e-9);

    // The right lens sees the point moved into its own frame.
    const cv::Point3d q = at(rig.R * cv::Mat(cv::Vec3d(p.x, p.y, p.z)) + rig.T);
    std::vector<cv::Point2d> want;
    cv::projectPoints(std::vector<cv::Point3d>{q}, cv::Vec3d(), cv::Vec3d(), rig.K2, rig.D2, want);
    ASSERT_TRUE(rig.project(1, p, px));
    EXPECT_LT(cv::norm(px - want[0]), 1e-9);

    // The fisheye model: theta_d = theta (1 + k1 theta^2 + ... + k4 theta^8), radius f theta_d.
    Rig fe(orvo::vcam::fisheyeRigSpec());
    const auto& k = fe.params().dist_left;
    const cv::Point3d w(1.9, 0.8, 0.5);  // about 77 degrees off axis
    const double r = std::hypot(w.x, w.y) / w.z, th = std::atan(r), t2 = th * th;
    const double thd = th * (1 + k[0] * t2 + k[1] * t2 * t2 + k[2] * t2 * t2 * t2 + k[3] * t2 * t2 * t2 * t2);
    ASSERT_TRUE(fe.project(0, w, px));
    EXPECT_NEAR(px.x, fe.params().focal * thd / r * w.x / w.z + fe.params().principal_left.x, 1e-9);
    EXPECT_NEAR(px.y, fe.params().focal * thd / r * w.y / w.z + fe.params().principal_left.y, 1e-9);

    // Behind a lens, or no such lens.
    EXPECT_FALSE(rig.project(0, cv::Point3d(0.1, 0.1, -1), px));
    EXPECT_FALSE(rig.projectRectified(1, cv::Point3d(0.1, 0.1, -1), px));
    EXPECT_FALSE(rig.project(2, p, px));
    EXPECT_FALSE(rig.projectRectified(-1, p, px));
}

TEST(Rig, RectifiedCamerasShareRowsAndGiveDisparityFromDepth) {
    for (const RigSpec& params : {RigSpec(), orvo::vcam::fisheyeRigSpec()}) {
        Rig rig(params);
        const double fb = -rig.P2.at<double>(0, 3);
        EXPECT_NEAR(fb, params.baseline * rig.P1.at<double>(0, 0), 1e-9);
        EXPECT_TRUE(sameValues(rig.P1.colRange(0, 3).clone(), rig.P2.colRange(0, 3).clone()));
        cv::RNG rng(5);
        for (int i = 0; i < 200; ++i) {
            const cv::Point3d p(rng.uniform(-2.0, 2.0), rng.uniform(-1.5, 1.5), rng.uniform(0.5, 9.0));
            cv::Point2d l, r;
            ASSERT_TRUE(rig.projectRectified(0, p, l));
            ASSERT_TRUE(rig.projectRectified(1, p, r));
            const double z = (cv::Matx33d(rig.R1) * cv::Vec3d(p.x, p.y, p.z))[2];
            EXPECT_NEAR(l.y, r.y, 1e-9);
            EXPECT_NEAR(l.x - r.x, fb / z, 1e-9);
        }
    }
}

TEST(Rig, RaysRoundTripThroughTheLensModel) {
    for (const RigSpec& params : {RigSpec(), orvo::vcam::fisheyeRigSpec()}) {
        Rig rig(params);
        for (int lens = 0; lens < 2; ++lens) {
            const cv::Mat rays = rig.rays(lens);
            ASSERT_EQ(rays.size(), params.size);
            ASSERT_EQ(rays.type(), CV_32FC3);
            double worst = 0, worst_norm = 0;
            for (int v = 0; v < params.size.height; v += 11)
                for (int u = 0; u < params.size.width; u += 13) {
                    const cv::Vec3f r = rays.at<cv::Vec3f>(v, u);
                    worst_norm = std::max(worst_norm, std::abs(cv::norm(r) - 1.0));
                    cv::Point2d px;
                    ASSERT_TRUE(rig.project(lens, rig.centre(lens) + 2.5 * cv::Point3d(r[0], r[1], r[2]), px));
                    worst = std::max(worst, cv::norm(px - cv::Point2d(u, v)));
                }
            EXPECT_LT(worst, 2e-3) << "lens " << lens;
            EXPECT_LT(worst_norm, 1e-6);
        }
    }
    EXPECT_TRUE(Rig().rays(2).empty());
}

TEST(Rig, WritesTheLibraryLayouts) {
    orvo_test::ScratchDir dir;
    Rig rig;
    const std::string in = dir.file("i.yml"), ex = dir.file("e.yml"), mono = dir.file("m.yml"),
                      fe = dir.file("f.yml");
    ASSERT_TRUE(rig.writeStereo(in, ex));
    EXPECT_EQ(keysOf(in), (std::vector<std::string>{"M1", "D1", "M2", "D2"}));
    EXPECT_EQ(keysOf(ex), (std::vector<std::string>{"R", "T", "R1", "R2", "P1", "P2", "Q"}));
    EXPECT_TRUE(sameValues(readKey(in, "D2"), rig.D2));
    EXPECT_TRUE(sameValues(readKey(ex, "P2"), rig.P2));  // doubles survive the text exactly
    EXPECT_TRUE(sameValues(readKey(ex, "Q"), rig.Q));

    ASSERT_TRUE(rig.writeMono(mono, 1));
    EXPECT_EQ(keysOf(mono), (std::vector<std::string>{"camera_matrix", "distortion_coefficients"}));
    EXPECT_TRUE(sameValues(readKey(mono, "camera_matrix"), rig.K2));
    EXPECT_TRUE(sameValues(readKey(mono, "distortion_coefficients"), rig.D2));

    Rig fisheye(orvo::vcam::fisheyeRigSpec());
    ASSERT_TRUE(fisheye.writeFisheye(fe));
    EXPECT_EQ(keysOf(fe), (std::vector<std::string>{"K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"}));
    EXPECT_TRUE(sameValues(readKey(fe, "D1"), fisheye.D1));
    EXPECT_TRUE(sameValues(readKey(fe, "P2"), fisheye.P2));

    // A lens model the layout cannot describe, a lens that does not exist, an unwritable path.
    EXPECT_FALSE(fisheye.writeStereo(dir.file("a.yml"), dir.file("b.yml")));
    EXPECT_FALSE(fisheye.writeMono(dir.file("c.yml")));
    EXPECT_FALSE(rig.writeFisheye(dir.file("d.yml")));
    EXPECT_FALSE(rig.writeMono(dir.file("e2.yml"), 2));
    bool ok = true;
    orvo_test::captureOutput([&] { ok = rig.writeStereo(dir.file("no/such/dir.yml"), ex); });
    EXPECT_FALSE(ok);
}

}  // namespace
