#include "op/task_set.h"

#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace op {
namespace {

// Every task runs once, on whichever thread got to it first (a kept task on the caller),
// and the first failure reaches the waiter only after the other tasks are done.
TEST(TaskSet, RunsEveryTaskOnceAndRaisesTheFirstFailureLast) {
  ThreadPool pool(2);
  std::atomic<int> runs[12] = {};
  TaskSet set(pool);
  std::thread::id keptOn;
  set.keep([&keptOn] { keptOn = std::this_thread::get_id(); });
  for (int t = 0; t < 12; ++t) {
    set.submit(static_cast<uint64_t>(t) % 2, [&runs, t] {
      runs[t].fetch_add(1);
      if (t == 5) throw std::runtime_error("task 5");
    });
  }
  EXPECT_THROW(set.wait(500, {}), std::runtime_error);
  for (int t = 0; t < 12; ++t) EXPECT_EQ(runs[t].load(), 1) << t;
  EXPECT_EQ(keptOn, std::this_thread::get_id());
}

// Workers that keep finishing long after the caller send the next sets to the caller alone,
// for a while; then the workers are offered sets again.
TEST(TaskSet, LateWorkersAreLeftOutForAWhile) {
  HelpGauge gauge;
  using std::chrono::microseconds;
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(gauge.offer_to_workers());
    gauge.record(microseconds(100), microseconds(5000));
  }
  gauge.record(microseconds(100), microseconds(100));  // an ordinary set starts the count again
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(gauge.offer_to_workers());
    gauge.record(microseconds(100), microseconds(5000));
  }
  int callerOnly = 0;
  while (!gauge.offer_to_workers()) ++callerOnly;
  EXPECT_GT(callerOnly, 100);

  // A set the workers are not offered never reaches them, even when one of them is free.
  ThreadPool pool(1);
  HelpGauge late;
  for (int i = 0; i < 3; ++i) late.record(microseconds(0), microseconds(5000));
  TaskSet set(pool, &late);
  const auto caller = std::this_thread::get_id();
  std::thread::id ranOn;
  set.submit(0, [&] { ranOn = std::this_thread::get_id(); });
  set.wait(500, {});
  EXPECT_EQ(ranOn, caller);
}

}  // namespace
}  // namespace op
