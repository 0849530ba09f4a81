// qbt_bodytracker_update end to end, per input size and number of people in view.
// QBT_BENCH_DATA=path/to/file.data times a trained forest instead of the random one.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "forest/forest_writer.h"
#include "quorvik/body_tracking.h"
#include "renderer.h"
#include "scene.h"
#include "support/sim_scene.h"

namespace {

using namespace quorvik::skeleton;
namespace sim = quorvik::sim;

// Three trees of depth 20 with random depth-difference splits: the classification cost of a
// trained forest without needing one.
std::string write_random_forest() {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("qbt-bench-" + std::to_string(getpid()) + ".data")).string();
  std::ofstream out(path, std::ios::binary);
  ForestFileWriter w(out);
  uint32_t state = 12345;
  auto next = [&] { return state = state * 1664525u + 1013904223u; };
  std::vector<ProbeOffsets> offsets(256);
  for (auto& o : offsets) {
    o = {int16_t(int(next() % 4001) - 2000), int16_t(int(next() % 4001) - 2000), int16_t(int(next() % 4001) - 2000),
         int16_t(int(next() % 4001) - 2000)};
  }
  w.signature();
  w.header();
  w.offsets(offsets);
  constexpr int kDepth = 20;
  for (int t = 0; t < 3; ++t) {
    // A full tree would be 2^20 leaves; grow one random path per level deep and leaves aside.
    std::vector<NodeRecord> nodes;
    std::vector<DistributionRecord> dists;
    nodes.push_back(split_record(1, 0, next() % 256, float(int(next() % 400) - 200)));
    for (int level = 1; level < kDepth; ++level) {
      const uint32_t first = uint32_t(nodes.size());
      // children of the previous split: one leaf, one split (or leaf at the bottom)
      nodes.push_back(leaf_record(uint32_t(dists.size())));
      dists.push_back({{uint8_t(2 + next() % 26)}, {65535}});
      if (level + 1 < kDepth) {
        nodes.push_back(split_record(first + 2, 0, next() % 256, float(int(next() % 400) - 200)));
      } else {
        nodes.push_back(leaf_record(uint32_t(dists.size())));
        dists.push_back({{uint8_t(2 + next() % 26)}, {65535}});
      }
    }
    w.tree(uint32_t(nodes.size()), uint32_t(dists.size()));
    w.nodes(nodes);
    w.distributions(dists);
  }
  w.end();
  return path;
}

// On the random forest, or on the trained data file named by QBT_BENCH_DATA.
qbt_bodytracker_t create_tracker() {
  static const std::string path = std::getenv("QBT_BENCH_DATA") != nullptr ? std::getenv("QBT_BENCH_DATA")
                                                                          : write_random_forest();
  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = path.c_str();
  qbt_bodytracker_t tracker = nullptr;
  qbt_bodytracker_create(&options, &tracker);
  return tracker;
}

// One update and its body list, as a host makes them; returns the number of bodies.
uint32_t update_once(qbt_bodytracker_t tracker, const uint16_t* depth, int32_t width, int32_t height) {
  const qbt_depthmap_t map{depth, width, height};
  qbt_bodyframe_t frame;
  qbt_bodytracker_update(tracker, &map, &frame);
  qbt_bodylist_t list;
  qbt_bodyframe_body_list(frame, &list);
  qbt_bodyframe_release(&frame);
  return list.count;
}

// Times updates over the frames in turn, round and round, then destroys the tracker.
void time_updates(benchmark::State& state, qbt_bodytracker_t tracker, const std::vector<const uint16_t*>& frames,
                  int32_t width, int32_t height) {
  uint32_t bodies = 0;
  size_t i = 0;
  for (auto _ : state) {
    bodies = update_once(tracker, frames[i], width, height);
    i = (i + 1) % frames.size();
  }
  state.counters["bodies"] = bodies;
  state.SetItemsProcessed(state.iterations());
  qbt_bodytracker_destroy(&tracker);
}

void BM_Update(benchmark::State& state) {
  const int scale = int(state.range(0));
  const int people = int(state.range(1));
  qbt_bodytracker_t tracker = create_tracker();

  sim_scene::Scene scene(1000.f, 5.f, 160 * scale, 120 * scale);
  scene.floor().wall(4500);
  for (int p = 0; p < people; ++p) scene.add_person(-2600.f - 1200.f * p, 2600.f + 600.f * p);
  // Frames of people walking in; the sequence repeats once they are tracked.
  std::vector<std::vector<uint16_t>> frames;
  for (int i = 0; i < 160; ++i) {
    for (int p = 0; p < people; ++p)
      scene.walk_to(p, std::min(-2600.f - 1200.f * p + 30.f * i, -400.f + 800.f * p), 2600.f + 600.f * p);
    frames.push_back(scene.render());
  }
  for (size_t i = 0; i < 120; ++i) update_once(tracker, frames[i].data(), scene.width(), scene.height());
  std::vector<const uint16_t*> timed;
  for (size_t i = 120; i < frames.size(); ++i) timed.push_back(frames[i].data());
  time_updates(state, tracker, timed, scene.width(), scene.height());
}
BENCHMARK(BM_Update)
    ->ArgsProduct({{1, 2, 4}, {1, 2}})
    ->ArgNames({"scale", "people"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The same through the C interface, with the simulator's people walking into a furnished
// room (what `qbt bench` and the stage benchmark track), frames rendered beforehand so
// that updates follow one another as at a camera's frame rate with nothing else to do.
void BM_UpdateWalkers(benchmark::State& state) {
  const auto width = static_cast<uint32_t>(state.range(0));
  const int people = static_cast<int>(state.range(1));
  constexpr int kFoundBy = 150, kTimed = 90;
  sim::ScenarioOptions o;
  o.name = "walk-in";
  o.people = people;
  o.width = width;
  o.height = width * 3 / 4;
  o.frames = kFoundBy + kTimed;
  o.seed = 4;
  const sim::Scenario scenario = sim::Scenario::make(o);
  sim::Renderer renderer(scenario);

  qbt_bodytracker_t tracker = create_tracker();
  const auto w = static_cast<int32_t>(o.width), h = static_cast<int32_t>(o.height);
  sim::Frame frame;
  for (int i = 0; i < kFoundBy; ++i) {
    renderer.render(i, frame);
    update_once(tracker, frame.depth.data(), w, h);
  }
  std::vector<sim::Frame> frames(kTimed);
  std::vector<const uint16_t*> timed;
  for (int i = 0; i < kTimed; ++i) {
    renderer.render(kFoundBy + i, frames[static_cast<size_t>(i)]);
    timed.push_back(frames[static_cast<size_t>(i)].depth.data());
  }
  time_updates(state, tracker, timed, w, h);
}
BENCHMARK(BM_UpdateWalkers)
    ->ArgsProduct({{160, 320, 640}, {1, 2}})
    ->ArgNames({"width", "people"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
