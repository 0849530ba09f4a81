// The end of stage 2. Regions left over attach to the user whose box holds them; users age,
// go on probation or are dropped; and the label map turns from region ids into user ids, with
// the regions a pair shares cut pixel by pixel. The same pass sums each user's final pixels,
// from which its box, position and height are measured for the next frame's carry-over and
// for the user analyzer.

#include <algorithm>
#include <cmath>

#include "segmentation/user_ids.h"
#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

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

// Whether something nearer stands below much of the user's lower edge: a person behind a
// chair or a table shows only their top, and is short only because of it.
bool UserSegmenter::hidden_below(int32_t id) const {
  const Array2D<uint16_t>& labels = labelRing_.back(0);
  const Box3D<int>& b = users_[id].labelBox;
  auto depth_at = [&](int32_t x, int32_t y) {
    const int32_t d = labellingDepth_.row(y)[x];
    return d == 0 || d >= kZeroDepth ? 0 : (d >= kPushDepth ? d - kPushDepth : d);
  };
  int32_t columns = 0, hidden = 0;
  for (int32_t x = b.minX; x <= b.maxX; ++x) {
    int32_t lowest = -1;
    for (int32_t y = b.maxY; y >= b.minY && lowest < 0; --y) lowest = labels.row(y)[x] == id ? y : -1;
    if (lowest < 0) continue;
    ++columns;
    const int32_t own = depth_at(x, lowest);
    for (int32_t y = lowest + 1; y <= std::min(lowest + kHiddenRows, height_ - 1); ++y) {
      const int32_t d = depth_at(x, y);
      if (d == 0) continue;
      hidden += own - d > kHiddenDepth ? 1 : 0;
      break;
    }
  }
  return hidden * 100 >= columns * kHiddenPercent;
}

// Furniture that was pushed joins the pusher's regions, or is taken for someone while it moves,
// and stays behind when the pusher walks off, where nothing of it changes any more. A user
// shorter than a person that has not changed for half a second is put to the person check, as
// a still proposal is, unless it is a person in part: one who has shrunk to less than half of
// the most they showed or stands behind something nearer (going behind a chair), or who was
// once seen at a standing person's height (crouching and keeping still). Two no answers in a
// row without a head remove it, and the room learns its pixels at once.
void UserSegmenter::drop_still_objects() {
  objectDropped_ = false;
  if (!personCheck_) return;
  bool asked = false, removed = false;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    UserRecord& user = users_[id];
    if (!user.active) continue;
    int64_t weight = 0, unchanged = 0;
    for (int32_t i = 0; i < user.regionCount; ++i) {
      weight += regions_[user.regions[i]].weight;
      unchanged += regions_[user.regions[i]].unchangedWeight;
    }
    user.peakPixels = std::max(user.peakPixels, user.labelPixels);
    const bool still = weight > 0 && unchanged * 1000 >= weight * kObjectStillPerMille;
    user.stillFrames = still ? user.stillFrames + 1 : 0;
    if (!still) user.objectNo = 0;
    if (asked || user.age <= kProbationAge || user.stillFrames < kObjectStillFrames ||
        user.worldHeight >= kPersonHeight || frame_ < user.nextObjectCheck || user.labelPixels == 0 ||
        user.labelPixels * 2 < user.peakPixels || user.maxWorldHeight >= kObjectTallest) {
      continue;
    }
    if (hidden_below(id)) continue;
    asked = true;
    const Array2D<uint16_t>& labels = labelRing_.current();
    objectMask_.resize(width_, height_);
    for (int32_t y = 0; y < height_; ++y) {
      const uint16_t* l = labels.row(y);
      uint8_t* m = objectMask_.row(y);
      for (int32_t x = 0; x < width_; ++x) m[x] = l[x] == id ? 1 : 0;
    }
    // A person who crouches or sits still may not read as a whole body, but shows a head.
    if (const PersonReading reading = personCheck_(objectMask_);
        reading.person || reading.headShare >= kObjectHeadShare) {
      user.objectNo = 0;
      user.stillFrames = 0;
      continue;
    }
    user.nextObjectCheck = frame_ + kObjectWait;
    if (++user.objectNo < kObjectNo) continue;
    remove_user(id);
    removed = objectDropped_ = true;
    Array2D<uint16_t>& out = labelRing_.current();
    for (int32_t y = 0; y < height_; ++y) {
      uint16_t* l = out.row(y);
      for (int32_t x = 0; x < width_; ++x) l[x] = l[x] == id ? kNobody : l[x];
    }
  }
  if (!removed) return;
  userBoxCount_ = 0;
  for (int32_t id = 1; id <= kMaxUsers; ++id) {
    if (users_[id].active && users_[id].labelPixels > 0) userBoxes_[userBoxCount_++] = users_[id].labelBox;
  }
}

}  // namespace quorvik::legacy
