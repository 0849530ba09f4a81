#pragma once
// Constants of the chunked forest data file, shared by the reader and the writer.

#include <cstdint>

namespace quorvik::skeleton::forest_format {

inline constexpr unsigned char kSignature[8] = {0x88, 'Q', 'C', 'F', 0x0D, 0x0A, 0x1A, 0x0A};
inline constexpr uint32_t kVersion = 1;

// The reader's table of chunk types, in this order.
enum class ChunkKind : uint32_t {
  Header = 0,  // QHDR
  Meta = 1,    // mETA
  Offsets = 2, // oFFS
  Tree = 3,    // TREE
  Nodes = 4,   // NODE
  Distributions = 5,  // DIST
  End = 6,     // QEOF
  Unknown = 7,
};
inline constexpr char kChunkTypes[7][4] = {
    {'Q', 'H', 'D', 'R'}, {'m', 'E', 'T', 'A'}, {'o', 'F', 'F', 'S'}, {'T', 'R', 'E', 'E'},
    {'N', 'O', 'D', 'E'}, {'D', 'I', 'S', 'T'}, {'Q', 'E', 'O', 'F'}};

inline constexpr uint32_t kLeafFlag = 0x80000000u;
inline constexpr uint32_t kIndexMask = 0x7FFFFFFFu;
inline constexpr uint32_t kOffsetIndexMask = 0x00FFFFFFu;
inline constexpr uint32_t kMaxDistributionEntries = 32;
// 1/65535 rounded to binary32 (bits 0x37800080).
inline constexpr float kQuantumScale = 1.0f / 65535.0f;
// Highest feature kind a split may use.
inline constexpr uint8_t kMaxFeatureKind = 12;

// Four bytes of type, as they stand in the file.
ChunkKind chunk_kind(const char type[4]);

}  // namespace quorvik::skeleton::forest_format
