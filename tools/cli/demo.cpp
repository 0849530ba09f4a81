#include "demo.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>

#include <fmt/format.h>

#include "cli_error.h"
#include "overlay.h"
#include "pictures.h"

namespace quorvik::cli {

namespace {

constexpr float kPi = 3.14159265f;

float facing_camera(float x, float z) { return std::atan2(-x, -z); }

struct FrameSummary {
  std::string line;     // one line for the frame
  std::string compact;  // the bodies in brief, for the progress bar
  std::string event;    // bodies that started or were lost, empty when none
};

FrameSummary summarize(const TrackedFrame& f) {
  FrameSummary s;
  s.line = fmt::format("frame {:4d}  {} bod{}", f.index, f.bodies.size(), f.bodies.size() == 1 ? "y" : "ies");
  for (const TrackedBody& b : f.bodies) {
    int tracked = 0, high = 0;
    for (const TrackedJoint& j : b.joints) {
      tracked += j.status != QBT_JOINT_STATUS_NONE;
      high += j.status == QBT_JOINT_STATUS_HIGH;
    }
    s.line += fmt::format("  | id {} {:<15} {:2d}/16 joints ({:2d} high)", b.id, body_status_name(b.status), tracked, high);
    s.compact += fmt::format(" | id {} {} {}/16", b.id, body_status_name(b.status), tracked);
    if (b.status == QBT_BODY_STATUS_TRACKING_STARTED)
      s.event += fmt::format("frame {:4d}: body {} tracking started\n", f.index, b.id);
    if (b.status == QBT_BODY_STATUS_TRACKING_LOST)
      s.event += fmt::format("frame {:4d}: body {} lost\n", f.index, b.id);
  }
  s.line += f.floorDetected ? "  | floor" : "  | no floor";
  return s;
}

void progress(std::FILE* out, int done, int total, const std::string& status) {
  constexpr int kWidth = 30;
  const int filled = total > 0 ? done * kWidth / total : kWidth;
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '-');
  fmt::print(out, "\r\x1b[K[{}] {:3d}% {}", bar, total > 0 ? done * 100 / total : 100, status.substr(0, 80));
  std::fflush(out);
}

}  // namespace

void score_frame(const TrackedFrame& tracked, const sim::Frame& truth, bool mirrored, JointScore& score, float withinMm) {
  const size_t n = size_t{truth.ids.width()} * truth.ids.height();
  if (tracked.bodyMask.size() != n) return;
  for (const TrackedBody& body : tracked.bodies) {
    std::map<uint8_t, int> votes;
    for (size_t i = 0; i < n; ++i)
      if (tracked.bodyMask[i] == body.id && truth.ids[i] != 0) ++votes[truth.ids[i]];
    if (votes.empty()) continue;
    const uint8_t person =
        std::max_element(votes.begin(), votes.end(), [](const auto& a, const auto& b) { return a.second < b.second; })->first;
    const auto it = std::find_if(truth.people.begin(), truth.people.end(),
                                 [&](const sim::PersonTruth& p) { return p.id == person; });
    if (it == truth.people.end()) continue;
    ++score.bodies;
    for (const TrackedJoint& j : body.joints) {
      if (j.status == QBT_JOINT_STATUS_NONE) continue;
      const int truthType = mirrored ? mirror_joint_type(j.type) : j.type;
      const skeleton::WorldPoint& t = it->joints[static_cast<size_t>(truthType)].camera;
      const float dx = j.world[0] - t.x, dy = j.world[1] - t.y, dz = j.world[2] - t.z;
      const bool near = std::sqrt(dx * dx + dy * dy + dz * dz) <= withinMm;
      ++score.allTotal;
      score.allNear += near;
      if (j.status == QBT_JOINT_STATUS_HIGH) {
        ++score.highTotal;
        score.highNear += near;
      }
    }
  }
}

sim::Scenario demo_scenario(int frames) {
  sim::ScenarioOptions o;
  o.name = "demo";
  o.people = 2;
  o.width = 320;
  o.height = 240;
  o.frames = frames;
  o.seed = 1;
  o.mirrored = true;
  o.fps = 30.f;

  sim::CameraSetup camera;
  camera.width = o.width;
  camera.height = o.height;
  camera.position = {0.f, 1200.f, 0.f};
  camera.pitch = std::atan2(1200.f - 1000.f, 3200.f);  // looks at a point 1 m high 3.2 m away
  camera.mirrored = o.mirrored;

  sim::Room room;
  room.x0 = -3600.f;
  room.x1 = 3600.f;
  room.z0 = -250.f;
  room.z1 = 7600.f;
  room.height = 2700.f;
  sim::Furniture shelf;
  shelf.kind = sim::FurnitureKind::Shelf;
  shelf.size = {1000.f, 1900.f, 350.f};
  shelf.x = -1900.f;
  shelf.z = room.z1 - 200.f;
  shelf.yaw = kPi;
  sim::Furniture table;
  table.kind = sim::FurnitureKind::Table;
  table.size = {1200.f, 740.f, 800.f};
  table.x = 2100.f;
  table.z = 6300.f;
  room.furniture = {shelf, table};

  // The waver walks in from the left, turns to the camera and waves.
  sim::Actor waver;
  waver.id = 1;
  waver.shape.height = 1780.f;
  waver.timeline = sim::Timeline(waver.shape, -2800.f, 2800.f, kPi / 2, 0.3f);
  waver.timeline.stand(0.2f).walk_to(-450.f, 2800.f).turn_to(facing_camera(-450.f, 2800.f));
  waver.timeline.gesture(sim::Activity::Wave, 2.6f, 1).stand(60.f);

  // The other walks in from the right, stands a moment and leaves the way they came.
  sim::Actor leaver;
  leaver.id = 2;
  leaver.shape.height = 1640.f;
  leaver.shape.build = 0.9f;
  leaver.shape.hair = sim::Hair::Long;
  leaver.timeline = sim::Timeline(leaver.shape, 3000.f, 3700.f, -kPi / 2, 2.1f);
  leaver.timeline.stand(0.6f).walk_to(800.f, 3600.f).turn_to(facing_camera(800.f, 3600.f)).stand(0.6f);
  leaver.timeline.walk_to(3600.f, 3800.f).stand(60.f);

  return sim::Scenario(o, camera, room, {waver, leaver});
}

int run_demo(const DemoOptions& options, std::FILE* out, bool terminal) {
  if (options.frames < 1) throw CliError(kExitUsage, "--frames must be at least 1");
  const std::string dataFile = find_data_file(options.data);
  const sim::Scenario scenario = demo_scenario(options.frames);
  sim::Renderer renderer(scenario);
  Tracker tracker(dataFile, scenario.options().mirrored);
  PictureOptions pictureOptions;
  pictureOptions.dir = options.out;
  pictureOptions.framePngs = false;
  pictureOptions.expectedFrames = options.frames;
  pictureOptions.fps = scenario.options().fps;
  PictureWriter pictures(pictureOptions);

  fmt::print(out, "qbt demo: {} frames of a simulated room at {}x{}, two people walk in, one waves, one leaves\n",
             options.frames, scenario.options().width, scenario.options().height);
  fmt::print(out, "data file: {}\n", dataFile);
  std::fflush(out);
  JointScore score;
  sim::Frame frame;
  for (int i = 0; i < options.frames; ++i) {
    renderer.render(i, frame);
    const TrackedFrame tracked = tracker.update(frame.depth.data(), frame.depth.width(), frame.depth.height(), i);
    score_frame(tracked, frame, scenario.options().mirrored, score);
    pictures.add(render_overlay(frame.depth.data(), frame.depth.width(), frame.depth.height(), tracked), i);
    const FrameSummary s = summarize(tracked);
    if (terminal) {
      if (!s.event.empty()) fmt::print(out, "\r\x1b[K{}", s.event);
      progress(out, i + 1, options.frames, fmt::format("frame {}/{}{}", i + 1, options.frames, s.compact));
    } else {
      fmt::print(out, "{}\n", s.line);
    }
  }
  if (terminal) fmt::print(out, "\n");
  const std::vector<std::string> written = pictures.finish();

  const double seconds = tracker.tracking_seconds();
  if (tracker.timed_updates() > 0 && seconds > 0)
    fmt::print(out, "tracking: {:.1f} frames per second ({} frames in {:.2f} s inside the library, the first frame's data "
                    "file load left out)\n",
               tracker.timed_updates() / seconds, tracker.timed_updates(), seconds);
  if (score.allTotal > 0)
    fmt::print(out, "joints within 100 mm of ground truth: High {:.1f}% ({} of {}), all reported {:.1f}% ({} of {})\n",
               100.0 * score.high_share(), score.highNear, score.highTotal, 100.0 * score.all_share(), score.allNear,
               score.allTotal);
  else
    fmt::print(out, "joints within 100 mm of ground truth: no joints were reported\n");
  for (const std::string& w : written) fmt::print(out, "wrote {}\n", w);
  std::fflush(out);
  return kExitOk;
}

}  // namespace quorvik::cli
