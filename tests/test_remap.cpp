// Remap-table builders: geometry against a synthetic rig, map shapes, outputs 5/6, safe failures.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "ZUNCVHelper.h"
#include "rig.h"
#include "run_capture.h"
#include "scratch_dir.h"

namespace {

using orvo::vcam::Rig;
using orvo::vcam::RigSpec;
using orvo_test::captureOutput;

const cv::Size kSize(752, 480);

struct Maps {
    cv::Mat m1, m2, m3, m4, camera, projection;
};

bool identical(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return false;
    if (a.empty()) return true;
    cv::Mat diff;
    cv::compare(a.reshape(1), b.reshape(1), diff, cv::CMP_NE);
    return cv::countNonZero(diff) == 0;
}

bool sameMaps(const Maps& a, const Maps& b) {
    return identical(a.m1, b.m1) && identical(a.m2, b.m2) && identical(a.m3, b.m3) &&
           identical(a.m4, b.m4);
}

// The raw-image position that a rectified pixel samples, with the map's own sub-pixel table.
cv::Mat floatMap(const cv::Mat& m1, const cv::Mat& m2) {
    cv::Mat f, unused;
    cv::convertMaps(m1, m2, f, unused, CV_32FC2);
    return f;
}

cv::Point2d sampleMap(const cv::Mat& f, const cv::Point2d& at) {
    const int x = int(std::floor(at.x)), y = int(std::floor(at.y));
    const double ax = at.x - x, ay = at.y - y;
    auto v = [&](int r, int c) {
        cv::Vec2f p = f.at<cv::Vec2f>(r, c);
        return cv::Point2d(p[0], p[1]);
    };
    return (1 - ay) * ((1 - ax) * v(y, x) + ax * v(y, x + 1)) +
           ay * ((1 - ax) * v(y + 1, x) + ax * v(y + 1, x + 1));
}

bool inside(const cv::Point2d& p, const cv::Size& s, double margin) {
    return p.x >= margin && p.y >= margin && p.x <= s.width - 1 - margin &&
           p.y <= s.height - 1 - margin;
}

// Scene points spread over the left rectified view at several depths, kept when both lenses
// see them in their raw and rectified images.
struct Sample {
    cv::Point3d p;
    cv::Point2d raw[2], rect[2];
};

std::vector<Sample> samplePoints(const Rig& rig, int step) {
    const cv::Mat& P = rig.P1;
    const double f = P.at<double>(0, 0), cx = P.at<double>(0, 2), cy = P.at<double>(1, 2);
    const cv::Matx33d back = cv::Matx33d(rig.R1).t();
    std::vector<Sample> out;
    int i = 0;
    for (int v = 12; v < kSize.height - 12; v += step) {
        for (int u = 12; u < kSize.width - 12; u += step, ++i) {
            const double z = 0.6 + 1.7 * (i % 4);
            const cv::Vec3d x = back * cv::Vec3d(z * (u + 0.37 - cx) / f, z * (v + 0.61 - cy) / f, z);
            Sample s;
            s.p = cv::Point3d(x[0], x[1], x[2]);
            bool ok = true;
            for (int lens = 0; lens < 2; ++lens) {
                ok = ok && rig.project(lens, s.p, s.raw[lens]) &&
                     rig.projectRectified(lens, s.p, s.rect[lens]) &&
                     inside(s.raw[lens], kSize, 6) && inside(s.rect[lens], kSize, 6);
            }
            if (ok) out.push_back(s);
        }
    }
    return out;
}

// Float image of one lens with a small blob at each raw position, shaped as the raw image of a
// round Gaussian of the rectified view (the local rectified-to-raw Jacobian comes from the rig),
// so that strongly magnified parts of a wide lens do not spread it past the centroid window.
cv::Mat renderBlobs(const Rig& rig, const std::vector<Sample>& samples, int lens) {
    cv::Mat img = cv::Mat::zeros(kSize, CV_32F);
    const double sigma = 1.2, f = rig.P1.at<double>(0, 0);
    const cv::Matx33d back = cv::Matx33d(rig.R1).t();
    for (const Sample& s : samples) {
        const double z = (cv::Matx33d(rig.R1) * cv::Vec3d(s.p.x, s.p.y, s.p.z))[2];
        cv::Point2d moved[2];
        for (int axis = 0; axis < 2; ++axis) {
            const cv::Vec3d d = back * cv::Vec3d(axis == 0 ? z / f : 0, axis == 1 ? z / f : 0, 0);
            rig.project(lens, s.p + cv::Point3d(d[0], d[1], d[2]), moved[axis]);
        }
        const cv::Matx22d J(moved[0].x - s.raw[lens].x, moved[1].x - s.raw[lens].x,
                            moved[0].y - s.raw[lens].y, moved[1].y - s.raw[lens].y);
        const cv::Matx22d Jinv = J.inv();
        const cv::Point2d c = s.raw[lens];
        for (int y = int(c.y) - 6; y <= int(c.y) + 6; ++y)
            for (int x = int(c.x) - 6; x <= int(c.x) + 6; ++x) {
                if (!inside(cv::Point2d(x, y), kSize, 0)) continue;
                const cv::Vec2d r = Jinv * cv::Vec2d(x - c.x, y - c.y);
                img.at<float>(y, x) += float(200.0 * std::exp(-r.dot(r) / (2 * sigma * sigma)));
            }
    }
    return img;
}

cv::Point2d centroid(const cv::Mat& img, const cv::Point2d& around) {
    double sw = 0, sx = 0, sy = 0;
    for (int y = int(std::lround(around.y)) - 5; y <= int(std::lround(around.y)) + 5; ++y)
        for (int x = int(std::lround(around.x)) - 5; x <= int(std::lround(around.x)) + 5; ++x) {
            const double w = img.at<float>(y, x);
            sw += w;
            sx += w * x;
            sy += w * y;
        }
    return sw > 0 ? cv::Point2d(sx / sw, sy / sw) : cv::Point2d(-1e9, -1e9);
}

// The samples whose blobs stay clear of each other's in all four images (near and far points
// can meet in the right view).
std::vector<Sample> apart(const std::vector<Sample>& samples, double gap) {
    std::vector<Sample> kept;
    for (const Sample& s : samples) {
        bool clear = true;
        for (const Sample& k : kept)
            for (int lens = 0; lens < 2; ++lens)
                clear = clear && cv::norm(s.raw[lens] - k.raw[lens]) > gap &&
                        cv::norm(s.rect[lens] - k.rect[lens]) > gap;
        if (clear) kept.push_back(s);
    }
    return kept;
}

// Every sampled point's ideal rectified pixel must sample its true raw pixel (map used inversely),
// and blobs rendered at the raw pixels must land, after cv::remap, at the rectified pixels, on
// the same row in both views.
void expectRectifiesRig(const Rig& rig, const Maps& maps) {
    const std::vector<Sample> dense = samplePoints(rig, 23);
    ASSERT_GT(dense.size(), 400u);
    const cv::Mat f[2] = {floatMap(maps.m1, maps.m2), floatMap(maps.m3, maps.m4)};
    double worst = 0;
    for (const Sample& s : dense)
        for (int lens = 0; lens < 2; ++lens)
            worst = std::max(worst, cv::norm(sampleMap(f[lens], s.rect[lens]) - s.raw[lens]));
    EXPECT_LT(worst, 0.05) << "map disagrees with the lens model";

    const std::vector<Sample> sparse = apart(samplePoints(rig, 41), 16.0);
    ASSERT_GT(sparse.size(), 100u);
    cv::Mat rect[2];
    for (int lens = 0; lens < 2; ++lens)
        cv::remap(renderBlobs(rig, sparse, lens), rect[lens], lens == 0 ? maps.m1 : maps.m3,
                  lens == 0 ? maps.m2 : maps.m4, cv::INTER_LINEAR);
    double worst_pos = 0, worst_row = 0, worst_disp = 0;
    const double fb = -rig.P2.at<double>(0, 3);
    for (const Sample& s : sparse) {
        const cv::Point2d l = centroid(rect[0], s.rect[0]), r = centroid(rect[1], s.rect[1]);
        worst_pos = std::max({worst_pos, cv::norm(l - s.rect[0]), cv::norm(r - s.rect[1])});
        worst_row = std::max(worst_row, std::abs(l.y - r.y));
        const double z = (cv::Matx33d(rig.R1) * cv::Vec3d(s.p.x, s.p.y, s.p.z))[2];
        worst_disp = std::max(worst_disp, std::abs((l.x - r.x) - fb / z));
    }
    EXPECT_LT(worst_pos, 0.1);
    EXPECT_LT(worst_row, 0.1);
    EXPECT_LT(worst_disp, 0.15);
}

struct StereoFiles {
    orvo_test::ScratchDir dir;
    Rig rig;
    std::string in = dir.file("intrinsics.yml"), ex = dir.file("extrinsics.yml");
    explicit StereoFiles(const RigSpec& params = RigSpec()) : rig(params) {
        EXPECT_TRUE(rig.writeStereo(in, ex));
    }
};

struct FisheyeFile {
    orvo_test::ScratchDir dir;
    Rig rig{orvo::vcam::fisheyeRigSpec()};
    std::string path = dir.file("fisheye.yml");
    FisheyeFile() { EXPECT_TRUE(rig.writeFisheye(path)); }
};

bool buildPinhole(const std::string& in, const std::string& ex, Maps& m, cv::Size size = kSize) {
    return get_remap_mat(in, ex, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
}

bool buildFisheye(const std::string& path, Maps& m, cv::Size size = kSize) {
    bool ok = false;
    captureOutput([&] {
        ok = get_remap_mat_fisheye_file(path, size, m.m1, m.m2, m.m3, m.m4, m.camera, m.projection);
    });
    return ok;
}

// Rewrites a calibration file with some matrices replaced or dropped (an empty Mat drops).
void rewrite(const std::string& path, const std::vector<std::string>& keys,
             const std::vector<std::pair<std::string, cv::Mat>>& changes) {
    cv::FileStorage in(path, cv::FileStorage::READ);
    std::vector<std::pair<std::string, cv::Mat>> mats;
    for (const std::string& k : keys) {
        cv::Mat m;
        in[k] >> m;
        mats.emplace_back(k, m);
    }
    in.release();
    for (const auto& c : changes)
        for (auto& m : mats)
            if (m.first == c.first) m.second = c.second;
    cv::FileStorage out(path, cv::FileStorage::WRITE);
    for (const auto& m : mats)
        if (!m.second.empty()) out << m.first << m.second;
}

const std::vector<std::string> kExtrinsicKeys = {"R", "T", "R1", "R2", "P1", "P2", "Q"};
const std::vector<std::string> kIntrinsicKeys = {"M1", "D1", "M2", "D2"};
const std::vector<std::string> kFisheyeKeys = {"K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"};

cv::Mat readKey(const std::string& path, const std::string& key) {
    cv::FileStorage fs(path, cv::FileStorage::READ);
    cv::Mat m;
    fs[key] >> m;
    return m;
}

TEST(PinholeMaps, RectifyTheRigsDistortedViewsOntoCommonRows) {
    StereoFiles files;
    Maps maps;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, maps));
    expectRectifiesRig(files.rig, maps);

    // Alpha 0: every rectified pixel samples inside the raw image.
    const cv::Mat white(kSize, CV_8U, cv::Scalar(255));
    cv::Mat out;
    cv::remap(white, out, maps.m1, maps.m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
    EXPECT_EQ(cv::countNonZero(out == 255), kSize.area());
    cv::remap(white, out, maps.m3, maps.m4, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
    EXPECT_EQ(cv::countNonZero(out == 255), kSize.area());
}

TEST(FisheyeMaps, RectifyTheRigsDistortedViewsOntoCommonRows) {
    FisheyeFile file;
    Maps maps;
    ASSERT_TRUE(buildFisheye(file.path, maps));
    expectRectifiesRig(file.rig, maps);

    // The rig's balance keeps the rectified view almost entirely inside the raw image.
    const cv::Mat white(kSize, CV_8U, cv::Scalar(255));
    cv::Mat out;
    cv::remap(white, out, maps.m1, maps.m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
    EXPECT_GT(cv::countNonZero(out == 255), kSize.area() * 99 / 100);
}

TEST(RemapBuilders, MapsHaveTheCallersSizeAndFixedPointTypes) {
    StereoFiles stereo;
    FisheyeFile fisheye;
    orvo_test::ScratchDir dir;
    const std::string mono = dir.file("mono.yml");
    ASSERT_TRUE(stereo.rig.writeMono(mono));
    // The calibration was made for 752 x 480; the caller's size wins, mismatch or not.
    for (const cv::Size size : {kSize, cv::Size(640, 400), cv::Size(33, 17)}) {
        Maps p, f, m;
        ASSERT_TRUE(buildPinhole(stereo.in, stereo.ex, p, size));
        ASSERT_TRUE(buildFisheye(fisheye.path, f, size));
        ASSERT_TRUE(get_monoRemap_mat(mono, size, m.m1, m.m2));
        for (const cv::Mat* first : {&p.m1, &p.m3, &f.m1, &f.m3, &m.m1}) {
            EXPECT_EQ(first->size(), size);
            EXPECT_EQ(first->type(), CV_16SC2);
        }
        for (const cv::Mat* second : {&p.m2, &p.m4, &f.m2, &f.m4, &m.m2}) {
            EXPECT_EQ(second->size(), size);
            EXPECT_EQ(second->type(), CV_16UC1);
        }
    }
}

TEST(PinholeMaps, OutputsFiveAndSixAreTheFilesM1AndP2) {
    StereoFiles files;
    // A P2 unlike the one the builder computes, to tell them apart.
    cv::Mat edited_p2 = files.rig.P2.clone();
    edited_p2.at<double>(0, 3) = -12.345;
    edited_p2.at<double>(0, 0) = 399.5;
    rewrite(files.ex, kExtrinsicKeys, {{"P2", edited_p2}});
    Maps maps;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, maps));
    EXPECT_TRUE(identical(maps.camera, readKey(files.in, "M1")));
    EXPECT_TRUE(identical(maps.camera, files.rig.K1));
    EXPECT_FALSE(identical(maps.camera, files.rig.P1.colRange(0, 3).clone()));  // not rectified
    EXPECT_TRUE(identical(maps.projection, edited_p2));
    // Header copies of whole matrices read from the file: nothing else holds them now.
    ASSERT_NE(maps.camera.u, nullptr);
    EXPECT_EQ(maps.camera.u->refcount, 1);
    EXPECT_EQ(maps.projection.u->refcount, 1);
    EXPECT_TRUE(maps.camera.isContinuous());

    FisheyeFile fe;
    Maps f;
    ASSERT_TRUE(buildFisheye(fe.path, f));
    EXPECT_TRUE(identical(f.camera, fe.rig.K1));
    EXPECT_TRUE(identical(f.projection, fe.rig.P2));
}

TEST(PinholeMaps, OnlyRAndTFeedTheRectification) {
    StereoFiles files;
    Maps reference;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, reference));

    cv::Mat skew = (cv::Mat_<double>(3, 1) << 0.2, -0.1, 0.3), rot;
    cv::Rodrigues(skew, rot);
    cv::Mat p1 = files.rig.P1.clone() * 1.7;
    cv::Mat p2 = files.rig.P2.clone();
    p2.at<double>(0, 3) *= 3;
    rewrite(files.ex, kExtrinsicKeys, {{"R1", rot}, {"R2", rot.t()}, {"P1", p1}, {"P2", p2}});
    Maps edited;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, edited));
    EXPECT_TRUE(sameMaps(edited, reference));
    EXPECT_TRUE(identical(edited.projection, p2));
    EXPECT_FALSE(identical(edited.projection, reference.projection));

    // Dropping them altogether is no failure either.
    rewrite(files.ex, kExtrinsicKeys, {{"R1", cv::Mat()}, {"R2", cv::Mat()}, {"P1", cv::Mat()}});
    Maps dropped;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, dropped));
    EXPECT_TRUE(sameMaps(dropped, reference));

    // A different T does change them.
    rewrite(files.ex, kExtrinsicKeys, {{"T", (cv::Mat_<double>(3, 1) << -0.12, 0.01, 0.0)}});
    Maps moved;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, moved));
    EXPECT_FALSE(identical(moved.m1, reference.m1));
}

TEST(FisheyeMaps, StoredRectificationIsUsedVerbatim) {
    FisheyeFile file;
    Maps reference;
    ASSERT_TRUE(buildFisheye(file.path, reference));

    // Identity R1 with P1 = [K1 | 0]: the left map becomes a pure undistortion at K1.
    cv::Mat p1 = cv::Mat::zeros(3, 4, CV_64F);
    file.rig.K1.copyTo(p1.colRange(0, 3));
    rewrite(file.path, kFisheyeKeys, {{"R1", cv::Mat::eye(3, 3, CV_64F)}, {"P1", p1}});
    Maps plain;
    ASSERT_TRUE(buildFisheye(file.path, plain));
    EXPECT_TRUE(identical(plain.m3, reference.m3));
    EXPECT_TRUE(identical(plain.m4, reference.m4));
    EXPECT_FALSE(identical(plain.m1, reference.m1));

    const cv::Mat f = floatMap(plain.m1, plain.m2);
    const cv::Matx33d k_inv = cv::Matx33d(file.rig.K1).inv();
    double worst = 0;
    for (int v = 60; v < 420; v += 30)
        for (int u = 80; u < 680; u += 30) {
            const cv::Vec3d ray = k_inv * cv::Vec3d(u, v, 1);
            cv::Point2d raw;
            ASSERT_TRUE(file.rig.project(0, cv::Point3d(ray[0], ray[1], ray[2]), raw));
            if (!inside(raw, kSize, 1)) continue;
            worst = std::max(worst, cv::norm(sampleMap(f, cv::Point2d(u, v)) - raw));
        }
    EXPECT_LT(worst, 0.05);
    // The centre of an undistortion at K1 samples the principal point itself.
    const cv::Point2d c = sampleMap(f, file.rig.params().principal_left);
    EXPECT_LT(cv::norm(c - file.rig.params().principal_left), 0.05);
}

// Output pixel whose map entry is `raw`, by Newton steps on the interpolated map.
bool invertMap(const cv::Mat& f, const cv::Point2d& raw, cv::Point2d& at) {
    at = raw;
    for (int i = 0; i < 30; ++i) {
        if (!inside(at, f.size(), 2)) return false;
        const cv::Point2d m = sampleMap(f, at), e = m - raw;
        if (cv::norm(e) < 1e-3) return true;
        const double h = 0.5;
        const cv::Point2d jx = (sampleMap(f, at + cv::Point2d(h, 0)) - m) / h;
        const cv::Point2d jy = (sampleMap(f, at + cv::Point2d(0, h)) - m) / h;
        const double det = jx.x * jy.y - jy.x * jx.y;
        if (std::abs(det) < 1e-9) return false;
        at -= cv::Point2d((jy.y * e.x - jy.x * e.y) / det, (jx.x * e.y - jx.y * e.x) / det);
    }
    return false;
}

double worstDistanceFromLine(const std::vector<cv::Point2d>& pts) {
    cv::Vec4d line;
    std::vector<cv::Point2f> f(pts.begin(), pts.end());
    cv::fitLine(f, line, cv::DIST_L2, 0, 1e-6, 1e-6);
    double worst = 0;
    for (const cv::Point2d& p : pts)
        worst = std::max(worst, std::abs((p.x - line[2]) * line[1] - (p.y - line[3]) * line[0]));
    return worst;
}

TEST(MonoMaps, UndistortAndKeepTheWholeField) {
    orvo_test::ScratchDir dir;
    Rig rig;
    const std::string path = dir.file("mono.yml");
    ASSERT_TRUE(rig.writeMono(path, 0));
    cv::Mat m1, m2;
    ASSERT_TRUE(get_monoRemap_mat(path, kSize, m1, m2));

    // Alpha 1: a thin strip along each edge of the raw image, and each corner, stays visible.
    const std::vector<cv::Rect> strips = {
        {0, 0, 2, kSize.height}, {kSize.width - 2, 0, 2, kSize.height}, {0, 0, kSize.width, 2},
        {0, kSize.height - 2, kSize.width, 2}, {0, 0, 4, 4}, {kSize.width - 4, kSize.height - 4, 4, 4}};
    for (const cv::Rect& r : strips) {
        cv::Mat raw = cv::Mat::zeros(kSize, CV_8U), out;
        raw(r).setTo(255);
        cv::remap(raw, out, m1, m2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
        EXPECT_GT(cv::countNonZero(out), 0) << r;
    }
    // ... and so, with this barrel lens, black borders appear.
    cv::Mat out;
    cv::remap(cv::Mat(kSize, CV_8U, cv::Scalar(255)), out, m1, m2, cv::INTER_LINEAR,
              cv::BORDER_CONSTANT, 0);
    EXPECT_GT(kSize.area() - cv::countNonZero(out), 1000);

    // A straight edge in the scene, bent in the raw image, comes out straight.
    const cv::Mat f = floatMap(m1, m2);
    std::vector<cv::Point2d> raw_pts, out_pts;
    for (double x = -1.6; x <= 1.6; x += 0.2) {
        cv::Point2d raw, o;
        ASSERT_TRUE(rig.project(0, cv::Point3d(x, -0.85, 2.0), raw));
        ASSERT_TRUE(inside(raw, kSize, 3));
        ASSERT_TRUE(invertMap(f, raw, o)) << raw;
        raw_pts.push_back(raw);
        out_pts.push_back(o);
    }
    EXPECT_GT(worstDistanceFromLine(raw_pts), 5.0);  // the test has something to straighten
    EXPECT_LT(worstDistanceFromLine(out_pts), 0.1);
}

TEST(RemapBuilders, PreviousOutputsAreReplacedNotWrittenThrough) {
    StereoFiles files;
    const cv::Mat kept1 = cv::Mat::zeros(kSize, CV_16SC2), kept2 = cv::Mat::zeros(kSize, CV_16UC1);
    const cv::Mat kept_m = cv::Mat::zeros(3, 3, CV_64F);
    Maps m;
    m.m1 = kept1;
    m.m2 = kept2;
    m.m3 = kept1;
    m.m4 = kept2;
    m.camera = kept_m;
    m.projection = kept_m;
    ASSERT_TRUE(buildPinhole(files.in, files.ex, m));
    EXPECT_NE(m.m1.data, kept1.data);
    EXPECT_NE(m.m2.data, kept2.data);
    EXPECT_NE(m.camera.data, kept_m.data);
    EXPECT_EQ(cv::countNonZero(kept1.reshape(1)), 0);
    EXPECT_EQ(cv::countNonZero(kept2), 0);
    EXPECT_EQ(cv::countNonZero(kept_m), 0);
    EXPECT_EQ(kept1.u->refcount, 1);

    orvo_test::ScratchDir dir;
    ASSERT_TRUE(files.rig.writeMono(dir.file("mono.yml"), 1));
    cv::Mat a = kept1, b = kept2;
    ASSERT_TRUE(get_monoRemap_mat(dir.file("mono.yml"), kSize, a, b));
    EXPECT_NE(a.data, kept1.data);
    EXPECT_EQ(cv::countNonZero(kept1.reshape(1)), 0);
}

// Outputs that a failed build must leave exactly as they were.
struct Sentinels {
    cv::Mat held = cv::Mat::ones(2, 2, CV_8U);
    Maps m{held, held, held, held, held, held};
    void expectUntouched() const {
        for (const cv::Mat* x : {&m.m1, &m.m2, &m.m3, &m.m4, &m.camera, &m.projection})
            EXPECT_EQ(x->data, held.data);
        EXPECT_EQ(cv::countNonZero(held), 4);
    }
};

TEST(PinholeMaps, UnreadableOrIncompleteFilesFailSafely) {
    StereoFiles files;
    const std::string missing = files.dir.file("missing.yml");
    struct Case {
        std::string in, ex, err;
    };
    const std::vector<Case> unreadable = {
        {missing, files.ex, " Read File : " + missing + "Error !\n"},
        {files.in, missing, " Read File : " + missing + "Error !\n"},
        {missing, "", " Read File : " + missing + "Error !\n Read File : Error !\n"}};
    for (const Case& c : unreadable) {
        Sentinels s;
        bool ok = true;
        auto out = captureOutput([&] { ok = buildPinhole(c.in, c.ex, s.m); });
        EXPECT_FALSE(ok);
        EXPECT_EQ(out.err, c.err);
        EXPECT_EQ(out.out, "");
        s.expectUntouched();
    }

    const std::vector<std::pair<bool, std::string>> needed = {
        {true, "M1"}, {true, "D1"}, {true, "M2"}, {true, "D2"}, {false, "R"}, {false, "T"},
        {false, "P2"}};
    for (const auto& key : needed) {
        StereoFiles partial;
        if (key.first)
            rewrite(partial.in, kIntrinsicKeys, {{key.second, cv::Mat()}});
        else
            rewrite(partial.ex, kExtrinsicKeys, {{key.second, cv::Mat()}});
        Sentinels s;
        bool ok = true;
        auto out = captureOutput([&] { ok = buildPinhole(partial.in, partial.ex, s.m); });
        EXPECT_FALSE(ok) << key.second;
        EXPECT_EQ(out.err, "");
        s.expectUntouched();
    }

    // A matrix of the wrong shape is OpenCV's to reject.
    rewrite(files.in, kIntrinsicKeys, {{"M1", cv::Mat::eye(2, 2, CV_64F)}});
    Maps m;
    EXPECT_THROW(buildPinhole(files.in, files.ex, m), cv::Exception);
}

TEST(FisheyeMaps, UnreadableOrIncompleteFileFailsSafely) {
    FisheyeFile file;
    const std::string missing = file.dir.file("missing.yml");
    Sentinels s;
    bool ok = true;
    auto out = captureOutput([&] {
        ok = get_remap_mat_fisheye_file(missing, kSize, s.m.m1, s.m.m2, s.m.m3, s.m.m4, s.m.camera,
                                        s.m.projection);
    });
    EXPECT_FALSE(ok);
    EXPECT_EQ(out.err, " Read File : " + missing + "Error !\n");
    EXPECT_EQ(out.out, "");
    s.expectUntouched();

    for (const std::string& key : kFisheyeKeys) {
        FisheyeFile partial;
        rewrite(partial.path, kFisheyeKeys, {{key, cv::Mat()}});
        Sentinels t;
        auto o = captureOutput([&] {
            ok = get_remap_mat_fisheye_file(partial.path, kSize, t.m.m1, t.m.m2, t.m.m3, t.m.m4,
                                            t.m.camera, t.m.projection);
        });
        EXPECT_FALSE(ok) << key;
        EXPECT_EQ(o.out, "read K1\nread D1\n");
        EXPECT_EQ(o.err, "");
        t.expectUntouched();
    }
}

TEST(MonoMaps, UnreadableOrIncompleteFileFailsSafely) {
    orvo_test::ScratchDir dir;
    Rig rig;
    const std::string path = dir.file("mono.yml"), missing = dir.file("missing.yml");
    ASSERT_TRUE(rig.writeMono(path));
    Sentinels s;
    bool ok = true;
    auto out = captureOutput([&] { ok = get_monoRemap_mat(missing, kSize, s.m.m1, s.m.m2); });
    EXPECT_FALSE(ok);
    EXPECT_EQ(out.err, " Read File : " + missing + "Error !\n");
    for (const std::string key : {"camera_matrix", "distortion_coefficients"}) {
        ASSERT_TRUE(rig.writeMono(path));
        rewrite(path, {"camera_matrix", "distortion_coefficients"}, {{key, cv::Mat()}});
        auto o = captureOutput([&] { ok = get_monoRemap_mat(path, kSize, s.m.m1, s.m.m2); });
        EXPECT_FALSE(ok) << key;
        EXPECT_EQ(o.err, "");
    }
    s.expectUntouched();
}

}  // namespace
