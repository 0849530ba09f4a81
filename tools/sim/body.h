#pragma once
// Articulated human body: shape parameters, a pose of joint angles, forward kinematics to
// the sixteen joints of the skeleton vocabulary, and the solid parts that make up the body.
//
// Sides in this file are anatomical: index 0 is the person's left, 1 the right. Which
// label or joint name a side gets in a recording (the model's side) is decided when
// labelling, see `Labeler`.

#include <array>
#include <cstdint>
#include <vector>

#include "primitives.h"
#include "sim_math.h"

namespace quorvik::sim {

enum class Hair : uint8_t { None, Short, Long, Bun };
enum class Clothing : uint8_t { None, Skirt, Coat };
enum class Bag : uint8_t { None, ShoulderBag, Backpack };
enum class Carried : uint8_t { None, Box, Phone };

struct BodyShape {
  float height = 1750.f;      // mm, 1100..2000
  float build = 1.f;          // girth: 0.75 thin .. 1.45 heavy
  float armFactor = 1.f;      // arm length relative to the average proportion
  float legFactor = 1.f;      // leg length relative to the average proportion
  float shoulderFactor = 1.f; // shoulder width
  float hipFactor = 1.f;      // hip width
  float headFactor = 1.f;     // head size
  Hair hair = Hair::Short;
  Clothing clothing = Clothing::None;
  Bag bag = Bag::None;
  Carried carried = Carried::None;

  static BodyShape random(Rng& rng);
};

// Segment lengths and girths derived from a shape.
struct BodyDims {
  float ankleHeight, shinLen, thighLen, hipHalfSpread, baseAboveHips;
  float lowSpineLen, upSpineLen, shoulderHalfSpread, shoulderDrop;
  float upperArmLen, forearmLen, handLen, footLen, footWidth;
  float neckLen, neckRadius;
  Vec3 headRadii;  // lateral, vertical, depth
  float chestHalfWidth, chestHalfDepth, waistHalfWidth, waistHalfDepth, pelvisHalfWidth,
      pelvisHalfDepth;
  float upperArmR0, upperArmR1, forearmR0, forearmR1, thighR0, thighR1, shinR0, shinR1;
};
BodyDims body_dims(const BodyShape& s);

// One limb: for an arm `flex` raises it forward, `abduct` sideways out, `twist` turns the
// direction the elbow bends from forward (0) to outward/up (+90 deg) or inward (-90 deg),
// `bend` is the elbow flexion. For a leg `flex` is hip flexion (negative: extension),
// `abduct` sideways out, `bend` the knee flexion; `twist` is unused. Radians.
struct LimbPose {
  float flex = 0, abduct = 0, twist = 0, bend = 0;
};

struct Pose {
  float x = 0, z = 0;     // floor position of the pelvis in the room (mm)
  float heading = 0;      // facing direction: 0 faces +z of the room
  float lean = 0, sideBend = 0, twist = 0;  // spine: forward, towards the left, turn to the left
  float headPitch = 0, headYaw = 0;         // nod down, turn to the left
  std::array<LimbPose, 2> arm{}, leg{};     // [0] left, [1] right
  float seat = 0;         // 0: the lowest foot stands on the floor; 1: hips rest on `seatHeight`
  float seatHeight = 450;
  float carry = 0;        // > 0.5 shows a carried box between the hands
};

Pose blend(const Pose& a, const Pose& b, float w);  // headings blend the short way round
void clamp_to_limits(Pose& p);

// Joint limits that `clamp_to_limits` enforces (radians), exposed for checks.
struct JointLimits {
  static constexpr float kElbowMax = deg(150), kKneeMax = deg(150);
  static constexpr float kHipFlexMin = deg(-30), kHipFlexMax = deg(125);
  static constexpr float kHipAbductMin = deg(-25), kHipAbductMax = deg(60);
  static constexpr float kShoulderFlexMin = deg(-60), kShoulderFlexMax = deg(180);
  static constexpr float kShoulderAbductMin = deg(-30), kShoulderAbductMax = deg(170);
  static constexpr float kLeanMin = deg(-20), kLeanMax = deg(60);
};

// How the label of a hit point on a body part is found. Labels are the model's: the
// person's anatomical side maps to the model side given by `swapSides`.
enum class LabelerKind : uint8_t { Fixed, Segment, Torso, Skirt };
struct Labeler {
  LabelerKind kind = LabelerKind::Fixed;
  uint8_t labels[3] = {0, 0, 0};  // Fixed: [0]; Segment: before cut0, between, from cut1 on
  float cut0 = 0.2f, cut1 = 0.8f;
  Vec3 a, b;  // Segment: the bone
  // Torso and skirt: spine points and directions.
  Vec3 base, mid, top, upLow, upHigh, left;
  float lowLen = 1, upLen = 1, innerShoulder = 1;
  bool swapSides = false;
  Vec3 thighA[2], thighB[2];  // skirt: hips and knees
};
uint8_t label_at(const Labeler& l, Vec3 p);
// Name of a body-part label (0 to 27, model sides) for tables; "unused" for others.
const char* label_name(int label);

// Joint positions (anatomical sides, indexed by JointType value) and the parts of a posed body.
struct PosedBody {
  std::array<Vec3, 16> joints{};
  std::vector<Primitive> parts;      // `labeler` indexes `labelers`
  std::vector<Labeler> labelers;
};

// `swapSides` names the left side's parts with the model's right labels (mirrored output).
void pose_body(const BodyShape& shape, const Pose& pose, bool swapSides, PosedBody& out);

// Height of the pelvis (BaseSpine) above the floor for a pose, as pose_body places it.
float pelvis_height(const BodyShape& shape, const Pose& pose);

}  // namespace quorvik::sim
