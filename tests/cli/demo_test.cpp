// `qbt demo` end to end, and the pieces it is built from: the scene, the tracking through
// the shared library and the scoring against ground truth.

#include "demo.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "cli_util.h"
#include "png_io.h"
#include "renderer.h"

namespace {

namespace fs = std::filesystem;
using quorvik::cli::JointScore;
using quorvik::cli::TrackedFrame;

TEST(DemoCommand, SixtyFramesWritePicturesAndAReport) {
  cli_test::ScratchDir dir("demo");
  cli_test::write_box_forest(dir / "box.data");
  const cli_test::RunResult r =
      cli_test::run_qbt("demo --frames 60 --out " + (dir / "pics") + " --data " + (dir / "box.data"));
  ASSERT_EQ(r.code, 0) << r.err;
  std::istringstream lines(r.out);
  std::string line;
  int frameLines = 0;
  bool fps = false, accuracy = false;
  while (std::getline(lines, line)) {
    frameLines += line.rfind("frame ", 0) == 0;
    fps = fps || line.find("frames per second") != std::string::npos;
    accuracy = accuracy || line.find("within 100 mm") != std::string::npos;
  }
  EXPECT_EQ(frameLines, 60) << "one line per frame when not on a terminal";
  EXPECT_TRUE(fps);
  EXPECT_TRUE(accuracy);
  const quorvik::cli::PngHeader sheet = quorvik::cli::read_png_header(dir / "pics/contact_sheet.png");
  EXPECT_GT(sheet.width, 320u);
  EXPECT_TRUE(fs::file_size(dir / "pics/overlay.gif") > 1000);
  EXPECT_NE(r.out.find("overlay.gif"), std::string::npos) << "the report says where the pictures went";
}

TEST(DemoScene, BothPeopleComeInAndOneLeaves) {
  const quorvik::sim::Scenario sc = quorvik::cli::demo_scenario(270);
  quorvik::sim::Renderer renderer(sc);
  quorvik::sim::Frame f;
  auto visible = [&](int frame) {
    renderer.render(frame, f);
    int people = 0;
    for (const auto& p : f.people) people += p.pixels > 2000;
    return people;
  };
  EXPECT_EQ(visible(0), 0) << "the room starts empty";
  EXPECT_EQ(visible(120), 2);
  EXPECT_EQ(visible(269), 1) << "one has left by the end";
}

// Two people standing after walking in, tracked through the shared library: the reported
// joints are in the simulator's camera space (x right, y up, z forward), in a plain and in
// a mirrored recording.
TEST(DemoScoring, TrackedJointsLandOnTheTruthInBothMirrorings) {
  cli_test::ScratchDir dir("score");
  cli_test::write_box_forest(dir / "box.data");
  const quorvik::sim::Scenario demo = quorvik::cli::demo_scenario(125);
  for (bool mirrored : {false, true}) {
    SCOPED_TRACE(mirrored ? "mirrored" : "plain");
    quorvik::sim::ScenarioOptions o = demo.options();
    o.mirrored = mirrored;
    quorvik::sim::CameraSetup camera = demo.camera();
    camera.mirrored = mirrored;
    const quorvik::sim::Scenario sc(o, camera, demo.room(), demo.actors());
    quorvik::sim::Renderer renderer(sc);
    quorvik::cli::Tracker tracker(dir / "box.data", mirrored);
    quorvik::sim::Frame f;
    TrackedFrame t;
    for (int i = 0; i < o.frames; ++i) {
      renderer.render(i, f);
      t = tracker.update(f.depth.data(), f.depth.width(), f.depth.height(), i);
    }
    ASSERT_EQ(t.bodies.size(), 2u);
    for (const auto& body : t.bodies) {
      SCOPED_TRACE(static_cast<int>(body.id));
      // The person under most of the body's mask.
      std::map<uint8_t, int> votes;
      for (size_t i = 0; i < t.bodyMask.size(); ++i)
        if (t.bodyMask[i] == body.id && f.ids[i] != 0) ++votes[f.ids[i]];
      ASSERT_FALSE(votes.empty());
      const uint8_t person = std::max_element(votes.begin(), votes.end(), [](auto& a, auto& b) { return a.second < b.second; })->first;
      const auto& truth = *std::find_if(f.people.begin(), f.people.end(), [&](auto& p) { return p.id == person; });
      // The hand-made forest knows no sides, so only the middle of the body is compared.
      int compared = 0;
      for (int joint : {QBT_JOINT_HEAD, QBT_JOINT_SHOULDER_SPINE, QBT_JOINT_MID_SPINE}) {
        const auto& j = body.joints[static_cast<size_t>(joint)];
        if (j.status == QBT_JOINT_STATUS_NONE) continue;
        ++compared;
        const auto& p = truth.joints[static_cast<size_t>(joint)].camera;
        EXPECT_NEAR(j.world[0], p.x, 250.f) << joint;
        EXPECT_NEAR(j.world[1], p.y, 250.f) << joint;
        EXPECT_NEAR(j.world[2], p.z, 350.f) << joint;
      }
      EXPECT_GE(compared, 2);
    }

    JointScore score;
    quorvik::cli::score_frame(t, f, mirrored, score, 100000.f);
    EXPECT_EQ(score.bodies, 2u);
    uint64_t reported = 0, high = 0;
    for (const auto& b : t.bodies)
      for (const auto& j : b.joints) {
        reported += j.status != QBT_JOINT_STATUS_NONE;
        high += j.status == QBT_JOINT_STATUS_HIGH;
      }
    EXPECT_EQ(score.allTotal, reported);
    EXPECT_EQ(score.highTotal, high);
    EXPECT_EQ(score.allNear, score.allTotal) << "every joint is within any distance";
    JointScore tight;
    quorvik::cli::score_frame(t, f, mirrored, tight, 0.f);
    EXPECT_EQ(tight.allNear, 0u);

    // Without the body mask no body can be matched to a person.
    TrackedFrame noMask = t;
    noMask.bodyMask.clear();
    JointScore none;
    quorvik::cli::score_frame(noMask, f, mirrored, none);
    EXPECT_EQ(none.bodies, 0u);
  }
}

// With a trained forest the sides come out right: scored with the mirroring taken into
// account, more joints land on their truth than with the sides taken at face value.
TEST(DemoScoring, SidesFollowTheMirroringWithTheShippedForest) {
  const std::string data = std::string(QBT_SOURCE_DIR) + "/data/QuorvikBodyTracking.data";
  if (!fs::exists(data)) GTEST_SKIP() << "no trained data file in the repository yet";
  const quorvik::sim::Scenario demo = quorvik::cli::demo_scenario(150);
  for (bool mirrored : {false, true}) {
    SCOPED_TRACE(mirrored ? "mirrored" : "plain");
    quorvik::sim::ScenarioOptions o = demo.options();
    o.mirrored = mirrored;
    quorvik::sim::CameraSetup camera = demo.camera();
    camera.mirrored = mirrored;
    const quorvik::sim::Scenario sc(o, camera, demo.room(), demo.actors());
    quorvik::sim::Renderer renderer(sc);
    quorvik::cli::Tracker tracker(data, mirrored);
    quorvik::sim::Frame f;
    JointScore right, swapped;
    for (int i = 0; i < o.frames; ++i) {
      renderer.render(i, f);
      const TrackedFrame t = tracker.update(f.depth.data(), f.depth.width(), f.depth.height(), i);
      quorvik::cli::score_frame(t, f, mirrored, right);
      quorvik::cli::score_frame(t, f, !mirrored, swapped);
    }
    EXPECT_GT(right.allTotal, 1000u);
    EXPECT_GT(right.allNear, swapped.allNear + right.allTotal / 20);
  }
}

}  // namespace
