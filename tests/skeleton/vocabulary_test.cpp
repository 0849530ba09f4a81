#include "skeleton/vocabulary.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;
using J = JointType;

template <typename F>
std::string error_text(F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

TEST(VocabularyTest, NamesAndUnknownValues) {
  EXPECT_EQ(to_string(B::None), "None");
  EXPECT_EQ(to_string(B::RightUpperLeg), "RightUpperLeg");
  EXPECT_EQ(to_string(J::Unknown), "Unknown");
  EXPECT_EQ(to_string(J::LeftElbow), "LeftElbow");
  EXPECT_EQ(to_string(JointStatus::Low), "Low");
  EXPECT_THROW(to_string(static_cast<J>(18)), std::out_of_range);
  EXPECT_EQ(error_text([] { to_string(static_cast<J>(18)); }), "invalid unordered_map<K, T> key");
  EXPECT_EQ(error_text([] { to_string(static_cast<B>(22)); }), "invalid unordered_map<K, T> key");
  EXPECT_EQ(error_text([] { mirror_bone(static_cast<B>(22)); }), "HumanModel: Unsupported HumanBoneType");
  EXPECT_EQ(error_text([] { bone_side(static_cast<B>(40)); }), "HumanModel: Unsupported HumanBoneType");
}

TEST(VocabularyTest, MirrorsAndSides) {
  for (int v = 0; v <= kBoneCount; ++v) {
    const auto b = static_cast<B>(v);
    SCOPED_TRACE(to_string(b));
    EXPECT_EQ(mirror_bone(mirror_bone(b)), b);
    const BoneSide side = bone_side(b);
    if (side == BoneSide::Center) {
      EXPECT_EQ(mirror_bone(b), b);
    } else {
      EXPECT_NE(bone_side(mirror_bone(b)), side);
      EXPECT_NE(bone_side(mirror_bone(b)), BoneSide::Center);
      EXPECT_EQ(to_string(b).substr(0, side == BoneSide::Left ? 4 : 5), side == BoneSide::Left ? "Left" : "Right");
    }
  }
  for (uint8_t j = 0; j < kJointCount; ++j) {
    SCOPED_TRACE(int{j});
    EXPECT_EQ(mirror_joint(mirror_joint(j)), j);
    const std::string name = to_string(static_cast<J>(j));
    if (name.rfind("Left", 0) != 0 && name.rfind("Right", 0) != 0) {
      EXPECT_EQ(mirror_joint(j), j);
    }
  }
  EXPECT_EQ(mirror_joint(to_byte(J::LeftHand)), to_byte(J::RightHand));
  EXPECT_EQ(mirror_joint(kNoJointByte), kNoJointByte);
  EXPECT_EQ(error_text([] { mirror_joint(16); }), "mirror_joint: Unsupported JointType");
  EXPECT_THROW(mirror_joint(16), std::logic_error);
}

TEST(VocabularyTest, JointBytes) {
  EXPECT_EQ(to_byte(J::None), 255);
  EXPECT_EQ(to_byte(J::Unknown), 255);
  EXPECT_EQ(parent_joint_byte(to_byte(J::MidSpine)), uint8_t{255});
  EXPECT_EQ(parent_joint_byte(to_byte(J::LeftKnee)), to_byte(J::LeftHip));
  EXPECT_FALSE(parent_joint_byte(255).has_value());
  EXPECT_EQ(joint_status_for(BoneTrackingState::Tracked), JointStatus::High);
  EXPECT_EQ(joint_status_for(BoneTrackingState::Inferred), JointStatus::Low);
  EXPECT_EQ(joint_status_for(BoneTrackingState::Untracked), JointStatus::None);
}

TEST(VocabularyTest, IsDescendant) {
  EXPECT_TRUE(is_descendant(B::RightHand, B::UpperSpine));
  EXPECT_TRUE(is_descendant(B::RightHand, B::Root));
  EXPECT_FALSE(is_descendant(B::RightHand, B::LowerSpine));
  EXPECT_FALSE(is_descendant(B::LeftFoot, B::RightPelvis));
  for (int v = 0; v <= kBoneCount + 1; ++v) {
    const auto b = static_cast<B>(v);
    SCOPED_TRACE(v);
    EXPECT_FALSE(is_descendant(B::Root, b));
    EXPECT_FALSE(is_descendant(b, b));
    EXPECT_FALSE(is_descendant(b, B::None));
  }
}

// The tables hang together: bones end where their children start, every joint starts a
// bone, joint parents agree with bone parents, and both orders put parents first.
TEST(VocabularyTest, TablesAreConsistent) {
  uint32_t terminal = 0;
  for (B b : all_bones()) {
    SCOPED_TRACE(to_string(b));
    ASSERT_TRUE(proximal_joint(b).has_value());
    const J distal = *distal_joint(b);
    if (distal == J::None) {
      terminal |= 1u << static_cast<uint32_t>(b);
    } else if (b != B::Root) {
      EXPECT_EQ(parent_bone_of_joint(distal), b);
    }
    EXPECT_EQ(is_terminal_bone(b), distal == J::None);
    if (b != B::Root) {
      EXPECT_EQ(distal_joint(parent_bone(b)), proximal_joint(b));
    }
  }
  EXPECT_EQ(terminal, kTerminalBoneMask);
  EXPECT_EQ(terminal | 1u, kTerminalOrRootBoneMask);
  EXPECT_EQ(parent_bone(B::Root), B::None);
  EXPECT_EQ(parent_bone(static_cast<B>(30)), B::None);
  EXPECT_FALSE(proximal_joint(B::None).has_value());
  EXPECT_FALSE(parent_joint(J::None).has_value());
  EXPECT_EQ(parent_joint(J::MidSpine), J::None);
  EXPECT_EQ(parent_bone_of_joint(J::MidSpine), B::Root);

  for (const auto* order : {&model_joint_order(), &report_joint_order()}) {
    for (size_t i = 0; i < order->size(); ++i) {
      const J j = (*order)[i];
      SCOPED_TRACE(to_string(j));
      EXPECT_TRUE(std::any_of(all_bones().begin(), all_bones().end(),
                              [j](B b) { return proximal_joint(b) == j; }));
      const J parent = *parent_joint(j);
      if (parent == J::None) continue;
      EXPECT_EQ(proximal_joint(*parent_bone_of_joint(j)), parent);
      const auto at = std::find(order->begin(), order->end(), parent);
      EXPECT_LT(at - order->begin(), static_cast<std::ptrdiff_t>(i));
    }
  }
}

}  // namespace
}  // namespace quorvik::skeleton
