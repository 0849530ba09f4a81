// The whole loop a retrainer goes through: simulate, train, write the data file, load it,
// track people the training never saw.

#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

#include "forest/forest_reader.h"
#include "forest/forest_writer.h"
#include "forest_trainer.h"
#include "renderer.h"
#include "scene.h"
#include "tracker/body_tracker.h"

namespace quorvik::train {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Instrumented builds check the plumbing on a token forest; accuracy is judged in plain builds.
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

TEST(TrainingLoop, SmallForestTracksAWalkerTrainingNeverSaw) {
  const TrainingSet set = make_training_set({.frames = kInstrumented ? 100u : 2500u, .threads = 2});
  ForestOptions fo;
  fo.trees = 1;
  fo.tree = {.maxDepth = kInstrumented ? 6u : 12u, .offsetCandidates = kInstrumented ? 30u : 200u, .threads = 2};
  const std::filesystem::path path = std::filesystem::temp_directory_path() / "qbt_training_loop.data";
  ASSERT_TRUE(skeleton::write_forest_file(train_forest(set, fo), path.string()));
  auto loaded = skeleton::load_forest(path.string());
  std::filesystem::remove(path);
  ASSERT_TRUE(loaded.is_ok());

  // Seed 11 is held out: training seeds start at 1000000.
  const sim::ScenarioOptions walk{.name = "walk-in", .frames = 150, .seed = 11};
  const sim::Scenario scenario = sim::Scenario::make(walk);
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, loaded.unwrap(), 160, 120);
  tracker.isDepthMirrored = walk.mirrored;  // joint types then keep the recording's side names

  using skeleton::JointType;
  const JointType core[] = {JointType::Head, JointType::ShoulderSpine, JointType::MidSpine, JointType::BaseSpine};
  uint32_t trackedFrames = 0, highJoints = 0, near = 0;
  sim::Frame frame;
  for (int f = 0; f < walk.frames; ++f) {
    renderer.render(f, frame);
    ASSERT_TRUE(tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).is_ok());
    if (frame.people.empty() || tracker.bodies().size() != 1) continue;
    const skeleton::Body& body = tracker.bodies()[0];
    if (body.status != skeleton::BodyStatus::Tracking) continue;
    ++trackedFrames;
    for (JointType type : core) {
      const auto& truth = frame.people[0].joints[static_cast<size_t>(type)];
      const skeleton::Joint& joint = body.joints.at(static_cast<uint8_t>(type));
      if (!truth.inImage || joint.status != skeleton::JointStatus::High) continue;
      ++highJoints;
      const float dx = joint.worldPosition[0] - truth.camera.x;
      const float dy = joint.worldPosition[1] - truth.camera.y;
      const float dz = joint.worldPosition[2] - truth.camera.z;
      near += std::sqrt(dx * dx + dy * dy + dz * dz) < 200.f;
    }
  }
  SCOPED_TRACE(testing::Message() << trackedFrames << " tracked frames, " << highJoints << " High core joints, "
                                  << near << " within 200 mm");
  EXPECT_GT(trackedFrames, 30u);
  if (!kInstrumented) {
    EXPECT_GE(near, highJoints * 7 / 10);
  }
}

}  // namespace
}  // namespace quorvik::train
