#include "op/task_set.h"

#include <utility>

#include "op/spin_wait.h"

namespace op {

namespace {

using Clock = std::chrono::steady_clock;

// A wait for the workers longer than twice the caller's own share plus this is late: on an
// idle machine the workers finish about when the caller does.
constexpr auto kLateSlack = std::chrono::microseconds(500);
constexpr uint32_t kLateSetsBeforeCallerOnly = 3;
// About a second of frames at a few sets per user and frame.
constexpr uint32_t kCallerOnlySets = 400;

}  // namespace

bool HelpGauge::offer_to_workers() {
  if (callerOnlySetsLeft_ == 0) return true;
  --callerOnlySetsLeft_;
  return false;
}

void HelpGauge::record(std::chrono::nanoseconds own, std::chrono::nanoseconds waited) {
  if (waited <= 2 * own + kLateSlack) {
    lateSets_ = 0;
    return;
  }
  if (++lateSets_ < kLateSetsBeforeCallerOnly) return;
  lateSets_ = 0;
  callerOnlySetsLeft_ = kCallerOnlySets;
}

void TaskSet::State::run(Task& task) {
  try {
    task.fn();
  } catch (...) {
    std::lock_guard lock(mutex);
    if (!failure) failure = std::current_exception();
  }
  if (unfinished.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    // Taken and dropped so that the waiter, which tests the count under the mutex, cannot
    // miss this notification.
    { std::lock_guard lock(mutex); }
    finished.notify_all();
  }
}

TaskSet::TaskSet(ThreadPool& pool, HelpGauge* gauge)
    : pool_(pool), gauge_(gauge), offered_(gauge == nullptr || gauge->offer_to_workers()),
      state_(std::make_shared<State>()) {}

TaskSet::~TaskSet() {
  // Tasks hold references into their submitter's frame; they must not outlive it.
  if (waited_) return;
  try {
    wait(0, {});
  } catch (...) {
  }
}

void TaskSet::submit(uint64_t worker, std::function<void()> fn) {
  waited_ = false;
  Task& task = state_->tasks.emplace_back(std::move(fn));
  state_->unfinished.fetch_add(1, std::memory_order_relaxed);
  if (!offered_) return;
  task.offered = true;
  (void)pool_.submit(worker, Offer{state_, &task}, nullptr);
}

void TaskSet::keep(std::function<void()> fn) {
  waited_ = false;
  state_->tasks.emplace_back(std::move(fn));
  state_->unfinished.fetch_add(1, std::memory_order_relaxed);
}

void TaskSet::wait(int64_t slow_ms, const std::function<void()>& on_slow) {
  State& s = *state_;
  const auto start = Clock::now();
  // The caller's own tasks first, in order; then, from the back, whatever no worker has
  // started (each worker starts at the front of its own queue).
  for (Task& task : s.tasks) {
    if (!task.offered && !task.claimed.exchange(true, std::memory_order_acq_rel)) s.run(task);
  }
  for (auto it = s.tasks.rbegin(); it != s.tasks.rend(); ++it) {
    if (!it->claimed.exchange(true, std::memory_order_acq_rel)) s.run(*it);
  }
  const auto ownEnd = Clock::now();
  const auto done = [&] { return s.unfinished.load(std::memory_order_acquire) == 0; };
  {
    std::unique_lock lock(s.mutex, std::defer_lock);
    const auto step = std::chrono::milliseconds(slow_ms > 0 ? slow_ms : 500);
    // Looks only where a worker could be running beside this thread.
    auto spin = pool_.usableThreads() > 1 ? kSpinBeforeSleep : std::chrono::microseconds(0);
    while (!spin_then_sleep(lock, s.finished, spin, step, done)) {
      spin = std::chrono::microseconds(0);
      if (on_slow) {
        lock.unlock();
        on_slow();
      }
    }
  }
  waited_ = true;
  if (gauge_ != nullptr && offered_) gauge_->record(ownEnd - start, Clock::now() - ownEnd);
  std::exception_ptr failure;
  {
    std::lock_guard lock(s.mutex);
    failure = std::exchange(s.failure, nullptr);
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace op
