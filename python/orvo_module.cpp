// orvo._orvo: the pybind11 bindings of the modern C++ API (camera, frames, calibration, depth).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "orvo/orvo.hpp"
#include "orvo/point_cloud.hpp"
#include "orvo/stereo_matcher.hpp"

namespace py = pybind11;

namespace {

// orvo.Error, created in the module init; a subclass of OSError whose args are (errno, message),
// so Python fills in .errno and .strerror as it does for its own OSErrors.
PyObject* g_error_type = nullptr;

void raise_error(int errno_value, const char* what) {
    py::object args = py::make_tuple(errno_value, what);
    PyErr_SetObject(g_error_type, args.ptr());
}

// Seconds (float, as Python code writes them) to the C++ API's milliseconds; negatives are 0.
std::chrono::milliseconds to_ms(double seconds) {
    if (!(seconds > 0)) return std::chrono::milliseconds(0);
    return std::chrono::milliseconds(static_cast<long long>(std::llround(seconds * 1000.0)));
}

// A NumPy array over a cv::Mat's pixels, without a copy. `owner` is the Python object that keeps
// the Mat (and so its memory) alive; it becomes the array's .base.
py::object mat_view(const cv::Mat& m, py::handle owner) {
    if (m.empty()) return py::none();
    py::dtype dt;
    switch (m.depth()) {
        case CV_8U: dt = py::dtype::of<uint8_t>(); break;
        case CV_16S: dt = py::dtype::of<int16_t>(); break;
        case CV_32F: dt = py::dtype::of<float>(); break;
        case CV_64F: dt = py::dtype::of<double>(); break;
        default: throw std::invalid_argument("orvo: unsupported matrix depth");
    }
    const auto elem = static_cast<py::ssize_t>(m.elemSize1());
    std::vector<py::ssize_t> shape{m.rows, m.cols};
    std::vector<py::ssize_t> strides{static_cast<py::ssize_t>(m.step[0]),
                                     static_cast<py::ssize_t>(m.step[1])};
    if (m.channels() > 1) {
        shape.push_back(m.channels());
        strides.push_back(elem);
    }
    return py::array(dt, shape, strides, m.data, owner);
}

// A small matrix (calibration) as a fresh float64 array: a copy, since those are tiny and Python
// code is free to change them.
py::object mat_copy(const cv::Mat& m) {
    if (m.empty()) return py::none();
    cv::Mat d;
    m.convertTo(d, CV_64F);
    py::array_t<double> out({d.rows, d.cols});
    for (int r = 0; r < d.rows; ++r)
        for (int c = 0; c < d.cols; ++c) out.mutable_at(r, c) = d.at<double>(r, c);
    return std::move(out);
}

// A cv::Mat header over a NumPy image (2-D, or 3-D with channels last) of the given depth: no
// copy. The array must outlive the Mat (callers keep the py::array argument alive).
cv::Mat wrap_array(const py::array& a, int depth, const char* what) {
    const bool ok_dtype = (depth == CV_8U && a.dtype().is(py::dtype::of<uint8_t>())) ||
                          (depth == CV_32F && a.dtype().is(py::dtype::of<float>()));
    if (!ok_dtype)
        throw py::type_error(std::string(what) + ": expected a " +
                             (depth == CV_8U ? "uint8" : "float32") + " array, got " +
                             std::string(py::str(a.dtype())));
    if (a.ndim() != 2 && a.ndim() != 3)
        throw py::value_error(std::string(what) + ": expected a 2-D or 3-D array");
    const int channels = a.ndim() == 3 ? static_cast<int>(a.shape(2)) : 1;
    const auto item = a.itemsize();
    // Rows may be strided (a crop of a larger image), but each row must be contiguous.
    if ((a.ndim() == 3 && a.strides(2) != item) || a.strides(1) != item * channels || a.strides(0) < 0)
        throw py::value_error(std::string(what) +
                              ": each row must be contiguous (use numpy.ascontiguousarray)");
    if (channels < 1 || channels > 4) throw py::value_error(std::string(what) + ": 1 to 4 channels");
    return cv::Mat(static_cast<int>(a.shape(0)), static_cast<int>(a.shape(1)),
                   CV_MAKETYPE(depth, channels), const_cast<void*>(a.data()),
                   static_cast<size_t>(a.strides(0)));
}

// The IMU samples' NumPy dtype: the C++ ImuSample's own layout, so .imu views the frame's vector.
py::dtype imu_dtype() {
    using orvo::ImuSample;
    py::list names, formats, offsets;
    auto field = [&](const char* name, const char* format, size_t offset) {
        names.append(name);
        formats.append(format);
        offsets.append(offset);
    };
    field("device_time_us", "<u8", offsetof(ImuSample, device_time_us));
    field("host_time_ns", "<u8", offsetof(ImuSample, host_time_ns));
    field("gyro_rad_s", "(3,)<f8", offsetof(ImuSample, gyro_rad_s));
    field("accel_m_s2", "(3,)<f8", offsetof(ImuSample, accel_m_s2));
    field("gyro_raw", "(3,)<i2", offsetof(ImuSample, gyro_raw));
    field("accel_raw", "(3,)<i2", offsetof(ImuSample, accel_raw));
    py::dict d;
    d["names"] = names;
    d["formats"] = formats;
    d["offsets"] = offsets;
    d["itemsize"] = sizeof(ImuSample);
    return py::dtype::from_args(d);
}

// The keyword arguments of StereoMatcher(...) onto MatcherParams; unknown names are an error.
orvo::MatcherParams matcher_params(const py::kwargs& kw) {
    orvo::MatcherParams p;
    for (const auto& item : kw) {
        const std::string k = py::cast<std::string>(item.first);
        const py::handle v = item.second;
        if (k == "min_disparity") p.min_disparity = v.cast<int>();
        else if (k == "num_disparities") p.num_disparities = v.cast<int>();
        else if (k == "p1") p.p1 = v.cast<int>();
        else if (k == "p2") p.p2 = v.cast<int>();
        else if (k == "prefilter") p.prefilter = v.cast<bool>();
        else if (k == "census_width") p.census_width = v.cast<int>();
        else if (k == "census_height") p.census_height = v.cast<int>();
        else if (k == "paths") p.paths = v.cast<int>();
        else if (k == "uniqueness_ratio") p.uniqueness_ratio = v.cast<int>();
        else if (k == "lr_max_diff") p.lr_max_diff = v.cast<int>();
        else if (k == "subpixel") p.subpixel = v.cast<bool>();
        else if (k == "speckle_window") p.speckle_window = v.cast<int>();
        else if (k == "speckle_range") p.speckle_range = v.cast<int>();
        else if (k == "threads") p.threads = v.cast<int>();
        else if (k == "scalar_reference") p.scalar_reference = v.cast<bool>();
        else throw py::type_error("StereoMatcher: unknown parameter '" + k + "'");
    }
    return p;
}

}  // namespace

PYBIND11_MODULE(_orvo, m) {
    m.doc() = "Orvo stereo camera: frames as zero-copy NumPy arrays, errors as orvo.Error.";

    // ---- errors ---------------------------------------------------------------------------
    g_error_type = PyErr_NewExceptionWithDoc(
        "orvo.Error",
        "Any failure of the camera, calibration or file APIs. A subclass of OSError: .errno holds "
        "the errno value (errno.ENOENT, errno.EBUSY, ...) and .strerror the SDK's message.",
        PyExc_OSError, nullptr);
    m.add_object("Error", py::handle(g_error_type));
    // orvo::Error and any other std::system_error (the point-cloud writers' file errors) become
    // orvo.Error; pybind11's own translations cover the rest (invalid_argument -> ValueError,
    // other std::exception -> RuntimeError), so no C++ exception reaches Python untranslated.
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const orvo::Error& e) {
            raise_error(e.errno_value(), e.what());
        } catch (const std::system_error& e) {
            const int value = e.code().category() == std::generic_category() ||
                                      e.code().category() == std::system_category()
                                  ? e.code().value()
                                  : EIO;
            raise_error(value, e.what());
        } catch (const cv::Exception& e) {
            PyErr_SetString(PyExc_RuntimeError, e.what());
        }
    });

    // ---- devices --------------------------------------------------------------------------
    py::class_<orvo::DeviceInfo>(m, "DeviceInfo", "A capture node that speaks the camera's format.")
        .def_readonly("node", &orvo::DeviceInfo::node)
        .def_readonly("card", &orvo::DeviceInfo::card)
        .def_readonly("bus_info", &orvo::DeviceInfo::bus_info)
        .def_readonly("driver", &orvo::DeviceInfo::driver)
        .def_readonly("busy", &orvo::DeviceInfo::busy, "another process is streaming from it")
        .def("__repr__", [](const orvo::DeviceInfo& d) {
            return "<orvo.DeviceInfo " + d.node + " '" + d.card + "'" + (d.busy ? " busy>" : ">");
        });
    m.def("list_devices", &orvo::list_devices, py::call_guard<py::gil_scoped_release>(),
          "The capture nodes present that speak the camera's format, as DeviceInfo objects.");

    // ---- frames ---------------------------------------------------------------------------
    py::enum_<orvo::HostTimeSource>(m, "HostTimeSource", "Where Frame.host_time_ns came from.")
        .value("driver_monotonic", orvo::HostTimeSource::driver_monotonic)
        .value("dequeue", orvo::HostTimeSource::dequeue);

    m.attr("IMU_DTYPE") = imu_dtype();
    py::class_<orvo::Frame, std::shared_ptr<orvo::Frame>>(
        m, "Frame",
        "One stereo pair from Camera.grab(). left and right are uint8 arrays of shape (480, 752) "
        "over the frame's own memory (no copy); each keeps the frame alive through its .base, so "
        "they stay valid after the camera has moved on or closed. imu is a structured array of the "
        "inertial samples that came with the frame (orvo.IMU_DTYPE).")
        .def_readonly("sequence", &orvo::Frame::sequence, "the driver's frame sequence number")
        .def_readonly("host_time_ns", &orvo::Frame::host_time_ns, "CLOCK_MONOTONIC, nanoseconds")
        .def_readonly("host_time_source", &orvo::Frame::host_time_source)
        .def_readonly("device_time_us", &orvo::Frame::device_time_us,
                      "the camera's own clock, microseconds")
        .def_readonly("rectified", &orvo::Frame::rectified)
        .def_property_readonly(
            "left", [](py::object self) { return mat_view(self.cast<orvo::Frame&>().left, self); },
            "left image, numpy.uint8 (480, 752), a view of the frame's memory")
        .def_property_readonly(
            "right", [](py::object self) { return mat_view(self.cast<orvo::Frame&>().right, self); },
            "right image, numpy.uint8 (480, 752), a view of the frame's memory")
        .def_property_readonly(
            "imu",
            [](py::object self) {
                auto& imu = self.cast<orvo::Frame&>().imu;
                return py::array(imu_dtype(), {static_cast<py::ssize_t>(imu.size())}, {},
                                 imu.empty() ? nullptr : imu.data(), self);
            },
            "inertial samples, a structured array with fields device_time_us, host_time_ns, "
            "gyro_rad_s (3), accel_m_s2 (3), gyro_raw (3), accel_raw (3)")
        .def("__repr__", [](const orvo::Frame& f) {
            return "<orvo.Frame sequence=" + std::to_string(f.sequence) +
                   " imu=" + std::to_string(f.imu.size()) + ">";
        });

    // ---- camera ---------------------------------------------------------------------------
    py::enum_<orvo::CameraState>(m, "CameraState")
        .value("streaming", orvo::CameraState::streaming)
        .value("disconnected", orvo::CameraState::disconnected)
        .value("reconnecting", orvo::CameraState::reconnecting)
        .value("closed", orvo::CameraState::closed);

    py::class_<orvo::CameraStats>(m, "CameraStats", "Counters of a camera since it was opened.")
        .def_readonly("frames", &orvo::CameraStats::frames, "frames delivered to the queue")
        .def_readonly("drops", &orvo::CameraStats::drops, "frames lost before reaching the SDK")
        .def_readonly("discarded", &orvo::CameraStats::discarded,
                      "frames replaced in a full queue before anyone grabbed them")
        .def_readonly("incomplete", &orvo::CameraStats::incomplete)
        .def_readonly("reconnects", &orvo::CameraStats::reconnects)
        .def_readonly("last_errno", &orvo::CameraStats::last_errno)
        .def_readonly("last_error", &orvo::CameraStats::last_error)
        .def_readonly("last_error_time_ns", &orvo::CameraStats::last_error_time_ns)
        .def("__repr__", [](const orvo::CameraStats& s) {
            return "<orvo.CameraStats frames=" + std::to_string(s.frames) +
                   " drops=" + std::to_string(s.drops) +
                   " reconnects=" + std::to_string(s.reconnects) + ">";
        });

    py::class_<orvo::Camera>(
        m, "Camera",
        "Camera(node, *, intrinsics_file='', extrinsics_file='', rectify=False, queue_depth=2,\n"
        "       reconnect=True, reconnect_backoff_max=2.0)\n\n"
        "One stereo camera streaming on its own capture thread from the moment it is opened.\n"
        "Use it as a context manager (it closes on exit):\n\n"
        "    with orvo.Camera('/dev/video0') as cam:\n"
        "        frame = cam.grab(timeout=1.0)   # orvo.Frame, or None\n\n"
        "Opening raises orvo.Error (an OSError) with the errno: ENOENT for a missing node, EBUSY\n"
        "when another program streams from it. With both calibration files given, frames can be\n"
        "rectified (rectify=True). After an unplug the camera reconnects by itself unless\n"
        "reconnect=False; grab() returns None meanwhile and state tells where it is.")
        .def(py::init([](const std::string& node, const std::string& intrinsics_file,
                         const std::string& extrinsics_file, bool rectify, size_t queue_depth,
                         bool reconnect, double reconnect_backoff_max) {
                 orvo::CameraOptions o;
                 o.intrinsics_file = intrinsics_file;
                 o.extrinsics_file = extrinsics_file;
                 o.rectify = rectify;
                 o.queue_depth = queue_depth;
                 o.reconnect = reconnect;
                 o.reconnect_backoff_max = to_ms(reconnect_backoff_max);
                 return std::make_unique<orvo::Camera>(node, o);
             }),
             py::arg("node"), py::kw_only(), py::arg("intrinsics_file") = "",
             py::arg("extrinsics_file") = "", py::arg("rectify") = false,
             py::arg("queue_depth") = 2, py::arg("reconnect") = true,
             py::arg("reconnect_backoff_max") = 2.0, py::call_guard<py::gil_scoped_release>())
        .def(
            "grab",
            [](orvo::Camera& cam, double timeout) -> std::optional<std::shared_ptr<orvo::Frame>> {
                std::optional<orvo::Frame> f = cam.grab(to_ms(timeout));
                if (!f) return std::nullopt;
                return std::make_shared<orvo::Frame>(std::move(*f));
            },
            py::arg("timeout") = 1.0, py::call_guard<py::gil_scoped_release>(),
            "The next frame nobody has had yet (oldest first), waiting up to `timeout` seconds;\n"
            "None after a timeout, while the camera is unplugged, or once it is closed. Other\n"
            "Python threads run while it waits.")
        .def_property_readonly("state", &orvo::Camera::state,
                               "CameraState: streaming, disconnected, reconnecting or closed")
        .def_property_readonly("stats", &orvo::Camera::stats, "CameraStats, a snapshot")
        .def_property_readonly("node", &orvo::Camera::node)
        .def("close", &orvo::Camera::close, py::call_guard<py::gil_scoped_release>(),
             "Stops streaming and frees the device; frames already grabbed stay valid.")
        .def("__enter__", [](py::object self) { return self; })
        .def(
            "__exit__",
            [](orvo::Camera& cam, py::args) {
                py::gil_scoped_release release;
                cam.close();
                return false;
            })
        .def("__repr__", [](const orvo::Camera& c) {
            return "<orvo.Camera " + c.node() + " " + orvo::to_string(c.state()) + ">";
        });

    // ---- calibration ----------------------------------------------------------------------
    py::class_<orvo::StereoGeometry>(m, "StereoGeometry",
                                     "Rectified left camera (pixels) and baseline (metres).")
        .def(py::init([](double fx, double fy, double cx, double cy, double baseline) {
                 return orvo::StereoGeometry{fx, fy, cx, cy, baseline};
             }),
             py::arg("fx"), py::arg("fy"), py::arg("cx"), py::arg("cy"), py::arg("baseline"))
        .def_readwrite("fx", &orvo::StereoGeometry::fx)
        .def_readwrite("fy", &orvo::StereoGeometry::fy)
        .def_readwrite("cx", &orvo::StereoGeometry::cx)
        .def_readwrite("cy", &orvo::StereoGeometry::cy)
        .def_readwrite("baseline", &orvo::StereoGeometry::baseline);

    py::class_<orvo::Calibration>(
        m, "Calibration",
        "Calibration(intrinsics, extrinsics): the stereo calibration read from the camera's two\n"
        "calibration files (raises orvo.Error when they cannot be read). Matrices are float64\n"
        "copies; rectify(left, right) returns the rectified pair.")
        .def(py::init([](const std::string& intrinsics, const std::string& extrinsics) {
                 return orvo::Calibration::load(intrinsics, extrinsics);
             }),
             py::arg("intrinsics"), py::arg("extrinsics"), py::call_guard<py::gil_scoped_release>())
        .def_property_readonly("image_size", [](const orvo::Calibration& c) {
            return py::make_tuple(c.image_size().width, c.image_size().height);
        }, "(width, height)")
        .def_property_readonly("baseline", &orvo::Calibration::baseline, "metres")
        .def_property_readonly("geometry", &orvo::Calibration::geometry)
        .def_property_readonly("M1", [](const orvo::Calibration& c) { return mat_copy(c.M1()); })
        .def_property_readonly("D1", [](const orvo::Calibration& c) { return mat_copy(c.D1()); })
        .def_property_readonly("M2", [](const orvo::Calibration& c) { return mat_copy(c.M2()); })
        .def_property_readonly("D2", [](const orvo::Calibration& c) { return mat_copy(c.D2()); })
        .def_property_readonly("R", [](const orvo::Calibration& c) { return mat_copy(c.R()); })
        .def_property_readonly("T", [](const orvo::Calibration& c) { return mat_copy(c.T()); })
        .def_property_readonly("Q", [](const orvo::Calibration& c) { return mat_copy(c.Q()); })
        .def(
            "rectify",
            [](const orvo::Calibration& c, py::array left, py::array right) {
                cv::Mat l = wrap_array(left, CV_8U, "rectify"), r = wrap_array(right, CV_8U, "rectify");
                auto out = std::make_shared<std::pair<cv::Mat, cv::Mat>>();
                {
                    py::gil_scoped_release release;
                    c.rectify(l, r, out->first, out->second);
                }
                py::object owner = py::capsule(new std::shared_ptr<std::pair<cv::Mat, cv::Mat>>(out),
                                               [](void* p) {
                                                   delete static_cast<std::shared_ptr<
                                                       std::pair<cv::Mat, cv::Mat>>*>(p);
                                               });
                return py::make_tuple(mat_view(out->first, owner), mat_view(out->second, owner));
            },
            py::arg("left"), py::arg("right"), "The rectified (left, right) pair, uint8 arrays.");

    // ---- depth ----------------------------------------------------------------------------
    py::class_<orvo::Depth, std::shared_ptr<orvo::Depth>>(
        m, "Depth",
        "The result of StereoMatcher.compute: float32 arrays over the result's memory. disparity\n"
        "(pixels), depth (metres) and points ((H, W, 3) x right, y down, z forward, metres) are NaN\n"
        "where there is no valid match; depth and points are None without a geometry. confidence\n"
        "is uint8, 0 where invalid.")
        .def_property_readonly("disparity", [](py::object self) {
            return mat_view(self.cast<orvo::Depth&>().disparity, self);
        })
        .def_property_readonly("depth", [](py::object self) {
            return mat_view(self.cast<orvo::Depth&>().depth, self);
        })
        .def_property_readonly("confidence", [](py::object self) {
            return mat_view(self.cast<orvo::Depth&>().confidence, self);
        })
        .def_property_readonly("points", [](py::object self) {
            return mat_view(self.cast<orvo::Depth&>().points, self);
        });

    py::class_<orvo::StereoMatcher>(
        m, "StereoMatcher",
        "StereoMatcher(**params): semi-global matching on rectified uint8 pairs. Parameters, all\n"
        "optional: min_disparity, num_disparities (multiple of 16), p1, p2, prefilter,\n"
        "census_width, census_height, paths (4 or 8), uniqueness_ratio, lr_max_diff, subpixel,\n"
        "speckle_window, speckle_range, threads, scalar_reference. One matcher serves one thread\n"
        "at a time.")
        .def(py::init([](const py::kwargs& kw) {
            return std::make_unique<orvo::StereoMatcher>(matcher_params(kw));
        }))
        .def(
            "compute",
            [](orvo::StereoMatcher& sm, py::array left, py::array right, py::object geometry) {
                cv::Mat l = wrap_array(left, CV_8U, "compute"), r = wrap_array(right, CV_8U, "compute");
                std::optional<orvo::StereoGeometry> g;
                if (py::isinstance<orvo::Calibration>(geometry))
                    g = geometry.cast<const orvo::Calibration&>().geometry();
                else if (!geometry.is_none())
                    g = geometry.cast<orvo::StereoGeometry>();
                auto out = std::make_shared<orvo::Depth>();
                {
                    // The arrays stay referenced by this call's arguments while the GIL is away.
                    py::gil_scoped_release release;
                    *out = g ? sm.compute(l, r, *g) : sm.compute(l, r);
                }
                return out;
            },
            py::arg("left"), py::arg("right"), py::arg("geometry") = py::none(),
            "Matches a rectified pair (uint8 arrays of one shape). geometry: a StereoGeometry or a\n"
            "Calibration for metric depth and points. Releases the GIL while it works.");

    // ---- point clouds ---------------------------------------------------------------------
    auto writer = [](std::size_t (*fn)(const std::string&, const cv::Mat&, const cv::Mat&)) {
        return [fn](const std::string& path, py::array points, py::object colour) {
            cv::Mat p = wrap_array(points, CV_32F, "points"), c;
            if (!colour.is_none()) c = wrap_array(colour.cast<py::array>(), CV_8U, "colour");
            py::gil_scoped_release release;
            return fn(path, p, c);
        };
    };
    m.def("write_ply", writer(&orvo::write_ply), py::arg("path"), py::arg("points"),
          py::arg("colour") = py::none(),
          "Writes the valid (non-NaN) points of an (H, W, 3) float32 array as binary PLY, with an\n"
          "optional uint8 grey (H, W) or BGR (H, W, 3) colour image. Returns the point count.");
    m.def("write_pcd", writer(&orvo::write_pcd), py::arg("path"), py::arg("points"),
          py::arg("colour") = py::none(), "As write_ply, in PCD (binary) format.");
}
