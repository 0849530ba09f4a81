#include "skeleton/human_model.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "segmentation/depth_conversion.h"
#include "skeleton/geometry.h"
#include "support/throws.h"

namespace quorvik::skeleton {
namespace {

using B = HumanBoneType;

void expect_near(const Vector3& a, const Vector3& b, float tol = 1e-3f) {
  EXPECT_NEAR(a.x, b.x, tol);
  EXPECT_NEAR(a.y, b.y, tol);
  EXPECT_NEAR(a.z, b.z, tol);
}

const Vector3 kDirections[] = {{1, 0, 0}, {0, 1, 0}, {0, 0, -1}, {0.3f, -0.5f, 0.8f}, {-2, 1, 0.5f}, {0, 1e-3f, 1}};

TEST(GeometryTest, RowVectorConventions) {
  // A * B applies A first: rotate a quarter turn about z, then move by (10, 0, 0).
  const Matrix4 turn = rotation_matrix(euler_to_quaternion(0, 0, 90 * kDegreesToRadians));
  const Matrix4 move = Matrix4::translation({10, 0, 0});
  expect_near(transform_point({0, 1, 0}, turn * move), {9, 0, 0});
  expect_near(transform_point({0, 1, 0}, move * turn), {-1, 10, 0});
  EXPECT_EQ(move[12], 10.f);

  // Euler order Ry ⊗ Rx ⊗ Rz: x applied before y, so +y goes to +z and then to +x.
  expect_near(rotate({0, 1, 0}, euler_to_quaternion(90 * kDegreesToRadians, 0, 0)), {0, 0, 1});
  expect_near(rotate({0, 1, 0}, euler_to_quaternion(90 * kDegreesToRadians, 90 * kDegreesToRadians, 0)), {1, 0, 0});

  // The homogeneous weight divides only when it is not 1.
  Matrix4 weighted = Matrix4::identity();
  weighted[15] = 2.f;
  expect_near(transform_point({4, 6, 8}, weighted), {2, 3, 4});
  EXPECT_EQ(transform_point({4, 6, 8}, Matrix4::identity()), (Vector3{4, 6, 8}));

  Matrix3 m = Matrix3::identity();
  EXPECT_EQ(m(2, 2), 1.f);
  EXPECT_THROW(m(3, 0), std::logic_error);
  try {
    m(0, 3) = 1.f;
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "Matrix3 operator() index out of range");
  }
  EXPECT_EQ(normalize({1e-10f, 0, 0}), (Vector3{}));
}

TEST(GeometryTest, QuaternionProperties) {
  const Quaternion p = euler_to_quaternion(0.3f, -1.1f, 0.7f);
  const Quaternion q = euler_to_quaternion(-0.4f, 0.2f, 2.5f);
  for (const Vector3& v : kDirections) {
    SCOPED_TRACE(v.x);
    // p ⊗ q rotates by q first.
    expect_near(rotate(v, product(p, q)), rotate(rotate(v, q), p));
    expect_near(rotate(v, p), transform_direction(v, rotation_matrix(p)));
    expect_near(rotate(rotate(v, p), inverse(p)), v);
  }
}

TEST(GeometryTest, RotationBetween) {
  for (const Vector3& a : kDirections) {
    for (const Vector3& b : kDirections) {
      SCOPED_TRACE(testing::Message() << a.x << "," << a.y << " -> " << b.x << "," << b.y);
      expect_near(rotate(normalize(a), rotation_between(a, b)), normalize(b));
    }
    // Opposite vectors: a half turn about an axis perpendicular to them.
    const Quaternion half = rotation_between(a, -a);
    EXPECT_NEAR(half.w, 0.f, 1e-6f);
    EXPECT_NEAR(dot(Vector3{half.x, half.y, half.z}, normalize(a)), 0.f, 1e-5f);
    expect_near(rotate(normalize(a), half), -normalize(a));
  }
  EXPECT_EQ(rotation_between({0, 2, 0}, {0, 5, 0}), Quaternion::identity());
  // Along x the first candidate axis vanishes and the y axis takes over.
  const Quaternion h = rotation_between({1, 0, 0}, {-1, 0, 0});
  EXPECT_FLOAT_EQ(h.z, -1.f);
}

TEST(HumanModelTest, DefaultModelGeometry) {
  HumanModel model = make_default_model();
  ASSERT_EQ(model.bones().size(), static_cast<size_t>(kBoneCount));
  for (size_t i = 0; i < model.bones().size(); ++i) EXPECT_EQ(model.bones()[i].first, static_cast<B>(i));
  expect_near(model.find(B::UpperSpine).end_point(), {0, 416, 0});
  expect_near(model.find(B::LowerSpine).end_point(), {0, -385, 0});
  expect_near(model.find(B::RightClavicle).end_point(), {-170, 416, 0});
  expect_near(model.find(B::LeftClavicle).end_point(), {170, 416, 0});
  expect_near(model.find(B::RightForearm).end_point(), {-800, 416, 0});
  expect_near(model.find(B::RightLowerLeg).end_point(), {-95.263f, -385 - 55 - 690, 0}, 1e-2f);
  // Children start where their parents end.
  for (auto& [type, bone] : model.bones()) {
    if (bone->parent) {
      expect_near(bone->start_point(), bone->parent->end_point());
    }
  }
  EXPECT_EQ(model.find(B::Neck).parent, &model.find(B::UpperSpine));
  EXPECT_EQ(model.find(B::UpperSpine).children.size(), 3u);
}

TEST(HumanModelTest, LengthChangeMovesDescendants) {
  HumanModel model = make_default_model();
  Bone& spine = model.find(B::UpperSpine);
  const Vector3 hand = model.find(B::LeftHand).start_point();
  const Vector3 head = model.find(B::Head).start_point();
  const Vector3 hip = model.find(B::LeftUpperLeg).start_point();
  spine.length = 500;
  spine.mark_subtree_dirty();
  expect_near(model.find(B::LeftHand).start_point(), hand + Vector3{0, 84, 0});
  expect_near(model.find(B::Head).start_point(), head + Vector3{0, 84, 0});
  expect_near(model.find(B::LeftUpperLeg).start_point(), hip);

  // A pose turn of the upper spine swings everything above it about MidSpine.
  spine.set_pose_rotation(euler_to_quaternion(0, 0, 90 * kDegreesToRadians));
  spine.mark_subtree_dirty();
  expect_near(model.find(B::Neck).start_point(), {-500, 0, 0});
  expect_near(model.find(B::RightClavicle).end_point(), {-500, -170, 0});
}

TEST(HumanModelTest, Errors) {
  HumanModel empty;
  EXPECT_THAT([&] { empty.find(B::Neck); }, support::throws_logic_error("HumanModel: Bone not found"));
  std::vector<BoneDefinition> definitions = default_bone_definitions();
  definitions.erase(definitions.begin() + 7);
  HumanModel model;
  EXPECT_THAT([&] { model.set_bones(definitions); },
              support::throws_logic_error("HumanModel::set_bones() HumanBoneType definition not found"));
  // Setting the bones again replaces every bone and keeps the order.
  HumanModel again = make_default_model();
  again.find(B::Neck).length = 1.f;
  again.set_bones(default_bone_definitions());
  EXPECT_EQ(again.bones().size(), static_cast<size_t>(kBoneCount));
  expect_near(again.find(B::Head).start_point(), {0, 589, 0});
}

}  // namespace
}  // namespace quorvik::skeleton
