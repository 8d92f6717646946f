// The control socket: a Unix-domain stream socket, mode 0600, at the configured path. A
// client writes one request line ("show neighbors") and reads the answer, one JSON
// document and a newline, until the agent closes the connection.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"

namespace Flowspecd {

class ControlServer : public Ovk::PtrInterface {
 public:
   using Handler = std::function<std::string(std::string_view request)>;
   static constexpr std::size_t kMaxRequest = 4096;
   static constexpr std::chrono::seconds kClientTimeout{5};

   // Creates the socket. A stale socket file is replaced; one that a running agent answers
   // on, or a file that is not a socket, is an error.
   static Ovk::Result<Ovk::Ptr<ControlServer>, std::string> create(asio::io_context& io, std::string path, Handler handler);
   ControlServer(asio::io_context& io, std::string path, Handler handler);
   ~ControlServer() override;

   // Stops accepting and removes the socket file.
   void close();
   std::string const& path() const { return path_; }

 private:
   void acceptNext();
   asio::local::stream_protocol::acceptor acceptor_;
   std::string path_;
   Handler handler_;
   bool bound_ = false;
};

// Sends `request` to the agent at `path` and returns its answer (without the final
// newline), or what went wrong.
Ovk::Result<std::string, std::string> controlRequest(std::string const& path, std::string_view request,
                                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

} // namespace Flowspecd
