#pragma once
// The pixel box a user's classification covered: inclusive grid coordinates, or empty. The
// classifier fills it and the skeleton fitting reads it, so it sits below both.

#include <cstdint>

namespace quorvik::skeleton {

struct RegionBox {
  int32_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool empty = true;
};

}  // namespace quorvik::skeleton
