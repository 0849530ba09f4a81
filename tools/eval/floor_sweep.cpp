#include "floor_sweep.h"

#include <algorithm>
#include <cmath>
#include <ostream>

#include <fmt/format.h>

#include "renderer.h"
#include "scene.h"
#include "segmentation/user_analyzer.h"

namespace quorvik::eval {
namespace {

constexpr uint32_t kWidth = 160, kHeight = 120;
constexpr int kFindWithin = 30;
constexpr double kNormalLimitDeg = 2.0, kOffsetLimitMm = 30.0;
// The floor's tilt limit against the camera's vertical axis: a camera pitched further down
// sees its floor tilted beyond it.
constexpr float kTiltLimitDeg = 15.f;

double angle_deg(const std::array<float, 4>& a, const std::array<float, 4>& b) {
  const double dot = double(a[0]) * b[0] + double(a[1]) * b[1] + double(a[2]) * b[2];
  return std::acos(std::clamp(dot, -1.0, 1.0)) * 180.0 / M_PI;
}

sim::Furniture box(sim::FurnitureKind kind, sim::Vec3 size, float x, float z) {
  sim::Furniture f;
  f.kind = kind;
  f.size = size;
  f.x = x, f.z = z;
  return f;
}

}  // namespace

const char* obstacle_name(FloorObstacle o) {
  switch (o) {
    case FloorObstacle::None: return "";
    case FloorObstacle::Wall: return "wall";
    case FloorObstacle::Table: return "table";
    case FloorObstacle::Step: return "step";
  }
  return "?";
}

std::vector<FloorSweepCase> floor_sweep_cases() {
  std::vector<FloorSweepCase> cases;
  uint64_t seed = 300;
  for (float height : {500.f, 1000.f, 1500.f, 2000.f, 2500.f})
    for (float pitch : {0.f, 7.f, 14.f, 22.f, 30.f})
      for (float holes : {0.f, 0.15f, 0.3f}) cases.push_back({height, pitch, holes, seed++, 1, 120});
  for (FloorObstacle o : {FloorObstacle::Wall, FloorObstacle::Table, FloorObstacle::Step})
    for (float height : {800.f, 1500.f, 2200.f})
      for (float pitch : {0.f, 12.f}) cases.push_back({height, pitch, 0.15f, seed++, 0, 90, o});
  return cases;
}

FloorSweepResult run_floor_sweep_case(const FloorSweepCase& c) {
  const sim::Scenario named = sim::Scenario::make({"walk-in", c.people, kWidth, kHeight, c.frames, c.seed, false, 30.f});
  sim::CameraSetup camera = named.camera();
  camera.position.y = c.heightMm;
  camera.pitch = sim::deg(c.pitchDeg);
  camera.roll = 0;
  sim::Room room = named.room();
  const float cx = camera.position.x, cz = camera.position.z;
  switch (c.obstacle) {
    case FloorObstacle::None: break;
    case FloorObstacle::Wall:  // filling the view, nothing of the floor before it
      camera.yaw = 0;
      room.z1 = cz + 700.f;
      room.furniture.clear();
      break;
    case FloorObstacle::Table:  // a large table top filling the middle of the bottom third
      camera.yaw = 0;
      room.furniture = {box(sim::FurnitureKind::Table, {1800, 750, 1100}, cx, cz + 1900.f)};
      break;
    case FloorObstacle::Step:  // two steps of 180 mm across most of the view, the floor before them
      camera.yaw = 0;
      room.furniture = {box(sim::FurnitureKind::Cabinet, {3000, 180, 1600}, cx, cz + 3400.f),
                        box(sim::FurnitureKind::Cabinet, {3000, 360, 800}, cx, cz + 3800.f)};
      break;
  }
  const sim::Scenario scenario(named.options(), camera, room, named.actors());
  sim::SensorOptions sensor;
  sensor.floorHoles = c.holes;
  sensor.wallHoles = c.holes * 0.5f;
  sim::Renderer renderer(scenario, sensor);
  const skeleton::DepthCameraModel& model = renderer.camera_model();
  skeleton::UserAnalyzer analyzer(camera.hfovDeg, camera.vfovDeg, kWidth, kHeight);
  const skeleton::ConversionTables tables = skeleton::build_conversion_tables({});
  std::vector<skeleton::SegmentedUser> users;

  FloorSweepResult r;
  r.sweepCase = c;
  sim::Frame frame;
  const size_t n = size_t{kWidth} * kHeight;
  std::vector<float> height(n);
  std::vector<uint8_t> nearFoot(n);
  uint64_t floorInView = 0, floorMissing = 0, floorSeen = 0, floorMasked = 0, feetSeen = 0, feetMasked = 0;
  uint64_t bottomFloor = 0;
  const uint32_t firstRow = 2 * kHeight / 3;
  for (int i = 0; i < c.frames; ++i) {
    renderer.render(i, frame);
    analyzer.update(frame.depth, tables, false, users);
    const std::array<float, 4>& truth = frame.floor;
    // Height of every pixel's true surface above the floor, and the floor near a foot.
    std::fill(nearFoot.begin(), nearFoot.end(), 0);
    for (uint32_t y = 0; y < kHeight; ++y) {
      for (uint32_t x = 0; x < kWidth; ++x) {
        const size_t k = size_t{y} * kWidth + x;
        const float z = renderer.true_depth()[k];
        if (!(z < 1e9f)) {
          height[k] = 1e9f;
          continue;
        }
        const float px = (float(x) - model.centerX) / model.focalX * z, py = (model.centerY - float(y)) / model.focalY * z;
        height[k] = truth[0] * px + truth[1] * py + truth[2] * z + truth[3];
        const uint8_t label = frame.labels[k];
        if (label == 11 || label == 14) {
          for (int dy = -4; dy <= 4; ++dy)
            for (int dx = -4; dx <= 4; ++dx) {
              const int xx = int(x) + dx, yy = int(y) + dy;
              if (xx >= 0 && yy >= 0 && xx < int(kWidth) && yy < int(kHeight)) nearFoot[size_t(yy) * kWidth + size_t(xx)] = 1;
            }
        }
      }
    }
    const bool found = analyzer.floorDetected();
    if (found && r.foundAt < 0) r.foundAt = i;
    if (r.foundAt >= 0) {
      ++r.framesAfter;
      if (found) {
        ++r.keptFrames;
        const double angle = angle_deg(analyzer.floorPlane(), truth);
        const double offset = std::abs(double(analyzer.floorPlane()[3]) - truth[3]);
        r.worstNormalDeg = std::max(r.worstNormalDeg, angle);
        r.worstOffsetMm = std::max(r.worstOffsetMm, offset);
        if (angle <= kNormalLimitDeg && offset <= kOffsetLimitMm) ++r.accurateFrames;
        if (angle > 5.0 || offset > 150.0) ++r.wrongFrames;
      }
    }
    const op::Image<uint8_t>& mask = analyzer.floorMask();
    for (uint32_t y = 0; y < kHeight; ++y) {
      for (uint32_t x = 0; x < kWidth; ++x) {
        const size_t k = size_t{y} * kWidth + x;
        const bool person = frame.ids[k] != 0;
        if (person) {
          if (found && mask[k] != 0) {
            ++r.personMasked;
            if (height[k] > kOffsetLimitMm) ++r.personMaskedAbove;
          }
          continue;
        }
        if (std::abs(height[k]) > 10.f || renderer.true_depth()[k] >= 1e9f) continue;  // not the floor
        ++floorInView;
        if (frame.depth[k] == 0) {
          ++floorMissing;
          continue;
        }
        if (y < firstRow) continue;
        ++bottomFloor;
        if (!found) continue;
        ++floorSeen;
        floorMasked += mask[k] != 0;
        if (nearFoot[k]) ++feetSeen, feetMasked += mask[k] != 0;
      }
    }
  }
  // A floor under a fifth of the bottom third (with depth) is not there to be found.
  r.floorInView = bottomFloor >= uint64_t(c.frames) * (kHeight - firstRow) * kWidth / 5;
  r.missingShare = floorInView ? double(floorMissing) / double(floorInView) : 0.0;
  r.maskRecall = floorSeen ? double(floorMasked) / double(floorSeen) : 0.0;
  r.feetRecall = feetSeen ? double(feetMasked) / double(feetSeen) : -1.0;
  return r;
}

void print_floor_sweep(std::ostream& out, const std::vector<FloorSweepResult>& results) {
  out << "        height  pitch  holes  missing  found  kept   accurate  worst deg  worst mm  mask   feet   person px (>30 mm)  wrong\n";
  for (const FloorSweepResult& r : results) {
    const FloorSweepCase& c = r.sweepCase;
    out << fmt::format("{:<6}  ", obstacle_name(c.obstacle));
    if (!r.floorInView) {
      out << fmt::format("{:4.1f} m  {:4.0f}   {:4.0f}%  {:6.0f}%  floor not in view; frames with a floor: {}\n",
                         c.heightMm / 1000.f, c.pitchDeg, c.holes * 100.f, r.missingShare * 100.0, r.wrongFrames);
      continue;
    }
    const std::string found = r.foundAt < 0 ? "never" : std::to_string(r.foundAt);
    const double kept = r.framesAfter ? 100.0 * r.keptFrames / r.framesAfter : 0.0;
    const double accurate = r.keptFrames ? 100.0 * r.accurateFrames / r.keptFrames : 0.0;
    const std::string feet = r.feetRecall < 0 ? "   -" : fmt::format("{:3.0f}%", r.feetRecall * 100.0);
    out << fmt::format(
        "{:4.1f} m  {:4.0f}   {:4.0f}%  {:6.0f}%  {:>5}  {:4.0f}%  {:7.0f}%  {:9.2f}  {:8.0f}  {:3.0f}%  {}  {:5} ({:5})  {:5}\n",
        c.heightMm / 1000.f, c.pitchDeg, c.holes * 100.f, r.missingShare * 100.0, found, kept, accurate, r.worstNormalDeg,
        r.worstOffsetMm, r.maskRecall * 100.0, feet, r.personMasked, r.personMaskedAbove, r.wrongFrames);
  }
  int obstacleCases = 0, wrong = 0;
  for (const FloorSweepResult& r : results)
    if (r.sweepCase.obstacle != FloorObstacle::None) ++obstacleCases, wrong += r.wrongFrames;
  out << fmt::format("walls, tables and steps: {} cases, {} frames with something else taken for the floor\n",
                     obstacleCases, wrong);
  for (int beyond = 0; beyond < 2; ++beyond) {
    int cases = 0, notInView = 0, foundInTime = 0, frames = 0, kept = 0, keptFrames = 0, accurate = 0;
    double recall = 0, feet = 0;
    int feetCases = 0;
    uint64_t person = 0, personAbove = 0;
    for (const FloorSweepResult& r : results) {
      if (r.sweepCase.obstacle != FloorObstacle::None) continue;
      if ((r.sweepCase.pitchDeg > kTiltLimitDeg) != (beyond == 1)) continue;
      if (!r.floorInView) {
        ++notInView;
        continue;
      }
      ++cases;
      foundInTime += r.foundAt >= 0 && r.foundAt < kFindWithin;
      frames += r.framesAfter, kept += r.keptFrames;
      keptFrames += r.keptFrames, accurate += r.accurateFrames;
      recall += r.maskRecall;
      if (r.feetRecall >= 0) feet += r.feetRecall, ++feetCases;
      person += r.personMasked, personAbove += r.personMaskedAbove;
    }
    out << fmt::format(
        "{}: {} cases ({} without floor in view): found within {} frames in {:.1f}%, kept in {:.1f}% of frames after, "
        "accurate in {:.1f}% of those; mask holds {:.1f}% of the floor with depth, {:.1f}% near feet; {} person pixels in "
        "it ({} above 30 mm)\n",
        beyond ? "pitched beyond the tilt limit (> 15 deg)" : "within the tilt limit (<= 15 deg)", cases, notInView,
        kFindWithin, cases ? 100.0 * foundInTime / cases : 0.0, frames ? 100.0 * kept / frames : 0.0,
        keptFrames ? 100.0 * accurate / keptFrames : 0.0, cases ? 100.0 * recall / cases : 0.0,
        feetCases ? 100.0 * feet / feetCases : 0.0, person, personAbove);
  }
}

}  // namespace quorvik::eval
