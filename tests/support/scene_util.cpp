#include "support/scene_util.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace scene {

using quorvik::skeleton::kDegreesToRadians;

SceneBuilder::SceneBuilder(float heightMm, float pitchDegrees, int width, int height)
    : heightMm_(heightMm),
      pitch_(pitchDegrees * kDegreesToRadians),
      width_(width),
      height_(height),
      camera_(kHfovDegrees * kDegreesToRadians, kVfovDegrees * kDegreesToRadians, float(width), float(height)) {}

SceneBuilder& SceneBuilder::floor() {
  floor_ = true;
  return *this;
}

SceneBuilder& SceneBuilder::wall(float distanceMm) {
  wall_ = distanceMm;
  return *this;
}

SceneBuilder& SceneBuilder::box(float cx, float cz, float sx, float sz, float sy) {
  boxes_.push_back({cx - sx / 2, 0.f, cz - sz / 2, cx + sx / 2, sy, cz + sz / 2});
  return *this;
}

SceneBuilder& SceneBuilder::clear_boxes() {
  boxes_.clear();
  return *this;
}

std::vector<uint16_t> SceneBuilder::render() const {
  std::vector<uint16_t> depth(size_t(width_) * size_t(height_), 0);
  const double c = std::cos(double(pitch_)), s = std::sin(double(pitch_));
  const double origin[3] = {0, heightMm_, 0};
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x) {
      // Ray with camera depth 1: the same factors that turn depth pixels into world points.
      const double dx = (double(x) / width_ - 0.5) * camera_.xFactor;
      const double dy = (0.5 - double(y) / height_) * camera_.yFactor;
      // Camera axes in the scene: right (1,0,0), up (0,c,s), forward (0,-s,c).
      const double dir[3] = {dx, dy * c - s, dy * s + c};
      double best = std::numeric_limits<double>::infinity();
      if (floor_ && dir[1] < -1e-9) best = std::min(best, -origin[1] / dir[1]);
      if (wall_ > 0 && dir[2] > 1e-9) best = std::min(best, double(wall_) / dir[2]);
      for (const Box& b : boxes_) {
        const double lo[3] = {b.minX, b.minY, b.minZ}, hi[3] = {b.maxX, b.maxY, b.maxZ};
        double t0 = 0, t1 = std::numeric_limits<double>::infinity();
        for (int k = 0; k < 3 && t0 <= t1; ++k) {
          if (std::abs(dir[k]) < 1e-12) {
            if (origin[k] < lo[k] || origin[k] > hi[k]) t0 = 1, t1 = 0;
            continue;
          }
          double a = (lo[k] - origin[k]) / dir[k], bb = (hi[k] - origin[k]) / dir[k];
          if (a > bb) std::swap(a, bb);
          t0 = std::max(t0, a);
          t1 = std::min(t1, bb);
        }
        if (t0 <= t1 && t0 > 0) best = std::min(best, t0);
      }
      // The camera parameter t is the camera depth because the ray has depth 1.
      if (best < 9999.0) depth[size_t(y) * size_t(width_) + size_t(x)] = uint16_t(std::lround(best));
    }
  }
  return depth;
}

std::array<float, 4> SceneBuilder::floor_plane() const {
  // Up in camera coordinates is (0, cos, -sin); the camera is heightMm above the floor.
  return {0.f, std::cos(pitch_), -std::sin(pitch_), heightMm_};
}

const quorvik::skeleton::ConversionTables& default_tables() {
  static const quorvik::skeleton::ConversionTables tables =
      quorvik::skeleton::build_conversion_tables(quorvik::skeleton::ShiftConversionParams{});
  return tables;
}

double angle_between(const float* a, const float* b) {
  const double dot = double(a[0]) * b[0] + double(a[1]) * b[1] + double(a[2]) * b[2];
  const double la = std::sqrt(double(a[0]) * a[0] + double(a[1]) * a[1] + double(a[2]) * a[2]);
  const double lb = std::sqrt(double(b[0]) * b[0] + double(b[1]) * b[1] + double(b[2]) * b[2]);
  return std::acos(std::clamp(dot / (la * lb), -1.0, 1.0)) * 180.0 / 3.14159265358979323846;
}

}  // namespace scene
