// Writes the depth fuzzer's seeds: one simulated frame per scenario, brought down to the
// fuzzer's 80x60 scene, followed by steps that walk it sideways, cut holes in it, push it
// away and hold frames, through every update mode.
// Usage: qbt_depth_fuzz_seeds DIR

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "depth_fuzz.h"
#include "renderer.h"
#include "scene.h"

using namespace depth_fuzz;

namespace {

struct Seed {
  const char* file;
  const char* scenario;
  int people;
  int frame;
  uint8_t flags;
  std::vector<uint8_t> steps;  // four bytes each
};

uint8_t kind(uint8_t change, uint8_t mode, uint8_t extra = 0) { return change | mode << 3 | extra; }

// The nearest measurement of each 4x4 block of a 320x240 frame, as the tracker reduces.
std::vector<uint16_t> scene_of(const quorvik::sim::Frame& frame) {
  std::vector<uint16_t> cells(size_t{kGridWidth} * kGridHeight, 0);
  const uint32_t k = frame.depth.width() / kGridWidth;
  for (int y = 0; y < kGridHeight; ++y)
    for (int x = 0; x < kGridWidth; ++x) {
      uint16_t best = 0;
      for (uint32_t by = 0; by < k; ++by)
        for (uint32_t bx = 0; bx < k; ++bx) {
          const uint16_t v = frame.depth.at(x * k + bx, y * k + by);
          if (v != 0 && (best == 0 || v < best)) best = v;
        }
      cells[size_t(y) * kGridWidth + x] = best;
    }
  return cells;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  const std::vector<Seed> seeds = {
      {"sim_crossing_three", "crossing", 3, 60, 8 << 4,
       {kind(kKeep, kSync), 0, 0, 0, kind(kShift, kSync), 2, 0, 0, kind(kShift, kAsyncTake), 2, 0, 0,
        kind(kShift, kAsyncPoll), 2, 0, 0, kind(kShift, kSyncHold), 2, 0, 0, kind(kShift, kSync), 2, 0, 0,
        kind(kShift, kAsyncTake), 2, 0, 0, kind(kShift, kSync), 2, 0, 0}},
      {"sim_walk_in_two_large", "walk-in", 2, 90, kStartLarge | 6 << 4,
       {kind(kKeep, kSync), 0, 0, 0, kind(kShift, kAsyncPoll), 0xFE, 0, 0, kind(kZeroRun, kSync), 0x40, 0x06, 40,
        kind(kShift, kSync, kToggleSize), 0xFE, 0, 0, kind(kSpikes, kAsyncTake), 1, 2, 30,
        kind(kShift, kSync), 0xFE, 0, 0}},
      {"sim_wave_near_far", "wave", 1, 40, kMirrored | 6 << 4,
       {kind(kKeep, kSync), 0, 0, 0, kind(kNearFar, kSync), 3, 0, 0, kind(kNearFar, kSyncHold), 0, 0, 0,
        kind(kNearFar, kAsyncTake), 5, 0, 0, kind(kNearFar, kSync, kReset), 0, 0, 0, kind(kNoise, kSync), 0, 0, 20}},
      {"sim_sit_null_data", "sit", 1, 120, kSmallForest | 6 << 4,
       {kind(kKeep, kSync), 0, 0, 0, kind(kKeep, kSync, kNullData), 0, 0, 1, kind(kKeep, kSyncHold), 0, 0, 0,
        kind(kKeep, kAsyncTake, kNullData), 0, 0, 0, kind(kRectangle, kAsyncPoll), 10, 10, 20,
        kind(kFlat, kSync), 0, 0, 0}},
      {"sim_empty_room_small_forest", "empty-room", 0, 10, kSmallForest | kStartLarge | 4 << 4,
       {kind(kKeep, kSync), 0, 0, 0, kind(kRectangle, kSync), 30, 10, 25, kind(kShift, kSync), 3, 1, 0,
        kind(kFlat, kAsyncTake), 0xFF, 0xFF, 0}},
  };
  for (const Seed& seed : seeds) {
    const quorvik::sim::Scenario scenario = quorvik::sim::Scenario::make(
        {.name = seed.scenario, .people = seed.people > 0 ? seed.people : -1, .frames = seed.frame + 1, .seed = 23});
    quorvik::sim::Renderer renderer(scenario);
    quorvik::sim::Frame frame;
    renderer.render(seed.frame, frame);

    std::vector<uint8_t> bytes(kGridOffset, 0);
    bytes[0] = seed.flags;
    std::copy(seed.steps.begin(), seed.steps.end(), bytes.begin() + 1);
    for (uint16_t v : scene_of(frame)) {
      bytes.push_back(static_cast<uint8_t>(v));
      bytes.push_back(static_cast<uint8_t>(v >> 8));
    }
    std::ofstream(dir + "/" + seed.file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  return 0;
}
