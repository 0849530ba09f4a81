// qbt-train: trains the body-part forest on simulated people and writes the data file.

#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "forest/forest_writer.h"
#include "forest_eval.h"
#include "forest_trainer.h"
#include "progress.h"

using namespace quorvik::train;

namespace {

uint32_t tree_depth(const quorvik::skeleton::DecisionTree& tree, uint32_t node = 0) {
  const auto& n = tree.nodes[node];
  if (n.is_leaf) return 0;
  const auto first = static_cast<uint32_t>(n.target);
  return 1 + std::max(tree_depth(tree, first), tree_depth(tree, first + 1));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Trains the body-part decision forest on simulated people and writes the data file."};
  std::string out;
  SetOptions set;
  ForestOptions forest;
  uint32_t threads = std::max(1u, std::thread::hardware_concurrency());
  uint32_t evalScenarios = 0;
  app.add_option("--out", out, "data file to write")->required();
  app.add_option("--frames", set.frames, "simulated frames in the training set")->capture_default_str();
  app.add_option("--seed", set.firstSeed, "first scenario seed (training uses seeds from 1000000 up)")->capture_default_str();
  app.add_option("--frames-per-scenario", set.framesPerScenario, "frames taken from each scenario")->capture_default_str();
  app.add_option("--per-label", set.perLabel, "pixels kept per body part and person")->capture_default_str();
  app.add_option("--max-turn", set.maxTurnDegrees, "train only on people turned at most this far from the camera (degrees)")
      ->capture_default_str();
  app.add_option("--trees", forest.trees, "trees in the forest")->capture_default_str();
  app.add_option("--depth", forest.tree.maxDepth, "maximum tree depth")->capture_default_str();
  app.add_option("--candidates", forest.tree.offsetCandidates, "probe offset pairs tried per node")->capture_default_str();
  app.add_option("--thresholds", forest.tree.thresholds, "thresholds tried per candidate")->capture_default_str();
  app.add_option("--min-split", forest.tree.minSplit, "nodes with fewer samples become leaves")->capture_default_str();
  app.add_option("--min-leaf", forest.tree.minLeaf, "samples each child of a split must keep")->capture_default_str();
  app.add_option("--node-subsample", forest.tree.nodeSubsample, "samples that choose a big node's split")->capture_default_str();
  app.add_option("--max-offset", forest.tree.maxOffset, "largest probe offset")->capture_default_str();
  app.add_option("--tree-seed", forest.tree.seed, "seed of the trees' random choices")->capture_default_str();
  app.add_option("--work", forest.workDir, "folder that keeps finished trees; a rerun resumes from it");
  app.add_option("--threads", threads, "worker threads")->capture_default_str();
  app.add_option("--eval-scenarios", evalScenarios, "afterwards, score the forest on this many held-out scenarios");
  CLI11_PARSE(app, argc, argv);
  set.threads = threads;
  forest.tree.threads = threads;
  forest.fingerprint = fmt::format(
      "frames {} seed {} per-scenario {} step {} per-label {} min-pixels {} max-turn {}\n"
      "depth {} candidates {} thresholds {} min-split {} min-leaf {} subsample {} max-offset {} prune {} "
      "kinds {} tree-seed {}\n",
      set.frames, set.firstSeed, set.framesPerScenario, set.frameStep, set.perLabel, set.minPixels, set.maxTurnDegrees,
      forest.tree.maxDepth, forest.tree.offsetCandidates, forest.tree.thresholds, forest.tree.minSplit,
      forest.tree.minLeaf, forest.tree.nodeSubsample, forest.tree.maxOffset, forest.tree.pruneBelow,
      forest.tree.statisticKinds, forest.tree.seed);

  try {
    const auto start = std::chrono::steady_clock::now();
    auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    Progress rendering("rendering", set.frames);
    const TrainingSet data = make_training_set(set, [&](uint32_t done, uint32_t) { rendering.update(done); });
    rendering.finish();
    fmt::print(stderr, "training set: {} frames, {} person images, {} samples ({})\n", data.frames,
               data.images.size(), data.samples.size(), format_seconds(seconds()));

    std::unique_ptr<Progress> bar;
    const auto forestDone = train_forest(data, forest, [&](const ForestProgress& p) {
      if (p.resumed) {
        fmt::print(stderr, "tree {}/{}: read back from {}\n", p.tree + 1, forest.trees, forest.workDir);
      } else if (!p.level) {
        if (bar) bar->finish();
        bar = std::make_unique<Progress>(fmt::format("tree {}/{}", p.tree + 1, forest.trees), 1.0);
      } else {
        // Every level costs about the same, until the samples have all reached leaves.
        const double byDepth = (p.level->depth + 1.0) / (forest.tree.maxDepth + 1.0);
        const double bySamples = static_cast<double>(p.level->samplesDone) / std::max<uint64_t>(p.level->samplesTotal, 1);
        bar->update(std::max(byDepth, bySamples));
      }
    });
    if (bar) bar->finish();

    if (!quorvik::skeleton::write_forest_file(forestDone, out)) {
      fmt::print(stderr, "qbt-train: cannot write {}\n", out);
      return 2;
    }
    for (size_t t = 0; t < forestDone.tree_count(); ++t) {
      const auto& tree = forestDone.tree(t);
      fmt::print(stderr, "tree {}: {} nodes, {} leaves, depth {}\n", t + 1, tree.nodes.size(),
                 tree.distributions.size(), tree_depth(tree));
    }
    fmt::print(stderr, "wrote {} in {}\n", out, format_seconds(seconds()));
    if (evalScenarios > 0) {
      HeldOutOptions held;
      held.scenarios = evalScenarios;
      held.threads = threads;
      fmt::print("{}", format_score(evaluate_forest(forestDone, held)));
    }
  } catch (const std::exception& e) {
    fmt::print(stderr, "qbt-train: {}\n", e.what());
    return 1;
  }
  return 0;
}
