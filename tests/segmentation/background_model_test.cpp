#include "segmentation/background_model.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/sim_scene.h"

using namespace quorvik::legacy;
using quorvik::skeleton::kDegreesToRadians;

namespace {

// Drives the background model alone with hand-made shift frames of a flat wall.
class ModelDriver {
 public:
  static constexpr int kW = 32, kH = 24;

  ModelDriver()
      : mapper(kW, kH, sim_scene::kHfovDegrees * kDegreesToRadians, sim_scene::kVfovDegrees * kDegreesToRadians,
               sim_scene::kMaxDepthMm) {
    const auto& t = sim_scene::default_tables();
    model.start(kW, kH, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()), &mapper);
    for (auto* image : {&raw[0], &raw[1], &shift[0], &shift[1], &shift[2], &shadow, &labels}) {
      image->resize(kW, kH);
      image->clear();
    }
    wall = t.depthToShift[2000];
  }

  // One frame: the wall everywhere, `near` pixels at shift `nearShift` (0 = invalid).
  void frame(const std::vector<int>& near = {}, uint16_t nearShift = 0) {
    const auto& t = sim_scene::default_tables();
    std::swap(raw[0], raw[1]);
    shift[2] = shift[1];
    shift[1] = shift[0];
    for (int i = 0; i < kW * kH; ++i) shift[0][i] = wall;
    for (int i : near) shift[0][i] = nearShift;
    for (int i = 0; i < kW * kH; ++i) raw[0][i] = t.shiftToDepth[shift[0][i]];
    model.update({.raw = &raw[0], .rawPrevious = &raw[1], .shift = &shift[0], .shiftPrevious = &shift[1],
                  .shiftBefore = &shift[2], .shadow = &shadow, .timestampMs = (timestamp += 33),
                  .validBox = {0, 0, kW - 1, kH - 1}, .labels = &labels, .userBoxes = boxes.data(),
                  .userBoxCount = int32_t(boxes.size()), .mapper = &mapper});
    model.absorb(shift[0], labels);
  }

  int foreground(const std::vector<int>& pixels) const {
    int n = 0;
    for (int i : pixels) n += model.foreground[i] != 0;
    return n;
  }

  quorvik::skeleton::SegCoordinateMapper<double> mapper;
  BackgroundModel model;
  Array2D<uint16_t> raw[2], shift[3], shadow, labels;
  std::vector<Box3D<int>> boxes;
  uint16_t wall = 0;
  uint64_t timestamp = 0;
};

std::vector<int> block(int x0, int y0, int w, int h) {
  std::vector<int> pixels;
  for (int y = y0; y < y0 + h; ++y) {
    for (int x = x0; x < x0 + w; ++x) pixels.push_back(y * ModelDriver::kW + x);
  }
  return pixels;
}

}  // namespace

// Whole images run eight lanes at a time where SSE2 is on; one pixel at a time is always the
// scalar path. Near-equal shifts sit at the tolerance, runs near the saturation limit.
TEST(RegionValidation, SteadyRunsOfVectorLanesMatchThePlainLoop) {
  std::mt19937 random(11);
  for (int32_t n : {8, 13, 160 * 120}) {
    SCOPED_TRACE(n);
    std::vector<uint16_t> c(static_cast<size_t>(n)), p(c.size()), pp(c.size()), lanes(c.size()), plain(c.size());
    for (size_t i = 0; i < c.size(); ++i) {
      c[i] = random() % 8 == 0 ? 0 : uint16_t(300 + random() % 1700);
      const int32_t tol = 2 + std::max<int32_t>(c[i], 300) / 256;
      p[i] = uint16_t(std::max<int32_t>(c[i], 300) + int32_t(random() % uint32_t(2 * tol + 3)) - tol - 1);
      pp[i] = uint16_t(std::max<int32_t>(c[i], 300) + int32_t(random() % uint32_t(2 * tol + 3)) - tol - 1);
      lanes[i] = plain[i] = random() % 4 == 0 ? uint16_t(0xFFFF - random() % 2) : uint16_t(random() % 100);
    }
    update_steady_runs(c.data(), p.data(), pp.data(), lanes.data(), n);
    for (int32_t i = 0; i < n; ++i) update_steady_runs(&c[size_t(i)], &p[size_t(i)], &pp[size_t(i)], &plain[size_t(i)], 1);
    EXPECT_EQ(lanes, plain);
  }
}

TEST(RegionValidation, FlecksJoinTheBackgroundQuicklyObjectsOnlyByAbsorption) {
  ModelDriver d;
  d.frame();
  d.frame();
  d.frame();
  ASSERT_EQ(d.model.background[0], d.wall);
  const std::vector<int> fleck = block(3, 3, 2, 2);
  const std::vector<int> object = block(15, 8, 6, 8);
  std::vector<int> both = fleck;
  both.insert(both.end(), object.begin(), object.end());
  const uint16_t nearShift = uint16_t(d.wall - 60);

  int fleckGone = -1;
  for (int frame = 1; frame <= 152; ++frame) {
    d.frame(both, nearShift);
    if (fleckGone < 0 && d.foreground(fleck) == 0) fleckGone = frame;
    // Still foreground on frame 151, taken for the background on frame 152.
    if (frame == 151) {
      EXPECT_EQ(d.foreground(object), int(object.size()));
    }
  }
  EXPECT_GE(fleckGone, 15);
  EXPECT_LE(fleckGone, 20);
  EXPECT_EQ(d.foreground(object), 0);
  EXPECT_EQ(d.model.background[object[0]], nearShift);
}

TEST(RegionValidation, UsersAreNeverSwallowed) {
  ModelDriver d;
  d.frame(), d.frame(), d.frame();
  const std::vector<int> person = block(10, 4, 5, 14);
  const std::vector<int> fleck = block(28, 2, 1, 2);  // a fleck inside a user's box
  for (int i : person) d.labels[i] = 1;
  Box3D<int> box;
  box.add(10, 2, 1000);
  box.add(29, 20, 3000);
  d.boxes.push_back(box);
  std::vector<int> both = person;
  both.insert(both.end(), fleck.begin(), fleck.end());
  for (int frame = 1; frame <= 400; ++frame) {
    d.frame(both, uint16_t(d.wall - 80));
    if (frame == 100) {
      // Held by the box against the fleck rule, but not a user's pixel: absorption counts it.
      EXPECT_EQ(d.foreground(fleck), int(fleck.size()));
      EXPECT_EQ(d.model.absorbCounter[fleck[0]], 100u);
    }
  }
  EXPECT_EQ(d.foreground(person), int(person.size()));
  EXPECT_EQ(d.model.absorbCounter[person[0]], 0u);
  EXPECT_EQ(d.foreground(fleck), 0);
}

TEST(RegionValidation, SurfacesWithNothingKnownBehindThemAreTaken) {
  ModelDriver d;
  d.frame(), d.frame(), d.frame();
  const std::vector<int> hole = block(4, 4, 10, 10);
  for (int frame = 0; frame < 12; ++frame) d.frame(hole, 0);  // nothing measured: forgotten
  ASSERT_EQ(d.model.background[hole[0]], 0);
  int taken = -1;
  for (int frame = 1; frame <= 140 && taken < 0; ++frame) {
    d.frame(hole, uint16_t(d.wall - 30));
    if (d.model.background[hole[0]] != 0) taken = frame;
  }
  EXPECT_GE(taken, 90);
  EXPECT_LE(taken, 95);
  EXPECT_EQ(d.foreground(hole), 0);
}

TEST(BackgroundModel, HandedBackRegionsJoinAtOnceAndCountAsNewBackground) {
  ModelDriver d;
  d.frame(), d.frame(), d.frame();
  const std::vector<int> region = block(6, 6, 4, 4);
  d.frame(region, uint16_t(d.wall - 50));
  for (int i : region) d.labels[i] = 7;
  d.labels[0] = 7;  // outside the box: stays
  Box3D<int> box;
  box.add(6, 6, 0);
  box.add(9, 9, 0);
  const uint32_t before = d.model.newBackground[0];
  d.model.take_region(d.shift[0], d.labels, 7, box, 1234);
  EXPECT_EQ(d.model.newBackground[0], before + 1234);
  for (int i : region) EXPECT_EQ(d.model.background[i], d.wall - 50) << i;
  EXPECT_EQ(d.model.background[0], d.wall);
}

TEST(BackgroundModel, ResetAndRebuildFollowTheFrameCounter) {
  ModelDriver d;
  EXPECT_TRUE(d.model.untouched);
  d.frame();
  EXPECT_TRUE(d.model.resetThisFrame);  // frames since reset was 30
  EXPECT_EQ(d.model.background[5], BackgroundModel::kAcceptAny);
  EXPECT_FALSE(d.model.untouched);
  d.frame(), d.frame();
  EXPECT_FALSE(d.model.resetThisFrame);
  EXPECT_EQ(d.model.background[5], d.wall);

  d.model.reinitialise = true;
  d.frame();
  EXPECT_TRUE(d.model.resetThisFrame);
  EXPECT_EQ(d.model.framesSinceReset, 0u);
  for (int i = 0; i < 30; ++i) d.frame();
  EXPECT_FALSE(d.model.resetThisFrame);
  d.frame();  // thirty frames after the rebuild the model starts over from "accept any"
  EXPECT_TRUE(d.model.resetThisFrame);
  EXPECT_EQ(d.model.framesSinceReset, 31u);
}
