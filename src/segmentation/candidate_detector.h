#pragma once
// Person candidates: person-shaped objects followed from frame to frame independently of the
// background model. The users stage turns confirmed candidates into new users.
//
// For now the stage finds nothing; its storage and interface are those the engine and the
// users stage rely on.

#include <cstdint>
#include <span>

#include "segmentation/containers.h"
#include "segmentation/seg_coordinate_mapper.h"

namespace quorvik::legacy {

struct TrackedCandidate {
  uint32_t id = 0;
  bool confirmed = false;
  bool newlyConfirmed = false;
  Box3D<int> box;  // latest image box (x, y in pixels) and depth range (millimetres)
  int32_t area = 0;  // square millimetres
};

class PersonCandidateDetector {
 public:
  static constexpr int32_t kMaxCandidates = 64;

  void start(int32_t width, int32_t height, const uint16_t* shiftToDepth, const uint16_t* depthToShift,
             bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper);
  void process(const Array2D<uint16_t>& raw, const Array2D<uint16_t>& shift, const Array2D<uint16_t>& shadow);

  std::span<const TrackedCandidate> tracked() const { return {candidates_, size_t(count_)}; }

 private:
  int32_t width_ = 0, height_ = 0;
  const uint16_t* shiftToDepth_ = nullptr;
  const uint16_t* depthToShift_ = nullptr;
  bool mirrored_ = false;
  const skeleton::SegCoordinateMapper<double>* mapper_ = nullptr;
  TrackedCandidate candidates_[kMaxCandidates];
  int32_t count_ = 0;
};

}  // namespace quorvik::legacy
