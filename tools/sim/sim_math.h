#pragma once
// Small vector kit and deterministic random numbers for the scene simulator.
// Positions are millimetres. Rotations are written as turns inside the plane of two
// orthonormal vectors, so nothing here depends on the handedness of a frame (the camera
// frame, x right / y up / z forward, is left-handed).

#include <cmath>
#include <cstdint>
#include <numbers>

namespace quorvik::sim {

struct Vec3 {
  float x = 0, y = 0, z = 0;
};

inline Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec3 operator-(Vec3 a) { return {-a.x, -a.y, -a.z}; }
inline Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline Vec3 operator*(float s, Vec3 a) { return a * s; }
inline Vec3& operator+=(Vec3& a, Vec3 b) { return a = a + b; }
inline float dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3 cross(Vec3 a, Vec3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(Vec3 a) { return std::sqrt(dot(a, a)); }
inline Vec3 normalize(Vec3 a) {
  const float l = length(a);
  return l > 1e-12f ? a * (1.f / l) : Vec3{};
}
inline Vec3 lerp(Vec3 a, Vec3 b, float t) { return a + (b - a) * t; }

// `a` turned by `angle` towards `b` (a and b orthonormal).
inline Vec3 turn(Vec3 a, Vec3 b, float angle) { return a * std::cos(angle) + b * std::sin(angle); }

// Orthonormal frame named after a body: left, up, forward.
struct Axes {
  Vec3 left{1, 0, 0}, up{0, 1, 0}, forward{0, 0, 1};
};

inline constexpr float kPi = std::numbers::pi_v<float>;
inline constexpr float deg(float d) { return d * kPi / 180.f; }

inline float smoothstep(float t) {
  t = t < 0.f ? 0.f : (t > 1.f ? 1.f : t);
  return t * t * (3.f - 2.f * t);
}

// Shortest signed difference b - a of two angles.
inline float angle_diff(float a, float b) {
  float d = std::fmod(b - a, 2.f * kPi);
  if (d > kPi) d -= 2.f * kPi;
  if (d < -kPi) d += 2.f * kPi;
  return d;
}

// Stateless 64-bit mixer (splitmix64 finaliser): per-pixel noise is a function of
// (frame key, pixel index), so any frame can be produced alone and in any order.
inline uint64_t mix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Sequential generator for scene set-up (xorshift-multiply, seeded through mix64).
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(mix64(seed) | 1) {}
  uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
  }
  // [0, 1)
  float uniform() { return static_cast<float>(next() >> 40) * (1.f / 16777216.f); }
  float uniform(float lo, float hi) { return lo + (hi - lo) * uniform(); }
  int integer(int lo, int hi) {  // inclusive
    return lo + static_cast<int>(next() % static_cast<uint64_t>(hi - lo + 1));
  }
  bool chance(float p) { return uniform() < p; }
  // Approximately normal (sum of four uniforms), unit variance, bounded at +-3.46.
  float normal() {
    const uint64_t r = next();
    const float s = static_cast<float>((r & 0xFFFF) + ((r >> 16) & 0xFFFF) + ((r >> 32) & 0xFFFF) +
                                       (r >> 48)) *
                    (1.f / 65536.f);
    return (s - 2.f) * 1.7320508f;
  }
  Rng fork(uint64_t salt) { return Rng(next() ^ mix64(salt)); }

 private:
  uint64_t state_;
};

}  // namespace quorvik::sim
