#include "support/person_scene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace person_scene {

using quorvik::skeleton::kDegreesToRadians;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Entry distance of a ray into an axis-aligned block, infinity when it misses.
double hit_block(const double o[3], const double d[3], const float lo[3], const float hi[3]) {
  double t0 = 0, t1 = kInfinity;
  for (int k = 0; k < 3; ++k) {
    if (std::abs(d[k]) < 1e-12) {
      if (o[k] < lo[k] || o[k] > hi[k]) return kInfinity;
      continue;
    }
    double a = (lo[k] - o[k]) / d[k], b = (hi[k] - o[k]) / d[k];
    if (a > b) std::swap(a, b);
    t0 = std::max(t0, a);
    t1 = std::min(t1, b);
    if (t0 > t1) return kInfinity;
  }
  return t0 > 0 ? t0 : kInfinity;
}

// Entry distance into an axis-aligned ellipsoid (centre c, radii r).
double hit_ellipsoid(const double o[3], const double d[3], const float c[3], const float r[3]) {
  double oo[3], dd[3];
  for (int k = 0; k < 3; ++k) {
    oo[k] = (o[k] - c[k]) / r[k];
    dd[k] = d[k] / r[k];
  }
  const double a = dd[0] * dd[0] + dd[1] * dd[1] + dd[2] * dd[2];
  const double b = 2 * (oo[0] * dd[0] + oo[1] * dd[1] + oo[2] * dd[2]);
  const double cc = oo[0] * oo[0] + oo[1] * oo[1] + oo[2] * oo[2] - 1;
  const double disc = b * b - 4 * a * cc;
  if (disc < 0) return kInfinity;
  const double t = (-b - std::sqrt(disc)) / (2 * a);
  return t > 0 ? t : kInfinity;
}

}  // namespace

PersonScene::PersonScene(float heightMm, float pitchDegrees, int width, int height)
    : heightMm_(heightMm),
      pitch_(pitchDegrees * kDegreesToRadians),
      cos_(std::cos(pitch_)),
      sin_(std::sin(pitch_)),
      width_(width),
      height_(height),
      camera_(kHfovDegrees * kDegreesToRadians, kVfovDegrees * kDegreesToRadians, float(width), float(height)) {}

PersonScene& PersonScene::floor(bool on) {
  floor_ = on;
  return *this;
}

PersonScene& PersonScene::wall(float distanceMm) {
  wall_ = distanceMm;
  return *this;
}

int PersonScene::add_person(float x, float z, float height) {
  Person p;
  p.x = x, p.z = z, p.height = height;
  people_.push_back(p);
  return int(people_.size()) - 1;
}

void PersonScene::walk_to(int index, float x, float z) {
  Person& p = people_[size_t(index)];
  const float step = std::hypot(x - p.x, z - p.z);
  p.x = x, p.z = z;
  p.phase += step / 250.f;  // one full stride every ~1.6 m
}

int PersonScene::add_box(float cx, float cz, float sx, float sz, float sy) {
  Object o;
  o.centreX = cx, o.centreZ = cz;
  o.parts.push_back({-sx / 2, 0.f, -sz / 2, sx / 2, sy, sz / 2});
  objects_.push_back(o);
  return int(objects_.size()) - 1;
}

int PersonScene::add_chair(float cx, float cz) {
  Object o;
  o.centreX = cx, o.centreZ = cz;
  const float h = 225.f;  // half width and depth of the seat
  for (float lx : {-h, h - 40.f}) {
    for (float lz : {-h, h - 40.f}) o.parts.push_back({lx, 0.f, lz, lx + 40.f, 430.f, lz + 40.f});
  }
  o.parts.push_back({-h, 430.f, -h, h, 480.f, h});
  o.parts.push_back({-h, 480.f, h - 40.f, h, 900.f, h});
  objects_.push_back(o);
  return int(objects_.size()) - 1;
}

void PersonScene::move_object(int index, float cx, float cz) {
  objects_[size_t(index)].centreX = cx;
  objects_[size_t(index)].centreZ = cz;
}

void PersonScene::person_primitives(const Person& p, std::vector<Primitive>& out) const {
  const float s = p.height / 1700.f;
  const float swing = std::sin(p.phase) * 150.f * s;
  auto block = [&](float x0, float y0, float z0, float x1, float y1, float z1) {
    out.push_back({Primitive::kBlock, {p.x + x0 * s, y0 * s, p.z + z0 * s}, {p.x + x1 * s, y1 * s, p.z + z1 * s}});
  };
  auto ellipsoid = [&](float cy, float rx, float ry, float rz) {
    out.push_back({Primitive::kEllipsoid, {p.x, cy * s, p.z}, {rx * s, ry * s, rz * s}});
  };
  ellipsoid(1590.f, 105.f, 110.f, 105.f);  // head
  block(-50.f, 1420.f, -50.f, 50.f, 1500.f, 50.f);  // neck
  ellipsoid(1180.f, 190.f, 290.f, 120.f);  // torso
  block(-170.f, 850.f, -110.f, 170.f, 1000.f, 110.f);  // hips
  block(-160.f, 0.f, -75.f + swing, -25.f, 880.f, 75.f + swing);  // left leg
  block(25.f, 0.f, -75.f - swing, 160.f, 880.f, 75.f - swing);  // right leg
  block(-290.f, 800.f, -55.f - swing, -200.f, 1430.f, 55.f - swing);  // left arm
  block(200.f, 800.f, -55.f + swing, 290.f, 1430.f, 55.f + swing);  // right arm
}

bool PersonScene::project(float x, float y, float z, float& u, float& v) const {
  // Camera axes in the scene: right (1,0,0), up (0,c,s), forward (0,-s,c).
  const double py = double(y) - heightMm_;
  const double cx = x, cy = py * cos_ + double(z) * sin_, cz = -py * sin_ + double(z) * cos_;
  if (cz <= 1) return false;
  u = float((cx / cz / camera_.xFactor + 0.5) * width_);
  v = float((0.5 - cy / cz / camera_.yFactor) * height_);
  return true;
}

bool PersonScene::rect_of(const std::vector<Primitive>& prims, int& x0, int& y0, int& x1, int& y1) const {
  float lo[3] = {1e9f, 1e9f, 1e9f}, hi[3] = {-1e9f, -1e9f, -1e9f};
  for (const Primitive& p : prims) {
    for (int k = 0; k < 3; ++k) {
      const float a = p.kind == Primitive::kBlock ? p.lo[k] : p.lo[k] - p.hi[k];
      const float b = p.kind == Primitive::kBlock ? p.hi[k] : p.lo[k] + p.hi[k];
      lo[k] = std::min(lo[k], a), hi[k] = std::max(hi[k], b);
    }
  }
  float umin = 1e9f, umax = -1e9f, vmin = 1e9f, vmax = -1e9f;
  for (int c = 0; c < 8; ++c) {
    float u, v;
    if (!project(c & 1 ? hi[0] : lo[0], c & 2 ? hi[1] : lo[1], c & 4 ? hi[2] : lo[2], u, v)) {
      x0 = 0, y0 = 0, x1 = width_ - 1, y1 = height_ - 1;
      return true;
    }
    umin = std::min(umin, u), umax = std::max(umax, u), vmin = std::min(vmin, v), vmax = std::max(vmax, v);
  }
  x0 = std::max(0, int(std::floor(umin)) - 1);
  y0 = std::max(0, int(std::floor(vmin)) - 1);
  x1 = std::min(width_ - 1, int(std::ceil(umax)) + 1);
  y1 = std::min(height_ - 1, int(std::ceil(vmax)) + 1);
  return x0 <= x1 && y0 <= y1;
}

void PersonScene::cast(const std::vector<Primitive>& prims, std::vector<double>& best, std::vector<uint8_t>* owner,
                       uint8_t id) const {
  int x0, y0, x1, y1;
  if (!rect_of(prims, x0, y0, x1, y1)) return;
  const double origin[3] = {0, heightMm_, 0};
  for (int y = y0; y <= y1; ++y) {
    const double dy = (0.5 - double(y) / height_) * camera_.yFactor;
    for (int x = x0; x <= x1; ++x) {
      const double dx = (double(x) / width_ - 0.5) * camera_.xFactor;
      const double dir[3] = {dx, dy * cos_ - sin_, dy * sin_ + cos_};
      const size_t i = size_t(y) * size_t(width_) + size_t(x);
      for (const Primitive& p : prims) {
        const double t = p.kind == Primitive::kBlock ? hit_block(origin, dir, p.lo, p.hi)
                                                     : hit_ellipsoid(origin, dir, p.lo, p.hi);
        if (t < best[i]) {
          best[i] = t;
          if (owner != nullptr) (*owner)[i] = id;
        }
      }
    }
  }
}

std::vector<uint16_t> PersonScene::render() const {
  std::vector<uint16_t> depth;
  render(depth);
  return depth;
}

void PersonScene::render(std::vector<uint16_t>& depth) const { render_into(depth, nullptr); }

void PersonScene::render(std::vector<uint16_t>& depth, std::vector<uint8_t>& person) const {
  render_into(depth, &person);
}

void PersonScene::render_into(std::vector<uint16_t>& depth, std::vector<uint8_t>* owner) const {
  if (cached_ && cachePeople_ == people_ && cacheObjects_ == objects_ && cacheFloor_ == floor_ && cacheWall_ == wall_) {
    depth = cacheDepth_;
    if (owner != nullptr) *owner = cacheOwner_;
    return;
  }
  std::vector<uint8_t> own;
  if (owner == nullptr) owner = &own;
  owner->assign(size_t(width_) * size_t(height_), 0);
  std::vector<double> best(size_t(width_) * size_t(height_), kInfinity);
  for (int y = 0; y < height_; ++y) {
    const double dy = (0.5 - double(y) / height_) * camera_.yFactor;
    const double dirY = dy * cos_ - sin_, dirZ = dy * sin_ + cos_;
    for (int x = 0; x < width_; ++x) {
      // The ray has camera depth 1, so its parameter is the camera depth.
      double t = kInfinity;
      if (floor_ && dirY < -1e-9) t = std::min(t, -double(heightMm_) / dirY);
      if (wall_ > 0 && dirZ > 1e-9) t = std::min(t, double(wall_) / dirZ);
      best[size_t(y) * size_t(width_) + size_t(x)] = t;
    }
  }
  std::vector<Primitive> prims;
  for (const Object& o : objects_) {
    prims.clear();
    for (const Block& b : o.parts) {
      prims.push_back({Primitive::kBlock,
                       {b.minX + o.centreX, b.minY, b.minZ + o.centreZ},
                       {b.maxX + o.centreX, b.maxY, b.maxZ + o.centreZ}});
    }
    cast(prims, best, owner, 0);
  }
  for (size_t i = 0; i < people_.size(); ++i) {
    if (!people_[i].visible) continue;
    prims.clear();
    person_primitives(people_[i], prims);
    cast(prims, best, owner, uint8_t(i + 1));
  }
  depth.assign(best.size(), 0);
  for (size_t i = 0; i < best.size(); ++i) {
    if (best[i] < 9999.0) depth[i] = uint16_t(std::lround(best[i]));
  }
  cacheDepth_ = depth;
  cacheOwner_ = *owner;
  cached_ = true;
  cachePeople_ = people_;
  cacheObjects_ = objects_;
  cacheFloor_ = floor_;
  cacheWall_ = wall_;
}

bool PersonScene::person_rect(int index, int& x0, int& y0, int& x1, int& y1) const {
  const Person& p = people_[size_t(index)];
  if (!p.visible) return false;
  std::vector<Primitive> prims;
  person_primitives(p, prims);
  return rect_of(prims, x0, y0, x1, y1);
}

std::vector<uint8_t> PersonScene::mask_of(int index) const {
  std::vector<uint16_t> depth;
  std::vector<uint8_t> owner;
  render(depth, owner);
  for (size_t i = 0; i < owner.size(); ++i) owner[i] = depth[i] != 0 && owner[i] == index + 1 ? 1 : 0;
  return owner;
}

bool PersonScene::fully_visible(int index) const {
  const Person& p = people_[size_t(index)];
  if (!p.visible) return false;
  std::vector<Primitive> prims;
  person_primitives(p, prims);
  for (const Primitive& q : prims) {
    for (int c = 0; c < 8; ++c) {
      float corner[3];
      for (int k = 0; k < 3; ++k) {
        const bool high = (c >> k) & 1;
        corner[k] = q.kind == Primitive::kBlock ? (high ? q.hi[k] : q.lo[k]) : q.lo[k] + (high ? q.hi[k] : -q.hi[k]);
      }
      float u, v;
      if (!project(corner[0], corner[1], corner[2], u, v) || u < 0 || v < 0 || u >= float(width_) ||
          v >= float(height_)) {
        return false;
      }
    }
  }
  return true;
}

const quorvik::skeleton::ConversionTables& default_tables() {
  static const quorvik::skeleton::ConversionTables tables =
      quorvik::skeleton::build_conversion_tables(quorvik::skeleton::ShiftConversionParams{});
  return tables;
}

SceneEngine::SceneEngine(int width, int height, bool mirrored)
    : engine_(quorvik::legacy::SegmentationEngine::create()) {
  format_.width = uint32_t(width);
  format_.height = uint32_t(height);
  format_.hfov = kHfovDegrees * kDegreesToRadians;
  format_.vfov = kVfovDegrees * kDegreesToRadians;
  format_.mirrored = mirrored ? 1 : 0;
  const auto& t = default_tables();
  tables_ = {1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()), t.depthToShift.data(),
             uint32_t(t.depthToShift.size())};
  engine_->reset();
}

quorvik::legacy::LabelOutput SceneEngine::feed(const std::vector<uint16_t>& depth) {
  const quorvik::legacy::SegmentationFrame frame{index_, timestamp_, &format_, depth.data()};
  ++index_;
  timestamp_ += 33;
  if (!engine_->started()) {
    engine_->start(frame, tables_);
    labels_ = engine_->label_output();
  } else {
    labels_ = engine_->process(frame);
  }
  return labels_;
}

quorvik::legacy::LabelOutput SceneEngine::feed(const std::vector<uint16_t>& depth, int times) {
  for (int i = 0; i < times; ++i) feed(depth);
  return labels_;
}

uint16_t SceneEngine::label(int x, int y) const {
  return labels_.data[size_t(y) * labels_.width + size_t(x)];
}

int SceneEngine::count(uint16_t id) const {
  int n = 0;
  for (size_t i = 0; i < size_t(labels_.width) * labels_.height; ++i) n += labels_.data[i] == id ? 1 : 0;
  return n;
}

uint16_t SceneEngine::dominant_id(int x0, int y0, int x1, int y1) const {
  int counts[11] = {};
  for (int y = std::max(y0, 0); y <= std::min(y1, int(labels_.height) - 1); ++y) {
    for (int x = std::max(x0, 0); x <= std::min(x1, int(labels_.width) - 1); ++x) {
      const uint16_t id = label(x, y);
      if (id >= 1 && id <= 10) ++counts[id];
    }
  }
  int best = 0;
  for (int id = 1; id <= 10; ++id) {
    if (counts[id] > counts[best]) best = id;
  }
  return uint16_t(best);
}

uint16_t id_of(const SceneEngine& run, const PersonScene& scene, int person) {
  int x0, y0, x1, y1;
  if (!scene.person_rect(person, x0, y0, x1, y1)) return 0;
  const std::vector<uint8_t> mask = scene.mask_of(person);
  int counts[11] = {};
  for (int y = y0; y <= y1; ++y) {
    for (int x = x0; x <= x1; ++x) {
      const uint16_t id = run.label(x, y);
      if (mask[size_t(y * scene.width() + x)] != 0 && id >= 1 && id <= 10) ++counts[id];
    }
  }
  int best = 0;
  for (int id = 1; id <= 10; ++id) {
    if (counts[id] > counts[best]) best = id;
  }
  return uint16_t(best);
}

}  // namespace person_scene
