#pragma once
// Motion of one person: a timeline of activities, each a smooth function of time, blended
// into the next. A pose is a pure function of time, so any frame can be produced alone.

#include <vector>

#include "body.h"

namespace quorvik::sim {

enum class Activity : uint8_t {
  Stand, Walk, Turn, Wave, Reach, Point, Crouch, Kick, Sit, ArmsCrossed
};
const char* activity_name(Activity a);

struct Step {
  Activity activity = Activity::Stand;
  float t0 = 0, t1 = 0;      // seconds
  float x0 = 0, z0 = 0, x1 = 0, z1 = 0;  // floor positions at start and end (mm)
  float h0 = 0, h1 = 0;      // headings at start and end
  int side = 1;              // arm or leg used (0 left, 1 right)
  float variant = 0;         // [0, 1): which form of the gesture
  float blendIn = 0.4f;      // seconds over which the previous step hands over
  float speed = 1.f;         // walking pace factor
  float seatHeight = 450.f;  // sitting
};

class Timeline {
 public:
  Timeline() = default;
  Timeline(const BodyShape& shape, float x, float z, float heading, float phase = 0.f);

  // Builders: each appends a step that starts where the last one ended.
  Timeline& stand(float seconds);
  Timeline& walk_to(float x, float z, float speed = 1.f);  // turns first when the heading differs a lot
  Timeline& push_to(float x, float z);  // walks slowly with both hands forward, without turning
  Timeline& turn_to(float heading, float seconds = -1.f);
  Timeline& gesture(Activity a, float seconds, int side = 1, float variant = 0.f);
  // Sit down on a seat centred at (x, z) facing `heading`, stay, and stand up again.
  Timeline& sit(float x, float z, float heading, float seatHeight, float seconds);
  Timeline& wait_until(float t);  // stands until time t

  float end_time() const { return steps_.empty() ? 0.f : steps_.back().t1; }
  float x() const { return x_; }
  float z() const { return z_; }
  float heading() const { return heading_; }
  const std::vector<Step>& steps() const { return steps_; }

  Pose pose_at(float t) const;

 private:
  Step& push(Activity a, float seconds);
  Pose step_pose(const Step& s, float t) const;
  // The poses of the activities; t is the scene time, tau the time into the step, u its share of the step.
  Pose stand_pose(const Pose& rest, float t) const;
  Pose walk_pose(const Step& s, const Pose& rest, float t, float u) const;
  Pose turn_pose(const Step& s, const Pose& rest, float tau, float u) const;
  Pose sit_pose(const Step& s, const Pose& rest, float t) const;
  Pose gesture_pose(const Step& s, const Pose& rest, float t) const;
  Pose rest_pose(const Step& s, float x, float z, float heading) const;

  BodyShape shape_;
  std::vector<Step> steps_;
  float x_ = 0, z_ = 0, heading_ = 0, phase_ = 0;
};

}  // namespace quorvik::sim
