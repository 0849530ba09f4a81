#include "primitives.h"

#include <gtest/gtest.h>

#include <vector>

namespace quorvik::sim {
namespace {

Vec3 random_unit(Rng& rng) {
  for (;;) {
    const Vec3 v{rng.uniform(-1, 1), rng.uniform(-1, 1), rng.uniform(-1, 1)};
    if (length(v) > 0.1f && length(v) <= 1.f) return normalize(v);
  }
}

Axes random_axes(Rng& rng) {
  const Vec3 a = random_unit(rng);
  Vec3 b = random_unit(rng);
  b = normalize(b - a * dot(a, b));
  return {a, b, normalize(cross(a, b))};
}

// Primitives of every kind somewhere in front of the camera.
std::vector<Primitive> sample_primitives(Rng& rng, int perKind) {
  std::vector<Primitive> out;
  for (int i = 0; i < perKind; ++i) {
    const Vec3 c{rng.uniform(-400, 400), rng.uniform(-400, 400), rng.uniform(1500, 3000)};
    const Axes ax = random_axes(rng);
    const Vec3 tip = c + random_unit(rng) * rng.uniform(50, 400);
    const float ra = rng.uniform(20, 120);
    out.push_back(make_round_cone(c, tip, ra, i % 3 == 0 ? ra : rng.uniform(10, 120)));
    out.push_back(make_ellipsoid(c, ax, {rng.uniform(30, 200), rng.uniform(30, 200), rng.uniform(30, 200)}));
    out.push_back(make_box(c, ax.left, ax.up, ax.forward, {rng.uniform(20, 200), rng.uniform(20, 200), rng.uniform(20, 200)}));
    out.push_back(make_frustum(c, tip, rng.uniform(30, 150), rng.uniform(0, 150), ax.left, rng.uniform(0.5f, 1.f)));
  }
  return out;
}

// First point along the ray that lies inside, found by stepping.
float march(const Primitive& p, Vec3 d, float from, float to, float step) {
  for (float t = from; t <= to; t += step)
    if (contains(p, d * t)) return t;
  return kNoHit;
}

TEST(Primitives, IntersectionAgreesWithPointMembership) {
  Rng rng(11);
  const auto prims = sample_primitives(rng, 6);
  int hits = 0, slivers = 0;
  for (size_t k = 0; k < prims.size(); ++k) {
    const Primitive& p = prims[k];
    const PreparedPrimitive prepared = prepare(p);
    const Aabb box = bounds(p);
    for (int r = 0; r < 60; ++r) {
      // Rays aimed near the primitive, so that both hits and misses occur.
      const Vec3 target{rng.uniform(box.lo.x - 50, box.hi.x + 50), rng.uniform(box.lo.y - 50, box.hi.y + 50),
                        rng.uniform(box.lo.z, box.hi.z)};
      const Vec3 d = normalize(target);
      SCOPED_TRACE(::testing::Message() << "primitive " << k << " kind " << static_cast<int>(p.kind) << " ray " << r);
      const float t = intersect(prepared, d);
      const float m = march(p, d, box.lo.z - 1.f, length(box.hi) + 1.f, 1.f);
      if (m == kNoHit) {
        // A grazing chord shorter than the step escapes the marching; such rays are rare.
        if (t != kNoHit) ++slivers;
        continue;
      }
      ++hits;
      ASSERT_NE(t, kNoHit);
      EXPECT_NEAR(t, m, 1.5f);
    }
  }
  EXPECT_GT(hits, 300);
  EXPECT_LT(slivers, 8);
}

TEST(Primitives, BoundsHoldEveryInsidePoint) {
  Rng rng(5);
  for (const Primitive& p : sample_primitives(rng, 4)) {
    const Aabb b = bounds(p);
    for (int i = 0; i < 2000; ++i) {
      const Vec3 q{rng.uniform(b.lo.x - 100, b.hi.x + 100), rng.uniform(b.lo.y - 100, b.hi.y + 100),
                   rng.uniform(b.lo.z - 100, b.hi.z + 100)};
      if (!contains(p, q)) continue;
      EXPECT_TRUE(q.x >= b.lo.x - 0.01f && q.x <= b.hi.x + 0.01f && q.y >= b.lo.y - 0.01f && q.y <= b.hi.y + 0.01f &&
                  q.z >= b.lo.z - 0.01f && q.z <= b.hi.z + 0.01f);
    }
  }
}

TEST(Primitives, KnownDistancesAndNoHitsBehind) {
  const Vec3 ahead{0, 0, 1};
  EXPECT_NEAR(intersect(prepare(make_ellipsoid({0, 0, 2000}, Axes{}, {100, 100, 100})), ahead), 1900.f, 0.01f);
  EXPECT_NEAR(intersect(prepare(make_round_cone({-300, 0, 1000}, {300, 0, 1000}, 50, 50)), ahead), 950.f, 0.01f);
  EXPECT_FLOAT_EQ(intersect(prepare(make_box({0, 0, 3000}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {10, 10, 20})), ahead), 2980.f);
  EXPECT_NEAR(intersect(prepare(make_frustum({0, 0, 1000}, {0, 0, 1500}, 100, 50, {1, 0, 0}, 1.f)), ahead), 1000.f, 0.01f);
  // Same shapes behind the camera, and a camera inside a shape, give nothing.
  EXPECT_EQ(intersect(prepare(make_ellipsoid({0, 0, -2000}, Axes{}, {100, 100, 100})), ahead), kNoHit);
  EXPECT_EQ(intersect(prepare(make_round_cone({0, 0, -900}, {0, 0, -200}, 50, 80)), ahead), kNoHit);
  EXPECT_EQ(intersect(prepare(make_box({0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {10, 10, 10})), ahead), kNoHit);
  // A round cone whose larger sphere swallows the smaller one is that sphere.
  EXPECT_NEAR(intersect(prepare(make_round_cone({0, 0, 2000}, {0, 0, 2010}, 300, 20)), ahead), 1700.f, 0.01f);
}

TEST(Primitives, RasterKeepsTheNearestSurface) {
  const uint32_t w = 8;
  std::vector<Vec3> dirs(w, Vec3{0, 0, 1});
  std::vector<float> depth(w, 5000.f);
  std::vector<int32_t> owner(w, -1);
  const PixelRect all{0, 0, 7, 0};
  rasterize(prepare(make_box({0, 0, 3000}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {50, 50, 50})), 1, all, w, dirs.data(),
            depth.data(), owner.data());
  rasterize(prepare(make_box({0, 0, 4000}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {50, 50, 50})), 2, all, w, dirs.data(),
            depth.data(), owner.data());
  for (uint32_t i = 0; i < w; ++i) {
    EXPECT_FLOAT_EQ(depth[i], 2950.f);
    EXPECT_EQ(owner[i], 1);
  }
}

}  // namespace
}  // namespace quorvik::sim
