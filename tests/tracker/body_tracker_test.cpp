#include "tracker/body_tracker.h"

#include <iterator>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace quorvik::skeleton {
namespace {

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

// Whole-block enlargements take their own path; every size must agree with the
// single-precision nearest-neighbour rule, including sizes that are not whole multiples.
TEST(Resampling, EverySizeFollowsTheNearestNeighbourRule) {
  op::Image<uint16_t> mask(160, 120);
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<uint16_t>(i * 2654435761u >> 7);
  const uint32_t sizes[][2] = {{160, 120}, {320, 240}, {640, 480}, {1280, 960}, {480, 360}, {200, 150}, {320, 120}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(std::to_string(size[0]) + "x" + std::to_string(size[1]));
    op::Image<uint16_t> out;
    op::resample_nearest(mask.data(), 160, 120, out, size[0], size[1]);
    ASSERT_EQ(out.width(), size[0]);
    ASSERT_EQ(out.height(), size[1]);
    const float sx = 160.f / static_cast<float>(size[0]);
    const float sy = 120.f / static_cast<float>(size[1]);
    for (uint32_t y = 0; y < size[1]; ++y) {
      for (uint32_t x = 0; x < size[0]; ++x) {
        const auto mx = static_cast<uint32_t>(static_cast<float>(x) * sx);
        const auto my = static_cast<uint32_t>(static_cast<float>(y) * sy);
        ASSERT_EQ(out.at(x, y), mask.at(mx, my)) << x << "," << y;
      }
    }
  }
}

}  // namespace
}  // namespace quorvik::skeleton
