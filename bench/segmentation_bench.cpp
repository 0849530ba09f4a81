// One segmentation engine frame at 160x120: input stage, background model and floor, on a
// floor scene with an object walking across it.

#include <benchmark/benchmark.h>

#include <vector>

// The scene builder of the segmentation tests, compiled into this binary.
#include "segmentation/segmentation_engine.h"
#include "support/sim_scene.h"

namespace {

using namespace quorvik::legacy;

void BM_EngineFrame(benchmark::State& state) {
  sim_scene::Scene builder(1200, 8);
  builder.floor().wall(4000);
  std::vector<std::vector<uint16_t>> frames;
  for (int step = 0; step < 60; ++step) {
    const int phase = step < 30 ? step : 59 - step;  // walks across and back
    builder.clear_boxes().box(-900.f + 60.f * phase, 2300.f, 400.f, 300.f, 1700.f);
    frames.push_back(builder.render());
  }
  const auto& t = sim_scene::default_tables();
  const ConversionTableRef tables{1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()),
                                  t.depthToShift.data(), uint32_t(t.depthToShift.size())};
  SegmentationFormat format;
  format.width = 160;
  format.height = 120;
  format.hfov = sim_scene::kHfovDegrees * quorvik::skeleton::kDegreesToRadians;
  format.vfov = sim_scene::kVfovDegrees * quorvik::skeleton::kDegreesToRadians;

  auto engine = SegmentationEngine::create();
  engine->reset();
  uint64_t timestamp = 0;
  engine->start({1, timestamp, &format, frames[0].data()}, tables);
  // Warm up past the background rebuild so that the floor is held.
  for (int i = 0; i < 40; ++i) engine->process({2, timestamp += 33, &format, frames[0].data()});

  size_t next = 0;
  for (auto _ : state) {
    const LabelOutput out = engine->process({3, timestamp += 33, &format, frames[next].data()});
    benchmark::DoNotOptimize(out.data);
    next = (next + 1) % frames.size();
  }
  state.counters["floor"] = double(engine->floor_output().detected);
}
BENCHMARK(BM_EngineFrame)->Unit(benchmark::kMicrosecond);

// The candidate stage alone on the same scene (its share of the engine frame).
void BM_CandidateDetector(benchmark::State& state) {
  sim_scene::Scene builder(1200, 8);
  builder.floor().wall(4000).box(0.f, 2300.f, 400.f, 300.f, 1700.f);
  const std::vector<uint16_t> depth = builder.render();
  const auto& t = sim_scene::default_tables();
  const quorvik::skeleton::SegCoordinateMapper<double> mapper(
      160, 120, sim_scene::kHfovDegrees * quorvik::skeleton::kDegreesToRadians,
      sim_scene::kVfovDegrees * quorvik::skeleton::kDegreesToRadians, sim_scene::kMaxDepthMm);
  auto detector = std::make_unique<PersonCandidateDetector>();
  detector->start(160, 120, t.shiftToDepth.data(), t.depthToShift.data(), false, &mapper);
  Array2D<uint16_t> raw(160, 120), shift(160, 120), shadow(160, 120);
  for (int i = 0; i < 160 * 120; ++i) {
    raw[i] = depth[size_t(i)];
    shift[i] = t.shift_of(depth[size_t(i)]);
  }
  build_shadow_image(shift, false, shadow);
  for (auto _ : state) {
    detector->process(raw, shift, shadow);
    benchmark::DoNotOptimize(detector->tracked().data());
  }
}
BENCHMARK(BM_CandidateDetector)->Unit(benchmark::kMicrosecond);

}  // namespace
