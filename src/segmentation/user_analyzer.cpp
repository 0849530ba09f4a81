#include "segmentation/user_analyzer.h"

#include <cmath>

#include "op/logging.h"
#include "segmentation/segmentation_engine.h"

namespace quorvik::skeleton {
UserAnalyzer::UserAnalyzer(float hfovDegrees, float vfovDegrees, uint32_t width, uint32_t height)
    : userLabels_(width, height),
      floorMask_(width, height),
      hfov_(hfovDegrees * kDegreesToRadians),
      vfov_(vfovDegrees * kDegreesToRadians),
      engine_(legacy::SegmentationEngine::create()),
      logger_(op::get_logger("UserAnalyzer")) {
  userLabels_.fill(kNoUser);
  floorMask_.fill(0);
  engine_->reset();
}

UserAnalyzer::~UserAnalyzer() = default;

void UserAnalyzer::reset() { engine_->reset(); }

void UserAnalyzer::set_person_check(legacy::PersonCheck check) { engine_->set_person_check(std::move(check)); }

const std::vector<uint8_t>& UserAnalyzer::segment(const op::Image<uint16_t>& depth, const ConversionTables& tables,
                                                  bool mirrored) {
  legacy::SegmentationFormat format;
  format.width = depth.width();
  format.height = depth.height();
  format.hfov = hfov_;
  format.vfov = vfov_;
  format.mirrored = mirrored ? 1 : 0;
  format.maxDepth = 10000;
  legacy::SegmentationFrame frame;
  frame.frameIndex = frameIndex_++;
  frame.timestampMs = timestampMs_;
  timestampMs_ += 33;
  frame.format = &format;
  frame.depth = depth.data();

  if (!engineStarted_) {
    legacy::ConversionTableRef ref;
    ref.present = 1;
    ref.shiftToDepth = tables.shiftToDepth.data();
    ref.shiftToDepthLength = static_cast<uint32_t>(tables.shiftToDepth.size());
    ref.depthToShift = tables.depthToShift.data();
    ref.depthToShiftLength = static_cast<uint32_t>(tables.depthToShift.size());
    engine_->start(frame, ref);
    engineStarted_ = true;
  } else {
    engine_->process(frame);
  }

  const legacy::LabelOutput labels = engine_->label_output();
  const uint32_t width = userLabels_.width();
  const uint32_t height = userLabels_.height();
  if (labels.data != nullptr && labels.width != 0 && labels.height != 0) {
    op::resample_nearest(labels.data, labels.width, labels.height, userLabels_, width, height);
  } else {
    userLabels_.fill(legacy::kNobody);
  }

  ids_.clear();
  uint16_t previous = 0;
  for (size_t i = 0; i < userLabels_.size(); ++i) {
    uint16_t& value = userLabels_[i];
    value = user_label_of(value);
    if (value == kNoUser) continue;
    if (value == previous) continue;
    previous = value;
    // Ids are one byte wide; the engine never hands out more than ten.
    const auto id = static_cast<uint8_t>(value);
    if (std::find(ids_.begin(), ids_.end(), id) == ids_.end()) ids_.push_back(id);
  }
  read_floor();
  return ids_;
}

void UserAnalyzer::read_floor() {
  const legacy::FloorOutput floor = engine_->floor_output();
  if (floor.detected == 0) {
    floorDetected_ = false;
    floorPlane_ = {0, 0, 0, 0};
    planeIsNull_ = true;
    floorMask_.fill(0);
    return;
  }
  floorDetected_ = true;
  const double a = floor.plane[0], b = floor.plane[1], c = floor.plane[2];
  const double length = std::sqrt(a * a + b * b + c * c);
  float n[3] = {0, 0, 0};
  if (length > 1e-9) {
    n[0] = static_cast<float>(a / length);
    n[1] = static_cast<float>(b / length);
    n[2] = static_cast<float>(c / length);
  }
  floorPlane_ = {n[0], n[1], n[2], floor.plane[3]};
  planeIsNull_ = n[0] == 0.f && n[1] == 0.f && n[2] == 0.f;
  if (floor.mask != nullptr && floor.maskWidth != 0 && floor.maskHeight != 0)
    op::resample_nearest(floor.mask, floor.maskWidth, floor.maskHeight, floorMask_, floorMask_.width(), floorMask_.height());
  else
    floorMask_.fill(0);
}

}  // namespace quorvik::skeleton
