#include "segmentation/user_segmenter.h"

// The users stage's frame loop, its bookkeeping and the first steps of stage 1. Static pixels
// of nobody are pushed back in the labelling images so that they do not join the people in
// front of them; the rest is cut into regions connected in depth or in shift, and each
// region's statistics are gathered in one run-length pass, near and pushed-away pixels
// apart, with its overlap with the previous frame's users. The later steps live beside this
// file: identity and pairs (users_pairs.cpp), what the users keep (users_checks.cpp), new
// users (users_search.cpp, users_still.cpp) and the final label map (users_update.cpp). The
// user bookkeeping that they all share, and the invariants it keeps, stays here.

#include <algorithm>
#include <cstdlib>

#include "op/union_find.h"
#include "segmentation/user_ids.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

namespace {

inline int32_t absdiff(int32_t a, int32_t b) { return a > b ? a - b : b - a; }

}  // namespace

void UserSegmenter::start(int32_t width, int32_t height, const uint16_t* depthToShift, uint32_t depthToShiftLength,
                          bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper) {
  width_ = std::max(width, 0);
  height_ = std::max(height, 0);
  pixelCount_ = width_ * height_;
  scale_ = width_ > 0 ? uint32_t(5120 / width_) : 0;
  depthToShift_ = depthToShift;
  depthToShiftLength_ = depthToShiftLength;
  mirrored_ = mirrored;
  mapper_ = mapper;

  for (Array2D<uint16_t>* image : {&labellingDepth_, &labellingShift_}) {
    image->resize(width_, height_);
    image->clear();
  }
  for (Array2D<uint8_t>* image : {&unchanged_, &unchangedNear_}) {
    image->resize(width_, height_);
    image->clear();
  }
  provisional_.resize(width_, height_);
  provisional_.clear();
  labelRing_.reset();
  for (int i = 0; i < 2; ++i) {
    labelRing_.advance();
    labelRing_.current().resize(width_, height_);
    labelRing_.current().clear();
  }
  // At most one provisional label per pixel, after the one that stands for none.
  pixelSets_.reserve(pixelCount_ + 1);
  regionNumber_.assign(size_t(pixelCount_) + 1, 0);
  regionGroups_.reserve(std::max(UserRecord::kMaxRegions, kMaxGroupRegions));

  for (int32_t d = 0; d < kWeightTableSize; ++d) {
    weight_[d] = mapper_ != nullptr ? int32_t(mapper_->pixel_area_at(uint32_t(d)) * 100.0 + 0.5) : 0;
  }

  regionCount_ = 0;
  std::fill(std::begin(owner_), std::end(owner_), 0u);
  for (UserRecord& user : users_) user = UserRecord{};
  for (PairEvent& event : pairs_) event = PairEvent{};
  for (PendingPerson& p : pending_) p = PendingPerson{};
  for (StillProposal& p : still_) p = StillProposal{};
  seedUser_ = 0;
  freeCount_ = 0;
  for (uint32_t id = kMaxUsers; id >= 1; --id) freeIds_[freeCount_++] = id;
  handedBackCount_ = 0;
  userBoxCount_ = 0;
  badFrame_ = false;
  frame_ = 0;
}

int32_t UserSegmenter::active_user_count() const {
  int32_t n = 0;
  for (int32_t id = 1; id <= kMaxUsers; ++id) n += users_[id].active ? 1 : 0;
  return n;
}

double UserSegmenter::pixel_size(double depth) const {
  if (mapper_ == nullptr || depth <= 0) return 0;
  return mapper_->pixel_size_at(uint32_t(depth));
}

int32_t UserSegmenter::world_height(int32_t minY, int32_t maxY, double depth) const {
  if (maxY < minY) return 0;
  return int32_t(double(maxY - minY + 1) * pixel_size(depth));
}

void UserSegmenter::stage1(DepthFrameInput& input, const Array2D<uint8_t>& floorMask, bool hasFloor,
                           const BackgroundModel& background, FloorShiftPlane floorPlane) {
  ++frame_;
  floorPlane_ = floorPlane;
  labelRing_.advance();
  Array2D<uint16_t>& labels = labelRing_.current();
  labels.resize(width_, height_);
  handedBackCount_ = 0;
  badFrame_ = background.badFrame;

  // Region ids are renumbered every frame, so every list is rebuilt from the carry-over.
  for (int32_t id = 1; id <= kMaxUsers; ++id) users_[id].clear_frame_state();
  if (background.resetThisFrame) {
    for (PairEvent& event : pairs_) event = PairEvent{};
    for (PendingPerson& p : pending_) p = PendingPerson{};
    for (StillProposal& p : still_) p = StillProposal{};
  }

  const bool sized = input.width == width_ && input.height == height_ && input.raw(0).width() == width_ &&
                     input.raw(0).height() == height_ && background.foreground.same_shape(labels);
  box_ = ValidBox{1, 1, 0, 0};
  if (!sized || pixelCount_ == 0) {
    labels.clear();
    regionCount_ = 0;
    return;
  }

  build_labelling_images(input, floorMask, hasFloor, background);
  label_regions();
  gather_region_statistics(background, input);
  carry_over_identity();
  pair_users();
  check_against_background(background);
  hand_back_static_regions();
  drop_fragments();
  rebuild_handed_back();
}

void UserSegmenter::stage2(DepthFrameInput&, std::span<const TrackedCandidate> candidates,
                           const BackgroundModel& background) {
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    if (users_[id].active) gather_owned(id);
  }
  searchAllowed_ = !background.sceneChanging && background.framesSinceReset >= 30 && !badFrame_;
  seedUser_ = 0;
  if (searchAllowed_) {
    reacquire_lost_users();
    find_still_people();
    create_from_candidates(candidates);
    create_from_foreground();
  }
  attach_unowned_regions();
  update_users();
  relabel();
  measure_users();
  check_shapes();
  drop_still_objects();
}

void UserSegmenter::build_labelling_images(DepthFrameInput& input, const Array2D<uint8_t>& floorMask, bool hasFloor,
                                           const BackgroundModel& background) {
  labellingDepth_.clear();
  labellingShift_.clear();
  box_ = input.validBox;
  ValidBox& vb = box_;
  vb.left = std::max(vb.left, 0);
  vb.right = std::min(vb.right, width_ - 1);
  vb.top = std::max(vb.top, 0);
  vb.bottom = std::min(vb.bottom, height_ - 1);
  if (vb.left > vb.right || vb.top > vb.bottom) return;

  const bool useFloor = hasFloor && floorMask.width() == width_ && floorMask.height() == height_;
  const Array2D<uint16_t>& raw = input.raw(0);
  const Array2D<uint16_t>& rawPrevious = input.raw(1);
  const Array2D<uint16_t>& shift = input.shift(0);
  const Array2D<uint16_t>& previousLabels = labelRing_.back(1);
  for (int32_t y = vb.top; y <= vb.bottom; ++y) {
    const uint16_t* r = raw.row(y);
    const uint16_t* rp = rawPrevious.row(y);
    const uint16_t* s = shift.row(y);
    const uint16_t* fg = background.foreground.row(y);
    const uint16_t* prev = previousLabels.row(y);
    const uint8_t* floor = useFloor ? floorMask.row(y) : nullptr;
    uint16_t* ld = labellingDepth_.row(y);
    uint16_t* ls = labellingShift_.row(y);
    for (int32_t x = vb.left; x <= vb.right; ++x) {
      const uint32_t depth = r[x];
      if (depth >= uint32_t(kFarCut) || (floor != nullptr && floor[x] != 0)) continue;
      if (depth == 0) {
        ld[x] = kZeroDepth;
        ls[x] = kZeroShift;
      } else if (fg[x] != 0 || prev[x] != kNobody || rp[x] == 0) {
        ld[x] = uint16_t(depth);
        ls[x] = s[x] != 0 ? s[x] : kZeroShift;
      } else {
        // Static pixels that belonged to nobody are pushed away so that they do not join
        // the people in front of them.
        ld[x] = uint16_t(depth + kPushDepth);
        ls[x] = s[x] != 0 ? uint16_t(s[x] + kPushShift) : kZeroShift;
      }
    }
  }
}

void UserSegmenter::label_regions() {
  const ValidBox& vb = box_;
  Array2D<uint16_t>& labels = labelRing_.current();
  labels.clear();
  regionCount_ = 0;
  if (vb.left > vb.right || vb.top > vb.bottom) return;

  const uint16_t* depth = labellingDepth_.data();
  const uint16_t* shift = labellingShift_.data();
  int32_t* provisional = provisional_.data();
  pixelSets_.reset(1);
  op::label_components(
      pixelSets_, provisional, op::RasterWindow{width_, vb.left, vb.top, vb.right, vb.bottom},
      [&](int32_t i) { return depth[i] != 0; },
      [&](int32_t i, int32_t n) {
        return absdiff(depth[i], depth[n]) <= kJoinDepth || absdiff(shift[i], shift[n]) <= kJoinShift;
      },
      op::Connectivity::Eight);

  // Sets are numbered in the order of their lowest provisional label, which is the raster
  // order of each region's first pixel; region ids start at 1.
  const int32_t regions = pixelSets_.number_sets(regionNumber_.data(), 1);
  regionCount_ = std::min(regions, kMaxRegionId);
  for (int32_t y = vb.top; y <= vb.bottom; ++y) {
    const int32_t* p = provisional_.row(y);
    uint16_t* out = labels.row(y);
    for (int32_t x = vb.left; x <= vb.right; ++x) {
      if (p[x] == 0) continue;
      const int32_t id = regionNumber_[size_t(p[x])] + 1;
      out[x] = id <= kMaxRegionId ? uint16_t(id) : uint16_t{0};
    }
  }
}

void UserSegmenter::gather_region_statistics(const BackgroundModel& background, DepthFrameInput& input) {
  for (int32_t r = 0; r <= regionCount_; ++r) {
    RegionStats& s = regions_[r];
    s = RegionStats{};
    s.minX = s.minY = s.farMinX = s.farMinY = INT32_MAX;
    s.maxX = s.maxY = s.farMaxX = s.farMaxY = INT32_MIN;
    s.minDepth = s.farMinDepth = INT32_MAX;
    s.maxDepth = s.farMaxDepth = INT32_MIN;
    owner_[r] = 0;
  }
  unchanged_.clear();
  unchangedNear_.clear();
  const ValidBox& vb = box_;
  const Array2D<uint16_t>& labels = labelRing_.current();
  const Array2D<uint16_t>& previousLabels = labelRing_.back(1);
  const Array2D<uint16_t>& raw = input.raw(0);
  const Array2D<uint16_t>& rawPrevious = input.raw(1);
  auto close = [](int32_t a, int32_t b) { return b != 0 && absdiff(a, b) < kUnchangedMm; };
  // A run-length pass: consecutive near pixels of one region are summed in locals and
  // added to the region's record once per run.
  for (int32_t y = vb.top; y <= vb.bottom; ++y) {
    const uint16_t* l = labels.row(y);
    const uint16_t* ld = labellingDepth_.row(y);
    const uint16_t* r = raw.row(y);
    const uint16_t* p = rawPrevious.row(y);
    const uint16_t* pu = y > 0 ? rawPrevious.row(y - 1) : nullptr;
    const uint16_t* pd = y + 1 < height_ ? rawPrevious.row(y + 1) : nullptr;
    const uint16_t* fg = background.foreground.row(y);
    const uint16_t* prev = previousLabels.row(y);
    uint8_t* u = unchanged_.row(y);
    uint8_t* un = unchangedNear_.row(y);
    int32_t x = vb.left;
    while (x <= vb.right) {
      const int32_t id = l[x];
      if (id == 0 || id > regionCount_) {
        ++x;
        continue;
      }
      RegionStats& s = regions_[id];
      if (ld[x] >= kPushDepth) {
        const int32_t x0 = x;
        bool zero = false;
        int32_t minDepth = INT32_MAX, maxDepth = INT32_MIN;
        int64_t sumX = 0, sumDepth = 0, weight = 0;
        for (; x <= vb.right && l[x] == id && ld[x] >= kPushDepth; ++x) {
          const int32_t depth = r[x];
          zero |= depth == 0;
          minDepth = std::min(minDepth, depth), maxDepth = std::max(maxDepth, depth);
          sumX += x, sumDepth += depth, weight += weight_[std::min(depth, kWeightTableSize - 1)];
        }
        s.pixels += x - x0;
        s.farPixels += x - x0;
        s.farMinX = std::min(s.farMinX, x0), s.farMaxX = std::max(s.farMaxX, x - 1);
        s.farMinY = std::min(s.farMinY, y), s.farMaxY = std::max(s.farMaxY, y);
        s.farMinDepth = std::min(s.farMinDepth, minDepth), s.farMaxDepth = std::max(s.farMaxDepth, maxDepth);
        s.farSumX += sumX, s.farSumDepth += sumDepth, s.farWeight += weight;
        s.hasZero = s.hasZero || zero;
        continue;
      }
      const int32_t x0 = x;
      int32_t minDepth = INT32_MAX, maxDepth = INT32_MIN;
      int64_t sumX = 0, sumDepth = 0, weight = 0, fgWeight = 0, unchangedWeight = 0;
      while (x <= vb.right && l[x] == id && ld[x] < kPushDepth) {
        const int32_t depth = ld[x];
        const int64_t w = weight_[depth];
        const bool same = close(depth, p[x]);
        const bool near = same || (x > 0 && close(depth, p[x - 1])) || (x + 1 < width_ && close(depth, p[x + 1])) ||
                          (pu != nullptr && close(depth, pu[x])) || (pd != nullptr && close(depth, pd[x]));
        u[x] = same ? 1 : 0;
        un[x] = near ? 1 : 0;
        minDepth = std::min(minDepth, depth), maxDepth = std::max(maxDepth, depth);
        sumX += x, sumDepth += depth, weight += w;
        if (fg[x] != 0) fgWeight += w;
        if (near) unchangedWeight += w;
        if (same && prev[x] >= 1 && prev[x] <= kMaxUsers) s.overlap[prev[x]] += w;
        ++x;
      }
      const int32_t n = x - x0;
      s.pixels += n;
      s.nearPixels += n;
      s.minX = std::min(s.minX, x0), s.maxX = std::max(s.maxX, x - 1);
      s.minY = std::min(s.minY, y), s.maxY = std::max(s.maxY, y);
      s.minDepth = std::min(s.minDepth, minDepth), s.maxDepth = std::max(s.maxDepth, maxDepth);
      s.sumX += sumX, s.sumY += int64_t(y) * n, s.sumDepth += sumDepth;
      s.weight += weight, s.foregroundWeight += fgWeight, s.unchangedWeight += unchangedWeight;
    }
  }
  for (int32_t id = 1; id <= regionCount_; ++id) {
    RegionStats& s = regions_[id];
    s.hasNear = s.nearPixels > 0;
    if (s.hasNear) {
      const double n = double(s.nearPixels);
      s.meanX = double(s.sumX) / n;
      s.meanY = double(s.sumY) / n;
      s.meanDepth = double(s.sumDepth) / n;
      s.worldX = mapper_ != nullptr ? (s.meanX - mapper_->centerX) * pixel_size(s.meanDepth) : 0;
    }
    s.weight /= 100;
    s.foregroundWeight /= 100;
    s.unchangedWeight /= 100;
    for (int64_t& o : s.overlap) o /= 100;
    s.mostlyUnchanged = 10 * s.unchangedWeight > 8 * s.weight;
    s.mostlyForeground = 2 * s.foregroundWeight > s.weight;
  }
}

int32_t UserSegmenter::create_user() {
  if (freeCount_ == 0) return 0;
  const int32_t id = int32_t(freeIds_[--freeCount_]);
  users_[id] = UserRecord{};
  users_[id].active = true;
  return id;
}

void UserSegmenter::remove_user(int32_t id) {
  UserRecord& user = users_[id];
  if (!user.active) return;
  user.active = false;
  for (int32_t i = 0; i < user.regionCount; ++i) {
    if (owner_[user.regions[i]] == uint32_t(id)) owner_[user.regions[i]] = 0;
  }
  user.regionCount = 0;
  if (freeCount_ < kMaxUsers) freeIds_[freeCount_++] = uint32_t(id);
  for (PairEvent& event : pairs_) {
    if (event.used && (event.first == id || event.second == id)) event = PairEvent{};
  }
  for (int32_t other = 1; other <= kMaxUsers; ++other) {
    if (users_[other].pairPartner == id) users_[other].pairPartner = 0;
  }
}

void UserSegmenter::give_region(int32_t id, int32_t region) {
  if (owner_[region] == 0 && users_[id].append(region)) owner_[region] = uint32_t(id);
}

void UserSegmenter::gather_owned(int32_t id) {
  UserRecord& user = users_[id];
  user.box.reset();
  user.area = 0;
  user.pixelCount = 0;
  double depthSum = 0;
  for (int32_t i = 0; i < user.regionCount; ++i) {
    const RegionStats& s = regions_[user.regions[i]];
    if (!s.hasNear) continue;
    user.box.add(s.minX, s.minY, s.minDepth);
    user.box.add(s.maxX, s.maxY, s.maxDepth);
    user.area += s.weight;
    user.pixelCount += s.nearPixels;
    depthSum += s.meanDepth * double(s.weight);
  }
  user.meanDepth = user.area > 0 ? depthSum / double(user.area) : 0.0;
}

bool UserSegmenter::consistent() const {
  for (int32_t r = 1; r <= regionCount_; ++r) {
    const uint32_t o = owner_[r];
    if (o == 0) continue;
    if (o > uint32_t(kMaxUsers) || !users_[o].active) return false;
    const UserRecord& user = users_[o];
    if (std::find(user.regions, user.regions + user.regionCount, int16_t(r)) == user.regions + user.regionCount) {
      return false;
    }
  }
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    const UserRecord& user = users_[id];
    if (!user.active && user.regionCount != 0) return false;
    for (int32_t i = 0; i < user.regionCount; ++i) {
      const int32_t r = user.regions[i];
      if (r < 1 || r > regionCount_ || owner_[r] != uint32_t(id)) return false;
      for (int32_t j = i + 1; j < user.regionCount; ++j) {
        if (user.regions[j] == r) return false;
      }
    }
  }
  int32_t freeActive = 0;
  for (int32_t i = 0; i < freeCount_; ++i) freeActive += users_[freeIds_[i]].active ? 1 : 0;
  return freeActive == 0 && freeCount_ + active_user_count() == kMaxUsers;
}

}  // namespace quorvik::legacy
