// Recordings on disk as a frame source: a PNG folder played by `qbt view` and recorded
// again reads back into the same tracking, the camera options a recording stores are
// used only when they are whole, and a recording is never written over another.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "cli_util.h"
#include "depth_input.h"

namespace {

namespace fs = std::filesystem;

TEST(FileSource, ARecordingPlayedAndRecordedAgainTracksTheSame) {
  cli_test::ScratchDir dir("files");
  cli_test::write_box_forest(dir / "box.data");
  cli_test::write_recording(dir / "sim", "wave", 20, 1, true);
  const std::string data = " --data " + dir / "box.data";
  const cli_test::RunResult played = cli_test::run_qbt("view " + dir / "sim" + " --no-window --speed 16 --record " +
                                                       dir / "rec" + " --out " + dir / "view.jsonl" + data);
  ASSERT_EQ(played.code, 0) << played.err;
  EXPECT_EQ(cli_test::read_recorded_frames(dir / "rec").size(), 20u);
  const cli_test::RunResult original = cli_test::run_qbt("track " + dir / "sim" + data);
  const cli_test::RunResult again = cli_test::run_qbt("track " + dir / "rec" + data);
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_EQ(again.out, cli_test::slurp(dir / "view.jsonl"));
  EXPECT_EQ(again.out, original.out);
  EXPECT_NE(original.out.find("\"id\":1"), std::string::npos) << "someone to compare";

  const cli_test::RunResult twice =
      cli_test::run_qbt("view " + dir / "sim" + " --no-window --speed 16 --record " + dir / "rec" + data);
  EXPECT_EQ(twice.code, 5);
  EXPECT_NE(twice.err.find("already holds a recording"), std::string::npos) << twice.err;
}

TEST(FileSource, StoredCameraOptionsAreUsedOnlyWhenWhole) {
  cli_test::ScratchDir dir("options");
  const std::string whole =
      R"("horizontalFov": 58.1, "verticalFov": 45.2, "zeroPlaneDistance": 120, "zeroPlanePixelSize": 0.1042,
         "emitterDcmosDistance": 7.5, "maxShiftValue": 2047, "deviceMaxDepth": 10000, "constShift": 200,
         "paramCoeff": 4, "shiftScale": 10, "minDepth": 0, "maxDepth": 10000)";
  struct Case {
    std::string name, camera;
    bool used;
  };
  const Case cases[] = {
      {"whole", R"({"mirrored": false, "options": {)" + whole + R"(, "pixelSizeFactor": 1}})", true},
      {"a field missing", R"({"options": {)" + whole + "}}", false},
      {"a zero divisor", R"({"options": {)" + whole + R"(, "pixelSizeFactor": 0}})", false},
      {"a field not a number", R"({"options": {)" + whole + R"(, "pixelSizeFactor": "one"}})", false},
      {"a simulator recording", R"({"hfov": 58.59, "mirrored": true})", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string rec = dir / c.name;
    cli_test::write_recording(rec, "empty-room", 1, 0, false, 160, 120);
    std::ofstream(rec + "/recording.json") << R"({"format": "qbt-camera-recording", "camera": )" << c.camera << "}";
    const auto input = quorvik::cli::open_depth_input(rec, std::nullopt);
    ASSERT_EQ(input->camera_options().has_value(), c.used);
    if (c.used) {
      EXPECT_EQ(input->camera_options()->zeroPlaneDistance, 120);
      EXPECT_FLOAT_EQ(input->camera_options()->zeroPlanePixelSize, 0.1042f);
      EXPECT_EQ(input->mirrored(), std::optional<bool>(false));
    }
  }
}

}  // namespace
