#pragma once
// What the user analyzer hands to the segmentation engine: one depth frame with its format,
// and (at start) the tables that convert depths to the sensor's shift values and back.

#include <cstdint>

namespace quorvik::legacy {

struct SegmentationFormat {
  uint32_t width = 0;
  uint32_t height = 0;
  float hfov = 0;  // radians
  float vfov = 0;  // radians
  uint32_t mirrored = 0;
  uint16_t maxDepth = 10000;
};

struct SegmentationFrame {
  uint64_t frameIndex = 0;
  uint64_t timestampMs = 0;
  const SegmentationFormat* format = nullptr;
  const uint16_t* depth = nullptr;  // width x height millimetres, row-major
};

struct ConversionTableRef {
  uint32_t present = 0;
  const uint16_t* shiftToDepth = nullptr;
  uint32_t shiftToDepthLength = 0;
  const uint16_t* depthToShift = nullptr;
  uint32_t depthToShiftLength = 0;

  // Depths past the end of the table count as no measurement.
  uint16_t shift_of(uint16_t depth) const { return depth < depthToShiftLength ? depthToShift[depth] : uint16_t{0}; }
  uint16_t depth_of(uint32_t shift) const { return shift < shiftToDepthLength ? shiftToDepth[shift] : uint16_t{0}; }
};

}  // namespace quorvik::legacy
