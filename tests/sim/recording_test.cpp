#include "recording.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <unistd.h>

namespace quorvik::sim {
namespace {

namespace fs = std::filesystem;

class TempDir {
 public:
  TempDir() {
    static int count = 0;
    path_ = fs::temp_directory_path() /
            ("qbt_sim_test_" + std::to_string(::getpid()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" + std::to_string(count++));
    fs::remove_all(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  std::string str() const { return path_.string(); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

std::string bytes_of(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(Png, SixteenAndEightBitImagesRoundTrip) {
  TempDir dir;
  fs::create_directories(dir.str());
  Rng rng(1);
  for (auto [w, h] : {std::pair{1u, 1u}, std::pair{7u, 3u}, std::pair{160u, 120u}}) {
    SCOPED_TRACE(w);
    op::Image<uint16_t> depth(w, h);
    op::Image<uint8_t> labels(w, h);
    for (size_t i = 0; i < depth.size(); ++i) {
      depth[i] = static_cast<uint16_t>(rng.next());  // both bytes matter: catches byte order
      labels[i] = static_cast<uint8_t>(rng.next());
    }
    write_png16(dir.file("d.png"), depth);
    write_png8(dir.file("l.png"), labels);
    const auto d2 = read_png16(dir.file("d.png"));
    const auto l2 = read_png8(dir.file("l.png"));
    ASSERT_EQ(d2.width(), w);
    ASSERT_EQ(d2.height(), h);
    EXPECT_EQ(0, std::memcmp(d2.data(), depth.data(), depth.byte_size()));
    EXPECT_EQ(0, std::memcmp(l2.data(), labels.data(), labels.byte_size()));
  }
  // Wrong bit depth, missing and malformed files are errors.
  EXPECT_THROW(read_png16(dir.file("l.png")), std::runtime_error);
  EXPECT_THROW(read_png8(dir.file("d.png")), std::runtime_error);
  EXPECT_THROW(read_png8(dir.file("none.png")), std::runtime_error);
  std::ofstream(dir.file("bad.png")) << "not a png";
  EXPECT_THROW(read_png16(dir.file("bad.png")), std::runtime_error);
}

Scenario small_scenario(uint64_t seed, bool mirrored = false) {
  return Scenario::make(
      {.name = "crossing", .width = 160, .height = 120, .frames = 4, .seed = seed, .mirrored = mirrored});
}

void write_recording(const Scenario& sc, const std::string& dir, std::vector<Frame>* frames = nullptr) {
  Renderer r(sc);
  RecordingWriter w(dir, sc);
  Frame f;
  for (int i = 0; i < sc.frame_count(); ++i) {
    r.render(i, f);
    w.write(f);
    if (frames) frames->push_back(f);
  }
  w.finish();
}

TEST(Recording, WrittenFramesReadBackUnchanged) {
  TempDir dir;
  const Scenario sc = small_scenario(3, true);
  std::vector<Frame> written;
  write_recording(sc, dir.str(), &written);
  const Recording rec = Recording::open(dir.str());
  EXPECT_EQ(rec.frame_count(), 4);
  EXPECT_EQ(rec.options().name, "crossing");
  EXPECT_EQ(rec.options().seed, 3u);
  EXPECT_TRUE(rec.camera().mirrored);
  EXPECT_EQ(rec.camera().width, 160u);
  EXPECT_FLOAT_EQ(rec.camera().position.y, sc.camera().position.y);
  EXPECT_NEAR(rec.camera().pitch, sc.camera().pitch, 1e-6f);
  Frame f;
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    rec.read(i, f);
    const Frame& w = written[static_cast<size_t>(i)];
    EXPECT_EQ(f.index, i);
    EXPECT_EQ(0, std::memcmp(f.depth.data(), w.depth.data(), w.depth.byte_size()));
    EXPECT_EQ(0, std::memcmp(f.labels.data(), w.labels.data(), w.labels.byte_size()));
    EXPECT_EQ(0, std::memcmp(f.ids.data(), w.ids.data(), w.ids.byte_size()));
    EXPECT_EQ(f.floor, w.floor);
    ASSERT_EQ(f.people.size(), w.people.size());
    for (size_t p = 0; p < f.people.size(); ++p) {
      EXPECT_EQ(f.people[p].id, w.people[p].id);
      EXPECT_EQ(f.people[p].pixels, w.people[p].pixels);
      for (size_t j = 0; j < 16; ++j) {
        EXPECT_FLOAT_EQ(f.people[p].joints[j].camera.x, w.people[p].joints[j].camera.x);
        EXPECT_FLOAT_EQ(f.people[p].joints[j].camera.z, w.people[p].joints[j].camera.z);
        EXPECT_FLOAT_EQ(f.people[p].joints[j].v, w.people[p].joints[j].v);
        EXPECT_EQ(f.people[p].joints[j].inImage, w.people[p].joints[j].inImage);
      }
    }
  }
}

TEST(Recording, SameSeedGivesByteIdenticalFiles) {
  TempDir a, b, c;
  write_recording(small_scenario(5), a.str());
  write_recording(small_scenario(5), b.str());
  write_recording(small_scenario(6), c.str());
  for (const std::string& name : {std::string(kRecordingFile), frame_file("depth", 3), frame_file("labels", 2),
                                 frame_file("ids", 1)}) {
    SCOPED_TRACE(name);
    const std::string x = bytes_of(a.file(name));
    EXPECT_FALSE(x.empty());
    EXPECT_TRUE(x == bytes_of(b.file(name)));
  }
  EXPECT_FALSE(bytes_of(a.file(frame_file("depth", 3))) == bytes_of(c.file(frame_file("depth", 3))));
}

TEST(Recording, BrokenRecordingsAreRejected) {
  TempDir dir;
  EXPECT_THROW(Recording::open(dir.str()), std::runtime_error);
  write_recording(small_scenario(1), dir.str());
  const std::string json = bytes_of(dir.file(kRecordingFile));
  std::ofstream(dir.file(kRecordingFile), std::ios::trunc) << json.substr(0, json.size() / 2);
  EXPECT_THROW(Recording::open(dir.str()), std::runtime_error);
  std::ofstream(dir.file(kRecordingFile), std::ios::trunc) << R"({"format": "other", "version": 1})";
  EXPECT_THROW(Recording::open(dir.str()), std::runtime_error);
}

}  // namespace
}  // namespace quorvik::sim
