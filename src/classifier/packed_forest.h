#pragma once
// The classifier's working copy of a forest, laid out for the tree walk: nodes at half
// their size and each leaf's distribution as a short list of its non-zero entries. A
// trained forest's dense leaves are over three times larger than everything else in it,
// and a frame touches the trees all over; the smaller copy stays in the caches from one
// frame to the next where the dense forest does not.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "classifier/arch/kernel.h"
#include "forest/decision_forest.h"

namespace quorvik::skeleton {

struct LeafEntry {
  uint32_t label;
  float probability;
};

class PackedForest {
 public:
  // Throws std::length_error for a tree beyond the packed index range (2^30 nodes or
  // leaf entries), far more than any forest that fits in memory as TreeNodes.
  explicit PackedForest(const DecisionForest& forest);
  explicit PackedForest(const DecisionTree& tree);
  // Frees each tree of the forest as soon as it is packed: the dense forest and its packed
  // copy are never both whole in memory.
  explicit PackedForest(DecisionForest&& forest);
  ~PackedForest();
  PackedForest(const PackedForest&) = delete;
  PackedForest& operator=(const PackedForest&) = delete;

  size_t tree_count() const { return trees_.size(); }
  const KernelTree& tree(size_t t) const { return trees_[t].kernel; }

  // Adds the distribution of leaf `node` of tree `t` to `acc`. Entries that are zero in
  // the dense distribution are left out, and adding a zero never changes a sum, so the
  // result is bit for bit what LabelDistribution::add of the dense leaf gives.
  void add_leaf(size_t t, uint32_t node, LabelDistribution& acc) const {
    const Tree& tree = trees_[t];
    const PackedNode& leaf = tree.kernel.nodes[node];
    const LeafEntry* entry = tree.entries + (leaf.link & kPackedIndexMask);
    const LeafEntry* end = entry + leaf.offsets[0];
    for (; entry != end; ++entry) acc.probability[entry->label] += entry->probability;
    acc.best_label = kBestLabelUnknown;
  }

  // Hints that node `node` of tree `t`, or the entries of that leaf, will be read soon.
  void prefetch_node(size_t t, uint32_t node) const { __builtin_prefetch(&trees_[t].kernel.nodes[node]); }
  void prefetch_entries(size_t t, uint32_t node) const {
    const Tree& tree = trees_[t];
    __builtin_prefetch(tree.entries + (tree.kernel.nodes[node].link & kPackedIndexMask));
  }

  // Bytes of the packed nodes and entries of all trees.
  size_t byte_size() const { return bytes_; }

 private:
  struct Tree {
    KernelTree kernel;
    const LeafEntry* entries;
  };
  // `packed(t)` is called once tree t is no longer read.
  void pack(const std::vector<const DecisionTree*>& trees, const std::function<void(size_t)>& packed = {});

  std::vector<Tree> trees_;
  void* storage_ = nullptr;
  size_t storage_size_ = 0;
  size_t bytes_ = 0;
};

}  // namespace quorvik::skeleton
