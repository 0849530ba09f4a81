#pragma once
// One user's skeleton step per frame: proposals from the labelled points, this frame's
// model and targets, a bounded fit of the user's own model, bone states, the joint table
// with its hold rule, and the smoothed (left-right symmetric) bone lengths.

#include <array>
#include <memory>
#include <vector>

#include <spdlog/logger.h>

#include "op/image.h"
#include "op/pixel_label.h"
#include "op/region_box.h"
#include "segmentation/depth_conversion.h"
#include "skeleton/human_model.h"
#include "skeleton/label_force.h"
#include "skeleton/model_converter.h"
#include "skeleton/target_extractor.h"
#include "skeleton/user_skeleton.h"

namespace quorvik::skeleton {

class ModelTracker {
 public:
  ModelTracker();

  void step(UserSkeleton& user, const op::Image<PixelLabel>& labels, const op::Image<WorldPoint>& points,
            const op::Image<uint8_t>& userIds, const RegionBox& extent, uint32_t frameNumber,
            const DepthCameraModel& camera);

  // The stages of a step, open to tests.
  void fit(HumanModel& model, const FitTargets& targets) const;
  void direction_pass(HumanModel& model, const FitTargets& targets) const;
  void length_pass(HumanModel& model, const FitTargets& targets) const;
  void set_bone_states(HumanModel& model, const FitTargets& targets) const;
  void write_joints(UserSkeleton& user, uint32_t frameNumber, const DepthCameraModel& camera) const;
  void smooth_lengths(BoneLengths& userLengths, const BoneLengths& measured) const;
  void hold_joints(UserSkeleton& user, uint32_t frameNumber) const;

  LabelForce labelForce;
  ModelConverter converter;
  float lengthSmoothing = 0.1f;
  TargetExtractor targetExtractor;

 private:
  std::shared_ptr<spdlog::logger> logger_;

 public:
  int32_t holdFrames = 5;

  static constexpr int kDirectionPasses = 10;
  static constexpr int kLengthRounds = 10;
};

}  // namespace quorvik::skeleton
