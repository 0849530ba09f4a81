#include "renderer.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quorvik::sim {

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNearClip = 50.f;

// Model-side joint index of an anatomical joint when the output is mirrored.
constexpr int kMirrorJoint[16] = {0, 1, 5, 6, 7, 2, 3, 4, 8, 9, 13, 14, 15, 10, 11, 12};

bool screen_rect(const Aabb& b, const skeleton::DepthCameraModel& m, uint32_t w, uint32_t h, PixelRect& r) {
  if (b.hi.z <= kNearClip) return false;
  float x0, x1, y0, y1;
  if (b.lo.z <= kNearClip) {
    x0 = 0;
    y0 = 0;
    x1 = static_cast<float>(w - 1);
    y1 = static_cast<float>(h - 1);
  } else {
    const float xmin = std::min(b.lo.x / b.lo.z, b.lo.x / b.hi.z), xmax = std::max(b.hi.x / b.lo.z, b.hi.x / b.hi.z);
    const float ymin = std::min(b.lo.y / b.lo.z, b.lo.y / b.hi.z), ymax = std::max(b.hi.y / b.lo.z, b.hi.y / b.hi.z);
    x0 = std::floor(m.centerX + m.focalX * xmin);
    x1 = std::ceil(m.centerX + m.focalX * xmax);
    y0 = std::floor(m.centerY - m.focalY * ymax);
    y1 = std::ceil(m.centerY - m.focalY * ymin);
  }
  const float wl = static_cast<float>(w - 1), hl = static_cast<float>(h - 1);
  if (x1 < 0 || y1 < 0 || x0 > wl || y0 > hl) return false;
  r.x0 = static_cast<int>(std::max(x0, 0.f));
  r.x1 = static_cast<int>(std::min(x1, wl));
  r.y0 = static_cast<int>(std::max(y0, 0.f));
  r.y1 = static_cast<int>(std::min(y1, hl));
  return r.x0 <= r.x1 && r.y0 <= r.y1;
}

// Uniform [0, 1) from 24 bits of a hash.
inline float unit(uint64_t bits) { return static_cast<float>(bits & 0xFFFFFF) * (1.f / 16777216.f); }

inline float gauss(uint64_t r) {
  const float s = static_cast<float>((r & 0xFFFF) + ((r >> 16) & 0xFFFF) + ((r >> 32) & 0xFFFF) + (r >> 48)) *
                  (1.f / 65536.f);
  return (s - 2.f) * 1.7320508f;
}

// Smooth value noise in [0, 1] on a surface, with features about `cell` mm across.
float value_noise(float u, float v, float cell, uint64_t seed) {
  const float fu = u / cell, fv = v / cell;
  const float iu = std::floor(fu), iv = std::floor(fv);
  const float tu = smoothstep(fu - iu), tv = smoothstep(fv - iv);
  const auto at = [seed](float a, float b) {
    const auto ia = static_cast<uint64_t>(static_cast<int64_t>(a)), ib = static_cast<uint64_t>(static_cast<int64_t>(b));
    return unit(mix64(seed + ia * 0x9E3779B97F4A7C15ull + ib * 0xC2B2AE3D27D4EB4Full));
  };
  const float lo = at(iu, iv) + (at(iu + 1, iv) - at(iu, iv)) * tu;
  const float hi = at(iu, iv + 1) + (at(iu + 1, iv + 1) - at(iu, iv + 1)) * tu;
  return lo + (hi - lo) * tv;
}

// The surface pattern that patches are cut from: large blotches with ragged rims.
float patch_pattern(float u, float v, uint64_t seed) {
  return 0.65f * value_noise(u, v, 420.f, seed) + 0.35f * value_noise(u, v, 130.f, seed ^ 0x7F4A7C159E3779B9ull);
}

// The pattern's value below which the given share of a surface lies, from a fixed sample.
float pattern_level(float share) {
  static const std::vector<float> sorted = [] {
    std::vector<float> v(4096);
    for (size_t i = 0; i < v.size(); ++i) {
      const uint64_t r = mix64(i + 0x243F6A8885A308D3ull);
      v[i] = patch_pattern(unit(r) * 1e5f, unit(r >> 24) * 1e5f, mix64(r));
    }
    std::sort(v.begin(), v.end());
    return v;
  }();
  const float at = std::clamp(share, 0.f, 1.f) * static_cast<float>(sorted.size() - 1);
  const auto i = static_cast<size_t>(at);
  if (i + 1 >= sorted.size()) return sorted.back() + 1.f;
  return sorted[i] + (sorted[i + 1] - sorted[i]) * (at - static_cast<float>(i));
}

}  // namespace

Renderer::Renderer(const Scenario& scenario, SensorOptions sensor)
    : scenario_(scenario),
      sensor_(sensor),
      tables_(skeleton::build_conversion_tables(sensor.shift)),
      width_(scenario.camera().width),
      height_(scenario.camera().height) {
  const CameraSetup& cam = scenario.camera();
  model_ = skeleton::DepthCameraModel(cam.hfovDeg * skeleton::kDegreesToRadians, cam.vfovDeg * skeleton::kDegreesToRadians,
                                      static_cast<float>(width_), static_cast<float>(height_));
  map_ = cam.to_camera();
  dirs_.resize(size_t{width_} * height_);
  for (uint32_t y = 0; y < height_; ++y)
    for (uint32_t x = 0; x < width_; ++x)
      dirs_[size_t{y} * width_ + x] = normalize(
          {(static_cast<float>(x) - model_.centerX) / model_.focalX, (model_.centerY - static_cast<float>(y)) / model_.focalY, 1.f});
  render_static();
}

float Renderer::shift_of_depth(float mm) const {
  // depth = S * Z0 * E / (E - t) with t = ((r - offset) / K - 0.375) * pixelSize.
  const auto& p = sensor_.shift;
  if (p.pixelSizeFactor == 0 || p.paramCoeff == 0 || p.shiftScale == 0) return 0.f;  // tables are all zero then
  const double d = mm / static_cast<double>(p.shiftScale);
  const double t = p.emitterDcmosDistance * (1.0 - p.zeroPlaneDistance / d);
  const float pixelSize = static_cast<float>(p.pixelSizeFactor) * p.zeroPlanePixelSize;
  const double offset = static_cast<double>(p.constShift * p.paramCoeff / p.pixelSizeFactor);
  return static_cast<float>(offset + p.paramCoeff * (t / pixelSize + 0.375));
}

void Renderer::raster(const std::vector<Primitive>& parts, int32_t firstIndex, std::vector<float>& depth,
                      std::vector<int32_t>& owner) const {
  for (size_t i = 0; i < parts.size(); ++i) {
    PixelRect r;
    if (!screen_rect(bounds(parts[i]), model_, width_, height_, r)) continue;
    rasterize(prepare(parts[i]), firstIndex + static_cast<int32_t>(i), r, width_, dirs_.data(), depth.data(),
              owner.data());
  }
}

void Renderer::render_static() {
  const Room& room = scenario_.room();
  const size_t n = dirs_.size();
  staticDepth_.assign(n, kInf);
  const Vec3 c = scenario_.camera().position;
  // The room is a closed box around the camera: every ray leaves it through one face.
  // Faces: 0 x0, 1 x1, 2 floor, 3 ceiling, 4 z0, 5 z1.
  std::vector<uint8_t> face(n, 255);
  for (size_t i = 0; i < n; ++i) {
    const Vec3 d = dirs_[i];
    const Vec3 w = map_.right * (map_.mirrorX ? -d.x : d.x) + map_.up * d.y + map_.forward * d.z;
    float t = kInf;
    uint8_t hit = 255;
    const auto take = [&](float tf, uint8_t f) {
      if (tf < t) t = tf, hit = f;
    };
    if (w.x > 0) take((room.x1 - c.x) / w.x, 1);
    if (w.x < 0) take((room.x0 - c.x) / w.x, 0);
    if (w.y > 0) take((room.height - c.y) / w.y, 3);
    if (w.y < 0) take((0.f - c.y) / w.y, 2);
    if (w.z > 0) take((room.z1 - c.z) / w.z, 5);
    if (w.z < 0) take((room.z0 - c.z) / w.z, 4);
    if (t > 0 && t < kInf) staticDepth_[i] = t * d.z, face[i] = hit;
  }
  std::vector<Primitive> parts;
  for (const Furniture& f : room.furniture)
    if (!f.moves()) f.add_parts(0.f, parts);
  for (Primitive& p : parts) p = transformed(p, map_);
  std::vector<int32_t> owner(n, -1);
  raster(parts, 0, staticDepth_, owner);
  for (size_t i = 0; i < n; ++i)
    if (owner[i] >= 0) face[i] = 255;
  place_holes(face);
}

void Renderer::place_holes(const std::vector<uint8_t>& face) {
  holeMargin_.clear();
  const bool floorHoles = sensor_.floorHoles > 0.f, wallHoles = sensor_.wallHoles > 0.f;
  if (!sensor_.dropouts || (!floorHoles && !wallHoles)) return;
  const size_t n = dirs_.size();
  const Vec3 c = scenario_.camera().position;
  // The pattern is lost first where little of the projected light comes back: far away
  // (it falls with the square of the distance) and at grazing incidence.
  std::vector<float> weight(n, 0.f);
  double sum[2] = {0, 0}, count[2] = {0, 0};
  for (size_t i = 0; i < n; ++i) {
    if (face[i] == 255) continue;
    const Vec3 d = dirs_[i];
    const Vec3 w = map_.right * (map_.mirrorX ? -d.x : d.x) + map_.up * d.y + map_.forward * d.z;
    const float distance = staticDepth_[i] / d.z;
    const float incidence = std::fabs(face[i] < 2 ? w.x : (face[i] < 4 ? w.y : w.z));
    const float x = distance / 3000.f;
    weight[i] = (0.5f + x * x) / std::sqrt(std::max(incidence, 0.1f));
    const int kind = face[i] == 2 ? 0 : 1;
    sum[kind] += weight[i];
    count[kind] += 1;
  }
  const float share[2] = {sensor_.floorHoles, sensor_.wallHoles};
  float scale[2];
  for (int k = 0; k < 2; ++k) scale[k] = sum[k] > 0 ? static_cast<float>(share[k] * count[k] / sum[k]) : 0.f;
  const uint64_t seed = mix64(scenario_.options().seed ^ 0x6A09E667F3BCC909ull);
  holeMargin_.assign(n, kInf);
  for (size_t i = 0; i < n; ++i) {
    if (face[i] == 255) continue;
    const int kind = face[i] == 2 ? 0 : 1;
    if (share[kind] <= 0.f) continue;
    const Vec3 d = dirs_[i];
    const Vec3 w = map_.right * (map_.mirrorX ? -d.x : d.x) + map_.up * d.y + map_.forward * d.z;
    const Vec3 p = c + w * (staticDepth_[i] / d.z);
    const float u = face[i] < 2 ? p.z : p.x, v = face[i] < 2 || face[i] > 3 ? p.y : p.z;
    holeMargin_[i] = patch_pattern(u, v, seed + face[i]) - pattern_level(std::min(0.9f, scale[kind] * weight[i]));
  }
}

void Renderer::add_dynamic(float t) {
  parts_.clear();
  labelers_.clear();
  labelers_.push_back(Labeler{});  // entry 0: scenery, label 0
  std::vector<Primitive> furniture;
  for (const Furniture& f : scenario_.room().furniture)
    if (f.moves()) f.add_parts(t, furniture);
  for (Primitive p : furniture) {
    p.person = 0;
    p.labeler = 0;
    parts_.push_back(transformed(p, map_));
  }
  joints_.clear();
  PosedBody body;
  for (const Actor& a : scenario_.actors()) {
    pose_body(a.shape, a.timeline.pose_at(t), scenario_.camera().mirrored, body);
    joints_.push_back(body.joints);
    const auto offset = static_cast<uint16_t>(labelers_.size());
    for (Labeler l : body.labelers) {
      // Labellers work in camera space like the parts.
      for (Vec3* v : {&l.a, &l.b, &l.base, &l.mid, &l.top, &l.thighA[0], &l.thighA[1], &l.thighB[0], &l.thighB[1]})
        *v = map_.point(*v);
      for (Vec3* v : {&l.upLow, &l.upHigh, &l.left}) *v = map_.direction(*v);
      labelers_.push_back(l);
    }
    for (Primitive p : body.parts) {
      p.person = a.id;
      p.labeler = static_cast<uint16_t>(p.labeler + offset);
      parts_.push_back(transformed(p, map_));
    }
  }
}

void Renderer::render(int index, Frame& out) {
  const float t = scenario_.time_of(index);
  out.index = index;
  out.time = t;
  depth_ = staticDepth_;
  owner_.assign(depth_.size(), -1);
  add_dynamic(t);
  raster(parts_, 0, depth_, owner_);

  out.labels.resize(width_, height_);
  out.ids.resize(width_, height_);
  for (size_t i = 0; i < depth_.size(); ++i) {
    uint8_t label = 0, id = 0;
    if (owner_[i] >= 0) {
      const Primitive& p = parts_[static_cast<size_t>(owner_[i])];
      if (p.person != 0) {
        id = p.person;
        label = label_at(labelers_[p.labeler], dirs_[i] * (depth_[i] / dirs_[i].z));
      }
    }
    out.labels[i] = label;
    out.ids[i] = id;
  }
  apply_sensor(index, out);

  // Ground truth joints and floor.
  out.people.clear();
  for (size_t k = 0; k < scenario_.actors().size(); ++k) {
    const Actor& a = scenario_.actors()[k];
    const auto& joints = joints_[k];
    PersonTruth truth;
    truth.id = a.id;
    for (int j = 0; j < 16; ++j) {
      const int slot = scenario_.camera().mirrored ? kMirrorJoint[j] : j;
      const Vec3 c = map_.point(joints[static_cast<size_t>(j)]);
      JointTruth& jt = truth.joints[static_cast<size_t>(slot)];
      jt.camera = {c.x, c.y, c.z};
      model_.to_image(c.x, c.y, c.z, jt.u, jt.v);
      jt.inImage = c.z > 0 && jt.u >= 0 && jt.v >= 0 && jt.u <= static_cast<float>(width_ - 1) &&
                   jt.v <= static_cast<float>(height_ - 1);
    }
    for (size_t i = 0; i < out.ids.size(); ++i) truth.pixels += out.ids[i] == a.id ? 1u : 0u;
    out.people.push_back(truth);
  }
  out.floor = scenario_.camera().floor_plane();
}

void Renderer::apply_sensor(int index, Frame& out) {
  const uint32_t w = width_, h = height_;
  const size_t n = depth_.size();
  std::vector<float> z = depth_;
  const uint64_t key = mix64(scenario_.options().seed * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(index) * 0xD1B54A32D192ED03ull + 17);

  // Projector shadow. The projector sees the camera image shifted by f * b / z pixels along
  // the rows; a point is lit only if no nearer point lands on its projector column first.
  const float b = scenario_.camera().mirrored ? -scenario_.camera().emitterOffset : scenario_.camera().emitterOffset;
  if (sensor_.shadow && b != 0.f) {
    const float fb = model_.focalX * b;
    for (uint32_t y = 0; y < h; ++y) {
      float* row = z.data() + size_t{y} * w;
      if (b > 0) {
        float lim = kInf;
        for (int x = static_cast<int>(w) - 1; x >= 0; --x) {
          if (!(row[x] < kInf)) continue;
          const float up = static_cast<float>(x) - fb / row[x];
          if (up >= lim) row[x] = 0.f;
          else lim = up;
        }
      } else {
        float lim = -kInf;
        for (uint32_t x = 0; x < w; ++x) {
          if (!(row[x] < kInf)) continue;
          const float up = static_cast<float>(x) - fb / row[x];
          if (up <= lim) row[x] = 0.f;
          else lim = up;
        }
      }
    }
  }

  // Range limits.
  for (size_t i = 0; i < n; ++i)
    if (!(z[i] > sensor_.nearLimit && z[i] < sensor_.farLimit)) z[i] = 0.f;

  // Edges and grazing angles, judged on the geometry before any pixel is dropped.
  scratch_.assign(n, 0);
  if (sensor_.dropouts) {
    for (uint32_t y = 0; y < h; ++y) {
      for (uint32_t x = 0; x < w; ++x) {
        const size_t i = size_t{y} * w + x;
        const float zi = depth_[i];
        if (z[i] == 0.f) continue;
        const float thr = 40.f + 0.03f * zi;
        bool nearer = false, farther = false;
        float zn[4];
        const int64_t nb[4] = {x > 0 ? static_cast<int64_t>(i) - 1 : -1, x + 1 < w ? static_cast<int64_t>(i) + 1 : -1,
                               y > 0 ? static_cast<int64_t>(i - w) : -1, y + 1 < h ? static_cast<int64_t>(i + w) : -1};
        for (int k = 0; k < 4; ++k) {
          zn[k] = nb[k] >= 0 ? depth_[static_cast<size_t>(nb[k])] : zi;
          if (zn[k] < zi - thr) nearer = true;
          if (zn[k] > zi + thr) farther = true;
        }
        const uint64_t r = mix64(key ^ (i * 0x9E3779B97F4A7C15ull));
        float drop = 0.f;
        if (nearer) drop = sensor_.edgeDropFar;
        else if (farther) drop = sensor_.edgeDropNear;
        else if (nb[0] >= 0 && nb[1] >= 0 && nb[2] >= 0 && nb[3] >= 0) {
          const Vec3 px0 = dirs_[static_cast<size_t>(nb[0])] * (zn[0] / dirs_[static_cast<size_t>(nb[0])].z);
          const Vec3 px1 = dirs_[static_cast<size_t>(nb[1])] * (zn[1] / dirs_[static_cast<size_t>(nb[1])].z);
          const Vec3 py0 = dirs_[static_cast<size_t>(nb[2])] * (zn[2] / dirs_[static_cast<size_t>(nb[2])].z);
          const Vec3 py1 = dirs_[static_cast<size_t>(nb[3])] * (zn[3] / dirs_[static_cast<size_t>(nb[3])].z);
          const Vec3 nrm = cross(px1 - px0, py1 - py0);
          const float len = length(nrm);
          if (len > 0) {
            const float c = std::fabs(dot(nrm, dirs_[i])) / len;
            if (c < sensor_.grazingCos) drop = 1.f;
            else if (c < 2.f * sensor_.grazingCos) drop = 0.35f * (2.f - c / sensor_.grazingCos);
          }
        }
        if (drop > 0.f && unit(r) < drop) scratch_[i] = 1;
      }
    }
  }

  // Patches without depth on the floor and the walls, wherever they are not hidden behind
  // something that moves; their rims flicker from frame to frame.
  if (!holeMargin_.empty()) {
    for (size_t i = 0; i < n; ++i) {
      if (owner_[i] >= 0 || !(holeMargin_[i] < 0.1f)) continue;
      if (holeMargin_[i] < 0.02f * gauss(mix64(key ^ (i * 0xD6E8FEB86659FD93ull) ^ 0x5851F42D4C957F2Dull)))
        scratch_[i] = 1;
    }
  }

  // Quantisation through the sensor's shift table, with noise in the shift domain.
  out.depth.resize(w, h);
  const auto& s2d = tables_.shiftToDepth;
  for (size_t i = 0; i < n; ++i) {
    uint16_t d = 0;
    if (z[i] != 0.f && !scratch_[i]) {
      float shift = shift_of_depth(z[i]);
      if (sensor_.noise) shift += sensor_.shiftNoise * gauss(mix64(key + i * 0xA24BAED4963EE407ull));
      const long r = std::lround(shift);
      if (r > 0 && r < static_cast<long>(s2d.size())) d = s2d[static_cast<size_t>(r)];
      if (d <= sensor_.nearLimit || d >= sensor_.farLimit) d = 0;
    }
    out.depth[i] = d;
    if (d == 0) {
      out.labels[i] = 0;
      out.ids[i] = 0;
    }
  }
}

void reduce_to(const Frame& in, uint32_t width, uint32_t height, Frame& out) {
  const uint32_t kx = in.depth.width() / width, ky = in.depth.height() / height;
  out.index = in.index;
  out.time = in.time;
  out.floor = in.floor;
  out.depth.resize(width, height);
  out.labels.resize(width, height);
  out.ids.resize(width, height);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      uint16_t best = 0;
      uint8_t label = 0, id = 0;
      for (uint32_t by = 0; by < ky; ++by) {
        for (uint32_t bx = 0; bx < kx; ++bx) {
          const uint32_t sx = x * kx + bx, sy = y * ky + by;
          const uint16_t d = in.depth.at(sx, sy);
          if (d != 0 && (best == 0 || d < best)) {
            best = d;
            label = in.labels.at(sx, sy);
            id = in.ids.at(sx, sy);
          }
        }
      }
      out.depth.at(x, y) = best;
      out.labels.at(x, y) = label;
      out.ids.at(x, y) = id;
    }
  }
  out.people = in.people;
  for (PersonTruth& p : out.people) {
    p.pixels = 0;
    for (JointTruth& j : p.joints) {
      j.u /= static_cast<float>(kx);
      j.v /= static_cast<float>(ky);
      j.inImage = j.camera.z > 0 && j.u >= 0 && j.v >= 0 && j.u <= static_cast<float>(width - 1) &&
                  j.v <= static_cast<float>(height - 1);
    }
    for (size_t i = 0; i < out.ids.size(); ++i) p.pixels += out.ids[i] == p.id ? 1u : 0u;
  }
}

}  // namespace quorvik::sim
