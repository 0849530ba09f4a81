// The whole segmentation engine frame at 160x120 with two people walking in a room.
//
// The scene builder lives in the shared test-support sources; the benchmark binaries do not
// link that library, so its one source file is compiled in here.

#include <benchmark/benchmark.h>

#include <vector>

#include "support/sim_scene.h"

namespace {

using sim_scene::Scene;
using sim_scene::SceneEngine;

// A loop of frames in which two people walk towards each other, cross and walk back, so
// that the sequence can be replayed without a jump.
std::vector<std::vector<uint16_t>> two_walkers(int frames) {
  Scene scene;
  scene.floor().wall(4000.f);
  const int a = scene.add_person(-1100.f, 2500.f);
  const int b = scene.add_person(1100.f, 3300.f);
  std::vector<std::vector<uint16_t>> out;
  for (int f = 0; f < frames; ++f) {
    const float direction = f < frames / 2 ? 1.f : -1.f;
    scene.walk_to(a, scene.person(a).x + direction * 2200.f / float(frames / 2), 2500.f);
    scene.walk_to(b, scene.person(b).x - direction * 2200.f / float(frames / 2), 3300.f);
    out.push_back(scene.render());
  }
  return out;
}

// The two people walk in from both sides to where the loop starts.
void walk_in(SceneEngine& run) {
  Scene scene;
  scene.floor().wall(4000.f);
  const int a = scene.add_person(-2600.f, 2500.f);
  const int b = scene.add_person(3000.f, 3300.f);
  scene.person(a).visible = scene.person(b).visible = false;
  run.feed(scene.render(), 40);
  scene.person(a).visible = scene.person(b).visible = true;
  while (scene.person(a).x < -1100.f || scene.person(b).x > 1100.f) {
    if (scene.person(a).x < -1100.f) scene.walk_to(a, scene.person(a).x + 30.f, 2500.f);
    if (scene.person(b).x > 1100.f) scene.walk_to(b, scene.person(b).x - 30.f, 3300.f);
    run.feed(scene.render());
  }
}

void BM_EngineFrameTwoPeople(benchmark::State& state) {
  const std::vector<std::vector<uint16_t>> frames = two_walkers(120);
  SceneEngine run;
  walk_in(run);
  for (const auto& frame : frames) run.feed(frame);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(run.feed(frames[i]).data);
    i = (i + 1) % frames.size();
  }
  state.counters["users"] = double(run.users().active_user_count());
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_EngineFrameTwoPeople)->Unit(benchmark::kMicrosecond);

}  // namespace
