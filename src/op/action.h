#pragma once
// Actions: one unit of work for the thread pool, whose result reaches the holder of its
// future, and which may belong to a group that a caller waits on.

#include <concepts>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace op {

namespace _ {
struct DisallowCopy {
  DisallowCopy() = default;
  DisallowCopy(const DisallowCopy&) = delete;
  DisallowCopy& operator=(const DisallowCopy&) = delete;
  DisallowCopy(DisallowCopy&&) = default;
  DisallowCopy& operator=(DisallowCopy&&) = default;
};
struct DisallowCopyAndMove {
  DisallowCopyAndMove() = default;
  DisallowCopyAndMove(const DisallowCopyAndMove&) = delete;
  DisallowCopyAndMove& operator=(const DisallowCopyAndMove&) = delete;
  DisallowCopyAndMove(DisallowCopyAndMove&&) = delete;
  DisallowCopyAndMove& operator=(DisallowCopyAndMove&&) = delete;
};
}  // namespace _

// Shared by an action, its future and copies of the future.
class ActionState : _::DisallowCopyAndMove {
 public:
  virtual ~ActionState() = default;
  // Address of the result slot, or null for actions without a result.
  virtual void* result_storage() = 0;

  void mark_ready();
  // The action will never run: wakes every waiter with ready still false.
  void abandon();

  std::mutex mutex;
  std::condition_variable readyChanged;
  bool ready = false;
  bool pending = true;
  // An exception that left the callable; rethrown to whoever reads the result.
  std::exception_ptr failure;
};

template <typename R>
class ActionStateImpl final : public ActionState {
 public:
  void* result_storage() override { return &result; }
  std::optional<R> result;
};

template <>
class ActionStateImpl<void> final : public ActionState {
 public:
  void* result_storage() override { return nullptr; }
};

class ActionGroupState {
 public:
  void add() { remaining.fetch_add(1); }
  void leave();
  // A member was destroyed without running: nobody may wait for the group any longer.
  void cancel();
  // Waits until every member has run, the group was cancelled, or `ms` milliseconds
  // pass without a wake-up. True when every member has run.
  bool wait_for(int64_t ms);

  std::mutex mutex;
  std::condition_variable allDone;
  std::atomic<uint64_t> remaining{0};
  bool active = true;
};

template <typename R>
class ActionFuture {
 public:
  ActionFuture() = default;
  explicit ActionFuture(std::shared_ptr<ActionStateImpl<R>> state) : state_(std::move(state)) {}

  bool valid() const { return state_ != nullptr; }

  // True when the action ran; false when it was abandoned.
  bool wait() const {
    if (!state_) throw std::runtime_error("Attempted to use an invalid ActionFuture");
    std::unique_lock lock(state_->mutex);
    state_->readyChanged.wait(lock, [&] { return state_->ready || !state_->pending; });
    return state_->ready;
  }

  bool is_ready() const {
    if (!state_) throw std::runtime_error("Attempted to use an invalid ActionFuture");
    std::lock_guard lock(state_->mutex);
    return state_->ready;
  }

  // Reference to the stored result; the caller moves it out.
  auto& get() const {
    const bool ran = wait();
    if (state_->result_storage() == nullptr) throw std::runtime_error("Action has void result type");
    if (!ran) throw std::runtime_error("Action was abandoned before it ran");
    if (state_->failure) std::rethrow_exception(state_->failure);
    if constexpr (std::is_void_v<R>) {
      return *this;  // unreachable: void actions have no storage
    } else {
      return *state_->result;
    }
  }

  void reset() { state_.reset(); }

 private:
  std::shared_ptr<ActionStateImpl<R>> state_;
};

class Action : _::DisallowCopy {
 public:
  virtual ~Action();

  // Runs the callable once and publishes its result (or the exception it threw).
  void run();
  void join(std::shared_ptr<ActionGroupState> group);
  bool has_run() const { return done_; }
  // Whether running it would do nothing any more: its work was done elsewhere.
  virtual bool obsolete() const { return false; }

 protected:
  explicit Action(std::shared_ptr<ActionState> state) : state_(std::move(state)) {}
  virtual void invoke(void* storage) = 0;

  std::shared_ptr<ActionState> state_;
  bool futureTaken_ = false;

 private:
  void leave_group();

  std::shared_ptr<ActionGroupState> group_;
  bool done_ = false;
};

template <typename R>
class ActionImplBase : public Action {
 public:
  ActionFuture<R> get_future() {
    if (futureTaken_) throw std::runtime_error("Future may only be acquired once");
    futureTaken_ = true;
    return ActionFuture<R>(std::static_pointer_cast<ActionStateImpl<R>>(state_));
  }

 protected:
  ActionImplBase() : Action(std::make_shared<ActionStateImpl<R>>()) {}
};

// A callable that can tell when running it has become pointless.
template <typename F>
concept CanBeObsolete = requires(const F& f) {
  { f.obsolete() } -> std::convertible_to<bool>;
};

template <typename F>
class ActionImpl final : public ActionImplBase<std::invoke_result_t<F>> {
 public:
  using R = std::invoke_result_t<F>;
  explicit ActionImpl(F fn) : fn_(std::move(fn)) {}
  bool obsolete() const override {
    if constexpr (CanBeObsolete<F>) {
      return fn_.obsolete();
    } else {
      return false;
    }
  }

 private:
  void invoke(void* storage) override {
    if constexpr (std::is_void_v<R>) {
      (void)storage;
      fn_();
    } else {
      static_cast<std::optional<R>*>(storage)->emplace(fn_());
    }
  }

  F fn_;
};

template <typename F>
std::unique_ptr<ActionImpl<std::decay_t<F>>> make_action(F&& fn) {
  return std::make_unique<ActionImpl<std::decay_t<F>>>(std::forward<F>(fn));
}

}  // namespace op
