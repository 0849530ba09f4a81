#include "segmentation/depth_frame_input.h"

#include <gtest/gtest.h>

#include "support/sim_scene.h"

using namespace quorvik::legacy;

namespace {

ConversionTableRef default_ref() {
  const auto& t = sim_scene::default_tables();
  return {1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()), t.depthToShift.data(),
          uint32_t(t.depthToShift.size())};
}

}  // namespace

TEST(ShadowImage, FillsTheStripBesideNearObjectsOnTheSensorSide) {
  // One row, 160 wide (q = 32): far wall, a near object, an invalid strip, the wall again.
  Array2D<uint16_t> shift(160, 1), shadow(160, 1);
  for (int x = 0; x < 160; ++x) shift[x] = 900;
  for (int x = 60; x < 80; ++x) shift[x] = 700;  // the object
  for (int x = 40; x < 60; ++x) shift[x] = 0;    // invalid on its left
  for (int x = 80; x < 100; ++x) shift[x] = 0;   // and on its right
  const int expectedWidth = (2 * (526 + 32) - 700) / 32;  // budget / q pixels

  shadow.clear();
  build_shadow_image(shift, false, shadow);
  for (int x = 0; x < 160; ++x) {
    SCOPED_TRACE(x);
    // Right to left: the object's shadow lies to its left; the run to its right follows
    // the wall at 900, whose budget is too small to cover more than a pixel.
    const bool inShadow = x < 60 && x >= 60 - expectedWidth;
    if (x >= 40 && x < 60) { EXPECT_EQ(shadow[x], inShadow ? 700 : 0); }
    if (x >= 80 && x < 100) { EXPECT_EQ(shadow[x], x >= 100 - (2 * (526 + 32) - 900) / 32 ? 900 : 0); }
    if (shift[x] != 0) { EXPECT_EQ(shadow[x], 0); }
  }

  shadow.clear();
  build_shadow_image(shift, true, shadow);
  for (int x = 80; x < 100; ++x) { EXPECT_EQ(shadow[x], x < 80 + expectedWidth ? 700 : 0) << x; }
  for (int x = 40; x < 60; ++x) { EXPECT_EQ(shadow[x], x < 40 + (2 * (526 + 32) - 900) / 32 ? 900 : 0) << x; }

  // Invalid pixels before the first valid one in scan order cast nothing.
  Array2D<uint16_t> edge(16, 1), edgeShadow(16, 1);
  for (int x = 0; x < 8; ++x) edge[x] = 600;
  build_shadow_image(edge, false, edgeShadow);
  for (int x = 8; x < 16; ++x) { EXPECT_EQ(edgeShadow[x], 0); }
}

TEST(DepthFrameInput, WaitsForAFrameWithAnAreaOfValidPixels) {
  const ConversionTableRef tables = default_ref();
  std::vector<uint16_t> depth(160 * 120, 0);
  Array2D<uint16_t> view;
  view.view(depth.data(), 160, 120);
  DepthFrameInput input;
  input.start(view, false, tables);
  EXPECT_EQ(input.shiftRing.count(), 3u);
  EXPECT_EQ(input.rawRing.count(), 2u);

  input.ingest(view, 0);
  EXPECT_TRUE(input.waitingForData);
  EXPECT_EQ(input.validBox.left, 0);
  EXPECT_EQ(input.validBox.bottom, 0);

  for (int x = 10; x < 150; ++x) depth[size_t(50 * 160 + x)] = 2000;  // one row only
  input.ingest(view, 33);
  EXPECT_TRUE(input.waitingForData);
  EXPECT_EQ(input.validBox.left, 10);
  EXPECT_EQ(input.validBox.right, 149);
  EXPECT_EQ(input.validBox.top, 50);
  EXPECT_EQ(input.validBox.bottom, 50);

  std::fill(depth.begin(), depth.end(), 0);
  for (int y = 5; y < 100; ++y) depth[size_t(y * 160 + 30)] = 2000;  // one column only
  input.ingest(view, 66);
  EXPECT_TRUE(input.waitingForData);
  EXPECT_EQ(input.raw(1)[50 * 160 + 30], 2000);  // both raw slots hold the frame while waiting
  EXPECT_EQ(input.shift(1)[50 * 160 + 30], 0);
  EXPECT_EQ(input.shift(2)[50 * 160 + 30], 0);

  // Depths 0, within the table, exactly at its end and far beyond it.
  depth[0] = 0;
  depth[1] = 1500;
  depth[2] = 10000;
  depth[3] = 10001;
  depth[4] = 65535;
  depth[160 * 119 + 159] = 3000;
  input.ingest(view, 99);
  EXPECT_FALSE(input.waitingForData);
  EXPECT_EQ(input.validBox.left, 1);
  EXPECT_EQ(input.validBox.right, 159);
  EXPECT_EQ(input.validBox.top, 0);
  EXPECT_EQ(input.validBox.bottom, 119);
  const auto& t = sim_scene::default_tables();
  EXPECT_EQ(input.shift()[0], 0);
  EXPECT_EQ(input.shift()[1], t.depthToShift[1500]);
  EXPECT_EQ(input.shift()[2], t.depthToShift[10000]);
  EXPECT_EQ(input.shift()[3], 0);
  EXPECT_EQ(input.shift()[4], 0);
  EXPECT_EQ(input.timestamp, 99u);

  // From now on every ingest moves the rings by one frame.
  const uint16_t before = input.shift()[1];
  depth[1] = 2500;
  input.ingest(view, 132);
  EXPECT_EQ(input.shift(1)[1], before);
  EXPECT_EQ(input.raw(1)[1], 1500);
  EXPECT_EQ(input.raw()[1], 2500);
}
