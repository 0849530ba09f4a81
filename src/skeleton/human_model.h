#pragma once
// The articulated human model: a tree of bones, each lying along its own local +y axis,
// with a rest rotation relative to its parent, a fitted pose rotation and cached local and
// global transforms that are rebuilt lazily when marked dirty.

#include <memory>
#include <utility>
#include <vector>

#include "skeleton/geometry.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct BoneTransform {
  Quaternion rotation;
  Vector3 translation;
  Matrix4 matrix;  // rotation then translation; valid when not dirty
  bool dirty = true;

  void rebuild() {
    matrix = rotation_matrix(rotation) * Matrix4::translation(translation);
    dirty = false;
  }
};

struct BoneDefinition {
  HumanBoneType type;
  float length;
  float restX, restY, restZ;  // degrees
};

class Bone {
 public:
  // Rest angles in degrees.
  Bone(HumanBoneType type, float length, float restX, float restY, float restZ, Bone* parent);
  Bone(const Bone&) = delete;
  Bone& operator=(const Bone&) = delete;

  // Moves the bone under `new_parent`; the offset follows the parent's length.
  void attach(Bone* new_parent);
  void mark_subtree_dirty();
  // Rebuilds the cached transforms of this bone (and its parents first) when dirty.
  void update();

  const Matrix4& global_matrix() {
    update();
    return globalMatrix;
  }
  const Quaternion& global_rotation() {
    update();
    return globalRotation;
  }
  Vector3 start_point() { return transform_point({0.f, 0.f, 0.f}, global_matrix()); }
  Vector3 end_point() { return transform_point({0.f, length, 0.f}, global_matrix()); }

  // Stores a new pose rotation when it differs from the current one; returns whether it did.
  bool set_pose_rotation(const Quaternion& rotation);

  Bone* parent = nullptr;
  HumanBoneType type;
  BoneTrackingState state = BoneTrackingState::Untracked;
  bool measured = true;
  float length = 0.f;
  BoneTransform pose;
  std::vector<Bone*> children;
  bool dirty = true;
  Quaternion localRotation;
  Quaternion globalRotation;
  Matrix4 localMatrix;
  Matrix4 globalMatrix;
  BoneTransform offset;
};

// Bones in creation order, owning; parent and child links point into the same model.
class HumanModel {
 public:
  HumanModel() = default;
  HumanModel(HumanModel&&) noexcept = default;
  HumanModel& operator=(HumanModel&&) noexcept = default;
  HumanModel(const HumanModel&) = delete;
  HumanModel& operator=(const HumanModel&) = delete;

  // Raises std::logic_error "HumanModel: Bone not found".
  Bone& find(HumanBoneType type);
  const Bone& find(HumanBoneType type) const;
  Bone* find_or_null(HumanBoneType type) const;

  // Rebuilds every bone of the all-bones list from the definitions.
  void set_bones(const std::vector<BoneDefinition>& definitions);

  std::vector<std::pair<HumanBoneType, std::unique_ptr<Bone>>>& bones() { return bones_; }
  const std::vector<std::pair<HumanBoneType, std::unique_ptr<Bone>>>& bones() const { return bones_; }

 private:
  std::vector<std::pair<HumanBoneType, std::unique_ptr<Bone>>> bones_;
};

const std::vector<BoneDefinition>& default_bone_definitions();

// A model built from the default definitions: default lengths, identity poses, Root at the
// origin.
HumanModel make_default_model();

}  // namespace quorvik::skeleton
