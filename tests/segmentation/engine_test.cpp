#include <gtest/gtest.h>

#include <cstdio>

#include "segmentation/scene_util.h"
#include "segmentation/segmentation_engine.h"

using namespace quorvik::legacy;
using quorvik::skeleton::kDegreesToRadians;

namespace {

class EngineDriver {
 public:
  explicit EngineDriver(int width = 160, int height = 120, bool mirrored = false) : engine(SegmentationEngine::create()) {
    format.width = uint32_t(width);
    format.height = uint32_t(height);
    format.hfov = scene::kHfovDegrees * kDegreesToRadians;
    format.vfov = scene::kVfovDegrees * kDegreesToRadians;
    format.mirrored = mirrored ? 1 : 0;
    const auto& t = scene::default_tables();
    tables = {1, t.shiftToDepth.data(), uint32_t(t.shiftToDepth.size()), t.depthToShift.data(),
              uint32_t(t.depthToShift.size())};
    engine->reset();
  }

  // Starts on the first call, processes afterwards.
  void feed(const std::vector<uint16_t>& depth) {
    SegmentationFrame frame{index, timestamp, &format, depth.data()};
    ++index;
    timestamp += 33;
    if (!engine->started()) {
      ASSERT_TRUE(engine->start(frame, tables));
    } else {
      engine->process(frame);
    }
  }
  void feed(const std::vector<uint16_t>& depth, int times) {
    for (int i = 0; i < times; ++i) feed(depth);
  }

  std::unique_ptr<SegmentationEngine> engine;
  SegmentationFormat format;
  ConversionTableRef tables;
  uint64_t index = 1, timestamp = 0;
};

}  // namespace

TEST(Explore, FloorPlane) {
  for (float pitch : {0.f, 10.f, 20.f}) {
    scene::SceneBuilder builder(1200.f, pitch);
    builder.floor().wall(4000.f);
    EngineDriver driver;
    driver.feed(builder.render(), 10);
    FloorOutput out = driver.engine->floor_output();
    auto truth = builder.floor_plane();
    std::printf("pitch %.0f detected %u plane %f %f %f %f truth %f %f %f %f angle %f\n", pitch, out.detected,
                out.plane[0], out.plane[1], out.plane[2], out.plane[3], truth[0], truth[1], truth[2], truth[3],
                scene::angle_between(out.plane, truth.data()));
  }
}
