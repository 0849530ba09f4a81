#include "segmentation/segmentation_engine.h"

namespace quorvik::legacy {

SegmentationEngine::SegmentationEngine() = default;
SegmentationEngine::~SegmentationEngine() = default;

std::unique_ptr<SegmentationEngine> SegmentationEngine::create() {
  return std::unique_ptr<SegmentationEngine>(new SegmentationEngine());
}

bool SegmentationEngine::accepts(uint32_t width, uint32_t height) {
  return width >= 8 && height >= 3 && width % 8 == 0 && width <= uint32_t(kMaxWidth) &&
         height <= uint32_t(kMaxHeight);
}

void SegmentationEngine::reset() { background_.reset(); }

bool SegmentationEngine::start(const SegmentationFrame& frame, const ConversionTableRef& tables) {
  const SegmentationFormat* format = frame.format;
  if (format == nullptr || frame.depth == nullptr || !accepts(format->width, format->height) ||
      tables.shiftToDepth == nullptr || tables.depthToShift == nullptr || tables.depthToShiftLength == 0) {
    return false;
  }
  const int32_t w = int32_t(format->width), h = int32_t(format->height);
  frameView_.view(const_cast<uint16_t*>(frame.depth), w, h);
  const bool mirrored = format->mirrored != 0;

  mapper_ = std::make_unique<skeleton::SegCoordinateMapper<double>>(format->width, format->height, format->hfov,
                                                                    format->vfov, format->maxDepth);
  input_.start(frameView_, mirrored, tables);
  candidates_.start(w, h, tables.shiftToDepth, tables.depthToShift, mirrored, mapper_.get());
  floor_.start(uint32_t(input_.raw().width()), uint32_t(input_.raw().height()), tables.shiftToDepth,
               tables.shiftToDepthLength, mapper_.get());
  background_.start(w, h, tables.shiftToDepth, tables.shiftToDepthLength, mapper_.get());
  users_.start(w, h, tables.depthToShift, tables.depthToShiftLength, mirrored, mapper_.get());
  started_ = true;
  publish_labels();
  return true;
}

LabelOutput SegmentationEngine::process(const SegmentationFrame& frame) {
  if (!started_ || frame.format == nullptr || frame.depth == nullptr ||
      int32_t(frame.format->width) != input_.width || int32_t(frame.format->height) != input_.height) {
    return labels_;
  }
  frameView_.view(const_cast<uint16_t*>(frame.depth), input_.width, input_.height);

  input_.ingest(frameView_, frame.timestampMs);

  const std::span<const Box3D<int>> userBoxes = users_.active_user_boxes();
  BackgroundInputs in;
  in.raw = &input_.raw(0);
  in.rawPrevious = &input_.raw(1);
  in.shift = &input_.shift(0);
  in.shiftPrevious = &input_.shift(1);
  in.shiftBefore = &input_.shift(2);
  in.shadow = &input_.shadow(0);
  in.timestampMs = frame.timestampMs;
  in.validBox = input_.validBox;
  in.labels = &users_.label_map();
  in.userBoxes = userBoxes.data();
  in.userBoxCount = int32_t(userBoxes.size());
  in.mapper = mapper_.get();
  background_.update(in);

  candidates_.process(input_.raw(0), input_.shift(0), input_.shadow(0));
  floor_.update(input_.shift(0), background_.background, background_.resetThisFrame);
  FloorShiftPlane plane;
  if (floor_.has_floor()) plane = {true, floor_.current().a, floor_.current().b, floor_.current().c};
  users_.stage1(input_, floor_.mask(), floor_.has_floor(), background_, plane);
  for (const HandedBackRegion& region : users_.regions_handed_back()) {
    background_.take_region(input_.shift(0), users_.label_map(), uint16_t(region.regionId), region.box,
                            region.weight);
  }
  users_.stage2(input_, candidates_.tracked(), background_);
  // A person found standing still had been learnt as background: what lies behind them is
  // not known, which makes them foreground like anyone who walked in.
  if (const int32_t id = users_.still_user_found(); id != 0) background_.forget(users_.label_map(), uint16_t(id));
  // Furniture let go of as no person is the room from now on, before it can join anyone.
  if (users_.object_dropped()) background_.take_pixels(input_.shift(0), users_.object_mask());
  background_.absorb(input_.shift(0), users_.label_map());
  publish_labels();
  return labels_;
}

void SegmentationEngine::publish_labels() {
  const Array2D<uint16_t>& map = users_.label_map();
  labels_ = {uint32_t(map.width()), uint32_t(map.height()), map.data()};
}

FloorOutput SegmentationEngine::floor_output() const {
  FloorOutput out;
  if (!started_) return out;
  out.detected = floor_.has_floor() ? 1 : 0;
  if (out.detected != 0) {
    for (int i = 0; i < 4; ++i) out.plane[i] = floor_.plane()[i];
  }
  const Array2D<uint8_t>& mask = floor_.mask();
  out.maskWidth = uint32_t(mask.width());
  out.maskHeight = uint32_t(mask.height());
  out.mask = mask.data();
  return out;
}

}  // namespace quorvik::legacy
