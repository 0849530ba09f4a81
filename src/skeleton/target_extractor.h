#pragma once
// Fitting targets for a user's model, read off the model built from this frame's
// proposals: where each measured bone should end, which length it should have, and where
// each limb's measured chain ends.

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include <spdlog/logger.h>

#include "skeleton/geometry.h"
#include "skeleton/human_model.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct LengthTarget {
  HumanBoneType bone;
  HumanBoneType target;  // the same bone again
  std::optional<float> length;
};
static_assert(sizeof(LengthTarget) == 16);

struct PositionTarget {
  HumanBoneType bone;
  Vector3 position;  // where the bone's distal joint should be
};
static_assert(sizeof(PositionTarget) == 16);

struct FitTargets {
  std::vector<LengthTarget> lengthTargets;
  std::vector<PositionTarget> positionTargets;
  std::vector<HumanBoneType> chainEnds;

  const LengthTarget* length_target(HumanBoneType bone) const;
  const PositionTarget* position_target(HumanBoneType bone) const;
  bool is_chain_end(HumanBoneType bone) const;
};

using BoneLengths = std::unordered_map<HumanBoneType, float>;

class TargetExtractor {
 public:
  TargetExtractor();

  FitTargets extract(HumanModel& proposalModel, const BoneLengths& userLengths) const;

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace quorvik::skeleton
