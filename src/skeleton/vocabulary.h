#pragma once
// The skeleton's vocabulary: the sixteen reported joints, the twenty-one bones of the
// human model, joint confidence and bone tracking states. The lookup tables over these
// enumerations live in vocabulary.cpp.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace quorvik::skeleton {

enum class JointType : uint32_t {
  Head = 0,
  ShoulderSpine = 1,
  LeftShoulder = 2,
  LeftElbow = 3,
  LeftHand = 4,
  RightShoulder = 5,
  RightElbow = 6,
  RightHand = 7,
  MidSpine = 8,
  BaseSpine = 9,
  LeftHip = 10,
  LeftKnee = 11,
  LeftFoot = 12,
  RightHip = 13,
  RightKnee = 14,
  RightFoot = 15,
  None = 16,
  Unknown = 17,
};

inline constexpr int kJointCount = 16;
inline constexpr uint8_t kNoJointByte = 255;

enum class HumanBoneType : uint32_t {
  Root = 0,
  UpperSpine = 1,
  RightClavicle = 2,
  LeftClavicle = 3,
  Neck = 4,
  Head = 5,
  RightUpperArm = 6,
  LeftUpperArm = 7,
  RightForearm = 8,
  LeftForearm = 9,
  RightHand = 10,
  LeftHand = 11,
  LowerSpine = 12,
  RightPelvis = 13,
  LeftPelvis = 14,
  RightUpperLeg = 15,
  LeftUpperLeg = 16,
  RightLowerLeg = 17,
  LeftLowerLeg = 18,
  RightFoot = 19,
  LeftFoot = 20,
  None = 21,
};

inline constexpr int kBoneCount = 21;

enum class BoneSide : uint32_t { Left = 0, Center = 1, Right = 2 };

enum class JointStatus : uint8_t { None = 0, Low = 1, High = 2 };

enum class BoneTrackingState : uint32_t { Untracked = 0, Tracked = 1, Inferred = 2 };

// Bit sets over bone values: the five bones without a distal joint, and the same with Root.
inline constexpr uint32_t kTerminalBoneMask = 0x180C20;
inline constexpr uint32_t kTerminalOrRootBoneMask = 0x180C21;

inline constexpr bool is_terminal_bone(HumanBoneType bone) {
  return static_cast<uint32_t>(bone) < 32 && ((kTerminalBoneMask >> static_cast<uint32_t>(bone)) & 1u) != 0;
}
inline constexpr bool is_terminal_or_root_bone(HumanBoneType bone) {
  return static_cast<uint32_t>(bone) < 32 &&
         ((kTerminalOrRootBoneMask >> static_cast<uint32_t>(bone)) & 1u) != 0;
}

// A bone's start and end joints; terminal bones end at None.
struct BoneEndpoints {
  HumanBoneType bone;
  JointType proximal;
  JointType distal;
};

// Bones 0 to 20 ascending: the order of every walk over all bones.
const std::array<HumanBoneType, kBoneCount>& all_bones();
// Parents before children; the order in which a model is built from joints.
const std::array<JointType, kJointCount>& model_joint_order();
// The order of a user's joint table and of a body frame's joint list.
const std::array<JointType, kJointCount>& report_joint_order();

// Names; unknown values raise std::out_of_range.
const std::string& to_string(HumanBoneType bone);
const std::string& to_string(JointType joint);
const std::string& to_string(JointStatus status);

// Root and values without an entry give None.
HumanBoneType parent_bone(HumanBoneType bone);
std::optional<JointType> proximal_joint(HumanBoneType bone);
std::optional<JointType> distal_joint(HumanBoneType bone);
std::optional<BoneEndpoints> bone_endpoints(HumanBoneType bone);
// Raise std::logic_error for values without an entry.
HumanBoneType mirror_bone(HumanBoneType bone);
BoneSide bone_side(HumanBoneType bone);

// Empty for values without an entry (None, Unknown); MidSpine's parent is None.
std::optional<JointType> parent_joint(JointType joint);
// The bone that ends at the joint (MidSpine: Root).
std::optional<HumanBoneType> parent_bone_of_joint(JointType joint);

// One-byte joint form: 0..15 as themselves, anything else 255.
uint8_t to_byte(JointType joint);
// Raises std::logic_error for a byte without an entry; 255 maps to 255.
uint8_t mirror_joint(uint8_t joint);
// Empty for a byte without an entry; MidSpine gives 255.
std::optional<uint8_t> parent_joint_byte(uint8_t joint);

// True when `ancestor` lies on the parent chain above `bone` (a bone is not its own
// descendant).
bool is_descendant(HumanBoneType bone, HumanBoneType ancestor);

// Tracked gives High, Inferred Low, Untracked None.
JointStatus joint_status_for(BoneTrackingState state);

}  // namespace quorvik::skeleton
