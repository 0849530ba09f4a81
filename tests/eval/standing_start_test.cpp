// People who stand in view when tracking starts, with the shipped forest on simulated rooms:
// they must be found whether or not they move, as one body, and a person-sized stack of
// boxes must not; once found, turning their back keeps their left side on the left.

#include <array>
#include <cmath>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "forest/forest_reader.h"
#include "body.h"
#include "renderer.h"
#include "runner.h"
#include "skeleton/vocabulary.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

using skeleton::BodyStatus;

skeleton::DecisionForest shipped_forest() {
  auto forest = skeleton::load_forest(std::string(QBT_SOURCE_DIR) + "/data/QuorvikBodyTracking.data");
  if (!forest.is_ok()) ADD_FAILURE() << "the shipped forest does not load";
  return forest.is_ok() ? forest.unwrap() : skeleton::DecisionForest{};
}

// The camera and the walls of an empty room drawn with `o`'s seed, without furniture.
std::pair<sim::CameraSetup, sim::Room> bare_room(sim::ScenarioOptions& o) {
  o.name = "empty-room";
  const sim::Scenario empty = sim::Scenario::make(o);
  sim::Room room = empty.room();
  room.furniture.clear();
  return {empty.camera(), room};
}

struct Outcome {
  int firstTracked = -1;  // frame of the first body with a reported joint
  int mostBodies = 0;     // tracked bodies in one frame, at most
};

Outcome track(const sim::Scenario& scenario, const skeleton::DecisionForest& forest) {
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(forest), 160, 120);
  tracker.isDepthMirrored = scenario.options().mirrored;
  sim::Frame frame;
  Outcome run;
  for (int i = 0; i < scenario.frame_count(); ++i) {
    renderer.render(i, frame);
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    int bodies = 0;
    for (const skeleton::Body& b : tracker.bodies()) {
      if (b.status != BodyStatus::Tracking && b.status != BodyStatus::TrackingStarted) continue;
      ++bodies;
      for (const auto& [type, joint] : b.joints) {
        if (joint.status != skeleton::JointStatus::None && run.firstTracked < 0) run.firstTracked = i;
      }
    }
    run.mostBodies = std::max(run.mostBodies, bodies);
  }
  return run;
}

TEST(StandingStart, StillOrMovingOnePersonBecomesOneBodyWithin45Frames) {
  const skeleton::DecisionForest forest = shipped_forest();
  struct Case {
    const char* scenario;
    uint32_t width;
    uint64_t seed;
    bool mirrored;
  };
  // Kick: the moving leg must not become a body of its own before the person does.
  for (const Case& c : {Case{"wave", 160, 31, false}, Case{"kick", 320, 32, true}, Case{"arms-crossed", 160, 33, true}}) {
    SCOPED_TRACE(testing::Message() << c.scenario << " seed " << c.seed);
    const Outcome run = track(sim::Scenario::make({.name = c.scenario, .people = 1, .width = c.width,
                                                   .height = c.width * 3 / 4, .frames = 70, .seed = c.seed,
                                                   .mirrored = c.mirrored}),
                              forest);
    EXPECT_GE(run.firstTracked, 0);
    EXPECT_LE(run.firstTracked, 45);
    EXPECT_EQ(run.mostBodies, 1);
  }
}

TEST(StandingStart, PersonSizedColumnsAreNoBodies) {
  const skeleton::DecisionForest forest = shipped_forest();
  sim::ScenarioOptions o{.frames = 90, .seed = 34};
  const auto [camera, bare] = bare_room(o);
  sim::Room room = bare;
  // A stack of boxes as wide and as tall as a person, and a narrower, taller column (a coat
  // stand), standing free in front of the camera.
  sim::Furniture stack, column;
  stack.kind = column.kind = sim::FurnitureKind::Cabinet;
  stack.size = {480, 1700, 350};
  stack.x = camera.position.x - 500, stack.z = camera.position.z + 2600;
  column.size = {300, 1850, 300};
  column.x = camera.position.x + 600, column.z = camera.position.z + 3000;
  room.furniture = {stack, column};
  const Outcome run = track(sim::Scenario(o, camera, room, {}), forest);
  EXPECT_EQ(run.mostBodies, 0);
}

struct Sides {
  int joints = 0;  // reported joints that have a mirror image
  int right = 0;   // of those, nearer to the person's joint of that name than to its mirror image
};

// Tracks one person in a bare 320x240 room drawn with `seed`, on the timeline `place` makes
// from the person's shape and the camera's position, and counts, in the frames to which
// `phase` gives a number (0 or 1, by the scenario's time), on which side the reported joints
// that `counted` accepts lie.
template <typename Place, typename Phase, typename Counted>
std::array<Sides, 2> sides_of(const skeleton::DecisionForest& forest, int frames, uint64_t seed, Place place,
                              Phase phase, Counted counted) {
  sim::ScenarioOptions o{.width = 320, .height = 240, .frames = frames, .seed = seed};
  const auto [camera, room] = bare_room(o);
  sim::Actor person;
  person.timeline = place(person.shape, camera.position);
  const sim::Scenario scenario(o, camera, room, {person});
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(forest), 160, 120);
  tracker.isDepthMirrored = false;
  sim::Frame frame;
  std::array<Sides, 2> sides{};
  for (int i = 0; i < scenario.frame_count(); ++i) {
    renderer.render(i, frame);
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    const int k = phase(scenario.time_of(i));
    if (k < 0 || frame.people.empty() || tracker.bodies().empty()) continue;
    const sim::PersonTruth& truth = frame.people.front();
    for (const auto& [type, joint] : tracker.bodies().front().joints) {
      if (joint.status == skeleton::JointStatus::None || type >= skeleton::kJointCount || !counted(type)) continue;
      const uint8_t other = skeleton::mirror_joint(type);
      if (other == type) continue;
      const auto distance = [&](uint8_t truthType) {
        const skeleton::WorldPoint& p = truth.joints[truthType].camera;
        return std::hypot(joint.worldPosition[0] - p.x, joint.worldPosition[1] - p.y, joint.worldPosition[2] - p.z);
      };
      ++sides[k].joints;
      sides[k].right += distance(type) < distance(other) ? 1 : 0;
    }
  }
  return sides;
}

// Turns away, then back: the hands, elbows and shoulders reported as left must be the
// person's left ones while the back is turned as much as before the turn. A back looks like a
// front in depth, so the sides have to be followed through the turn.
TEST(StandingStart, SidesStayTrueThroughATurnAway) {
  const skeleton::DecisionForest forest = shipped_forest();
  // Not quite half a turn, so that the direction of each turn is known.
  for (const float turn : {3.0f, -3.0f}) {
    SCOPED_TRACE(testing::Message() << "turning by " << turn);
    const auto turn_away = [turn](const sim::BodyShape& shape, const sim::Vec3& camera) {
      const float x = camera.x + 200, z = camera.z + 2800;
      const float facing = std::atan2(camera.x - x, camera.z - z);
      sim::Timeline timeline(shape, x, z, facing);
      timeline.stand(3.f).turn_to(facing + turn, 1.5f).stand(3.f).turn_to(facing, 1.5f).stand(2.f);
      return timeline;
    };
    // 0: facing the camera before the turn, 1: the back turned.
    const auto phase = [](float t) { return t > 1.5f && t < 3.f ? 0 : t > 5.f && t < 7.5f ? 1 : -1; };
    const auto [facingCamera, away] = sides_of(forest, 330, 35, turn_away, phase, [](uint8_t) { return true; });
    ASSERT_GT(facingCamera.joints, 100);
    ASSERT_GT(away.joints, 100);
    EXPECT_GE(facingCamera.right, facingCamera.joints * 9 / 10);
    EXPECT_GE(away.right, away.joints * 9 / 10);
  }
}

// Walking across the view, a person shows a profile in which the forest cannot tell the near
// arm from the far one; the arm joints reported as left must still be the left ones.
TEST(StandingStart, ArmsKeepTheirSidesWalkingAcross) {
  const skeleton::DecisionForest forest = shipped_forest();
  for (const float way : {1.f, -1.f}) {
    SCOPED_TRACE(testing::Message() << "walking " << (way > 0 ? "right" : "left"));
    const auto walk_across = [way](const sim::BodyShape& shape, const sim::Vec3& camera) {
      sim::Timeline timeline(shape, camera.x - way * 1900, camera.z + 3000, way * 1.57f);
      timeline.walk_to(camera.x + way * 1900, camera.z + 3000, 0.9f);
      return timeline;
    };
    const auto arm = [](uint8_t type) { return type >= 2 && type <= 7; };
    const Sides arms = sides_of(forest, 100, 36, walk_across, [](float) { return 0; }, arm)[0];
    ASSERT_GT(arms.joints, 300);
    EXPECT_GE(arms.right, arms.joints * 7 / 10);
  }
}

}  // namespace
}  // namespace quorvik::eval
