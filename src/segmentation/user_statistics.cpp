#include "segmentation/user_statistics.h"

#include <algorithm>
#include <vector>

namespace quorvik::skeleton {

UserStatistics computeUserStatistics(const op::Image<uint16_t>& depth,
                                     const op::Image<uint16_t>& labelMap,
                                     std::span<const uint16_t> labels,
                                     std::span<const uint16_t> candidateLabels) {
  std::vector<uint16_t> ids(labels.begin(), labels.end());
  ids.insert(ids.end(), candidateLabels.begin(), candidateLabels.end());
  const uint32_t width = depth.width();
  const uint32_t height = depth.height();
  auto is_user = [&](uint32_t x, uint32_t y) {
    if (depth.at(x, y) == 0) return false;
    return std::find(ids.begin(), ids.end(), labelMap.at(x, y)) != ids.end();
  };

  uint32_t count = 0;
  float sum_x = 0.f, sum_y = 0.f, sum_depth = 0.f;
  int32_t min_x = static_cast<int32_t>(width), min_y = static_cast<int32_t>(height);
  int32_t max_x = 0, max_y = 0;
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      if (!is_user(x, y)) continue;
      ++count;
      sum_x += static_cast<float>(x);
      sum_y += static_cast<float>(y);
      sum_depth += static_cast<float>(depth.at(x, y));
      min_x = std::min(min_x, static_cast<int32_t>(x));
      min_y = std::min(min_y, static_cast<int32_t>(y));
      max_x = std::max(max_x, static_cast<int32_t>(x));
      max_y = std::max(max_y, static_cast<int32_t>(y));
    }
  }

  uint32_t top = 0, bottom = 0, left = 0, right = 0;
  if (width > 0 && height > 0) {
    for (uint32_t x = 0; x < width; ++x) {
      top += is_user(x, 0);
      bottom += is_user(x, height - 1);
    }
    for (uint32_t y = 0; y < height; ++y) {
      left += is_user(0, y);
      right += is_user(width - 1, y);
    }
  }
  const uint32_t border = top + bottom + left + right;

  UserStatistics s{};
  s.imageWidth = width;
  s.imageHeight = height;
  s.pixelCount = count;
  const float fw = static_cast<float>(width);
  const float fh = static_cast<float>(height);
  if (count > 0) {
    const float n = static_cast<float>(count);
    s.meanX = sum_x / n;
    s.meanY = sum_y / n;
    s.meanDepth = sum_depth / n / 1000.f;
    s.width = max_x - min_x + 1;
    s.height = max_y - min_y + 1;
    s.halfExtentX = std::max(static_cast<float>(max_x) - s.meanX,
                             s.meanX - static_cast<float>(min_x)) + 1.f;
    s.halfExtentY = std::max(static_cast<float>(max_y) - s.meanY,
                             s.meanY - static_cast<float>(min_y)) + 1.f;
  }
  s.centerX = min_x + s.width / 2;
  s.centerY = min_y + s.height / 2;
  if (width > 0) {
    s.relativeWidth = static_cast<float>(s.width) / fw;
    s.topEdgeFraction = static_cast<float>(top) / fw;
    s.bottomEdgeFraction = static_cast<float>(bottom) / fw;
  }
  if (height > 0) {
    s.relativeHeight = static_cast<float>(s.height) / fh;
    s.leftEdgeFraction = static_cast<float>(left) / fh;
    s.rightEdgeFraction = static_cast<float>(right) / fh;
  }
  if (width + height > 0) {
    s.borderFraction = static_cast<float>(border) / (2.f * static_cast<float>(width + height));
  }
  return s;
}

}  // namespace quorvik::skeleton
