// `qbt track` and `qbt render` on a short simulated recording: the JSON Lines follow the
// schema in tools/cli/README.md and the pictures are written.

#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli_util.h"
#include "png_io.h"
#include "recording.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::vector<std::string> kJointOrder = {"Head",      "ShoulderSpine", "LeftShoulder", "LeftElbow",
                                              "LeftHand",  "RightShoulder", "RightElbow",   "RightHand",
                                              "MidSpine",  "BaseSpine",     "LeftHip",      "LeftKnee",
                                              "LeftFoot",  "RightHip",      "RightKnee",    "RightFoot"};

std::vector<json> parse_lines(const std::string& text) {
  std::vector<json> lines;
  for (const std::string& line : cli_test::lines_of(text)) {
    lines.push_back(json::parse(line, nullptr, false));
    EXPECT_FALSE(lines.back().is_discarded()) << "not JSON: " << line;
  }
  return lines;
}

// Checks one frame object against the documented schema; counts bodies with joints.
void check_schema(const json& f, int width, int height, int& bodiesWithJoints) {
  ASSERT_TRUE(f.is_object());
  EXPECT_EQ(f.size(), 3u) << "only frame, bodies and floor";
  ASSERT_TRUE(f["frame"].is_number_integer());
  ASSERT_TRUE(f["bodies"].is_array());
  std::set<int> ids;
  for (const json& b : f["bodies"]) {
    ASSERT_TRUE(b["id"].is_number_integer());
    const int id = b["id"].get<int>();
    EXPECT_GE(id, 1);
    EXPECT_LE(id, 255);
    EXPECT_TRUE(ids.insert(id).second) << "ids are unique within a frame";
    const std::string status = b["status"].get<std::string>();
    EXPECT_TRUE(status == "TrackingStarted" || status == "Tracking" || status == "TrackingLost") << status;
    ASSERT_TRUE(b["joints"].is_array());
    ASSERT_EQ(b["joints"].size(), 16u);
    int reported = 0;
    for (size_t k = 0; k < 16; ++k) {
      const json& j = b["joints"][k];
      EXPECT_EQ(j["type"].get<std::string>(), kJointOrder[k]) << "joints in joint type order";
      const std::string js = j["status"].get<std::string>();
      ASSERT_TRUE(js == "None" || js == "Low" || js == "High") << js;
      ASSERT_TRUE(j["depth"].is_array() && j["depth"].size() == 2);
      ASSERT_TRUE(j["world"].is_array() && j["world"].size() == 3);
      if (js == "None") continue;
      ++reported;
      // A joint may lie beyond the image's edge; it is still in front of the camera.
      const float u = j["depth"][0].get<float>(), v = j["depth"][1].get<float>();
      EXPECT_TRUE(std::isfinite(u) && std::isfinite(v));
      EXPECT_GT(u, -static_cast<float>(width));
      EXPECT_LT(v, 2.f * static_cast<float>(height));
      const float z = j["world"][2].get<float>();
      EXPECT_GT(z, 400.f) << "world z is the distance in millimetres";
      EXPECT_LT(z, 10000.f);
    }
    if (status == "TrackingLost") {
      EXPECT_EQ(reported, 0) << "a lost body has no joints";
    }
    bodiesWithJoints += reported > 0;
  }
  const json& floor = f["floor"];
  ASSERT_TRUE(floor["detected"].is_boolean());
  ASSERT_TRUE(floor["plane"].is_array());
  ASSERT_EQ(floor["plane"].size(), 4u);
  if (floor["detected"].get<bool>()) {
    const float nx = floor["plane"][0], ny = floor["plane"][1], nz = floor["plane"][2];
    EXPECT_NEAR(std::sqrt(nx * nx + ny * ny + nz * nz), 1.f, 1e-3f);
    EXPECT_GT(ny, 0.5f) << "the floor's normal points up";
  }
}

class TrackCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new cli_test::ScratchDir("track");
    cli_test::write_box_forest(*dir_ / "box.data");
    cli_test::write_recording(*dir_ / "rec", "walk-in", 45, 1, false);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static std::string path(const std::string& name) { return *dir_ / name; }
  static cli_test::ScratchDir* dir_;
};
cli_test::ScratchDir* TrackCommand::dir_ = nullptr;

TEST_F(TrackCommand, JsonLinesFollowTheSchemaAndPicturesAreWritten) {
  const cli_test::RunResult r = cli_test::run_qbt("track " + path("rec") + " --data " + path("box.data") + " --out " +
                                                  path("out.jsonl") + " --render " + path("pics"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(r.out.empty()) << "the library's log lines stay off standard output: " << r.out;
  const std::vector<json> frames = parse_lines(cli_test::slurp(path("out.jsonl")));
  ASSERT_EQ(frames.size(), 45u);
  int bodiesWithJoints = 0, floors = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(frames[i]["frame"].get<int>(), static_cast<int>(i));
    check_schema(frames[i], 320, 240, bodiesWithJoints);
    floors += frames[i]["floor"]["detected"].get<bool>();
  }
  EXPECT_GT(bodiesWithJoints, 5) << "the walker is tracked for a while";
  EXPECT_GT(floors, 0);

  for (int i : {0, 44}) {
    char name[32];
    std::snprintf(name, sizeof(name), "overlay_%06d.png", i);
    const quorvik::cli::PngHeader h = quorvik::cli::read_png_header((fs::path(path("pics")) / name).string());
    EXPECT_EQ(h.width, 320u);
    EXPECT_EQ(h.height, 240u);
    EXPECT_EQ(h.colourType, 2);
  }
  EXPECT_TRUE(fs::exists(fs::path(path("pics")) / "contact_sheet.png"));
  EXPECT_TRUE(fs::exists(fs::path(path("pics")) / "overlay.gif"));

  // The same output drawn again from the JSON alone, with a stand-in for ffmpeg that keeps
  // the raw frames it is given.
  fs::create_directories(path("bin"));
  {
    std::ofstream fake(path("bin") + "/ffmpeg");
    fake << "#!/bin/sh\nfor last; do :; done\ncat > \"$last\"\n";
  }
  fs::permissions(path("bin") + "/ffmpeg", fs::perms::owner_all);
  const cli_test::RunResult rr = cli_test::run_qbt("render " + path("rec") + " " + path("out.jsonl") + " --out " +
                                                   path("again"), "PATH=" + path("bin") + ":/usr/bin:/bin");
  ASSERT_EQ(rr.code, 0) << rr.err;
  EXPECT_EQ(fs::file_size(fs::path(path("again")) / "overlay.mp4"), 45u * 320 * 240 * 3);
  size_t pngs = 0;
  for (const auto& e : fs::directory_iterator(path("again"))) pngs += e.path().filename().string().rfind("overlay_", 0) == 0;
  EXPECT_EQ(pngs, 45u);
  EXPECT_TRUE(fs::exists(fs::path(path("again")) / "contact_sheet.png"));
  EXPECT_TRUE(fs::exists(fs::path(path("again")) / "overlay.gif"));
}

TEST_F(TrackCommand, RangeStdoutAndRawFramesAgree) {
  // Frames 10 to 19 to standard output: nothing but JSON there.
  const cli_test::RunResult png =
      cli_test::run_qbt("track " + path("rec") + " --data " + path("box.data") + " --first 10 --last 19");
  ASSERT_EQ(png.code, 0) << png.err;
  const std::vector<json> frames = parse_lines(png.out);
  ASSERT_EQ(frames.size(), 10u);
  EXPECT_EQ(png.out.rfind("{\"frame\":10,\"bodies\":", 0), 0u) << "keys in the documented order";
  for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i]["frame"].get<int>(), static_cast<int>(10 + i));

  // The same frames as one raw file give the same lines.
  const quorvik::sim::Recording rec = quorvik::sim::Recording::open(path("rec"));
  {
    std::ofstream raw(path("rec.u16"), std::ios::binary);
    quorvik::sim::Frame f;
    for (int i = 0; i < rec.frame_count(); ++i) {
      rec.read(i, f);
      raw.write(reinterpret_cast<const char*>(f.depth.data()), static_cast<std::streamsize>(f.depth.byte_size()));
    }
  }
  const cli_test::RunResult raw = cli_test::run_qbt("track " + path("rec.u16") + " --size 320x240 --no-mirrored --data " +
                                                    path("box.data") + " --first 10 --last 19");
  ASSERT_EQ(raw.code, 0) << raw.err;
  EXPECT_EQ(raw.out, png.out);
}

}  // namespace
