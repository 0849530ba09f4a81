#include "forest/decision_forest.h"

#include <cmath>
#include <limits>
#include <utility>

#include <gtest/gtest.h>

namespace quorvik::skeleton {
namespace {

LabelDistribution only(uint8_t label, float p) {
  LabelDistribution d;
  d.probability[label] = p;
  return d;
}

TEST(LabelDistributionTest, BestLabelPrefersLowestOnTiesAndZeroMeansLabelZero) {
  LabelDistribution d;
  d.compute_best();
  EXPECT_EQ(d.best_label, 0);
  EXPECT_EQ(d.best_probability, 0.f);

  d.probability[7] = 0.25f;
  d.probability[5] = 0.25f;
  EXPECT_EQ(d.best_label, 0) << "cached value kept until something changes it";
  d.best_label = kBestLabelUnknown;
  d.compute_best();
  EXPECT_EQ(d.best_label, 5);

  d.add(only(31, 0.5f));
  EXPECT_EQ(d.best_label, kBestLabelUnknown);
  d.compute_best();
  EXPECT_EQ(d.best_label, 31);
  d.clear();
  EXPECT_EQ(d.best_label, kBestLabelUnknown);
  EXPECT_EQ(d.get(31), 0.f);
}

TEST(LabelDistributionTest, AverageScalesByOneRoundedReciprocal) {
  LabelDistribution one = only(9, 0.7f);
  one.average(1);
  EXPECT_EQ(one.best_label, 9);
  EXPECT_EQ(one.best_probability, 0.7f);

  LabelDistribution three = only(2, 0.9f);
  three.average(3);
  EXPECT_EQ(three.best_probability, 0.9f * (1.0f / 3.0f));
  LabelDistribution zero = only(4, 0.5f);
  zero.average(0);
  EXPECT_EQ(zero.best_label, 4);
  EXPECT_EQ(zero.best_probability, 0.5f);

  // Ties go to the lowest label wherever the two lie; nothing at all is label 0.
  for (const auto& [low, high] : {std::pair{5u, 20u}, {30u, 31u}, {0u, 17u}, {31u, 31u}}) {
    SCOPED_TRACE(testing::Message() << low << " and " << high);
    LabelDistribution tie = only(static_cast<uint8_t>(low), 0.25f);
    tie.probability[high] = 0.25f;
    tie.probability[(low + 3) % kLabelCount] = 0.125f;
    tie.average(4);
    EXPECT_EQ(tie.best_label, low);
    EXPECT_EQ(tie.best_probability, 0.0625f);
  }
  LabelDistribution nothing;
  nothing.average(4);
  EXPECT_EQ(nothing.best_label, 0);
}

DecisionForest two_stumps(const LabelDistribution& a, const LabelDistribution& b) {
  std::vector<std::unique_ptr<DecisionTree>> trees;
  for (const LabelDistribution* d : {&a, &b}) {
    auto tree = std::make_unique<DecisionTree>();
    TreeNode leaf{};
    leaf.is_leaf = true;
    tree->nodes.push_back(leaf);
    tree->distributions.push_back(*d);
    trees.push_back(std::move(tree));
  }
  return DecisionForest(std::move(trees));
}

TEST(DecisionForestTest, CombineAveragesInForestOrderAndBreaksTiesLow) {
  const DecisionForest forest = two_stumps(only(5, 0.6f), only(3, 0.6f));
  const uint32_t leaves[2] = {0, 0};
  const CombinedLabel result = combine(forest, leaves);
  EXPECT_EQ(result.label, 3);
  EXPECT_EQ(result.probability, 0.6f * 0.5f);

  const DecisionForest empty_leaves = two_stumps(LabelDistribution{}, LabelDistribution{});
  const CombinedLabel zero = combine(empty_leaves, leaves);
  EXPECT_EQ(zero.label, 0);
  EXPECT_EQ(zero.probability, 0.f);
}

TEST(DecisionForestTest, DescentTakesSecondChildOnEqualityAndNaN) {
  DecisionTree tree;
  TreeNode split{};
  split.target = 1;
  split.threshold = 2.5f;
  TreeNode leaf{};
  leaf.is_leaf = true;
  tree.nodes = {split, leaf, leaf};
  auto value = [](float v) { return [v](const TreeNode&) { return v; }; };
  EXPECT_EQ(descend(tree, value(2.4f)), 1u);
  EXPECT_EQ(descend(tree, value(2.5f)), 2u);
  EXPECT_EQ(descend(tree, value(std::numeric_limits<float>::quiet_NaN())), 2u);
}

}  // namespace
}  // namespace quorvik::skeleton
