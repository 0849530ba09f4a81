#include "segmentation/candidate_detector.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace quorvik::legacy {

namespace {

constexpr int32_t kInvalidDepth = 20000;
constexpr int32_t kEdgeStep = 100;          // depth jump (mm) that makes an edge
constexpr int32_t kRunDepthSpread = 700;    // largest depth difference of a run's ends
constexpr double kRunMinWidth = 30.0;       // mm
constexpr double kRunMaxWidth = 700.0;      // mm
constexpr int32_t kChainDepthStep = 201;    // largest depth change from row to row (exclusive)
constexpr double kMinDetectionArea = 100001.0;  // mm^2
constexpr double kMatchDistance = 100.0;    // mm, seen from above
constexpr double kConfirmHeight = 800.0;    // mm
constexpr double kMovedDistance = 200.0;    // mm

}  // namespace

CandidateSnapshot CandidateDetection::snapshot() const {
  CandidateSnapshot s;
  s.medianX = medianX;
  s.medianDepth = medianDepth;
  s.cornerX[0] = x10, s.cornerDepth[0] = depth10;
  s.cornerX[1] = x90, s.cornerDepth[1] = depth90;
  s.minColumn = minColumn, s.maxColumn = maxColumn, s.minRow = minRow, s.maxRow = maxRow;
  s.minDepth = depth10, s.maxDepth = depth90;
  return s;
}

void TrackedCandidate::record(const CandidateSnapshot& s) {
  history[next] = s;
  next = (next + 1) % kHistory;
  if (next == 0) wrapped = true;
}

Box3D<int> TrackedCandidate::box() const {
  const CandidateSnapshot& s = latest();
  Box3D<int> b;
  b.add(s.minColumn, s.minRow, s.minDepth);
  b.add(s.maxColumn, s.maxRow, s.maxDepth);
  return b;
}

void PersonCandidateDetector::start(int32_t width, int32_t height, const uint16_t* shiftToDepth,
                                    const uint16_t* depthToShift, bool mirrored,
                                    const skeleton::SegCoordinateMapper<double>* mapper) {
  width_ = width;
  height_ = height;
  shiftToDepth_ = shiftToDepth;
  depthToShift_ = depthToShift;
  mirrored_ = mirrored;
  mapper_ = mapper;
  groups_.reserve(kMaxChains);
  edges_.resize(width, height);
  edges_.clear();
  depth_.resize(width, height);
  depth_.clear();
  chainCount_ = keptCount_ = detectionCount_ = candidateCount_ = 0;
  nextId_ = 0;
}

void PersonCandidateDetector::process(const Array2D<uint16_t>& raw, const Array2D<uint16_t>& shift,
                                      const Array2D<uint16_t>& shadow) {
  if (mapper_ == nullptr || raw.width() != width_ || raw.height() != height_ || !raw.same_shape(shift) ||
      !raw.same_shape(shadow) || width_ < 2) {
    return;
  }
  for (int32_t i = 0; i < raw.size(); ++i) depth_[i] = raw[i] == 0 ? uint16_t{kInvalidDepth} : raw[i];
  mark_edges(shift, shadow);
  build_chains();
  group_chains();
  build_detections();
  track();
}

void PersonCandidateDetector::mark_edges(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& shadow) {
  for (int32_t y = 0; y < height_; ++y) {
    const uint16_t* d = depth_.row(y);
    const uint16_t* s = shift.row(y);
    const uint16_t* h = shadow.row(y);
    int32_t* e = edges_.row(y);
    for (int32_t x = 0; x + 1 < width_; ++x) {
      const int32_t d0 = d[x], d1 = d[x + 1];
      const int32_t step = d0 - d1;
      int32_t mark = 0;
      // The side of a near object on which the sensor casts its shadow only counts as an
      // edge when that shadow is not the object's own.
      if (!mirrored_) {
        if (step > kEdgeStep) {
          mark = d1 <= kNearMm ? 1 : 0;
        } else if (step < -kEdgeStep) {
          mark = (d0 <= kNearMm && (h[x + 1] == 0 || h[x + 1] > s[x])) ? -1 : 0;
        }
      } else {
        if (step >= kEdgeStep + 1) {
          mark = ((h[x] == 0 || h[x] > s[x + 1]) && d1 <= kNearMm) ? 1 : 0;
        } else if (step < -kEdgeStep) {
          mark = d0 <= kNearMm ? -1 : 0;
        }
      }
      e[x] = mark;
    }
    e[width_ - 1] = -1;
  }
}

void PersonCandidateDetector::build_chains() {
  chainCount_ = 0;
  int32_t openCount = 0;
  for (int32_t y = 0; y < height_; ++y) {
    const int32_t* e = edges_.row(y);
    const uint16_t* d = depth_.row(y);
    bool runOpen = false;
    int32_t start = 0, startDepth = 0;
    for (int32_t x = 0; x + 1 < width_; ++x) {
      if (e[x] == 1) {
        runOpen = true;
        start = x + 1;
        startDepth = d[x + 1];
        continue;
      }
      if (e[x] != -1 || !runOpen) continue;
      const int32_t endDepth = d[x];
      if (std::abs(endDepth - startDepth) > kRunDepthSpread) continue;
      const double worldWidth = (x - start) * pixel_size((endDepth + startDepth) / 2);
      if (worldWidth < kRunMinWidth || worldWidth > kRunMaxWidth) continue;
      runOpen = false;
      const CandidateRun run{y, start, x, uint16_t(startDepth), uint16_t(endDepth)};

      int32_t target = -1;
      for (int32_t k = 0; k < openCount && target < 0; ++k) {
        CandidateChain& chain = chains_[open_[k]];
        const CandidateRun& last = chain.runs[chain.runCount - 1];
        if (last.row == y || chain.runCount >= CandidateChain::kMaxRuns) continue;
        const int32_t overlap = std::min(last.end, run.end) - std::max(last.start, run.start);
        const int32_t longer = std::max(last.end - last.start, run.end - run.start);
        if (5 * overlap < 4 * longer) continue;
        if (std::abs(int32_t(last.startDepth) - run.startDepth) >= kChainDepthStep ||
            std::abs(int32_t(last.endDepth) - run.endDepth) >= kChainDepthStep) {
          continue;
        }
        target = open_[k];
      }
      if (target < 0) {
        if (chainCount_ >= kMaxChains) continue;
        target = chainCount_++;
        chains_[target].runCount = 0;
        open_[openCount++] = target;
      }
      CandidateChain& chain = chains_[target];
      chain.runs[chain.runCount++] = run;
    }
    // Chains not continued in this row are finished.
    int32_t kept = 0;
    for (int32_t k = 0; k < openCount; ++k) {
      const CandidateChain& chain = chains_[open_[k]];
      if (chain.runs[chain.runCount - 1].row == y) open_[kept++] = open_[k];
    }
    openCount = kept;
  }

  const int32_t minRuns = 5 * (width_ / 320);
  keptCount_ = 0;
  for (int32_t i = 0; i < chainCount_; ++i) {
    if (chains_[i].runCount >= minRuns) {
      summarise(chains_[i]);
      kept_[keptCount_++] = i;
    }
  }
}

void PersonCandidateDetector::summarise(CandidateChain& chain) {
  const int32_t n = chain.runCount;
  chain.minColumn = width_;
  chain.maxColumn = -1;
  double area = 0;
  for (int32_t i = 0; i < n; ++i) {
    const CandidateRun& r = chain.runs[i];
    chain.minColumn = std::min(chain.minColumn, r.start);
    chain.maxColumn = std::max(chain.maxColumn, r.end);
    const int32_t xs = world_x(r.start, r.startDepth), xe = world_x(r.end, r.endDepth);
    area += std::abs(xe - xs) * double(int32_t(r.startDepth) + r.endDepth);
  }
  chain.area = area / 2.0 * mapper_->inverseFocal;

  auto median = [n](int32_t* values) {
    std::sort(values, values + n);
    return values[std::max(int32_t(n * 0.5 + 0.5) - 1, 0)];
  };
  auto percentiles = [n](int32_t* values, int32_t& p10, int32_t& p90) {
    const int32_t m = 2 * n;
    std::sort(values, values + m);
    p10 = values[std::max(int32_t(m * 0.1 + 0.5), 1) - 1];
    p90 = values[std::clamp(int32_t(m * 0.9 + 0.5) - 1, 0, m - 1)];
  };

  for (int32_t i = 0; i < n; ++i) values_[i] = chain.runs[i].startDepth;
  chain.medianStartDepth = median(values_);
  for (int32_t i = 0; i < n; ++i) values_[i] = chain.runs[i].endDepth;
  chain.medianEndDepth = median(values_);
  chain.medianDepth = (chain.medianStartDepth + chain.medianEndDepth) / 2.0;

  for (int32_t i = 0; i < n; ++i) extra_[i] = world_x(chain.runs[i].start, chain.runs[i].startDepth);
  const int32_t medianStartX = median(extra_);
  for (int32_t i = 0; i < n; ++i) extra_[i] = world_x(chain.runs[i].end, chain.runs[i].endDepth);
  const int32_t medianEndX = median(extra_);
  chain.medianX = (medianStartX + medianEndX) / 2.0;

  for (int32_t i = 0; i < n; ++i) {
    values_[2 * i] = chain.runs[i].startDepth;
    values_[2 * i + 1] = chain.runs[i].endDepth;
    extra_[2 * i] = world_x(chain.runs[i].start, chain.runs[i].startDepth);
    extra_[2 * i + 1] = world_x(chain.runs[i].end, chain.runs[i].endDepth);
  }
  percentiles(values_, chain.depth10, chain.depth90);
  percentiles(extra_, chain.x10, chain.x90);
  chain.footprint = std::abs(double(chain.depth90) - chain.depth10) * std::abs(double(chain.x90) - chain.x10);
}

void PersonCandidateDetector::group_chains() {
  groups_.reset(keptCount_);
  auto inside = [](const CandidateChain& point, const CandidateChain& range) {
    return point.medianDepth > range.depth10 && point.medianDepth < range.depth90 && point.medianX > range.x10 &&
           point.medianX < range.x90;
  };
  for (int32_t i = 0; i < keptCount_; ++i) {
    const CandidateChain& a = chains_[kept_[i]];
    for (int32_t j = i + 1; j < keptCount_; ++j) {
      const CandidateChain& b = chains_[kept_[j]];
      const double overlapX = double(std::min(a.x90, b.x90)) - std::max(a.x10, b.x10);
      const double overlapD = double(std::min(a.depth90, b.depth90)) - std::max(a.depth10, b.depth10);
      const bool footprints =
          overlapX >= 0 && overlapD >= 0 && overlapX * overlapD > 0.5 * std::min(a.footprint, b.footprint);
      if (!footprints && !inside(a, b) && !inside(b, a)) continue;
      groups_.unite(i, j);
    }
  }
  // Compact numbering: groups in order of their first chain.
  groups_.number_sets(groupOf_);
  for (int32_t i = 0; i < keptCount_; ++i) chains_[kept_[i]].group = groupOf_[i];
}

void PersonCandidateDetector::build_detections() {
  detectionCount_ = 0;
  int32_t groups = 0;
  for (int32_t i = 0; i < keptCount_; ++i) groups = std::max(groups, chains_[kept_[i]].group + 1);
  for (int32_t g = 0; g < groups && detectionCount_ < kMaxDetections; ++g) {
    double area = 0;
    for (int32_t i = 0; i < keptCount_; ++i) {
      if (chains_[kept_[i]].group == g) area += chains_[kept_[i]].area;
    }
    if (area < kMinDetectionArea) continue;
    CandidateDetection& det = detections_[detectionCount_++];
    det = CandidateDetection{};
    det.depth10 = INT32_MAX, det.depth90 = INT32_MIN;
    det.minColumn = det.minRow = INT32_MAX;
    det.maxColumn = det.maxRow = INT32_MIN;
    det.area = area;
    det.holder = -1;
    for (int32_t i = 0; i < keptCount_; ++i) {
      const CandidateChain& c = chains_[kept_[i]];
      if (c.group != g) continue;
      const double w = c.area / area;
      det.x10 += w * c.x10, det.x90 += w * c.x90;
      det.medianStartDepth += w * c.medianStartDepth, det.medianEndDepth += w * c.medianEndDepth;
      det.medianX += w * c.medianX, det.medianDepth += w * c.medianDepth;
      det.depth10 = std::min(det.depth10, c.depth10);
      det.depth90 = std::max(det.depth90, c.depth90);
      det.minColumn = std::min(det.minColumn, c.minColumn);
      det.maxColumn = std::max(det.maxColumn, c.maxColumn);
      det.minRow = std::min(det.minRow, c.runs[0].row);
      det.maxRow = std::max(det.maxRow, c.runs[c.runCount - 1].row);
    }
  }
}

void PersonCandidateDetector::track() {
  for (int32_t t = 0; t < candidateCount_; ++t) {
    TrackedCandidate& cand = candidates_[t];
    cand.match = -1;
    cand.newlyConfirmed = false;
    const CandidateSnapshot& p = cand.latest();
    for (int32_t k = 0; k < detectionCount_; ++k) {
      CandidateDetection& det = detections_[k];
      if (std::hypot(det.medianX - p.medianX, det.medianDepth - p.medianDepth) > kMatchDistance) continue;
      det.nearCandidate = true;
      const int32_t overlap = std::min(det.maxRow, p.maxRow) - std::max(det.minRow, p.minRow);
      const int32_t larger = std::max(det.maxRow - det.minRow, p.maxRow - p.minRow);
      if (2 * overlap < larger) continue;
      if (det.holder >= 0 && candidates_[det.holder].area >= cand.area) continue;  // the holder keeps it
      if (det.holder >= 0 && candidates_[det.holder].match == k) candidates_[det.holder].match = -1;
      det.holder = t;
      if (cand.match < 0 || det.area > detections_[cand.match].area) cand.match = k;
    }
  }

  for (int32_t t = 0; t < candidateCount_; ++t) {
    TrackedCandidate& cand = candidates_[t];
    if (cand.match < 0) continue;
    CandidateDetection& det = detections_[cand.match];
    det.matched = true;
    cand.record(det.snapshot());
    cand.area = det.area;
    const CandidateSnapshot& now = cand.latest();
    const double worldHeight = (now.maxRow - now.minRow) * pixel_size(int32_t(now.medianDepth));
    if (worldHeight < kConfirmHeight) {
      cand.confirmed = false;
      continue;
    }
    if (cand.confirmed) continue;
    // Any earlier snapshot, newest first: moved when both footprint corners moved far.
    cand.moved = false;
    const int32_t stored = cand.wrapped ? TrackedCandidate::kHistory : cand.next;
    const int32_t newest = (cand.next + TrackedCandidate::kHistory - 1) % TrackedCandidate::kHistory;
    for (int32_t back = 1; back < stored && !cand.moved; ++back) {
      const CandidateSnapshot& old = cand.history[(newest - back + TrackedCandidate::kHistory) % TrackedCandidate::kHistory];
      const double a = std::hypot(now.cornerX[0] - old.cornerX[0], now.cornerDepth[0] - old.cornerDepth[0]);
      const double b = std::hypot(now.cornerX[1] - old.cornerX[1], now.cornerDepth[1] - old.cornerDepth[1]);
      if (std::min(a, b) > kMovedDistance) cand.moved = true;
    }
    if (cand.moved) {
      cand.confirmed = true;
      cand.newlyConfirmed = true;
    }
  }

  int32_t kept = 0;
  for (int32_t t = 0; t < candidateCount_; ++t) {
    if (candidates_[t].match < 0) continue;
    if (kept != t) candidates_[kept] = candidates_[t];
    ++kept;
  }
  candidateCount_ = kept;

  for (int32_t k = 0; k < detectionCount_ && candidateCount_ < kMaxCandidates; ++k) {
    const CandidateDetection& det = detections_[k];
    if (det.nearCandidate) continue;
    TrackedCandidate& cand = candidates_[candidateCount_++];
    cand = TrackedCandidate{};
    cand.id = nextId_++;
    cand.record(det.snapshot());
    cand.area = det.area;
  }
}

}  // namespace quorvik::legacy
