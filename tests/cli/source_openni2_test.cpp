// OpenNI2: the shared 12-frame recording of a real camera, read by `qbt track` and played
// by `qbt live --source`, gives the depth OpenNI2 itself gives, the camera options its
// stream reports, and no body; without a camera, `qbt live` says what it looked for.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli_util.h"
#include "depth_input.h"

#ifdef QBT_CLI_WITH_OPENNI2
#include <OpenNI.h>
#endif

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kRoom = QBT_SOURCE_DIR "/../shared/data/room-12-frames.oni";

#ifdef QBT_CLI_WITH_OPENNI2
// The frames as OpenNI2 delivers them, read here without qbt.
std::vector<std::vector<uint16_t>> frames_from_openni(const std::string& path) {
  std::vector<std::vector<uint16_t>> frames;
  EXPECT_EQ(openni::OpenNI::initialize(), openni::STATUS_OK);
  {
    openni::Device device;
    openni::VideoStream stream;
    EXPECT_EQ(device.open(path.c_str()), openni::STATUS_OK);
    EXPECT_EQ(stream.create(device, openni::SENSOR_DEPTH), openni::STATUS_OK);
    device.getPlaybackControl()->setSpeed(-1.0f);
    device.getPlaybackControl()->setRepeatEnabled(false);
    const int count = device.getPlaybackControl()->getNumberOfFrames(stream);
    stream.start();
    openni::VideoFrameRef frame;
    for (int i = 0; i < count && stream.readFrame(&frame) == openni::STATUS_OK; ++i) {
      const auto* p = static_cast<const uint16_t*>(frame.getData());
      frames.emplace_back(p, p + frame.getWidth() * frame.getHeight());
    }
    stream.stop();
    stream.destroy();
    device.close();
  }
  // Not shut down, as qbt does not: the drivers stay loaded, so a leak check can tell their
  // own allocations (suppressed in cli_util.cpp) from this program's.
  return frames;
}
#endif

class OpenNi2Source : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef QBT_CLI_WITH_OPENNI2
    GTEST_SKIP() << "built without OpenNI2";
#endif
    if (!fs::exists(kRoom)) GTEST_SKIP() << kRoom << " is not there";
  }
};

TEST_F(OpenNi2Source, TrackAndLiveReadTheRecordingsFramesAndFindNoBody) {
#ifdef QBT_CLI_WITH_OPENNI2
  cli_test::ScratchDir dir("openni2");
  const std::vector<std::vector<uint16_t>> truth = frames_from_openni(kRoom);
  ASSERT_EQ(truth.size(), 12u);
  ASSERT_EQ(truth[0].size(), 640u * 480u);

  const cli_test::RunResult track = cli_test::run_qbt("track " + kRoom);
  ASSERT_EQ(track.code, 0) << track.err;
  const std::vector<std::string> trackLines = cli_test::lines_of(track.out);
  ASSERT_EQ(trackLines.size(), 12u);
  for (size_t i = 0; i < trackLines.size(); ++i) {
    SCOPED_TRACE(i);
    const json j = json::parse(trackLines[i]);
    EXPECT_EQ(j["frame"].get<size_t>(), i);
    EXPECT_TRUE(j["bodies"].empty()) << "a room with furniture and no person";
  }

  const cli_test::RunResult live =
      cli_test::run_qbt("live --source " + kRoom + " --no-window --record " + dir / "rec" + " --out " + dir / "live.jsonl");
  ASSERT_EQ(live.code, 0) << live.err;
  EXPECT_NE(live.err.find("12 frames read"), std::string::npos) << live.err;
  EXPECT_NE(live.err.find("the recording ended"), std::string::npos) << live.err;
  // The stream's own constants replace the defaults, and the user is shown which.
  for (const char* used : {"zeroPlaneDistance     120        (device)", "zeroPlanePixelSize    0.1042     (device)",
                           "horizontalFov         58.12", "minDepth              0          (default)"})
    EXPECT_NE(live.err.find(used), std::string::npos) << used << " in " << live.err;

  std::ifstream metaFile(dir / "rec/recording.json");
  const json meta = json::parse(metaFile);
  EXPECT_EQ(meta["camera"]["options"]["zeroPlaneDistance"].get<int>(), 120);
  EXPECT_TRUE(meta["camera"]["mirrored"].get<bool>()) << "the recording's mirroring flag is on";
  const std::vector<std::vector<uint16_t>> recorded = cli_test::read_recorded_frames(dir / "rec");
  ASSERT_EQ(recorded.size(), meta["frames"].size());
  ASSERT_GE(recorded.size(), 1u);
  for (size_t i = 0; i < recorded.size(); ++i) {
    SCOPED_TRACE(i);
    const size_t number = meta["frames"][i]["source_frame"].get<size_t>();
    ASSERT_LT(number, truth.size());
    EXPECT_EQ(recorded[i], truth[number]) << "the values OpenNI2 gives";
  }
  const std::string liveText = cli_test::slurp(dir / "live.jsonl");
  for (const std::string& line : cli_test::lines_of(liveText)) EXPECT_TRUE(json::parse(line)["bodies"].empty());

  // The recording, with the camera options stored in it, tracks the same again.
  const cli_test::RunResult again = cli_test::run_qbt("track " + dir / "rec");
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_EQ(again.out, liveText);
#endif
}

TEST_F(OpenNi2Source, FramesAreReadInAnyOrder) {
#ifdef QBT_CLI_WITH_OPENNI2
  const std::vector<std::vector<uint16_t>> truth = frames_from_openni(kRoom);
  ASSERT_EQ(truth.size(), 12u);
  const std::unique_ptr<quorvik::cli::DepthInput> input = quorvik::cli::open_depth_input(kRoom, std::nullopt);
  ASSERT_EQ(input->frame_count(), 12);
  EXPECT_EQ(input->size().width, 640u);
  ASSERT_TRUE(input->camera_options().has_value());
  EXPECT_NEAR(input->camera_options()->horizontalFov, 58.12f, 0.01f);
  for (int i : {0, 1, 5, 11, 2, 2, 7}) {
    SCOPED_TRACE(i);
    EXPECT_EQ(input->read(i), truth[static_cast<size_t>(i)]);
  }
#endif
}

// Needs no driver at all: whatever this build has, it says what it looked for.
TEST(LiveWithoutCamera, SaysWhichSourcesWereBuiltAndThatNoneAnswered) {
  struct Case {
    std::string source;
    std::vector<std::string> phrases;
  };
  std::vector<Case> cases = {{"", {"no depth camera found", "sources built: PNG folders"}}};
#ifdef QBT_CLI_WITH_OPENNI2
  cases.push_back({"--source openni2", {"no depth camera found", "OpenNI2: no device connected"}});
#endif
#ifdef QBT_CLI_WITH_FREENECT
  cases.push_back({"--source freenect", {"no depth camera found", "libfreenect devices", "libfreenect: "}});
#endif
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    const cli_test::RunResult r = cli_test::run_qbt("live --no-window " + c.source);
    EXPECT_EQ(r.code, 6) << r.err;
    for (const std::string& p : c.phrases) EXPECT_NE(r.err.find(p), std::string::npos) << p << " in " << r.err;
  }
  const cli_test::RunResult bad = cli_test::run_qbt("live --no-window --source kinect");
  EXPECT_EQ(bad.code, 1) << bad.err;
}

}  // namespace
