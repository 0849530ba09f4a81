#pragma once
// The small geometry kit of the skeleton: vectors, quaternions (w, x, y, z), 4x4 matrices
// for row vectors (p' = p * M, translation in elements 12..14, A * B applies A first) and
// 3x3 matrices.

#include <array>
#include <cmath>

namespace quorvik::skeleton {

struct Vector3 {
  float x = 0.f, y = 0.f, z = 0.f;

  Vector3& operator+=(const Vector3& o) {
    x += o.x;
    y += o.y;
    z += o.z;
    return *this;
  }
  Vector3& operator-=(const Vector3& o) {
    x -= o.x;
    y -= o.y;
    z -= o.z;
    return *this;
  }
  Vector3& operator*=(float s) {
    x *= s;
    y *= s;
    z *= s;
    return *this;
  }
  friend bool operator==(const Vector3&, const Vector3&) = default;
};

inline Vector3 operator+(Vector3 a, const Vector3& b) { return a += b; }
inline Vector3 operator-(Vector3 a, const Vector3& b) { return a -= b; }
inline Vector3 operator-(const Vector3& a) { return {-a.x, -a.y, -a.z}; }
inline Vector3 operator*(Vector3 a, float s) { return a *= s; }
inline Vector3 operator*(float s, Vector3 a) { return a *= s; }
inline Vector3 operator/(const Vector3& a, float s) { return {a.x / s, a.y / s, a.z / s}; }

inline float dot(const Vector3& a, const Vector3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vector3 cross(const Vector3& a, const Vector3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length_squared(const Vector3& v) { return dot(v, v); }
inline float length(const Vector3& v) { return std::sqrt(length_squared(v)); }

// Zero for vectors of length 1e-9 or less; the length is summed in double precision so
// tiny differences of large coordinates still normalise.
inline Vector3 normalize(const Vector3& v) {
  const double len = std::sqrt(double{v.x} * v.x + double{v.y} * v.y + double{v.z} * v.z);
  if (len <= 1e-9) return {};
  const auto inv = static_cast<float>(1.0 / len);
  return {v.x * inv, v.y * inv, v.z * inv};
}

struct Quaternion {
  float w = 1.f, x = 0.f, y = 0.f, z = 0.f;

  static Quaternion identity() { return {}; }
  friend bool operator==(const Quaternion&, const Quaternion&) = default;
};

// p ⊗ q: rotates by q first, then by p.
inline Quaternion product(const Quaternion& p, const Quaternion& q) {
  return {p.w * q.w - p.x * q.x - p.y * q.y - p.z * q.z, p.w * q.x + p.x * q.w + p.y * q.z - p.z * q.y,
          p.w * q.y - p.x * q.z + p.y * q.w + p.z * q.x, p.w * q.z + p.x * q.y - p.y * q.x + p.z * q.w};
}
inline Quaternion operator*(const Quaternion& p, const Quaternion& q) { return product(p, q); }
// Conjugate divided by the norm.
Quaternion inverse(const Quaternion& q);
// Ry(y) ⊗ Rx(x) ⊗ Rz(z), angles in radians.
Quaternion euler_to_quaternion(float x, float y, float z);
// The shortest turn that takes direction a onto direction b; a half turn for opposite ones.
Quaternion rotation_between(const Vector3& a, const Vector3& b);
// v rotated by the unit quaternion q (the same as v * rotation_matrix(q)):
// v + 2w(u x v) + 2u x (u x v), u the vector part.
inline Vector3 rotate(const Vector3& v, const Quaternion& q) {
  const Vector3 u{q.x, q.y, q.z};
  const Vector3 t = cross(u, v) * 2.f;
  return v + t * q.w + cross(u, t);
}

struct Matrix4 {
  std::array<float, 16> m{};

  static Matrix4 identity() {
    Matrix4 r;
    r.m[0] = r.m[5] = r.m[10] = r.m[15] = 1.f;
    return r;
  }
  static Matrix4 translation(const Vector3& t) {
    Matrix4 r = identity();
    r.m[12] = t.x;
    r.m[13] = t.y;
    r.m[14] = t.z;
    return r;
  }
  float& operator[](int i) { return m[i]; }
  float operator[](int i) const { return m[i]; }
  friend bool operator==(const Matrix4&, const Matrix4&) = default;
};

// A * B: A applied first, then B.
Matrix4 operator*(const Matrix4& a, const Matrix4& b);
// Laid out for row vectors: v * rotation_matrix(q) is v rotated by q.
Matrix4 rotation_matrix(const Quaternion& q);
// Divides by the homogeneous weight only when it is not exactly 1.
Vector3 transform_point(const Vector3& p, const Matrix4& m);
// Direction through the upper 3x3 part (no translation, no divide).
inline Vector3 transform_direction(const Vector3& p, const Matrix4& a) {
  const auto& m = a.m;
  return {p.x * m[0] + p.y * m[4] + p.z * m[8], p.x * m[1] + p.y * m[5] + p.z * m[9],
          p.x * m[2] + p.y * m[6] + p.z * m[10]};
}

class Matrix3 {
 public:
  Matrix3() = default;
  static Matrix3 identity() {
    Matrix3 r;
    r.m_[0] = r.m_[4] = r.m_[8] = 1.f;
    return r;
  }
  // Raises std::logic_error for an index above 2.
  float& operator()(unsigned row, unsigned column);
  float operator()(unsigned row, unsigned column) const;
  const std::array<float, 9>& data() const { return m_; }
  std::array<float, 9>& data() { return m_; }

 private:
  std::array<float, 9> m_{};
};

// Point times matrix for row vectors.
inline Vector3 operator*(const Vector3& p, const Matrix3& m) {
  const auto& a = m.data();
  return {p.x * a[0] + p.y * a[3] + p.z * a[6], p.x * a[1] + p.y * a[4] + p.z * a[7],
          p.x * a[2] + p.y * a[5] + p.z * a[8]};
}

}  // namespace quorvik::skeleton
