// Several people in one room, with the shipped forest on simulated rooms: each keeps one body
// that covers them and nobody else, through crossings and one standing behind the other.

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "forest/forest_reader.h"
#include "metrics.h"
#include "renderer.h"
#include "runner.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

skeleton::DecisionForest shipped_forest() {
  auto forest = skeleton::load_forest(std::string(QBT_SOURCE_DIR) + "/data/QuorvikBodyTracking.data");
  if (!forest.is_ok()) ADD_FAILURE() << "the shipped forest does not load";
  return forest.is_ok() ? forest.unwrap() : skeleton::DecisionForest{};
}

sim::Scenario empty_room(sim::ScenarioOptions& o) {
  o.name = "empty-room";
  const sim::Scenario empty = sim::Scenario::make(o);
  sim::Room room = empty.room();
  room.furniture.clear();
  return sim::Scenario(o, empty.camera(), room, {});
}

sim::Actor standing(const sim::CameraSetup& camera, uint8_t id, float x, float z) {
  sim::Actor a;
  a.id = id;
  const float px = camera.position.x + x, pz = camera.position.z + z;
  a.timeline = sim::Timeline(a.shape, px, pz, std::atan2(camera.position.x - px, camera.position.z - pz));
  return a;
}

// Per person, over the frames from `from` to `to` seconds: the share of its pixels under the
// body that covers most of it, and the share of frames in which that body also covered a
// fifth of someone else.
struct Coverage {
  double ownShare = 1;
  double sharedFrames = 0;  // share of the frames
};

std::map<uint8_t, Coverage> track_coverage(const sim::Scenario& scenario, float from, float to) {
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(shipped_forest()), 160, 120);
  tracker.isDepthMirrored = scenario.options().mirrored;
  sim::Frame frame;
  std::map<uint8_t, uint64_t> own, all, shared;
  int frames = 0;
  std::map<uint8_t, Coverage> out;
  for (int i = 0; i < scenario.frame_count() && scenario.time_of(i) < to; ++i) {
    renderer.render(i, frame);
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    if (scenario.time_of(i) < from) continue;
    ++frames;
    const Overlap overlap = count_overlap(tracker.bodyMask().data(), frame.ids.data(), frame.ids.size());
    for (const auto& [person, pixels] : overlap.personPixels) {
      const uint8_t body = nearest_body(overlap, person);
      all[person] += pixels;
      if (body == 0) continue;
      own[person] += overlap.personBody.at(person).at(body);
      for (const auto& [other, bodies] : overlap.personBody) {
        if (other != person && bodies.contains(body) && 5 * bodies.at(body) > overlap.personPixels.at(other)) {
          ++shared[person];
          break;
        }
      }
    }
  }
  for (const auto& [person, pixels] : all) {
    out[person].ownShare = double(own[person]) / double(pixels);
    out[person].sharedFrames = double(shared[person]) / frames;
  }
  return out;
}

// Two people, each mostly under a body of their own that covers nobody else.
void expect_two_kept_apart(const std::map<uint8_t, Coverage>& coverage) {
  ASSERT_EQ(coverage.size(), 2u);
  for (const auto& [person, c] : coverage) {
    SCOPED_TRACE(testing::Message() << "person " << int(person));
    EXPECT_GE(c.ownShare, 0.7);
    EXPECT_LE(c.sharedFrames, 0.1);
  }
}

// One person walks past another at the same depth and stops half a metre behind them: the
// pixels the walker took while the two touched must go back to the one who stands in front.
TEST(SeveralPeople, OneStopsBehindAnotherAndBothStayWhole) {
  sim::ScenarioOptions o;
  o.width = 320, o.height = 240;
  o.frames = 240;
  o.seed = 41;
  const sim::Scenario room = empty_room(o);
  const sim::Vec3 c = room.camera().position;
  sim::Actor front = standing(room.camera(), 1, 0, 3600);
  front.timeline.stand(8.f);
  // Level with the one in front while their outlines overlap, then on to half a metre behind.
  sim::Actor walker = standing(room.camera(), 2, -1500, 3000);
  walker.timeline.stand(0.5f).walk_to(c.x + 450, c.z + 4300, 0.8f).wait_until(8.f);
  expect_two_kept_apart(track_coverage(sim::Scenario(o, room.camera(), room.room(), {front, walker}), 6.f, 8.f));
}

// A drawn room where one person walks back past another who stands still and stays half
// hidden behind them (the evaluation's "mixed 2"): while they overlap at the same depth the
// walker takes pixels of the other, which must go back once they stand apart in depth.
TEST(SeveralPeople, PixelsTakenWhileLevelGoBackOnceApart) {
  const sim::Scenario scenario = build_scenario(make_case("mixed 2", "mixed", 2, 320, 450, 124, false));
  expect_two_kept_apart(track_coverage(scenario, 6.5f, 8.5f));
}

// A recording of three people walking in, played in a loop: at every start they vanish and
// walk in again. The ids of the vanished wait a while for them; none may take a piece of
// someone else, so a tracker that has looped reports no more bodies than a fresh one.
TEST(SeveralPeople, BodiesDoNotPileUpWhenARecordingLoops) {
  sim::ScenarioOptions o;
  o.name = "walk-in";
  o.people = 3;
  o.width = 160, o.height = 120;
  o.frames = 300;
  o.seed = 51;
  const sim::Scenario scenario = sim::Scenario::make(o);
  sim::Renderer renderer(scenario);
  std::vector<sim::Frame> frames(size_t(scenario.frame_count()));
  for (int i = 0; i < scenario.frame_count(); ++i) renderer.render(i, frames[size_t(i)]);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(shipped_forest()), 160, 120);
  std::vector<int> bodies, most;
  for (int loop = 0; loop < 4; ++loop) {
    bodies.push_back(0), most.push_back(0);
    for (const sim::Frame& frame : frames) {
      tracker.update(160, 120, frame.depth.data()).unwrap();
      int n = 0;
      for (const skeleton::Body& b : tracker.bodies()) {
        n += b.status == skeleton::BodyStatus::Tracking || b.status == skeleton::BodyStatus::TrackingStarted ? 1 : 0;
      }
      bodies.back() += n;
      most.back() = std::max(most.back(), n);
    }
  }
  for (int loop = 1; loop < 4; ++loop) {
    SCOPED_TRACE(testing::Message() << "loop " << loop);
    EXPECT_LE(bodies[size_t(loop)], bodies[0] + bodies[0] / 20);
    EXPECT_LE(most[size_t(loop)], most[0]);
  }
}

// A table pushed by someone is taken for a user while it moves and stays one where it is left
// (the evaluation's "furniture-moved" drawn with another seed): once it has stood still for a
// while it must be let go, and the room learns it.
TEST(SeveralPeople, PushedFurnitureLeftStandingIsNoBody) {
  const sim::Scenario scenario = build_scenario(make_case("table", "furniture-moved", 1, 320, 360, 1115, false));
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(shipped_forest()), 160, 120);
  sim::Frame frame;
  int falseBodyFrames = 0;
  for (int i = 0; i < scenario.frame_count(); ++i) {
    renderer.render(i, frame);
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    std::vector<uint8_t> bodies;
    for (const skeleton::Body& b : tracker.bodies()) bodies.push_back(b.id);
    const Overlap overlap = count_overlap(tracker.bodyMask().data(), frame.ids.data(), frame.ids.size());
    if (i >= 180) falseBodyFrames += int(false_bodies(overlap, bodies).size());
  }
  // Without letting it go: 146 body-frames. A frame or two may hold a sliver of someone leaving.
  EXPECT_LE(falseBodyFrames, 5);
}

}  // namespace
}  // namespace quorvik::eval
