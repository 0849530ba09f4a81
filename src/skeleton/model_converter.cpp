#include "skeleton/model_converter.h"

#include <array>
#include <stdexcept>

#include "op/logging.h"

namespace quorvik::skeleton {

const JointPosition* find_position(const JointPositions& positions, JointType joint) {
  for (const JointPosition& p : positions) {
    if (p.joint == joint) return &p;
  }
  return nullptr;
}

JointPosition* find_position(JointPositions& positions, JointType joint) {
  for (JointPosition& p : positions) {
    if (p.joint == joint) return &p;
  }
  return nullptr;
}

ModelConverter::ModelConverter() : logger_(op::get_logger("ModelConverter")) {}

JointType ModelConverter::proximal_joint_of(HumanBoneType bone) const {
  const std::optional<JointType> joint = proximal_joint(bone);
  if (!joint) {
    logger_->error("Parent joint type not found for bone type: {}", to_string(bone));
    throw std::logic_error("Parent joint type not found for bone type");
  }
  return *joint;
}

JointType ModelConverter::parent_joint_of(JointType joint) const {
  const std::optional<JointType> parent = parent_joint(joint);
  if (!parent) {
    logger_->error("Parent joint type not found for joint type: {}", to_string(joint));
    throw std::logic_error("Parent joint type not found for joint type");
  }
  return *parent;
}

HumanBoneType ModelConverter::bone_ending_at(JointType joint) const {
  const std::optional<HumanBoneType> bone = parent_bone_of_joint(joint);
  if (!bone) {
    logger_->error("Parent bone type not found for joint type: {}", to_string(joint));
    throw std::logic_error("Parent bone type not found for joint type");
  }
  return *bone;
}

JointPositions ModelConverter::positions_from_proposals(const HumanProposals& proposals) const {
  std::array<Vector3, kJointCount> sums{};
  std::array<int, kJointCount> counts{};
  uint32_t fromParent = 0;  // bones whose candidate is their parent's proposed end
  const float maxGap2 = maximumJointGap * maximumJointGap;
  for (HumanBoneType bone : all_bones()) {
    const HumanProposal& proposal = proposals.at(bone);
    const HumanBoneType parent = parent_bone(bone);
    const bool parentUsable =
        parent != HumanBoneType::None && ((fromParent >> static_cast<uint32_t>(parent)) & 1u) == 0;
    const JointType joint = proximal_joint_of(bone);
    std::optional<Vector3> estimate;
    if (parentUsable) {
      const HumanProposal& p = proposals.at(parent);
      if (p.start && p.direction && p.length) estimate = *p.start + normalize(*p.direction) * *p.length;
    }
    std::optional<Vector3> candidate;
    if (!proposal.start) {
      if (estimate) {
        candidate = estimate;
        fromParent |= 1u << static_cast<uint32_t>(bone);
      }
    } else if (estimate) {
      if (length_squared(*estimate - *proposal.start) > maxGap2) {
        candidate = estimate;
        fromParent |= 1u << static_cast<uint32_t>(bone);
      } else {
        candidate = proposal.start;
      }
    } else {
      candidate = proposal.start;
    }
    if (candidate) {
      const auto j = static_cast<size_t>(joint);
      sums[j] += *candidate;
      ++counts[j];
    }
  }
  JointPositions positions;
  positions.reserve(kJointCount);
  for (JointType joint : model_joint_order()) {
    const auto j = static_cast<size_t>(joint);
    if (counts[j] == 0) continue;
    const Vector3 mean = counts[j] == 1 ? sums[j] : sums[j] / static_cast<float>(counts[j]);
    positions.push_back({joint, 1, mean});
  }
  return positions;
}

std::optional<HumanModel> ModelConverter::convert(const HumanProposals& proposals, HumanModel& userModel) const {
  JointPositions positions = positions_from_proposals(proposals);
  if (!find_position(positions, JointType::MidSpine)) return std::nullopt;
  fill_positions(userModel, positions);
  return model_from_joint_positions(positions);
}

void ModelConverter::fill_positions(HumanModel& userModel, JointPositions& positions) const {
  for (JointType joint : model_joint_order()) {
    if (!find_position(positions, joint)) continue;
    const JointType parent = parent_joint_of(joint);
    if (parent == JointType::None || parent == JointType::Unknown) continue;
    if (!find_position(positions, parent)) fill(parent, userModel, positions);
  }
}

bool ModelConverter::fill(JointType joint, HumanModel& userModel, JointPositions& positions) const {
  const JointType parent = parent_joint_of(joint);
  if (parent == JointType::None || parent == JointType::Unknown) {
    logger_->error("Can't fill positions: root is missing");
    return false;
  }
  if (!find_position(positions, parent)) {
    fill(parent, userModel, positions);
    if (!find_position(positions, parent)) return false;
  }
  const JointPosition record = joint_position_from_model(joint, *find_position(positions, parent), userModel);
  if (JointPosition* existing = find_position(positions, joint)) {
    *existing = record;
  } else {
    positions.push_back(record);
  }
  return true;
}

JointPosition ModelConverter::joint_position_from_model(JointType joint, const JointPosition& parent,
                                                        HumanModel& userModel) const {
  Bone& bone = userModel.find(bone_ending_at(joint));
  JointPosition result;
  result.joint = joint;
  result.state = bone.state != BoneTrackingState::Untracked ? 1u : 0u;
  result.position = parent.position + (bone.end_point() - bone.start_point());
  return result;
}

namespace {

void set_measured(Bone& bone, bool measured) {
  bone.measured = measured;
  // A terminal bone follows its only parent.
  if (bone.children.size() == 1 && bone.children.front()->children.empty()) {
    bone.children.front()->measured = measured;
  }
}

}  // namespace

HumanModel ModelConverter::model_from_joint_positions(const JointPositions& positions) const {
  HumanModel model = make_default_model();
  for (JointType joint : model_joint_order()) {
    Bone& bone = model.find(bone_ending_at(joint));
    const JointPosition* record = find_position(positions, joint);
    if (!record) {
      set_measured(bone, false);
      continue;
    }
    set_measured(bone, record->state == 1);
    if (bone.type == HumanBoneType::Root) {
      if (bone.pose.translation != record->position) {
        bone.pose.translation = record->position;
        bone.pose.dirty = true;
      }
      bone.mark_subtree_dirty();
      continue;
    }
    const JointType proximal = proximal_joint_of(bone.type);
    const JointPosition* start = find_position(positions, proximal);
    if (!start) {
      const std::string& proximalName = to_string(proximal);
      logger_->error("Proximal position not found for non-root distal joint. Proximal: {} Distal: {}",
                     proximalName, to_string(joint));
      throw std::logic_error("Proximal position not found for non-root distal joint");
    }
    const Vector3 d = record->position - start->position;
    bone.length = length(d);
    bone.mark_subtree_dirty();
    bone.update();
    const Vector3 local =
        transform_direction(normalize(d), rotation_matrix(inverse(bone.global_rotation())));
    if (bone.set_pose_rotation(rotation_between({0.f, 1.f, 0.f}, local))) bone.mark_subtree_dirty();
  }
  return model;
}

}  // namespace quorvik::skeleton
