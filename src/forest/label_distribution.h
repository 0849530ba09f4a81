#pragma once
// One leaf's answer of a decision tree: a probability for each of the 32 body-part
// labels, with a cached arg-max. Also serves as the per-pixel accumulator when the
// trees' answers are combined.

#include <cstdint>

namespace quorvik::skeleton {

inline constexpr uint32_t kLabelCount = 32;
// best_label value meaning "arg-max not computed since the last change".
inline constexpr uint8_t kBestLabelUnknown = 255;

struct LabelDistribution {
  float probability[kLabelCount] = {};
  uint8_t best_label = kBestLabelUnknown;
  float best_probability = 0.f;

  void clear();
  // Element-wise sum; the caller keeps the order of additions fixed so that sums are
  // reproducible in single precision.
  void add(const LabelDistribution& other);
  float get(uint8_t label) const { return probability[label]; }
  // Ties go to the lowest label; an all-zero distribution yields label 0.
  void compute_best();
  // Scales by 1/count (one rounded reciprocal) when count > 1, then computes the arg-max.
  void average(uint32_t count);
};

}  // namespace quorvik::skeleton
