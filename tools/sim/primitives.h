#pragma once
// Solid primitives of the simulated scene and their ray intersection. Rays always start at
// the camera centre (the origin of camera space), which lets every primitive fold its
// position into constants once per frame; per pixel only the unit direction changes.

#include <cstdint>
#include <limits>

#include "sim_math.h"

namespace quorvik::sim {

enum class PrimitiveKind : uint8_t {
  RoundCone,  // two spheres (a, ra) and (b, rb) and the cone tangent to both; a capsule when ra == rb
  Ellipsoid,  // centre, three orthonormal axes, three radii
  Box,        // centre, three orthonormal axes, three half extents
  Frustum,    // capped cone from a (radius ra) to b (radius rb); the cross-section is an ellipse
              // whose radius along `axis[1]` is `depthRatio` times the one along `axis[0]`
};

struct Primitive {
  PrimitiveKind kind = PrimitiveKind::Ellipsoid;
  Vec3 a, b;
  float ra = 0, rb = 0;
  Vec3 centre;
  Vec3 axis[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  float half[3] = {0, 0, 0};
  float depthRatio = 1.f;
  // What a hit on this primitive means: the person (0 = scenery) and the entry of the frame's
  // labeller table that names the body part.
  uint8_t person = 0;
  uint16_t labeler = 0;
};

Primitive make_round_cone(Vec3 a, Vec3 b, float ra, float rb);
Primitive make_ellipsoid(Vec3 centre, const Axes& axes, Vec3 radii);  // radii along left, up, forward
Primitive make_box(Vec3 centre, Vec3 ax0, Vec3 ax1, Vec3 ax2, Vec3 half);
// Frustum along a->b; `lateral` is turned to be perpendicular to the axis.
Primitive make_frustum(Vec3 a, Vec3 b, float ra, float rb, Vec3 lateral, float depthRatio);

// Rigid change of frame (optionally followed by x -> -x): world to camera.
struct FrameMap {
  Vec3 origin;                  // camera position in the source frame
  Vec3 right, up, forward;      // camera axes in the source frame
  bool mirrorX = false;
  Vec3 point(Vec3 p) const {
    const Vec3 d = p - origin;
    return {mirrorX ? -dot(d, right) : dot(d, right), dot(d, up), dot(d, forward)};
  }
  Vec3 direction(Vec3 v) const {
    return {mirrorX ? -dot(v, right) : dot(v, right), dot(v, up), dot(v, forward)};
  }
};
Primitive transformed(const Primitive& p, const FrameMap& map);

// Axis-aligned box that contains the primitive.
struct Aabb {
  Vec3 lo, hi;
};
Aabb bounds(const Primitive& p);

inline constexpr float kNoHit = std::numeric_limits<float>::infinity();

// Constants of one primitive for rays from the origin.
struct PreparedPrimitive {
  PrimitiveKind kind;
  Vec3 v[4];   // kind-specific vectors
  float k[10]; // kind-specific scalars
  double dk[12];  // round cones: the quadric's terms cancel heavily, so they are kept in double
};
PreparedPrimitive prepare(const Primitive& p);

// Distance along the unit direction `d` to the first surface in front of the origin, or kNoHit.
// A primitive that contains the origin is treated as absent.
float intersect(const PreparedPrimitive& p, Vec3 d);

// Whether a point lies inside (used to check the intersection code).
bool contains(const Primitive& p, Vec3 q);

}  // namespace quorvik::sim

namespace quorvik::sim {

struct PixelRect {
  int x0 = 0, y0 = 0, x1 = -1, y1 = -1;  // inclusive
};

// Depth-tests the primitive over the pixels of `rect`: where it is nearer than `depth`
// (z along the optical axis, mm), writes its z and `index` into `owner`.
// `dirs` holds each pixel's unit ray direction.
void rasterize(const PreparedPrimitive& p, int32_t index, const PixelRect& rect, uint32_t width, const Vec3* dirs,
               float* depth, int32_t* owner);

}  // namespace quorvik::sim
