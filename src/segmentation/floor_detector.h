#pragma once
// Finds the floor as a plane in the shift domain (where a plane is linear in the pixel
// position), follows it from frame to frame on the background image, and marks the floor
// pixels of the current frame.

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "segmentation/containers.h"
#include "segmentation/seg_coordinate_mapper.h"

namespace quorvik::legacy {

// A pixel's shift against the floor's expected shift there.
enum FloorMark : uint8_t {
  kOffFloor = 0,     // nearer than the floor, or no shift
  kOnFloor = 1,      // within one shift step of it
  kBeyondFloor = 2,  // farther: the plane cannot be the floor there
};

// Fraction bits of the plane coefficients in the per-frame test.
inline constexpr int kFloorFixedBits = 10;
// A pixel is on the floor within this many shift steps of it either way: the plane's own
// rounding and the sensor's jitter.
inline constexpr int32_t kFloorShiftTolerance = 1;

// The floor a x + b y + c as the per-frame test reads it: 22.10 fixed point in unsigned
// arithmetic, so that a plane that comes out negative lies out of reach of every shift.
class FloorShiftTest {
 public:
  FloorShiftTest(double a, double b, double c);
  // The part of row y that all its pixels share, for mark().
  uint32_t row(int32_t y) const { return uint32_t(y) * b_ + c_; }
  FloorMark mark(uint32_t row, int32_t x, uint16_t shift) const {
    if (shift == 0) return kOffFloor;
    const uint32_t e = (row + uint32_t(x) * a_) >> kFloorFixedBits;
    if (uint32_t(shift) > e + kFloorShiftTolerance) return kBeyondFloor;
    return int32_t(shift) >= int32_t(e) - kFloorShiftTolerance ? kOnFloor : kOffFloor;
  }

 private:
  uint32_t a_, b_, c_;
};

// The same plane in full precision, for single pixels.
inline double floor_shift_at(double a, double b, double c, int32_t x, int32_t y) { return a * x + b * y + c; }

struct FloorHypothesis {
  FloorHypothesis() = default;
  void allocate(int32_t width, int32_t height);

  double a = 0, b = 0, c = 0;  // expected shift at pixel (x, y) = a x + b y + c
  double normal[3] = {0, 0, 0};   // judges the tilt; ny >= 0
  float plane[4] = {0, 0, 0, 0};  // the floor as reported: n.P + d = 0, millimetres
  uint32_t onCount = 0;
  uint32_t beyondCount = 0;
  std::unique_ptr<Array2D<uint8_t>> mask = std::make_unique<Array2D<uint8_t>>();  // FloorMark
  bool valid = false;
  double score = 0;
};

class FloorDetector {
 public:
  static constexpr int32_t kGridColumns = 80;
  static constexpr int32_t kGridRows = 60;
  static constexpr int32_t kGridSize = kGridColumns * kGridRows;
  static constexpr int32_t kShiftTableSize = 10001;
  static constexpr double kNoScore = -1e7;
  static const double kTiltLimit;  // cos 15 degrees
  // The floor is looked for, and marked, in the bottom third of the image only.
  static constexpr int32_t floor_rows_begin(int32_t rows) { return 2 * rows / 3; }

  void start(uint32_t width, uint32_t height, const uint16_t* shiftToDepth, uint32_t shiftToDepthLength,
             const skeleton::SegCoordinateMapper<double>* mapper);
  void update(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& background, bool backgroundReset);

  bool has_floor() const { return hasFloor_ != 0; }
  const float* plane() const { return current_.plane; }
  const Array2D<uint8_t>& mask() const { return *current_.mask; }
  const FloorHypothesis& current() const { return current_; }
  double best_score() const { return bestScore_; }

  // Building blocks, public for tests.
  void evaluate(FloorHypothesis& h, const Array2D<uint16_t>& image) const;
  void mark_floor(FloorHypothesis& h, const Array2D<uint16_t>& image) const;
  bool histogram_search(FloorHypothesis& h, const Array2D<uint16_t>& background);
  bool random_search(FloorHypothesis& h, const Array2D<uint16_t>& background);
  void refine(const FloorHypothesis& from, FloorHypothesis& to, const Array2D<uint16_t>& background) const;
  void compute_world_plane(FloorHypothesis& h, int32_t x0, int32_t s0) const;
  // The reported plane, fitted in millimetres through the pixels of `image` that h's mask
  // marks as on the floor.
  void measure_world_plane(FloorHypothesis& h, const Array2D<uint16_t>& image);

 private:
  struct Sums {
    double x = 0, y = 0, s = 0, xx = 0, xy = 0, xs = 0, yy = 0, ys = 0, n = 0;
    void add(double px, double py, double ps, double sign = 1.0) {
      x += sign * px, y += sign * py, s += sign * ps;
      xx += sign * px * px, xy += sign * px * py, xs += sign * px * ps;
      yy += sign * py * py, ys += sign * py * ps, n += sign;
    }
  };
  struct Sample {
    int32_t x, y, shift;
  };
  struct WorldSample {
    double p[3];  // mm
    double step;  // depth step of the tables there, mm
  };
  // Weighted total least squares; with `near`, only the points within a step and a half of it.
  static bool fit_plane(const std::vector<WorldSample>& points, const double* near, double plane[4]);
  static void solve(const Sums& sums, double& a, double& b, double& c);
  void full_search(FloorHypothesis& h, FloorHypothesis& work, const Array2D<uint16_t>& background);
  void build_grid(const Array2D<uint16_t>& background);
  bool term_index(int32_t s) const { return s >= 0 && s < kShiftTableSize; }
  uint16_t depth_of(int32_t s) const {
    return s >= 0 && uint32_t(s) < shiftToDepthLength_ ? shiftToDepth_[s] : uint16_t{0};
  }
  // World point (mm) of pixel (x, y) at shift `s` through the camera's own tables, the shift
  // taken at the middle of its depth step; false where the tables have no depth for it.
  bool world_point(double x, double y, double s, double p[3]) const;
  // Unit normal, vertical component >= 0, of the plane through three world points; false
  // when they do not span one.
  static bool normal_of(const double a[3], const double b[3], const double c[3], double n[3]);

  uint32_t width_ = 0, height_ = 0;
  const skeleton::SegCoordinateMapper<double>* mapper_ = nullptr;
  const uint16_t* shiftToDepth_ = nullptr;
  uint32_t shiftToDepthLength_ = 0;
  int32_t step_ = 0;
  std::array<uint16_t, kGridSize> grid_{};
  FloorHypothesis current_, scratch_, candidate_;
  double bestScore_ = kNoScore;
  uint32_t hasFloor_ = 0;
  std::mt19937 random_{1};
  std::array<double, kShiftTableSize> focalTerm_{};
  std::array<double, kShiftTableSize> inverseDepthTerm_{};
  std::array<double, kShiftTableSize> curvatureTerm_{};
  std::array<int32_t, kGridSize> offsets_{};
  std::array<Sample, kGridSize> samples_{};
  std::bitset<kGridSize> selected_;
  std::vector<WorldSample> points_;
};

}  // namespace quorvik::legacy
