#pragma once
// A forest of trees, each grown on its own bootstrap of the training set's person images,
// with every finished tree kept in a work folder so that a long run can be resumed.

#include <cstdint>
#include <functional>
#include <string>

#include "forest/decision_forest.h"
#include "training_set.h"
#include "tree_trainer.h"

namespace quorvik::train {

struct ForestOptions {
  uint32_t trees = 3;
  TreeOptions tree;
  std::string workDir;  // empty: nothing kept between trees
  // Identifies the run (set and tree options, not the tree count: tree t depends only on
  // them and t, so a finished run can be extended by more trees); a work folder made by
  // another run is refused instead of mixing trees of two runs.
  std::string fingerprint;
};

// Called before each tree and as each level finishes.
struct ForestProgress {
  uint32_t tree;
  bool resumed;  // the tree was read back from the work folder
  const TreeProgress* level;  // null when the tree starts or was resumed
};
using ForestProgressFn = std::function<void(const ForestProgress&)>;

// Throws std::runtime_error when the work folder belongs to another run or cannot be written.
skeleton::DecisionForest train_forest(const TrainingSet& set, const ForestOptions& options,
                                      const ForestProgressFn& progress = {});

// The sample list of tree `tree`: all samples of a bootstrap of the set's images, in image order.
std::vector<uint32_t> bootstrap_samples(const TrainingSet& set, uint64_t seed, uint32_t tree);

}  // namespace quorvik::train
