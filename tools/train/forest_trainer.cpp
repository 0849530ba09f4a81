#include "forest_trainer.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "forest/forest_reader.h"
#include "forest/forest_writer.h"
#include "sim_math.h"

namespace quorvik::train {
namespace fs = std::filesystem;

std::vector<uint32_t> bootstrap_samples(const TrainingSet& set, uint64_t seed, uint32_t tree) {
  const auto n = static_cast<uint32_t>(set.images.size());
  std::vector<uint32_t> draws(n, 0);
  sim::Rng rng(sim::mix64(seed) ^ (0xB0075EEDull + tree));
  for (uint32_t i = 0; i < n; ++i) ++draws[static_cast<uint32_t>(rng.next() % n)];
  std::vector<uint32_t> samples;
  for (uint32_t image = 0; image < n; ++image) {
    for (uint32_t k = 0; k < draws[image]; ++k) {
      for (uint32_t s = set.firstSample[image]; s < set.firstSample[image + 1]; ++s) samples.push_back(s);
    }
  }
  return samples;
}

skeleton::DecisionForest train_forest(const TrainingSet& set, const ForestOptions& o,
                                      const ForestProgressFn& progress) {
  if (!o.workDir.empty()) {
    fs::create_directories(o.workDir);
    const fs::path stamp = fs::path(o.workDir) / "run.txt";
    if (fs::exists(stamp)) {
      std::ifstream in(stamp);
      std::stringstream text;
      text << in.rdbuf();
      if (text.str() != o.fingerprint) {
        throw std::runtime_error("work folder " + o.workDir +
                                 " holds trees of a run with other options; use another folder or empty it");
      }
    } else {
      std::ofstream(stamp) << o.fingerprint;
    }
  }
  std::vector<std::unique_ptr<skeleton::DecisionTree>> trees;
  for (uint32_t t = 0; t < o.trees; ++t) {
    const fs::path chunk = o.workDir.empty() ? fs::path() : fs::path(o.workDir) / ("tree-" + std::to_string(t) + ".data");
    if (!chunk.empty() && fs::exists(chunk)) {
      auto loaded = skeleton::load_forest(chunk.string());
      if (loaded.is_ok()) {
        skeleton::DecisionForest one = loaded.unwrap();
        if (one.tree_count() == 1) {
          trees.push_back(std::make_unique<skeleton::DecisionTree>(one.tree(0)));
          if (progress) progress(ForestProgress{t, true, nullptr});
          continue;
        }
      }
    }
    if (progress) progress(ForestProgress{t, false, nullptr});
    const std::vector<uint32_t> samples = bootstrap_samples(set, o.tree.seed, t);
    TreeOptions to = o.tree;
    to.seed = sim::mix64(o.tree.seed + 7919ull * (t + 1));
    auto tree = std::make_unique<skeleton::DecisionTree>(
        train_tree(set, samples, balanced_weights(set, samples), to, [&](const TreeProgress& p) {
          if (progress) progress(ForestProgress{t, false, &p});
        }));
    if (!chunk.empty()) {
      std::vector<std::unique_ptr<skeleton::DecisionTree>> single;
      single.push_back(std::make_unique<skeleton::DecisionTree>(*tree));
      const fs::path partial = chunk.string() + ".part";
      if (!skeleton::write_forest_file(skeleton::DecisionForest(std::move(single)), partial.string())) {
        throw std::runtime_error("cannot write " + partial.string());
      }
      fs::rename(partial, chunk);  // a run killed while writing never leaves half a tree
    }
    trees.push_back(std::move(tree));
  }
  return skeleton::DecisionForest(std::move(trees));
}

}  // namespace quorvik::train
