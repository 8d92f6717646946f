// The log lines of connections turned away stay few whatever comes; the MD5 drop log says
// what the kernel dropped between two polls.
#include "agent/TrustLogs.h"

#include <gtest/gtest.h>

#include "tests/fakes/AgentFakes.h"

namespace Flowspecd {
namespace {

using namespace std::chrono_literals;
using Ovnet::IpGenAddr;

IpGenAddr A(char const* text) { return *IpGenAddr::parse(text); }

TEST(RateLimitedLogTest, OneLineASourceThenASumPerInterval) {
   Fakes::Lines logger;
   auto scheduler = Ovk::ManualScheduler::create();
   RateLimitedLog log(logger, scheduler, "connection(s) from a stranger closed", 60s);
   for (int i = 0; i < 1000; ++i) log.note(A("192.0.2.1"), "connection from 192.0.2.1 closed");
   log.note(A("192.0.2.2"), "connection from 192.0.2.2 closed");
   EXPECT_EQ(logger.lines, (std::vector<std::string>{"192.0.2.1 connection from 192.0.2.1 closed",
                                                     "192.0.2.2 connection from 192.0.2.2 closed"}));
   scheduler->advance(60s);
   EXPECT_EQ(logger.lines.back(), "192.0.2.1 connection(s) from a stranger closed: 999 more in the last 60 s");
   EXPECT_EQ(logger.lines.size(), 3u);
   // Still followed after its sum: the next one is counted, not logged.
   log.note(A("192.0.2.1"), "connection from 192.0.2.1 closed");
   EXPECT_EQ(logger.lines.size(), 3u);
   scheduler->advance(60s);
   EXPECT_EQ(logger.lines.back(), "192.0.2.1 connection(s) from a stranger closed: 1 more in the last 60 s");
   // A quiet interval forgets it: then its next connection is logged at once, and nothing
   // is left to run.
   scheduler->advance(60s);
   EXPECT_EQ(scheduler->pending(), 0u);
   log.note(A("192.0.2.1"), "connection from 192.0.2.1 closed");
   EXPECT_EQ(logger.lines.back(), "192.0.2.1 connection from 192.0.2.1 closed");
   EXPECT_EQ(log.total(), 1003u);
}

TEST(RateLimitedLogTest, SourcesBeyondTheBoundAreCountedTogether) {
   Fakes::Lines logger;
   auto scheduler = Ovk::ManualScheduler::create();
   RateLimitedLog log(logger, scheduler, "closed", 10s);
   std::size_t const sources = RateLimitedLog::kMaxSources + 500;
   for (std::size_t i = 0; i < sources; ++i) {
      std::array<std::uint8_t, 16> b{0x20, 0x01, 0x0d, 0xb8};
      b[14] = static_cast<std::uint8_t>(i >> 8);
      b[15] = static_cast<std::uint8_t>(i);
      log.note(IpGenAddr::ipv6(b), "x");
   }
   EXPECT_EQ(logger.lines.size(), RateLimitedLog::kMaxSources);
   scheduler->advance(10s);
   EXPECT_EQ(logger.lines.back(), "- closed: 500 from other addresses in the last 10 s");
   // Stopping says what is counted and leaves nothing to run.
   log.note(A("192.0.2.9"), "y");
   log.note(A("192.0.2.9"), "y");
   log.stop();
   EXPECT_EQ(logger.lines.back(), "192.0.2.9 closed: 1 more in the last 10 s");
   EXPECT_EQ(scheduler->pending(), 0u);
}

TEST(Md5DropLogTest, SaysWhatTheKernelDroppedBetweenPolls) {
   Fakes::Lines logger;
   auto scheduler = Ovk::ManualScheduler::create();
   std::optional<Md5Drops> counts = Md5Drops{5, 5, 5};
   Md5DropLog log(logger, scheduler, [&] { return counts; });
   log.activeIs(true);
   scheduler->advance(Md5DropLog::kPoll);
   EXPECT_TRUE(logger.lines.empty());
   counts = Md5Drops{8, 6, 5};
   scheduler->advance(Md5DropLog::kPoll);
   ASSERT_EQ(logger.lines.size(), 1u);
   EXPECT_EQ(logger.lines[0], "- TCP MD5: the kernel dropped segments for their signature in the last 10 s: 3 with a "
                              "wrong one (another password), 1 without one (the peer has no password), 0 with one "
                              "where none is configured");
   // A poll that cannot read keeps the last counts.
   counts.reset();
   scheduler->advance(Md5DropLog::kPoll);
   counts = Md5Drops{8, 6, 7};
   scheduler->advance(Md5DropLog::kPoll);
   EXPECT_EQ(logger.lines.size(), 2u);
   EXPECT_NE(logger.lines[1].find("2 with one where none is configured"), std::string::npos);
   log.activeIs(false);
   EXPECT_EQ(scheduler->pending(), 0u);
   // Counters that cannot be read at all are said once, and nothing polls.
   counts.reset();
   log.activeIs(true);
   EXPECT_NE(logger.lines.back().find("cannot be read"), std::string::npos);
   EXPECT_EQ(scheduler->pending(), 0u);
}

} // namespace
} // namespace Flowspecd
