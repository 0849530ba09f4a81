#include "metrics.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace quorvik::eval {
namespace {

using skeleton::JointStatus;
using skeleton::JointType;

uint8_t byte(JointType j) { return static_cast<uint8_t>(j); }

TEST(JointMatching, MirroredRecordingsCompareWithTheOtherSide) {
  // The tracker, told the depth is mirrored, reports mirror(model joint); the truth carries
  // the model's names, so a reported left hand is the truth's right hand.
  EXPECT_EQ(truth_joint_for(byte(JointType::LeftHand), true), byte(JointType::RightHand));
  EXPECT_EQ(truth_joint_for(byte(JointType::RightKnee), true), byte(JointType::LeftKnee));
  EXPECT_EQ(truth_joint_for(byte(JointType::LeftHand), false), byte(JointType::LeftHand));
  for (uint8_t j = 0; j < kJoints; ++j) {
    SCOPED_TRACE(static_cast<int>(j));
    EXPECT_EQ(truth_joint_for(truth_joint_for(j, true), true), j);
    const bool centre = j == byte(JointType::Head) || j == byte(JointType::ShoulderSpine) ||
                        j == byte(JointType::MidSpine) || j == byte(JointType::BaseSpine);
    EXPECT_EQ(truth_joint_for(j, true) == j, centre);
  }
}

TEST(JointMatching, TheBackIsTurnedWhenTheLeftShoulderIsOnTheLeftOfTheView) {
  // Shoulders 400 mm apart, 3 m away; facing the camera the model's left shoulder is at +x.
  struct Case {
    float leftX, leftZ, rightX, rightZ;
    bool back;
  };
  for (const Case& c : {Case{200, 3000, -200, 3000, false}, Case{-200, 3000, 200, 3000, true},
                        Case{0, 2800, 0, 3200, false}, Case{-80, 2820, 80, 3180, false},
                        Case{-180, 2900, 180, 3100, true}}) {
    SCOPED_TRACE(testing::Message() << c.leftX << " " << c.leftZ);
    EXPECT_EQ(shows_back({c.leftX, 1200, c.leftZ}, {c.rightX, 1200, c.rightZ}), c.back);
  }
}

TEST(JointMatching, ErrorSplitsIntoImagePlaneAndDepth) {
  const JointError e = joint_error({30, 40, 2000}, {0, 0, 2120});
  EXPECT_FLOAT_EQ(e.lateral, 50.f);
  EXPECT_FLOAT_EQ(e.depth, 120.f);
  EXPECT_FLOAT_EQ(e.total, 130.f);
  for (float d : {-300.f, -1.f, 0.f, 7.f, 250.f}) {
    SCOPED_TRACE(d);
    const JointError k = joint_error({d, -d, 1500 + d}, {0, 0, 1500});
    EXPECT_NEAR(k.total * k.total, k.lateral * k.lateral + k.depth * k.depth, 1e-2f * (1 + k.total));
    EXPECT_GE(k.depth, 0.f);
  }
}

TEST(Overlap, NearestBodyAndFalseBodies) {
  // Person 1 mostly under body 3, partly under body 2; person 2 under nothing; body 5
  // lies on the background only; body 4 has no pixels at all.
  const std::vector<uint8_t> truth = {1, 1, 1, 1, 1, 2, 2, 0, 0, 0, 0, 0};
  const std::vector<uint8_t> mask = {3, 3, 3, 2, 0, 0, 0, 5, 5, 5, 2, 0};
  const Overlap o = count_overlap(mask.data(), truth.data(), truth.size());
  EXPECT_EQ(nearest_body(o, 1), 3);
  EXPECT_EQ(nearest_body(o, 2), 0);
  EXPECT_EQ(nearest_body(o, 9), 0);
  EXPECT_EQ(o.bodyPixels.at(2), 2u);
  EXPECT_EQ(o.bodyOnPeople.at(2), 1u);
  EXPECT_EQ(false_bodies(o, {2, 3, 4, 5}), (std::vector<uint8_t>{4, 5}));
  // Half of body 2 is on a person: false only when more than half is required.
  EXPECT_EQ(false_bodies(o, {2}, 0.5f), std::vector<uint8_t>{});
  EXPECT_EQ(false_bodies(o, {2}, 0.51f), std::vector<uint8_t>{2});
}

TEST(Overlap, TiesGoToTheLowerIdAndCountsAddUp) {
  const std::vector<uint8_t> truth = {4, 4, 4, 4, 0};
  const std::vector<uint8_t> mask = {9, 7, 9, 7, 7};
  const Overlap o = count_overlap(mask.data(), truth.data(), truth.size());
  EXPECT_EQ(nearest_body(o, 4), 7);
  uint32_t shared = 0;
  for (const auto& [body, n] : o.personBody.at(4)) shared += n;
  EXPECT_EQ(shared, 4u);
  EXPECT_EQ(o.bodyPixels.at(7), 3u);
}

TEST(IdSwitches, HandMadeSequence) {
  IdSwitchCounter c;
  // Person 1: body 2, a frame without a body, body 2 again (no switch), then body 3 (switch).
  c.observe(1, true, 2);
  c.observe(1, true, 0);
  c.observe(1, true, 2);
  c.observe(1, true, 3);
  EXPECT_EQ(c.switches(), 1);
  // Out of view and back with another id: a new stretch, not a switch.
  c.observe(1, false, 0);
  c.observe(1, true, 4);
  EXPECT_EQ(c.switches(), 1);
  // Person 2 alternates between two bodies: every change counts.
  c.observe(2, true, 5);
  c.observe(2, true, 6);
  c.observe(2, true, 5);
  EXPECT_EQ(c.switches(), 3);
  // Person 1 is unaffected by person 2.
  c.observe(1, true, 4);
  EXPECT_EQ(c.switches(), 3);
}

TEST(Acquisition, DelayFromFullViewToFirstTrackedFrame) {
  AcquisitionTimer t;
  for (int f = 0; f < 20; ++f) {
    t.observe(1, f, f >= 5, f >= 12);   // visible at 5, tracked at 12
    t.observe(2, f, f >= 3, f >= 1);    // tracked while still entering
    t.observe(3, f, f >= 10, false);    // never tracked
    t.observe(4, f, false, f >= 2);     // never fully visible: not counted
  }
  EXPECT_EQ(t.delays(), (std::vector<int>{7, 0, -1}));
}

TEST(FloorAngle, KnownAnglesAndScaleDoesNotMatter) {
  EXPECT_NEAR(normal_angle_deg({0, 1, 0, 1200}, {0, 1, 0, 900}), 0.0, 1e-9);
  EXPECT_NEAR(normal_angle_deg({0, 1, 0, 0}, {0, -1, 0, 0}), 180.0, 1e-6);
  EXPECT_NEAR(normal_angle_deg({0, 1, 0, 0}, {1, 0, 0, 0}), 90.0, 1e-6);
  EXPECT_NEAR(normal_angle_deg({0, 0, 0, 0}, {0, 1, 0, 0}), 180.0, 1e-9);
  for (float deg : {0.5f, 2.f, 10.f, 45.f}) {
    SCOPED_TRACE(deg);
    const float r = deg * static_cast<float>(M_PI) / 180.f;
    const std::array<float, 4> tilted{0, std::cos(r), std::sin(r), 1000};
    EXPECT_NEAR(normal_angle_deg({0, 1, 0, 1000}, tilted), deg, 1e-3);
    EXPECT_NEAR(normal_angle_deg({0, 7, 0, 1000}, {0, 3 * std::cos(r), 3 * std::sin(r), 1}), deg, 1e-3);
  }
}

TEST(Tally, StatsAndSums) {
  EXPECT_DOUBLE_EQ(stats_of({5, 1, 3}).median, 3.0);
  EXPECT_DOUBLE_EQ(stats_of({4, 1, 3, 2}).median, 2.5);
  EXPECT_DOUBLE_EQ(stats_of({4, 1, 3, 2}).mean, 2.5);
  EXPECT_EQ(stats_of({}).count, 0u);

  Tally a, b;
  const int hand = static_cast<int>(JointType::LeftHand);
  a.add_joint(hand, JointStatus::High, {80, 60, 53}, 1900);  // within 100 mm
  a.add_joint(hand, JointStatus::Low, {150, 100, 112}, 3100);
  a.add_joint(hand, JointStatus::None, {}, 0);
  b.add_joint(hand, JointStatus::High, {100, 80, 60}, 20000);  // exactly 100 mm is outside
  a.merge(b);
  const JointTally& j = a.joints[static_cast<size_t>(hand)];
  EXPECT_EQ(j.truth, 4u);
  EXPECT_EQ(j.detected, 1u);
  EXPECT_EQ(j.high, 2u);
  EXPECT_EQ(j.low, 1u);
  EXPECT_EQ(j.none, 1u);
  EXPECT_EQ(j.total.size(), 3u);
  EXPECT_DOUBLE_EQ(a.detection_rate(), 0.25);
  EXPECT_EQ(a.errorByDistance[3].size(), 1u);                  // 1.9 m
  EXPECT_EQ(a.errorByDistance[6].size(), 1u);                  // 3.1 m
  EXPECT_EQ(a.errorByDistance[kDistanceBins - 1].size(), 1u);  // far ones in the last bin
}

}  // namespace
}  // namespace quorvik::eval
