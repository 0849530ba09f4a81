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
  Matrix4 matrix = Matrix4::identity();  // rotation then translation; valid when not dirty
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
  // The global matrix applied to (0, 0, 0) and to (0, length, 0), written out.
  Vector3 start_point() {
    const auto& m = global_matrix().m;
    const Vector3 p{m[12], m[13], m[14]};
    return m[15] != 1.f ? p / m[15] : p;
  }
  Vector3 end_point() {
    const auto& m = global_matrix().m;
    const Vector3 p{length * m[4] + m[12], length * m[5] + m[13], length * m[6] + m[14]};
    const float w = length * m[7] + m[15];
    return w != 1.f ? p / w : p;
  }

  // Stores a new pose rotation when it differs from the current one; returns whether it did.
  bool set_pose_rotation(const Quaternion& rotation);

  // Whoever writes pose or offset directly sets that transform's dirty flag and marks the
  // subtree dirty.
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
