#include "runner.h"

#include <cmath>
#include <set>

#include <gtest/gtest.h>

#include "renderer.h"
#include "report.h"
#include "segmentation/depth_conversion.h"
#include "tracker/tracker_options.h"

namespace quorvik::eval {
namespace {

using skeleton::JointType;

EvalCase short_case(const std::string& name, int people, uint32_t width, int frames, uint64_t seed, bool mirrored) {
  return make_case(name, name, people, width, frames, seed, mirrored);
}

// The tracker's world points come from its camera model on the 160x120 depth; the truth is
// in the simulator's camera space. Back-projecting the depth under a truth joint must land
// on that joint across the image plane, mirrored or not, for a person off the image centre
// (where a flipped axis would show).
TEST(WorldFrame, TrackerPointsAndTruthShareTheirAxes) {
  using skeleton::kDegreesToRadians;
  const skeleton::DepthCameraModel model(skeleton::kDefaultHorizontalFovDegrees * kDegreesToRadians,
                                         skeleton::kDefaultVerticalFovDegrees * kDegreesToRadians, 160.f, 120.f);
  for (bool mirrored : {false, true}) {
    SCOPED_TRACE(mirrored);
    const sim::Scenario scenario = build_scenario(short_case("walk-in", 1, 320, 150, 5, mirrored));
    sim::Renderer renderer(scenario);
    sim::Frame frame, small;
    int checked = 0;
    for (int i = 0; i < 150 && checked < 6; i += 5) {
      renderer.render(i, frame);
      if (frame.people.empty()) continue;
      sim::reduce_to(frame, 160, 120, small);
      const sim::JointTruth& pelvis = frame.people[0].joints[static_cast<size_t>(JointType::BaseSpine)];
      if (!pelvis.inImage || std::fabs(pelvis.camera.x) < 300.f) continue;
      const auto x = static_cast<uint32_t>(pelvis.u / 2), y = static_cast<uint32_t>(pelvis.v / 2);
      if (small.ids.at(x, y) == 0) continue;
      op::Image<skeleton::WorldPoint> points;
      model.to_world(small.depth, points);
      const skeleton::WorldPoint p = points.at(x, y);
      SCOPED_TRACE(testing::Message() << "frame " << i << " truth " << pelvis.camera.x << "," << pelvis.camera.y
                                      << " point " << p.x << "," << p.y);
      // Along the same ray: scaled to the joint's depth the point lies within about a pixel.
      const float k = pelvis.camera.z / p.z;
      EXPECT_LT(std::hypot(p.x * k - pelvis.camera.x, p.y * k - pelvis.camera.y), 50.f);
      EXPECT_GT(p.z, pelvis.camera.z - 300.f);  // the surface in front of the joint
      EXPECT_LT(p.z, pelvis.camera.z);
      ++checked;
    }
    EXPECT_GE(checked, 3) << "the walker was never seen off the image centre";
  }
}

TEST(Scenarios, HeldOutSeedsAndCameraOverrides) {
  for (const auto& cases : {full_cases(), quick_cases()}) {
    std::set<std::string> labels;
    for (const EvalCase& c : cases) {
      SCOPED_TRACE(c.label);
      EXPECT_LT(c.options.seed, 1000u) << "training draws seeds from 1,000,000 up";
      EXPECT_TRUE(labels.insert(c.label).second) << "labels name one case each";
      EXPECT_EQ(c.options.width * 3, c.options.height * 4);
    }
  }
  EvalCase c = short_case("walk-in", 1, 160, 30, 9, false);
  const sim::Scenario plain = build_scenario(c);
  c.cameraHeight = 2000.f;
  c.pitchDeg = 20.f;
  const sim::Scenario raised = build_scenario(c);
  EXPECT_FLOAT_EQ(raised.camera().position.y, 2000.f);
  EXPECT_NEAR(raised.camera().pitch, 20.f * M_PI / 180.f, 1e-5);
  EXPECT_FLOAT_EQ(raised.camera().position.x, plain.camera().position.x);
  EXPECT_EQ(raised.actors().size(), plain.actors().size());
  // The truth floor follows the new camera: 2 m below it, tilted by the pitch.
  EXPECT_NEAR(raised.camera().floor_plane()[3], 2000.f, 1e-3);
  c.pitchDeg.reset();
  EXPECT_NEAR(build_scenario(c).camera().pitch, std::atan2(1000.f, 3200.f), 1e-5);
}

TEST(Scenarios, EnteringGesturersAreOutOfViewFirstAndInViewLater) {
  EvalCase c = short_case("wave", 1, 160, 300, 33, false);
  const sim::Scenario standing = build_scenario(c);
  c.enterFirst = true;
  const sim::Scenario entering = build_scenario(c);
  sim::Renderer a(standing), b(entering);
  sim::Frame fa, fb;
  a.render(0, fa);
  b.render(0, fb);
  ASSERT_EQ(fa.people.size(), 1u);
  EXPECT_GT(fa.people[0].pixels, 500u);
  EXPECT_EQ(fb.people.empty() ? 0u : fb.people[0].pixels, 0u);
  bool waved = false;
  for (const sim::Step& s : entering.actors()[0].timeline.steps()) waved = waved || s.activity == sim::Activity::Wave;
  EXPECT_TRUE(waved);
  b.render(200, fb);
  ASSERT_EQ(fb.people.size(), 1u);
  EXPECT_GT(fb.people[0].pixels, 500u);
}

// Without trees the tracker reports no bodies but still finds the floor: the evaluation
// runs end to end, and the quick floor check trips once a floor is raised above the result.
TEST(Evaluation, TreelessForestEndToEndAndTheFloorCheck) {
  const Evaluator evaluator{skeleton::DecisionForest{}};
  const CaseResult r = evaluator.run(short_case("walk-in", 1, 320, 60, 4, false));
  const Tally& t = r.tally;
  EXPECT_EQ(t.frames, 60u);
  EXPECT_EQ(t.falseBodyFrames, 0u);
  EXPECT_EQ(t.partCompared, 0u);
  EXPECT_GT(t.floorFrames, 30u);
  ASSERT_FALSE(t.floorError.empty());
  EXPECT_LT(stats_of(t.floorError).median, 2.0);
  uint64_t reported = 0, truth = 0;
  for (const JointTally& j : t.joints) {
    reported += j.high + j.low;
    truth += j.truth;
  }
  EXPECT_EQ(reported, 0u);
  EXPECT_GT(truth, 0u);

  const auto metrics = headline(t);
  nlohmann::json floors = floors_from(metrics);
  EXPECT_TRUE(check_floors(metrics, floors).empty());
  floors["min"]["floor_found"] = metrics.at("floor_found") + 0.01;
  EXPECT_EQ(check_floors(metrics, floors).size(), 1u);
  floors["min"]["detection_rate"] = 0.01;  // nobody was detected
  EXPECT_EQ(check_floors(metrics, floors).size(), 2u);
}

}  // namespace
}  // namespace quorvik::eval
