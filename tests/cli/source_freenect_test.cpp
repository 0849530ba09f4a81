// libfreenect devices, played back by libfreenect's own playback library from a dump of a
// simulated recording: the disparity is turned back into the recording's millimetres, the
// bodies are those `qbt track` finds, and the end of the dump (what an unplugged camera
// looks like to the driver) ends the run cleanly with the recording kept.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli_util.h"
#include "recording.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

TEST(FreenectSource, PlaybackIsTrackedLikeTheRecordingAndItsEndKeepsWhatWasRecorded) {
#ifndef QBT_CLI_WITH_FREENECT
  GTEST_SKIP() << "built without libfreenect";
#else
  const std::string fakenect = cli_test::fakenect_library_dir();
  if (fakenect.empty()) GTEST_SKIP() << "libfreenect's playback library (libfreenect-bin) is not installed";
  cli_test::ScratchDir dir("freenect");
  cli_test::write_box_forest(dir / "box.data");
  constexpr int kFrames = 30;
  cli_test::write_recording(dir / "sim", "wave", kFrames, 1, true, 640, 480);
  cli_test::write_fakenect_dump(dir / "sim", dir / "dump", 0.05);

  const cli_test::RunResult live = cli_test::run_qbt(
      "live --source freenect --no-window --data " + dir / "box.data" + " --record " + dir / "rec" + " --out " +
          dir / "live.jsonl",
      "FAKENECT_PATH='" + dir / "dump" + "' LD_LIBRARY_PATH='" + fakenect + "'");
  ASSERT_EQ(live.code, 0) << live.err;
  EXPECT_NE(live.err.find("libfreenect device"), std::string::npos) << live.err;
  EXPECT_NE(live.err.find("camera stopped sending frames"), std::string::npos) << live.err;
  EXPECT_NE(live.err.find(std::to_string(kFrames) + " frames read"), std::string::npos) << live.err;

  // What was recorded is kept, with an index that says which camera frame each one was.
  const json meta = json::parse(cli_test::slurp(dir / "rec/recording.json"));
  const std::vector<std::vector<uint16_t>> recorded = cli_test::read_recorded_frames(dir / "rec");
  ASSERT_EQ(meta["frames"].size(), recorded.size());
  ASSERT_GE(recorded.size(), 2u);
  const quorvik::sim::Recording sim = quorvik::sim::Recording::open(dir / "sim");
  quorvik::sim::Frame truth;
  int previous = -1;
  for (size_t i = 0; i < recorded.size(); ++i) {
    SCOPED_TRACE(i);
    const int number = meta["frames"][i]["source_frame"].get<int>();
    EXPECT_GT(number, previous) << "frames in camera order";
    previous = number;
    ASSERT_LT(number, kFrames);
    sim.read(number, truth);
    EXPECT_TRUE(std::equal(recorded[i].begin(), recorded[i].end(), truth.depth.data()))
        << "the disparity comes back as the simulated millimetres";
  }

  // The recording reads back into the same bodies.
  const cli_test::RunResult again = cli_test::run_qbt("track " + dir / "rec" + " --data " + dir / "box.data");
  ASSERT_EQ(again.code, 0) << again.err;
  const std::vector<std::string> liveLines = cli_test::lines_of(cli_test::slurp(dir / "live.jsonl"));
  EXPECT_EQ(cli_test::lines_of(again.out), liveLines);

  // Up to the first frame the tracker had to skip, the bodies are those of tracking the
  // simulated recording itself.
  const cli_test::RunResult direct = cli_test::run_qbt("track " + dir / "sim" + " --data " + dir / "box.data");
  ASSERT_EQ(direct.code, 0) << direct.err;
  const std::vector<std::string> directLines = cli_test::lines_of(direct.out);
  int bodies = 0;
  for (size_t i = 0; i < liveLines.size() && meta["frames"][i]["source_frame"].get<int>() == static_cast<int>(i); ++i) {
    SCOPED_TRACE(i);
    const json a = json::parse(liveLines[i]), b = json::parse(directLines[i]);
    EXPECT_EQ(a["bodies"], b["bodies"]);
    EXPECT_EQ(a["floor"], b["floor"]);
    bodies += static_cast<int>(a["bodies"].size());
  }
  EXPECT_GT(bodies, 0) << "the waving person is found";
#endif
}

}  // namespace
