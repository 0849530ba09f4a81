#pragma once
// Recordings to track: a folder of 16-bit PNG depth frames (millimetres), or a raw file of
// concatenated little-endian 16-bit frames of a given size.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvik/body_tracking.h"

namespace quorvik::cli {

struct FrameSize {
  uint32_t width = 0, height = 0;
};

// "320x240" -> {320, 240}; throws CliError (usage) for anything else.
FrameSize parse_size(const std::string& text);

class DepthInput {
 public:
  virtual ~DepthInput() = default;
  int frame_count() const { return count_; }
  FrameSize size() const { return size_; }
  // Mirroring recorded with the frames (a simulator recording says it), if any.
  std::optional<bool> mirrored() const { return mirrored_; }
  // Camera options recorded with the frames (a camera recording has them), if any.
  const std::optional<qbt_bodytracker_options_t>& camera_options() const { return options_; }
  // Frame `index` (0-based) in millimetres; throws CliError (input) when it cannot be read.
  virtual std::vector<uint16_t> read(int index) const = 0;
  // Where frame `index` comes from, for messages.
  virtual std::string describe(int index) const = 0;

 protected:
  int count_ = 0;
  FrameSize size_;
  std::optional<bool> mirrored_;
  std::optional<qbt_bodytracker_options_t> options_;
};

// The camera options of a recording.json's "camera" object, when it holds them.
std::optional<qbt_bodytracker_options_t> camera_options_from_json(const std::string& recordingJson);

// Opens a folder (depth_NNNNNN.png files when there are any, else every *.png, in name
// order) or a .u16 file (needs `size`). Every frame header is checked up front, so a
// missing folder, an empty one, 8-bit or colour PNGs and mixed sizes fail here with a
// CliError (input) that says what to do.
std::unique_ptr<DepthInput> open_depth_input(const std::string& path, std::optional<FrameSize> size);

}  // namespace quorvik::cli
