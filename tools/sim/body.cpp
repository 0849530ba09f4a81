#include "body.h"

#include <algorithm>
#include <cmath>

namespace quorvik::sim {

namespace {

// Joint indices (the JointType values).
constexpr int kHead = 0, kShoulderSpine = 1;
constexpr int kShoulderJ[2] = {2, 5}, kElbowJ[2] = {3, 6}, kHandJ[2] = {4, 7};
constexpr int kHipJ[2] = {10, 13}, kKneeJ[2] = {11, 14}, kFootJ[2] = {12, 15};
constexpr int kMidSpine = 8, kBaseSpine = 9;

// Body-part labels for the model's left [0] and right [1] side.
enum Part { kHand, kForearm, kUpperArm, kUpperLeg, kLowerLeg, kFoot, kHip, kTorsoMid, kTorsoLow,
            kShoulderPart, kKnee, kElbow, kPartCount };
constexpr uint8_t kLabels[kPartCount][2] = {{2, 4},   {3, 5},   {7, 8},   {9, 12},  {10, 13}, {11, 14},
                                            {15, 16}, {17, 18}, {19, 20}, {22, 23}, {24, 25}, {26, 27}};
constexpr uint8_t kHeadLabel = 6, kInnerShoulderLabel = 21, kAccessoryLabel = 1;

uint8_t side_label(Part part, int anatomicalSide, bool swap) {
  return kLabels[part][swap ? 1 - anatomicalSide : anatomicalSide];
}

float clampf(float v, float lo, float hi) { return std::min(std::max(v, lo), hi); }

float segment_param(Vec3 a, Vec3 b, Vec3 p) {
  const Vec3 ab = b - a;
  const float l2 = dot(ab, ab);
  return l2 > 0 ? dot(p - a, ab) / l2 : 0.f;
}

uint8_t torso_label(const Labeler& l, Vec3 p) {
  const int side = dot(p - l.mid, l.left) >= 0.f ? 0 : 1;
  const float up = dot(p - l.mid, l.upHigh);
  if (up >= 0.f) {
    if (up / l.upLen > 0.78f) {
      if (std::fabs(dot(p - l.top, l.left)) < l.innerShoulder) return kInnerShoulderLabel;
      return side_label(kShoulderPart, side, l.swapSides);
    }
    return side_label(kTorsoMid, side, l.swapSides);
  }
  const float down = -dot(p - l.mid, l.upLow) / l.lowLen;
  return side_label(down > 0.8f ? kHip : kTorsoLow, side, l.swapSides);
}

}  // namespace

uint8_t label_at(const Labeler& l, Vec3 p) {
  switch (l.kind) {
    case LabelerKind::Fixed:
      return l.labels[0];
    case LabelerKind::Segment: {
      const float t = segment_param(l.a, l.b, p);
      return t < l.cut0 ? l.labels[0] : (t < l.cut1 ? l.labels[1] : l.labels[2]);
    }
    case LabelerKind::Torso:
      return torso_label(l, p);
    case LabelerKind::Skirt: {
      // Above the hip joints the cloth takes the torso's labels, below them the thigh's.
      const Vec3 hips = (l.thighA[0] + l.thighA[1]) * 0.5f;
      if (dot(p - hips, l.upLow) > 0.f) return torso_label(l, p);
      const int side = dot(p - l.base, l.left) >= 0.f ? 0 : 1;
      const float t = segment_param(l.thighA[side], l.thighB[side], p);
      if (t < 0.2f) return side_label(kHip, side, l.swapSides);
      if (t < 0.8f) return side_label(kUpperLeg, side, l.swapSides);
      return side_label(kKnee, side, l.swapSides);
    }
  }
  return 0;
}

BodyShape BodyShape::random(Rng& rng) {
  BodyShape s;
  if (rng.chance(0.2f)) {
    s.height = rng.uniform(1100.f, 1500.f);
  } else {
    s.height = clampf(1720.f + 90.f * rng.normal(), 1450.f, 2000.f);
  }
  s.build = clampf(1.f + 0.17f * rng.normal() + (rng.chance(0.15f) ? 0.25f : 0.f), 0.75f, 1.45f);
  s.armFactor = rng.uniform(0.93f, 1.07f);
  s.legFactor = rng.uniform(0.93f, 1.07f);
  s.shoulderFactor = rng.uniform(0.88f, 1.12f);
  s.hipFactor = rng.uniform(0.88f, 1.15f);
  s.headFactor = rng.uniform(0.93f, 1.07f);
  const float h = rng.uniform();
  s.hair = h < 0.15f ? Hair::None : (h < 0.65f ? Hair::Short : (h < 0.9f ? Hair::Long : Hair::Bun));
  const float c = rng.uniform();
  s.clothing = c < 0.7f ? Clothing::None : (c < 0.85f ? Clothing::Skirt : Clothing::Coat);
  const float b = rng.uniform();
  s.bag = b < 0.75f ? Bag::None : (b < 0.87f ? Bag::ShoulderBag : Bag::Backpack);
  const float o = rng.uniform();
  s.carried = o < 0.85f ? Carried::None : (o < 0.95f ? Carried::Phone : Carried::Box);
  return s;
}

BodyDims body_dims(const BodyShape& s) {
  const float H = s.height, b = s.build;
  BodyDims d{};
  d.ankleHeight = 0.039f * H;
  d.shinLen = 0.246f * H * s.legFactor;
  d.thighLen = 0.245f * H * s.legFactor;
  d.hipHalfSpread = 0.05f * H * s.hipFactor;
  d.baseAboveHips = 0.03f * H;
  const float torso = std::max(0.2f * H, 0.83f * H - (d.ankleHeight + d.shinLen + d.thighLen + d.baseAboveHips));
  d.lowSpineLen = 0.48f * torso;
  d.upSpineLen = 0.52f * torso;
  d.shoulderHalfSpread = 0.105f * H * s.shoulderFactor;
  d.shoulderDrop = 0.015f * H;
  d.upperArmLen = 0.186f * H * s.armFactor;
  d.forearmLen = 0.146f * H * s.armFactor;
  d.handLen = 0.108f * H;
  d.footLen = 0.152f * H;
  d.footWidth = 0.055f * H;
  const float hs = (0.6f + 0.4f * H / 1750.f) * s.headFactor;
  d.headRadii = Vec3{78.f, 112.f, 98.f} * hs;
  d.neckLen = std::max(0.17f * H - d.headRadii.y, 0.6f * d.headRadii.y);
  d.neckRadius = 0.03f * H * std::sqrt(b);
  d.chestHalfWidth = 0.1f * H * s.shoulderFactor * std::sqrt(b);
  d.chestHalfDepth = 0.06f * H * b;
  d.waistHalfWidth = 0.085f * H * std::pow(b, 0.7f);
  d.waistHalfDepth = 0.055f * H * b;
  d.pelvisHalfWidth = 0.095f * H * s.hipFactor * std::sqrt(b);
  d.pelvisHalfDepth = 0.06f * H * std::pow(b, 0.8f);
  d.upperArmR0 = 0.027f * H * std::pow(b, 0.7f);
  d.upperArmR1 = 0.022f * H * std::pow(b, 0.7f);
  d.forearmR0 = 0.021f * H * std::pow(b, 0.6f);
  d.forearmR1 = 0.015f * H * std::pow(b, 0.6f);
  d.thighR0 = 0.05f * H * std::pow(b, 0.8f);
  d.thighR1 = 0.032f * H * std::pow(b, 0.8f);
  d.shinR0 = 0.032f * H * std::pow(b, 0.7f);
  d.shinR1 = 0.019f * H * std::pow(b, 0.6f);
  return d;
}

Pose blend(const Pose& a, const Pose& b, float w) {
  auto mix = [w](float x, float y) { return x + (y - x) * w; };
  Pose p;
  p.x = mix(a.x, b.x);
  p.z = mix(a.z, b.z);
  p.heading = a.heading + angle_diff(a.heading, b.heading) * w;
  p.lean = mix(a.lean, b.lean);
  p.sideBend = mix(a.sideBend, b.sideBend);
  p.twist = mix(a.twist, b.twist);
  p.headPitch = mix(a.headPitch, b.headPitch);
  p.headYaw = mix(a.headYaw, b.headYaw);
  auto mix_limb = [&](const LimbPose& x, const LimbPose& y) {
    return LimbPose{mix(x.flex, y.flex), mix(x.abduct, y.abduct), mix(x.twist, y.twist), mix(x.bend, y.bend)};
  };
  for (int s = 0; s < 2; ++s) {
    p.arm[s] = mix_limb(a.arm[s], b.arm[s]);
    p.leg[s] = mix_limb(a.leg[s], b.leg[s]);
  }
  p.seat = mix(a.seat, b.seat);
  p.seatHeight = w < 0.5f ? (a.seat > 0 ? a.seatHeight : b.seatHeight) : (b.seat > 0 ? b.seatHeight : a.seatHeight);
  p.carry = mix(a.carry, b.carry);
  return p;
}

void clamp_to_limits(Pose& p) {
  using L = JointLimits;
  p.lean = clampf(p.lean, L::kLeanMin, L::kLeanMax);
  p.sideBend = clampf(p.sideBend, deg(-30), deg(30));
  p.twist = clampf(p.twist, deg(-45), deg(45));
  p.headPitch = clampf(p.headPitch, deg(-40), deg(50));
  p.headYaw = clampf(p.headYaw, deg(-70), deg(70));
  for (int s = 0; s < 2; ++s) {
    p.arm[s].flex = clampf(p.arm[s].flex, L::kShoulderFlexMin, L::kShoulderFlexMax);
    p.arm[s].abduct = clampf(p.arm[s].abduct, L::kShoulderAbductMin, L::kShoulderAbductMax);
    p.arm[s].twist = clampf(p.arm[s].twist, deg(-100), deg(100));
    p.arm[s].bend = clampf(p.arm[s].bend, 0.f, L::kElbowMax);
    p.leg[s].flex = clampf(p.leg[s].flex, L::kHipFlexMin, L::kHipFlexMax);
    p.leg[s].abduct = clampf(p.leg[s].abduct, L::kHipAbductMin, L::kHipAbductMax);
    p.leg[s].twist = 0.f;
    p.leg[s].bend = clampf(p.leg[s].bend, 0.f, L::kKneeMax);
  }
  p.seat = clampf(p.seat, 0.f, 1.f);
}

namespace {

struct Skeleton {
  Axes pelvis, lower, chest, head;
  Vec3 base, mid, top, headCentre;
  Vec3 shoulder[2], elbow[2], wrist[2], hand[2], hip[2], knee[2], ankle[2], footCentre[2];
  Vec3 forearmDir[2], handNormal[2], shinDir[2], footDir[2];
};

// Turns `f` about its own axis `axis` by `angle`, moving `towards` first.
Axes tilt(const Axes& f, float lean, float side, float twist) {
  Axes c = f;
  // Lean forward: up moves towards forward.
  const Vec3 up1 = turn(c.up, c.forward, lean), fw1 = turn(c.forward, -c.up, lean);
  c.up = up1;
  c.forward = fw1;
  // Side bend towards the left.
  const Vec3 up2 = turn(c.up, c.left, side), left2 = turn(c.left, -c.up, side);
  c.up = up2;
  c.left = left2;
  // Twist to the left: forward moves towards left.
  const Vec3 fw3 = turn(c.forward, c.left, twist), left3 = turn(c.left, -c.forward, twist);
  c.forward = fw3;
  c.left = left3;
  return c;
}

Skeleton build_skeleton(const BodyDims& d, const Pose& p) {
  Skeleton k;
  const Vec3 F{std::sin(p.heading), 0.f, std::cos(p.heading)};
  const Vec3 U{0, 1, 0};
  const Vec3 L{-F.z, 0.f, F.x};
  k.pelvis = {L, U, F};
  k.lower = tilt(k.pelvis, p.lean * 0.5f, p.sideBend * 0.5f, 0.f);
  k.chest = tilt(k.pelvis, p.lean, p.sideBend, p.twist);
  k.base = {};
  k.mid = k.base + k.lower.up * d.lowSpineLen;
  k.top = k.mid + k.chest.up * d.upSpineLen;
  const Axes& c = k.chest;
  k.head = tilt(c, p.headPitch, 0.f, p.headYaw);
  k.headCentre = k.top + k.head.up * d.neckLen;

  for (int s = 0; s < 2; ++s) {
    const float sign = s == 0 ? 1.f : -1.f;
    // Arm.
    {
      const LimbPose& a = p.arm[s];
      const Vec3 S = c.left * sign;
      k.shoulder[s] = k.top + S * d.shoulderHalfSpread - c.up * d.shoulderDrop;
      const Vec3 d0 = turn(-c.up, c.forward, a.flex);
      const Vec3 d1 = turn(d0, S, a.abduct);
      const Vec3 bend0 = c.forward * std::cos(a.flex) + c.up * std::sin(a.flex);
      const Vec3 side = -d0 * std::sin(a.abduct) + S * std::cos(a.abduct);
      const Vec3 bendDir = turn(bend0, side, a.twist);
      k.elbow[s] = k.shoulder[s] + d1 * d.upperArmLen;
      const Vec3 fa = turn(d1, bendDir, a.bend);
      k.forearmDir[s] = fa;
      k.handNormal[s] = turn(bendDir, -d1, a.bend);
      k.wrist[s] = k.elbow[s] + fa * d.forearmLen;
      k.hand[s] = k.wrist[s] + fa * (d.handLen * 0.5f);
    }
    // Leg.
    {
      const LimbPose& g = p.leg[s];
      const Vec3 S = L * sign;
      k.hip[s] = k.base + S * d.hipHalfSpread - U * d.baseAboveHips;
      const Vec3 d0 = turn(-U, F, g.flex);
      const Vec3 d1 = turn(d0, S, g.abduct);
      const Vec3 back = -(U * std::sin(g.flex) + F * std::cos(g.flex));
      k.knee[s] = k.hip[s] + d1 * d.thighLen;
      const Vec3 shin = turn(d1, back, g.bend);
      k.shinDir[s] = shin;
      k.ankle[s] = k.knee[s] + shin * d.shinLen;
      Vec3 ff = F - shin * dot(F, shin);
      if (length(ff) < 0.2f) ff = -back;
      ff = normalize(ff);
      k.footDir[s] = ff;
      k.footCentre[s] = k.ankle[s] + shin * (d.ankleHeight * 0.5f) + ff * (d.footLen * 0.25f);
    }
  }
  return k;
}

float lowest_foot_point(const BodyDims& d, const Skeleton& k) {
  float lo = 1e9f;
  for (int s = 0; s < 2; ++s) {
    const Vec3 lat = normalize(cross(k.footDir[s], k.shinDir[s]));
    const float dy = std::fabs(k.footDir[s].y) * d.footLen * 0.5f + std::fabs(k.shinDir[s].y) * d.ankleHeight * 0.5f +
                     std::fabs(lat.y) * d.footWidth * 0.5f;
    lo = std::min(lo, k.footCentre[s].y - dy);
    lo = std::min(lo, k.ankle[s].y - d.shinR1);
  }
  return lo;
}

float ground_offset(const BodyDims& d, const Skeleton& k, const Pose& p) {
  const float standing = -lowest_foot_point(d, k);
  // Long shins rest on the floor and lift the hips off a low seat.
  const float seated = std::max(standing, p.seatHeight + d.thighR0 * 0.8f - std::min(k.hip[0].y, k.hip[1].y));
  return standing + (seated - standing) * p.seat;
}

void shift(Skeleton& k, Vec3 o) {
  for (Vec3* v : {&k.base, &k.mid, &k.top, &k.headCentre}) *v += o;
  for (int s = 0; s < 2; ++s)
    for (Vec3* v : {&k.shoulder[s], &k.elbow[s], &k.wrist[s], &k.hand[s], &k.hip[s], &k.knee[s], &k.ankle[s],
                    &k.footCentre[s]})
      *v += o;
}

}  // namespace

float pelvis_height(const BodyShape& shape, const Pose& pose) {
  const BodyDims d = body_dims(shape);
  const Skeleton k = build_skeleton(d, pose);
  return ground_offset(d, k, pose);
}

namespace {

// Builds a posed body's parts and the labelers that name their surface, one body region
// at a time, in the order the parts are drawn.
class BodyAssembler {
 public:
  BodyAssembler(const BodyShape& bodyShape, const Pose& bodyPose, bool swapSides, const BodyDims& dims,
                const Skeleton& skeleton, PosedBody& posed)
      : shape(bodyShape), pose(bodyPose), swap(swapSides), d(dims), k(skeleton), out(posed) {
    out.parts.clear();
    out.labelers.clear();
  }

  void assemble() {
    const Labeler torsoL = torso_labeler();
    const uint16_t torso = add_labeler(torsoL);
    const uint16_t head = fixed(kHeadLabel);
    const uint16_t accessory = fixed(kAccessoryLabel);
    add_head(head);
    add_torso(torso);
    add_limbs(torso);
    add_clothing(torsoL);
    add_accessories(accessory);
  }

 private:
  uint16_t add_labeler(const Labeler& l) {
    out.labelers.push_back(l);
    return static_cast<uint16_t>(out.labelers.size() - 1);
  }
  uint16_t fixed(uint8_t label) {
    Labeler l;
    l.kind = LabelerKind::Fixed;
    l.labels[0] = label;
    return add_labeler(l);
  }
  uint16_t segment(Vec3 a, Vec3 b, float c0, float c1, uint8_t l0, uint8_t l1, uint8_t l2) {
    Labeler l;
    l.kind = LabelerKind::Segment;
    l.a = a;
    l.b = b;
    l.cut0 = c0;
    l.cut1 = c1;
    l.labels[0] = l0;
    l.labels[1] = l1;
    l.labels[2] = l2;
    return add_labeler(l);
  }
  void add(Primitive p, uint16_t labeler) {
    p.labeler = labeler;
    out.parts.push_back(p);
  }

  Labeler torso_labeler() const {
    Labeler torsoL;
    torsoL.kind = LabelerKind::Torso;
    torsoL.base = k.base;
    torsoL.mid = k.mid;
    torsoL.top = k.top;
    torsoL.upLow = k.lower.up;
    torsoL.upHigh = k.chest.up;
    torsoL.left = k.chest.left;
    torsoL.lowLen = d.lowSpineLen;
    torsoL.upLen = d.upSpineLen;
    torsoL.innerShoulder = 0.5f * d.shoulderHalfSpread;
    torsoL.swapSides = swap;
    return torsoL;
  }

  void add_head(uint16_t head) {
    const Vec3 hr = d.headRadii;
    add(make_ellipsoid(k.headCentre, k.head, hr), head);
    if (shape.hair != Hair::None) {
      add(make_ellipsoid(k.headCentre + k.head.up * (0.06f * hr.y) - k.head.forward * (0.12f * hr.z), k.head,
                         {hr.x * 1.07f, hr.y, hr.z * 1.04f}),
          head);
      if (shape.hair == Hair::Long)
        add(make_round_cone(k.headCentre - k.head.forward * (0.45f * hr.z),
                            k.top - k.chest.forward * (0.6f * d.chestHalfDepth) - k.chest.up * (0.1f * d.upSpineLen),
                            0.7f * hr.x, 0.8f * hr.x),
            head);
      if (shape.hair == Hair::Bun)
        add(make_round_cone(k.headCentre + k.head.up * (0.5f * hr.y) - k.head.forward * (0.95f * hr.z),
                            k.headCentre + k.head.up * (0.5f * hr.y) - k.head.forward * (0.95f * hr.z), 0.4f * hr.x,
                            0.4f * hr.x),
            head);
    }
    add(make_round_cone(k.top, k.headCentre - k.head.up * (0.55f * hr.y), d.neckRadius, d.neckRadius * 0.9f),
        segment(k.top, k.headCentre, 0.5f, 0.5f, kInnerShoulderLabel, kInnerShoulderLabel, kHeadLabel));
  }

  void add_torso(uint16_t torso) {
    add(make_ellipsoid(k.mid + k.chest.up * (0.55f * d.upSpineLen), k.chest,
                       {d.chestHalfWidth, 0.58f * d.upSpineLen, d.chestHalfDepth}),
        torso);
    const float belly = std::max(0.f, shape.build - 1.f) * 0.03f * shape.height;
    add(make_ellipsoid(k.mid - k.lower.up * (0.15f * d.lowSpineLen) + k.lower.forward * belly, k.lower,
                       {d.waistHalfWidth, 0.6f * d.lowSpineLen, d.waistHalfDepth + 0.5f * belly}),
        torso);
    add(make_ellipsoid(k.base - k.pelvis.up * (0.5f * d.baseAboveHips), k.pelvis,
                       {d.pelvisHalfWidth, 0.35f * d.lowSpineLen + d.baseAboveHips, d.pelvisHalfDepth}),
        torso);
  }

  // Shoulder girdle, arms, hands, legs and feet.
  void add_limbs(uint16_t torso) {
    for (int s = 0; s < 2; ++s) {
      // Shoulder girdle, arm, hand.
      add(make_round_cone(k.top - k.chest.up * d.shoulderDrop, k.shoulder[s], d.upperArmR0, d.upperArmR0 * 1.05f),
          torso);
      add(make_round_cone(k.shoulder[s], k.elbow[s], d.upperArmR0, d.upperArmR1),
          segment(k.shoulder[s], k.elbow[s], 0.2f, 0.8f, side_label(kShoulderPart, s, swap),
                  side_label(kUpperArm, s, swap), side_label(kElbow, s, swap)));
      add(make_round_cone(k.elbow[s], k.wrist[s], d.forearmR0, d.forearmR1),
          segment(k.elbow[s], k.wrist[s], 0.2f, 0.8f, side_label(kElbow, s, swap), side_label(kForearm, s, swap),
                  side_label(kHand, s, swap)));
      const Vec3 fa = k.forearmDir[s], n = k.handNormal[s];
      add(make_box(k.hand[s], fa, n, normalize(cross(fa, n)),
                   {d.handLen * 0.5f, 0.012f * shape.height, 0.024f * shape.height}),
          fixed(side_label(kHand, s, swap)));
      // Leg, foot.
      add(make_round_cone(k.hip[s], k.knee[s], d.thighR0, d.thighR1),
          segment(k.hip[s], k.knee[s], 0.2f, 0.8f, side_label(kHip, s, swap), side_label(kUpperLeg, s, swap),
                  side_label(kKnee, s, swap)));
      add(make_round_cone(k.knee[s], k.ankle[s], d.shinR0, d.shinR1),
          segment(k.knee[s], k.ankle[s], 0.2f, 0.8f, side_label(kKnee, s, swap), side_label(kLowerLeg, s, swap),
                  side_label(kFoot, s, swap)));
      const Vec3 ff = k.footDir[s], sd = k.shinDir[s];
      add(make_box(k.footCentre[s], ff, sd, normalize(cross(ff, sd)),
                   {d.footLen * 0.5f, d.ankleHeight * 0.5f, d.footWidth * 0.5f}),
          fixed(side_label(kFoot, s, swap)));
    }
  }

  // Clothing takes the labels of the body part underneath.
  void add_clothing(const Labeler& torsoL) {
    if (shape.clothing == Clothing::None) return;
    {
      Labeler cloth = torsoL;
      cloth.kind = LabelerKind::Skirt;
      cloth.upLow = k.pelvis.up;
      cloth.left = k.pelvis.left;
      for (int s = 0; s < 2; ++s) {
        cloth.thighA[s] = k.hip[s];
        cloth.thighB[s] = k.knee[s];
      }
      const uint16_t clothL = add_labeler(cloth);
      const Vec3 U = k.pelvis.up;
      const float kneeY = std::max(0.5f * (k.knee[0].y + k.knee[1].y), 0.5f * (k.hip[0].y + k.hip[1].y) - d.thighLen);
      if (shape.clothing == Clothing::Skirt) {
        const Vec3 top = k.base + U * (0.02f * shape.height);
        const Vec3 bottom{top.x, std::max(kneeY + 0.05f * shape.height, 100.f), top.z};
        add(make_frustum(top, bottom, d.pelvisHalfWidth * 1.04f, d.pelvisHalfWidth * 1.45f, k.pelvis.left, 0.75f),
            clothL);
      } else {
        const Vec3 top = k.top - k.chest.up * (0.03f * shape.height);
        const Vec3 bottom{k.base.x, std::max(kneeY, 100.f), k.base.z};
        add(make_frustum(top, bottom, d.chestHalfWidth * 1.05f, d.pelvisHalfWidth * 1.35f, k.chest.left, 0.68f),
            clothL);
      }
    }
  }

  void add_accessories(uint16_t accessory) {
    if (shape.bag == Bag::ShoulderBag) {
      const Vec3 c =
          k.hip[1] - k.pelvis.left * (d.pelvisHalfWidth * 0.6f + 45.f) + k.pelvis.up * (0.06f * shape.height);
      add(make_box(c, k.pelvis.left, k.pelvis.up, k.pelvis.forward, {40.f, 0.07f * shape.height, 0.08f * shape.height}),
          accessory);
    } else if (shape.bag == Bag::Backpack) {
      const Vec3 c = k.mid + k.chest.up * (0.5f * d.upSpineLen) - k.chest.forward * (d.chestHalfDepth + 65.f);
      add(make_box(c, k.chest.left, k.chest.up, k.chest.forward, {0.075f * shape.height, 0.1f * shape.height, 65.f}),
          accessory);
    }
    if (shape.carried == Carried::Phone) {
      add(make_box(k.hand[1] + k.forearmDir[1] * 30.f, k.forearmDir[1], k.handNormal[1],
                   normalize(cross(k.forearmDir[1], k.handNormal[1])), {70.f, 12.f, 35.f}),
          accessory);
    } else if (shape.carried == Carried::Box && pose.carry > 0.5f && length(k.hand[0] - k.hand[1]) < 800.f) {
      const Vec3 c = (k.hand[0] + k.hand[1]) * 0.5f + k.chest.forward * 40.f;
      const float w = std::max(120.f, 0.5f * length(k.hand[0] - k.hand[1]) - 20.f);
      add(make_box(c, k.chest.left, k.chest.up, k.chest.forward, {w, 130.f, 140.f}), accessory);
    }
  }

  const BodyShape& shape;
  const Pose& pose;
  const bool swap;
  const BodyDims& d;
  const Skeleton& k;
  PosedBody& out;
};

}  // namespace

void pose_body(const BodyShape& shape, const Pose& pose, bool swap, PosedBody& out) {
  const BodyDims d = body_dims(shape);
  Skeleton k = build_skeleton(d, pose);
  shift(k, {pose.x, ground_offset(d, k, pose), pose.z});

  // Joints as the tracker reports them: the head at the centre of the head, hands at the
  // centre of the hand, feet halfway between the ankle and the centre of the foot.
  auto& j = out.joints;
  j[kHead] = k.headCentre;
  j[kShoulderSpine] = k.top;
  j[kMidSpine] = k.mid;
  j[kBaseSpine] = k.base;
  for (int s = 0; s < 2; ++s) {
    j[kShoulderJ[s]] = k.shoulder[s];
    j[kElbowJ[s]] = k.elbow[s];
    j[kHandJ[s]] = k.hand[s];
    j[kHipJ[s]] = k.hip[s];
    j[kKneeJ[s]] = k.knee[s];
    j[kFootJ[s]] = (k.ankle[s] + k.footCentre[s]) * 0.5f;
  }

  BodyAssembler(shape, pose, swap, d, k, out).assemble();
}

const char* label_name(int label) {
  static constexpr const char* kNames[28] = {
      "no person",       "carried object",    "left hand",      "left forearm",   "right hand",
      "right forearm",   "head",              "left upper arm", "right upper arm", "left upper leg",
      "left lower leg",  "left foot",         "right upper leg", "right lower leg", "right foot",
      "left hip",        "right hip",         "left torso",     "right torso",    "left lower torso",
      "right lower torso", "neck",            "left shoulder",  "right shoulder", "left knee",
      "right knee",      "left elbow",        "right elbow"};
  return label >= 0 && label < 28 ? kNames[label] : "unused";
}

}  // namespace quorvik::sim
