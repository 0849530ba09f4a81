#pragma once
// Conversion between a structured-light sensor's raw shift values and depth in
// millimetres, and the pinhole model that maps depth pixels to world points and back.
// World: millimetres, x right, y up, z forward (z equals the depth value).

#include <cstdint>
#include <vector>

#include "op/image.h"

namespace quorvik::skeleton {

// The camera fields of the tracker options that the tables are built from.
struct ShiftConversionParams {
  uint16_t zeroPlaneDistance = 130;
  float zeroPlanePixelSize = 0.113967f;
  float emitterDcmosDistance = 7.5f;
  int32_t maxShiftValue = 2047;
  int32_t deviceMaxDepth = 10000;
  uint32_t constShift = 200;
  uint32_t pixelSizeFactor = 1;
  uint32_t paramCoeff = 4;
  uint32_t shiftScale = 10;
  uint16_t minDepth = 0;
  uint16_t maxDepth = 10000;
};

struct ConversionTables {
  std::vector<uint16_t> shiftToDepth;  // maxShiftValue + 1 entries; 0 = invalid shift
  std::vector<uint16_t> depthToShift;  // deviceMaxDepth + 1 entries

  // Depths beyond the table are treated as no measurement.
  uint16_t shift_of(uint16_t depth) const {
    return depth < depthToShift.size() ? depthToShift[depth] : uint16_t{0};
  }
};

// A pixelSizeFactor of 0 gives all-zero tables.
ConversionTables build_conversion_tables(const ShiftConversionParams& params);

struct WorldPoint {
  float x, y, z;
};

class DepthCameraModel {
 public:
  DepthCameraModel() = default;
  // Fields of view in radians.
  DepthCameraModel(float hfov, float vfov, float width, float height);

  // Resizes `points` to the depth map's size when it differs. Depth 0 gives (0, 0, 0).
  void to_world(const op::Image<uint16_t>& depth, op::Image<WorldPoint>& points) const;
  void to_world(const uint16_t* depth, uint32_t width, uint32_t height, WorldPoint* points) const;
  // Image position of a world point; (0, 0) when z is 0.
  void to_image(float x, float y, float z, float& u, float& v) const;

  float xFactor = 0, yFactor = 0;
  float width = 0, height = 0;
  float centerX = 0, centerY = 0;
  float focalX = 0, focalY = 0;
};

inline constexpr float kDegreesToRadians = 0.017453292f;

}  // namespace quorvik::skeleton
