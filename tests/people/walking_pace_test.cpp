// People who walk into view at ordinary and brisk pace: the background's scene-change detector
// must not mistake them for a changing scene, so they get ids soon and keep them.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/sim_scene.h"

using sim_scene::Scene;
using sim_scene::SceneEngine;
using sim_scene::id_of;

namespace {

struct Walker {
  float startX, endX, z;
  float step;  // mm per frame
  int startFrame;
};

struct Outcome {
  int fullFrame = -1;     // first frame fully visible
  int firstIdFrame = -1;  // first frame with an id
  int removals = 0;       // times the id was lost or changed while fully visible
};

struct Run {
  std::vector<Outcome> people;
  int maxActive = 0;
  int sceneChangeFrames = 0;
};

// Walks everybody from outside the view to their end point, then lets them stand for a second.
Run walk_in(const std::vector<Walker>& walkers) {
  Scene scene;
  scene.floor().wall(4500.f);
  for (const Walker& w : walkers) scene.add_person(w.startX, w.z);
  SceneEngine run;
  run.feed(scene.render(), 40);

  Run result;
  result.people.resize(walkers.size());
  std::vector<uint16_t> ids(walkers.size(), 0);
  int last = 0;
  for (const Walker& w : walkers) {
    last = std::max(last, w.startFrame + int(std::abs(w.endX - w.startX) / w.step) + 1);
  }
  for (int f = 0; f < last + 30; ++f) {
    for (size_t i = 0; i < walkers.size(); ++i) {
      const Walker& w = walkers[i];
      const float dir = w.endX > w.startX ? 1.f : -1.f;
      const float x = scene.person(int(i)).x;
      if (f >= w.startFrame && dir * (w.endX - x) > 0) {
        scene.walk_to(int(i), dir > 0 ? std::min(x + w.step, w.endX) : std::max(x - w.step, w.endX), w.z);
      }
    }
    run.feed(scene.render());
    result.sceneChangeFrames += run.engine().background().sceneChanging ? 1 : 0;
    result.maxActive = std::max(result.maxActive, int(run.users().active_user_count()));
    for (size_t i = 0; i < walkers.size(); ++i) {
      Outcome& o = result.people[i];
      const bool full = scene.fully_visible(int(i));
      if (full && o.fullFrame < 0) o.fullFrame = f;
      const uint16_t now = id_of(run, scene, int(i));
      if (o.firstIdFrame < 0 && now != 0) o.firstIdFrame = f;
      // Until the whole body is in view a few pixels at the border may go to a neighbour.
      if (now != 0 && (ids[i] == 0 || !full)) {
        ids[i] = now;
      } else if (ids[i] != 0 && full && (!run.users().is_active(ids[i]) || (now != 0 && now != ids[i]))) {
        ++o.removals;
        ids[i] = now;
      }
    }
  }
  return result;
}

void expect_tracked(const std::vector<Walker>& walkers) {
  const Run r = walk_in(walkers);
  // The figures go to the XML report (--gtest_output=xml) for comparison between versions.
  static int runs = 0;
  ++runs;
  for (size_t i = 0; i < walkers.size(); ++i) {
    const Outcome& o = r.people[i];
    testing::Test::RecordProperty(
        "run" + std::to_string(runs) + "_person" + std::to_string(i),
        testing::PrintToString(std::vector<int>{int(walkers[i].z), int(walkers[i].step * 10), o.fullFrame,
                                                o.firstIdFrame, o.removals, r.sceneChangeFrames, r.maxActive}));
  }
  EXPECT_LE(r.maxActive, int(walkers.size()));
  for (size_t i = 0; i < walkers.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "person " << i << " lane " << walkers[i].z << " step " << walkers[i].step);
    const Outcome& o = r.people[i];
    ASSERT_GE(o.fullFrame, 0);
    ASSERT_GE(o.firstIdFrame, 0) << "never got an id; scene-change frames " << r.sceneChangeFrames;
    EXPECT_LE(o.firstIdFrame, o.fullFrame + 30) << "scene-change frames " << r.sceneChangeFrames;
    EXPECT_EQ(o.removals, 0) << "scene-change frames " << r.sceneChangeFrames;
  }
}

// Half the width of the view at depth z, and a start just outside it.
float half_view(float z) { return z * 0.561f; }

}  // namespace

TEST(WalkingPace, OnePersonWalkingOrRunningInGetsAnIdAndKeepsIt) {
  for (float step : {46.7f, 90.f}) {  // 1.4 and 2.7 m/s at 30 frames per second
    for (float dir : {1.f, -1.f}) {
      SCOPED_TRACE(testing::Message() << "step " << step << " direction " << dir);
      const float z = 2800.f;
      expect_tracked({{-dir * (half_view(z) + 500.f), dir * 300.f, z, step, 0}});
    }
  }
}

TEST(WalkingPace, TwoAndThreePeopleWalkingInAtOrdinaryPaceGetOneIdEach) {
  std::mt19937 rng(20261122);
  std::uniform_real_distribution<float> pace(40.f, 50.f);
  std::uniform_int_distribution<int> delay(5, 25);
  for (int trial = 0; trial < 3; ++trial) {
    for (int people : {2, 3}) {
      SCOPED_TRACE(testing::Message() << "trial " << trial << " people " << people);
      // Lanes 500 mm apart in depth; each stops in its own part of the view. The one who stops
      // in the middle comes in first from either side, the others a little later from the side
      // where they stop, so that nobody passes in front of anybody (a young user hidden for a
      // moment is rightly dropped; that is not what this test is about).
      const float lanes[3] = {2300.f, 2800.f, 3300.f};
      const float stops[3] = {0.05f, -0.42f, 0.42f};
      std::vector<Walker> walkers;
      for (int p = 0; p < people; ++p) {
        const float z = lanes[(p + trial) % 3];
        const float endX = stops[p] * half_view(z) * 1.4f;
        const float side = p == 0 ? ((rng() & 1) ? 1.f : -1.f) : (endX > 0 ? 1.f : -1.f);
        walkers.push_back({side * (half_view(z) + 500.f), endX, z, pace(rng), p == 0 ? 0 : delay(rng)});
      }
      expect_tracked(walkers);
    }
  }
}

TEST(WalkingPace, SomethingWiderThanAnyoneAppearingAtOnceIsStillASceneChange) {
  // A screen 2.5 m wide drops in front of the wall; a door-sized panel does not.
  for (float widthMm : {2500.f, 600.f}) {
    SCOPED_TRACE(testing::Message() << "width " << widthMm);
    Scene scene;
    scene.floor().wall(4500.f);
    SceneEngine run;
    run.feed(scene.render(), 40);
    scene.add_box(0.f, 2200.f, widthMm, 100.f, 1900.f);
    bool sawChange = false, sawRebuild = false;
    for (int f = 0; f < 30; ++f) {
      run.feed(scene.render());
      sawChange |= run.engine().background().sceneChanging;
      sawRebuild |= run.engine().background().resetThisFrame;
    }
    EXPECT_EQ(sawChange, widthMm > 1500.f);
    EXPECT_EQ(sawRebuild, widthMm > 1500.f);
  }
}
