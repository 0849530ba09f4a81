#pragma once
// Rooms, furniture, the camera and named scenarios. A scenario is fixed by its options
// (name, seed, size, ...) and describes every frame of a recording as a function of the
// frame index.

#include <cstdint>
#include <string>
#include <vector>

#include "body.h"
#include "motion.h"
#include "primitives.h"
#include "tracker/tracker_options.h"

namespace quorvik::sim {

// Room coordinates: millimetres, floor at y = 0, y up.
struct CameraSetup {
  uint32_t width = 320, height = 240;
  float hfovDeg = skeleton::kDefaultHorizontalFovDegrees, vfovDeg = skeleton::kDefaultVerticalFovDegrees;
  Vec3 position{0, 1200, 0};
  float yaw = 0, pitch = 0, roll = 0;  // radians; positive pitch looks down, positive roll turns the image clockwise
  float emitterOffset = 75.f;          // projector position along the camera's x axis (mm)
  bool mirrored = false;               // output flipped left to right, as a mirroring sensor delivers it

  FrameMap to_camera() const;          // room -> camera space (mirrored when `mirrored`)
  // Floor plane (nx, ny, nz, d) in camera space: n . p + d = 0, ny >= 0.
  std::array<float, 4> floor_plane() const;
};

enum class FurnitureKind : uint8_t { Table, Chair, Sofa, Shelf, Door, Cabinet };
const char* furniture_name(FurnitureKind k);

struct Furniture {
  FurnitureKind kind = FurnitureKind::Table;
  Vec3 size{1000, 750, 700};  // width (x), height, depth (z) in its own frame
  float x = 0, z = 0, yaw = 0;  // placement; a chair faces its own +z
  // Optional move during [moveStart, moveEnd] seconds to (x1, z1, yaw1).
  float x1 = 0, z1 = 0, yaw1 = 0;
  float moveStart = -1, moveEnd = -1;

  bool moves() const { return moveEnd > moveStart && moveStart >= 0; }
  void placement_at(float t, float& px, float& pz, float& pyaw) const;
  void add_parts(float t, std::vector<Primitive>& out) const;
  // Seat centre and height for chairs and sofas.
  Vec3 seat_at(float t) const;
};

struct Room {
  float x0 = -3000, x1 = 3000, z0 = -500, z1 = 6000, height = 2700;
  std::vector<Furniture> furniture;
};

struct Actor {
  uint8_t id = 1;
  BodyShape shape;
  Timeline timeline;
};

struct ScenarioOptions {
  std::string name = "mixed";
  int people = -1;  // -1: the scenario's own default
  uint32_t width = 320, height = 240;
  int frames = 300;
  uint64_t seed = 1;
  bool mirrored = false;
  float fps = 30.f;
};

// Scenario names accepted by `Scenario::make`.
const std::vector<std::string>& scenario_names();

class Scenario {
 public:
  // Throws std::invalid_argument for an unknown name or a bad size.
  static Scenario make(const ScenarioOptions& options);
  // A scenario from parts (tests).
  Scenario(ScenarioOptions options, CameraSetup camera, Room room, std::vector<Actor> actors);

  const ScenarioOptions& options() const { return options_; }
  const CameraSetup& camera() const { return camera_; }
  const Room& room() const { return room_; }
  const std::vector<Actor>& actors() const { return actors_; }
  int frame_count() const { return options_.frames; }
  float time_of(int frame) const { return static_cast<float>(frame) / options_.fps; }

 private:
  ScenarioOptions options_;
  CameraSetup camera_;
  Room room_;
  std::vector<Actor> actors_;
};

}  // namespace quorvik::sim
