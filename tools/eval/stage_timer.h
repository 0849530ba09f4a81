#pragma once
// Time per stage of one tracker frame, in-process on simulated frames: the tracker's steps
// (reduction, world points, users and floor, body-part classification, skeleton step)
// run one by one with a clock around each, and the whole tracker update timed alone on the
// same frames for frames per second, with the process's processor time per update and
// its memory.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "forest/decision_forest.h"

namespace quorvik::eval {

inline constexpr const char* kStageNames[] = {"reduction", "world points", "users+floor", "classification",
                                              "skeleton"};
inline constexpr int kStageCount = 5;

struct StageTiming {
  uint32_t width = 0, height = 0;
  int people = 0;
  int frames = 0;           // timed frames
  double updateMs = 0;      // mean whole update (the tracker itself)
  double medianMs = 0, p99Ms = 0;
  double cpuMs = 0;         // mean processor time of the whole process per update, all threads
  double trackerMb = 0;     // resident memory the tracker added, forest copy included
  double peakMb = 0;        // the process's peak resident memory so far
  double stageMs[kStageCount] = {};  // mean per stage (the stepwise copy)
  double bodies = 0;        // mean tracked bodies per timed frame

  double fps() const { return updateMs > 0 ? 1000.0 / updateMs : 0.0; }
  double stage_total() const;
};

struct BenchOptions {
  std::vector<uint32_t> widths{160, 320, 640};
  std::vector<int> people{1, 2};
  int warmup = 150;  // frames before timing: the people walk in and are found
  int frames = 90;
  uint64_t seed = 7;
  int busy = 0;  // threads kept busy beside the tracker while it is timed
};

std::vector<StageTiming> time_stages(const skeleton::DecisionForest& forest, const BenchOptions& options);
void print_stage_table(std::ostream& out, const std::vector<StageTiming>& rows);
nlohmann::json stage_json(const std::vector<StageTiming>& rows);

}  // namespace quorvik::eval
