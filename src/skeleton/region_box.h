#pragma once
// The pixel box a user's classification covered: inclusive grid coordinates, or empty.

#include <cstdint>

namespace quorvik::skeleton {

struct RegionBox {
  int32_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool empty = true;
};

}  // namespace quorvik::skeleton
