#include "classifier/user_statistics.h"

#include <algorithm>
#include <vector>

namespace quorvik::skeleton {

UserStatistics computeUserStatistics(const op::Image<uint16_t>& depth,
                                     const op::Image<uint16_t>& labelMap,
                                     std::span<const uint16_t> labels,
                                     std::span<const uint16_t> candidateLabels) {
  // Membership by table instead of a search of both lists per pixel; the table is
  // cleared again below, touching only the listed labels.
  thread_local std::vector<uint8_t> member(size_t{1} << 16, 0);
  for (uint16_t id : labels) member[id] = 1;
  for (uint16_t id : candidateLabels) member[id] = 1;
  const uint32_t width = depth.width();
  const uint32_t height = depth.height();
  auto is_user = [&](uint32_t x, uint32_t y) { return depth.at(x, y) != 0 && member[labelMap.at(x, y)] != 0; };

  uint32_t count = 0;
  float sum_x = 0.f, sum_y = 0.f, sum_depth = 0.f;
  int32_t min_x = static_cast<int32_t>(width), min_y = static_cast<int32_t>(height);
  int32_t max_x = 0, max_y = 0;
  for (uint32_t y = 0; y < height; ++y) {
    const uint16_t* d = depth.row(y);
    const uint16_t* l = labelMap.row(y);
    const float fy = static_cast<float>(y);
    int32_t row_min = static_cast<int32_t>(width), row_max = -1;
    for (uint32_t x = 0; x < width; ++x) {
      // Runs of 16 pixels of one label that is not the user's are passed over at once.
      if (x % 16 == 0 && x + 16 <= width) {
        bool uniform = true;
        for (uint32_t k = 1; k < 16; ++k) uniform &= l[x + k] == l[x];
        if (uniform && member[l[x]] == 0) {
          x += 15;
          continue;
        }
      }
      if (d[x] == 0 || member[l[x]] == 0) continue;
      ++count;
      // Summed pixel by pixel in image order, as floats: the order is part of the result.
      sum_x += static_cast<float>(x);
      sum_y += fy;
      sum_depth += static_cast<float>(d[x]);
      row_min = std::min(row_min, static_cast<int32_t>(x));
      row_max = static_cast<int32_t>(x);
    }
    if (row_max < 0) continue;
    min_x = std::min(min_x, row_min);
    max_x = std::max(max_x, row_max);
    min_y = std::min(min_y, static_cast<int32_t>(y));
    max_y = static_cast<int32_t>(y);
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
  for (uint16_t id : labels) member[id] = 0;
  for (uint16_t id : candidateLabels) member[id] = 0;
  return s;
}

}  // namespace quorvik::skeleton
