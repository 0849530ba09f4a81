// The users stage on its own: hand-made depth maps and foreground, background flags set by
// the test, and person candidates that the candidate detector would report.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "segmentation/background_model.h"
#include "segmentation/depth_frame_input.h"
#include "segmentation/seg_coordinate_mapper.h"
#include "segmentation/user_segmenter.h"
#include "support/sim_scene.h"

using namespace quorvik::legacy;

namespace {

constexpr int kW = 160, kH = 120;
constexpr uint16_t kWall = 4000;

struct Rect {
  int x0, y0, x1, y1;  // inclusive
  uint16_t depth;
};

// Drives one UserSegmenter with the real input stage and a background model whose
// foreground and flags the test chooses.
class Harness {
 public:
  Harness()
      : mapper(kW, kH, sim_scene::kHfovDegrees * quorvik::skeleton::kDegreesToRadians,
               sim_scene::kVfovDegrees * quorvik::skeleton::kDegreesToRadians, sim_scene::kMaxDepthMm),
        users(std::make_unique<UserSegmenter>()) {
    const auto& t = sim_scene::default_tables();
    tables = {1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()), t.depthToShift.data(),
              uint32_t(t.depthToShift.size())};
    floorMask.resize(kW, kH);
    floorMask.clear();
    std::vector<uint16_t> wall(size_t(kW * kH), kWall);
    view.view(wall.data(), kW, kH);
    input.start(view, false, tables);
    background.start(kW, kH, tables.shiftToDepth, tables.shiftToDepthLength, &mapper);
    users->start(kW, kH, tables.depthToShift, tables.depthToShiftLength, false, &mapper);
  }

  // One frame: a wall with the rectangles in front of it, all of them foreground.
  void step(const std::vector<Rect>& rects, const std::vector<TrackedCandidate>& candidates = {},
            bool search = true, const std::vector<Rect>& staticRects = {}) {
    depth.assign(size_t(kW * kH), kWall);
    background.foreground.clear();
    for (const Rect& r : staticRects) paint(r, false);
    for (const Rect& r : rects) paint(r, true);
    view.view(depth.data(), kW, kH);
    input.ingest(view, timestamp += 33);
    background.framesSinceReset = search ? 35 : 0;
    background.sceneChanging = sceneChanging;
    background.changeDepth = changeDepth;
    background.badFrame = badFrame;
    background.resetThisFrame = false;
    users->stage1(input, floorMask, false, background);
    handedBack.assign(users->regions_handed_back().begin(), users->regions_handed_back().end());
    users->stage2(input, candidates, background);
    ASSERT_TRUE(users->consistent());
  }

  uint16_t label(int x, int y) const { return users->label_map().at(x, y); }
  int count(uint16_t id) const {
    const Array2D<uint16_t>& map = users->label_map();
    return int(std::count(map.data(), map.data() + map.size(), id));
  }

  quorvik::skeleton::SegCoordinateMapper<double> mapper;
  ConversionTableRef tables;
  DepthFrameInput input;
  BackgroundModel background;
  Array2D<uint8_t> floorMask;
  std::unique_ptr<UserSegmenter> users;
  std::vector<uint16_t> depth;
  Array2D<uint16_t> view;
  std::vector<HandedBackRegion> handedBack;
  uint64_t timestamp = 0;
  bool sceneChanging = false, badFrame = false;
  uint32_t changeDepth = 0;

 private:
  void paint(const Rect& r, bool foreground) {
    for (int y = r.y0; y <= r.y1; ++y) {
      for (int x = r.x0; x <= r.x1; ++x) {
        depth[size_t(y * kW + x)] = r.depth;
        background.foreground.at(x, y) = foreground ? 1 : 0;
      }
    }
  }
};

TrackedCandidate candidate(const Rect& r, bool confirmed = true, int32_t farDepth = 0) {
  TrackedCandidate c;
  c.confirmed = confirmed;
  CandidateSnapshot s;
  s.minColumn = r.x0, s.maxColumn = r.x1, s.minRow = r.y0, s.maxRow = r.y1;
  s.minDepth = r.depth - 50;
  s.maxDepth = farDepth != 0 ? farDepth : r.depth + 50;
  s.medianDepth = r.depth;
  c.record(s);
  c.area = 500000;
  return c;
}

// About 1.6 m tall and 350 mm wide at 2.5 m.
const Rect kPerson{70, 20, 89, 109, 2500};

}  // namespace

TEST(UserSegmenter, ConfirmedCandidatesThatNoUserCoversBecomeUsers) {
  Harness h;
  for (int i = 0; i < 3; ++i) h.step({kPerson});
  // A still blob is not enough on its own; an unconfirmed candidate neither.
  EXPECT_EQ(h.users->active_user_count(), 0);
  h.step({kPerson}, {candidate(kPerson, false)});
  EXPECT_EQ(h.users->active_user_count(), 0);

  const std::vector<TrackedCandidate> confirmed = {candidate(kPerson)};
  h.step({kPerson}, confirmed);
  ASSERT_TRUE(h.users->is_active(1));
  EXPECT_EQ(h.count(1), 20 * 90);
  EXPECT_EQ(h.label(kPerson.x0, kPerson.y0), 1);
  EXPECT_EQ(h.label(kPerson.x0 - 1, kPerson.y0), 0);

  // The same candidate is now covered by user 1: no second user.
  for (int i = 0; i < 5; ++i) h.step({kPerson}, confirmed);
  EXPECT_EQ(h.users->active_user_count(), 1);
  EXPECT_EQ(h.count(1), 20 * 90);
  // No search during a scene change or soon after a reset.
  const Rect other{120, 20, 139, 109, 2500};
  const std::vector<TrackedCandidate> second = {candidate(other)};
  h.step({kPerson, other}, second, false);
  EXPECT_EQ(h.users->active_user_count(), 1);
  h.step({kPerson, other}, second);
  EXPECT_TRUE(h.users->is_active(2));
}

TEST(UserSegmenter, ShortObjectsAreNoPeopleEvenAsConfirmedCandidates) {
  Harness h;
  const Rect chair{70, 80, 95, 109, 2500};  // about 0.5 m tall
  for (int i = 0; i < 10; ++i) h.step({chair}, {candidate(chair)});
  EXPECT_EQ(h.users->active_user_count(), 0);
  EXPECT_EQ(h.count(0), kW * kH);
}

TEST(UserSegmenter, ARegionNeedsMoreThanAThirdOfItsWeightOnTheUsersPixelsToInherit) {
  for (int extra : {40, 39}) {
    SCOPED_TRACE(extra);
    Harness h;
    const Rect person{70, 40, 89, 109, 2500};  // small enough to stay a person when grown
    h.step({person}, {candidate(person)});
    ASSERT_TRUE(h.users->is_active(1));
    // The region grows sideways at the same depth: the old 20 columns are unchanged pixels
    // of user 1, the new ones are not.
    Rect grown = person;
    grown.x1 = person.x1 + extra;
    h.step({grown}, {}, false);
    const bool inherits = 3 * 20 > 20 + extra;
    EXPECT_EQ(h.label(person.x0, 60), inherits ? 1 : 0);
    EXPECT_EQ(h.count(1), inherits ? (20 + extra) * 70 : 0);
  }
}

TEST(UserSegmenter, MovingUsersKeepTheirIdsAndNeighboursGetTheirOwn) {
  Harness h;
  Rect a = kPerson, b{115, 25, 132, 109, 3000};
  h.step({a}, {candidate(a)});
  h.step({a, b}, {candidate(b)});
  ASSERT_TRUE(h.users->is_active(1));
  ASSERT_TRUE(h.users->is_active(2));
  for (int f = 0; f < 8; ++f) {
    a.x0 += 1, a.x1 += 1;
    b.x0 -= 2, b.x1 -= 2;
    h.step({a, b});
    SCOPED_TRACE(f);
    ASSERT_EQ(h.label((a.x0 + a.x1) / 2, 60), 1);
    ASSERT_EQ(h.label((b.x0 + b.x1) / 2, 60), 2);
    ASSERT_EQ(h.count(1), 20 * 90);
    ASSERT_EQ(h.count(2), 18 * 85);
  }
}

TEST(UserSegmenter, StaticPartsOfAUserAreHandedBack) {
  Harness h;
  // A person and a small box beside their feet, taken in as one candidate.
  const Rect box{95, 100, 104, 109, 2700};
  h.step({kPerson, box}, {candidate({70, 20, 104, 109, 2500}, true, 2800)});
  ASSERT_TRUE(h.users->is_active(1));
  ASSERT_EQ(h.count(1), 20 * 90 + 10 * 10);
  // The box stays where it is but is no longer foreground: it goes back to the background.
  h.step({kPerson}, {}, true, {box});
  ASSERT_EQ(h.handedBack.size(), 1u);
  EXPECT_EQ(h.handedBack[0].box.minX, box.x0);
  EXPECT_EQ(h.handedBack[0].box.maxY, box.y1);
  EXPECT_GT(h.handedBack[0].weight, 0);
  EXPECT_EQ(h.label(box.x0, box.y0), 0);
  EXPECT_EQ(h.count(1), 20 * 90);
}

TEST(UserSegmenter, BadFramesAndSceneChangesRemoveUsersThatCannotBeTraced) {
  Harness h;
  const std::vector<TrackedCandidate> confirmed = {candidate(kPerson)};
  h.step({kPerson}, confirmed);
  ASSERT_TRUE(h.users->is_active(1));
  // A scene change that reaches back further than the user's age removes it.
  h.sceneChanging = true;
  h.changeDepth = 5;
  h.step({kPerson});
  EXPECT_FALSE(h.users->is_active(1));
  EXPECT_EQ(h.count(1), 0);

  h.sceneChanging = false;
  h.step({kPerson}, confirmed);
  ASSERT_TRUE(h.users->is_active(1));
  for (int i = 0; i < 10; ++i) h.step({kPerson});
  // An older user that stays where it was survives the change.
  h.sceneChanging = true;
  h.step({kPerson});
  EXPECT_TRUE(h.users->is_active(1));
  // One that lost most of its area does not.
  Rect half = kPerson;
  half.y0 = 70;
  h.step({half});
  EXPECT_FALSE(h.users->is_active(1));

  h.sceneChanging = false;
  h.step({kPerson}, confirmed);
  ASSERT_TRUE(h.users->is_active(1));
  h.badFrame = true;
  h.step({});
  EXPECT_FALSE(h.users->is_active(1));
  EXPECT_EQ(h.users->free_ids().back(), 1u);
}

// Two users whose pixels merge into one region pair up; once one of them is gone the
// other is single again and held to a single person's area.
TEST(UserSegmenter, APairEndsWithEitherOfItsUsers) {
  Harness h;
  const Rect a{40, 20, 69, 109, 2500}, b{75, 20, 89, 109, 2500}, merged{40, 20, 89, 109, 2500};
  h.step({a}, {candidate(a)});
  h.step({a, b}, {candidate(b)});
  h.step({merged});
  ASSERT_EQ(h.users->user(1).pairPartner, 2);
  h.badFrame = true;  // the second of a pair owns no region: a bad frame removes it
  h.step({merged});
  EXPECT_FALSE(h.users->is_active(2));
  EXPECT_TRUE(h.users->is_active(1));
  EXPECT_EQ(h.users->user(1).pairPartner, 0);
}

TEST(UserSegmenter, IdsAreHandedOutLowestFirstAndReusedLastFreedFirst) {
  Harness h;
  const Rect p0{10, 20, 29, 109, 2500}, p1{60, 20, 79, 109, 2500}, p2{110, 20, 129, 109, 2500};
  const Rect p3{140, 20, 155, 109, 2500};
  const std::vector<TrackedCandidate> c0 = {candidate(p0)};
  h.step({p0}, c0);
  h.step({p0, p1}, {candidate(p1)});
  const std::vector<TrackedCandidate> c2 = {candidate(p2)};
  h.step({p0, p1, p2}, c2);
  EXPECT_EQ(h.label(p0.x0, 60), 1);
  EXPECT_EQ(h.label(p1.x0, 60), 2);
  EXPECT_EQ(h.label(p2.x0, 60), 3);
  EXPECT_EQ(h.users->free_ids().back(), 4u);

  // On bad frames users without pixels go: first 1, then 3.
  h.badFrame = true;
  h.step({p1, p2});
  h.step({p1});
  h.badFrame = false;
  EXPECT_EQ(h.users->active_user_count(), 1);
  EXPECT_EQ(h.users->free_ids().back(), 3u);

  h.step({p0, p1}, c0);
  EXPECT_EQ(h.label(p0.x0, 60), 3);
  h.step({p0, p1, p2}, c2);
  EXPECT_EQ(h.label(p2.x0, 60), 1);
  h.step({p0, p1, p2, p3}, {candidate(p3)});
  EXPECT_EQ(h.label(p3.x0, 60), 4);
  EXPECT_EQ(h.users->active_user_count(), 4);
}

TEST(UserSegmenter, FragmentsBehindAUserOrBesideItAreLetGo) {
  Harness h;
  const Rect blob{95, 60, 110, 90, 3200};  // a piece of something behind, beside the person
  h.step({kPerson, blob}, {candidate({70, 20, 110, 109, 2500}, true, 3250)});
  ASSERT_EQ(h.label(kPerson.x0, 60), 1);
  ASSERT_EQ(h.label(blob.x0, 60), 1);
  h.step({kPerson, blob});
  EXPECT_EQ(h.label(kPerson.x0, 60), 1);
  EXPECT_EQ(h.label(blob.x0, 60), 0);
  EXPECT_EQ(h.count(1), 20 * 90);

  // A second person who came in together with the first one and now stands apart.
  Harness g;
  Rect other{100, 25, 117, 109, 2500};
  g.step({kPerson, other}, {candidate({70, 20, 117, 109, 2500})});
  ASSERT_EQ(g.label(other.x0, 60), 1);
  int frames = 0;
  while (!g.users->is_active(2) && frames < 20) {
    other.x0 += 3, other.x1 += 3;  // about 50 mm per frame
    g.step({kPerson, other});
    ++frames;
  }
  // Seen apart in four frames in a row and moved: a user of its own.
  EXPECT_TRUE(g.users->is_active(2));
  EXPECT_EQ(frames, 4);
  EXPECT_EQ(g.label(kPerson.x0, 60), 1);
  EXPECT_EQ(g.label(other.x0, 60), 2);
  EXPECT_EQ(g.count(2), 18 * 85);
}
