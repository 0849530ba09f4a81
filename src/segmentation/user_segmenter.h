#pragma once
// Users stage of the segmentation engine: cuts the near scene into regions, gives them user
// ids that persist from frame to frame and writes the engine's label map (0 = nobody).
//
// For now the stage labels nobody: its label map stays 0, it hands nothing back and has no
// active users. The two stage calls receive everything the full stage reads.

#include <cstdint>
#include <span>

#include "segmentation/background_model.h"
#include "segmentation/candidate_detector.h"
#include "segmentation/containers.h"
#include "segmentation/depth_frame_input.h"

namespace quorvik::legacy {

// A region the users stage found static; the engine writes it into the background.
struct HandedBackRegion {
  int32_t regionId = 0;
  Box3D<int> box;
  int32_t weight = 0;  // square millimetres
};

class UserSegmenter {
 public:
  static constexpr int32_t kMaxUsers = 10;
  static constexpr int32_t kMaxRegions = 2000;

  void start(int32_t width, int32_t height, const uint16_t* depthToShift, uint32_t depthToShiftLength,
             bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper);
  // Stage 1: regions of the near scene and the ids they inherit. Reads the input stage's
  // rings and valid box, the floor mask where hasFloor, and the background model's
  // foreground, background, resetThisFrame, badFrame, sceneChanging, changeDepth and
  // framesSinceReset.
  void stage1(DepthFrameInput& input, const Array2D<uint8_t>& floorMask, bool hasFloor,
              const BackgroundModel& background);
  // Stage 2: new users from the tracked candidates, user update and the final label map.
  void stage2(DepthFrameInput& input, std::span<const TrackedCandidate> candidates,
              const BackgroundModel& background);

  // The current label map: region ids between the two stages, user ids after stage 2.
  Array2D<uint16_t>& label_map() { return labelRing_.current(); }
  const Array2D<uint16_t>& label_map() const { return labelRing_.back(0); }
  const Array2D<uint16_t>& previous_label_map() const { return labelRing_.back(1); }
  std::span<const HandedBackRegion> regions_handed_back() const { return {handedBack_, size_t(handedBackCount_)}; }
  std::span<const Box3D<int>> active_user_boxes() const { return {userBoxes_, size_t(userBoxCount_)}; }

 private:
  int32_t width_ = 0, height_ = 0, pixelCount_ = 0;
  const uint16_t* depthToShift_ = nullptr;
  uint32_t depthToShiftLength_ = 0;
  bool mirrored_ = false;
  const skeleton::SegCoordinateMapper<double>* mapper_ = nullptr;
  ImageRing<uint16_t, 2> labelRing_;
  HandedBackRegion handedBack_[kMaxRegions];
  int32_t handedBackCount_ = 0;
  Box3D<int> userBoxes_[kMaxUsers];
  int32_t userBoxCount_ = 0;
};

}  // namespace quorvik::legacy
