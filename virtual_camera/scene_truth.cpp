// Ground truth of a scene: the true depth of the nearest object point inside a search box.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include <orvo/vcam/truth.hpp>

namespace orvo {
namespace vcam {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMinDepth = 0.4;  // the search ignores anything nearer

using Polygon = std::vector<cv::Vec3d>;

// Keeps the part of a convex polygon where dot(normal, p) + offset >= 0.
Polygon clip(const Polygon& in, const cv::Vec3d& normal, double offset) {
    Polygon out;
    for (size_t i = 0; i < in.size(); ++i) {
        const cv::Vec3d& a = in[i];
        const cv::Vec3d& b = in[(i + 1) % in.size()];
        const double fa = normal.dot(a) + offset, fb = normal.dot(b) + offset;
        if (fa >= 0) out.push_back(a);
        if ((fa >= 0) != (fb >= 0)) out.push_back(a + (b - a) * (fa / (fa - fb)));
    }
    return out;
}

std::vector<Polygon> worldFaces(const SceneObject& o) {
    std::vector<Polygon> faces;
    if (o.kind == SceneObject::kPlane) {
        const cv::Vec3d u = o.axis_u * (o.size[0] / 2), v = o.axis_v * (o.size[1] / 2);
        faces.push_back({o.centre - u - v, o.centre + u - v, o.centre + u + v, o.centre - u + v});
        return faces;
    }
    const double a = o.yaw_deg * kPi / 180.0;
    const cv::Vec3d axes[3] = {cv::Vec3d(std::cos(a), std::sin(a), 0) * (o.size[0] / 2),
                               cv::Vec3d(-std::sin(a), std::cos(a), 0) * (o.size[1] / 2),
                               cv::Vec3d(0, 0, o.size[2] / 2)};
    for (int i = 0; i < 3; ++i) {
        const cv::Vec3d& j = axes[(i + 1) % 3];
        const cv::Vec3d& k = axes[(i + 2) % 3];
        for (double side : {-1.0, 1.0}) {
            const cv::Vec3d c = o.centre + axes[i] * side;
            faces.push_back({c - j - k, c + j - k, c + j + k, c - j + k});
        }
    }
    return faces;
}

struct Limit {
    cv::Vec3d normal;
    double offset;
};

// The box's limits are strict: a clipped face that only lies on them (a face touching the box)
// has no point inside. The mean of its corners is inside whenever any point of it is.
bool reachesInside(const Polygon& face, const std::vector<Limit>& limits) {
    if (face.empty()) return false;
    cv::Vec3d mean(0, 0, 0);
    for (const cv::Vec3d& p : face) mean += p;
    mean *= 1.0 / double(face.size());
    for (const Limit& l : limits)
        if (!(l.normal.dot(mean) + l.offset > 0)) return false;
    return true;
}

}  // namespace

// Parses "half_width,height,max_depth[,tilt]" (metres, radians). Returns false with a message on
// anything else, including non-positive sizes.
bool parseSearchBox(const std::string& text, SearchBox& box, std::string* error) {
    std::vector<double> values;
    std::stringstream in(text);
    std::string item;
    bool ok = true;
    while (ok && std::getline(in, item, ',')) {
        char* end = nullptr;
        const double v = std::strtod(item.c_str(), &end);
        ok = !item.empty() && end && *end == '\0' && std::isfinite(v);
        values.push_back(v);
    }
    ok = ok && (values.size() == 3 || values.size() == 4) && values[0] > 0 && values[1] > 0 &&
         values[2] > kMinDepth && (text.empty() || text.back() != ',');
    if (!ok) {
        if (error) *error = "ORVO_VCAM_TRUTH_BOX must be half_width,height,max_depth[,tilt], not \"" + text + "\"";
        return false;
    }
    box = {values[0], values[1], values[2], values.size() == 4 ? values[3] : 0.0};
    return true;
}

// True depth of the nearest object point inside the search box, with the box's meaning in the
// nearest-point search: coordinates in the rectified left camera (x right, y down, z forward),
// rotated by the tilt about x when it is not 0, and kept when
// B/2 - half_width < x < B/2 + half_width, -height < y < 0 and 0.4 < z < max_depth.
// Geometric: each face is clipped to the box and its nearest corner taken; occlusion by anything
// nearer than 0.4 and the limits of the field of view are not considered. Returns infinity when
// no object reaches into the box.
double nearestDepthInBox(const Scene& scene, const Rig& rig, const cv::Matx33d& world_from_camera,
                         const cv::Vec3d& camera_position, const SearchBox& box) {
    const cv::Matx33d rectified(rig.R1.ptr<double>());
    const double s = std::sin(box.tilt), k = std::cos(box.tilt);
    const cv::Matx33d tilt(1, 0, 0, 0, k, -s, 0, s, k);
    const cv::Matx33d to_search = tilt * rectified * world_from_camera.t();
    const double centre = rig.params().baseline / 2;
    const std::vector<Limit> limits = {{{1, 0, 0}, box.half_width - centre}, {{-1, 0, 0}, centre + box.half_width},
                            {{0, 1, 0}, box.height},              {{0, -1, 0}, 0},
                                       {{0, 0, 1}, -kMinDepth},              {{0, 0, -1}, box.max_depth}};
    double nearest = std::numeric_limits<double>::infinity();
    for (const SceneObject& o : scene.objects) {
        for (Polygon face : worldFaces(o)) {
            for (cv::Vec3d& p : face) p = to_search * (p - camera_position);
            for (const Limit& l : limits) face = clip(face, l.normal, l.offset);
            if (!reachesInside(face, limits)) continue;
            for (const cv::Vec3d& p : face) nearest = std::min(nearest, p[2]);
        }
    }
    return nearest;
}

}  // namespace vcam
}  // namespace orvo
