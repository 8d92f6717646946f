// Telling the service manager how the agent is doing: the readiness protocol of systemd's
// `Type=notify` services, spoken directly (no library): one datagram of NAME=VALUE lines
// to the AF_UNIX datagram socket $NOTIFY_SOCKET names, a leading '@' naming an abstract
// socket. Without $NOTIFY_SOCKET (run by hand, from the build tree, by the tests) every
// call does nothing.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Flowspecd {

class ServiceNotifier {
 public:
   // From NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID of this process's environment; a
   // watchdog meant for another process (WATCHDOG_PID not ours) is not ours to feed.
   static ServiceNotifier fromEnvironment();
   ServiceNotifier(std::string socketPath, std::optional<std::chrono::microseconds> watchdog)
       : socket_(std::move(socketPath)), watchdog_(watchdog) {}

   bool enabled() const { return !socket_.empty(); }
   // Sends `state`, e.g. "READY=1\nSTATUS=2 neighbors", "WATCHDOG=1", "RELOADING=1",
   // "STOPPING=1". False without a socket or when the datagram could not be sent.
   bool notify(std::string_view state) const;
   // How often to send WATCHDOG=1: half the interval the manager asked for, so one late
   // keep-alive is not yet a failure. Nothing without a watchdog.
   std::optional<std::chrono::microseconds> keepAliveInterval() const;

 private:
   std::string socket_;
   std::optional<std::chrono::microseconds> watchdog_;
};

} // namespace Flowspecd
