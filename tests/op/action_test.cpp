#include "op/action.h"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace op {
namespace {

template <typename Fn>
void expect_runtime_error(Fn&& fn, const std::string& text) {
  try {
    fn();
    ADD_FAILURE() << "no exception, expected: " << text;
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), text);
  }
}

TEST(Action, RunPublishesTheResultToTheFuture) {
  auto action = make_action([] { return std::string("done"); });
  auto future = action->get_future();
  EXPECT_FALSE(future.is_ready());
  action->run();
  EXPECT_TRUE(action->has_run());
  EXPECT_TRUE(future.is_ready());
  EXPECT_TRUE(future.wait());
  EXPECT_EQ(future.get(), "done");
}

TEST(Action, MisuseRaisesTheFixedTexts) {
  auto action = make_action([] { return 1; });
  auto future = action->get_future();
  expect_runtime_error([&] { action->get_future(); }, "Future may only be acquired once");
  expect_runtime_error([] { ActionFuture<int>().wait(); }, "Attempted to use an invalid ActionFuture");

  auto task = make_action([] {});
  auto voidFuture = task->get_future();
  task->run();
  expect_runtime_error([&] { voidFuture.get(); }, "Action has void result type");
}

TEST(Action, AbandonmentWakesAWaiter) {
  auto action = make_action([] { return 7; });
  auto future = action->get_future();
  std::atomic<int> woke{-1};
  std::thread waiter([&] { woke = future.wait() ? 1 : 0; });
  action.reset();  // destroyed unrun
  waiter.join();
  EXPECT_EQ(woke.load(), 0);
  EXPECT_THROW(future.get(), std::runtime_error);
}

TEST(Action, ExceptionsTravelWithTheResult) {
  auto action = make_action([]() -> int { throw std::length_error("too long"); });
  auto future = action->get_future();
  action->run();
  EXPECT_TRUE(future.wait());
  EXPECT_THROW(future.get(), std::length_error);

  auto empty = std::make_unique<ActionImpl<std::function<int()>>>(std::function<int()>{});
  auto emptyFuture = empty->get_future();
  empty->run();
  EXPECT_THROW(emptyFuture.get(), std::bad_function_call);
}

TEST(ActionGroup, WaitsForEveryMember) {
  auto group = std::make_shared<ActionGroupState>();
  std::vector<std::unique_ptr<Action>> members;
  for (int i = 0; i < 3; ++i) {
    members.push_back(make_action([] {}));
    members.back()->join(group);
  }
  EXPECT_EQ(group->remaining.load(), 3u);
  EXPECT_FALSE(group->wait_for(0)) << "members pending: times out at once";
  EXPECT_FALSE(group->wait_for(-5));
  std::thread runner([&] {
    for (auto& m : members) m->run();
  });
  EXPECT_TRUE(group->wait_for(10000));
  runner.join();
  EXPECT_TRUE(group->wait_for(0));
}

TEST(ActionGroup, AMemberDestroyedUnrunCancelsTheWait) {
  auto group = std::make_shared<ActionGroupState>();
  auto ran = make_action([] {});
  auto dropped = make_action([] {});
  auto never = make_action([] {});
  ran->join(group);
  dropped->join(group);
  never->join(group);
  ran->run();
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = group->wait_for(60000) ? 1 : 0; });
  dropped.reset();
  waiter.join();  // returns without waiting for `never`
  EXPECT_EQ(result.load(), 0);
  EXPECT_FALSE(group->active);
}

TEST(ActionGroup, JoiningAnotherGroupLeavesTheFirst) {
  auto first = std::make_shared<ActionGroupState>();
  auto second = std::make_shared<ActionGroupState>();
  auto action = make_action([] {});
  action->join(first);
  action->join(second);
  EXPECT_EQ(first->remaining.load(), 0u);
  EXPECT_EQ(second->remaining.load(), 1u);
  action->run();
  EXPECT_TRUE(second->wait_for(0));
}

}  // namespace
}  // namespace op
