#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli_error.h"
#include "commands.h"
#include "depth_input.h"
#include "json_lines.h"
#include "overlay.h"
#include "pictures.h"

namespace quorvik::cli {

namespace {

struct RenderOptions {
  std::string input;
  std::string track;
  std::string out;
  std::string size;
};

void render(const RenderOptions& o) {
  std::optional<FrameSize> size;
  if (!o.size.empty()) size = parse_size(o.size);
  const std::unique_ptr<DepthInput> input = open_depth_input(o.input, size);
  std::ifstream in(o.track);
  if (!in) throw CliError(kExitInput, "cannot read " + o.track + "; give the JSON Lines output of qbt track");
  const std::vector<TrackedFrame> frames = read_json_lines(in, o.track);
  if (frames.empty()) throw CliError(kExitInput, o.track + " holds no frames");
  for (const TrackedFrame& f : frames)
    if (f.index < 0 || f.index >= input->frame_count())
      throw CliError(kExitInput, fmt::format("{} has frame {}, but {} holds frames 0 to {}; give the recording that was "
                                             "tracked",
                                             o.track, f.index, o.input, input->frame_count() - 1));
  PictureOptions po;
  po.dir = o.out;
  po.expectedFrames = static_cast<int>(frames.size());
  PictureWriter pictures(po);
  const FrameSize s = input->size();
  for (const TrackedFrame& f : frames) {
    const std::vector<uint16_t> depth = input->read(f.index);
    pictures.add(render_overlay(depth.data(), s.width, s.height, f), f.index);
  }
  for (const std::string& w : pictures.finish()) std::printf("wrote %s\n", w.c_str());
}

}  // namespace

void add_render_command(CLI::App& app) {
  auto o = std::make_shared<RenderOptions>();
  CLI::App* cmd = app.add_subcommand(
      "render", "Draw the output of qbt track over its recording: overlay PNGs, a contact sheet, an animated GIF and, "
                "when ffmpeg is installed, an MP4");
  cmd->add_option("INPUT", o->input, "The recording that was tracked")->required();
  cmd->add_option("TRACK", o->track, "Its JSON Lines file from qbt track")->required();
  cmd->add_option("--out", o->out, "Folder for the pictures")->required();
  cmd->add_option("--size", o->size, "Frame size of a .u16 file, WIDTHxHEIGHT");
  cmd->callback([o] { render(*o); });
}

}  // namespace quorvik::cli
