#include "segmentation/segmentation_engine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "support/sim_scene.h"

using sim_scene::SceneEngine;

using namespace quorvik::legacy;
using quorvik::skeleton::kDegreesToRadians;

namespace {

// Pixels where the object stands in front of the empty scene.
std::vector<int> object_pixels(const std::vector<uint16_t>& withObject, const std::vector<uint16_t>& without) {
  std::vector<int> pixels;
  for (size_t i = 0; i < withObject.size(); ++i) {
    if (withObject[i] != 0 && (without[i] == 0 || withObject[i] + 100 < without[i])) pixels.push_back(int(i));
  }
  return pixels;
}

void expect_floor_near(const FloorOutput& out, const sim_scene::Scene& scene) {
  ASSERT_EQ(out.detected, 1u);
  const auto truth = scene.floor_plane();
  EXPECT_LT(sim_scene::angle_between(out.plane, truth.data()), 2.0);
  EXPECT_NEAR(out.plane[3], truth[3], 30.0);
  EXPECT_NEAR(std::sqrt(out.plane[0] * out.plane[0] + out.plane[1] * out.plane[1] + out.plane[2] * out.plane[2]),
              1.0, 1e-5);
}

}  // namespace

TEST(FloorDetection, FindsTheFloorUnderLevelAndPitchedCameras) {
  struct Case {
    float height, pitch;
    bool mirrored;
  };
  for (const Case c : {Case{1200, 0, false}, Case{1000, 5, false}, Case{1500, 10, false}, Case{800, 8, true}}) {
    SCOPED_TRACE(testing::Message() << "height " << c.height << " pitch " << c.pitch);
    sim_scene::Scene builder(c.height, c.pitch);
    builder.floor().wall(4000.f);
    const std::vector<uint16_t> depth = builder.render();
    SceneEngine driver(160, 120, c.mirrored);
    driver.feed(depth, 6);
    const FloorOutput out = driver.engine().floor_output();
    expect_floor_near(out, builder);
    ASSERT_EQ(out.maskWidth, 160u);
    ASSERT_EQ(out.maskHeight, 120u);
    int onFloor = 0;
    for (uint32_t i = 0; i < 160 * 120; ++i) {
      if (i < 80 * 160) { ASSERT_EQ(out.mask[i], 0) << "mask above the bottom third at " << i; }
      onFloor += out.mask[i];
    }
    EXPECT_GT(onFloor, 160 * 120 * 0.005);
    EXPECT_EQ(out.mask[119 * 160 + 80], 1);  // straight down is floor
  }
}

TEST(FloorDetection, NoFloorFacingAWallOrInAnEmptyScene) {
  SceneEngine wall;
  wall.feed(sim_scene::Scene(1200, 0).wall(1500).render(), 10);
  EXPECT_EQ(wall.engine().floor_output().detected, 0u);
  EXPECT_FALSE(wall.engine().floor().has_floor());

  // Too steep for a floor: a camera looking down at 25 degrees sees the floor as a wall.
  SceneEngine steep;
  steep.feed(sim_scene::Scene(1200, 25).floor().render(), 10);
  EXPECT_EQ(steep.engine().floor_output().detected, 0u);

  SceneEngine empty;
  empty.feed(std::vector<uint16_t>(160 * 120, 0), 10);
  const FloorOutput out = empty.engine().floor_output();
  EXPECT_EQ(out.detected, 0u);
  EXPECT_EQ(out.plane[1], 0.f);
  EXPECT_TRUE(empty.engine().input().waitingForData);
}

TEST(FloorDetection, KeepsTheFloorWhileSomethingWalksOnItAndMasksItOut) {
  sim_scene::Scene builder(1200, 8);
  builder.floor().wall(4500);
  const std::vector<uint16_t> empty = builder.render();
  SceneEngine driver;
  driver.feed(empty, 40);
  ASSERT_EQ(driver.engine().floor_output().detected, 1u);
  const double bestBefore = driver.engine().floor().best_score();

  for (int step = 0; step < 40; ++step) {
    SCOPED_TRACE(step);
    builder.clear_boxes().box(-1000.f + 50.f * step, 2200.f, 400.f, 300.f, 1700.f);
    const std::vector<uint16_t> depth = builder.render();
    driver.feed(depth);
    const FloorOutput out = driver.engine().floor_output();
    expect_floor_near(out, builder);
    EXPECT_GE(driver.engine().floor().best_score(), bestBefore);
    for (int i : object_pixels(depth, empty)) { ASSERT_EQ(out.mask[i], 0) << "object pixel " << i << " on the floor"; }
    EXPECT_EQ(out.mask[119 * 160 + 5], 1);
  }
}

TEST(FloorDetection, SameInputSequenceGivesTheSameFloor) {
  auto run = [](std::vector<float>& planes, std::vector<uint8_t>& mask) {
    sim_scene::Scene builder(1300, 6);
    builder.floor().wall(3800);
    SceneEngine driver;
    for (int step = 0; step < 30; ++step) {
      builder.clear_boxes().box(-600.f + 40.f * step, 2000.f, 300.f, 300.f, 1600.f);
      driver.feed(builder.render());
      const FloorOutput out = driver.engine().floor_output();
      planes.insert(planes.end(), out.plane, out.plane + 4);
    }
    const FloorOutput out = driver.engine().floor_output();
    mask.assign(out.mask, out.mask + out.maskWidth * out.maskHeight);
  };
  std::vector<float> first, second;
  std::vector<uint8_t> firstMask, secondMask;
  run(first, firstMask);
  run(second, secondMask);
  EXPECT_EQ(first, second);
  EXPECT_EQ(firstMask, secondMask);
}

TEST(FloorDetection, RandomSearchIsRepeatableAndNeedsValidPixels) {
  const auto& t = sim_scene::default_tables();
  const quorvik::skeleton::SegCoordinateMapper<double> mapper(160, 120, sim_scene::kHfovDegrees * kDegreesToRadians,
                                                              sim_scene::kVfovDegrees * kDegreesToRadians,
                                                              sim_scene::kMaxDepthMm);
  const std::vector<uint16_t> depth = sim_scene::Scene(1200, 5).floor().render();
  Array2D<uint16_t> background(160, 120);
  for (int32_t i = 0; i < background.size(); ++i) background[i] = t.shift_of(depth[size_t(i)]);

  auto detector = std::make_unique<FloorDetector>();
  auto twin = std::make_unique<FloorDetector>();
  FloorHypothesis a, b;
  for (FloorDetector* d : {detector.get(), twin.get()}) d->start(160, 120, t.shiftToDepth.data(), 2048, &mapper);
  a.allocate(160, 120);
  b.allocate(160, 120);
  ASSERT_TRUE(detector->random_search(a, background));
  ASSERT_TRUE(twin->random_search(b, background));
  EXPECT_EQ(a.a, b.a);
  EXPECT_EQ(a.b, b.b);
  EXPECT_EQ(a.c, b.c);
  EXPECT_GE(a.normal[1], FloorDetector::kTiltLimit);
  detector->evaluate(a, background);
  EXPECT_TRUE(a.valid);

  Array2D<uint16_t> nothing(160, 120);
  EXPECT_FALSE(detector->random_search(a, nothing));
  EXPECT_EQ(a.normal[1], -1.5);
  EXPECT_FALSE(detector->histogram_search(a, nothing));
}

TEST(BackgroundModel, BoxLeftInTheSceneJoinsTheBackgroundAfter151Frames) {
  sim_scene::Scene builder(1200, 8);
  builder.floor().wall(4000);
  const std::vector<uint16_t> empty = builder.render();
  SceneEngine driver;
  driver.feed(empty, 40);
  EXPECT_EQ(driver.foreground_count(), 0);

  const std::vector<uint16_t> withBox = builder.box(300, 2500, 300, 300, 300).render();
  const std::vector<int> box = object_pixels(withBox, empty);
  ASSERT_GT(box.size(), 100u);
  auto box_foreground = [&] {
    int n = 0;
    for (int i : box) n += driver.engine().background().foreground[i] != 0;
    return n;
  };
  for (int frame = 1; frame <= 152; ++frame) {
    driver.feed(withBox);
    EXPECT_FALSE(driver.engine().background().resetThisFrame) << frame;
    EXPECT_FALSE(driver.engine().background().sceneChanging) << frame;
    // Still foreground on frame 151, taken for the background on frame 152.
    if (frame == 1 || frame == 151) { EXPECT_GE(box_foreground(), int(box.size() * 9 / 10)) << frame; }
  }
  EXPECT_EQ(box_foreground(), 0);
  EXPECT_EQ(driver.foreground_count(), 0);
  EXPECT_EQ(driver.engine().floor_output().detected, 1u);

  // Moved away again: the surface behind it is farther and is taken back at once.
  driver.feed(empty, 3);
  EXPECT_EQ(driver.foreground_count(), 0);
  const auto& background = driver.engine().background().background;
  const auto& shift = driver.engine().input().shift();
  for (int i : box) { ASSERT_EQ(background[i], shift[i]) << i; }
}

TEST(BackgroundModel, SceneLearnedAfterStartAndLabelsStayEmpty) {
  const std::vector<uint16_t> depth = sim_scene::Scene(1200, 8).floor().wall(3000).render();
  SceneEngine driver;
  driver.feed(depth);
  const LabelOutput start = driver.engine().label_output();
  ASSERT_EQ(start.width, 160u);
  ASSERT_NE(start.data, nullptr);
  driver.feed(depth);
  EXPECT_TRUE(driver.engine().background().resetThisFrame);  // first update rebuilds
  driver.feed(depth, 4);
  const auto& model = driver.engine().background();
  const auto& shift = driver.engine().input().shift();
  for (int32_t i = 0; i < shift.size(); ++i) {
    if (shift[i] != 0) { ASSERT_EQ(model.background[i], shift[i]) << i; }
  }
  EXPECT_EQ(model.framesSinceReset, 35u);
  EXPECT_FALSE(model.badFrame);
  const LabelOutput labels = driver.engine().label_output();
  for (uint32_t i = 0; i < labels.width * labels.height; ++i) { ASSERT_EQ(labels.data[i], 0); }
}

TEST(BackgroundModel, CameraBumpResetsTheBackground) {
  sim_scene::Scene builder(1200, 8);
  SceneEngine driver;
  driver.feed(builder.floor().wall(4000).render(), 40);
  ASSERT_EQ(driver.engine().floor_output().detected, 1u);

  // The camera is knocked towards a wall: every pixel changes at once.
  const std::vector<uint16_t> bumped = sim_scene::Scene(1200, 0).wall(1100).render();
  bool sawChange = false, sawReset = false;
  for (int frame = 0; frame < 25; ++frame) {
    driver.feed(bumped);
    sawChange |= driver.engine().background().sceneChanging;
    sawReset |= driver.engine().background().resetThisFrame;
  }
  EXPECT_TRUE(sawChange);
  EXPECT_TRUE(sawReset);
  EXPECT_EQ(driver.foreground_count(), 0);
  EXPECT_EQ(driver.engine().floor_output().detected, 0u);
}

TEST(SegmentationEngine, SurvivesBadInput) {
  SceneEngine driver;
  std::vector<uint16_t> depth(160 * 120, 0);
  driver.feed(depth, 5);  // all zero
  EXPECT_TRUE(driver.engine().input().waitingForData);
  EXPECT_EQ(driver.engine().floor_output().detected, 0u);

  std::fill(depth.begin() + 60 * 160, depth.begin() + 61 * 160, 2000);  // one valid row
  driver.feed(depth, 3);
  EXPECT_TRUE(driver.engine().input().waitingForData);
  std::fill(depth.begin(), depth.end(), 0);
  for (int y = 0; y < 120; ++y) depth[size_t(y * 160 + 159)] = 65535;  // one column, beyond the tables
  driver.feed(depth, 3);
  EXPECT_TRUE(driver.engine().input().waitingForData);

  for (size_t i = 0; i < depth.size(); ++i) depth[i] = (i % 20 == 0) ? 1800 : (i % 2 == 0 ? 0 : 65535);
  driver.feed(depth, 5);
  EXPECT_FALSE(driver.engine().input().waitingForData);
  EXPECT_TRUE(driver.engine().background().badFrame);  // 95 percent without a valid shift

  for (size_t i = 0; i < depth.size(); ++i) depth[i] = uint16_t((i * 7919) % 65536);
  driver.feed(depth, 5);
  driver.feed(sim_scene::Scene(1200, 8).floor().render(), 30);  // settles after the scene change
  EXPECT_EQ(driver.engine().floor_output().detected, 1u);
}

TEST(SegmentationEngine, RefusesFramesItCannotHold) {
  std::vector<uint16_t> depth(1280 * 960, 1500);
  for (auto [w, h] : {std::pair{1280, 960}, {644, 480}, {640, 481}, {0, 0}, {164, 120}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    SceneEngine driver(w, h);
    driver.feed(depth);
    EXPECT_FALSE(driver.engine().started());
    const SegmentationFrame frame{1, 0, &driver.format(), depth.data()};
    const LabelOutput labels = driver.engine().process(frame);
    EXPECT_EQ(labels.data, nullptr);
    EXPECT_EQ(driver.engine().floor_output().detected, 0u);
  }

  // The smallest accepted frames run the whole pipeline on noise without trouble.
  for (auto [w, h] : {std::pair{8, 3}, {16, 12}, {88, 66}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    SceneEngine tiny(w, h);
    std::vector<uint16_t> noise(size_t(w * h));
    for (int frame = 0; frame < 40; ++frame) {
      for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint16_t(((i + 3) * (frame + 7) * 2654435761u) >> 19);
      tiny.feed(noise);
      EXPECT_TRUE(tiny.engine().started());
    }
    EXPECT_EQ(tiny.engine().label_output().width, uint32_t(w));
  }

  SceneEngine large(640, 480);
  large.feed(depth);
  EXPECT_TRUE(large.engine().started());
  large.format().width = 320;
  large.format().height = 240;
  large.feed(depth);  // another size than the started one is ignored
  EXPECT_EQ(large.engine().input().width, 640);
  EXPECT_EQ(large.engine().label_output().width, 640u);
  EXPECT_FALSE(large.engine().start(SegmentationFrame{1, 0, &large.format(), nullptr}, large.tables()));
}

TEST(SegmentationEngine, LargestAcceptedFrameRunsTheWholePipeline) {
  sim_scene::Scene builder(1200, 6, 640, 480);
  builder.floor().wall(4000);
  SceneEngine driver(640, 480);
  driver.feed(builder.render(), 4);
  for (int step = 0; step < 6; ++step) {
    builder.clear_boxes().box(-400.f + 80.f * step, 2500, 450, 300, 1750);
    driver.feed(builder.render());
  }
  const FloorOutput out = driver.engine().floor_output();
  expect_floor_near(out, builder);
  EXPECT_EQ(out.maskWidth, 640u);
  EXPECT_EQ(driver.engine().candidates().tracked().size(), 1u);
  EXPECT_TRUE(driver.engine().candidates().tracked()[0].confirmed);
}
