#pragma once
// The questions a split node asks about a pixel: the depth difference of two probes
// (kind 0, evaluated inside the tree kernels) and twelve image-level kinds that read the
// user's statistics.

#include <cstdint>
#include <vector>

#include "classifier/user_statistics.h"

namespace quorvik::skeleton {

// Per-pixel flag byte.
enum PixelFlags : uint8_t {
  kTargetPixel = 1,   // to be classified in this pass
  kContextPixel = 2,  // its depth may be read by a probe
};

// The depth a probe sees off the context box or on a pixel that is not context.
inline constexpr float kBackgroundDepth = 10000.0f;

enum class FeatureKind : uint8_t {
  Offset = 0,
  RadialDistance = 1,
  RelativeX = 2,
  RelativeY = 3,
  XOverHeight = 4,
  YOverHeight = 5,
  WidthRatio = 6,
  HeightRatio = 7,
  Border = 8,
  TopEdge = 9,
  BottomEdge = 10,
  LeftEdge = 11,
  RightEdge = 12,
};

// Kinds 1 to 12. Throws std::logic_error for kind 0 and for kinds above 12.
float get_frame_feature_value(uint8_t kind, int32_t x, int32_t y, const UserStatistics& s);

// Kinds 1 to 12 of one user's statistics over a whole frame. Kinds 2 to 5 depend on the
// column or the row alone, kind 1 on one term of each and 6 to 12 on neither, so a walk
// that asks them many times of every pixel reads them here instead of computing them.
struct FeatureTable {
  std::vector<float> columns;  // per column: kind 1's x term, kinds 2 and 4
  std::vector<float> rows;     // per row: kind 1's y term, kinds 3 and 5
  float constants[7] = {};     // kinds 6 to 12
  void build(const UserStatistics& s, uint32_t width, uint32_t height);
};

// Kind 0 for one pixel, the scalar form of what the kernels compute for a batch.
struct DepthProbe {
  const int16_t* depth;  // width x height
  const uint8_t* flags;  // PixelFlags
  uint32_t width;
  uint32_t height;
  int32_t context_box[4];  // x0, y0, x1, y1, inclusive
  float scale_x;           // (width rounded down to a multiple of 4) / mean depth
  float scale_y;           // height / mean depth

  DepthProbe(const int16_t* depth, const uint8_t* flags, uint32_t width, uint32_t height,
             const int32_t* context_box, float mean_depth);
  float operator()(int32_t x, int32_t y, const int16_t offsets[4]) const;
};

}  // namespace quorvik::skeleton
