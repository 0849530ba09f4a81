#include "segmentation/depth_conversion.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/sim_scene.h"
#include "segmentation/seg_coordinate_mapper.h"
#include "tracker/tracker_options.h"

using namespace quorvik::skeleton;

TEST(ConversionTables, DefaultTablesHoldTheirInvariants) {
  const ConversionTables& t = sim_scene::default_tables();
  ASSERT_EQ(t.shiftToDepth.size(), 2048u);
  ASSERT_EQ(t.depthToShift.size(), 10001u);
  EXPECT_EQ(t.shiftToDepth[0], 0);
  EXPECT_EQ(t.shiftToDepth[2047], 0);

  int previous = 0, firstValid = -1;
  for (int r = 1; r < 2047; ++r) {
    if (t.shiftToDepth[r] == 0) continue;
    SCOPED_TRACE(r);
    if (firstValid < 0) firstValid = r;
    EXPECT_GE(t.shiftToDepth[r], previous);  // larger shifts are farther
    previous = t.shiftToDepth[r];
  }
  ASSERT_GT(firstValid, 0);
  // Known answers of the default sensor model: depth = 9750 / (7.5 - t) with t from the shift.
  EXPECT_EQ(t.shiftToDepth[800], 1292);
  EXPECT_EQ(t.shiftToDepth[1000], 5286);
  for (int z = 0; z < t.shiftToDepth[firstValid]; ++z) EXPECT_EQ(t.depthToShift[z], 0) << z;
  for (size_t z = 1; z < t.depthToShift.size(); ++z) EXPECT_GE(t.depthToShift[z], t.depthToShift[z - 1]) << z;

  for (int r = 1; r < 2046; ++r) {
    const uint16_t d = t.shiftToDepth[r];
    if (d == 0 || d == t.shiftToDepth[r + 1]) continue;
    SCOPED_TRACE(r);
    EXPECT_EQ(t.depthToShift[d], r);
    EXPECT_LE(t.shiftToDepth[t.depthToShift[d]], d);
  }
  // Past the table there is no measurement.
  EXPECT_EQ(t.shift_of(10001), 0);
  EXPECT_EQ(t.shift_of(65535), 0);
  EXPECT_NE(t.shift_of(10000), 0);
}

TEST(ConversionTables, DegenerateParametersGiveEmptyTables) {
  ShiftConversionParams p;
  p.maxShiftValue = 1;
  const ConversionTables t = build_conversion_tables(p);
  EXPECT_EQ(t.shiftToDepth.size(), 2u);
  for (uint16_t v : t.depthToShift) ASSERT_EQ(v, 0);
  p = ShiftConversionParams{};
  p.pixelSizeFactor = 0;
  for (uint16_t v : build_conversion_tables(p).shiftToDepth) ASSERT_EQ(v, 0);

  // A narrow valid range leaves everything outside it at 0 in shiftToDepth.
  p = ShiftConversionParams{};
  p.minDepth = 1000;
  p.maxDepth = 2000;
  const ConversionTables narrow = build_conversion_tables(p);
  for (size_t r = 0; r < narrow.shiftToDepth.size(); ++r) {
    const uint16_t d = narrow.shiftToDepth[r];
    if (d != 0) {
      EXPECT_GE(d, 1000) << r;
      EXPECT_LT(d, 2000) << r;
    }
  }
  EXPECT_EQ(narrow.depthToShift[500], 0);
  EXPECT_EQ(narrow.depthToShift[10000], narrow.depthToShift[1999]);
}

TEST(DepthCameraModel, CentreAxisAndRoundTrip) {
  const float hfov = kDefaultHorizontalFovDegrees * kDegreesToRadians;
  const DepthCameraModel model(hfov, kDefaultVerticalFovDegrees * kDegreesToRadians, 160.f, 120.f);
  EXPECT_FLOAT_EQ(model.centerX, 80.f);
  EXPECT_FLOAT_EQ(model.centerY, 60.f);
  EXPECT_NEAR(model.focalX, 160.f / (2.f * std::tan(hfov / 2.f)), 1e-4);

  op::Image<uint16_t> depth(160, 120);
  for (uint32_t i = 0; i < depth.size(); ++i) depth[i] = uint16_t(500 + (i * 37) % 4000);
  depth.at(5, 7) = 0;
  op::Image<WorldPoint> points;
  model.to_world(depth, points);
  ASSERT_EQ(points.width(), 160u);
  const WorldPoint centre = points.at(80, 60);
  EXPECT_EQ(centre.x, 0.f);
  EXPECT_EQ(centre.y, 0.f);
  EXPECT_EQ(centre.z, float(depth.at(80, 60)));
  EXPECT_EQ(points.at(5, 7).x, 0.f);
  EXPECT_EQ(points.at(5, 7).z, 0.f);
  EXPECT_GT(points.at(0, 0).y, 0.f);  // top-left is up and to the left
  EXPECT_LT(points.at(0, 0).x, 0.f);

  for (uint32_t y = 0; y < 120; y += 7) {
    for (uint32_t x = 0; x < 160; x += 9) {
      SCOPED_TRACE(testing::Message() << x << "," << y);
      const WorldPoint p = points.at(x, y);
      float u = -1, v = -1;
      model.to_image(p.x, p.y, p.z, u, v);
      EXPECT_NEAR(u, float(x), 1e-3);
      EXPECT_NEAR(v, float(y), 1e-3);
    }
  }
  float u = -1, v = -1;
  model.to_image(0.f, 0.f, 2500.f, u, v);
  EXPECT_FLOAT_EQ(u, 80.f);
  EXPECT_FLOAT_EQ(v, 60.f);
  model.to_image(100.f, 50.f, 0.f, u, v);
  EXPECT_EQ(u, 0.f);
  EXPECT_EQ(v, 0.f);

  op::Image<uint16_t> larger(320, 240);
  larger.fill(1000);
  model.to_world(larger, points);
  EXPECT_EQ(points.width(), 320u);
  EXPECT_EQ(points.height(), 240u);
}

TEST(SegCoordinateMapper, TablesAgreeWithTheCameraModel) {
  const float hfov = kDefaultHorizontalFovDegrees * kDegreesToRadians;
  const float vfov = kDefaultVerticalFovDegrees * kDegreesToRadians;
  const SegCoordinateMapper<double> mapper(160, 120, hfov, vfov, sim_scene::kMaxDepthMm);
  EXPECT_EQ(mapper.centerX, 80.0);
  EXPECT_EQ(mapper.centerY, 60.0);
  const double fx = double(160.f / (2.f * std::tan(hfov / 2.f)));
  const double fy = double(120.f / (2.f * std::tan(vfov / 2.f)));
  EXPECT_NEAR(mapper.focal, std::sqrt(fx * fy), 1e-9);
  EXPECT_DOUBLE_EQ(mapper.inverseFocal * mapper.focal, 1.0);
  EXPECT_EQ(mapper.intrinsic[2], 80.0);
  EXPECT_EQ(mapper.intrinsic[8], 1.0 / mapper.focal);
  ASSERT_EQ(mapper.pixelSize.size(), 10001u);
  EXPECT_EQ(mapper.pixelSize[0], 0.0);
  EXPECT_EQ(mapper.inversePixelSize[0], 0.0);
  EXPECT_EQ(mapper.pixelArea[0], 0.0);

  const DepthCameraModel model(hfov, vfov, 160.f, 120.f);
  for (uint32_t d : {1u, 800u, 2500u, 9999u, 10000u}) {
    SCOPED_TRACE(d);
    EXPECT_NEAR(mapper.pixelSize[d] * mapper.inversePixelSize[d], 1.0, 1e-12);
    EXPECT_NEAR(mapper.pixelArea[d], mapper.pixelSize[d] * mapper.pixelSize[d], 1e-9);
    // One pixel step in x covers the same world width as in the camera model.
    EXPECT_NEAR(mapper.pixelSize[d], double(model.xFactor) * d / 160.0, 1e-6 * d);
    EXPECT_NEAR(mapper.world_x(10, d), (10.0 / 160.0 - 0.5) * d * model.xFactor, 1e-3 * d);
  }
  EXPECT_EQ(mapper.pixel_size_at(60000), mapper.pixelSize[10000]);

  const SegCoordinateMapper<double> odd(161, 121, hfov, vfov, 100);
  EXPECT_EQ(odd.centerX, 80.0);  // integer halves
  EXPECT_EQ(odd.centerY, 60.0);
  EXPECT_EQ(odd.pixelSize.size(), 101u);
}
