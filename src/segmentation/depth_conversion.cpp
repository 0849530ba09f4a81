#include "segmentation/depth_conversion.h"

#include <cmath>

namespace quorvik::skeleton {

ConversionTables build_conversion_tables(const ShiftConversionParams& p) {
  ConversionTables t;
  t.shiftToDepth.assign(static_cast<size_t>(std::max(p.maxShiftValue, 0)) + 1, 0);
  t.depthToShift.assign(static_cast<size_t>(std::max(p.deviceMaxDepth, 0)) + 1, 0);
  // A pixel size factor of 0 would divide by zero below; such a camera converts nothing.
  if (p.maxShiftValue < 2 || p.pixelSizeFactor == 0) return t;

  const float pixelSize = static_cast<float>(p.pixelSizeFactor) * p.zeroPlanePixelSize;
  const uint32_t offset = p.constShift * p.paramCoeff / p.pixelSizeFactor;
  const double z0 = p.zeroPlaneDistance;
  const double e = p.emitterDcmosDistance;
  const size_t depthEntries = t.depthToShift.size();

  size_t next = 0;
  uint16_t last = 0;
  for (int32_t r = 1; r < p.maxShiftValue; ++r) {
    const int64_t relative = static_cast<int64_t>(r) - static_cast<int64_t>(offset);
    const double tval = (static_cast<double>(relative) / p.paramCoeff - 0.375) * pixelSize;
    const double depth = (tval * z0 / (e - tval) + z0) * p.shiftScale;
    if (depth > p.minDepth && depth < p.maxDepth) {
      const auto truncated = static_cast<size_t>(depth);
      t.shiftToDepth[r] = static_cast<uint16_t>(truncated);
      while (static_cast<double>(next) < depth && next < depthEntries) t.depthToShift[next++] = last;
      next = truncated;
      last = static_cast<uint16_t>(r);
    }
  }
  for (; next < depthEntries; ++next) t.depthToShift[next] = last;
  return t;
}

DepthCameraModel::DepthCameraModel(float hfov, float vfov, float w, float h)
    : xFactor(2.f * std::tan(hfov / 2.f)),
      yFactor(2.f * std::tan(vfov / 2.f)),
      width(w),
      height(h),
      centerX(w / 2.f),
      centerY(h / 2.f),
      focalX(w / (2.f * std::tan(hfov / 2.f))),
      focalY(h / (2.f * std::tan(vfov / 2.f))) {}

void DepthCameraModel::to_world(const uint16_t* depth, uint32_t w, uint32_t h, WorldPoint* out) const {
  for (uint32_t y = 0; y < h; ++y) {
    const float ry = 0.5f - static_cast<float>(y) / height;
    const uint16_t* src = depth + size_t{y} * w;
    WorldPoint* dst = out + size_t{y} * w;
    for (uint32_t x = 0; x < w; ++x) {
      const float z = src[x];
      dst[x] = {(static_cast<float>(x) / width - 0.5f) * z * xFactor, ry * z * yFactor, z};
    }
  }
}

void DepthCameraModel::to_world(const op::Image<uint16_t>& depth, op::Image<WorldPoint>& points) const {
  points.resize(depth.width(), depth.height());
  to_world(depth.data(), depth.width(), depth.height(), points.data());
}

void DepthCameraModel::to_image(float x, float y, float z, float& u, float& v) const {
  if (z == 0.f) {
    u = v = 0.f;
    return;
  }
  u = focalX * x / z + centerX;
  v = centerY - focalY * y / z;
}

}  // namespace quorvik::skeleton
