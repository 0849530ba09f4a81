#include "classifier/frame_classifier.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <spdlog/logger.h>

#include "classifier/arch/dispatch.h"
#include "classifier/depth_features.h"
#include "op/logging.h"
#include "op/task_set.h"
#include "op/thread_pool.h"

namespace quorvik::skeleton {

namespace {

constexpr int64_t kWaitWarnMs = 500;
// Neighbours nearer than this in depth may lend their label to an unfinished pixel.
constexpr int kFillDepthLimit = 100;

// A pass marks pixels of its target box only, and the region covers every target box of
// the call, so the region holds every mark there is.
void mark_pass_pixels(op::Image<uint8_t>& user_ids, uint8_t id, const RegionBox& region) {
  if (region.empty) return;
  // Clamped, as the region the caller passed in may reach beyond the image.
  const int32_t x0 = std::max(region.x0, 0), y0 = std::max(region.y0, 0);
  const int32_t x1 = std::min(region.x1, static_cast<int32_t>(user_ids.width()) - 1);
  const int32_t y1 = std::min(region.y1, static_cast<int32_t>(user_ids.height()) - 1);
  for (int32_t y = y0; y <= y1; ++y) {
    uint8_t* ids = user_ids.row(static_cast<uint32_t>(y));
    for (int32_t x = x0; x <= x1; ++x) {
      if (ids[x] == kUnresolvedUser) ids[x] = id;
    }
  }
}

}  // namespace

FrameClassifier::FrameClassifier(const DecisionForest* forest)
    : packed_(forest != nullptr ? std::make_unique<PackedForest>(*forest) : nullptr),
      logger_(op::get_logger("FrameClassifier")) {}

FrameClassifier::FrameClassifier(DecisionForest&& forest)
    : packed_(std::make_unique<PackedForest>(std::move(forest))), logger_(op::get_logger("FrameClassifier")) {}

FrameClassifier::~FrameClassifier() = default;

void FrameClassifier::classify_user(const op::Image<uint16_t>& depth,
                                    const op::Image<uint16_t>& label_map,
                                    const ClassifierUser& user, float threshold,
                                    op::Image<PixelLabel>& labels,
                                    op::Image<uint8_t>& user_ids, float& score,
                                    RegionBox& region, op::ThreadPool& pool) {
  const UserStatistics statistics =
      computeUserStatistics(depth, label_map, user.labels, user.candidate_labels);
  context_labels_.assign(user.labels.begin(), user.labels.end());
  for (const uint16_t candidate : user.candidate_labels) {
    target_labels_.assign(1, candidate);
    context_labels_.push_back(candidate);
    classify_segments(depth, label_map, statistics, target_labels_, context_labels_, labels,
                      user_ids, score, region, pool);
    // A pass that found nothing to do leaves the previous score in place, so such a
    // candidate is judged on the pass before it; no pixel was marked, so only the
    // context list can change.
    if (score >= threshold) {
      mark_pass_pixels(user_ids, user.id, region);
    } else {  // below the threshold, or NaN
      mark_pass_pixels(user_ids, 0, region);
      context_labels_.pop_back();
    }
  }
  target_labels_.assign(user.labels.begin(), user.labels.end());
  classify_segments(depth, label_map, statistics, target_labels_, context_labels_, labels,
                    user_ids, score, region, pool);
  mark_pass_pixels(user_ids, user.id, region);
}

void FrameClassifier::classify_segments(const op::Image<uint16_t>& depth,
                                        const op::Image<uint16_t>& label_map,
                                        const UserStatistics& statistics,
                                        std::span<const uint16_t> target_labels,
                                        std::span<const uint16_t> context_labels,
                                        op::Image<PixelLabel>& labels,
                                        op::Image<uint8_t>& user_ids, float& score,
                                        RegionBox& region, op::ThreadPool& pool) {
  flags_.resize(depth.width(), depth.height());
  working_flags_.resize(depth.width(), depth.height());

  // 1. Flags and boxes.
  int32_t target_box[4], context_box[4];
  flag_pixels(depth, label_map, target_labels, context_labels, target_box, context_box);
  // 2. Nothing to classify, or nothing a probe could read.
  if (target_box[0] > target_box[2] || context_box[0] > context_box[2]) return;

  // 3. Mean depth of the target pixels.
  const float mean_depth = mean_target_depth(depth, target_box);

  // 4. Working copy whose target bit is cleared as pixels get their result.
  working_flags_ = flags_;

  ClassifyParams params;
  params.statistics = &statistics;
  params.working_flags = &working_flags_;
  params.target_box = target_box;
  params.context_box = context_box;
  params.mean_depth = mean_depth;
  params.marker = kUnresolvedUser;
  params.pool = &pool;
  probes_.build(depth, working_flags_, context_box);
  params.probes = &probes_;
  features_.build(statistics, depth.width(), depth.height());
  params.features = &features_;

  // 5. Coarse to fine.
  classify_levels(depth, params, labels, user_ids);
  // 6. What is left takes a finished neighbour's label.
  fill_unfinished(depth, target_box, labels, user_ids);
  // 7. Score.
  score = pass_score(labels, user_ids, target_box);

  // 8. Region.
  const int32_t x0 = target_box[0], y0 = target_box[1];
  const int32_t x1 = target_box[2], y1 = target_box[3];
  if (region.empty) {
    region = {x0, y0, x1, y1, false};
  } else {
    region.x0 = std::min(region.x0, x0);
    region.y0 = std::min(region.y0, y0);
    region.x1 = std::max(region.x1, x1);
    region.y1 = std::max(region.y1, y1);
  }
}

void FrameClassifier::flag_pixels(const op::Image<uint16_t>& depth, const op::Image<uint16_t>& label_map,
                                  std::span<const uint16_t> target_labels, std::span<const uint16_t> context_labels,
                                  int32_t target_box[4], int32_t context_box[4]) {
  const int32_t w = static_cast<int32_t>(depth.width());
  const int32_t h = static_cast<int32_t>(depth.height());
  for (int32_t* box : {target_box, context_box}) {
    box[0] = w, box[1] = h, box[2] = -1, box[3] = -1;
  }
  auto grow = [](int32_t* box, int32_t first, int32_t last, int32_t y) {
    box[0] = std::min(box[0], first);
    box[1] = std::min(box[1], y);
    box[2] = std::max(box[2], last);
    box[3] = std::max(box[3], y);
  };
  // Which labels are target and which context, looked up per pixel instead of searching
  // both lists; the table is cleared again below, touching only the listed labels. The
  // boxes grow once per row, from the row's first and last pixel of each kind.
  for (uint16_t label : target_labels) label_bits_[label] |= kTargetPixel;
  for (uint16_t label : context_labels) label_bits_[label] |= kContextPixel;
  for (int32_t y = 0; y < h; ++y) {
    const uint16_t* d = depth.row(static_cast<uint32_t>(y));
    const uint16_t* l = label_map.row(static_cast<uint32_t>(y));
    uint8_t* f = flags_.row(static_cast<uint32_t>(y));
    uint8_t any = 0;
    auto flag = [&](int32_t x) {
      const uint8_t bits = d[x] != 0 ? label_bits_[l[x]] : uint8_t{0};
      f[x] = bits;
      any |= bits;
    };
    int32_t x = 0;
    // Most of a frame is runs of one label that is in neither list (nobody, or another
    // user): such a run of 16 is settled with one look-up.
    for (; x + 16 <= w; x += 16) {
      const uint16_t first = l[x];
      bool uniform = true;
      for (int32_t k = 1; k < 16; ++k) uniform &= l[x + k] == first;
      if (uniform && label_bits_[first] == 0) {
        std::memset(f + x, 0, 16);
        continue;
      }
      for (int32_t k = 0; k < 16; ++k) flag(x + k);
    }
    for (; x < w; ++x) flag(x);
    if (any == 0) continue;
    for (const uint8_t kind : {kTargetPixel, kContextPixel}) {
      if (!(any & kind)) continue;
      int32_t first = 0, last = w - 1;
      while (!(f[first] & kind)) ++first;
      while (!(f[last] & kind)) --last;
      grow(kind == kTargetPixel ? target_box : context_box, first, last, y);
    }
  }
  for (uint16_t label : target_labels) label_bits_[label] = 0;
  for (uint16_t label : context_labels) label_bits_[label] = 0;
}

float FrameClassifier::mean_target_depth(const op::Image<uint16_t>& depth, const int32_t box[4]) const {
  const int32_t x0 = box[0], y0 = box[1];
  const int32_t x1 = box[2], y1 = box[3];
  float depth_sum = 0.f;
  uint32_t depth_count = 0;
  for (int32_t y = y0; y <= y1; ++y) {
    for (int32_t x = x0; x <= x1; ++x) {
      if (flags_.at(x, y) & kTargetPixel) {
        depth_sum += static_cast<float>(static_cast<int16_t>(depth.at(x, y)));
        ++depth_count;
      }
    }
  }
  return depth_sum / static_cast<float>(depth_count);
}

void FrameClassifier::classify_levels(const op::Image<uint16_t>& depth, ClassifyParams& params,
                                      op::Image<PixelLabel>& labels, op::Image<uint8_t>& user_ids) {
  const int32_t w = static_cast<int32_t>(depth.width());
  const int32_t h = static_cast<int32_t>(depth.height());
  const int32_t* box = params.target_box;
  const int32_t x0 = box[0], y0 = box[1];
  const int32_t x1 = box[2], y1 = box[3];
  // Classify the grid, then copy each result to the half-step pixels
  // between grid points whose labels agree.
  for (uint32_t level = 3; level >= 1; --level) {
    params.level = level;
    classify_subframe_LOD_parallel(depth, params, labels, user_ids);
    const int32_t s = int32_t{1} << level;
    const int32_t half = s / 2;
    for (int32_t y = y0; y <= y1; y += s) {
      for (int32_t x = x0; x <= x1; x += s) {
        if (!(flags_.at(x, y) & kTargetPixel)) continue;
        working_flags_.at(x, y) &= static_cast<uint8_t>(~kTargetPixel);
        if (!(x < w - s && y < h - s)) continue;
        const PixelLabel& p = labels.at(x, y);
        if (p.label != labels.at(x + s, y).label || p.label != labels.at(x, y + s).label) {
          continue;
        }
        const uint8_t id = user_ids.at(x, y);
        auto copy_to = [&](int32_t qx, int32_t qy) {
          if (!(flags_.at(qx, qy) & kTargetPixel)) return;
          labels.at(qx, qy) = p;
          user_ids.at(qx, qy) = id;
          working_flags_.at(qx, qy) &= static_cast<uint8_t>(~kTargetPixel);
        };
        const bool right = x < w - half;
        const bool down = y < h - half;
        if (right) copy_to(x + half, y);
        if (down) copy_to(x, y + half);
        if (right && down) copy_to(x + half, y + half);
      }
    }
  }
}

void FrameClassifier::fill_unfinished(const op::Image<uint16_t>& depth, const int32_t box[4],
                                      op::Image<PixelLabel>& labels, op::Image<uint8_t>& user_ids) const {
  const int32_t w = static_cast<int32_t>(depth.width());
  const int32_t h = static_cast<int32_t>(depth.height());
  const int32_t x0 = box[0], y0 = box[1];
  const int32_t x1 = box[2], y1 = box[3];
  // Whatever is left takes the label of a finished neighbour of similar depth; the
  // first of equally near neighbours wins.
  static constexpr int kNeighbours[8][2] = {{-1, -1}, {0, -1}, {1, -1}, {-1, 0},
                                            {1, 0},   {-1, 1}, {0, 1},  {1, 1}};
  for (int32_t y = std::max(y0, 1); y <= std::min(y1, h - 2); ++y) {
    const auto row = static_cast<uint32_t>(y);
    // Rows y - 1, y and y + 1, indexed by a neighbour's dy + 1.
    const uint8_t* flag_rows[3] = {flags_.row(row - 1), flags_.row(row), flags_.row(row + 1)};
    const uint8_t* work_rows[3] = {working_flags_.row(row - 1), working_flags_.row(row),
                                   working_flags_.row(row + 1)};
    const uint16_t* depth_rows[3] = {depth.row(row - 1), depth.row(row), depth.row(row + 1)};
    for (int32_t x = std::max(x0, 1); x <= std::min(x1, w - 2); ++x) {
      if (!(work_rows[1][x] & kTargetPixel)) continue;
      user_ids.at(x, y) = kUnresolvedUser;
      const int16_t own = static_cast<int16_t>(depth_rows[1][x]);
      int best = -1;
      int16_t best_difference = 0;
      for (int n = 0; n < 8; ++n) {
        const int32_t nx = x + kNeighbours[n][0];
        const int r = kNeighbours[n][1] + 1;
        if (!(flag_rows[r][nx] & kTargetPixel)) continue;
        if (work_rows[r][nx] & kTargetPixel) continue;
        // 16-bit arithmetic, as the depths are 16-bit values.
        const int16_t diff = static_cast<int16_t>(static_cast<int16_t>(depth_rows[r][nx]) - own);
        const int16_t d = static_cast<int16_t>(diff < 0 ? -diff : diff);
        if (d >= kFillDepthLimit) continue;
        if (best < 0 || d < best_difference) {
          best = n;
          best_difference = d;
        }
      }
      if (best >= 0) labels.at(x, y) = labels.at(x + kNeighbours[best][0], y + kNeighbours[best][1]);
    }
  }
}

float FrameClassifier::pass_score(const op::Image<PixelLabel>& labels, const op::Image<uint8_t>& user_ids,
                                  const int32_t box[4]) {
  const int32_t x0 = box[0], y0 = box[1];
  const int32_t x1 = box[2], y1 = box[3];
  // 0/0 = NaN without any pixel. Every pixel
  // this pass marked lies in the target box, and the marks of earlier passes were
  // rewritten before it began, so the box holds them all, in image order.
  float probability_sum = 0.f;
  uint32_t marked = 0;
  for (int32_t y = y0; y <= y1; ++y) {
    const uint8_t* ids = user_ids.row(static_cast<uint32_t>(y));
    const PixelLabel* results = labels.row(static_cast<uint32_t>(y));
    for (int32_t x = x0; x <= x1; ++x) {
      if (ids[x] == kUnresolvedUser) {
        probability_sum += results[x].probability;
        ++marked;
      }
    }
  }
  return probability_sum / static_cast<float>(marked);
}

void FrameClassifier::classify_subframe_LOD_parallel(const op::Image<uint16_t>& depth,
                                                     const ClassifyParams& params,
                                                     op::Image<PixelLabel>& labels,
                                                     op::Image<uint8_t>& user_ids) {
  op::ThreadPool& pool = *params.pool;
  const uint64_t workers = pool.threadCount();
  if (workers == 0) throw std::logic_error("FrameClassifier: the pool has no worker");
  const size_t tree_count = packed_->tree_count();
  // Kept between calls: a level is classified several times per user and frame. Every
  // entry the combination reads is written by the walk of the same rows first, so the
  // images need no clearing.
  node_images_.resize(tree_count);
  for (op::Image<uint32_t>& image : node_images_) image.resize(depth.width(), depth.height());
  // One share per thread that can run at once, the caller's included: each walks every
  // tree over its grid rows and then combines those rows, so no share waits for another.
  // With fewer than four processors the caller walks alone: on two, handing half the rows
  // to a worker made a 640x480 frame with two people a little slower, not faster, while
  // keeping a second processor busy; the hand-overs cost what the shared walk saves.
  const uint64_t usable = pool.usableThreads() >= splitThreads ? pool.usableThreads() : 1;
  const auto shares = static_cast<uint32_t>(std::max<uint64_t>(1, std::min(usable, workers + 1)));
  auto run_share = [this, &depth, &params, &labels, &user_ids, shares](uint32_t share) {
    for (size_t t = 0; t < packed_->tree_count(); ++t) {
      walk_tree_rows(packed_->tree(t), depth, params, share, shares, node_images_[t]);
    }
    accumulate_rows(*packed_, node_images_, params, labels, user_ids, share, shares);
  };
  if (shares == 1) {
    // Nothing could run beside the caller: queuing would only add hand-overs.
    run_share(0);
    return;
  }
  op::TaskSet set(pool, &gauge_);
  set.keep([&run_share] { run_share(0); });
  for (uint32_t share = 1; share < shares; ++share) {
    set.submit((share - 1) % workers, [&run_share, share] { run_share(share); });
  }
  set.wait(kWaitWarnMs,
           [&] { logger_->warn("FrameClassifier::classify_subframe_LOD_parallel waiting for more than 500 ms"); });
}

void FrameClassifier::accumulate_rows(const PackedForest& forest,
                                      const std::vector<op::Image<uint32_t>>& node_images,
                                      const ClassifyParams& params, op::Image<PixelLabel>& labels,
                                      op::Image<uint8_t>& user_ids, uint32_t share, uint32_t shares) {
  const int32_t x0 = params.target_box[0], y0 = params.target_box[1];
  const int32_t x1 = params.target_box[2], y1 = params.target_box[3];
  const int32_t s = int32_t{1} << params.level;
  const uint32_t tree_count = static_cast<uint32_t>(forest.tree_count());
  const op::Image<uint8_t>& flags = *params.working_flags;
  for (int64_t y = y0 + s * static_cast<int64_t>(share); y <= y1; y += s * static_cast<int64_t>(shares)) {
    const uint32_t row = static_cast<uint32_t>(y);
    // The leaves lie all over the forest: ask for the row's leaf nodes, then for their
    // entries, before combining any of them, so that the misses overlap instead of
    // following one another.
    for (int32_t x = x0; x <= x1; x += s) {
      if (!(flags.at(x, row) & kTargetPixel)) continue;
      for (uint32_t t = 0; t < tree_count; ++t) forest.prefetch_node(t, node_images[t].at(x, row));
    }
    for (int32_t x = x0; x <= x1; x += s) {
      if (!(flags.at(x, row) & kTargetPixel)) continue;
      for (uint32_t t = 0; t < tree_count; ++t) forest.prefetch_entries(t, node_images[t].at(x, row));
    }
    for (int32_t x = x0; x <= x1; x += s) {
      if (!(flags.at(x, row) & kTargetPixel)) continue;
      user_ids.at(x, row) = params.marker;
      LabelDistribution acc;
      acc.clear();
      for (uint32_t t = 0; t < tree_count; ++t) forest.add_leaf(t, node_images[t].at(x, row), acc);
      acc.average(tree_count);
      labels.at(x, row) = PixelLabel{acc.best_label, acc.best_probability};
    }
  }
}

void FrameClassifier::accumulate_distributions_parallel(
    const PackedForest& forest, const std::vector<op::Image<uint32_t>>& node_images,
    const ClassifyParams& params, op::Image<PixelLabel>& labels, spdlog::logger& logger,
    op::Image<uint8_t>& user_ids, op::HelpGauge* gauge) {
  op::ThreadPool& pool = *params.pool;
  const uint64_t workers = pool.threadCount();
  if (workers == 0) throw std::logic_error("FrameClassifier: the pool has no worker");
  op::TaskSet shares(pool, gauge);
  for (uint64_t share = 0; share < workers; ++share) {
    // Grid rows share, share + N, share + 2N, ...: every worker gets a similar part of
    // the user even when the user fills only part of the box.
    shares.submit(share, [&, share] {
      accumulate_rows(forest, node_images, params, labels, user_ids, static_cast<uint32_t>(share),
                      static_cast<uint32_t>(workers));
    });
  }
  shares.wait(kWaitWarnMs,
              [&] { logger.warn("FrameClassifier::accumulate_distributions_parallel waiting for more than 500 ms"); });
}

}  // namespace quorvik::skeleton
