#include "skeleton/label_force.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <Eigen/Dense>

#include "op/logging.h"

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;

// Labels index a flat array in the pixel loop; 32 labels exist.
constexpr int kLabelCount = 32;

const std::array<const std::vector<LabelBoneSegment>*, kLabelCount>& segments_by_label() {
  static const auto table = [] {
    std::array<const std::vector<LabelBoneSegment>*, kLabelCount> a{};
    for (const auto& [label, segments] : label_table()) {
      if (label < kLabelCount) a[label] = &segments;
    }
    return a;
  }();
  return table;
}

}  // namespace

const std::unordered_map<uint8_t, std::vector<LabelBoneSegment>>& label_table() {
  static const std::unordered_map<uint8_t, std::vector<LabelBoneSegment>> table = {
      {2, {{B::LeftHand, 0.f, 1.f}, {B::LeftForearm, 0.8f, 1.f}}},
      {3, {{B::LeftForearm, 0.f, 1.f}}},
      {4, {{B::RightHand, 0.f, 1.f}, {B::RightForearm, 0.8f, 1.f}}},
      {5, {{B::RightForearm, 0.f, 1.f}}},
      {6, {{B::Neck, 0.5f, 1.f}, {B::Head, 0.f, 1.f}}},
      {7, {{B::LeftUpperArm, 0.f, 1.f}}},
      {8, {{B::RightUpperArm, 0.f, 1.f}}},
      {9, {{B::LeftUpperLeg, 0.f, 1.f}}},
      {10, {{B::LeftLowerLeg, 0.f, 1.f}}},
      {11, {{B::LeftFoot, 0.f, 1.f}, {B::LeftLowerLeg, 0.8f, 1.f}}},
      {12, {{B::RightUpperLeg, 0.f, 1.f}}},
      {13, {{B::RightLowerLeg, 0.f, 1.f}}},
      {14, {{B::RightFoot, 0.f, 1.f}, {B::RightLowerLeg, 0.8f, 1.f}}},
      {15, {{B::LowerSpine, 0.8f, 1.f}, {B::LeftUpperLeg, 0.f, 0.2f}}},
      {16, {{B::LowerSpine, 0.8f, 1.f}, {B::RightUpperLeg, 0.f, 0.2f}}},
      {17, {{B::Root, 0.f, 1.f}}},
      {18, {{B::Root, 0.f, 1.f}}},
      {19, {{B::LowerSpine, 0.f, 0.8f}, {B::Root, 0.f, 1.f}}},
      {20, {{B::LowerSpine, 0.f, 0.8f}, {B::Root, 0.f, 1.f}}},
      {21, {{B::Neck, 0.f, 0.5f}, {B::LeftClavicle, 0.f, 0.5f}, {B::RightClavicle, 0.f, 0.5f}}},
      {22, {{B::LeftClavicle, 0.5f, 1.f}, {B::LeftUpperArm, 0.f, 0.2f}}},
      {23, {{B::RightClavicle, 0.5f, 1.f}, {B::RightUpperArm, 0.f, 0.2f}}},
      {24, {{B::LeftUpperLeg, 0.8f, 1.f}, {B::LeftLowerLeg, 0.f, 0.2f}}},
      {25, {{B::RightUpperLeg, 0.8f, 1.f}, {B::RightLowerLeg, 0.f, 0.2f}}},
      {26, {{B::LeftUpperArm, 0.8f, 1.f}, {B::LeftForearm, 0.f, 0.2f}}},
      {27, {{B::RightUpperArm, 0.8f, 1.f}, {B::RightForearm, 0.f, 0.2f}}},
  };
  return table;
}

const std::vector<BoneAnchor>& anchor_table() {
  static const std::vector<BoneAnchor> table = {
      {B::LeftPelvis, B::LowerSpine, AnchorPoint::End, B::LeftUpperLeg, AnchorPoint::Start},
      {B::RightPelvis, B::LowerSpine, AnchorPoint::End, B::RightUpperLeg, AnchorPoint::Start},
      {B::UpperSpine, B::Root, AnchorPoint::End, B::Neck, AnchorPoint::Start},
  };
  return table;
}

BoneForce::BoneForce(HumanBoneType bone_type, const Vector3& s, const Vector3& e, float bone_length) {
  rebuild(bone_type, s, e, bone_length);
}

void BoneForce::rebuild(HumanBoneType bone_type, const Vector3& s, const Vector3& e, float bone_length) {
  type = bone_type;
  start = s;
  end = e;
  length = bone_length;
  middle = (s + e) * 0.5f;
  observedMean = {};
  projectedMean = {};
  count = 0;
  weightSum = 0.f;
  crossCovariance = Matrix3();
  rotation = Matrix3::identity();
  translation = {};
  samples.clear();
  valid = false;
  histogram.reset();
}

const HumanProposal& HumanProposals::at(HumanBoneType bone) const {
  auto it = entries_.find(bone);
  if (it == entries_.end()) throw std::logic_error("HumanProposal: Unsupported HumanBoneType");
  return it->second;
}

HumanProposal& HumanProposals::at(HumanBoneType bone) {
  auto it = entries_.find(bone);
  if (it == entries_.end()) throw std::logic_error("HumanProposal: Unsupported HumanBoneType");
  return it->second;
}

HumanProposals HumanProposals::empty_set() {
  HumanProposals set;
  for (HumanBoneType bone : all_bones()) set.entries_[bone] = HumanProposal{bone, {}, {}, {}};
  return set;
}

LabelForce::LabelForce() : logger_(op::get_logger("LabelForce")) {}

HumanProposals LabelForce::generate(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                                    const op::Image<uint8_t>& userIds, uint8_t userId, const RegionBox& extent,
                                    HumanModel& model) {
  initialise(model);
  generate_proposals(labels, points, userIds, userId, extent);
  HumanProposals proposals = HumanProposals::empty_set();
  for (const BoneForce& force : forces_) {
    if (!force.valid) continue;
    HumanProposal& proposal = proposals.at(force.type);
    proposal.start = force.start;
    proposal.direction = force.end - force.start;
    proposal.length = force.length;
  }
  return proposals;
}

void LabelForce::initialise(HumanModel& model) {
  const auto& bones = all_bones();
  if (forces_.size() != bones.size()) {
    forces_.clear();
    forces_.reserve(bones.size());
    for (HumanBoneType type : bones) forces_.emplace_back(type, Vector3{}, Vector3{}, 0.f);
  }
  for (size_t i = 0; i < bones.size(); ++i) {
    Bone& bone = model.find(bones[i]);
    forces_[i].rebuild(bones[i], bone.start_point(), bone.end_point(), bone.length);
  }
}

void LabelForce::generate_proposals(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                                    const op::Image<uint8_t>& userIds, uint8_t userId,
                                    const RegionBox& extent) {
  if (extent.empty) {
    logger_->info("LabelForce::generate_proposals: no user extent");
    return;
  }
  select_points(labels, points, userIds, userId, extent);
  compute_means();
  compute_cross_covariance();
  fit_rigid_motions();
  decide_validity();
  move_bones();
  apply_anchors();
}

void LabelForce::select_points(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                               const op::Image<uint8_t>& userIds, uint8_t userId, const RegionBox& extent) {
  for (BoneForce& force : forces_) {
    force.samples.clear();
    force.observedMean = {};
    force.projectedMean = {};
    force.weightSum = 0.f;
    force.count = 0;
    force.histogram.reset();
  }
  const uint32_t width = labels.width();
  // The box comes from the classifier; clip it so a stale box cannot read past the images.
  const int64_t x0 = std::max<int64_t>(extent.x0, 0);
  const int64_t y0 = std::max<int64_t>(extent.y0, 0);
  const int64_t x1 = std::min<int64_t>(extent.x1, int64_t{width} - 1);
  const int64_t y1 = std::min<int64_t>(
      extent.y1, static_cast<int64_t>(std::min({labels.height(), points.height(), userIds.height()})) - 1);
  if (points.width() != width || userIds.width() != width) return;
  const float invScale2 = 1.f / (distanceScale * distanceScale);
  const auto& byLabel = segments_by_label();
  for (int64_t y = y0; y <= y1; ++y) {
    for (int64_t x = x0; x <= x1; ++x) {
      const size_t index = static_cast<size_t>(y) * width + static_cast<size_t>(x);
      if (userIds[index] != userId) continue;
      const PixelLabel& pl = labels[index];
      if (!(pl.probability >= minimumProbability) || pl.label < 2) continue;
      const auto* segments = pl.label < kLabelCount ? byLabel[pl.label] : nullptr;
      if (!segments) continue;
      const WorldPoint& wp = points[index];
      const Vector3 p{wp.x, wp.y, wp.z};
      for (const LabelBoneSegment& segment : *segments) {
        const auto boneIndex = static_cast<size_t>(segment.bone);
        if (boneIndex >= forces_.size()) {
          logger_->info("select_points can't find bone {} @ {},{}", to_string(segment.bone), x, y);
          continue;
        }
        BoneForce& force = forces_[boneIndex];
        Vector3 q;
        float t;
        force.project(p, segment.tMin, segment.tMax, q, t);
        const float w = 1.f / (length_squared(q - p) * invScale2 + 1.f);
        force.samples.push_back({q, p, w});
        if (w >= force.histogramWeightThreshold) force.histogram.add(t);
      }
    }
  }
}

void LabelForce::compute_means() {
  for (BoneForce& force : forces_) {
    Vector3 sumP, sumQ;
    float sumW = 0.f;
    for (const ForceSample& s : force.samples) {
      sumP += s.p * s.weight;
      sumQ += s.q * s.weight;
      sumW += s.weight;
    }
    force.count = static_cast<int32_t>(force.samples.size());
    force.weightSum = sumW;
    if (!force.samples.empty() && sumW > 0.f) {
      force.observedMean = sumP / sumW;
      force.projectedMean = sumQ / sumW;
    } else {
      force.observedMean = {};
      force.projectedMean = {};
    }
  }
}

void LabelForce::compute_cross_covariance() {
  for (BoneForce& force : forces_) {
    std::array<float, 9> h{};
    for (const ForceSample& s : force.samples) {
      const Vector3 a = (s.q - force.projectedMean) * s.weight;
      const Vector3 b = s.p - force.observedMean;
      h[0] += a.x * b.x;
      h[1] += a.x * b.y;
      h[2] += a.x * b.z;
      h[3] += a.y * b.x;
      h[4] += a.y * b.y;
      h[5] += a.y * b.z;
      h[6] += a.z * b.x;
      h[7] += a.z * b.y;
      h[8] += a.z * b.z;
    }
    force.crossCovariance.data() = h;
  }
}

void LabelForce::fit_rigid_motions() {
  for (BoneForce& force : forces_) {
    if (force.samples.empty()) {
      force.rotation = Matrix3::identity();
      force.translation = {};
      continue;
    }
    Eigen::Matrix3f h;
    const auto& c = force.crossCovariance.data();
    h << c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7], c[8];
    Eigen::JacobiSVD<Eigen::Matrix3f> svd(h, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Eigen::Matrix3f v = svd.matrixV();
    Eigen::Matrix3f r = svd.matrixU() * v.transpose();
    if (r.determinant() < 0.f) {
      // Singular values come in decreasing order: the last column is the smallest one's.
      v.col(2) = -v.col(2);
      r = svd.matrixU() * v.transpose();
    }
    auto& out = force.rotation.data();
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) out[i * 3 + j] = r(i, j);
    }
    force.translation = force.observedMean - force.projectedMean * force.rotation;
  }
}

void LabelForce::decide_validity() {
  for (BoneForce& force : forces_) {
    bool spreadOk = is_terminal_or_root_bone(force.type);
    if (!spreadOk && force.histogram.total() > 0) {
      const std::optional<float> spread = force.histogram.robust_spread();
      spreadOk = spread && *spread >= minimumSpread;
    }
    force.valid = force.count > minimumPoints && spreadOk;
  }
}

void LabelForce::move_bones() {
  for (BoneForce& force : forces_) {
    const bool valid = force.valid;
    const Vector3 start = force.start * force.rotation + force.translation;
    const Vector3 end = force.end * force.rotation + force.translation;
    force.rebuild(force.type, start, end, force.length);
    force.valid = valid;
  }
}

Vector3 LabelForce::get_anchor(HumanBoneType bone, AnchorPoint point) const {
  const auto index = static_cast<size_t>(bone);
  if (index >= forces_.size()) throw std::out_of_range("invalid unordered_map<K, T> key");
  const BoneForce& force = forces_[index];
  switch (point) {
    case AnchorPoint::Start:
      return force.start;
    case AnchorPoint::Middle:
      return force.middle;
    case AnchorPoint::End:
      return force.end;
  }
  throw std::logic_error("get_anchor: Anchor not supported");
}

void LabelForce::apply_anchors() {
  for (const BoneAnchor& anchor : anchor_table()) {
    const Vector3 from = get_anchor(anchor.fromBone, anchor.fromPoint);
    const Vector3 to = get_anchor(anchor.toBone, anchor.toPoint);
    const auto index = static_cast<size_t>(anchor.bone);
    if (index >= forces_.size()) throw std::out_of_range("invalid unordered_map<K, T> key");
    const bool valid = forces_[static_cast<size_t>(anchor.fromBone)].valid &&
                       forces_[static_cast<size_t>(anchor.toBone)].valid;
    forces_[index].rebuild(anchor.bone, from, to, length(to - from));
    forces_[index].valid = valid;
  }
}

}  // namespace quorvik::skeleton
