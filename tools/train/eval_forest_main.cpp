// qbt-eval-forest: per-pixel body-part accuracy of a data file on held-out simulated people.

#include <cmath>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "forest/forest_reader.h"
#include "forest_eval.h"

using namespace quorvik::train;

int main(int argc, char** argv) {
  CLI::App app{"Scores a data file's forest on held-out simulated people (seeds training never uses)."};
  std::string path;
  HeldOutOptions o;
  o.threads = std::max(1u, std::thread::hardware_concurrency());
  double minAccuracy = 0, minRecall = 0;
  bool confusion = false;
  app.add_option("DATAFILE", path, "forest data file")->required();
  app.add_option("--seed", o.firstSeed, "first held-out scenario seed")->capture_default_str();
  app.add_option("--scenarios", o.scenarios, "held-out scenarios")->capture_default_str();
  app.add_option("--frames-per-scenario", o.framesPerScenario, "frames scored per scenario")->capture_default_str();
  app.add_option("--max-turn", o.maxTurnDegrees, "score only people turned at most this far from the camera (degrees)")
      ->capture_default_str();
  app.add_option("--threads", o.threads, "classifier threads")->capture_default_str();
  app.add_option("--min-accuracy", minAccuracy, "exit 3 when the pixel accuracy (percent) is lower");
  app.add_option("--min-recall", minRecall, "exit 3 when any part's recall (percent) is lower");
  app.add_flag("--confusion", confusion, "also print the whole confusion matrix");
  CLI11_PARSE(app, argc, argv);

  auto loaded = quorvik::skeleton::load_forest(path);
  if (loaded.is_error()) {
    fmt::print(stderr, "qbt-eval-forest: cannot read the forest in {} (error {})\n", path,
               static_cast<uint32_t>(*loaded.error()));
    return 2;
  }
  const quorvik::skeleton::DecisionForest forest = loaded.unwrap();
  const ForestScore score = evaluate_forest(forest, o);
  fmt::print("{}", format_score(score));
  if (confusion) fmt::print("\n{}", format_confusion(score));
  const double accuracy = 100 * score.accuracy();
  const double recall = 100 * score.min_part_recall();
  if (!(accuracy >= minAccuracy) || !(recall >= minRecall)) {
    fmt::print(stderr, "qbt-eval-forest: below the floor (accuracy {:.1f}% < {} or lowest recall {:.1f}% < {})\n",
               accuracy, minAccuracy, recall, minRecall);
    return 3;
  }
  return 0;
}
