#pragma once
// Threads that keep a processor each busy while they live, as a host's game loop, renderer
// or video encoder would beside the tracker.

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace quorvik::eval {

class BusyThreads {
 public:
  explicit BusyThreads(int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
      threads_.emplace_back([this] {
        while (!stop_.load(std::memory_order_relaxed)) {
        }
      });
    }
  }
  ~BusyThreads() {
    stop_.store(true);
    for (auto& t : threads_) t.join();
  }
  BusyThreads(const BusyThreads&) = delete;
  BusyThreads& operator=(const BusyThreads&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace quorvik::eval
