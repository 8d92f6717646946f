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
   Ovk::TaskId const id = nextId_++;
   Key const k{now() + delay, id};
   queue_.emplace(k, Entry{std::move(task), std::move(name)});
   byId_.emplace(id, k);
   arm();
   return id;
}

bool EventLoopScheduler::cancel(Ovk::TaskId id) {
   auto it = byId_.find(id);
   if (it == byId_.end()) return false;
   queue_.erase(it->second);
   byId_.erase(it);
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
   auto const due = queue_.begin()->first.due;
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
   Ovk::TaskId const lastId = nextId_;
   while (!queue_.empty()) {
      auto const& front = queue_.begin()->first;
      if (front.due > until) break;
      if (front.id >= lastId) {
         // Posted during this batch for no later than now: keep the order, but let socket
         // completions run first.
         break;
      }
      auto node = queue_.extract(queue_.begin());
      byId_.erase(node.key().id);
      node.mapped().task();
   }
}

} // namespace Flowspecd
