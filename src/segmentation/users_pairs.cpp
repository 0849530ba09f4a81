// Identity from frame to frame, and users who touch. A region inherits the id of the previous
// frame's user under whose unchanged pixels most of its area lies. Two users whose previous
// pixels fall in the same regions become a pair: the first of the two owns the shared regions
// for the frame, and a pair event remembers the pair until they have moved apart, so that the
// final labelling can cut the shared regions between them pixel by pixel, by surface first,
// then by previous label and by the column between their centroids.

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "op/union_find.h"
#include "segmentation/user_segmenter.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

using namespace users_rules;

void UserSegmenter::carry_over_identity() {
  int64_t bestOverlap[kMaxUsers + 1] = {};
  for (int32_t r = 1; r <= regionCount_; ++r) {
    const RegionStats& s = regions_[r];
    if (!s.usable()) continue;
    int32_t k = 0;
    for (int32_t id = 1; id <= kMaxUsers; ++id) {
      if (s.overlap[id] > (k == 0 ? 0 : s.overlap[k])) k = id;
    }
    if (k == 0) continue;
    if (3 * s.overlap[k] > s.weight && users_[k].active && users_[k].append(r)) owner_[r] = uint32_t(k);
    if (s.overlap[k] > bestOverlap[k]) {
      bestOverlap[k] = s.overlap[k];
      users_[k].bestRegion = r;
    }
  }
}

int32_t UserSegmenter::find_pair(int32_t a, int32_t b) const {
  for (int32_t i = 0; i < kMaxPairs; ++i) {
    const PairEvent& e = pairs_[i];
    if (e.used && ((e.first == a && e.second == b) || (e.first == b && e.second == a))) return i;
  }
  return -1;
}

void UserSegmenter::pair_users() {
  int64_t overlap[kMaxUsers + 1][kMaxUsers + 1] = {};
  for (int32_t k = 1; k <= kMaxUsers; ++k) {
    const UserRecord& user = users_[k];
    if (!user.active) continue;
    for (int32_t i = 0; i < user.regionCount; ++i) {
      const RegionStats& s = regions_[user.regions[i]];
      for (int32_t j = 1; j <= kMaxUsers; ++j) overlap[k][j] += s.overlap[j];
    }
  }
  for (int32_t k = 1; k <= kMaxUsers; ++k) {
    for (int32_t j = 1; j <= kMaxUsers; ++j) overlapTotals_[k][j] = overlap[k][j];
  }

  for (int32_t k = 1; k <= kMaxUsers; ++k) {
    UserRecord& first = users_[k];
    if (!first.active || first.secondOfPair) continue;
    for (int32_t j = 1; j <= kMaxUsers; ++j) {
      UserRecord& second = users_[j];
      if (j == k || !second.active || second.secondOfPair || overlap[k][j] < kPairOverlap) continue;
      first.pairPartner = j;
      second.secondOfPair = true;
      for (int32_t i = 0; i < second.regionCount; ++i) {
        const int32_t r = second.regions[i];
        owner_[r] = first.append(r) ? uint32_t(k) : 0u;
      }
      second.regionCount = 0;
      int32_t e = find_pair(k, j);
      if (e < 0) {
        for (int32_t i = 0; i < kMaxPairs && e < 0; ++i) {
          if (!pairs_[i].used) e = i;
        }
        if (e >= 0) pairs_[e] = PairEvent{};
      }
      if (e >= 0) {
        PairEvent& event = pairs_[e];
        event.used = true;
        event.first = k;
        event.second = j;
        event.recordedOverlap = overlap[k][j];
        event.pairedThisFrame = true;
      }
    }
  }
  maintain_pair_events();
  for (const PairEvent& event : pairs_) {
    if (!event.used) continue;
    users_[event.second].secondOfPair = true;
    users_[event.first].pairPartner = event.second;
  }
}

// A pair event lives while the two users keep covering each other's previous pixels: it is
// dropped once the overlap falls below 70 percent of the overlap recorded at the latest
// pairing, or when either user is gone. Its split column is the image column half-way
// between the two users' previous centroids.
void UserSegmenter::maintain_pair_events() {
  for (PairEvent& event : pairs_) {
    if (!event.used) continue;
    const UserRecord& a = users_[event.first];
    const UserRecord& b = users_[event.second];
    if (!a.active || !b.active) {
      event = PairEvent{};
      continue;
    }
    if (!event.pairedThisFrame) {
      const int64_t current =
          std::max(overlapTotals_[event.first][event.second], overlapTotals_[event.second][event.first]);
      if (10 * current < 7 * event.recordedOverlap) {
        event = PairEvent{};
        continue;
      }
    }
    if (a.seen && b.seen) {
      event.splitColumn = int32_t(std::lround((a.centroidColumn + b.centroidColumn) / 2));
      event.secondOnLeft = b.centroidColumn < a.centroidColumn;
    }
    event.pairedThisFrame = false;
    ++event.frames;
  }
}

bool UserSegmenter::in_pair(int32_t id) const {
  for (const PairEvent& event : pairs_) {
    if (event.used && (event.first == id || event.second == id)) return true;
  }
  return false;
}

// Inside the regions a pair shares, the pixels are split again by surface: neighbours join
// only within a few centimetres of depth, with no shift tolerance, so that a person who
// stands behind the other comes apart from them. Each user of the pair claims the surface
// holding most of its previous pixels; a surface that only one of the two claims goes to
// it whole. Without this, pixels that one person took from the other while they stood at
// the same depth keep their wrong id as long as they stay still, because a previous label
// is carried wherever the depth does not change. Votes count only where the depth stayed,
// as the carry-over's do: what a passer-by uncovers is not theirs.
void UserSegmenter::claim_pair_surfaces() {
  const Array2D<uint16_t>& labels = labelRing_.current();
  const Array2D<uint16_t>& previous = labelRing_.back(1);
  const uint16_t* region = labels.data();
  const uint16_t* depth = labellingDepth_.data();
  pixelSets_.reset(1);
  op::label_components(
      pixelSets_, provisional_.data(), op::RasterWindow::whole(width_, height_),
      [&](int32_t i) {
        const int32_t r = region[i];
        return r != 0 && r <= regionCount_ && cutEvent_[r] >= 0 && depth[i] < kPushDepth;
      },
      [&](int32_t i, int32_t n) {
        return cutEvent_[region[n]] == cutEvent_[region[i]] &&
               std::abs(int32_t(depth[i]) - int32_t(depth[n])) <= kSurfaceJoin;
      });
  const int32_t next = pixelSets_.size() - 1;
  surfaceOwner_.assign(size_t(next) + 1, 0);
  if (next == 0) return;
  surfaceVotes_.assign(2 * (size_t(next) + 1), 0);
  surfaceEvent_.assign(size_t(next) + 1, -1);
  for (int32_t y = 0; y < height_; ++y) {
    const uint16_t* l = labels.row(y);
    const uint16_t* prev = previous.row(y);
    const int32_t* p = provisional_.row(y);
    const uint8_t* same = unchangedNear_.row(y);
    for (int32_t x = 0; x < width_; ++x) {
      if (p[x] == 0) continue;
      const auto root = size_t(pixelSets_.find(p[x]));
      const PairEvent& event = pairs_[cutEvent_[l[x]]];
      surfaceEvent_[root] = cutEvent_[l[x]];
      if (same[x] == 0) continue;
      if (prev[x] == event.first) ++surfaceVotes_[2 * root];
      if (prev[x] == event.second) ++surfaceVotes_[2 * root + 1];
    }
  }
  struct Core {
    int32_t surface = 0;
    int32_t votes = 0;
  };
  Core cores[kMaxPairs][2] = {};
  for (int32_t root = 1; root <= next; ++root) {
    const int32_t e = surfaceEvent_[size_t(root)];
    if (e < 0) continue;
    for (int k = 0; k < 2; ++k) {
      const int32_t votes = surfaceVotes_[2 * size_t(root) + size_t(k)];
      if (votes > cores[e][k].votes) cores[e][k] = {root, votes};
    }
  }
  for (int32_t e = 0; e < kMaxPairs; ++e) {
    const int32_t a = cores[e][0].surface, b = cores[e][1].surface;
    if (a != 0 && a != b) surfaceOwner_[size_t(a)] = uint8_t(pairs_[e].first);
    if (b != 0 && a != b) surfaceOwner_[size_t(b)] = uint8_t(pairs_[e].second);
  }
}

uint8_t UserSegmenter::surface_owner(int32_t x, int32_t y) {
  const int32_t label = provisional_.row(y)[x];
  return label == 0 ? 0 : surfaceOwner_[size_t(pixelSets_.find(label))];
}

}  // namespace quorvik::legacy
