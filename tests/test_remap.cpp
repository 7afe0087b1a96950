// Remap-table builders: geometry against a synthetic rig, map shapes, outputs 5/6, safe failures.
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "ZUNCVHelper.h"
#include "engine_test_support.h"
#include "scratch_dir.h"

namespace {

using engine_test::editMatrices;
const auto identical = engine_test::sameImage;
using orvo::vcam::Rig;
using orvo_test::captureOutput;
using Edit = std::map<std::string, cv::Mat>;

const cv::Size kSize(752, 480);

struct Maps {
    cv::Mat m1, m2, m3, m4, camera, projection;
};

// The raw-image position that a rectified pixel samples, with the map's own sub-pixel table.
cv::Mat floatMap(const cv::Mat& m1, const cv::Mat& m2) {
    cv::Mat f, unused;
    cv::convertMaps(m1, m2, f, unused, CV_32FC2);
    return f;
}

// Bilinear value of an N-channel float image at a sub-pixel position.
template <int N>
cv::Vec<double, N> bilinear(const cv::Mat& m, const cv::Point2d& at) {
    const int x = int(std::floor(at.x)), y = int(std::floor(at.y));
    const double ax = at.x - x, ay = at.y - y;
    auto v = [&](int r, int c) { return cv::Vec<double, N>(m.at<cv::Vec<float, N>>(r, c)); };
    return (1 - ay) * ((1 - ax) * v(y, x) + ax * v(y, x + 1)) +
           ay * ((1 - ax) * v(y + 1, x) + ax * v(y + 1, x + 1));
}

cv::Point2d sampleMap(const cv::Mat& f, const cv::Point2d& at) {
    const cv::Vec2d v = bilinear<2>(f, at);
    return {v[0], v[1]};
}

bool inside(const cv::Point2d& p, const cv::Size& s, double margin) {
    return p.x >= margin && p.y >= margin && p.x <= s.width - 1 - margin &&
           p.y <= s.height - 1 - margin;
}

// Scene points spread over the left rectified view at several depths, projected through each
// true distorted lens and through the rig's rectification: the map of each lens must sample,
// at the point's rectified pixel (the same row in both views), the point's raw pixel.
void expectRectifiesRig(const Rig& rig, const Maps& maps) {
    const cv::Matx34d P(rig.P1);
    const double f = P(0, 0), cx = P(0, 2), cy = P(1, 2);
    const cv::Matx33d back = cv::Matx33d(rig.R1).t();
    const cv::Mat fm[2] = {floatMap(maps.m1, maps.m2), floatMap(maps.m3, maps.m4)};
    int i = 0, used = 0;
    double worst = 0;
    for (int v = 12; v < kSize.height - 12; v += 23)
        for (int u = 12; u < kSize.width - 12; u += 23, ++i) {
            const double z = 0.6 + 1.7 * (i % 4);
            const cv::Vec3d x = back * cv::Vec3d((u + 0.37 - cx) / f, (v + 0.61 - cy) / f, 1) * z;
            cv::Point2d raw[2], rect[2];
            bool ok = true;
            for (int lens = 0; lens < 2; ++lens)
                ok = ok && rig.project(lens, cv::Point3d(x), raw[lens]) &&
                     rig.projectRectified(lens, cv::Point3d(x), rect[lens]) &&
                     inside(raw[lens], kSize, 6) && inside(rect[lens], kSize, 6);
            if (!ok) continue;
            ++used;
            ASSERT_NEAR(rect[0].y, rect[1].y, 1e-6);
            for (int lens = 0; lens < 2; ++lens)
                worst = std::max(worst, cv::norm(sampleMap(fm[lens], rect[lens]) - raw[lens]));
        }
    EXPECT_GT(used, 400);
    EXPECT_LT(worst, 0.05) << "map disagrees with the lens model";
}

// Calibration files of the default pinhole rig, the fisheye rig and the default rig's left lens.
struct Files {
    orvo_test::ScratchDir dir;
    Rig rig, fisheye_rig{orvo::vcam::fisheyeRigSpec()};
    std::string in = dir.file("intrinsics.yml"), ex = dir.file("extrinsics.yml"),
                fisheye = dir.file("fisheye.yml"), mono = dir.file("mono.yml");
    Files() {
        EXPECT_TRUE(rig.writeStereo(in, ex) && fisheye_rig.writeFisheye(fisheye) &&
                    rig.writeMono(mono, 0));
    }
};

bool buildPinhole(const std::string& in, const std::string& ex, Maps& m, cv::Size size = kSize) {
    return get_remap_mat(in, ex, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
}

bool buildFisheye(const std::string& path, Maps& m, cv::Size size = kSize) {
    return get_remap_mat_fisheye_file(path, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
}

// Pinhole: the rectification is recomputed from the lens models, R and T (the stored R1 and R2
// may be missing, P1 is ignored); output 6 is the file's own P2, edited here to tell it apart.
// Fisheye: the stored rectification is used as it stands (both views pitched alike in the file
// and in the rig). Output 5 is the file's M1 / K1.
TEST(RemapBuilders, MapsRectifyTheRigsDistortedViewsOntoCommonRows) {
    Files files;
    cv::Mat p2 = files.rig.P2.clone();
    p2.at<double>(0, 3) = -12.345;
    p2.at<double>(0, 0) = 399.5;
    editMatrices(files.ex, [&](Edit& m) {
        m.erase("R1");
        m.erase("R2");
        m["P1"] *= 1.7;
        m["P2"] = p2;
    });
    Maps pinhole, fisheye;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, pinhole));
    expectRectifiesRig(files.rig, pinhole);
    EXPECT_TRUE(identical(pinhole.camera, files.rig.K1));
    EXPECT_TRUE(identical(pinhole.projection, p2));

    Rig& rig = files.fisheye_rig;
    cv::Mat pitch;
    cv::Rodrigues(cv::Vec3d(0.05, 0, 0), pitch);
    rig.R1 = pitch * rig.R1;
    rig.R2 = pitch * rig.R2;
    editMatrices(files.fisheye, [&](Edit& m) { m["R1"] = rig.R1, m["R2"] = rig.R2; });
    ASSERT_TRUE(buildFisheye(files.fisheye, fisheye));
    expectRectifiesRig(rig, fisheye);
    EXPECT_TRUE(identical(fisheye.camera, rig.K1));
    EXPECT_TRUE(identical(fisheye.projection, rig.P2));
}

// The caller's size wins over the calibration's 752 x 480; outputs the caller shares with other
// matrices (of the very size and type) are replaced, never written through.
TEST(RemapBuilders, MapsHaveTheCallersSizeAndFixedPointTypesInFreshStorage) {
    Files files;
    for (const cv::Size size : {kSize, cv::Size(640, 400), cv::Size(33, 17)}) {
        SCOPED_TRACE(size);
        const cv::Mat held1 = cv::Mat::zeros(size, CV_16SC2);
        const cv::Mat held2 = cv::Mat::zeros(size, CV_16UC1);
        Maps p{held1, held2, held1, held2, {}, {}}, f = p, m = p;
        ASSERT_TRUE(buildPinhole(files.in, files.ex, p, size));
        ASSERT_TRUE(buildFisheye(files.fisheye, f, size));
        ASSERT_TRUE(get_monoRemap_mat(files.mono, size, m.m1, m.m2));
        for (const cv::Mat* first : {&p.m1, &p.m3, &f.m1, &f.m3, &m.m1}) {
            EXPECT_EQ(first->size(), size);
            EXPECT_EQ(first->type(), CV_16SC2);
        }
        for (const cv::Mat* second : {&p.m2, &p.m4, &f.m2, &f.m4, &m.m2}) {
            EXPECT_EQ(second->size(), size);
            EXPECT_EQ(second->type(), CV_16UC1);
        }
        EXPECT_EQ(cv::countNonZero(held1.reshape(1)) + cv::countNonZero(held2), 0);
    }
}

TEST(MonoMaps, UndistortAndKeepTheWholeField) {
    Files files;
    cv::Mat m1, m2, out;
    ASSERT_TRUE(get_monoRemap_mat(files.mono, kSize, m1, m2));
    // Alpha 1: a thin strip along each edge of the raw image, and each corner, stays visible.
    const int w = kSize.width, h = kSize.height;
    const std::vector<cv::Rect> strips = {{0, 0, 2, h}, {w - 2, 0, 2, h}, {0, 0, w, 2},
                                          {0, h - 2, w, 2}, {0, 0, 4, 4}, {w - 4, h - 4, 4, 4}};
    for (const cv::Rect& r : strips) {
        cv::Mat raw = cv::Mat::zeros(kSize, CV_8U);
        raw(r).setTo(255);
        cv::remap(raw, out, m1, m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
        EXPECT_GT(cv::countNonZero(out), 0) << r;
    }

    // Undistorted: each output row samples raw pixels whose rays lie in one plane.
    const cv::Mat f = floatMap(m1, m2), rays = files.rig.rays(0);
    for (int v : {60, 240, 420}) {
        std::vector<cv::Vec3d> seen;
        for (int u = 40; u < w - 40; u += 30) {
            const cv::Point2d raw = sampleMap(f, cv::Point2d(u, v));
            if (inside(raw, kSize, 1)) seen.push_back(bilinear<3>(rays, raw));
        }
        ASSERT_GT(seen.size(), 10u);
        const cv::Vec3d n = cv::normalize(seen.front().cross(seen.back()));
        double worst = 0;  // in pixels at the lens's focal length
        for (const cv::Vec3d& r : seen)
            worst = std::max(worst, std::abs(n.dot(r)) / cv::norm(r) * files.rig.params().focal);
        EXPECT_LT(worst, 0.1) << "row " << v;
    }
}

// A missing file, or a needed matrix missing from one: false, the reader's messages only, and
// every output left as it was.
TEST(RemapBuilders, UnreadableOrIncompleteFilesFailSafely) {
    // Per file, the keys to drop one at a time; "" for no file, "-" for no intrinsics file and
    // an empty extrinsics name (two messages).
    const std::vector<std::pair<std::string Files::*, std::vector<std::string>>> damage = {
        {&Files::in, {"", "M1", "D1", "M2", "D2"}},
        {&Files::ex, {"", "-", "R", "T", "P2"}},
        {&Files::fisheye, {"", "K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"}},
        {&Files::mono, {"", "camera_matrix", "distortion_coefficients"}}};
    for (const auto& [file, keys] : damage) for (const std::string& key : keys) {
        Files f;
        SCOPED_TRACE(f.*file + " without " + key);
        const std::string missing = f.dir.file("missing.yml");
        std::string err = " Read File : " + missing + "Error !\n", out;
        if (key == "-") {
            f.in = missing;
            f.ex = "";
            err += " Read File : Error !\n";
        } else if (key.empty()) {
            f.*file = missing;
        } else {
            editMatrices(f.*file, [&](Edit& m) { m.erase(key); });
            err = "";
            if (file == &Files::fisheye) out = "read K1\nread D1\n";
        }
        const cv::Mat held = cv::Mat::ones(2, 2, CV_8U);
        Maps m{held, held, held, held, held, held};
        bool ok = true;
        auto c = captureOutput([&] {
            if (file == &Files::fisheye) ok = buildFisheye(f.fisheye, m);
            else if (file == &Files::mono) ok = get_monoRemap_mat(f.mono, kSize, m.m1, m.m2);
            else ok = buildPinhole(f.in, f.ex, m);
        });
        EXPECT_FALSE(ok);
        EXPECT_EQ(c.err, err);
        EXPECT_EQ(c.out, out);
        for (const cv::Mat* x : {&m.m1, &m.m2, &m.m3, &m.m4, &m.camera, &m.projection})
            EXPECT_EQ(x->data, held.data);
        EXPECT_EQ(cv::countNonZero(held), 4);
    }
}

}  // namespace
