#pragma once
// One node of a decision tree. Plain data with no constructors of its own: the tree
// kernels, which are compiled for several instruction sets, read nodes through this
// header and must not pull in any shared inline code.

#include <cstdint>

namespace quorvik::skeleton {

struct TreeNode {
  // Split node: index of the first child (the second is target + 1).
  // Leaf: index of its distribution in the same tree.
  uint64_t target;
  uint8_t kind;       // FeatureKind of a split; 0 for leaves
  float threshold;    // 0 for leaves
  int16_t offsets[4]; // u.x, u.y, v.x, v.y of an Offset split; 0 otherwise
  bool is_leaf;
};

}  // namespace quorvik::skeleton
