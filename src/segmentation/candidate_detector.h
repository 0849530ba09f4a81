#pragma once
// Person candidates: person-shaped objects found without the background model. Every row is
// scanned for near segments of human width (runs), runs are stacked into vertical chains,
// chains whose footprints seen from above overlap are grouped into detections, and
// detections are followed from frame to frame as tracked candidates. A candidate at least
// 800 mm tall that has moved more than 200 mm is confirmed; the users stage turns confirmed
// candidates into new users.
//
// All storage is fixed and lives inside the engine; capacity limits are silent (runs that
// find no free chain, detections beyond kMaxDetections and candidates beyond kMaxCandidates
// are dropped).

#include <cstdint>
#include <span>

#include "op/union_find.h"
#include "segmentation/containers.h"
#include "segmentation/seg_coordinate_mapper.h"

namespace quorvik::legacy {

struct CandidateRun {
  int32_t row;
  int32_t start;  // first column
  int32_t end;    // last column
  uint16_t startDepth;
  uint16_t endDepth;
};
static_assert(sizeof(CandidateRun) == 16);

struct CandidateChain {
  static constexpr int32_t kMaxRuns = 500;
  CandidateRun runs[kMaxRuns];
  int32_t runCount;
  int32_t minColumn, maxColumn;
  double area;  // square millimetres
  int32_t medianStartDepth, medianEndDepth;
  double medianDepth, medianX;
  int32_t depth10, depth90, x10, x90;
  double footprint;
  int32_t group;
};

// One detection as a tracked candidate remembers it.
struct CandidateSnapshot {
  double medianX = 0, medianDepth = 0;  // position seen from above (world x, depth)
  double cornerX[2] = {0, 0};           // footprint corners (world x, depth): the 10th and
  double cornerDepth[2] = {0, 0};       // 90th percentile ends
  int32_t minColumn = 0, maxColumn = 0, minRow = 0, maxRow = 0;
  int32_t minDepth = 0, maxDepth = 0;  // millimetres
};

struct CandidateDetection {
  double x10, x90, medianStartDepth, medianEndDepth, medianX, medianDepth;
  int32_t depth10, depth90;
  int32_t minColumn, maxColumn, minRow, maxRow;
  double area;
  bool matched;
  bool nearCandidate;
  int32_t holder;  // index of the tracked candidate holding it, -1 none
  CandidateSnapshot snapshot() const;
};

struct TrackedCandidate {
  static constexpr int32_t kHistory = 100;

  const CandidateSnapshot& latest() const { return history[(next + kHistory - 1) % kHistory]; }
  void record(const CandidateSnapshot& s);
  // Image box (x, y in pixels) and depth range (millimetres) of the latest snapshot.
  Box3D<int> box() const;

  uint32_t id = 0;
  int32_t match = -1;  // detection matched this frame
  CandidateSnapshot history[kHistory];
  int32_t next = 0;  // where the next snapshot goes
  bool wrapped = false;
  double area = 0;
  bool moved = false;
  bool confirmed = false;
  bool newlyConfirmed = false;
};

class PersonCandidateDetector {
 public:
  static constexpr int32_t kMaxChains = 2000;
  static constexpr int32_t kMaxDetections = 256;
  static constexpr int32_t kMaxCandidates = 32;
  static constexpr int32_t kNearMm = 4500;

  void start(int32_t width, int32_t height, const uint16_t* shiftToDepth, const uint16_t* depthToShift,
             bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper);
  void process(const Array2D<uint16_t>& raw, const Array2D<uint16_t>& shift, const Array2D<uint16_t>& shadow);

  std::span<const TrackedCandidate> tracked() const { return {candidates_, size_t(candidateCount_)}; }
  std::span<const CandidateDetection> detections() const { return {detections_, size_t(detectionCount_)}; }
  int32_t chain_count() const { return chainCount_; }
  int32_t kept_chain_count() const { return keptCount_; }
  const Array2D<int32_t>& edges() const { return edges_; }

 private:
  void mark_edges(const Array2D<uint16_t>& shift, const Array2D<uint16_t>& shadow);
  void build_chains();
  void summarise(CandidateChain& chain);
  void group_chains();
  void build_detections();
  void track();
  double pixel_size(int32_t depth) const { return mapper_->pixel_size_at(uint32_t(depth < 0 ? 0 : depth)); }
  int32_t world_x(int32_t column, int32_t depth) const {
    return int32_t((column - mapper_->centerX) * pixel_size(depth));
  }

  int32_t width_ = 0, height_ = 0;
  const uint16_t* shiftToDepth_ = nullptr;
  const uint16_t* depthToShift_ = nullptr;
  bool mirrored_ = false;
  const skeleton::SegCoordinateMapper<double>* mapper_ = nullptr;
  Array2D<int32_t> edges_;
  Array2D<uint16_t> depth_;

  CandidateChain chains_[kMaxChains];
  int32_t chainCount_ = 0;
  int32_t kept_[kMaxChains];
  int32_t keptCount_ = 0;
  int32_t open_[kMaxChains];
  op::UnionFind groups_;  // of the kept chains
  int32_t groupOf_[kMaxChains];
  int32_t values_[2 * CandidateChain::kMaxRuns];
  int32_t extra_[2 * CandidateChain::kMaxRuns];

  CandidateDetection detections_[kMaxDetections];
  int32_t detectionCount_ = 0;
  TrackedCandidate candidates_[kMaxCandidates];
  int32_t candidateCount_ = 0;
  uint32_t nextId_ = 0;
};

}  // namespace quorvik::legacy
