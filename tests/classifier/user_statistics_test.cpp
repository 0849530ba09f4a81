#include "classifier/user_statistics.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace quorvik::skeleton {
namespace {

struct Images {
  op::Image<uint16_t> depth{10, 8};
  op::Image<uint16_t> labels{10, 8};
  Images() {
    depth.fill(0);
    labels.fill(0xFFFF);
  }
  void put(uint32_t x, uint32_t y, uint16_t label, uint16_t d) {
    labels.at(x, y) = label;
    depth.at(x, y) = d;
  }
};

TEST(UserStatisticsTest, MeasuresTheUsersPixelsOfBothLists) {
  Images im;
  im.put(0, 2, 4, 1000);  // left edge
  im.put(3, 0, 4, 2000);  // top edge
  im.put(9, 7, 6, 3000);  // right and bottom edge, candidate segment
  im.put(5, 5, 4, 0);     // no depth: not a user pixel
  im.put(6, 6, 5, 1500);  // another segment
  const std::vector<uint16_t> own{4};
  const std::vector<uint16_t> candidates{6};
  const UserStatistics s = computeUserStatistics(im.depth, im.labels, own, candidates);
  EXPECT_EQ(s.pixelCount, 3u);
  EXPECT_EQ(s.meanX, 12.f / 3.f);
  EXPECT_EQ(s.meanY, 9.f / 3.f);
  EXPECT_EQ(s.meanDepth, 6000.f / 3.f / 1000.f);
  EXPECT_EQ(s.width, 10);
  EXPECT_EQ(s.height, 8);
  EXPECT_EQ(s.centerX, 0 + 10 / 2);
  EXPECT_EQ(s.centerY, 0 + 8 / 2);
  EXPECT_EQ(s.relativeWidth, 1.f);
  EXPECT_EQ(s.relativeHeight, 1.f);
  EXPECT_EQ(s.halfExtentX, 9.f - 12.f / 3.f + 1.f);
  EXPECT_EQ(s.halfExtentY, 7.f - 3.f + 1.f);
  EXPECT_EQ(s.imageWidth, 10u);
  EXPECT_EQ(s.imageHeight, 8u);
  EXPECT_EQ(s.leftEdgeFraction, 1.f / 8.f);
  EXPECT_EQ(s.rightEdgeFraction, 1.f / 8.f);
  EXPECT_EQ(s.topEdgeFraction, 1.f / 10.f);
  EXPECT_EQ(s.bottomEdgeFraction, 1.f / 10.f);
  // The corner pixel counts for two edges.
  EXPECT_EQ(s.borderFraction, 4.f / 36.f);
}

TEST(UserStatisticsTest, InteriorAndEmptyUsers) {
  Images im;
  im.put(4, 3, 2, 900);
  im.put(5, 4, 2, 1100);
  const std::vector<uint16_t> own{2};
  const UserStatistics s = computeUserStatistics(im.depth, im.labels, own, {});
  EXPECT_EQ(s.width, 2);
  EXPECT_EQ(s.height, 2);
  EXPECT_EQ(s.centerX, 5);
  EXPECT_EQ(s.halfExtentX, 1.5f);
  EXPECT_EQ(s.borderFraction, 0.f);
  EXPECT_EQ(s.leftEdgeFraction + s.rightEdgeFraction + s.topEdgeFraction + s.bottomEdgeFraction, 0.f);

  const std::vector<uint16_t> nobody{9};
  const UserStatistics e = computeUserStatistics(im.depth, im.labels, nobody, {});
  EXPECT_EQ(e.pixelCount, 0u);
  EXPECT_EQ(e.width, 0);
  EXPECT_EQ(e.height, 0);
  EXPECT_EQ(e.meanX, 0.f);
  EXPECT_EQ(e.halfExtentY, 0.f);
  EXPECT_EQ(e.relativeWidth, 0.f);
  EXPECT_EQ(e.borderFraction, 0.f);
  // The centre falls back to the initial minimum.
  EXPECT_EQ(e.centerX, 10);
  EXPECT_EQ(e.centerY, 8);
}

// Runs of one label are skipped sixteen pixels at a time: on images made of long runs
// with a user pixel here and there (first and last of a run included), every count,
// sum and extent matches a plain pixel-by-pixel reference.
TEST(UserStatisticsTest, RunsOfOtherLabelsAreSkippedWithoutLosingPixels) {
  std::mt19937 random(5);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    const uint32_t width = 16 + random() % 60, height = 1 + random() % 9;
    op::Image<uint16_t> depth(width, height), labels(width, height);
    for (uint32_t y = 0; y < height; ++y) {
      uint16_t run = static_cast<uint16_t>(random() % 3 == 0 ? 0xFFFF : random() % 4);
      for (uint32_t x = 0; x < width; ++x) {
        if (random() % 23 == 0) run = static_cast<uint16_t>(random() % 4);
        labels.at(x, y) = random() % 11 == 0 ? static_cast<uint16_t>(random() % 4) : run;
        depth.at(x, y) = random() % 13 == 0 ? 0 : static_cast<uint16_t>(500 + random() % 3000);
      }
    }
    const std::vector<uint16_t> own{1}, candidates{3};
    const UserStatistics s = computeUserStatistics(depth, labels, own, candidates);

    uint32_t count = 0;
    float sx = 0.f, sy = 0.f, sd = 0.f;
    int32_t x0 = static_cast<int32_t>(width), y0 = static_cast<int32_t>(height), x1 = 0, y1 = 0;
    for (uint32_t y = 0; y < height; ++y) {
      for (uint32_t x = 0; x < width; ++x) {
        const uint16_t l = labels.at(x, y);
        if (depth.at(x, y) == 0 || (l != 1 && l != 3)) continue;
        ++count;
        sx += static_cast<float>(x);
        sy += static_cast<float>(y);
        sd += static_cast<float>(depth.at(x, y));
        x0 = std::min(x0, static_cast<int32_t>(x));
        x1 = std::max(x1, static_cast<int32_t>(x));
        y0 = std::min(y0, static_cast<int32_t>(y));
        y1 = std::max(y1, static_cast<int32_t>(y));
      }
    }
    ASSERT_EQ(s.pixelCount, count);
    if (count == 0) continue;
    EXPECT_EQ(s.meanX, sx / static_cast<float>(count));
    EXPECT_EQ(s.meanY, sy / static_cast<float>(count));
    EXPECT_EQ(s.meanDepth, sd / static_cast<float>(count) / 1000.f);
    EXPECT_EQ(s.width, x1 - x0 + 1);
    EXPECT_EQ(s.height, y1 - y0 + 1);
    EXPECT_EQ(s.centerX, x0 + (x1 - x0 + 1) / 2);
    EXPECT_EQ(s.centerY, y0 + (y1 - y0 + 1) / 2);
  }
}

}  // namespace
}  // namespace quorvik::skeleton
