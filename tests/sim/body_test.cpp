#include "body.h"

#include <gtest/gtest.h>

#include <set>

#include "motion.h"
#include "scene.h"

namespace quorvik::sim {
namespace {

enum J { kHead = 0, kShoulderSpine, kLShoulder, kLElbow, kLHand, kRShoulder, kRElbow, kRHand, kMid, kBase,
         kLHip, kLKnee, kLFoot, kRHip, kRKnee, kRFoot };

float dist(Vec3 a, Vec3 b) { return length(a - b); }

Pose random_pose(Rng& rng) {
  Pose p;
  p.x = rng.uniform(-1000, 1000);
  p.z = rng.uniform(1000, 4000);
  p.heading = rng.uniform(-kPi, kPi);
  p.lean = rng.uniform(-0.3f, 1.f);
  p.sideBend = rng.uniform(-0.3f, 0.3f);
  p.twist = rng.uniform(-0.5f, 0.5f);
  for (int s = 0; s < 2; ++s) {
    p.arm[s] = {rng.uniform(-1, 3), rng.uniform(-0.5f, 2.8f), rng.uniform(-1.5f, 1.5f), rng.uniform(0, 2.5f)};
    p.leg[s] = {rng.uniform(-0.5f, 2.f), rng.uniform(-0.4f, 1.f), 0.f, rng.uniform(0, 2.5f)};
  }
  clamp_to_limits(p);
  return p;
}

TEST(Body, BonesKeepTheirLengthsInEveryPose) {
  Rng rng(3);
  for (int i = 0; i < 200; ++i) {
    SCOPED_TRACE(i);
    const BodyShape shape = BodyShape::random(rng);
    const BodyDims d = body_dims(shape);
    PosedBody b;
    pose_body(shape, random_pose(rng), false, b);
    const auto& j = b.joints;
    for (auto [sh, el, ha] : {std::tuple{kLShoulder, kLElbow, kLHand}, std::tuple{kRShoulder, kRElbow, kRHand}}) {
      EXPECT_NEAR(dist(j[sh], j[el]), d.upperArmLen, 0.5f);
      EXPECT_NEAR(dist(j[el], j[ha]), d.forearmLen + 0.5f * d.handLen, 0.5f);
    }
    for (auto [hip, knee] : {std::pair{kLHip, kLKnee}, std::pair{kRHip, kRKnee}})
      EXPECT_NEAR(dist(j[hip], j[knee]), d.thighLen, 0.5f);
    EXPECT_NEAR(dist(j[kBase], j[kMid]), d.lowSpineLen, 0.5f);
    EXPECT_NEAR(dist(j[kMid], j[kShoulderSpine]), d.upSpineLen, 0.5f);
    EXPECT_NEAR(dist(j[kShoulderSpine], j[kHead]), d.neckLen, 0.5f);
  }
}

TEST(Body, StandingPersonHasTheirHeightAndSides) {
  for (float height : {1100.f, 1750.f, 2000.f}) {
    SCOPED_TRACE(height);
    BodyShape shape;
    shape.height = height;
    shape.hair = Hair::None;
    Pose p;  // facing +z: the back is to a camera that looks along +z
    PosedBody b;
    pose_body(shape, p, false, b);
    const BodyDims d = body_dims(shape);
    const float top = b.joints[kHead].y + d.headRadii.y;
    EXPECT_NEAR(top, height, 0.03f * height);
    // The lowest foot stands on the floor.
    EXPECT_NEAR(std::min(b.joints[kLFoot].y, b.joints[kRFoot].y), 0.5f * d.ankleHeight, 0.3f * d.ankleHeight);
    // Seen from behind, the person's left is the camera's left (-x).
    EXPECT_LT(b.joints[kLHand].x, b.joints[kRHand].x);
    EXPECT_LT(b.joints[kLHip].x, b.joints[kRHip].x);
    p.heading = kPi;  // facing the camera
    pose_body(shape, p, false, b);
    EXPECT_GT(b.joints[kLHand].x, b.joints[kRHand].x);
  }
}

// Label of the part nearest to a point in a posed body.
uint8_t label_near(const PosedBody& b, Vec3 p) {
  for (const Primitive& part : b.parts)
    if (contains(part, p)) return label_at(b.labelers[part.labeler], p);
  return 0;
}

TEST(Body, LabelsFollowTheLabelTable) {
  BodyShape shape;
  shape.hair = Hair::None;
  Pose pose;
  PosedBody b;
  pose_body(shape, pose, false, b);
  const auto& j = b.joints;
  struct Case {
    const char* what;
    Vec3 at;
    uint8_t label, swapped;
  };
  const Vec3 up{0, 1, 0};
  const Case cases[] = {
      {"left hand", j[kLHand], 2, 4},
      {"right hand", j[kRHand], 4, 2},
      {"left forearm", lerp(j[kLElbow], j[kLHand], 0.4f), 3, 5},
      {"left upper arm", lerp(j[kLShoulder], j[kLElbow], 0.5f), 7, 8},
      {"right upper arm", lerp(j[kRShoulder], j[kRElbow], 0.5f), 8, 7},
      {"left elbow", j[kLElbow], 26, 27},
      {"right shoulder", j[kRShoulder], 23, 22},
      {"head", j[kHead], 6, 6},
      {"lower neck", j[kShoulderSpine] + up * 10.f, 21, 21},
      {"left thigh", lerp(j[kLHip], j[kLKnee], 0.5f), 9, 12},
      {"right shin", lerp(j[kRKnee], j[kRFoot], 0.5f), 13, 10},
      {"left knee", j[kLKnee], 24, 25},
      {"right foot", j[kRFoot], 14, 11},
      {"left chest", j[kMid] + up * 100.f + (j[kLShoulder] - j[kShoulderSpine]) * 0.5f, 17, 18},
      {"right belly", j[kMid] - up * 100.f + (j[kRHip] - j[kBase]) * 0.5f, 20, 19},
      {"left hip", j[kLHip] + up * 20.f, 15, 16},
  };
  PosedBody mirrored;
  pose_body(shape, pose, true, mirrored);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(label_near(b, c.at), c.label);
    EXPECT_EQ(label_near(mirrored, c.at), c.swapped);
  }
}

TEST(Body, ShapesVaryOverTheWholeRange) {
  Rng rng(99);
  std::set<std::pair<int, int>> shapes;
  float lo = 1e9f, hi = 0, thin = 9, heavy = 0;
  for (int i = 0; i < 600; ++i) {
    const BodyShape s = BodyShape::random(rng);
    shapes.insert({static_cast<int>(s.height / 10.f), static_cast<int>(s.build * 50.f)});
    lo = std::min(lo, s.height);
    hi = std::max(hi, s.height);
    thin = std::min(thin, s.build);
    heavy = std::max(heavy, s.build);
  }
  EXPECT_GT(shapes.size(), 450u);
  EXPECT_GE(lo, 1100.f);
  EXPECT_LT(lo, 1200.f);
  EXPECT_LE(hi, 2000.f);
  EXPECT_GT(hi, 1900.f);
  EXPECT_LT(thin, 0.85f);
  EXPECT_GT(heavy, 1.3f);
}

TEST(Motion, EveryScenarioMovesSmoothlyWithinJointLimits) {
  for (const std::string& name : scenario_names()) {
    SCOPED_TRACE(name);
    const Scenario sc = Scenario::make({.name = name, .width = 160, .height = 120, .frames = 360, .seed = 21});
    for (const Actor& a : sc.actors()) {
      PosedBody prev, cur;
      for (int f = 0; f < sc.frame_count(); ++f) {
        const Pose p = a.timeline.pose_at(sc.time_of(f));
        using L = JointLimits;
        for (int s = 0; s < 2; ++s) {
          ASSERT_LE(p.arm[s].bend, L::kElbowMax + 1e-5f);
          ASSERT_LE(p.leg[s].bend, L::kKneeMax + 1e-5f);
          ASSERT_GE(p.leg[s].flex, L::kHipFlexMin - 1e-5f);
          ASSERT_LE(p.leg[s].flex, L::kHipFlexMax + 1e-5f);
        }
        pose_body(a.shape, p, false, cur);
        if (f > 0) {
          for (int j = 0; j < 16; ++j) {
            // 30 frames per second: 200 mm per frame is 6 m/s.
            ASSERT_LT(dist(cur.joints[j], prev.joints[j]), 200.f) << "frame " << f << " joint " << j;
          }
        }
        ASSERT_GT(std::min(cur.joints[kLFoot].y, cur.joints[kRFoot].y), -30.f) << "frame " << f;
        std::swap(prev, cur);
      }
    }
  }
}

TEST(Motion, TimelineEndsWhereItsStepsSay) {
  BodyShape shape;
  Timeline tl(shape, 0, 2000, 0);
  tl.stand(1.f).walk_to(1500, 2000).turn_to(kPi, 1.f).gesture(Activity::Wave, 2.f, 1);
  const Pose start = tl.pose_at(0.5f);
  EXPECT_NEAR(start.x, 0.f, 1e-3f);
  EXPECT_NEAR(start.z, 2000.f, 1e-3f);
  const Pose end = tl.pose_at(tl.end_time() + 5.f);
  EXPECT_NEAR(end.x, 1500.f, 1e-2f);
  EXPECT_NEAR(std::fabs(angle_diff(end.heading, kPi)), 0.f, 1e-3f);
  // Mid-walk the person is between the two points, facing along the path (+x).
  const Step& walk = tl.steps()[2];
  ASSERT_EQ(walk.activity, Activity::Walk);
  const Pose mid = tl.pose_at(0.5f * (walk.t0 + walk.t1));
  EXPECT_GT(mid.x, 300.f);
  EXPECT_LT(mid.x, 1200.f);
  EXPECT_NEAR(mid.heading, kPi / 2, 0.05f);
}

}  // namespace
}  // namespace quorvik::sim
