#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "classifier/depth_features.h"
#include "forest/forest_reader.h"
#include "forest/forest_writer.h"
#include "forest/input_stream.h"
#include "forest_eval.h"
#include "forest_trainer.h"
#include "renderer.h"
#include "scene.h"
#include "sim_math.h"
#include "training_set.h"
#include "tree_trainer.h"

namespace quorvik::train {
namespace {

using skeleton::DecisionForest;
using skeleton::DecisionTree;

SetOptions small_set(uint32_t frames, uint32_t threads = 2) {
  return {.frames = frames, .framesPerScenario = 5, .threads = threads};
}

TreeOptions small_tree() { return {.maxDepth = 8, .offsetCandidates = 40, .thresholds = 8, .threads = 2}; }

std::vector<uint8_t> bytes_of(DecisionTree tree) {
  std::vector<std::unique_ptr<DecisionTree>> trees;
  trees.push_back(std::make_unique<DecisionTree>(std::move(tree)));
  return skeleton::write_forest_bytes(DecisionForest(std::move(trees)));
}

std::vector<uint32_t> all_samples(const TrainingSet& set) {
  std::vector<uint32_t> s(set.samples.size());
  for (uint32_t i = 0; i < s.size(); ++i) s[i] = i;
  return s;
}

// The trainer must see exactly the values the classifier will compute, or the learned
// thresholds mean nothing at run time.
TEST(TrainingSet, ProbeImagesAgreeWithTheClassifiersProbe) {
  const sim::Scenario scenario = sim::Scenario::make({.name = "crossing", .frames = 60, .seed = 3});
  sim::Renderer renderer(scenario);
  sim::Frame frame, small;
  sim::Rng rng(5);
  int people = 0;
  for (int f : {20, 40, 59}) {
    renderer.render(f, frame);
    sim::reduce_to(frame, kProcessingWidth, kProcessingHeight, small);
    for (const sim::PersonTruth& person : small.people) {
      std::vector<uint8_t> mask(small.ids.size()), flags(small.ids.size());
      for (size_t i = 0; i < mask.size(); ++i) {
        mask[i] = small.ids[i] == person.id && small.depth[i] != 0;
        flags[i] = mask[i] ? skeleton::kContextPixel : 0;
      }
      ProbeImage image;
      if (!make_probe_image(small.depth.data(), mask.data(), image)) continue;
      ++people;
      std::vector<int16_t> depth(small.depth.size());
      for (size_t i = 0; i < depth.size(); ++i) depth[i] = static_cast<int16_t>(small.depth[i]);
      const skeleton::DepthProbe probe(depth.data(), flags.data(), kProcessingWidth, kProcessingHeight, image.box,
                                       image.meanDepth);
      for (int k = 0; k < 3000; ++k) {
        const int32_t x = rng.integer(image.box[0], image.box[2]);
        const int32_t y = rng.integer(image.box[1], image.box[3]);
        const int16_t offsets[4] = {static_cast<int16_t>(rng.integer(-1500, 1500)),
                                    static_cast<int16_t>(rng.integer(-1500, 1500)),
                                    static_cast<int16_t>(k % 2 ? 0 : rng.integer(-300, 300)),
                                    static_cast<int16_t>(k % 2 ? 0 : rng.integer(-300, 300))};
        SCOPED_TRACE(testing::Message() << "frame " << f << " person " << int{person.id} << " at " << x << ","
                                        << y << " offsets " << offsets[0] << "," << offsets[1] << ","
                                        << offsets[2] << "," << offsets[3]);
        ASSERT_EQ(image.probe(x, y, offsets), probe(x, y, offsets));
      }
    }
  }
  EXPECT_GE(people, 4);
}

TEST(TrainingSet, KeepsAFewPixelsOfEveryPartAndWeighsPartsEqually) {
  const TrainingSet set = make_training_set(small_set(30));
  ASSERT_GT(set.images.size(), 10u);
  ASSERT_EQ(set.firstSample.size(), set.images.size() + 1);
  ASSERT_EQ(set.firstSample.back(), set.samples.size());
  std::array<uint32_t, 32> perImage{};
  for (uint32_t image = 0; image < set.images.size(); ++image) {
    perImage.fill(0);
    for (uint32_t s = set.firstSample[image]; s < set.firstSample[image + 1]; ++s) {
      const Sample& sample = set.samples[s];
      ASSERT_EQ(sample.image, image);
      ASSERT_GE(sample.label, 1);
      ASSERT_LE(sample.label, 27);
      // A sample is a pixel of its person.
      const ProbeImage& p = set.images[image];
      ASSERT_GE(sample.x, p.box[0]);
      ASSERT_LE(sample.x, p.box[2]);
      const int16_t none[4] = {0, 0, 0, 0};
      const int16_t left[4] = {0, 0, 1, 0};
      ASSERT_EQ(p.probe(sample.x, sample.y, none), 0.f);
      ASSERT_LT(p.probe(sample.x, sample.y, left) + skeleton::kBackgroundDepth, 2 * skeleton::kBackgroundDepth);
      ASSERT_LE(++perImage[sample.label], 6u);
    }
  }
  const std::vector<uint32_t> samples = all_samples(set);
  const auto weights = balanced_weights(set, samples);
  std::array<double, 32> total{};
  for (uint32_t s : samples) total[set.samples[s].label] += weights[set.samples[s].label];
  const auto present = static_cast<double>(std::count_if(total.begin(), total.end(), [](double t) { return t > 0; }));
  EXPECT_GE(present, 20);
  for (uint8_t l = 0; l < 32; ++l) {
    SCOPED_TRACE(int{l});
    if (total[l] > 0) {
      EXPECT_NEAR(total[l], static_cast<double>(samples.size()) / present, 1e-3 * static_cast<double>(samples.size()));
    }
  }
  // Same options, same set, whatever the number of threads.
  const TrainingSet again = make_training_set(small_set(30, 1));
  ASSERT_EQ(again.samples.size(), set.samples.size());
  for (size_t i = 0; i < set.samples.size(); ++i) {
    ASSERT_EQ(again.samples[i].x, set.samples[i].x);
    ASSERT_EQ(again.samples[i].label, set.samples[i].label);
  }
}

// A tree read back from the data file sends every training sample to the leaf the trainer
// put it in, and the leaves hold what the samples there say.
TEST(TreeTrainer, WrittenTreeRoutesEverySampleToItsTrainingLeaf) {
  const TrainingSet set = make_training_set(small_set(40));
  const std::vector<uint32_t> samples = all_samples(set);
  std::vector<uint32_t> leafOf;
  const DecisionTree tree = train_tree(set, samples, balanced_weights(set, samples), small_tree(), {}, &leafOf);
  const std::vector<uint8_t> bytes = bytes_of(tree);
  TreeOptions other = small_tree();
  other.seed = 2;
  EXPECT_NE(bytes_of(train_tree(set, samples, balanced_weights(set, samples), other)), bytes);
  op::MemoryInputStream stream(bytes.data(), bytes.size());
  auto parsed = skeleton::ForestReader().parse(stream);
  ASSERT_TRUE(parsed.is_ok());
  const DecisionForest forest = parsed.unwrap();
  const DecisionTree& read = forest.tree(0);
  ASSERT_EQ(read.nodes.size(), tree.nodes.size());

  uint32_t right = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    const Sample& s = set.samples[samples[i]];
    const uint32_t leaf = skeleton::descend(read, [&](const skeleton::TreeNode& node) {
      return feature_value(set, s, node.kind, node.offsets);
    });
    ASSERT_EQ(leaf, leafOf[i]) << "sample " << i;
    skeleton::LabelDistribution d = read.leaf_distribution(read.nodes[leaf]);
    d.compute_best();
    right += d.best_label == s.label;
  }
  // Eight levels over a few thousand samples: the training pixels are mostly told apart.
  EXPECT_GT(right, samples.size() / 2);
  uint32_t leaves = 0;
  for (const auto& node : read.nodes) leaves += node.is_leaf;
  EXPECT_EQ(leaves, read.distributions.size());
  for (const auto& d : read.distributions) {
    float sum = 0;
    for (float p : d.probability) sum += p;
    EXPECT_NEAR(sum, 1.f, 1e-3f);
  }
}

TEST(TreeTrainer, SeparatesSeparableLabelsWhateverTheThreadCount) {
  // Hand-made people: flat boards at several places and depths whose left half is label 2
  // and right half label 4.
  TrainingSet set;
  for (uint32_t i = 0; i < 20; ++i) {
    std::vector<uint16_t> depth(kProcessingWidth * kProcessingHeight, 0);
    std::vector<uint8_t> mask(depth.size(), 0);
    const uint32_t x0 = 40 + i, x1 = x0 + 40;
    for (uint32_t y = 20; y < 100; ++y) {
      for (uint32_t x = x0; x < x1; ++x) {
        depth[y * kProcessingWidth + x] = static_cast<uint16_t>(2000 + 20 * i);
        mask[y * kProcessingWidth + x] = 1;
      }
    }
    ProbeImage image;
    ASSERT_TRUE(make_probe_image(depth.data(), mask.data(), image));
    set.firstSample.push_back(static_cast<uint32_t>(set.samples.size()));
    for (uint32_t y = 22; y < 98; y += 5) {
      for (uint32_t x = x0; x < x1; x += 3) {
        set.samples.push_back(Sample{i, static_cast<uint8_t>(x), static_cast<uint8_t>(y),
                                     static_cast<uint8_t>(x < x0 + 20 ? 2 : 4)});
      }
    }
    set.images.push_back(std::move(image));
  }
  set.firstSample.push_back(static_cast<uint32_t>(set.samples.size()));
  const std::vector<uint32_t> samples = all_samples(set);
  TreeOptions o = small_tree();
  o.thresholds = 24;
  std::vector<uint32_t> leafOf;
  const DecisionTree tree = train_tree(set, samples, balanced_weights(set, samples), o, {}, &leafOf);
  for (size_t i = 0; i < samples.size(); ++i) {
    const auto& leaf = tree.leaf_distribution(tree.nodes[leafOf[i]]);
    ASSERT_EQ(leaf.best_label, set.samples[i].label) << "sample " << i;
  }
  o.threads = 1;
  EXPECT_EQ(bytes_of(train_tree(set, samples, balanced_weights(set, samples), o)), bytes_of(tree));
}

TEST(ForestTrainer, BootstrapsImagesAndResumesFromItsWorkFolder) {
  const TrainingSet set = make_training_set(small_set(20));
  const std::vector<uint32_t> a = bootstrap_samples(set, 1, 0);
  const std::vector<uint32_t> b = bootstrap_samples(set, 1, 1);
  EXPECT_NE(a, b);
  EXPECT_TRUE(std::is_sorted(a.begin(), a.end(), [&](uint32_t x, uint32_t y) {
    return set.samples[x].image < set.samples[y].image;
  }));
  // About 1 - 1/e of the images are drawn, whole.
  std::vector<uint32_t> drawn(set.images.size(), 0);
  for (uint32_t s : a) ++drawn[set.samples[s].image];
  uint32_t distinct = 0;
  for (uint32_t image = 0; image < drawn.size(); ++image) {
    const uint32_t size = set.firstSample[image + 1] - set.firstSample[image];
    if (drawn[image] == 0) continue;
    ++distinct;
    ASSERT_EQ(drawn[image] % size, 0u);
  }
  EXPECT_GT(distinct, set.images.size() / 2);
  EXPECT_LT(distinct, set.images.size());

  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "qbt_forest_trainer_test";
  std::filesystem::remove_all(dir);
  ForestOptions o{.trees = 2, .tree = small_tree(), .workDir = dir.string(), .fingerprint = "run 1"};
  o.tree.maxDepth = 5;
  std::vector<uint32_t> resumed;
  auto note = [&](const ForestProgress& p) {
    if (p.resumed) resumed.push_back(p.tree);
  };
  const std::vector<uint8_t> first = skeleton::write_forest_bytes(train_forest(set, o, note));
  EXPECT_TRUE(resumed.empty());
  std::filesystem::remove(dir / "tree-1.data");  // as if stopped during the second tree
  const std::vector<uint8_t> second = skeleton::write_forest_bytes(train_forest(set, o, note));
  EXPECT_EQ(resumed, std::vector<uint32_t>{0});
  EXPECT_EQ(first, second);
  o.fingerprint = "run 2";
  EXPECT_THROW(train_forest(set, o), std::runtime_error);
  std::filesystem::remove_all(dir);
}

TEST(ForestScore, CountsOnlyPartPixelsAndNamesTheWorstPart) {
  ForestScore s;
  s.confusion[6][6] = 90;   // head: 90 right, 10 taken for the neck
  s.confusion[6][21] = 10;
  s.confusion[2][2] = 30;   // left hand: 30 right, 20 never labelled, 50 taken for the right hand
  s.confusion[2][0] = 20;
  s.confusion[2][4] = 50;
  s.confusion[1][1] = 1000;  // carried objects are not a body part
  EXPECT_EQ(s.total(), 200u);
  EXPECT_DOUBLE_EQ(s.accuracy(), 120.0 / 200.0);
  EXPECT_DOUBLE_EQ(s.recall(6), 0.9);
  EXPECT_DOUBLE_EQ(s.precision(4), 0.0);
  EXPECT_TRUE(std::isnan(s.recall(9)));
  EXPECT_TRUE(std::isnan(s.precision(9)));
  uint8_t worst = 0;
  EXPECT_DOUBLE_EQ(s.min_part_recall(&worst), 0.3);
  EXPECT_EQ(worst, 2);
  const std::string table = format_confusion(s);
  EXPECT_NE(table.find("   2   20   .  30   .  50"), std::string::npos) << table;
}

}  // namespace
}  // namespace quorvik::train
