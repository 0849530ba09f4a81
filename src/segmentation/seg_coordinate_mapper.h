#pragma once
// The segmentation engine's camera model: per-depth tables of the world size of one pixel, so
// that the engine converts pixels to millimetres with one lookup instead of a division.

#include <cstdint>
#include <vector>

namespace quorvik::skeleton {

template <typename T>
class SegCoordinateMapper {
 public:
  // Fields of view in radians; tables cover depths 0 .. maxDepth millimetres.
  SegCoordinateMapper(uint32_t width, uint32_t height, float hfov, float vfov, uint32_t maxDepth);
  virtual ~SegCoordinateMapper();

  SegCoordinateMapper(const SegCoordinateMapper&) = delete;
  SegCoordinateMapper& operator=(const SegCoordinateMapper&) = delete;

  // Depths beyond the tables read as the largest one.
  T pixel_size_at(uint32_t depth) const { return pixelSize[depth <= maxDepth ? depth : maxDepth]; }
  T inverse_pixel_size_at(uint32_t depth) const {
    return inversePixelSize[depth <= maxDepth ? depth : maxDepth];
  }
  T pixel_area_at(uint32_t depth) const { return pixelArea[depth <= maxDepth ? depth : maxDepth]; }
  T world_x(T x, uint32_t depth) const { return (x - centerX) * pixel_size_at(depth); }
  T world_y(T y, uint32_t depth) const { return (centerY - y) * pixel_size_at(depth); }

  uint32_t width;
  uint32_t height;
  uint32_t maxDepth;
  float hfov;
  float vfov;
  T centerX;
  T centerY;
  T inverseFocal;
  T focal;
  T intrinsic[9];
  std::vector<T> pixelSize;
  std::vector<T> inversePixelSize;
  std::vector<T> pixelArea;
};

extern template class SegCoordinateMapper<double>;

}  // namespace quorvik::skeleton
