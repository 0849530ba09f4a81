#include "op/thread_pool.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#if defined(__linux__)
#include <sched.h>
#endif

namespace op {

unsigned usable_processors() {
#if defined(__linux__)
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 0) {
    return static_cast<unsigned>(CPU_COUNT(&allowed));
  }
#endif
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
}

void TaskQueue::insert(std::unique_ptr<Action>& action) {
  slots_[tail_] = std::move(action);
  tail_ = (tail_ + 1) % kCapacity;
  insertions_.fetch_add(1, std::memory_order_release);
}

bool TaskQueue::push(std::unique_ptr<Action>& action) {
  {
    std::lock_guard lock(mutex_);
    if (full()) return false;
    insert(action);
  }
  nonEmpty_.notify_all();
  return true;
}

bool TaskQueue::push_waiting(std::unique_ptr<Action>& action, const std::atomic<bool>& running) {
  {
    std::unique_lock lock(mutex_);
    while (full()) {
      if (!running.load()) return false;
      notFull_.wait_for(lock, std::chrono::milliseconds(100));
    }
    insert(action);
  }
  nonEmpty_.notify_all();
  return true;
}

std::unique_ptr<Action> TaskQueue::take(uint64_t waitMs, std::chrono::microseconds spin) {
  // Only this worker takes from the queue, so the queue is empty exactly while the
  // insertions equal the worker's own removals.
  std::unique_lock lock(mutex_, std::defer_lock);
  spin_then_sleep(lock, nonEmpty_, spin, std::chrono::milliseconds(waitMs), [&] {
    return insertions_.load(std::memory_order_acquire) != removals_ || stopped_.load(std::memory_order_acquire);
  });
  if (head_ == tail_) return nullptr;
  std::unique_ptr<Action> action = std::move(slots_[head_]);
  head_ = (head_ + 1) % kCapacity;
  ++removals_;
  notFull_.notify_all();
  return action;
}

void TaskQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopped_.store(true, std::memory_order_release);
  }
  nonEmpty_.notify_all();
}

uint64_t TaskQueue::queued() {
  std::lock_guard lock(mutex_);
  uint64_t count = 0;
  for (uint64_t i = head_; i != tail_; i = (i + 1) % kCapacity) count += slots_[i] && !slots_[i]->obsolete() ? 1 : 0;
  return count;
}

uint64_t ThreadPool::default_thread_count() {
  // A platform may report 0; pools need a worker 0 to submit to.
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
}

ThreadPool::ThreadPool(uint64_t threadCount)
    : threadCount_(threadCount == 0 ? 1 : threadCount),
      queues_(std::make_unique<TaskQueue[]>(threadCount_)),
      usableThreads_(std::min<uint64_t>(threadCount_, usable_processors())),
      spinBeforeSleep_(usable_processors() > 1 ? kSpinBeforeSleep : std::chrono::microseconds(0)) {
  threads_.reserve(threadCount_);
  try {
    for (uint64_t i = 0; i < threadCount_; ++i) threads_.emplace_back([this, i] { worker(i); });
  } catch (...) {
    // The system refused a thread. No destructor runs for a pool that failed to construct,
    // and a joinable thread destroyed unjoined ends the process: stop the ones started.
    running_.store(false);
    alive_.store(false);
    for (uint64_t i = 0; i < threadCount_; ++i) queues_[i].stop();
    for (auto& thread : threads_) thread.join();
    throw;
  }
}

ThreadPool::~ThreadPool() { terminate(); }

std::optional<SubmitError> ThreadPool::enqueue(uint64_t worker, std::unique_ptr<Action>& action, bool waitForRoom) {
  if (worker >= threadCount_) return SubmitError::NoSuchWorker;
  if (!running_.load()) return SubmitError::Terminated;
  TaskQueue& queue = queues_[worker];
  if (waitForRoom) {
    // Stops waiting once the pool is being terminated; the action is then abandoned.
    if (!queue.push_waiting(action, running_)) {
      action.reset();
      return SubmitError::Terminated;
    }
    return std::nullopt;
  }
  if (!queue.push(action)) {
    action.reset();
    return SubmitError::QueueFull;
  }
  return std::nullopt;
}

void ThreadPool::worker(uint64_t index) {
  TaskQueue& queue = queues_[index];
  while (running_.load()) {
    std::unique_ptr<Action> action = queue.take(waitMs_, spinBeforeSleep_);
    if (action && running_.load() && !action->has_run()) action->run();
  }
}

void ThreadPool::terminate() {
  std::lock_guard lock(terminateMutex_);
  if (!alive_.load()) return;
  alive_.store(false);
  for (uint64_t i = 0; i < threadCount_; ++i) {
    const uint64_t count = queues_[i].queued();
    if (count != 0) {
      std::printf("ThreadPool terminate with %7llu tasks remaining\n", static_cast<unsigned long long>(count));
      std::fflush(stdout);
    }
  }
  running_.store(false);
  // Without the wake-up an idle worker would notice only at its next timed wake-up, and
  // every tracker's destruction would take a tenth of a second per pool.
  for (uint64_t i = 0; i < threadCount_; ++i) queues_[i].stop();
  for (auto& thread : threads_) thread.join();
  threads_.clear();
}

}  // namespace op
