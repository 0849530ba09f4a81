#include "op/action.h"

namespace op {

void ActionState::mark_ready() {
  {
    std::lock_guard lock(mutex);
    ready = true;
  }
  readyChanged.notify_all();
}

void ActionState::abandon() {
  {
    std::lock_guard lock(mutex);
    pending = false;
  }
  readyChanged.notify_all();
}

void ActionGroupState::leave() {
  std::unique_lock lock(mutex);
  // Decremented under the mutex so that a waiter cannot miss the step to zero.
  if (remaining.fetch_sub(1) == 1) {
    lock.unlock();
    allDone.notify_all();
  }
}

void ActionGroupState::cancel() {
  {
    std::lock_guard lock(mutex);
    active = false;
  }
  allDone.notify_all();
}

bool ActionGroupState::wait_for(int64_t ms) {
  std::unique_lock lock(mutex);
  for (;;) {
    if (remaining.load() == 0 || !active) break;
    // A value below 1 is a deadline already past.
    if (allDone.wait_for(lock, std::chrono::milliseconds(ms)) == std::cv_status::timeout) break;
  }
  return remaining.load() == 0;
}

Action::~Action() {
  if (!done_) {
    state_->abandon();
    if (group_) group_->cancel();
  }
}

void Action::run() {
  void* storage = state_->result_storage();
  try {
    invoke(storage);
  } catch (...) {
    // The worker must survive a failing callable; the failure travels with the result.
    state_->failure = std::current_exception();
  }
  done_ = true;
  state_->mark_ready();
  leave_group();
}

void Action::join(std::shared_ptr<ActionGroupState> group) {
  leave_group();
  group_ = std::move(group);
  if (group_) group_->add();
}

void Action::leave_group() {
  if (group_) {
    group_->leave();
    group_.reset();
  }
}

}  // namespace op
