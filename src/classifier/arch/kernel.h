#pragma once
// Plain-data interface between the classifier and the tree kernel builds. Each build is
// compiled with its own instruction-set options, so this header holds only structs of
// built-in types and declarations: no inline code, no templates, nothing a kernel
// translation unit could instantiate and the linker could then share with baseline code.

#include <cstdint>


namespace quorvik::skeleton {

struct UserStatistics;

// A node as the tree walk reads it: half the size of a TreeNode, so twice as many share
// the caches, and both children of a split always share one cache line. Packed trees
// keep the tree's node order, so a node index means the same node in both.
struct PackedNode {
  int16_t offsets[4];  // Offset split: u.x, u.y, v.x, v.y. Statistics split: offsets[0] is
                       // the feature kind. Leaf: offsets[0] is its number of leaf entries.
  float threshold;     // splits only
  uint32_t link;       // flag bits below; the rest: first child, or a leaf's first entry
};

inline constexpr uint32_t kPackedLeaf = 0x80000000u;
inline constexpr uint32_t kPackedStatisticsSplit = 0x40000000u;
inline constexpr uint32_t kPackedIndexMask = 0x3FFFFFFFu;

// One tree's packed node array.
struct KernelTree {
  const PackedNode* nodes;
  uint32_t node_count;
};

// Everything one pass reads, fixed for a classification level.
struct KernelFrame {
  const int16_t* depth;          // width x height, millimetres, 0 = no measurement
  const uint8_t* flags;          // working PixelFlags: bit 0 target, bit 1 context
  uint32_t width;
  uint32_t height;
  int32_t target_box[4];         // x0, y0, x1, y1, inclusive
  int32_t context_box[4];        // x0, y0, x1, y1, inclusive
  uint32_t level;                // grid step 1 << level
  float mean_depth;
  const UserStatistics* statistics;
  // The grid rows evaluate_tree walks: rows share, share + shares, share + 2 shares, ...
  // of the level's grid (0 of 1: all of them). evaluate_tree_level always scans them all.
  uint32_t share;
  uint32_t shares;
  // What a probe reads, or null to read depth and flags: over the context box and a ring
  // of one pixel around it, the depth of each context pixel and the background anywhere
  // else, in rows of probe_stride values from (context x0 - 1, y0 - 1). A probe clamped to
  // the ring then needs one read, where the flags take a box test, a flag read and a choice.
  const int16_t* probes;
  int32_t probe_stride;
  // Kinds 1 to 12 read from a FeatureTable (columns, rows, constants), or null to call
  // get_frame_feature_value.
  const float* feature_columns;
  const float* feature_rows;
  const float* feature_constants;
};

// What the probe image holds off the context: the background depth.
inline constexpr int16_t kProbeBackground = 10000;

// A build's tree walk: every target pixel of the share's grid rows goes from the root down
// to its leaf, whose index it gets in node_index (width x height); other entries are left
// as they are.
using KernelEntry = int32_t (*)(const KernelTree& tree, const KernelFrame& frame,
                                uint32_t* node_index);

struct ArchVariant {
  uint32_t required;   // CpuFeature bits the build needs
  KernelEntry entry;   // null for an empty slot
  const char* name;
};

// Kinds 1 to 12; lives in baseline code and is called by every build, so the arithmetic
// of those kinds is one and the same everywhere.
float get_frame_feature_value(uint8_t kind, int32_t x, int32_t y, const UserStatistics& s);

#define QBT_DECLARE_KERNEL_BUILD(ns)                                                   \
  namespace ns {                                                                       \
  int32_t evaluate_tree(const KernelTree& tree, const KernelFrame& frame,              \
                        uint32_t* node_index);                                         \
  int32_t evaluate_tree_level(const KernelTree& tree, const KernelFrame& frame,        \
                              uint32_t* node_index);                                   \
  }

QBT_DECLARE_KERNEL_BUILD(arch_null)
QBT_DECLARE_KERNEL_BUILD(arch_sse2)
QBT_DECLARE_KERNEL_BUILD(arch_sse4p1)
QBT_DECLARE_KERNEL_BUILD(arch_avx)
QBT_DECLARE_KERNEL_BUILD(arch_avx2)
QBT_DECLARE_KERNEL_BUILD(arch_fma3)
#undef QBT_DECLARE_KERNEL_BUILD

// Table entries contributed by the builds (the baseline entry is written by the
// dispatcher itself). They return constant objects, so no instruction of the build's
// own instruction set runs before the dispatcher has checked the processor.
const ArchVariant* describe_arch_sse2();
const ArchVariant* describe_arch_sse3();
const ArchVariant* describe_arch_ssse3();
const ArchVariant* describe_arch_sse4p1();
const ArchVariant* describe_arch_avx();
const ArchVariant* describe_arch_avx2();
const ArchVariant* describe_arch_fma3();
const ArchVariant* describe_arch_avx_fma3();

}  // namespace quorvik::skeleton
