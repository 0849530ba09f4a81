// The tracker's stages one by one on simulated frames (people walking into a furnished
// room, then gesturing), and the whole update per frame size and people count.
//
// The forest is the trained data file named by QBT_BENCH_DATA when that is set, else a
// random 3-tree, depth-20 forest with the cost of a trained one but meaningless labels.
// The skeleton step runs on the simulator's true body-part labels either way.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "classifier/arch/dispatch.h"
#include "kernel_builds.h"
#include "classifier/frame_classifier.h"
#include "classifier/packed_forest.h"
#include "forest/forest_fixtures.h"  // tests/forest
#include "forest/forest_reader.h"
#include "op/thread_pool.h"
#include "renderer.h"
#include "scene.h"
#include "skeleton/model_tracker.h"
#include "tracker/body_tracker.h"

namespace {

using namespace quorvik::skeleton;
namespace sim = quorvik::sim;

constexpr float kHfov = kDefaultHorizontalFovDegrees, kVfov = kDefaultVerticalFovDegrees;

DecisionForest make_forest() {
  if (const char* path = std::getenv("QBT_BENCH_DATA")) {
    auto loaded = load_forest(path);
    if (loaded.is_ok()) return loaded.unwrap();
  }
  return testing::make_random_forest(
      2024, {.trees = 3, .depth = 20, .leaf_chance = 0.3f, .max_offset = 600, .max_threshold = 300.f});
}

const DecisionForest& forest() {
  static const DecisionForest f = make_forest();
  return f;
}

DecisionForest forest_copy() {
  std::vector<std::unique_ptr<DecisionTree>> trees;
  for (size_t i = 0; i < forest().tree_count(); ++i) trees.push_back(std::make_unique<DecisionTree>(forest().tree(i)));
  return DecisionForest(std::move(trees));
}

// People who walk in are found within the first few seconds; people standing still from
// the first frame may stay part of the background.
constexpr int kFoundBy = 150;

sim::Scenario walking_in(uint32_t width, int people, int frames) {
  sim::ScenarioOptions o;
  o.name = "walk-in";
  o.people = people;
  o.width = width;
  o.height = width * 3 / 4;
  o.frames = frames;
  o.seed = 4;
  return sim::Scenario::make(o);
}

std::vector<sim::Frame> render_frames(uint32_t width, int people, int count) {
  const sim::Scenario scenario = walking_in(width, people, count);
  sim::Renderer renderer(scenario);
  std::vector<sim::Frame> frames(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) renderer.render(i, frames[static_cast<size_t>(i)]);
  return frames;
}

// A frame at 160x120 after the users stage has followed one person in: the input of
// classification.
struct Analyzed {
  std::vector<sim::Frame> frames = render_frames(160, 1, kFoundBy);
  sim::Frame truth;
  UserAnalyzer analyzer{kHfov, kVfov, 160, 120};
  std::vector<TrackedUser> users;
  op::Image<WorldPoint> points;
  DepthCameraModel camera{kHfov * kDegreesToRadians, kVfov * kDegreesToRadians, 160.f, 120.f};

  Analyzed() {
    const ConversionTables tables = build_conversion_tables({});
    for (const sim::Frame& f : frames) analyzer.update(f.depth, tables, false, users);
    truth = frames.back();
    camera.to_world(truth.depth, points);
  }
  // The followed user, or null after marking the benchmark as skipped.
  const TrackedUser* user(benchmark::State& state) const {
    for (const TrackedUser& u : users)
      if (u.lost == 0) return &u;
    state.SkipWithError("the users stage found nobody");
    return nullptr;
  }
};

Analyzed& analyzed() {
  static Analyzed a;
  return a;
}

void BM_Reduction(benchmark::State& state) {
  const auto width = static_cast<uint32_t>(state.range(0));
  const std::vector<sim::Frame> frames = render_frames(width, 1, 1);
  op::Image<uint16_t> out(160, 120);
  for (auto _ : state) {
    reduce_min_nonzero(frames[0].depth.data(), width, width * 3 / 4, out);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_Reduction)->Arg(320)->Arg(640)->Unit(benchmark::kMicrosecond);

void BM_WorldPoints(benchmark::State& state) {
  const Analyzed& a = analyzed();
  op::Image<WorldPoint> points(160, 120);
  for (auto _ : state) {
    a.camera.to_world(a.truth.depth, points);
    benchmark::DoNotOptimize(points.data());
  }
}
BENCHMARK(BM_WorldPoints)->Unit(benchmark::kMicrosecond);

// Users and floor: the segmentation engine behind the tracker, frame after frame.
void BM_UsersAndFloor(benchmark::State& state) {
  const auto people = static_cast<int>(state.range(0));
  const std::vector<sim::Frame> frames = render_frames(160, people, kFoundBy + 90);
  const ConversionTables tables = build_conversion_tables({});
  UserAnalyzer analyzer(kHfov, kVfov, 160, 120);
  std::vector<TrackedUser> users;
  for (int i = 0; i < kFoundBy; ++i) analyzer.update(frames[static_cast<size_t>(i)].depth, tables, false, users);
  size_t i = kFoundBy;
  for (auto _ : state) {
    analyzer.update(frames[i].depth, tables, false, users);
    i = i + 1 < frames.size() ? i + 1 : kFoundBy;
  }
  state.counters["users"] = static_cast<double>(users.size());
}
BENCHMARK(BM_UsersAndFloor)->Arg(1)->Arg(2)->ArgName("people")->Unit(benchmark::kMicrosecond);


// One simulated user classified with each kernel build (0 baseline, 1 SSE2, 2 SSE4.1,
// 3 AVX, 4 AVX2, 5 FMA, 6 the dispatcher's choice).
void BM_ClassifySimulatedUser(benchmark::State& state) {
  Analyzed& a = analyzed();
  const TrackedUser* user = a.user(state);
  if (user == nullptr) return;
  const std::unique_ptr<ScopedKernelOverride> forced = force_kernel_build(state, state.range(0));
  if (state.error_occurred()) return;
  FrameClassifier classifier(&forest());
  op::ThreadPool pool;
  op::Image<PixelLabel> labels(160, 120);
  op::Image<uint8_t> ids(160, 120);
  const ClassifierUser classified{user->id, user->labels, user->candidates};
  for (auto _ : state) {
    labels.fill(PixelLabel{});
    ids.fill(0);
    float score = 0.f;
    RegionBox region;
    classifier.classify_user(a.truth.depth, a.analyzer.userLabels(), classified, 0.35f, labels, ids, score, region,
                             pool);
    benchmark::DoNotOptimize(score);
  }
  state.counters["trees"] = static_cast<double>(forest().tree_count());
}
BENCHMARK(BM_ClassifySimulatedUser)->DenseRange(0, 6)->Unit(benchmark::kMicrosecond);

// One tree of the forest over the step-2 grid of the simulated user, on the calling
// thread, with the dispatcher's build: the walk alone, without the pool.
void BM_TreeWalkLevel1(benchmark::State& state) {
  Analyzed& a = analyzed();
  const TrackedUser* user = a.user(state);
  if (user == nullptr) return;
  const op::Image<uint16_t>& segments = a.analyzer.userLabels();
  const UserLevel level(a.truth.depth, computeUserStatistics(a.truth.depth, segments, user->labels, user->candidates),
                        [&](uint32_t x, uint32_t y) {
                          const auto& own = user->labels;
                          return a.truth.depth.at(x, y) != 0 &&
                                 std::find(own.begin(), own.end(), segments.at(x, y)) != own.end();
                        });
  const PackedForest packed(forest().tree(0));
  op::Image<uint32_t> nodes;
  for (auto _ : state) benchmark::DoNotOptimize(evaluate_tree(packed.tree(0), a.truth.depth, level.params, nodes));
  state.counters["pixels"] = static_cast<double>(level.grid_pixels);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * level.grid_pixels));
}
BENCHMARK(BM_TreeWalkLevel1)->Unit(benchmark::kMicrosecond);

// The skeleton step on the simulator's own part labels, frame after frame of the walk.
void BM_SkeletonStepOnTrueLabels(benchmark::State& state) {
  const std::vector<sim::Frame> frames = render_frames(160, 1, 90 + 60);
  const DepthCameraModel camera(kHfov * kDegreesToRadians, kVfov * kDegreesToRadians, 160.f, 120.f);
  struct Input {
    op::Image<PixelLabel> labels;
    op::Image<WorldPoint> points;
    op::Image<uint8_t> ids;
    RegionBox box;
  };
  std::vector<Input> inputs;
  for (const sim::Frame& f : frames) {
    Input in;
    in.labels.resize(160, 120);
    in.ids.resize(160, 120);
    camera.to_world(f.depth, in.points);
    in.box = {160, 120, -1, -1, true};
    for (uint32_t y = 0; y < 120; ++y) {
      for (uint32_t x = 0; x < 160; ++x) {
        const bool person = f.ids.at(x, y) != 0;
        in.labels.at(x, y) = {person ? f.labels.at(x, y) : uint8_t{0}, person ? 1.f : 0.f};
        in.ids.at(x, y) = person ? 1 : 0;
        if (!person) continue;
        in.box = {std::min<int32_t>(in.box.x0, x), std::min<int32_t>(in.box.y0, y), std::max<int32_t>(in.box.x1, x),
                  std::max<int32_t>(in.box.y1, y), false};
      }
    }
    if (!in.box.empty) inputs.push_back(std::move(in));  // the walker is in view
  }
  if (inputs.size() < 40) {
    state.SkipWithError("the walker was too seldom in view");
    return;
  }
  ModelTracker tracker;
  UserSkeleton user(1);
  uint32_t frame = 0;
  size_t i = 0;
  for (; i < 20; ++i) tracker.step(user, inputs[i].labels, inputs[i].points, inputs[i].ids, inputs[i].box, frame++, camera);
  for (auto _ : state) {
    const Input& in = inputs[i];
    tracker.step(user, in.labels, in.points, in.ids, in.box, frame++, camera);
    benchmark::DoNotOptimize(user.joints);
    i = i + 1 < inputs.size() ? i + 1 : 20;
  }
}
BENCHMARK(BM_SkeletonStepOnTrueLabels)->Unit(benchmark::kMicrosecond);

// The whole update per input size and number of people, once everyone is tracked.
void BM_TrackerUpdate(benchmark::State& state) {
  const auto width = static_cast<uint32_t>(state.range(0));
  const auto people = static_cast<int>(state.range(1));
  // Rendered as needed (outside the timing): a recording of 640x480 frames would not fit
  // comfortably in memory.
  const sim::Scenario scenario = walking_in(width, people, kFoundBy + 120);
  sim::Renderer renderer(scenario);
  sim::Frame frame;
  BodyTracker tracker(TrackerOptions{}, forest_copy(), 160, 120);
  tracker.isDepthMirrored = false;
  int i = 0;
  for (; i < kFoundBy; ++i) {
    renderer.render(i, frame);
    (void)tracker.update(width, width * 3 / 4, frame.depth.data());
  }
  for (auto _ : state) {
    state.PauseTiming();
    renderer.render(i, frame);
    i = i + 1 < scenario.frame_count() ? i + 1 : kFoundBy;
    state.ResumeTiming();
    (void)tracker.update(width, width * 3 / 4, frame.depth.data());
  }
  state.counters["bodies"] = static_cast<double>(tracker.bodies().size());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TrackerUpdate)
    ->ArgsProduct({{160, 320, 640}, {1, 2}})
    ->ArgNames({"width", "people"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
