// One segmentation engine frame at 160x120: input stage, background model and floor, on a
// floor scene with an object walking across it.

#include <benchmark/benchmark.h>

#include <vector>

// The scene builder of the segmentation tests, compiled into this binary.
#include "segmentation/scene_util.cpp"
#include "segmentation/segmentation_engine.h"

namespace {

using namespace quorvik::legacy;

void BM_EngineFrame(benchmark::State& state) {
  scene::SceneBuilder builder(1200, 8);
  builder.floor().wall(4000);
  std::vector<std::vector<uint16_t>> frames;
  for (int step = 0; step < 60; ++step) {
    const int phase = step < 30 ? step : 59 - step;  // walks across and back
    builder.clear_boxes().box(-900.f + 60.f * phase, 2300.f, 400.f, 300.f, 1700.f);
    frames.push_back(builder.render());
  }
  const auto& t = scene::default_tables();
  const ConversionTableRef tables{1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()),
                                  t.depthToShift.data(), uint32_t(t.depthToShift.size())};
  SegmentationFormat format;
  format.width = 160;
  format.height = 120;
  format.hfov = scene::kHfovDegrees * quorvik::skeleton::kDegreesToRadians;
  format.vfov = scene::kVfovDegrees * quorvik::skeleton::kDegreesToRadians;

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

}  // namespace
