#include "host/fwk/Scheduler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

using namespace std::chrono_literals;

TEST(SchedulerTest, RunsTasksInDueOrderAsTheClockMoves) {
   auto s = Ovk::ManualScheduler::create();
   std::string log;
   s->postAfter(20ms, [&] { log += "c"; });
   s->postAfter(10ms, [&] {
      log += "b";
      s->post([&] { log += "B"; });
   });
   s->post([&] { log += "a"; });
   auto cancelled = s->postAfter(15ms, [&] { log += "x"; });
   EXPECT_EQ(s->runReady(), 1u);
   EXPECT_EQ(log, "a");
   EXPECT_TRUE(s->cancel(cancelled));
   EXPECT_FALSE(s->cancel(cancelled));
   EXPECT_EQ(s->advance(12ms), 2u); // b, then the task b posted for its own time
   EXPECT_EQ(log, "abB");
   s->advance(8ms);
   EXPECT_EQ(log, "abBc");
   EXPECT_EQ(s->pending(), 0u);
   EXPECT_EQ(s->now().time_since_epoch(), 20ms);
}

} // namespace
