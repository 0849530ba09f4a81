#include "skeleton/model_tracker.h"

#include <optional>

#include "op/logging.h"

namespace quorvik::skeleton {
namespace {

constexpr size_t kBones = kBoneCount;

// ancestors[b] has bit a set when bone a lies on b's parent chain.
const std::array<uint32_t, kBones>& ancestor_masks() {
  static const auto masks = [] {
    std::array<uint32_t, kBones> m{};
    for (HumanBoneType b : all_bones()) {
      for (HumanBoneType a : all_bones()) {
        if (is_descendant(b, a)) m[static_cast<size_t>(b)] |= 1u << static_cast<uint32_t>(a);
      }
    }
    return m;
  }();
  return masks;
}

size_t index_of(HumanBoneType bone) { return static_cast<size_t>(bone); }

// What the passes read over and over, gathered once per fit: the bones by value, each
// bone's subtree in depth-first child order, and the targets by bone.
struct PassContext {
  PassContext(HumanModel& model, const FitTargets& targets) : chainEnds(targets.chainEnds) {
    for (HumanBoneType type : all_bones()) bones[index_of(type)] = &model.find(type);
    for (size_t i = 0; i < kBones; ++i) {
      collect(bones[i], subtrees[i]);
      const PositionTarget* p = targets.position_target(bones[i]->type);
      positionTargets[i] = p ? std::optional<Vector3>(p->position) : std::nullopt;
      const LengthTarget* l = targets.length_target(bones[i]->type);
      lengthTargets[i] = l ? l->length : std::nullopt;
    }
    count_contributors();
  }

  // For every bone b, the bones of its subtree that have a position target, each with the
  // number of chain ends at or below b that count it (those it does not lie beyond); and
  // the number of chain ends at or below b. Neither changes during a fit.
  void count_contributors() {
    for (size_t i = 0; i < kBones; ++i) {
      const HumanBoneType b = bones[i]->type;
      ends[i] = 0;
      for (HumanBoneType c : chainEnds) ends[i] += above_or_at(b, c) ? 1 : 0;
      if (ends[i] == 0) continue;
      for (Bone* k : subtrees[i]) {
        if (is_terminal_bone(k->type) || !positionTargets[index_of(k->type)]) continue;
        int count = 0;
        for (HumanBoneType c : chainEnds) count += above_or_at(b, c) && !below(k->type, c) ? 1 : 0;
        if (count > 0) contributors[i].push_back({k, count});
      }
    }
  }

  static void collect(Bone* bone, std::vector<Bone*>& out) {
    out.push_back(bone);
    for (Bone* child : bone->children) collect(child, out);
  }

  // b is the chain end c or one of its ancestors.
  static bool above_or_at(HumanBoneType b, HumanBoneType c) {
    return b == c || ((ancestor_masks()[index_of(c)] >> static_cast<uint32_t>(b)) & 1u) != 0;
  }
  static bool below(HumanBoneType k, HumanBoneType c) {
    return ((ancestor_masks()[index_of(k)] >> static_cast<uint32_t>(c)) & 1u) != 0;
  }

  std::array<Bone*, kBones> bones{};
  std::array<std::vector<Bone*>, kBones> subtrees;
  std::array<std::optional<Vector3>, kBones> positionTargets;
  std::array<std::optional<float>, kBones> lengthTargets;
  struct Contributor {
    Bone* bone;
    int count;
  };
  std::array<std::vector<Contributor>, kBones> contributors;
  std::array<int, kBones> ends{};
  const std::vector<HumanBoneType>& chainEnds;
};

bool takes_part(HumanBoneType b) { return b != HumanBoneType::Root && !is_terminal_bone(b); }

// Every chain end at or below b counts the targets of b's subtree once, skipping those
// beyond that chain end. A bone's contribution does not depend on the chain end, so it is
// computed once and weighted by the number of chain ends that count it.
void direction_pass_impl(PassContext& ctx) {
  if (ctx.chainEnds.empty()) return;
  for (size_t i = 0; i < kBones; ++i) {
    Bone& b = *ctx.bones[i];
    // Root and terminal bones never collect a contribution, so they never turn.
    if (!takes_part(b.type) || ctx.contributors[i].empty()) continue;
    const Quaternion parentRotation = b.parent ? b.parent->global_rotation() : Quaternion::identity();
    const Matrix4 toRest = rotation_matrix(inverse(product(parentRotation, b.offset.rotation)));
    const Vector3 s = b.start_point();
    const Vector3 l = transform_direction(normalize(b.end_point() - s), toRest);
    Vector3 sum;
    int n = 0;
    for (const auto& [k, count] : ctx.contributors[i]) {
      // rotation_between normalises its arguments, and turning by toRest keeps lengths, so
      // the differences go in as they are.
      const Vector3 wanted = *ctx.positionTargets[index_of(k->type)] - s;
      const Vector3 current = k->end_point() - s;
      const Quaternion q =
          rotation_between(transform_direction(current, toRest), transform_direction(wanted, toRest));
      sum += rotate(l, q) * static_cast<float>(count);
      n += count;
    }
    const Vector3 w = normalize(sum / static_cast<float>(n));
    if (dot(w, l) < 0.9999f) {
      b.set_pose_rotation(rotation_between({0.f, 1.f, 0.f}, w));
      b.mark_subtree_dirty();
    }
  }
}

void length_pass_impl(PassContext& ctx) {
  if (ctx.chainEnds.empty()) return;
  for (size_t i = 0; i < kBones; ++i) {
    Bone& b = *ctx.bones[i];
    const int ends = ctx.ends[i];
    if (!takes_part(b.type) || ends == 0) continue;
    const Vector3 s = b.start_point();
    const Vector3 d = normalize(b.end_point() - s);
    float sum = 0.f;
    int n = 0;
    if (const auto& wanted = ctx.lengthTargets[i]) {
      sum += static_cast<float>(ends) * (*wanted - b.length);
      n += ends;
    }
    for (const auto& [k, count] : ctx.contributors[i]) {
      const Vector3& target = *ctx.positionTargets[index_of(k->type)];
      sum += static_cast<float>(count) * (dot(target - s, d) - dot(k->end_point() - s, d));
      n += count;
    }
    if (n > 0) {
      const float newLength = b.length + sum / static_cast<float>(n);
      if (newLength > 0.f) {
        b.length = newLength;
        b.mark_subtree_dirty();
      }
    }
  }
}

}  // namespace

ModelTracker::ModelTracker() : logger_(op::get_logger("ModelTracker")) {}

void ModelTracker::step(UserSkeleton& user, const op::Image<PixelLabel>& labels,
                        const op::Image<WorldPoint>& points, const op::Image<uint8_t>& userIds,
                        const RegionBox& extent, uint32_t frameNumber, const DepthCameraModel& camera) {
  const HumanProposals proposals = labelForce.generate(labels, points, userIds, user.userId, extent, user.model);
  std::optional<HumanModel> model = converter.convert(proposals, user.model);
  if (!model) {
    for (HumanBoneType bone : all_bones()) {
      user.joint(to_byte(*proximal_joint(bone))).status = JointStatus::Low;
    }
    hold_joints(user, frameNumber);
    return;
  }
  const FitTargets targets = targetExtractor.extract(*model, user.boneLengths);
  fit(user.model, targets);

  for (HumanBoneType type : all_bones()) {
    Bone& bone = user.model.find(type);
    if (bone.state != BoneTrackingState::Untracked) continue;
    bone.set_pose_rotation(Quaternion::identity());
    bone.mark_subtree_dirty();
  }

  write_joints(user, frameNumber, camera);

  BoneLengths measured;
  for (HumanBoneType type : all_bones()) {
    if (is_terminal_or_root_bone(type)) continue;
    measured[type] = user.model.find(type).length;
  }
  smooth_lengths(user.boneLengths, measured);
  hold_joints(user, frameNumber);
}

void ModelTracker::fit(HumanModel& model, const FitTargets& targets) const {
  const PositionTarget* rootTarget = targets.position_target(HumanBoneType::Root);
  if (!rootTarget) return;
  Bone& root = model.find(HumanBoneType::Root);
  if (root.pose.translation != rootTarget->position) {
    root.pose.translation = rootTarget->position;
    root.pose.dirty = true;
  }
  root.mark_subtree_dirty();
  PassContext ctx(model, targets);
  for (int i = 0; i < kDirectionPasses; ++i) direction_pass_impl(ctx);
  for (int i = 0; i < kLengthRounds; ++i) {
    length_pass_impl(ctx);
    direction_pass_impl(ctx);
  }
  set_bone_states(model, targets);
}

void ModelTracker::direction_pass(HumanModel& model, const FitTargets& targets) const {
  PassContext ctx(model, targets);
  direction_pass_impl(ctx);
}

void ModelTracker::length_pass(HumanModel& model, const FitTargets& targets) const {
  PassContext ctx(model, targets);
  length_pass_impl(ctx);
}

void ModelTracker::set_bone_states(HumanModel& model, const FitTargets& targets) const {
  for (HumanBoneType type : all_bones()) {
    Bone& bone = model.find(type);
    bool belowChainEnd = false;
    for (HumanBoneType c : targets.chainEnds) belowChainEnd = belowChainEnd || is_descendant(type, c);
    if (belowChainEnd) {
      bone.state = BoneTrackingState::Untracked;
    } else if (is_terminal_bone(type) && targets.position_target(parent_bone(type))) {
      bone.state = BoneTrackingState::Tracked;
    } else {
      bone.state = targets.position_target(type) ? BoneTrackingState::Tracked : BoneTrackingState::Inferred;
    }
  }
}

void ModelTracker::write_joints(UserSkeleton& user, uint32_t frameNumber, const DepthCameraModel& camera) const {
  for (HumanBoneType type : all_bones()) {
    Bone& bone = user.model.find(type);
    JointRecord& record = user.joint(to_byte(*proximal_joint(type)));
    Vector3 position;
    JointStatus status = JointStatus::None;
    if (bone.state != BoneTrackingState::Untracked) {
      position = bone.start_point();
      status = joint_status_for(bone.state);
    } else if (bone.parent && bone.parent->state != BoneTrackingState::Untracked) {
      position = bone.parent->end_point();
      status = joint_status_for(bone.parent->state);
    }
    float u = 0.f, v = 0.f;
    camera.to_image(position.x, position.y, position.z, u, v);
    if (status != JointStatus::None) {
      record.worldPosition = position;
      record.imageX = u;
      record.imageY = v;
      record.frame = static_cast<int32_t>(frameNumber);
    }
    record.status = status;
  }
}

void ModelTracker::smooth_lengths(BoneLengths& u, const BoneLengths& m) const {
  const float a = lengthSmoothing;
  for (HumanBoneType b : all_bones()) {
    if (is_terminal_or_root_bone(b)) continue;
    const BoneSide side = bone_side(b);
    if (side == BoneSide::Right) continue;
    if (side == BoneSide::Center) {
      auto mb = m.find(b);
      if (mb == m.end()) continue;
      auto ub = u.find(b);
      if (ub != u.end()) {
        ub->second = (1.f - a) * ub->second + a * mb->second;
      } else {
        u[b] = mb->second;
      }
      continue;
    }
    const HumanBoneType r = mirror_bone(b);
    auto mb = m.find(b);
    auto mr = m.find(r);
    float measuredMean;
    if (mb != m.end() && mr != m.end()) {
      measuredMean = (mb->second + mr->second) / 2.f;
    } else if (mb != m.end()) {
      measuredMean = mb->second;
    } else if (mr != m.end()) {
      measuredMean = mr->second;
    } else {
      continue;
    }
    auto ub = u.find(b);
    auto ur = u.find(r);
    float value;
    if (ub != u.end() && ur != u.end()) {
      value = (1.f - a) * (ub->second + ur->second) / 2.f + a * measuredMean;
    } else if (ub != u.end()) {
      value = (1.f - a) * ub->second + a * measuredMean;
    } else if (ur != u.end()) {
      value = (1.f - a) * ur->second + a * measuredMean;
    } else {
      value = measuredMean;
    }
    u[b] = value;
    u[r] = value;
  }
}

void ModelTracker::hold_joints(UserSkeleton& user, uint32_t frameNumber) const {
  for (HumanBoneType type : all_bones()) {
    JointRecord& record = user.joint(to_byte(*proximal_joint(type)));
    if (record.status == JointStatus::Low && int64_t{record.frame} + holdFrames <= int64_t{frameNumber}) {
      record.status = JointStatus::None;
    }
  }
}

}  // namespace quorvik::skeleton
