// qbt: the command line of Quorvik Body Tracking.

#include <CLI/CLI.hpp>

#include "commands.h"
#include "eval_command.h"
#include "tracking.h"

#ifdef __SANITIZE_ADDRESS__
// The OpenNI2 drivers never free some of what they allocate; a leak check of qbt is about
// qbt's own memory.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libOniFile.so\nleak:libPS1080.so\nleak:libPSLink.so\nleak:libDummyDevice.so\n";
}
#endif

int main(int argc, char** argv) {
  CLI::App app{"qbt: track people in depth recordings with Quorvik Body Tracking"};
  app.require_subcommand(1);
  quorvik::cli::add_demo_command(app);
  quorvik::cli::add_track_command(app);
  quorvik::cli::add_render_command(app);
  quorvik::cli::add_info_command(app);
  quorvik::cli::add_live_command(app);
  quorvik::cli::add_view_command(app);
  add_eval_command(app, quorvik::cli::find_data_file);
  add_bench_command(app, quorvik::cli::find_data_file);
  return quorvik::cli::run(app, argc, argv);
}
