#include "metrics.h"

#include <algorithm>
#include <cmath>

namespace quorvik::eval {

uint8_t truth_joint_for(uint8_t reportedType, bool mirrored) {
  return mirrored ? skeleton::mirror_joint(reportedType) : reportedType;
}

JointError joint_error(const std::array<float, 3>& reported, const std::array<float, 3>& truth) {
  const double dx = reported[0] - truth[0], dy = reported[1] - truth[1], dz = reported[2] - truth[2];
  JointError e;
  e.lateral = static_cast<float>(std::sqrt(dx * dx + dy * dy));
  e.depth = static_cast<float>(std::fabs(dz));
  e.total = static_cast<float>(std::sqrt(dx * dx + dy * dy + dz * dz));
  return e;
}

Overlap count_overlap(const uint8_t* bodyMask, const uint8_t* truthIds, size_t pixels) {
  // Dense counts first: the maps are only for the few ids that occur.
  std::vector<std::array<uint32_t, 256>> table(256);
  std::array<uint32_t, 256> body{}, onPeople{};
  std::array<uint32_t, 256> person{};
  for (size_t i = 0; i < pixels; ++i) {
    const uint8_t b = bodyMask[i], p = truthIds[i];
    ++person[p];
    if (b == 0) continue;
    ++body[b];
    if (p != 0) {
      ++onPeople[b];
      ++table[p][b];
    }
  }
  Overlap o;
  for (int p = 1; p < 256; ++p) {
    if (person[p] == 0) continue;
    o.personPixels[static_cast<uint8_t>(p)] = person[p];
    auto& row = o.personBody[static_cast<uint8_t>(p)];
    for (int b = 1; b < 256; ++b)
      if (table[p][b] != 0) row[static_cast<uint8_t>(b)] = table[p][b];
  }
  for (int b = 1; b < 256; ++b) {
    if (body[b] == 0) continue;
    o.bodyPixels[static_cast<uint8_t>(b)] = body[b];
    o.bodyOnPeople[static_cast<uint8_t>(b)] = onPeople[b];
  }
  return o;
}

uint8_t nearest_body(const Overlap& overlap, uint8_t person) {
  const auto it = overlap.personBody.find(person);
  if (it == overlap.personBody.end()) return 0;
  uint8_t best = 0;
  uint32_t most = 0;
  for (const auto& [body, count] : it->second) {  // ascending ids: the first maximum wins
    if (count > most) {
      most = count;
      best = body;
    }
  }
  return best;
}

std::vector<uint8_t> false_bodies(const Overlap& overlap, const std::vector<uint8_t>& bodies, float minShare) {
  std::vector<uint8_t> out;
  for (uint8_t id : bodies) {
    const auto total = overlap.bodyPixels.find(id);
    const auto on = overlap.bodyOnPeople.find(id);
    const double pixels = total == overlap.bodyPixels.end() ? 0.0 : total->second;
    const double onPeople = on == overlap.bodyOnPeople.end() ? 0.0 : on->second;
    if (pixels == 0.0 || onPeople < minShare * pixels) out.push_back(id);
  }
  return out;
}

double normal_angle_deg(const std::array<float, 4>& a, const std::array<float, 4>& b) {
  const double la = std::sqrt(double{a[0]} * a[0] + double{a[1]} * a[1] + double{a[2]} * a[2]);
  const double lb = std::sqrt(double{b[0]} * b[0] + double{b[1]} * b[1] + double{b[2]} * b[2]);
  if (la == 0.0 || lb == 0.0) return 180.0;
  const double c = (double{a[0]} * b[0] + double{a[1]} * b[1] + double{a[2]} * b[2]) / (la * lb);
  return std::acos(std::clamp(c, -1.0, 1.0)) * 180.0 / M_PI;
}

void IdSwitchCounter::observe(uint8_t person, bool visible, uint8_t body) {
  if (!visible) {
    last_.erase(person);
    return;
  }
  if (body == 0) return;
  const auto it = last_.find(person);
  if (it != last_.end() && it->second != body) ++switches_;
  last_[person] = body;
}

void AcquisitionTimer::observe(uint8_t person, int frame, bool fullyVisible, bool tracked) {
  Entry& e = people_[person];
  if (tracked && e.firstTracked < 0) e.firstTracked = frame;
  if (fullyVisible && e.visibleAt < 0) e.visibleAt = frame;
  if (tracked && e.visibleAt >= 0 && e.trackedAt < 0) e.trackedAt = frame;
}

std::vector<int> AcquisitionTimer::delays() const {
  std::vector<int> out;
  for (const auto& [person, e] : people_) {
    if (e.visibleAt < 0) continue;
    if (e.firstTracked >= 0 && e.firstTracked <= e.visibleAt) out.push_back(0);
    else out.push_back(e.trackedAt >= 0 ? e.trackedAt - e.visibleAt : -1);
  }
  return out;
}

Stats stats_of(std::vector<float> values) {
  Stats s;
  s.count = values.size();
  if (values.empty()) return s;
  double sum = 0;
  for (float v : values) sum += v;
  s.mean = sum / static_cast<double>(values.size());
  const size_t mid = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(mid), values.end());
  double median = values[mid];
  if (values.size() % 2 == 0) {
    const float lower = *std::max_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(mid));
    median = 0.5 * (median + lower);
  }
  s.median = median;
  return s;
}

void Tally::add_joint(int truthType, skeleton::JointStatus status, const JointError& error, float distanceMm) {
  JointTally& j = joints[static_cast<size_t>(truthType)];
  ++j.truth;
  if (status == skeleton::JointStatus::None) {
    ++j.none;
    return;
  }
  ++(status == skeleton::JointStatus::High ? j.high : j.low);
  if (error.total < kDetectionRadiusMm) ++j.detected;
  j.total.push_back(error.total);
  j.lateral.push_back(error.lateral);
  j.depth.push_back(error.depth);
  const int bin = std::clamp(static_cast<int>(distanceMm / kDistanceBinMm), 0, kDistanceBins - 1);
  errorByDistance[static_cast<size_t>(bin)].push_back(error.total);
}

namespace {
template <typename T>
void append(std::vector<T>& to, const std::vector<T>& from) {
  to.insert(to.end(), from.begin(), from.end());
}
double ratio(uint64_t a, uint64_t b) { return b == 0 ? 0.0 : static_cast<double>(a) / static_cast<double>(b); }
}  // namespace

void Tally::merge(const Tally& o) {
  for (size_t i = 0; i < joints.size(); ++i) {
    JointTally& j = joints[i];
    const JointTally& k = o.joints[i];
    j.truth += k.truth;
    j.detected += k.detected;
    j.high += k.high;
    j.low += k.low;
    j.none += k.none;
    append(j.total, k.total);
    append(j.lateral, k.lateral);
    append(j.depth, k.depth);
  }
  for (size_t i = 0; i < errorByDistance.size(); ++i) append(errorByDistance[i], o.errorByDistance[i]);
  append(acquisition, o.acquisition);
  idSwitches += o.idSwitches;
  falseBodyFrames += o.falseBodyFrames;
  frames += o.frames;
  floorFrames += o.floorFrames;
  append(floorError, o.floorError);
  partCompared += o.partCompared;
  partCorrect += o.partCorrect;
  personPixels += o.personPixels;
  personLabelled += o.personLabelled;
  maskShared += o.maskShared;
  maskPixels += o.maskPixels;
  maskTruth += o.maskTruth;
  sideJoints += o.sideJoints;
  sideRight += o.sideRight;
  backJoints += o.backJoints;
  backRight += o.backRight;
}

double Tally::side_right() const { return ratio(sideRight, sideJoints); }
double Tally::back_side_right() const { return ratio(backRight, backJoints); }

bool shows_back(const std::array<float, 3>& leftShoulder, const std::array<float, 3>& rightShoulder) {
  // Facing the camera, the model's left shoulder lies towards +x in camera space, mirrored
  // or not (the truth's side names follow the mirroring).
  const double dx = leftShoulder[0] - rightShoulder[0], dz = leftShoulder[2] - rightShoulder[2];
  return dx < -0.5 * std::hypot(dx, dz);
}

double Tally::mask_precision() const {
  return maskPixels == 0 ? 0.0 : static_cast<double>(maskShared) / static_cast<double>(maskPixels);
}

double Tally::mask_recall() const {
  return maskTruth == 0 ? 0.0 : static_cast<double>(maskShared) / static_cast<double>(maskTruth);
}

double Tally::detection_rate() const {
  uint64_t truth = 0, detected = 0;
  for (const JointTally& j : joints) {
    truth += j.truth;
    detected += j.detected;
  }
  return ratio(detected, truth);
}
double Tally::part_accuracy() const { return ratio(partCorrect, partCompared); }
double Tally::coverage() const { return ratio(personLabelled, personPixels); }
double Tally::floor_found() const { return ratio(floorFrames, frames); }

}  // namespace quorvik::eval
