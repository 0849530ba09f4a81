// Stage 2 of the users stage: new users, attachment, user update and the final label map.

#include <algorithm>
#include <cmath>

#include "op/union_find.h"
#include "segmentation/floor_detector.h"
#include "segmentation/user_ids.h"
#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

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
}

// The sets of regionGroups_ over groupRegion_[0, n) as groups_, in the order of their first
// region, each with its members listed contiguously in groupMembers_ and empty extents.
void UserSegmenter::list_groups(int32_t n) {
  int32_t groupOf[kMaxGroupRegions];
  groupCount_ = regionGroups_.number_sets(groupOf);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    Group& g = groups_[gi];
    g = Group{};
    g.minX = g.minY = g.minDepth = INT32_MAX;
    g.maxX = g.maxY = g.maxDepth = INT32_MIN;
  }
  for (int32_t i = 0; i < n; ++i) groups_[groupOf[i]].count++;
  int32_t offset = 0;
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    groups_[gi].first = offset;
    offset += groups_[gi].count;
    groups_[gi].count = 0;
  }
  for (int32_t i = 0; i < n; ++i) {
    Group& g = groups_[groupOf[i]];
    groupMembers_[g.first + g.count++] = groupRegion_[i];
  }
}

// Groups the unowned, mostly-foreground regions into groups_ (see users_rules.h).
int32_t UserSegmenter::group_unowned_regions(bool excludeNearUsers) {
  int32_t n = 0;
  for (int32_t r = 1; r <= regionCount_ && n < kMaxGroupRegions; ++r) {
    const RegionStats& s = regions_[r];
    if (owner_[r] != 0 || !s.usable() || s.handedBack || !s.mostlyForeground || s.weight < kRegionMinArea) continue;
    bool nearUser = false;
    for (int32_t id = 1; id <= kMaxUsers && excludeNearUsers && s.fragment == 0 && !nearUser; ++id) {
      const UserRecord& user = users_[id];
      if (!user.active || user.box.empty()) continue;
      const Box3D<int>& b = user.box;
      nearUser = s.meanX >= b.minX - kNearUserColumns && s.meanX <= b.maxX + kNearUserColumns &&
                 s.meanY >= b.minY - kNearUserColumns && s.meanY <= b.maxY + kNearUserColumns &&
                 std::abs(s.meanDepth - user.meanDepth) <= kNearUserDepth;
    }
    if (nearUser) continue;
    groupRegion_[n++] = r;
  }
  regionGroups_.reset(n);
  for (int32_t i = 0; i < n; ++i) {
    const RegionStats& a = regions_[groupRegion_[i]];
    for (int32_t j = i + 1; j < n; ++j) {
      const RegionStats& b = regions_[groupRegion_[j]];
      if (a.minX > b.maxX + kGroupTouch || b.minX > a.maxX + kGroupTouch || a.minY > b.maxY + kGroupTouch ||
          b.minY > a.maxY + kGroupTouch || a.minDepth > b.maxDepth + kGroupDepthGap ||
          b.minDepth > a.maxDepth + kGroupDepthGap) {
        continue;
      }
      regionGroups_.unite(i, j);
    }
  }
  list_groups(n);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    Group& g = groups_[gi];
    for (int32_t k = g.first; k < g.first + g.count; ++k) {
      const RegionStats& s = regions_[groupMembers_[k]];
      g.area += s.weight;
      g.minX = std::min(g.minX, s.minX), g.maxX = std::max(g.maxX, s.maxX);
      g.minY = std::min(g.minY, s.minY), g.maxY = std::max(g.maxY, s.maxY);
      g.minDepth = std::min(g.minDepth, s.minDepth), g.maxDepth = std::max(g.maxDepth, s.maxDepth);
      g.meanDepth += s.meanDepth * double(s.weight);
      g.worldX += s.worldX * double(s.weight);
    }
    if (g.area > 0) {
      g.meanDepth /= double(g.area);
      g.worldX /= double(g.area);
    }
    g.height = world_height(g.minY, g.maxY, g.meanDepth);
    g.width = int32_t(double(g.maxX - g.minX + 1) * pixel_size(g.meanDepth));
  }
  return groupCount_;
}

void UserSegmenter::reacquire_lost_users() {
  bool anyLost = false;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    const UserRecord& u = users_[id];
    anyLost = anyLost || (u.active && u.area < kLostArea && !u.secondOfPair && u.seen);
  }
  if (!anyLost) return;
  group_unowned_regions(true);
  bool taken[kMaxUsers + 1] = {};
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    const Group& g = groups_[gi];
    // Someone coming back shows their full height, if only as a sliver; a piece of less
    // height is more likely an arm or a leg of a person beside them.
    if (g.area < kReacquireArea || g.height < kPersonHeight) continue;
    int32_t best = 0;
    double bestDistance = 0;
    const bool groupLeft = g.minX <= kBorderColumns, groupRight = g.maxX >= width_ - 1 - kBorderColumns;
    for (int32_t id = 1; id <= kMaxUsers; ++id) {
      const UserRecord& u = users_[id];
      // After two seconds out of sight whoever appears is someone new.
      if (!u.active || u.area >= kLostArea || u.secondOfPair || !u.seen || taken[id] ||
          u.framesUnseen > kReacquireFrames) {
        continue;
      }
      const double dz = g.meanDepth - u.position.z, dx = g.worldX - u.position.x;
      if (std::abs(dz) > kReacquireDepth) continue;
      // A user last seen at the side of the image walked out of view: only someone coming
      // back in on that side takes the id. One lost in the middle was hidden by something
      // in front and may come out on the other side of it, farther the longer it was gone.
      const bool leftView = u.lastBox.minX <= kBorderColumns, rightView = u.lastBox.maxX >= width_ - 1 - kBorderColumns;
      if (leftView || rightView) {
        if (!((leftView && groupLeft) || (rightView && groupRight))) continue;
      } else {
        const double side = kReacquireSide + kReacquireSidePerFrame * std::min(u.framesUnseen, kReacquireFrames);
        if (std::abs(dx) > side) continue;
      }
      const double distance = dx * dx + dz * dz;
      if (best == 0 || distance < bestDistance) best = id, bestDistance = distance;
    }
    if (best == 0) continue;
    taken[best] = true;
    for (int32_t i = 0; i < g.count; ++i) give_region(best, groupMembers_[g.first + i]);
    gather_owned(best);
  }
}

bool UserSegmenter::covered_by_users(const Box3D<int>& b) const {
  const int64_t boxPixels = int64_t(b.maxX - b.minX + 1) * int64_t(b.maxY - b.minY + 1);
  int64_t overlapPixels = 0, insideArea = 0;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    const UserRecord& u = users_[id];
    if (!u.active) continue;
    for (int32_t i = 0; i < u.regionCount; ++i) {
      const RegionStats& s = regions_[u.regions[i]];
      const int64_t ix = int64_t(std::min(b.maxX, s.maxX)) - std::max(b.minX, s.minX) + 1;
      const int64_t iy = int64_t(std::min(b.maxY, s.maxY)) - std::max(b.minY, s.minY) + 1;
      if (ix > 0 && iy > 0) overlapPixels += ix * iy;
      if (s.meanX > b.minX && s.meanX < b.maxX && s.meanY > b.minY && s.meanY < b.maxY && s.meanDepth > b.minZ &&
          s.meanDepth < b.maxZ) {
        insideArea += s.weight;
      }
    }
  }
  return 2 * overlapPixels > boxPixels || insideArea > kCandidateArea;
}

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
  regionGroups_.reset(n);
  for (int32_t i = 0; i < n; ++i) {
    const RegionStats& a = regions_[groupRegion_[i]];
    for (int32_t j = i + 1; j < n; ++j) {
      const RegionStats& b = regions_[groupRegion_[j]];
      if (a.farMinX > b.farMaxX + kGroupTouch || b.farMinX > a.farMaxX + kGroupTouch ||
          a.farMinY > b.farMaxY + kGroupTouch || b.farMinY > a.farMaxY + kGroupTouch ||
          a.farMinDepth > b.farMaxDepth || b.farMinDepth > a.farMaxDepth) {
        continue;
      }
      regionGroups_.unite(i, j);
    }
  }
  list_groups(n);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    Group& g = groups_[gi];
    for (int32_t k = g.first; k < g.first + g.count; ++k) {
      const RegionStats& s = regions_[groupMembers_[k]];
      g.area += s.farWeight / 100;
      g.minX = std::min(g.minX, s.farMinX), g.maxX = std::max(g.maxX, s.farMaxX);
      g.minY = std::min(g.minY, s.farMinY), g.maxY = std::max(g.maxY, s.farMaxY);
      g.minDepth = std::min(g.minDepth, s.farMinDepth), g.maxDepth = std::max(g.maxDepth, s.farMaxDepth);
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

// The near part of a static group into stillMask_: a person who stands close to a
// cabinet or a wall joins it through the grazing pixels of their outline, but few pixels
// lie between the two, so the group's depths have a gap behind the person. Returns the
// part's area (mm2) and its box.
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
  for (int32_t k = kStillSlopeRows; k <= kStillSlopeReach && above == 0 && y - k >= 0; ++k) above = depth_at(y - k), up = k;
  for (int32_t k = kStillSlopeRows; k <= kStillSlopeReach && below == 0 && y + k < height_; ++k) below = depth_at(y + k), down = k;
  if (above != 0 && below != 0 && (above - d) * kStillFloorSlope > up * d && (d - below) * kStillFloorSlope > down * d) {
    return false;
  }
  if (!floorPlane_.known) return true;
  // Where the floor mask does not reach, the plane still tells floor from feet.
  const int32_t shift = labellingShift_.row(y)[x] - int32_t(kPushShift);
  const double floor = floor_shift_at(floorPlane_.a, floorPlane_.b, floorPlane_.c, x, y);
  return std::abs(double(shift) - floor) > kStillFloorShift;
}

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
  box.reset();
  if (stillParts_.empty()) return 0;
  const StillPart& largest =
      *std::max_element(stillParts_.begin(), stillParts_.end(), [](const StillPart& a, const StillPart& b) { return a.count < b.count; });
  const Box3D<int> reach = largest.box;
  int64_t weight = 0;
  for (const StillPart& part : stillParts_) {
    const bool touches = part.box.minX <= reach.maxX + kGroupTouch && part.box.maxX >= reach.minX - kGroupTouch &&
                         part.box.minY <= reach.maxY + kGroupTouch && part.box.maxY >= reach.minY - kGroupTouch;
    if (&part != &largest && (!touches || part.count * 100 < largest.count * kStillPartPercent)) continue;
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
      single.worldX = (double(s.farSumX) / double(std::max(s.farPixels, 1)) - mapper_->centerX) *
                      pixel_size(single.meanDepth);
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
    if (!personCheck_(stillMask_)) {
      ++p->no;
      p->nextCheck = frame_ + uint64_t(std::min(kStillFirstWait << std::min(p->no - 1, 4), kStillLongestWait));
      continue;
    }
    ++p->yes;
    p->nextCheck = frame_ + 1;
    if (p->yes < kStillYes || p->yes <= p->no) continue;
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

void UserSegmenter::create_from_candidates(std::span<const TrackedCandidate> candidates) {
  if (mapper_ == nullptr) return;
  int16_t gathered[UserRecord::kMaxRegions];
  for (const TrackedCandidate& c : candidates) {
    if (freeCount_ == 0) return;
    if (!c.confirmed) continue;
    const Box3D<int> b = c.box();
    if (b.empty()) continue;

    if (covered_by_users(b)) continue;

    const uint32_t z1 = uint32_t(std::max(b.maxZ, 0));
    const int32_t m = int32_t(mapper_->inverse_pixel_size_at(z1) * 1000.0);
    const int32_t half = m / 2;
    const int64_t cap = int64_t(mapper_->pixel_area_at(z1)) * (b.maxY - b.minY) * (b.maxX - b.minX) * 3 / 2;
    int64_t area = 0;
    int32_t count = 0, minY = INT32_MAX, maxY = INT32_MIN;
    double depthSum = 0;
    for (int32_t r = 1; r <= regionCount_ && count < UserRecord::kMaxRegions; ++r) {
      const RegionStats& s = regions_[r];
      if (owner_[r] != 0 || s.handedBack || !s.usable()) continue;
      if (!(s.meanX > b.minX && s.meanX < b.maxX && s.meanY > b.minY && s.meanY < b.maxY && s.meanDepth > b.minZ &&
            s.meanDepth < b.maxZ)) {
        continue;
      }
      if (s.minX < b.minX - m || s.maxX > b.maxX + m || s.minY < b.minY - half || s.maxY > b.maxY + half ||
          s.minDepth < b.minZ - 1000 || s.maxDepth > b.maxZ + 500) {
        continue;
      }
      if (area + s.weight >= cap) continue;
      area += s.weight;
      gathered[count++] = int16_t(r);
      minY = std::min(minY, s.minY), maxY = std::max(maxY, s.maxY);
      depthSum += s.meanDepth * double(s.weight);
    }
    if (area < kCandidateArea || world_height(minY, maxY, depthSum / double(area)) < kPersonHeight) continue;
    const int32_t id = create_user();
    UserRecord& user = users_[id];
    // The candidate's track, oldest first, becomes the start of the user's history.
    const int32_t length = c.wrapped ? TrackedCandidate::kHistory : c.next;
    const int32_t oldest = c.wrapped ? c.next : 0;
    for (int32_t i = 0; i < length; ++i) {
      const CandidateSnapshot& snapshot = c.history[(oldest + i) % TrackedCandidate::kHistory];
      user.history[user.historyIndex] = {float(snapshot.medianX), 0.f, float(snapshot.medianDepth)};
      user.historyIndex = (user.historyIndex + 1) % UserRecord::kHistory;
      user.historyCount = std::min(user.historyCount + 1, UserRecord::kHistory);
    }
    for (int32_t i = 0; i < count; ++i) give_region(id, gathered[i]);
    gather_owned(id);
  }
}

void UserSegmenter::create_from_foreground() {
  for (PendingPerson& p : pending_) p.matched = false;
  group_unowned_regions(true);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    const Group& g = groups_[gi];
    const bool personLike = g.area >= kPersonArea && g.area <= kPersonMaxArea && g.height >= kPersonHeight &&
                            g.height <= kPersonMaxHeight && g.width <= kPersonMaxWidth;
    if (!personLike) continue;
    const float x = float(g.worldX), z = float(g.meanDepth);
    PendingPerson* match = nullptr;
    float best = kPendingMatch;
    for (PendingPerson& p : pending_) {
      if (!p.used || p.matched) continue;
      const float d = std::hypot(p.x - x, p.z - z);
      if (d <= best) best = d, match = &p;
    }
    if (match == nullptr) {
      for (PendingPerson& p : pending_) {
        if (p.used) continue;
        p = PendingPerson{};
        p.used = true;
        p.firstX = x, p.firstZ = z;
        match = &p;
        break;
      }
    }
    if (match == nullptr) continue;
    match->matched = true;
    match->x = x, match->z = z;
    match->moved = std::max(match->moved, std::hypot(x - match->firstX, z - match->firstZ));
    ++match->frames;
    if (match->frames < kPendingFrames || match->moved < kPendingMoved) continue;
    const int32_t id = create_user();
    if (id == 0) break;
    for (int32_t i = 0; i < g.count; ++i) give_region(id, groupMembers_[g.first + i]);
    gather_owned(id);
    *match = PendingPerson{};
  }
  for (PendingPerson& p : pending_) {
    if (p.used && !p.matched) p = PendingPerson{};
  }
}

void UserSegmenter::attach_unowned_regions() {
  Box3D<int> boxes[kMaxUsers + 1];
  double depths[kMaxUsers + 1] = {};
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    if (users_[id].active) boxes[id] = users_[id].box, depths[id] = users_[id].meanDepth;
  }
  for (int32_t r = 1; r <= regionCount_; ++r) {
    const RegionStats& s = regions_[r];
    if (owner_[r] != 0 || !s.usable() || s.handedBack) continue;
    int32_t best = 0;
    double bestDistance = 0;
    for (int32_t id = 1; id <= kMaxUsers; ++id) {
      const Box3D<int>& b = boxes[id];
      if (!users_[id].active || b.empty()) continue;
      if (s.minX < b.minX - 1 || s.maxX > b.maxX + 1 || s.minY < b.minY - 1 || s.maxY > b.maxY + 1) continue;
      const double distance = std::abs(s.meanDepth - depths[id]);
      if (distance > kAttachDepth) continue;
      if (best == 0 || distance < bestDistance) best = id, bestDistance = distance;
    }
    if (best != 0) give_region(best, r);
  }
}

void UserSegmenter::update_users() {
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active) continue;
    gather_owned(id);
    const int64_t limit = user.pairPartner != 0 ? kPairedAreaLimit : kAreaLimit;
    if (user.area > limit) {
      remove_user(id);
      continue;
    }
    if (user.probation && (user.box.empty() || user.secondOfPair)) {
      remove_user(id);
      continue;
    }
    ++user.age;
    const double depth = user.box.empty() ? 0.0 : 0.5 * (user.box.minZ + user.box.maxZ);
    const bool doubtful = user.box.empty() || world_height(user.box.minY, user.box.maxY, depth) < kDoubtfulHeight ||
                          user.area < kDoubtfulArea;
    if (user.age < kProbationAge && (doubtful || user.secondOfPair)) user.probation = true;
    if (user.age >= kProbationEnd) user.probation = false;
    user.lostCounter = (user.area < kLostArea && !user.secondOfPair) ? user.lostCounter + 1 : 0;
    if (user.lostCounter >= kLostFrames) remove_user(id);
  }
}

// Relabelling, with the pair boundaries cut and the users' pixels measured in the same pass.
// Inside a region that the first user of a pair owns and that covers pixels of the second
// user's previous frame, a pixel on a surface that only one of the two claims goes to that
// one; any other pixel goes to the second user when the second user had it before, or when
// neither of the two had it and it lies on the second user's side of the split column.
void UserSegmenter::relabel() {
  for (int32_t r = 1; r <= regionCount_; ++r) {
    if (owner_[r] != 0 && !users_[owner_[r]].active) owner_[r] = 0;
    cutEvent_[r] = -1;
  }
  for (int32_t e = 0; e < kMaxPairs; ++e) {
    const PairEvent& event = pairs_[e];
    if (!event.used || !users_[event.first].active || !users_[event.second].active) continue;
    const UserRecord& first = users_[event.first];
    for (int32_t i = 0; i < first.regionCount; ++i) {
      const int32_t r = first.regions[i];
      if (regions_[r].overlap[event.second] > 0) cutEvent_[r] = int8_t(e);
    }
  }
  bool anyCut = false;
  for (int32_t r = 1; r <= regionCount_ && !anyCut; ++r) anyCut = cutEvent_[r] >= 0;
  if (anyCut) claim_pair_surfaces();
  for (LabelSums& m : labelSums_) m = LabelSums{};
  Array2D<uint16_t>& labels = labelRing_.current();
  const Array2D<uint16_t>& previous = labelRing_.back(1);
  for (int32_t y = 0; y < labels.height(); ++y) {
    uint16_t* l = labels.row(y);
    const uint16_t* p = previous.row(y);
    const uint16_t* d = labellingDepth_.row(y);
    const uint8_t* seed = seedUser_ != 0 && users_[seedUser_].active ? stillMask_.row(y) : nullptr;
    for (int32_t x = 0; x < labels.width(); ++x) {
      const int32_t r = l[x];
      if (r == 0) continue;
      if (r > regionCount_) {
        l[x] = kNobody;
        continue;
      }
      uint32_t o = owner_[r];
      if (o == 0 && seed != nullptr && seed[x] != 0) o = uint32_t(seedUser_);
      if (o != 0 && cutEvent_[r] >= 0) {
        const PairEvent& event = pairs_[cutEvent_[r]];
        if (const uint8_t surface = anyCut ? surface_owner(x, y) : 0; surface != 0) {
          o = surface;
        } else if (p[x] == event.second) {
          o = uint32_t(event.second);
        } else if (p[x] != event.first && (x < event.splitColumn) == event.secondOnLeft) {
          o = uint32_t(event.second);
        }
      }
      l[x] = uint16_t(o);
      // A still person found this frame still has its pixels pushed away.
      const int32_t z = d[x] >= kPushDepth && d[x] < kZeroDepth ? d[x] - kPushDepth : d[x];
      if (o != 0 && z < kPushDepth) {
        LabelSums& m = labelSums_[o];
        ++m.pixels;
        m.minX = std::min(m.minX, x), m.maxX = std::max(m.maxX, x);
        m.minY = std::min(m.minY, y), m.maxY = std::max(m.maxY, y);
        m.minZ = std::min(m.minZ, z), m.maxZ = std::max(m.maxZ, z);
        m.x += x, m.y += y, m.z += z;
        m.weight += weight_[z];
      }
    }
  }
}

void UserSegmenter::measure_users() {
  userBoxCount_ = 0;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active) continue;
    const LabelSums& s = labelSums_[id];
    user.previousArea = user.labelArea;
    user.labelPixels = s.pixels;
    user.labelArea = s.weight / 100;
    user.labelBox.reset();
    if (s.pixels == 0) {
      ++user.framesUnseen;
      continue;
    }
    user.labelBox.add(s.minX, s.minY, s.minZ);
    user.labelBox.add(s.maxX, s.maxY, s.maxZ);
    user.lastBox = user.labelBox;
    userBoxes_[userBoxCount_++] = user.labelBox;
    const double n = double(s.pixels);
    const double mx = double(s.x) / n, my = double(s.y) / n, mz = double(s.z) / n;
    const double size = pixel_size(mz);
    const double cx = mapper_ != nullptr ? mapper_->centerX : 0.0, cy = mapper_ != nullptr ? mapper_->centerY : 0.0;
    user.position = {float((mx - cx) * size), float((cy - my) * size), float(mz)};
    user.centroidColumn = mx;
    user.history[user.historyIndex] = user.position;
    user.historyIndex = (user.historyIndex + 1) % UserRecord::kHistory;
    user.historyCount = std::min(user.historyCount + 1, UserRecord::kHistory);
    user.worldHeight = world_height(s.minY, s.maxY, mz);
    user.maxWorldHeight = std::max(user.maxWorldHeight, user.worldHeight);
    user.framesUnseen = 0;
    user.seen = true;
  }
}

// An older user that has shrunk to a small low blob is flagged; the hand-back of static
// regions then lets its static parts go back to the background.
void UserSegmenter::check_shapes() {
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active) continue;
    user.shapeFlag = user.age > kProbationAge && user.labelPixels > 0 && user.worldHeight < kStaticBlobHeight;
  }
}

}  // namespace quorvik::legacy
