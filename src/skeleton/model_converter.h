#pragma once
// Turns one frame's bone proposals into joint positions, completes the missing ancestors of
// measured joints from the user's model, and builds a fresh model whose bones run between
// those joints.

#include <memory>
#include <optional>
#include <vector>

#include <spdlog/logger.h>

#include "skeleton/geometry.h"
#include "skeleton/human_model.h"
#include "skeleton/label_force.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct JointPosition {
  JointType joint = JointType::None;
  uint32_t state = 0;  // 1 = measured
  Vector3 position;
};
static_assert(sizeof(JointPosition) == 20);

// At most one record per joint, searched linearly.
using JointPositions = std::vector<JointPosition>;

class ModelConverter {
 public:
  ModelConverter();

  // Empty when MidSpine cannot be placed.
  std::optional<HumanModel> convert(const HumanProposals& proposals, HumanModel& userModel) const;
  // Places the missing ancestors of every positioned joint from the user's model.
  void fill_positions(HumanModel& userModel, JointPositions& positions) const;
  HumanModel model_from_joint_positions(const JointPositions& positions) const;
  JointPosition joint_position_from_model(JointType joint, const JointPosition& parent,
                                          HumanModel& userModel) const;

  // Joint positions from the proposals alone (the first step of convert).
  JointPositions positions_from_proposals(const HumanProposals& proposals) const;

  float maximumJointGap = 100.f;

 private:
  bool fill(JointType joint, HumanModel& userModel, JointPositions& positions) const;
  HumanBoneType bone_ending_at(JointType joint) const;
  JointType parent_joint_of(JointType joint) const;
  JointType proximal_joint_of(HumanBoneType bone) const;

  std::shared_ptr<spdlog::logger> logger_;
};

// Linear search; null when the joint has no record.
const JointPosition* find_position(const JointPositions& positions, JointType joint);
JointPosition* find_position(JointPositions& positions, JointType joint);

}  // namespace quorvik::skeleton
