// Work that another thread (a gRPC server thread) hands to the agent's event-loop thread,
// where all agent state lives, and waits for.
//
// call(f, timeout) posts f to the io_context and blocks the calling thread until f has run
// there and returned its value, or until the timeout passes or the gate closes. A call that
// gives up before f started withdraws it: f then never runs, so a caller that was told "not
// done" can rely on nothing having been done. Once f has started, the caller waits for it
// (the loop runs it to the end within the same turn).
//
// Each call is one posted handler, so the loop interleaves calls with socket completions
// like any other work; the number of calls in the queue at once is bounded by the callers'
// threads.
//
// close() (on any thread, the loop's included) withdraws every call not yet started and
// makes later calls fail at once, so that the loop thread can stop a server whose threads
// are waiting on it.
#pragma once

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace Flowspecd::Api {

class LoopGate {
 public:
   explicit LoopGate(asio::io_context& io) : io_(io), shared_(std::make_shared<Shared>()) {}
   LoopGate(LoopGate const&) = delete;
   LoopGate& operator=(LoopGate const&) = delete;
   ~LoopGate() { close(); }

   template <class R>
   std::optional<R> call(std::function<R()> f, std::chrono::milliseconds timeout) {
      struct Pending {
         enum class State { queued, running, done, withdrawn } state = State::queued;
         std::optional<R> result;
      };
      auto p = std::make_shared<Pending>();
      std::shared_ptr<Shared> const shared = shared_;
      {
         std::lock_guard lock(shared->mutex);
         if (shared->closed) return std::nullopt;
      }
      asio::post(io_, [shared, p, f = std::move(f)] {
         {
            std::lock_guard lock(shared->mutex);
            if (p->state != Pending::State::queued) return;
            p->state = Pending::State::running;
         }
         std::optional<R> r(f());
         std::lock_guard lock(shared->mutex);
         p->result = std::move(r);
         p->state = Pending::State::done;
         shared->changed.notify_all();
      });
      std::unique_lock lock(shared->mutex);
      auto const deadline = std::chrono::steady_clock::now() + timeout;
      while (p->state != Pending::State::done) {
         bool const gaveUp = shared->closed || std::chrono::steady_clock::now() >= deadline;
         if (gaveUp && p->state == Pending::State::queued) {
            p->state = Pending::State::withdrawn;
            return std::nullopt;
         }
         if (p->state == Pending::State::running) {
            shared->changed.wait(lock);
         } else {
            shared->changed.wait_until(lock, deadline);
         }
      }
      return std::move(p->result);
   }

   // Runs f on the loop, without waiting (work that must happen there, such as releasing
   // what only the loop may release).
   void post(std::function<void()> f) { asio::post(io_, std::move(f)); }

   void close() {
      std::lock_guard lock(shared_->mutex);
      shared_->closed = true;
      shared_->changed.notify_all();
   }

 private:
   struct Shared {
      std::mutex mutex;
      std::condition_variable changed;
      bool closed = false;
   };
   asio::io_context& io_;
   std::shared_ptr<Shared> shared_;
};

} // namespace Flowspecd::Api
