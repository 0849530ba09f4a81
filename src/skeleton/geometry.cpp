#include "skeleton/geometry.h"

#include <stdexcept>

namespace quorvik::skeleton {

Quaternion inverse(const Quaternion& q) {
  const float norm = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  return {q.w / norm, -q.x / norm, -q.y / norm, -q.z / norm};
}

Quaternion euler_to_quaternion(float x, float y, float z) {
  const Quaternion rx{std::cos(x / 2), std::sin(x / 2), 0.f, 0.f};
  const Quaternion ry{std::cos(y / 2), 0.f, std::sin(y / 2), 0.f};
  const Quaternion rz{std::cos(z / 2), 0.f, 0.f, std::sin(z / 2)};
  return product(product(ry, rx), rz);
}

Quaternion rotation_between(const Vector3& from, const Vector3& to) {
  const Vector3 a = normalize(from);
  const Vector3 b = normalize(to);
  const float d = dot(a, b);
  if (d >= 0.999999f) return Quaternion::identity();
  if (d < -0.999999f) {
    Vector3 axis = cross({1.f, 0.f, 0.f}, a);
    if (length_squared(axis) < 1e-22f) axis = cross({0.f, 1.f, 0.f}, a);
    axis = normalize(axis);
    // cos 90° and sin 90° of the half angle.
    return {0.f, axis.x, axis.y, axis.z};
  }
  const Vector3 c = cross(a, b);
  const Quaternion q{1.f + d, c.x, c.y, c.z};
  const float norm = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  return {q.w / norm, q.x / norm, q.y / norm, q.z / norm};
}

Matrix4 operator*(const Matrix4& a, const Matrix4& b) {
  Matrix4 r;
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      r.m[i * 4 + j] = a.m[i * 4 + 0] * b.m[0 * 4 + j] + a.m[i * 4 + 1] * b.m[1 * 4 + j] +
                       a.m[i * 4 + 2] * b.m[2 * 4 + j] + a.m[i * 4 + 3] * b.m[3 * 4 + j];
    }
  }
  return r;
}

Matrix4 rotation_matrix(const Quaternion& q) {
  const float xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
  const float xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
  const float wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
  Matrix4 r;
  // The transpose of the column-vector rotation matrix.
  r.m[0] = 1.f - 2.f * (yy + zz);
  r.m[1] = 2.f * (xy + wz);
  r.m[2] = 2.f * (xz - wy);
  r.m[4] = 2.f * (xy - wz);
  r.m[5] = 1.f - 2.f * (xx + zz);
  r.m[6] = 2.f * (yz + wx);
  r.m[8] = 2.f * (xz + wy);
  r.m[9] = 2.f * (yz - wx);
  r.m[10] = 1.f - 2.f * (xx + yy);
  r.m[15] = 1.f;
  return r;
}

Vector3 transform_point(const Vector3& p, const Matrix4& a) {
  const auto& m = a.m;
  Vector3 r{p.x * m[0] + p.y * m[4] + p.z * m[8] + m[12], p.x * m[1] + p.y * m[5] + p.z * m[9] + m[13],
            p.x * m[2] + p.y * m[6] + p.z * m[10] + m[14]};
  const float w = p.x * m[3] + p.y * m[7] + p.z * m[11] + m[15];
  if (w != 1.f) r = r / w;
  return r;
}

float& Matrix3::operator()(unsigned row, unsigned column) {
  if (row > 2 || column > 2) throw std::logic_error("Matrix3 operator() index out of range");
  return m_[row * 3 + column];
}

float Matrix3::operator()(unsigned row, unsigned column) const {
  if (row > 2 || column > 2) throw std::logic_error("Matrix3 operator() index out of range");
  return m_[row * 3 + column];
}

}  // namespace quorvik::skeleton
