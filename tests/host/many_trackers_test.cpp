// Several trackers in one host process, the way a host with several cameras runs them: one
// host thread per tracker, and trackers created and destroyed over and over.

#include <malloc.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "quorvik/body_tracking.h"
#include "support/box_forest.h"
#include "support/sim_scene.h"

namespace {

namespace fs = std::filesystem;

qbt_bodytracker_t create_tracker() {
  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = box_forest::file().c_str();
  qbt_bodytracker_t tracker = nullptr;
  EXPECT_EQ(qbt_bodytracker_create(&options, &tracker), 0);
  return tracker;
}

// Everything a host reads back from a frame, folded into one number.
uint64_t digest(qbt_bodyframe_t frame) {
  uint64_t h = 1469598103934665603ull;
  auto mix = [&h](uint64_t v) { h = (h ^ v) * 1099511628211ull; };
  qbt_bodylist_t list{};
  if (qbt_bodyframe_body_list(frame, &list) != 0) return 0;
  mix(list.count);
  for (uint32_t i = 0; i < list.count; ++i) {
    const qbt_body_t& body = list.bodies[i];
    mix(body.id);
    mix(body.status);
    for (const qbt_joint_t& joint : body.joints) {
      mix(joint.status);
      mix(static_cast<uint64_t>(std::lround(joint.worldPosition.x)));
      mix(static_cast<uint64_t>(std::lround(joint.worldPosition.z)));
    }
  }
  qbt_bodymask_t mask{};
  if (qbt_bodyframe_bodymask(frame, &mask) != 0) return 0;
  for (int32_t i = 0; i < mask.width * mask.height; ++i) mix(mask.data[i]);
  return h;
}

// 500 frames of one person walking across the room and back.
const std::vector<std::vector<uint16_t>>& walk() {
  static const std::vector<std::vector<uint16_t>> frames = [] {
    sim_scene::Scene scene(1000.f, 5.f, 160, 120);
    scene.floor().wall(4500);
    const int walker = scene.add_person(-1500.f, 2800.f);
    std::vector<std::vector<uint16_t>> out;
    for (int i = 0; i < 500; ++i) {
      scene.walk_to(walker, -1500.f + 12.f * static_cast<float>(i < 250 ? i : 500 - i), 2800.f);
      out.push_back(scene.render());
    }
    return out;
  }();
  return frames;
}

// Tracks the walk and puts each frame's digest in `out`. The tracker is driven
// synchronously, asynchronously with polling, or asynchronously with a blocking take, in a
// pattern that differs between threads.
void walk_through(int pattern, std::vector<uint64_t>& out, int& failures) {
  qbt_bodytracker_t tracker = create_tracker();
  for (int i = 0; i < 500; ++i) {
    const qbt_depthmap_t map{walk()[size_t(i)].data(), 160, 120};
    qbt_bodyframe_t frame{};
    qbt_result_t code;
    switch ((i + pattern) % 3) {
      case 0:
        code = qbt_bodytracker_update(tracker, &map, &frame);
        break;
      case 1: {
        qbt_asyncbodyframe_t async{};
        code = qbt_bodytracker_update_async(tracker, &map, &async);
        bool ready = false;
        while (code == 0 && !ready) {
          code = qbt_asyncbodyframe_frame_ready(async, &ready);
          // A host does other work meanwhile; spinning would take the workers' processors.
          if (!ready) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (code == 0) code = qbt_asyncbodyframe_take_frame(async, &frame);
        break;
      }
      default: {
        qbt_asyncbodyframe_t async{};
        code = qbt_bodytracker_update_async(tracker, &map, &async);
        if (code == 0) code = qbt_asyncbodyframe_take_frame(async, &frame);
        break;
      }
    }
    if (code != 0) ++failures;
    out.push_back(code == 0 ? digest(frame) : 0);
    if (code == 0 && qbt_bodyframe_release(&frame) != 0) ++failures;
  }
  if (qbt_bodytracker_destroy(&tracker) != 0) ++failures;
}

// The same input gives the same output whatever the other trackers do at the same time: no
// state is shared between trackers, and none races between a host thread and its workers
// (ThreadSanitizer runs this too).
TEST(ManyTrackers, FourTrackersInFourThreadsDoNotDisturbEachOther) {
  constexpr int kThreads = 4;
  std::vector<std::vector<uint64_t>> digests(kThreads);
  std::vector<int> failures(kThreads, 0);
  walk();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { walk_through(t, digests[t], failures[t]); });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(failures[t], 0);
    ASSERT_EQ(digests[t].size(), 500u);
    for (size_t i = 0; i < digests[t].size(); ++i) ASSERT_EQ(digests[t][i], digests[0][i]) << "frame " << i;
  }
}

size_t thread_count() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) ++n;
  return n;
}

// Bytes the allocator has handed out and not had back, in every arena. Unlike the resident
// size this does not move when the allocator keeps freed memory for later.
size_t allocated_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A host that opens and closes cameras all day: every tracker takes its threads and its
// memory with it.
TEST(ManyTrackers, TwoHundredTrackersInARowLeaveNoThreadsOrMemory) {
  sim_scene::Scene scene(1000.f, 5.f, 320, 240);
  scene.floor().wall(4500);
  scene.add_person(0.f, 2800.f);
  const std::vector<uint16_t> depth = scene.render();
  const qbt_depthmap_t map{depth.data(), scene.width(), scene.height()};
  auto cycle = [&] {
    qbt_bodytracker_t tracker = create_tracker();
    qbt_bodyframe_t frame{};
    ASSERT_EQ(qbt_bodytracker_update(tracker, &map, &frame), 0);
    ASSERT_EQ(qbt_bodyframe_release(&frame), 0);
    ASSERT_EQ(qbt_bodytracker_destroy(&tracker), 0);
  };
  for (int i = 0; i < 10; ++i) cycle();  // the process's own one-time allocations
  const size_t threadsBefore = thread_count();
  const size_t bytesBefore = allocated_bytes();
  for (int i = 0; i < 200; ++i) cycle();
  EXPECT_EQ(thread_count(), threadsBefore);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A tracker holds about 20 MB; a leak of 100 bytes per cycle would show.
  EXPECT_LT(allocated_bytes(), bytesBefore + 20000) << bytesBefore << " bytes before";
#else
  (void)bytesBefore;  // the sanitizers bring their own allocator, and find leaks themselves
#endif
}

}  // namespace
