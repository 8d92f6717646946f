// The task scheduler.
//
// Everything runs on one task thread: tasks are posted to run soon or after a delay, in the
// order of their due time and, for equal times, of posting. The agent drives an event-loop
// implementation; tests drive ManualScheduler, whose clock moves only when told to.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "host/fwk/Ptr.h"

namespace Ovk {

using Clock = std::chrono::steady_clock;
using Duration = std::chrono::nanoseconds;
using TaskId = std::uint64_t;
using Task = std::function<void()>;

class TaskScheduler : public PtrInterface {
 public:
   // Runs `task` on the task thread as soon as possible. Returns an id for cancel().
   virtual TaskId post(Task task, std::string name = {}) = 0;
   // Runs `task` once `delay` has passed.
   virtual TaskId postAfter(Duration delay, Task task, std::string name = {}) = 0;
   // Cancels a task not yet run; false when it ran or was unknown.
   virtual bool cancel(TaskId id) = 0;
   // The scheduler's clock.
   virtual Clock::time_point now() const = 0;

 protected:
   ~TaskScheduler() override = default;
};

// The queue of a scheduler: tasks by due time and, for equal times, by posting order.
class TaskQueue {
 public:
   // Queues `task` for `due` and returns its id; ids grow with every post.
   TaskId postAt(Clock::time_point due, Task task, std::string name);
   // Forgets a task not yet taken; false when it was unknown.
   bool cancel(TaskId id);
   bool empty() const { return queue_.empty(); }
   std::size_t size() const { return queue_.size(); }
   // The earliest task's due time; the queue must not be empty.
   Clock::time_point earliestDue() const { return queue_.begin()->first.due; }
   // Takes the earliest task when it is due by `now` and was posted before `postedBefore`
   // (an id below it); nothing otherwise.
   std::optional<Task> takeDue(Clock::time_point now, TaskId postedBefore = UINT64_MAX);
   // The id the next post will get.
   TaskId nextId() const { return nextId_; }

 private:
   struct Key {
      Clock::time_point due;
      TaskId id;
      bool operator<(Key const& o) const { return due != o.due ? due < o.due : id < o.id; }
   };
   struct Entry {
      Task task;
      std::string name;
   };
   std::map<Key, Entry> queue_;
   std::map<TaskId, Key> byId_;
   TaskId nextId_ = 1;
};

// A scheduler for tests: tasks run only inside runReady() and advance().
class ManualScheduler : public TaskScheduler {
 public:
   static Ptr<ManualScheduler> create() { return makePtr<ManualScheduler>(); }

   TaskId post(Task task, std::string name = {}) override {
      return postAfter(Duration::zero(), std::move(task), std::move(name));
   }
   TaskId postAfter(Duration delay, Task task, std::string name = {}) override;
   bool cancel(TaskId id) override;
   Clock::time_point now() const override { return now_; }

   // Runs every task due now, including tasks those tasks post for now. Returns how many ran.
   std::size_t runReady();
   // Moves the clock forward by `d`, running each task at its due time, in order.
   std::size_t advance(Duration d);
   std::size_t pending() const { return queue_.size(); }

 private:
   TaskQueue queue_;
   Clock::time_point now_{};
};

} // namespace Ovk
