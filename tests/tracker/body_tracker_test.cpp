#include "tracker/body_tracker.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>

namespace quorvik::skeleton {
namespace {

TEST(Reduction, KeepsTheNearestValidDepthOfEachBlock) {
  // 640x480: one non-zero pixel per 4x4 block at a position that moves with the block.
  std::vector<uint16_t> pixels(640 * 480, 0);
  for (uint32_t by = 0; by < 120; ++by) {
    for (uint32_t bx = 0; bx < 160; ++bx) {
      if ((bx + by) % 7 == 0) continue;  // some blocks stay empty
      const uint32_t x = bx * 4 + (bx % 4), y = by * 4 + (by % 4);
      pixels[y * 640 + x] = static_cast<uint16_t>(500 + bx + by);
    }
  }
  op::Image<uint16_t> out(160, 120);
  reduce_min_nonzero(pixels.data(), 640, 480, out);
  for (uint32_t by = 0; by < 120; ++by) {
    for (uint32_t bx = 0; bx < 160; ++bx) {
      SCOPED_TRACE(testing::Message() << bx << "," << by);
      const uint16_t expected = (bx + by) % 7 == 0 ? 0 : static_cast<uint16_t>(500 + bx + by);
      ASSERT_EQ(out.at(bx, by), expected);
    }
  }
}

TEST(Reduction, SmallestNonZeroWinsAndSameSizeIsACopy) {
  std::vector<uint16_t> pixels = {0, 3000, 2000, 0, /* row 2 */ 2500, 0, 0, 0};
  op::Image<uint16_t> one(2, 1);
  reduce_min_nonzero(pixels.data(), 4, 2, one);
  EXPECT_EQ(one.at(0, 0), 2500);
  EXPECT_EQ(one.at(1, 0), 2000);
  op::Image<uint16_t> same(4, 2);
  reduce_min_nonzero(pixels.data(), 4, 2, same);
  for (size_t i = 0; i < pixels.size(); ++i) EXPECT_EQ(same[i], pixels[i]);
}

TEST(Reduction, AgreesWithAPlainSignedMinimumOnEdgeValues) {
  // Zero (no measurement), 32767 (never beats the initial best) and values above 32767
  // (negative as signed depths, so they win) mixed with ordinary depths.
  const uint16_t palette[] = {0, 0, 0, 1, 450, 450, 1200, 8000, 32766, 32767, 32768, 40000, 65535};
  std::mt19937 rng(17);
  for (const uint32_t factor : {2u, 4u}) {
    const uint32_t w = 160 * factor, h = 120 * factor;
    std::vector<uint16_t> pixels(size_t{w} * h);
    for (uint16_t& p : pixels) p = palette[rng() % std::size(palette)];
    // Whole blocks of zeros and of 32767 next to each other.
    for (uint32_t y = 0; y < factor; ++y) {
      for (uint32_t x = 0; x < factor; ++x) {
        pixels[size_t{y} * w + x] = 0;
        pixels[size_t{y} * w + factor + x] = 32767;
      }
    }
    op::Image<uint16_t> out(160, 120);
    reduce_min_nonzero(pixels.data(), w, h, out);
    for (uint32_t by = 0; by < 120; ++by) {
      for (uint32_t bx = 0; bx < 160; ++bx) {
        int16_t best = 32767;
        bool found = false;
        for (uint32_t y = by * factor; y < (by + 1) * factor; ++y) {
          for (uint32_t x = bx * factor; x < (bx + 1) * factor; ++x) {
            const auto v = static_cast<int16_t>(pixels[size_t{y} * w + x]);
            if (v != 0 && v < best) {
              best = v;
              found = true;
            }
          }
        }
        SCOPED_TRACE(testing::Message() << "factor " << factor << " block " << bx << "," << by);
        ASSERT_EQ(out.at(bx, by), found ? static_cast<uint16_t>(best) : 0);
      }
    }
    EXPECT_EQ(out.at(0, 0), 0);
    EXPECT_EQ(out.at(1, 0), 0);
  }
}

TEST(Resampling, MasksAtTwiceTheSizeRepeatIn2x2Blocks) {
  op::Image<uint8_t> mask(160, 120);
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<uint8_t>(i * 31 % 11);
  op::Image<uint8_t> big;
  op::resample_nearest(mask.data(), 160, 120, big, 320, 240);
  ASSERT_EQ(big.width(), 320u);
  ASSERT_EQ(big.height(), 240u);
  for (uint32_t y = 0; y < 240; ++y)
    for (uint32_t x = 0; x < 320; ++x) ASSERT_EQ(big.at(x, y), mask.at(x / 2, y / 2)) << x << "," << y;
  op::Image<uint8_t> huge;
  op::resample_nearest(mask.data(), 160, 120, huge, 640, 480);
  EXPECT_EQ(huge.at(639, 479), mask.at(159, 119));
  EXPECT_EQ(huge.at(5, 6), mask.at(1, 1));
}

}  // namespace
}  // namespace quorvik::skeleton
