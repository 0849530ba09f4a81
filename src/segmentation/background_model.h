#pragma once
// The engine's model of the static scene in the shift domain, its foreground image and the
// motion detector that notices when the whole scene changes (camera moved, lights, doors).

#include <cstdint>
#include <vector>

#include "op/union_find.h"
#include "segmentation/containers.h"
#include "segmentation/depth_frame_input.h"
#include "segmentation/seg_coordinate_mapper.h"

namespace quorvik::legacy {

using Mapper = skeleton::SegCoordinateMapper<double>;

// Everything one background update reads; the images are the input stage's.
struct BackgroundInputs {
  const Array2D<uint16_t>* raw = nullptr;
  const Array2D<uint16_t>* rawPrevious = nullptr;
  const Array2D<uint16_t>* shift = nullptr;
  const Array2D<uint16_t>* shiftPrevious = nullptr;
  const Array2D<uint16_t>* shiftBefore = nullptr;  // two frames back
  const Array2D<uint16_t>* shadow = nullptr;
  uint64_t timestampMs = 0;
  ValidBox validBox;
  const Array2D<uint16_t>* labels = nullptr;  // users stage's label map; may be null
  const Box3D<int>* userBoxes = nullptr;      // boxes of the active users
  int32_t userBoxCount = 0;
  const Mapper* mapper = nullptr;
};

// steady[i] + 1 (saturating) where the current shift c[i] is known and agrees with the two
// before it, p[i] and pp[i], pairwise within 2 + c[i] / 256; else 0. Shifts stay below 32768.
void update_steady_runs(const uint16_t* c, const uint16_t* p, const uint16_t* pp, uint16_t* steady, int32_t n);

class BackgroundModel {
 public:
  static constexpr uint16_t kAcceptAny = 1;
  static constexpr uint32_t kAbsorbFrames = 151;
  static constexpr uint16_t kRelearnFrames = 3;
  // framesSinceReset: the engine's reset sets it to kResetRequested, which makes the next
  // update put the background into the reset state; it then counts up to kSettledFrames.
  static constexpr uint32_t kResetRequested = 30;
  static constexpr uint32_t kSettledFrames = 35;
  // A pixel is nearer than its background when its shift is smaller by more than this:
  // one or two shift steps either way are the sensor's own jitter.
  static constexpr int32_t kNearMargin = 3;

  void start(int32_t width, int32_t height, const uint16_t* shiftToDepth, uint32_t shiftToDepthLength,
             const Mapper* mapper);
  // The engine's reset: the next update rebuilds the background from what it sees.
  void reset();
  void update(const BackgroundInputs& in);

  // A region the users stage found static: its pixels (label == id inside box) join the
  // background at once.
  void take_region(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& labels, uint16_t id,
                   const Box3D<int>& box, int32_t weight);
  // The background under the pixels labelled `id` becomes unknown. Where such a pixel then
  // belongs to nobody and holds still for kRelearnFrames, absorb() learns it at once: the
  // person who stood there has moved on.
  // Learns the pixels set in `mask` at once: an object that was taken for a user and let go.
  void take_pixels(const Array2D<uint16_t>& shift, const Array2D<uint8_t>& mask);
  void forget(const Array2D<uint16_t>& labels, uint16_t id);
  // Foreground that belongs to nobody for kAbsorbFrames frames in a row becomes background.
  void absorb(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& labels);

  int32_t width = 0, height = 0, pixelCount = 0;
  Array2D<uint16_t> background{0, 0, true};
  Array2D<uint16_t> foreground{0, 0, true};
  Array2D<uint16_t> filteredBackground{0, 0, true};
  Array2D<uint16_t> zeroRun;
  Array2D<uint16_t> shadowRun;
  Array2D<uint32_t> absorbCounter;
  Array2D<uint16_t> nearChange;
  Array2D<uint8_t> bodyChange;  // 1 on the near changes of regions no bigger than one person
  Array2D<uint8_t> forgotten;   // 1 where forget() left the background unknown, until relearnt
  bool resetThisFrame = false;
  bool badFrame = false;
  bool reinitialise = false;
  uint32_t framesSinceReset = kResetRequested;
  bool sceneChanging = false;
  uint32_t changeDepth = 0;
  bool untouched = true;

  ValueRing<double, 16> timestamps;       // seconds
  ValueRing<int32_t, 15> foregroundChange;  // growth of the near changes but bodies, per frame (mm^2)
  ValueRing<uint32_t, 16> receding;         // area that moved farther than its background
  ValueRing<uint32_t, 20> newBackground;    // the part of it that had no background yet

  // Region validation state.
  Array2D<uint16_t> steadyRun;  // frames in a row in which the shift held still
  Array2D<int32_t> regionLabel;

 private:
  void allocate(int32_t width, int32_t height);
  uint32_t area_scale() const;
  // Area of one pixel at `depth`, before area_scale(): the pixel's side grows with the depth,
  // counted in rounded steps of 512 mm so that the sums stay in integers.
  static constexpr uint32_t kAreaDepthShift = 9;
  static uint32_t area_of(uint32_t depth) {
    const uint32_t a = (depth + (1u << (kAreaDepthShift - 1))) >> kAreaDepthShift;
    return a * a;
  }
  uint16_t depth_of(uint32_t shift) const {
    return shift < shiftToDepthLength_ ? shiftToDepth_[shift] : uint16_t{0};
  }
  bool frame_is_bad(const BackgroundInputs& in) const;
  void update_near_change(const BackgroundInputs& in);
  void detect_motion(double t);
  void mark_bodies(const BackgroundInputs& in);
  void validate_regions(const BackgroundInputs& in);
  void compute_foreground(const Array2D<uint16_t>& shift);

  const uint16_t* shiftToDepth_ = nullptr;
  uint32_t shiftToDepthLength_ = 0;
  const Mapper* mapper_ = nullptr;
  Array<int16_t> filterScratch_;
  op::UnionFind regionSets_;
  struct RegionSummary {
    int32_t pixels = 0;
    uint16_t minSteady = 0;
    bool held = false;
    bool unknownBehind = true;
  };
  std::vector<RegionSummary> regions_;
  Array2D<uint16_t> nearNext_;
  struct BodySummary {
    int64_t area = 0;  // before the scale
    int64_t depthSum = 0;
    int32_t pixels = 0;
    int32_t minColumn = INT32_MAX, maxColumn = -1, minRow = INT32_MAX, maxRow = -1;
    bool body = false;
  };
  std::vector<BodySummary> bodies_;
};

}  // namespace quorvik::legacy
