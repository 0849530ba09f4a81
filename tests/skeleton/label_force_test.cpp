#include "skeleton/label_force.h"

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/posed_body.h"
#include "support/throws.h"

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;

constexpr uint8_t kUser = 4;

// Points placed pixel after pixel: the label force reads the world point image, not the
// pixel positions, so a hand-made point list needs no projection.
struct PointImages {
  PointImages() {
    labels.resize(160, 120);
    points.resize(160, 120);
    userIds.resize(160, 120);
    labels.fill({});
    points.fill({0, 0, 0});
    userIds.fill(0);
  }
  void add(const Vector3& p, uint8_t label, float probability = 1.f, uint8_t user = kUser) {
    labels[next] = {label, probability};
    points[next] = {p.x, p.y, p.z};
    userIds[next] = user;
    ++next;
    box = {0, 0, 159, static_cast<int32_t>((next - 1) / 160), false};
  }
  op::Image<PixelLabel> labels;
  op::Image<WorldPoint> points;
  op::Image<uint8_t> userIds;
  RegionBox box;
  size_t next = 0;
};

bool any_proposal(const HumanProposals& proposals) {
  for (B b : all_bones()) {
    const HumanProposal& p = proposals.at(b);
    if (p.start || p.direction || p.length) return true;
  }
  return false;
}

float angle_degrees(const Vector3& a, const Vector3& b) {
  return std::acos(std::clamp(dot(normalize(a), normalize(b)), -1.f, 1.f)) / kDegreesToRadians;
}

TEST(LabelForceTest, PosedBodyProposesEveryBoneAlongItsDirection) {
  const testing::BodyPose pose = testing::moving_pose(0.5f);
  HumanModel truth = testing::make_posed_model(pose);
  testing::FrameImages images = testing::render_pose(pose, kUser);
  LabelForce force;
  HumanModel model = testing::make_posed_model(pose);
  const HumanProposals proposals = force.generate(images.labels, images.points, images.userIds, kUser, images.box, model);
  ASSERT_EQ(proposals.size(), static_cast<size_t>(kBoneCount));
  for (B b : all_bones()) {
    SCOPED_TRACE(to_string(b));
    const HumanProposal& p = proposals.at(b);
    ASSERT_TRUE(p.start && p.direction && p.length);
    Bone& bone = truth.find(b);
    // The visible surface lies in front of the axis by at most the capsule radius.
    EXPECT_LT(length(*p.start - bone.start_point()), 130.f);
    // Long bones keep their direction; the clavicles' inner halves are seen on the chest
    // surface, which tilts them toward the camera, so they are left out.
    if (bone.length > 250.f) {
      EXPECT_LT(angle_degrees(*p.direction, bone.end_point() - bone.start_point()), 6.f);
    }
  }

  // Labels below the probability floor, or of another user, are not seen.
  for (size_t i = 0; i < images.labels.size(); ++i) images.labels[i].probability = 0.19f;
  EXPECT_FALSE(any_proposal(force.generate(images.labels, images.points, images.userIds, kUser, images.box, model)));
  for (size_t i = 0; i < images.labels.size(); ++i) images.labels[i].probability = 0.2f;
  EXPECT_TRUE(any_proposal(force.generate(images.labels, images.points, images.userIds, kUser, images.box, model)));
  EXPECT_FALSE(any_proposal(force.generate(images.labels, images.points, images.userIds, kUser + 1, images.box, model)));

  // Without the neck and head labels the neck goes, and the upper spine anchored on it goes
  // too, although Root keeps its points.
  for (size_t i = 0; i < images.labels.size(); ++i) {
    if (images.labels[i].label == 21 || images.labels[i].label == 6) images.labels[i].label = 0;
  }
  const HumanProposals partial =
      force.generate(images.labels, images.points, images.userIds, kUser, images.box, model);
  EXPECT_FALSE(partial.at(B::Neck).start);
  EXPECT_TRUE(partial.at(B::Root).start);
  EXPECT_FALSE(partial.at(B::UpperSpine).start);
  EXPECT_TRUE(partial.at(B::LowerSpine).start);
  EXPECT_TRUE(partial.at(B::RightPelvis).start);
}

// A zero-length bone takes no spread test and moves to the weighted mean of its points;
// more than ten points are needed.
TEST(LabelForceTest, TerminalBoneCountAndMean) {
  HumanModel model = make_default_model();
  const Vector3 hand = model.find(B::RightHand).start_point();
  for (int n : {10, 11, 30}) {
    SCOPED_TRACE(n);
    PointImages img;
    Vector3 weighted;
    float weights = 0.f;
    for (int i = 0; i < n; ++i) {
      const Vector3 p = hand + Vector3{static_cast<float>(i % 5) * 20.f, static_cast<float>(i / 5) * 15.f, 60.f};
      img.add(p, 4);
      const float w = 1.f / (length_squared(p - hand) / 1e4f + 1.f);
      weighted += p * w;
      weights += w;
    }
    LabelForce force;
    const HumanProposals proposals = force.generate(img.labels, img.points, img.userIds, kUser, img.box, model);
    const HumanProposal& p = proposals.at(B::RightHand);
    // The same points pull on the end of the forearm, which covers too little of it.
    EXPECT_FALSE(proposals.at(B::RightForearm).start);
    if (n <= 10) {
      EXPECT_FALSE(p.start);
      continue;
    }
    ASSERT_TRUE(p.start);
    const Vector3 mean = weighted / weights;
    EXPECT_NEAR(p.start->x, mean.x, 0.05f);
    EXPECT_NEAR(p.start->y, mean.y, 0.05f);
    EXPECT_NEAR(p.start->z, mean.z, 0.05f);
    EXPECT_EQ(*p.length, 0.f);
    EXPECT_EQ(*p.direction, (Vector3{}));
  }
}

// A long bone needs its points spread over 0.4 of its length; a well covered one follows
// its points rigidly.
TEST(LabelForceTest, SpreadAndRigidMotion) {
  HumanModel model = make_default_model();
  const Vector3 s = model.find(B::RightUpperArm).start_point();
  const Vector3 e = model.find(B::RightUpperArm).end_point();
  const Vector3 shift{0.f, 25.f, 40.f};
  for (float reach : {0.3f, 1.f}) {
    SCOPED_TRACE(reach);
    PointImages img;
    for (int i = 0; i < 60; ++i) {
      const float t = reach * static_cast<float>(i) / 59.f;
      const Vector3 around{0.f, (i % 2 ? 15.f : -15.f), (i % 3 - 1) * 10.f};
      img.add(s + (e - s) * t + shift + around, 8);
    }
    LabelForce force;
    const HumanProposals proposals = force.generate(img.labels, img.points, img.userIds, kUser, img.box, model);
    const HumanProposal& p = proposals.at(B::RightUpperArm);
    if (reach < 0.4f) {
      EXPECT_FALSE(p.start);
      continue;
    }
    ASSERT_TRUE(p.start);
    EXPECT_LT(length(*p.start - (s + shift)), 4.f);
    EXPECT_LT(angle_degrees(*p.direction, e - s), 2.f);
    EXPECT_FLOAT_EQ(*p.length, 300.f);
  }
}

TEST(LabelForceTest, EmptyExtentAndMissingProposal) {
  HumanModel model = make_default_model();
  PointImages img;
  for (int i = 0; i < 50; ++i) img.add({static_cast<float>(i), 0.f, 2000.f}, 17);
  img.box.empty = true;
  LabelForce force;
  HumanProposals proposals = force.generate(img.labels, img.points, img.userIds, kUser, img.box, model);
  EXPECT_EQ(proposals.size(), static_cast<size_t>(kBoneCount));
  EXPECT_FALSE(any_proposal(proposals));
  proposals.erase(B::Neck);
  EXPECT_THAT([&] { proposals.at(B::Neck); }, support::throws_logic_error("HumanProposal: Unsupported HumanBoneType"));
  HumanModel empty;
  EXPECT_THROW(force.generate(img.labels, img.points, img.userIds, kUser, img.box, empty), std::logic_error);
}

}  // namespace
}  // namespace quorvik::skeleton
