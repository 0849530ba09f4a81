#pragma once
// Per-pixel accuracy of a forest on held-out simulated people, classified by the library's
// own classifier (coarse-to-fine schedule included) with each person's true mask as the
// user's pixels.

#include <array>
#include <cstdint>
#include <string>

#include "forest/decision_forest.h"
#include "forest/label_distribution.h"

namespace quorvik::train {

struct HeldOutOptions {
  uint64_t firstSeed = 1;  // training seeds start at 1,000,000
  uint32_t scenarios = 40;
  uint32_t framesPerScenario = 8;
  uint32_t frameStep = 17;
  uint32_t threads = 2;
  float maxTurnDegrees = 70.f;  // people turned further from the camera are not scored
};

struct ForestScore {
  // confusion[truth][predicted] in pixels; every true person pixel counts, a pixel the
  // classifier left without a part counts as predicted 0.
  std::array<std::array<uint64_t, skeleton::kLabelCount>, skeleton::kLabelCount> confusion{};
  uint32_t frames = 0;
  uint32_t people = 0;
  uint32_t turnedAway = 0;  // people left out for facing away

  uint64_t total() const;
  double accuracy() const;           // over all true part pixels (labels 2 to 27)
  double recall(uint8_t label) const;     // NaN when the label never occurs
  double precision(uint8_t label) const;  // NaN when never predicted
  double min_part_recall(uint8_t* worst = nullptr) const;  // over labels 2 to 27 that occur
};

ForestScore evaluate_forest(const skeleton::DecisionForest& forest, const HeldOutOptions& options);

// A table: overall accuracy, per-label recall and precision, and the worst confusions.
std::string format_score(const ForestScore& score);
// The whole confusion matrix, rows (truth) in percent of the row, labels 0 to 27.
std::string format_confusion(const ForestScore& score);

}  // namespace quorvik::train
