#pragma once
// Fixed set of workers, each with its own small bounded queue. The caller picks the worker;
// there is no shared queue and no work stealing, so the actions of one queue run one at a
// time in submission order.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "op/action.h"
#include "op/result.h"
#include "op/spin_wait.h"

namespace op {

enum class SubmitError : uint32_t {
  QueueFull = 0,
  Terminated = 1,
  NoSuchWorker = 2,
};

class TaskQueue {
 public:
  static constexpr uint64_t kCapacity = 10;  // one slot stays free: at most 9 queued

  bool push(std::unique_ptr<Action>& action);
  // Waits for room while `running` holds; consumes the action on success.
  bool push_waiting(std::unique_ptr<Action>& action, const std::atomic<bool>& running);
  // Waits at most `waitMs` for an action; null when none came.
  std::unique_ptr<Action> take(uint64_t waitMs, std::chrono::microseconds spin);
  uint64_t queued();
  // Wakes the worker for good: from now on take() returns at once when the queue is empty.
  void stop();

 private:
  bool full() const { return (tail_ + 1) % kCapacity == head_; }
  void insert(std::unique_ptr<Action>& action);

  std::unique_ptr<Action> slots_[kCapacity];
  uint64_t head_ = 0;
  uint64_t tail_ = 0;
  // Insertions so far, readable without the mutex, so that a worker can watch for the
  // next action for a moment before it goes to sleep.
  std::atomic<uint64_t> insertions_{0};
  uint64_t removals_ = 0;  // the worker's own count of the actions it took
  std::atomic<bool> stopped_{false};
  std::mutex mutex_;
  std::condition_variable nonEmpty_;
  std::condition_variable notFull_;
};

class ThreadPool {
 public:
  // The processor's hardware thread count, at least 1.
  static uint64_t default_thread_count();

  explicit ThreadPool(uint64_t threadCount = default_thread_count());
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  template <typename F>
  auto submit(uint64_t worker, F&& fn) -> Result<ActionFuture<std::invoke_result_t<F>>, SubmitError> {
    auto action = make_action(std::forward<F>(fn));
    auto future = action->get_future();
    std::unique_ptr<Action> owned = std::move(action);
    if (auto error = enqueue(worker, owned, false)) return Err(*error);
    return Ok(std::move(future));
  }

  template <typename F>
  Result<Unit, SubmitError> submit(uint64_t worker, F&& fn, const std::shared_ptr<ActionGroupState>& group) {
    std::unique_ptr<Action> action = make_action(std::forward<F>(fn));
    action->join(group);
    if (auto error = enqueue(worker, action, false)) return Err(*error);
    return Ok(Unit{});
  }

  // As the group form of submit, but waits for room in a full queue instead of failing, for
  // callers that must not lose any of their tasks.
  template <typename F>
  Result<Unit, SubmitError> submit_waiting(uint64_t worker, F&& fn, const std::shared_ptr<ActionGroupState>& group) {
    std::unique_ptr<Action> action = make_action(std::forward<F>(fn));
    action->join(group);
    if (auto error = enqueue(worker, action, true)) return Err(*error);
    return Ok(Unit{});
  }

  void terminate();
  uint64_t threadCount() const { return threadCount_; }
  // How many threads can run at once, the caller's included, on the processors the process
  // could use when the pool was built: the worker count, or fewer where fewer processors
  // are allowed. A caller that splits work into more shares than this only queues them.
  uint64_t usableThreads() const { return usableThreads_; }


 private:
  // Returns the error, or nothing when the queue took the action. A refused action is
  // destroyed unrun, which abandons its future and cancels its group.
  std::optional<SubmitError> enqueue(uint64_t worker, std::unique_ptr<Action>& action, bool waitForRoom);
  void worker(uint64_t index);

  uint64_t threadCount_;
  std::vector<std::thread> threads_;
  std::unique_ptr<TaskQueue[]> queues_;
  uint64_t usableThreads_;
  std::atomic<bool> running_{true};
  uint64_t waitMs_ = 100;
  // Zero where the process may use one processor only: a looking worker would then only
  // take time from the thread that feeds it.
  std::chrono::microseconds spinBeforeSleep_;
  std::atomic<bool> alive_{true};
  std::mutex terminateMutex_;
};

}  // namespace op
