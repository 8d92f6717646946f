#include "agent/FsibRefusalLog.h"

#include <string>

namespace Flowspecd {

FsibRefusalLog::FsibRefusalLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler,
                               std::function<std::uint64_t()> refused)
    : logger_(logger), scheduler_(std::move(scheduler)), refused_(std::move(refused)) {}

FsibRefusalLog::~FsibRefusalLog() {
   if (timer_ && scheduler_) scheduler_->cancel(*timer_);
}

void FsibRefusalLog::note() {
   if (timer_) return; // a burst goes on: its count is said when the timer fires
   std::uint64_t const refused = refused_();
   if (refused == logged_) return;
   logger_.log("-", "FSIB full: " + std::to_string(refused - logged_) +
                        " rule(s) refused (flowspec fsib and show summary count them)");
   logged_ = refused;
   arm();
}

void FsibRefusalLog::arm() {
   if (!scheduler_) return;
   timer_ = scheduler_->postAfter(
       kReport,
       [this] {
          timer_.reset();
          std::uint64_t const refused = refused_();
          if (refused == logged_) return; // the burst is over
          logger_.log("-",
                      "FSIB full: " + std::to_string(refused - logged_) + " more rule(s) refused since the last report");
          logged_ = refused;
          arm();
       },
       "fsibRefusals");
}

} // namespace Flowspecd
