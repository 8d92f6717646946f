// The agent's task scheduler: Ovk::TaskScheduler over a standalone Asio io_context.
//
// Tasks run on the thread that runs the io_context, one at a time, in the order of their due
// time and, for equal times, of posting, interleaved with socket completions. One Asio timer
// is armed for the earliest task; a batch of due tasks never runs tasks posted during it, so
// socket events get their turn between batches.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <memory>

#include "host/fwk/Scheduler.h"

namespace Flowspecd {

class EventLoopScheduler : public Ovk::TaskScheduler {
 public:
   // The io_context must outlive the scheduler.
   static Ovk::Ptr<EventLoopScheduler> create(asio::io_context& io) { return Ovk::makePtr<EventLoopScheduler>(io); }
   explicit EventLoopScheduler(asio::io_context& io);
   ~EventLoopScheduler() override;

   Ovk::TaskId post(Ovk::Task task, std::string name = {}) override;
   Ovk::TaskId postAfter(Ovk::Duration delay, Ovk::Task task, std::string name = {}) override;
   bool cancel(Ovk::TaskId id) override;
   Ovk::Clock::time_point now() const override { return Ovk::Clock::now(); }

   std::size_t pending() const { return queue_.size(); }

 private:
   void arm();
   void runDue();

   asio::steady_timer timer_;
   Ovk::TaskQueue queue_;
   // The due time the timer is armed for; max when it is idle.
   Ovk::Clock::time_point armedFor_ = Ovk::Clock::time_point::max();
   // Set to false on destruction; completions that outlive the scheduler see it and stop.
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace Flowspecd
