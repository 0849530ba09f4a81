#pragma once
// `qbt demo`: a fixed simulated scene (two people walk in, one waves, the other leaves)
// tracked with the data file, scored against the simulator's ground truth.

#include <cstdint>
#include <cstdio>
#include <string>

#include "renderer.h"
#include "scene.h"
#include "tracking.h"

namespace quorvik::cli {

struct JointScore {
  uint64_t highNear = 0, highTotal = 0;  // joints reported with status High
  uint64_t allNear = 0, allTotal = 0;    // every joint reported (Low or High)
  uint64_t bodies = 0;                   // tracked bodies matched to a simulated person

  double high_share() const { return highTotal ? static_cast<double>(highNear) / static_cast<double>(highTotal) : 0.0; }
  double all_share() const { return allTotal ? static_cast<double>(allNear) / static_cast<double>(allTotal) : 0.0; }
};

// Scores the joints of every tracked body against the simulated person that most of the
// body's mask pixels show. The reported side of a joint is the person's own side, so in a
// mirrored recording it is compared with the truth joint of the other side name.
void score_frame(const TrackedFrame& tracked, const sim::Frame& truth, bool mirrored, JointScore& score,
                 float withinMm = 100.f);

// The demo scene at 320x240, `frames` long, mirrored as most depth cameras deliver it.
sim::Scenario demo_scenario(int frames);

struct DemoOptions {
  int frames = 270;
  std::string out = "qbt-demo";
  std::string data;
};

// Runs the demo, printing to `out` (a progress bar instead of a line per frame when
// `terminal`). Returns the exit code; throws CliError.
int run_demo(const DemoOptions& options, std::FILE* out, bool terminal);

}  // namespace quorvik::cli
