#pragma once
// Labels one user's pixels with body parts. A coarse-to-fine schedule classifies a sparse
// grid first (steps 8, 4, 2) and copies answers between grid points whose neighbours
// agree; each grid level runs the whole forest in parallel on the tracker's pool.
// Candidate segments proposed for the user are accepted or rejected one at a time by how
// confidently the forest classifies them.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "classifier/classify_params.h"
#include "classifier/depth_features.h"
#include "classifier/packed_forest.h"
#include "classifier/user_statistics.h"
#include "forest/decision_forest.h"
#include "op/image.h"
#include "op/pixel_label.h"
#include "op/region_box.h"
#include "op/task_set.h"

namespace spdlog {
class logger;
}
namespace op {
class ThreadPool;
}

namespace quorvik::skeleton {


// What the classifier reads of a per-user record.
struct ClassifierUser {
  uint8_t id = 0;
  std::span<const uint16_t> labels;            // the segments that make up the user
  std::span<const uint16_t> candidate_labels;  // segments proposed for the user
};

class FrameClassifier {
 public:
  // Threads of the pool that can run at once, at least, for a level to be split among them.
  uint64_t splitThreads = 4;

  // Classifies with a packed copy of the forest (none without one): the forest itself may
  // go once the classifier is built, and with it the dense leaves, most of its memory.
  explicit FrameClassifier(const DecisionForest* forest);
  // Takes the forest and frees each tree as soon as it is packed.
  explicit FrameClassifier(DecisionForest&& forest);
  ~FrameClassifier();
  FrameClassifier(const FrameClassifier&) = delete;
  FrameClassifier& operator=(const FrameClassifier&) = delete;

  size_t tree_count() const { return packed_ != nullptr ? packed_->tree_count() : 0; }

  // Classifies the user's own segments, after judging each candidate segment in order.
  // `labels` and `user_ids` must have been cleared by the caller for this frame; `score`
  // gets the last pass's mean probability and `region` grows over every target box.
  void classify_user(const op::Image<uint16_t>& depth, const op::Image<uint16_t>& label_map,
                     const ClassifierUser& user, float threshold,
                     op::Image<PixelLabel>& labels, op::Image<uint8_t>& user_ids,
                     float& score, RegionBox& region, op::ThreadPool& pool);

  // One pass over the pixels of `target_labels`; probes may read the pixels of
  // `context_labels`. Pixels it touches get kUnresolvedUser in `user_ids`.
  void classify_segments(const op::Image<uint16_t>& depth,
                         const op::Image<uint16_t>& label_map,
                         const UserStatistics& statistics,
                         std::span<const uint16_t> target_labels,
                         std::span<const uint16_t> context_labels,
                         op::Image<PixelLabel>& labels, op::Image<uint8_t>& user_ids,
                         float& score, RegionBox& region, op::ThreadPool& pool);

  // Classifies the grid of one level with every tree and combines the trees' leaves, split
  // by grid rows into one task per thread that can run at once, the caller's included.
  void classify_subframe_LOD_parallel(const op::Image<uint16_t>& depth,
                                      const ClassifyParams& params,
                                      op::Image<PixelLabel>& labels,
                                      op::Image<uint8_t>& user_ids);

  // Combines the trees' leaves of the level, reading the forest's leaves through its
  // packed copy.
  static void accumulate_distributions_parallel(const PackedForest& forest,
                                                const std::vector<op::Image<uint32_t>>& node_images,
                                                const ClassifyParams& params,
                                                op::Image<PixelLabel>& labels,
                                                spdlog::logger& logger,
                                                op::Image<uint8_t>& user_ids,
                                                op::HelpGauge* gauge = nullptr);

 private:
  // The steps of one pass. The boxes are {x0, y0, x1, y1}, inclusive; empty when x0 > x1.
  // Flags the pixels of both lists and bounds each kind by its box.
  void flag_pixels(const op::Image<uint16_t>& depth, const op::Image<uint16_t>& label_map,
                   std::span<const uint16_t> target_labels, std::span<const uint16_t> context_labels,
                   int32_t target_box[4], int32_t context_box[4]);
  float mean_target_depth(const op::Image<uint16_t>& depth, const int32_t box[4]) const;
  // Every grid level from the coarsest, each result copied to the pixels between agreeing
  // grid points.
  void classify_levels(const op::Image<uint16_t>& depth, ClassifyParams& params, op::Image<PixelLabel>& labels,
                       op::Image<uint8_t>& user_ids);
  void fill_unfinished(const op::Image<uint16_t>& depth, const int32_t box[4], op::Image<PixelLabel>& labels,
                       op::Image<uint8_t>& user_ids) const;
  // Mean probability of the pixels the pass marked in its box.
  static float pass_score(const op::Image<PixelLabel>& labels, const op::Image<uint8_t>& user_ids,
                          const int32_t box[4]);

  // Combines the leaves of grid rows share, share + shares, ... of the level.
  static void accumulate_rows(const PackedForest& forest, const std::vector<op::Image<uint32_t>>& node_images,
                              const ClassifyParams& params, op::Image<PixelLabel>& labels,
                              op::Image<uint8_t>& user_ids, uint32_t share, uint32_t shares);

  std::unique_ptr<PackedForest> packed_;  // null without a forest
  op::Image<uint8_t> working_flags_;
  op::Image<uint8_t> flags_;
  std::vector<uint16_t> context_labels_;
  std::vector<uint16_t> target_labels_;
  std::vector<uint8_t> label_bits_ = std::vector<uint8_t>(65536, 0);  // PixelFlags per segment label
  std::vector<op::Image<uint32_t>> node_images_;                        // one per tree
  ProbeImage probes_;
  FeatureTable features_;
  op::HelpGauge gauge_;  // whether the pool's workers currently help
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace quorvik::skeleton
