// Hand-offs through the thread pool as the classifier makes them: a set of tasks spread
// over every worker, which the waiting thread helps to finish. On a small machine the cost
// of waking the workers and the waiting thread, not the tasks, decides how fast a frame is
// classified; beside a busy host thread, whether a set waits for a worker that cannot run.

#include <benchmark/benchmark.h>

#include <chrono>

#include "eval/busy_threads.h"
#include "op/task_set.h"
#include "op/thread_pool.h"

namespace {

void busy_for(std::chrono::microseconds span) {
  const auto until = std::chrono::steady_clock::now() + span;
  while (std::chrono::steady_clock::now() < until) {
  }
}

void run_set(op::ThreadPool& pool, int tasks, std::chrono::microseconds work) {
  op::TaskSet set(pool);
  for (int t = 0; t < tasks; ++t) {
    set.submit(static_cast<uint64_t>(t) % pool.threadCount(), [work] { busy_for(work); });
  }
  set.wait(500, {});
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
// With none, one or two busy host threads beside the pool.
void BM_ClassificationLevel(benchmark::State& state) {
  op::ThreadPool pool;
  const quorvik::eval::BusyThreads busy(state.range(1));
  const auto tree_work = std::chrono::microseconds(state.range(0));
  for (auto _ : state) {
    run_set(pool, 2 * static_cast<int>(pool.threadCount()), tree_work);
    run_set(pool, static_cast<int>(pool.threadCount()), std::chrono::microseconds(10));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClassificationLevel)
    ->ArgsProduct({{20, 60}, {0, 1, 2}})
    ->ArgNames({"tree_us", "busy"})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace
