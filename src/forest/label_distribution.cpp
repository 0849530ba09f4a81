#include "forest/label_distribution.h"

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

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
#if defined(__SSE2__)
  // Every pixel of a frame ends here: the scaling and the arg-max four labels at a time.
  // The products are the same single roundings, and the first label holding the largest
  // value is the one the scalar loop keeps (probabilities are sums of non-negative
  // numbers, never NaN).
  static_assert(kLabelCount % 4 == 0);
  const __m128 scale = _mm_set1_ps(count > 1 ? 1.0f / static_cast<float>(count) : 1.0f);
  __m128 best = _mm_mul_ps(_mm_loadu_ps(probability), scale);
  _mm_storeu_ps(probability, best);
  for (uint32_t i = 4; i < kLabelCount; i += 4) {
    const __m128 p = _mm_mul_ps(_mm_loadu_ps(probability + i), scale);
    _mm_storeu_ps(probability + i, p);
    best = _mm_max_ps(best, p);
  }
  best = _mm_max_ps(best, _mm_shuffle_ps(best, best, _MM_SHUFFLE(1, 0, 3, 2)));
  best = _mm_max_ps(best, _mm_shuffle_ps(best, best, _MM_SHUFFLE(2, 3, 0, 1)));
  const float top = _mm_cvtss_f32(best);
  uint32_t label = 0;
  while (label + 1 < kLabelCount && !(probability[label] == top)) ++label;
  best_label = static_cast<uint8_t>(label);
  best_probability = probability[label];
#else
  if (count > 1) {
    const float scale = 1.0f / static_cast<float>(count);
    for (float& p : probability) p *= scale;
    best_label = kBestLabelUnknown;
  }
  compute_best();
#endif
}

}  // namespace quorvik::skeleton
