#pragma once
// The floor across camera mountings: simulated rooms with patches of missing depth on the
// floor, cameras from low and level to high and steep, each run through the segmentation
// engine (no forest needed) and measured against the simulator's floor.

#include <cstdint>
#include <iosfwd>
#include <vector>

namespace quorvik::eval {

// What else is in front of the camera: a wall close up filling the view, a table top or a
// two-step platform in the bottom of the view with the floor around it.
enum class FloorObstacle { None, Wall, Table, Step };
const char* obstacle_name(FloorObstacle o);

struct FloorSweepCase {
  float heightMm = 1200;
  float pitchDeg = 0;      // downwards
  float holes = 0;         // share of the floor's pixels lost to patches (half as much on the walls)
  uint64_t seed = 1;
  int people = 1;          // walking in
  int frames = 120;
  FloorObstacle obstacle = FloorObstacle::None;
};

struct FloorSweepResult {
  FloorSweepCase sweepCase;
  bool floorInView = false;    // enough floor in the bottom third to be found at all
  int foundAt = -1;            // first frame with a floor; -1 never
  int framesAfter = 0;         // frames from the first found on
  int keptFrames = 0;          // ... of them with a floor
  int accurateFrames = 0;      // ... with the normal within 2 degrees and the offset within 30 mm
  double worstNormalDeg = 0;   // over the frames with a floor
  double worstOffsetMm = 0;
  double missingShare = 0;     // floor pixels in view without depth (patches and every other loss)
  double maskRecall = 0;       // floor pixels with depth in the bottom third that the mask holds
  double feetRecall = -1;      // ... of those within a few pixels of a foot; -1 when none
  uint32_t personMasked = 0;       // person pixels in the floor mask, summed over frames
  uint32_t personMaskedAbove = 0;  // ... of them more than 30 mm above the floor
  int wrongFrames = 0;             // a floor more than 5 degrees or 150 mm off: something else taken for it
};

// Heights 0.5 to 2.5 m x pitches 0 to 30 degrees x patches covering 0 to 30% of the floor,
// then walls, tables and steps in front of a few of those cameras.
std::vector<FloorSweepCase> floor_sweep_cases();
FloorSweepResult run_floor_sweep_case(const FloorSweepCase& c);
// Every case, then the summary: within the floor's tilt limit and beyond it.
void print_floor_sweep(std::ostream& out, const std::vector<FloorSweepResult>& results);

}  // namespace quorvik::eval
