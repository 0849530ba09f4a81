// New users from what moves. Unowned foreground regions are grouped by touching boxes and
// depth ranges; a group may give a lost user back its id, a confirmed person candidate
// gathers the regions inside its box, and a person-sized group that is followed for a few
// frames while it moves becomes a user. The order of the paths and their thresholds are in
// users_rules.h.

#include <algorithm>
#include <cmath>

#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

// Groups the regions groupRegion_[0, n) into groups_: two regions join when their boxes come
// within kGroupTouch pixels and their depth ranges within depthGap millimetres, on their near
// pixels, or on their pushed-away ones where `far`. The groups come in the order of their
// first region, each with its members listed contiguously in groupMembers_ and its box and
// depth range set; the rest of each Group is the caller's.
void UserSegmenter::form_groups(int32_t n, bool far, int32_t depthGap) {
  struct Extent {
    int32_t minX, maxX, minY, maxY, minDepth, maxDepth;
  };
  Extent extent[kMaxGroupRegions];
  for (int32_t i = 0; i < n; ++i) {
    const RegionStats& s = regions_[groupRegion_[i]];
    extent[i] = far ? Extent{s.farMinX, s.farMaxX, s.farMinY, s.farMaxY, s.farMinDepth, s.farMaxDepth}
                    : Extent{s.minX, s.maxX, s.minY, s.maxY, s.minDepth, s.maxDepth};
  }
  regionGroups_.reset(n);
  for (int32_t i = 0; i < n; ++i) {
    const Extent& a = extent[i];
    for (int32_t j = i + 1; j < n; ++j) {
      const Extent& b = extent[j];
      if (a.minX > b.maxX + kGroupTouch || b.minX > a.maxX + kGroupTouch || a.minY > b.maxY + kGroupTouch ||
          b.minY > a.maxY + kGroupTouch || a.minDepth > b.maxDepth + depthGap || b.minDepth > a.maxDepth + depthGap) {
        continue;
      }
      regionGroups_.unite(i, j);
    }
  }

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
    const Extent& e = extent[i];
    groupMembers_[g.first + g.count++] = groupRegion_[i];
    g.minX = std::min(g.minX, e.minX), g.maxX = std::max(g.maxX, e.maxX);
    g.minY = std::min(g.minY, e.minY), g.maxY = std::max(g.maxY, e.maxY);
    g.minDepth = std::min(g.minDepth, e.minDepth), g.maxDepth = std::max(g.maxDepth, e.maxDepth);
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
  form_groups(n, false, kGroupDepthGap);
  for (int32_t gi = 0; gi < groupCount_; ++gi) {
    Group& g = groups_[gi];
    for (int32_t k = g.first; k < g.first + g.count; ++k) {
      const RegionStats& s = regions_[groupMembers_[k]];
      g.area += s.weight;
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

}  // namespace quorvik::legacy
