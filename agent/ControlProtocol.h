// The control protocol between the agent and its clients: a Unix-domain stream socket. A
// client writes one request line ("show neighbors") and reads the answer, one JSON document
// and a newline, until the agent closes the connection. The agent's side is ControlServer.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "host/fwk/Result.h"

namespace Flowspecd {

// Where the agent listens when its configuration names no control socket.
constexpr char const* kDefaultControlSocket = "/tmp/flowspecd.sock";
// Where the packaged agent's configuration puts it (its directory made by the service unit).
constexpr char const* kPackagedControlSocket = "/run/flowspecd/flowspecd.sock";

// Sends `request` to the agent at `path` and returns its answer (without the final
// newline), or what went wrong.
Ovk::Result<std::string, std::string> controlRequest(std::string const& path, std::string_view request,
                                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The clients' first step: connects to the agent at `path` and writes `request` and its
// newline. The connected socket, which the caller closes (SocketCloser), or what went wrong.
Ovk::Result<int, std::string> sendControlRequest(std::string const& path, std::string_view request);

// Closes a socket when it goes; -1: nothing to close.
struct SocketCloser {
   int fd;
   explicit SocketCloser(int f) : fd(f) {}
   SocketCloser(SocketCloser const&) = delete;
   SocketCloser& operator=(SocketCloser const&) = delete;
   ~SocketCloser();
};

} // namespace Flowspecd
