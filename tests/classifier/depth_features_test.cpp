#include "classifier/depth_features.h"

#include <cmath>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "support/throws.h"

namespace quorvik::skeleton {
namespace {

UserStatistics sample_statistics() {
  UserStatistics s{};
  s.meanX = 70.f;
  s.meanY = 50.f;
  s.halfExtentX = 20.f;
  s.halfExtentY = 40.f;
  s.imageWidth = 160;
  s.imageHeight = 120;
  s.relativeWidth = 0.25f;
  s.relativeHeight = 0.5f;
  s.borderFraction = 0.01f;
  s.topEdgeFraction = 0.02f;
  s.bottomEdgeFraction = 0.03f;
  s.leftEdgeFraction = 0.04f;
  s.rightEdgeFraction = 0.05f;
  return s;
}

TEST(FrameFeatureTest, KnownValues) {
  const UserStatistics s = sample_statistics();
  EXPECT_EQ(get_frame_feature_value(2, 70, 0, s), 0.5f) << "x at the mean";
  EXPECT_EQ(get_frame_feature_value(2, 80, 0, s), (80.f - 70.f) * 0.5f / 20.f + 0.5f);
  EXPECT_EQ(get_frame_feature_value(3, 0, 10, s), (10.f - 50.f) * 0.5f / 40.f + 0.5f);
  const float dx = (90.f - 70.f) * 0.5f / 20.f;
  const float dy = (90.f - 50.f) * 0.5f / 40.f;
  EXPECT_EQ(get_frame_feature_value(1, 90, 90, s), std::sqrt(dx * dx + dy * dy));
  // Both coordinates are divided by the height.
  EXPECT_EQ(get_frame_feature_value(4, 80, 0, s), 80.f / 120.f);
  EXPECT_NE(get_frame_feature_value(4, 80, 0, s), 0.5f);
  EXPECT_EQ(get_frame_feature_value(5, 0, 60, s), 0.5f);
  const float pixel_free[] = {0.25f, 0.5f, 0.01f, 0.02f, 0.03f, 0.04f, 0.05f};
  for (uint8_t kind = 6; kind <= 12; ++kind) {
    SCOPED_TRACE(int{kind});
    EXPECT_EQ(get_frame_feature_value(kind, 3, 4, s), pixel_free[kind - 6]);
    EXPECT_EQ(get_frame_feature_value(kind, 150, 110, s), pixel_free[kind - 6]);
  }
}

TEST(FrameFeatureTest, RefusesKindsItDoesNotEvaluate) {
  const UserStatistics s = sample_statistics();
  EXPECT_THAT([&] { get_frame_feature_value(0, 1, 1, s); },
              support::throws_logic_error("get_frame_feature_value() doesn't support Offset features"));
  for (int kind : {13, 200, 255}) {
    EXPECT_THAT([&] { get_frame_feature_value(static_cast<uint8_t>(kind), 1, 1, s); },
                support::throws_logic_error("Unsupported feature type"));
  }
}

class DepthProbeTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kW = 160, kH = 120;
  DepthProbeTest() : depth(kW * kH), flags(kW * kH, 0) {
    for (uint32_t i = 0; i < kW * kH; ++i) depth[i] = static_cast<int16_t>(1000 + i % 997);
  }
  DepthProbe probe(float mean_depth) const {
    return DepthProbe(depth.data(), flags.data(), kW, kH, box, mean_depth);
  }
  void make_context(int32_t x, int32_t y) { flags[y * kW + x] = kContextPixel; }
  float at(int32_t x, int32_t y) const { return static_cast<float>(depth[y * kW + x]); }

  std::vector<int16_t> depth;
  std::vector<uint8_t> flags;
  int32_t box[4] = {10, 20, 100, 90};
};

TEST_F(DepthProbeTest, ZeroOffsetsGiveZero) {
  const int16_t zero[4] = {0, 0, 0, 0};
  make_context(50, 50);
  EXPECT_EQ(probe(2000.f)(50, 50, zero), 0.f);
  EXPECT_EQ(probe(2000.f)(51, 50, zero), 0.f) << "10000 - 10000 off the user";
}

TEST_F(DepthProbeTest, ScalesTruncateTowardZero) {
  make_context(58, 44);
  const int16_t u[4] = {100, -100, 0, 0};
  // 160/2000 = 0.08 and 120/2000 = 0.06: the probe lands 8 right and 6 up.
  EXPECT_EQ(probe(2000.f)(50, 50, u), at(58, 44) - kBackgroundDepth);

  make_context(47, 50);
  make_context(46, 50);
  const int16_t v[4] = {0, 0, -37, 0};
  // -37 x 160/1500 = -3.9467, truncated to -3.
  EXPECT_EQ(probe(1500.f)(50, 50, v), kBackgroundDepth - at(47, 50));
}

TEST_F(DepthProbeTest, ContextBoxEdgesAreInside) {
  for (int32_t x : {10, 100}) {
    for (int32_t y : {20, 90}) {
      SCOPED_TRACE(::testing::Message() << x << "," << y);
      make_context(x, y);
      // Probe one pixel away, landing exactly on the box's edge and one step beyond it.
      const int16_t step_x = static_cast<int16_t>(x == 10 ? -1 : 1);
      const int16_t on_edge[4] = {0, 0, 0, 0};
      EXPECT_EQ(probe(160.f)(x, y, on_edge), 0.f);
      const int16_t beyond[4] = {step_x, 0, 0, 0};
      make_context(x, y);
      // u reads beyond the box (background); v reads the pixel itself.
      EXPECT_EQ(probe(160.f)(x, y, beyond), kBackgroundDepth - at(x, y));
      const int16_t inside[4] = {static_cast<int16_t>(-step_x), 0, 0, 0};
      make_context(x - step_x, y);
      EXPECT_EQ(probe(160.f)(x, y, inside), at(x - step_x, y) - at(x, y));
    }
  }
}

TEST_F(DepthProbeTest, AbsurdScalesStayOffTheBox) {
  make_context(50, 50);
  const int16_t u[4] = {30000, 30000, 0, 0};
  EXPECT_EQ(probe(1e-30f)(50, 50, u), kBackgroundDepth - at(50, 50));
  // With a mean depth of 0 even a zero offset times the infinite scale is NaN: both
  // probes see the background.
  EXPECT_EQ(probe(0.f)(50, 50, u), 0.f);
}

}  // namespace
}  // namespace quorvik::skeleton
