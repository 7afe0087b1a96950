// The synthetic stereo rig: its lens models and per-pixel rays.
#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/calib3d.hpp>

#include <orvo/vcam/rig.hpp>

namespace {

using orvo::vcam::Rig;
using orvo::vcam::RigSpec;

bool sameValues(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(Rig, ProjectsThroughTheTrueDistortedLensModelsWithTheRightLensAtPlusBaseline) {
    RigSpec params;
    params.focal = 420.5;
    params.baseline = 0.2;
    const Rig rig(params);
    EXPECT_TRUE(sameValues(rig.K1, (cv::Mat_<double>(3, 3) << 420.5, 0, 371, 0, 420.5, 243, 0, 0, 1)));
    EXPECT_TRUE(sameValues(rig.K2, (cv::Mat_<double>(3, 3) << 420.5, 0, 380, 0, 420.5, 236, 0, 0, 1)));
    EXPECT_TRUE(sameValues(rig.D2, cv::Mat(params.dist_right).t()));
    cv::Vec3d rvec;
    cv::Rodrigues(rig.R, rvec);
    EXPECT_LT(cv::norm(rvec - params.rotation), 1e-12);
    EXPECT_LT(cv::norm(rig.centre(1) - cv::Point3d(0.2, 0, 0)), 1e-12);

    // A point off both axes, by the textbook pinhole model with k1, k2, p1, p2, k3.
    const cv::Point3d p(0.7, -0.4, 1.6);
    const double x = p.x / p.z, y = p.y / p.z, r2 = x * x + y * y;
    const auto& d = params.dist_left;
    const double radial = 1 + d[0] * r2 + d[1] * r2 * r2 + d[4] * r2 * r2 * r2;
    cv::Point2d px;
    ASSERT_TRUE(rig.project(0, p, px));
    EXPECT_NEAR(px.x, 420.5 * (x * radial + 2 * d[2] * x * y + d[3] * (r2 + 2 * x * x)) + 371, 1e-9);
    EXPECT_NEAR(px.y, 420.5 * (y * radial + d[2] * (r2 + 2 * y * y) + 2 * d[3] * x * y) + 243, 1e-9);
    std::vector<cv::Point2d> want;  // the right lens sees X_right = R X_left + T
    cv::projectPoints(std::vector<cv::Point3d>{p}, rvec, cv::Vec3d(rig.T), rig.K2, rig.D2, want);
    ASSERT_TRUE(rig.project(1, p, px));
    EXPECT_LT(cv::norm(px - want[0]), 1e-9);

    // The fisheye model: theta_d = theta (1 + k1 theta^2 + ... + k4 theta^8), radius f theta_d.
    const Rig fe(orvo::vcam::fisheyeRigSpec());
    const auto& k = fe.params().dist_left;
    const cv::Point3d w(1.9, 0.8, 0.5);  // about 77 degrees off axis
    const double r = std::hypot(w.x, w.y) / w.z, th = std::atan(r), t2 = th * th;
    const double thd = th * (1 + k[0] * t2 + k[1] * t2 * t2 + k[2] * t2 * t2 * t2 + k[3] * t2 * t2 * t2 * t2);
    ASSERT_TRUE(fe.project(0, w, px));
    EXPECT_NEAR(px.x, fe.params().focal * thd / r * w.x / w.z + fe.params().principal_left.x, 1e-9);
    EXPECT_NEAR(px.y, fe.params().focal * thd / r * w.y / w.z + fe.params().principal_left.y, 1e-9);
    EXPECT_FALSE(rig.project(0, cv::Point3d(0.1, 0.1, -1), px)) << "behind the lens";
}

// Every pixel's ray, followed 2.5 m, projects back onto the pixel, over the whole image.
TEST(Rig, RaysRoundTripThroughBothLensModels) {
    for (const RigSpec& params : {RigSpec(), orvo::vcam::fisheyeRigSpec()}) {
        SCOPED_TRACE(params.fisheye ? "fisheye" : "pinhole");
        Rig rig(params);
        for (int lens = 0; lens < 2; ++lens) {
            const cv::Mat rays = rig.rays(lens);
            ASSERT_EQ(rays.size(), params.size);
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

}  // namespace
