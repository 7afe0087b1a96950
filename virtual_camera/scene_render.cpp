// Ray casting of a scene through the rig's true lens model into the two grey images.
#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

#include <opencv2/calib3d.hpp>

#include <orvo/vcam/render.hpp>

namespace orvo {
namespace vcam {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMinHit = 1e-6;  // metres; hits closer than this to the lens are ignored
// Amplitude of each noise octave relative to the one before: above one half, so that the fine
// detail block matching feeds on is not drowned by the coarse shapes.
constexpr double kPersistence = 0.7;

// An object in some frame: centre, orthonormal axes as columns, half extents along them. A plane
// uses axes 0 and 1 and has its normal in column 2.
struct Shape {
    SceneObject::Kind kind = SceneObject::kPlane;
    cv::Vec3d centre;
    cv::Matx33d axes;
    cv::Vec3d half;
    SceneTexture texture;
    double shade[6] = {1, 1, 1, 1, 1, 1};  // light on each face: box -x,+x,-y,+y,-z,+z; plane [0]
};

struct Hit {
    double t = std::numeric_limits<double>::infinity();
    const Shape* shape = nullptr;
    int face = 0;
    double u = 0, v = 0;  // texture coordinates on the face, metres
    double cosine = 1;    // |cos| of the angle between ray and face normal
};

cv::Matx33d yawRotation(double degrees) {
    const double a = degrees * kPi / 180.0;
    return {std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1};
}

double lambert(const SceneRender& r, const cv::Vec3d& normal, bool two_sided) {
    const cv::Vec3d towards_light = -cv::normalize(r.light_direction);
    double c = normal.dot(towards_light);
    if (two_sided) c = std::fabs(c);
    return r.ambient + r.diffuse * std::max(0.0, c);
}

Shape worldShape(const SceneObject& o, const SceneRender& render) {
    Shape s;
    s.kind = o.kind;
    s.centre = o.centre;
    s.texture = o.texture;
    if (o.kind == SceneObject::kPlane) {
        const cv::Vec3d n = o.axis_u.cross(o.axis_v);
        s.axes = {o.axis_u[0], o.axis_v[0], n[0], o.axis_u[1], o.axis_v[1], n[1],
                  o.axis_u[2], o.axis_v[2], n[2]};
        s.half = {o.size[0] / 2, o.size[1] / 2, 0};
        s.shade[0] = lambert(render, n, true);
    } else {
        s.axes = yawRotation(o.yaw_deg);
        s.half = o.size / 2;
        for (int face = 0; face < 6; ++face) {
            cv::Vec3d n(0, 0, 0);
            n[face / 2] = face % 2 ? 1 : -1;
            s.shade[face] = lambert(render, s.axes * n, false);
        }
    }
    return s;
}

void intersectPlane(const Shape& s, const cv::Vec3d& o, const cv::Vec3d& d, Hit& hit) {
    const cv::Vec3d n(s.axes(0, 2), s.axes(1, 2), s.axes(2, 2));
    const double along = n.dot(d);
    if (std::fabs(along) < 1e-12) return;
    const double t = n.dot(s.centre - o) / along;
    if (!(t > kMinHit) || t >= hit.t) return;
    const cv::Vec3d p = o + d * t - s.centre;
    const double u = p.dot(cv::Vec3d(s.axes(0, 0), s.axes(1, 0), s.axes(2, 0)));
    const double v = p.dot(cv::Vec3d(s.axes(0, 1), s.axes(1, 1), s.axes(2, 1)));
    if (std::fabs(u) > s.half[0] || std::fabs(v) > s.half[1]) return;
    hit = {t, &s, 0, u + s.half[0], v + s.half[1], std::fabs(along)};
}

// Slab test in the box's own axes; the face hit is the one the ray enters through.
void intersectBox(const Shape& s, const cv::Vec3d& o, const cv::Vec3d& d, Hit& hit) {
    const cv::Vec3d lo = s.axes.t() * (o - s.centre);
    const cv::Vec3d ld = s.axes.t() * d;
    double t_near = -std::numeric_limits<double>::infinity();
    double t_far = std::numeric_limits<double>::infinity();
    int axis = 0;
    for (int i = 0; i < 3; ++i) {
        if (std::fabs(ld[i]) < 1e-12) {
            if (std::fabs(lo[i]) > s.half[i]) return;
            continue;
        }
        double t1 = (-s.half[i] - lo[i]) / ld[i];
        double t2 = (s.half[i] - lo[i]) / ld[i];
        if (t1 > t2) std::swap(t1, t2);
        if (t1 > t_near) t_near = t1, axis = i;
        t_far = std::min(t_far, t2);
    }
    if (t_near > t_far || !(t_near > kMinHit) || t_near >= hit.t) return;
    const cv::Vec3d p = lo + ld * t_near;
    const int j = (axis + 1) % 3, k = (axis + 2) % 3;
    const int face = 2 * axis + (ld[axis] < 0 ? 1 : 0);
    // Each face gets its own stretch of the texture so that opposite faces differ.
    hit = {t_near, &s, face, p[j] + s.half[j] + 31.7 * face, p[k] + s.half[k] + 17.3 * face,
           std::fabs(ld[axis])};
}

// The nearest surface along the unit direction d from o.
Hit castRay(const std::vector<Shape>& shapes, const cv::Vec3d& o, const cv::Vec3d& d) {
    Hit hit;
    for (const Shape& s : shapes) {
        if (s.kind == SceneObject::kPlane) intersectPlane(s, o, d, hit);
        else intersectBox(s, o, d, hit);
    }
    return hit;
}

uint32_t hash3(int32_t x, int32_t y, uint32_t seed) {
    uint32_t h = uint32_t(x) * 0x8DA6B343u ^ uint32_t(y) * 0xD8163841u ^ seed * 0xCB1AB31Fu;
    h ^= h >> 16;
    h *= 0x7FEB352Du;
    h ^= h >> 15;
    h *= 0x846CA68Bu;
    h ^= h >> 16;
    return h;
}

double lattice(int32_t x, int32_t y, uint32_t seed) {
    return double(hash3(x, y, seed)) / 2147483647.5 - 1.0;  // -1 .. 1
}

// Smoothly interpolated lattice noise, -1 .. 1.
double valueNoise(double x, double y, uint32_t seed) {
    const double fx = std::floor(x), fy = std::floor(y);
    const int32_t ix = int32_t(fx), iy = int32_t(fy);
    double tx = x - fx, ty = y - fy;
    tx = tx * tx * (3 - 2 * tx);
    ty = ty * ty * (3 - 2 * ty);
    const double a = lattice(ix, iy, seed), b = lattice(ix + 1, iy, seed);
    const double c = lattice(ix, iy + 1, seed), e = lattice(ix + 1, iy + 1, seed);
    return (a + (b - a) * tx) + ((c + (e - c) * tx) - (a + (b - a) * tx)) * ty;
}

// Grey level of a texture at (u, v); octaves finer than twice the sample footprint are faded out
// so that distant, grazing surfaces do not alias.
double textureGrey(const SceneTexture& tx, double u, double v, double footprint) {
    switch (tx.kind) {
    case SceneTexture::kFlat:
        return tx.mean;
    case SceneTexture::kChecker: {
        const long cell = long(std::floor(u / tx.scale)) + long(std::floor(v / tx.scale));
        return tx.mean + ((cell & 1) ? tx.contrast : -tx.contrast);
    }
    case SceneTexture::kNoise:
        break;
    }
    double sum = 0, norm = 0, amplitude = 1, wavelength = tx.scale;
    for (int o = 0; o < tx.octaves; ++o) {
        const double weight = std::clamp(wavelength / (2 * footprint) - 1.0, 0.0, 1.0);
        if (weight > 0) sum += amplitude * weight * valueNoise(u / wavelength, v / wavelength, tx.seed + o);
        norm += amplitude;
        amplitude *= kPersistence;
        wavelength *= 0.5;
    }
    return tx.mean + tx.contrast * sum / norm;
}

bool finite(const cv::Vec3f& r) {
    return std::isfinite(r[0]) && std::isfinite(r[1]) && std::isfinite(r[2]) &&
           (r[0] != 0 || r[1] != 0 || r[2] != 0);
}

// Change of the ray per pixel along one image axis at one pixel, from whichever neighbour lies on
// the side of the offset (the other one at the image border).
cv::Vec3d rayStep(const cv::Vec3f& centre, const cv::Vec3f* before, const cv::Vec3f* after,
                  double offset) {
    const cv::Vec3f* first = offset >= 0 ? after : before;
    const cv::Vec3f* second = offset >= 0 ? before : after;
    if (first && finite(*first)) return offset >= 0 ? cv::Vec3d(*first - centre) : cv::Vec3d(centre - *first);
    if (second && finite(*second)) return offset >= 0 ? cv::Vec3d(centre - *second) : cv::Vec3d(*second - centre);
    return {0, 0, 0};
}

// Runs body(first_row, end_row) over bands of rows on a few threads of its own. Not
// cv::parallel_for_: its thread pool reads /proc/meminfo when it first starts, and the virtual
// camera renders while holding the lock under which it answers that very read.
template <typename Body>
void forRowBands(int rows, const Body& body) {
    const int threads = std::clamp(int(std::thread::hardware_concurrency()), 1, 4);
    const int band = (rows + threads - 1) / threads;
    std::vector<std::thread> helpers;
    for (int t = 1; t < threads; ++t)
        helpers.emplace_back(body, std::min(rows, t * band), std::min(rows, (t + 1) * band));
    body(0, std::min(rows, band));
    for (std::thread& h : helpers) h.join();
}

}  // namespace

struct SceneRenderer::Impl {
    cv::Mat rays[2];
    cv::Vec3d centres[2];
    std::vector<Shape> shapes;  // world frame
    SceneRender settings;
    double pixel_angle = 1;     // radians between neighbouring pixels near the image centre

    std::vector<Shape> localShapes(const ScenePose& pose) const;
    void renderLens(int lens, const std::vector<Shape>& local, cv::Mat& out) const;
    double shadeSample(const std::vector<Shape>& local, const cv::Vec3d& origin, cv::Vec3d d,
                       int& surface) const;
    double supersample(const std::vector<Shape>& local, const cv::Vec3d& origin, const cv::Mat& r,
                       int x, int y) const;
};

// Grey seen along direction d from origin, and which surface (object * 6 + face, -1 for none).
double SceneRenderer::Impl::shadeSample(const std::vector<Shape>& local, const cv::Vec3d& origin,
                                        cv::Vec3d d, int& surface) const {
    const Hit hit = castRay(local, origin, cv::normalize(d));
    if (!hit.shape) {
        surface = -1;
        return settings.background;
    }
    surface = int(hit.shape - local.data()) * 6 + hit.face;
    // A grazing surface's footprint is long along the ray and short across it; their geometric
    // mean keeps the across-detail without letting the along-detail alias badly.
    const double footprint = hit.t * pixel_angle / std::sqrt(std::max(hit.cosine, 0.01));
    return hit.shape->shade[hit.face] * textureGrey(hit.shape->texture, hit.u, hit.v, footprint);
}

// Mean of samples x samples rays spread evenly over pixel (x, y); the rays between pixel centres
// follow the lens model to first order.
double SceneRenderer::Impl::supersample(const std::vector<Shape>& local, const cv::Vec3d& origin,
                                        const cv::Mat& r, int x, int y) const {
    const int n = settings.samples;
    const cv::Vec3f* up = y > 0 ? r.ptr<cv::Vec3f>(y - 1) : nullptr;
    const cv::Vec3f* row = r.ptr<cv::Vec3f>(y);
    const cv::Vec3f* down = y + 1 < r.rows ? r.ptr<cv::Vec3f>(y + 1) : nullptr;
    const cv::Vec3f& c = row[x];
    double sum = 0;
    int surface;
    for (int sy = 0; sy < n; ++sy) {
        const double oy = (sy + 0.5) / n - 0.5;
        const cv::Vec3d gy = rayStep(c, up ? &up[x] : nullptr, down ? &down[x] : nullptr, oy);
        for (int sx = 0; sx < n; ++sx) {
            const double ox = (sx + 0.5) / n - 0.5;
            const cv::Vec3d gx = rayStep(c, x > 0 ? &row[x - 1] : nullptr,
                                         x + 1 < r.cols ? &row[x + 1] : nullptr, ox);
            sum += shadeSample(local, origin, cv::Vec3d(c) + gx * ox + gy * oy, surface);
        }
    }
    return sum / (n * n);
}

// One ray through every pixel centre; then the pixels on a surface boundary (a neighbour sees
// another surface) are supersampled, which is where aliasing would show. Textures are filtered to
// the pixel footprint, so inside a surface one sample is enough.
void SceneRenderer::Impl::renderLens(int lens, const std::vector<Shape>& local, cv::Mat& out) const {
    const cv::Mat& r = rays[lens];
    const cv::Vec3d origin = centres[lens];
    cv::Mat grey(r.size(), CV_32F), surfaces(r.size(), CV_32S);
    forRowBands(r.rows, [&](int first, int end) {
        for (int y = first; y < end; ++y) {
            const cv::Vec3f* row = r.ptr<cv::Vec3f>(y);
            float* g = grey.ptr<float>(y);
            int* id = surfaces.ptr<int>(y);
            for (int x = 0; x < r.cols; ++x) {
                if (finite(row[x])) {
                    g[x] = float(shadeSample(local, origin, cv::Vec3d(row[x]), id[x]));
                } else {
                    g[x] = float(settings.background);
                    id[x] = -2;
                }
            }
        }
    });
    cv::Mat noise = cv::Mat::zeros(r.size(), CV_32F);
    if (settings.noise > 0) {
        cv::RNG rng(0x6e6f6973ULL + uint64_t(lens));
        rng.fill(noise, cv::RNG::NORMAL, 0.0, settings.noise);
    }
    out.create(r.size(), CV_8UC1);
    forRowBands(r.rows, [&](int first, int end) {
        for (int y = first; y < end; ++y) {
            const int* id = surfaces.ptr<int>(y);
            const float* g = grey.ptr<float>(y);
            const float* n = noise.ptr<float>(y);
            uint8_t* dst = out.ptr<uint8_t>(y);
            for (int x = 0; x < r.cols; ++x) {
                bool boundary = false;
                for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, r.rows - 1) && !boundary; ++ny) {
                    const int* nid = surfaces.ptr<int>(ny);
                    for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, r.cols - 1); ++nx)
                        boundary = boundary || nid[nx] != id[x];
                }
                const bool sample = boundary && id[x] != -2 && settings.samples > 1;
                const double value = sample ? supersample(local, origin, r, x, y) : g[x];
                dst[x] = cv::saturate_cast<uint8_t>(value + n[x]);
            }
        }
    });
}

// Prepares the rays of both lenses (the expensive inversion of the lens model runs once here) and
// the objects' geometry and lighting in the world frame.
SceneRenderer::SceneRenderer(const Scene& scene, const Rig& rig) {
    auto impl = std::make_shared<Impl>();
    for (int lens = 0; lens < 2; ++lens) {
        impl->rays[lens] = rig.rays(lens);
        const cv::Point3d c = rig.centre(lens);
        impl->centres[lens] = {c.x, c.y, c.z};
    }
    impl->settings = scene.render;
    impl->pixel_angle = 1.0 / rig.params().focal;
    for (const SceneObject& o : scene.objects) impl->shapes.push_back(worldShape(o, scene.render));
    impl_ = impl;
}

// The objects in the left lens frame of a pose.
std::vector<Shape> SceneRenderer::Impl::localShapes(const ScenePose& pose) const {
    const cv::Matx33d to_camera = pose.world_from_camera.t();
    std::vector<Shape> local = shapes;
    for (Shape& s : local) {
        s.centre = to_camera * (s.centre - pose.position);
        s.axes = to_camera * s.axes;
    }
    return local;
}

// Renders the left and right lens images seen from `pose` (8-bit, the rig's size).
void SceneRenderer::render(const ScenePose& pose, cv::Mat& left, cv::Mat& right) const {
    const std::vector<Shape> local = impl_->localShapes(pose);
    impl_->renderLens(0, local, left);
    impl_->renderLens(1, local, right);
}

// One ray per rectified pixel centre from the left lens centre; a hit is visible to the right lens
// when the segment from the right lens centre to it meets nothing nearer (1 mm slack for the
// rounding of the two casts) and its rectified column in the right image is not left of 0.
DepthTruth SceneRenderer::depthTruth(const ScenePose& pose, const cv::Mat& R1, const cv::Mat& P1,
                                     const cv::Mat& P2, cv::Size size) const {
    const std::vector<Shape> local = impl_->localShapes(pose);
    const cv::Matx33d rect(R1.ptr<double>());             // left lens frame -> rectified frame
    const cv::Matx33d from_rect = rect.t();
    const cv::Matx34d p1(P1.ptr<double>()), p2(P2.ptr<double>());
    const double fx = p1(0, 0), fy = p1(1, 1), cx = p1(0, 2), cy = p1(1, 2);
    const double baseline = -p2(0, 3) / p2(0, 0);
    const cv::Vec3d left_centre = impl_->centres[0], right_centre = impl_->centres[1];
    DepthTruth t;
    t.disparity.create(size, CV_32F);
    t.depth.create(size, CV_32F);
    t.visible.create(size, CV_8U);
    forRowBands(size.height, [&](int first, int end) {
        for (int y = first; y < end; ++y) {
            float* disparity = t.disparity.ptr<float>(y);
            float* depth = t.depth.ptr<float>(y);
            uint8_t* visible = t.visible.ptr<uint8_t>(y);
            for (int x = 0; x < size.width; ++x) {
                const cv::Vec3d d = cv::normalize(from_rect * cv::Vec3d((x - cx) / fx, (y - cy) / fy, 1));
                const Hit hit = castRay(local, left_centre, d);
                const cv::Vec3d p = left_centre + d * hit.t;
                const double z = hit.shape ? (rect * p)[2] : 0;
                if (!(z > 0)) {
                    disparity[x] = depth[x] = std::numeric_limits<float>::quiet_NaN();
                    visible[x] = 0;
                    continue;
                }
                depth[x] = float(z);
                disparity[x] = float(fx * baseline / z);
                const cv::Vec3d to_point = p - right_centre;
                const double length = cv::norm(to_point);
                const Hit seen = castRay(local, right_centre, to_point / length);
                visible[x] = (seen.t > length - 1e-3 && x - disparity[x] >= 0) ? 255 : 0;
            }
        }
    });
    return t;
}

}  // namespace vcam
}  // namespace orvo
