// Scene files: reading and writing a Scene as OpenCV YAML, with checks and clear messages.
#include <cmath>
#include <sstream>

#include <opencv2/core.hpp>

#include <orvo/vcam/scene.hpp>

namespace orvo {
namespace vcam {

namespace {

// Most records a frame may carry so that the frame time keeps its slot after them.
constexpr int kMaxSamplesPerFrame = 19;

bool fail(std::string* error, const std::string& message) {
    if (error) *error = message;
    return false;
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);
}

std::string resolve(const std::string& folder, const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    return folder + "/" + path;
}

// Reads parent[key] into value when present; a present node of the wrong shape is an error.
class Reader {
public:
    Reader(const cv::FileNode& node, std::string where) : node_(node), where_(std::move(where)) {}

    template <int N>
    void vec(const char* key, cv::Vec<double, N>& value) {
        const cv::FileNode n = node_[key];
        if (n.empty()) return;
        if (!n.isSeq() || int(n.size()) != N) return bad(key, std::to_string(N) + " numbers");
        for (int i = 0; i < N; ++i) {
            if (!n[i].isReal() && !n[i].isInt()) return bad(key, std::to_string(N) + " numbers");
            value[i] = double(n[i]);
        }
    }
    void vec3i(const char* key, cv::Vec3i& value) {
        cv::Vec3d v(value[0], value[1], value[2]);
        vec(key, v);
        for (int i = 0; i < 3; ++i) {
            if (v[i] != std::floor(v[i]) || std::fabs(v[i]) > 32767) return bad(key, "3 integer counts");
            value[i] = int(v[i]);
        }
    }
    void number(const char* key, double& value) {
        const cv::FileNode n = node_[key];
        if (n.empty()) return;
        if (!n.isReal() && !n.isInt()) return bad(key, "a number");
        value = double(n);
    }
    template <typename Int>
    void integer(const char* key, Int& value) {
        double v = double(value);
        number(key, v);
        if (v != std::floor(v) || v < 0 || v > 4294967295.0) return bad(key, "a non-negative integer");
        value = Int(v);
    }
    void flag(const char* key, bool& value) {
        int v = value ? 1 : 0;
        integer(key, v);
        if (v > 1) return bad(key, "0 or 1");
        value = v != 0;
    }
    void text(const char* key, std::string& value) {
        const cv::FileNode n = node_[key];
        if (n.empty()) return;
        if (!n.isString()) return bad(key, "a string");
        value = std::string(n);
    }
    const std::string& error() const { return error_; }

private:
    void bad(const char* key, const std::string& wanted) {
        if (error_.empty()) error_ = where_ + "." + key + " must be " + wanted;
    }
    cv::FileNode node_;
    std::string where_;
    std::string error_;
};

bool readRig(const cv::FileNode& node, RigSpec& rig, std::string* error) {
    Reader r(node, "rig");
    r.flag("fisheye", rig.fisheye);
    r.number("focal", rig.focal);
    cv::Vec2d pl(rig.principal_left.x, rig.principal_left.y);
    cv::Vec2d pr(rig.principal_right.x, rig.principal_right.y);
    r.vec("principal_left", pl);
    r.vec("principal_right", pr);
    rig.principal_left = {pl[0], pl[1]};
    rig.principal_right = {pr[0], pr[1]};
    r.vec("dist_left", rig.dist_left);
    r.vec("dist_right", rig.dist_right);
    r.number("baseline", rig.baseline);
    r.vec("rotation", rig.rotation);
    if (!r.error().empty()) return fail(error, r.error());
    if (!(rig.focal > 0)) return fail(error, "rig.focal must be positive");
    if (!(rig.baseline > 0)) return fail(error, "rig.baseline must be positive");
    return true;
}

bool readTexture(const cv::FileNode& node, const std::string& where, SceneTexture& texture,
                 std::string* error) {
    if (node.empty()) return true;
    Reader r(node, where);
    std::string kind = texture.kind == SceneTexture::kFlat    ? "flat"
                       : texture.kind == SceneTexture::kNoise ? "noise"
                                                              : "checker";
    r.text("kind", kind);
    r.number("scale", texture.scale);
    r.number("mean", texture.mean);
    r.number("contrast", texture.contrast);
    r.integer("octaves", texture.octaves);
    r.integer("seed", texture.seed);
    if (!r.error().empty()) return fail(error, r.error());
    if (kind == "flat") texture.kind = SceneTexture::kFlat;
    else if (kind == "noise") texture.kind = SceneTexture::kNoise;
    else if (kind == "checker") texture.kind = SceneTexture::kChecker;
    else return fail(error, where + ".kind must be flat, noise or checker, not \"" + kind + "\"");
    if (!(texture.scale > 0)) return fail(error, where + ".scale must be positive");
    if (texture.octaves < 1 || texture.octaves > 8) return fail(error, where + ".octaves must be 1 to 8");
    return true;
}

bool orthonormalise(cv::Vec3d& u, cv::Vec3d& v) {
    if (cv::norm(u) < 1e-9) return false;
    u = cv::normalize(u);
    v -= u * u.dot(v);
    if (cv::norm(v) < 1e-9) return false;
    v = cv::normalize(v);
    return true;
}

bool readObject(const cv::FileNode& node, int index, SceneObject& object, std::string* error) {
    const std::string where = "objects[" + std::to_string(index) + "]";
    if (!node.isMap()) return fail(error, where + " must be a map");
    Reader r(node, where);
    std::string type;
    r.text("type", type);
    r.text("name", object.name);
    r.vec("centre", object.centre);
    r.vec("axis_u", object.axis_u);
    r.vec("axis_v", object.axis_v);
    r.number("yaw_deg", object.yaw_deg);
    if (!r.error().empty()) return fail(error, r.error());
    if (type == "plane") object.kind = SceneObject::kPlane;
    else if (type == "box") object.kind = SceneObject::kBox;
    else return fail(error, where + ".type must be plane or box, not \"" + type + "\"");
    const int extents = object.kind == SceneObject::kPlane ? 2 : 3;
    if (object.kind == SceneObject::kPlane) {
        cv::Vec2d size(object.size[0], object.size[1]);
        r.vec("size", size);
        object.size = {size[0], size[1], 0};
    } else {
        r.vec("size", object.size);
    }
    if (!r.error().empty()) return fail(error, r.error());
    for (int i = 0; i < extents; ++i)
        if (!(object.size[i] > 0)) return fail(error, where + ".size must be positive");
    if (object.kind == SceneObject::kPlane && !orthonormalise(object.axis_u, object.axis_v))
        return fail(error, where + ".axis_u and axis_v must be two independent directions");
    return readTexture(node["texture"], where + ".texture", object.texture, error);
}

bool readMotion(const cv::FileNode& node, SceneMotion& m, std::string* error) {
    Reader r(node, "camera");
    r.vec("position", m.position);
    r.vec("attitude_deg", m.attitude_deg);
    r.vec("rate_deg_s", m.rate_deg_s);
    r.vec("oscillation_axis", m.oscillation_axis);
    r.number("oscillation_deg", m.oscillation_deg);
    r.number("oscillation_hz", m.oscillation_hz);
    r.vec("translation_amplitude", m.translation_amplitude);
    r.number("translation_hz", m.translation_hz);
    if (!r.error().empty()) return fail(error, r.error());
    if (cv::norm(m.oscillation_axis) < 1e-9) return fail(error, "camera.oscillation_axis must not be zero");
    m.oscillation_axis = cv::normalize(m.oscillation_axis);
    if (m.oscillation_hz < 0 || m.translation_hz < 0)
        return fail(error, "camera oscillation frequencies must not be negative");
    return true;
}

bool readImu(const cv::FileNode& node, double frame_rate, SceneImu& imu, std::string* error) {
    Reader r(node, "imu");
    r.number("sample_rate", imu.sample_rate);
    r.number("ticks_per_second", imu.ticks_per_second);
    r.integer("tick_offset", imu.tick_offset);
    r.vec3i("gyro_bias", imu.gyro_bias);
    r.vec3i("accel_bias", imu.accel_bias);
    r.number("gyro_noise", imu.gyro_noise);
    r.number("accel_noise", imu.accel_noise);
    r.integer("seed", imu.seed);
    if (!r.error().empty()) return fail(error, r.error());
    if (!(imu.sample_rate > 0) || std::ceil(imu.sample_rate / frame_rate) > kMaxSamplesPerFrame)
        return fail(error, "imu.sample_rate must be positive and give at most " +
                               std::to_string(kMaxSamplesPerFrame) + " samples a frame");
    if (!(imu.ticks_per_second > 0)) return fail(error, "imu.ticks_per_second must be positive");
    if (!(imu.gyro_noise >= 0) || !(imu.accel_noise >= 0))
        return fail(error, "imu noise must not be negative");
    return true;
}

bool readRender(const cv::FileNode& node, SceneRender& render, std::string* error) {
    Reader r(node, "render");
    r.integer("samples", render.samples);
    r.vec("light_direction", render.light_direction);
    r.number("ambient", render.ambient);
    r.number("diffuse", render.diffuse);
    r.number("background", render.background);
    r.flag("follow_motion", render.follow_motion);
    r.number("noise", render.noise);
    if (!r.error().empty()) return fail(error, r.error());
    if (render.samples < 1 || render.samples > 8) return fail(error, "render.samples must be 1 to 8");
    if (cv::norm(render.light_direction) < 1e-9) return fail(error, "render.light_direction must not be zero");
    if (!(render.noise >= 0 && render.noise <= 64)) return fail(error, "render.noise must be 0 to 64 grey levels");
    return true;
}

bool readCalibration(const cv::FileNode& node, const std::string& folder, bool fisheye,
                     SceneCalibration& c, std::string* error) {
    Reader r(node, "calibration");
    r.text("intrinsics", c.intrinsics);
    r.text("extrinsics", c.extrinsics);
    r.text("fisheye", c.fisheye);
    if (!r.error().empty()) return fail(error, r.error());
    if (c.intrinsics.empty() != c.extrinsics.empty())
        return fail(error, "calibration needs both intrinsics and extrinsics, or neither");
    if (!c.fisheye.empty() && !c.intrinsics.empty())
        return fail(error, "calibration names either a stereo pair or a fisheye file, not both");
    if (fisheye ? !c.intrinsics.empty() : !c.fisheye.empty())
        return fail(error, "calibration files must match rig.fisheye");
    c.intrinsics = resolve(folder, c.intrinsics);
    c.extrinsics = resolve(folder, c.extrinsics);
    c.fisheye = resolve(folder, c.fisheye);
    return true;
}

bool readScene(const cv::FileStorage& fs, const std::string& folder, Scene& scene, std::string* error) {
    const cv::FileNode root = fs.root();
    Reader top(root, "scene");
    top.number("frame_rate", scene.frame_rate);
    if (!top.error().empty()) return fail(error, top.error());
    if (!(scene.frame_rate > 0)) return fail(error, "frame_rate must be positive");
    if (!readRig(root["rig"], scene.rig, error) ||
        !readCalibration(root["calibration"], folder, scene.rig.fisheye, scene.calibration, error) ||
        !readMotion(root["camera"], scene.motion, error) ||
        !readImu(root["imu"], scene.frame_rate, scene.imu, error) ||
        !readRender(root["render"], scene.render, error))
        return false;
    const cv::FileNode objects = root["objects"];
    if (!objects.empty() && !objects.isSeq()) return fail(error, "objects must be a list");
    scene.objects.clear();
    for (int i = 0; i < int(objects.size()); ++i) {
        SceneObject object;
        if (!readObject(objects[i], i, object, error)) return false;
        scene.objects.push_back(object);
    }
    return true;
}

// Counts are written as integers where the file format's int holds them.
void writeCount(cv::FileStorage& fs, const char* key, uint64_t value) {
    if (value <= 2147483647u) fs << key << int(value);
    else fs << key << double(value);
}

void writeTexture(cv::FileStorage& fs, const SceneTexture& t) {
    static const char* const kinds[] = {"flat", "noise", "checker"};
    fs << "texture" << "{" << "kind" << kinds[t.kind] << "scale" << t.scale << "mean" << t.mean
       << "contrast" << t.contrast << "octaves" << t.octaves;
    writeCount(fs, "seed", t.seed);
    fs << "}";
}

void writeObject(cv::FileStorage& fs, const SceneObject& o) {
    fs << "{" << "type" << (o.kind == SceneObject::kPlane ? "plane" : "box");
    if (!o.name.empty()) fs << "name" << o.name;
    fs << "centre" << o.centre;
    if (o.kind == SceneObject::kPlane) {
        fs << "axis_u" << o.axis_u << "axis_v" << o.axis_v
           << "size" << cv::Vec2d(o.size[0], o.size[1]);
    } else {
        fs << "size" << o.size << "yaw_deg" << o.yaw_deg;
    }
    writeTexture(fs, o.texture);
    fs << "}";
}

}  // namespace

// True when no motion term is active, so every frame shows the same images.
bool SceneMotion::isStatic() const {
    const bool turning = cv::norm(rate_deg_s) != 0;
    const bool swinging = oscillation_deg != 0 && oscillation_hz != 0;
    const bool shaking = cv::norm(translation_amplitude) != 0 && translation_hz != 0;
    return !turning && !swinging && !shaking;
}

// Reads a scene file. Keys that are absent keep the defaults of Scene; relative calibration paths
// are resolved against the file's folder. Returns false with a message naming the offending key
// when the file cannot be read or a value is out of range; nothing of a half-read file is kept.
bool loadScene(const std::string& path, Scene& scene, std::string* error) {
    try {
        cv::FileStorage fs(path, cv::FileStorage::READ);
        if (!fs.isOpened()) return fail(error, "cannot read scene file " + path);
        Scene loaded;
        std::string why;
        if (!readScene(fs, folderOf(path), loaded, &why)) return fail(error, path + ": " + why);
        scene = loaded;
        return true;
    } catch (const cv::Exception& e) {
        return fail(error, path + ": not a readable scene file (" + e.msg + ")");
    }
}

// Writes a scene in the form loadScene reads; calibration paths are written as they stand.
bool saveScene(const std::string& path, const Scene& s, std::string* error) {
    try {
        cv::FileStorage fs(path, cv::FileStorage::WRITE);
        if (!fs.isOpened()) return fail(error, "cannot write scene file " + path);
        const RigSpec& r = s.rig;
        fs << "frame_rate" << s.frame_rate;
        fs << "rig" << "{" << "fisheye" << int(r.fisheye) << "focal" << r.focal
           << "principal_left" << cv::Vec2d(r.principal_left.x, r.principal_left.y)
           << "principal_right" << cv::Vec2d(r.principal_right.x, r.principal_right.y)
           << "dist_left" << r.dist_left << "dist_right" << r.dist_right << "baseline" << r.baseline
           << "rotation" << r.rotation << "}";
        fs << "calibration" << "{";
        if (!s.calibration.intrinsics.empty())
            fs << "intrinsics" << s.calibration.intrinsics << "extrinsics" << s.calibration.extrinsics;
        if (!s.calibration.fisheye.empty()) fs << "fisheye" << s.calibration.fisheye;
        fs << "}";
        const SceneMotion& m = s.motion;
        fs << "camera" << "{" << "position" << m.position << "attitude_deg" << m.attitude_deg
           << "rate_deg_s" << m.rate_deg_s << "oscillation_axis" << m.oscillation_axis
           << "oscillation_deg" << m.oscillation_deg << "oscillation_hz" << m.oscillation_hz
           << "translation_amplitude" << m.translation_amplitude << "translation_hz"
           << m.translation_hz << "}";
        const SceneImu& i = s.imu;
        fs << "imu" << "{" << "sample_rate" << i.sample_rate << "ticks_per_second"
           << i.ticks_per_second;
        writeCount(fs, "tick_offset", i.tick_offset);
        fs << "gyro_bias" << i.gyro_bias << "accel_bias" << i.accel_bias << "gyro_noise"
           << i.gyro_noise << "accel_noise" << i.accel_noise;
        writeCount(fs, "seed", i.seed);
        fs << "}";
        const SceneRender& g = s.render;
        fs << "render" << "{" << "samples" << g.samples << "light_direction" << g.light_direction
           << "ambient" << g.ambient << "diffuse" << g.diffuse << "background" << g.background
           << "follow_motion" << int(g.follow_motion);
        if (g.noise > 0) fs << "noise" << g.noise;  // noiseless scenes keep their files as before
        fs << "}";
        fs << "objects" << "[";
        for (const SceneObject& o : s.objects) writeObject(fs, o);
        fs << "]";
        return true;
    } catch (const cv::Exception& e) {
        return fail(error, "cannot write scene file " + path + " (" + e.msg + ")");
    }
}

// Writes the calibration files a loaded scene names, from its rig: the files the library is to be
// given for that scene. Returns false when the scene names none or a file cannot be written.
bool writeSceneCalibration(const Scene& scene, std::string* error) {
    const SceneCalibration& c = scene.calibration;
    if (c.intrinsics.empty() && c.fisheye.empty()) return fail(error, "the scene names no calibration files");
    const Rig rig(scene.rig);
    if (!c.fisheye.empty()) {
        if (!rig.writeFisheye(c.fisheye)) return fail(error, "cannot write " + c.fisheye);
        return true;
    }
    if (!rig.writeStereo(c.intrinsics, c.extrinsics))
        return fail(error, "cannot write " + c.intrinsics + " or " + c.extrinsics);
    return true;
}

}  // namespace vcam
}  // namespace orvo
