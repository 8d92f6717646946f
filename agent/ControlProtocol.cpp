#include "agent/ControlProtocol.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Flowspecd {

SocketCloser::~SocketCloser() {
   if (fd >= 0) ::close(fd);
}

Ovk::Result<int, std::string> sendControlRequest(std::string const& path, std::string_view request) {
   sockaddr_un addr{};
   if (path.size() >= sizeof(addr.sun_path)) return Ovk::failure("control socket path " + path + " is too long");
   int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return Ovk::failure(std::string("socket: ") + std::strerror(errno));
   SocketCloser closer{fd};
   addr.sun_family = AF_UNIX;
   std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
   if (::connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof(addr)) != 0) {
      return Ovk::failure("cannot reach the agent at " + path + ": " + std::strerror(errno));
   }
   std::string out(request);
   out += '\n';
   std::size_t sent = 0;
   while (sent < out.size()) {
      ssize_t const n = ::send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Ovk::failure(std::string("cannot send the request: ") + std::strerror(errno));
      sent += static_cast<std::size_t>(n);
   }
   closer.fd = -1;
   return fd;
}

Ovk::Result<std::string, std::string> controlRequest(std::string const& path, std::string_view request,
                                                     std::chrono::milliseconds timeout) {
   auto const sent = sendControlRequest(path, request);
   if (!sent.ok()) return Ovk::failure(sent.reason());
   SocketCloser const closer{sent.value()};
   int const fd = closer.fd;
   std::string answer;
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   char buf[4096];
   for (;;) {
      auto const left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return Ovk::failure("no answer from the agent at " + path + " in time");
      pollfd p{fd, POLLIN, 0};
      int const r = ::poll(&p, 1, static_cast<int>(left.count()));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) continue;
      ssize_t const n = ::recv(fd, buf, sizeof(buf), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Ovk::failure(std::string("cannot read the answer: ") + std::strerror(errno));
      if (n == 0) break;
      answer.append(buf, static_cast<std::size_t>(n));
   }
   if (!answer.empty() && answer.back() == '\n') answer.pop_back();
   return answer;
}

} // namespace Flowspecd
