#include "frame_source.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli_error.h"
#include "recording.h"
#include "source_drivers.h"

namespace quorvik::cli {

namespace fs = std::filesystem;

namespace {

// The camera fields of the options, in the order of the structure.
template <typename Fn>
void for_each_field(qbt_bodytracker_options_t& o, Fn&& fn) {
  fn("horizontalFov", o.horizontalFov);
  fn("verticalFov", o.verticalFov);
  fn("zeroPlaneDistance", o.zeroPlaneDistance);
  fn("zeroPlanePixelSize", o.zeroPlanePixelSize);
  fn("emitterDcmosDistance", o.emitterDcmosDistance);
  fn("maxShiftValue", o.maxShiftValue);
  fn("deviceMaxDepth", o.deviceMaxDepth);
  fn("constShift", o.constShift);
  fn("pixelSizeFactor", o.pixelSizeFactor);
  fn("paramCoeff", o.paramCoeff);
  fn("shiftScale", o.shiftScale);
  fn("minDepth", o.minDepth);
  fn("maxDepth", o.maxDepth);
}

nlohmann::ordered_json options_to_json(qbt_bodytracker_options_t o) {
  nlohmann::ordered_json j;
  for_each_field(o, [&](const char* name, auto& v) { j[name] = v; });
  return j;
}

// A recording through the FrameSource interface, as fast as it is asked for.
class RecordingSource : public FrameSource {
 public:
  RecordingSource(std::unique_ptr<DepthInput> input, const std::string& name) : input_(std::move(input)) {
    description_ = name;
    size_ = input_->size();
    camera_.mirrored = input_->mirrored();
    if (input_->camera_options()) camera_.options = *input_->camera_options();
  }

  bool next(SourceFrame& frame) override {
    if (index_ >= input_->frame_count()) return false;
    frame.depth = input_->read(index_);
    frame.number = index_;
    frame.seconds = index_ / camera_.fps;
    ++index_;
    return true;
  }

 private:
  std::unique_ptr<DepthInput> input_;
  int index_ = 0;
};

}  // namespace

CameraSettings::CameraSettings() { qbt_bodytracker_fill_default_options(&options); }

std::string CameraSettings::describe() const {
  std::string out;
  qbt_bodytracker_options_t o = options;
  for_each_field(o, [&](const char* name, auto& v) {
    const bool fromDevice = std::find(reported.begin(), reported.end(), name) != reported.end();
    out += fmt::format("  {:<21} {:<10} ({})\n", name, fmt::format("{}", v), fromDevice ? "device" : "default");
  });
  if (mirrored) out += fmt::format("  {:<21} {}\n", "mirrored", *mirrored ? "yes" : "no");
  return out;
}

std::optional<qbt_bodytracker_options_t> camera_options_from_json(const std::string& recordingJson) {
  std::ifstream in(recordingJson);
  if (!in) return std::nullopt;
  const nlohmann::json doc = nlohmann::json::parse(in, nullptr, false);
  if (doc.is_discarded() || !doc.contains("camera") || !doc["camera"].is_object() ||
      !doc["camera"].contains("options") || !doc["camera"]["options"].is_object())
    return std::nullopt;
  const nlohmann::json& j = doc["camera"]["options"];
  qbt_bodytracker_options_t o;
  qbt_bodytracker_fill_default_options(&o);
  bool ok = true;
  for_each_field(o, [&](const char* name, auto& v) {
    if (j.contains(name) && j[name].is_number()) v = j[name].get<std::remove_reference_t<decltype(v)>>();
    else ok = false;
  });
  // A divisor of zero would make the library's tables all zero: such a file is not ours.
  if (!ok || o.pixelSizeFactor == 0) return std::nullopt;
  return o;
}

std::optional<CameraSettings> read_recorded_camera(const std::string& dir) {
  const std::optional<qbt_bodytracker_options_t> o = camera_options_from_json((fs::path(dir) / "recording.json").string());
  if (!o) return std::nullopt;
  CameraSettings s;
  s.options = *o;
  return s;
}

bool is_oni_file(const std::string& path) {
  std::string ext = fs::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".oni";
}

std::vector<std::string> built_sources() {
  std::vector<std::string> s = {"PNG folders", "raw .u16 files"};
#ifdef QBT_CLI_WITH_OPENNI2
  s.push_back("OpenNI2 devices and .oni recordings");
#endif
#ifdef QBT_CLI_WITH_FREENECT
  s.push_back("libfreenect devices");
#endif
  return s;
}

std::unique_ptr<FrameSource> open_recording_source(std::unique_ptr<DepthInput> input, const std::string& name) {
  return std::make_unique<RecordingSource>(std::move(input), name);
}

std::unique_ptr<FrameSource> open_camera_source(const std::string& choice) {
  std::string sources;
  for (const std::string& s : built_sources()) sources += (sources.empty() ? "" : ", ") + s;
  const bool any = choice.empty();
  if (!any && choice != "openni2" && choice != "freenect") {
    if (!is_oni_file(choice))
      throw CliError(kExitUsage, "--source wants openni2, freenect or an .oni file, not '" + choice + "'");
    if (!fs::exists(choice)) throw CliError(kExitInput, "no such file: " + choice);
  }
  std::vector<std::string> found;
#ifdef QBT_CLI_WITH_OPENNI2
  if (any || choice == "openni2" || is_oni_file(choice)) {
    std::string why;
    if (std::unique_ptr<FrameSource> s = open_openni2_source(choice == "openni2" || any ? "" : choice, why)) return s;
    found.push_back("OpenNI2: " + why);
  }
#endif
#ifdef QBT_CLI_WITH_FREENECT
  if (any || choice == "freenect") {
    std::string why;
    if (std::unique_ptr<FrameSource> s = open_freenect_source(why)) return s;
    found.push_back("libfreenect: " + why);
  }
#endif
  if (!any && found.empty()) {
    const std::string package = choice == "freenect" ? "libfreenect-dev" : "libopenni2-dev";
    throw CliError(kExitUsage, "this qbt was built without " + std::string(choice == "freenect" ? "libfreenect" : "OpenNI2") +
                                   " (sources built: " + sources + "); install " + package + " and build again");
  }
  std::string message = "no depth camera found (sources built: " + sources + ")";
  for (const std::string& f : found) message += "\n  " + f;
  message += "\nconnect a camera, or play a recording with `qbt live --source FILE.oni` or `qbt view RECORDING`";
  throw CliError(kExitNoDevice, message);
}

RecordingFolder::RecordingFolder(const std::string& dir, const CameraSettings& camera, bool mirrored,
                                 const std::string& source)
    : dir_(dir) {
  std::error_code ec;
  fs::create_directories(dir_, ec);
  if (!fs::is_directory(dir_, ec)) throw CliError(kExitOutput, "cannot create the folder " + dir_);
  // Frames of an earlier session would be read back as part of this one.
  for (const fs::directory_entry& e : fs::directory_iterator(dir_, ec)) {
    const std::string name = e.path().filename().string();
    if (name == "recording.json" || name.rfind("depth_", 0) == 0)
      throw CliError(kExitOutput, dir_ + " already holds a recording; name a new folder for --record");
  }
  nlohmann::ordered_json doc;
  doc["format"] = "qbt-camera-recording";
  doc["version"] = 1;
  doc["source"] = source;
  doc["camera"] = {{"mirrored", mirrored}, {"fps", camera.fps}, {"options", options_to_json(camera.options)},
                   {"reported", camera.reported}};
  meta_ = doc.dump(1);
}

RecordingFolder::~RecordingFolder() {
  try {
    finish();
  } catch (const CliError&) {  // the frames are on disk already; only the index is missing
  }
}

void RecordingFolder::add(const SourceFrame& frame, FrameSize size) {
  op::Image<uint16_t> image(size.width, size.height);
  std::copy(frame.depth.begin(), frame.depth.end(), image.data());
  const std::string name = sim::frame_file("depth", count_);
  try {
    sim::write_png16(dir_ + "/" + name, image);
  } catch (const std::exception& e) {
    throw CliError(kExitOutput, "cannot write " + dir_ + "/" + name + ": " + e.what());
  }
  frameList_ += fmt::format("{}  {{\"index\": {}, \"source_frame\": {}, \"time\": {:.6f}}}", count_ ? ",\n" : "\n",
                            count_, frame.number, frame.seconds);
  ++count_;
}

void RecordingFolder::finish() {
  if (finished_) return;
  finished_ = true;
  // The frame list goes last, as the closing member of the object.
  std::string text = meta_;
  text.erase(text.find_last_of('}'));
  while (!text.empty() && text.back() == '\n') text.pop_back();
  text += ",\n \"frames\": [" + frameList_ + "\n ]\n}\n";
  std::ofstream out(dir_ + "/recording.json", std::ios::binary);
  out << text;
  if (!out) throw CliError(kExitOutput, "cannot write " + dir_ + "/recording.json");
}

skeleton::ShiftConversionParams shift_params_of(const qbt_bodytracker_options_t& o) {
  skeleton::ShiftConversionParams p;
  p.zeroPlaneDistance = o.zeroPlaneDistance;
  p.zeroPlanePixelSize = o.zeroPlanePixelSize;
  p.emitterDcmosDistance = o.emitterDcmosDistance;
  p.maxShiftValue = o.maxShiftValue;
  p.deviceMaxDepth = o.deviceMaxDepth;
  p.constShift = o.constShift;
  p.pixelSizeFactor = o.pixelSizeFactor;
  p.paramCoeff = o.paramCoeff;
  p.shiftScale = o.shiftScale;
  p.minDepth = o.minDepth;
  p.maxDepth = o.maxDepth;
  return p;
}

}  // namespace quorvik::cli
