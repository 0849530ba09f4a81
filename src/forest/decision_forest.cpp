#include "forest/decision_forest.h"

namespace quorvik::skeleton {

CombinedLabel combine(const DecisionForest& forest, const uint32_t* leaves) {
  LabelDistribution acc;
  acc.clear();
  const size_t count = forest.tree_count();
  for (size_t t = 0; t < count; ++t) {
    const DecisionTree& tree = forest.tree(t);
    acc.add(tree.leaf_distribution(tree.node(leaves[t])));
  }
  acc.average(static_cast<uint32_t>(count));
  return {acc.best_label, acc.best_probability};
}

}  // namespace quorvik::skeleton
