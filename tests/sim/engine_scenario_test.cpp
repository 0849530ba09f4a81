// The segmentation engine, through the tracker's user analyzer, on simulated recordings with
// ground truth: the floor it finds, how soon a walker gets an id, and ids through a crossing.

#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "renderer.h"
#include "scene.h"
#include "segmentation/user_analyzer.h"

namespace quorvik::sim {
namespace {

using skeleton::SegmentedUser;
using skeleton::UserAnalyzer;

struct Replay {
  explicit Replay(const std::string& name, int people, uint64_t seed, int frames)
      : Replay(Scenario::make({name, people, 160, 120, frames, seed, false, 30.f})) {}
  explicit Replay(Scenario s)
      : scenario(std::move(s)),
        renderer(scenario),
        analyzer(58.59f, 45.64f, 160, 120),
        tables(skeleton::build_conversion_tables({})) {}

  // Next frame; returns, per simulated person, the engine id that covers most of its pixels
  // (0 when none does).
  std::map<uint8_t, uint8_t> step() {
    renderer.render(index++, frame);
    analyzer.update(frame.depth, tables, false, users);
    std::map<uint8_t, std::map<uint8_t, int>> votes;
    const auto& labels = analyzer.userLabels();
    for (size_t i = 0; i < labels.size(); ++i) {
      if (frame.ids[i] != 0 && labels[i] != skeleton::kNoUser) ++votes[frame.ids[i]][uint8_t(labels[i])];
    }
    std::map<uint8_t, uint8_t> owner;
    for (const PersonTruth& p : frame.people) {
      uint8_t best = 0;
      int most = 0;
      for (auto [id, n] : votes[p.id])
        if (n > most) most = n, best = id;
      // A person counts as found when the id covers at least a third of its pixels.
      owner[p.id] = p.pixels > 0 && 3 * most >= int(p.pixels) ? best : 0;
    }
    return owner;
  }

  bool fully_visible(const PersonTruth& p) const {
    for (const JointTruth& j : p.joints)
      if (!j.inImage) return false;
    return p.pixels > 150;
  }

  Scenario scenario;
  Renderer renderer;
  UserAnalyzer analyzer;
  skeleton::ConversionTables tables;
  std::vector<SegmentedUser> users;
  Frame frame;
  int index = 0;
};

TEST(EngineOnRecordings, FloorWithinTwoDegrees) {
  // The rooms' own cameras; heights, pitches and patches of missing depth are swept in
  // tests/eval/floor_sweep_test.cpp.
  for (uint64_t seed : {3u, 11u, 21u}) {
    SCOPED_TRACE(seed);
    Replay run("empty-room", 0, seed, 40);
    for (int i = 0; i < 40; ++i) run.step();
    ASSERT_TRUE(run.analyzer.floorDetected());
    const auto& n = run.analyzer.floorPlane();
    const auto& truth = run.frame.floor;
    const double dot = n[0] * truth[0] + n[1] * truth[1] + n[2] * truth[2];
    EXPECT_LT(std::acos(std::min(1.0, dot)) * 180.0 / M_PI, 2.0);
    EXPECT_NEAR(n[3], truth[3], 30.f) << "floor offset in mm";
  }
}

TEST(EngineOnRecordings, AWalkerGetsAnIdWithinASecondOfBeingFullyVisible) {
  for (uint64_t seed : {1u, 7u}) {
    SCOPED_TRACE(seed);
    Replay run("walk-in", 1, seed, 150);
    int visibleAt = -1, foundAt = -1;
    for (int i = 0; i < 150; ++i) {
      const auto owner = run.step();
      if (run.frame.people.empty()) continue;
      if (visibleAt < 0 && run.fully_visible(run.frame.people[0])) visibleAt = i;
      if (foundAt < 0 && owner.begin()->second != 0) foundAt = i;
    }
    ASSERT_GE(visibleAt, 0) << "the walker never came fully into view";
    ASSERT_GE(foundAt, 0) << "no id";
    // Found while still entering counts too.
    EXPECT_LE(foundAt - visibleAt, 30) << "visible at " << visibleAt << ", id at " << foundAt;
  }
}

TEST(EngineOnRecordings, TwoPeopleKeepDistinctIdsThroughACrossing) {
  Replay run("crossing", 2, 5, 240);
  std::map<uint8_t, uint8_t> firstId;  // person -> the id it got first
  int switches = 0, shared = 0;
  for (int i = 0; i < 240; ++i) {
    const auto owner = run.step();
    std::map<uint8_t, int> used;
    for (auto [person, id] : owner) {
      if (id == 0) continue;
      ++used[id];
      if (!firstId.count(person)) firstId[person] = id;
      if (firstId[person] != id) ++switches;
    }
    for (auto [id, n] : used) shared += n > 1;
  }
  ASSERT_EQ(firstId.size(), 2u) << "both people were found";
  EXPECT_NE(firstId.begin()->second, std::next(firstId.begin())->second);
  EXPECT_EQ(switches, 0) << "frames in which a person carried another id than its first";
  EXPECT_EQ(shared, 0) << "frames in which one id covered both people";
}

}  // namespace
}  // namespace quorvik::sim
