#include "skeleton/model_tracker.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "support/posed_body.h"

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;
using J = JointType;

constexpr uint8_t kUser = 2;

// The fit sees only the camera-facing surface: a capsule of radius r seen along the view
// ray puts its visible points on average pi/4 * r in front of its axis, so each joint may
// sit up to its thickest capsule's radius (plus a depth step) nearer the camera. Across the
// view the error is bounded by the pixel grid (18 mm at 2.6 m) and the labelling: 2.5 pixels.
constexpr float kLateralTolerance = 45.f;
constexpr float kDepthSlack = 15.f;

std::array<float, kJointCount> joint_radii() {
  std::array<float, kJointCount> radii{};
  for (const testing::PaintedPart& part : testing::body_paint()) {
    for (std::optional<J> j : {proximal_joint(part.bone), distal_joint(part.bone)}) {
      if (j && *j != J::None) radii[static_cast<size_t>(*j)] = std::max(radii[static_cast<size_t>(*j)], part.radius);
    }
  }
  return radii;
}

void expect_joints_near(const UserSkeleton& user, const std::array<Vector3, kJointCount>& truth) {
  static const auto radii = joint_radii();
  for (J j : report_joint_order()) {
    SCOPED_TRACE(to_string(j));
    const JointRecord& record = user.joints.at(to_byte(j));
    EXPECT_EQ(record.status, JointStatus::High);
    const Vector3 d = record.worldPosition - truth[static_cast<size_t>(j)];
    EXPECT_LT(std::hypot(d.x, d.y), kLateralTolerance);
    EXPECT_GT(d.z, -(radii[static_cast<size_t>(j)] + kDepthSlack));
    EXPECT_LT(d.z, kDepthSlack);
  }
}

void expect_symmetric_lengths(const UserSkeleton& user) {
  for (const auto& [bone, len] : user.boneLengths) {
    SCOPED_TRACE(to_string(bone));
    EXPECT_GT(len, 0.f);
    if (bone_side(bone) != BoneSide::Center) {
      EXPECT_EQ(len, user.boneLengths.at(mirror_bone(bone)));
    }
  }
}

struct TrackerFixture : ::testing::Test {
  void step(const testing::FrameImages& f, uint32_t frame) {
    tracker.step(user, f.labels, f.points, f.userIds, f.box, frame, camera);
  }
  ModelTracker tracker;
  UserSkeleton user{kUser};
  DepthCameraModel camera = testing::test_camera();
};

TEST_F(TrackerFixture, ConvergesFromDefaultModelAndFollowsMotion) {
  ASSERT_EQ(user.joints.size(), static_cast<size_t>(kJointCount));
  EXPECT_EQ(user.joints.at(to_byte(J::Head)).frame, -1);
  Vector3 fittedHandAtRest, trueHandAtRest;
  for (uint32_t frame = 0; frame < 24; ++frame) {
    SCOPED_TRACE(frame);
    // Three frames of a still pose, then the right arm lowers by 50 degrees and the left
    // knee bends over 20 frames.
    const float phase = frame < 4 ? 0.f : static_cast<float>(frame - 4) / 19.f;
    const testing::BodyPose pose = testing::moving_pose(phase);
    HumanModel posed = testing::make_posed_model(pose);
    const auto truth = testing::joint_positions(posed);
    step(testing::render_pose(pose, kUser), frame);

    // Root jumps to the measured MidSpine on the first fit.
    const Vector3 midSpine = user.joints.at(to_byte(J::MidSpine)).worldPosition;
    EXPECT_LT(length(midSpine - truth[static_cast<size_t>(J::MidSpine)]), 100.f);
    expect_symmetric_lengths(user);
    if (frame >= 2) expect_joints_near(user, truth);

    const JointRecord& hand = user.joints.at(to_byte(J::RightHand));
    EXPECT_EQ(hand.frame, static_cast<int32_t>(frame));
    float u, v;
    camera.to_image(hand.worldPosition.x, hand.worldPosition.y, hand.worldPosition.z, u, v);
    EXPECT_EQ(hand.imageX, u);
    EXPECT_EQ(hand.imageY, v);
    if (frame == 3) {
      fittedHandAtRest = hand.worldPosition;
      trueHandAtRest = truth[static_cast<size_t>(J::RightHand)];
    }
    if (frame == 23) {
      const Vector3 trueMove = truth[static_cast<size_t>(J::RightHand)] - trueHandAtRest;
      ASSERT_GT(length(trueMove), 300.f);
      EXPECT_LT(length((hand.worldPosition - fittedHandAtRest) - trueMove), 40.f);
    }
  }
}

// Joints stay at Low for four frames after their last update and drop on the fifth.
TEST_F(TrackerFixture, HoldRule) {
  const testing::BodyPose pose = testing::moving_pose(0.f);
  const testing::FrameImages full = testing::render_pose(pose, kUser);
  testing::FrameImages noHand = full;
  for (size_t i = 0; i < noHand.labels.size(); ++i) {
    const uint8_t l = noHand.labels[i].label;
    if (l == 4 || l == 5) noHand.labels[i].label = 0;
  }
  testing::FrameImages nobody = full;
  nobody.userIds.fill(0);

  for (uint32_t f = 0; f < 3; ++f) step(full, f);
  for (uint32_t f = 3; f < 5; ++f) step(noHand, f);
  ASSERT_EQ(user.joints.at(to_byte(J::RightHand)).status, JointStatus::None);
  ASSERT_EQ(user.joints.at(to_byte(J::RightHand)).frame, 2);
  ASSERT_EQ(user.joints.at(to_byte(J::Head)).status, JointStatus::High);
  const auto before = user.joints;

  for (uint32_t f = 5; f < 12; ++f) {
    SCOPED_TRACE(f);
    step(nobody, f);
    for (const auto& [joint, record] : user.joints) {
      SCOPED_TRACE(int{joint});
      const JointRecord& old = before.at(joint);
      EXPECT_EQ(record.frame, old.frame);
      EXPECT_EQ(record.worldPosition, old.worldPosition);
      const bool held = int64_t{old.frame} + 5 > int64_t{f};
      EXPECT_EQ(record.status, held ? JointStatus::Low : JointStatus::None);
    }
  }
}

// Without hand and forearm labels the arm's chain ends at the upper arm: the forearm and
// hand are lost and straightened, the elbow is still reported at the upper arm's end.
TEST_F(TrackerFixture, UnmeasuredHandBelowMeasuredElbow) {
  const testing::BodyPose pose = testing::moving_pose(0.f);
  testing::FrameImages f = testing::render_pose(pose, kUser);
  for (uint32_t frame = 0; frame < 3; ++frame) step(f, frame);
  ASSERT_NE(user.model.find(B::RightForearm).pose.rotation, Quaternion::identity());
  for (size_t i = 0; i < f.labels.size(); ++i) {
    if (f.labels[i].label == 4 || f.labels[i].label == 5) f.labels[i].label = 0;
  }
  step(f, 3);
  EXPECT_EQ(user.model.find(B::RightForearm).state, BoneTrackingState::Untracked);
  EXPECT_EQ(user.model.find(B::RightHand).state, BoneTrackingState::Untracked);
  EXPECT_EQ(user.model.find(B::RightUpperArm).state, BoneTrackingState::Tracked);
  EXPECT_EQ(user.model.find(B::RightForearm).pose.rotation, Quaternion::identity());
  EXPECT_EQ(user.model.find(B::RightHand).pose.rotation, Quaternion::identity());
  EXPECT_EQ(user.joints.at(to_byte(J::RightHand)).status, JointStatus::None);
  const JointRecord& elbow = user.joints.at(to_byte(J::RightElbow));
  EXPECT_EQ(elbow.status, JointStatus::High);
  EXPECT_EQ(elbow.frame, 3);
  const Vector3 end = user.model.find(B::RightUpperArm).end_point();
  EXPECT_LT(length(elbow.worldPosition - end), 1e-3f);
  EXPECT_EQ(user.joints.at(to_byte(J::LeftHand)).status, JointStatus::High);
}

TEST(ModelTrackerTest, LengthSmoothingKeepsMirrorsEqual) {
  ModelTracker tracker;
  BoneLengths u = {{B::LeftUpperArm, 300.f}, {B::RightUpperArm, 320.f}, {B::UpperSpine, 400.f},
                   {B::RightLowerLeg, 360.f}};
  const BoneLengths m = {{B::LeftUpperArm, 280.f}, {B::RightUpperArm, 300.f}, {B::UpperSpine, 500.f},
                         {B::LeftForearm, 250.f},  {B::Neck, 170.f},          {B::LeftLowerLeg, 340.f}};
  tracker.smooth_lengths(u, m);
  EXPECT_FLOAT_EQ(u.at(B::LeftUpperArm), 0.9f * 310.f + 0.1f * 290.f);
  EXPECT_EQ(u.at(B::RightUpperArm), u.at(B::LeftUpperArm));
  EXPECT_FLOAT_EQ(u.at(B::UpperSpine), 410.f);
  EXPECT_EQ(u.at(B::Neck), 170.f);
  EXPECT_EQ(u.at(B::LeftForearm), 250.f);
  EXPECT_EQ(u.at(B::RightForearm), 250.f);
  // Only the right one held a value: it is smoothed and copied to the left.
  EXPECT_FLOAT_EQ(u.at(B::LeftLowerLeg), 0.9f * 360.f + 0.1f * 340.f);
  EXPECT_EQ(u.at(B::RightLowerLeg), u.at(B::LeftLowerLeg));
  EXPECT_FALSE(u.count(B::LeftUpperLeg));
}

TEST(ModelTrackerTest, LengthPassAndFitGuards) {
  ModelTracker tracker;
  HumanModel model = make_default_model();
  FitTargets targets;
  // No Root target: the fit leaves everything alone.
  targets.chainEnds = {B::RightUpperArm};
  targets.lengthTargets = {{B::RightUpperArm, B::RightUpperArm, -1000.f}};
  tracker.fit(model, targets);
  EXPECT_EQ(model.find(B::RightUpperArm).length, 300.f);
  EXPECT_EQ(model.find(B::RightUpperArm).state, BoneTrackingState::Untracked);

  // A length that would go negative is not taken; a positive one is.
  tracker.length_pass(model, targets);
  EXPECT_EQ(model.find(B::RightUpperArm).length, 300.f);
  targets.lengthTargets = {{B::RightUpperArm, B::RightUpperArm, 260.f}};
  tracker.length_pass(model, targets);
  EXPECT_FLOAT_EQ(model.find(B::RightUpperArm).length, 260.f);

  // A position target turns the arm and the bones above it until the arm's end reaches it.
  const Vector3 target{-170.f, 416.f - 260.f, 0.f};
  targets.positionTargets = {{B::RightUpperArm, target}};
  ASSERT_GT(length(model.find(B::RightUpperArm).end_point() - target), 300.f);
  for (int i = 0; i < 10; ++i) tracker.direction_pass(model, targets);
  EXPECT_LT(length(model.find(B::RightUpperArm).end_point() - target), 5.f);
  EXPECT_EQ(model.find(B::LowerSpine).pose.rotation, Quaternion::identity());
  tracker.set_bone_states(model, targets);
  EXPECT_EQ(model.find(B::RightUpperArm).state, BoneTrackingState::Tracked);
  EXPECT_EQ(model.find(B::RightForearm).state, BoneTrackingState::Untracked);
  EXPECT_EQ(model.find(B::RightHand).state, BoneTrackingState::Untracked);
  EXPECT_EQ(model.find(B::LeftUpperArm).state, BoneTrackingState::Inferred);
}

}  // namespace
}  // namespace quorvik::skeleton
