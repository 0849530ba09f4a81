#pragma once
// Waiting for something that usually happens within microseconds. A sleep on a condition
// variable and the wake-up after it cost tens of microseconds each, so a waiter that has a
// processor of its own first looks for a short while, giving the processor away between
// looks, and only then sleeps.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace op {

// How long a waiter looks before it sleeps, where the process may use more than one
// processor (on one, looking only takes time from the thread it waits for). Short: a
// worker that looks while nothing comes burns a processor the host may want, and a set's
// caller runs any task a sleeping worker has not started.
inline constexpr std::chrono::microseconds kSpinBeforeSleep{20};

// Processors this process may run on; the hardware count where the platform cannot say;
// at least 1.
unsigned usable_processors();

// Waits until `ready()` holds, for at most `spin` looking and then at most `sleep` asleep on
// `cv`. `ready` must be safe to call without the lock (it reads atomics); it is tested under
// the lock before sleeping, so a notifier that changes its state under the same mutex
// cannot be missed. Returns ready(), with `lock` held either way.
template <typename Ready>
bool spin_then_sleep(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, std::chrono::microseconds spin,
                     std::chrono::nanoseconds sleep, Ready&& ready) {
  if (spin.count() > 0 && !ready()) {
    const auto until = std::chrono::steady_clock::now() + spin;
    while (!ready() && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  }
  if (!lock.owns_lock()) lock.lock();
  return cv.wait_for(lock, sleep, ready);
}

}  // namespace op
