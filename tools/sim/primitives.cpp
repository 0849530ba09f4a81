#include "primitives.h"

#include <algorithm>
#include <cmath>

namespace quorvik::sim {

Primitive make_round_cone(Vec3 a, Vec3 b, float ra, float rb) {
  Primitive p;
  p.kind = PrimitiveKind::RoundCone;
  p.a = a;
  p.b = b;
  p.ra = ra;
  p.rb = rb;
  return p;
}

Primitive make_ellipsoid(Vec3 centre, const Axes& axes, Vec3 radii) {
  Primitive p;
  p.kind = PrimitiveKind::Ellipsoid;
  p.centre = centre;
  p.axis[0] = axes.left;
  p.axis[1] = axes.up;
  p.axis[2] = axes.forward;
  p.half[0] = radii.x;
  p.half[1] = radii.y;
  p.half[2] = radii.z;
  return p;
}

Primitive make_box(Vec3 centre, Vec3 ax0, Vec3 ax1, Vec3 ax2, Vec3 half) {
  Primitive p;
  p.kind = PrimitiveKind::Box;
  p.centre = centre;
  p.axis[0] = ax0;
  p.axis[1] = ax1;
  p.axis[2] = ax2;
  p.half[0] = half.x;
  p.half[1] = half.y;
  p.half[2] = half.z;
  return p;
}

Primitive make_frustum(Vec3 a, Vec3 b, float ra, float rb, Vec3 lateral, float depthRatio) {
  Primitive p;
  p.kind = PrimitiveKind::Frustum;
  p.a = a;
  p.b = b;
  p.ra = ra;
  p.rb = rb;
  const Vec3 along = normalize(b - a);
  Vec3 side = lateral - along * dot(lateral, along);
  if (length(side) < 1e-6f) side = std::fabs(along.x) < 0.9f ? Vec3{1, 0, 0} : Vec3{0, 1, 0};
  side = normalize(side - along * dot(side, along));
  p.axis[0] = side;
  p.axis[1] = normalize(cross(along, side));
  p.axis[2] = along;
  p.depthRatio = depthRatio;
  return p;
}

Primitive transformed(const Primitive& p, const FrameMap& map) {
  Primitive q = p;
  q.a = map.point(p.a);
  q.b = map.point(p.b);
  q.centre = map.point(p.centre);
  for (int i = 0; i < 3; ++i) q.axis[i] = map.direction(p.axis[i]);
  return q;
}

namespace {

Aabb sphere_box(Vec3 c, float r) { return {{c.x - r, c.y - r, c.z - r}, {c.x + r, c.y + r, c.z + r}}; }

Aabb merge(const Aabb& a, const Aabb& b) {
  return {{std::min(a.lo.x, b.lo.x), std::min(a.lo.y, b.lo.y), std::min(a.lo.z, b.lo.z)},
          {std::max(a.hi.x, b.hi.x), std::max(a.hi.y, b.hi.y), std::max(a.hi.z, b.hi.z)}};
}

Aabb oriented_box(Vec3 c, const Vec3* axis, const float* half) {
  Vec3 e;
  for (int i = 0; i < 3; ++i) {
    e.x += std::fabs(axis[i].x) * half[i];
    e.y += std::fabs(axis[i].y) * half[i];
    e.z += std::fabs(axis[i].z) * half[i];
  }
  return {c - e, c + e};
}

Aabb disc_box(Vec3 c, Vec3 u, Vec3 v) {  // ellipse c + cos*u + sin*v
  const Vec3 e{std::sqrt(u.x * u.x + v.x * v.x), std::sqrt(u.y * u.y + v.y * v.y),
               std::sqrt(u.z * u.z + v.z * v.z)};
  return {c - e, c + e};
}

}  // namespace

Aabb bounds(const Primitive& p) {
  switch (p.kind) {
    case PrimitiveKind::RoundCone:
      return merge(sphere_box(p.a, p.ra), sphere_box(p.b, p.rb));
    case PrimitiveKind::Ellipsoid:
    case PrimitiveKind::Box:
      return oriented_box(p.centre, p.axis, p.half);
    case PrimitiveKind::Frustum:
      return merge(disc_box(p.a, p.axis[0] * p.ra, p.axis[1] * (p.ra * p.depthRatio)),
                   disc_box(p.b, p.axis[0] * p.rb, p.axis[1] * (p.rb * p.depthRatio)));
  }
  return {};
}

PreparedPrimitive prepare(const Primitive& p) {
  PreparedPrimitive q{};
  q.kind = p.kind;
  switch (p.kind) {
    case PrimitiveKind::RoundCone: {
      const float ra = p.ra, rb = p.rb;
      const Vec3 ba = p.b - p.a;
      const float m0 = dot(ba, ba);
      const float rr = ra - rb;
      if (m0 - rr * rr <= 1e-3f) {
        // One sphere holds the other: the larger sphere is the whole shape.
        const Vec3 c = ra >= rb ? p.a : p.b;
        const float r = std::max(ra, rb);
        q.kind = PrimitiveKind::Ellipsoid;
        const Vec3 o = -c * (1.f / r);
        q.v[0] = {1.f / r, 0, 0};
        q.v[1] = {0, 1.f / r, 0};
        q.v[2] = {0, 0, 1.f / r};
        q.v[3] = o;
        q.k[0] = dot(o, o) - 1.f;
        return q;
      }
      // dk: b - a, -a, -b, then (b - a).(-a), |a|^2, |b|^2; k: ra, rb, ra - rb, k[8] camera inside.
      const double bx = double{p.b.x} - p.a.x, by = double{p.b.y} - p.a.y, bz = double{p.b.z} - p.a.z;
      const double ax = -double{p.a.x}, ay = -double{p.a.y}, az = -double{p.a.z};
      const double cx = -double{p.b.x}, cy = -double{p.b.y}, cz = -double{p.b.z};
      const double dm1 = bx * ax + by * ay + bz * az;
      const double dm5 = ax * ax + ay * ay + az * az;
      const double dm7 = cx * cx + cy * cy + cz * cz;
      const double drr = double{ra} - rb;
      const double dk[12] = {bx, by, bz, ax, ay, az, cx, cy, cz, dm1, dm5, dm7};
      std::copy(dk, dk + 12, q.dk);
      q.k[0] = ra;
      q.k[1] = rb;
      q.k[2] = static_cast<float>(drr);
      q.k[8] = (dm5 < double{ra} * ra || dm7 < double{rb} * rb) ? 1.f : 0.f;
      return q;
    }
    case PrimitiveKind::Ellipsoid: {
      Vec3 o;
      for (int i = 0; i < 3; ++i) q.v[i] = p.axis[i] * (1.f / p.half[i]);
      o = {-dot(q.v[0], p.centre), -dot(q.v[1], p.centre), -dot(q.v[2], p.centre)};
      q.v[3] = o;
      q.k[0] = dot(o, o) - 1.f;
      return q;
    }
    case PrimitiveKind::Box: {
      for (int i = 0; i < 3; ++i) {
        q.v[i] = p.axis[i];
        q.k[i] = -dot(p.axis[i], p.centre);  // origin in box coordinates
        q.k[3 + i] = p.half[i];
      }
      return q;
    }
    case PrimitiveKind::Frustum: {
      const float len = length(p.b - p.a);
      q.v[0] = p.axis[0];
      q.v[1] = p.axis[1] * (1.f / p.depthRatio);
      q.v[2] = p.axis[2];
      q.v[3] = {-dot(q.v[0], p.a), -dot(q.v[1], p.a), -dot(q.v[2], p.a)};
      q.k[0] = p.ra;
      q.k[1] = len > 0 ? (p.rb - p.ra) / len : 0.f;
      q.k[2] = len;
      q.k[3] = p.rb;
      return q;
    }
  }
  return q;
}

namespace {

inline float hit_round_cone(const PreparedPrimitive& p, Vec3 dir) {
  // Convex hull of two spheres; after the analytic form of the rounded cone, in double
  // because a ray almost along the axis leaves only a tiny difference of large terms.
  if (p.k[8] != 0.f) return kNoHit;
  const double ra = p.k[0], rb = p.k[1], rr = p.k[2];
  const double rx = dir.x, ry = dir.y, rz = dir.z;
  const double* v = p.dk;
  const double m1 = v[9], m5 = v[10], m7 = v[11];
  const double m0 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
  const double d2 = m0 - rr * rr;
  const double m2 = v[0] * rx + v[1] * ry + v[2] * rz;
  const double m3 = rx * v[3] + ry * v[4] + rz * v[5];
  const double m6 = v[6] * rx + v[7] * ry + v[8] * rz;
  const double k2 = d2 - m2 * m2;
  const double k1 = d2 * m3 - m1 * m2 + m2 * rr * ra;
  const double k0 = d2 * m5 - m1 * m1 + m1 * rr * ra * 2.0 - m0 * ra * ra;
  const double h = k1 * k1 - k0 * k2;
  if (h < 0.0) return kNoHit;
  if (k2 != 0.0) {
    const double t = (-std::sqrt(h) - k1) / k2;
    const double y = m1 - ra * rr + t * m2;
    if (y > 0.0 && y < d2) return t > 0.0 ? static_cast<float>(t) : kNoHit;
  }
  const double h1 = m3 * m3 - m5 + ra * ra;
  const double h2 = m6 * m6 - m7 + rb * rb;
  double best = 1e30;
  if (h1 > 0.0) best = -m3 - std::sqrt(h1);
  if (h2 > 0.0) best = std::min(best, -m6 - std::sqrt(h2));
  return best > 0.0 && best < 1e30 ? static_cast<float>(best) : kNoHit;
}

inline float hit_ellipsoid(const PreparedPrimitive& p, Vec3 d) {
  const float c = p.k[0];
  if (c < 0.f) return kNoHit;
  const Vec3 dl{dot(p.v[0], d), dot(p.v[1], d), dot(p.v[2], d)};
  const float a = dot(dl, dl), b = dot(p.v[3], dl);
  const float disc = b * b - a * c;
  if (disc < 0.f || b >= 0.f) return kNoHit;
  return (-b - std::sqrt(disc)) / a;
}

inline float hit_box(const PreparedPrimitive& p, Vec3 d) {
  float tn = -kNoHit, tf = kNoHit;
  for (int i = 0; i < 3; ++i) {
    const float dl = dot(p.v[i], d);
    const float o = p.k[i], h = p.k[3 + i];
    if (std::fabs(dl) < 1e-12f) {
      if (o < -h || o > h) return kNoHit;
      continue;
    }
    const float inv = 1.f / dl;
    float t0 = (-h - o) * inv, t1 = (h - o) * inv;
    if (t0 > t1) std::swap(t0, t1);
    tn = std::max(tn, t0);
    tf = std::min(tf, t1);
  }
  if (tn > tf || tn <= 0.f) return kNoHit;
  return tn;
}

inline float hit_frustum(const PreparedPrimitive& p, Vec3 rd) {
  const Vec3 o = p.v[3];
  const Vec3 d{dot(p.v[0], rd), dot(p.v[1], rd), dot(p.v[2], rd)};
  const float ra = p.k[0], g = p.k[1], len = p.k[2], rb = p.k[3];
  const float r0 = ra + g * o.z;
  if (o.z >= 0.f && o.z <= len && o.x * o.x + o.y * o.y <= r0 * r0) return kNoHit;
  float best = kNoHit;
  // Side wall: x^2 + y^2 = (ra + g z)^2.
  const float A = d.x * d.x + d.y * d.y - g * g * d.z * d.z;
  const float B = o.x * d.x + o.y * d.y - g * d.z * r0;
  const float C = o.x * o.x + o.y * o.y - r0 * r0;
  if (std::fabs(A) > 1e-12f) {
    const float disc = B * B - A * C;
    if (disc >= 0.f) {
      const float s = std::sqrt(disc);
      const float roots[2] = {(-B - s) / A, (-B + s) / A};
      for (float t : roots) {
        const float z = o.z + t * d.z;
        if (t > 0.f && t < best && z >= 0.f && z <= len && ra + g * z >= 0.f) best = t;
      }
    }
  }
  // End caps.
  if (std::fabs(d.z) > 1e-12f) {
    const float caps[2][2] = {{0.f, ra}, {len, rb}};
    for (const auto& cap : caps) {
      const float t = (cap[0] - o.z) / d.z;
      if (t <= 0.f || t >= best) continue;
      const float x = o.x + t * d.x, y = o.y + t * d.y;
      if (x * x + y * y <= cap[1] * cap[1]) best = t;
    }
  }
  return best;
}

}  // namespace

float intersect(const PreparedPrimitive& p, Vec3 d) {
  switch (p.kind) {
    case PrimitiveKind::RoundCone:
      return hit_round_cone(p, d);
    case PrimitiveKind::Ellipsoid:
      return hit_ellipsoid(p, d);
    case PrimitiveKind::Box:
      return hit_box(p, d);
    case PrimitiveKind::Frustum:
      return hit_frustum(p, d);
  }
  return kNoHit;
}

namespace {

template <float (*Hit)(const PreparedPrimitive&, Vec3)>
void raster_loop(const PreparedPrimitive& p, int32_t index, const PixelRect& r, uint32_t width, const Vec3* dirs,
                 float* depth, int32_t* owner) {
  for (int y = r.y0; y <= r.y1; ++y) {
    const size_t row = static_cast<size_t>(y) * width;
    for (int x = r.x0; x <= r.x1; ++x) {
      const size_t i = row + static_cast<size_t>(x);
      const float t = Hit(p, dirs[i]);
      if (t == kNoHit) continue;
      const float z = t * dirs[i].z;
      if (z < depth[i]) {
        depth[i] = z;
        owner[i] = index;
      }
    }
  }
}

}  // namespace

void rasterize(const PreparedPrimitive& p, int32_t index, const PixelRect& r, uint32_t width, const Vec3* dirs,
               float* depth, int32_t* owner) {
  switch (p.kind) {
    case PrimitiveKind::RoundCone:
      return raster_loop<hit_round_cone>(p, index, r, width, dirs, depth, owner);
    case PrimitiveKind::Ellipsoid:
      return raster_loop<hit_ellipsoid>(p, index, r, width, dirs, depth, owner);
    case PrimitiveKind::Box:
      return raster_loop<hit_box>(p, index, r, width, dirs, depth, owner);
    case PrimitiveKind::Frustum:
      return raster_loop<hit_frustum>(p, index, r, width, dirs, depth, owner);
  }
}

bool contains(const Primitive& p, Vec3 q) {
  switch (p.kind) {
    case PrimitiveKind::RoundCone: {
      // The hull of two balls is the union of the balls that interpolate them; the margin
      // |q - c(s)| - r(s) is convex in s, so a ternary search finds its minimum.
      auto margin = [&](float s) { return length(q - lerp(p.a, p.b, s)) - (p.ra + (p.rb - p.ra) * s); };
      float lo = 0.f, hi = 1.f;
      for (int i = 0; i < 60; ++i) {
        const float m1 = lo + (hi - lo) / 3.f, m2 = hi - (hi - lo) / 3.f;
        if (margin(m1) < margin(m2)) hi = m2;
        else lo = m1;
      }
      return std::min({margin(0.f), margin(1.f), margin(0.5f * (lo + hi))}) <= 0.f;
    }
    case PrimitiveKind::Ellipsoid: {
      float s = 0;
      for (int i = 0; i < 3; ++i) {
        const float v = dot(p.axis[i], q - p.centre) / p.half[i];
        s += v * v;
      }
      return s <= 1.f;
    }
    case PrimitiveKind::Box:
      for (int i = 0; i < 3; ++i)
        if (std::fabs(dot(p.axis[i], q - p.centre)) > p.half[i]) return false;
      return true;
    case PrimitiveKind::Frustum: {
      const float len = length(p.b - p.a);
      const Vec3 r = q - p.a;
      const float z = dot(p.axis[2], r);
      if (z < 0.f || z > len) return false;
      const float x = dot(p.axis[0], r), y = dot(p.axis[1], r) / p.depthRatio;
      const float rad = p.ra + (p.rb - p.ra) * z / len;
      return x * x + y * y <= rad * rad;
    }
  }
  return false;
}

}  // namespace quorvik::sim
