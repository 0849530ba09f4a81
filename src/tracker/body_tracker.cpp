#include "tracker/body_tracker.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "classifier/frame_classifier.h"
#include "op/logging.h"
#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {
namespace {

// What a still person must look like to the forest before the users stage takes them.
constexpr double kCheckMinPixels = 30;
constexpr double kCheckHeadShare = 0.035;
constexpr double kCheckUpperShare = 0.08;
constexpr double kCheckLowerShare = 0.08;
constexpr double kCheckConfidence = 0.6;

uint8_t bands_of(uint8_t label, const std::array<uint8_t, 32>& bands) { return label < bands.size() ? bands[label] : 0; }

// Body-part labels by side (model sides: 0 left, 1 right, -1 centre) and their mirror
// images.
constexpr std::array<std::pair<uint8_t, uint8_t>, 12> kSidePairs = {{{2, 4}, {3, 5}, {7, 8}, {9, 12}, {10, 13},
                                                                      {11, 14}, {15, 16}, {17, 18}, {19, 20},
                                                                      {22, 23}, {24, 25}, {26, 27}}};
constexpr std::array<std::pair<uint8_t, uint8_t>, 5> kArmPairs = {{{2, 4}, {3, 5}, {7, 8}, {22, 23}, {26, 27}}};
uint8_t mirror_label(uint8_t label) {
  for (const auto& [left, right] : kSidePairs) {
    if (label == left) return right;
    if (label == right) return left;
  }
  return label;
}
constexpr float kPi = 3.14159265358979f;
float wrap_angle(float a) {
  while (a > kPi) a -= 2 * kPi;
  while (a < -kPi) a += 2 * kPi;
  return a;
}
// Within half a turn: an axis is the same axis turned by pi.
float wrap_half_turn(float a) {
  while (a > kPi / 2) a -= kPi;
  while (a < -kPi / 2) a += kPi;
  return a;
}
bool is_torso(uint8_t label) { return (label >= 15 && label <= 23); }
constexpr double kFacingMinPixels = 20;
// (largest - smallest) / (largest + smallest) of the spread's two axes, at least: the
// long axis twice the short one.
constexpr double kFacingElongation = 0.6;
constexpr float kFacingSquare = 0.5f;  // radians off square to the camera, at most, to start following
constexpr int kFacingSquareFrames = 10;  // in a row: a walker in profile shows square now and then
constexpr float kFacingTurn = 0.15f;     // radians a frame, at most
constexpr float kFacingGain = 0.5f;  // of each reading taken into the followed line
constexpr float kProfileJump = 0.6f;    // radians of axis between two readings: a profile was passed
constexpr int kProfileFrames = 2;       // without a clear axis, at least, in a profile
constexpr float kWalkSmoothing = 0.2f;  // of each frame's torso step taken into the walking pace
constexpr float kWalkSpeed = 15.f;      // mm a frame, about half a metre a second at 30 frames a second
constexpr float kWalkLevel = 0.5f;  // of the walking pace, at most, up or down: sitting down is no walk
constexpr float kProfileSin = 0.8f;     // sine of the facing angle, at least, for a profile
constexpr float kProfileMiddle = 120.f;  // mm from the torso's visible surface to the body's middle
constexpr float kWalkAlong = 0.7f;      // cosine of the walking direction to the line of sight, at least

// Reused between frames: one row of column minima of the input.
std::vector<int16_t>& reduction_scratch() {
  thread_local std::vector<int16_t> scratch;
  return scratch;
}

#if defined(__SSE2__)
// The smaller of each pair of neighbouring 16-bit lanes, those of `a` then those of `b`.
__m128i pair_min(__m128i a, __m128i b) {
  auto pairs = [](__m128i v) {
    const __m128i low = _mm_min_epi16(v, _mm_srli_epi32(v, 16));
    return _mm_srai_epi32(_mm_slli_epi32(low, 16), 16);
  };
  return _mm_packs_epi32(pairs(a), pairs(b));
}
#endif

}  // namespace

void reduce_min_nonzero(const uint16_t* pixels, uint32_t width, uint32_t height, op::Image<uint16_t>& out) {
  const uint32_t outW = out.width();
  const uint32_t outH = out.height();
  if (width == outW && height == outH) {
    std::memcpy(out.data(), pixels, out.byte_size());
    return;
  }
  const uint32_t kx = width / outW;
  const uint32_t ky = height / outH;
  // Depths are compared as signed 16-bit values (one above 32767 reads as negative and
  // wins), 0 means no measurement, and 32767 never beats the initial best, so it counts
  // as no measurement too: sending 0 to 32767 leaves a plain signed minimum, eight pixels
  // to an instruction where the processor has vectors (the compiler does not vectorise the
  // loop by itself at this optimisation level).
  constexpr int16_t kNone = INT16_MAX;
  std::vector<int16_t>& column_min = reduction_scratch();
  column_min.resize(width);
  int16_t* m = column_min.data();
  for (uint32_t y = 0; y < outH; ++y) {
    std::fill(column_min.begin(), column_min.end(), kNone);
    for (uint32_t by = 0; by < ky; ++by) {
      const auto* row = reinterpret_cast<const int16_t*>(pixels + size_t{y * ky + by} * width);
      uint32_t x = 0;
#if defined(__SSE2__)
      const __m128i none = _mm_set1_epi16(kNone);
      for (; x + 8 <= width; x += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
        const __m128i key = _mm_or_si128(v, _mm_and_si128(_mm_cmpeq_epi16(v, _mm_setzero_si128()), none));
        auto* column = reinterpret_cast<__m128i*>(m + x);
        _mm_storeu_si128(column, _mm_min_epi16(_mm_loadu_si128(column), key));
      }
#endif
      for (; x < width; ++x) m[x] = std::min(m[x], row[x] == 0 ? kNone : row[x]);
    }
    uint16_t* out_row = out.row(y);
    uint32_t x = 0;
#if defined(__SSE2__)
    // Blocks 2 or 4 wide (the 320 and 640 inputs): eight blocks at a time.
    if (kx == 2 || kx == 4) {
      const __m128i none = _mm_set1_epi16(kNone);
      for (; (x + 8) * kx <= width; x += 8) {
        const auto* column = reinterpret_cast<const __m128i*>(m + size_t{x} * kx);
        __m128i best = pair_min(_mm_loadu_si128(column), _mm_loadu_si128(column + 1));
        if (kx == 4) best = pair_min(best, pair_min(_mm_loadu_si128(column + 2), _mm_loadu_si128(column + 3)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out_row + x), _mm_andnot_si128(_mm_cmpeq_epi16(best, none), best));
      }
    }
#endif
    for (; x < outW; ++x) {
      int16_t best = kNone;
      for (uint32_t bx = 0; bx < kx; ++bx) best = std::min(best, m[x * kx + bx]);
      out_row[x] = best == kNone ? uint16_t{0} : static_cast<uint16_t>(best);
    }
  }
}

BodyTracker::BodyTracker(const TrackerOptions& options, DecisionForest forest, uint32_t blockWidth,
                         uint32_t blockHeight)
    : blockWidth_(blockWidth),
      blockHeight_(blockHeight),
      cameraModel_(options.horizontalFovDegrees * kDegreesToRadians, options.verticalFovDegrees * kDegreesToRadians,
                   static_cast<float>(blockWidth), static_cast<float>(blockHeight)),
      conversionTables_(build_conversion_tables(options.shift)),
      userAnalyzer_(options.horizontalFovDegrees, options.verticalFovDegrees, blockWidth, blockHeight),
      pixelLabels_(blockWidth, blockHeight),
      userIdImage_(blockWidth, blockHeight),
      worldPoints_(blockWidth, blockHeight),
      depth_(blockWidth, blockHeight),
      checkMap_(blockWidth, blockHeight),
      checkLabels_(blockWidth, blockHeight),
      checkIds_(blockWidth, blockHeight),
      logger_(op::get_logger("BodyTracker")),
      classifier_(std::make_unique<FrameClassifier>(std::move(forest))) {
  if (classifier_->tree_count() > 0) {
    userAnalyzer_.set_person_check([this](const legacy::Array2D<uint8_t>& mask) { return reads_as_person(mask); });
  }
}

BodyTracker::~BodyTracker() = default;

op::Result<op::Unit, TrackerError> BodyTracker::update(uint32_t width, uint32_t height, const uint16_t* pixels) {
  if (width == 0 || height == 0 || width % blockWidth_ != 0 || height % blockHeight_ != 0 ||
      width / blockWidth_ != height / blockHeight_)
    return op::Err(TrackerError::InvalidDepthMapSize);

  reduce_min_nonzero(pixels, width, height, depth_);
  cameraModel_.to_world(depth_, worldPoints_);
  userAnalyzer_.update(depth_, conversionTables_, isDepthMirrored, users_);
  pixelLabels_.fill(PixelLabel{});

  if (classifier_->tree_count() == 0) {
    // Without trees nothing can be classified: everyone in the labels is body 1's mask.
    const op::Image<uint16_t>& labels = userAnalyzer_.userLabels();
    for (size_t i = 0; i < labels.size(); ++i) userIdImage_[i] = labels[i] != kNoUser ? 1 : kNoBody;
    bodies_.clear();
  } else {
    userIdImage_.fill(kNoBody);
    const std::array<float, 3> scale{static_cast<float>(width / blockWidth_),
                                     static_cast<float>(height / blockHeight_), 1.f};
    std::vector<Body> newBodies;
    for (TrackedUser& user : users_) {
      if (user.lost == 0) {
        auto previous = std::find_if(bodies_.begin(), bodies_.end(), [&](const Body& b) { return b.id == user.id; });
        update_user(user, previous != bodies_.end() ? &*previous : nullptr, scale, newBodies);
        continue;
      }
      logger_->debug("BodyTracker::update frame #{} user #{} tracking lost", frameNumber_, user.id);
      Body& body = newBodies.emplace_back();
      body.id = user.id;
      body.status = BodyStatus::TrackingLost;
      body.extent = user.extent;
      for (JointType joint : report_joint_order()) {
        const uint8_t type = to_byte(joint);
        body.joints.emplace(type, Joint{type, JointStatus::None, {0, 0}, {0, 0, 0}});
      }
    }
    bodies_ = std::move(newBodies);
  }

  op::resample_nearest(userIdImage_.data(), blockWidth_, blockHeight_, bodyMask_, width, height);
  if (!userAnalyzer_.floorDetected()) {
    floorMask_.resize(width, height);
    floorMask_.fill(0);
  } else {
    const op::Image<uint8_t>& floor = userAnalyzer_.floorMask();
    op::resample_nearest(floor.data(), floor.width(), floor.height(), floorMask_, width, height);
  }
  ++frameNumber_;
  return op::Ok(op::Unit{});
}

void BodyTracker::update_user(TrackedUser& user, const Body* previous, const std::array<float, 3>& scale,
                              std::vector<Body>& newBodies) {
  float score = 0.f;
  RegionBox region;
  const ClassifierUser classified{user.id, user.labels, user.candidates};
  classifier_->classify_user(depth_, userAnalyzer_.userLabels(), classified, classifierThreshold_, pixelLabels_,
                             userIdImage_, score, region, pool_);
  follow_facing(user);
  modelTracker_.step(user.skeleton, pixelLabels_, worldPoints_, userIdImage_, region, frameNumber_, cameraModel_);

  Body& body = newBodies.emplace_back();
  body.id = user.id;
  body.extent = user.extent;
  for (JointType reported : report_joint_order()) {
    const uint8_t type = to_byte(reported);
    const JointRecord& record = user.skeleton.joint(type);
    Joint joint;
    joint.type = isDepthMirrored ? mirror_joint(type) : type;
    joint.status = record.status;
    if (record.status != JointStatus::None) {
      joint.depthPosition[0] = record.imageX * scale[0];
      joint.depthPosition[1] = record.imageY * scale[1];
      joint.worldPosition[0] = record.worldPosition.x;
      joint.worldPosition[1] = record.worldPosition.y;
      joint.worldPosition[2] = record.worldPosition.z;
    }
    body.joints.emplace(joint.type, joint);
  }
  if (previous != nullptr) {
    body.status = BodyStatus::Tracking;
  } else {
    body.status = BodyStatus::TrackingStarted;
    logger_->debug("BodyTracker::update_user frame #{} user #{} tracking started", frameNumber_, user.id);
  }
}

legacy::PersonReading BodyTracker::reads_as_person(const legacy::Array2D<uint8_t>& mask) {
  const uint32_t w = depth_.width(), h = depth_.height();
  if (mask.width() != int32_t(w) || mask.height() != int32_t(h)) return {};
  constexpr uint16_t kProposal = 1;
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t* m = mask.row(int32_t(y));
    uint16_t* l = checkMap_.row(y);
    for (uint32_t x = 0; x < w; ++x) l[x] = m[x] != 0 ? kProposal : kNoUser;
  }
  checkLabels_.fill(PixelLabel{});
  checkIds_.fill(kNoBody);
  const std::array<uint16_t, 1> proposal{kProposal};
  const UserStatistics statistics = computeUserStatistics(depth_, checkMap_, proposal, {});
  float score = 0.f;
  RegionBox region;
  classifier_->classify_segments(depth_, checkMap_, statistics, proposal, proposal, checkLabels_, checkIds_, score,
                                 region, pool_);

  // Parts by where they sit on an upright body; arms and carried things go anywhere.
  enum Band { kOther, kHead, kUpper, kLower };
  static constexpr auto kBands = [] {
    std::array<uint8_t, 32> bands{};
    bands[6] = kHead;
    for (int label : {17, 18, 21, 22, 23}) bands[label] = kUpper;
    for (int label : {9, 10, 11, 12, 13, 14, 15, 16, 19, 20, 24, 25}) bands[label] = kLower;
    return bands;
  }();
  std::array<double, 4> count{}, rows{};
  double probability = 0;
  for (uint32_t y = 0; y < h; ++y) {
    const PixelLabel* p = checkLabels_.row(y);
    const uint16_t* l = checkMap_.row(y);
    for (uint32_t x = 0; x < w; ++x) {
      if (l[x] != kProposal || p[x].probability <= 0.f) continue;
      const uint8_t band = bands_of(p[x].label, kBands);
      count[band] += 1;
      rows[band] += y;
      probability += p[x].probability;
    }
  }
  const double n = count[kOther] + count[kHead] + count[kUpper] + count[kLower];
  if (n < kCheckMinPixels) return {};
  for (size_t b = 0; b < 4; ++b) rows[b] = count[b] > 0 ? rows[b] / count[b] : 0;
  const bool layout = count[kHead] >= kCheckHeadShare * n && count[kUpper] >= kCheckUpperShare * n &&
                      count[kLower] >= kCheckLowerShare * n && rows[kHead] < rows[kUpper] && rows[kUpper] < rows[kLower];
  const bool confident = probability / n >= kCheckConfidence;
  logger_->debug("BodyTracker person check: {} pixels, head {:.2f} upper {:.2f} lower {:.2f}, mean probability {:.2f}",
                 n, count[kHead] / n, count[kUpper] / n, count[kLower] / n, probability / n);
  return {layout && confident, count[kHead] / n};
}

void BodyTracker::follow_facing(TrackedUser& user) {
  // The forest was trained on people facing the camera and a back looks like a front in
  // depth, so it names the sides as if the person faced the camera, and through a profile
  // its sides drift rather than jump. The torso's visible surface, seen from above, lies
  // along the shoulder line whichever way the person faces: its main axis turns with the
  // person, and followed from frame to frame (it is known only up to a half turn) it tells
  // a back from a front. People also walk forwards: walking towards or away from the camera
  // says which half turn it is, and carries the line through a profile, where the visible
  // surface lies across the view whatever the shoulders do.
  // Spread within each row only: a torso that leans forward, crouching or sitting, also
  // spreads in depth from row to row, which says nothing of where it faces.
  double n = 0, tx = 0, ty = 0, tz = 0, cxx = 0, czz = 0, cxz = 0;
  const uint32_t w = pixelLabels_.width(), h = pixelLabels_.height();
  for (uint32_t y = 0; y < h; ++y) {
    const PixelLabel* p = pixelLabels_.row(y);
    const uint8_t* id = userIdImage_.row(y);
    const WorldPoint* world = worldPoints_.row(y);
    double rn = 0, sx = 0, sy = 0, sz = 0, sxx = 0, szz = 0, sxz = 0;
    for (uint32_t x = 0; x < w; ++x) {
      if (id[x] != user.id || p[x].probability <= 0.f || world[x].z <= 0.f || !is_torso(p[x].label)) continue;
      const double px = world[x].x, pz = world[x].z;
      rn += 1, sx += px, sy += world[x].y, sz += pz, sxx += px * px, szz += pz * pz, sxz += px * pz;
    }
    if (rn < 2) continue;
    n += rn, tx += sx, ty += sy, tz += sz;
    cxx += sxx - sx * sx / rn, czz += szz - sz * sz / rn, cxz += sxz - sx * sz / rn;
  }
  if (n < kFacingMinPixels) {
    user.torsoSeen = false;
    if (std::isnan(user.sideYaw)) user.squareFrames = user.walkFrames = 0;
    if (user.facingAway) mirror_sides(user);
    return;
  }
  const float x = static_cast<float>(tx / n), y = static_cast<float>(ty / n), z = static_cast<float>(tz / n);
  if (user.torsoSeen) {
    user.walkX += kWalkSmoothing * (x - user.torsoX - user.walkX);
    user.walkY += kWalkSmoothing * (y - user.torsoY - user.walkY);
    user.walkZ += kWalkSmoothing * (z - user.torsoZ - user.walkZ);
  } else {
    user.walkX = user.walkY = user.walkZ = 0;
  }
  user.torsoSeen = true, user.torsoX = x, user.torsoY = y, user.torsoZ = z;
  // Facing the way they walk, in the same angle as the shoulder line: 0 walking at the
  // camera, pi walking away. Only walking clearly towards or away counts: people step
  // sideways without turning, and sitting down or standing up moves the torso too.
  const float walkSpeed = std::hypot(user.walkX, user.walkZ);
  const float walking = std::atan2(user.walkX, -user.walkZ);
  const bool level = walkSpeed >= kWalkSpeed && std::abs(user.walkY) < kWalkLevel * walkSpeed;
  const bool walksAlong = level && std::abs(std::cos(walking)) >= kWalkAlong;
  // Walking across the view the person shows a profile, and the torso's visible surface
  // lies across the view whatever the shoulders do: only the walking direction tells.
  const bool walksAcross = level && std::abs(std::sin(walking)) >= kWalkAlong;

  // Only a clearly elongated spread has a direction.
  const double spread = std::sqrt((cxx - czz) * (cxx - czz) + 4 * cxz * cxz), total = cxx + czz;
  const bool axisSeen = spread >= kFacingElongation * total;
  const float axis = static_cast<float>(0.5 * std::atan2(2 * cxz, cxx - czz));  // -pi/2 .. pi/2
  if (std::isnan(user.sideYaw)) {
    // Followed once the torso has been square to the camera for a while, taken then to face
    // it, as the forest assumes, or once the person has walked towards or away from the
    // camera for a while. In a profile front and back are a coin toss.
    user.squareFrames = axisSeen && std::abs(axis) < kFacingSquare ? user.squareFrames + 1 : 0;
    user.walkFrames = walksAlong ? user.walkFrames + 1 : 0;
    if (user.walkFrames >= kFacingSquareFrames)
      user.sideYaw = axisSeen ? wrap_angle(walking + wrap_half_turn(axis - walking)) : walking;
    else if (user.squareFrames >= kFacingSquareFrames)
      user.sideYaw = axis;
  } else if (walksAlong || axisSeen) {
    // The torso loses its clear axis only near a profile, where its visible surface lies
    // across the view whatever the shoulders do; passing front-on or back-on it keeps it.
    // So when the axis comes back after a while on the other side of the view, the person
    // has turned through that profile, from front to back or back to front: the reading
    // is the one on the far side of the profile they were near.
    const bool crossed = axisSeen && !walksAlong && user.axisLost >= kProfileFrames && !std::isnan(user.lastAxis) &&
                         (axis > 0) != (user.lastAxis > 0) &&
                         std::abs(wrap_half_turn(axis - user.lastAxis)) > kProfileJump;
    if (crossed) {
      const float profile = std::sin(user.sideYaw) >= 0 ? kPi / 2 : -kPi / 2;
      const bool beyond = wrap_angle(user.sideYaw - profile) > 0;
      user.sideYaw = (wrap_angle(axis - profile) > 0) != beyond ? axis : wrap_angle(axis + kPi);
    } else {
      // The reading: the axis + k pi nearest the walking direction, or nearest the followed
      // angle when standing; taken in no faster than a person turns.
      const float guide = walksAlong ? walking : user.sideYaw;
      const float reading = axisSeen ? wrap_angle(guide + wrap_half_turn(axis - guide)) : walking;
      const float step = std::clamp(kFacingGain * wrap_angle(reading - user.sideYaw), -kFacingTurn, kFacingTurn);
      user.sideYaw = wrap_angle(user.sideYaw + step);
    }
  }
  if (axisSeen) user.lastAxis = axis;
  user.axisLost = axisSeen ? 0 : user.axisLost + 1;
  if (!std::isnan(user.sideYaw)) user.facingAway = std::abs(user.sideYaw) > kPi / 2;
  // A walk across the view is a profile facing the way the person walks, until the torso
  // shows its shoulder line again: a person who stops and turns may turn either way.
  user.acrossFrames = walksAcross ? user.acrossFrames + 1 : 0;
  if (user.acrossFrames >= kFacingSquareFrames)
    user.acrossYaw = walking;
  else if (axisSeen && !walksAcross)
    user.acrossYaw = std::numeric_limits<float>::quiet_NaN();
  if (user.facingAway) mirror_sides(user);
  if (!std::isnan(user.acrossYaw))
    arms_by_depth(user, user.acrossYaw);
  else if (!std::isnan(user.sideYaw) && std::abs(std::sin(user.sideYaw)) >= kProfileSin)
    arms_by_depth(user, user.sideYaw);
}

// Seen in profile, the forest cannot tell the near arm from the far one, and its sides
// drift; but the line between the sides then runs along the line of sight, and the near
// arm is the one in front of the body's middle. Each arm pixel takes the side it lies on,
// measured from a point just behind the torso's visible surface. The far arm keeps only what
// shows beside the body, so its joints are reported weak or not at all instead of on the
// near arm. The legs are left to the forest: a stride spreads them along the walk, and the
// few centimetres between them in depth drown in the sensor's steps.
void BodyTracker::arms_by_depth(const TrackedUser& user, float yaw) {
  const float lx = std::cos(yaw), lz = std::sin(yaw);
  const float cx = user.torsoX, cz = user.torsoZ + kProfileMiddle;
  const uint32_t w = pixelLabels_.width(), h = pixelLabels_.height();
  for (uint32_t y = 0; y < h; ++y) {
    PixelLabel* p = pixelLabels_.row(y);
    const uint8_t* id = userIdImage_.row(y);
    const WorldPoint* world = worldPoints_.row(y);
    for (uint32_t x = 0; x < w; ++x) {
      if (id[x] != user.id || world[x].z <= 0.f) continue;
      const bool left = (world[x].x - cx) * lx + (world[x].z - cz) * lz > 0.f;
      for (const auto& [l, r] : kArmPairs) {
        if (p[x].label == l || p[x].label == r) p[x].label = left ? l : r;
      }
    }
  }
}

void BodyTracker::mirror_sides(const TrackedUser& user) {
  const uint32_t w = pixelLabels_.width(), h = pixelLabels_.height();
  for (uint32_t y = 0; y < h; ++y) {
    PixelLabel* p = pixelLabels_.row(y);
    const uint8_t* id = userIdImage_.row(y);
    for (uint32_t x = 0; x < w; ++x) {
      if (id[x] == user.id) p[x].label = mirror_label(p[x].label);
    }
  }
}

void BodyTracker::reset() {
  bodies_.clear();
  users_.clear();
  userAnalyzer_.reset();
  frameNumber_ = 0;
}

}  // namespace quorvik::skeleton
