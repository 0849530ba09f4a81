#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli_error.h"
#include "commands.h"
#include "console.h"
#include "depth_input.h"
#include "json_lines.h"
#include "overlay.h"
#include "pictures.h"
#include "tracking.h"

namespace quorvik::cli {

namespace {

struct TrackOptions {
  std::string input;
  std::string size;
  bool mirrored = false, notMirrored = false;
  std::string data;
  int first = 0;
  int last = -1;
  std::string out;
  std::string render;
};

void track(const TrackOptions& o) {
  std::FILE* console = program_stdout();
  std::optional<FrameSize> size;
  if (!o.size.empty()) size = parse_size(o.size);
  const std::unique_ptr<DepthInput> input = open_depth_input(o.input, size);
  const int count = input->frame_count();
  const int last = o.last < 0 ? count - 1 : o.last;
  if (o.first < 0 || o.first >= count || last >= count || last < o.first)
    throw CliError(kExitUsage, fmt::format("frames {} to {} asked for, but {} holds frames 0 to {}", o.first, last,
                                           o.input, count - 1));
  const std::string dataFile = find_data_file(o.data);
  // A simulator recording says whether it is mirrored; otherwise the library's default holds.
  const bool mirrored = o.mirrored ? true : o.notMirrored ? false : input->mirrored().value_or(true);

  std::FILE* out = console;
  if (!o.out.empty()) {
    out = std::fopen(o.out.c_str(), "w");
    if (out == nullptr) throw CliError(kExitOutput, "cannot write " + o.out);
  }
  struct Closer {
    std::FILE* f;
    std::FILE* console;
    ~Closer() {
      if (f != console) std::fclose(f);
    }
  } closer{out, console};

  std::unique_ptr<PictureWriter> pictures;
  if (!o.render.empty()) {
    PictureOptions po;
    po.dir = o.render;
    po.expectedFrames = last - o.first + 1;
    pictures = std::make_unique<PictureWriter>(po);
  }
  // A camera recording carries the options its camera reported; they are used again here so
  // that tracking it gives what tracking the camera gave.
  const std::optional<qbt_bodytracker_options_t>& camera = input->camera_options();
  Tracker tracker(dataFile, mirrored, camera ? &*camera : nullptr);
  const FrameSize s = input->size();
  for (int i = o.first; i <= last; ++i) {
    const std::vector<uint16_t> depth = input->read(i);
    const TrackedFrame frame = tracker.update(depth.data(), s.width, s.height, i, pictures != nullptr);
    const std::string line = frame_to_json(frame).dump();
    std::fputs(line.c_str(), out);
    std::fputc('\n', out);
    if (std::ferror(out))  // a full disk, or a reader that went away
      throw CliError(kExitOutput, "cannot write " + (o.out.empty() ? std::string("to standard output") : o.out));
    if (pictures) pictures->add(render_overlay(depth.data(), s.width, s.height, frame), i);
  }
  if (std::fflush(out) != 0) throw CliError(kExitOutput, "cannot write " + (o.out.empty() ? std::string("the output") : o.out));
  std::vector<std::string> written;
  if (pictures) written = pictures->finish();
  std::fprintf(stderr, "qbt: tracked frames %d to %d of %s (%s)%s\n", o.first, last, o.input.c_str(),
               mirrored ? "mirrored" : "not mirrored", tracker.timed_updates() > 0 && tracker.tracking_seconds() > 0
                   ? fmt::format(", {:.1f} frames per second", tracker.timed_updates() / tracker.tracking_seconds()).c_str()
                   : "");
  for (const std::string& w : written) std::fprintf(stderr, "qbt: wrote %s\n", w.c_str());
}

}  // namespace

void add_track_command(CLI::App& app) {
  auto o = std::make_shared<TrackOptions>();
  CLI::App* cmd = app.add_subcommand(
      "track", "Track a recording (a folder of 16-bit PNG depth frames in millimetres, a raw .u16 file with --size, or an "
               "OpenNI2 .oni file) "
               "and write one JSON object per frame");
  cmd->add_option("INPUT", o->input, "Folder of depth PNGs (depth_NNNNNN.png, else every *.png by name), a .u16 file or an OpenNI2 .oni recording")
      ->required();
  cmd->add_option("--size", o->size, "Frame size of a .u16 file, WIDTHxHEIGHT");
  CLI::Option* m = cmd->add_flag("--mirrored", o->mirrored, "The depth is mirrored (the library's default)");
  CLI::Option* nm = cmd->add_flag("--no-mirrored", o->notMirrored, "The depth is not mirrored");
  m->excludes(nm);
  cmd->add_option("--data", o->data, "Data file (default: the repository's or the installed one)");
  cmd->add_option("--first", o->first, "First frame to track (0-based)")->capture_default_str();
  cmd->add_option("--last", o->last, "Last frame to track (default: the last one)");
  cmd->add_option("--out", o->out, "JSON Lines file (default: standard output)");
  cmd->add_option("--render", o->render, "Also write overlay pictures into this folder");
  cmd->callback([o] { track(*o); });
}

}  // namespace quorvik::cli
