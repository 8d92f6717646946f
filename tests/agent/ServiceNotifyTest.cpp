#include "agent/ServiceNotify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace Flowspecd {
namespace {

// A datagram socket standing for the service manager's, bound to a path or an abstract name.
class ManagerSocket {
 public:
   explicit ManagerSocket(std::string name) : name_(std::move(name)) {
      fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::memcpy(addr.sun_path, name_.data(), name_.size());
      socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
      if (name_[0] == '@') {
         addr.sun_path[0] = '\0';
      } else {
         ::unlink(name_.c_str());
         len += 1;
      }
      bound_ = ::bind(fd_, reinterpret_cast<sockaddr const*>(&addr), len) == 0;
      timeval tv{1, 0};
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   }
   ~ManagerSocket() {
      ::close(fd_);
      if (name_[0] != '@') ::unlink(name_.c_str());
   }
   bool bound() const { return bound_; }
   std::string receive() {
      char buf[512];
      ssize_t const n = ::recv(fd_, buf, sizeof buf, 0);
      return n < 0 ? std::string("<nothing>") : std::string(buf, static_cast<std::size_t>(n));
   }

 private:
   std::string name_;
   int fd_ = -1;
   bool bound_ = false;
};

TEST(ServiceNotifyTest, StatesReachAPathAndAnAbstractSocket) {
   std::string const tag = std::to_string(getpid());
   for (std::string const& name : {"/tmp/fs-notify-" + tag, "@fs-notify-" + tag}) {
      SCOPED_TRACE(name);
      ManagerSocket manager(name);
      ASSERT_TRUE(manager.bound());
      ServiceNotifier const n(name, std::nullopt);
      EXPECT_TRUE(n.enabled());
      EXPECT_TRUE(n.notify("READY=1\nSTATUS=2 neighbors"));
      EXPECT_EQ(manager.receive(), "READY=1\nSTATUS=2 neighbors");
      EXPECT_TRUE(n.notify("WATCHDOG=1"));
      EXPECT_EQ(manager.receive(), "WATCHDOG=1");
   }
   // No manager listening, a name too long for an AF_UNIX address, no socket at all.
   EXPECT_FALSE(ServiceNotifier("/tmp/fs-notify-nobody-" + tag, std::nullopt).notify("READY=1"));
   EXPECT_FALSE(ServiceNotifier("/tmp/" + std::string(200, 'x'), std::nullopt).notify("READY=1"));
   EXPECT_FALSE(ServiceNotifier("", std::nullopt).enabled());
   EXPECT_FALSE(ServiceNotifier("", std::nullopt).notify("READY=1"));
}

// The watchdog is fed at half its interval, and only by the process it was set for.
TEST(ServiceNotifyTest, TheWatchdogIsOursOnlyWhenItsPidIsOurs) {
   struct Row {
      char const* usec;
      std::string pid; // empty: unset
      std::optional<std::chrono::microseconds> want;
   };
   std::string const self = std::to_string(getpid());
   std::vector<Row> const rows = {
       {"20000000", "", std::chrono::microseconds(10000000)},
       {"20000000", self, std::chrono::microseconds(10000000)},
       {"20000000", "1", std::nullopt},
       {"0", "", std::nullopt},
       {"12s", "", std::nullopt},
       {"", "", std::nullopt},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(std::string(r.usec) + " pid " + r.pid);
      ::setenv("NOTIFY_SOCKET", "@fs-notify-env", 1);
      ::setenv("WATCHDOG_USEC", r.usec, 1);
      if (r.pid.empty()) {
         ::unsetenv("WATCHDOG_PID");
      } else {
         ::setenv("WATCHDOG_PID", r.pid.c_str(), 1);
      }
      auto const n = ServiceNotifier::fromEnvironment();
      EXPECT_TRUE(n.enabled());
      EXPECT_EQ(n.keepAliveInterval(), r.want);
   }
   ::unsetenv("NOTIFY_SOCKET");
   ::unsetenv("WATCHDOG_USEC");
   ::unsetenv("WATCHDOG_PID");
   EXPECT_FALSE(ServiceNotifier::fromEnvironment().enabled());
}

} // namespace
} // namespace Flowspecd
