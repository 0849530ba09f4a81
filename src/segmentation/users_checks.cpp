// What the users keep after the carry-over. A scene change in the background removes the
// users that no longer match what was labelled; static parts that a user took along from the
// background (a wall it leant on, the chair it sat in) go back to it; and groups of a user's
// regions that lie apart from its body (furniture behind it, a second person who has stepped
// away) are let go. The regions handed back are listed for the engine, which writes them into
// the background model.

#include <algorithm>

#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

void UserSegmenter::check_against_background(const BackgroundModel& background) {
  if (background.badFrame) {
    for (int32_t id = 1; id <= kMaxUsers; ++id) {
      if (users_[id].active && users_[id].regionCount == 0) remove_user(id);
    }
  }
  if (!background.sceneChanging) return;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    // Paired users hand their regions to the first of the pair; they are judged together
    // with it and not on their own lists.
    if (!user.active || in_pair(id)) continue;
    if (user.age < int32_t(background.changeDepth)) {
      remove_user(id);
      continue;
    }
    int64_t present = 0;
    for (int32_t i = 0; i < user.regionCount; ++i) present += regions_[user.regions[i]].weight;
    if (3 * present < 2 * user.labelArea || 10 * overlapTotals_[id][id] < 8 * present) remove_user(id);
  }
}

void UserSegmenter::hand_back_static_regions() {
  bool anyStatic = false;
  for (int32_t id = 1; id <= kMaxUsers && !anyStatic; ++id) {
    const UserRecord& user = users_[id];
    if (!user.active) continue;
    for (int32_t i = 0; i < user.regionCount && !anyStatic; ++i) {
      const RegionStats& s = regions_[user.regions[i]];
      anyStatic = 10 * s.foregroundWeight < s.weight;
    }
  }
  if (!anyStatic) return;

  int64_t area[kMaxUsers + 1] = {}, foreground[kMaxUsers + 1] = {};
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    const UserRecord& user = users_[id];
    if (!user.active) continue;
    for (int32_t i = 0; i < user.regionCount; ++i) {
      area[id] += regions_[user.regions[i]].weight;
      foreground[id] += regions_[user.regions[i]].foregroundWeight;
    }
  }
  for (const PairEvent& event : pairs_) {
    if (!event.used) continue;
    const int64_t a = std::min(area[event.first], area[event.second]);
    const int64_t m = std::min(foreground[event.first], foreground[event.second]);
    area[event.first] = area[event.second] = a;
    foreground[event.first] = foreground[event.second] = m;
  }
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active) continue;
    const int64_t A = area[id], M = foreground[id];
    const bool examineAll = !in_pair(id) && 4 * M >= A;
    const int64_t h = user.maxWorldHeight;
    const int64_t limit = std::min(h * h / 3, A);
    int32_t kept = 0;
    for (int32_t i = 0; i < user.regionCount; ++i) {
      const int32_t r = user.regions[i];
      RegionStats& s = regions_[r];
      const int64_t a = s.weight, m = s.foregroundWeight;
      bool release = false;
      if ((examineAll || a <= kSmallStaticRegion) && 10 * m < a && 4 * m < limit) {
        if (10 * m >= M) {
          release = user.shapeFlag;
        } else if (M >= kHandBackForeground) {
          release = true;
          s.handedBack = true;
          s.handedBackBy = uint8_t(id);
        }
      }
      if (release) {
        owner_[r] = 0;
      } else {
        user.regions[kept++] = int16_t(r);
      }
    }
    user.regionCount = kept;
  }
}

// Fragments. A user's regions are grouped by overlapping image boxes. When there is more
// than one group, the main group is the nearest person-sized one (area above 100,000 mm2,
// height above 800 mm). Another group loses its regions when
//  - it lies entirely behind the main group and is a blob rather than a thin strip (its area
//    is above a tenth of its height squared): typically a piece of wall or furniture that
//    joined while the person stood against it; or
//  - it is itself person-sized (area above 100,000 mm2, height at least 1000 mm) and lies
//    beside the main group with a gap of at least 100 mm: a second person who walked in
//    touching the first one and has now stepped apart. Such regions are marked so that the
//    new-user search may start a user from them even though they lie near this one.
void UserSegmenter::drop_fragments() {
  struct FragmentGroup {
    int64_t area = 0;
    int32_t minX = INT32_MAX, maxX = INT32_MIN, minY = INT32_MAX, maxY = INT32_MIN;
    int32_t minDepth = INT32_MAX, maxDepth = INT32_MIN;
    int64_t depthSum = 0, pixels = 0;
  };
  int32_t groupOf[UserRecord::kMaxRegions];
  FragmentGroup groups[UserRecord::kMaxRegions];
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active || user.regionCount < 2) continue;
    const int32_t n = user.regionCount;
    regionGroups_.reset(n);
    for (int32_t i = 0; i < n; ++i) {
      const RegionStats& a = regions_[user.regions[i]];
      for (int32_t j = i + 1; j < n; ++j) {
        const RegionStats& b = regions_[user.regions[j]];
        if (a.minX > b.maxX || b.minX > a.maxX || a.minY > b.maxY || b.minY > a.maxY) continue;
        regionGroups_.unite(i, j);
      }
    }
    const int32_t groupCount = regionGroups_.number_sets(groupOf);
    if (groupCount < 2) continue;
    for (int32_t g = 0; g < groupCount; ++g) groups[g] = FragmentGroup{};
    for (int32_t i = 0; i < n; ++i) {
      const RegionStats& s = regions_[user.regions[i]];
      FragmentGroup& g = groups[groupOf[i]];
      g.area += s.weight;
      g.minX = std::min(g.minX, s.minX), g.maxX = std::max(g.maxX, s.maxX);
      g.minY = std::min(g.minY, s.minY), g.maxY = std::max(g.maxY, s.maxY);
      g.minDepth = std::min(g.minDepth, s.minDepth), g.maxDepth = std::max(g.maxDepth, s.maxDepth);
      g.depthSum += s.sumDepth;
      g.pixels += s.nearPixels;
    }
    auto height_of = [&](const FragmentGroup& g) {
      return world_height(g.minY, g.maxY, g.pixels > 0 ? double(g.depthSum) / double(g.pixels) : 0.0);
    };
    int32_t main = -1;
    for (int32_t gi = 0; gi < groupCount; ++gi) {
      const FragmentGroup& g = groups[gi];
      if (g.area <= kPersonArea || height_of(g) <= kFragmentMainHeight) continue;
      if (main < 0 || g.minDepth < groups[main].minDepth) main = gi;
    }
    if (main < 0) continue;
    const FragmentGroup& m = groups[main];
    const double mainPixel = pixel_size(double(m.depthSum) / double(std::max<int64_t>(m.pixels, 1)));
    int32_t kept = 0;
    for (int32_t i = 0; i < n; ++i) {
      const int32_t r = user.regions[i];
      const int32_t gi = groupOf[i];
      bool release = false;
      uint8_t fragment = 0;
      if (gi != main) {
        const FragmentGroup& g = groups[gi];
        const int64_t h = height_of(g);
        const bool behind = g.minDepth > m.maxDepth;
        const int32_t gapColumns = std::max(g.minX - m.maxX, m.minX - g.maxX) - 1;
        const bool beside = double(gapColumns) * mainPixel >= kFragmentGap;
        if (behind && 10 * g.area > h * h) {
          release = true;
        } else if (beside && g.area > kPersonArea && h >= kPersonHeight) {
          release = true;
          fragment = 1;
        }
      }
      if (release) {
        owner_[r] = 0;
        regions_[r].fragment = fragment;
      } else {
        user.regions[kept++] = int16_t(r);
      }
    }
    user.regionCount = kept;
  }
}

void UserSegmenter::rebuild_handed_back() {
  handedBackCount_ = 0;
  for (int32_t r = 1; r <= regionCount_; ++r) {
    const RegionStats& s = regions_[r];
    if (!s.handedBack || owner_[r] != 0 || !s.hasNear) continue;
    HandedBackRegion& out = handedBack_[handedBackCount_++];
    out.regionId = r;
    out.box.reset();
    out.box.add(s.minX, s.minY, s.minDepth);
    out.box.add(s.maxX, s.maxY, s.maxDepth);
    out.weight = int32_t(std::min<int64_t>(s.weight, INT32_MAX));
  }
}

}  // namespace quorvik::legacy
