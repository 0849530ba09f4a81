#pragma once
// Rooms with people and furniture for the tests of every module that consumes depth, drawn
// by the simulator: a camera at a known height and downward pitch above the floor, a wall
// facing it, boxes and chairs, and simulated people who stand or are moved from frame to
// frame. The sensor's noise, dropouts and shadow are off, so a scene renders the same every
// time; depths still go through the camera's shift tables.
//
// SceneEngine drives a whole segmentation engine with such frames.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "segmentation/depth_conversion.h"
#include "segmentation/segmentation_engine.h"
#include "tracker/tracker_options.h"

namespace sim_scene {

inline constexpr float kHfovDegrees = quorvik::skeleton::kDefaultHorizontalFovDegrees;
inline constexpr float kVfovDegrees = quorvik::skeleton::kDefaultVerticalFovDegrees;
inline constexpr uint16_t kMaxDepthMm = quorvik::skeleton::ShiftConversionParams{}.maxDepth;

struct Person {
  float x = 0, z = 0;   // floor position, mm; the camera stands at x = z = 0
  float height = 1700;
  float phase = 0;      // advances with the distance walked, so the body sways as it goes
  bool visible = true;
  bool operator==(const Person&) const = default;
};

struct Object {
  bool chair = false;
  float x = 0, z = 0, sizeX = 0, sizeZ = 0, sizeY = 0;
  bool operator==(const Object&) const = default;
};

class Scene {
 public:
  // Camera heightMm above the floor, looking along z, pitched down by pitchDegrees.
  explicit Scene(float heightMm = 1000.f, float pitchDegrees = 5.f, int width = 160, int height = 120);

  Scene& floor() { return *this; }      // the room always has one
  Scene& wall(float distanceMm);        // facing the camera; 0 = out of range

  int add_person(float x, float z, float height = 1700.f);
  size_t people_count() const { return state_.people.size(); }
  Person& person(int index) { return state_.people[size_t(index)]; }
  const Person& person(int index) const { return state_.people[size_t(index)]; }
  void walk_to(int index, float x, float z);

  // A box standing on the floor with its centre at (x, z); a chair with its back away from the camera.
  int add_box(float x, float z, float sizeX, float sizeZ, float sizeY);
  Scene& box(float x, float z, float sizeX, float sizeZ, float sizeY) { return add_box(x, z, sizeX, sizeZ, sizeY), *this; }
  int add_chair(float x, float z);
  void move_object(int index, float x, float z);
  Scene& clear_boxes();

  std::vector<uint16_t> render() const;
  // Also gives, per pixel, 1 + the index of the person seen there (0 = no person).
  void render(std::vector<uint16_t>& depth, std::vector<uint8_t>& person) const;
  // 1 on the pixels where the person is seen.
  std::vector<uint8_t> mask_of(int index) const;
  // The rectangle (inclusive) around the person's pixels; false when none are seen.
  bool person_rect(int index, int& x0, int& y0, int& x1, int& y1) const;
  // Seen clear of the image's sides, with every joint in the image.
  bool fully_visible(int index) const;

  // The floor as the engine reports it: (nx, ny, nz, d) in camera coordinates, n.P + d = 0.
  std::array<float, 4> floor_plane() const;
  int width() const { return width_; }
  int height() const { return height_; }
  const quorvik::skeleton::DepthCameraModel& camera() const { return camera_; }

 private:
  struct State {
    float wall = 0;
    std::vector<Person> people;
    std::vector<Object> objects;
    bool operator==(const State&) const = default;
  };
  float heightMm_, pitch_;
  int width_, height_;
  quorvik::skeleton::DepthCameraModel camera_;
  State state_;
  // The latest render, reused while the scene stays the same.
  mutable State cached_;
  mutable bool haveCache_ = false;
  mutable std::vector<uint16_t> depth_;
  mutable std::vector<uint8_t> owner_;
  mutable std::vector<uint8_t> jointsInView_;  // per person index
};

// The default shift conversion tables of the tracker options.
const quorvik::skeleton::ConversionTables& default_tables();

// Angle in degrees between two directions.
double angle_between(const float* a, const float* b);

// A segmentation engine fed with rendered frames at 30 frames per second.
class SceneEngine {
 public:
  explicit SceneEngine(int width = 160, int height = 120, bool mirrored = false);

  // Starts the engine on the first frame, processes every later one.
  quorvik::legacy::LabelOutput feed(const std::vector<uint16_t>& depth, int times = 1);

  quorvik::legacy::SegmentationEngine& engine() { return *engine_; }
  quorvik::legacy::SegmentationFormat& format() { return format_; }
  const quorvik::legacy::ConversionTableRef& tables() const { return tables_; }
  const quorvik::legacy::UserSegmenter& users() const { return engine_->users(); }
  uint16_t label(int x, int y) const { return labels_.data[size_t(y) * labels_.width + size_t(x)]; }
  // Number of pixels carrying the id in the latest label map.
  int count(uint16_t id) const;
  // The id covering most labelled pixels inside the rectangle, 0 when none.
  uint16_t dominant_id(int x0, int y0, int x1, int y1, const std::vector<uint8_t>* mask = nullptr) const;
  // Pixels the background model holds in front of the background.
  int foreground_count() const;

 private:
  std::unique_ptr<quorvik::legacy::SegmentationEngine> engine_;
  quorvik::legacy::SegmentationFormat format_;
  quorvik::legacy::ConversionTableRef tables_;
  quorvik::legacy::LabelOutput labels_;
  uint64_t index_ = 0, timestamp_ = 0;
};

// The user id (1..10) that covers most of a person's visible pixels; 0 when none does.
uint16_t id_of(const SceneEngine& run, const Scene& scene, int person);

}  // namespace sim_scene
