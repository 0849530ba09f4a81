#include "forest/forest_reader.h"

#include <array>
#include <cstdio>
#include <functional>
#include <set>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forest/forest_fixtures.h"
#include "forest/forest_format.h"
#include "forest/forest_writer.h"

namespace quorvik::skeleton {
namespace {

constexpr float kQ = 1.0f / 65535.0f;

op::Result<DecisionForest, ForestParseError> parse_bytes(const std::string& bytes) {
  op::MemoryInputStream stream(bytes.data(), bytes.size());
  return ForestReader().parse(stream);
}

ForestParseError parse_error(const std::string& bytes) {
  auto result = parse_bytes(bytes);
  return result.is_error() ? result.unwrap_error() : ForestParseError::None;
}

// A small valid file, built chunk by chunk; the tests break one piece at a time.
struct FileBuilder {
  std::ostringstream out{std::ios::binary};
  ForestFileWriter w{out};

  FileBuilder& start(uint32_t version = 1, const char* headerType = "QHDR") {
    w.signature();
    w.header(version, headerType);
    return *this;
  }
  // Root split on offsets entry 0, two leaves with distributions 0 and 1.
  FileBuilder& stump() {
    return offsets({ProbeOffsets{{10, -20, 30, -40}}})
        .tree(3, 2)
        .nodes({split_record(1, 0, 0, 5.f), leaf_record(0), leaf_record(1)})
        .distributions({DistributionRecord{{3}, {65535}}, DistributionRecord{{7, 9}, {100, 200}}});
  }
  // The writer's chunks, chained.
  FileBuilder& offsets(const std::vector<ProbeOffsets>& entries) { return w.offsets(entries), *this; }
  FileBuilder& tree(uint32_t nodeCount, uint32_t leafCount) { return w.tree(nodeCount, leafCount), *this; }
  FileBuilder& nodes(const std::vector<NodeRecord>& records) { return w.nodes(records), *this; }
  FileBuilder& distributions(const std::vector<DistributionRecord>& records) { return w.distributions(records), *this; }
  std::string finish() {
    w.end();
    return out.str();
  }
};

TEST(ForestReaderTest, ReadsAHandWrittenFile) {
  // Only the header's version is checked, not its chunk type.
  auto result = parse_bytes(FileBuilder().start(1, "XXXX").stump().finish());
  ASSERT_TRUE(result.is_ok());
  const DecisionForest forest = result.unwrap();
  ASSERT_EQ(forest.tree_count(), 1u);
  const DecisionTree& tree = forest.tree(0);
  ASSERT_EQ(tree.nodes.size(), 3u);
  const TreeNode& root = tree.node(0);
  EXPECT_FALSE(root.is_leaf);
  EXPECT_EQ(root.target, 1u);
  EXPECT_EQ(root.kind, 0);
  EXPECT_EQ(root.threshold, 5.f);
  EXPECT_THAT(root.offsets, ::testing::ElementsAre(10, -20, 30, -40));
  EXPECT_TRUE(tree.node(2).is_leaf);
  EXPECT_EQ(tree.leaf_distribution(tree.node(1)).get(3), 1.0f) << "65535 decodes to exactly 1";
  const LabelDistribution& second = tree.leaf_distribution(tree.node(2));
  EXPECT_EQ(second.get(7), 100.f * kQ);
  EXPECT_EQ(second.get(9), 200.f * kQ);
  EXPECT_EQ(second.best_label, kBestLabelUnknown);
}

LabelDistribution decode(const DistributionRecord& record) {
  auto result = parse_bytes(FileBuilder().start().tree(1, 1).nodes({leaf_record(0)}).distributions({record}).finish());
  EXPECT_TRUE(result.is_ok());
  if (result.is_error()) return {};
  const DecisionForest forest = result.unwrap();
  return forest.tree(0).distributions[0];
}

TEST(ForestReaderTest, DistributionDecodingFoldsTheExtraLabels) {
  const uint16_t q = 1234;
  const float x = static_cast<float>(q) * kQ;
  LabelDistribution empty = decode({{}, {}});
  for (float p : empty.probability) EXPECT_EQ(p, 0.f);

  LabelDistribution hands = decode({{2, 28, 4, 29}, {q, q, q, q}});
  EXPECT_EQ(hands.get(2), x + x);
  EXPECT_EQ(hands.get(28), 0.f);
  EXPECT_EQ(hands.get(4), x + x);
  EXPECT_EQ(hands.get(29), x) << "29 keeps its value";

  LabelDistribution feet = decode({{30, 31}, {q, 65535}});
  EXPECT_EQ(feet.get(11), x);
  EXPECT_EQ(feet.get(30), 0.f);
  EXPECT_EQ(feet.get(14), 1.f);
  EXPECT_EQ(feet.get(31), 1.f);

  LabelDistribution twice = decode({{6, 6}, {10, 0}});
  EXPECT_EQ(twice.get(6), 0.f) << "the last value of a repeated label wins";
}

TEST(ForestReaderTest, NodeChunksOfOneTreeConcatenate) {
  auto result = parse_bytes(FileBuilder()
                                .start()
                                .tree(3, 2)
                                .nodes({split_record(1, 4, 0, 0.5f)})
                                .nodes({leaf_record(1), leaf_record(0)})
                                .distributions({DistributionRecord{{1}, {1}}})
                                .distributions({DistributionRecord{{2}, {1}}})
                                .finish());
  ASSERT_TRUE(result.is_ok());
  const DecisionForest forest = result.unwrap();
  const DecisionTree& tree = forest.tree(0);
  ASSERT_EQ(tree.nodes.size(), 3u);
  EXPECT_EQ(tree.node(0).kind, 4);
  EXPECT_THAT(tree.node(0).offsets, ::testing::ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(tree.node(1).target, 1u);
  EXPECT_GT(tree.leaf_distribution(tree.node(1)).get(2), 0.f);
}

TEST(ForestReaderTest, LaterOffsetTableReplacesTheEarlierOne) {
  const std::vector<ProbeOffsets> two{ProbeOffsets{{1, 1, 1, 1}}, ProbeOffsets{{2, 2, 2, 2}}};
  const std::vector<ProbeOffsets> one{ProbeOffsets{{3, 3, 3, 3}}};
  const NodeRecord split = split_record(1, 0, 1, 0.f);
  auto result = parse_bytes(FileBuilder().start().offsets(two).tree(3, 1).nodes({split}).offsets(one)
                                .nodes({leaf_record(0), leaf_record(0)}).distributions({DistributionRecord{}})
                                .finish());
  ASSERT_TRUE(result.is_ok());
  EXPECT_THAT(result.unwrap().tree(0).node(0).offsets, ::testing::ElementsAre(2, 2, 2, 2))
      << "nodes keep the offsets they copied";

  const std::string shrunk = FileBuilder().start().offsets(two).offsets(one).tree(3, 1)
                                 .nodes({split, leaf_record(0), leaf_record(0)})
                                 .distributions({DistributionRecord{}})
                                 .finish();
  EXPECT_EQ(parse_error(shrunk), ForestParseError::BadOffsetIndex);
}

TEST(ForestReaderTest, RejectsBrokenFiles) {
  struct Case {
    const char* name;
    std::function<void(FileBuilder&)> body;  // after signature and header
    ForestParseError expected;
  };
  const DistributionRecord any{{1}, {1}};
  const std::vector<Case> cases = {
      {"NODE before TREE", [](FileBuilder& b) { b.nodes({leaf_record(0)}); }, ForestParseError::NoCurrentTree},
      {"DIST before TREE", [&](FileBuilder& b) { b.distributions({any}); }, ForestParseError::NoCurrentTree},
      {"label 32", [](FileBuilder& b) { b.tree(1, 1).distributions({DistributionRecord{{32}, {5}}}); },
       ForestParseError::BadDistribution},
      {"33 entries", [](FileBuilder& b) { b.tree(1, 1).w.chunk("DIST", {1, 0, 0, 0, 33}); },
       ForestParseError::BadDistribution},
      {"offset index beyond the table",
       [](FileBuilder& b) { b.offsets({ProbeOffsets{}}).tree(3, 1).nodes({split_record(1, 0, 1, 0.f)}); },
       ForestParseError::BadOffsetIndex},
      {"Offset split without any table", [](FileBuilder& b) { b.tree(3, 1).nodes({split_record(1, 0, 0, 0.f)}); },
       ForestParseError::BadOffsetIndex},
      {"feature kind 13", [](FileBuilder& b) { b.tree(3, 1).nodes({split_record(1, 13, 0, 0.f)}); },
       ForestParseError::BadFeatureKind},
      {"more nodes than declared", [](FileBuilder& b) { b.tree(1, 1).nodes({leaf_record(0), leaf_record(0)}); },
       ForestParseError::TooManyRecords},
      {"more distributions than declared",
       [&](FileBuilder& b) { b.tree(1, 1).distributions({any}).distributions({any}); },
       ForestParseError::TooManyRecords},
      {"second child outside the tree",
       [&](FileBuilder& b) { b.tree(2, 1).nodes({split_record(1, 5, 0, 0.f), leaf_record(0)}).distributions({any}); },
       ForestParseError::BadChildIndex},
      {"leaf without its distribution",
       [&](FileBuilder& b) { b.tree(1, 1).nodes({leaf_record(1)}).distributions({any}); },
       ForestParseError::BadLeafIndex},
      {"tree without nodes", [](FileBuilder& b) { b.tree(0, 0); }, ForestParseError::EmptyTree},
      {"child pointing back at the root",
       [&](FileBuilder& b) {
         b.tree(3, 1)
             .nodes({split_record(1, 5, 0, 0.f), split_record(0, 5, 0, 0.f), leaf_record(0)})
             .distributions({any});
       },
       ForestParseError::NotATree},
      {"a valid tree followed by a broken one", [&](FileBuilder& b) { b.stump().tree(1, 0).nodes({leaf_record(0)}); },
       ForestParseError::BadLeafIndex},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FileBuilder b;
    b.start();
    c.body(b);
    EXPECT_EQ(parse_error(b.finish()), c.expected);
  }

  std::string bad_signature = FileBuilder().start().stump().finish();
  bad_signature[3] = 'X';
  EXPECT_EQ(parse_error(bad_signature), ForestParseError::BadSignature);
  EXPECT_EQ(parse_error(FileBuilder().start(2).stump().finish()), ForestParseError::BadVersion);
}

TEST(ForestReaderTest, UnexpectedChunksAreNamedOnStandardOutput) {
  for (const char* type : {"mETA", "QHDR", "nODE", "tree"}) {
    SCOPED_TRACE(type);
    FileBuilder b;
    b.start().stump();
    b.w.chunk(type, {});
    ::testing::internal::CaptureStdout();
    const ForestParseError error = parse_error(b.finish());
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(error, ForestParseError::UnexpectedChunk);
    EXPECT_EQ(printed, std::string("Unexpected chunk type: ") + type + "\n");
  }
}

TEST(ForestReaderTest, EveryTruncationIsRefused) {
  const auto bytes = write_forest_bytes(testing::make_random_forest(7, {.trees = 2, .depth = 3}));
  const std::string full(bytes.begin(), bytes.end());
  ASSERT_TRUE(parse_bytes(full).is_ok());
  for (size_t length = 0; length < full.size(); ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(parse_error(full.substr(0, length)), ForestParseError::Truncated);
  }
}

void expect_same_forest(const DecisionForest& a, const DecisionForest& b) {
  ASSERT_EQ(a.tree_count(), b.tree_count());
  for (size_t t = 0; t < a.tree_count(); ++t) {
    SCOPED_TRACE(t);
    const DecisionTree& x = a.tree(t);
    const DecisionTree& y = b.tree(t);
    ASSERT_EQ(x.nodes.size(), y.nodes.size());
    ASSERT_EQ(x.distributions.size(), y.distributions.size());
    for (size_t i = 0; i < x.nodes.size(); ++i) {
      EXPECT_EQ(x.nodes[i].is_leaf, y.nodes[i].is_leaf);
      EXPECT_EQ(x.nodes[i].target, y.nodes[i].target);
      EXPECT_EQ(x.nodes[i].kind, y.nodes[i].kind);
      EXPECT_EQ(x.nodes[i].threshold, y.nodes[i].threshold);
      EXPECT_EQ(0, std::memcmp(x.nodes[i].offsets, y.nodes[i].offsets, 8));
    }
    for (size_t i = 0; i < x.distributions.size(); ++i) {
      for (uint32_t l = 0; l < kLabelCount; ++l) {
        EXPECT_EQ(x.distributions[i].get(l), y.distributions[i].get(l));
      }
    }
  }
}

TEST(ForestWriterTest, RoundTripsAndStoresSharedOffsetsOnce) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    const DecisionForest forest = testing::make_random_forest(
        seed, {.trees = 3, .depth = 6, .max_offset = 2});  // few distinct offsets
    const std::vector<uint8_t> bytes = write_forest_bytes(forest);
    auto result = parse_bytes(std::string(bytes.begin(), bytes.end()));
    ASSERT_TRUE(result.is_ok());
    expect_same_forest(forest, result.unwrap());

    // oFFS count sits after the signature, the 20-byte header chunk, the length, the type
    // and the reserved word.
    uint32_t stored;
    std::memcpy(&stored, bytes.data() + 8 + 20 + 12, 4);
    std::set<std::array<int16_t, 4>> distinct;
    for (size_t t = 0; t < forest.tree_count(); ++t) {
      for (const TreeNode& n : forest.tree(t).nodes) {
        if (!n.is_leaf && n.kind == 0) {
          distinct.insert({n.offsets[0], n.offsets[1], n.offsets[2], n.offsets[3]});
        }
      }
    }
    EXPECT_EQ(stored, distinct.size());
  }
}

TEST(LoadForest, MapsOutcomesToReadErrors) {
  const std::string path = ::testing::TempDir() + "qbt_forest_load";
  const auto load_bytes = [&](const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    return load_forest(path);
  };
  EXPECT_EQ(load_forest(path + "_missing").error(), ForestReadError::CannotOpen);
  EXPECT_EQ(load_bytes(FileBuilder().start().finish()).error(), ForestReadError::CannotOpen) << "no tree";
  EXPECT_EQ(load_bytes(FileBuilder().start(2).finish()).error(), ForestReadError::InvalidContents);

  const DecisionForest forest = testing::make_random_forest(11, {.trees = 2, .depth = 5});
  ASSERT_TRUE(write_forest_file(forest, path));
  auto good = load_forest(path);
  std::remove(path.c_str());
  ASSERT_TRUE(good.is_ok());
  expect_same_forest(forest, good.unwrap());
}

}  // namespace
}  // namespace quorvik::skeleton
