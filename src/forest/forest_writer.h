#pragma once
// Writer of the forest data file: the inverse of ForestReader. The library itself never
// writes a data file; the trainer and the tests do. Two levels: ForestFileWriter emits
// single chunks (tests use it to build deliberately broken files), write_forest emits a
// whole forest.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "forest/decision_forest.h"

namespace quorvik::skeleton {

struct ProbeOffsets {
  int16_t values[4];  // u.x, u.y, v.x, v.y
  bool operator==(const ProbeOffsets&) const = default;
};

// A node record as it stands in the file.
struct NodeRecord {
  uint32_t a;  // bit 31 leaf flag; bits 0-30 first child or distribution index
  uint32_t b;  // bits 24-31 feature kind; bits 0-23 offset table index
  float threshold;
};

// A sparse distribution record as it stands in the file: quantised values (q / 65535).
struct DistributionRecord {
  std::vector<uint8_t> labels;
  std::vector<uint16_t> values;
};

NodeRecord leaf_record(uint32_t distribution_index);
NodeRecord split_record(uint32_t first_child, uint8_t kind, uint32_t offset_index,
                        float threshold);

// Quantises the 32 probabilities to sixteen bits each (rounded, clamped to 0..1) and
// keeps the non-zero ones, in label order.
DistributionRecord quantize(const LabelDistribution& distribution);

class ForestFileWriter {
 public:
  explicit ForestFileWriter(std::ostream& out) : out_(out) {}

  void signature();
  // Chunk types are four characters. The header chunk's type is not read back.
  void header(uint32_t version = 1, const char* type = "QHDR");
  void offsets(const std::vector<ProbeOffsets>& entries);
  void tree(uint32_t node_count, uint32_t distribution_count);
  void nodes(const std::vector<NodeRecord>& records);
  void distributions(const std::vector<DistributionRecord>& records);
  void end();
  // Any chunk: length, the four type bytes, the body, an 8-byte zero trailer.
  void chunk(const char* type, const std::vector<uint8_t>& body);

 private:
  std::ostream& out_;
};

// Writes the whole forest. Offset entries shared by several splits are stored once.
void write_forest(const DecisionForest& forest, std::ostream& out);
std::vector<uint8_t> write_forest_bytes(const DecisionForest& forest);
bool write_forest_file(const DecisionForest& forest, const std::string& path);

}  // namespace quorvik::skeleton
