#include "skeleton/vocabulary.h"

#include <stdexcept>
#include <unordered_map>

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;
using J = JointType;

struct BoneRow {
  B bone;
  const char* name;
  B parent;
  std::optional<J> proximal;
  std::optional<J> distal;
  B mirror;
  BoneSide side;
};

constexpr BoneSide L = BoneSide::Left;
constexpr BoneSide C = BoneSide::Center;
constexpr BoneSide R = BoneSide::Right;

// Indexed by bone value; None (21) is the last row.
const BoneRow kBoneRows[kBoneCount + 1] = {
    {B::Root, "Root", B::None, J::MidSpine, J::MidSpine, B::Root, C},
    {B::UpperSpine, "UpperSpine", B::Root, J::MidSpine, J::ShoulderSpine, B::UpperSpine, C},
    {B::RightClavicle, "RightClavicle", B::UpperSpine, J::ShoulderSpine, J::RightShoulder, B::LeftClavicle, R},
    {B::LeftClavicle, "LeftClavicle", B::UpperSpine, J::ShoulderSpine, J::LeftShoulder, B::RightClavicle, L},
    {B::Neck, "Neck", B::UpperSpine, J::ShoulderSpine, J::Head, B::Neck, C},
    {B::Head, "Head", B::Neck, J::Head, J::None, B::Head, C},
    {B::RightUpperArm, "RightUpperArm", B::RightClavicle, J::RightShoulder, J::RightElbow, B::LeftUpperArm, R},
    {B::LeftUpperArm, "LeftUpperArm", B::LeftClavicle, J::LeftShoulder, J::LeftElbow, B::RightUpperArm, L},
    {B::RightForearm, "RightForearm", B::RightUpperArm, J::RightElbow, J::RightHand, B::LeftForearm, R},
    {B::LeftForearm, "LeftForearm", B::LeftUpperArm, J::LeftElbow, J::LeftHand, B::RightForearm, L},
    {B::RightHand, "RightHand", B::RightForearm, J::RightHand, J::None, B::LeftHand, R},
    {B::LeftHand, "LeftHand", B::LeftForearm, J::LeftHand, J::None, B::RightHand, L},
    {B::LowerSpine, "LowerSpine", B::Root, J::MidSpine, J::BaseSpine, B::LowerSpine, C},
    {B::RightPelvis, "RightPelvis", B::LowerSpine, J::BaseSpine, J::RightHip, B::LeftPelvis, R},
    {B::LeftPelvis, "LeftPelvis", B::LowerSpine, J::BaseSpine, J::LeftHip, B::RightPelvis, L},
    {B::RightUpperLeg, "RightUpperLeg", B::RightPelvis, J::RightHip, J::RightKnee, B::LeftUpperLeg, R},
    {B::LeftUpperLeg, "LeftUpperLeg", B::LeftPelvis, J::LeftHip, J::LeftKnee, B::RightUpperLeg, L},
    {B::RightLowerLeg, "RightLowerLeg", B::RightUpperLeg, J::RightKnee, J::RightFoot, B::LeftLowerLeg, R},
    {B::LeftLowerLeg, "LeftLowerLeg", B::LeftUpperLeg, J::LeftKnee, J::LeftFoot, B::RightLowerLeg, L},
    {B::RightFoot, "RightFoot", B::RightLowerLeg, J::RightFoot, J::None, B::LeftFoot, R},
    {B::LeftFoot, "LeftFoot", B::LeftLowerLeg, J::LeftFoot, J::None, B::RightFoot, L},
    {B::None, "None", B::None, std::nullopt, std::nullopt, B::None, C},
};

struct JointRow {
  J joint;
  const char* name;
  J parent;
  B parentBone;
  J mirror;
};

// Joints 0..15; None and Unknown have names only.
const JointRow kJointRows[kJointCount] = {
    {J::Head, "Head", J::ShoulderSpine, B::Neck, J::Head},
    {J::ShoulderSpine, "ShoulderSpine", J::MidSpine, B::UpperSpine, J::ShoulderSpine},
    {J::LeftShoulder, "LeftShoulder", J::ShoulderSpine, B::LeftClavicle, J::RightShoulder},
    {J::LeftElbow, "LeftElbow", J::LeftShoulder, B::LeftUpperArm, J::RightElbow},
    {J::LeftHand, "LeftHand", J::LeftElbow, B::LeftForearm, J::RightHand},
    {J::RightShoulder, "RightShoulder", J::ShoulderSpine, B::RightClavicle, J::LeftShoulder},
    {J::RightElbow, "RightElbow", J::RightShoulder, B::RightUpperArm, J::LeftElbow},
    {J::RightHand, "RightHand", J::RightElbow, B::RightForearm, J::LeftHand},
    {J::MidSpine, "MidSpine", J::None, B::Root, J::MidSpine},
    {J::BaseSpine, "BaseSpine", J::MidSpine, B::LowerSpine, J::BaseSpine},
    {J::LeftHip, "LeftHip", J::BaseSpine, B::LeftPelvis, J::RightHip},
    {J::LeftKnee, "LeftKnee", J::LeftHip, B::LeftUpperLeg, J::RightKnee},
    {J::LeftFoot, "LeftFoot", J::LeftKnee, B::LeftLowerLeg, J::RightFoot},
    {J::RightHip, "RightHip", J::BaseSpine, B::RightPelvis, J::LeftHip},
    {J::RightKnee, "RightKnee", J::RightHip, B::RightUpperLeg, J::LeftKnee},
    {J::RightFoot, "RightFoot", J::RightKnee, B::RightLowerLeg, J::LeftFoot},
};

template <typename K, typename V>
const V& lookup(const std::unordered_map<K, V>& map, const K& key) {
  auto it = map.find(key);
  if (it == map.end()) throw std::out_of_range("invalid unordered_map<K, T> key");
  return it->second;
}

const std::unordered_map<B, std::string>& bone_names() {
  static const std::unordered_map<B, std::string> names = [] {
    std::unordered_map<B, std::string> m;
    for (const BoneRow& row : kBoneRows) m.emplace(row.bone, row.name);
    return m;
  }();
  return names;
}

const std::unordered_map<J, std::string>& joint_names() {
  static const std::unordered_map<J, std::string> names = [] {
    std::unordered_map<J, std::string> m;
    for (const JointRow& row : kJointRows) m.emplace(row.joint, row.name);
    m.emplace(J::None, "None");
    m.emplace(J::Unknown, "Unknown");
    return m;
  }();
  return names;
}

const std::unordered_map<JointStatus, std::string>& status_names() {
  static const std::unordered_map<JointStatus, std::string> names = {
      {JointStatus::None, "None"}, {JointStatus::Low, "Low"}, {JointStatus::High, "High"}};
  return names;
}

const BoneRow* bone_row(B bone) {
  const auto v = static_cast<uint32_t>(bone);
  return v <= static_cast<uint32_t>(B::None) ? &kBoneRows[v] : nullptr;
}

const JointRow* joint_row(J joint) {
  const auto v = static_cast<uint32_t>(joint);
  return v < kJointCount ? &kJointRows[v] : nullptr;
}

}  // namespace

const std::array<HumanBoneType, kBoneCount>& all_bones() {
  static const std::array<HumanBoneType, kBoneCount> bones = [] {
    std::array<HumanBoneType, kBoneCount> a{};
    for (int i = 0; i < kBoneCount; ++i) a[i] = static_cast<HumanBoneType>(i);
    return a;
  }();
  return bones;
}

const std::array<JointType, kJointCount>& model_joint_order() {
  static constexpr std::array<JointType, kJointCount> order = {
      J::MidSpine,  J::ShoulderSpine, J::Head,      J::RightShoulder, J::LeftShoulder, J::RightElbow,
      J::LeftElbow, J::RightHand,     J::LeftHand,  J::BaseSpine,     J::RightHip,     J::LeftHip,
      J::RightKnee, J::LeftKnee,      J::RightFoot, J::LeftFoot};
  return order;
}

const std::array<JointType, kJointCount>& report_joint_order() {
  static constexpr std::array<JointType, kJointCount> order = {
      J::MidSpine, J::ShoulderSpine, J::Head,     J::LeftShoulder, J::LeftElbow, J::LeftHand,
      J::RightShoulder, J::RightElbow, J::RightHand, J::BaseSpine, J::LeftHip,   J::LeftKnee,
      J::LeftFoot, J::RightHip,      J::RightKnee, J::RightFoot};
  return order;
}

const std::string& to_string(HumanBoneType bone) { return lookup(bone_names(), bone); }
const std::string& to_string(JointType joint) { return lookup(joint_names(), joint); }
const std::string& to_string(JointStatus status) { return lookup(status_names(), status); }

HumanBoneType parent_bone(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  return row ? row->parent : B::None;
}

std::optional<JointType> proximal_joint(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  return row ? row->proximal : std::nullopt;
}

std::optional<JointType> distal_joint(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  return row ? row->distal : std::nullopt;
}

std::optional<BoneEndpoints> bone_endpoints(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  if (!row || !row->proximal) return std::nullopt;
  return BoneEndpoints{bone, *row->proximal, *row->distal};
}

HumanBoneType mirror_bone(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  if (!row) throw std::logic_error("HumanModel: Unsupported HumanBoneType");
  return row->mirror;
}

BoneSide bone_side(HumanBoneType bone) {
  const BoneRow* row = bone_row(bone);
  if (!row) throw std::logic_error("HumanModel: Unsupported HumanBoneType");
  return row->side;
}

std::optional<JointType> parent_joint(JointType joint) {
  const JointRow* row = joint_row(joint);
  return row ? std::optional<JointType>(row->parent) : std::nullopt;
}

std::optional<HumanBoneType> parent_bone_of_joint(JointType joint) {
  const JointRow* row = joint_row(joint);
  return row ? std::optional<HumanBoneType>(row->parentBone) : std::nullopt;
}

uint8_t to_byte(JointType joint) {
  const auto v = static_cast<uint32_t>(joint);
  return v < kJointCount ? static_cast<uint8_t>(v) : kNoJointByte;
}

uint8_t mirror_joint(uint8_t joint) {
  if (joint == kNoJointByte) return kNoJointByte;
  if (joint >= kJointCount) throw std::logic_error("mirror_joint: Unsupported JointType");
  return static_cast<uint8_t>(kJointRows[joint].mirror);
}

std::optional<uint8_t> parent_joint_byte(uint8_t joint) {
  if (joint >= kJointCount) return std::nullopt;
  return to_byte(kJointRows[joint].parent);
}

bool is_descendant(HumanBoneType bone, HumanBoneType ancestor) {
  const BoneRow* row = bone_row(bone);
  if (!row) return false;
  B current = row->parent;
  while (current != B::None) {
    if (current == ancestor) return true;
    const BoneRow* next = bone_row(current);
    if (!next) return false;
    current = next->parent;
  }
  return false;
}

JointStatus joint_status_for(BoneTrackingState state) {
  switch (state) {
    case BoneTrackingState::Tracked:
      return JointStatus::High;
    case BoneTrackingState::Inferred:
      return JointStatus::Low;
    case BoneTrackingState::Untracked:
      break;
  }
  return JointStatus::None;
}

}  // namespace quorvik::skeleton
