#include "segmentation/floor_detector.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

#include <Eigen/Eigenvalues>

namespace quorvik::legacy {

namespace {

// Shift-to-depth model behind the plane geometry: depth ~ kB / (shift - kA) millimetres.
constexpr double kA = 1086.1711023707649;
constexpr double kB = -342205.32284491777;
// The model's angular resolution is given for an image of kModelColumns columns.
constexpr uint32_t kModelColumns = 1280;
constexpr double kRadiansPerPixelAt1280 = 0.10520000010728836 / 120.0;
constexpr double kMaxTiltRadians = 0.2617993877991494;  // 15 degrees

// Lengths, determinants and shares at or below this are taken as zero.
constexpr double kDegenerate = 1e-8;
// The largest float below 2^31: a clamped coefficient always fits an i32.
constexpr double kLargestFixed = 2147483520.0;

// A hypothesis is valid when at least this share of the image lies on it, and its score
// counts five pixels on the plane against one beyond it.
constexpr double kMinOnShare = 0.005;
constexpr double kOnWeight = 0.2;

// Histogram search: local normals from grid samples kNeighbourStep apart, the plane offsets
// of the upward ones binned kBinWidth apart; a peak takes up to kPeakSpread bins either side
// and must cover kMinPeakArea mm^2 to be the floor (each grid sample standing for the step x
// step pixels around it).
constexpr int32_t kHistogramBins = 50;
constexpr int32_t kBinWidth = 30;
constexpr int32_t kSelectionUpperWidth = 31;  // a little wider on the far side of the band
constexpr int32_t kNeighbourStep = 2;
constexpr int32_t kPeakSpread = 3;
constexpr int32_t kMinPeakArea = 50000;
constexpr double kOutOfReach = 1e9;  // offsets and rows beyond this belong to no plane in view
// The fit drops samples while any lies more than this many shift steps off it.
constexpr int64_t kMaxResidual = 1;

// Random search: the draws it may make, and a normal component no unit normal reaches.
constexpr int32_t kRandomDraws = 100;
constexpr double kNoNormal = -1.5;
// Refinements a new floor gets to become valid.
constexpr int kImprovementRounds = 3;

// Measured plane: points within this many depth steps of the first fit make the second, and
// the points must spread in two directions (smallest eigenvalue well below the next).
constexpr double kInlierSteps = 1.5;
constexpr double kPlaneEigenRatio = 4.0;
// A cross product of three world points this short (mm^2): they lie on one line.
constexpr double kNoSpan = 1e-9;

int32_t to_fixed(double v) {
  if (!std::isfinite(v)) return 0;
  const double scaled = std::clamp(v * double(1 << kFloorFixedBits), -kLargestFixed, kLargestFixed);
  return static_cast<int32_t>(std::lround(scaled));
}

void normalise(double v[3]) {
  const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (length <= kDegenerate) {
    v[0] = 1, v[1] = 0, v[2] = 0;
    return;
  }
  v[0] /= length, v[1] /= length, v[2] /= length;
}

}  // namespace

const double FloorDetector::kTiltLimit = std::cos(kMaxTiltRadians);

void FloorHypothesis::allocate(int32_t width, int32_t height) {
  a = b = c = 0;
  normal[0] = normal[1] = normal[2] = 0;
  std::fill(std::begin(plane), std::end(plane), 0.f);
  onCount = beyondCount = 0;
  valid = false;
  score = 0;
  mask->resize(width, height);
  mask->clear();
}

void FloorDetector::start(uint32_t width, uint32_t height, const uint16_t* shiftToDepth, uint32_t length,
                          const skeleton::SegCoordinateMapper<double>* mapper) {
  width_ = width;
  height_ = height;
  shiftToDepth_ = shiftToDepth;
  shiftToDepthLength_ = shiftToDepth ? length : 0;
  mapper_ = mapper;
  step_ = int32_t(width / kGridColumns);
  random_.seed(1);
  const double q = width >= 1 ? double(kModelColumns / width) : 0.0;
  const double k = q > 0 ? 1.0 / (q * kRadiansPerPixelAt1280) : 0.0;
  for (int32_t s = 0; s < kShiftTableSize; ++s) {
    focalTerm_[size_t(s)] = (s - kA) * k / kB;
    inverseDepthTerm_[size_t(s)] = (kA - s) / kB;
    curvatureTerm_[size_t(s)] = (kA - s) * (s - kA) / kB;
  }
  for (FloorHypothesis* h : {&current_, &scratch_, &candidate_}) h->allocate(int32_t(width), int32_t(height));
  hasFloor_ = 0;
  bestScore_ = kNoScore;
}

void FloorDetector::update(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& background,
                           bool backgroundReset) {
  if (uint32_t(background.width()) != width_ || uint32_t(background.height()) != height_ ||
      !shift.same_shape(background) || width_ == 0) {
    return;
  }
  if (hasFloor_ != 0) {
    evaluate(current_, background);
    if (!backgroundReset || current_.valid) {
      refine(current_, candidate_, background);
      evaluate(candidate_, background);
      if (candidate_.score > bestScore_ && candidate_.normal[1] >= kTiltLimit) {
        bestScore_ = candidate_.score;
        std::swap(current_, candidate_);
      }
    } else {
      hasFloor_ = 0;
      bestScore_ = kNoScore;
      full_search(current_, scratch_, background);
      if (!current_.valid) return;
      bestScore_ = current_.score;
      hasFloor_ = 1;
    }
  } else {
    full_search(current_, scratch_, background);
    if (!current_.valid) return;
    bestScore_ = current_.score;
    hasFloor_ = 1;
  }
  measure_world_plane(current_, background);
  mark_floor(current_, shift);
}

void FloorDetector::full_search(FloorHypothesis& h, FloorHypothesis& work, const Array2D<uint16_t>& background) {
  if (!histogram_search(h, background) && !random_search(h, background)) return;
  evaluate(h, background);
  for (int i = 0; i < kImprovementRounds && !h.valid; ++i) {
    refine(h, work, background);
    if (work.normal[1] < kTiltLimit) break;
    evaluate(work, background);
    if (work.score <= h.score) break;
    std::swap(h, work);
  }
}

FloorShiftTest::FloorShiftTest(double a, double b, double c)
    : a_(uint32_t(to_fixed(a))), b_(uint32_t(to_fixed(b))), c_(uint32_t(to_fixed(c))) {}

void FloorDetector::evaluate(FloorHypothesis& h, const Array2D<uint16_t>& image) const {
  h.onCount = h.beyondCount = 0;
  const FloorShiftTest test(h.a, h.b, h.c);
  Array2D<uint8_t>& mask = *h.mask;
  const int32_t w = int32_t(width_), hh = int32_t(height_);
  for (int32_t y = floor_rows_begin(hh); y < hh; ++y) {
    const uint16_t* s = image.row(y);
    uint8_t* m = mask.row(y);
    const uint32_t rowBase = test.row(y);
    for (int32_t x = 0; x < w; ++x) {
      m[x] = test.mark(rowBase, x, s[x]);
      h.onCount += m[x] == kOnFloor;
      h.beyondCount += m[x] == kBeyondFloor;
    }
  }
  h.score = h.onCount * kOnWeight - h.beyondCount;
  h.valid = h.onCount >= width_ * height_ * kMinOnShare && h.onCount * kOnWeight >= h.beyondCount;
}

void FloorDetector::mark_floor(FloorHypothesis& h, const Array2D<uint16_t>& image) const {
  const FloorShiftTest test(h.a, h.b, h.c);
  Array2D<uint8_t>& mask = *h.mask;
  const int32_t w = int32_t(width_), hh = int32_t(height_);
  for (int32_t y = floor_rows_begin(hh); y < hh; ++y) {
    const uint16_t* s = image.row(y);
    uint8_t* m = mask.row(y);
    const uint32_t rowBase = test.row(y);
    for (int32_t x = 0; x < w; ++x) m[x] = test.mark(rowBase, x, s[x]) == kOnFloor ? kOnFloor : kOffFloor;
  }
}

void FloorDetector::solve(const Sums& m, double& a, double& b, double& c) {
  a = b = c = 0;
  const double m00 = m.xx, m01 = m.xy, m02 = m.x, m11 = m.yy, m12 = m.y, m22 = m.n;
  const double c00 = m11 * m22 - m12 * m12;
  const double c01 = m02 * m12 - m01 * m22;
  const double c02 = m01 * m12 - m02 * m11;
  const double c11 = m00 * m22 - m02 * m02;
  const double c12 = m01 * m02 - m00 * m12;
  const double c22 = m00 * m11 - m01 * m01;
  const double det = m00 * c00 + m01 * c01 + m02 * c02;
  if (std::abs(det) <= kDegenerate) return;
  const double i00 = c00 / det, i01 = c01 / det, i02 = c02 / det;
  const double i11 = c11 / det, i12 = c12 / det, i22 = c22 / det;
  a = i00 * m.xs + i01 * m.ys + i02 * m.s;
  b = i01 * m.xs + i11 * m.ys + i12 * m.s;
  c = i02 * m.xs + i12 * m.ys + i22 * m.s;
}

void FloorDetector::build_grid(const Array2D<uint16_t>& background) {
  grid_.fill(0);
  if (step_ <= 0) return;
  for (int32_t r = 0; r < kGridRows && r * step_ < int32_t(height_); ++r) {
    for (int32_t c = 0; c < kGridColumns && c * step_ < int32_t(width_); ++c) {
      grid_[size_t(r * kGridColumns + c)] = background.at(c * step_, r * step_);
    }
  }
}

bool FloorDetector::histogram_search(FloorHypothesis& h, const Array2D<uint16_t>& background) {
  if (step_ <= 0) return false;
  build_grid(background);
  double histogram[kHistogramBins] = {};
  int32_t count = 0;
  selected_.reset();
  const int32_t halfW = int32_t(width_ / 2), halfH = int32_t(height_ / 2);
  for (int32_t r = floor_rows_begin(kGridRows); r < kGridRows; ++r) {
    for (int32_t c = kNeighbourStep; c < kGridColumns; ++c) {
      const int32_t B = grid_[size_t(r * kGridColumns + c)];
      const int32_t A = grid_[size_t(r * kGridColumns + c - kNeighbourStep)];
      const int32_t C = grid_[size_t((r - kNeighbourStep) * kGridColumns + c)];
      if (A == 0 || B == 0 || C == 0 || !term_index(B)) continue;
      const int32_t x = c * step_ - halfW;
      const int32_t y = r * step_ - halfH;
      int32_t dA = A - B, dC = C - B;
      const double k = focalTerm_[size_t(B)];
      const double v[3] = {k * dA, k * dC,
                           (double(y) * dC + double(x) * dA) * inverseDepthTerm_[size_t(B)] +
                               double(kNeighbourStep) * step_ * curvatureTerm_[size_t(B)]};
      const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      const double share = length > kDegenerate ? k * dC / length : 0.0;
      if (std::abs(share) < kTiltLimit) continue;
      int32_t stepTerm = kNeighbourStep * step_;
      if (share < 0) dA = -dA, dC = -dC, stepTerm = -stepTerm;
      double m[3] = {double(dA), double(dC), double(stepTerm)};
      normalise(m);
      const double offset = std::trunc(x * m[0] + y * m[1] + B * m[2]);
      if (offset < 1 || offset > kOutOfReach) continue;
      const int32_t D = int32_t(offset);
      offsets_[size_t(count)] = D;
      samples_[size_t(count)] = {x + halfW, y + halfH, B};
      selected_.set(size_t(count));
      ++count;
      histogram[std::min(D / kBinWidth, kHistogramBins - 1)] += mapper_->pixel_area_at(depth_of(B));
    }
  }
  if (count == 0) return false;

  const double minMass = double(kMinPeakArea / (step_ * step_));
  int32_t low = -1, high = -1;
  for (int32_t p = 1; p <= kHistogramBins - 2; ++p) {
    if (!(histogram[p] > histogram[p - 1] && histogram[p] > histogram[p + 1])) continue;
    double mass = histogram[p];
    int32_t lo = p, hi = p;
    for (int32_t i = p + 1; i <= std::min(p + kPeakSpread, kHistogramBins - 1); ++i) {
      if (histogram[i] == 0) break;
      mass += histogram[i];
      hi = i;
    }
    for (int32_t i = p - 1; i >= std::max(p - kPeakSpread, 1); --i) {
      if (histogram[i] == 0) break;
      mass += histogram[i];
      lo = i;
    }
    if (mass >= minMass) low = lo, high = hi;
  }
  if (low < 0) return false;

  Sums sums;
  int32_t kept = 0;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t D = offsets_[size_t(i)];
    if (kBinWidth * low < D && D < kSelectionUpperWidth * high) {
      const Sample& s = samples_[size_t(i)];
      sums.add(s.x, s.y, s.shift);
      ++kept;
    } else {
      selected_.reset(size_t(i));
    }
  }
  const int32_t initial = kept;
  double a = 0, b = 0, c = 0;
  solve(sums, a, b, c);
  while (2 * kept > initial) {
    int64_t worst = -1;
    int32_t worstIndex = -1;
    for (int32_t i = 0; i < count; ++i) {
      if (!selected_.test(size_t(i))) continue;
      const Sample& s = samples_[size_t(i)];
      const double residual = std::abs(a * s.x + b * s.y + c - s.shift);
      const int64_t truncated = residual < 9e18 ? int64_t(residual) : INT64_MAX;
      if (truncated > worst) worst = truncated, worstIndex = i;
    }
    if (worst <= kMaxResidual) break;
    const Sample& s = samples_[size_t(worstIndex)];
    selected_.reset(size_t(worstIndex));
    sums.add(s.x, s.y, s.shift, -1.0);
    --kept;
    solve(sums, a, b, c);
  }
  if (2 * kept <= initial) return false;

  h.a = a, h.b = b, h.c = c;
  for (int32_t i = 0; i < count; ++i) {
    if (selected_.test(size_t(i))) {
      compute_world_plane(h, samples_[size_t(i)].x, samples_[size_t(i)].shift);
      break;
    }
  }
  return h.normal[1] >= kTiltLimit;
}

bool FloorDetector::random_search(FloorHypothesis& h, const Array2D<uint16_t>& background) {
  h.normal[1] = kNoNormal;
  const uint32_t third = height_ / 3;
  if (width_ == 0 || third == 0) return false;
  Sample points[3];
  int32_t kept = 0;
  for (int32_t draws = 0; draws < kRandomDraws;) {
    const int32_t x = int32_t(random_() % width_);
    const int32_t y = int32_t(height_ - random_() % third - 1);
    ++draws;
    const int32_t s = background.at(x, y);
    if (s != 0) points[kept++] = {x, y, s};
    if (kept < 3) continue;
    Sums sums;
    for (const Sample& p : points) sums.add(p.x, p.y, p.shift);
    solve(sums, h.a, h.b, h.c);
    compute_world_plane(h, points[0].x, points[0].shift);
    if (h.normal[1] >= kTiltLimit) return true;
    ++draws;
    kept = 0;
  }
  return false;
}

void FloorDetector::refine(const FloorHypothesis& from, FloorHypothesis& to, const Array2D<uint16_t>& background) const {
  Sums sums;
  int32_t refX = -1, refShift = 0;
  const int32_t w = int32_t(width_), hh = int32_t(height_);
  const Array2D<uint8_t>& mask = *from.mask;
  for (int32_t y = floor_rows_begin(hh); y < hh; ++y) {
    const uint8_t* m = mask.row(y);
    const uint16_t* s = background.row(y);
    for (int32_t x = 0; x < w; ++x) {
      if (m[x] == kOffFloor) continue;
      sums.add(x, y, s[x]);
      if (m[x] == kBeyondFloor && refX < 0) refX = x, refShift = s[x];
    }
  }
  if (sums.n < 3) return;
  solve(sums, to.a, to.b, to.c);
  if (refX >= 0) compute_world_plane(to, refX, refShift);
}

bool FloorDetector::world_point(double x, double y, double s, double p[3]) const {
  const double t = s + 0.5;
  if (!(t >= 1.0 && t < double(shiftToDepthLength_ - 1))) return false;
  const int32_t i = int32_t(t);
  const double d0 = depth_of(i), d1 = depth_of(i + 1);
  if (d0 == 0 || d1 == 0) return false;
  const double depth = d0 + (t - i) * (d1 - d0);
  const double size = depth * mapper_->pixelSize[1];  // pixel size grows linearly with depth
  p[0] = (x - mapper_->centerX) * size, p[1] = (mapper_->centerY - y) * size, p[2] = depth;
  return true;
}

bool FloorDetector::normal_of(const double a[3], const double b[3], const double c[3], double n[3]) {
  const double u[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, v[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
  n[0] = u[1] * v[2] - u[2] * v[1], n[1] = u[2] * v[0] - u[0] * v[2], n[2] = u[0] * v[1] - u[1] * v[0];
  const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
  if (!(length > kNoSpan)) return false;
  const double sign = n[1] < 0 ? -1.0 : 1.0;
  for (int k = 0; k < 3; ++k) n[k] *= sign / length;
  return true;
}

void FloorDetector::compute_world_plane(FloorHypothesis& h, int32_t x0, int32_t s0) const {
  if (!term_index(s0)) {
    h.normal[0] = 1, h.normal[1] = 0, h.normal[2] = 0;
    return;
  }
  const double y0 = std::abs(h.b) > std::numeric_limits<double>::epsilon() ? (s0 - h.c - h.a * x0) / h.b : 0.0;
  const double xc = double(x0 - int32_t(width_ / 2));
  const double yc = y0 - double(height_ / 2);
  const double ft = focalTerm_[size_t(s0)];
  double n[3] = {ft * h.a, ft * h.b, (h.b * yc + h.a * xc) * inverseDepthTerm_[size_t(s0)] - curvatureTerm_[size_t(s0)]};
  normalise(n);
  if (n[1] < 0) n[0] = -n[0], n[1] = -n[1], n[2] = -n[2];
  // The fixed shift model above leans the normal by a few degrees, the more the farther the
  // floor: a camera high up and pitched well within the tilt limit lost its floor to it. The
  // tilt is judged on the normal through the camera's own tables instead, from three of the
  // plane's points across the bottom third where the floor is looked for; the model's
  // normal stays where those points have no depth.
  const double xs[3] = {width_ / 4.0, 3.0 * width_ / 4.0, width_ / 2.0};
  const double ys[3] = {height_ - 1.0, height_ - 1.0, 2.0 * height_ / 3.0};
  double corner[3][3], measured[3];
  bool onTables = true;
  for (int i = 0; i < 3 && onTables; ++i)
    onTables = world_point(xs[i], ys[i], h.a * xs[i] + h.b * ys[i] + h.c, corner[i]);
  if (onTables && normal_of(corner[0], corner[1], corner[2], measured)) {
    n[0] = measured[0], n[1] = measured[1], n[2] = measured[2];
  }
  h.normal[0] = n[0], h.normal[1] = n[1], h.normal[2] = n[2];

  const uint16_t z0 = depth_of(s0);
  const double p = mapper_->pixel_size_at(z0);
  const double y0t = std::abs(y0) < kOutOfReach ? std::trunc(y0) : 0.0;
  const double X0 = (x0 - mapper_->centerX) * p;
  const double Y0 = (mapper_->centerY - y0t) * p;
  const double d = -(n[0] * X0 + n[1] * Y0 + n[2] * z0);
  h.plane[0] = float(n[0]), h.plane[1] = float(n[1]), h.plane[2] = float(n[2]), h.plane[3] = float(d);
}

// The normal above comes from a fixed shift-to-depth model that is good enough to judge the
// tilt, but it differs from the camera's own conversion tables by a few degrees and flips
// the sign of the forward component for a pitched camera. The plane handed out is
// therefore measured: the background pixels found on the plane are turned into world
// points with the camera's tables (each shift taken at the middle of its depth step, which
// removes the rounding bias of the tables) and the plane is fitted through them by total
// least squares. A depth step grows with the square of the depth, so each point is weighted
// by the inverse square of its step, and a second fit leaves out what lies more than a step
// and a half off the first: far away a shift either side of the plane reaches up a wall.
void FloorDetector::measure_world_plane(FloorHypothesis& h, const Array2D<uint16_t>& image) {
  const int32_t w = int32_t(width_), hh = int32_t(height_);
  const Array2D<uint8_t>& mask = *h.mask;
  points_.clear();
  for (int32_t y = floor_rows_begin(hh); y < hh; ++y) {
    const uint8_t* m = mask.row(y);
    const uint16_t* s = image.row(y);
    for (int32_t x = 0; x < w; ++x) {
      if (m[x] != kOnFloor) continue;
      const double d0 = depth_of(s[x]), d1 = depth_of(s[x] + 1);
      if (d0 == 0) continue;
      const double depth = d1 > d0 ? 0.5 * (d0 + d1) : d0;
      const double size = depth * mapper_->pixelSize[1];  // pixel size grows linearly with depth
      const double step = std::max(d1 > d0 ? d1 - d0 : 0.0, 1.0);
      points_.push_back({(x - mapper_->centerX) * size, (mapper_->centerY - y) * size, depth, step});
    }
  }
  double plane[4];
  if (!fit_plane(points_, nullptr, plane)) return;
  fit_plane(points_, plane, plane);
  h.plane[0] = float(plane[0]), h.plane[1] = float(plane[1]), h.plane[2] = float(plane[2]);
  h.plane[3] = float(plane[3]);
}

bool FloorDetector::fit_plane(const std::vector<WorldSample>& points, const double* near, double plane[4]) {
  double n = 0, sum[3] = {0, 0, 0}, sq[6] = {0, 0, 0, 0, 0, 0};
  for (const WorldSample& q : points) {
    if (near && std::abs(near[0] * q.p[0] + near[1] * q.p[1] + near[2] * q.p[2] + near[3]) > kInlierSteps * q.step)
      continue;
    const double weight = 1.0 / (q.step * q.step);
    const double* p = q.p;
    n += weight;
    for (int k = 0; k < 3; ++k) sum[k] += weight * p[k];
    sq[0] += weight * p[0] * p[0], sq[1] += weight * p[0] * p[1], sq[2] += weight * p[0] * p[2];
    sq[3] += weight * p[1] * p[1], sq[4] += weight * p[1] * p[2], sq[5] += weight * p[2] * p[2];
  }
  if (!(n > 0)) return false;
  const double mean[3] = {sum[0] / n, sum[1] / n, sum[2] / n};
  Eigen::Matrix3d cov;
  cov(0, 0) = sq[0] / n - mean[0] * mean[0];
  cov(0, 1) = cov(1, 0) = sq[1] / n - mean[0] * mean[1];
  cov(0, 2) = cov(2, 0) = sq[2] / n - mean[0] * mean[2];
  cov(1, 1) = sq[3] / n - mean[1] * mean[1];
  cov(1, 2) = cov(2, 1) = sq[4] / n - mean[1] * mean[2];
  cov(2, 2) = sq[5] / n - mean[2] * mean[2];
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(cov);
  if (solver.info() != Eigen::Success) return false;
  Eigen::Vector3d normal = solver.eigenvectors().col(0);  // smallest eigenvalue first
  // A line of points (a single row) has no plane: its two smallest eigenvalues are alike.
  if (!normal.allFinite() || normal.norm() < 0.5 ||
      !(solver.eigenvalues()(1) > kPlaneEigenRatio * solver.eigenvalues()(0)))
    return false;
  normal.normalize();
  if (normal.y() < 0) normal = -normal;
  plane[0] = normal.x(), plane[1] = normal.y(), plane[2] = normal.z();
  plane[3] = -(normal.x() * mean[0] + normal.y() * mean[1] + normal.z() * mean[2]);
  return true;
}

}  // namespace quorvik::legacy
