#pragma once
// Random but valid forests for tests and benchmarks.

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "forest/decision_forest.h"

namespace quorvik::skeleton::testing {

struct RandomForestOptions {
  uint32_t trees = 3;
  uint32_t depth = 8;          // splits along the longest path
  float leaf_chance = 0.1f;    // chance that a split position below depth 2 is a leaf
  bool offsets_only = false;   // only Offset splits
  int16_t max_offset = 120;    // offset range, in pixels x depth / image size units
  float max_threshold = 400.f; // Offset thresholds are drawn from +-max_threshold
};

// Breadth-first layout, children always after their parent, distributions quantised so
// that they survive a write and read exactly.
inline std::unique_ptr<DecisionTree> make_random_tree(std::mt19937& rng,
                                                      const RandomForestOptions& o) {
  auto tree = std::make_unique<DecisionTree>();
  std::uniform_real_distribution<float> unit(0.f, 1.f);
  std::uniform_int_distribution<int> offset(-o.max_offset, o.max_offset);
  std::uniform_int_distribution<int> kind(1, 12);
  std::uniform_int_distribution<int> label(0, 27);
  struct Pending {
    uint32_t index;
    uint32_t depth;
  };
  std::vector<Pending> queue{{0, 0}};
  tree->nodes.push_back(TreeNode{});
  for (size_t head = 0; head < queue.size(); ++head) {
    const Pending p = queue[head];
    const bool leaf = p.depth >= o.depth || (p.depth >= 2 && unit(rng) < o.leaf_chance);
    TreeNode& node = tree->nodes[p.index];
    if (leaf) {
      node.is_leaf = true;
      node.target = tree->distributions.size();
      LabelDistribution d;
      d.clear();
      const int entries = 1 + static_cast<int>(unit(rng) * 4);
      for (int e = 0; e < entries; ++e) {
        const uint16_t q = static_cast<uint16_t>(1 + unit(rng) * 30000);
        d.probability[label(rng)] = static_cast<float>(q) * (1.0f / 65535.0f);
      }
      tree->distributions.push_back(d);
      continue;
    }
    const bool offset_split = o.offsets_only || unit(rng) < 0.8f;
    node.is_leaf = false;
    node.target = tree->nodes.size();
    if (offset_split) {
      node.kind = 0;
      for (int16_t& v : node.offsets) v = static_cast<int16_t>(offset(rng));
      node.threshold = (unit(rng) * 2.f - 1.f) * o.max_threshold;
    } else {
      node.kind = static_cast<uint8_t>(kind(rng));
      node.threshold = unit(rng);
    }
    const uint32_t first = static_cast<uint32_t>(tree->nodes.size());
    tree->nodes.push_back(TreeNode{});
    tree->nodes.push_back(TreeNode{});
    queue.push_back({first, p.depth + 1});
    queue.push_back({first + 1, p.depth + 1});
  }
  return tree;
}

inline DecisionForest make_random_forest(uint32_t seed, const RandomForestOptions& o = {}) {
  std::mt19937 rng(seed);
  std::vector<std::unique_ptr<DecisionTree>> trees;
  for (uint32_t t = 0; t < o.trees; ++t) trees.push_back(make_random_tree(rng, o));
  return DecisionForest(std::move(trees));
}

}  // namespace quorvik::skeleton::testing
