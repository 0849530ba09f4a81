#pragma once
// Recordings on disk: a directory with one 16-bit greyscale PNG of depth (millimetres), one
// 8-bit PNG of body-part labels and one 8-bit PNG of person ids per frame, and the file
// "recording.json" with the camera, the floor and every person's joints per frame.

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "op/image.h"
#include "renderer.h"
#include "scene.h"

namespace quorvik::sim {

inline constexpr const char* kRecordingFile = "recording.json";
inline constexpr const char* kRecordingFormat = "qbt-sim-recording";
inline constexpr int kRecordingVersion = 1;

// Greyscale PNG files; read_png_* throw std::runtime_error on a missing or malformed file
// or a different bit depth.
void write_png16(const std::string& path, const op::Image<uint16_t>& image);
void write_png8(const std::string& path, const op::Image<uint8_t>& image);
op::Image<uint16_t> read_png16(const std::string& path);
op::Image<uint8_t> read_png8(const std::string& path);

std::string frame_file(const char* kind, int index);  // "depth_000012.png"

class RecordingWriter {
 public:
  // Creates the directory if needed. Throws std::runtime_error when it cannot be written.
  RecordingWriter(std::string dir, const Scenario& scenario, const SensorOptions& sensor = {});
  void write(const Frame& frame);
  void finish();  // writes recording.json; called by the destructor if not before
  ~RecordingWriter();
  RecordingWriter(const RecordingWriter&) = delete;
  RecordingWriter& operator=(const RecordingWriter&) = delete;

 private:
  std::string dir_;
  nlohmann::json doc_;
  bool finished_ = false;
};

class Recording {
 public:
  // Throws std::runtime_error when the directory holds no readable recording.
  static Recording open(const std::string& dir);

  int frame_count() const { return static_cast<int>(frames_.size()); }
  const ScenarioOptions& options() const { return options_; }
  const CameraSetup& camera() const { return camera_; }
  float fps() const { return options_.fps; }
  // Loads frame `index` (images and ground truth).
  void read(int index, Frame& out) const;
  // Ground truth only, without touching the images.
  const Frame& truth(int index) const { return frames_.at(static_cast<size_t>(index)); }

 private:
  std::string dir_;
  ScenarioOptions options_;
  CameraSetup camera_;
  std::vector<Frame> frames_;  // truth only (images empty)
};

// JSON form of a frame's ground truth, as stored in recording.json.
nlohmann::json truth_to_json(const Frame& frame);
void truth_from_json(const nlohmann::json& j, Frame& frame);

}  // namespace quorvik::sim
