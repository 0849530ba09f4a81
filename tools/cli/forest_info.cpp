#include "forest_info.h"

#include <algorithm>
#include <fstream>
#include <memory>

#include <fmt/format.h>

#include "body.h"
#include "cli_error.h"
#include "forest/forest_reader.h"
#include "forest/input_stream.h"

namespace quorvik::cli {

namespace {

constexpr const char* kFeatureNames[13] = {"Offset",      "RadialDistance", "RelativeX",   "RelativeY", "XOverHeight",
                                           "YOverHeight", "WidthRatio",     "HeightRatio", "Border",    "TopEdge",
                                           "BottomEdge",  "LeftEdge",       "RightEdge"};

uint8_t arg_max(const skeleton::LabelDistribution& d) {
  uint8_t best = 0;
  for (uint8_t l = 1; l < skeleton::kLabelCount; ++l)
    if (d.probability[l] > d.probability[best]) best = l;
  return best;
}

}  // namespace

const char* feature_kind_name(int kind) { return kind >= 0 && kind < 13 ? kFeatureNames[kind] : "unknown"; }

ForestInfo describe_forest(const skeleton::DecisionForest& forest) {
  ForestInfo info;
  for (size_t t = 0; t < forest.tree_count(); ++t) {
    const skeleton::DecisionTree& tree = forest.tree(t);
    TreeInfo ti;
    ti.nodes = static_cast<uint32_t>(tree.nodes.size());
    // The reader guarantees a tree: every node reachable once, children in range.
    std::vector<std::pair<uint32_t, uint32_t>> stack{{0, 0}};
    while (!stack.empty()) {
      const auto [index, level] = stack.back();
      stack.pop_back();
      const skeleton::TreeNode& node = tree.nodes[index];
      if (node.is_leaf) {
        ++ti.leaves;
        ti.depth = std::max(ti.depth, level);
        ++info.leafLabels[arg_max(tree.leaf_distribution(node))];
      } else {
        if (node.kind < info.featureKinds.size()) ++info.featureKinds[node.kind];
        stack.push_back({static_cast<uint32_t>(node.target), level + 1});
        stack.push_back({static_cast<uint32_t>(node.target + 1), level + 1});
      }
    }
    info.trees.push_back(ti);
  }
  return info;
}

ForestInfo describe_data_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw CliError(kExitDataFile, "cannot open the data file " + path + ": it does not exist or is not readable");
  op::IOSInputStream stream(file);
  auto parsed = skeleton::ForestReader().parse(stream);
  if (parsed.is_error())
    throw CliError(kExitDataFile, path + " is not a valid data file: " +
                                      skeleton::to_string(parsed.unwrap_error()) +
                                      "; it may be truncated or not a forest at all");
  skeleton::DecisionForest forest = parsed.unwrap();
  if (forest.tree_count() == 0)
    throw CliError(kExitDataFile, path + " holds no tree; a tracker cannot use it");
  return describe_forest(forest);
}

void print_forest_info(std::ostream& out, const std::string& path, const ForestInfo& info) {
  uint64_t nodes = 0, leaves = 0;
  for (const TreeInfo& t : info.trees) {
    nodes += t.nodes;
    leaves += t.leaves;
  }
  out << fmt::format("{}: {} trees, {} nodes, {} leaves\n\n", path, info.trees.size(), nodes, leaves);
  out << fmt::format("{:>5} {:>6} {:>8} {:>8}\n", "tree", "depth", "nodes", "leaves");
  for (size_t t = 0; t < info.trees.size(); ++t)
    out << fmt::format("{:>5} {:>6} {:>8} {:>8}\n", t, info.trees[t].depth, info.trees[t].nodes, info.trees[t].leaves);
  out << "\nleaves by most likely label\n";
  for (size_t l = 0; l < info.leafLabels.size(); ++l) {
    if (info.leafLabels[l] == 0) continue;
    out << fmt::format("{:>5} {:<18} {:>8} {:>6.1f}%\n", l, sim::label_name(static_cast<int>(l)), info.leafLabels[l],
                       100.0 * static_cast<double>(info.leafLabels[l]) / static_cast<double>(std::max<uint64_t>(1, leaves)));
  }
  out << "\nsplits by feature kind\n";
  const uint64_t splits = nodes - leaves;
  for (size_t k = 0; k < info.featureKinds.size(); ++k) {
    if (info.featureKinds[k] == 0) continue;
    out << fmt::format("{:>5} {:<18} {:>8} {:>6.1f}%\n", k, feature_kind_name(static_cast<int>(k)), info.featureKinds[k],
                       100.0 * static_cast<double>(info.featureKinds[k]) / static_cast<double>(std::max<uint64_t>(1, splits)));
  }
}

}  // namespace quorvik::cli
