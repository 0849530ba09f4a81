#include "runner.h"

#include <chrono>
#include <cmath>
#include <memory>

#include "renderer.h"
#include "skeleton/vocabulary.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

using skeleton::Body;
using skeleton::BodyStatus;
using skeleton::JointStatus;


EvalCase with_camera(EvalCase c, float height, std::optional<float> pitchDeg) {
  c.cameraHeight = height;
  c.pitchDeg = pitchDeg;
  return c;
}

EvalCase entering(EvalCase c) {
  c.enterFirst = true;
  return c;
}

// The actor walks in from beyond the side of the view at the depth of its first place,
// turns to its first heading, and replays the gestures and turns of its own timeline.
sim::Actor walk_in_first(const sim::Actor& actor, const sim::CameraSetup& camera) {
  const std::vector<sim::Step>& steps = actor.timeline.steps();
  if (steps.empty()) return actor;
  const sim::Step& first = steps.front();
  const float fx = std::sin(camera.yaw), fz = std::cos(camera.yaw);
  const float rx = std::cos(camera.yaw), rz = -std::sin(camera.yaw);
  const float px = first.x0 - camera.position.x, pz = first.z0 - camera.position.z;
  const float depth = px * fx + pz * fz, across = px * rx + pz * rz;
  const float side = across < 0 ? -1.f : 1.f;
  const float out = depth * std::tan(sim::deg(camera.hfovDeg) * 0.5f) + 900.f;
  const float sx = camera.position.x + fx * depth + rx * side * out;
  const float sz = camera.position.z + fz * depth + rz * side * out;
  sim::Actor a = actor;
  a.timeline = sim::Timeline(actor.shape, sx, sz, std::atan2(first.x0 - sx, first.z0 - sz));
  a.timeline.stand(0.2f).walk_to(first.x0, first.z0).turn_to(first.h0);
  for (const sim::Step& s : steps) {
    if (s.activity == sim::Activity::Turn) {
      a.timeline.turn_to(s.h1, s.t1 - s.t0);
    } else if (s.activity != sim::Activity::Stand && s.activity != sim::Activity::Walk) {
      a.timeline.stand(0.8f).gesture(s.activity, s.t1 - s.t0, s.side, s.variant);
    }
  }
  return a;
}

bool tracking(const Body& b) { return b.status == BodyStatus::Tracking || b.status == BodyStatus::TrackingStarted; }

}  // namespace

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

std::vector<EvalCase> full_cases() {
  return {
      make_case("walk-in", "walk-in", 1, 320, 300, 101, false),
      make_case("walk-in mirrored", "walk-in", 1, 640, 300, 102, true),
      make_case("walk-out", "walk-out", 1, 320, 240, 103, false),
      make_case("walk-away", "walk-away", 1, 320, 300, 122, false),
      make_case("walk-away mirrored", "walk-away", 1, 640, 300, 123, true),
      entering(make_case("turn", "turn", 1, 160, 420, 104, false)),
      entering(make_case("wave mirrored", "wave", 1, 320, 420, 105, true)),
      make_case("wave from frame 0", "wave", 1, 320, 240, 121, false),
      entering(make_case("reach", "reach", 1, 160, 420, 106, false)),
      entering(make_case("point", "point", 1, 320, 420, 107, false)),
      entering(make_case("crouch", "crouch", 1, 320, 420, 108, false)),
      entering(make_case("kick mirrored", "kick", 1, 160, 360, 109, true)),
      make_case("sit", "sit", 1, 320, 360, 110, false),
      entering(make_case("arms-crossed", "arms-crossed", 1, 640, 360, 111, false)),
      make_case("side-view", "side-view", 1, 320, 300, 112, false),
      // The same gestures as they come: the person stands in view when tracking starts.
      make_case("wave at start", "wave", 1, 160, 240, 130, true),
      make_case("kick at start", "kick", 1, 320, 300, 131, false),
      make_case("arms-crossed at start", "arms-crossed", 1, 640, 300, 132, true),
      make_case("reach at start", "reach", 1, 320, 300, 133, true),
      make_case("point at start", "point", 1, 640, 300, 134, false),
      make_case("crouch at start", "crouch", 1, 160, 300, 135, true),
      make_case("sit at start", "sit", 1, 640, 300, 136, true),
      make_case("turn at start", "turn", 1, 320, 360, 137, true),
      make_case("turn at start 640", "turn", 1, 640, 360, 138, false),
      make_case("crossing 2", "crossing", 2, 320, 300, 113, false),
      make_case("crossing 3 mirrored", "crossing", 3, 640, 300, 114, true),
      make_case("mixed 2", "mixed", 2, 320, 450, 124, false),
      make_case("mixed 3 mirrored", "mixed", 3, 640, 450, 125, true),
      make_case("furniture-moved", "furniture-moved", 1, 320, 360, 115, false),
      make_case("empty-room", "empty-room", 0, 320, 240, 116, false),
      with_camera(make_case("camera 0.6 m", "walk-in", 1, 320, 300, 117, false), 600.f, std::nullopt),
      with_camera(make_case("camera 2.1 m", "walk-in", 1, 320, 300, 118, true), 2100.f, std::nullopt),
      with_camera(make_case("camera 1.0 m level", "walk-in", 1, 160, 300, 119, false), 1000.f, 0.f),
      with_camera(make_case("camera 1.8 m steep", "walk-in", 1, 320, 300, 120, false), 1800.f, 22.f),
  };
}

std::vector<EvalCase> quick_cases() {
  return {
      make_case("walk-in", "walk-in", 1, 320, 180, 201, false),
      make_case("crossing 2 mirrored", "crossing", 2, 160, 180, 202, true),
      entering(make_case("wave", "wave", 1, 640, 180, 203, false)),
      make_case("sit", "sit", 1, 320, 240, 204, false),
      make_case("kick at start", "kick", 1, 160, 150, 206, true),
      make_case("empty-room", "empty-room", 0, 160, 90, 205, false),
  };
}

std::vector<EvalCase> with_seed_shift(std::vector<EvalCase> cases, uint64_t shift) {
  for (EvalCase& c : cases) c.options.seed += shift;
  return cases;
}

sim::Scenario build_scenario(const EvalCase& c) {
  const sim::Scenario named = sim::Scenario::make(c.options);
  if (!c.cameraHeight && !c.pitchDeg && !c.enterFirst) return named;
  sim::CameraSetup camera = named.camera();
  std::vector<sim::Actor> actors = named.actors();
  if (c.enterFirst) {
    for (sim::Actor& a : actors) a = walk_in_first(a, camera);
  }
  if (!c.cameraHeight && !c.pitchDeg) return sim::Scenario(named.options(), camera, named.room(), actors);
  if (c.cameraHeight) camera.position.y = *c.cameraHeight;
  // Without a pitch of its own the camera aims as the scenarios do: at a point 1 m high,
  // 3.2 m away.
  camera.pitch = c.pitchDeg ? sim::deg(*c.pitchDeg) : std::atan2(camera.position.y - 1000.f, 3200.f);
  return sim::Scenario(named.options(), camera, named.room(), actors);
}

skeleton::DecisionForest copy_forest(const skeleton::DecisionForest& forest) {
  std::vector<std::unique_ptr<skeleton::DecisionTree>> trees;
  for (size_t i = 0; i < forest.tree_count(); ++i) trees.push_back(std::make_unique<skeleton::DecisionTree>(forest.tree(i)));
  return skeleton::DecisionForest(std::move(trees));
}

// Left and right joints closer than this are not judged for their side.
constexpr float kSideApartMm = 150.f;

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
  std::vector<uint8_t> trackedIds, maskSmall;
  for (int index = 0; index < scenario.frame_count(); ++index) {
    renderer.render(index, frame);
    const auto before = Clock::now();
    tracker.update(frame.depth.width(), frame.depth.height(), frame.depth.data()).unwrap();
    result.trackSeconds += std::chrono::duration<double>(Clock::now() - before).count();
    sim::reduce_to(frame, 160, 120, small);
    ++t.frames;

    const Overlap overlap = count_overlap(tracker.bodyMask().data(), frame.ids.data(), frame.ids.size());
    // The mask is judged where the tracker makes it, at 160x120 against the reduced truth:
    // at the input size every mask value repeats over a block, and blocks on an outline
    // are part background whatever the tracker does.
    const uint32_t block = frame.depth.width() / small.depth.width();
    maskSmall.resize(small.ids.size());
    for (uint32_t y = 0; y < small.depth.height(); ++y)
      for (uint32_t x = 0; x < small.depth.width(); ++x)
        maskSmall[y * small.depth.width() + x] = tracker.bodyMask()[size_t{y * block} * frame.depth.width() + x * block];
    const Overlap maskOverlap = count_overlap(maskSmall.data(), small.ids.data(), small.ids.size());
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
      if (body != nullptr && inView) {
        const auto shared = maskOverlap.personBody.find(person.id);
        if (shared != maskOverlap.personBody.end() && shared->second.contains(bodyId))
          t.maskShared += shared->second.at(bodyId);
        if (maskOverlap.bodyPixels.contains(bodyId)) t.maskPixels += maskOverlap.bodyPixels.at(bodyId);
        if (maskOverlap.personPixels.contains(person.id)) t.maskTruth += maskOverlap.personPixels.at(person.id);
      }
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
      const auto at = [](const sim::JointTruth& j) { return std::array<float, 3>{j.camera.x, j.camera.y, j.camera.z}; };
      const bool back = shows_back(at(person.joints[2]), at(person.joints[5]));
      for (int type = 0; type < kJoints; ++type) {
        const uint8_t other = skeleton::mirror_joint(static_cast<uint8_t>(type));
        const skeleton::Joint* joint = reported[static_cast<size_t>(type)];
        const sim::JointTruth &own = person.joints[static_cast<size_t>(type)], &mirror = person.joints[other];
        if (other == type || joint == nullptr || joint->status == JointStatus::None || !own.inImage) continue;
        const std::array<float, 3> p{joint->worldPosition[0], joint->worldPosition[1], joint->worldPosition[2]};
        // Hands together or knees side by side say nothing about sides.
        if (joint_error(at(own), at(mirror)).total < kSideApartMm) continue;
        const bool right = joint_error(p, at(own)).total < joint_error(p, at(mirror)).total;
        ++t.sideJoints, t.sideRight += right ? 1 : 0;
        if (back) ++t.backJoints, t.backRight += right ? 1 : 0;
      }
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
