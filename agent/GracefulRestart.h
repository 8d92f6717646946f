// BGP graceful restart (RFC 4724, with RFC 8538's notification handling): the decisions, as
// plain functions and one small tracker, free of sessions, sockets and the RIB.
//
// Receiving side (the agent helps a peer that restarts). Each family of each peer is in one
// of three states:
//   live             its paths are what the session says;
//   restarting       the session went and the peer may come back: its paths stay, stale,
//                    until the restart time it advertised runs out;
//   waitingEndOfRib  it came back keeping its forwarding state: what it announces again
//                    replaces the stale paths, and its End-of-RIB (or stale-routes-time)
//                    ends the wait; the paths it did not announce again go then.
// grStep() is the whole table of what happens to the paths on each event; BgpRouting keeps the
// states, the timers and the paths.
//
// Restarting side (the agent itself restarts). RestartConvergence decides when the agent,
// having found the forwarding plane's rules kept from an earlier run, has its RIB back: every
// configured neighbor either sent End-of-RIB for each family of its session, turned out not
// to restart gracefully (no capability, or its own restart bit set), was removed, or the
// selection-deferral timer ran out. Until then the FSIB says it is not converged and the
// forwarding plane keeps what it has.
//
// Everything runs on the agent's task thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/bgp/BgpMessage.h"
#include "host/net/IpGenAddr.h"

namespace Flowspecd {

using namespace Routing::Bgp;

// How an established session ended.
struct SessionEnd {
   enum class Kind : std::uint8_t {
      closed,               // the connection ended with no NOTIFICATION (the peer died, TCP reset)
      notificationSent,     // we sent `notification`
      notificationReceived, // the peer sent `notification`
   };
   Kind kind = Kind::closed;
   std::optional<Notification> notification;
};

enum class GrState : std::uint8_t { live, restarting, waitingEndOfRib };
enum class GrEvent : std::uint8_t {
   sessionLostGracefully,      // the session ended and graceful restart applies to the family
   sessionLost,                // the session ended and it does not
   sessionUpKeepingForwarding, // back, the family in its capability with the F bit set
   sessionUp,                  // back without that (no capability, no family, or F clear)
   endOfRib,
   restartTimeOver, // the restart time passed without a session
   staleTimeOver,   // stale-routes-time passed without End-of-RIB
};
enum class GrAction : std::uint8_t {
   none,
   purgeAll,        // every path of the peer in the family goes (no graceful restart)
   keepAsStale,     // every path stays, stale; the restart timer starts
   purgeStale,      // the stale paths (those not announced again) go
   purgeStaleAgain, // a second loss before End-of-RIB: the stale paths go, the others turn stale
                    // and the restart timer starts (RFC 4724 section 4.2, consecutive restarts)
};
char const* toStrep(GrState s);
char const* toStrep(GrEvent e);
char const* toStrep(GrAction a);

struct GrStep {
   GrState next = GrState::live;
   GrAction action = GrAction::none;
   friend bool operator==(GrStep const&, GrStep const&) = default;
};
// The receiving side's table. Events that cannot happen in a state (a session that comes up
// while live, End-of-RIB while restarting) change nothing.
GrStep grStep(GrState state, GrEvent event);

// The event for `family` of a session that ended as `end` with what `negotiated` said:
// sessionLostGracefully when the peer advertised graceful restart for the family and
//  - the connection ended without a NOTIFICATION (RFC 4724 section 4.2), or
//  - both sides set the N bit and the NOTIFICATION, sent or received, is not a Hard Reset
//    (RFC 8538 section 4);
// sessionLost otherwise. `why`, when given, receives the reason in a few words.
GrEvent sessionLossEvent(Negotiated const& negotiated, AfiSafi family, SessionEnd const& end,
                         std::string* why = nullptr);
// The event for `family` of a session that came back with `negotiated` (RFC 4724 section 4.2).
GrEvent sessionUpEvent(Negotiated const& negotiated, AfiSafi family);

// RFC 8538 section 5: the NOTIFICATION to send for `n` on a session that negotiated the N
// bit when the peer's routes must go with it (a neighbor removed from the configuration):
// `n` wrapped in a Hard Reset; `n` itself otherwise.
Notification notificationToSend(Notification const& n, bool gracefulNotification, bool flushPeer);

// When the agent's own restart is over (the restarting side).
class RestartConvergence {
 public:
   // `restarting`: the agent found forwarding state of an earlier run; without it the agent
   // is converged from the start. `neighbors`: the configured neighbors, each waited for.
   // `converged` runs once, with a sentence saying why, when the restart is over.
   RestartConvergence(bool restarting, std::vector<Ovnet::IpGenAddr> const& neighbors,
                      std::function<void(std::string const&)> converged);

   bool restarting() const { return restarting_; }
   bool converged() const { return done_; }
   // A session of `neighbor` came up with `negotiated`: a peer that does not restart
   // gracefully, or restarts itself (R bit), is not waited for; the others are, for the
   // End-of-RIB of each family of the session.
   void sessionUp(Ovnet::IpGenAddr const& neighbor, Negotiated const& negotiated);
   void endOfRib(Ovnet::IpGenAddr const& neighbor, AfiSafi family);
   // The neighbor left the configuration.
   void neighborGone(Ovnet::IpGenAddr const& neighbor);
   // The selection-deferral timer ran out: converged, whatever is still awaited.
   void deferralOver();
   // Converged once nothing is awaited and `settled` (nothing of the RIB or the export still
   // under way) says so; the caller asks again when that changes.
   void check(bool settled);
   // What is still awaited: "127.0.0.2 (no session yet)", "127.0.0.3 (End-of-RIB ipv6-flowspec)".
   std::vector<std::string> waitingFor() const;

 private:
   struct Awaited {
      bool up = false;
      std::set<AfiSafi> endOfRibs; // still to come, once up
   };
   void finish(std::string const& why);

   bool restarting_;
   bool done_;
   std::map<Ovnet::IpGenAddr, Awaited> awaited_;
   std::function<void(std::string const&)> converged_;
};

} // namespace Flowspecd
