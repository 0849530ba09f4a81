#pragma once
// Helpers of the command line tests: a scratch folder, a small forest, simulated
// recordings and a way to run the built `qbt`.

#include <filesystem>
#include <cstdint>
#include <string>
#include <vector>

#include "scene.h"

namespace cli_test {

// A fresh folder under the system's temporary folder, removed again by the destructor.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// A hand-made forest that labels a user's pixels by where they sit in the user's box
// (head on top, torso, legs): enough for every stage of the tracker to run.
void write_box_forest(const std::string& path);

// Writes `frames` frames of a named simulator scenario as a recording.
void write_recording(const std::string& dir, const std::string& scenario, int frames, int people, bool mirrored,
                     uint32_t width = 320, uint32_t height = 240);

// Writes the depth frames of a 640x480 simulator recording as a dump that libfreenect's
// playback library (fakenect) plays: raw 11-bit disparity through the library's default
// shift tables, `secondsApart` between frames. Where the dump ends the playback library
// fails as a camera does that is unplugged.
void write_fakenect_dump(const std::string& recording, const std::string& dump, double secondsApart);

// The folder of libfreenect's playback library, empty when it is not installed.
std::string fakenect_library_dir();

// The frames of a recording folder written by `qbt live --record`, in order.
std::vector<std::vector<uint16_t>> read_recorded_frames(const std::string& dir);

struct RunResult {
  int code = -1;
  std::string out, err;
};

// Runs the built qbt with the arguments (already shell-quoted where needed), with
// `environment` ("NAME=value ...") set for it.
RunResult run_qbt(const std::string& args, const std::string& environment = "");

// The whole file as text (empty when it cannot be read), and a text's lines.
std::string slurp(const std::string& path);
std::vector<std::string> lines_of(const std::string& text);

}  // namespace cli_test
