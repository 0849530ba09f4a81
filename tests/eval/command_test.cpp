#include "eval_command.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stage_timer.h"

namespace quorvik::eval {
namespace {

// Parses `args` (after the program name) with both subcommands added; returns the exit
// code CLI11 would end with (0 when parsing and the command succeed).
int run(std::vector<std::string> args, DataResolver resolve = {}) {
  CLI::App app;
  if (resolve) {
    add_eval_command(app, resolve);
    add_bench_command(app, resolve);
  } else {
    add_eval_command(app);
    add_bench_command(app);
  }
  std::vector<const char*> argv{"qbt"};
  for (const std::string& a : args) argv.push_back(a.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::Error& e) {
    return e.get_exit_code();
  }
  return 0;
}

TEST(Commands, DataFileIsRequiredUnlessTheHostResolvesIt) {
  EXPECT_NE(run({"eval", "--quick"}), 0);
  EXPECT_NE(run({"bench"}), 0);
  // A file that is not there ends with the data-file code, whoever named it.
  EXPECT_EQ(run({"eval", "--quick", "--data", "/nonexistent/forest.data"}), 3);
  EXPECT_EQ(run({"bench", "--data", "/nonexistent/forest.data"}), 3);
  std::string asked = "unset";
  const DataResolver resolver = [&](const std::string& given) -> std::string {
    asked = given;
    throw std::runtime_error("no data file");
  };
  EXPECT_EQ(run({"eval", "--quick"}, resolver), 3);
  EXPECT_EQ(asked, "");
  EXPECT_EQ(run({"bench", "--data", "mine.data"}, resolver), 3);
  EXPECT_EQ(asked, "mine.data");
}

TEST(StageTiming, OneRowPerSizeAndPeopleWithSharesThatAddUp) {
  BenchOptions o;
  o.widths = {160, 320};
  o.people = {1};
  o.warmup = 4;
  o.frames = 3;
  const std::vector<StageTiming> rows = time_stages(skeleton::DecisionForest{}, o);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[1].width, 320u);
  EXPECT_EQ(rows[1].height, 240u);
  for (const StageTiming& r : rows) {
    SCOPED_TRACE(r.width);
    EXPECT_EQ(r.frames, 3);
    EXPECT_GT(r.updateMs, 0.0);
    EXPECT_GT(r.stage_total(), 0.0);
    EXPECT_DOUBLE_EQ(r.stageMs[3], 0.0) << "nothing to classify without trees";
  }
  const nlohmann::json j = stage_json(rows);
  double share = 0;
  for (const auto& [name, stage] : j[0]["stages"].items()) share += stage["share"].get<double>();
  EXPECT_NEAR(share, 1.0, 1e-9);
  std::ostringstream table;
  print_stage_table(table, rows);
  EXPECT_NE(table.str().find("320x240"), std::string::npos);
  EXPECT_NE(table.str().find("classification"), std::string::npos);
}

}  // namespace
}  // namespace quorvik::eval
