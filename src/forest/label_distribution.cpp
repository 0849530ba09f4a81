#include "forest/label_distribution.h"

namespace quorvik::skeleton {

void LabelDistribution::clear() {
  for (float& p : probability) p = 0.f;
  best_label = kBestLabelUnknown;
}

void LabelDistribution::add(const LabelDistribution& other) {
  for (uint32_t i = 0; i < kLabelCount; ++i) probability[i] += other.probability[i];
  best_label = kBestLabelUnknown;
}

void LabelDistribution::compute_best() {
  if (best_label < kLabelCount) return;
  uint8_t best = 0;
  float best_value = probability[0];
  for (uint32_t i = 1; i < kLabelCount; ++i) {
    if (probability[i] > best_value) {
      best = static_cast<uint8_t>(i);
      best_value = probability[i];
    }
  }
  best_label = best;
  best_probability = best_value;
}

void LabelDistribution::average(uint32_t count) {
  if (count > 1) {
    const float scale = 1.0f / static_cast<float>(count);
    for (float& p : probability) p *= scale;
    best_label = kBestLabelUnknown;
  }
  compute_best();
}

}  // namespace quorvik::skeleton
