#include "agent/ControlStream.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Flowspecd {

Ovk::Result<bool, std::string> controlStreamRequest(std::string const& path, std::string_view request,
                                                    std::function<void(std::string_view)> const& onData,
                                                    std::chrono::milliseconds idle) {
   sockaddr_un addr{};
   if (path.size() >= sizeof(addr.sun_path)) return Ovk::failure("control socket path " + path + " is too long");
   int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return Ovk::failure(std::string("socket: ") + std::strerror(errno));
   struct Closer {
      int fd;
      ~Closer() { ::close(fd); }
   } const closer{fd};
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
   char buf[65536];
   for (;;) {
      pollfd p{fd, POLLIN, 0};
      int const r = ::poll(&p, 1, static_cast<int>(idle.count()));
      if (r < 0 && errno == EINTR) continue;
      if (r == 0) return Ovk::failure("the agent at " + path + " stopped answering");
      if (r < 0) return Ovk::failure(std::string("poll: ") + std::strerror(errno));
      ssize_t const n = ::recv(fd, buf, sizeof(buf), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Ovk::failure(std::string("cannot read the answer: ") + std::strerror(errno));
      if (n == 0) return true;
      onData(std::string_view(buf, static_cast<std::size_t>(n)));
   }
}

} // namespace Flowspecd
