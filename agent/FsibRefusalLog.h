// The log lines of a full FSIB: the first refusal is said at once, then, while refusals go on,
// what came since every kReport, so that the counts of the lines add up to what was refused.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "agent/Neighbor.h"
#include "host/fwk/Scheduler.h"

namespace Flowspecd {

class FsibRefusalLog {
 public:
   static constexpr std::chrono::seconds kReport{10};
   // `refused` counts the rules the FSIB refused so far.
   FsibRefusalLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler, std::function<std::uint64_t()> refused);
   ~FsibRefusalLog();
   FsibRefusalLog(FsibRefusalLog const&) = delete;
   FsibRefusalLog& operator=(FsibRefusalLog const&) = delete;

   // Something may have been refused: says so when a burst starts.
   void note();

 private:
   void arm();
   Logger& logger_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   std::function<std::uint64_t()> refused_;
   std::uint64_t logged_ = 0; // the count the lines said so far
   std::optional<Ovk::TaskId> timer_;
};

} // namespace Flowspecd
