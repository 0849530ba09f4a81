#include "classifier/frame_classifier.h"

#include <chrono>
#include <cmath>
#include <future>
#include <string>
#include <thread>
#include <set>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "classifier/arch/dispatch.h"
#include "classifier_fixtures.h"
#include "forest/forest_fixtures.h"
#include "op/thread_pool.h"
#include "support/throws.h"

namespace quorvik::skeleton {
namespace {

constexpr uint32_t kW = 160, kH = 120;
constexpr uint8_t kUserId = 3;

std::unique_ptr<DecisionTree> leaf_tree(uint8_t label, float p) {
  auto tree = std::make_unique<DecisionTree>();
  TreeNode leaf{};
  leaf.is_leaf = true;
  tree->nodes.push_back(leaf);
  LabelDistribution d;
  d.probability[label] = p;
  tree->distributions.push_back(d);
  return tree;
}

DecisionForest constant_forest(uint8_t label, float p, int trees = 3) {
  std::vector<std::unique_ptr<DecisionTree>> list;
  for (int t = 0; t < trees; ++t) list.push_back(leaf_tree(label, p));
  return DecisionForest(std::move(list));
}

// Label `left` for columns x <= last_left_column, `right` beyond, both with probability 1.
DecisionForest column_split_forest(int32_t last_left_column, uint8_t left, uint8_t right) {
  auto tree = std::make_unique<DecisionTree>();
  TreeNode split{};
  split.kind = 4;  // x / image height
  split.target = 1;
  split.threshold = (static_cast<float>(last_left_column) + 0.5f) / static_cast<float>(kH);
  TreeNode a{}, b{};
  a.is_leaf = b.is_leaf = true;
  b.target = 1;
  tree->nodes = {split, a, b};
  LabelDistribution da, db;
  da.probability[left] = 1.f;
  db.probability[right] = 1.f;
  tree->distributions = {da, db};
  std::vector<std::unique_ptr<DecisionTree>> list;
  list.push_back(std::move(tree));
  return DecisionForest(std::move(list));
}

struct Outputs {
  op::Image<PixelLabel> labels{kW, kH};
  op::Image<uint8_t> ids{kW, kH};
  float score = 0.f;
  RegionBox region;
  Outputs() {
    labels.fill(PixelLabel{});
    ids.fill(0);
  }
};

struct Rect {
  int32_t x0, y0, x1, y1;
};

void paint(testing::Scene& scene, Rect r, uint16_t label, uint16_t depth) {
  for (int32_t y = r.y0; y <= r.y1; ++y) {
    for (int32_t x = r.x0; x <= r.x1; ++x) {
      scene.labels.at(x, y) = label;
      scene.depth.at(x, y) = depth;
    }
  }
}

testing::Scene empty_scene() {
  testing::Scene s{op::Image<uint16_t>(kW, kH), op::Image<uint16_t>(kW, kH)};
  s.depth.fill(0);
  s.labels.fill(0xFFFF);
  return s;
}

class FrameClassifierTest : public ::testing::Test {
 protected:
  void classify(const DecisionForest& forest, const testing::Scene& scene,
                std::vector<uint16_t> own, std::vector<uint16_t> candidates, Outputs& out,
                op::ThreadPool* use_pool = nullptr, uint64_t splitThreads = 4) {
    FrameClassifier classifier(&forest);
    classifier.splitThreads = splitThreads;
    const ClassifierUser user{kUserId, own, candidates};
    classifier.classify_user(scene.depth, scene.labels, user, 0.35f, out.labels, out.ids,
                             out.score, out.region, use_pool ? *use_pool : pool);
  }
  op::ThreadPool pool{2};
};

TEST_F(FrameClassifierTest, UserWithoutPixelsChangesNothing) {
  const DecisionForest forest = constant_forest(7, 0.9f);
  const testing::Scene scene = testing::make_scene(1);
  Outputs out;
  out.score = -2.f;
  out.region = {1, 2, 3, 4, false};
  classify(forest, scene, {42}, {}, out);
  EXPECT_EQ(out.score, -2.f);
  EXPECT_EQ(out.region.x1, 3);
  for (size_t i = 0; i < out.ids.size(); ++i) {
    ASSERT_EQ(out.ids[i], 0);
    ASSERT_EQ(out.labels[i].label, 0);
  }
}

TEST_F(FrameClassifierTest, EveryTargetPixelGetsAResultAndTheUsersId) {
  const DecisionForest forest = constant_forest(7, 0.8f);
  // A block with an odd width and height, so the last column and row are off the grid;
  // every pixel has a finished neighbour of similar depth.
  testing::Scene scene = empty_scene();
  for (int32_t y = 17; y <= 96; ++y) paint(scene, {31, y, 75, y}, 1, static_cast<uint16_t>(1800 + 3 * y));
  paint(scene, {50, 50, 52, 52}, 2, 1900);  // a hole of another segment
  Outputs out;
  classify(forest, scene, {1}, {}, out);
  LabelDistribution expected;
  for (int t = 0; t < 3; ++t) expected.add(forest.tree(t).distributions[0]);
  expected.average(3);

  int32_t box[4] = {int32_t{kW}, int32_t{kH}, -1, -1};
  for (uint32_t y = 0; y < kH; ++y) {
    for (uint32_t x = 0; x < kW; ++x) {
      SCOPED_TRACE(::testing::Message() << x << "," << y);
      const bool user = scene.depth.at(x, y) != 0 && scene.labels.at(x, y) == 1;
      if (user) {
        box[0] = std::min<int32_t>(box[0], x);
        box[1] = std::min<int32_t>(box[1], y);
        box[2] = std::max<int32_t>(box[2], x);
        box[3] = std::max<int32_t>(box[3], y);
      }
      ASSERT_EQ(out.ids.at(x, y), user ? kUserId : 0);
      ASSERT_EQ(out.labels.at(x, y).label, user ? 7 : 0);
      ASSERT_EQ(out.labels.at(x, y).probability, user ? expected.best_probability : 0.f);
    }
  }
  EXPECT_NEAR(out.score, expected.best_probability, 1e-4f);
  EXPECT_FALSE(out.region.empty);
  EXPECT_EQ(out.region.x0, box[0]);
  EXPECT_EQ(out.region.y0, box[1]);
  EXPECT_EQ(out.region.x1, box[2]);
  EXPECT_EQ(out.region.y1, box[3]);
}

TEST_F(FrameClassifierTest, SinglePixelIsClassifiedAtTheCoarsestLevel) {
  const DecisionForest forest = column_split_forest(50, 4, 6);
  testing::Scene scene = empty_scene();
  paint(scene, {70, 30, 70, 30}, 1, 2500);
  Outputs out;
  classify(forest, scene, {1}, {}, out);
  EXPECT_EQ(out.labels.at(70, 30).label, 6);
  EXPECT_EQ(out.ids.at(70, 30), kUserId);
  EXPECT_EQ(out.score, 1.f);
  EXPECT_EQ(out.region.x0, 70);
  EXPECT_EQ(out.region.y1, 30);
}

TEST_F(FrameClassifierTest, FinalFillUsesNeighboursNearerThan100) {
  // Columns up to 41 get label 5, the rest 9: the grid pixels at x = 40 and 42 disagree,
  // so column 41 (off the step-2 grid from x = 20) is left for the final fill.
  const DecisionForest forest = column_split_forest(41, 5, 9);
  for (int delta : {99, 100}) {
    SCOPED_TRACE(delta);
    testing::Scene scene = empty_scene();
    paint(scene, {20, 20, 60, 80}, 1, 2000);
    paint(scene, {41, 20, 41, 80}, 1, static_cast<uint16_t>(2000 + delta));
    Outputs out;
    classify(forest, scene, {1}, {}, out);
    for (int32_t y = 21; y < 80; ++y) {
      SCOPED_TRACE(y);
      EXPECT_EQ(out.ids.at(41, y), kUserId);
      const PixelLabel got = out.labels.at(41, y);
      if (delta < 100) {
        // The first finished neighbour in scan order: up-left (on a grid row) for odd
        // rows, up-right (filled from x = 42) for even ones.
        EXPECT_EQ(got.label, y % 2 ? 5 : 9);
        EXPECT_EQ(got.probability, 1.f);
      } else {
        EXPECT_EQ(got.label, 0);
        EXPECT_EQ(got.probability, 0.f);
      }
      EXPECT_EQ(out.labels.at(40, y).label, 5);
      EXPECT_EQ(out.labels.at(42, y).label, 9);
    }
  }
}

TEST_F(FrameClassifierTest, CandidatesAreJudgedByTheirScore) {
  testing::Scene scene = empty_scene();
  const Rect own{30, 20, 60, 100};
  const Rect candidate{61, 40, 80, 60};
  const Rect far_candidate{100, 10, 110, 20};
  paint(scene, own, 1, 2000);
  paint(scene, candidate, 2, 2050);
  paint(scene, far_candidate, 4, 2100);
  for (float p : {0.2f, 0.8f}) {
    SCOPED_TRACE(p);
    const DecisionForest forest = constant_forest(11, p, 2);
    Outputs out;
    // Label 3 has no pixels: a pass that does nothing, judged on the score before it.
    classify(forest, scene, {1}, {3, 2, 4}, out);
    const uint8_t candidate_id = p >= 0.35f ? kUserId : 0;
    EXPECT_EQ(out.ids.at(70, 50), candidate_id);
    EXPECT_EQ(out.ids.at(105, 15), candidate_id);
    EXPECT_EQ(out.ids.at(45, 60), kUserId);
    // Rejected candidates keep their labels but not the id.
    EXPECT_EQ(out.labels.at(70, 50).label, 11);
    EXPECT_NEAR(out.score, p, 1e-4f);  // a long single-precision sum
    EXPECT_EQ(out.region.x0, own.x0);
    EXPECT_EQ(out.region.y0, far_candidate.y0);
    EXPECT_EQ(out.region.x1, far_candidate.x1);
    EXPECT_EQ(out.region.y1, own.y1);
    for (size_t i = 0; i < out.ids.size(); ++i) ASSERT_NE(out.ids[i], kUnresolvedUser);
  }
}

// One Offset split comparing a pixel with the pixel 20 columns to its left (at mean depth
// 2000: -250 x 160 / 2000 = -20): confident (label 9, 0.9) when that pixel is context,
// unsure (label 8, 0.1) when the probe sees the background.
DecisionForest look_left_forest() {
  auto tree = std::make_unique<DecisionTree>();
  TreeNode split{};
  split.target = 1;
  split.offsets[2] = -250;
  split.threshold = -4000.f;
  TreeNode unsure{}, confident{};
  unsure.is_leaf = confident.is_leaf = true;
  confident.target = 1;
  tree->nodes = {split, unsure, confident};
  LabelDistribution low, high;
  low.probability[8] = 0.1f;
  high.probability[9] = 0.9f;
  tree->distributions = {low, high};
  std::vector<std::unique_ptr<DecisionTree>> list;
  list.push_back(std::move(tree));
  return DecisionForest(std::move(list));
}

TEST_F(FrameClassifierTest, OnlyAcceptedCandidatesBecomeContext) {
  const DecisionForest forest = look_left_forest();
  for (const bool own_left_of_a : {true, false}) {
    SCOPED_TRACE(own_left_of_a);
    testing::Scene scene = empty_scene();
    paint(scene, {40, 40, 49, 49}, 5, 2000);  // candidate A
    paint(scene, {60, 40, 69, 49}, 6, 2000);  // candidate B, looking into A
    if (own_left_of_a) {
      paint(scene, {20, 40, 29, 49}, 1, 2000);  // A looks into the user's own pixels
    } else {
      paint(scene, {10, 100, 19, 109}, 1, 2000);
    }
    Outputs out;
    classify(forest, scene, {1}, {5, 6}, out);
    const uint8_t expected_id = own_left_of_a ? kUserId : 0;
    const uint8_t expected_label = own_left_of_a ? 9 : 8;
    for (int32_t y = 40; y <= 49; ++y) {
      for (int32_t x : {40, 45, 49, 60, 65, 69}) {
        SCOPED_TRACE(::testing::Message() << x << "," << y);
        EXPECT_EQ(out.ids.at(x, y), expected_id);
        EXPECT_EQ(out.labels.at(x, y).label, expected_label);
      }
    }
  }
}

// A worker that cannot run (here: stuck until the test ends) holds nothing up: the calling
// thread runs every task the worker has not started, including those its full queue refused.
TEST_F(FrameClassifierTest, AStuckWorkerDelaysAndDropsNothing) {
  testing::Scene scene = empty_scene();
  paint(scene, {40, 40, 43, 43}, 1, 2000);
  op::ThreadPool one(1);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  ASSERT_TRUE(one.submit(0, [released] { released.wait(); }).is_ok());
  std::vector<std::unique_ptr<DecisionTree>> list;
  for (int t = 0; t < 12; ++t) list.push_back(leaf_tree(static_cast<uint8_t>(t), 0.5f));
  const DecisionForest forest(std::move(list));
  Outputs out;
  classify(forest, scene, {1}, {}, out, &one);
  EXPECT_EQ(out.labels.at(41, 41).label, 0);
  EXPECT_FLOAT_EQ(out.labels.at(41, 41).probability, 0.5f / 12.f);
  release.set_value();
}

TEST_F(FrameClassifierTest, FeatureErrorsReachTheCaller) {
  // Only a forest built in memory can hold a kind the reader would have refused.
  auto tree = leaf_tree(1, 1.f);
  TreeNode split{};
  split.kind = 13;
  split.target = 1;
  TreeNode leaf = tree->nodes[0];
  tree->nodes = {split, leaf, leaf};
  std::vector<std::unique_ptr<DecisionTree>> list;
  list.push_back(std::move(tree));
  const DecisionForest forest(std::move(list));
  testing::Scene scene = empty_scene();
  paint(scene, {40, 40, 43, 43}, 1, 2000);
  Outputs out;
  EXPECT_THAT([&] { classify(forest, scene, {1}, {}, out); }, support::throws_logic_error("Unsupported feature type"));
}

TEST_F(FrameClassifierTest, EveryBuildAndPoolSizeGivesTheSameImages) {
  const DecisionForest forest = testing::make_random_forest(
      21, {.trees = 3, .depth = 12, .leaf_chance = 0.1f, .max_offset = 400});
  const testing::Scene scene = testing::make_scene(5);
  Outputs reference;
  classify(forest, scene, {1}, {}, reference);
  std::set<int> labels_seen;
  for (size_t i = 0; i < reference.labels.size(); ++i) {
    if (reference.ids[i]) labels_seen.insert(reference.labels[i].label);
  }
  EXPECT_GT(labels_seen.size(), 3u) << "the random forest should not be trivial";

  auto expect_same = [&](const Outputs& out) {
    for (size_t i = 0; i < out.ids.size(); ++i) {
      ASSERT_EQ(out.ids[i], reference.ids[i]) << i;
      ASSERT_EQ(out.labels[i].label, reference.labels[i].label) << i;
      ASSERT_EQ(out.labels[i].probability, reference.labels[i].probability) << i;
    }
    ASSERT_EQ(out.score, reference.score);
  };
  const uint32_t features = detect_cpu_features();
  for (const ArchVariant& build : arch_variants()) {
    if ((build.required & ~features) != 0) continue;
    SCOPED_TRACE(build.name);
    ScopedKernelOverride forced(build.entry);
    Outputs out;
    classify(forest, scene, {1}, {}, out);
    expect_same(out);
  }
  for (uint64_t workers : {1u, 3u, 5u}) {
    SCOPED_TRACE(workers);
    op::ThreadPool other(workers);
    Outputs out;
    classify(forest, scene, {1}, {}, out, &other, 1);
    expect_same(out);
  }
}

}  // namespace
}  // namespace quorvik::skeleton
