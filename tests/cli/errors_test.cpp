// Every way a run can fail says what is wrong and ends with its documented exit code.

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "cli_util.h"
#include "op/image.h"
#include "recording.h"

namespace {

namespace fs = std::filesystem;

void write_frames(const std::string& dir, uint32_t w, uint32_t h, int count, const std::string& prefix = "depth_") {
  fs::create_directories(dir);
  op::Image<uint16_t> img(w, h);
  img.fill(2000);
  for (int i = 0; i < count; ++i) {
    char name[64];
    std::snprintf(name, sizeof(name), "%s%06d.png", prefix.c_str(), i);
    quorvik::sim::write_png16((fs::path(dir) / name).string(), img);
  }
}

class Errors : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new cli_test::ScratchDir("errors");
    cli_test::write_box_forest(*dir_ / "box.data");
    write_frames(*dir_ / "good", 160, 120, 3);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static std::string path(const std::string& name) { return *dir_ / name; }
  static cli_test::ScratchDir* dir_;

  void expect_failure(const std::string& args, int code, const std::vector<std::string>& phrases) {
    SCOPED_TRACE(args);
    const cli_test::RunResult r = cli_test::run_qbt(args);
    EXPECT_EQ(r.code, code) << r.err;
    for (const std::string& p : phrases) EXPECT_NE(r.err.find(p), std::string::npos) << "missing '" << p << "' in: " << r.err;
  }
};
cli_test::ScratchDir* Errors::dir_ = nullptr;

TEST_F(Errors, RecordingsThatCannotBeTracked) {
  const std::string data = " --data " + path("box.data");
  expect_failure("track " + path("missing") + data, 2, {"no such file or folder", "--size"});
  fs::create_directories(path("empty"));
  expect_failure("track " + path("empty") + data, 2, {"no PNG files"});

  fs::create_directories(path("eight"));
  op::Image<uint8_t> grey(160, 120);
  grey.fill(90);
  quorvik::sim::write_png8(path("eight") + "/depth_000000.png", grey);
  expect_failure("track " + path("eight") + data, 2, {"8-bit", "16-bit greyscale"});

  fs::create_directories(path("notpng"));
  std::ofstream(path("notpng") + "/frame.png") << "hello";
  expect_failure("track " + path("notpng") + data, 2, {"not a PNG"});

  // A header that reads well over pixel data cut short: found while tracking.
  write_frames(path("cut"), 160, 120, 2);
  fs::resize_file(path("cut") + "/depth_000001.png", 60);
  expect_failure("track " + path("cut") + data, 2, {"cannot decode", "depth_000001.png"});

  write_frames(path("mixed"), 320, 240, 2);
  write_frames(path("mixed"), 640, 480, 1, "depth_1");
  expect_failure("track " + path("mixed") + data, 2, {"mixed frame sizes", "320x240", "640x480"});

  // A size the library refuses: our advice and the library's own message.
  write_frames(path("odd"), 100, 100, 2);
  expect_failure("track " + path("odd") + data, 2,
                 {"100x100", "multiple of 160x120", "The library says", "Input depth map has an invalid size"});

  {
    std::ofstream raw(path("short.u16"), std::ios::binary);
    raw << std::string(1000, '\0');
  }
  expect_failure("track " + path("short.u16") + " --size 160x120" + data, 2, {"not a whole number", "--size"});
  expect_failure("track " + path("short.u16") + data, 1, {"--size"});
  expect_failure("track " + path("short.u16") + " --size 160by120" + data, 1, {"WIDTHxHEIGHT"});
  expect_failure("track " + path("good") + " --first 2 --last 5" + data, 1, {"frames 2 to 5", "0 to 2"});
  expect_failure("track " + path("good") + " --mirrored --no-mirrored" + data, 1, {"excludes"});
}

TEST_F(Errors, DataFiles) {
  {
    std::ofstream bad(path("bad.data"), std::ios::binary);
    bad << "this is not a forest at all, just some text that goes on";
  }
  expect_failure("track " + path("good") + " --data " + path("bad.data"), 3,
                 {"cannot be loaded", "qbt info", "Data file not loaded: invalid format"});
  expect_failure("track " + path("good") + " --data " + path("nothing.data"), 3, {"data file not found", "--data"});
  expect_failure("demo --frames 2 --out " + path("demo") + " --data " + path("bad.data"), 3, {"cannot be loaded"});
  expect_failure("info " + path("bad.data"), 3, {"not a valid data file", "bad signature"});
  expect_failure("info " + path("nothing.data"), 3, {"cannot open"});

  // A forest cut short in the middle of its nodes.
  std::ifstream whole(path("box.data"), std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(whole)), std::istreambuf_iterator<char>());
  std::ofstream(path("cut.data"), std::ios::binary) << bytes.substr(0, bytes.size() * 2 / 3);
  expect_failure("info " + path("cut.data"), 3, {"not a valid data file"});
}

TEST_F(Errors, RenderInputs) {
  std::ofstream(path("junk.jsonl")) << "{\"frame\": 0, \"bodies\": []}\nnot json\n";
  expect_failure("render " + path("good") + " " + path("junk.jsonl") + " --out " + path("r1"), 2,
                 {"line 1", "missing \"floor\""});
  std::ofstream(path("far.jsonl")) << R"({"frame": 7, "bodies": [], "floor": {"detected": false, "plane": [0,0,0,0]}})"
                                   << "\n";
  expect_failure("render " + path("good") + " " + path("far.jsonl") + " --out " + path("r2"), 2,
                 {"frame 7", "0 to 2", "recording that was tracked"});
  expect_failure("render " + path("good") + " " + path("none.jsonl") + " --out " + path("r3"), 2, {"cannot read"});
  expect_failure("render " + path("good"), 1, {});
  expect_failure("frobnicate", 1, {});
}

}  // namespace
