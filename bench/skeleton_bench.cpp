// Cost of one user's skeleton step on a synthetic labelled body, and of its parts.

#include <benchmark/benchmark.h>

#include "skeleton/model_tracker.h"
#include "support/posed_body.h"
// The posed-body renderer is test code that the benchmark targets do not link; it is
// compiled into this binary directly.

namespace quorvik::skeleton {
namespace {

constexpr uint8_t kUser = 1;

// About 3000 labelled pixels: the body 1.9 m from the camera, a little thicker than the
// test body, partly cut by the image's lower edge as a close user would be.
testing::FrameImages bench_frame() {
  testing::BodyPose pose = testing::moving_pose(0.3f);
  pose.midSpine = {0.f, 150.f, 1900.f};
  return testing::render_pose(pose, kUser, 0.95f);
}

void BM_ModelTrackerStep(benchmark::State& state) {
  const testing::FrameImages f = bench_frame();
  const DepthCameraModel camera = testing::test_camera();
  ModelTracker tracker;
  UserSkeleton user(kUser);
  uint32_t frame = 0;
  for (; frame < 5; ++frame) tracker.step(user, f.labels, f.points, f.userIds, f.box, frame, camera);
  for (auto _ : state) {
    tracker.step(user, f.labels, f.points, f.userIds, f.box, frame++, camera);
    benchmark::DoNotOptimize(user.joints);
  }
  state.counters["pixels"] = f.pixelCount;
}
BENCHMARK(BM_ModelTrackerStep)->Unit(benchmark::kMicrosecond);

void BM_LabelForceGenerate(benchmark::State& state) {
  const testing::FrameImages f = bench_frame();
  LabelForce force;
  HumanModel model = testing::make_posed_model(testing::moving_pose(0.3f));
  for (auto _ : state) {
    HumanProposals proposals = force.generate(f.labels, f.points, f.userIds, kUser, f.box, model);
    benchmark::DoNotOptimize(proposals);
  }
  state.counters["pixels"] = f.pixelCount;
}
BENCHMARK(BM_LabelForceGenerate)->Unit(benchmark::kMicrosecond);

void BM_ModelFit(benchmark::State& state) {
  ModelConverter converter;
  TargetExtractor extractor;
  ModelTracker tracker;
  HumanModel posed = testing::make_posed_model(testing::moving_pose(0.3f));
  JointPositions positions;
  const auto joints = testing::joint_positions(posed);
  for (JointType j : model_joint_order()) positions.push_back({j, 1, joints[static_cast<size_t>(j)]});
  HumanModel target = converter.model_from_joint_positions(positions);
  const FitTargets targets = extractor.extract(target, {});
  HumanModel model = make_default_model();
  for (auto _ : state) {
    tracker.fit(model, targets);
    benchmark::DoNotOptimize(model);
  }
}
BENCHMARK(BM_ModelFit)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quorvik::skeleton
