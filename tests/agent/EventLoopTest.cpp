#include "agent/EventLoop.h"

#include <gtest/gtest.h>

#include <asio/post.hpp>
#include <chrono>
#include <vector>

namespace Flowspecd {
namespace {

using namespace std::chrono_literals;

TEST(EventLoop, RunsInDueOrderThenPostingOrder) {
   asio::io_context io;
   auto s = EventLoopScheduler::create(io);
   std::vector<int> order;
   s->postAfter(20ms, [&] { order.push_back(4); });
   s->post([&] { order.push_back(1); });
   s->postAfter(5ms, [&] { order.push_back(3); });
   s->post([&] { order.push_back(2); });
   io.run(); // returns once nothing is left to wait for
   EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
   EXPECT_EQ(s->pending(), 0u);
}

TEST(EventLoop, TaskRunsNoEarlierThanItsDelay) {
   asio::io_context io;
   auto s = EventLoopScheduler::create(io);
   auto const posted = s->now();
   Ovk::Clock::time_point ran{};
   s->postAfter(30ms, [&] { ran = s->now(); });
   io.run();
   EXPECT_GE(ran - posted, 30ms);
}

TEST(EventLoop, CancelledTasksDoNotRunAndAnIdleLoopEnds) {
   asio::io_context io;
   auto s = EventLoopScheduler::create(io);
   bool ran = false;
   auto const id = s->postAfter(1h, [&] { ran = true; });
   auto const soon = s->post([] {});
   EXPECT_TRUE(s->cancel(id));
   EXPECT_FALSE(s->cancel(id));
   io.run(); // would wait an hour if the timer stayed armed
   EXPECT_FALSE(ran);
   EXPECT_FALSE(s->cancel(soon)); // already ran
}

TEST(EventLoop, TasksPostedByTasksRunAfterSocketWorkOfTheSameTurn) {
   asio::io_context io;
   auto s = EventLoopScheduler::create(io);
   std::vector<std::string> order;
   s->post([&] {
      order.push_back("first");
      s->post([&] { order.push_back("posted by first"); });
      asio::post(io, [&] { order.push_back("io"); });
   });
   s->post([&] { order.push_back("second"); });
   io.run();
   EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "io", "posted by first"}));
}

TEST(EventLoop, EarlierTaskPostedLaterRearmsTheTimer) {
   asio::io_context io;
   auto s = EventLoopScheduler::create(io);
   std::vector<int> order;
   auto const start = s->now();
   Ovk::Clock::time_point firstRan{};
   s->postAfter(200ms, [&] { order.push_back(2); });
   s->postAfter(1ms, [&] {
      order.push_back(1);
      firstRan = s->now();
   });
   EXPECT_FALSE(s->cancel(0)); // unknown id
   io.run();
   EXPECT_EQ(order, (std::vector<int>{1, 2}));
   // It ran at its own time, not when the timer armed for the later task fired.
   EXPECT_LT(firstRan - start, 200ms);
}

TEST(EventLoop, DestroyedSchedulerLeavesNoTaskBehind) {
   asio::io_context io;
   bool ran = false;
   {
      auto s = EventLoopScheduler::create(io);
      s->postAfter(1ms, [&] { ran = true; });
   }
   io.run();
   EXPECT_FALSE(ran);
}

} // namespace
} // namespace Flowspecd
