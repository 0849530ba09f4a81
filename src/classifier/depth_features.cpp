#include "classifier/depth_features.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace quorvik::skeleton {

namespace {
#include "classifier/arch/probe_math.inc"
}  // namespace

void FeatureTable::build(const UserStatistics& s, uint32_t width, uint32_t height) {
  // The same expressions as get_frame_feature_value's, so the same roundings.
  // Per column and per row: position against the user's mean, the same shifted by a half, and
  // position against the image height.
  auto fill = [&](std::vector<float>& out, uint32_t n, float mean, float halfExtent) {
    out.resize(size_t{n} * 3);
    for (uint32_t i = 0; i < n; ++i) {
      const float f = static_cast<float>(i);
      out[3 * i] = (f - mean) * 0.5f / halfExtent;
      out[3 * i + 1] = (f - mean) * 0.5f / halfExtent + 0.5f;
      out[3 * i + 2] = f / static_cast<float>(s.imageHeight);
    }
  };
  fill(columns, width, s.meanX, s.halfExtentX);
  fill(rows, height, s.meanY, s.halfExtentY);
  const float fixed[7] = {s.relativeWidth,      s.relativeHeight,   s.borderFraction,   s.topEdgeFraction,
                          s.bottomEdgeFraction, s.leftEdgeFraction, s.rightEdgeFraction};
  std::copy(fixed, fixed + 7, constants);
}

float get_frame_feature_value(uint8_t kind, int32_t x, int32_t y, const UserStatistics& s) {
  const float fx = static_cast<float>(x);
  const float fy = static_cast<float>(y);
  switch (static_cast<FeatureKind>(kind)) {
    case FeatureKind::Offset:
      throw std::logic_error("get_frame_feature_value() doesn't support Offset features");
    case FeatureKind::RadialDistance: {
      const float dx = (fx - s.meanX) * 0.5f / s.halfExtentX;
      const float dy = (fy - s.meanY) * 0.5f / s.halfExtentY;
      const float dx2 = dx * dx;
      const float dy2 = dy * dy;
      return std::sqrt(dx2 + dy2);
    }
    case FeatureKind::RelativeX: return (fx - s.meanX) * 0.5f / s.halfExtentX + 0.5f;
    case FeatureKind::RelativeY: return (fy - s.meanY) * 0.5f / s.halfExtentY + 0.5f;
    // Both coordinates are measured in image heights.
    case FeatureKind::XOverHeight: return fx / static_cast<float>(s.imageHeight);
    case FeatureKind::YOverHeight: return fy / static_cast<float>(s.imageHeight);
    case FeatureKind::WidthRatio: return s.relativeWidth;
    case FeatureKind::HeightRatio: return s.relativeHeight;
    case FeatureKind::Border: return s.borderFraction;
    case FeatureKind::TopEdge: return s.topEdgeFraction;
    case FeatureKind::BottomEdge: return s.bottomEdgeFraction;
    case FeatureKind::LeftEdge: return s.leftEdgeFraction;
    case FeatureKind::RightEdge: return s.rightEdgeFraction;
  }
  throw std::logic_error("Unsupported feature type");
}

DepthProbe::DepthProbe(const int16_t* depth_, const uint8_t* flags_, uint32_t width_,
                       uint32_t height_, const int32_t* box, float mean_depth)
    : depth(depth_), flags(flags_), width(width_), height(height_),
      context_box{box[0], box[1], box[2], box[3]},
      scale_x(static_cast<float>(width_ & ~3u) / mean_depth),
      scale_y(static_cast<float>(height_) / mean_depth) {}

float DepthProbe::operator()(int32_t x, int32_t y, const int16_t offsets[4]) const {
  const uint32_t w4 = width & ~3u;
  auto probe = [&](int16_t ox, int16_t oy) {
    const int32_t px = add_wrapping(x, truncate_to_i32(static_cast<float>(ox) * scale_x));
    const int32_t py = add_wrapping(y, truncate_to_i32(static_cast<float>(oy) * scale_y));
    if (px < context_box[0] || px > context_box[2] || py < context_box[1] ||
        py > context_box[3]) {
      return kBackgroundDepth;
    }
    const uint32_t i = static_cast<uint32_t>(py) * w4 + static_cast<uint32_t>(px);
    return (flags[i] & kContextPixel) ? static_cast<float>(depth[i]) : kBackgroundDepth;
  };
  return probe(offsets[0], offsets[1]) - probe(offsets[2], offsets[3]);
}

}  // namespace quorvik::skeleton
