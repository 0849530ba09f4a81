// New users who stand still. Static pixels of nobody are pushed away in the labelling images,
// so a person who has not moved since the background was learnt has no near pixels, and no
// path from moving foreground finds them. Their static regions, alone and grouped, are cut
// from the floor and from what stands behind them, checked for a person's size and for a
// head, and only then put to the person check, once a frame at most and less often after
// each no, so that a coat stand costs a check now and then rather than every frame.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "segmentation/floor_detector.h"
#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

// Groups the static regions of nobody (those without near pixels) into groups_, by
// touching boxes and depth ranges, as the foreground paths group theirs: a still person
// often falls apart into a few regions where an arm or a carried bag hides the waist.
int32_t UserSegmenter::group_static_regions() {
  int32_t n = 0;
  for (int32_t r = 1; r <= regionCount_ && n < kMaxGroupRegions; ++r) {
    const RegionStats& s = regions_[r];
    stillMember_[r] = 0;
    if (owner_[r] != 0 || s.hasNear || s.hasZero || s.handedBack || s.farWeight < 100 * kRegionMinArea) continue;
    groupRegion_[n++] = r;
  }
  form_groups(n, true, 0);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    Group& g = groups_[gi];
    for (int32_t k = g.first; k < g.first + g.count; ++k) {
      const RegionStats& s = regions_[groupMembers_[k]];
      g.area += s.farWeight / 100;
      g.meanDepth += double(s.farSumDepth);
      g.worldX += double(s.farSumX);
      g.width += s.farPixels;  // pixel count until below
    }
    const double pixels = std::max(double(g.width), 1.0);
    g.meanDepth /= pixels;
    g.worldX = mapper_ != nullptr ? (g.worldX / pixels - mapper_->centerX) * pixel_size(g.meanDepth) : 0;
    g.height = world_height(g.minY, g.maxY, g.meanDepth);
    g.width = int32_t(double(g.maxX - g.minX + 1) * pixel_size(g.meanDepth));
  }
  return groupCount_;
}

// Whether a pixel of the static group being cut may belong to a person: not floor.
bool UserSegmenter::still_pixel(int32_t x, int32_t y, uint16_t region) const {
  if (region == 0 || region > regionCount_ || stillMember_[region] == 0) return false;
  // The floor recedes steadily from row to row, where a body holds its depth: a pixel
  // with the floor's slope both above and below it is floor, known or not. Floors are
  // speckled with pixels without depth, so the nearest measured row on each side counts.
  auto depth_at = [&](int32_t row) {
    const int32_t d = labellingDepth_.row(row)[x];
    return d >= kZeroDepth ? 0 : (d >= kPushDepth ? d - kPushDepth : d);
  };
  const int32_t d = depth_at(y);
  int32_t up = 0, down = 0, above = 0, below = 0;
  for (int32_t k = kStillSlopeRows; k <= kStillSlopeReach && above == 0 && y - k >= 0; ++k)
    above = depth_at(y - k), up = k;
  for (int32_t k = kStillSlopeRows; k <= kStillSlopeReach && below == 0 && y + k < height_; ++k)
    below = depth_at(y + k), down = k;
  if (above != 0 && below != 0 && (above - d) * kStillFloorSlope > up * d &&
      (d - below) * kStillFloorSlope > down * d) {
    return false;
  }
  if (!floorPlane_.known) return true;
  // Where the floor mask does not reach, the plane still tells floor from feet.
  const int32_t shift = labellingShift_.row(y)[x] - int32_t(kPushShift);
  const double floor = floor_shift_at(floorPlane_.a, floorPlane_.b, floorPlane_.c, x, y);
  return std::abs(double(shift) - floor) > kStillFloorShift;
}

// The near part of a static group into stillMask_: a person who stands close to a
// cabinet or a wall joins it through the grazing pixels of their outline, but few pixels
// lie between the two, so the group's depths have a gap behind the person. Returns the
// part's area (mm2) and its box.
int64_t UserSegmenter::cut_still_person(const Group& g, Box3D<int>& box) {
  for (int32_t i = 0; i < g.count; ++i) stillMember_[groupMembers_[g.first + i]] = 1;
  const Array2D<uint16_t>& regionsMap = labelRing_.current();
  const int32_t bins = std::min((g.maxDepth - g.minDepth) / kStillBin + 1, kStillMaxBins);
  int32_t histogram[kStillMaxBins] = {};
  int32_t pixels = 0;
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    const uint16_t* l = regionsMap.row(y);
    const uint16_t* d = labellingDepth_.row(y);
    for (int32_t x = g.minX; x <= g.maxX; ++x) {
      if (!still_pixel(x, y, l[x])) continue;
      ++histogram[std::min((d[x] - kPushDepth - g.minDepth) / kStillBin, bins - 1)];
      ++pixels;
    }
  }
  const int32_t sparse = std::max(kStillSparseMin, pixels * kStillSparsePerMille / 1000);
  int32_t cut = bins, seen = 0, run = 0;
  for (int32_t b = 0; b < bins && cut == bins; ++b) {
    seen += histogram[b];
    run = histogram[b] <= sparse ? run + 1 : 0;
    if (run >= kStillGapBins && (seen - histogram[b]) * 100 >= pixels * kStillNearestPercent) cut = b - run + 1;
  }
  const int32_t farthest = g.minDepth + cut * kStillBin;
  stillMask_.resize(width_, height_);
  stillMask_.clear();
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    const uint16_t* l = regionsMap.row(y);
    const uint16_t* d = labellingDepth_.row(y);
    uint8_t* m = stillMask_.row(y);
    for (int32_t x = g.minX; x <= g.maxX; ++x) m[x] = still_pixel(x, y, l[x]) && d[x] - kPushDepth < farthest ? 1 : 0;
  }
  for (int32_t i = 0; i < g.count; ++i) stillMember_[groupMembers_[g.first + i]] = 0;
  // Where the floor meets a wall or the image's last row, a line a pixel or two high
  // survives the floor's slope test and would tie the person to the room: a body is at
  // least three pixels high wherever it is.
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    for (int32_t x = g.minX; x <= g.maxX; ++x) {
      if (stillMask_.row(y)[x] == 0) continue;
      int32_t column = 0;
      for (int32_t k = std::max(y - 2, 0); k <= std::min(y + 2, height_ - 1); ++k) column += stillMask_.row(k)[x] != 0;
      if (column < 3) stillMask_.row(y)[x] = 3;  // after the pass: the test reads the first state
    }
  }
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    uint8_t* m = stillMask_.row(y);
    for (int32_t x = g.minX; x <= g.maxX; ++x) m[x] = m[x] == 3 ? 0 : m[x];
  }

  // Without the floor, what is left of it may still touch the person at a few pixels, or
  // lie about in specks: the largest connected part stays, with the large parts that
  // touch its box (a carried box or an arm in front of the body is a part of its own).
  fillOrder_.clear();
  stillParts_.clear();
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    for (int32_t x = g.minX; x <= g.maxX; ++x) {
      if (stillMask_.row(y)[x] != 1) continue;
      StillPart part;
      part.first = fillOrder_.size();
      stillMask_.row(y)[x] = 2;
      fillOrder_.push_back(y * width_ + x);
      for (size_t k = part.first; k < fillOrder_.size(); ++k) {
        const int32_t px = fillOrder_[k] % width_, py = fillOrder_[k] / width_;
        part.box.add(px, py, 0);
        const int32_t depth = labellingDepth_.row(py)[px], shift = labellingShift_.row(py)[px];
        const int32_t next[4][2] = {{px - 1, py}, {px + 1, py}, {px, py - 1}, {px, py + 1}};
        for (const auto& [nx, ny] : next) {
          if (nx < 0 || ny < 0 || nx >= width_ || ny >= height_ || stillMask_.row(ny)[nx] != 1) continue;
          // Joined as the regions are: close in depth, or in shift where the depth is coarse.
          if (std::abs(int32_t(labellingDepth_.row(ny)[nx]) - depth) > kJoinDepth &&
              std::abs(int32_t(labellingShift_.row(ny)[nx]) - shift) > kJoinShift) {
            continue;
          }
          stillMask_.row(ny)[nx] = 2;
          fillOrder_.push_back(ny * width_ + nx);
        }
      }
      part.count = fillOrder_.size() - part.first;
      stillParts_.push_back(part);
    }
  }
  for (int32_t y = g.minY; y <= g.maxY; ++y) {
    uint8_t* m = stillMask_.row(y);
    for (int32_t x = g.minX; x <= g.maxX; ++x) m[x] = 0;
  }
  return keep_still_parts(g.meanDepth, box);
}

// Of the connected parts of a cut (stillParts_), the largest stays, and with it, one after
// another, the parts that come near what already belongs to it: a box held at the chest hides
// the shoulders, and the projector's shadow along its top edge leaves a gap of a few rows
// between the head and the rest. Writes them into stillMask_; returns their area (mm2).
int64_t UserSegmenter::keep_still_parts(double meanDepth, Box3D<int>& box) {
  box.reset();
  if (stillParts_.empty()) return 0;
  const StillPart& largest = *std::max_element(
      stillParts_.begin(), stillParts_.end(), [](const StillPart& a, const StillPart& b) { return a.count < b.count; });
  const int32_t reachGap = std::max(kGroupTouch, int32_t(kStillPartGap / pixel_size(meanDepth)));
  Box3D<int> reach = largest.box;
  stillTaken_.assign(stillParts_.size(), 0);
  stillTaken_[size_t(&largest - stillParts_.data())] = 1;
  for (bool grew = true; grew;) {
    grew = false;
    for (size_t i = 0; i < stillParts_.size(); ++i) {
      const StillPart& part = stillParts_[i];
      if (stillTaken_[i] || part.count * 100 < largest.count * kStillPartPercent) continue;
      const int32_t gapX = std::max(part.box.minX - reach.maxX, reach.minX - part.box.maxX);
      const int32_t gapY = std::max(part.box.minY - reach.maxY, reach.minY - part.box.maxY);
      if (gapX > kGroupTouch || gapY > reachGap) continue;
      stillTaken_[i] = 1;
      reach.add(part.box.minX, part.box.minY, 0);
      reach.add(part.box.maxX, part.box.maxY, 0);
      grew = true;
    }
  }
  int64_t weight = 0;
  for (size_t i = 0; i < stillParts_.size(); ++i) {
    if (!stillTaken_[i]) continue;
    const StillPart& part = stillParts_[i];
    for (size_t k = part.first; k < part.first + part.count; ++k) {
      const int32_t x = fillOrder_[k] % width_, y = fillOrder_[k] / width_;
      const int32_t depth = labellingDepth_.row(y)[x] - kPushDepth;
      stillMask_.row(y)[x] = 1;
      box.add(x, y, depth);
      weight += weight_[depth];
    }
  }
  return weight / 100;
}

// A head is narrower than the shoulders below it; a cabinet or a column of boxes is as wide
// at the top as further down, and the forest, which sees a body-sized blob, may not tell.
bool UserSegmenter::has_head(const Box3D<int>& box) const {
  const int32_t rows = box.maxY - box.minY + 1;
  if (rows < 10) return false;
  int32_t head[kMaxHeadRows] = {}, headRows = 0, shoulders = 0;
  for (int32_t y = box.minY; y <= box.maxY; ++y) {
    const int32_t at = (y - box.minY) * 100 / rows;
    if (at >= kStillShoulderEnd) break;
    int32_t count = 0;
    const uint8_t* m = stillMask_.row(y);
    for (int32_t x = box.minX; x <= box.maxX; ++x) count += m[x];
    if (at < kStillHeadEnd && headRows < kMaxHeadRows) head[headRows++] = count;
    if (at >= kStillShoulderStart) shoulders = std::max(shoulders, count);
  }
  std::sort(head, head + headRows);
  return headRows > 0 && head[headRows / 2] * 100 <= shoulders * kStillHeadWidthPercent;
}

// Static pixels of nobody are pushed away in the labelling images, so a person who has
// stood still since the background was learnt has no near pixels; their static regions,
// cut off from the floor when it is known, are proposals, and the forest decides. Both
// every large static region and every group of them are proposed: a person may fall
// apart into regions where an arm or a bag hides the waist, and may also stand beside a
// cabinet at the same depth, which a group would take in.
void UserSegmenter::find_still_people() {
  for (StillProposal& p : still_) p.seen = false;
  if (!personCheck_ || mapper_ == nullptr || freeCount_ == 0) return;
  group_static_regions();
  int32_t sources = 0;
  for (int32_t gi = 0; gi < groupCount_ && sources < kMaxGroupRegions; ++gi) {
    const Group& g = groups_[gi];
    if (g.count > 1) stillSources_[sources++] = g;
    for (int32_t i = 0; i < g.count && sources < kMaxGroupRegions; ++i) {
      const RegionStats& s = regions_[groupMembers_[g.first + i]];
      Group& single = stillSources_[sources++];
      single = Group{};
      single.first = g.first + i;
      single.count = 1;
      single.area = s.farWeight / 100;
      single.minX = s.farMinX, single.maxX = s.farMaxX, single.minY = s.farMinY, single.maxY = s.farMaxY;
      single.minDepth = s.farMinDepth, single.maxDepth = s.farMaxDepth;
      single.meanDepth = double(s.farSumDepth) / double(std::max(s.farPixels, 1));
      single.worldX =
          (double(s.farSumX) / double(std::max(s.farPixels, 1)) - mapper_->centerX) * pixel_size(single.meanDepth);
      single.height = world_height(s.farMinY, s.farMaxY, single.meanDepth);
    }
  }

  bool asked = false;
  for (int32_t i = 0; i < sources; ++i) {
    const Group& g = stillSources_[i];
    // Someone cut off by the bottom of the image shows less of their height.
    const int32_t tallEnough = g.maxY >= height_ - 1 - kBorderColumns ? kStillCutHeight : kPersonHeight;
    if (g.area < kPersonArea || g.minDepth >= kFarCut || g.height < tallEnough) {
      continue;
    }
    const float x = float(g.worldX), z = float(g.meanDepth);
    StillProposal* p = nullptr;
    float best = kStillMatch;
    for (StillProposal& q : still_) {
      const float d = std::hypot(q.x - x, q.z - z);
      if (q.used && !q.seen && d <= best) best = d, p = &q;
    }
    for (StillProposal& q : still_) {
      if (p == nullptr && !q.used) {
        q = StillProposal{};
        q.used = true;
        q.nextCheck = frame_;
        p = &q;
      }
    }
    if (p == nullptr) continue;
    p->seen = true;
    p->x = x, p->z = z;
    if (p->nextCheck > frame_ || asked || freeCount_ == 0) continue;

    Box3D<int> box;
    const int64_t area = cut_still_person(g, box);
    if (area < kPersonArea) {
      // Nothing or little is left after the cut (its box may be empty): look again soon.
      p->nextCheck = frame_ + kStillShapeWait;
      continue;
    }
    const double depth = 0.5 * (box.minZ + box.maxZ);
    const int32_t height = world_height(box.minY, box.maxY, depth);
    const int32_t width = int32_t(double(box.maxX - box.minX + 1) * pixel_size(depth));
    const int32_t cutTallEnough = box.maxY >= height_ - 1 - kBorderColumns ? kStillCutHeight : kPersonHeight;
    const bool personSized = area >= kPersonArea && area <= kPersonMaxArea && height >= cutTallEnough &&
                             height <= kPersonMaxHeight && width <= kPersonMaxWidth &&
                             box.maxZ - box.minZ <= kStillThickness && !covered_by_users(box) && has_head(box);
    if (!personSized) {
      // Its shape may change as the floor is found or someone steps away: cut it again
      // soon, without a question to the forest.
      p->nextCheck = frame_ + kStillShapeWait;
      continue;
    }
    // One question to the forest per frame at most.
    asked = true;
    if (!personCheck_(stillMask_).person) {
      ++p->no;
      p->yes = 0;
      p->nextCheck = frame_ + uint64_t(std::min(kStillFirstWait << std::min(p->no - 1, 4), kStillLongestWait));
      continue;
    }
    ++p->yes;
    p->nextCheck = frame_ + 1;
    if (p->yes < kStillYes) continue;
    const int32_t id = create_user();
    UserRecord& user = users_[id];
    user.history[0] = {p->x, 0.f, p->z};
    user.historyIndex = 1;
    user.historyCount = 1;
    // The user owns no region yet: relabel gives it the cut pixels. From the next frame
    // on they carried an id, are no longer pushed away, and form near regions that
    // inherit it; what lay behind the cut stays pushed and apart.
    seedUser_ = id;
    *p = StillProposal{};
  }
  for (StillProposal& p : still_) {
    if (p.used && !p.seen) p = StillProposal{};
  }
}

}  // namespace quorvik::legacy
