#include "classifier/arch/dispatch.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "classifier/depth_features.h"
#include "classifier/packed_forest.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace quorvik::skeleton {

namespace {

constexpr ArchVariant kNullVariant{0x00, &arch_null::evaluate_tree, "arch_null"};

std::atomic<const ArchVariant*> chosen_variant{nullptr};
std::atomic<KernelEntry> kernel_override{nullptr};

// The chosen variant is kept in a static object so a plain pointer can be published.
const ArchVariant* choose_once() {
  const ArchVariant* chosen = chosen_variant.load(std::memory_order_acquire);
  if (chosen != nullptr) return chosen;
  static const ArchVariant selected = select_arch_variant(detect_cpu_features());
  chosen_variant.store(&selected, std::memory_order_release);
  return &selected;
}

KernelEntry active_entry() {
  KernelEntry entry = kernel_override.load(std::memory_order_acquire);
  return entry != nullptr ? entry : choose_once()->entry;
}

KernelFrame make_frame(const op::Image<uint16_t>& depth, const ClassifyParams& params) {
  KernelFrame frame;
  // Depths are read as signed 16-bit values.
  frame.depth = reinterpret_cast<const int16_t*>(depth.data());
  frame.flags = params.working_flags->data();
  frame.width = depth.width();
  frame.height = depth.height();
  std::memcpy(frame.target_box, params.target_box, sizeof frame.target_box);
  std::memcpy(frame.context_box, params.context_box, sizeof frame.context_box);
  frame.level = params.level;
  frame.mean_depth = params.mean_depth;
  frame.statistics = params.statistics;
  frame.share = 0;
  frame.shares = 1;
  const bool probed = params.probes != nullptr && !params.probes->values.empty();
  frame.probes = probed ? params.probes->values.data() : nullptr;
  frame.probe_stride = probed ? params.probes->stride : 0;
  const FeatureTable* table = params.features;
  frame.feature_columns = table != nullptr ? table->columns.data() : nullptr;
  frame.feature_rows = table != nullptr ? table->rows.data() : nullptr;
  frame.feature_constants = table != nullptr ? table->constants : nullptr;
  return frame;
}

}  // namespace

void ProbeImage::build(const op::Image<uint16_t>& depth, const op::Image<uint8_t>& flags, const int32_t* box) {
  const int32_t width = box[2] - box[0] + 3, height = box[3] - box[1] + 3;
  if (box[0] > box[2] || box[1] > box[3] || width > INT16_MAX) {
    values.clear();
    stride = 0;
    return;
  }
  stride = width;
  values.assign(static_cast<size_t>(width) * static_cast<size_t>(height), kProbeBackground);
  // Rows are read with the width rounded down to a multiple of four, as the probes always
  // have been.
  const uint32_t w4 = depth.width() & ~3u;
  const auto* d = reinterpret_cast<const int16_t*>(depth.data());
  const uint8_t* f = flags.data();
  for (int32_t y = box[1]; y <= box[3]; ++y) {
    int16_t* out = values.data() + static_cast<size_t>(y - box[1] + 1) * static_cast<size_t>(width) + 1;
    const size_t row = static_cast<size_t>(y) * w4;
    for (int32_t x = box[0]; x <= box[2]; ++x) {
      const size_t at = row + static_cast<size_t>(x);
      if (f[at] & kContextPixel) out[x - box[0]] = d[at];
    }
  }
}

uint32_t detect_cpu_features() {
  uint32_t features = 0;
#if defined(__x86_64__) || defined(__i386__)
  unsigned eax, ebx, ecx, edx;
  const unsigned max_basic = __get_cpuid_max(0, nullptr);
  bool os_saves_avx = false;
  if (max_basic >= 1) {
    __cpuid(1, eax, ebx, ecx, edx);
    if (ecx & (1u << 27)) {  // OSXSAVE: XGETBV is available
      uint32_t xcr0_lo, xcr0_hi;
      __asm__ volatile("xgetbv" : "=a"(xcr0_lo), "=d"(xcr0_hi) : "c"(0));
      os_saves_avx = (xcr0_lo & 0x6) == 0x6;
    }
    if (edx & (1u << 26)) features |= kCpuSse2;
    if (ecx & (1u << 0)) features |= kCpuSse3;
    if (ecx & (1u << 9)) features |= kCpuSsse3;
    if (ecx & (1u << 19)) features |= kCpuSse41;
    if ((ecx & (1u << 28)) && os_saves_avx) features |= kCpuAvx;
    if ((ecx & (1u << 12)) && os_saves_avx) features |= kCpuFma;
  }
  if (max_basic >= 7) {
    __cpuid_count(7, 0, eax, ebx, ecx, edx);
    if ((ebx & (1u << 5)) && os_saves_avx) features |= kCpuAvx2;
    if ((ebx & (1u << 16)) && os_saves_avx) features |= kCpuAvx512f;
  }
  const unsigned max_extended = __get_cpuid_max(0x80000000u, nullptr);
  if (max_extended >= 0x80000001u) {
    __cpuid(0x80000001u, eax, ebx, ecx, edx);
    if (ecx & (1u << 16)) features |= kCpuFma4;
    if (ecx & (1u << 11)) features |= kCpuXop;
  }
#endif
  return features;
}

std::vector<ArchVariant> arch_variants() {
  return {kNullVariant,           *describe_arch_sse2(),   *describe_arch_sse3(),
          *describe_arch_ssse3(), *describe_arch_sse4p1(), *describe_arch_avx(),
          *describe_arch_avx2(),  *describe_arch_fma3(),   *describe_arch_avx_fma3()};
}

ArchVariant select_arch_variant(uint32_t features) {
  std::array<ArchVariant, kArchSlotCount> slots{};
  for (ArchVariant& slot : slots) slot = ArchVariant{0, nullptr, ""};
  const std::vector<ArchVariant> filled = arch_variants();
  std::copy(filled.begin(), filled.end(), slots.begin());
  std::stable_sort(slots.begin(), slots.end(), [](const ArchVariant& a, const ArchVariant& b) {
    return a.required > b.required;
  });
  for (const ArchVariant& slot : slots) {
    if (slot.entry != nullptr && (slot.required & ~features) == 0) return slot;
  }
  std::abort();
}

const char* active_arch_name() { return choose_once()->name; }

int32_t evaluate_tree_with(KernelEntry entry, const KernelTree& tree,
                           const op::Image<uint16_t>& depth, const ClassifyParams& params,
                           op::Image<uint32_t>& node_index) {
  node_index.resize(depth.width(), depth.height());
  node_index.fill(0);
  ProbeImage probes;
  ClassifyParams probed = params;
  if (probed.probes == nullptr) {
    probes.build(depth, *params.working_flags, params.context_box);
    probed.probes = &probes;
  }
  FeatureTable features;
  if (probed.features == nullptr && probed.statistics != nullptr) {
    features.build(*params.statistics, depth.width(), depth.height());
    probed.features = &features;
  }
  const KernelFrame frame = make_frame(depth, probed);
  return entry(tree, frame, node_index.data());
}

int32_t evaluate_tree_with(KernelEntry entry, const DecisionTree& tree,
                           const op::Image<uint16_t>& depth, const ClassifyParams& params,
                           op::Image<uint32_t>& node_index) {
  const PackedForest packed(tree);
  return evaluate_tree_with(entry, packed.tree(0), depth, params, node_index);
}

int32_t evaluate_tree(const KernelTree& tree, const op::Image<uint16_t>& depth,
                      const ClassifyParams& params, op::Image<uint32_t>& node_index) {
  return evaluate_tree_with(active_entry(), tree, depth, params, node_index);
}

void walk_tree_rows(const KernelTree& tree, const op::Image<uint16_t>& depth, const ClassifyParams& params,
                    uint32_t share, uint32_t shares, op::Image<uint32_t>& node_index) {
  KernelFrame frame = make_frame(depth, params);
  frame.share = share;
  frame.shares = shares;
  (void)active_entry()(tree, frame, node_index.data());
}

int32_t evaluate_tree(const DecisionTree& tree, const op::Image<uint16_t>& depth,
                      const ClassifyParams& params, op::Image<uint32_t>& node_index) {
  return evaluate_tree_with(active_entry(), tree, depth, params, node_index);
}

ScopedKernelOverride::ScopedKernelOverride(KernelEntry entry)
    : previous_(kernel_override.exchange(entry, std::memory_order_acq_rel)) {}

ScopedKernelOverride::~ScopedKernelOverride() {
  kernel_override.store(previous_, std::memory_order_release);
}

}  // namespace quorvik::skeleton
