#include "segmentation/user_segmenter.h"

namespace quorvik::legacy {

void UserSegmenter::start(int32_t width, int32_t height, const uint16_t* depthToShift, uint32_t depthToShiftLength,
                          bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper) {
  width_ = width;
  height_ = height;
  pixelCount_ = width * height;
  depthToShift_ = depthToShift;
  depthToShiftLength_ = depthToShiftLength;
  mirrored_ = mirrored;
  mapper_ = mapper;
  labelRing_.reset();
  for (int i = 0; i < 2; ++i) {
    labelRing_.advance();
    labelRing_.current().resize(width, height);
    labelRing_.current().clear();
  }
  handedBackCount_ = 0;
  userBoxCount_ = 0;
}

void UserSegmenter::stage1(DepthFrameInput&, const Array2D<uint8_t>&, bool, const BackgroundModel&) {
  labelRing_.advance();
  labelRing_.current().clear();
  handedBackCount_ = 0;
}

void UserSegmenter::stage2(DepthFrameInput&, std::span<const TrackedCandidate>, const BackgroundModel&) {
  userBoxCount_ = 0;
}

}  // namespace quorvik::legacy
