#include "eval_command.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "floor_sweep.h"
#include "forest/forest_reader.h"
#include "plot.h"
#include "report.h"
#include "stage_timer.h"

#ifndef QBT_EVAL_FLOOR_FILE
#define QBT_EVAL_FLOOR_FILE "quick_floor.json"
#endif

namespace quorvik::eval {
namespace {

constexpr int kExitBelowFloor = 1;
constexpr int kExitDataFile = 3;
constexpr int kExitUsage = 2;

skeleton::DecisionForest load(const std::string& given, const DataResolver& resolve) {
  std::string path;
  try {
    path = resolve ? resolve(given) : given;
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    throw CLI::RuntimeError(kExitDataFile);
  }
  auto forest = skeleton::load_forest(path);
  if (forest.is_error()) {
    std::cerr << "the data file " << path << " cannot be loaded (missing, empty or not a forest)\n";
    throw CLI::RuntimeError(kExitDataFile);
  }
  return forest.unwrap();
}

void add_data_option(CLI::App& sub, std::string& data, const DataResolver& resolve) {
  CLI::Option* option = sub.add_option("--data", data, "data file with the trained forest");
  if (!resolve) option->required();
}

nlohmann::json read_json(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  return nlohmann::json::parse(in);
}

struct EvalArgs {
  std::string data;
  bool quick = false;
  bool json = false;
  std::string plots;
  std::string floorFile = QBT_EVAL_FLOOR_FILE;
  std::string writeFloor;
  uint64_t seedShift = 0;
  std::string only;
  bool floorSweep = false;
};

void run_eval(const EvalArgs& a, const DataResolver& resolve) {
  if (a.floorSweep) {
    std::vector<FloorSweepResult> results;
    for (const FloorSweepCase& c : floor_sweep_cases()) results.push_back(run_floor_sweep_case(c));
    print_floor_sweep(std::cout, results);
    return;
  }
  // Read before the run, so that a wrong path does not cost a whole evaluation.
  const nlohmann::json floors = a.quick ? read_json(a.floorFile) : nlohmann::json{};
  const Evaluator evaluator(load(a.data, resolve));
  std::vector<EvalCase> cases = with_seed_shift(a.quick ? quick_cases() : full_cases(), a.seedShift);
  if (!a.only.empty()) {
    std::erase_if(cases, [&](const EvalCase& c) { return c.label.find(a.only) == std::string::npos; });
  }
  const auto start = std::chrono::steady_clock::now();
  const std::vector<CaseResult> results = evaluator.run_all(cases, [&](const CaseResult& r) {
    std::cerr << fmt::format("{:<22} {:6.1f} s\n", r.evalCase.label, r.totalSeconds);
  });
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (a.json) {
    nlohmann::json doc = to_json(results);
    doc["seconds"] = seconds;
    doc["quick"] = a.quick;
    std::cout << doc.dump(2) << "\n";
  } else {
    print_table(std::cout, results);
    std::cout << fmt::format("  wall time               {:.1f} s\n", seconds);
  }
  if (!a.plots.empty()) {
    for (const std::string& file : write_plots(a.plots, results)) std::cerr << "wrote " << file << "\n";
  }
  const std::map<std::string, double> metrics = headline(total_of(results));
  if (!a.writeFloor.empty()) {
    std::ofstream out(a.writeFloor);
    out << floors_from(metrics).dump(2) << "\n";
    if (!out) throw std::runtime_error("cannot write " + a.writeFloor);
    std::cerr << "wrote floors to " << a.writeFloor << "\n";
  }
  if (a.quick) {
    const std::vector<std::string> failures = check_floors(metrics, floors);
    for (const std::string& f : failures) std::cerr << "quick eval below its floor: " << f << "\n";
    if (!failures.empty()) throw CLI::RuntimeError(kExitBelowFloor);
    std::cerr << "quick eval: every metric within the floors of " << a.floorFile << "\n";
  }
}

struct BenchArgs {
  std::string data;
  bool json = false;
  int frames = 90;
  uint64_t seed = BenchOptions{}.seed;
  std::vector<uint32_t> widths{160, 320, 640};
  std::vector<int> people{1, 2};
  int busy = 0;
};

void run_bench(const BenchArgs& a, const DataResolver& resolve) {
  const skeleton::DecisionForest forest = load(a.data, resolve);
  BenchOptions options;
  options.frames = a.frames;
  options.seed = a.seed;
  options.widths = a.widths;
  options.people = a.people;
  options.busy = a.busy;
  for (uint32_t w : options.widths) {
    if (w == 0 || w % 160 != 0) {
      std::cerr << "widths must be multiples of 160\n";
      throw CLI::RuntimeError(kExitUsage);
    }
  }
  const std::vector<StageTiming> rows = time_stages(forest, options);
  if (a.json) {
    std::cout << stage_json(rows).dump(2) << "\n";
  } else {
    print_stage_table(std::cout, rows);
  }
}

}  // namespace

std::vector<std::string> write_plots(const std::string& dir, const std::vector<CaseResult>& results) {
  std::filesystem::create_directories(dir);
  const Tally total = total_of(results);
  std::vector<std::string> written;
  auto done = [&](bool ok, const std::string& path) {
    if (!ok) throw std::runtime_error("cannot write " + path);
    written.push_back(path);
  };

  std::vector<std::string> names;
  std::vector<double> values;
  for (int i = 0; i < kJoints; ++i) {
    names.push_back(skeleton::to_string(static_cast<skeleton::JointType>(i)));
    values.push_back(stats_of(total.joints[static_cast<size_t>(i)].total).mean);
  }
  const std::string perJoint = (std::filesystem::path(dir) / "error_per_joint.png").string();
  done(write_bar_chart(perJoint, "Mean joint error", names, values, "mm"), perJoint);

  std::vector<double> xs, ys;
  for (int b = 0; b < kDistanceBins; ++b) {
    const Stats s = stats_of(total.errorByDistance[static_cast<size_t>(b)]);
    if (s.count < 10) continue;  // too few joints at this distance to say anything
    xs.push_back((b + 0.5) * kDistanceBinMm / 1000.0);
    ys.push_back(s.mean);
  }
  const std::string byDistance = (std::filesystem::path(dir) / "error_by_distance.png").string();
  done(write_line_chart(byDistance, "Mean joint error against distance", xs, ys, "distance (m)", "mm"), byDistance);

  names.clear();
  values.clear();
  for (const CaseResult& r : results) {
    names.push_back(r.evalCase.label);
    values.push_back(100.0 * r.tally.detection_rate());
  }
  const std::string perScenario = (std::filesystem::path(dir) / "detection_per_scenario.png").string();
  done(write_bar_chart(perScenario, "Joints within 100 mm", names, values, "%"), perScenario);
  return written;
}

}  // namespace quorvik::eval

void add_eval_command(CLI::App& app) { add_eval_command(app, quorvik::eval::DataResolver{}); }
void add_bench_command(CLI::App& app) { add_bench_command(app, quorvik::eval::DataResolver{}); }

void add_eval_command(CLI::App& app, quorvik::eval::DataResolver resolveData) {
  using namespace quorvik::eval;
  auto args = std::make_shared<EvalArgs>();
  CLI::App* sub = app.add_subcommand("eval", "accuracy and tracking quality on held-out simulated recordings");
  add_data_option(*sub, args->data, resolveData);
  sub->add_flag("--quick", args->quick, "a few short scenarios; fails when a metric passes its stored floor");
  sub->add_flag("--json", args->json, "print the results as JSON");
  sub->add_option("--plots", args->plots, "write PNG plots into this folder");
  sub->add_option("--floor", args->floorFile, "floors the quick run is held to")->capture_default_str();
  sub->add_option("--write-floor", args->writeFloor, "write the current results, loosened by a margin, as floors");
  sub->add_option("--seed-shift", args->seedShift, "move every case's seed by this much (fresh draws)")
      ->check(CLI::Range(uint64_t{0}, uint64_t{900000}));
  sub->add_option("--only", args->only, "run only the cases whose label contains this text");
  sub->add_flag("--floor-sweep", args->floorSweep,
                "the floor alone, in rooms with patches of missing depth, across camera heights and pitches");
  sub->callback([args, resolveData] {
    try {
      run_eval(*args, resolveData);
    } catch (const CLI::Error&) {
      throw;
    } catch (const std::exception& e) {
      std::cerr << "eval: " << e.what() << "\n";
      throw CLI::RuntimeError(kExitUsage);
    }
  });
}

void add_bench_command(CLI::App& app, quorvik::eval::DataResolver resolveData) {
  using namespace quorvik::eval;
  auto args = std::make_shared<BenchArgs>();
  CLI::App* sub = app.add_subcommand("bench", "time each tracker stage on simulated frames");
  add_data_option(*sub, args->data, resolveData);
  sub->add_flag("--json", args->json, "print the results as JSON");
  sub->add_option("--frames", args->frames, "timed frames per row")->capture_default_str()->check(CLI::Range(1, 100000));
  sub->add_option("--seed", args->seed, "seed of the simulated recordings")->capture_default_str();
  sub->add_option("--widths", args->widths, "frame widths (multiples of 160)")->capture_default_str();
  sub->add_option("--people", args->people, "people counts")->capture_default_str();
  sub->add_option("--busy", args->busy, "threads kept busy beside the tracker, as a host's would be")
      ->capture_default_str()
      ->check(CLI::Range(0, 64));
  sub->callback([args, resolveData] {
    try {
      run_bench(*args, resolveData);
    } catch (const CLI::Error&) {
      throw;
    } catch (const std::exception& e) {
      std::cerr << "bench: " << e.what() << "\n";
      throw CLI::RuntimeError(kExitUsage);
    }
  });
}
