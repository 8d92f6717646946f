#include "agent/ControlStream.h"

#include "agent/ControlProtocol.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Flowspecd {

Ovk::Result<bool, std::string> controlStreamRequest(std::string const& path, std::string_view request,
                                                    std::function<void(std::string_view)> const& onData,
                                                    std::chrono::milliseconds idle) {
   auto const sent = sendControlRequest(path, request);
   if (!sent.ok()) return Ovk::failure(sent.reason());
   SocketCloser const closer{sent.value()};
   int const fd = closer.fd;
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
