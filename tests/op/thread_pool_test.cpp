#include "op/task_set.h"
#include "op/thread_pool.h"

#include <atomic>
#include <chrono>
#include <latch>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "support/proc_status.h"

namespace op {
namespace {

// Blocks a worker until released, so that its queue fills up behind it.
struct Gate {
  std::latch entered{1}, opened{1};
  void enter() {
    entered.count_down();
    opened.wait();
  }
};

TEST(ThreadPool, HoldsNineQueuedActionsAndRefusesTheTenth) {
  ThreadPool pool(1);
  Gate gate;
  auto busy = pool.submit(0, [&] { gate.enter(); });
  ASSERT_TRUE(busy.is_ok());
  gate.entered.wait();
  std::vector<ActionFuture<int>> futures;
  for (int i = 0; i < 9; ++i) {
    auto r = pool.submit(0, [i] { return i; });
    ASSERT_TRUE(r.is_ok()) << i;
    futures.push_back(r.unwrap());
  }
  auto tenth = pool.submit(0, [] { return 10; });
  ASSERT_TRUE(tenth.is_error());
  EXPECT_EQ(*tenth.error(), SubmitError::QueueFull);

  auto group = std::make_shared<ActionGroupState>();
  auto grouped = pool.submit(0, [] {}, group);
  ASSERT_TRUE(grouped.is_error());
  EXPECT_FALSE(group->wait_for(60000)) << "the refused action cancels its group";

  gate.opened.count_down();
  for (int i = 0; i < 9; ++i) EXPECT_EQ(futures[i].get(), i);
}

TEST(ThreadPool, OneWorkerRunsInSubmissionOrder) {
  ThreadPool pool(1);
  std::vector<int> order;
  auto group = std::make_shared<ActionGroupState>();
  for (int i = 0; i < 40; ++i) {
    // The waiting form never drops a task, however far ahead the submitter runs.
    ASSERT_TRUE(pool.submit_waiting(0, [&order, i] { order.push_back(i); }, group).is_ok());
  }
  ASSERT_TRUE(group->wait_for(60000));
  ASSERT_EQ(order.size(), 40u);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(order[i], i);
}

TEST(ThreadPool, EveryWorkerTakesItsOwnQueue) {
  ThreadPool pool(3);
  EXPECT_EQ(pool.threadCount(), 3u);
  std::vector<std::thread::id> ids(3);
  auto group = std::make_shared<ActionGroupState>();
  for (uint64_t w = 0; w < 3; ++w) ASSERT_TRUE(pool.submit(w, [&ids, w] { ids[w] = std::this_thread::get_id(); }, group).is_ok());
  ASSERT_TRUE(group->wait_for(60000));
  EXPECT_NE(ids[0], ids[1]);
  EXPECT_NE(ids[1], ids[2]);
  EXPECT_NE(ids[0], ids[2]);
  auto bad = pool.submit(3, [] {});
  ASSERT_TRUE(bad.is_error());
  EXPECT_EQ(*bad.error(), SubmitError::NoSuchWorker);
}

TEST(ThreadPool, TerminateAbandonsQueuedWorkAndReportsIt) {
  testing::internal::CaptureStdout();
  std::vector<ActionFuture<int>> queued;
  std::atomic<bool> finished{false};
  {
    ThreadPool pool(1);
    Gate gate;
    ASSERT_TRUE(pool.submit(0, [&] { gate.enter(); finished = true; }).is_ok());
    gate.entered.wait();
    for (int i = 0; i < 3; ++i) queued.push_back(pool.submit(0, [i] { return i; }).unwrap());
    // Tasks of a set that the calling thread ran itself are left in the queue, but as
    // nothing: they are not reported.
    int ranByCaller = 0;
    TaskSet set(pool);
    for (int i = 0; i < 2; ++i) set.submit(0, [&] { ++ranByCaller; });
    set.wait(0, {});
    EXPECT_EQ(ranByCaller, 2);
    std::thread opener([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      gate.opened.count_down();
    });
    pool.terminate();  // waits for the running action
    opener.join();
    EXPECT_TRUE(finished.load());
    pool.terminate();  // a second call does nothing
    auto late = pool.submit(0, [] { return 1; });
    ASSERT_TRUE(late.is_error());
    EXPECT_EQ(*late.error(), SubmitError::Terminated);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ThreadPool terminate with       3 tasks remaining\n");
  for (auto& f : queued) EXPECT_FALSE(f.wait()) << "queued actions never run";
}

TEST(ThreadPool, IdleDestructionIsQuietAndDoesNotHang) {
  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  { ThreadPool pool(4); }
  // Workers look at the stop flag every 100 ms; a generous bound only catches a hang.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_GE(ThreadPool::default_thread_count(), 1u);
}

TEST(ThreadPool, AThrowingActionDoesNotKillItsWorker) {
  ThreadPool pool(1);
  auto bad = pool.submit(0, []() -> int { throw std::runtime_error("boom"); }).unwrap();
  auto good = pool.submit(0, [] { return 2; }).unwrap();
  EXPECT_THROW(bad.get(), std::runtime_error);
  EXPECT_EQ(good.get(), 2);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// With room for a few thread stacks only, the system refuses the rest: the pool must give
// back the error, not end the process with threads it could no longer join.
void start_more_threads_than_fit() {
  const rlimit limit{rlim_t(status_kib("VmSize:")) * 1024 + (48u << 20), RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &limit);
  try {
    ThreadPool pool(64);
  } catch (const std::system_error&) {
    _exit(0);
  }
  _exit(1);
}

TEST(ThreadPoolDeathTest, ThreadsTheSystemRefusesAreAnErrorNotAnAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(start_more_threads_than_fit(), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
}  // namespace op
