#include "segmentation/seg_coordinate_mapper.h"

#include <cmath>

namespace quorvik::skeleton {

template <typename T>
SegCoordinateMapper<T>::SegCoordinateMapper(uint32_t w, uint32_t h, float hf, float vf, uint32_t maxD)
    : width(w),
      height(h),
      maxDepth(maxD),
      hfov(hf),
      vfov(vf),
      centerX(static_cast<T>(w / 2)),
      centerY(static_cast<T>(h / 2)) {
  const float fx = static_cast<float>(w) / (2.f * std::tan(hf / 2.f));
  const float fy = static_cast<float>(h) / (2.f * std::tan(vf / 2.f));
  focal = std::sqrt(static_cast<T>(fx) * static_cast<T>(fy));
  inverseFocal = T(1) / focal;
  const T block[9] = {focal, 0, centerX, 0, focal, centerY, 0, 0, T(1) / focal};
  for (int i = 0; i < 9; ++i) intrinsic[i] = block[i];

  pixelSize.assign(size_t{maxD} + 1, T(0));
  inversePixelSize.assign(size_t{maxD} + 1, T(0));
  pixelArea.assign(size_t{maxD} + 1, T(0));
  const T halfTan = std::tan(static_cast<T>(hf / 2.f));
  for (uint32_t d = 1; d <= maxD; ++d) {
    const T size = static_cast<T>(d) * halfTan / centerX;
    pixelSize[d] = size;
    inversePixelSize[d] = T(1) / size;
    pixelArea[d] = size * size;
  }
}

template <typename T>
SegCoordinateMapper<T>::~SegCoordinateMapper() = default;

template class SegCoordinateMapper<double>;

}  // namespace quorvik::skeleton
