#include <cstring>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "classifier/arch/dispatch.h"
#include "classifier/packed_forest.h"
#include "classifier/depth_features.h"
#include "forest/forest_fixtures.h"

namespace quorvik::skeleton {
namespace {

// The distinct builds this processor can run, named after their first table entry.
std::vector<ArchVariant> runnable_builds() {
  const uint32_t features = detect_cpu_features();
  std::vector<ArchVariant> builds;
  std::set<KernelEntry> seen;
  for (const ArchVariant& v : arch_variants()) {
    if ((v.required & ~features) == 0 && seen.insert(v.entry).second) builds.push_back(v);
  }
  return builds;
}

struct Frame {
  op::Image<uint16_t> depth;
  op::Image<uint8_t> flags;
  int32_t target_box[4];
  int32_t context_box[4];
  float mean_depth;
  UserStatistics statistics{};
};

Frame random_frame(uint32_t seed, uint32_t width = 160, uint32_t height = 120) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> depth(0, 4500);
  std::uniform_real_distribution<float> unit(0.f, 1.f);
  Frame f;
  f.depth.resize(width, height);
  f.flags.resize(width, height);
  for (size_t i = 0; i < f.depth.size(); ++i) {
    const float r = unit(rng);
    // A few depths above 32767 read as negative 16-bit values.
    f.depth[i] = r < 0.02f ? static_cast<uint16_t>(40000 + depth(rng)) : static_cast<uint16_t>(depth(rng));
    uint8_t bits = 0;
    if (f.depth[i] != 0) {
      if (unit(rng) < 0.7f) bits |= kTargetPixel;
      if (unit(rng) < 0.8f) bits |= kContextPixel;
    }
    f.flags[i] = bits;
  }
  std::uniform_int_distribution<int> x(0, static_cast<int>(width) - 1);
  std::uniform_int_distribution<int> y(0, static_cast<int>(height) - 1);
  const int ax = x(rng), bx = x(rng), ay = y(rng), by = y(rng);
  f.target_box[0] = std::min(ax, bx);
  f.target_box[2] = std::max(ax, bx);
  f.target_box[1] = std::min(ay, by);
  f.target_box[3] = std::max(ay, by);
  const int cx = x(rng), cy = y(rng);
  f.context_box[0] = std::min(cx, f.target_box[0]);
  f.context_box[1] = std::min(cy, f.target_box[1]);
  f.context_box[2] = std::max(cx, f.target_box[2]);
  f.context_box[3] = std::max(cy, f.target_box[3]);
  f.mean_depth = 700.f + unit(rng) * 3500.f;
  UserStatistics& s = f.statistics;
  s.meanX = 80.f + unit(rng);
  s.meanY = 60.f + unit(rng);
  s.halfExtentX = 10.f + 30.f * unit(rng);
  s.halfExtentY = 20.f + 40.f * unit(rng);
  s.imageWidth = width;
  s.imageHeight = height;
  s.relativeWidth = unit(rng);
  s.relativeHeight = unit(rng);
  s.borderFraction = unit(rng);
  s.topEdgeFraction = unit(rng);
  s.bottomEdgeFraction = unit(rng);
  s.leftEdgeFraction = unit(rng);
  s.rightEdgeFraction = unit(rng);
  return f;
}

ClassifyParams params_for(Frame& f, uint32_t level) {
  ClassifyParams p;
  p.statistics = &f.statistics;
  p.working_flags = &f.flags;
  p.target_box = f.target_box;
  p.context_box = f.context_box;
  p.level = level;
  p.mean_depth = f.mean_depth;
  return p;
}

// Each grid pixel descended on its own.
op::Image<uint32_t> reference(const DecisionTree& tree, const Frame& f, uint32_t level) {
  op::Image<uint32_t> out(f.depth.width(), f.depth.height());
  out.fill(0);
  const DepthProbe probe(reinterpret_cast<const int16_t*>(f.depth.data()), f.flags.data(),
                         f.depth.width(), f.depth.height(), f.context_box, f.mean_depth);
  const int32_t s = 1 << level;
  for (int32_t y = f.target_box[1]; y <= f.target_box[3]; y += s) {
    for (int32_t x = f.target_box[0]; x <= f.target_box[2]; x += s) {
      if (!(f.flags.at(x, y) & kTargetPixel)) continue;
      out.at(x, y) = descend(tree, [&](const TreeNode& node) {
        return node.kind == 0 ? probe(x, y, node.offsets)
                              : get_frame_feature_value(node.kind, x, y, f.statistics);
      });
    }
  }
  return out;
}

bool same_image(const op::Image<uint32_t>& a, const op::Image<uint32_t>& b) {
  return a.width() == b.width() && a.height() == b.height() &&
         std::memcmp(a.data(), b.data(), a.byte_size()) == 0;
}

TEST(TreeKernelTest, EveryBuildMatchesPerPixelDescent) {
  const std::vector<ArchVariant> builds = runnable_builds();
  ASSERT_FALSE(builds.empty());
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    const DecisionForest forest = testing::make_random_forest(
        seed, {.trees = 2, .depth = 12, .leaf_chance = 0.15f, .max_offset = 300});
    Frame frame = random_frame(seed * 31);
    // Negative, tiny and zero means (signed depths) make probes land far away or on NaN.
    const float odd_means[] = {-1500.f, 1e-6f, 0.f};
    if (seed > 3) frame.mean_depth = odd_means[seed - 4];
    for (uint32_t level = 0; level <= 3; ++level) {
      const ClassifyParams params = params_for(frame, level);
      for (size_t t = 0; t < forest.tree_count(); ++t) {
        const op::Image<uint32_t> expected = reference(forest.tree(t), frame, level);
        for (const ArchVariant& build : builds) {
          SCOPED_TRACE(::testing::Message() << "seed " << seed << " level " << level
                                            << " tree " << t << " build " << build.name);
          op::Image<uint32_t> got(3, 3);  // wrong size: the evaluation resizes it
          EXPECT_EQ(evaluate_tree_with(build.entry, forest.tree(t), frame.depth, params, got), 0);
          EXPECT_TRUE(same_image(expected, got));
          // Without a probe image (as for a context box too wide for one) the walk reads the
          // flags, and without a feature table it asks for each image-level feature.
          const ProbeImage none;
          const FeatureTable no_table;
          ClassifyParams unprobed = params;
          unprobed.probes = &none;
          unprobed.features = &no_table;
          EXPECT_EQ(evaluate_tree_with(build.entry, forest.tree(t), frame.depth, unprobed, got), 0);
          EXPECT_TRUE(same_image(expected, got));
        }
      }
    }
  }
}

TEST(TreeKernelTest, WholeFrameGridsReachTheSameLeavesAsSinglePixelDescents) {
  // A target box over the whole frame: at step 1 more pixels are unfinished after the
  // first pass than the walk keeps a list of, at step 2 they all fit.
  const DecisionForest forest = testing::make_random_forest(
      11, {.trees = 1, .depth = 16, .leaf_chance = 0.05f, .max_offset = 300});
  Frame frame = random_frame(5);
  frame.target_box[0] = frame.target_box[1] = frame.context_box[0] = frame.context_box[1] = 0;
  frame.target_box[2] = frame.context_box[2] = 159;
  frame.target_box[3] = frame.context_box[3] = 119;
  for (uint32_t level = 0; level <= 1; ++level) {
    const op::Image<uint32_t> expected = reference(forest.tree(0), frame, level);
    for (const ArchVariant& build : runnable_builds()) {
      SCOPED_TRACE(::testing::Message() << "level " << level << " build " << build.name);
      op::Image<uint32_t> got;
      EXPECT_EQ(evaluate_tree_with(build.entry, forest.tree(0), frame.depth,
                                   params_for(frame, level), got),
                0);
      EXPECT_TRUE(same_image(expected, got));
    }
  }
}

TEST(TreeKernelTest, PassesMoveEachPixelOneLevel) {
  // A full tree of depth 3: three passes move pixels, the fourth finds nothing to move.
  const DecisionForest forest =
      testing::make_random_forest(5, {.trees = 1, .depth = 3, .leaf_chance = 0.f});
  Frame frame = random_frame(77);
  const PackedForest packed(forest);
  KernelFrame kf{reinterpret_cast<const int16_t*>(frame.depth.data()), frame.flags.data(), 160, 120, {}, {}, 0,
                 frame.mean_depth, &frame.statistics, 0, 1, nullptr, 0, nullptr, nullptr, nullptr};
  std::memcpy(kf.target_box, frame.target_box, sizeof kf.target_box);
  std::memcpy(kf.context_box, frame.context_box, sizeof kf.context_box);
  int32_t targets = 0;
  for (int32_t y = frame.target_box[1]; y <= frame.target_box[3]; ++y) {
    for (int32_t x = frame.target_box[0]; x <= frame.target_box[2]; ++x) {
      targets += (frame.flags.at(x, y) & kTargetPixel) != 0;
    }
  }
  const std::pair<const char*, KernelEntry> level_passes[] = {
      {"arch_null", arch_null::evaluate_tree_level}, {"arch_sse2", arch_sse2::evaluate_tree_level},
      {"arch_sse4p1", arch_sse4p1::evaluate_tree_level}, {"arch_avx", arch_avx::evaluate_tree_level},
      {"arch_avx2", arch_avx2::evaluate_tree_level}, {"arch_fma3", arch_fma3::evaluate_tree_level}};
  for (const ArchVariant& build : runnable_builds()) {
    SCOPED_TRACE(build.name);
    std::vector<uint32_t> nodes(160 * 120, 0);
    KernelEntry level_pass = nullptr;
    for (const auto& [name, pass] : level_passes) {
      if (std::string(name) == build.name) level_pass = pass;
    }
    ASSERT_NE(level_pass, nullptr);
    for (int pass = 0; pass < 3; ++pass) EXPECT_EQ(level_pass(packed.tree(0), kf, nodes.data()), targets);
    EXPECT_EQ(level_pass(packed.tree(0), kf, nodes.data()), 0);
  }
}

TEST(TreeKernelTest, NothingToDoMeansOnePassThatMovesNothing) {
  Frame frame = random_frame(3);
  const DecisionForest forest = testing::make_random_forest(3, {.trees = 1, .depth = 4});
  for (const ArchVariant& build : runnable_builds()) {
    SCOPED_TRACE(build.name);
    // No target bit anywhere.
    op::Image<uint8_t> context_only = frame.flags;
    for (size_t i = 0; i < context_only.size(); ++i) context_only[i] &= kContextPixel;
    ClassifyParams params = params_for(frame, 1);
    params.working_flags = &context_only;
    op::Image<uint32_t> nodes;
    EXPECT_EQ(evaluate_tree_with(build.entry, forest.tree(0), frame.depth, params, nodes), 0);
    for (size_t i = 0; i < nodes.size(); ++i) ASSERT_EQ(nodes[i], 0u);

    // An empty target box.
    ClassifyParams empty = params_for(frame, 0);
    const int32_t box[4] = {5, 5, 4, 9};
    empty.target_box = box;
    EXPECT_EQ(evaluate_tree_with(build.entry, forest.tree(0), frame.depth, empty, nodes), 0);

    // A single-leaf tree: every pixel stays on node 0.
    DecisionTree leaf_only;
    TreeNode leaf{};
    leaf.is_leaf = true;
    leaf_only.nodes.push_back(leaf);
    leaf_only.distributions.emplace_back();
    EXPECT_EQ(evaluate_tree_with(build.entry, leaf_only, frame.depth, params_for(frame, 0), nodes), 0);
    for (size_t i = 0; i < nodes.size(); ++i) ASSERT_EQ(nodes[i], 0u);
  }
}

TEST(DispatchTest, SelectionFollowsTheSortedTable) {
  struct Case {
    uint32_t features;
    const char* name;
    KernelEntry entry;
  };
  const Case cases[] = {
      {0x00, "arch_null", arch_null::evaluate_tree},
      {0x02, "arch_sse2", arch_sse2::evaluate_tree},
      {0x06, "arch_sse3", arch_sse2::evaluate_tree},
      {0x0E, "arch_ssse3", arch_sse2::evaluate_tree},
      {0x1E, "arch_sse4p1", arch_sse4p1::evaluate_tree},
      {0x3E, "arch_avx", arch_avx::evaluate_tree},
      {0x7E, "arch_avx2", arch_avx2::evaluate_tree},
      {0xFE, "arch_avx_fma3", arch_avx::evaluate_tree},
      {0x7FE, "arch_avx_fma3", arch_avx::evaluate_tree},
      {0x86, "arch_fma3", arch_fma3::evaluate_tree},
      {0x9E, "arch_fma3", arch_fma3::evaluate_tree},  // FMA without AVX
      {0x0C, "arch_null", arch_null::evaluate_tree},  // no SSE2
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.features);
    const ArchVariant chosen = select_arch_variant(c.features);
    EXPECT_STREQ(chosen.name, c.name);
    EXPECT_EQ(chosen.entry, c.entry);
  }
  const std::vector<ArchVariant> table = arch_variants();
  ASSERT_EQ(table.size(), 9u);
  const uint32_t required[] = {0x00, 0x02, 0x06, 0x0E, 0x1E, 0x3E, 0x7E, 0x86, 0xBE};
  for (size_t i = 0; i < table.size(); ++i) EXPECT_EQ(table[i].required, required[i]);
}

TEST(DispatchTest, DetectedFeaturesAgreeWithTheCompiler) {
  const uint32_t f = detect_cpu_features();
  EXPECT_EQ((f & kCpuSse2) != 0, __builtin_cpu_supports("sse2") != 0);
  EXPECT_EQ((f & kCpuSse3) != 0, __builtin_cpu_supports("sse3") != 0);
  EXPECT_EQ((f & kCpuSsse3) != 0, __builtin_cpu_supports("ssse3") != 0);
  EXPECT_EQ((f & kCpuSse41) != 0, __builtin_cpu_supports("sse4.1") != 0);
  EXPECT_EQ((f & kCpuAvx) != 0, __builtin_cpu_supports("avx") != 0);
  EXPECT_EQ((f & kCpuAvx2) != 0, __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ((f & kCpuFma) != 0, __builtin_cpu_supports("fma") != 0);
  EXPECT_EQ(f & 1u, 0u);
  EXPECT_STREQ(active_arch_name(), select_arch_variant(f).name);
}

}  // namespace
}  // namespace quorvik::skeleton
