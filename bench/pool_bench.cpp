// Hand-offs through the thread pool as the classifier makes them: a set of tasks spread
// over every worker, waited for as a group. On a small machine the cost of waking the
// workers and the waiting thread, not the tasks, decides how fast a frame is classified.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "op/thread_pool.h"

namespace {

void busy_for(std::chrono::microseconds span) {
  const auto until = std::chrono::steady_clock::now() + span;
  while (std::chrono::steady_clock::now() < until) {
  }
}

void run_set(op::ThreadPool& pool, int tasks, std::chrono::microseconds work) {
  auto group = std::make_shared<op::ActionGroupState>();
  for (int t = 0; t < tasks; ++t) {
    (void)pool.submit_waiting(static_cast<uint64_t>(t) % pool.threadCount(), [work] { busy_for(work); },
                              group);
  }
  while (!group->wait_for(500)) {
  }
}

// Empty tasks, one per worker: the bare cost of one set.
void BM_EmptyTaskSet(benchmark::State& state) {
  op::ThreadPool pool;
  for (auto _ : state) run_set(pool, static_cast<int>(pool.threadCount()), std::chrono::microseconds(0));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EmptyTaskSet)->Unit(benchmark::kMicrosecond)->UseRealTime();

// One classification level: a tree task per tree (two per worker) of the given length,
// then a short combining task per worker. Wall time above 2 x length + 10 us is hand-off.
// With the workers spread over the processors, as the tracker's are, or left to the
// scheduler.
void BM_ClassificationLevel(benchmark::State& state) {
  op::ThreadPool pool;
  if (state.range(1) != 0) pool.spread_over_processors();
  const auto tree_work = std::chrono::microseconds(state.range(0));
  for (auto _ : state) {
    run_set(pool, 2 * static_cast<int>(pool.threadCount()), tree_work);
    run_set(pool, static_cast<int>(pool.threadCount()), std::chrono::microseconds(10));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClassificationLevel)
    ->ArgsProduct({{20, 60}, {0, 1}})
    ->ArgNames({"tree_us", "spread"})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace
