// The agent's side of the control socket (ControlProtocol.h): mode 0600, at the configured
// path; each connection gets one request line answered, at once or as a stream.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/ControlProtocol.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"

namespace Flowspecd {

// An answer written a chunk at a time: the server asks for the next chunk once the last
// one is written, so that a long answer neither holds the event loop nor fills memory.
class ControlStream {
 public:
   virtual ~ControlStream() = default;
   // Appends the next chunk to `out`; false when it was the last.
   virtual bool next(std::string& out) = 0;
};

class ControlServer : public Ovk::PtrInterface {
 public:
   using Handler = std::function<std::string(std::string_view request)>;
   // A streamed answer for the requests it takes; null: the request goes to the Handler.
   using StreamHandler = std::function<std::unique_ptr<ControlStream>(std::string_view request)>;
   // A request line, newline included: room for the text of the longest rule (`rule add`).
   static constexpr std::size_t kMaxRequest = 65536;
   static constexpr std::chrono::seconds kClientTimeout{5};

   // Creates the socket. A stale socket file is replaced; one that a running agent answers
   // on, or a file that is not a socket, is an error; so is a path another user could swap
   // (Ovk::pathTrustProblem: a symbolic link, or a directory on the way that others may write
   // without the sticky bit or that belongs to another user than root and the agent's).
   static Ovk::Result<Ovk::Ptr<ControlServer>, std::string> create(asio::io_context& io, std::string path,
                                                                   Handler handler);
   ControlServer(asio::io_context& io, std::string path, Handler handler);
   ~ControlServer() override;

   void streamHandlerIs(StreamHandler handler) { streamHandler_ = std::move(handler); }

   // Stops accepting and removes the socket file.
   void close();
   std::string const& path() const { return path_; }

 private:
   void acceptNext();
   asio::local::stream_protocol::acceptor acceptor_;
   std::string path_;
   Handler handler_;
   StreamHandler streamHandler_;
   bool bound_ = false;
};

} // namespace Flowspecd
