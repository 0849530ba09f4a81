// quorvik_body_tracking._native: the thin layer between Python and the library's C interface.
// It owns the tracker handle, hands depth arrays to the library without copying them, and
// copies every body frame out at once, so the frame is released before Python sees it and
// the next update is never refused. Everything user-facing (classes, enums, errors,
// recordings) lives in the Python package on top of it.

#include <png.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvik/body_tracking.h>

namespace py = pybind11;

namespace {

// The package maps codes to its exception classes; the library's text travels unchanged.
[[noreturn]] void raise_error(int code, const std::string& message) {
  py::object error = py::module_::import("quorvik_body_tracking._errors").attr("error_for_code")(code, message);
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
  throw py::error_already_set();
}

// Reads the process-wide last-error record right after a failed call.
struct Failure {
  qbt_result_t code = QBT_RESULT_SUCCESS;
  std::string message;
};

Failure last_failure(qbt_result_t code) {
  qbt_error_info_t info{};
  qbt_error_info(&info);
  return {code, info.message != nullptr ? info.message : ""};
}

[[noreturn]] void raise_argument(const std::string& message) { raise_error(QBT_RESULT_INVALID_PARAMETER, message); }

// One body frame copied out of the library, gathered without the interpreter lock.
struct FrameCopy {
  uint32_t width = 0, height = 0;
  std::vector<qbt_body_t> bodies;
  std::vector<uint8_t> bodyMask, floorMask;
  bool floorDetected = false;
  qbt_plane_t plane{};
};

std::optional<Failure> copy_and_release(qbt_bodyframe_t& frame, FrameCopy& out) {
  qbt_bodyframe_info_t info{};
  qbt_bodylist_t list{};
  qbt_bodymask_t mask{};
  qbt_floormask_t floorMask{};
  qbt_result_t rc = qbt_bodyframe_info(frame, &info);
  if (rc == QBT_RESULT_SUCCESS) rc = qbt_bodyframe_body_list(frame, &list);
  if (rc == QBT_RESULT_SUCCESS) rc = qbt_bodyframe_bodymask(frame, &mask);
  if (rc == QBT_RESULT_SUCCESS) rc = qbt_bodyframe_floor_info(frame, &out.floorDetected, &out.plane, &floorMask);
  if (rc != QBT_RESULT_SUCCESS) {
    Failure failure = last_failure(rc);
    qbt_bodyframe_release(&frame);
    return failure;
  }
  out.width = info.width;
  out.height = info.height;
  if (list.count > 0) out.bodies.assign(list.bodies, list.bodies + list.count);
  const auto copy_mask = [&](const uint8_t* data, int32_t w, int32_t h, std::vector<uint8_t>& dst) {
    // Both masks come at the frame's size; anything else would be read out of bounds.
    if (data != nullptr && w >= 0 && h >= 0 && static_cast<uint32_t>(w) == out.width &&
        static_cast<uint32_t>(h) == out.height)
      dst.assign(data, data + size_t{out.width} * out.height);
    else
      dst.assign(size_t{out.width} * out.height, 0);
  };
  copy_mask(mask.data, mask.width, mask.height, out.bodyMask);
  copy_mask(floorMask.data, floorMask.width, floorMask.height, out.floorMask);
  qbt_bodyframe_release(&frame);
  return std::nullopt;
}

template <typename T>
py::array_t<T> array_from(const std::vector<size_t>& shape) {
  return py::array_t<T>(std::vector<py::ssize_t>(shape.begin(), shape.end()));
}

// (width, height, ids, statuses, joints_world, joints_image, joint_status, body_mask,
//  floor_detected, floor_plane, floor_mask), every array a fresh copy.
py::tuple frame_to_python(const FrameCopy& f) {
  const size_t n = f.bodies.size();
  auto ids = array_from<uint8_t>({n});
  auto statuses = array_from<uint8_t>({n});
  auto world = array_from<float>({n, QBT_JOINT_COUNT, 3});
  auto image = array_from<float>({n, QBT_JOINT_COUNT, 2});
  auto jointStatus = array_from<uint8_t>({n, QBT_JOINT_COUNT});
  uint8_t* idp = ids.mutable_data();
  uint8_t* sp = statuses.mutable_data();
  float* wp = world.mutable_data();
  float* ip = image.mutable_data();
  uint8_t* jp = jointStatus.mutable_data();
  for (size_t i = 0; i < n; ++i) {
    const qbt_body_t& b = f.bodies[i];
    idp[i] = b.id;
    sp[i] = b.status;
    // Slot j holds joint type j; a slot the library left empty is all zero.
    for (size_t j = 0; j < QBT_JOINT_COUNT; ++j) {
      const qbt_joint_t& joint = b.joints[j];
      const size_t k = i * QBT_JOINT_COUNT + j;
      wp[k * 3 + 0] = joint.worldPosition.x;
      wp[k * 3 + 1] = joint.worldPosition.y;
      wp[k * 3 + 2] = joint.worldPosition.z;
      ip[k * 2 + 0] = joint.depthPosition.x;
      ip[k * 2 + 1] = joint.depthPosition.y;
      jp[k] = joint.status;
    }
  }
  auto bodyMask = array_from<uint8_t>({f.height, f.width});
  auto floorMask = array_from<uint8_t>({f.height, f.width});
  if (!f.bodyMask.empty()) std::memcpy(bodyMask.mutable_data(), f.bodyMask.data(), f.bodyMask.size());
  if (!f.floorMask.empty()) std::memcpy(floorMask.mutable_data(), f.floorMask.data(), f.floorMask.size());
  auto plane = array_from<float>({4});
  float* pp = plane.mutable_data();
  pp[0] = f.plane.nx;
  pp[1] = f.plane.ny;
  pp[2] = f.plane.nz;
  pp[3] = f.plane.d;
  return py::make_tuple(f.width, f.height, ids, statuses, world, image, jointStatus, bodyMask, f.floorDetected,
                        plane, floorMask);
}

// The library reads width*height values from the pointer it is given, so only a C-ordered
// 2-D array of native uint16 can be handed over without a copy; anything else is refused
// with a message that says what to do rather than converted behind the caller's back.
qbt_depthmap_t depth_view(const py::array& depth) {
  const py::dtype dt = depth.dtype();
  if (dt.kind() != 'u' || dt.itemsize() != 2 || !dt.attr("isnative").cast<bool>())
    raise_argument("depth must be a numpy array of dtype uint16 (millimetres), not " +
                   std::string(py::str(py::handle(dt))) + "; convert it with depth.astype(numpy.uint16)");
  if (depth.ndim() != 2)
    raise_argument("depth must be a 2-D array (height, width), not " + std::to_string(depth.ndim()) + "-D");
  if (!(depth.flags() & py::array::c_style))
    raise_argument("depth must be C-contiguous (rows one after another); pass numpy.ascontiguousarray(depth)");
  const py::ssize_t h = depth.shape(0), w = depth.shape(1);
  if (w > std::numeric_limits<int32_t>::max() || h > std::numeric_limits<int32_t>::max())
    raise_error(QBT_RESULT_INVALID_DEPTHMAP_SIZE, "depth of " + std::to_string(w) + "x" + std::to_string(h) +
                                                      " is far larger than any depth camera's frame");
  return {static_cast<const uint16_t*>(depth.data()), static_cast<int32_t>(w), static_cast<int32_t>(h)};
}

struct OptionField {
  const char* name;
  void (*set)(qbt_bodytracker_options_t&, const py::handle&);
  py::object (*get)(const qbt_bodytracker_options_t&);
};

template <typename T>
T checked(const py::handle& value, const char* name) {
  if constexpr (std::is_floating_point_v<T>) {
    // Any real number (numpy scalars too), but not a string that happens to parse.
    if (py::isinstance<py::str>(value) || py::isinstance<py::bytes>(value) || !PyNumber_Check(value.ptr()))
      raise_argument(std::string("option ") + name + " must be a number");
    py::object number = py::reinterpret_steal<py::object>(PyNumber_Float(value.ptr()));
    if (!number) throw py::error_already_set();
    return static_cast<T>(PyFloat_AsDouble(number.ptr()));
  } else {
    // Integers and numpy integer scalars; a float would be silently cut.
    py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
    if (!index) {
      PyErr_Clear();
      raise_argument(std::string("option ") + name + " must be an integer");
    }
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
    if (overflow != 0 || v < static_cast<long long>(std::numeric_limits<T>::min()) ||
        v > static_cast<long long>(std::numeric_limits<T>::max()))
      raise_argument(std::string("option ") + name + " is out of range for its type");
    return static_cast<T>(v);
  }
}

#define QBT_OPTION(pyname, field)                                                                         \
  OptionField {                                                                                           \
    pyname,                                                                                               \
        [](qbt_bodytracker_options_t& o, const py::handle& v) {                                           \
          o.field = checked<decltype(qbt_bodytracker_options_t::field)>(v, pyname);                       \
        },                                                                                                \
        [](const qbt_bodytracker_options_t& o) -> py::object { return py::cast(o.field); }                \
  }

const std::vector<OptionField>& option_fields() {
  static const std::vector<OptionField> fields = {
      QBT_OPTION("horizontal_fov", horizontalFov),
      QBT_OPTION("vertical_fov", verticalFov),
      QBT_OPTION("zero_plane_distance", zeroPlaneDistance),
      QBT_OPTION("zero_plane_pixel_size", zeroPlanePixelSize),
      QBT_OPTION("emitter_dcmos_distance", emitterDcmosDistance),
      QBT_OPTION("max_shift_value", maxShiftValue),
      QBT_OPTION("device_max_depth", deviceMaxDepth),
      QBT_OPTION("const_shift", constShift),
      QBT_OPTION("pixel_size_factor", pixelSizeFactor),
      QBT_OPTION("param_coeff", paramCoeff),
      QBT_OPTION("shift_scale", shiftScale),
      QBT_OPTION("min_depth", minDepth),
      QBT_OPTION("max_depth", maxDepth),
  };
  return fields;
}

py::dict default_options() {
  qbt_bodytracker_options_t o{};
  qbt_bodytracker_fill_default_options(&o);
  py::dict d;
  for (const OptionField& f : option_fields()) d[f.name] = f.get(o);
  return d;
}

class Tracker {
 public:
  Tracker(std::optional<std::string> dataFile, const py::dict& camera) {
    qbt_bodytracker_options_t o{};
    qbt_bodytracker_fill_default_options(&o);
    for (const auto& [key, value] : camera) {
      const std::string name = py::str(key);
      bool known = false;
      for (const OptionField& f : option_fields()) {
        if (name == f.name) {
          f.set(o, value);
          known = true;
        }
      }
      if (!known) raise_argument("unknown camera option '" + name + "'; quorvik_body_tracking.default_options() lists them");
    }
    // The conversion tables divide by it.
    if (o.pixelSizeFactor == 0) raise_argument("option pixel_size_factor must not be 0");
    if (dataFile) {
      if (dataFile->find('\0') != std::string::npos) raise_argument("data_file holds a NUL character");
      dataFile_ = *dataFile;
      o.dataFilePath = dataFile_.c_str();
    }
    const qbt_result_t rc = qbt_bodytracker_create(&o, &handle_);
    if (rc != QBT_RESULT_SUCCESS) {
      const Failure f = last_failure(rc);
      raise_error(f.code, f.message);
    }
  }

  ~Tracker() {
    if (handle_ != nullptr) {
      // Waits for an update still running on the library's worker.
      py::gil_scoped_release nogil;
      qbt_bodytracker_destroy(&handle_);
    }
  }

  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;

  py::tuple update(const py::array& depth) {
    const qbt_depthmap_t map = depth_view(depth);
    FrameCopy copy;
    std::optional<Failure> failure;
    {
      py::gil_scoped_release nogil;
      std::lock_guard<std::mutex> lock(mutex_);
      failure = open_handle();
      if (!failure) {
        qbt_bodyframe_t frame{};
        const auto start = std::chrono::steady_clock::now();
        const qbt_result_t rc = qbt_bodytracker_update(handle_, &map, &frame);
        librarySeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        failure = rc != QBT_RESULT_SUCCESS ? std::optional<Failure>(last_failure(rc)) : copy_and_release(frame, copy);
      }
    }
    if (failure) raise_error(failure->code, failure->message);
    return frame_to_python(copy);
  }

  void update_async(const py::array& depth) {
    const qbt_depthmap_t map = depth_view(depth);
    std::optional<Failure> failure;
    {
      py::gil_scoped_release nogil;
      std::lock_guard<std::mutex> lock(mutex_);
      failure = open_handle();
      if (!failure) {
        // The library copies the depth before it returns, so the array may change afterwards.
        const qbt_result_t rc = qbt_bodytracker_update_async(handle_, &map, &pending_);
        if (rc != QBT_RESULT_SUCCESS) failure = last_failure(rc);
      }
    }
    if (failure) raise_error(failure->code, failure->message);
  }

  bool ready() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto failure = open_handle()) raise_error(failure->code, failure->message);
    bool isReady = false;
    const qbt_result_t rc = qbt_asyncbodyframe_frame_ready(pending_, &isReady);
    if (rc != QBT_RESULT_SUCCESS) {
      const Failure f = last_failure(rc);
      raise_error(f.code, f.message);
    }
    return isReady;
  }

  py::tuple take() {
    FrameCopy copy;
    std::optional<Failure> failure;
    {
      py::gil_scoped_release nogil;
      std::lock_guard<std::mutex> lock(mutex_);
      failure = open_handle();
      if (!failure) {
        qbt_bodyframe_t frame{};
        const qbt_result_t rc = qbt_asyncbodyframe_take_frame(pending_, &frame);
        failure = rc != QBT_RESULT_SUCCESS ? std::optional<Failure>(last_failure(rc)) : copy_and_release(frame, copy);
      }
    }
    if (failure) raise_error(failure->code, failure->message);
    return frame_to_python(copy);
  }

  void reset() { call([this] { return qbt_bodytracker_reset(handle_); }); }

  bool mirrored() {
    bool value = false;
    call([&] { return qbt_bodytracker_is_depth_mirrored(handle_, &value); });
    return value;
  }

  void set_mirrored(bool value) { call([&] { return qbt_bodytracker_set_is_depth_mirrored(handle_, value); }); }

  void close() {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(mutex_);
    if (handle_ != nullptr) qbt_bodytracker_destroy(&handle_);
    pending_ = {};
  }

  bool closed() const { return handle_ == nullptr; }

  // Time spent inside qbt_bodytracker_update by the last update, for measuring the binding.
  double library_seconds() const { return librarySeconds_; }

 private:
  std::optional<Failure> open_handle() const {
    if (handle_ == nullptr) return Failure{QBT_RESULT_INVALID_PARAMETER, "the tracker is closed"};
    return std::nullopt;
  }

  template <typename Fn>
  void call(Fn fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto failure = open_handle()) raise_error(failure->code, failure->message);
    const qbt_result_t rc = fn();
    if (rc != QBT_RESULT_SUCCESS) {
      const Failure f = last_failure(rc);
      raise_error(f.code, f.message);
    }
  }

  qbt_bodytracker_t handle_ = nullptr;
  qbt_asyncbodyframe_t pending_{};
  std::string dataFile_;
  double librarySeconds_ = 0;
  // Python threads run without the interpreter lock inside the library, and the library
  // wants one call at a time per tracker.
  std::mutex mutex_;
};

// libpng reports errors by longjmp, so nothing with a destructor may live in the frames
// that call setjmp.
struct PngReader {
  png_structp png = nullptr;
  png_infop info = nullptr;
  FILE* file = nullptr;
  ~PngReader() {
    png_destroy_read_struct(&png, &info, nullptr);
    if (file != nullptr) std::fclose(file);
  }
};

bool png_header(PngReader& r, png_uint_32& w, png_uint_32& h, int& depth, int& colour, int& interlace) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_init_io(r.png, r.file);
  png_read_info(r.png, r.info);
  int compression = 0, filter = 0;
  png_get_IHDR(r.png, r.info, &w, &h, &depth, &colour, &interlace, &compression, &filter);
  return true;
}

bool png_rows(PngReader& r, uint8_t* data, png_uint_32 h, size_t stride) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_set_swap(r.png);  // PNG stores 16-bit samples big-endian
  for (png_uint_32 y = 0; y < h; ++y) png_read_row(r.png, data + y * stride, nullptr);
  png_read_end(r.png, nullptr);
  return true;
}

// A 16-bit greyscale PNG as a (height, width) uint16 array; ValueError says what is wrong.
py::array_t<uint16_t> read_depth_png(const std::string& path) {
  PngReader r;
  r.file = std::fopen(path.c_str(), "rb");
  if (r.file == nullptr) throw py::value_error("cannot read " + path);
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (r.png != nullptr) r.info = png_create_info_struct(r.png);
  if (r.png == nullptr || r.info == nullptr) throw std::bad_alloc();
  png_uint_32 w = 0, h = 0;
  int depth = 0, colour = 0, interlace = 0;
  if (!png_header(r, w, h, depth, colour, interlace)) throw py::value_error(path + " is not a PNG file");
  if (colour != PNG_COLOR_TYPE_GRAY || depth != 16)
    throw py::value_error(path + " is not a 16-bit greyscale PNG; depth frames must be 16-bit greyscale PNGs "
                                 "holding millimetres");
  if (interlace != PNG_INTERLACE_NONE)
    throw py::value_error(path + " is an interlaced PNG; save the depth frames without interlacing");
  py::array_t<uint16_t> image({static_cast<py::ssize_t>(h), static_cast<py::ssize_t>(w)});
  if (!png_rows(r, reinterpret_cast<uint8_t*>(image.mutable_data()), h, size_t{w} * 2))
    throw py::value_error("cannot decode " + path + ": the file is corrupt");
  return image;
}

}  // namespace

PYBIND11_MODULE(_native, m) {
  m.doc() = "Bridge to the Quorvik Body Tracking C interface; use the quorvik_body_tracking package instead.";
  m.attr("JOINT_COUNT") = QBT_JOINT_COUNT;
  m.def("default_options", &default_options, "The camera options written by qbt_bodytracker_fill_default_options.");
  m.def(
      "last_error",
      [] {
        qbt_error_info_t info{};
        qbt_error_info(&info);
        return py::make_tuple(info.code, std::string(info.message != nullptr ? info.message : ""));
      },
      "(code, text) of the library's last failure in this process.");
  m.def("read_depth_png", &read_depth_png, py::arg("path"));
  py::class_<Tracker>(m, "Tracker")
      .def(py::init<std::optional<std::string>, const py::dict&>(), py::arg("data_file"), py::arg("camera"))
      .def("update", &Tracker::update, py::arg("depth"))
      .def("update_async", &Tracker::update_async, py::arg("depth"))
      .def("ready", &Tracker::ready)
      .def("take", &Tracker::take)
      .def("reset", &Tracker::reset)
      .def_property("mirrored", &Tracker::mirrored, &Tracker::set_mirrored)
      .def("close", &Tracker::close)
      .def_property_readonly("closed", &Tracker::closed)
      .def_property_readonly("library_seconds", &Tracker::library_seconds);
}
