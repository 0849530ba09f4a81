#include "classifier/packed_forest.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>

#include <gtest/gtest.h>

#include "forest/forest_fixtures.h"  // tests/forest

namespace quorvik::skeleton {
namespace {

bool same_bits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(PackedForest, EveryNodeKeepsItsSplitOrItsLeafEntries) {
  for (uint32_t seed = 1; seed <= 4; ++seed) {
    const DecisionForest forest = testing::make_random_forest(seed, {.trees = 3, .depth = 10});
    const PackedForest packed(forest);
    ASSERT_EQ(packed.tree_count(), forest.tree_count());
    // The same forest handed over, and freed tree by tree while it is packed.
    const PackedForest taken(testing::make_random_forest(seed, {.trees = 3, .depth = 10}));
    ASSERT_EQ(taken.tree_count(), forest.tree_count());
    for (size_t t = 0; t < forest.tree_count(); ++t) {
      const DecisionTree& tree = forest.tree(t);
      const KernelTree& k = packed.tree(t);
      ASSERT_EQ(k.node_count, tree.nodes.size());
      for (uint32_t i = 0; i < k.node_count; ++i) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " tree " << t << " node " << i);
        const TreeNode& node = tree.nodes[i];
        const PackedNode& p = k.nodes[i];
        ASSERT_EQ(std::memcmp(&p, &taken.tree(t).nodes[i], sizeof p), 0);
        ASSERT_EQ((p.link & kPackedLeaf) != 0, node.is_leaf);
        if (node.is_leaf) {
          // The leaf's entries, added to nothing, rebuild the dense distribution.
          LabelDistribution rebuilt, rebuilt_taken;
          rebuilt.clear();
          rebuilt_taken.clear();
          packed.add_leaf(t, i, rebuilt);
          taken.add_leaf(t, i, rebuilt_taken);
          const LabelDistribution& dense = tree.leaf_distribution(node);
          for (uint32_t label = 0; label < kLabelCount; ++label) {
            ASSERT_TRUE(same_bits(rebuilt.probability[label], dense.probability[label])) << label;
            ASSERT_TRUE(same_bits(rebuilt_taken.probability[label], dense.probability[label])) << label;
          }
          continue;
        }
        EXPECT_EQ(p.link & kPackedIndexMask, node.target);
        EXPECT_TRUE(same_bits(p.threshold, node.threshold));
        if (node.kind == 0) {
          EXPECT_EQ(p.link & kPackedStatisticsSplit, 0u);
          for (int o = 0; o < 4; ++o) EXPECT_EQ(p.offsets[o], node.offsets[o]);
        } else {
          EXPECT_NE(p.link & kPackedStatisticsSplit, 0u);
          EXPECT_EQ(p.offsets[0], node.kind);
        }
      }
    }
  }
}

TEST(PackedForest, CombinedLeavesMatchTheDenseSumsBitForBit) {
  // Leaves with odd values: negative zero, a NaN, denormals, and labels the fold leaves.
  auto tree = std::make_unique<DecisionTree>();
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> unit(0.f, 1.f);
  for (int leaf = 0; leaf < 40; ++leaf) {
    LabelDistribution d;
    d.clear();
    for (uint32_t label = 0; label < kLabelCount; ++label) {
      if (rng() % 3 == 0) d.probability[label] = unit(rng);
    }
    if (leaf == 1) d.probability[5] = -0.f;
    if (leaf == 2) d.probability[7] = std::numeric_limits<float>::quiet_NaN();
    if (leaf == 3) d.probability[31] = std::numeric_limits<float>::denorm_min();
    if (leaf == 4) d.clear();  // all zero: label 0 with probability 0
    TreeNode node{};
    node.is_leaf = true;
    node.target = tree->distributions.size();
    tree->nodes.push_back(node);
    tree->distributions.push_back(d);
  }
  const PackedForest packed(*tree);
  for (int trial = 0; trial < 500; ++trial) {
    const uint32_t count = 1 + trial % 5;
    LabelDistribution dense, sparse;
    dense.clear();
    sparse.clear();
    for (uint32_t t = 0; t < count; ++t) {
      const uint32_t leaf = rng() % tree->nodes.size();
      dense.add(tree->leaf_distribution(tree->nodes[leaf]));
      packed.add_leaf(0, leaf, sparse);
    }
    dense.average(count);
    sparse.average(count);
    SCOPED_TRACE(::testing::Message() << "trial " << trial);
    for (uint32_t label = 0; label < kLabelCount; ++label) {
      ASSERT_TRUE(same_bits(dense.probability[label], sparse.probability[label])) << label;
    }
    EXPECT_EQ(dense.best_label, sparse.best_label);
    EXPECT_TRUE(same_bits(dense.best_probability, sparse.best_probability));
  }
}

TEST(PackedForest, RefusesIndicesBeyondItsRange) {
  DecisionTree tree;
  TreeNode split{};
  split.target = uint64_t{1} << 31;  // never walked; only packing looks at it
  tree.nodes.push_back(split);
  EXPECT_THROW(PackedForest{tree}, std::length_error);
}

}  // namespace
}  // namespace quorvik::skeleton
