#include "forest_eval.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <fmt/format.h>

#include "classifier/frame_classifier.h"
#include "op/thread_pool.h"
#include "body.h"
#include "renderer.h"
#include "scene.h"
#include "training_set.h"

namespace quorvik::train {
namespace {

constexpr uint8_t kFirstPart = 2;
constexpr uint8_t kLastPart = 27;

}  // namespace

uint64_t ForestScore::total() const {
  uint64_t t = 0;
  for (uint8_t l = kFirstPart; l <= kLastPart; ++l) {
    for (uint64_t v : confusion[l]) t += v;
  }
  return t;
}

double ForestScore::accuracy() const {
  uint64_t right = 0;
  for (uint8_t l = kFirstPart; l <= kLastPart; ++l) right += confusion[l][l];
  const uint64_t t = total();
  return t ? static_cast<double>(right) / static_cast<double>(t) : std::numeric_limits<double>::quiet_NaN();
}

double ForestScore::recall(uint8_t label) const {
  uint64_t row = 0;
  for (uint64_t v : confusion[label]) row += v;
  return row ? static_cast<double>(confusion[label][label]) / static_cast<double>(row)
             : std::numeric_limits<double>::quiet_NaN();
}

double ForestScore::precision(uint8_t label) const {
  uint64_t column = 0;
  for (const auto& row : confusion) column += row[label];
  return column ? static_cast<double>(confusion[label][label]) / static_cast<double>(column)
                : std::numeric_limits<double>::quiet_NaN();
}

double ForestScore::min_part_recall(uint8_t* worst) const {
  double best = std::numeric_limits<double>::quiet_NaN();
  for (uint8_t l = kFirstPart; l <= kLastPart; ++l) {
    const double r = recall(l);
    if (std::isnan(r)) continue;
    if (std::isnan(best) || r < best) {
      best = r;
      if (worst) *worst = l;
    }
  }
  return best;
}

ForestScore evaluate_forest(const skeleton::DecisionForest& forest, const HeldOutOptions& o) {
  ForestScore score;
  op::ThreadPool pool(std::max(1u, o.threads));
  skeleton::FrameClassifier classifier(&forest);
  op::Image<skeleton::PixelLabel> labels(kProcessingWidth, kProcessingHeight);
  op::Image<uint8_t> userIds(kProcessingWidth, kProcessingHeight);
  op::Image<uint16_t> labelMap(kProcessingWidth, kProcessingHeight);
  op::Image<uint16_t> depth(kProcessingWidth, kProcessingHeight);
  sim::Frame frame, small;
  for (uint32_t s = 0; s < o.scenarios; ++s) {
    sim::ScenarioOptions so;
    so.name = "mixed";
    so.seed = o.firstSeed + s;
    // The other render sizes and mirroring than training uses for the same seed parity.
    so.width = s % 3 == 0 ? 640 : 320;
    so.height = s % 3 == 0 ? 480 : 240;
    so.mirrored = s % 2 == 0;
    so.frames = static_cast<int>(o.framesPerScenario * o.frameStep);
    const sim::Scenario scenario = sim::Scenario::make(so);
    sim::Renderer renderer(scenario);
    for (uint32_t f = 0; f < o.framesPerScenario; ++f) {
      renderer.render(static_cast<int>(f * o.frameStep + o.frameStep / 2), frame);
      sim::reduce_to(frame, kProcessingWidth, kProcessingHeight, small);
      ++score.frames;
      std::copy(small.depth.data(), small.depth.data() + small.depth.size(), depth.data());
      for (size_t i = 0; i < labelMap.size(); ++i) labelMap[i] = small.ids[i];
      for (const sim::PersonTruth& person : small.people) {
        uint32_t pixels = 0;
        for (size_t i = 0; i < small.ids.size(); ++i) pixels += small.ids[i] == person.id && small.depth[i] != 0;
        if (pixels < 40) continue;
        if (turn_from_camera(person) > o.maxTurnDegrees) {
          ++score.turnedAway;
          continue;
        }
        ++score.people;
        labels.fill(skeleton::PixelLabel{});
        userIds.fill(0);
        const uint16_t own[1] = {person.id};
        float mean = 0;
        skeleton::RegionBox region;
        const skeleton::UserStatistics stats = skeleton::computeUserStatistics(depth, labelMap, own, {});
        classifier.classify_segments(depth, labelMap, stats, own, own, labels, userIds, mean, region, pool);
        for (size_t i = 0; i < small.ids.size(); ++i) {
          if (small.ids[i] != person.id || small.depth[i] == 0) continue;
          const uint8_t truth = small.labels[i];
          const uint8_t predicted = userIds[i] != 0 ? labels[i].label : 0;
          ++score.confusion[truth][predicted];
        }
      }
    }
  }
  return score;
}

std::string format_score(const ForestScore& s) {
  std::string out = fmt::format("held-out: {} frames, {} people ({} more turned away, not scored), {} part pixels\n",
                                s.frames, s.people, s.turnedAway, s.total());
  out += fmt::format("pixel accuracy (labels 2-27): {:.1f}%\n", 100.0 * s.accuracy());
  uint8_t worst = 0;
  const double minRecall = s.min_part_recall(&worst);
  out += fmt::format("lowest part recall: {:.1f}% ({})\n\n", 100.0 * minRecall, sim::label_name(worst));
  out += fmt::format("{:>5}  {:<16} {:>9} {:>8} {:>9}  {}\n", "label", "part", "pixels", "recall", "precision",
                     "most often taken for");
  for (uint8_t l = 1; l <= kLastPart; ++l) {
    uint64_t row = 0;
    for (uint64_t v : s.confusion[l]) row += v;
    if (row == 0) continue;
    uint8_t other = 0;
    uint64_t otherCount = 0;
    for (uint8_t p = 0; p < skeleton::kLabelCount; ++p) {
      if (p != l && s.confusion[l][p] > otherCount) {
        other = p;
        otherCount = s.confusion[l][p];
      }
    }
    out += fmt::format("{:>5}  {:<16} {:>9} {:>7.1f}% {:>8.1f}%  {} ({:.1f}%)\n", l, sim::label_name(l), row,
                       100.0 * s.recall(l), 100.0 * s.precision(l), sim::label_name(other),
                       100.0 * static_cast<double>(otherCount) / static_cast<double>(row));
  }
  return out;
}

std::string format_confusion(const ForestScore& s) {
  std::string out = "truth \\ predicted, percent of the row (0: left without a part)\n     ";
  for (uint8_t p = 0; p <= kLastPart; ++p) out += fmt::format("{:>4}", p);
  out += "\n";
  for (uint8_t l = 1; l <= kLastPart; ++l) {
    uint64_t row = 0;
    for (uint64_t v : s.confusion[l]) row += v;
    if (row == 0) continue;
    out += fmt::format("{:>4} ", l);
    for (uint8_t p = 0; p <= kLastPart; ++p) {
      const double share = 100.0 * static_cast<double>(s.confusion[l][p]) / static_cast<double>(row);
      out += share >= 0.5 ? fmt::format("{:>4.0f}", share) : std::string("   .");
    }
    out += "\n";
  }
  return out;
}

}  // namespace quorvik::train
