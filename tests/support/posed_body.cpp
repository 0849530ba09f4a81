#include "support/posed_body.h"

#include <cmath>
#include <limits>

namespace quorvik::skeleton::testing {
namespace {

using B = HumanBoneType;

constexpr uint32_t kWidth = 160;
constexpr uint32_t kHeight = 120;
constexpr float kPi = 3.14159265f;

// Two unit vectors completing `axis` to an orthonormal basis.
void basis(const Vector3& axis, Vector3& u, Vector3& v) {
  const Vector3 helper = std::fabs(axis.x) < 0.9f ? Vector3{1.f, 0.f, 0.f} : Vector3{0.f, 1.f, 0.f};
  u = normalize(cross(axis, helper));
  v = cross(axis, u);
}

void sample_sphere(const Vector3& centre, float r, float spacing, uint8_t label, std::vector<LabelledPoint>& out) {
  const int rings = std::max(2, static_cast<int>(std::ceil(kPi * r / spacing)));
  for (int i = 0; i <= rings; ++i) {
    const float theta = kPi * static_cast<float>(i) / static_cast<float>(rings);
    const float ringRadius = r * std::sin(theta);
    const int steps = std::max(1, static_cast<int>(std::ceil(2.f * kPi * ringRadius / spacing)));
    for (int k = 0; k < steps; ++k) {
      const float phi = 2.f * kPi * static_cast<float>(k) / static_cast<float>(steps);
      out.push_back({centre + Vector3{ringRadius * std::cos(phi), r * std::cos(theta), ringRadius * std::sin(phi)},
                     label});
    }
  }
}

void sample_capsule(const Vector3& a, const Vector3& b, float r, float spacing, uint8_t label,
                    std::vector<LabelledPoint>& out) {
  const Vector3 axis = b - a;
  const float len = length(axis);
  if (len > 1e-3f) {
    const Vector3 dir = axis / len;
    Vector3 u, v;
    basis(dir, u, v);
    const int along = std::max(1, static_cast<int>(std::ceil(len / spacing)));
    const int around = std::max(8, static_cast<int>(std::ceil(2.f * kPi * r / spacing)));
    for (int i = 0; i <= along; ++i) {
      const Vector3 c = a + axis * (static_cast<float>(i) / static_cast<float>(along));
      for (int k = 0; k < around; ++k) {
        const float phi = 2.f * kPi * static_cast<float>(k) / static_cast<float>(around);
        out.push_back({c + (u * std::cos(phi) + v * std::sin(phi)) * r, label});
      }
    }
  }
  sample_sphere(a, r, spacing, label, out);
  if (len > 1e-3f) sample_sphere(b, r, spacing, label, out);
}

}  // namespace

const std::vector<PaintedPart>& body_paint() {
  static const std::vector<PaintedPart> paint = {
      {B::Head, 0.f, 0.f, 95.f, 6},
      {B::Neck, 0.5f, 1.f, 50.f, 6},
      {B::Neck, 0.f, 0.5f, 50.f, 21},
      {B::UpperSpine, 0.8f, 1.f, 100.f, 21},
      {B::UpperSpine, 0.4f, 0.8f, 100.f, 17},
      {B::UpperSpine, 0.f, 0.4f, 100.f, 18},
      {B::LowerSpine, 0.4f, 0.8f, 100.f, 19},
      {B::LowerSpine, 0.f, 0.4f, 100.f, 20},
      {B::LowerSpine, 0.8f, 1.f, 100.f, 16},
      {B::LeftPelvis, 0.f, 1.f, 75.f, 15},
      {B::RightPelvis, 0.f, 1.f, 75.f, 16},
      {B::LeftClavicle, 0.f, 0.5f, 55.f, 21},
      {B::RightClavicle, 0.f, 0.5f, 55.f, 21},
      {B::LeftClavicle, 0.5f, 1.f, 55.f, 22},
      {B::RightClavicle, 0.5f, 1.f, 55.f, 23},
      {B::LeftUpperArm, 0.f, 0.2f, 45.f, 22},
      {B::RightUpperArm, 0.f, 0.2f, 45.f, 23},
      {B::LeftUpperArm, 0.2f, 0.8f, 45.f, 7},
      {B::RightUpperArm, 0.2f, 0.8f, 45.f, 8},
      {B::LeftUpperArm, 0.8f, 1.f, 42.f, 26},
      {B::RightUpperArm, 0.8f, 1.f, 42.f, 27},
      {B::LeftForearm, 0.f, 0.2f, 40.f, 26},
      {B::RightForearm, 0.f, 0.2f, 40.f, 27},
      {B::LeftForearm, 0.2f, 0.8f, 38.f, 3},
      {B::RightForearm, 0.2f, 0.8f, 38.f, 5},
      {B::LeftForearm, 0.8f, 1.f, 36.f, 2},
      {B::RightForearm, 0.8f, 1.f, 36.f, 4},
      {B::LeftHand, 0.f, 0.f, 50.f, 2},
      {B::RightHand, 0.f, 0.f, 50.f, 4},
      {B::LeftUpperLeg, 0.f, 0.2f, 70.f, 15},
      {B::RightUpperLeg, 0.f, 0.2f, 70.f, 16},
      {B::LeftUpperLeg, 0.2f, 0.8f, 70.f, 9},
      {B::RightUpperLeg, 0.2f, 0.8f, 70.f, 12},
      {B::LeftUpperLeg, 0.8f, 1.f, 60.f, 24},
      {B::RightUpperLeg, 0.8f, 1.f, 60.f, 25},
      {B::LeftLowerLeg, 0.f, 0.2f, 55.f, 24},
      {B::RightLowerLeg, 0.f, 0.2f, 55.f, 25},
      {B::LeftLowerLeg, 0.2f, 0.8f, 55.f, 10},
      {B::RightLowerLeg, 0.2f, 0.8f, 55.f, 13},
      {B::LeftLowerLeg, 0.8f, 1.f, 50.f, 11},
      {B::RightLowerLeg, 0.8f, 1.f, 50.f, 14},
      {B::LeftFoot, 0.f, 0.f, 55.f, 11},
      {B::RightFoot, 0.f, 0.f, 55.f, 14},
  };
  return paint;
}

HumanModel make_posed_model(const BodyPose& pose) {
  std::vector<BoneDefinition> definitions = default_bone_definitions();
  for (BoneDefinition& d : definitions) d.length *= pose.lengthScale;
  HumanModel model;
  model.set_bones(definitions);
  Bone& root = model.find(B::Root);
  root.pose.translation = pose.midSpine;
  root.pose.dirty = true;
  root.mark_subtree_dirty();
  for (const BonePose& r : pose.rotations) {
    Bone& bone = model.find(r.bone);
    bone.set_pose_rotation(
        euler_to_quaternion(r.x * kDegreesToRadians, r.y * kDegreesToRadians, r.z * kDegreesToRadians));
    bone.mark_subtree_dirty();
  }
  return model;
}

std::array<Vector3, kJointCount> joint_positions(HumanModel& model) {
  std::array<Vector3, kJointCount> joints{};
  for (HumanBoneType type : all_bones()) {
    joints[static_cast<size_t>(*proximal_joint(type))] = model.find(type).start_point();
  }
  return joints;
}

std::vector<LabelledPoint> sample_body_surface(HumanModel& model, float spacing, float radiusScale) {
  std::vector<LabelledPoint> points;
  for (const PaintedPart& part : body_paint()) {
    Bone& bone = model.find(part.bone);
    const Vector3 s = bone.start_point();
    const Vector3 e = bone.end_point();
    sample_capsule(s + (e - s) * part.t0, s + (e - s) * part.t1, part.radius * radiusScale, spacing, part.label,
                   points);
  }
  return points;
}

DepthCameraModel test_camera() {
  return DepthCameraModel(58.f * kDegreesToRadians, 45.f * kDegreesToRadians, static_cast<float>(kWidth),
                          static_cast<float>(kHeight));
}

FrameImages render(const std::vector<LabelledPoint>& points, const DepthCameraModel& camera, uint8_t userId,
                   float probability) {
  FrameImages f;
  f.labels.resize(kWidth, kHeight);
  f.points.resize(kWidth, kHeight);
  f.userIds.resize(kWidth, kHeight);
  f.labels.fill(PixelLabel{});
  f.points.fill(WorldPoint{0.f, 0.f, 0.f});
  f.userIds.fill(0);
  std::vector<float> depth(size_t{kWidth} * kHeight, std::numeric_limits<float>::infinity());
  std::vector<uint8_t> label(depth.size(), 0);
  for (const LabelledPoint& lp : points) {
    const Vector3& p = lp.position;
    if (p.z <= 0.f) continue;
    float u, v;
    camera.to_image(p.x, p.y, p.z, u, v);
    const long px = std::lround(u);
    const long py = std::lround(v);
    if (px < 0 || py < 0 || px >= static_cast<long>(kWidth) || py >= static_cast<long>(kHeight)) continue;
    const size_t i = static_cast<size_t>(py) * kWidth + static_cast<size_t>(px);
    if (p.z < depth[i]) {
      depth[i] = p.z;
      label[i] = lp.label;
    }
  }
  for (uint32_t y = 0; y < kHeight; ++y) {
    for (uint32_t x = 0; x < kWidth; ++x) {
      const size_t i = size_t{y} * kWidth + x;
      if (label[i] == 0) continue;
      const float z = std::round(depth[i]);
      f.points[i] = {(static_cast<float>(x) / camera.width - 0.5f) * z * camera.xFactor,
                     (0.5f - static_cast<float>(y) / camera.height) * z * camera.yFactor, z};
      f.labels[i] = {label[i], probability};
      f.userIds[i] = userId;
      ++f.pixelCount;
      if (f.box.empty) {
        f.box = {static_cast<int32_t>(x), static_cast<int32_t>(y), static_cast<int32_t>(x), static_cast<int32_t>(y),
                 false};
      } else {
        f.box.x0 = std::min(f.box.x0, static_cast<int32_t>(x));
        f.box.x1 = std::max(f.box.x1, static_cast<int32_t>(x));
        f.box.y1 = static_cast<int32_t>(y);
      }
    }
  }
  return f;
}

FrameImages render_pose(const BodyPose& pose, uint8_t userId, float radiusScale) {
  HumanModel model = make_posed_model(pose);
  return render(sample_body_surface(model, 6.f, radiusScale), test_camera(), userId);
}

BodyPose moving_pose(float phase) {
  BodyPose pose;
  pose.rotations = {
      {B::RightUpperArm, 0.f, 0.f, -20.f + 50.f * phase},
      {B::RightForearm, 0.f, 0.f, 30.f},
      {B::LeftUpperArm, 0.f, 0.f, 35.f},
      {B::LeftForearm, 0.f, 0.f, -40.f},
      {B::LeftUpperLeg, 0.f, 0.f, 12.f},
      {B::LeftLowerLeg, 25.f * phase, 0.f, 5.f},
      {B::RightUpperLeg, 0.f, 0.f, -10.f},
      {B::Neck, 0.f, 0.f, 8.f},
  };
  return pose;
}

}  // namespace quorvik::skeleton::testing
