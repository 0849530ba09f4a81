// The tracker's whole output on a short simulated recording, frame by frame, against a stored
// reference: work meant to make the tracker faster or leaner must leave every body, joint,
// body-part label, mask and floor as it was. Each line of the reference holds one frame's
// body count and a digest of all its outputs.
//
// A change of behaviour made on purpose rewrites the reference with
//   QBT_WRITE_REFERENCE=1 build/tests/qbt_eval_tests --gtest_filter='OutputReference.*'
// and the rewritten file goes into the same commit; its diff shows from which frame on the
// output changed.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "forest/forest_reader.h"
#include "renderer.h"
#include "scene.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

// Two people walk in at 320x240: the reduction, the segmentation with the floor, the
// classification, the skeletons and the masks brought back to the input size all take part.
constexpr int kFrames = 150;

// FNV-1a over the bytes of each value in turn.
class Digest {
 public:
  template <typename T>
  void add(const T& value) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    for (size_t i = 0; i < sizeof value; ++i) hash_ = (hash_ ^ bytes[i]) * 1099511628211ull;
  }
  template <typename T>
  void add_all(const T* values, size_t count) {
    for (size_t i = 0; i < count; ++i) add(values[i]);
  }
  uint64_t value() const { return hash_; }

 private:
  uint64_t hash_ = 1469598103934665603ull;
};

std::string frame_line(int index, const skeleton::BodyTracker& tracker) {
  Digest d;
  for (const skeleton::Body& body : tracker.bodies()) {
    d.add(body.id);
    d.add(body.status);
    d.add(body.extent);
    std::vector<uint8_t> types;
    for (const auto& entry : body.joints) types.push_back(entry.first);
    std::sort(types.begin(), types.end());
    for (const uint8_t type : types) {
      const skeleton::Joint& joint = body.joints.at(type);
      d.add(joint.type);
      d.add(joint.status);
      d.add(joint.depthPosition);
      d.add(joint.worldPosition);
    }
  }
  const op::Image<skeleton::PixelLabel>& labels = tracker.pixelLabels();
  for (size_t i = 0; i < labels.size(); ++i) {
    d.add(labels[i].label);
    d.add(labels[i].probability);
  }
  d.add_all(tracker.bodyMask().data(), tracker.bodyMask().size());
  d.add(tracker.floorDetected());
  d.add(tracker.floorPlane());
  d.add_all(tracker.floorMask().data(), tracker.floorMask().size());
  char line[96];
  std::snprintf(line, sizeof line, "{\"frame\":%d,\"bodies\":%zu,\"digest\":\"%016" PRIx64 "\"}", index,
                tracker.bodies().size(), d.value());
  return line;
}

TEST(OutputReference, ShortRecordingTracksAsStored) {
  auto forest = skeleton::load_forest(std::string(QBT_SOURCE_DIR) + "/data/QuorvikBodyTracking.data");
  ASSERT_TRUE(forest.is_ok());
  sim::ScenarioOptions o;
  o.name = "walk-in";
  o.people = 2;
  o.width = 320;
  o.height = 240;
  o.frames = kFrames;
  o.seed = 4;
  const sim::Scenario scenario = sim::Scenario::make(o);
  sim::Renderer renderer(scenario);
  skeleton::BodyTracker tracker(skeleton::TrackerOptions{}, forest.unwrap(), 160, 120);
  tracker.isDepthMirrored = o.mirrored;
  sim::Frame frame;
  std::vector<std::string> lines;
  for (int i = 0; i < kFrames; ++i) {
    renderer.render(i, frame);
    tracker.update(o.width, o.height, frame.depth.data()).unwrap();
    lines.push_back(frame_line(i, tracker));
  }

  const std::string path = std::string(QBT_TEST_DATA_DIR) + "/output_reference.jsonl";
  if (std::getenv("QBT_WRITE_REFERENCE") != nullptr) {
    std::ofstream out(path);
    for (const std::string& line : lines) out << line << "\n";
    ASSERT_TRUE(out.good()) << path;
    GTEST_SKIP() << "wrote " << path;
  }
  std::ifstream in(path);
  ASSERT_TRUE(in.good()) << path;
  std::vector<std::string> stored;
  for (std::string line; std::getline(in, line);) stored.push_back(line);
  ASSERT_EQ(stored.size(), lines.size()) << path;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (stored[i] == lines[i]) continue;
    ADD_FAILURE() << "output differs from " << path << " from frame " << i << " on:\n  stored " << stored[i]
                  << "\n  now    " << lines[i];
    break;
  }
  EXPECT_GT(tracker.bodies().size(), 0u) << "nobody tracked: the recording tests too little";
}

}  // namespace
}  // namespace quorvik::eval
