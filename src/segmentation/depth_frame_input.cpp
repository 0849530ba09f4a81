#include "segmentation/depth_frame_input.h"

#include <algorithm>

namespace quorvik::legacy {

void DepthFrameInput::start(const Array2D<uint16_t>& depth, bool mirror, const ConversionTableRef& t) {
  rawRing.reset();
  shiftRing.reset();
  shadowRing.reset();
  rawRing.current() = depth;
  width = depth.width();
  height = depth.height();
  pixelCount = width * height;
  for (int i = 0; i < 2; ++i) {
    rawRing.advance();
    rawRing.current().resize(width, height);
    if (i == 0) rawRing.current().clear();
  }
  for (int i = 0; i < 3; ++i) {
    shiftRing.advance();
    shiftRing.current().resize(width, height);
    shiftRing.current().clear();
  }
  for (int i = 0; i < 2; ++i) {
    shadowRing.advance();
    shadowRing.current().resize(width, height);
    shadowRing.current().clear();
  }
  mirrored = mirror;
  tables = t;
  validBox = {};
}

void DepthFrameInput::ingest(const Array2D<uint16_t>& depth, uint64_t timestampMs) {
  if (waitingForData) {
    for (int i = 0; i < 2; ++i) {
      rawRing.current() = depth;
      rawRing.advance();
      shiftRing.current().clear();
      shiftRing.advance();
    }
  } else {
    rawRing.advance();
    shiftRing.advance();
    shadowRing.advance();
  }
  timestamp = timestampMs;
  rawRing.current() = depth;
  convert();
  build_shadow();
  find_valid_box();
  if (validBox.left < validBox.right && validBox.top < validBox.bottom) waitingForData = false;
}

void DepthFrameInput::convert() {
  const uint16_t* src = rawRing.current().data();
  uint16_t* dst = shiftRing.current().data();
  const uint16_t* table = tables.depthToShift;
  const uint32_t length = table ? tables.depthToShiftLength : 0;
  for (int32_t i = 0; i < pixelCount; ++i) dst[i] = src[i] < length ? table[src[i]] : uint16_t{0};
}

void build_shadow_image(const Array2D<uint16_t>& shift, bool mirrored, Array2D<uint16_t>& shadow) {
  const int32_t w = shift.width();
  if (w <= 0) return;
  const int32_t q = 5120 / w;
  const int32_t start = mirrored ? 0 : w - 1;
  const int32_t step = mirrored ? 1 : -1;
  for (int32_t y = 0; y < shift.height(); ++y) {
    const uint16_t* s = shift.row(y);
    uint16_t* out = shadow.row(y);
    int32_t x = start;
    while (x >= 0 && x < w && s[x] == 0) x += step;  // leading invalid pixels cast no shadow
    uint16_t caster = 0;
    int32_t budget = -1;
    bool previousValid = false;
    for (; x >= 0 && x < w; x += step) {
      if (s[x] != 0) {
        out[x] = 0;
        caster = s[x];
        previousValid = true;
        continue;
      }
      if (previousValid) {
        budget = static_cast<int16_t>(static_cast<uint16_t>(2 * (526 + q) - caster));
        previousValid = false;
      }
      if (budget >= 0) {
        budget -= q;
        if (budget >= 0) out[x] = caster;
      }
    }
  }
}

void DepthFrameInput::build_shadow() {
  Array2D<uint16_t>& shadow = shadowRing.current();
  shadow.clear();
  build_shadow_image(shiftRing.current(), mirrored, shadow);
}

void DepthFrameInput::find_valid_box() {
  const Array2D<uint16_t>& raw = rawRing.current();
  int32_t left = width, right = -1, top = height, bottom = -1;
  for (int32_t y = 0; y < height; ++y) {
    const uint16_t* r = raw.row(y);
    int32_t first = -1, last = -1;
    for (int32_t x = 0; x < width; ++x) {
      if (r[x] != 0) {
        if (first < 0) first = x;
        last = x;
      }
    }
    if (first < 0) continue;
    left = std::min(left, first);
    right = std::max(right, last);
    if (top == height) top = y;
    bottom = y;
  }
  if (left > right || top > bottom) {
    validBox = {};
  } else {
    validBox = {left, top, right, bottom};
  }
}

}  // namespace quorvik::legacy
