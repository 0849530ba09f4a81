#include "skeleton/model_converter.h"

#include <algorithm>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/posed_body.h"
#include "skeleton/target_extractor.h"
#include "support/throws.h"

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;
using J = JointType;

void expect_near(const Vector3& a, const Vector3& b, float tol = 0.05f) {
  EXPECT_NEAR(a.x, b.x, tol);
  EXPECT_NEAR(a.y, b.y, tol);
  EXPECT_NEAR(a.z, b.z, tol);
}

JointPositions all_joints(HumanModel& model) {
  const auto joints = testing::joint_positions(model);
  JointPositions positions;
  for (J j : model_joint_order()) positions.push_back({j, 1, joints[static_cast<size_t>(j)]});
  return positions;
}

void propose(HumanProposals& set, B bone, const Vector3& start, std::optional<Vector3> direction = {},
             std::optional<float> len = {}) {
  set.at(bone) = {bone, start, direction, len};
}

TEST(ModelConverterTest, ModelFromJointPositions) {
  ModelConverter converter;
  HumanModel onlyRoot = converter.model_from_joint_positions({{J::MidSpine, 1, {10, 20, 30}}});
  HumanModel reference = make_default_model();
  for (B b : all_bones()) {
    SCOPED_TRACE(to_string(b));
    Bone& bone = onlyRoot.find(b);
    EXPECT_EQ(bone.pose.rotation, Quaternion::identity());
    EXPECT_EQ(bone.length, reference.find(b).length);
    expect_near(bone.start_point(), reference.find(b).start_point() + Vector3{10, 20, 30});
    EXPECT_EQ(bone.measured, b == B::Root);
  }

  // Every joint of a posed model comes back where it was.
  const testing::BodyPose pose = testing::moving_pose(0.7f);
  HumanModel posed = testing::make_posed_model(pose);
  HumanModel rebuilt = converter.model_from_joint_positions(all_joints(posed));
  for (B b : all_bones()) {
    SCOPED_TRACE(to_string(b));
    expect_near(rebuilt.find(b).start_point(), posed.find(b).start_point());
    if (!is_terminal_bone(b)) {
      EXPECT_NEAR(rebuilt.find(b).length, posed.find(b).length, 0.01f);
    }
    EXPECT_TRUE(rebuilt.find(b).measured);
  }

  EXPECT_THAT([&] { converter.model_from_joint_positions({{J::MidSpine, 1, {}}, {J::LeftElbow, 1, {}}}); },
              support::throws_logic_error("Proximal position not found for non-root distal joint"));
}

TEST(ModelConverterTest, CandidatesFromProposals) {
  ModelConverter converter;
  HumanModel user = make_default_model();
  HumanProposals set = HumanProposals::empty_set();
  propose(set, B::RightForearm, {1, 2, 3});
  EXPECT_FALSE(converter.convert(set, user).has_value());

  // MidSpine is the mean of the starts of the three bones that begin there.
  propose(set, B::Root, {0, 0, 2000});
  propose(set, B::UpperSpine, {30, 0, 2000});
  propose(set, B::LowerSpine, {0, 60, 2000});
  JointPositions positions = converter.positions_from_proposals(set);
  ASSERT_NE(find_position(positions, J::MidSpine), nullptr);
  expect_near(find_position(positions, J::MidSpine)->position, {10, 20, 2000});

  // An upper arm ends 300 mm out; a forearm start within 100 mm of it is kept and lends
  // its own end to the hand ...
  propose(set, B::RightUpperArm, {-200, 400, 2000}, Vector3{-2, 0, 0}, 300.f);
  propose(set, B::RightForearm, {-550, 400, 2000}, Vector3{0, -1, 0}, 250.f);
  positions = converter.positions_from_proposals(set);
  expect_near(find_position(positions, J::RightElbow)->position, {-550, 400, 2000});
  expect_near(find_position(positions, J::RightHand)->position, {-550, 150, 2000});
  // ... one further away is replaced by the upper arm's end, and the hand takes nothing from it.
  propose(set, B::RightForearm, {-620, 400, 2000}, Vector3{0, -1, 0}, 250.f);
  positions = converter.positions_from_proposals(set);
  expect_near(find_position(positions, J::RightElbow)->position, {-500, 400, 2000});
  EXPECT_EQ(find_position(positions, J::RightHand), nullptr);
}

// Missing ancestors of measured joints hang off their measured parents with the user's
// bone vectors; missing descendants stay missing.
TEST(ModelConverterTest, FillsAncestorsFromUserModel) {
  ModelConverter converter;
  HumanModel user = make_default_model();
  HumanProposals set = HumanProposals::empty_set();
  propose(set, B::Root, {0, 0, 2000});
  propose(set, B::Neck, {0, 400, 2000});
  propose(set, B::RightForearm, {-450, 380, 1900});
  for (bool tracked : {false, true}) {
    SCOPED_TRACE(tracked);
    user.find(B::RightClavicle).state = tracked ? BoneTrackingState::Tracked : BoneTrackingState::Untracked;
    JointPositions positions = converter.positions_from_proposals(set);
    converter.fill_positions(user, positions);
    const JointPosition* shoulder = find_position(positions, J::RightShoulder);
    ASSERT_NE(shoulder, nullptr);
    expect_near(shoulder->position, {-170, 400, 2000});
    EXPECT_EQ(shoulder->state, tracked ? 1u : 0u);
    EXPECT_EQ(find_position(positions, J::RightHand), nullptr);
    EXPECT_EQ(find_position(positions, J::LeftShoulder), nullptr);

    std::optional<HumanModel> model = converter.convert(set, user);
    ASSERT_TRUE(model.has_value());
    EXPECT_EQ(model->find(B::RightClavicle).measured, tracked);
    EXPECT_TRUE(model->find(B::RightUpperArm).measured);
    EXPECT_FALSE(model->find(B::RightForearm).measured);
    EXPECT_FALSE(model->find(B::RightHand).measured);
    expect_near(model->find(B::RightUpperArm).end_point(), {-450, 380, 1900});
  }
}

TEST(TargetExtractorTest, TargetsAndChainEnds) {
  ModelConverter converter;
  TargetExtractor extractor;
  HumanModel posed = testing::make_posed_model(testing::moving_pose(0.2f));
  HumanModel full = converter.model_from_joint_positions(all_joints(posed));
  const BoneLengths lengths = {{B::UpperSpine, 400.f}, {B::RightHand, 5.f}};
  FitTargets targets = extractor.extract(full, lengths);
  EXPECT_EQ(targets.positionTargets.size(), 16u);
  for (B b : all_bones()) {
    SCOPED_TRACE(to_string(b));
    const PositionTarget* target = targets.position_target(b);
    EXPECT_EQ(target == nullptr, is_terminal_bone(b));
    if (target) {
      expect_near(target->position, posed.find(b).end_point());
    }
  }
  ASSERT_EQ(targets.lengthTargets.size(), 1u);
  EXPECT_EQ(targets.lengthTargets[0].bone, B::UpperSpine);
  EXPECT_EQ(*targets.lengthTargets[0].length, 400.f);
  std::vector<B> ends = targets.chainEnds;
  std::sort(ends.begin(), ends.end());
  EXPECT_EQ(ends, (std::vector<B>{B::Head, B::RightHand, B::LeftHand, B::RightFoot, B::LeftFoot}));

  // Without the right hand the right arm's chain ends at the upper arm.
  JointPositions positions = all_joints(posed);
  positions.erase(std::find_if(positions.begin(), positions.end(),
                               [](const JointPosition& p) { return p.joint == J::RightHand; }));
  HumanModel partial = converter.model_from_joint_positions(positions);
  targets = extractor.extract(partial, {});
  EXPECT_TRUE(targets.lengthTargets.empty());
  EXPECT_TRUE(targets.is_chain_end(B::RightUpperArm));
  EXPECT_FALSE(targets.is_chain_end(B::RightHand));
  EXPECT_EQ(targets.position_target(B::RightForearm), nullptr);
  EXPECT_EQ(targets.chainEnds.size(), 5u);

  HumanModel empty;
  EXPECT_THROW(extractor.extract(empty, {}), std::logic_error);
}

}  // namespace
}  // namespace quorvik::skeleton
