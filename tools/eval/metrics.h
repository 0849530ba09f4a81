#pragma once
// What the evaluation measures, kept apart from the tracker and the simulator so that each
// rule can be checked on hand-made inputs: which truth joint a reported joint answers to,
// which body a person is, when an id switches, which bodies are nobody, how far the floor
// normal is off, and the running sums behind the final table.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "skeleton/vocabulary.h"

namespace quorvik::eval {

inline constexpr int kJoints = skeleton::kJointCount;
inline constexpr float kDetectionRadiusMm = 100.f;

// Truth is named by the model's sides; the tracker reports mirror(model joint) when it
// treats the depth as mirrored.
uint8_t truth_joint_for(uint8_t reportedType, bool mirrored);

// Error of a reported position against the truth (camera space, mm): `lateral` across the
// optical axis (x and y), `depth` along it.
struct JointError {
  float total = 0, lateral = 0, depth = 0;
};
JointError joint_error(const std::array<float, 3>& reported, const std::array<float, 3>& truth);

// Pixel counts of body masks against truth person ids (same size, 0 = nobody).
struct Overlap {
  std::map<uint8_t, std::map<uint8_t, uint32_t>> personBody;  // person -> body -> shared pixels
  std::map<uint8_t, uint32_t> bodyPixels;                     // body -> mask pixels
  std::map<uint8_t, uint32_t> bodyOnPeople;                   // body -> mask pixels on any person
  std::map<uint8_t, uint32_t> personPixels;                   // person -> truth pixels
};
Overlap count_overlap(const uint8_t* bodyMask, const uint8_t* truthIds, size_t pixels);

// The body sharing most pixels with the person (lower id on ties); 0 when none does.
uint8_t nearest_body(const Overlap& overlap, uint8_t person);

// Bodies among `bodies` that overlap no person: less than `minShare` of their mask lies on
// people (a body without mask pixels is one of them).
std::vector<uint8_t> false_bodies(const Overlap& overlap, const std::vector<uint8_t>& bodies,
                                  float minShare = 0.1f);

// Angle in degrees between two plane normals (n . p + d = 0); the normals need not be unit.
// Opposite normals are 180 degrees apart: an upside-down floor is an error too.
// Whether a person shows their back to the camera, from the truth shoulders (named by the
// model's sides): within 60 degrees of back-on.
bool shows_back(const std::array<float, 3>& leftShoulder, const std::array<float, 3>& rightShoulder);

double normal_angle_deg(const std::array<float, 4>& a, const std::array<float, 4>& b);

// Counts id switches: while a person stays visible, the body it maps to changes from one
// non-zero id to another (a gap without a body in between does not break the stretch).
// Leaving view ends the stretch.
class IdSwitchCounter {
 public:
  void observe(uint8_t person, bool visible, uint8_t body);
  int switches() const { return switches_; }

 private:
  std::map<uint8_t, uint8_t> last_;
  int switches_ = 0;
};

// Frames from the first frame a person is fully visible to the first frame it is tracked
// (0 when tracked before that); -1 while not yet known or never fully visible.
class AcquisitionTimer {
 public:
  void observe(uint8_t person, int frame, bool fullyVisible, bool tracked);
  // One entry per person that was fully visible at some point: its delay, or -1 when it
  // was never tracked after that.
  std::vector<int> delays() const;

 private:
  struct Entry {
    int visibleAt = -1, trackedAt = -1, firstTracked = -1;
  };
  std::map<uint8_t, Entry> people_;
};

struct Stats {
  double mean = 0, median = 0;
  size_t count = 0;
};
Stats stats_of(std::vector<float> values);

// Distance bins of the error-against-distance figure: 500 mm wide from 0.
inline constexpr int kDistanceBins = 12;
inline constexpr float kDistanceBinMm = 500.f;

// Sums of one joint type over many frames.
struct JointTally {
  uint64_t truth = 0;     // visible truth joints of people in view
  uint64_t detected = 0;  // of those: reported (not None) within 100 mm
  uint64_t high = 0, low = 0, none = 0;
  std::vector<float> total, lateral, depth;  // errors of reported joints
};

struct Tally {
  std::array<JointTally, kJoints> joints{};
  std::array<std::vector<float>, kDistanceBins> errorByDistance{};
  std::vector<int> acquisition;  // per person, see AcquisitionTimer
  int idSwitches = 0;
  uint64_t falseBodyFrames = 0;  // sum over frames of bodies on nobody
  uint64_t frames = 0;
  uint64_t floorFrames = 0;      // frames with a detected floor
  std::vector<float> floorError;  // degrees, on frames with a detected floor
  uint64_t partCompared = 0, partCorrect = 0;  // pixels with truth person and tracker label
  uint64_t personPixels = 0, personLabelled = 0;  // coverage
  // Body masks of tracked people against their truth pixels, at the input size, summed
  // over the frames in which the person maps to a body.
  uint64_t maskShared = 0, maskPixels = 0, maskTruth = 0;
  // Reported left and right joints nearer their own truth than the other side's, over all
  // frames and over the frames in which the person shows their back.
  uint64_t sideJoints = 0, sideRight = 0, backJoints = 0, backRight = 0;

  // A visible truth joint and what the matched body said about it (None: not reported or
  // no body); `error` and `distanceMm` are read only when reported.
  void add_joint(int truthType, skeleton::JointStatus status, const JointError& error, float distanceMm);
  void merge(const Tally& other);
  double detection_rate() const;
  double part_accuracy() const;
  double coverage() const;
  double floor_found() const;
  double mask_precision() const;
  double mask_recall() const;
  double side_right() const;
  double back_side_right() const;
};

}  // namespace quorvik::eval
