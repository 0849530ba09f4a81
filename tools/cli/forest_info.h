#pragma once
// What a data file holds: its trees, their shape, what their leaves vote for and which
// depth features their splits use.

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "forest/decision_forest.h"

namespace quorvik::cli {

struct TreeInfo {
  uint32_t depth = 0;  // split levels on the longest path from the root to a leaf
  uint32_t nodes = 0;
  uint32_t leaves = 0;
};

struct ForestInfo {
  std::vector<TreeInfo> trees;
  std::array<uint64_t, 32> leafLabels{};     // leaves per arg-max label, over all trees
  std::array<uint64_t, 13> featureKinds{};   // split nodes per feature kind
};

ForestInfo describe_forest(const skeleton::DecisionForest& forest);

// Loads and describes a data file. Throws CliError (data file) that says why the reader
// refused it.
ForestInfo describe_data_file(const std::string& path);

const char* feature_kind_name(int kind);
// What the simulator's training labels stand for ("head", "left hand", ...).

void print_forest_info(std::ostream& out, const std::string& path, const ForestInfo& info);

}  // namespace quorvik::cli
