#include "scene.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quorvik::sim {

FrameMap CameraSetup::to_camera() const {
  const Vec3 f0{std::sin(yaw), 0, std::cos(yaw)};
  const Vec3 r0{std::cos(yaw), 0, -std::sin(yaw)};
  const Vec3 u0{0, 1, 0};
  const Vec3 f = turn(f0, -u0, pitch);
  const Vec3 u = turn(u0, f0, pitch);
  FrameMap m;
  m.origin = position;
  m.forward = f;
  m.right = turn(r0, -u, roll);
  m.up = turn(u, r0, roll);
  m.mirrorX = mirrored;
  return m;
}

std::array<float, 4> CameraSetup::floor_plane() const {
  const FrameMap m = to_camera();
  const Vec3 n = m.direction({0, 1, 0});
  return {n.x, n.y, n.z, position.y};
}

const char* furniture_name(FurnitureKind k) {
  switch (k) {
    case FurnitureKind::Table: return "table";
    case FurnitureKind::Chair: return "chair";
    case FurnitureKind::Sofa: return "sofa";
    case FurnitureKind::Shelf: return "shelf";
    case FurnitureKind::Door: return "door";
    case FurnitureKind::Cabinet: return "cabinet";
  }
  return "?";
}

void Furniture::placement_at(float t, float& px, float& pz, float& pyaw) const {
  px = x;
  pz = z;
  pyaw = yaw;
  if (!moves() || t <= moveStart) return;
  const float w = smoothstep((t - moveStart) / (moveEnd - moveStart));
  px = x + (x1 - x) * w;
  pz = z + (z1 - z) * w;
  pyaw = yaw + angle_diff(yaw, yaw1) * w;
}

namespace {

struct Placed {
  Vec3 origin, ax, ay{0, 1, 0}, az;
  Primitive box(Vec3 c, Vec3 half) const {
    return make_box(origin + ax * c.x + ay * c.y + az * c.z, ax, ay, az, half);
  }
};

}  // namespace

Vec3 Furniture::seat_at(float t) const {
  float px, pz, pyaw;
  placement_at(t, px, pz, pyaw);
  const Vec3 az{std::sin(pyaw), 0, std::cos(pyaw)};
  const float h = kind == FurnitureKind::Sofa ? 420.f : size.y;
  const float back = kind == FurnitureKind::Sofa ? 0.1f * size.z : 0.f;
  return Vec3{px, h, pz} + az * back;
}

void Furniture::add_parts(float t, std::vector<Primitive>& out) const {
  float px, pz, pyaw;
  placement_at(t, px, pz, pyaw);
  Placed p;
  p.origin = {px, 0, pz};
  p.ax = {std::cos(pyaw), 0, -std::sin(pyaw)};
  p.az = {std::sin(pyaw), 0, std::cos(pyaw)};
  const float w = size.x * 0.5f, h = size.y, d = size.z * 0.5f;
  switch (kind) {
    case FurnitureKind::Table: {
      out.push_back(p.box({0, h - 15.f, 0}, {w, 15.f, d}));
      const float lh = (h - 30.f) * 0.5f;
      for (float sx : {-1.f, 1.f})
        for (float sz : {-1.f, 1.f}) out.push_back(p.box({sx * (w - 45.f), lh, sz * (d - 45.f)}, {25.f, lh, 25.f}));
      break;
    }
    case FurnitureKind::Chair: {
      out.push_back(p.box({0, h - 20.f, 0}, {w, 20.f, d}));
      const float lh = (h - 40.f) * 0.5f;
      for (float sx : {-1.f, 1.f})
        for (float sz : {-1.f, 1.f}) out.push_back(p.box({sx * (w - 20.f), lh, sz * (d - 20.f)}, {16.f, lh, 16.f}));
      out.push_back(p.box({0, h + 220.f, -d + 15.f}, {w, 220.f, 15.f}));
      break;
    }
    case FurnitureKind::Sofa: {
      out.push_back(p.box({0, 210.f, 0}, {w, 210.f, d}));
      out.push_back(p.box({0, h * 0.5f, -d + 110.f}, {w, h * 0.5f, 110.f}));
      for (float sx : {-1.f, 1.f}) out.push_back(p.box({sx * (w - 90.f), 310.f, 0}, {90.f, 310.f, d}));
      break;
    }
    case FurnitureKind::Shelf: {
      for (float sx : {-1.f, 1.f}) out.push_back(p.box({sx * (w - 10.f), h * 0.5f, 0}, {10.f, h * 0.5f, d}));
      out.push_back(p.box({0, h * 0.5f, -d + 5.f}, {w, h * 0.5f, 5.f}));
      for (int i = 0; i < 5; ++i) out.push_back(p.box({0, 30.f + i * (h - 60.f) / 4.f, 0}, {w, 12.f, d}));
      break;
    }
    case FurnitureKind::Door:
      // Origin at the hinge; the panel extends along +x.
      out.push_back(p.box({w, h * 0.5f, 0}, {w, h * 0.5f, d}));
      break;
    case FurnitureKind::Cabinet:
      out.push_back(p.box({0, h * 0.5f, 0}, {w, h * 0.5f, d}));
      break;
  }
}

const std::vector<std::string>& scenario_names() {
  static const std::vector<std::string> names = {
      "walk-in", "walk-out", "walk-away", "turn",     "wave",     "reach",           "point",      "crouch",
      "kick",    "sit",      "arms-crossed", "side-view", "crossing", "furniture-moved", "empty-room", "mixed"};
  return names;
}

Scenario::Scenario(ScenarioOptions options, CameraSetup camera, Room room, std::vector<Actor> actors)
    : options_(std::move(options)), camera_(camera), room_(std::move(room)), actors_(std::move(actors)) {}

namespace {

class Builder {
 public:
  explicit Builder(const ScenarioOptions& o) : o_(o), rng_(o.seed ^ 0x51D0C0FFEEull) {
    duration_ = static_cast<float>(o.frames) / o.fps;
    setup_camera();
    setup_room();
  }

  Scenario build() {
    const std::string& n = o_.name;
    if (n == "walk-in") walk_in();
    else if (n == "walk-out") walk_out();
    else if (n == "walk-away") walk_away();
    else if (n == "turn") turn();
    else if (n == "wave") gestures(Activity::Wave);
    else if (n == "reach") gestures(Activity::Reach);
    else if (n == "point") gestures(Activity::Point);
    else if (n == "crouch") gestures(Activity::Crouch);
    else if (n == "kick") gestures(Activity::Kick);
    else if (n == "arms-crossed") gestures(Activity::ArmsCrossed);
    else if (n == "sit") sit();
    else if (n == "side-view") side_view();
    else if (n == "crossing") crossing();
    else if (n == "furniture-moved") furniture_moved();
    else if (n == "empty-room") swing_a_door();
    else if (n == "mixed") {
      swing_a_door();
      mixed();
    }
    else throw std::invalid_argument("unknown scenario: " + n);
    return Scenario(o_, cam_, room_, std::move(actors_));
  }

 private:
  int people(int fallback) const { return std::clamp(o_.people < 0 ? fallback : o_.people, 0, 6); }

  void setup_camera() {
    cam_.width = o_.width;
    cam_.height = o_.height;
    cam_.mirrored = o_.mirrored;
    const float h = rng_.uniform(500.f, 2200.f);
    cam_.position = {rng_.uniform(-800.f, 800.f), h, 0.f};
    cam_.yaw = deg(rng_.uniform(-8.f, 8.f));
    cam_.pitch = std::atan2(h - 1000.f, 3200.f) + deg(rng_.uniform(-4.f, 4.f));
    cam_.roll = rng_.chance(0.5f) ? 0.f : deg(rng_.uniform(-5.f, 5.f));
  }

  // A point `depth` mm ahead of the camera on the floor and `across` mm to its right.
  Vec3 stage(float depth, float across) const {
    const Vec3 f{std::sin(cam_.yaw), 0, std::cos(cam_.yaw)}, r{std::cos(cam_.yaw), 0, -std::sin(cam_.yaw)};
    return Vec3{cam_.position.x, 0, cam_.position.z} + f * depth + r * across;
  }
  // Lateral offset at which a person is out of view at `depth`.
  float offscreen(float depth) const { return depth * std::tan(deg(cam_.hfovDeg) * 0.5f) + 750.f; }
  float facing_camera(Vec3 p) const {
    return std::atan2(cam_.position.x - p.x, cam_.position.z - p.z);
  }
  float camera_heading() const { return cam_.yaw; }

  void setup_room() {
    const float halfW = std::max(rng_.uniform(2600.f, 4500.f), offscreen(5000.f) + 700.f);
    room_.x0 = cam_.position.x - halfW + rng_.uniform(-300.f, 300.f);
    room_.x1 = cam_.position.x + halfW + rng_.uniform(-300.f, 300.f);
    room_.z0 = -250.f;
    room_.z1 = rng_.uniform(5800.f, 11500.f);
    room_.height = rng_.uniform(2500.f, 3200.f);
    const int count = rng_.integer(1, 6);
    for (int i = 0; i < count * 4 && static_cast<int>(room_.furniture.size()) < count; ++i) {
      Furniture f = random_piece();
      if (fits(f)) room_.furniture.push_back(f);
    }
  }

  Furniture random_piece() {
    Furniture f;
    const int k = rng_.integer(0, 5);
    f.kind = static_cast<FurnitureKind>(k);
    switch (f.kind) {
      case FurnitureKind::Table: f.size = {rng_.uniform(800, 1600), rng_.uniform(700, 770), rng_.uniform(600, 900)}; break;
      case FurnitureKind::Chair: f.size = {450, rng_.uniform(430, 480), 450}; break;
      case FurnitureKind::Sofa: f.size = {rng_.uniform(1700, 2300), rng_.uniform(800, 900), 880}; break;
      case FurnitureKind::Shelf: f.size = {rng_.uniform(800, 1200), rng_.uniform(1700, 2100), 350}; break;
      case FurnitureKind::Door: f.size = {900, 2050, 40}; break;
      case FurnitureKind::Cabinet: f.size = {rng_.uniform(500, 1200), rng_.uniform(600, 1100), rng_.uniform(400, 600)}; break;
    }
    // Against the left, right or far wall, facing into the room, or standing free behind
    // the space where people move (side walls are mostly out of view).
    const float w = rng_.uniform();
    const int wall = w < 0.2f ? 0 : (w < 0.4f ? 1 : (w < 0.75f || f.kind == FurnitureKind::Door ? 2 : 3));
    const float depth = std::max(f.size.z, f.kind == FurnitureKind::Door ? 0.f : 0.f) * 0.5f + 20.f;
    if (wall == 0) {
      f.x = room_.x0 + depth;
      f.z = rng_.uniform(1000.f, room_.z1 - 800.f);
      f.yaw = deg(90);
    } else if (wall == 1) {
      f.x = room_.x1 - depth;
      f.z = rng_.uniform(1000.f, room_.z1 - 800.f);
      f.yaw = deg(-90);
    } else if (wall == 2) {
      f.x = rng_.uniform(room_.x0 + 800.f, room_.x1 - 800.f);
      f.z = room_.z1 - depth;
      f.yaw = deg(180);
    } else {
      f.x = rng_.uniform(room_.x0 + 1000.f, room_.x1 - 1000.f);
      f.z = rng_.uniform(5600.f, std::max(5700.f, room_.z1 - 900.f));
      f.yaw = rng_.uniform(-kPi, kPi);
    }
    // A door hinges on its own origin; turning it clockwise seen from above opens it into the room.
    if (f.kind == FurnitureKind::Door) f.yaw -= deg(rng_.uniform(0.f, 1.f) < 0.6f ? 0.f : rng_.uniform(10.f, 80.f));
    return f;
  }

  bool fits(const Furniture& f) const {
    const float r = 0.5f * std::max(f.size.x, f.size.z);
    // Keep the middle of the view free for people.
    const Vec3 c{f.x, 0, f.z};
    const Vec3 rel = c - Vec3{cam_.position.x, 0, cam_.position.z};
    const float depth = rel.z, across = rel.x;
    if (depth > 1200.f - r && depth < 5400.f + r && std::fabs(across) < 1500.f + r) return false;
    for (const Furniture& g : room_.furniture) {
      const float rg = 0.5f * std::max(g.size.x, g.size.z);
      if (length(Vec3{g.x - f.x, 0, g.z - f.z}) < r + rg + 100.f) return false;
    }
    return true;
  }

  // Sometimes a door of the room opens or closes during the recording.
  void swing_a_door() {
    for (Furniture& f : room_.furniture) {
      if (f.kind != FurnitureKind::Door || !rng_.chance(0.5f)) continue;
      f.moveStart = rng_.uniform(0.f, std::max(0.1f, duration_ - 2.f));
      f.moveEnd = f.moveStart + rng_.uniform(1.f, 2.5f);
      f.x1 = f.x;
      f.z1 = f.z;
      f.yaw1 = f.yaw - deg(rng_.uniform(20.f, 60.f));
      return;
    }
  }

  Actor& add_actor(Vec3 start, float heading) {
    Actor a;
    a.id = static_cast<uint8_t>(actors_.size() + 1);
    a.shape = BodyShape::random(rng_);
    a.timeline = Timeline(a.shape, start.x, start.z, heading, rng_.uniform(0.f, 10.f));
    actors_.push_back(a);
    return actors_.back();
  }

  // Depths for n people, at least `gap` apart.
  std::vector<float> depths(int n, float lo, float hi, float gap) {
    std::vector<float> d;
    for (int i = 0; i < n; ++i) d.push_back(lo + (hi - lo) * (n == 1 ? rng_.uniform() : (i + rng_.uniform(0.f, 0.4f)) / n));
    for (size_t i = 1; i < d.size(); ++i) d[i] = std::max(d[i], d[i - 1] + gap);
    return d;
  }

  Activity random_gesture() {
    static constexpr Activity g[] = {Activity::Wave,   Activity::Reach, Activity::Point,
                                     Activity::Crouch, Activity::Kick,  Activity::ArmsCrossed};
    return g[rng_.integer(0, 5)];
  }

  float gesture_seconds(Activity a) {
    return a == Activity::Kick ? rng_.uniform(1.0f, 1.6f) : rng_.uniform(2.0f, 3.6f);
  }

  void fill_gestures(Timeline& tl, Activity a, bool random) {
    while (tl.end_time() < duration_) {
      tl.stand(rng_.uniform(0.6f, 1.6f));
      const Activity g = random ? random_gesture() : a;
      tl.gesture(g, gesture_seconds(g), rng_.integer(0, 1), rng_.uniform());
    }
  }

  void walk_in() {
    const int n = people(1);
    const auto ds = depths(n, 2200.f, 4300.f, 700.f);
    for (int i = 0; i < n; ++i) {
      const float side = rng_.chance(0.5f) ? -1.f : 1.f;
      const Vec3 start = stage(ds[i], side * (offscreen(ds[i]) + rng_.uniform(0.f, 400.f)));
      const Vec3 target = stage(ds[i] + rng_.uniform(-300.f, 300.f), rng_.uniform(-700.f, 700.f));
      Actor& a = add_actor(start, std::atan2(target.x - start.x, target.z - start.z));
      const float speed = rng_.uniform(0.8f, 1.2f);
      a.timeline.stand(0.3f + i * rng_.uniform(0.5f, 2.0f));
      if (rng_.chance(0.5f)) {  // a bend in the path: in from the side, then towards or away from the camera
        const Vec3 via = stage(ds[i] + rng_.uniform(-900.f, 900.f), side * rng_.uniform(600.f, 1400.f));
        a.timeline.walk_to(via.x, via.z, speed);
      }
      a.timeline.walk_to(target.x, target.z, speed);
      a.timeline.turn_to(facing_camera(target) + deg(rng_.uniform(-25.f, 25.f)));
      fill_gestures(a.timeline, Activity::Stand, true);
    }
  }

  void walk_out() {
    const int n = people(1);
    const auto ds = depths(n, 2200.f, 4000.f, 700.f);
    for (int i = 0; i < n; ++i) {
      const Vec3 start = stage(ds[i], rng_.uniform(-700.f, 700.f));
      Actor& a = add_actor(start, facing_camera(start) + deg(rng_.uniform(-20.f, 20.f)));
      a.timeline.stand(rng_.uniform(0.8f, 2.0f));
      Vec3 exit;
      if (rng_.chance(0.3f)) {
        exit = stage(std::min(room_.z1 - 400.f, 11000.f), rng_.uniform(-1000.f, 1000.f));  // away, out of range
      } else {
        const float side = rng_.chance(0.5f) ? -1.f : 1.f;
        const float d = ds[i] + rng_.uniform(-800.f, 800.f);
        exit = stage(d, side * (offscreen(d) + 500.f));
      }
      a.timeline.walk_to(exit.x, exit.z, rng_.uniform(0.8f, 1.25f));
      a.timeline.wait_until(duration_);
    }
  }

  // In from the side, a while facing the camera, then off into the room with the back to it.
  void walk_away() {
    const int n = people(1);
    const auto ds = depths(n, 2000.f, 3200.f, 700.f);
    for (int i = 0; i < n; ++i) {
      const float side = rng_.chance(0.5f) ? -1.f : 1.f;
      const Vec3 start = stage(ds[i], side * (offscreen(ds[i]) + rng_.uniform(0.f, 400.f)));
      const Vec3 target = stage(ds[i], rng_.uniform(-500.f, 500.f));
      Actor& a = add_actor(start, std::atan2(target.x - start.x, target.z - start.z));
      a.timeline.stand(0.3f + i * rng_.uniform(0.5f, 1.5f));
      a.timeline.walk_to(target.x, target.z, rng_.uniform(0.8f, 1.2f));
      a.timeline.turn_to(facing_camera(target) + deg(rng_.uniform(-20.f, 20.f)));
      a.timeline.stand(rng_.uniform(1.f, 2.f));
      const Vec3 away = stage(std::min(ds[i] + 4000.f, room_.z1 - cam_.position.z - 600.f), rng_.uniform(-900.f, 900.f));
      a.timeline.walk_to(away.x, away.z, rng_.uniform(0.7f, 1.f));
      a.timeline.wait_until(duration_);
    }
  }

  void turn() {
    const int n = people(1);
    const auto ds = depths(n, 2300.f, 3800.f, 800.f);
    for (int i = 0; i < n; ++i) {
      const Vec3 p = stage(ds[i], n == 1 ? rng_.uniform(-400.f, 400.f) : -900.f + 1800.f * i / std::max(1, n - 1));
      Actor& a = add_actor(p, facing_camera(p));
      const float dir = rng_.chance(0.5f) ? 1.f : -1.f;
      float h = a.timeline.heading();
      while (a.timeline.end_time() < duration_) {
        a.timeline.stand(rng_.uniform(0.5f, 1.5f));
        h += dir * deg(rng_.uniform(60.f, 120.f));
        a.timeline.turn_to(h, rng_.uniform(1.0f, 2.0f));
        if (rng_.chance(0.3f)) a.timeline.gesture(random_gesture(), 2.5f, rng_.integer(0, 1), rng_.uniform());
      }
    }
  }

  void gestures(Activity act) {
    const int n = people(1);
    const auto ds = depths(n, 2000.f, 4000.f, 800.f);
    for (int i = 0; i < n; ++i) {
      const Vec3 p = stage(ds[i], n == 1 ? rng_.uniform(-600.f, 600.f) : -1000.f + 2000.f * i / std::max(1, n - 1));
      Actor& a = add_actor(p, facing_camera(p) + deg(rng_.uniform(-35.f, 35.f)));
      while (a.timeline.end_time() < duration_) {
        a.timeline.stand(rng_.uniform(0.6f, 1.5f));
        a.timeline.gesture(act, gesture_seconds(act), rng_.integer(0, 1), rng_.uniform());
        if (rng_.chance(0.25f)) a.timeline.turn_to(facing_camera(p) + deg(rng_.uniform(-60.f, 60.f)));
      }
    }
  }

  Furniture& place_seat(Vec3 at, float facing) {
    Furniture c;
    c.kind = rng_.chance(0.75f) ? FurnitureKind::Chair : FurnitureKind::Sofa;
    c.size = c.kind == FurnitureKind::Chair ? Vec3{450, rng_.uniform(430, 480), 450} : Vec3{rng_.uniform(1700, 2100), 850, 880};
    c.x = at.x;
    c.z = at.z;
    c.yaw = facing;
    room_.furniture.push_back(c);
    return room_.furniture.back();
  }

  void sit() {
    const int n = people(1);
    const Vec3 seatAt = stage(rng_.uniform(2600.f, 3600.f), rng_.uniform(-500.f, 500.f));
    const Furniture seat = place_seat(seatAt, facing_camera(seatAt) + deg(rng_.uniform(-30.f, 30.f)));
    const Vec3 s = seat.seat_at(0);
    for (int i = 0; i < n; ++i) {
      if (i == 0) {
        const float side = rng_.chance(0.5f) ? -1.f : 1.f;
        const Vec3 start = rng_.chance(0.5f) ? stage(3000.f, side * offscreen(3000.f)) : stage(2200.f, side * 800.f);
        Actor& a = add_actor(start, facing_camera(start));
        a.timeline.stand(rng_.uniform(0.3f, 1.0f));
        a.timeline.sit(s.x, s.z, seat.yaw, s.y, rng_.uniform(3.f, 6.f));
        fill_gestures(a.timeline, Activity::Stand, true);
      } else {
        const Vec3 p = stage(rng_.uniform(2000.f, 4000.f), (i % 2 ? -1.f : 1.f) * rng_.uniform(900.f, 1300.f));
        Actor& a = add_actor(p, facing_camera(p));
        fill_gestures(a.timeline, Activity::Stand, true);
      }
    }
  }

  void side_view() {
    const int n = people(1);
    const auto ds = depths(n, 2300.f, 4000.f, 800.f);
    for (int i = 0; i < n; ++i) {
      const float side = rng_.chance(0.5f) ? -1.f : 1.f;
      const Vec3 start = stage(ds[i], side * rng_.uniform(900.f, 1400.f));
      const Vec3 mid = stage(ds[i], -side * rng_.uniform(0.f, 500.f));
      Actor& a = add_actor(start, std::atan2(mid.x - start.x, mid.z - start.z));
      a.timeline.walk_to(mid.x, mid.z, rng_.uniform(0.7f, 1.1f));
      const float sideways = camera_heading() + (rng_.chance(0.5f) ? deg(90) : deg(-90)) + deg(rng_.uniform(-10.f, 10.f));
      a.timeline.turn_to(sideways);
      while (a.timeline.end_time() < duration_) {
        a.timeline.stand(rng_.uniform(0.6f, 1.5f));
        static constexpr Activity g[] = {Activity::Wave, Activity::Reach, Activity::Point, Activity::Kick,
                                         Activity::Crouch};
        const Activity act = g[rng_.integer(0, 4)];
        a.timeline.gesture(act, gesture_seconds(act), rng_.integer(0, 1), rng_.uniform());
      }
    }
  }

  void crossing() {
    const int n = std::max(2, people(2));
    const bool touching = rng_.chance(0.4f);
    const auto ds = depths(n, 2200.f, 4200.f, touching ? 450.f : 700.f);
    const float meet = rng_.uniform(1.5f, 3.0f);  // seconds until the paths cross
    for (int i = 0; i < n; ++i) {
      const float side = (i % 2 == 0) ? -1.f : 1.f;
      const float d0 = ds[i] + (i == 2 ? -800.f : 0.f), d1 = ds[i] + (i == 2 ? 800.f : 0.f);
      const Vec3 start = stage(d0, side * (offscreen(d0) + rng_.uniform(0.f, 300.f)));
      const Vec3 end = stage(d1, -side * (offscreen(d1) + 300.f));
      Actor& a = add_actor(start, std::atan2(end.x - start.x, end.z - start.z));
      const float speed = rng_.uniform(0.85f, 1.15f);
      const float v = 1250.f * speed * std::sqrt(a.shape.height / 1750.f);
      const float toCentre = length(start - stage(ds[i], 0.f)) / v;
      a.timeline.stand(std::max(0.05f, meet - toCentre + 0.3f * i)).walk_to(end.x, end.z, speed);
      if (rng_.chance(0.5f)) {  // and back again
        a.timeline.stand(rng_.uniform(0.5f, 2.f)).walk_to(start.x, start.z, speed);
      }
      a.timeline.wait_until(duration_);
    }
  }

  void furniture_moved() {
    const int n = people(1);
    // A piece in view that is pushed to another place while the person walks along.
    Furniture f;
    f.kind = rng_.chance(0.6f) ? FurnitureKind::Chair : FurnitureKind::Table;
    f.size = f.kind == FurnitureKind::Chair ? Vec3{450, 450, 450} : Vec3{rng_.uniform(800, 1200), 740, 700};
    const float depth = rng_.uniform(2600.f, 3600.f);
    const float side = rng_.chance(0.5f) ? -1.f : 1.f;
    const Vec3 from = stage(depth, side * rng_.uniform(600.f, 1000.f));
    const Vec3 to = stage(depth + rng_.uniform(-500.f, 500.f), -side * rng_.uniform(200.f, 900.f));
    f.x = from.x;
    f.z = from.z;
    f.yaw = facing_camera(from);
    f.x1 = to.x;
    f.z1 = to.z;
    f.yaw1 = f.yaw + deg(rng_.uniform(-40.f, 40.f));
    const float behind = -(0.5f * f.size.z + 350.f);  // the pusher stands behind the piece
    const Vec3 push0 = from + Vec3{std::sin(f.yaw), 0, std::cos(f.yaw)} * behind;
    const Vec3 push1 = to + Vec3{std::sin(f.yaw1), 0, std::cos(f.yaw1)} * behind;
    if (n == 0) {
      f.moveStart = rng_.uniform(0.5f, 0.3f * duration_ + 0.5f);
      f.moveEnd = f.moveStart + rng_.uniform(1.5f, 3.f);
    }
    for (int i = 0; i < n; ++i) {
      if (i == 0) {
        const Vec3 start = stage(depth + 1200.f, side * (offscreen(depth) + 200.f));
        Actor& a = add_actor(start, facing_camera(start));
        a.timeline.stand(0.3f).walk_to(push0.x, push0.z, 0.9f);
        a.timeline.turn_to(std::atan2(to.x - from.x, to.z - from.z));
        a.timeline.stand(0.8f);
        f.moveStart = a.timeline.end_time();
        a.timeline.push_to(push1.x, push1.z);
        f.moveEnd = a.timeline.end_time();
        a.timeline.turn_to(facing_camera(push1)).stand(1.0f);
        const Vec3 exit = stage(depth, -side * (offscreen(depth) + 500.f));
        a.timeline.walk_to(exit.x, exit.z);
        a.timeline.wait_until(duration_);
      } else {
        const Vec3 p = stage(rng_.uniform(2000.f, 2400.f), (i % 2 ? -1.f : 1.f) * 1200.f);
        Actor& a = add_actor(p, facing_camera(p));
        fill_gestures(a.timeline, Activity::Stand, true);
      }
    }
    room_.furniture.push_back(f);
  }

  void mixed() {
    const int n = people(rng_.integer(1, 3));
    const auto ds = depths(n, 1800.f, 4600.f, 600.f);
    int seatIndex = -1;
    if (rng_.chance(0.3f)) {
      const Vec3 at = stage(rng_.uniform(2800.f, 4000.f), rng_.uniform(-900.f, 900.f));
      place_seat(at, facing_camera(at) + deg(rng_.uniform(-40.f, 40.f)));
      seatIndex = static_cast<int>(room_.furniture.size()) - 1;
    }
    for (int i = 0; i < n; ++i) {
      const bool offscreenStart = rng_.chance(0.35f);
      const float side = rng_.chance(0.5f) ? -1.f : 1.f;
      const Vec3 start = offscreenStart ? stage(ds[i], side * offscreen(ds[i])) : stage(ds[i], rng_.uniform(-1200.f, 1200.f));
      Actor& a = add_actor(start, offscreenStart ? facing_camera(start) + side * deg(90)
                                                 : rng_.uniform(-kPi, kPi));
      Timeline& tl = a.timeline;
      tl.stand(rng_.uniform(0.1f, 1.0f));
      bool sat = false;
      while (tl.end_time() < duration_) {
        const float r = rng_.uniform();
        if (r < 0.3f) {
          const Vec3 p = stage(rng_.uniform(1600.f, 5000.f), rng_.uniform(-1500.f, 1500.f));
          tl.walk_to(p.x, p.z, rng_.uniform(0.7f, 1.3f));
        } else if (r < 0.45f) {
          tl.turn_to(tl.heading() + deg(rng_.uniform(-180.f, 180.f)));
        } else if (r < 0.52f && seatIndex >= 0 && !sat && i == 0) {
          const Furniture& f = room_.furniture[seatIndex];
          const Vec3 s = f.seat_at(0);
          tl.sit(s.x, s.z, f.yaw, s.y, rng_.uniform(2.f, 5.f));
          sat = true;
        } else if (r < 0.6f) {
          tl.stand(rng_.uniform(0.5f, 2.f));
        } else {
          const Activity g = random_gesture();
          tl.gesture(g, gesture_seconds(g), rng_.integer(0, 1), rng_.uniform());
        }
      }
    }
  }

  ScenarioOptions o_;
  Rng rng_;
  float duration_ = 10.f;
  CameraSetup cam_;
  Room room_;
  std::vector<Actor> actors_;
};

}  // namespace

Scenario Scenario::make(const ScenarioOptions& options) {
  if (options.width == 0 || options.height == 0 || options.width % 160 != 0 || options.height % 120 != 0 ||
      options.width / 160 != options.height / 120)
    throw std::invalid_argument("image size must be a multiple of 160x120");
  if (options.frames < 0 || !(options.fps > 0.f)) throw std::invalid_argument("bad frame count or rate");
  return Builder(options).build();
}

}  // namespace quorvik::sim
