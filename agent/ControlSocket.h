// The agent's side of the control socket (ControlProtocol.h): mode 0600, at the configured
// path; each connection gets one request line answered.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "agent/ControlProtocol.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"

namespace Flowspecd {

class ControlServer : public Ovk::PtrInterface {
 public:
   using Handler = std::function<std::string(std::string_view request)>;
   // A request line, newline included: room for the text of the longest rule (`rule add`).
   static constexpr std::size_t kMaxRequest = 65536;
   static constexpr std::chrono::seconds kClientTimeout{5};

   // Creates the socket. A stale socket file is replaced; one that a running agent answers
   // on, or a file that is not a socket, is an error.
   static Ovk::Result<Ovk::Ptr<ControlServer>, std::string> create(asio::io_context& io, std::string path,
                                                                   Handler handler);
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

} // namespace Flowspecd
