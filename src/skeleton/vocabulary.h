#pragma once
// The skeleton's vocabulary: the sixteen reported joints, the twenty-one bones of the
// human model, joint confidence and bone tracking states. The lookup tables over these
// enumerations live in vocabulary.cpp.

#include <cstdint>

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

}  // namespace quorvik::skeleton
