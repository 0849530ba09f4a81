#pragma once
// The trained per-pixel body-part classifier in memory: an ordered list of binary
// decision trees whose leaves hold label distributions. Immutable once built, and read
// without locks from several threads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "forest/label_distribution.h"
#include "forest/tree_node.h"

namespace quorvik::skeleton {

struct DecisionTree {
  std::vector<TreeNode> nodes;  // node 0 is the root
  std::vector<LabelDistribution> distributions;

  const TreeNode& node(uint32_t index) const { return nodes[index]; }
  // Leaves refer to their distribution by index, so the arrays may grow while a tree is
  // being built without leaving a leaf dangling.
  const LabelDistribution& leaf_distribution(const TreeNode& leaf) const {
    return distributions[leaf.target];
  }
};

class DecisionForest {
 public:
  DecisionForest() = default;
  explicit DecisionForest(std::vector<std::unique_ptr<DecisionTree>> trees)
      : trees_(std::move(trees)) {}
  DecisionForest(DecisionForest&&) noexcept = default;
  DecisionForest& operator=(DecisionForest&&) noexcept = default;
  DecisionForest(const DecisionForest&) = delete;
  DecisionForest& operator=(const DecisionForest&) = delete;

  size_t tree_count() const { return trees_.size(); }
  // Hands the trees over, leaving the forest empty, so that a consumer may free each tree
  // as soon as it is done with it.
  std::vector<std::unique_ptr<DecisionTree>> take_trees() && { return std::move(trees_); }
  const DecisionTree& tree(size_t i) const { return *trees_[i]; }

 private:
  std::vector<std::unique_ptr<DecisionTree>> trees_;
};

// Index of the leaf a pixel reaches. `feature(node)` evaluates a split node's feature for
// the pixel; a value equal to the threshold, or NaN, takes the second child.
template <typename FeatureFn>
uint32_t descend(const DecisionTree& tree, FeatureFn&& feature) {
  uint32_t index = 0;
  while (!tree.nodes[index].is_leaf) {
    const TreeNode& node = tree.nodes[index];
    const float value = feature(node);
    index = static_cast<uint32_t>(value < node.threshold ? node.target : node.target + 1);
  }
  return index;
}

struct CombinedLabel {
  uint8_t label;
  float probability;
};

// Averages the leaves reached in each tree (summed in forest order) and returns the
// arg-max. `leaves[t]` is the node index reached in tree t.
CombinedLabel combine(const DecisionForest& forest, const uint32_t* leaves);

}  // namespace quorvik::skeleton
