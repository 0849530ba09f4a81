// libFuzzer target for the forest data file parser: any input must be either refused or
// turned into a forest whose every descent ends in a leaf, and which the writer can write
// and the reader read again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "forest/forest_reader.h"
#include "forest/forest_writer.h"

using namespace quorvik::skeleton;

namespace {

// Walks every tree twice, always left and always right, and then with a pattern; a
// descent longer than the node count means a cycle got through.
void check_descents(const DecisionTree& tree) {
  for (uint32_t pattern : {0u, 0xFFFFFFFFu, 0x5A5A5A5Au}) {
    uint32_t index = 0;
    size_t steps = 0;
    uint32_t bits = pattern;
    while (!tree.node(index).is_leaf) {
      const TreeNode& node = tree.node(index);
      index = static_cast<uint32_t>(node.target + (bits & 1));
      bits = (bits >> 1) | (bits << 31);
      if (index >= tree.nodes.size() || ++steps > tree.nodes.size()) std::abort();
    }
    if (tree.leaf_distribution(tree.node(index)).best_label != kBestLabelUnknown) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  op::MemoryInputStream stream(data, size);
  auto result = ForestReader().parse(stream);
  if (result.is_error()) return 0;
  const DecisionForest forest = result.unwrap();
  for (size_t t = 0; t < forest.tree_count(); ++t) check_descents(forest.tree(t));

  const std::vector<uint8_t> bytes = write_forest_bytes(forest);
  op::MemoryInputStream again(bytes.data(), bytes.size());
  auto reread = ForestReader().parse(again);
  if (reread.is_error()) std::abort();
  if (reread.unwrap().tree_count() != forest.tree_count()) std::abort();
  return 0;
}
