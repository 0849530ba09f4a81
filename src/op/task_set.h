#pragma once
// A set of short tasks spread over the workers of a pool, which the submitting thread helps
// to finish: wait() runs every task that no worker has started yet, then waits for the
// started ones. A worker that cannot run (its processor busy with a host thread, or the
// process confined to one processor) therefore never holds up a task it has not started.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include "op/thread_pool.h"

namespace op {

// Whether a caller's sets should be offered to the workers at all. A worker that has
// started a task and then loses its processor to another thread can still hold a set up
// for a whole scheduling period; when that keeps happening the sets run on the calling
// thread alone for a while, and then the workers are tried again.
class HelpGauge {
 public:
  bool offer_to_workers();
  // `own`: the calling thread's work on the set; `waited`: its wait for the workers after.
  void record(std::chrono::nanoseconds own, std::chrono::nanoseconds waited);

 private:
  uint32_t lateSets_ = 0;
  uint32_t callerOnlySetsLeft_ = 0;
};

class TaskSet {
 public:
  explicit TaskSet(ThreadPool& pool, HelpGauge* gauge = nullptr);
  ~TaskSet();
  TaskSet(const TaskSet&) = delete;
  TaskSet& operator=(const TaskSet&) = delete;

  // Offers `fn` to `worker`. A task whose queue is full, or that the pool refuses, stays
  // for wait() to run.
  void submit(uint64_t worker, std::function<void()> fn);
  // A task for the calling thread alone: offered to no worker, run first by wait().
  void keep(std::function<void()> fn);

  // Returns once every task has run. `on_slow` is called each time another `slow_ms` pass
  // while a worker still has a task of the set. The first exception a task raised is
  // raised again here, after every task has finished.
  void wait(int64_t slow_ms, const std::function<void()>& on_slow);

 private:
  struct Task {
    explicit Task(std::function<void()> f) : fn(std::move(f)) {}
    std::function<void()> fn;
    std::atomic<bool> claimed{false};
    bool offered = false;  // queued at a worker
  };
  // Shared with the queued actions: a worker may reach a task's action after the caller
  // ran the task itself and returned, and must still find the flag it tests.
  struct State {
    std::deque<Task> tasks;
    std::atomic<uint32_t> unfinished{0};
    std::mutex mutex;
    std::condition_variable finished;
    std::exception_ptr failure;
    void run(Task& task);
  };

  // A task as a worker's queue holds it; once the caller has run the task itself it is
  // left behind in the queue and counts as nothing queued.
  struct Offer {
    std::shared_ptr<State> state;
    Task* task;
    void operator()() const {
      if (!task->claimed.exchange(true, std::memory_order_acq_rel)) state->run(*task);
    }
    bool obsolete() const { return task->claimed.load(std::memory_order_acquire); }
  };

  ThreadPool& pool_;
  HelpGauge* gauge_;
  bool offered_;
  std::shared_ptr<State> state_;
  bool waited_ = true;
};

}  // namespace op
