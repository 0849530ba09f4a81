#pragma once
// A synthetic labelled body for the skeleton tests and benchmark: a posed human model is
// dressed in capsules whose stretches carry the body-part labels that cover those bones,
// the capsule surfaces are sampled densely, and the samples are rendered with a depth
// buffer into the 160x120 label, world point and user-id images the tracker works on.

#include <array>
#include <cstdint>
#include <vector>

#include "op/image.h"
#include "op/pixel_label.h"
#include "op/region_box.h"
#include "segmentation/depth_conversion.h"
#include "skeleton/geometry.h"
#include "skeleton/human_model.h"

namespace quorvik::skeleton::testing {

// A labelled stretch [t0, t1] of a bone, dressed in a capsule of the given radius.
struct PaintedPart {
  HumanBoneType bone;
  float t0, t1;
  float radius;
  uint8_t label;
};

// The dressing of the whole body; every label is used only on bones its table entry covers.
const std::vector<PaintedPart>& body_paint();

struct BonePose {
  HumanBoneType bone;
  float x, y, z;  // pose rotation as Euler angles in degrees
};

struct BodyPose {
  Vector3 midSpine{0.f, 230.f, 2600.f};
  std::vector<BonePose> rotations;
  float lengthScale = 1.f;  // scales every default bone length
};

HumanModel make_posed_model(const BodyPose& pose);

// Position of each joint (indexed by joint value) in a model: the start of a bone that
// starts there.
std::array<Vector3, kJointCount> joint_positions(HumanModel& model);

struct LabelledPoint {
  Vector3 position;
  uint8_t label;
};

// Points about `spacing` mm apart on every painted capsule; `radiusScale` thickens the body.
std::vector<LabelledPoint> sample_body_surface(HumanModel& model, float spacing, float radiusScale = 1.f);

struct FrameImages {
  op::Image<PixelLabel> labels;
  op::Image<WorldPoint> points;
  op::Image<uint8_t> userIds;
  RegionBox box;
  int pixelCount = 0;
};

// 160x120, 58 x 45 degrees.
DepthCameraModel test_camera();

// The nearest sample wins each pixel; its world point is rebuilt from the pixel and the
// rounded depth, as a depth map would give it. Labels get probability `probability`.
FrameImages render(const std::vector<LabelledPoint>& points, const DepthCameraModel& camera, uint8_t userId,
                   float probability = 0.9f);

// The whole chain: posed model, samples, images.
FrameImages render_pose(const BodyPose& pose, uint8_t userId, float radiusScale = 1.f);

// A pose with the arms out to the sides and bent, legs apart; `phase` in [0, 1] raises the
// right arm and bends the left knee gradually.
BodyPose moving_pose(float phase);

}  // namespace quorvik::skeleton::testing
