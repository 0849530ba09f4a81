#pragma once
// The segmentation engine: separates the people in front of the camera from the static
// scene. Per frame: input (shift and shadow images), background model, person candidates,
// floor, users; its outputs are a user label map and the floor.
//
// The engine is one object of fixed size made by create(); its stages keep fixed tables
// inside it and only their images grow with the frame size. Frames wider than kMaxWidth,
// taller than kMaxHeight or with a width that is not a multiple of 8 are refused.

#include <cstdint>
#include <memory>

#include "segmentation/background_model.h"
#include "segmentation/candidate_detector.h"
#include "segmentation/depth_frame_input.h"
#include "segmentation/floor_detector.h"
#include "segmentation/seg_coordinate_mapper.h"
#include "segmentation/segmentation_frame.h"
#include "segmentation/user_segmenter.h"

namespace quorvik::legacy {

struct LabelOutput {
  uint32_t width = 0;
  uint32_t height = 0;
  const uint16_t* data = nullptr;  // user id per pixel, 0 = nobody
};

struct FloorOutput {
  uint32_t detected = 0;
  float plane[4] = {0, 0, 0, 0};  // nx, ny, nz, d with n.P + d = 0 (millimetres)
  uint32_t maskWidth = 0;
  uint32_t maskHeight = 0;
  const uint8_t* mask = nullptr;  // 1 on the floor
};

class SegmentationEngine {
 public:
  static constexpr int32_t kMaxWidth = 640;
  static constexpr int32_t kMaxHeight = 480;

  static std::unique_ptr<SegmentationEngine> create();
  ~SegmentationEngine();

  SegmentationEngine(const SegmentationEngine&) = delete;
  SegmentationEngine& operator=(const SegmentationEngine&) = delete;

  static bool accepts(uint32_t width, uint32_t height);

  // Resets the background model; the first update after it rebuilds the background.
  void reset();
  // Starts (or restarts) every stage on the first frame. False, and nothing started, when
  // the frame or the tables are unusable.
  bool start(const SegmentationFrame& frame, const ConversionTableRef& tables);
  // Runs one frame through the pipeline. A frame of another size than the started one, or
  // any frame before a successful start, is ignored.
  LabelOutput process(const SegmentationFrame& frame);

  LabelOutput label_output() const { return labels_; }
  FloorOutput floor_output() const;
  bool started() const { return started_; }
  void set_person_check(PersonCheck check) { users_.set_person_check(std::move(check)); }

  DepthFrameInput& input() { return input_; }
  const FloorDetector& floor() const { return floor_; }
  const PersonCandidateDetector& candidates() const { return candidates_; }
  const BackgroundModel& background() const { return background_; }
  const UserSegmenter& users() const { return users_; }
  const skeleton::SegCoordinateMapper<double>* mapper() const { return mapper_.get(); }

 private:
  SegmentationEngine();
  void publish_labels();

  // Declared first so that it outlives the stages, which keep pointers to it.
  std::unique_ptr<skeleton::SegCoordinateMapper<double>> mapper_;
  DepthFrameInput input_;
  FloorDetector floor_;
  PersonCandidateDetector candidates_;
  BackgroundModel background_;
  UserSegmenter users_;
  LabelOutput labels_;
  bool started_ = false;
  Array2D<uint16_t> frameView_;
};

}  // namespace quorvik::legacy
