#pragma once
// Where depth frames come from: recordings on disk (PNG folders, raw files, OpenNI2 .oni
// files) and depth cameras (OpenNI2 and libfreenect devices). The library itself knows
// no camera; this layer turns each source into millimetre depth maps plus the camera
// options the tracker should be created with.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "depth_input.h"
#include "quorvik/body_tracking.h"

namespace quorvik::cli {

// What a source knows about its camera. `options` starts from the library's defaults;
// `reported` names the fields the driver filled in.
struct CameraSettings {
  qbt_bodytracker_options_t options{};
  std::vector<std::string> reported;
  std::optional<bool> mirrored;
  double fps = 30.0;

  CameraSettings();
  // One line per field, "name value (device|default)", for the user to see what was used.
  std::string describe() const;
};

struct SourceFrame {
  std::vector<uint16_t> depth;  // millimetres, 0 = no measurement
  int number = 0;               // the source's own count, from 0; gaps are frames the driver skipped
  double seconds = 0;           // the source's clock
};

class FrameSource {
 public:
  virtual ~FrameSource() = default;
  // Blocks for the next frame. False once the source has ended; `lost()` then tells a
  // device that went away from a recording that was played to its end.
  virtual bool next(SourceFrame& frame) = 0;

  const std::string& description() const { return description_; }
  FrameSize size() const { return size_; }
  const CameraSettings& camera() const { return camera_; }
  bool lost() const { return lost_; }

 protected:
  std::string description_;
  FrameSize size_;
  CameraSettings camera_;
  bool lost_ = false;
};

// The sources this build has, for messages: "PNG folders, raw .u16 files, OpenNI2 ...".
std::vector<std::string> built_sources();

// A recording, frame after frame as fast as they are asked for; `name` is its description.
std::unique_ptr<FrameSource> open_recording_source(std::unique_ptr<DepthInput> input, const std::string& name);

// `choice` is "openni2", "freenect", a .oni file, or empty for the first camera found.
// Throws CliError: usage for a source this build lacks, kExitNoDevice when no camera
// answers (the message lists the sources built and what each found).
std::unique_ptr<FrameSource> open_camera_source(const std::string& choice);

bool is_oni_file(const std::string& path);

#ifdef QBT_CLI_WITH_OPENNI2
// An OpenNI2 recording read frame by frame as fast as it is asked for.
std::unique_ptr<DepthInput> open_oni_recording(const std::string& path);
#endif

// Writes tracked frames as a PNG folder that `qbt track` reads back with the same camera
// options and mirroring: depth_NNNNNN.png and recording.json.
class RecordingFolder {
 public:
  // Throws CliError (output) when the folder cannot be created.
  RecordingFolder(const std::string& dir, const CameraSettings& camera, bool mirrored, const std::string& source);
  ~RecordingFolder();
  RecordingFolder(const RecordingFolder&) = delete;
  RecordingFolder& operator=(const RecordingFolder&) = delete;
  void add(const SourceFrame& frame, FrameSize size);
  // Writes recording.json; called by the destructor when not before.
  void finish();
  int frames() const { return count_; }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
  std::string meta_;  // recording.json without its frame list
  std::string frameList_;
  int count_ = 0;
  bool finished_ = false;
};

// Camera options stored by a RecordingFolder, if `dir` holds one.
std::optional<CameraSettings> read_recorded_camera(const std::string& dir);

}  // namespace quorvik::cli
