// The floor as the segmentation engine finds it in simulated rooms, by situation: patches
// without depth, the camera's height, its pitch, and a wall, a table or a step in front of it.

#include <gtest/gtest.h>

#include "floor_sweep.h"

namespace quorvik::eval {
namespace {

void expect_found_and_accurate(const FloorSweepResult& r) {
  ASSERT_TRUE(r.floorInView);
  ASSERT_GE(r.foundAt, 0) << "never found";
  EXPECT_LT(r.foundAt, 30);
  EXPECT_GE(r.keptFrames, r.framesAfter * 98 / 100);
  EXPECT_EQ(r.accurateFrames, r.keptFrames) << "worst " << r.worstNormalDeg << " deg, " << r.worstOffsetMm << " mm";
  EXPECT_GT(r.maskRecall, 0.95);
  if (r.feetRecall >= 0) {
    EXPECT_GT(r.feetRecall, 0.9);
  }
  EXPECT_EQ(r.wrongFrames, 0);
}

struct Situation {
  const char* name;
  FloorSweepCase sweepCase;
};

TEST(FloorSweep, FoundKeptAndAccurateWithinTheTiltLimit) {
  for (const Situation& s : {
           Situation{"holes: a third of the floor lost", {1500, 7, 0.3f, 11, 1, 90}},
           Situation{"holes: far and grazing", {1000, 0, 0.3f, 12, 1, 90}},
           Situation{"height: low and level", {500, 0, 0.15f, 13, 1, 90}},
           Situation{"height: high", {2200, 14, 0.15f, 14, 1, 90}},
           Situation{"pitch: near the limit", {1200, 14, 0.15f, 15, 1, 90}},
           Situation{"table top in front", {1500, 12, 0.15f, 16, 0, 60, FloorObstacle::Table}},
           Situation{"steps in front", {1500, 12, 0.15f, 17, 0, 60, FloorObstacle::Step}},
       }) {
    SCOPED_TRACE(s.name);
    const FloorSweepResult r = run_floor_sweep_case(s.sweepCase);
    EXPECT_GE(r.missingShare, 0.8 * s.sweepCase.holes) << "the patches cover less of the floor than asked";
    expect_found_and_accurate(r);
  }
}

TEST(FloorSweep, NothingElseIsTakenForTheFloor) {
  for (const Situation& s : {
           Situation{"wall close up", {1200, 0, 0.15f, 21, 0, 60, FloorObstacle::Wall}},
           Situation{"wall, camera pitched down", {2000, 12, 0.15f, 22, 0, 60, FloorObstacle::Wall}},
           Situation{"pitch: floor tilted beyond the limit", {1000, 30, 0.f, 23, 0, 60}},
       }) {
    SCOPED_TRACE(s.name);
    const FloorSweepResult r = run_floor_sweep_case(s.sweepCase);
    EXPECT_EQ(r.wrongFrames, 0);
    EXPECT_EQ(r.keptFrames, 0);
  }
}

}  // namespace
}  // namespace quorvik::eval
