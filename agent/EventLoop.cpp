#include "agent/EventLoop.h"

namespace Flowspecd {

EventLoopScheduler::EventLoopScheduler(asio::io_context& io) : timer_(io) {}

EventLoopScheduler::~EventLoopScheduler() {
   *alive_ = false;
   timer_.cancel();
}

Ovk::TaskId EventLoopScheduler::post(Ovk::Task task, std::string name) {
   return postAfter(Ovk::Duration::zero(), std::move(task), std::move(name));
}

Ovk::TaskId EventLoopScheduler::postAfter(Ovk::Duration delay, Ovk::Task task, std::string name) {
   if (delay < Ovk::Duration::zero()) delay = Ovk::Duration::zero();
   Ovk::TaskId const id = queue_.postAt(now() + delay, std::move(task), std::move(name));
   arm();
   return id;
}

bool EventLoopScheduler::cancel(Ovk::TaskId id) {
   if (!queue_.cancel(id)) return false;
   if (queue_.empty()) {
      // Nothing left to wait for: an idle loop must be able to run out of work.
      armedFor_ = Ovk::Clock::time_point::max();
      timer_.cancel();
   }
   // Otherwise the timer may stay armed for the cancelled task; it then fires and finds
   // nothing due.
   return true;
}

void EventLoopScheduler::arm() {
   if (queue_.empty()) return;
   auto const due = queue_.earliestDue();
   if (due >= armedFor_) return;
   armedFor_ = due;
   timer_.expires_at(due);
   std::weak_ptr<bool> alive = alive_;
   timer_.async_wait([this, alive](std::error_code const& ec) {
      auto const a = alive.lock();
      if (!a || !*a || ec) return; // cancelled: re-armed for an earlier task, or destroyed
      armedFor_ = Ovk::Clock::time_point::max();
      runDue();
      arm();
   });
}

void EventLoopScheduler::runDue() {
   auto const until = now();
   // Tasks posted during this batch wait for the next one, even when due now: they keep their
   // order, and socket completions run first.
   Ovk::TaskId const postedBefore = queue_.nextId();
   while (std::optional<Ovk::Task> task = queue_.takeDue(until, postedBefore)) (*task)();
}

} // namespace Flowspecd
