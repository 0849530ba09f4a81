#include "skeleton/human_model.h"

#include <algorithm>
#include <stdexcept>

#include "segmentation/depth_conversion.h"

namespace quorvik::skeleton {

Bone::Bone(HumanBoneType bone_type, float bone_length, float restX, float restY, float restZ, Bone* parent_bone)
    : type(bone_type), length(bone_length) {
  pose.rotation = Quaternion::identity();
  pose.translation = {};
  pose.dirty = true;
  offset.rotation =
      euler_to_quaternion(restX * kDegreesToRadians, restY * kDegreesToRadians, restZ * kDegreesToRadians);
  offset.translation = {};
  offset.dirty = offset.rotation != Quaternion::identity();
  if (parent_bone) attach(parent_bone);
  mark_subtree_dirty();
}

void Bone::attach(Bone* new_parent) {
  if (parent) {
    auto& siblings = parent->children;
    siblings.erase(std::remove(siblings.begin(), siblings.end(), this), siblings.end());
  }
  if (new_parent && std::find(new_parent->children.begin(), new_parent->children.end(), this) ==
                        new_parent->children.end()) {
    new_parent->children.push_back(this);
  }
  parent = new_parent;
  const Vector3 wanted{0.f, new_parent ? new_parent->length : 0.f, 0.f};
  if (offset.translation != wanted) {
    offset.translation = wanted;
    offset.dirty = true;
  }
  mark_subtree_dirty();
}

void Bone::mark_subtree_dirty() {
  dirty = true;
  for (Bone* child : children) child->mark_subtree_dirty();
}

bool Bone::set_pose_rotation(const Quaternion& rotation) {
  if (pose.rotation == rotation) return false;
  pose.rotation = rotation;
  pose.dirty = true;
  return true;
}

void Bone::update() {
  if (!dirty) return;
  const Vector3 wanted{0.f, parent ? parent->length : 0.f, 0.f};
  if (offset.translation != wanted) {
    offset.translation = wanted;
    offset.dirty = true;
  }
  localRotation = product(offset.rotation, pose.rotation);
  // A clean transform's matrix already matches its rotation and translation.
  if (offset.dirty) offset.rebuild();
  if (pose.dirty) pose.rebuild();
  localMatrix = pose.matrix * offset.matrix;
  if (!parent) {
    globalRotation = localRotation;
    globalMatrix = localMatrix;
  } else {
    parent->update();
    globalRotation = product(parent->globalRotation, localRotation);
    globalMatrix = localMatrix * parent->globalMatrix;
  }
  dirty = false;
}

Bone* HumanModel::find_or_null(HumanBoneType type) const {
  for (const auto& [t, bone] : bones_) {
    if (t == type) return bone.get();
  }
  return nullptr;
}

Bone& HumanModel::find(HumanBoneType type) {
  Bone* bone = find_or_null(type);
  if (!bone) throw std::logic_error("HumanModel: Bone not found");
  return *bone;
}

const Bone& HumanModel::find(HumanBoneType type) const {
  const Bone* bone = find_or_null(type);
  if (!bone) throw std::logic_error("HumanModel: Bone not found");
  return *bone;
}

void HumanModel::set_bones(const std::vector<BoneDefinition>& definitions) {
  auto slot = [this](HumanBoneType type) -> std::unique_ptr<Bone>& {
    for (auto& [t, bone] : bones_) {
      if (t == type) return bone;
    }
    bones_.emplace_back(type, nullptr);
    return bones_.back().second;
  };
  for (HumanBoneType type : all_bones()) {
    auto def = std::find_if(definitions.begin(), definitions.end(),
                            [type](const BoneDefinition& d) { return d.type == type; });
    if (def == definitions.end()) {
      throw std::logic_error("HumanModel::set_bones() HumanBoneType definition not found");
    }
    Bone* parent = nullptr;
    if (type != HumanBoneType::Root) parent = slot(parent_bone(type)).get();
    auto bone = std::make_unique<Bone>(type, def->length, def->restX, def->restY, def->restZ, parent);
    slot(type) = std::move(bone);
  }
}

const std::vector<BoneDefinition>& default_bone_definitions() {
  using B = HumanBoneType;
  static const std::vector<BoneDefinition> definitions = {
      {B::Root, 0.f, 0.f, 0.f, 0.f},           {B::UpperSpine, 416.f, 0.f, 0.f, 0.f},
      {B::RightClavicle, 170.f, 0.f, 0.f, 90.f}, {B::LeftClavicle, 170.f, 0.f, 0.f, -90.f},
      {B::Neck, 173.f, 0.f, 0.f, 0.f},         {B::Head, 0.f, 0.f, 0.f, 0.f},
      {B::RightUpperArm, 300.f, 0.f, 0.f, 0.f}, {B::LeftUpperArm, 300.f, 0.f, 0.f, 0.f},
      {B::RightForearm, 330.f, 0.f, 0.f, 0.f},  {B::LeftForearm, 330.f, 0.f, 0.f, 0.f},
      {B::RightHand, 0.f, 0.f, 0.f, 0.f},      {B::LeftHand, 0.f, 0.f, 0.f, 0.f},
      {B::LowerSpine, 385.f, 0.f, 0.f, 180.f},  {B::RightPelvis, 110.f, 0.f, 0.f, -60.f},
      {B::LeftPelvis, 110.f, 0.f, 0.f, 60.f},   {B::RightUpperLeg, 340.f, 0.f, 0.f, 60.f},
      {B::LeftUpperLeg, 340.f, 0.f, 0.f, -60.f}, {B::RightLowerLeg, 350.f, 0.f, 0.f, 0.f},
      {B::LeftLowerLeg, 350.f, 0.f, 0.f, 0.f},  {B::RightFoot, 0.f, 0.f, 0.f, 0.f},
      {B::LeftFoot, 0.f, 0.f, 0.f, 0.f},
  };
  return definitions;
}

HumanModel make_default_model() {
  HumanModel model;
  model.set_bones(default_bone_definitions());
  return model;
}

}  // namespace quorvik::skeleton
