#include "recording.h"

#include <png.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace quorvik::sim {

namespace {

constexpr const char* kJointNames[16] = {"Head",      "ShoulderSpine", "LeftShoulder", "LeftElbow",
                                         "LeftHand",  "RightShoulder", "RightElbow",   "RightHand",
                                         "MidSpine",  "BaseSpine",     "LeftHip",      "LeftKnee",
                                         "LeftFoot",  "RightHip",      "RightKnee",    "RightFoot"};

struct File {
  FILE* f;
  explicit File(const std::string& path, const char* mode) : f(std::fopen(path.c_str(), mode)) {}
  ~File() {
    if (f) std::fclose(f);
  }
};

// All locals that live across setjmp are set before it and never changed afterwards.
bool png_write_rows(FILE* f, const uint8_t* data, uint32_t w, uint32_t h, int depth) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, f);
  png_set_compression_level(png, 3);
  png_set_IHDR(png, info, w, h, depth, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  if (depth == 16) png_set_swap(png);
  const size_t stride = size_t{w} * static_cast<size_t>(depth / 8);
  for (uint32_t y = 0; y < h; ++y) png_write_row(png, const_cast<uint8_t*>(data + y * stride));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

template <typename T>
void write_png(const std::string& path, const op::Image<T>& image) {
  File f(path, "wb");
  if (!f.f) throw std::runtime_error("cannot write " + path);
  if (!png_write_rows(f.f, reinterpret_cast<const uint8_t*>(image.data()), image.width(), image.height(),
                      static_cast<int>(sizeof(T) * 8)))
    throw std::runtime_error("cannot encode " + path);
}

struct PngReadState {
  png_structp png = nullptr;
  png_infop info = nullptr;
};

bool png_read_header(PngReadState& s, FILE* f, uint32_t& w, uint32_t& h, int& depth, int& colour) {
  if (setjmp(png_jmpbuf(s.png))) return false;
  png_init_io(s.png, f);
  png_read_info(s.png, s.info);
  w = png_get_image_width(s.png, s.info);
  h = png_get_image_height(s.png, s.info);
  depth = png_get_bit_depth(s.png, s.info);
  colour = png_get_color_type(s.png, s.info);
  return true;
}

bool png_read_rows(PngReadState& s, uint8_t* data, uint32_t h, size_t stride, bool swap) {
  if (setjmp(png_jmpbuf(s.png))) return false;
  if (swap) png_set_swap(s.png);
  for (uint32_t y = 0; y < h; ++y) png_read_row(s.png, data + y * stride, nullptr);
  png_read_end(s.png, nullptr);
  return true;
}

template <typename T>
op::Image<T> read_png(const std::string& path) {
  File f(path, "rb");
  if (!f.f) throw std::runtime_error("cannot open " + path);
  PngReadState s;
  s.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (s.png) s.info = png_create_info_struct(s.png);
  struct Guard {
    PngReadState& s;
    ~Guard() { png_destroy_read_struct(&s.png, &s.info, nullptr); }
  } guard{s};
  if (!s.png || !s.info) throw std::runtime_error("libpng failure");
  uint32_t w = 0, h = 0;
  int depth = 0, colour = 0;
  if (!png_read_header(s, f.f, w, h, depth, colour)) throw std::runtime_error("not a PNG file: " + path);
  if (colour != PNG_COLOR_TYPE_GRAY || depth != static_cast<int>(sizeof(T) * 8))
    throw std::runtime_error("unexpected PNG format in " + path);
  op::Image<T> image(w, h);
  if (!png_read_rows(s, reinterpret_cast<uint8_t*>(image.data()), h, size_t{w} * sizeof(T), sizeof(T) == 2))
    throw std::runtime_error("corrupt PNG file: " + path);
  return image;
}

nlohmann::json camera_json(const CameraSetup& c, const skeleton::DepthCameraModel& m) {
  return {{"width", c.width},
          {"height", c.height},
          {"hfovDeg", c.hfovDeg},
          {"vfovDeg", c.vfovDeg},
          {"position", {c.position.x, c.position.y, c.position.z}},
          {"yawDeg", c.yaw * 180.f / kPi},
          {"pitchDeg", c.pitch * 180.f / kPi},
          {"rollDeg", c.roll * 180.f / kPi},
          {"emitterOffsetMm", c.emitterOffset},
          {"mirrored", c.mirrored},
          {"focalX", m.focalX},
          {"focalY", m.focalY},
          {"centerX", m.centerX},
          {"centerY", m.centerY}};
}

}  // namespace

void write_png16(const std::string& path, const op::Image<uint16_t>& image) { write_png(path, image); }
void write_png8(const std::string& path, const op::Image<uint8_t>& image) { write_png(path, image); }
op::Image<uint16_t> read_png16(const std::string& path) { return read_png<uint16_t>(path); }
op::Image<uint8_t> read_png8(const std::string& path) { return read_png<uint8_t>(path); }

std::string frame_file(const char* kind, int index) {
  char name[64];
  std::snprintf(name, sizeof(name), "%s_%06d.png", kind, index);
  return name;
}

nlohmann::json truth_to_json(const Frame& frame) {
  nlohmann::json people = nlohmann::json::array();
  for (const PersonTruth& p : frame.people) {
    nlohmann::json joints = nlohmann::json::array();
    for (size_t j = 0; j < p.joints.size(); ++j) {
      const JointTruth& t = p.joints[j];
      joints.push_back({{"type", j},
                        {"name", kJointNames[j]},
                        {"camera", {t.camera.x, t.camera.y, t.camera.z}},
                        {"image", {t.u, t.v}},
                        {"inImage", t.inImage}});
    }
    people.push_back({{"id", p.id}, {"pixels", p.pixels}, {"joints", joints}});
  }
  return {{"index", frame.index},
          {"time", frame.time},
          {"depth", frame_file("depth", frame.index)},
          {"labels", frame_file("labels", frame.index)},
          {"ids", frame_file("ids", frame.index)},
          {"floor", frame.floor},
          {"people", people}};
}

void truth_from_json(const nlohmann::json& j, Frame& frame) {
  frame.index = j.at("index").get<int>();
  frame.time = j.at("time").get<float>();
  frame.floor = j.at("floor").get<std::array<float, 4>>();
  frame.people.clear();
  for (const auto& pj : j.at("people")) {
    PersonTruth p;
    p.id = pj.at("id").get<uint8_t>();
    p.pixels = pj.at("pixels").get<uint32_t>();
    const auto& joints = pj.at("joints");
    if (joints.size() != p.joints.size()) throw std::runtime_error("a person needs 16 joints");
    for (size_t k = 0; k < joints.size(); ++k) {
      const auto& jj = joints[k];
      const size_t type = jj.at("type").get<size_t>();
      if (type >= p.joints.size()) throw std::runtime_error("bad joint type");
      JointTruth& t = p.joints[type];
      const auto c = jj.at("camera").get<std::array<float, 3>>();
      const auto uv = jj.at("image").get<std::array<float, 2>>();
      t.camera = {c[0], c[1], c[2]};
      t.u = uv[0];
      t.v = uv[1];
      t.inImage = jj.at("inImage").get<bool>();
    }
    frame.people.push_back(p);
  }
}

RecordingWriter::RecordingWriter(std::string dir, const Scenario& scenario, const SensorOptions& sensor)
    : dir_(std::move(dir)) {
  std::error_code ec;
  std::filesystem::create_directories(dir_, ec);
  if (!std::filesystem::is_directory(dir_)) throw std::runtime_error("cannot create directory " + dir_);
  const ScenarioOptions& o = scenario.options();
  const CameraSetup& c = scenario.camera();
  const skeleton::DepthCameraModel m(c.hfovDeg * skeleton::kDegreesToRadians, c.vfovDeg * skeleton::kDegreesToRadians,
                                     static_cast<float>(c.width), static_cast<float>(c.height));
  doc_ = {{"format", kRecordingFormat},
          {"version", kRecordingVersion},
          {"scenario",
           {{"name", o.name},
            {"seed", o.seed},
            {"people", scenario.actors().size()},
            {"frames", o.frames},
            {"fps", o.fps},
            {"mirrored", o.mirrored}}},
          {"camera", camera_json(c, m)},
          {"sensor", {{"nearLimitMm", sensor.nearLimit}, {"farLimitMm", sensor.farLimit}}},
          {"frames", nlohmann::json::array()}};
}

void RecordingWriter::write(const Frame& frame) {
  write_png16(dir_ + "/" + frame_file("depth", frame.index), frame.depth);
  write_png8(dir_ + "/" + frame_file("labels", frame.index), frame.labels);
  write_png8(dir_ + "/" + frame_file("ids", frame.index), frame.ids);
  doc_["frames"].push_back(truth_to_json(frame));
}

void RecordingWriter::finish() {
  if (finished_) return;
  finished_ = true;
  std::ofstream out(dir_ + "/" + kRecordingFile, std::ios::binary);
  out << doc_.dump(1) << "\n";
  if (!out) throw std::runtime_error("cannot write " + dir_ + "/" + kRecordingFile);
}

RecordingWriter::~RecordingWriter() {
  try {
    finish();
  } catch (const std::exception&) {
  }
}

Recording Recording::open(const std::string& dir) {
  std::ifstream in(dir + "/" + kRecordingFile, std::ios::binary);
  if (!in) throw std::runtime_error("no " + std::string(kRecordingFile) + " in " + dir);
  Recording r;
  r.dir_ = dir;
  try {
    const nlohmann::json doc = nlohmann::json::parse(in);
    if (doc.at("format").get<std::string>() != kRecordingFormat || doc.at("version").get<int>() != kRecordingVersion)
      throw std::runtime_error("unsupported recording format in " + dir);
    const auto& s = doc.at("scenario");
    r.options_.name = s.at("name").get<std::string>();
    r.options_.seed = s.at("seed").get<uint64_t>();
    r.options_.people = s.at("people").get<int>();
    r.options_.frames = s.at("frames").get<int>();
    r.options_.fps = s.at("fps").get<float>();
    r.options_.mirrored = s.at("mirrored").get<bool>();
    const auto& c = doc.at("camera");
    r.camera_.width = c.at("width").get<uint32_t>();
    r.camera_.height = c.at("height").get<uint32_t>();
    r.camera_.hfovDeg = c.at("hfovDeg").get<float>();
    r.camera_.vfovDeg = c.at("vfovDeg").get<float>();
    const auto pos = c.at("position").get<std::array<float, 3>>();
    r.camera_.position = {pos[0], pos[1], pos[2]};
    r.camera_.yaw = c.at("yawDeg").get<float>() * kPi / 180.f;
    r.camera_.pitch = c.at("pitchDeg").get<float>() * kPi / 180.f;
    r.camera_.roll = c.at("rollDeg").get<float>() * kPi / 180.f;
    r.camera_.emitterOffset = c.at("emitterOffsetMm").get<float>();
    r.camera_.mirrored = c.at("mirrored").get<bool>();
    r.options_.width = r.camera_.width;
    r.options_.height = r.camera_.height;
    for (const auto& f : doc.at("frames")) {
      Frame frame;
      truth_from_json(f, frame);
      r.frames_.push_back(std::move(frame));
    }
  } catch (const nlohmann::json::exception& e) {
    throw std::runtime_error("malformed " + std::string(kRecordingFile) + " in " + dir + ": " + e.what());
  }
  return r;
}

void Recording::read(int index, Frame& out) const {
  const Frame& t = frames_.at(static_cast<size_t>(index));
  out.index = t.index;
  out.time = t.time;
  out.floor = t.floor;
  out.people = t.people;
  out.depth = read_png16(dir_ + "/" + frame_file("depth", t.index));
  out.labels = read_png8(dir_ + "/" + frame_file("labels", t.index));
  out.ids = read_png8(dir_ + "/" + frame_file("ids", t.index));
}

}  // namespace quorvik::sim
