#pragma once
// Measurements of one user's pixels in a depth map: centre, extents and how much of the
// user touches the image border. Read by the frame classifier's image-level features.

#include <cstdint>
#include <span>

#include "op/image.h"

namespace quorvik::skeleton {

struct UserStatistics {
  float meanX;
  float meanY;
  float meanDepth;  // mean depth of the user's pixels / 1000
  int32_t centerX;  // min x + width / 2
  int32_t centerY;  // min y + height / 2
  int32_t width;    // 0 when the user has no pixel
  int32_t height;
  float relativeWidth;   // width / image width
  float relativeHeight;  // height / image height
  float halfExtentX;     // max(max x - mean x, mean x - min x) + 1; 0 without pixels
  float halfExtentY;
  uint32_t imageWidth;
  uint32_t imageHeight;
  float leftEdgeFraction;    // user pixels in column 0 / image height
  float rightEdgeFraction;   // user pixels in the last column / image height
  float topEdgeFraction;     // user pixels in row 0 / image width
  float bottomEdgeFraction;  // user pixels in the last row / image width
  float borderFraction;      // all four edge counts / (2 * (image width + image height))
  uint32_t pixelCount;
};

// A user pixel has a non-zero depth and a label found in `labels` or `candidateLabels`
// (the user record's two label-id lists). `labelMap` has the depth map's size.
UserStatistics computeUserStatistics(const op::Image<uint16_t>& depth,
                                     const op::Image<uint16_t>& labelMap,
                                     std::span<const uint16_t> labels,
                                     std::span<const uint16_t> candidateLabels);

}  // namespace quorvik::skeleton
