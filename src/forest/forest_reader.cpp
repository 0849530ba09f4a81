#include "forest/forest_reader.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "forest/forest_format.h"

namespace quorvik::skeleton {

namespace forest_format {

ChunkKind chunk_kind(const char type[4]) {
  for (uint32_t i = 0; i < 7; ++i) {
    if (std::memcmp(type, kChunkTypes[i], 4) == 0) return static_cast<ChunkKind>(i);
  }
  return ChunkKind::Unknown;
}

}  // namespace forest_format

namespace {

using forest_format::ChunkKind;

// Reservations from the counts in a TREE or oFFS chunk are capped: the counts come from
// outside, and a lying count must not turn into a huge allocation before any record has
// been seen. Beyond the cap the arrays grow as records actually arrive.
constexpr uint32_t kMaxReserve = 1u << 16;

struct OffsetEntry {
  int16_t values[4];
};

struct TreeUnderConstruction {
  std::unique_ptr<DecisionTree> tree;
  uint32_t declared_nodes = 0;
  uint32_t declared_distributions = 0;
};

class Parser {
 public:
  explicit Parser(op::InputStream& stream) : stream_(stream) {}

  ForestParseError run(std::vector<std::unique_ptr<DecisionTree>>& out);

 private:
  bool read_bytes(void* buffer, int64_t count) {
    if (stream_.read(static_cast<char*>(buffer), count) != count) {
      error_ = ForestParseError::Truncated;
      return false;
    }
    return true;
  }
  bool read_u32(uint32_t& value) {
    unsigned char b[4];
    if (!read_bytes(b, 4)) return false;
    value = uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
    return true;
  }
  bool read_u16(uint16_t& value) {
    unsigned char b[2];
    if (!read_bytes(b, 2)) return false;
    value = static_cast<uint16_t>(b[0] | b[1] << 8);
    return true;
  }
  bool read_f32(float& value) {
    uint32_t bits;
    if (!read_u32(bits)) return false;
    std::memcpy(&value, &bits, 4);
    return true;
  }
  bool fail(ForestParseError error) {
    error_ = error;
    return false;
  }

  bool read_offsets();
  bool read_tree();
  bool read_nodes();
  bool read_distributions();
  bool read_node(TreeNode& node);
  bool read_distribution(LabelDistribution& distribution);

  op::InputStream& stream_;
  ForestParseError error_ = ForestParseError::None;
  std::vector<OffsetEntry> offsets_;
  std::vector<TreeUnderConstruction> trees_;
};

bool Parser::read_offsets() {
  uint32_t reserved, count;
  if (!read_u32(reserved) || !read_u32(count)) return false;
  offsets_.clear();
  offsets_.reserve(count < kMaxReserve ? count : kMaxReserve);
  for (uint32_t i = 0; i < count; ++i) {
    OffsetEntry entry;
    for (int16_t& v : entry.values) {
      uint16_t raw;
      if (!read_u16(raw)) return false;
      v = static_cast<int16_t>(raw);
    }
    offsets_.push_back(entry);
  }
  return true;
}

bool Parser::read_tree() {
  uint32_t node_count, distribution_count;
  char tag[4];
  if (!read_u32(node_count) || !read_u32(distribution_count) || !read_bytes(tag, 4)) {
    return false;
  }
  TreeUnderConstruction entry;
  entry.tree = std::make_unique<DecisionTree>();
  entry.tree->nodes.reserve(node_count < kMaxReserve ? node_count : kMaxReserve);
  entry.tree->distributions.reserve(distribution_count < kMaxReserve ? distribution_count
                                                                     : kMaxReserve);
  entry.declared_nodes = node_count;
  entry.declared_distributions = distribution_count;
  trees_.push_back(std::move(entry));
  return true;
}

bool Parser::read_node(TreeNode& node) {
  uint32_t a, b;
  float threshold;
  if (!read_u32(a) || !read_u32(b) || !read_f32(threshold)) return false;
  node = TreeNode{};
  if (a & forest_format::kLeafFlag) {
    node.is_leaf = true;
    node.target = a & forest_format::kIndexMask;
    return true;
  }
  node.target = a & forest_format::kIndexMask;
  node.kind = static_cast<uint8_t>(b >> 24);
  node.threshold = threshold;
  if (node.kind > forest_format::kMaxFeatureKind) return fail(ForestParseError::BadFeatureKind);
  if (node.kind == 0) {
    const uint32_t index = b & forest_format::kOffsetIndexMask;
    if (index >= offsets_.size()) return fail(ForestParseError::BadOffsetIndex);
    std::memcpy(node.offsets, offsets_[index].values, sizeof node.offsets);
  }
  return true;
}

bool Parser::read_nodes() {
  if (trees_.empty()) return fail(ForestParseError::NoCurrentTree);
  TreeUnderConstruction& current = trees_.back();
  uint32_t reserved, count;
  if (!read_u32(reserved) || !read_u32(count)) return false;
  for (uint32_t i = 0; i < count; ++i) {
    if (current.tree->nodes.size() >= current.declared_nodes) {
      return fail(ForestParseError::TooManyRecords);
    }
    TreeNode node;
    if (!read_node(node)) return false;
    current.tree->nodes.push_back(node);
  }
  return true;
}

bool Parser::read_distribution(LabelDistribution& distribution) {
  unsigned char n;
  if (!read_bytes(&n, 1)) return false;
  if (n > forest_format::kMaxDistributionEntries) return fail(ForestParseError::BadDistribution);
  unsigned char labels[forest_format::kMaxDistributionEntries];
  if (n != 0 && !read_bytes(labels, n)) return false;
  distribution.clear();
  for (uint32_t i = 0; i < n; ++i) {
    uint16_t value;
    if (!read_u16(value)) return false;
    if (labels[i] >= kLabelCount) return fail(ForestParseError::BadDistribution);
    distribution.probability[labels[i]] =
        static_cast<float>(value) * forest_format::kQuantumScale;
  }
  // The four extra labels are merged into the hand and foot labels. Only 28 and 30 are
  // cleared afterwards; 29 and 31 keep their share as well, as the trained data expects.
  float* p = distribution.probability;
  p[2] += p[28];
  p[4] += p[29];
  p[11] += p[30];
  p[14] += p[31];
  p[28] = 0.f;
  p[30] = 0.f;
  distribution.best_label = kBestLabelUnknown;
  return true;
}

bool Parser::read_distributions() {
  if (trees_.empty()) return fail(ForestParseError::NoCurrentTree);
  TreeUnderConstruction& current = trees_.back();
  uint32_t count;
  if (!read_u32(count)) return false;
  for (uint32_t i = 0; i < count; ++i) {
    if (current.tree->distributions.size() >= current.declared_distributions) {
      return fail(ForestParseError::TooManyRecords);
    }
    LabelDistribution distribution;
    if (!read_distribution(distribution)) return false;
    current.tree->distributions.push_back(distribution);
  }
  return true;
}

// Indices in range and every node reached at most once from the root: the descent of
// any pixel then ends in a leaf after at most node-count steps.
ForestParseError validate(const DecisionTree& tree) {
  const size_t node_count = tree.nodes.size();
  if (node_count == 0) return ForestParseError::EmptyTree;
  for (const TreeNode& node : tree.nodes) {
    if (node.is_leaf) {
      if (node.target >= tree.distributions.size()) return ForestParseError::BadLeafIndex;
    } else if (node.target + 1 >= node_count) {
      return ForestParseError::BadChildIndex;
    }
  }
  std::vector<bool> reached(node_count, false);
  std::vector<uint64_t> stack{0};
  reached[0] = true;
  while (!stack.empty()) {
    const TreeNode& node = tree.nodes[stack.back()];
    stack.pop_back();
    if (node.is_leaf) continue;
    for (uint64_t child = node.target; child <= node.target + 1; ++child) {
      if (reached[child]) return ForestParseError::NotATree;
      reached[child] = true;
      stack.push_back(child);
    }
  }
  return ForestParseError::None;
}

ForestParseError Parser::run(std::vector<std::unique_ptr<DecisionTree>>& out) {
  unsigned char signature[8];
  if (!read_bytes(signature, 8)) return error_;
  if (std::memcmp(signature, forest_format::kSignature, 8) != 0) {
    return ForestParseError::BadSignature;
  }
  uint32_t length, version;
  char type[4];
  unsigned char trailer[8];
  if (!read_u32(length) || !read_bytes(type, 4) || !read_u32(version) ||
      !read_bytes(trailer, 8)) {
    return error_;
  }
  if (version != forest_format::kVersion) return ForestParseError::BadVersion;

  bool end = false;
  while (!end) {
    if (!read_u32(length) || !read_bytes(type, 4)) return error_;
    bool ok = true;
    switch (forest_format::chunk_kind(type)) {
      case ChunkKind::Offsets: ok = read_offsets(); break;
      case ChunkKind::Tree: ok = read_tree(); break;
      case ChunkKind::Nodes: ok = read_nodes(); break;
      case ChunkKind::Distributions: ok = read_distributions(); break;
      case ChunkKind::End: end = true; break;
      case ChunkKind::Header:
      case ChunkKind::Meta:
      case ChunkKind::Unknown:
        std::fputs("Unexpected chunk type: ", stdout);
        std::fwrite(type, 1, 4, stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
        return ForestParseError::UnexpectedChunk;
    }
    if (!ok) return error_;
    if (!read_bytes(trailer, 8)) return error_;
  }

  for (const TreeUnderConstruction& entry : trees_) {
    const ForestParseError error = validate(*entry.tree);
    if (error != ForestParseError::None) return error;
  }
  out.reserve(trees_.size());
  for (TreeUnderConstruction& entry : trees_) out.push_back(std::move(entry.tree));
  return ForestParseError::None;
}

}  // namespace

const char* to_string(ForestParseError error) {
  switch (error) {
    case ForestParseError::None: return "no error";
    case ForestParseError::BadSignature: return "bad signature";
    case ForestParseError::BadVersion: return "unsupported version";
    case ForestParseError::UnexpectedChunk: return "unexpected chunk type";
    case ForestParseError::NoCurrentTree: return "NODE or DIST before any TREE";
    case ForestParseError::Truncated: return "truncated data";
    case ForestParseError::BadDistribution: return "bad distribution record";
    case ForestParseError::BadOffsetIndex: return "offset index beyond the offset table";
    case ForestParseError::BadFeatureKind: return "unknown feature kind";
    case ForestParseError::TooManyRecords: return "more records than the tree declared";
    case ForestParseError::BadChildIndex: return "child index outside the tree";
    case ForestParseError::BadLeafIndex: return "distribution index outside the tree";
    case ForestParseError::EmptyTree: return "tree without nodes";
    case ForestParseError::NotATree: return "node reachable twice from the root";
  }
  return "unknown error";
}

op::Result<DecisionForest, ForestParseError> ForestReader::parse(op::InputStream& stream) {
  std::vector<std::unique_ptr<DecisionTree>> trees;
  const ForestParseError error = Parser(stream).run(trees);
  if (error != ForestParseError::None) return op::Err(error);
  return op::Ok(DecisionForest(std::move(trees)));
}

op::Result<DecisionForest, ForestReadError> load_forest(const std::string& path) {
  // The buffer is installed before the file is opened, as the stream requires.
  std::unique_ptr<char[]> buffer(new char[kForestReadBufferSize]);
  std::ifstream file;
  file.rdbuf()->pubsetbuf(buffer.get(), kForestReadBufferSize);
  file.open(path, std::ios::in | std::ios::binary);
  if (!file.good()) return op::Err(ForestReadError::CannotOpen);
  op::IOSInputStream stream(file);
  auto parsed = ForestReader().parse(stream);
  if (parsed.is_error()) return op::Err(ForestReadError::InvalidContents);
  DecisionForest forest = parsed.unwrap();
  if (forest.tree_count() == 0) return op::Err(ForestReadError::CannotOpen);
  return op::Ok(std::move(forest));
}

}  // namespace quorvik::skeleton
