#include "segmentation/user_statistics.h"

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

}  // namespace
}  // namespace quorvik::skeleton
