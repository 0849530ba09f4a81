// qbt-eval: the evaluation and stage timing on their own, as `qbt eval` and `qbt bench`.

#include <CLI/CLI.hpp>

#include "eval_command.h"

int main(int argc, char** argv) {
  CLI::App app{"Quorvik Body Tracking: accuracy, tracking quality and speed on simulated recordings"};
  app.require_subcommand(1);
  add_eval_command(app);
  add_bench_command(app);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
