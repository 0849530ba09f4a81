#pragma once
// The skeleton state of one tracked user: the joint table that the body frame reports, the
// smoothed bone lengths and the fitted model, all carried from frame to frame.

#include <cstdint>
#include <unordered_map>

#include "skeleton/geometry.h"
#include "skeleton/human_model.h"
#include "skeleton/target_extractor.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct JointRecord {
  uint8_t joint = kNoJointByte;
  int32_t frame = -1;  // frame number of the last update
  JointStatus status = JointStatus::None;
  Vector3 worldPosition;
  float imageX = 0.f, imageY = 0.f;
};

struct UserSkeleton {
  // All sixteen joints (in report order) at None, no lengths, the default model at the origin.
  explicit UserSkeleton(uint8_t id);

  // The entry of a joint byte, created (None, frame -1) should the table lack it.
  JointRecord& joint(uint8_t jointByte);

  uint8_t userId;
  std::unordered_map<uint8_t, JointRecord> joints;
  BoneLengths boneLengths;
  HumanModel model;
};

}  // namespace quorvik::skeleton
