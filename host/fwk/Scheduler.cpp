#include "host/fwk/Scheduler.h"

namespace Ovk {

TaskId ManualScheduler::postAfter(Duration delay, Task task, std::string name) {
   if (delay < Duration::zero()) delay = Duration::zero();
   TaskId const id = nextId_++;
   Key const k{now_ + delay, id};
   queue_.emplace(k, Entry{std::move(task), std::move(name)});
   byId_.emplace(id, k);
   return id;
}

bool ManualScheduler::cancel(TaskId id) {
   auto it = byId_.find(id);
   if (it == byId_.end()) return false;
   queue_.erase(it->second);
   byId_.erase(it);
   return true;
}

std::size_t ManualScheduler::runReady() {
   std::size_t ran = 0;
   while (!queue_.empty() && queue_.begin()->first.due <= now_) {
      auto node = queue_.extract(queue_.begin());
      byId_.erase(node.key().id);
      node.mapped().task();
      ++ran;
   }
   return ran;
}

std::size_t ManualScheduler::advance(Duration d) {
   Clock::time_point const until = now_ + d;
   std::size_t ran = runReady();
   while (!queue_.empty() && queue_.begin()->first.due <= until) {
      now_ = queue_.begin()->first.due;
      ran += runReady();
   }
   now_ = until;
   return ran + runReady();
}

} // namespace Ovk
