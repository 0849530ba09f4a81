#include "segmentation/candidate_detector.h"

namespace quorvik::legacy {

void PersonCandidateDetector::start(int32_t width, int32_t height, const uint16_t* shiftToDepth,
                                    const uint16_t* depthToShift, bool mirrored,
                                    const skeleton::SegCoordinateMapper<double>* mapper) {
  width_ = width;
  height_ = height;
  shiftToDepth_ = shiftToDepth;
  depthToShift_ = depthToShift;
  mirrored_ = mirrored;
  mapper_ = mapper;
  count_ = 0;
}

void PersonCandidateDetector::process(const Array2D<uint16_t>&, const Array2D<uint16_t>&, const Array2D<uint16_t>&) {
  count_ = 0;
}

}  // namespace quorvik::legacy
