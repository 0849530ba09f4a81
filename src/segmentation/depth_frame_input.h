#pragma once
// Input stage of the segmentation engine: the last frames as depth, as shift and as shadow
// images, and the bounds of the valid pixels of the newest frame.

#include <cstdint>

#include "segmentation/containers.h"
#include "segmentation/segmentation_frame.h"

namespace quorvik::legacy {

struct ValidBox {
  int32_t left = 0, top = 0, right = 0, bottom = 0;  // inclusive
};

class DepthFrameInput {
 public:
  void start(const Array2D<uint16_t>& depth, bool mirrored, const ConversionTableRef& tables);
  void ingest(const Array2D<uint16_t>& depth, uint64_t timestampMs);

  Array2D<uint16_t>& raw(int ago = 0) { return ago == 0 ? rawRing.current() : rawRing.back(ago); }
  Array2D<uint16_t>& shift(int ago = 0) { return ago == 0 ? shiftRing.current() : shiftRing.back(ago); }
  Array2D<uint16_t>& shadow(int ago = 0) { return ago == 0 ? shadowRing.current() : shadowRing.back(ago); }

  int32_t width = 0, height = 0, pixelCount = 0;
  uint64_t timestamp = 0;
  ImageRing<uint16_t, 2> rawRing;
  ImageRing<uint16_t, 3> shiftRing;
  ImageRing<uint16_t, 2> shadowRing;
  bool waitingForData = true;
  bool mirrored = false;
  ConversionTableRef tables;
  ValidBox validBox;

 private:
  void convert();
  void build_shadow();
  void find_valid_box();
};

// Fills the shadow of every row of `shift` into `shadow` (same size, cleared by the caller):
// the invalid strip beside a near object takes that object's shift.
void build_shadow_image(const Array2D<uint16_t>& shift, bool mirrored, Array2D<uint16_t>& shadow);

}  // namespace quorvik::legacy
