// Frames per second of the scene simulator (rendering with ground truth, no disk).

#include <benchmark/benchmark.h>

#include "renderer.h"
#include "scene.h"

namespace {

using namespace quorvik::sim;

void BM_RenderFrame(benchmark::State& state) {
  ScenarioOptions o;
  o.name = "turn";  // everyone stays in view
  o.width = static_cast<uint32_t>(state.range(0));
  o.height = o.width * 3 / 4;
  o.people = static_cast<int>(state.range(1));
  o.frames = 300;
  o.seed = 7;
  const Scenario sc = Scenario::make(o);
  Renderer r(sc);
  Frame f;
  int i = 0;
  for (auto _ : state) {
    r.render(60 + i, f);
    i = (i + 1) % 180;
    benchmark::DoNotOptimize(f.depth.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(std::to_string(o.width) + "x" + std::to_string(o.height) + " " + std::to_string(o.people) +
                 (o.people == 1 ? " person" : " people"));
}
BENCHMARK(BM_RenderFrame)
    ->ArgsProduct({{160, 320, 640}, {1, 2}})
    ->ArgNames({"width", "people"})
    ->Unit(benchmark::kMillisecond);

}  // namespace
