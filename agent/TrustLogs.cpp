#include "agent/TrustLogs.h"

namespace Flowspecd {

RateLimitedLog::RateLimitedLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler, std::string what,
                               std::chrono::seconds interval)
    : logger_(logger), scheduler_(std::move(scheduler)), what_(std::move(what)), interval_(interval) {}

RateLimitedLog::~RateLimitedLog() {
   if (timer_) scheduler_->cancel(*timer_);
}

void RateLimitedLog::note(Ovnet::IpGenAddr const& source, std::string const& line) {
   ++total_;
   if (auto const it = sources_.find(source); it != sources_.end()) {
      ++it->second;
   } else if (sources_.size() < kMaxSources) {
      sources_.emplace(source, 0);
      logger_.log(source.str(), line);
   } else {
      ++others_;
   }
   if (!timer_) timer_ = scheduler_->postAfter(interval_, [this] {
      timer_.reset();
      report();
   }, "rateLimitedLog");
}

void RateLimitedLog::report() {
   std::string const during = " in the last " + std::to_string(interval_.count()) + " s";
   // A source that went on stays followed (its next event is counted, not logged); a quiet
   // one is forgotten.
   for (auto it = sources_.begin(); it != sources_.end();) {
      if (it->second == 0) {
         it = sources_.erase(it);
         continue;
      }
      logger_.log(it->first.str(), what_ + ": " + std::to_string(it->second) + " more" + during);
      it->second = 0;
      ++it;
   }
   if (others_ != 0) logger_.log("-", what_ + ": " + std::to_string(others_) + " from other addresses" + during);
   others_ = 0;
   if (!sources_.empty()) {
      timer_ = scheduler_->postAfter(interval_, [this] {
         timer_.reset();
         report();
      }, "rateLimitedLog");
   }
}

void RateLimitedLog::stop() {
   if (timer_) scheduler_->cancel(*timer_);
   timer_.reset();
   report();
   if (timer_) scheduler_->cancel(*timer_);
   timer_.reset();
   sources_.clear();
}

Md5DropLog::Md5DropLog(Logger& logger, Ovk::Ptr<Ovk::TaskScheduler> scheduler,
                       std::function<std::optional<Md5Drops>()> read)
    : logger_(logger), scheduler_(std::move(scheduler)), read_(std::move(read)) {}

Md5DropLog::~Md5DropLog() {
   if (timer_) scheduler_->cancel(*timer_);
}

void Md5DropLog::activeIs(bool on) {
   if (on == timer_.has_value()) return;
   if (!on) {
      scheduler_->cancel(*timer_);
      timer_.reset();
      return;
   }
   last_ = read_();
   if (!last_) {
      logger_.log("-", "TCP MD5: the kernel's counts of dropped segments cannot be read; a session with a wrong "
                       "password will not come up and nothing more can be said of it");
      return;
   }
   timer_ = scheduler_->postAfter(kPoll, [this] { poll(); }, "md5Drops");
}

void Md5DropLog::poll() {
   timer_.reset();
   std::optional<Md5Drops> const now = read_();
   if (now && last_ && now->total() > last_->total()) {
      // The counts are the host's (or the network namespace's), not one session's.
      auto const more = [](std::uint64_t a, std::uint64_t b) { return std::to_string(a >= b ? a - b : 0); };
      logger_.log("-", "TCP MD5: the kernel dropped segments for their signature in the last " +
                           std::to_string(kPoll.count()) + " s: " + more(now->wrong, last_->wrong) +
                           " with a wrong one (another password), " + more(now->missing, last_->missing) +
                           " without one (the peer has no password), " + more(now->unexpected, last_->unexpected) +
                           " with one where none is configured");
   }
   if (now) last_ = now;
   timer_ = scheduler_->postAfter(kPoll, [this] { poll(); }, "md5Drops");
}

} // namespace Flowspecd
