#include "host/fwk/Scheduler.h"

namespace Ovk {

TaskId TaskQueue::postAt(Clock::time_point due, Task task, std::string name) {
   TaskId const id = nextId_++;
   Key const k{due, id};
   queue_.emplace(k, Entry{std::move(task), std::move(name)});
   byId_.emplace(id, k);
   return id;
}

bool TaskQueue::cancel(TaskId id) {
   auto it = byId_.find(id);
   if (it == byId_.end()) return false;
   queue_.erase(it->second);
   byId_.erase(it);
   return true;
}

std::optional<Task> TaskQueue::takeDue(Clock::time_point now, TaskId postedBefore) {
   if (queue_.empty()) return std::nullopt;
   Key const& front = queue_.begin()->first;
   if (front.due > now || front.id >= postedBefore) return std::nullopt;
   auto node = queue_.extract(queue_.begin());
   byId_.erase(node.key().id);
   return std::move(node.mapped().task);
}

TaskId ManualScheduler::postAfter(Duration delay, Task task, std::string name) {
   if (delay < Duration::zero()) delay = Duration::zero();
   return queue_.postAt(now_ + delay, std::move(task), std::move(name));
}

bool ManualScheduler::cancel(TaskId id) { return queue_.cancel(id); }

std::size_t ManualScheduler::runReady() {
   std::size_t ran = 0;
   while (std::optional<Task> task = queue_.takeDue(now_)) {
      (*task)();
      ++ran;
   }
   return ran;
}

std::size_t ManualScheduler::advance(Duration d) {
   Clock::time_point const until = now_ + d;
   std::size_t ran = runReady();
   while (!queue_.empty() && queue_.earliestDue() <= until) {
      now_ = queue_.earliestDue();
      ran += runReady();
   }
   now_ = until;
   return ran + runReady();
}

} // namespace Ovk
