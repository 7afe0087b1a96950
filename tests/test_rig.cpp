// The synthetic stereo rig: its lens model, rectified cameras, per-pixel rays and written files.
#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/calib3d.hpp>

#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using orvo::vcam::Rig;
using orvo::vcam::RigSpec;

bool sameValues(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

cv::Point3d inRightLens(const Rig& rig, const cv::Point3d& p) {  // X_right = R X_left + T
    const cv::Mat q = rig.R * cv::Mat(cv::Vec3d(p.x, p.y, p.z)) + rig.T;
    return {q.at<double>(0), q.at<double>(1), q.at<double>(2)};
}

TEST(Rig, ProjectsThroughTheTrueDistortedLensModelsWithTheRightLensAtPlusBaseline) {
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
    EXPECT_EQ(rig.centre(0), cv::Point3d(0, 0, 0));
    EXPECT_LT(cv::norm(rig.centre(1) - cv::Point3d(0.2, 0, 0)), 1e-12);
    EXPECT_LT(cv::norm(inRightLens(rig, rig.centre(1))), 1e-12);

    // A point off both axes, by the textbook pinhole model with k1, k2, p1, p2, k3.
    const cv::Point3d p(0.7, -0.4, 1.6);
    const double x = p.x / p.z, y = p.y / p.z, r2 = x * x + y * y;
    const auto& d = params.dist_left;
    const double radial = 1 + d[0] * r2 + d[1] * r2 * r2 + d[4] * r2 * r2 * r2;
    cv::Point2d px;
    ASSERT_TRUE(rig.project(0, p, px));
    EXPECT_NEAR(px.x, 420.5 * (x * radial + 2 * d[2] * x * y + d[3] * (r2 + 2 * x * x)) + 371, 1e-9);
    EXPECT_NEAR(px.y, 420.5 * (y * radial + d[2] * (r2 + 2 * y * y) + 2 * d[3] * x * y) + 243, 1e-9);
    std::vector<cv::Point2d> want;  // the right lens sees the point moved into its own frame
    cv::projectPoints(std::vector<cv::Point3d>{inRightLens(rig, p)}, cv::Vec3d(), cv::Vec3d(), rig.K2, rig.D2, want);
    ASSERT_TRUE(rig.project(1, p, px));
    EXPECT_LT(cv::norm(px - want[0]), 1e-9);

    // The fisheye model: theta_d = theta (1 + k1 theta^2 + ... + k4 theta^8), radius f theta_d.
    Rig fe(orvo::vcam::fisheyeRigSpec());
    EXPECT_EQ(fe.D1.size(), cv::Size(1, 4));
    EXPECT_EQ(fe.D2.size(), cv::Size(1, 4));
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
    EXPECT_TRUE(rig.rays(2).empty());
}

TEST(Rig, RectifiedCamerasShareRowsGiveDisparityFromDepthAndRaysRoundTrip) {
    for (const RigSpec& params : {RigSpec(), orvo::vcam::fisheyeRigSpec()}) {
        SCOPED_TRACE(params.fisheye ? "fisheye" : "pinhole");
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
            EXPECT_NEAR(l.y, r.y, 1e-9);
            EXPECT_NEAR(l.x - r.x, fb / (cv::Matx33d(rig.R1) * cv::Vec3d(p.x, p.y, p.z))[2], 1e-9);
        }
        for (int lens = 0; lens < 2; ++lens) {
            const cv::Mat rays = rig.rays(lens);
            ASSERT_EQ(rays.size(), params.size);
            ASSERT_EQ(rays.type(), CV_32FC3);
            double worst = 0, worst_norm = 0;
            for (int v = 0; v < params.size.height; v += 11)
                for (int u = 0; u < params.size.width; u += 13) {
                    const cv::Vec3f ray = rays.at<cv::Vec3f>(v, u);
                    worst_norm = std::max(worst_norm, std::abs(cv::norm(ray) - 1.0));
                    cv::Point2d px;
                    ASSERT_TRUE(rig.project(lens, rig.centre(lens) + 2.5 * cv::Point3d(ray[0], ray[1], ray[2]), px));
                    worst = std::max(worst, cv::norm(px - cv::Point2d(u, v)));
                }
            EXPECT_LT(worst, 2e-3) << "lens " << lens;
            EXPECT_LT(worst_norm, 1e-6) << "lens " << lens;
        }
    }
}

TEST(Rig, WritesTheLibraryLayoutsAndRefusesTheOnesItsLensModelCannotFill) {
    orvo_test::ScratchDir dir;
    const Rig rig, fisheye(orvo::vcam::fisheyeRigSpec());
    ASSERT_TRUE(rig.writeStereo(dir.file("i.yml"), dir.file("e.yml")));
    ASSERT_TRUE(rig.writeMono(dir.file("m.yml"), 1));
    ASSERT_TRUE(fisheye.writeFisheye(dir.file("f.yml")));
    // Doubles survive the text exactly.
    const struct {
        const char* file;
        std::vector<std::string> keys;
        std::vector<std::pair<const char*, cv::Mat>> values;
    } cases[] = {
        {"i.yml", {"M1", "D1", "M2", "D2"}, {{"D2", rig.D2}}},
        {"e.yml", {"R", "T", "R1", "R2", "P1", "P2", "Q"}, {{"P2", rig.P2}, {"Q", rig.Q}}},
        {"m.yml", {"camera_matrix", "distortion_coefficients"},
         {{"camera_matrix", rig.K2}, {"distortion_coefficients", rig.D2}}},
        {"f.yml", {"K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"}, {{"D1", fisheye.D1}, {"P2", fisheye.P2}}},
    };
    for (const auto& c : cases) {
        cv::FileStorage fs(dir.file(c.file), cv::FileStorage::READ);
        EXPECT_EQ(fs.root().keys(), c.keys) << c.file;
        for (const auto& v : c.values) {
            cv::Mat m;
            fs[v.first] >> m;
            EXPECT_TRUE(sameValues(m, v.second)) << c.file << " " << v.first;
        }
    }
    EXPECT_FALSE(fisheye.writeStereo(dir.file("a.yml"), dir.file("b.yml")));
    EXPECT_FALSE(fisheye.writeMono(dir.file("c.yml")));
    EXPECT_FALSE(rig.writeFisheye(dir.file("d.yml")));
    EXPECT_FALSE(rig.writeMono(dir.file("e2.yml"), 2));
    bool ok = true;
    orvo_test::captureOutput([&] { ok = rig.writeStereo(dir.file("no/such/dir.yml"), dir.file("e.yml")); });
    EXPECT_FALSE(ok);
}

}  // namespace
