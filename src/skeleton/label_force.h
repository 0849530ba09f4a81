#pragma once
// Bone proposals from labelled points: every labelled world point pulls on the bones its
// label covers, each bone takes the rigid motion that best carries its projected points onto
// the observed ones, and bones with enough well-spread support are proposed.

#include <algorithm>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include <spdlog/logger.h>

#include "op/image.h"
#include "op/pixel_label.h"
#include "op/region_box.h"
#include "segmentation/depth_conversion.h"
#include "skeleton/geometry.h"
#include "skeleton/human_model.h"
#include "skeleton/percentile_histogram.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct LabelBoneSegment {
  HumanBoneType bone;
  float tMin;
  float tMax;
};

// Which stretches of which bones each body-part label covers (labels 2..27).
const std::unordered_map<uint8_t, std::vector<LabelBoneSegment>>& label_table();

enum class AnchorPoint : uint32_t { Start = 0, Middle = 1, End = 2 };

struct BoneAnchor {
  HumanBoneType bone;
  HumanBoneType fromBone;
  AnchorPoint fromPoint;
  HumanBoneType toBone;
  AnchorPoint toPoint;
};

// Bones stretched between points of two neighbours instead of fitted to their own points.
const std::vector<BoneAnchor>& anchor_table();

struct ForceSample {
  Vector3 q;  // projection on the bone
  Vector3 p;  // observed point
  float weight;
};
static_assert(sizeof(ForceSample) == 28);

struct BoneForce {
  BoneForce(HumanBoneType type, const Vector3& start, const Vector3& end, float length);

  // Re-initialises the record in place; the sample storage is kept for reuse.
  void rebuild(HumanBoneType type, const Vector3& start, const Vector3& end, float length);
  // Projection of p onto the segment, t clamped to [t_min, t_max].
  void project(const Vector3& p, float tMin, float tMax, Vector3& q, float& t) const {
    if (length < 0.1f) {
      q = start;
      t = 0.f;
      return;
    }
    const Vector3 axis = end - start;
    t = std::clamp(dot(p - start, axis) / (length * length), tMin, tMax);
    if (t < 0.f) {
      q = start;
    } else if (t > 1.f) {
      q = end;
    } else {
      q = start + axis * t;
    }
  }

  HumanBoneType type;
  Vector3 start, end;
  float length = 0.f;
  Vector3 middle;
  Vector3 observedMean;
  Vector3 projectedMean;
  int32_t count = 0;
  float weightSum = 0.f;
  Matrix3 crossCovariance;
  Matrix3 rotation = Matrix3::identity();
  Vector3 translation;
  std::vector<ForceSample> samples;
  bool valid = false;
  PercentileHistogram histogram{100};
  float histogramWeightThreshold = 0.05f;
};

struct HumanProposal {
  HumanBoneType type = HumanBoneType::None;
  std::optional<Vector3> start;
  std::optional<Vector3> direction;  // not normalised
  std::optional<float> length;
};

// One proposal per bone of the all-bones list.
class HumanProposals {
 public:
  // Raises std::logic_error "HumanProposal: Unsupported HumanBoneType" for a missing bone.
  const HumanProposal& at(HumanBoneType bone) const;
  HumanProposal& at(HumanBoneType bone);
  void erase(HumanBoneType bone) { entries_.erase(bone); }
  bool contains(HumanBoneType bone) const { return entries_.count(bone) != 0; }
  size_t size() const { return entries_.size(); }

  // Every bone present, every option empty.
  static HumanProposals empty_set();

 private:
  std::unordered_map<HumanBoneType, HumanProposal> entries_;
};

class LabelForce {
 public:
  LabelForce();

  // The model's cached transforms may be refreshed; nothing else in it changes.
  HumanProposals generate(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                          const op::Image<uint8_t>& userIds, uint8_t userId, const RegionBox& extent,
                          HumanModel& model);

  // The working records of the last call, indexed by bone value.
  const BoneForce& force(HumanBoneType bone) const { return forces_.at(static_cast<size_t>(bone)); }

  float minimumProbability = 0.2f;
  float distanceScale = 100.f;
  int32_t minimumPoints = 10;
  float minimumSpread = 0.4f;

 private:
  void initialise(HumanModel& model);
  void generate_proposals(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                          const op::Image<uint8_t>& userIds, uint8_t userId, const RegionBox& extent);
  void select_points(const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
                     const op::Image<uint8_t>& userIds, uint8_t userId, const RegionBox& extent);
  void compute_means();
  void compute_cross_covariance();
  void fit_rigid_motions();
  void decide_validity();
  void move_bones();
  void apply_anchors();
  Vector3 get_anchor(HumanBoneType bone, AnchorPoint point) const;

  std::shared_ptr<spdlog::logger> logger_;
  // Kept between calls only so the sample vectors keep their capacity.
  std::vector<BoneForce> forces_;
};

}  // namespace quorvik::skeleton
