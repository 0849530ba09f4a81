#include "renderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "scene.h"

namespace quorvik::sim {
namespace {

constexpr int kLeftHand = 4, kRightHand = 7;

struct SceneSetup {
  uint32_t width = 320;
  bool mirrored = false;
  bool person = true;
  bool cabinet = false;
  float wallDepth = 5000.f;
  float personDepth = 3000.f;
};

// A level camera 1.2 m above the floor looking along +z into a bare room.
Scenario test_scene(const SceneSetup& s) {
  const ScenarioOptions o{
      .name = "test", .width = s.width, .height = s.width * 3 / 4, .frames = 10, .mirrored = s.mirrored};
  const CameraSetup cam{.width = o.width, .height = o.height, .position = {0, 1200, 0}, .mirrored = s.mirrored};
  Room room;
  room.x0 = -4000, room.x1 = 4000, room.z1 = s.wallDepth, room.height = 3000;
  if (s.cabinet) room.furniture.push_back({.kind = FurnitureKind::Cabinet, .size = {600, 1800, 400}, .z = 2500});
  std::vector<Actor> actors;
  if (s.person) {
    Actor a;
    a.id = 1;
    a.shape.hair = Hair::Short;
    a.timeline = Timeline(a.shape, 300, s.personDepth, kPi);  // facing the camera
    a.timeline.gesture(Activity::Point, 10.f, 0, 0.5f);
    actors.push_back(a);
  }
  return Scenario(o, cam, room, actors);
}

SensorOptions ideal_sensor(bool shadow = false) {
  SensorOptions s;
  s.shadow = shadow;
  s.dropouts = s.noise = false;
  return s;
}

Vec3 pixel_ray(const skeleton::DepthCameraModel& m, uint32_t x, uint32_t y) {
  return normalize({(static_cast<float>(x) - m.centerX) / m.focalX, (m.centerY - static_cast<float>(y)) / m.focalY, 1.f});
}

TEST(Render, EmptyRoomHasKnownDepthsAndRangeLimits) {
  SceneSetup setup{.person = false};
  const Scenario sc = test_scene(setup);
  Renderer r(sc, ideal_sensor());
  Frame f;
  r.render(0, f);
  const auto& m = r.camera_model();
  // The far wall straight ahead and the floor below the horizon.
  EXPECT_NEAR(r.true_depth()[120 * 320 + 160], 5000.f, 0.5f);
  EXPECT_NEAR(f.depth.at(160, 120), 5000.f, 60.f);
  for (uint32_t y : {200u, 220u, 239u}) {
    SCOPED_TRACE(y);
    const float expected = 1200.f * m.focalY / (static_cast<float>(y) - m.centerY);
    EXPECT_NEAR(r.true_depth()[y * 320 + 160], expected, 1e-3f * expected);
    EXPECT_NEAR(f.depth.at(160, y), expected, 0.012f * expected);
  }
  EXPECT_FLOAT_EQ(f.floor[1], 1.f);
  EXPECT_FLOAT_EQ(f.floor[3], 1200.f);
  // A wall beyond the sensor's range gives no depth; nothing nearer than its near limit either.
  setup.wallDepth = 12000.f;
  const Scenario far = test_scene(setup);
  Renderer rf(far, ideal_sensor());
  rf.render(0, f);
  EXPECT_EQ(f.depth.at(160, 120), 0);
  EXPECT_EQ(f.depth.at(160, 110), 0);
  setup.person = true;
  setup.personDepth = 450.f;
  const Scenario near = test_scene(setup);
  Renderer rn(near, ideal_sensor());
  rn.render(0, f);
  EXPECT_EQ(f.people[0].pixels, 0u);
}

TEST(Render, DepthsAreShiftTableValuesWithinRange) {
  for (const char* name : {"mixed", "crossing", "sit"}) {
    SCOPED_TRACE(name);
    const Scenario sc = Scenario::make({.name = name, .frames = 90, .seed = 4});
    Renderer r(sc);
    const std::set<uint16_t> valid(r.tables().shiftToDepth.begin(), r.tables().shiftToDepth.end());
    Frame f;
    for (int i : {0, 45, 89}) {
      r.render(i, f);
      size_t nonzero = 0;
      for (size_t k = 0; k < f.depth.size(); ++k) {
        const uint16_t d = f.depth[k];
        if (d == 0) continue;
        ++nonzero;
        ASSERT_TRUE(valid.count(d)) << d;
        ASSERT_GT(d, 500);
        ASSERT_LT(d, 10000);
      }
      EXPECT_GT(nonzero, f.depth.size() / 2);
    }
  }
}

// Each person pixel lies on that person's body, and no other pixel's ray passes through a person.
TEST(Render, PersonPixelsAreExactlyThePersonsSurface) {
  for (uint64_t seed : {2u, 9u}) {
    const Scenario sc = Scenario::make({.name = "crossing", .people = 3, .frames = 150, .seed = seed});
    Renderer r(sc, ideal_sensor());
    Frame f;
    for (int i : {40, 75, 110}) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " frame " << i);
      r.render(i, f);
      std::vector<std::vector<Primitive>> parts;
      for (const Actor& a : sc.actors()) {
        PosedBody b;
        pose_body(a.shape, a.timeline.pose_at(sc.time_of(i)), false, b);
        parts.emplace_back();
        for (const Primitive& p : b.parts) parts.back().push_back(transformed(p, sc.camera().to_camera()));
      }
      auto inside = [&](size_t person, Vec3 q) {
        for (const Primitive& p : parts[person]) {
          const Aabb b = bounds(p);
          if (q.x < b.lo.x || q.y < b.lo.y || q.z < b.lo.z || q.x > b.hi.x || q.y > b.hi.y || q.z > b.hi.z) continue;
          if (contains(p, q)) return true;
        }
        return false;
      };
      // A ray that only grazes a part may leave it again within a fraction of a millimetre;
      // such pixels are counted, not failed.
      int personPixels = 0, grazing = 0;
      for (uint32_t y = 0; y < f.depth.height(); y += 2) {
        for (uint32_t x = 0; x < f.depth.width(); x += 2) {
          const size_t k = size_t{y} * f.depth.width() + x;
          const Vec3 d = pixel_ray(r.camera_model(), x, y);
          const Vec3 hit = d * (r.true_depth()[k] / d.z);
          const uint8_t id = f.ids[k];
          ASSERT_EQ(id != 0, f.labels[k] != 0);
          if (id != 0) {
            ++personPixels;
            if (!inside(id - 1u, hit + d * 3.f)) ++grazing;
            ASSERT_FALSE(inside(id - 1u, hit - d * 3.f)) << x << "," << y;
          } else if (f.depth[k] != 0) {
            for (size_t p = 0; p < parts.size(); ++p) {
              ASSERT_FALSE(inside(p, hit + d * 3.f)) << x << "," << y;
              ASSERT_FALSE(inside(p, hit - d * 30.f)) << x << "," << y;
            }
          }
        }
      }
      EXPECT_LT(grazing, personPixels / 50 + 2);
      EXPECT_GT(personPixels, 200);
    }
  }
}

// In any pose, a joint never projects onto scenery that lies behind it, away from its person.
TEST(Render, JointsNeverFloatOverTheBackground) {
  for (const char* name : {"mixed", "crouch", "kick", "sit", "crossing"}) {
    const Scenario sc = Scenario::make({.name = name, .people = std::string(name) == "crossing" ? 3 : 2, .seed = 31});
    Renderer r(sc, ideal_sensor());
    Frame f;
    for (int i = 0; i < 300; i += 25) {
      r.render(i, f);
      for (const PersonTruth& p : f.people) {
        if (p.pixels < 300) continue;
        for (int j = 0; j < 16; ++j) {
          const JointTruth& t = p.joints[j];
          if (!t.inImage) continue;
          SCOPED_TRACE(::testing::Message() << name << " frame " << i << " person " << int{p.id} << " joint " << j);
          bool nearPerson = false;
          for (int dy = -3; dy <= 3; ++dy)
            for (int dx = -3; dx <= 3; ++dx) {
              const int x = static_cast<int>(std::lround(t.u)) + dx, y = static_cast<int>(std::lround(t.v)) + dy;
              if (x >= 0 && y >= 0 && x < 320 && y < 240 && f.ids.at(x, y) == p.id) nearPerson = true;
            }
          const uint16_t d = f.depth.at(static_cast<uint32_t>(std::lround(t.u)), static_cast<uint32_t>(std::lround(t.v)));
          EXPECT_TRUE(nearPerson || d == 0 || d < t.camera.z + 100.f) << "depth " << d << " joint z " << t.camera.z;
        }
      }
    }
  }
}

TEST(Render, MirroringSwapsSidesButKeepsTheModelsLeftOnTheImageRight) {
  SceneSetup setup;
  const Scenario plain = test_scene(setup);
  setup.mirrored = true;
  const Scenario mirrored = test_scene(setup);
  Renderer rp(plain, ideal_sensor()), rm(mirrored, ideal_sensor());
  Frame fp, fm;
  rp.render(5, fp);
  rm.render(5, fm);
  const auto& jp = fp.people[0].joints;
  const auto& jm = fm.people[0].joints;
  // The same anatomical hand: camera x negated, joint name swapped.
  EXPECT_NEAR(jm[kRightHand].camera.x, -jp[kLeftHand].camera.x, 0.01f);
  EXPECT_NEAR(jm[kRightHand].camera.y, jp[kLeftHand].camera.y, 0.01f);
  EXPECT_NEAR(jm[kLeftHand].camera.z, jp[kRightHand].camera.z, 0.01f);
  auto centroid = [](const Frame& f, uint8_t label) {
    double sx = 0;
    int n = 0;
    for (uint32_t y = 0; y < f.labels.height(); ++y)
      for (uint32_t x = 0; x < f.labels.width(); ++x)
        if (f.labels.at(x, y) == label) {
          sx += x;
          ++n;
        }
    return std::pair{n > 0 ? sx / n : -1.0, n};
  };
  for (const Frame* f : {&fp, &fm}) {
    // Facing the camera, the model's left hand (label 2) is on the image's right.
    const auto [left, nl] = centroid(*f, 2);
    const auto [right, nr] = centroid(*f, 4);
    EXPECT_GT(nl, 20);
    EXPECT_GT(nr, 20);
    EXPECT_GT(left, right);
    EXPECT_GT(f->people[0].joints[kLeftHand].u, f->people[0].joints[kRightHand].u);
  }
  // The pointing arm is the person's left: its label is 2 plainly and 4 mirrored.
  EXPECT_NEAR(centroid(fp, 2).second, centroid(fm, 4).second, 0.15 * centroid(fp, 2).second + 10);
}

// Width of the run of zeros next to the cabinet's left and right edge on its middle row.
std::pair<int, int> shadow_widths(const Frame& f) {
  const uint32_t y = f.depth.height() / 2;
  int left = -1, right = -1;
  for (uint32_t x = 0; x < f.depth.width(); ++x) {
    const uint16_t d = f.depth.at(x, y);
    if (d != 0 && d < 3000) {
      if (left < 0) left = static_cast<int>(x);
      right = static_cast<int>(x);
    }
  }
  int wl = 0, wr = 0;
  for (int x = left - 1; x >= 0 && f.depth.at(x, y) == 0; --x) ++wl;
  for (int x = right + 1; x < static_cast<int>(f.depth.width()) && f.depth.at(x, y) == 0; ++x) ++wr;
  return {wl, wr};
}

TEST(Render, ProjectorShadowFallsAwayFromTheEmitterAndFlipsWhenMirrored) {
  const SensorOptions sensor = ideal_sensor(true);
  SceneSetup setup{.person = false, .cabinet = true};
  const Scenario plain = test_scene(setup);
  Renderer rp(plain, sensor);
  Frame f;
  rp.render(0, f);
  // Emitter 75 mm to the camera's right: the shadow lies left of the object, as wide as the
  // disparity between the object's front (2300 mm) and the wall (5000 mm).
  const float expected = rp.camera_model().focalX * 75.f * (1.f / 2300.f - 1.f / 5000.f);
  auto [wl, wr] = shadow_widths(f);
  EXPECT_NEAR(wl, expected, 1.0);
  EXPECT_EQ(wr, 0);
  setup.mirrored = true;
  const Scenario mirrored = test_scene(setup);
  Renderer rm(mirrored, sensor);
  rm.render(0, f);
  std::tie(wl, wr) = shadow_widths(f);
  EXPECT_EQ(wl, 0);
  EXPECT_NEAR(wr, expected, 1.0);
}

TEST(Render, SameSeedSameFramesInAnyOrder) {
  ScenarioOptions o{.name = "mixed", .frames = 60, .seed = 77};
  const Scenario a = Scenario::make(o), b = Scenario::make(o);
  Renderer ra(a), rb(b);
  Frame fa5, fa17, fb5, fb17;
  ra.render(17, fa17);
  ra.render(5, fa5);
  rb.render(5, fb5);
  rb.render(17, fb17);
  for (auto [x, y] : {std::pair{&fa5, &fb5}, std::pair{&fa17, &fb17}}) {
    EXPECT_EQ(0, std::memcmp(x->depth.data(), y->depth.data(), x->depth.byte_size()));
    EXPECT_EQ(0, std::memcmp(x->labels.data(), y->labels.data(), x->labels.byte_size()));
    EXPECT_EQ(0, std::memcmp(x->ids.data(), y->ids.data(), x->ids.byte_size()));
    ASSERT_EQ(x->people.size(), y->people.size());
    for (size_t p = 0; p < x->people.size(); ++p)
      EXPECT_EQ(x->people[p].joints[0].camera.x, y->people[p].joints[0].camera.x);
  }
  o.seed = 78;
  const Scenario c = Scenario::make(o);
  Renderer rc(c);
  Frame fc;
  rc.render(5, fc);
  EXPECT_NE(0, std::memcmp(fa5.depth.data(), fc.depth.data(), fa5.depth.byte_size()));
}

TEST(Render, ReductionKeepsTheNearestDepthOfEachBlock) {
  const Scenario sc = Scenario::make({.name = "wave", .width = 640, .height = 480, .frames = 30});
  Renderer r(sc);
  Frame big, small;
  r.render(20, big);
  reduce_to(big, 160, 120, small);
  for (uint32_t y = 0; y < 120; ++y)
    for (uint32_t x = 0; x < 160; ++x) {
      uint16_t best = 0;
      for (uint32_t k = 0; k < 16; ++k) {
        const uint16_t d = big.depth.at(x * 4 + k % 4, y * 4 + k / 4);
        if (d != 0 && (best == 0 || d < best)) best = d;
      }
      ASSERT_EQ(small.depth.at(x, y), best);
      ASSERT_EQ(small.ids.at(x, y) != 0, small.labels.at(x, y) != 0);
    }
  ASSERT_EQ(small.people.size(), 1u);
  EXPECT_NEAR(small.people[0].joints[0].u * 4.f, big.people[0].joints[0].u, 1e-3f);
}

TEST(Scenarios, EveryNameBuildsAndRenders) {
  for (const std::string& name : scenario_names()) {
    SCOPED_TRACE(name);
    const Scenario sc = Scenario::make({.name = name, .width = 160, .height = 120});
    if (name == "empty-room") {
      EXPECT_TRUE(sc.actors().empty());
    } else if (name == "crossing") {
      EXPECT_GE(sc.actors().size(), 2u);
    } else if (name != "mixed") {
      EXPECT_EQ(sc.actors().size(), 1u);
    }
    Renderer r(sc);
    Frame first, last;
    r.render(0, first);
    r.render(299, last);
    EXPECT_EQ(first.depth.width(), 160u);
    if (name == "walk-in") {
      EXPECT_EQ(first.people[0].pixels, 0u);
      EXPECT_GT(last.people[0].pixels, 100u);
    }
    if (name == "walk-out") {
      EXPECT_GT(first.people[0].pixels, 100u);
      EXPECT_EQ(last.people[0].pixels, 0u);
    }
  }
  EXPECT_THROW(Scenario::make({.name = "dance"}), std::invalid_argument);
  EXPECT_THROW(Scenario::make({.name = "wave", .width = 300}), std::invalid_argument);
}

TEST(Scenarios, FurnitureMovesWhileSomeoneWalksAlong) {
  const Scenario sc = Scenario::make({.name = "furniture-moved", .width = 160, .height = 120, .frames = 450});
  const auto moving = std::count_if(sc.room().furniture.begin(), sc.room().furniture.end(),
                                    [](const Furniture& f) { return f.moves(); });
  ASSERT_EQ(moving, 1);
  const Furniture& f = *std::find_if(sc.room().furniture.begin(), sc.room().furniture.end(),
                                     [](const Furniture& g) { return g.moves(); });
  float x0, z0, y0, x1, z1, y1;
  f.placement_at(0.f, x0, z0, y0);
  f.placement_at(100.f, x1, z1, y1);
  EXPECT_GT(length(Vec3{x1 - x0, 0, z1 - z0}), 300.f);
  EXPECT_LT(f.moveEnd, sc.time_of(450));
}

}  // namespace
}  // namespace quorvik::sim
