#include "support/sim_scene.h"

#include <algorithm>
#include <cmath>

#include "renderer.h"

namespace sim_scene {

namespace sim = quorvik::sim;
using quorvik::skeleton::kDegreesToRadians;

Scene::Scene(float heightMm, float pitchDegrees, int width, int height)
    : heightMm_(heightMm),
      pitch_(pitchDegrees * kDegreesToRadians),
      width_(width),
      height_(height),
      camera_(kHfovDegrees * kDegreesToRadians, kVfovDegrees * kDegreesToRadians, float(width), float(height)) {}

Scene& Scene::wall(float distanceMm) {
  state_.wall = distanceMm;
  return *this;
}

int Scene::add_person(float x, float z, float height) {
  state_.people.push_back({x, z, height, 0.f, true});
  return int(state_.people.size()) - 1;
}

void Scene::walk_to(int index, float x, float z) {
  Person& p = person(index);
  p.phase += std::hypot(x - p.x, z - p.z) / 1600.f;
  p.x = x, p.z = z;
}

int Scene::add_box(float x, float z, float sizeX, float sizeZ, float sizeY) {
  state_.objects.push_back({false, x, z, sizeX, sizeZ, sizeY});
  return int(state_.objects.size()) - 1;
}

int Scene::add_chair(float x, float z) {
  state_.objects.push_back({true, x, z, 450.f, 450.f, 450.f});
  return int(state_.objects.size()) - 1;
}

void Scene::move_object(int index, float x, float z) {
  state_.objects[size_t(index)].x = x;
  state_.objects[size_t(index)].z = z;
}

Scene& Scene::clear_boxes() {
  state_.objects.clear();
  return *this;
}

void Scene::render(std::vector<uint16_t>& depth, std::vector<uint8_t>& person) const {
  if (!haveCache_ || !(cached_ == state_)) {
    // Walls, ceiling and the sides that are not asked for lie beyond the sensor's range.
    constexpr float kFar = 20000.f;
    const sim::ScenarioOptions options{.width = uint32_t(width_), .height = uint32_t(height_), .frames = 1};
    const sim::CameraSetup camera{
        .width = options.width, .height = options.height, .position = {0.f, heightMm_, 0.f}, .pitch = pitch_};
    sim::Room room;
    room.x0 = -kFar, room.x1 = kFar, room.z0 = -500.f, room.height = kFar;
    room.z1 = state_.wall > 0 ? state_.wall : kFar;
    for (const Object& o : state_.objects) {
      const auto kind = o.chair ? sim::FurnitureKind::Chair : sim::FurnitureKind::Cabinet;
      room.furniture.push_back({.kind = kind, .size = {o.sizeX, o.sizeY, o.sizeZ}, .x = o.x, .z = o.z});
    }
    std::vector<sim::Actor> actors;
    for (size_t i = 0; i < state_.people.size(); ++i) {
      const Person& p = state_.people[i];
      if (!p.visible) continue;
      const sim::BodyShape shape{.height = p.height};
      // Facing the camera.
      sim::Actor a{.id = uint8_t(i + 1), .shape = shape, .timeline = sim::Timeline(shape, p.x, p.z, sim::kPi, p.phase)};
      a.timeline.stand(1.f);
      actors.push_back(a);
    }
    const sim::Scenario scenario(options, camera, room, actors);
    sim::SensorOptions sensor;
    sensor.noise = sensor.dropouts = sensor.shadow = false;
    sim::Renderer renderer(scenario, sensor);
    sim::Frame frame;
    renderer.render(0, frame);
    depth_.assign(frame.depth.data(), frame.depth.data() + frame.depth.size());
    owner_.assign(frame.ids.data(), frame.ids.data() + frame.ids.size());
    jointsInView_.assign(state_.people.size(), 0);
    for (const sim::PersonTruth& p : frame.people) {
      jointsInView_[p.id - 1u] = std::all_of(p.joints.begin(), p.joints.end(), [](const sim::JointTruth& j) { return j.inImage; });
    }
    cached_ = state_;
    haveCache_ = true;
  }
  depth = depth_;
  person = owner_;
}

std::vector<uint16_t> Scene::render() const {
  std::vector<uint16_t> depth;
  std::vector<uint8_t> person;
  render(depth, person);
  return depth;
}

std::vector<uint8_t> Scene::mask_of(int index) const {
  std::vector<uint16_t> depth;
  std::vector<uint8_t> owner;
  render(depth, owner);
  for (uint8_t& o : owner) o = o == index + 1 ? 1 : 0;
  return owner;
}

bool Scene::person_rect(int index, int& x0, int& y0, int& x1, int& y1) const {
  const std::vector<uint8_t> mask = mask_of(index);
  x0 = width_, y0 = height_, x1 = -1, y1 = -1;
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x) {
      if (mask[size_t(y * width_ + x)] == 0) continue;
      x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
    }
  }
  return x1 >= 0;
}

bool Scene::fully_visible(int index) const {
  int x0, y0, x1, y1;
  return person_rect(index, x0, y0, x1, y1) && x0 > 0 && x1 < width_ - 1 && jointsInView_[size_t(index)] != 0;
}

std::array<float, 4> Scene::floor_plane() const {
  // Up in camera coordinates is (0, cos, -sin); the camera is heightMm above the floor.
  return {0.f, std::cos(pitch_), -std::sin(pitch_), heightMm_};
}

const quorvik::skeleton::ConversionTables& default_tables() {
  static const quorvik::skeleton::ConversionTables tables =
      quorvik::skeleton::build_conversion_tables(quorvik::skeleton::ShiftConversionParams{});
  return tables;
}

double angle_between(const float* a, const float* b) {
  const double dot = double(a[0]) * b[0] + double(a[1]) * b[1] + double(a[2]) * b[2];
  const double la = std::sqrt(double(a[0]) * a[0] + double(a[1]) * a[1] + double(a[2]) * a[2]);
  const double lb = std::sqrt(double(b[0]) * b[0] + double(b[1]) * b[1] + double(b[2]) * b[2]);
  return std::acos(std::clamp(dot / (la * lb), -1.0, 1.0)) * 180.0 / 3.14159265358979323846;
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

quorvik::legacy::LabelOutput SceneEngine::feed(const std::vector<uint16_t>& depth, int times) {
  for (int i = 0; i < times; ++i) {
    const quorvik::legacy::SegmentationFrame frame{index_, timestamp_, &format_, depth.data()};
    ++index_;
    timestamp_ += 33;
    if (!engine_->started()) {
      engine_->start(frame, tables_);
      labels_ = engine_->label_output();
    } else {
      labels_ = engine_->process(frame);
    }
  }
  return labels_;
}

int SceneEngine::count(uint16_t id) const {
  int n = 0;
  for (size_t i = 0; i < size_t(labels_.width) * labels_.height; ++i) n += labels_.data[i] == id ? 1 : 0;
  return n;
}

int SceneEngine::foreground_count() const {
  const auto& fg = engine_->background().foreground;
  int n = 0;
  for (int32_t i = 0; i < fg.size(); ++i) n += fg[i] != 0;
  return n;
}

uint16_t SceneEngine::dominant_id(int x0, int y0, int x1, int y1, const std::vector<uint8_t>* mask) const {
  int counts[11] = {};
  for (int y = std::max(y0, 0); y <= std::min(y1, int(labels_.height) - 1); ++y) {
    for (int x = std::max(x0, 0); x <= std::min(x1, int(labels_.width) - 1); ++x) {
      const uint16_t id = label(x, y);
      if (id >= 1 && id <= 10 && (mask == nullptr || (*mask)[size_t(y) * labels_.width + size_t(x)] != 0)) ++counts[id];
    }
  }
  const int* best = std::max_element(counts + 1, counts + 11);  // the lowest id among equals
  return *best > 0 ? uint16_t(best - counts) : 0;
}

uint16_t id_of(const SceneEngine& run, const Scene& scene, int person) {
  int x0, y0, x1, y1;
  if (!scene.person_rect(person, x0, y0, x1, y1)) return 0;
  const std::vector<uint8_t> mask = scene.mask_of(person);
  return run.dominant_id(x0, y0, x1, y1, &mask);
}

}  // namespace sim_scene
