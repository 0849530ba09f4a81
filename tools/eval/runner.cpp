#include "runner.h"

#include <chrono>
#include <cmath>
#include <memory>

#include "renderer.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

using skeleton::Body;
using skeleton::BodyStatus;
using skeleton::JointStatus;

EvalCase make_case(std::string label, std::string name, int people, uint32_t width, int frames, uint64_t seed,
                   bool mirrored) {
  EvalCase c;
  c.label = std::move(label);
  c.options.name = std::move(name);
  c.options.people = people;
  c.options.width = width;
  c.options.height = width * 3 / 4;
  c.options.frames = frames;
  c.options.seed = seed;
  c.options.mirrored = mirrored;
  return c;
}

EvalCase with_camera(EvalCase c, float height, std::optional<float> pitchDeg) {
  c.cameraHeight = height;
  c.pitchDeg = pitchDeg;
  return c;
}

bool tracking(const Body& b) { return b.status == BodyStatus::Tracking || b.status == BodyStatus::TrackingStarted; }

}  // namespace

std::vector<EvalCase> full_cases() {
  return {
      make_case("walk-in", "walk-in", 1, 320, 240, 101, false),
      make_case("walk-in mirrored", "walk-in", 1, 640, 240, 102, true),
      make_case("walk-out", "walk-out", 1, 320, 210, 103, false),
      make_case("turn", "turn", 1, 160, 240, 104, false),
      make_case("wave mirrored", "wave", 1, 320, 240, 105, true),
      make_case("reach", "reach", 1, 160, 210, 106, false),
      make_case("point", "point", 1, 320, 210, 107, false),
      make_case("crouch", "crouch", 1, 320, 240, 108, false),
      make_case("kick mirrored", "kick", 1, 160, 210, 109, true),
      make_case("sit", "sit", 1, 320, 300, 110, false),
      make_case("arms-crossed", "arms-crossed", 1, 640, 180, 111, false),
      make_case("side-view", "side-view", 1, 320, 210, 112, false),
      make_case("crossing 2", "crossing", 2, 320, 240, 113, false),
      make_case("crossing 3 mirrored", "crossing", 3, 640, 240, 114, true),
      make_case("furniture-moved", "furniture-moved", 1, 320, 300, 115, false),
      make_case("empty-room", "empty-room", 0, 320, 150, 116, false),
      with_camera(make_case("camera 0.6 m", "walk-in", 1, 320, 210, 117, false), 600.f, std::nullopt),
      with_camera(make_case("camera 2.1 m", "walk-in", 1, 320, 210, 118, true), 2100.f, std::nullopt),
      with_camera(make_case("camera 1.0 m level", "wave", 1, 160, 180, 119, false), 1000.f, 0.f),
      with_camera(make_case("camera 1.8 m steep", "wave", 1, 320, 180, 120, false), 1800.f, 28.f),
  };
}

std::vector<EvalCase> quick_cases() {
  return {
      make_case("walk-in", "walk-in", 1, 320, 120, 201, false),
      make_case("crossing 2 mirrored", "crossing", 2, 160, 150, 202, true),
      make_case("wave", "wave", 1, 640, 90, 203, false),
  };
}

sim::Scenario build_scenario(const EvalCase& c) {
  const sim::Scenario named = sim::Scenario::make(c.options);
  if (!c.cameraHeight && !c.pitchDeg) return named;
  sim::CameraSetup camera = named.camera();
  if (c.cameraHeight) camera.position.y = *c.cameraHeight;
  // Without a pitch of its own the camera aims as the scenarios do: at a point 1 m high,
  // 3.2 m away.
  camera.pitch = c.pitchDeg ? sim::deg(*c.pitchDeg) : std::atan2(camera.position.y - 1000.f, 3200.f);
  return sim::Scenario(named.options(), camera, named.room(), named.actors());
}

skeleton::DecisionForest copy_forest(const skeleton::DecisionForest& forest) {
  std::vector<std::unique_ptr<skeleton::DecisionTree>> trees;
  for (size_t i = 0; i < forest.tree_count(); ++i) trees.push_back(std::make_unique<skeleton::DecisionTree>(forest.tree(i)));
  return skeleton::DecisionForest(std::move(trees));
}

CaseResult Evaluator::run(const EvalCase& c) const {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  CaseResult result;
  result.evalCase = c;
  const sim::Scenario scenario = build_scenario(c);
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, copy_forest(forest_), 160, 120);
  tracker.isDepthMirrored = c.options.mirrored;

  Tally& t = result.tally;
  IdSwitchCounter switches;
  AcquisitionTimer acquisition;
  sim::Frame frame, small;
  std::vector<uint8_t> trackedIds;
  for (int index = 0; index < scenario.frame_count(); ++index) {
    renderer.render(index, frame);
    const auto before = Clock::now();
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    result.trackSeconds += std::chrono::duration<double>(Clock::now() - before).count();
    sim::reduce_to(frame, 160, 120, small);
    ++t.frames;

    const Overlap overlap = count_overlap(tracker.bodyMask().data(), frame.ids.data(), frame.ids.size());
    trackedIds.clear();
    for (const Body& b : tracker.bodies())
      if (tracking(b)) trackedIds.push_back(b.id);
    t.falseBodyFrames += false_bodies(overlap, trackedIds).size();

    for (const sim::PersonTruth& person : small.people) {
      int jointsInImage = 0;
      for (const sim::JointTruth& j : person.joints) jointsInImage += j.inImage ? 1 : 0;
      const bool inView = person.pixels >= kInViewPixels && jointsInImage >= kInViewJoints;
      const bool fullyVisible = person.pixels >= kInViewPixels && jointsInImage == kJoints;
      const uint8_t bodyId = nearest_body(overlap, person.id);
      const Body* body = nullptr;
      for (const Body& b : tracker.bodies())
        if (b.id == bodyId && tracking(b)) body = &b;
      switches.observe(person.id, inView, body != nullptr ? bodyId : 0);
      bool anyJoint = false;
      std::array<const skeleton::Joint*, kJoints> reported{};
      if (body != nullptr) {
        for (const auto& [type, joint] : body->joints) {
          if (type >= kJoints) continue;
          reported[truth_joint_for(type, c.options.mirrored)] = &joint;
          anyJoint = anyJoint || joint.status != JointStatus::None;
        }
      }
      acquisition.observe(person.id, index, fullyVisible, anyJoint);
      if (!inView) continue;
      for (int type = 0; type < kJoints; ++type) {
        const sim::JointTruth& truth = person.joints[static_cast<size_t>(type)];
        if (!truth.inImage) continue;
        const skeleton::Joint* joint = reported[static_cast<size_t>(type)];
        if (joint == nullptr || joint->status == JointStatus::None) {
          t.add_joint(type, JointStatus::None, {}, 0.f);
          continue;
        }
        const JointError e = joint_error({joint->worldPosition[0], joint->worldPosition[1], joint->worldPosition[2]},
                                         {truth.camera.x, truth.camera.y, truth.camera.z});
        t.add_joint(type, joint->status, e, truth.camera.z);
      }
    }

    if (tracker.floorDetected()) {
      ++t.floorFrames;
      t.floorError.push_back(static_cast<float>(normal_angle_deg(tracker.floorPlane(), frame.floor)));
    }

    const auto& labels = tracker.pixelLabels();
    for (size_t i = 0; i < small.ids.size(); ++i) {
      if (small.ids[i] == 0) continue;
      ++t.personPixels;
      const uint8_t label = labels[i].label;
      if (label == 0) continue;
      ++t.personLabelled;
      ++t.partCompared;
      t.partCorrect += label == small.labels[i] ? 1 : 0;
    }
  }
  t.idSwitches = switches.switches();
  t.acquisition = acquisition.delays();
  result.totalSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  return result;
}

std::vector<CaseResult> Evaluator::run_all(const std::vector<EvalCase>& cases,
                                           const std::function<void(const CaseResult&)>& progress) const {
  std::vector<CaseResult> out;
  for (const EvalCase& c : cases) {
    out.push_back(run(c));
    if (progress) progress(out.back());
  }
  return out;
}

}  // namespace quorvik::eval
