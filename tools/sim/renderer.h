#pragma once
// Renders frames of a scenario as a structured-light depth camera sees them, with the
// ground truth of every frame.

#include <array>
#include <cstdint>
#include <vector>

#include "op/image.h"
#include "scene.h"
#include "segmentation/depth_conversion.h"

namespace quorvik::sim {

// One joint of the ground truth. Definitions (all at the centre of the body, not on its
// surface): Head = centre of the head; ShoulderSpine = base of the neck between the
// shoulders; MidSpine = the spine halfway up the torso (48% from BaseSpine to
// ShoulderSpine); BaseSpine = centre of the pelvis, above the hip joints; shoulders, elbows,
// hips and knees = the joint centres; hands = centre of the hand; feet = halfway between
// the ankle and the centre of the foot.
struct JointTruth {
  skeleton::WorldPoint camera{};  // camera space, mm (the frame of DepthCameraModel)
  float u = 0, v = 0;             // image position, DepthCameraModel::to_image
  bool inImage = false;           // in front of the camera and within the image
};

struct PersonTruth {
  uint8_t id = 0;
  // Indexed by JointType value, under the model's side names: in a mirrored recording the
  // person's anatomical left hand is `RightHand`.
  std::array<JointTruth, 16> joints{};
  uint32_t pixels = 0;  // pixels with this id and valid depth
};

struct Frame {
  int index = 0;
  float time = 0;
  op::Image<uint16_t> depth;   // mm, 0 = no measurement
  op::Image<uint8_t> labels;   // body-part label, 0 where no person or no depth
  op::Image<uint8_t> ids;      // person id, 0 where no person or no depth
  std::vector<PersonTruth> people;
  std::array<float, 4> floor{};  // (nx, ny, nz, d), camera space: n . p + d = 0
};

struct SensorOptions {
  float nearLimit = 500.f;     // mm; nearer surfaces give 0
  float farLimit = 10000.f;    // mm; farther surfaces give 0
  bool shadow = true;          // projector shadow
  bool dropouts = true;        // missing depth at edges and grazing angles
  bool noise = true;           // noise in the shift domain (depth noise grows with distance squared)
  float shiftNoise = 0.2f;     // standard deviation in shift units
  float edgeDropFar = 0.5f;    // probability of losing a pixel on the far side of a depth edge
  float edgeDropNear = 0.15f;  // ... on the near side
  float grazingCos = 0.09f;    // below this cosine of incidence a pixel is lost, up to twice it sometimes
  // Patches of the floor and of the walls where the pattern is lost (dark or shiny spots):
  // fixed in the room, drawn from the scenario's seed, with depth flickering at their rims.
  // Each share is of that surface's pixels in view (up to 0.9); the patches gather where the
  // surface is far or seen at a grazing angle. Part of `dropouts`.
  float floorHoles = 0.f;
  float wallHoles = 0.f;
  skeleton::ShiftConversionParams shift;  // the sensor tables depths are quantised through
};

// Not thread-safe; use one renderer per thread. The scenario must outlive the renderer.
class Renderer {
 public:
  explicit Renderer(const Scenario& scenario, SensorOptions sensor = {});

  // Frame `index` of the scenario; the result depends only on the scenario and the index.
  void render(int index, Frame& out);

  // Depth along the optical axis before any sensor effect (float mm, +inf for nothing),
  // and the owner of each pixel: person id, or 0 for the scene. Filled by `render`.
  const std::vector<float>& true_depth() const { return depth_; }
  const skeleton::ConversionTables& tables() const { return tables_; }
  const skeleton::DepthCameraModel& camera_model() const { return model_; }

  // Continuous shift value of a depth (mm), the inverse of the shift table's formula.
  float shift_of_depth(float mm) const;

 private:
  void render_static();
  void add_dynamic(float t);
  void raster(const std::vector<Primitive>& parts, int32_t firstIndex, std::vector<float>& depth,
              std::vector<int32_t>& owner) const;
  void apply_sensor(int index, Frame& out);
  void place_holes(const std::vector<uint8_t>& surface);

  const Scenario& scenario_;
  SensorOptions sensor_;
  skeleton::ConversionTables tables_;
  skeleton::DepthCameraModel model_;
  FrameMap map_;
  uint32_t width_, height_;
  std::vector<Vec3> dirs_;
  std::vector<float> staticDepth_;
  // Per pixel of the static scene: how far the surface's patch pattern is above the level at
  // which depth is lost there (negative inside a patch; +inf where there are no patches).
  std::vector<float> holeMargin_;
  std::vector<float> depth_;
  std::vector<int32_t> owner_;
  // Per-frame dynamic parts (camera space) and the labellers they refer to.
  std::vector<Primitive> parts_;
  std::vector<Labeler> labelers_;
  std::vector<std::array<Vec3, 16>> joints_;  // anatomical sides, room space
  std::vector<uint8_t> scratch_;
};

// The tracker's reduction to the processing size: each block of the frame becomes its
// nearest valid depth, with the label and id of that pixel.
void reduce_to(const Frame& in, uint32_t width, uint32_t height, Frame& out);

}  // namespace quorvik::sim
