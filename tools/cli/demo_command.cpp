#include <unistd.h>

#include <memory>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "console.h"
#include "demo.h"

namespace quorvik::cli {

void add_demo_command(CLI::App& app) {
  auto options = std::make_shared<DemoOptions>();
  CLI::App* cmd = app.add_subcommand(
      "demo", "Simulate a short scene (two people walk in, one waves, one leaves), track it, report frames per second "
              "and joint accuracy, and write a contact sheet and an animated overlay");
  cmd->add_option("--frames", options->frames, "Frames to simulate (30 per second)")->capture_default_str();
  cmd->add_option("--out", options->out, "Folder for the pictures")->capture_default_str();
  cmd->add_option("--data", options->data, "Data file (default: the repository's or the installed one)");
  cmd->callback([options] {
    std::FILE* out = program_stdout();
    run_demo(*options, out, ::isatty(::fileno(out)) != 0);
  });
}

}  // namespace quorvik::cli
