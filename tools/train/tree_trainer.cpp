#include "tree_trainer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "sim_math.h"

namespace quorvik::train {
namespace {

using skeleton::kLabelCount;
using Histogram = std::array<double, kLabelCount>;

constexpr uint32_t kMaxThresholds = 32;

struct Point {
  const ProbeImage* image;
  uint8_t x, y, label;
};

struct Candidate {
  uint8_t kind = 0;
  int16_t offsets[4] = {0, 0, 0, 0};
};

struct Choice {
  double gain = 0;
  uint32_t candidate = UINT32_MAX;
  float threshold = 0;
  // Ties go to the lower candidate index, so the choice does not depend on how the
  // candidates were shared out among threads.
  bool better_than(const Choice& o) const {
    return gain > o.gain || (gain == o.gain && candidate < o.candidate);
  }
};

struct OpenNode {
  uint32_t node;   // index in the tree
  uint32_t begin;  // range in the sample order
  uint32_t end;
  std::vector<Candidate> candidates;
  std::vector<uint32_t> subset;  // positions in the sample order that choose the split
  Choice best;
};

// The node's entropy summed over its samples' weights, over the labels the node has:
// deep nodes hold only a few labels, and this runs for every threshold of every candidate.
double entropy(const Histogram& h, const std::vector<uint8_t>& labels) {
  double total = 0;
  double sum = 0;
  for (uint8_t l : labels) {
    const double v = h[l];
    if (v > 0) {
      total += v;
      sum += v * std::log2(v);
    }
  }
  return total > 0 ? total * std::log2(total) - sum : 0.0;
}

std::vector<Candidate> make_candidates(const TreeOptions& o, uint64_t seed) {
  sim::Rng rng(seed);
  std::vector<Candidate> out;
  out.reserve(o.offsetCandidates + 5);
  for (uint32_t i = 0; i < o.offsetCandidates; ++i) {
    Candidate c;
    // Offsets spread over a disc, denser near the pixel: near probes find edges and limbs,
    // far ones the body's layout.
    auto point = [&](int16_t& x, int16_t& y) {
      const float r = o.maxOffset * std::sqrt(rng.uniform()) * (rng.chance(0.5f) ? 1.f : 0.5f);
      const float a = rng.uniform(0.f, 6.2831853f);
      x = static_cast<int16_t>(std::lround(r * std::cos(a)));
      y = static_cast<int16_t>(std::lround(r * std::sin(a)));
    };
    point(c.offsets[0], c.offsets[1]);
    // Half compare against the pixel itself.
    if (rng.chance(0.5f)) point(c.offsets[2], c.offsets[3]);
    out.push_back(c);
  }
  if (o.statisticKinds) {
    for (uint8_t kind = 1; kind <= 5; ++kind) out.push_back(Candidate{kind, {0, 0, 0, 0}});
  }
  return out;
}

}  // namespace

float feature_value(const TrainingSet& set, const Sample& s, uint8_t kind, const int16_t offsets[4]) {
  const ProbeImage& image = set.images[s.image];
  if (kind == 0) return image.probe(s.x, s.y, offsets);
  return skeleton::get_frame_feature_value(kind, s.x, s.y, image.statistics);
}

namespace {

// The state of one tree's growth, and its steps: one level at a time, the nodes that stay
// open get their candidates (open_nodes), every candidate is judged on the node's subset in
// parallel (choose_splits), and each node is split on its best one or becomes a leaf
// (split_nodes).
class TreeGrower {
 public:
  TreeGrower(const TrainingSet& set, const std::vector<uint32_t>& samples,
             const std::array<float, kLabelCount>& weights, const TreeOptions& o)
      : set_(set), samples_(samples), weights_(weights), o_(o), order_(samples.size()), nodeOf_(samples.size(), 0) {
    for (uint32_t i = 0; i < order_.size(); ++i) order_[i] = i;  // positions into `samples`
  }

  skeleton::DecisionTree grow(const TreeProgressFn& progress, std::vector<uint32_t>* leafOf) {
    tree_.nodes.push_back(skeleton::TreeNode{});
    std::vector<OpenNode> level;
    level.push_back(OpenNode{0, 0, static_cast<uint32_t>(order_.size()), {}, {}, {}});
    for (uint32_t depth = 0; !level.empty(); ++depth) {
      std::vector<OpenNode> open = open_nodes(level, depth);
      choose_splits(open);
      level = split_nodes(open);
      if (progress) progress(TreeProgress{depth, samplesDone_, samples_.size()});
    }
    if (leafOf) *leafOf = std::move(nodeOf_);
    return std::move(tree_);
  }

 private:
  const Sample& sample_at(uint32_t position) const { return set_.samples[samples_[order_[position]]]; }

  void make_leaf(uint32_t node, uint32_t begin, uint32_t end) {
    Histogram h{};
    for (uint32_t p = begin; p < end; ++p) {
      const uint8_t l = sample_at(p).label;
      h[l] += weights_[l];
    }
    double total = 0;
    for (double v : h) total += v;
    skeleton::LabelDistribution d;
    if (total > 0) {
      double kept = 0;
      for (uint32_t l = 0; l < kLabelCount; ++l) {
        if (h[l] / total >= o_.pruneBelow) kept += h[l];
      }
      for (uint32_t l = 0; l < kLabelCount; ++l) {
        if (h[l] / total >= o_.pruneBelow) d.probability[l] = static_cast<float>(h[l] / kept);
      }
    }
    d.compute_best();
    skeleton::TreeNode& n = tree_.nodes[node];
    n = skeleton::TreeNode{};
    n.is_leaf = true;
    n.target = tree_.distributions.size();
    tree_.distributions.push_back(d);
    for (uint32_t p = begin; p < end; ++p) nodeOf_[order_[p]] = node;
    samplesDone_ += end - begin;
  }

  // Leaves first; the rest get their candidates and the subset that judges them.
  std::vector<OpenNode> open_nodes(std::vector<OpenNode>& level, uint32_t depth) {
    std::vector<OpenNode> open;
    for (OpenNode& n : level) {
      if (depth >= o_.maxDepth || n.end - n.begin < o_.minSplit) {
        make_leaf(n.node, n.begin, n.end);
        continue;
      }
      const uint64_t nodeSeed = sim::mix64(o_.seed * 0x9E3779B97F4A7C15ull + n.node + 1);
      n.candidates = make_candidates(o_, nodeSeed);
      const uint32_t count = n.end - n.begin;
      n.subset.resize(std::min(count, o_.nodeSubsample));
      if (count <= o_.nodeSubsample) {
        for (uint32_t i = 0; i < count; ++i) n.subset[i] = n.begin + i;
      } else {
        sim::Rng rng(nodeSeed ^ 0xA5A5);
        for (uint32_t i = 0; i < n.subset.size(); ++i) {
          n.subset[i] = n.begin + static_cast<uint32_t>(rng.next() % count);
        }
        std::sort(n.subset.begin(), n.subset.end());  // image order keeps probe reads local
      }
      open.push_back(std::move(n));
    }
    return open;
  }

  // Buffers one thread reuses from item to item.
  struct Scratch {
    std::vector<Point> points;
    std::vector<float> values;
    std::vector<float> cuts;
    std::vector<Histogram> bins;
  };

  // The best of candidates [first, last) of node n by the gain on its subset.
  Choice best_of(const OpenNode& n, uint32_t first, uint32_t last, Scratch& w) const {
    const size_t count = n.subset.size();
    Histogram parent{};
    for (uint32_t p : n.subset) {
      const uint8_t l = sample_at(p).label;
      parent[l] += weights_[l];
    }
    std::vector<uint8_t> present;
    for (uint8_t l = 0; l < kLabelCount; ++l) {
      if (parent[l] > 0) present.push_back(l);
    }
    const double parentEntropy = entropy(parent, present);
    const uint32_t thresholds =
        std::min<uint32_t>({o_.thresholds, kMaxThresholds, static_cast<uint32_t>(count / 4 + 1)});
    Choice best;
    // The node's samples gathered once per item, so the candidate loop reads them in order.
    w.points.resize(count);
    for (size_t j = 0; j < count; ++j) {
      const Sample& sample = sample_at(n.subset[j]);
      w.points[j] = Point{&set_.images[sample.image], sample.x, sample.y, sample.label};
    }
    w.values.resize(count);
    for (uint32_t c = first; c < last; ++c) {
      const Candidate& cand = n.candidates[c];
      if (cand.kind == 0) {
        for (size_t j = 0; j < count; ++j) {
          w.values[j] = w.points[j].image->probe(w.points[j].x, w.points[j].y, cand.offsets);
        }
      } else {
        for (size_t j = 0; j < count; ++j) {
          w.values[j] = skeleton::get_frame_feature_value(cand.kind, w.points[j].x, w.points[j].y,
                                                          w.points[j].image->statistics);
        }
      }
      sim::Rng rng(sim::mix64(n.node * 131071ull + c) ^ o_.seed);
      w.cuts.clear();
      for (uint32_t t = 0; t < thresholds; ++t) {
        // Half way between two sample values, so that a cut never sits on a value.
        const float a = w.values[rng.next() % count];
        const float b = w.values[rng.next() % count];
        if (a != b) w.cuts.push_back(0.5f * (a + b));
      }
      if (w.cuts.empty()) continue;
      std::sort(w.cuts.begin(), w.cuts.end());
      w.cuts.erase(std::unique(w.cuts.begin(), w.cuts.end()), w.cuts.end());
      // The bin of a value is the number of cuts at or below it: counted over a padded
      // table without branches, which beats a binary search's mispredictions here.
      float table[kMaxThresholds];
      std::fill(std::begin(table), std::end(table), std::numeric_limits<float>::infinity());
      std::copy(w.cuts.begin(), w.cuts.end(), table);
      w.bins.assign(w.cuts.size() + 1, Histogram{});
      for (size_t j = 0; j < count; ++j) {
        // A value below the cut goes to the first child, as the tree kernels decide.
        const float v = w.values[j];
        uint32_t bin = 0;
        for (uint32_t k = 0; k < kMaxThresholds; ++k) bin += v >= table[k] ? 1u : 0u;
        const uint8_t l = w.points[j].label;
        w.bins[bin][l] += weights_[l];
      }
      // bins[k] holds values in [cuts[k-1], cuts[k]); left of cut k = bins 0..k.
      Histogram left{};
      for (size_t k = 0; k < w.cuts.size(); ++k) {
        Histogram right{};
        for (uint8_t l : present) {
          left[l] += w.bins[k][l];
          right[l] = std::max(parent[l] - left[l], 0.0);
        }
        const double gain = parentEntropy - entropy(left, present) - entropy(right, present);
        const Choice here{gain, c, w.cuts[k]};
        if (here.better_than(best)) best = here;
      }
    }
    return best;
  }

  // Every open node's best candidate, judged on its threads in work items: a block of one
  // node's candidates, sized so that items cost about the same.
  void choose_splits(std::vector<OpenNode>& open) const {
    struct Item {
      uint32_t node, first, last;
    };
    std::vector<Item> items;
    for (uint32_t k = 0; k < open.size(); ++k) {
      const uint32_t c = static_cast<uint32_t>(open[k].candidates.size());
      const uint64_t perCandidate = open[k].subset.size();
      const uint32_t block = static_cast<uint32_t>(std::clamp<uint64_t>(200000 / std::max<uint64_t>(perCandidate, 1), 1, c));
      for (uint32_t first = 0; first < c; first += block) items.push_back(Item{k, first, std::min(c, first + block)});
    }
    std::vector<Choice> itemBest(items.size());
    std::atomic<size_t> next{0};
    auto work = [&] {
      Scratch scratch;
      for (size_t i; (i = next.fetch_add(1)) < items.size();) {
        itemBest[i] = best_of(open[items[i].node], items[i].first, items[i].last, scratch);
      }
    };
    const uint32_t threads = std::max(1u, o_.threads);
    std::vector<std::thread> workers;
    for (uint32_t t = 1; t < threads; ++t) workers.emplace_back(work);
    work();
    for (std::thread& t : workers) t.join();
    for (size_t i = 0; i < items.size(); ++i) {
      OpenNode& n = open[items[i].node];
      if (itemBest[i].candidate != UINT32_MAX && itemBest[i].better_than(n.best)) n.best = itemBest[i];
    }
  }

  // Split every open node on its best choice; a split that leaves a child too small, or
  // gains nothing, makes a leaf instead.
  std::vector<OpenNode> split_nodes(std::vector<OpenNode>& open) {
    std::vector<OpenNode> nextLevel;
    std::vector<uint32_t> scratch;
    for (OpenNode& n : open) {
      if (n.best.candidate == UINT32_MAX || n.best.gain <= 1e-9) {
        make_leaf(n.node, n.begin, n.end);
        continue;
      }
      const Candidate& cand = n.candidates[n.best.candidate];
      scratch.clear();
      uint32_t write = n.begin;
      for (uint32_t p = n.begin; p < n.end; ++p) {
        if (feature_value(set_, sample_at(p), cand.kind, cand.offsets) < n.best.threshold) {
          order_[write++] = order_[p];
        } else {
          scratch.push_back(order_[p]);
        }
      }
      const uint32_t mid = write;
      std::copy(scratch.begin(), scratch.end(), order_.begin() + mid);
      if (mid - n.begin < o_.minLeaf || n.end - mid < o_.minLeaf) {
        make_leaf(n.node, n.begin, n.end);
        continue;
      }
      const auto first = static_cast<uint32_t>(tree_.nodes.size());
      tree_.nodes.push_back(skeleton::TreeNode{});
      tree_.nodes.push_back(skeleton::TreeNode{});
      skeleton::TreeNode& split = tree_.nodes[n.node];
      split = skeleton::TreeNode{};
      split.target = first;
      split.kind = cand.kind;
      split.threshold = n.best.threshold;
      std::copy(cand.offsets, cand.offsets + 4, split.offsets);
      split.is_leaf = false;
      nextLevel.push_back(OpenNode{first, n.begin, mid, {}, {}, {}});
      nextLevel.push_back(OpenNode{first + 1, mid, n.end, {}, {}, {}});
    }
    return nextLevel;
  }

  const TrainingSet& set_;
  const std::vector<uint32_t>& samples_;
  const std::array<float, kLabelCount>& weights_;
  const TreeOptions& o_;
  skeleton::DecisionTree tree_;
  std::vector<uint32_t> order_;   // sample positions, each node's a contiguous range
  std::vector<uint32_t> nodeOf_;  // per entry of samples_, its node
  uint64_t samplesDone_ = 0;
};

}  // namespace

skeleton::DecisionTree train_tree(const TrainingSet& set, const std::vector<uint32_t>& samples,
                                  const std::array<float, kLabelCount>& weights, const TreeOptions& o,
                                  const TreeProgressFn& progress, std::vector<uint32_t>* leafOf) {
  return TreeGrower(set, samples, weights, o).grow(progress, leafOf);
}

}  // namespace quorvik::train
