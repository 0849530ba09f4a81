// The tracker through the C interface only: data file start-up, synchronous and asynchronous
// updates, frame hand-out and release, and the failures a host can run into.

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "quorvik/body_tracking.h"
#include "support/proc_status.h"

namespace {

namespace fs = std::filesystem;

std::string last_text() {
  qbt_error_info_t info{};
  qbt_error_info(&info);
  return info.message;
}

// Writes data files in the library's chunk format, byte by byte.
class DataFile {
 public:
  DataFile& signature() {
    const unsigned char sig[8] = {0x88, 'Q', 'C', 'F', 0x0D, 0x0A, 0x1A, 0x0A};
    bytes_.insert(bytes_.end(), sig, sig + 8);
    return *this;
  }
  DataFile& chunk(const char* type, const std::vector<uint8_t>& body) {
    u32(static_cast<uint32_t>(body.size()));
    bytes_.insert(bytes_.end(), type, type + 4);
    bytes_.insert(bytes_.end(), body.begin(), body.end());
    u32(0);
    u32(0);
    return *this;
  }
  static std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> out;
    for (uint32_t v : values)
      for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return out;
  }
  // One tree of one leaf whose distribution gives `label` probability 1.
  static DataFile single_leaf(uint8_t label) {
    DataFile f;
    f.signature().chunk("QHDR", words({1})).chunk("oFFS", words({0, 0}));
    f.chunk("TREE", words({1, 1, 0}));
    f.chunk("NODE", words({0, 1, 0x80000000u, 0, 0}));
    std::vector<uint8_t> dist = words({1});
    dist.insert(dist.end(), {1, label, 0xFF, 0xFF});
    f.chunk("DIST", dist).chunk("QEOF", {});
    return f;
  }
  std::string write(const std::string& name) const {
    const std::string path = (fs::temp_directory_path() / (name + "-" + std::to_string(getpid()) + ".data")).string();
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes_.data()),
                                                static_cast<std::streamsize>(bytes_.size()));
    return path;
  }
  std::vector<uint8_t> bytes_;

 private:
  void u32(uint32_t v) {
    const auto w = words({v});
    bytes_.insert(bytes_.end(), w.begin(), w.end());
  }
};

class Tracker {
 public:
  explicit Tracker(const std::string& path) {
    qbt_bodytracker_options_t options;
    qbt_bodytracker_fill_default_options(&options);
    options.dataFilePath = path.c_str();
    EXPECT_EQ(qbt_bodytracker_create(&options, &handle), 0);
  }
  ~Tracker() {
    if (handle != nullptr) {
      EXPECT_EQ(qbt_bodytracker_destroy(&handle), 0);
    }
  }
  qbt_bodytracker_t handle = nullptr;
};

struct Depth {
  Depth(int w, int h, uint16_t value = 0) : pixels(static_cast<size_t>(w) * h, value), map{pixels.data(), w, h} {}
  std::vector<uint16_t> pixels;
  qbt_depthmap_t map;
};

const std::string& valid_file() {
  static const std::string path = DataFile::single_leaf(17).write("valid");
  return path;
}

TEST(TrackerStartup, DataFileFailuresAreReportedByEveryUpdate) {
  const std::string dir = fs::temp_directory_path().string();
  DataFile empty;
  DataFile noTree;
  noTree.signature().chunk("QHDR", DataFile::words({1})).chunk("QEOF", {});
  DataFile truncated = DataFile::single_leaf(17);
  truncated.bytes_.resize(truncated.bytes_.size() - 20);
  DataFile version2;
  version2.signature().chunk("QHDR", DataFile::words({2})).chunk("QEOF", {});
  DataFile random;
  uint32_t lcg = 12345;
  for (int i = 0; i < 4096; ++i) random.bytes_.push_back(static_cast<uint8_t>((lcg = lcg * 1664525u + 1013904223u) >> 24));
  struct Case {
    const char* label;
    std::string path;
    qbt_result_t code;
  } cases[] = {
      {"missing", dir + "/no-such-file.data", 3},
      {"directory", dir, 3},
      {"empty", empty.write("empty"), 2},
      {"no tree", noTree.write("notree"), 3},
      {"truncated", truncated.write("truncated"), 2},
      {"version 2", version2.write("version2"), 2},
      {"random", random.write("random"), 2},
      {"path of 5000 characters", dir + "/" + std::string(5000, 'q'), 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Tracker tracker(c.path);
    Depth depth(160, 120);
    for (int i = 0; i < 3; ++i) {
      qbt_bodyframe_t frame;
      EXPECT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &frame), c.code);
      EXPECT_FALSE(qbt_bodyframe_is_valid(frame));
      const std::string expected = c.code == 3 ? "bodytracker_update(): Data file not found. "
                                               : "bodytracker_update(): Data file not loaded: invalid format. ";
      EXPECT_EQ(last_text(), expected);
    }
    qbt_asyncbodyframe_t async;
    ASSERT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 0);
    qbt_bodyframe_t frame;
    EXPECT_EQ(qbt_asyncbodyframe_take_frame(async, &frame), c.code);
    EXPECT_EQ(last_text().rfind("qbt_asyncbodyframe_take_frame(): ", 0), 0u) << last_text();
  }
}

TEST(TrackerStartup, NullOptionsAndEmptyPathUseTheDefaultFile) {
  const fs::path cwd = fs::current_path();
  const fs::path dir = fs::temp_directory_path() / ("qbt-default-" + std::to_string(getpid()));
  fs::create_directories(dir);
  fs::current_path(dir);
  {
    qbt_bodytracker_t tracker = nullptr;
    ASSERT_EQ(qbt_bodytracker_create(nullptr, &tracker), 0);
    Depth depth(160, 120);
    qbt_bodyframe_t frame;
    EXPECT_EQ(qbt_bodytracker_update(tracker, &depth.map, &frame), 3) << "no file in this directory";
    qbt_bodytracker_destroy(&tracker);
  }
  fs::copy_file(valid_file(), dir / "QuorvikBodyTracking.data");
  {
    Tracker tracker("");
    Depth depth(160, 120);
    qbt_bodyframe_t frame;
    EXPECT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &frame), 0);
    EXPECT_EQ(qbt_bodyframe_release(&frame), 0);
  }
  fs::current_path(cwd);
  fs::remove_all(dir);
}

TEST(TrackerUpdate, FrameMustBeReleasedBeforeTheNextUpdate) {
  Tracker tracker(valid_file());
  Depth depth(320, 240);
  qbt_bodyframe_t frame;
  ASSERT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &frame), 0);
  ASSERT_TRUE(qbt_bodyframe_is_valid(frame));

  qbt_bodyframe_info_t info;
  ASSERT_EQ(qbt_bodyframe_info(frame, &info), 0);
  EXPECT_EQ(info.width, 320u);
  EXPECT_EQ(info.height, 240u);
  qbt_bodymask_t mask;
  ASSERT_EQ(qbt_bodyframe_bodymask(frame, &mask), 0);
  EXPECT_EQ(mask.width, 320);
  EXPECT_EQ(mask.height, 240);
  bool floorDetected = true;
  qbt_plane_t plane{1, 1, 1, 1};
  qbt_floormask_t floorMask;
  ASSERT_EQ(qbt_bodyframe_floor_info(frame, &floorDetected, &plane, &floorMask), 0);
  EXPECT_FALSE(floorDetected) << "an empty scene has no floor";
  EXPECT_EQ(plane.nx, 0.f);
  EXPECT_EQ(plane.d, 0.f);
  ASSERT_EQ(floorMask.width, 320);
  for (int i = 0; i < 320 * 240; ++i) ASSERT_EQ(floorMask.data[i], 0);
  qbt_bodylist_t list{reinterpret_cast<qbt_body_t*>(uintptr_t{8}), 9};
  ASSERT_EQ(qbt_bodyframe_body_list(frame, &list), 0);
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(list.bodies, nullptr);

  qbt_bodyframe_t second;
  EXPECT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &second), 1);
  EXPECT_EQ(last_text(), "bodytracker_update(): BodyFrame not released before calling update() or update_async(). ");
  qbt_asyncbodyframe_t async;
  EXPECT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 1);

  qbt_bodyframe_t copy = frame;
  EXPECT_EQ(qbt_bodyframe_release(&frame), 0);
  EXPECT_FALSE(qbt_bodyframe_is_valid(frame));
  EXPECT_EQ(qbt_bodyframe_release(&frame), 7) << "a released handle is invalid";
  EXPECT_EQ(qbt_bodyframe_release(&copy), 0) << "a stale copy only logs a warning";
  EXPECT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &second), 0);
  qbt_bodyframe_release(&second);
}

TEST(TrackerUpdate, BadSizesAreRefusedAndTheTrackerKeepsWorking) {
  Tracker tracker(valid_file());
  struct Size {
    int w, h;
  } sizes[] = {{320, 120},  {0, 0},           {160, 0},    {161, 120},         {-160, 120},
               {160, -120}, {480, 240},       {2720, 2040}, {INT32_MAX, INT32_MAX}, {INT32_MIN, INT32_MIN},
               {0, 1920},   {2560, 1921}};
  // The buffer is never larger than 2560x1920: a size the tracker refuses must not be read.
  Depth buffer(2560, 1920);
  for (const Size& s : sizes) {
    SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
    qbt_depthmap_t map{buffer.pixels.data(), s.w, s.h};
    qbt_bodyframe_t frame;
    EXPECT_EQ(qbt_bodytracker_update(tracker.handle, &map, &frame), 6);
    EXPECT_EQ(last_text(), "bodytracker_update(): Input depth map has an invalid size. Depth map size must be a "
                           "multiple of 160x120. ");
    // The asynchronous update refuses a size it cannot copy at once, any other when taken.
    qbt_asyncbodyframe_t async;
    qbt_result_t code = qbt_bodytracker_update_async(tracker.handle, &map, &async);
    if (code == 0) code = qbt_asyncbodyframe_take_frame(async, &frame);
    EXPECT_EQ(code, 6);
  }
  // Up to 2560x1920 any multiple is taken, and the masks come back at the input size.
  for (const Size& s : {Size{1280, 960}, Size{2560, 1920}, Size{160, 120}, Size{640, 480}}) {
    SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
    Depth depth(s.w, s.h, 2800);
    qbt_bodyframe_t frame;
    ASSERT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &frame), 0);
    qbt_bodymask_t mask;
    qbt_bodyframe_bodymask(frame, &mask);
    EXPECT_EQ(mask.width, s.w);
    EXPECT_EQ(mask.height, s.h);
    qbt_bodyframe_release(&frame);
  }
}

TEST(TrackerAsync, TakeReadyMismatchAndUnavailable) {
  Tracker tracker(valid_file());
  Tracker other(valid_file());
  Depth depth(160, 120);
  qbt_asyncbodyframe_t async;
  bool ready = true;

  qbt_asyncbodyframe_t never{tracker.handle, nullptr};
  EXPECT_EQ(qbt_asyncbodyframe_frame_ready(never, &ready), 4);
  EXPECT_EQ(last_text(), "qbt_asyncbodyframe_frame_ready(): AsyncBodyFrame does not match expected value. ");

  ASSERT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 0);
  ASSERT_TRUE(qbt_asyncbodyframe_is_valid(async));
  EXPECT_EQ(qbt_asyncbodyframe_frame_ready(async, &ready), 0);

  qbt_asyncbodyframe_t foreign{tracker.handle, nullptr};
  ASSERT_EQ(qbt_bodytracker_update_async(other.handle, &depth.map, &foreign), 0);
  qbt_asyncbodyframe_t crossed{tracker.handle, foreign.slot};
  qbt_bodyframe_t frame;
  EXPECT_EQ(qbt_asyncbodyframe_take_frame(crossed, &frame), 4);

  ASSERT_EQ(qbt_asyncbodyframe_take_frame(async, &frame), 0);
  EXPECT_TRUE(qbt_bodyframe_is_valid(frame));
  qbt_bodyframe_t again;
  EXPECT_EQ(qbt_asyncbodyframe_take_frame(async, &again), 5);
  EXPECT_EQ(last_text(), "qbt_asyncbodyframe_take_frame(): AsyncBodyFrame is not available or frame was already taken. ");
  EXPECT_EQ(qbt_asyncbodyframe_frame_ready(async, &ready), 5);

  // Taken but not released: the next update is refused until the release.
  EXPECT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 1);
  qbt_bodyframe_release(&frame);
  ASSERT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 0);
  // A second update before taking replaces the first result; the kept handle matches.
  qbt_asyncbodyframe_t newer;
  ASSERT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &newer), 0);
  EXPECT_EQ(newer.slot, async.slot);
  ASSERT_EQ(qbt_asyncbodyframe_take_frame(async, &frame), 0);
  qbt_bodyframe_release(&frame);

  ASSERT_EQ(qbt_asyncbodyframe_take_frame(foreign, &frame), 0);
  qbt_bodyframe_release(&frame);
}

TEST(TrackerFlags, MirroringOnlyTrueForByteOne) {
  Tracker tracker(valid_file());
  bool mirrored = false;
  ASSERT_EQ(qbt_bodytracker_is_depth_mirrored(tracker.handle, &mirrored), 0);
  EXPECT_TRUE(mirrored) << "mirrored by default";
  ASSERT_EQ(qbt_bodytracker_set_is_depth_mirrored(tracker.handle, false), 0);
  qbt_bodytracker_is_depth_mirrored(tracker.handle, &mirrored);
  EXPECT_FALSE(mirrored);
  // A host in another language may pass any byte; only 1 means true.
  auto raw = reinterpret_cast<qbt_result_t (*)(qbt_bodytracker_t, uint8_t)>(
      reinterpret_cast<void (*)()>(&qbt_bodytracker_set_is_depth_mirrored));
  ASSERT_EQ(raw(tracker.handle, 1), 0);
  qbt_bodytracker_is_depth_mirrored(tracker.handle, &mirrored);
  EXPECT_TRUE(mirrored);
  ASSERT_EQ(raw(tracker.handle, 2), 0);
  qbt_bodytracker_is_depth_mirrored(tracker.handle, &mirrored);
  EXPECT_FALSE(mirrored);
  EXPECT_EQ(qbt_bodytracker_reset(tracker.handle), 0);
}

TEST(TrackerLifetime, DestroyWaitsForARunningUpdate) {
  Depth depth(640, 480, 2500);
  qbt_asyncbodyframe_t async;
  Tracker tracker(valid_file());
  ASSERT_EQ(qbt_bodytracker_update_async(tracker.handle, &depth.map, &async), 0);
  ASSERT_EQ(qbt_bodytracker_destroy(&tracker.handle), 0);
  EXPECT_EQ(tracker.handle, nullptr);
  EXPECT_EQ(qbt_bodytracker_destroy(&tracker.handle), 7);

  // A host that never released its frame, or never took its result, loses nothing either.
  for (bool take : {true, false}) {
    SCOPED_TRACE(take ? "frame held" : "result not taken");
    Tracker other(valid_file());
    ASSERT_EQ(qbt_bodytracker_update_async(other.handle, &depth.map, &async), 0);
    qbt_bodyframe_t frame;
    if (take) {
      ASSERT_EQ(qbt_asyncbodyframe_take_frame(async, &frame), 0);
    }
    EXPECT_EQ(qbt_bodytracker_destroy(&other.handle), 0);
  }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// One arena, and every large block mapped on its own, so that the workers' allocations
// count against an address space limit instead of coming out of a heap reserved earlier.
void count_every_allocation() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
}

// Runs `call` with only `spareKiB` of address space beyond what is mapped now; returns its
// code and the error text it left.
template <typename Call>
std::pair<qbt_result_t, std::string> with_spare_address_space(long spareKiB, Call call) {
  const rlimit tight{static_cast<rlim_t>(status_kib("VmSize:") + spareKiB) * 1024, RLIM_INFINITY};
  const rlimit open{RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &tight);
  const qbt_result_t code = call();
  const std::string text = last_text();
  setrlimit(RLIMIT_AS, &open);
  return {code, text};
}

// The body tracker is built on the worker by the first update. With the address space
// nearly used up that build fails: the host gets 103 with the exception's text, and once
// memory is back the next update builds it and tracks.
void update_with_the_address_space_nearly_used_up() {
  count_every_allocation();
  Tracker tracker(valid_file());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the small file is read by now
  Depth depth(160, 120);
  qbt_bodyframe_t frame;
  const auto [failed, text] =
      with_spare_address_space(4096, [&] { return qbt_bodytracker_update(tracker.handle, &depth.map, &frame); });
  if (failed != 103 || text.rfind("qbt_bodytracker_update(): Internal unhandled exception: ", 0) != 0) {
    std::fprintf(stderr, "first update: %d %s\n", failed, text.c_str());
    _exit(1);
  }
  if (qbt_bodytracker_update(tracker.handle, &depth.map, &frame) != 0) _exit(2);
  if (qbt_bodyframe_release(&frame) != 0) _exit(3);
  if (qbt_bodytracker_destroy(&tracker.handle) != 0) _exit(4);
  _exit(0);
}

// The largest depth map, with memory for its copy but not for the masks: the update fails
// on the worker, half done. Once memory is back, updates of that size work.
void large_update_with_the_address_space_nearly_used_up() {
  count_every_allocation();
  Tracker tracker(valid_file());
  Depth small(160, 120, 2000);
  Depth large(2560, 1920, 2000);
  qbt_bodyframe_t frame;
  if (qbt_bodytracker_update(tracker.handle, &small.map, &frame) != 0) _exit(1);
  qbt_bodyframe_release(&frame);
  const auto [failed, text] =
      with_spare_address_space(11 * 1024, [&] { return qbt_bodytracker_update(tracker.handle, &large.map, &frame); });
  if (failed != 103 || text != "qbt_bodytracker_update(): Internal unhandled exception: std::bad_alloc") {
    std::fprintf(stderr, "first update: %d %s\n", failed, text.c_str());
    _exit(2);
  }
  for (int i = 0; i < 3; ++i) {
    if (qbt_bodytracker_update(tracker.handle, &large.map, &frame) != 0) _exit(3);
    qbt_bodymask_t mask;
    qbt_bodyframe_bodymask(frame, &mask);
    if (mask.width != 2560 || mask.height != 1920) _exit(4);
    qbt_bodyframe_release(&frame);
  }
  _exit(0);
}

// Without room for the workers' stacks the tracker cannot start: the host gets 103 and no
// handle, and can create one once memory is back.
void create_with_the_address_space_nearly_used_up() {
  count_every_allocation();
  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = valid_file().c_str();
  qbt_bodytracker_t tracker = nullptr;
  const auto [failed, text] = with_spare_address_space(1024, [&] { return qbt_bodytracker_create(&options, &tracker); });
  if (failed != 103 || tracker != nullptr ||
      text != "qbt_bodytracker_create(): Internal unhandled exception: Resource temporarily unavailable") {
    std::fprintf(stderr, "create: %d %s\n", failed, text.c_str());
    _exit(1);
  }
  if (qbt_bodytracker_create(&options, &tracker) != 0) _exit(2);
  Depth depth(160, 120);
  qbt_bodyframe_t frame;
  if (qbt_bodytracker_update(tracker, &depth.map, &frame) != 0) _exit(3);
  qbt_bodyframe_release(&frame);
  if (qbt_bodytracker_destroy(&tracker) != 0) _exit(4);
  _exit(0);
}

TEST(TrackerDeathTest, WhatFailsForWantOfMemoryIsReportedAndWorksOnceMemoryIsBack) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(create_with_the_address_space_nearly_used_up(), ::testing::ExitedWithCode(0), "") << "create";
  EXPECT_EXIT(update_with_the_address_space_nearly_used_up(), ::testing::ExitedWithCode(0), "") << "first update";
  EXPECT_EXIT(large_update_with_the_address_space_nearly_used_up(), ::testing::ExitedWithCode(0), "") << "large";
}
#endif

long resident_kib() { return status_kib("VmRSS:"); }

TEST(TrackerLifetime, ManyUpdatesDoNotGrowMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' allocators keep freed memory on purpose";
#endif
  Tracker tracker(valid_file());
  Depth depth(320, 240, 2000);
  auto run = [&](int n) {
    for (int i = 0; i < n; ++i) {
      qbt_bodyframe_t frame;
      ASSERT_EQ(qbt_bodytracker_update(tracker.handle, &depth.map, &frame), 0);
      ASSERT_EQ(qbt_bodyframe_release(&frame), 0);
    }
  };
  run(200);  // warm: every buffer has its size
  const long before = resident_kib();
  run(10000);
  const long after = resident_kib();
  // A leak of even 100 bytes per update would show as about 1 MB.
  EXPECT_LT(after - before, 1024) << before << " KiB -> " << after << " KiB";
}

}  // namespace
