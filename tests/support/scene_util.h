#pragma once
// Small synthetic depth scenes for the segmentation tests: a camera at a known height and
// pitch above a floor, walls and boxes, rendered to millimetre depth maps with the same
// pinhole geometry as DepthCameraModel.

#include <array>
#include <cstdint>
#include <vector>

#include "segmentation/depth_conversion.h"

namespace scene {

inline constexpr float kHfovDegrees = 58.59f;
inline constexpr float kVfovDegrees = 45.64f;

// World frame of the scene: x right, y up (floor at y = 0), z forward along the ground.
struct Box {
  float minX, minY, minZ, maxX, maxY, maxZ;
};

class SceneBuilder {
 public:
  // Camera at heightMm above the floor, looking along z, pitched down by pitchDegrees.
  SceneBuilder(float heightMm, float pitchDegrees, int width = 160, int height = 120);

  SceneBuilder& floor();
  SceneBuilder& wall(float distanceMm);  // vertical wall facing the camera at z = distance
  // Box standing on the floor with its centre at (x, z) on the ground.
  SceneBuilder& box(float centreX, float centreZ, float sizeX, float sizeZ, float sizeY);
  SceneBuilder& clear_boxes();

  std::vector<uint16_t> render() const;

  // The floor as the engine reports it: (nx, ny, nz, d) in camera coordinates, n.P + d = 0.
  std::array<float, 4> floor_plane() const;
  int width() const { return width_; }
  int height() const { return height_; }
  const quorvik::skeleton::DepthCameraModel& camera() const { return camera_; }

 private:
  float heightMm_, pitch_;
  int width_, height_;
  quorvik::skeleton::DepthCameraModel camera_;
  bool floor_ = false;
  float wall_ = 0;
  std::vector<Box> boxes_;
};

// The default camera conversion tables of the tracker options.
const quorvik::skeleton::ConversionTables& default_tables();

// Angle in degrees between two directions.
double angle_between(const float* a, const float* b);

}  // namespace scene
