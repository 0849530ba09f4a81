#pragma once
// Parser of the forest data file: an 8-byte signature, a QHDR header, then oFFS, TREE,
// NODE and DIST chunks up to QEOF. It is the library's only parser of outside data, so
// everything the rest of the system relies on (indices in range, trees that end in
// leaves, known feature kinds) is checked here and refused as invalid contents.

#include <cstdint>
#include <string>

#include "forest/decision_forest.h"
#include "forest/input_stream.h"
#include "op/result.h"

namespace quorvik::skeleton {

enum class ForestReadError : uint32_t {
  CannotOpen = 0,       // the stream did not open, or the file holds no tree
  InvalidContents = 1,  // the parser refused the contents
};

// Why the parser refused a file; all of these become InvalidContents.
enum class ForestParseError : uint32_t {
  None = 0,
  BadSignature,
  BadVersion,
  UnexpectedChunk,   // QHDR, mETA or an unknown type in the chunk sequence
  NoCurrentTree,     // NODE or DIST before any TREE
  Truncated,         // the data ended inside a field
  BadDistribution,   // more than 32 entries, or a label of 32 or more
  BadOffsetIndex,    // an Offset split names an entry beyond the offset table
  BadFeatureKind,    // a split with a kind above 12
  TooManyRecords,    // more nodes or distributions than the TREE chunk declared
  BadChildIndex,     // a split whose children are not both in the tree
  BadLeafIndex,      // a leaf whose distribution is not in the tree
  EmptyTree,         // a tree without a root node
  NotATree,          // a node reachable twice from the root (a cycle or shared subtree)
};

const char* to_string(ForestParseError error);

class ForestReader {
 public:
  // On failure everything read so far is freed. The offset table lives only for the call.
  op::Result<DecisionForest, ForestParseError> parse(op::InputStream& stream);
};

// Size of the stream buffer the data file is read through.
inline constexpr size_t kForestReadBufferSize = 1 << 20;

// Reads the data file at `path`. A file that parses but holds no tree is CannotOpen.
op::Result<DecisionForest, ForestReadError> load_forest(const std::string& path);

}  // namespace quorvik::skeleton
