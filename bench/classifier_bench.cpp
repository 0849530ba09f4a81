// Body-part classification of one user (about 3000 pixels at 160x120) with a random but
// valid 3-tree, depth-20 forest that went through the data file writer and reader.
// Argument: the kernel build (0 baseline, 1 SSE2, 2 SSE4.1, 3 AVX, 4 AVX2, 5 FMA,
// 6 whatever the dispatcher picks on this processor).

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "classifier/arch/dispatch.h"
#include "kernel_builds.h"
#include "classifier/frame_classifier.h"
#include "classifier/packed_forest.h"
#include "classifier/classifier_fixtures.h"  // tests/classifier
#include "forest/forest_fixtures.h"
#include "forest/forest_reader.h"
#include "forest/forest_writer.h"
#include "op/thread_pool.h"

namespace {

using namespace quorvik::skeleton;

struct Setup {
  DecisionForest forest;
  testing::Scene scene = testing::make_scene(1);
  std::unique_ptr<op::ThreadPool> pool = std::make_unique<op::ThreadPool>();
  uint32_t user_pixels = 0;

  Setup() {
    const DecisionForest generated = testing::make_random_forest(
        2024, {.trees = 3, .depth = 20, .leaf_chance = 0.3f, .max_offset = 600,
               .max_threshold = 300.f});
    const std::vector<uint8_t> bytes = write_forest_bytes(generated);
    op::MemoryInputStream stream(bytes.data(), bytes.size());
    forest = ForestReader().parse(stream).unwrap();
    for (size_t i = 0; i < scene.depth.size(); ++i) user_pixels += scene.labels[i] == 1;
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

void BM_ClassifyUser(benchmark::State& state) {
  Setup& s = setup();
  const std::unique_ptr<ScopedKernelOverride> forced = force_kernel_build(state, state.range(0));
  if (state.error_occurred()) return;
  FrameClassifier classifier(&s.forest);
  op::Image<PixelLabel> labels(160, 120);
  op::Image<uint8_t> ids(160, 120);
  const std::vector<uint16_t> own{1};
  const ClassifierUser user{1, own, {}};
  for (auto _ : state) {
    labels.fill(PixelLabel{});
    ids.fill(0);
    float score = 0.f;
    RegionBox region;
    classifier.classify_user(s.scene.depth, s.scene.labels, user, 0.35f, labels, ids, score,
                             region, *s.pool);
    benchmark::DoNotOptimize(score);
  }
  state.counters["user_pixels"] = s.user_pixels;
  state.counters["workers"] = static_cast<double>(s.pool->threadCount());
}
BENCHMARK(BM_ClassifyUser)->DenseRange(0, 6)->Unit(benchmark::kMicrosecond);

// One tree over the step-2 grid of the user, on the calling thread.
void BM_EvaluateTreeLevel1(benchmark::State& state) {
  Setup& s = setup();
  const ArchVariant* build = kernel_build(state.range(0));
  if (build == nullptr) {
    state.SkipWithError("build not supported by this processor");
    return;
  }
  state.SetLabel(build->name);
  const UserLevel level(s.scene.depth,
                        computeUserStatistics(s.scene.depth, s.scene.labels, std::vector<uint16_t>{1}, {}),
                        [&](uint32_t x, uint32_t y) { return s.scene.labels.at(x, y) == 1; });
  op::Image<uint32_t> nodes;
  const PackedForest packed(s.forest.tree(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        evaluate_tree_with(build->entry, packed.tree(0), s.scene.depth, level.params, nodes));
  }
}
BENCHMARK(BM_EvaluateTreeLevel1)->DenseRange(0, 5)->Unit(benchmark::kMicrosecond);

}  // namespace
