#pragma once
// Per-pixel result of body-part classification. The classifier writes it and the skeleton
// fitting reads it, so it sits below both.

#include <cstdint>

namespace quorvik::skeleton {

struct PixelLabel {
  uint8_t label = 0;        // body-part label 0..31
  float probability = 0.f;  // averaged probability of that label
};
static_assert(sizeof(PixelLabel) == 8);

}  // namespace quorvik::skeleton
