#pragma once
// Run-time choice among the instruction-set builds of the tree kernel. The choice is made
// once, on the first evaluation, from the processor's features.

#include <cstdint>
#include <vector>

#include "classifier/arch/kernel.h"
#include "classifier/classify_params.h"
#include "forest/decision_forest.h"
#include "op/image.h"

namespace quorvik::skeleton {

enum CpuFeature : uint32_t {
  kCpuSse2 = 0x002,
  kCpuSse3 = 0x004,
  kCpuSsse3 = 0x008,
  kCpuSse41 = 0x010,
  kCpuAvx = 0x020,
  kCpuAvx2 = 0x040,
  kCpuFma = 0x080,
  kCpuFma4 = 0x100,
  kCpuXop = 0x200,
  kCpuAvx512f = 0x400,
};

inline constexpr size_t kArchSlotCount = 15;

// CpuFeature bits of the running processor; 0 on other architectures.
uint32_t detect_cpu_features();

// The filled table slots in table order: arch_null first, then the eight variants the
// builds describe.
std::vector<ArchVariant> arch_variants();

// The variant the dispatcher picks for `features`: the 15-slot table sorted by required
// features (descending, stable), first entry whose requirements are all present.
ArchVariant select_arch_variant(uint32_t features);

// Name of the variant the dispatcher runs in this process (selects it if not done yet).
const char* active_arch_name();

// Clears and sizes `node_index` to the depth map, then walks every target pixel of the
// level down the packed tree with the chosen build. Returns the last pass's count, 0.
int32_t evaluate_tree(const KernelTree& tree, const op::Image<uint16_t>& depth,
                      const ClassifyParams& params, op::Image<uint32_t>& node_index);

// Same for a tree that is not packed yet: packs a copy first, so it suits tests and
// one-off evaluations, not a frame loop.
int32_t evaluate_tree(const DecisionTree& tree, const op::Image<uint16_t>& depth,
                      const ClassifyParams& params, op::Image<uint32_t>& node_index);

// The walk of evaluate_tree over the level's grid rows share, share + shares, ... only,
// without clearing: only those rows' target pixels get their entries of `node_index`,
// which must already have the depth map's size. Shares of one level may run at once on
// one image.
void walk_tree_rows(const KernelTree& tree, const op::Image<uint16_t>& depth, const ClassifyParams& params,
                    uint32_t share, uint32_t shares, op::Image<uint32_t>& node_index);

// As evaluate_tree, with a given build.
int32_t evaluate_tree_with(KernelEntry entry, const KernelTree& tree,
                           const op::Image<uint16_t>& depth, const ClassifyParams& params,
                           op::Image<uint32_t>& node_index);
int32_t evaluate_tree_with(KernelEntry entry, const DecisionTree& tree,
                           const op::Image<uint16_t>& depth, const ClassifyParams& params,
                           op::Image<uint32_t>& node_index);

// For tests: makes evaluate_tree run `entry` instead of the chosen build until it is
// reset (null). Not thread-safe against evaluations running at the same time.
class ScopedKernelOverride {
 public:
  explicit ScopedKernelOverride(KernelEntry entry);
  ~ScopedKernelOverride();
  ScopedKernelOverride(const ScopedKernelOverride&) = delete;
  ScopedKernelOverride& operator=(const ScopedKernelOverride&) = delete;

 private:
  KernelEntry previous_;
};

}  // namespace quorvik::skeleton
