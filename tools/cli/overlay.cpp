#include "overlay.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "segmentation/depth_conversion.h"
#include "tracker/tracker_options.h"

namespace quorvik::cli {

namespace {

constexpr uint8_t kPalette[10][3] = {{255, 140, 0},  {0, 190, 255}, {80, 220, 60},  {235, 60, 200}, {255, 225, 40},
                                     {70, 100, 255}, {255, 70, 70}, {0, 220, 170},  {180, 120, 255}, {200, 160, 100}};
constexpr float kBodyReachMm = 170.f;   // limb girth plus the joints' own error
constexpr float kFloorBandMm = 60.f;

uint8_t grey_of(uint16_t mm) {
  if (mm == 0) return 0;
  const float t = std::clamp((static_cast<float>(mm) - 500.f) / 7500.f, 0.f, 1.f);
  return static_cast<uint8_t>(230.f - 190.f * t);
}

void blend(uint8_t* px, const uint8_t rgb[3], float w) {
  for (int c = 0; c < 3; ++c) px[c] = static_cast<uint8_t>(std::lround(px[c] * (1.f - w) + rgb[c] * w));
}

void dot(RgbImage& img, int cx, int cy, int r, const uint8_t rgb[3], float w) {
  for (int y = cy - r; y <= cy + r; ++y)
    for (int x = cx - r; x <= cx + r; ++x)
      if (x >= 0 && y >= 0 && x < static_cast<int>(img.width) && y < static_cast<int>(img.height))
        blend(img.at(static_cast<uint32_t>(x), static_cast<uint32_t>(y)), rgb, w);
}

// Whether a joint's image position is one a picture can sensibly use (joints may be
// extrapolated beyond the image, but not arbitrarily far).
bool drawable(const TrackedJoint& j, const RgbImage& img) {
  const float limit = 4.f * static_cast<float>(std::max(img.width, img.height));
  return std::isfinite(j.depth[0]) && std::isfinite(j.depth[1]) && std::fabs(j.depth[0]) < limit &&
         std::fabs(j.depth[1]) < limit;
}

void line(RgbImage& img, float x0, float y0, float x1, float y1, int thickness, const uint8_t rgb[3], float w) {
  const float len = std::max(std::fabs(x1 - x0), std::fabs(y1 - y0));
  const int steps = std::max(1, static_cast<int>(std::ceil(len)));
  const int r = thickness / 2;
  // Each pixel is blended once even where the pen's squares overlap.
  std::vector<uint8_t> touched(size_t{img.width} * img.height, 0);
  for (int i = 0; i <= steps; ++i) {
    const float t = static_cast<float>(i) / static_cast<float>(steps);
    const int cx = static_cast<int>(std::lround(x0 + (x1 - x0) * t)), cy = static_cast<int>(std::lround(y0 + (y1 - y0) * t));
    for (int y = cy - r; y <= cy - r + thickness - 1; ++y)
      for (int x = cx - r; x <= cx - r + thickness - 1; ++x) {
        if (x < 0 || y < 0 || x >= static_cast<int>(img.width) || y >= static_cast<int>(img.height)) continue;
        uint8_t& seen = touched[static_cast<size_t>(y) * img.width + static_cast<size_t>(x)];
        if (seen) continue;
        seen = 1;
        blend(img.at(static_cast<uint32_t>(x), static_cast<uint32_t>(y)), rgb, w);
      }
  }
}

float segment_distance(const float p[3], const float a[3], const float b[3]) {
  float ab[3], ap[3];
  float abab = 0, apab = 0;
  for (int c = 0; c < 3; ++c) {
    ab[c] = b[c] - a[c];
    ap[c] = p[c] - a[c];
    abab += ab[c] * ab[c];
    apab += ap[c] * ab[c];
  }
  const float t = abab > 0 ? std::clamp(apab / abab, 0.f, 1.f) : 0.f;
  float d2 = 0;
  for (int c = 0; c < 3; ++c) {
    const float e = ap[c] - t * ab[c];
    d2 += e * e;
  }
  return std::sqrt(d2);
}

// 3x5 block digits, one row per 3 bits.
constexpr uint16_t kDigits[10] = {0x7B6F, 0x2C97, 0x73E7, 0x73CF, 0x5BC9, 0x79CF, 0x79EF, 0x7249, 0x7BEF, 0x7BCF};

}  // namespace

void body_colour(uint8_t id, uint8_t rgb[3]) {
  const uint8_t* p = kPalette[(id + 9) % 10];
  rgb[0] = p[0];
  rgb[1] = p[1];
  rgb[2] = p[2];
}

void draw_number(RgbImage& image, int x, int y, int number, const uint8_t rgb[3], int scale) {
  const std::string text = std::to_string(number);
  for (size_t k = 0; k < text.size(); ++k) {
    if (text[k] < '0' || text[k] > '9') continue;
    const uint16_t bits = kDigits[text[k] - '0'];
    for (int row = 0; row < 5; ++row)
      for (int col = 0; col < 3; ++col) {
        if (!((bits >> (14 - row * 3 - col)) & 1)) continue;
        for (int sy = 0; sy < scale; ++sy)
          for (int sx = 0; sx < scale; ++sx) {
            const int px = x + (static_cast<int>(k) * 4 + col) * scale + sx, py = y + row * scale + sy;
            if (px >= 0 && py >= 0 && px < static_cast<int>(image.width) && py < static_cast<int>(image.height)) {
              uint8_t* p = image.at(static_cast<uint32_t>(px), static_cast<uint32_t>(py));
              p[0] = rgb[0];
              p[1] = rgb[1];
              p[2] = rgb[2];
            }
          }
      }
  }
}

RgbImage render_overlay(const uint16_t* depth, uint32_t width, uint32_t height, const TrackedFrame& frame) {
  RgbImage img(width, height);
  const size_t n = size_t{width} * height;
  const bool haveMask = frame.bodyMask.size() == n, haveFloor = frame.floorMask.size() == n;
  // The library's default camera: the frame does not say which camera took it.
  using skeleton::kDegreesToRadians;
  const skeleton::DepthCameraModel camera(skeleton::kDefaultHorizontalFovDegrees * kDegreesToRadians,
                                          skeleton::kDefaultVerticalFovDegrees * kDegreesToRadians,
                                          static_cast<float>(width), static_cast<float>(height));
  std::vector<skeleton::WorldPoint> world(n);
  camera.to_world(depth, width, height, world.data());
  static constexpr uint8_t kFloorTint[3] = {40, 120, 255};
  // Each body's box of tracked joints, widened by the reach: most pixels fall outside all.
  struct Box {
    float lo[3], hi[3];
  };
  std::vector<Box> boxes;
  for (const TrackedBody& body : frame.bodies) {
    Box b{{1e9f, 1e9f, 1e9f}, {-1e9f, -1e9f, -1e9f}};
    for (const TrackedJoint& j : body.joints) {
      if (j.status == QBT_JOINT_STATUS_NONE) continue;
      for (int c = 0; c < 3; ++c) {
        b.lo[c] = std::min(b.lo[c], j.world[c] - kBodyReachMm);
        b.hi[c] = std::max(b.hi[c], j.world[c] + kBodyReachMm);
      }
    }
    boxes.push_back(b);
  }
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) {
      const size_t i = size_t{y} * width + x;
      uint8_t* px = img.at(x, y);
      px[0] = px[1] = px[2] = grey_of(depth[i]);
      if (depth[i] == 0) continue;
      uint8_t id = haveMask ? frame.bodyMask[i] : 0;
      if (!haveMask) {
        const float p[3] = {world[i].x, world[i].y, world[i].z};
        float best = kBodyReachMm;
        for (size_t k = 0; k < frame.bodies.size(); ++k) {
          const TrackedBody& body = frame.bodies[k];
          const Box& box = boxes[k];
          if (p[0] < box.lo[0] || p[0] > box.hi[0] || p[1] < box.lo[1] || p[1] > box.hi[1] || p[2] < box.lo[2] ||
              p[2] > box.hi[2])
            continue;
          for (const BoneEnds& bone : skeleton_bones()) {
            const TrackedJoint& a = body.joints[bone.a];
            const TrackedJoint& b = body.joints[bone.b];
            if (a.status == QBT_JOINT_STATUS_NONE || b.status == QBT_JOINT_STATUS_NONE) continue;
            const float d = segment_distance(p, a.world, b.world);
            if (d < best) {
              best = d;
              id = body.id;
            }
          }
        }
      }
      if (id != 0) {
        uint8_t c[3];
        body_colour(id, c);
        blend(px, c, 0.6f);
        continue;
      }
      const bool onFloor = haveFloor ? frame.floorMask[i] != 0
                                     : frame.floorDetected &&
                                           std::fabs(frame.plane[0] * world[i].x + frame.plane[1] * world[i].y +
                                                     frame.plane[2] * world[i].z + frame.plane[3]) < kFloorBandMm;
      if (onFloor) blend(px, kFloorTint, 0.35f);
    }

  const int thickness = std::max(1, static_cast<int>(width / 160));
  static constexpr uint8_t kWhite[3] = {255, 255, 255};
  for (const TrackedBody& body : frame.bodies) {
    for (const BoneEnds& bone : skeleton_bones()) {
      const TrackedJoint& a = body.joints[bone.a];
      const TrackedJoint& b = body.joints[bone.b];
      if (a.status == QBT_JOINT_STATUS_NONE || b.status == QBT_JOINT_STATUS_NONE) continue;
      if (!drawable(a, img) || !drawable(b, img)) continue;
      const bool solid = a.status == QBT_JOINT_STATUS_HIGH && b.status == QBT_JOINT_STATUS_HIGH;
      line(img, a.depth[0], a.depth[1], b.depth[0], b.depth[1], thickness, kWhite, solid ? 1.f : 0.45f);
    }
    uint8_t c[3];
    body_colour(body.id, c);
    for (const TrackedJoint& j : body.joints) {
      if (j.status == QBT_JOINT_STATUS_NONE || !drawable(j, img)) continue;
      dot(img, static_cast<int>(std::lround(j.depth[0])), static_cast<int>(std::lround(j.depth[1])), thickness, c,
          j.status == QBT_JOINT_STATUS_HIGH ? 1.f : 0.5f);
    }
  }
  return img;
}

RgbImage contact_sheet(const std::vector<RgbImage>& tiles, const std::vector<int>& labels, int columns, int shrink) {
  if (tiles.empty()) return RgbImage(1, 1);
  shrink = std::max(1, shrink);
  columns = std::max(1, std::min(columns, static_cast<int>(tiles.size())));
  const uint32_t tw = tiles[0].width / static_cast<uint32_t>(shrink), th = tiles[0].height / static_cast<uint32_t>(shrink);
  constexpr uint32_t kGap = 4;
  const uint32_t rows = static_cast<uint32_t>((tiles.size() + static_cast<size_t>(columns) - 1) / static_cast<size_t>(columns));
  RgbImage sheet(kGap + static_cast<uint32_t>(columns) * (tw + kGap), kGap + rows * (th + kGap));
  std::fill(sheet.pixels.begin(), sheet.pixels.end(), uint8_t{24});
  static constexpr uint8_t kLabel[3] = {255, 255, 0};
  for (size_t t = 0; t < tiles.size(); ++t) {
    const uint32_t ox = kGap + static_cast<uint32_t>(t % static_cast<size_t>(columns)) * (tw + kGap);
    const uint32_t oy = kGap + static_cast<uint32_t>(t / static_cast<size_t>(columns)) * (th + kGap);
    const RgbImage& tile = tiles[t];
    for (uint32_t y = 0; y < th; ++y)
      for (uint32_t x = 0; x < tw; ++x) {
        const uint32_t sx = std::min(tile.width - 1, x * static_cast<uint32_t>(shrink));
        const uint32_t sy = std::min(tile.height - 1, y * static_cast<uint32_t>(shrink));
        std::copy_n(tile.at(sx, sy), 3, sheet.at(ox + x, oy + y));
      }
    if (t < labels.size()) draw_number(sheet, static_cast<int>(ox) + 2, static_cast<int>(oy) + 2, labels[t], kLabel, 2);
  }
  return sheet;
}

}  // namespace quorvik::cli
