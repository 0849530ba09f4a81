#pragma once
// 3x3 minimum of a shift image in which 0 (nothing known) counts as far (2000), with the
// window clipped at the image border. Eight signed 16-bit lanes at a time where SSE2 is on
// (segmentation/sse2.h).

#include <cstdint>

namespace quorvik::legacy {

inline constexpr uint16_t kUnknownShiftAsFar = 2000;
// One vector of eight lanes of border on either side of a row.
inline constexpr int32_t kMinFilterScratchExtra = 16;

// `scratch` must hold width + kMinFilterScratchExtra values. Shifts must stay below 32768.
void min_filter_3x3(const uint16_t* src, uint16_t* dst, int32_t width, int32_t height, int16_t* scratch);

// The same, one pixel at a time (reference for the vector version).
void min_filter_3x3_scalar(const uint16_t* src, uint16_t* dst, int32_t width, int32_t height);

}  // namespace quorvik::legacy
