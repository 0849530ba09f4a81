#pragma once
// `eval` and `bench` as subcommands of a CLI11 application, shared by the `qbt` command line
// and the stand-alone `qbt-eval`.

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "runner.h"

namespace quorvik::eval {

// Turns the --data value (possibly empty) into the path of the data file to load, or
// throws. Without one, --data is required.
using DataResolver = std::function<std::string(const std::string& given)>;

// Writes the error-per-joint, error-against-distance and detection-per-scenario plots.
// Returns the files written; throws std::runtime_error when one cannot be written.
std::vector<std::string> write_plots(const std::string& dir, const std::vector<CaseResult>& results);

}  // namespace quorvik::eval

// A failed floor check or a data file that cannot be loaded ends the subcommand with a
// CLI::RuntimeError carrying a non-zero exit code (1: below a floor, 2: usage or output,
// 3: data file). Without a resolver --data is required.
void add_eval_command(CLI::App& app);
void add_bench_command(CLI::App& app);
void add_eval_command(CLI::App& app, quorvik::eval::DataResolver resolveData);
void add_bench_command(CLI::App& app, quorvik::eval::DataResolver resolveData);
