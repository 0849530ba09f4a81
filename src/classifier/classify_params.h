#pragma once
// Parameter block of one classification level, shared read-only by every task of the level.

#include <cstdint>
#include <vector>

#include "classifier/user_statistics.h"
#include "op/image.h"

namespace op {
class ThreadPool;
}

namespace quorvik::skeleton {

struct FeatureTable;

// User-id value written into every pixel a pass classifies or fills, so that the pass's
// pixels can be found afterwards and given their final id.
inline constexpr uint8_t kUnresolvedUser = 255;

// What the tree walk's probes read over one context box (see KernelFrame::probes), built
// once for all the levels and trees of a pass. Left empty for a box too wide for the walk's
// 16-bit position arithmetic, where the walk reads the depth and flags instead.
struct ProbeImage {
  std::vector<int16_t> values;
  int32_t stride = 0;
  // `flags` are PixelFlags; depths are read as signed 16-bit values.
  void build(const op::Image<uint16_t>& depth, const op::Image<uint8_t>& flags, const int32_t* context_box);
};

struct ClassifyParams {
  const UserStatistics* statistics = nullptr;
  op::Image<uint8_t>* working_flags = nullptr;  // only pixels with bit 0 are processed
  const int32_t* target_box = nullptr;          // x0, y0, x1, y1 inclusive: scanned region
  const int32_t* context_box = nullptr;         // x0, y0, x1, y1 inclusive: probe bounds
  uint32_t level = 0;                           // grid step 1 << level
  float mean_depth = 0.f;                       // of the target pixels
  uint8_t marker = kUnresolvedUser;
  op::ThreadPool* pool = nullptr;
  const ProbeImage* probes = nullptr;           // of this context box; null: built where needed
  const FeatureTable* features = nullptr;       // of `statistics`; null: built where needed
};

}  // namespace quorvik::skeleton
