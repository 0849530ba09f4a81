#include "tracker/body_tracker.h"

#include <gtest/gtest.h>

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
