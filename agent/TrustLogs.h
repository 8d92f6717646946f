// The log lines of connections the agent turns away, kept few whatever comes.
//
// RateLimitedLog: events of one kind per source address (a connection from a stranger, one
// from a neighbor's address with too low a TTL). The first event of a source is logged at
// once; those that follow are counted and said in one line per interval while they go on.
// At most kMaxSources sources are followed at a time; events of others are counted together.
//
// Md5DropLog: the kernel's counts of segments dropped for their TCP MD5 signature, polled
// while some neighbor has a password. A wrong or missing password is silence on the wire:
// these counts are how the agent can tell.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "agent/Neighbor.h"
#include "agent/TcpSecurity.h"
#include "host/fwk/Scheduler.h"
#include "host/net/IpGenAddr.h"

namespace Flowspecd {

class RateLimitedLog {
 public:
   static constexpr std::size_t kMaxSources = 1024;
   // `what` names the event in the summary lines ("connection(s) from a stranger closed").
   RateLimitedLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler, std::string what,
                  std::chrono::seconds interval);
   ~RateLimitedLog();
   RateLimitedLog(RateLimitedLog const&) = delete;
   RateLimitedLog& operator=(RateLimitedLog const&) = delete;

   // One event of `source`; `line` is its log line, logged when it is the first for a while.
   void note(Ovnet::IpGenAddr const& source, std::string const& line);
   // Says what is still counted and stops the timer (the agent stops).
   void stop();
   std::uint64_t total() const { return total_; }

 private:
   void report();
   Logger& logger_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   std::string what_;
   std::chrono::seconds interval_;
   // Sources heard within the interval, with the events not logged since.
   std::map<Ovnet::IpGenAddr, std::uint64_t> sources_;
   std::uint64_t others_ = 0;
   std::uint64_t total_ = 0;
   std::optional<Ovk::TaskId> timer_;
};

class Md5DropLog {
 public:
   static constexpr std::chrono::seconds kPoll{10};
   // `read` gives the kernel's counts (readMd5Drops by default).
   Md5DropLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler,
              std::function<std::optional<Md5Drops>()> read = [] { return readMd5Drops(); });
   ~Md5DropLog();
   Md5DropLog(Md5DropLog const&) = delete;
   Md5DropLog& operator=(Md5DropLog const&) = delete;

   // Polls while on (some neighbor has a password): what the kernel dropped from now on is
   // logged after each poll that finds more.
   void activeIs(bool on);

 private:
   void poll();
   Logger& logger_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   std::function<std::optional<Md5Drops>()> read_;
   std::optional<Md5Drops> last_;
   std::optional<Ovk::TaskId> timer_;
};

} // namespace Flowspecd
