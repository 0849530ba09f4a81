#include "segmentation/background_model.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "op/union_find.h"
#include "segmentation/min_filter.h"
#include "segmentation/sse2.h"
#include "segmentation/user_ids.h"
#include "segmentation/users_rules.h"

namespace quorvik::legacy {

namespace {

// How much of the area that found a background N frames ago still counts against the
// receding area now: a surface seen for the first time is no sign that the scene moved.
constexpr double kRecedeWeights[20] = {1.0,    0.3369, 0.1912, 0.1318, 0.0997, 0.0792, 0.0649,
                                       0.0546, 0.047,  0.0414, 0.0371, 0.0339, 0.0315, 0.0296,
                                       0.0282, 0.027,  0.0261, 0.0253, 0.0247, 0.0241};

inline uint16_t saturating_increment(uint16_t v) { return v == UINT16_MAX ? v : uint16_t(v + 1); }

// Shift noise grows with the shift (far surfaces return fewer, noisier dots): two steps, and
// one more for every kSteadyShiftsPerStep of shift (a shift right by 8 in the vector code).
constexpr int32_t kSteadyBaseTolerance = 2;
constexpr int32_t kSteadyShiftsPerStep = 256;
inline int32_t steady_tolerance(int32_t shift) { return kSteadyBaseTolerance + shift / kSteadyShiftsPerStep; }

// The per-pixel rules of the update, in shift steps and frames.
// A shadow that lies beyond the background by more than this, for kShadowFrames frames in a
// row, shows that the background is not there: something farther casts it.
constexpr int32_t kShadowBeyondMargin = 6;
constexpr uint16_t kShadowFrames = 3;
// A pixel that has seen nothing at all for more than this many frames has no background.
constexpr uint16_t kBlankFrames = 10;
// A pixel that sees farther than its background takes the new shift as background when the
// last three frames agree within this.
constexpr int32_t kRecedeSteadiness = 6;

// A frame is unusable when more than this share of it has no shift, or when its valid box
// covers less than half the image.
constexpr double kBadFrameInvalidShare = 0.9;

// The motion detector's rate thresholds (mm^2 per second): the k-th entry of the change
// rings (k frames back) must exceed base + k x step.
constexpr double kFastChangeBase = 5000000.0, kFastChangeStep = 2000000.0;
constexpr double kRecedeBase = 6000000.0, kRecedeStep = 1000000.0;
// Frames after a rebuild, or after the reset state began, before the change ring is read.
constexpr uint32_t kMotionWarmUpFrames = 4;
constexpr double kSecondsPerMs = 0.001;

}  // namespace

void update_steady_runs(const uint16_t* c, const uint16_t* p, const uint16_t* pp, uint16_t* steady, int32_t n) {
  int32_t i = 0;
#if QBT_SEGMENTATION_SSE2
  // Eight pixels at a time; shifts stay below 32768.
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi16(1);
  const __m128i two = _mm_set1_epi16(kSteadyBaseTolerance);
  for (; i + 8 <= n; i += 8) {
    const __m128i vc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i));
    const __m128i vp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
    const __m128i vpp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pp + i));
    const __m128i tol = _mm_add_epi16(two, _mm_srli_epi16(vc, 8));
    const __m128i d1 = _mm_sub_epi16(_mm_max_epi16(vc, vp), _mm_min_epi16(vc, vp));
    const __m128i d2 = _mm_sub_epi16(_mm_max_epi16(vc, vpp), _mm_min_epi16(vc, vpp));
    const __m128i d3 = _mm_sub_epi16(_mm_max_epi16(vp, vpp), _mm_min_epi16(vp, vpp));
    __m128i unsteady = _mm_or_si128(_mm_cmpgt_epi16(d1, tol), _mm_cmpgt_epi16(d2, tol));
    unsteady = _mm_or_si128(unsteady, _mm_or_si128(_mm_cmpgt_epi16(d3, tol), _mm_cmpeq_epi16(vc, zero)));
    const __m128i run = _mm_adds_epu16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(steady + i)), one);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(steady + i), _mm_andnot_si128(unsteady, run));
  }
#endif
  for (; i < n; ++i) {
    const int32_t tol = steady_tolerance(c[i]);
    const bool ok = c[i] != 0 && std::abs(int32_t(c[i]) - p[i]) <= tol && std::abs(int32_t(c[i]) - pp[i]) <= tol &&
                    std::abs(int32_t(p[i]) - pp[i]) <= tol;
    steady[i] = ok ? saturating_increment(steady[i]) : uint16_t{0};
  }
}

void BackgroundModel::start(int32_t w, int32_t h, const uint16_t* shiftToDepth, uint32_t length,
                            const Mapper* mapper) {
  shiftToDepth_ = shiftToDepth;
  shiftToDepthLength_ = shiftToDepth ? length : 0;
  mapper_ = mapper;
  allocate(w, h);
  reset();
  reinitialise = false;
  timestamps.reset();
  foregroundChange.reset();
  receding.reset();
  newBackground.reset();
}

void BackgroundModel::reset() {
  untouched = true;
  badFrame = false;
  sceneChanging = false;
  framesSinceReset = kResetRequested;
}

void BackgroundModel::allocate(int32_t w, int32_t h) {
  width = w;
  height = h;
  pixelCount = w * h;
  for (Array2D<uint16_t>* image : {&background, &foreground, &filteredBackground, &zeroRun, &shadowRun,
                                   &nearChange, &steadyRun, &nearNext_}) {
    image->resize(w, h);
    image->clear();
  }
  absorbCounter.resize(w, h);
  absorbCounter.clear();
  regionLabel.resize(w, h);
  regionLabel.clear();
  bodyChange.resize(w, h);
  bodyChange.clear();
  forgotten.resize(w, h);
  forgotten.clear();
  filterScratch_.resize(w + kMinFilterScratchExtra);
  regionSets_.reserve(pixelCount + 1);
  regions_.reserve(size_t(pixelCount) + 1);
}

uint32_t BackgroundModel::area_scale() const {
  if (mapper_ == nullptr) return 0;
  const double k = double(1u << kAreaDepthShift) * mapper_->inverseFocal;
  return static_cast<uint32_t>(k * k);
}

bool BackgroundModel::frame_is_bad(const BackgroundInputs& in) const {
  const uint16_t* c = in.shift->data();
  int32_t invalid = 0;
  for (int32_t i = 0; i < pixelCount; ++i) invalid += c[i] == 0;
  const ValidBox& b = in.validBox;
  const int64_t twiceBoxArea = 2 * int64_t(b.right - b.left) * int64_t(b.bottom - b.top);
  return invalid > kBadFrameInvalidShare * pixelCount || twiceBoxArea < pixelCount;
}

void BackgroundModel::update(const BackgroundInputs& in) {
  if (in.shift->width() != width || in.shift->height() != height) {
    allocate(in.shift->width(), in.shift->height());
    reset();
  }
  const uint32_t scale = area_scale();
  resetThisFrame = false;

  if (reinitialise) {
    background = *in.shift;
    forgotten.clear();
    zeroRun.clear();
    shadowRun.clear();
    framesSinceReset = 0;
    resetThisFrame = true;
    reinitialise = false;
    badFrame = frame_is_bad(in);
    foregroundChange.push(0);
    receding.push(0);
    newBackground.push(0);
  } else {
    if (badFrame || framesSinceReset == kResetRequested) {
      resetThisFrame = true;
      zeroRun.clear();
      shadowRun.clear();
      background.fill(kAcceptAny);
      forgotten.clear();
    }
    uint64_t recedeArea = 0, newArea = 0;
    for (int32_t y = 0; y < height; ++y) {
      const uint16_t* c = in.shift->row(y);
      const uint16_t* p = in.shiftPrevious->row(y);
      const uint16_t* pp = in.shiftBefore->row(y);
      const uint16_t* h = in.shadow->row(y);
      const uint16_t* raw = in.raw->row(y);
      uint16_t* b = background.row(y);
      uint16_t* zr = zeroRun.row(y);
      uint16_t* sr = shadowRun.row(y);
      for (int32_t x = 0; x < width; ++x) {
        if (c[x] != 0 || h[x] != 0) {
          zr[x] = 0;
          sr[x] = h[x] != 0 ? saturating_increment(sr[x]) : uint16_t{0};
        } else {
          zr[x] = saturating_increment(zr[x]);
          sr[x] = 0;
        }
        // A shadow cast by something farther than the background contradicts it.
        if (c[x] == 0 && int32_t(h[x]) > int32_t(b[x]) + kShadowBeyondMargin && sr[x] >= kShadowFrames) b[x] = 0;
      }
      for (int32_t x = 0; x < width; ++x) {
        if (zr[x] > kBlankFrames) b[x] = 0;
        if (b[x] != 0 && c[x] > b[x]) {
          if (b[x] == kAcceptAny) {
            const uint32_t a = area_of(raw[x]);
            recedeArea += a;
            newArea += a;
          } else {
            recedeArea += area_of(depth_of(b[x]));
          }
          const int32_t cp = std::abs(int32_t(c[x]) - p[x]);
          const int32_t cpp = std::abs(int32_t(c[x]) - pp[x]);
          const int32_t ppp = std::abs(int32_t(p[x]) - pp[x]);
          if (std::max({cp, cpp, ppp}) < kRecedeSteadiness) b[x] = c[x];
        }
      }
    }
    foregroundChange.push(0);
    receding.push(static_cast<uint32_t>(std::min<uint64_t>(recedeArea * scale, UINT32_MAX)));
    newBackground.push(static_cast<uint32_t>(std::min<uint64_t>(newArea * scale, UINT32_MAX)));
    framesSinceReset = std::min(framesSinceReset + 1, kSettledFrames);
    badFrame = frame_is_bad(in);
  }

  update_near_change(in);
  detect_motion(static_cast<double>(in.timestampMs) * kSecondsPerMs);

  if (reinitialise) {
    nearChange.clear();
    bodyChange.clear();
    foreground.clear();
    resetThisFrame = true;
  } else {
    validate_regions(in);
    compute_foreground(*in.shift);
  }
  untouched = false;
}

// What the fast-change test counts.
//
// The near change image holds everything that stands in front of the background, and people
// are most of it. Someone who walks in briskly, or two or three people who come in together,
// add their whole bodies to it within a few frames, which is as fast as a change of the scene
// (a camera knocked, a screen rolled down). Left in, every brisk entrance would rebuild the
// background with the people inside it, hold back their ids, and let their ghosts fire the
// receding test as they walk on.
//
// So the near changes are cut into connected regions (4-connected, neighbours within
// kBodyJoinMm of each other in depth) and a region that is no bigger than one person (its
// box at most kBodyMaxWidthMm wide and kBodyMaxHeightMm tall at its mean depth, its area at
// most kBodyMaxArea; the users stage's largest person) counts as a body, unless it spans the image from the left to the
// right side or covers half of it (a wall that the camera was knocked against can be as
// small as a person in millimetres). The foreground-change ring receives the gain minus the
// loss of the near change image as always (a gain counts with the current depth and only
// where the previous raw depth was valid, a loss with the previous depth), except that a
// pixel that appears as part of a body, or disappears after being part of one in the
// previous frame, is not counted. Pixels that stay near changes count neither way, so a
// body that merges with something large (people who stand side by side) adds nothing at
// once. A change of the scene still shows: a moved camera or a large object brought near
// produces regions larger than anybody. The near change image itself, which the region
// validation and the foreground use, is left whole.
void BackgroundModel::update_near_change(const BackgroundInputs& in) {
  if (untouched) {
    nearChange.clear();
    bodyChange.clear();
  }
  mark_bodies(in);
  int64_t gained = 0, lost = 0;
  for (int32_t i = 0; i < pixelCount; ++i) {
    const uint16_t value = nearNext_[i], old = nearChange[i];
    const int32_t root = regionLabel[i];
    const uint8_t body = root != 0 && bodies_[size_t(root)].body ? 1 : 0;
    if (old == 0 && value != 0 && body == 0 && (*in.rawPrevious)[i] != 0) gained += area_of(value);
    if (old != 0 && value == 0 && bodyChange[i] == 0) lost += area_of(old);
    bodyChange[i] = body;
  }
  nearChange = nearNext_;
  const int64_t change = (gained - lost) * int64_t(area_scale());
  foregroundChange.newest() = static_cast<int32_t>(std::clamp<int64_t>(change, INT32_MIN, INT32_MAX));
}

// Fills nearNext_ with this frame's near changes, cuts them into regions (regionLabel holds
// each pixel's root, 0 off the near changes) and decides which regions are bodies.
void BackgroundModel::mark_bodies(const BackgroundInputs& in) {
  constexpr int32_t kBodyJoinMm = 200;
  // One person's limits are the users stage's: what it could take as a person is a body here.
  constexpr double kBodyMaxWidthMm = users_rules::kPersonMaxWidth;
  constexpr double kBodyMaxHeightMm = users_rules::kPersonMaxHeight;
  constexpr int64_t kBodyMaxArea = users_rules::kPersonMaxArea;

  const uint16_t* c = in.shift->data();
  const uint16_t* b = background.data();
  auto isNear = [&](int32_t i) { return c[i] != 0 && (b[i] == 0 || int32_t(c[i]) < int32_t(b[i]) - kNearMargin); };
  const uint16_t* raw = in.raw->data();
  uint16_t* near = nearNext_.data();
  for (int32_t i = 0; i < pixelCount; ++i) near[i] = isNear(i) ? raw[i] : uint16_t{0};
  regionSets_.reset(1);
  op::label_components(regionSets_, regionLabel.data(), op::RasterWindow::whole(width, height), isNear,
                       [&](int32_t i, int32_t n) { return std::abs(int32_t(near[i]) - near[n]) <= kBodyJoinMm; });
  if (regionSets_.size() <= 1) return;

  bodies_.assign(size_t(regionSets_.size()), BodySummary{});
  for (int32_t y = 0; y < height; ++y) {
    const uint16_t* nearRow = nearNext_.row(y);
    int32_t* label = regionLabel.row(y);
    // One run of pixels with the same provisional label at a time.
    for (int32_t x = 0; x < width;) {
      const int32_t provisional = label[x];
      if (provisional == 0) {
        ++x;
        continue;
      }
      const int32_t root = regionSets_.find(provisional);
      const int32_t start = x;
      int64_t area = 0, depthSum = 0;
      for (; x < width && label[x] == provisional; ++x) {
        label[x] = root;
        area += area_of(nearRow[x]);
        depthSum += nearRow[x];
      }
      BodySummary& r = bodies_[size_t(root)];
      r.area += area;
      r.depthSum += depthSum;
      r.pixels += x - start;
      r.minColumn = std::min(r.minColumn, start), r.maxColumn = std::max(r.maxColumn, x - 1);
      r.minRow = std::min(r.minRow, y), r.maxRow = std::max(r.maxRow, y);
    }
  }
  const int64_t scale = area_scale();
  for (BodySummary& r : bodies_) {
    if (r.pixels == 0) continue;
    const double pixelSize =
        mapper_ != nullptr ? mapper_->pixel_size_at(uint32_t(r.depthSum / r.pixels)) : 0.0;
    const bool spans = r.minColumn == 0 && r.maxColumn == width - 1;
    r.body = !spans && 2 * r.pixels <= pixelCount && r.area * scale <= kBodyMaxArea &&
             (r.maxColumn - r.minColumn + 1) * pixelSize <= kBodyMaxWidthMm &&
             (r.maxRow - r.minRow + 1) * pixelSize <= kBodyMaxHeightMm;
  }
}

void BackgroundModel::detect_motion(double t) {
  timestamps.push(t);
  if (untouched) return;
  bool detected = false;
  changeDepth = 0;

  // The warm-up after a rebuild (0 on) and after the reset state began (kResetRequested + 1 on).
  if ((framesSinceReset >= kMotionWarmUpFrames && framesSinceReset <= kResetRequested) ||
      framesSinceReset >= kSettledFrames) {
    double sum = 0;
    for (int k = 0; k < foregroundChange.count() && k + 1 < timestamps.count(); ++k) {
      sum += foregroundChange[k];
      const double dt = t - timestamps[k + 1];
      if (dt <= 0) continue;
      const double threshold = kFastChangeBase + kFastChangeStep * k;
      if ((k + 1) * sum / dt > threshold) {
        detected = true;
        changeDepth = uint32_t(k);
      }
    }
  }

  double appeared = 0;
  for (int j = 0; j < newBackground.count(); ++j) appeared += newBackground[j] * kRecedeWeights[j];
  for (int m = 1; m < receding.count() && m < timestamps.count(); ++m) {
    if (receding[m] == 0) break;
    const double dt = t - timestamps[m];
    if (dt <= 0) continue;
    const double moved = std::trunc((double(receding[0]) - double(receding[m])) - appeared);
    const double rate = moved * m / dt;
    if (rate > kRecedeBase + kRecedeStep * m) {
      detected = true;
      changeDepth = std::max(changeDepth, uint32_t(m - 1));
    }
  }

  if (detected || sceneChanging == detected) {
    sceneChanging = detected;
  } else {
    // The change has settled: start over from the scene as it is now.
    reinitialise = true;
    framesSinceReset = 0;
    sceneChanging = false;
  }
}

// Region validation.
//
// The near changes are cut into 4-connected regions (neighbours join when their shifts differ
// by at most the steadiness tolerance 2 + shift / 256). A region is held, and left alone,
// when any of its pixels carries a user id in the users stage's label map or lies inside an
// active user's box: a person who stands still is never swallowed while they are a user.
// Every other region is tested against the three-frame shift history; a pixel is steady in
// a frame when its current, previous and before-previous shifts differ pairwise by at most
// the tolerance, and steadyRun counts such frames in a row. Two kinds of region join the
// background here:
//  - flecks: at most 4 pixels (smaller than any person the engine can label) steady for 15
//    frames; these are depth-edge noise that would otherwise linger as foreground;
//  - uncovered surfaces: regions with no known background behind any pixel (background 0,
//    e.g. where the camera saw nothing before a door opened) steady for 90 frames.
// Everything else (an object placed in front of a known background, a person who is not
// yet a user) stays foreground until the absorption of the pipeline takes it after 151
// frames or the users stage hands it back; a receding surface (furniture moved away, a door
// opened) is followed at once by the farthest-stable rule of the update.
void BackgroundModel::validate_regions(const BackgroundInputs& in) {
  constexpr int32_t kFleckPixels = 4;
  constexpr uint16_t kFleckFrames = 15;
  constexpr uint16_t kUncoveredFrames = 90;

  const Array2D<uint16_t>& c = *in.shift;
  const Array2D<uint16_t>& p = *in.shiftPrevious;
  const Array2D<uint16_t>& pp = *in.shiftBefore;
  update_steady_runs(c.data(), p.data(), pp.data(), steadyRun.data(), pixelCount);

  const uint16_t* near = nearChange.data();
  const uint16_t* s = c.data();
  regionSets_.reset(1);
  op::label_components(regionSets_, regionLabel.data(), op::RasterWindow::whole(width, height),
                       [&](int32_t i) { return near[i] != 0; },
                       [&](int32_t i, int32_t n) { return std::abs(int32_t(s[i]) - s[n]) <= steady_tolerance(s[i]); });
  if (regionSets_.size() <= 1) return;

  regions_.assign(size_t(regionSets_.size()), RegionSummary{0, UINT16_MAX, false, true});
  const Array2D<uint16_t>* labels = in.labels;
  const bool labelsUsable = labels != nullptr && labels->width() == width && labels->height() == height;
  for (int32_t y = 0; y < height; ++y) {
    int32_t* label = regionLabel.row(y);
    for (int32_t x = 0; x < width; ++x) {
      if (label[x] == 0) continue;
      const int32_t root = regionSets_.find(label[x]);
      label[x] = root;
      RegionSummary& r = regions_[size_t(root)];
      const int32_t i = y * width + x;
      ++r.pixels;
      r.minSteady = std::min(r.minSteady, steadyRun[i]);
      if (background[i] != 0) r.unknownBehind = false;
      if (labelsUsable && (*labels)[i] != kNobody) r.held = true;
      for (int32_t k = 0; k < in.userBoxCount && !r.held; ++k) {
        if (in.userBoxes[k].contains_pixel(x, y)) r.held = true;
      }
    }
  }
  for (int32_t i = 0; i < pixelCount; ++i) {
    const int32_t root = regionLabel[i];
    if (root == 0) continue;
    const RegionSummary& r = regions_[size_t(root)];
    if (r.held) continue;
    const bool fleck = r.pixels <= kFleckPixels && r.minSteady >= kFleckFrames;
    const bool uncovered = r.unknownBehind && r.minSteady >= kUncoveredFrames;
    if (fleck || uncovered) {
      background[i] = c[i];
      nearChange[i] = 0;
    }
  }
}

void BackgroundModel::compute_foreground(const Array2D<uint16_t>& shift) {
  min_filter_3x3(background.data(), filteredBackground.data(), width, height, filterScratch_.data());
  for (int32_t i = 0; i < pixelCount; ++i) {
    const int32_t c = shift[i];
    foreground[i] = (c != 0 && c < int32_t(filteredBackground[i]) - kNearMargin) ? 1 : 0;
  }
}

void BackgroundModel::take_region(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& labels, uint16_t id,
                                  const Box3D<int>& box, int32_t weight) {
  if (box.empty() || !labels.same_shape(background)) return;
  const int32_t x0 = std::max(box.minX, 0), x1 = std::min(box.maxX, width - 1);
  const int32_t y0 = std::max(box.minY, 0), y1 = std::min(box.maxY, height - 1);
  for (int32_t y = y0; y <= y1; ++y) {
    for (int32_t x = x0; x <= x1; ++x) {
      if (labels.at(x, y) == id) background.at(x, y) = shift.at(x, y);
    }
  }
  newBackground.newest() += static_cast<uint32_t>(std::max(weight, 0));
}

void BackgroundModel::take_pixels(const Array2D<uint16_t>& shift, const Array2D<uint8_t>& mask) {
  if (mask.width() != width || mask.height() != height) return;
  for (int32_t i = 0; i < pixelCount; ++i) {
    if (mask[i] != 0 && shift[i] != 0) background[i] = shift[i], forgotten[i] = 0;
  }
}

void BackgroundModel::forget(const Array2D<uint16_t>& labels, uint16_t id) {
  if (!labels.same_shape(background)) return;
  for (int32_t i = 0; i < pixelCount; ++i) {
    if (labels[i] == id) background[i] = 0, forgotten[i] = 1;
  }
}

void BackgroundModel::absorb(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& labels) {
  const bool labelsUsable = labels.same_shape(background);
  for (int32_t i = 0; i < pixelCount; ++i) {
    const bool nobody = !labelsUsable || labels[i] == kNobody;
    if (forgotten[i] != 0 && nobody && steadyRun[i] >= kRelearnFrames) {
      background[i] = shift[i];
      forgotten[i] = 0;
    }
    if (foreground[i] != 0 && nobody) {
      if (++absorbCounter[i] >= kAbsorbFrames) {
        background[i] = shift[i];
        absorbCounter[i] = 0;
      }
    } else {
      absorbCounter[i] = 0;
    }
  }
}

}  // namespace quorvik::legacy
