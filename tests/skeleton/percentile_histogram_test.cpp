#include "skeleton/percentile_histogram.h"

#include <gtest/gtest.h>

namespace quorvik::skeleton {
namespace {

TEST(PercentileHistogramTest, SingleValue) {
  PercentileHistogram h(100);
  EXPECT_FALSE(h.robust_spread().has_value());
  h.add(0.5f);
  EXPECT_FLOAT_EQ(h.value_for_percentile(0.25f), 0.505f);
  EXPECT_FLOAT_EQ(h.value_for_percentile(0.75f), 0.505f);
  EXPECT_FLOAT_EQ(h.upper_fence(), 0.505f);
  EXPECT_FLOAT_EQ(h.lower_fence(), 0.505f);
  EXPECT_FLOAT_EQ(h.highest_within_upper_fence(), 0.505f);
  EXPECT_FLOAT_EQ(h.lowest_within_lower_fence(), 0.505f);
  EXPECT_FLOAT_EQ(*h.robust_spread(), 0.f);
  h.reset();
  EXPECT_EQ(h.total(), 0u);
  EXPECT_FALSE(h.robust_spread().has_value());
}

TEST(PercentileHistogramTest, OutOfRangeValuesLandInEndBins) {
  PercentileHistogram h(100);
  h.add(1.0f);
  h.add(1.7f);
  h.add(-0.3f);
  EXPECT_EQ(h.bin(99), 2u);
  EXPECT_EQ(h.bin(0), 1u);
  EXPECT_EQ(h.total(), 3u);
}

// Several values in one bin sit in the middles of equal slots.
TEST(PercentileHistogramTest, ValuesShareTheirBin) {
  PercentileHistogram h(10);
  for (int i = 0; i < 4; ++i) h.add(0.31f);
  // k = round(4 * 0.25) = 1: second of four slots in [0.3, 0.4).
  EXPECT_NEAR(h.value_for_percentile(0.25f), 0.3f + 0.1f * 1.5f / 4.f, 1e-6f);
  EXPECT_NEAR(h.value_for_percentile(1.f), 0.3f + 0.1f * 3.5f / 4.f, 1e-6f);
  EXPECT_NEAR(h.value_for_percentile(-1.f), 0.3f + 0.1f * 0.5f / 4.f, 1e-6f);
  // Both fences fall in empty neighbours; the walks stop at the middles of the bin's first
  // and last slots.
  EXPECT_NEAR(*h.robust_spread(), 0.1f * 3.f / 4.f, 1e-6f);
}

TEST(PercentileHistogramTest, SpreadOfEvenValues) {
  for (int count : {5, 20, 100, 1000}) {
    SCOPED_TRACE(count);
    PercentileHistogram h(100);
    for (int i = 0; i < count; ++i) h.add((static_cast<float>(i) + 0.5f) / static_cast<float>(count));
    const float spread = *h.robust_spread();
    EXPECT_LE(spread, 1.f);
    EXPECT_GT(spread, 1.f - 2.5f / static_cast<float>(count) - 0.02f);
  }
}

TEST(PercentileHistogramTest, OutlierBeyondFenceIsIgnored) {
  PercentileHistogram h(100);
  for (int i = 0; i < 40; ++i) h.add(0.40f + 0.002f * static_cast<float>(i));
  const float tight = *h.robust_spread();
  h.add(0.98f);
  EXPECT_FLOAT_EQ(*h.robust_spread(), tight);
  EXPECT_LT(tight, 0.1f);
  EXPECT_LT(h.highest_within_upper_fence(), 0.6f);
}

}  // namespace
}  // namespace quorvik::skeleton
