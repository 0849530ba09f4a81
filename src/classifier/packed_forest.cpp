#include "classifier/packed_forest.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace quorvik::skeleton {

namespace {

constexpr size_t kHugePage = size_t{2} << 20;

size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }

// The walk jumps all over a tree, so with small pages nearly every node costs a TLB miss
// as well as a cache miss; on Linux the copy asks for 2 MiB pages (a hint the kernel may
// ignore). Elsewhere it is ordinary memory.
void* allocate(size_t size, size_t& allocated) {
#if defined(__linux__)
  allocated = round_up(size, kHugePage);
  void* p = mmap(nullptr, allocated + kHugePage, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  // Trim to a 2 MiB-aligned range so that whole huge pages can back it.
  auto* base = static_cast<char*>(p);
  const auto address = reinterpret_cast<uintptr_t>(base);
  const size_t lead = round_up(address, kHugePage) - address;
  if (lead != 0) munmap(base, lead);
  const size_t trail = kHugePage - lead;
  if (trail != 0) munmap(base + lead + allocated, trail);
  madvise(base + lead, allocated, MADV_HUGEPAGE);
  return base + lead;
#else
  allocated = size;
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
#endif
}

void release(void* p, size_t allocated) {
  if (p == nullptr) return;
#if defined(__linux__)
  munmap(p, allocated);
#else
  (void)allocated;
  std::free(p);
#endif
}

size_t nonzero_entries(const LabelDistribution& d) {
  size_t n = 0;
  for (const float p : d.probability) n += p != 0.f;
  return n;
}

}  // namespace

PackedForest::PackedForest(const DecisionForest& forest) {
  std::vector<const DecisionTree*> trees;
  for (size_t t = 0; t < forest.tree_count(); ++t) trees.push_back(&forest.tree(t));
  pack(trees);
}

PackedForest::PackedForest(const DecisionTree& tree) { pack({&tree}); }

PackedForest::PackedForest(DecisionForest&& forest) {
  std::vector<std::unique_ptr<DecisionTree>> owned = std::move(forest).take_trees();
  std::vector<const DecisionTree*> trees;
  for (const auto& tree : owned) trees.push_back(tree.get());
  pack(trees, [&owned](size_t t) { owned[t].reset(); });
}

PackedForest::~PackedForest() { release(storage_, storage_size_); }

void PackedForest::pack(const std::vector<const DecisionTree*>& trees, const std::function<void(size_t)>& packed) {
  // Sizes first, so that every tree lands in one allocation.
  std::vector<size_t> entry_counts;
  size_t node_total = 0, entry_total = 0;
  for (const DecisionTree* tree : trees) {
    size_t entries = 0;
    bool in_range = tree->nodes.size() <= kPackedIndexMask;
    for (const TreeNode& node : tree->nodes) {
      if (node.is_leaf) {
        entries += nonzero_entries(tree->leaf_distribution(node));
      } else {
        in_range = in_range && node.target <= kPackedIndexMask;
      }
    }
    if (!in_range || entries > kPackedIndexMask) {
      throw std::length_error("PackedForest: tree too large to pack");
    }
    entry_counts.push_back(entries);
    node_total += tree->nodes.size();
    entry_total += entries;
  }
  const size_t node_bytes = round_up(node_total * sizeof(PackedNode), 64);
  bytes_ = node_bytes + entry_total * sizeof(LeafEntry);
  storage_ = allocate(bytes_, storage_size_);

  auto* nodes = static_cast<PackedNode*>(storage_);
  auto* entries = reinterpret_cast<LeafEntry*>(static_cast<char*>(storage_) + node_bytes);
  for (size_t t = 0; t < trees.size(); ++t) {
    const DecisionTree* tree = trees[t];
    Tree copy{{nodes, static_cast<uint32_t>(tree->nodes.size())}, entries};
    uint32_t next_entry = 0;
    for (const TreeNode& node : tree->nodes) {
      PackedNode& out = *nodes++;
      std::memset(&out, 0, sizeof out);
      if (node.is_leaf) {
        const LabelDistribution& d = tree->leaf_distribution(node);
        out.link = kPackedLeaf | next_entry;
        for (uint32_t label = 0; label < kLabelCount; ++label) {
          if (d.probability[label] == 0.f) continue;
          entries[next_entry++] = LeafEntry{label, d.probability[label]};
          ++out.offsets[0];
        }
        continue;
      }
      out.threshold = node.threshold;
      out.link = static_cast<uint32_t>(node.target);
      if (node.kind == 0) {
        std::memcpy(out.offsets, node.offsets, sizeof out.offsets);
      } else {
        out.link |= kPackedStatisticsSplit;
        out.offsets[0] = node.kind;
      }
    }
    entries += next_entry;
    trees_.push_back(copy);
    if (packed) packed(t);
  }
}

}  // namespace quorvik::skeleton
