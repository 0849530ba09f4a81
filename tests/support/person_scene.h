#pragma once
// Synthetic rooms with people in them, for the tests of every module that consumes depth:
// a camera at a known height and downward pitch above a floor, a wall facing it, boxes and
// chairs, and person-shaped bodies about 1.7 m tall (head, neck, torso, hips, legs and arms)
// that can walk and swing their limbs. Frames are rendered to 160x120 (or any size)
// millimetre depth maps with the pinhole geometry of DepthCameraModel.
//
// SceneEngine drives a whole segmentation engine with such frames.

#include <cstdint>
#include <memory>
#include <vector>

#include "segmentation/depth_conversion.h"
#include "segmentation/segmentation_engine.h"

namespace person_scene {

inline constexpr float kHfovDegrees = 58.59f;
inline constexpr float kVfovDegrees = 45.64f;

// Axis-aligned world box; the world has the floor at y = 0, x to the right, z away from the
// camera along the ground.
struct Block {
  float minX, minY, minZ, maxX, maxY, maxZ;
  bool operator==(const Block&) const = default;
};

struct Person {
  float x = 0, z = 0;       // ground position of the body's centre
  float height = 1700;      // top of the head
  float phase = 0;          // limb swing, radians; 0 = standing straight
  bool visible = true;
  bool operator==(const Person&) const = default;
};

class PersonScene {
 public:
  // Camera heightMm above the floor at x = z = 0, looking along z, pitched down.
  explicit PersonScene(float heightMm = 1000.f, float pitchDegrees = 5.f, int width = 160, int height = 120);

  PersonScene& floor(bool on = true);
  PersonScene& wall(float distanceMm);  // 0 = no wall

  int add_person(float x, float z, float height = 1700.f);
  size_t people_count() const { return people_.size(); }
  Person& person(int index) { return people_[size_t(index)]; }
  const Person& person(int index) const { return people_[size_t(index)]; }
  // Moves a person and swings the limbs in step with the distance walked.
  void walk_to(int index, float x, float z);

  int add_box(float centreX, float centreZ, float sizeX, float sizeZ, float sizeY);
  // A chair: four legs, a seat at 450 mm and a back up to 900 mm on the far side.
  int add_chair(float centreX, float centreZ);
  void move_object(int index, float centreX, float centreZ);

  std::vector<uint16_t> render() const;
  void render(std::vector<uint16_t>& depth) const;
  // Also gives, per pixel, 1 + the index of the person seen there (0 = no person).
  void render(std::vector<uint16_t>& depth, std::vector<uint8_t>& person) const;

  // Image rectangle (inclusive) covered by a person's body, clipped to the image; false when
  // it is not visible or entirely outside.
  bool person_rect(int index, int& x0, int& y0, int& x1, int& y1) const;
  // 1 on the pixels where the person is the nearest surface. Reuses the latest render when
  // nothing changed since.
  std::vector<uint8_t> mask_of(int index) const;
  // Whether the whole body lies inside the image.
  bool fully_visible(int index) const;

  int width() const { return width_; }
  int height() const { return height_; }
  const quorvik::skeleton::DepthCameraModel& camera() const { return camera_; }

 private:
  struct Primitive {
    enum Kind { kBlock, kEllipsoid } kind;
    float lo[3], hi[3];  // block bounds, or centre (lo) and radii (hi) of an ellipsoid
  };
  struct Object {
    std::vector<Block> parts;
    float centreX = 0, centreZ = 0;
    bool operator==(const Object&) const = default;
  };
  void render_into(std::vector<uint16_t>& depth, std::vector<uint8_t>* owner) const;
  void person_primitives(const Person& p, std::vector<Primitive>& out) const;
  bool project(float x, float y, float z, float& u, float& v) const;
  bool rect_of(const std::vector<Primitive>& prims, int& x0, int& y0, int& x1, int& y1) const;
  void cast(const std::vector<Primitive>& prims, std::vector<double>& best, std::vector<uint8_t>* owner,
            uint8_t id) const;

  float heightMm_, pitch_, cos_, sin_;
  int width_, height_;
  quorvik::skeleton::DepthCameraModel camera_;
  bool floor_ = false;
  float wall_ = 0;
  std::vector<Person> people_;
  std::vector<Object> objects_;
  // The latest render, reused while the scene stays the same.
  mutable bool cached_ = false;
  mutable std::vector<Person> cachePeople_;
  mutable std::vector<Object> cacheObjects_;
  mutable bool cacheFloor_ = false;
  mutable float cacheWall_ = 0;
  mutable std::vector<uint16_t> cacheDepth_;
  mutable std::vector<uint8_t> cacheOwner_;
};

// The default shift conversion tables of the tracker options.
const quorvik::skeleton::ConversionTables& default_tables();

// A segmentation engine fed with rendered frames at 30 frames per second.
class SceneEngine {
 public:
  explicit SceneEngine(int width = 160, int height = 120, bool mirrored = false);

  // Starts the engine on the first frame, processes every later one.
  quorvik::legacy::LabelOutput feed(const std::vector<uint16_t>& depth);
  quorvik::legacy::LabelOutput feed(const std::vector<uint16_t>& depth, int times);

  quorvik::legacy::SegmentationEngine& engine() { return *engine_; }
  const quorvik::legacy::UserSegmenter& users() const { return engine_->users(); }
  uint16_t label(int x, int y) const;
  // Number of pixels carrying the id in the latest label map.
  int count(uint16_t id) const;
  // The id covering most labelled pixels inside the rectangle, 0 when none.
  uint16_t dominant_id(int x0, int y0, int x1, int y1) const;
  uint64_t frames() const { return index_; }

 private:
  std::unique_ptr<quorvik::legacy::SegmentationEngine> engine_;
  quorvik::legacy::SegmentationFormat format_;
  quorvik::legacy::ConversionTableRef tables_;
  quorvik::legacy::LabelOutput labels_;
  uint64_t index_ = 0, timestamp_ = 0;
};

// The user id (1..10) that covers most of a person's visible pixels; 0 when none does.
uint16_t id_of(const SceneEngine& run, const PersonScene& scene, int person);

}  // namespace person_scene
