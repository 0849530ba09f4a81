#include "segmentation/containers.h"

#include <gtest/gtest.h>

#include <random>

#include "segmentation/min_filter.h"

using namespace quorvik::legacy;

TEST(Array2D, AssignmentTakesShapeAndGrowsOnlyWhenNeeded) {
  Array2D<uint16_t> big(8, 4);
  for (int32_t i = 0; i < big.size(); ++i) big[i] = uint16_t(i);
  Array2D<uint16_t> target(16, 4);
  uint16_t* buffer = target.data();
  target = big;
  EXPECT_EQ(target.width(), 8);
  EXPECT_EQ(target.height(), 4);
  EXPECT_EQ(target.size(), 32);
  EXPECT_EQ(target.capacity(), 64);  // kept its larger buffer
  EXPECT_EQ(target.data(), buffer);
  EXPECT_EQ(target.at(7, 3), 31);

  Array2D<uint16_t> small(2, 2);
  small = target;
  EXPECT_EQ(small.capacity(), 32);
  EXPECT_TRUE(small.owns_data());
  EXPECT_EQ(small.at(3, 1), 11);

  uint16_t foreign[6] = {1, 2, 3, 4, 5, 6};
  Array2D<uint16_t> view;
  view.view(foreign, 3, 2);
  EXPECT_FALSE(view.owns_data());
  EXPECT_EQ(view.at(2, 1), 6);
  view.resize(4, 4);  // outgrows the foreign memory: gets its own
  EXPECT_TRUE(view.owns_data());
  EXPECT_EQ(foreign[5], 6);

  Array2D<uint32_t> aligned(24, 3, true);
  EXPECT_TRUE(aligned.aligned());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned.data()) % 16, 0u);
}

TEST(ImageRing, AdvancesBackwardsAndSaturates) {
  ImageRing<uint16_t, 3> ring;
  EXPECT_EQ(ring.count(), 0u);
  ring.current().resize(8, 1);
  EXPECT_EQ(ring.count(), 1u);  // reading the current image of an empty ring
  for (uint16_t frame = 1; frame <= 5; ++frame) {
    ring.advance();
    ring.current().resize(8, 1);
    ring.current()[0] = frame;
  }
  EXPECT_EQ(ring.count(), 3u);
  EXPECT_EQ(ring.current()[0], 5);
  EXPECT_EQ(ring.back(1)[0], 4);
  EXPECT_EQ(ring.back(2)[0], 3);
  EXPECT_EQ(ring.index(), (0u + 3u * 5u - 5u) % 3u);  // one step back per advance

  ValueRing<int, 4> values;
  for (int v = 1; v <= 6; ++v) values.push(v);
  EXPECT_EQ(values.count(), 4);
  EXPECT_EQ(values[0], 6);
  EXPECT_EQ(values[3], 3);
}

TEST(MinFilter, VectorLanesMatchThePlainFilter) {
  std::mt19937 random(7);
  for (auto [w, h] : {std::pair{8, 1}, {16, 3}, {160, 120}, {24, 2}, {13, 5}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    std::vector<uint16_t> src(size_t(w * h)), fast(src.size()), plain(src.size());
    for (uint16_t& v : src) v = (random() % 4 == 0) ? 0 : uint16_t(random() % 2047 + 1);
    std::vector<int16_t> scratch(size_t(w) + 16);
    min_filter_3x3(src.data(), fast.data(), w, h, scratch.data());
    min_filter_3x3_scalar(src.data(), plain.data(), w, h);
    EXPECT_EQ(fast, plain);
  }
  // Known answer: an unknown pixel counts as far, and the window stops at the border.
  const uint16_t src[16] = {0, 0, 0, 0, 0, 0, 0, 0, 900, 0, 0, 0, 0, 0, 0, 700};
  uint16_t out[16];
  int16_t scratch[24];
  min_filter_3x3(src, out, 8, 2, scratch);
  EXPECT_EQ(out[0], 900);
  EXPECT_EQ(out[1], 900);
  EXPECT_EQ(out[2], 2000);
  EXPECT_EQ(out[6], 700);
  EXPECT_EQ(out[15], 700);
}
