#include "segmentation/candidate_detector.h"

#include <gtest/gtest.h>

#include "segmentation/depth_frame_input.h"
#include "support/sim_scene.h"

using namespace quorvik::legacy;
using quorvik::skeleton::kDegreesToRadians;

namespace {

class DetectorDriver {
 public:
  explicit DetectorDriver(bool mirrored = false)
      : mapper(160, 120, sim_scene::kHfovDegrees * kDegreesToRadians, sim_scene::kVfovDegrees * kDegreesToRadians,
               sim_scene::kMaxDepthMm),
        detector(std::make_unique<PersonCandidateDetector>()) {
    const auto& t = sim_scene::default_tables();
    detector->start(160, 120, t.shiftToDepth.data(), t.depthToShift.data(), mirrored, &mapper);
    raw.resize(160, 120);
    shift.resize(160, 120);
    shadow.resize(160, 120);
    this->mirrored = mirrored;
  }

  void frame(const std::vector<uint16_t>& depth) {
    const auto& t = sim_scene::default_tables();
    for (int i = 0; i < 160 * 120; ++i) {
      raw[i] = depth[size_t(i)];
      shift[i] = t.shift_of(depth[size_t(i)]);
    }
    shadow.clear();
    build_shadow_image(shift, mirrored, shadow);
    detector->process(raw, shift, shadow);
  }

  quorvik::skeleton::SegCoordinateMapper<double> mapper;
  std::unique_ptr<PersonCandidateDetector> detector;
  Array2D<uint16_t> raw, shift, shadow;
  bool mirrored = false;
};

// A room: floor, back wall at 4 m, and person-sized boxes.
sim_scene::Scene room() {
  sim_scene::Scene builder(1200, 8);
  builder.floor().wall(4000);
  return builder;
}

}  // namespace

TEST(CandidateDetector, StandingPersonIsTrackedButNeverConfirmed) {
  for (bool mirrored : {false, true}) {
    SCOPED_TRACE(mirrored);
    DetectorDriver d(mirrored);
    const std::vector<uint16_t> depth = room().box(0, 2500, 450, 300, 1750).render();
    for (int frame = 0; frame < 30; ++frame) {
      d.frame(depth);
      ASSERT_EQ(d.detector->detections().size(), 1u) << frame;
      ASSERT_EQ(d.detector->tracked().size(), 1u) << frame;
      EXPECT_EQ(d.detector->tracked()[0].id, 0u);
      EXPECT_FALSE(d.detector->tracked()[0].confirmed);
    }
    const CandidateDetection& det = d.detector->detections()[0];
    EXPECT_NEAR(det.medianX, 0.0, 60.0);
    EXPECT_NEAR(det.medianDepth, 2350.0, 200.0);  // front face at 2350 mm
    EXPECT_GT(det.area, 450.0 * 1500.0 * 0.8);
    const Box3D<int> box = d.detector->tracked()[0].box();
    EXPECT_LT(box.minX, 80);
    EXPECT_GT(box.maxX, 80);
    EXPECT_GE(box.minZ, 2200);
    EXPECT_LE(box.maxZ, 2700);
  }
}

TEST(CandidateDetector, WalkingPersonIsConfirmedOnceItHasMoved) {
  DetectorDriver d;
  int confirmedAt = -1, newlyConfirmed = 0;
  for (int frame = 0; frame < 12; ++frame) {
    d.frame(room().box(-600.f + 60.f * frame, 2500, 450, 300, 1750).render());
    ASSERT_EQ(d.detector->tracked().size(), 1u) << frame;
    const TrackedCandidate& c = d.detector->tracked()[0];
    EXPECT_EQ(c.id, 0u);  // followed, not replaced
    newlyConfirmed += c.newlyConfirmed;
    if (c.confirmed && confirmedAt < 0) confirmedAt = frame;
  }
  // 60 mm a frame: more than 200 mm after four frames.
  EXPECT_GE(confirmedAt, 4);
  EXPECT_LE(confirmedAt, 5);
  EXPECT_EQ(newlyConfirmed, 1);

  // Gone: removed at once; back again: a new id.
  d.frame(room().render());
  EXPECT_EQ(d.detector->tracked().size(), 0u);
  d.frame(room().box(0, 2500, 450, 300, 1750).render());
  ASSERT_EQ(d.detector->tracked().size(), 1u);
  EXPECT_EQ(d.detector->tracked()[0].id, 1u);
}

TEST(CandidateDetector, OnlyPersonSizedNearObjectsCount) {
  struct Case {
    const char* what;
    float x, z, sx, sz, sy;
  };
  for (const Case c : {Case{"pole narrower than 30 mm", 0, 2500, 20, 20, 1800},
                       Case{"wider than 700 mm", 0, 2500, 900, 300, 1800},
                       Case{"beyond 4500 mm", 0, 5000, 450, 300, 1750},
                       Case{"area of at most 0.1 square metres", 0, 2500, 300, 300, 250}}) {
    SCOPED_TRACE(c.what);
    DetectorDriver d;
    sim_scene::Scene builder(1200, 8);
    builder.floor().wall(6000).box(c.x, c.z, c.sx, c.sz, c.sy);
    d.frame(builder.render());
    EXPECT_EQ(d.detector->detections().size(), 0u);
    EXPECT_EQ(d.detector->tracked().size(), 0u);
  }

  DetectorDriver empty;
  empty.frame(std::vector<uint16_t>(160 * 120, 0));
  EXPECT_EQ(empty.detector->kept_chain_count(), 0);
  for (int y = 0; y < 120; ++y) EXPECT_EQ(empty.detector->edges().at(159, y), -1);
}

TEST(CandidateDetector, TwoPeopleApartGetTwoCandidates) {
  DetectorDriver d;
  const std::vector<uint16_t> depth = room().box(-700, 2500, 450, 300, 1750).box(700, 2800, 450, 300, 1700).render();
  d.frame(depth);
  d.frame(depth);
  ASSERT_EQ(d.detector->tracked().size(), 2u);
  EXPECT_NE(d.detector->tracked()[0].id, d.detector->tracked()[1].id);
  const double left = d.detector->tracked()[0].latest().medianX, right = d.detector->tracked()[1].latest().medianX;
  EXPECT_GT(std::abs(left - right), 1000.0);
}

TEST(CandidateDetector, ChainStorageLimitIsSilent) {
  quorvik::skeleton::SegCoordinateMapper<double> mapper(
      640, 480, sim_scene::kHfovDegrees * kDegreesToRadians, sim_scene::kVfovDegrees * kDegreesToRadians,
      sim_scene::kMaxDepthMm);
  auto detector = std::make_unique<PersonCandidateDetector>();
  const auto& t = sim_scene::default_tables();
  detector->start(640, 480, t.shiftToDepth.data(), t.depthToShift.data(), false, &mapper);
  // Near stripes 40 pixels wide that shift by half their width from row to row: every run
  // opens a chain of its own, far more than the storage holds.
  Array2D<uint16_t> raw(640, 480), shift(640, 480), shadow(640, 480);
  for (int y = 0; y < 480; ++y) {
    for (int x = 0; x < 640; ++x) {
      const bool near = ((x + (y % 2) * 20) / 40) % 2 == 0;
      raw.at(x, y) = near ? 1000 : 3000;
      shift.at(x, y) = t.shift_of(raw.at(x, y));
    }
  }
  detector->process(raw, shift, shadow);
  EXPECT_EQ(detector->chain_count(), PersonCandidateDetector::kMaxChains);
  EXPECT_EQ(detector->kept_chain_count(), 0);  // one run each, fewer than 5 x (640 / 320)
  detector->process(raw, shift, shadow);
  EXPECT_LE(detector->tracked().size(), size_t(PersonCandidateDetector::kMaxCandidates));
}
