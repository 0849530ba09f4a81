#pragma once
// Depth maps, flags and statistics for the classifier tests.

#include <cstdint>
#include <random>

#include "classifier/depth_features.h"
#include "classifier/user_statistics.h"
#include "op/image.h"

namespace quorvik::skeleton::testing {

// A blob of a user: an ellipse with a depth ramp and some noise, labelled `label`, on an
// empty scene labelled 0xFFFF.
struct Scene {
  op::Image<uint16_t> depth;
  op::Image<uint16_t> labels;
};

inline Scene make_scene(uint32_t seed, uint32_t width = 160, uint32_t height = 120,
                        uint16_t label = 1, float cx = 80.f, float cy = 60.f, float rx = 22.f,
                        float ry = 45.f) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> noise(-40, 40);
  Scene s{op::Image<uint16_t>(width, height), op::Image<uint16_t>(width, height)};
  s.depth.fill(0);
  s.labels.fill(0xFFFF);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      const float dx = (static_cast<float>(x) - cx) / rx;
      const float dy = (static_cast<float>(y) - cy) / ry;
      if (dx * dx + dy * dy > 1.f) continue;
      s.depth.at(x, y) = static_cast<uint16_t>(2000 + 3 * static_cast<int>(y) + noise(rng));
      s.labels.at(x, y) = label;
    }
  }
  return s;
}

}  // namespace quorvik::skeleton::testing
