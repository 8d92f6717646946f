// One configured BGP neighbor and its finite state machine (RFC 4271 section 8).
//
// A Neighbor owns the neighbor-level states (Idle, Connect, Active), the connect-retry
// timer and the outgoing connection attempt. Each TCP connection past the TCP handshake is
// a Connection with its own states (OpenSent, OpenConfirm, Established), framer, hold and
// keepalive timers. Usually there is one; during a connection collision (RFC 4271 section
// 6.8) there are two until the BGP identifiers decide which one stays. The state the
// neighbor shows is that of its most advanced connection, else its own.
//
// Every message error ends the connection with the NOTIFICATION RFC 4271 section 6 names.
// When the last connection ends, the neighbor passes through Idle and starts again: a
// passive neighbor waits in Active, an active one connects again after connect-retry.
// stop() sends a Cease to every connection and stays Idle. A session that ends for a rule
// limit (UpdateOutcome::idleHoldSeconds) holds the neighbor in Idle that long first: no
// connection is made, and those the peer makes are refused.
//
// Everything runs on the scheduler's task thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Config.h"
#include "agent/GracefulRestart.h"
#include "agent/Transport.h"
#include "host/bgp/BgpMessage.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/BgpUpdateDecoder.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Scheduler.h"

namespace Flowspecd {

enum class BgpState : std::uint8_t { idle, connect, active, openSent, openConfirm, established };
// The RFC 4271 names: "Idle", "Connect", "Active", "OpenSent", "OpenConfirm", "Established".
char const* stateName(BgpState s);

// Plain log lines: who (a neighbor's address, or "-") and what happened.
class Logger {
 public:
   virtual ~Logger() = default;
   virtual void log(std::string_view who, std::string_view event) = 0;
};

class Neighbor;

// What the UPDATE sink made of one UPDATE, for the session.
struct UpdateOutcome {
   // The session ends with this NOTIFICATION (RFC 7606 session reset, a rule limit).
   std::optional<Notification> reset;
   // With a reset: the neighbor then stays down this long (a rule limit's restart time).
   std::uint32_t idleHoldSeconds = 0;
   // The UPDATE was the End-of-RIB marker of this family (RFC 4724 section 2).
   std::optional<AfiSafi> endOfRib;
   // The families whose routes or withdrawals it carried (IPv4 unicast fields, MP_REACH_NLRI,
   // MP_UNREACH_NLRI: at most three).
   std::array<AfiSafi, 3> families{};
   std::size_t familyCount = 0;
   void familyIs(AfiSafi f) {
      for (std::size_t i = 0; i < familyCount; ++i) {
         if (families[i] == f) return;
      }
      if (familyCount < families.size()) families[familyCount++] = f;
   }
   // What the UPDATE decoder found: its End-of-RIB, its families, and its NOTIFICATION when
   // the UPDATE resets the session.
   static UpdateOutcome of(BgpParsedUpdate const& update);
};

// Where an established session's UPDATEs go, and who decides what it sends: the agent's RIB.
class UpdateSink {
 public:
   // `update` is one whole message, header included, valid during the call.
   virtual UpdateOutcome handleUpdate(BgpPeer const& peer, MessageView const& update) = 0;
   // A session of `peer` reached Established with what both OPENs agreed on; UPDATEs of it
   // follow. `output` is the session's way out, valid until handleSessionDown. By default
   // the session sends End-of-RIB for every family it negotiated, having nothing else to
   // send.
   virtual void handleEstablished(BgpPeer const& peer, Negotiated const& negotiated, BgpPeerOutput& output);
   // The established session of `peer` ended, as `end` says (graceful restart judges by it).
   virtual void handleSessionDown(BgpPeer const& peer, SessionEnd const& end = {});
   // The peer asks for `family` again (RFC 2918); by default there is nothing to send.
   virtual void handleRouteRefresh(BgpPeer const& peer, AfiSafi family);
   virtual ~UpdateSink() = default;
};

struct NeighborCounters {
   std::uint64_t messagesIn = 0;
   std::uint64_t messagesOut = 0;
   std::uint64_t updatesIn = 0;
   std::uint64_t updatesOut = 0;
   std::uint64_t keepalivesIn = 0;
   std::uint64_t keepalivesOut = 0;
   std::uint64_t notificationsIn = 0;
   std::uint64_t notificationsOut = 0;
   std::uint64_t routeRefreshesIn = 0;
   std::uint64_t routeRefreshesOut = 0;
   std::uint64_t connectionsRefused = 0; // from the neighbor's address, closed before its FSM saw them
   std::uint64_t establishedTransitions = 0;
   // UPDATEs that carry routes or withdrawals of a family (End-of-RIB markers not counted).
   std::map<AfiSafi, std::uint64_t> familyUpdatesIn;
   std::map<AfiSafi, std::uint64_t> endOfRibIn;
};

// A neighbor as the show command reports it.
struct NeighborStatus {
   NeighborConfig config;
   BgpState state = BgpState::idle;
   std::uint64_t uptimeSeconds = 0; // since Established; 0 in any other state
   std::string lastError;           // empty until something went wrong
   NeighborCounters counters;
   // Of the established session (empty otherwise).
   Negotiated negotiated;
   std::uint32_t remoteRouterId = 0;
   std::optional<Endpoint> localEndpoint;
   std::optional<Endpoint> remoteEndpoint;
   // Seconds left of a hold in Idle after a rule limit's teardown; 0 when none.
   std::uint64_t idleHoldSeconds = 0;
};

// What the agent is: our AS, identifier and the source address of our connections.
struct LocalSpeaker {
   std::uint32_t as = 0;
   std::uint32_t routerId = 0;
   std::optional<Ovnet::IpGenAddr> sourceAddress;
};

class Neighbor : public Ovk::PtrInterface {
 public:
   struct Deps {
      Ovk::Ptr<Ovk::TaskScheduler> scheduler;
      Ovk::Ptr<Connector> connector;
      Logger* logger = nullptr;
      UpdateSink* updates = nullptr; // where UPDATEs go; required
      // The graceful-restart capability our OPEN carries for the session's families, asked
      // at each connection; none when not set or when it answers nothing.
      std::function<std::optional<GracefulRestartCapability>(std::vector<AfiSafi> const& families)> gracefulRestart;
   };
   // RFC 4271 section 8.2.2: the hold time while waiting for the peer's OPEN.
   static constexpr std::uint16_t kOpenHoldSeconds = 240;

   Neighbor(NeighborConfig config, LocalSpeaker local, Deps deps);
   ~Neighbor() override;

   // Starts the state machine (Idle -> Connect or Active).
   void start();
   // Ends every connection with `why` (a Cease) and stays Idle. `flushPeer`: the peer is to
   // drop our routes at once rather than keep them for a restart (RFC 8538 Hard Reset, on
   // sessions that negotiated the N bit).
   void stop(Notification const& why, bool flushPeer = false);
   // A TCP connection accepted from this neighbor's address.
   void handleIncoming(Ovk::Ptr<Transport> transport);
   // A connection from the neighbor's address that the agent closed before it reached the
   // neighbor (ttl-security): counted, and `why` becomes the last error. The caller logs it.
   void incomingRefused(std::string const& why);

   BgpState state() const;
   NeighborConfig const& config() const { return config_; }
   // Takes what changes without a new session: the description, the connect-retry time
   // (from the next attempt on), the minimum advertisement interval (whose user reads it at
   // the next session) and what the neighbor may import (which the routing applies). The
   // rest of `config` must be as it is.
   void softConfigIs(NeighborConfig const& config);
   NeighborStatus status() const;
   // True while some connection is open.
   bool hasConnections() const { return !connections_.empty(); }

   class Connection;

 private:
   friend class Connection;
   enum class Origin : std::uint8_t { local, remote };

   void connectNow();
   void handleConnectDone(Ovk::Ptr<Transport> t, std::string const& error);
   void startConnectRetryTimer();
   void cancelConnecting();
   void addConnection(Ovk::Ptr<Transport> t, Origin origin);
   void handleMessage(Connection& c, MessageView const& m);
   void handleOpen(Connection& c, MessageView const& m);
   void handleUpdate(Connection& c, MessageView const& m);
   void send(Connection& c, Bytes bytes, MessageType type);
   void send(Connection& c, ByteView bytes, MessageType type);
   // Ends a connection, sending `notify` first when given; `reason` goes to the last error;
   // `received`: the NOTIFICATION the peer ended it with.
   void closeConnection(Connection& c, std::optional<Notification> notify, std::string const& reason,
                        std::optional<Notification> received = std::nullopt);
   // Our OPEN for the next connection.
   OpenMessage openToSend() const;
   void restartHoldTimer(Connection& c);
   void startKeepaliveTimer(Connection& c);
   // The one funnel for state changes: sets the state of connection `c`, or the neighbor's
   // own (Idle, Connect, Active) when `c` is null; logs every change of the state shown; and
   // runs the entry actions of the state entered.
   void transition(Connection* c, BgpState to);
   void enterEstablished(Connection& c);
   void enterIdle();
   // Holds the neighbor in Idle for `seconds` from now.
   void holdIdle(std::uint32_t seconds);
   bool heldIdle() const { return idleHoldTimer_.has_value(); }
   // Whole seconds left of the hold, at least 1.
   std::uint64_t idleHoldLeft() const;
   void log(std::string const& event) const;

   NeighborConfig config_;
   LocalSpeaker local_;
   Deps deps_;
   OpenMessage localOpen_;
   bool started_ = false;
   BgpState neighborState_ = BgpState::idle; // Idle, Connect or Active
   BgpState reportedState_ = BgpState::idle; // the state last logged
   Ovk::Ptr<ConnectAttempt> attempt_;
   std::optional<Ovk::TaskId> connectRetryTimer_;
   std::optional<Ovk::TaskId> idleHoldTimer_;
   Ovk::Clock::time_point idleHoldUntil_{};
   std::vector<Ovk::Ptr<Connection>> connections_;
   std::string lastError_;
   NeighborCounters counters_;
};

} // namespace Flowspecd
