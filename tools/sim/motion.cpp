#include "motion.h"

#include <algorithm>
#include <cmath>

namespace quorvik::sim {

const char* activity_name(Activity a) {
  switch (a) {
    case Activity::Stand: return "stand";
    case Activity::Walk: return "walk";
    case Activity::Turn: return "turn";
    case Activity::Wave: return "wave";
    case Activity::Reach: return "reach";
    case Activity::Point: return "point";
    case Activity::Crouch: return "crouch";
    case Activity::Kick: return "kick";
    case Activity::Sit: return "sit";
    case Activity::ArmsCrossed: return "arms-crossed";
  }
  return "?";
}

Timeline::Timeline(const BodyShape& shape, float x, float z, float heading, float phase)
    : shape_(shape), x_(x), z_(z), heading_(heading), phase_(phase) {}

Step& Timeline::push(Activity a, float seconds) {
  Step s;
  s.activity = a;
  s.t0 = end_time();
  s.t1 = s.t0 + std::max(seconds, 1e-3f);
  s.x0 = s.x1 = x_;
  s.z0 = s.z1 = z_;
  s.h0 = s.h1 = heading_;
  steps_.push_back(s);
  return steps_.back();
}

Timeline& Timeline::stand(float seconds) {
  push(Activity::Stand, seconds);
  return *this;
}

Timeline& Timeline::wait_until(float t) {
  if (t > end_time()) stand(t - end_time());
  return *this;
}

Timeline& Timeline::turn_to(float heading, float seconds) {
  const float diff = angle_diff(heading_, heading);
  if (seconds < 0) seconds = 0.4f + std::fabs(diff) / deg(90) * 0.9f;
  Step& s = push(Activity::Turn, seconds);
  s.h1 = heading_ + diff;
  s.blendIn = 0.3f;
  heading_ = s.h1;
  return *this;
}

Timeline& Timeline::walk_to(float x, float z, float speed) {
  const float dx = x - x_, dz = z - z_;
  const float dist = std::sqrt(dx * dx + dz * dz);
  if (dist < 1.f) return *this;
  const float h = std::atan2(dx, dz);
  if (std::fabs(angle_diff(heading_, h)) > deg(50)) turn_to(h);
  const float v = 1250.f * speed * std::sqrt(shape_.height / 1750.f);  // mm/s
  Step& s = push(Activity::Walk, dist / v);
  s.x1 = x;
  s.z1 = z;
  s.h0 = s.h1 = heading_ + angle_diff(heading_, h);
  s.speed = speed;
  s.blendIn = 0.5f;
  x_ = x;
  z_ = z;
  heading_ = s.h1;
  return *this;
}

Timeline& Timeline::push_to(float x, float z) {
  const float before = heading_;
  const size_t n = steps_.size();
  heading_ = std::atan2(x - x_, z - z_);  // no turn step: the pusher already faces the way
  walk_to(x, z, 0.6f);
  if (steps_.size() > n) {
    steps_.back().variant = 1.f;
    steps_.back().h0 = steps_.back().h1 = before + angle_diff(before, steps_.back().h1);
    heading_ = steps_.back().h1;
  }
  return *this;
}

Timeline& Timeline::gesture(Activity a, float seconds, int side, float variant) {
  Step& s = push(a, seconds);
  s.side = side;
  s.variant = variant;
  return *this;
}

Timeline& Timeline::sit(float x, float z, float heading, float seatHeight, float seconds) {
  // Stand in front of the seat with the back to it, sit, stay, get up.
  const float fx = x + std::sin(heading) * 380.f, fz = z + std::cos(heading) * 380.f;
  walk_to(fx, fz);
  turn_to(heading);
  Step& s = push(Activity::Sit, seconds);
  s.x0 = s.x1 = x;
  s.z0 = s.z1 = z;
  s.seatHeight = seatHeight;
  s.blendIn = 1.3f;
  Step& up = push(Activity::Stand, 1.5f);
  up.blendIn = 1.1f;
  return *this;
}

Pose Timeline::rest_pose(const Step& s, float x, float z, float heading) const {
  Pose p;
  p.x = x;
  p.z = z;
  p.heading = heading;
  for (int k = 0; k < 2; ++k) {
    p.arm[k] = {deg(3), deg(8), 0.f, deg(12)};
    p.leg[k] = {deg(1), deg(3), 0.f, deg(3)};
  }
  if (shape_.carried == Carried::Box) {
    for (int k = 0; k < 2; ++k) p.arm[k] = {deg(45), deg(8), deg(-25), deg(65)};
    p.carry = 1.f;
  }
  (void)s;
  return p;
}

namespace {

// 0 -> 1 over `ramp` seconds at the start and back to 0 over `ramp` at the end of [0, d].
float envelope(float tau, float d, float ramp) {
  ramp = std::min(ramp, 0.5f * d);
  return std::min(smoothstep(tau / ramp), smoothstep((d - tau) / ramp));
}

}  // namespace

Pose Timeline::step_pose(const Step& s, float t) const {
  const float tau = std::clamp(t, s.t0, s.t1) - s.t0;
  const float u = tau / (s.t1 - s.t0);
  const Pose rest = rest_pose(s, s.x0, s.z0, s.h0);
  switch (s.activity) {
    case Activity::Stand:
      return stand_pose(rest, t);
    case Activity::Walk:
      return walk_pose(s, rest, t, u);
    case Activity::Turn:
      return turn_pose(s, rest, tau, u);
    case Activity::Sit:
      return sit_pose(s, rest, t);
    default:
      return gesture_pose(s, rest, t);
  }
}

Pose Timeline::stand_pose(const Pose& rest, float t) const {
  Pose p = rest;
  const float w = 2.f * kPi * (t + phase_);
  p.lean += deg(1.2f) * std::sin(0.23f * w);
  p.sideBend += deg(1.f) * std::sin(0.17f * w + 1.f);
  p.headYaw = deg(12) * std::sin(0.07f * w + phase_);
  p.headPitch = deg(4) * std::sin(0.11f * w);
  return p;
}

Pose Timeline::walk_pose(const Step& s, const Pose& rest, float t, float u) const {
  const float scale = std::sqrt(shape_.height / 1750.f);
  Pose p = rest;
  p.x = s.x0 + (s.x1 - s.x0) * u;
  p.z = s.z0 + (s.z1 - s.z0) * u;
  const float period = 1.1f * scale / std::sqrt(s.speed);
  const float phi = 2.f * kPi * (t / period + phase_);
  const float v = 1250.f * s.speed * scale;
  const float legLen = 0.53f * shape_.height;
  const float amp = std::asin(std::min(0.6f, v * period * 0.25f / legLen));
  for (int k = 0; k < 2; ++k) {
    const float ph = phi + (k == 0 ? 0.f : kPi);
    p.leg[k].flex = deg(4) + amp * std::sin(ph);
    const float c = std::max(0.f, std::cos(ph - 0.5f));
    p.leg[k].bend = deg(8) + deg(58) * c * c;
    p.leg[k].abduct = deg(2);
    if (p.carry < 0.5f) {
      p.arm[k].flex = -deg(20) * std::sin(ph) * s.speed;
      p.arm[k].bend = deg(20) + deg(12) * (1.f - std::sin(ph));
    }
  }
  p.lean = deg(4) + deg(3) * (s.speed - 1.f);
  if (s.variant > 0.5f) {  // pushing
    for (int k = 0; k < 2; ++k) p.arm[k] = {deg(70), deg(12), 0.f, deg(30)};
    p.lean = deg(15);
  }
  p.twist = deg(4) * std::sin(phi);
  p.headYaw = deg(5) * std::sin(0.1f * phi);
  return p;
}

Pose Timeline::turn_pose(const Step& s, const Pose& rest, float tau, float u) const {
  Pose p = rest;
  p.heading = s.h0 + angle_diff(s.h0, s.h1) * smoothstep(u);
  const float lift = std::sin(2.f * kPi * tau / 0.9f);
  p.leg[0].flex = deg(12) * std::max(0.f, lift);
  p.leg[1].flex = deg(12) * std::max(0.f, -lift);
  p.leg[0].bend = 2.f * p.leg[0].flex + deg(3);
  p.leg[1].bend = 2.f * p.leg[1].flex + deg(3);
  return p;
}

Pose Timeline::sit_pose(const Step& s, const Pose& rest, float t) const {
  Pose p = rest;
  const BodyDims dims = body_dims(shape_);
  const float hipY = s.seatHeight + dims.thighR0 * 0.8f;
  const float knee = std::asin(std::clamp((hipY - dims.ankleHeight) / dims.shinLen, 0.3f, 1.f));
  for (int k = 0; k < 2; ++k) {
    p.leg[k] = {deg(88), deg(9), 0.f, knee};
    if (p.carry < 0.5f) p.arm[k] = {deg(25), deg(6), deg(-10), deg(60)};
  }
  p.lean = deg(6);
  p.seat = 1.f;
  p.seatHeight = s.seatHeight;
  p.headYaw = deg(10) * std::sin(2.f * kPi * (0.05f * t + phase_));
  return p;
}

// Gestures: from rest into the gesture and back within the step.
Pose Timeline::gesture_pose(const Step& s, const Pose& rest, float t) const {
  const float tau = std::clamp(t, s.t0, s.t1) - s.t0;
  const float d = s.t1 - s.t0;
  const float u = tau / d;
  const int side = s.side;
  Pose g = rest;
  float ramp = 0.7f;
  LimbPose& arm = g.arm[side];
  const float headTurn = side == 0 ? 1.f : -1.f;  // towards the working arm
  switch (s.activity) {
    case Activity::Wave:
      arm = {deg(20), deg(100), deg(90), deg(65) + deg(28) * std::sin(2.f * kPi * 1.7f * tau)};
      g.headYaw = deg(8) * headTurn;
      break;
    case Activity::Reach:
      if (s.variant < 0.4f) {
        arm = {deg(85), deg(15), 0.f, deg(8)};
        g.lean = deg(14);
      } else if (s.variant < 0.7f) {
        arm = {deg(155), deg(15), 0.f, deg(10)};
        g.lean = deg(-4);
      } else {
        arm = {deg(65), deg(10), 0.f, deg(10)};
        g.lean = deg(45);
        g.leg[0].bend = g.leg[1].bend = deg(25);
        g.leg[0].flex = g.leg[1].flex = deg(10);
      }
      ramp = 0.9f;
      break;
    case Activity::Point:
      arm = {deg(75), deg(30) + deg(40) * s.variant, 0.f, deg(4)};
      g.headYaw = deg(30) * headTurn;
      g.twist = deg(10) * headTurn;
      break;
    case Activity::Crouch:
      for (int k = 0; k < 2; ++k) {
        g.leg[k] = {deg(100), deg(12), 0.f, deg(125)};
        g.arm[k] = {deg(40), deg(10), 0.f, deg(45)};
      }
      g.lean = deg(35);
      g.headPitch = deg(-15);
      ramp = 1.1f;
      break;
    case Activity::Kick: {
      const float bump = std::sin(kPi * std::clamp((u - 0.25f) / 0.5f, 0.f, 1.f));
      g.leg[side] = {deg(55) + deg(20) * bump, deg(4), 0.f, deg(100) - deg(88) * bump};
      g.lean = deg(-8);
      for (int k = 0; k < 2; ++k) g.arm[k] = {deg(10), deg(28), 0.f, deg(50)};
      ramp = 0.35f * d;
      break;
    }
    case Activity::ArmsCrossed:
      g.arm[0] = {deg(38), deg(4), deg(-75), deg(118)};
      g.arm[1] = {deg(30), deg(4), deg(-80), deg(122)};
      ramp = 0.9f;
      break;
    default:
      break;
  }
  // Hands busy with a gesture put a carried box down for its duration.
  if (s.activity != Activity::Crouch) g.carry = 0.f;
  Pose p = blend(rest, g, envelope(tau, d, ramp));
  // Stand's idle motion continues underneath.
  p.headYaw += deg(5) * std::sin(2.f * kPi * (0.07f * t + phase_));
  return p;
}

Pose Timeline::pose_at(float t) const {
  if (steps_.empty()) {
    Step s;
    s.x0 = x_;
    s.z0 = z_;
    s.h0 = heading_;
    Pose p = rest_pose(s, x_, z_, heading_);
    clamp_to_limits(p);
    return p;
  }
  size_t i = 0;
  while (i + 1 < steps_.size() && t >= steps_[i].t1) ++i;
  const Step& s = steps_[i];
  Pose p = step_pose(s, t);
  if (i > 0 && t < s.t0 + s.blendIn) {
    const Pose prev = step_pose(steps_[i - 1], steps_[i - 1].t1);
    p = blend(prev, p, smoothstep((t - s.t0) / s.blendIn));
  }
  clamp_to_limits(p);
  return p;
}

}  // namespace quorvik::sim
