#include "agent/ServiceNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Flowspecd {

namespace {

std::optional<std::uint64_t> number(char const* text) {
   if (!text || !*text) return std::nullopt;
   std::uint64_t v = 0;
   std::string_view const s(text);
   auto const [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
   if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
   return v;
}

} // namespace

ServiceNotifier ServiceNotifier::fromEnvironment() {
   char const* path = std::getenv("NOTIFY_SOCKET");
   std::optional<std::chrono::microseconds> watchdog;
   auto const usec = number(std::getenv("WATCHDOG_USEC"));
   auto const pid = number(std::getenv("WATCHDOG_PID"));
   if (usec && *usec > 0 && (!pid || *pid == static_cast<std::uint64_t>(getpid()))) {
      watchdog = std::chrono::microseconds(*usec);
   }
   return ServiceNotifier(path ? path : "", watchdog);
}

bool ServiceNotifier::notify(std::string_view state) const {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   // The path must fit with its terminating zero (an abstract name needs none, but the
   // same bound keeps one rule).
   if (socket_.empty() || socket_.size() >= sizeof(addr.sun_path)) return false;
   std::memcpy(addr.sun_path, socket_.data(), socket_.size());
   socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_.size());
   if (socket_[0] == '@') {
      addr.sun_path[0] = '\0'; // abstract: the name is the bytes after the zero, unterminated
   } else {
      len += 1;
   }
   int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return false;
   ssize_t const sent =
       ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr const*>(&addr), len);
   ::close(fd);
   return sent == static_cast<ssize_t>(state.size());
}

std::optional<std::chrono::microseconds> ServiceNotifier::keepAliveInterval() const {
   if (!watchdog_) return std::nullopt;
   return *watchdog_ / 2;
}

} // namespace Flowspecd
