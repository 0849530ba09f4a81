#include "forest/forest_writer.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "forest/forest_format.h"

namespace quorvik::skeleton {

namespace {

class Bytes {
 public:
  void u8(uint8_t v) { data.push_back(v); }
  void u16(uint16_t v) {
    data.push_back(static_cast<uint8_t>(v));
    data.push_back(static_cast<uint8_t>(v >> 8));
  }
  void u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) data.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void f32(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    u32(bits);
  }
  std::vector<uint8_t> data;
};

// Offsets are compared as four integers; used as a map key for deduplication.
struct OffsetKey {
  int16_t v[4];
  bool operator<(const OffsetKey& o) const { return std::memcmp(v, o.v, sizeof v) < 0; }
};

}  // namespace

NodeRecord leaf_record(uint32_t distribution_index) {
  return {forest_format::kLeafFlag | (distribution_index & forest_format::kIndexMask), 0, 0.f};
}

NodeRecord split_record(uint32_t first_child, uint8_t kind, uint32_t offset_index,
                        float threshold) {
  return {first_child & forest_format::kIndexMask,
          uint32_t{kind} << 24 | (offset_index & forest_format::kOffsetIndexMask), threshold};
}

DistributionRecord quantize(const LabelDistribution& distribution) {
  DistributionRecord record;
  for (uint32_t label = 0; label < kLabelCount; ++label) {
    const double p = distribution.probability[label];
    if (!(p > 0.0)) continue;  // zero, negative and NaN are all stored as absent
    const double q = std::nearbyint((p > 1.0 ? 1.0 : p) * 65535.0);
    if (q < 1.0) continue;
    record.labels.push_back(static_cast<uint8_t>(label));
    record.values.push_back(static_cast<uint16_t>(q));
  }
  return record;
}

void ForestFileWriter::signature() {
  out_.write(reinterpret_cast<const char*>(forest_format::kSignature), 8);
}

void ForestFileWriter::chunk(const char* type, const std::vector<uint8_t>& body) {
  Bytes head;
  head.u32(static_cast<uint32_t>(body.size()));
  out_.write(reinterpret_cast<const char*>(head.data.data()), 4);
  out_.write(type, 4);
  if (!body.empty()) out_.write(reinterpret_cast<const char*>(body.data()), body.size());
  const char trailer[8] = {};
  out_.write(trailer, 8);
}

void ForestFileWriter::header(uint32_t version, const char* type) {
  Bytes body;
  body.u32(version);
  chunk(type, body.data);
}

void ForestFileWriter::offsets(const std::vector<ProbeOffsets>& entries) {
  Bytes body;
  body.u32(0);
  body.u32(static_cast<uint32_t>(entries.size()));
  for (const ProbeOffsets& e : entries) {
    for (int16_t v : e.values) body.u16(static_cast<uint16_t>(v));
  }
  chunk("oFFS", body.data);
}

void ForestFileWriter::tree(uint32_t node_count, uint32_t distribution_count) {
  Bytes body;
  body.u32(node_count);
  body.u32(distribution_count);
  body.u32(0);
  chunk("TREE", body.data);
}

void ForestFileWriter::nodes(const std::vector<NodeRecord>& records) {
  Bytes body;
  body.u32(0);
  body.u32(static_cast<uint32_t>(records.size()));
  for (const NodeRecord& r : records) {
    body.u32(r.a);
    body.u32(r.b);
    body.f32(r.threshold);
  }
  chunk("NODE", body.data);
}

void ForestFileWriter::distributions(const std::vector<DistributionRecord>& records) {
  Bytes body;
  body.u32(static_cast<uint32_t>(records.size()));
  for (const DistributionRecord& r : records) {
    if (r.labels.size() != r.values.size()) {
      throw std::invalid_argument("DistributionRecord: labels and values differ in length");
    }
    body.u8(static_cast<uint8_t>(r.labels.size()));
    for (uint8_t label : r.labels) body.u8(label);
    for (uint16_t value : r.values) body.u16(value);
  }
  chunk("DIST", body.data);
}

void ForestFileWriter::end() { chunk("QEOF", {}); }

void write_forest(const DecisionForest& forest, std::ostream& out) {
  std::map<OffsetKey, uint32_t> index_of;
  std::vector<ProbeOffsets> table;
  for (size_t t = 0; t < forest.tree_count(); ++t) {
    for (const TreeNode& node : forest.tree(t).nodes) {
      if (node.is_leaf || node.kind != 0) continue;
      OffsetKey key;
      std::memcpy(key.v, node.offsets, sizeof key.v);
      if (index_of.emplace(key, static_cast<uint32_t>(table.size())).second) {
        ProbeOffsets entry;
        std::memcpy(entry.values, node.offsets, sizeof entry.values);
        table.push_back(entry);
      }
    }
  }
  if (table.size() > forest_format::kOffsetIndexMask + 1u) {
    throw std::length_error("write_forest: too many distinct probe offsets");
  }

  ForestFileWriter writer(out);
  writer.signature();
  writer.header();
  writer.offsets(table);
  for (size_t t = 0; t < forest.tree_count(); ++t) {
    const DecisionTree& tree = forest.tree(t);
    writer.tree(static_cast<uint32_t>(tree.nodes.size()),
                static_cast<uint32_t>(tree.distributions.size()));
    std::vector<NodeRecord> records;
    records.reserve(tree.nodes.size());
    for (const TreeNode& node : tree.nodes) {
      if (node.target > forest_format::kIndexMask) {
        throw std::length_error("write_forest: node index beyond 31 bits");
      }
      if (node.is_leaf) {
        records.push_back(leaf_record(static_cast<uint32_t>(node.target)));
      } else {
        uint32_t offset_index = 0;
        if (node.kind == 0) {
          OffsetKey key;
          std::memcpy(key.v, node.offsets, sizeof key.v);
          offset_index = index_of.at(key);
        }
        records.push_back(split_record(static_cast<uint32_t>(node.target), node.kind,
                                       offset_index, node.threshold));
      }
    }
    writer.nodes(records);
    std::vector<DistributionRecord> distributions;
    distributions.reserve(tree.distributions.size());
    for (const LabelDistribution& d : tree.distributions) distributions.push_back(quantize(d));
    writer.distributions(distributions);
  }
  writer.end();
}

std::vector<uint8_t> write_forest_bytes(const DecisionForest& forest) {
  std::ostringstream out(std::ios::binary);
  write_forest(forest, out);
  const std::string s = std::move(out).str();
  return std::vector<uint8_t>(s.begin(), s.end());
}

bool write_forest_file(const DecisionForest& forest, const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  write_forest(forest, out);
  out.close();
  return static_cast<bool>(out);
}

}  // namespace quorvik::skeleton
