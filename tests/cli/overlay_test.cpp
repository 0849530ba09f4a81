// Overlay pictures and the JSON form of tracking output, checked pixel by pixel and field by
// field on small hand-made frames.

#include "overlay.h"

#include <cmath>

#include <gtest/gtest.h>

#include "json_lines.h"
#include "tracker/tracker_options.h"

namespace {

using quorvik::cli::RgbImage;
using quorvik::cli::TrackedBody;
using quorvik::cli::TrackedFrame;

constexpr uint32_t kW = 160, kH = 120;

bool is_grey(const uint8_t* p) { return p[0] == p[1] && p[1] == p[2]; }

// A wall at 3 m with one upright body (a vertical bone at the image centre) in front of it.
struct Scene {
  std::vector<uint16_t> depth = std::vector<uint16_t>(kW * kH, 3000);
  TrackedFrame frame;
  Scene() {
    frame.width = kW;
    frame.height = kH;
    TrackedBody& b = frame.bodies.emplace_back();
    b.id = 2;
    b.status = QBT_BODY_STATUS_TRACKING;
    for (int k = 0; k < QBT_JOINT_COUNT; ++k) b.joints[static_cast<size_t>(k)].type = static_cast<uint8_t>(k);
    auto set = [&](int type, float u, float v, float y) {
      auto& j = b.joints[static_cast<size_t>(type)];
      j.status = QBT_JOINT_STATUS_HIGH;
      j.depth[0] = u;
      j.depth[1] = v;
      j.world[0] = 0;
      j.world[1] = y;
      j.world[2] = 2000;
    };
    set(QBT_JOINT_HEAD, 80, 20, 700);
    set(QBT_JOINT_SHOULDER_SPINE, 80, 50, 300);
    set(QBT_JOINT_MID_SPINE, 80, 70, 0);
    // Column 80 between the head and the mid spine is at 2 m, the body's distance.
    for (uint32_t y = 15; y < 75; ++y)
      for (uint32_t x = 75; x < 86; ++x) depth[y * kW + x] = 2000;
    depth[5 * kW + 5] = 0;
  }
};

TEST(Overlay, MaskColoursSkeletonAndHoles) {
  Scene s;
  s.frame.bodyMask.assign(kW * kH, 0);
  for (uint32_t y = 15; y < 75; ++y)
    for (uint32_t x = 75; x < 86; ++x) s.frame.bodyMask[y * kW + x] = 2;
  s.frame.floorMask.assign(kW * kH, 0);
  for (uint32_t x = 0; x < kW; ++x) s.frame.floorMask[110 * kW + x] = 1;
  const RgbImage img = quorvik::cli::render_overlay(s.depth.data(), kW, kH, s.frame);
  ASSERT_EQ(img.width, kW);
  const uint8_t* hole = img.at(5, 5);
  EXPECT_EQ(hole[0] + hole[1] + hole[2], 0) << "no measurement is black";
  EXPECT_TRUE(is_grey(img.at(20, 60))) << "the wall stays grey";
  EXPECT_GT(img.at(20, 60)[0], 0);
  uint8_t colour[3];
  quorvik::cli::body_colour(2, colour);
  const uint8_t* body = img.at(77, 60);  // on the mask, off the drawn bone
  EXPECT_FALSE(is_grey(body));
  EXPECT_GT(body[1], body[0]) << "body 2 is drawn in its cyan";
  const uint8_t* bone = img.at(80, 35);
  EXPECT_EQ(bone[0] + bone[1] + bone[2], 3 * 255) << "bones between High joints are solid white";
  EXPECT_GT(img.at(20, 110)[2], img.at(20, 110)[0]) << "the floor mask is tinted blue";
  EXPECT_TRUE(is_grey(img.at(20, 100)));

  // A Low end makes the bone dimmer.
  s.frame.bodies[0].joints[QBT_JOINT_HEAD].status = QBT_JOINT_STATUS_LOW;
  const RgbImage dim = quorvik::cli::render_overlay(s.depth.data(), kW, kH, s.frame);
  EXPECT_LT(dim.at(80, 35)[0], 255);
  EXPECT_GT(dim.at(80, 35)[0], body[0] / 2);

  // A joint placed absurdly far off (a corrupt file) draws nothing rather than a long line.
  s.frame.bodies[0].joints[QBT_JOINT_HEAD].depth[0] = 1e9f;
  const RgbImage far = quorvik::cli::render_overlay(s.depth.data(), kW, kH, s.frame);
  EXPECT_NE(far.at(80, 35)[0], 255);
  EXPECT_EQ(far.at(80, 60)[0], 255) << "the other bones are still drawn";
}

TEST(Overlay, WithoutMasksTheSkeletonAndPlaneStandIn) {
  Scene s;
  s.frame.floorDetected = true;
  // A horizontal plane through the wall's row 100.
  const float vfov = quorvik::skeleton::kDefaultVerticalFovDegrees * 0.0174533f;
  const float yAtRow100 = (0.5f - 100.f / kH) * 3000.f * std::tan(vfov / 2.f) * 2.f;
  s.frame.plane = {0.f, 1.f, 0.f, -yAtRow100};
  const RgbImage img = quorvik::cli::render_overlay(s.depth.data(), kW, kH, s.frame);
  EXPECT_FALSE(is_grey(img.at(77, 60))) << "near the bone at the body's distance";
  EXPECT_TRUE(is_grey(img.at(20, 60))) << "the wall 1 m behind the bone";
  EXPECT_GT(img.at(20, 100)[2], img.at(20, 100)[0]) << "on the plane";
  EXPECT_TRUE(is_grey(img.at(20, 20)));
}

TEST(Overlay, ContactSheetTilesInRows) {
  std::vector<RgbImage> tiles;
  for (int i = 0; i < 7; ++i) {
    RgbImage t(160, 120);
    std::fill(t.pixels.begin(), t.pixels.end(), static_cast<uint8_t>(30 * i));
    tiles.push_back(t);
  }
  const RgbImage sheet = quorvik::cli::contact_sheet(tiles, {0, 5, 10, 15, 20, 25, 30}, 3, 2);
  EXPECT_EQ(sheet.width, 4u + 3u * (80u + 4u));
  EXPECT_EQ(sheet.height, 4u + 3u * (60u + 4u));
  // Tile 4 is the second of the second row; its middle keeps its shade.
  EXPECT_EQ(sheet.at(4 + 84 + 40, 4 + 64 + 40)[0], 120);
  EXPECT_EQ(sheet.at(4 + 40, 4 + 128 + 40)[0], 180) << "tile 6 opens the third row";
  EXPECT_EQ(sheet.at(4 + 84 + 40, 4 + 128 + 40)[0], 24) << "and nothing follows it";
}

// Every field survives the trip through a line of text (to the rounding of two decimals).
TEST(JsonLines, RoundTrip) {
  Scene s;
  s.frame.index = 41;
  s.frame.floorDetected = true;
  s.frame.plane = {0.f, 0.9962f, 0.0872f, 1195.3f};
  s.frame.bodies[0].joints[QBT_JOINT_RIGHT_FOOT] = {QBT_JOINT_RIGHT_FOOT, QBT_JOINT_STATUS_LOW, {3.f, 4.f}, {-12.345f, 6.f, 7.f}};
  const TrackedFrame back = quorvik::cli::frame_from_json(nlohmann::json::parse(quorvik::cli::frame_to_json(s.frame).dump()));
  EXPECT_EQ(back.index, 41);
  EXPECT_TRUE(back.floorDetected);
  EXPECT_FLOAT_EQ(back.plane[3], 1195.3f);
  ASSERT_EQ(back.bodies.size(), 1u);
  EXPECT_EQ(back.bodies[0].id, 2);
  EXPECT_EQ(back.bodies[0].status, QBT_BODY_STATUS_TRACKING);
  for (size_t k = 0; k < QBT_JOINT_COUNT; ++k) {
    SCOPED_TRACE(k);
    const auto& a = s.frame.bodies[0].joints[k];
    const auto& b = back.bodies[0].joints[k];
    EXPECT_EQ(b.type, k);
    EXPECT_EQ(b.status, a.status);
    for (int c = 0; c < 2; ++c) EXPECT_NEAR(b.depth[c], a.depth[c], 0.0051f);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(b.world[c], a.world[c], 0.0051f);
  }
}

}  // namespace
