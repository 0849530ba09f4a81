#include "segmentation/min_filter.h"

#include <algorithm>
#include <limits>

#include "segmentation/sse2.h"

namespace quorvik::legacy {

namespace {

inline int16_t as_far(uint16_t v) { return static_cast<int16_t>(v == 0 ? kUnknownShiftAsFar : v); }

#if QBT_SEGMENTATION_SSE2
inline __m128i load_as_far(const uint16_t* p) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i zero = _mm_cmpeq_epi16(v, _mm_setzero_si128());
  return _mm_or_si128(_mm_andnot_si128(zero, v), _mm_and_si128(zero, _mm_set1_epi16(kUnknownShiftAsFar)));
}
#endif

}  // namespace

void min_filter_3x3(const uint16_t* src, uint16_t* dst, int32_t w, int32_t h, int16_t* scratch) {
  if (w <= 0 || h <= 0) return;
  // Vertical minimum of the (up to) three rows goes into scratch[8 .. 8 + w); the guards at
  // both ends are the largest value so that the horizontal window is clipped for free.
  int16_t* col = scratch + 8;
  col[-1] = std::numeric_limits<int16_t>::max();
  col[w] = std::numeric_limits<int16_t>::max();
#if QBT_SEGMENTATION_SSE2
  const int32_t vectorEnd = w & ~7;
#endif
  for (int32_t y = 0; y < h; ++y) {
    const uint16_t* mid = src + size_t(y) * size_t(w);
    const uint16_t* up = y > 0 ? mid - w : mid;
    const uint16_t* down = y + 1 < h ? mid + w : mid;
    int32_t x = 0;
#if QBT_SEGMENTATION_SSE2
    for (; x < vectorEnd; x += 8) {
      const __m128i m = _mm_min_epi16(_mm_min_epi16(load_as_far(up + x), load_as_far(mid + x)), load_as_far(down + x));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(col + x), m);
    }
#endif
    for (; x < w; ++x) col[x] = std::min({as_far(up[x]), as_far(mid[x]), as_far(down[x])});

    uint16_t* out = dst + size_t(y) * size_t(w);
    x = 0;
#if QBT_SEGMENTATION_SSE2
    for (; x < vectorEnd; x += 8) {
      const __m128i left = _mm_loadu_si128(reinterpret_cast<const __m128i*>(col + x - 1));
      const __m128i centre = _mm_loadu_si128(reinterpret_cast<const __m128i*>(col + x));
      const __m128i right = _mm_loadu_si128(reinterpret_cast<const __m128i*>(col + x + 1));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_min_epi16(_mm_min_epi16(left, centre), right));
    }
#endif
    for (; x < w; ++x) out[x] = static_cast<uint16_t>(std::min({col[x - 1], col[x], col[x + 1]}));
  }
}

void min_filter_3x3_scalar(const uint16_t* src, uint16_t* dst, int32_t w, int32_t h) {
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      int16_t m = std::numeric_limits<int16_t>::max();
      for (int32_t dy = -1; dy <= 1; ++dy) {
        for (int32_t dx = -1; dx <= 1; ++dx) {
          const int32_t xx = x + dx, yy = y + dy;
          if (xx < 0 || yy < 0 || xx >= w || yy >= h) continue;
          m = std::min(m, as_far(src[size_t(yy) * size_t(w) + size_t(xx)]));
        }
      }
      dst[size_t(y) * size_t(w) + size_t(x)] = static_cast<uint16_t>(m);
    }
  }
}

}  // namespace quorvik::legacy
