#pragma once
// Grows one randomized decision tree over training samples: breadth-first, each node
// choosing among random probe-offset pairs (and the per-pixel statistics kinds) with
// random thresholds by weighted information gain.

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "forest/decision_forest.h"
#include "training_set.h"

namespace quorvik::train {

struct TreeOptions {
  uint32_t maxDepth = 20;        // a tree of only the root has depth 0
  uint32_t minSplit = 40;        // nodes with fewer samples become leaves
  uint32_t minLeaf = 8;          // a split must leave each child this many samples
  uint32_t offsetCandidates = 400;
  uint32_t thresholds = 24;      // per candidate, at most 32
  uint32_t nodeSubsample = 60000;  // big nodes choose their split on a random subset
  float maxOffset = 900.f;       // probe offsets in the file's units (about 1.1 mm at the user's depth)
  float pruneBelow = 0.01f;      // leaf probabilities under this are dropped (smaller file)
  bool statisticKinds = true;    // also try the per-pixel kinds 1 to 5
  uint32_t threads = 1;
  uint64_t seed = 1;
};

struct TreeProgress {
  uint32_t depth;           // level just finished
  uint64_t samplesDone;     // samples that reached a leaf so far
  uint64_t samplesTotal;
};
using TreeProgressFn = std::function<void(const TreeProgress&)>;

// `samples` indexes set.samples (repeats allowed: a bootstrap); `weights` per label. The
// result depends only on the inputs and options.seed, not on options.threads. When `leafOf`
// is given it receives, for each entry of `samples`, the node index of its leaf.
skeleton::DecisionTree train_tree(const TrainingSet& set, const std::vector<uint32_t>& samples,
                                  const std::array<float, skeleton::kLabelCount>& weights,
                                  const TreeOptions& options, const TreeProgressFn& progress = {},
                                  std::vector<uint32_t>* leafOf = nullptr);

// Value of a split's feature for a training sample, as the classifier computes it.
float feature_value(const TrainingSet& set, const Sample& sample, uint8_t kind, const int16_t offsets[4]);

}  // namespace quorvik::train
