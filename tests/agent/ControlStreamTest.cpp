// A streamed answer over a real control socket: the client gets the first chunk before the
// agent has rendered the rest, and every byte arrives in order.
#include "agent/ControlStream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <thread>

#include "agent/ControlSocket.h"

namespace Flowspecd {
namespace {

// Chunks "<n>:" followed by 1 KiB of a letter, counting how many it has made.
class CountingStream : public ControlStream {
 public:
   CountingStream(int chunks, std::atomic<int>& made) : chunks_(chunks), made_(made) {}
   bool next(std::string& out) override {
      int const n = made_++;
      out += std::to_string(n) + ":" + std::string(1024, static_cast<char>('a' + n % 26));
      return n + 1 < chunks_;
   }

 private:
   int chunks_;
   std::atomic<int>& made_;
};

TEST(ControlStreamTest, ChunksArriveAsTheyAreWritten) {
   asio::io_context io;
   std::string const path = "/tmp/flowspec-stream-test-" + std::to_string(getpid()) + ".sock";
   std::atomic<int> made{0};
   static constexpr int kChunks = 4000;
   auto server = ControlServer::create(io, path, [](std::string_view) { return std::string("{}"); });
   ASSERT_TRUE(server.ok()) << server.reason();
   server.value()->streamHandlerIs([&made](std::string_view request) -> std::unique_ptr<ControlStream> {
      if (request != "stream") return nullptr;
      return std::make_unique<CountingStream>(kChunks, made);
   });
   auto work = asio::make_work_guard(io);
   std::thread loop([&] { io.run(); });

   std::string got;
   int madeAtFirst = -1;
   auto const r = controlStreamRequest(path, "stream", [&](std::string_view piece) {
      if (madeAtFirst < 0) madeAtFirst = made.load();
      got.append(piece);
   });
   EXPECT_TRUE(r.ok());
   EXPECT_LT(madeAtFirst, kChunks / 2) << "the answer was rendered whole before it was sent";
   std::string want;
   for (int n = 0; n < kChunks; ++n)
      want += std::to_string(n) + ":" + std::string(1024, static_cast<char>('a' + n % 26));
   EXPECT_EQ(got, want);

   // A request the stream handler does not take gets the ordinary answer.
   std::string plain;
   EXPECT_TRUE(controlStreamRequest(path, "other", [&](std::string_view p) { plain.append(p); }).ok());
   EXPECT_EQ(plain, "{}\n");

   asio::post(io, [&] { server.value()->close(); });
   work.reset();
   io.stop();
   loop.join();
}

} // namespace
} // namespace Flowspecd
