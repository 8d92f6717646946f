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
// stop() sends a Cease to every connection and stays Idle.
//
// Everything runs on the scheduler's task thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/BgpMessage.h"
#include "agent/Config.h"
#include "agent/Transport.h"
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

// Where received UPDATE messages go once their framing has been checked. The UPDATE
// decoder plugs in here.
class UpdateSink {
 public:
   // `update` is the whole message, header included. `summary` is null when the message's
   // attributes could not be framed: with a sink the decision is the sink's (RFC 7606 treats
   // some of those errors as withdrawals, not resets). A NOTIFICATION in the answer resets
   // the session with it.
   virtual std::optional<Notification> handleUpdate(Neighbor const& from, Message const& update,
                                                    UpdateSummary const* summary) = 0;
   // A session of `from` reached Established with what both OPENs agreed on; UPDATEs of it
   // follow. By default nothing.
   virtual void handleEstablished(Neighbor const& from, Negotiated const& negotiated);
   // The established session of `from` ended. By default nothing.
   virtual void handleSessionDown(Neighbor const& from);
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
      UpdateSink* updates = nullptr; // may be null: UPDATEs are only counted
   };
   // RFC 4271 section 8.2.2: the hold time while waiting for the peer's OPEN.
   static constexpr std::uint16_t kOpenHoldSeconds = 240;

   Neighbor(NeighborConfig config, LocalSpeaker local, Deps deps);
   ~Neighbor() override;

   // Starts the state machine (Idle -> Connect or Active).
   void start();
   // Ends every connection with `why` (a Cease) and stays Idle.
   void stop(Notification const& why);
   // A TCP connection accepted from this neighbor's address.
   void handleIncoming(Ovk::Ptr<Transport> transport);

   BgpState state() const;
   NeighborConfig const& config() const { return config_; }
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
   void handleMessage(Connection& c, Message const& m);
   void handleOpen(Connection& c, Message const& m);
   void handleUpdate(Connection& c, Message const& m);
   void handleEstablished(Connection& c);
   void send(Connection& c, Bytes bytes, MessageType type);
   // Ends a connection, sending `notify` first when given; `reason` goes to the last error.
   void drop(Connection& c, std::optional<Notification> notify, std::string const& reason);
   void restartHoldTimer(Connection& c);
   void startKeepaliveTimer(Connection& c);
   void afterConnectionsGone();
   // The one funnel for state changes: logs every change of the shown state.
   void noteState();
   void log(std::string const& event) const;

   NeighborConfig config_;
   LocalSpeaker local_;
   Deps deps_;
   OpenMessage localOpen_;
   bool started_ = false;
   BgpState base_ = BgpState::idle; // Idle, Connect or Active
   BgpState shown_ = BgpState::idle;
   Ovk::Ptr<ConnectAttempt> attempt_;
   std::optional<Ovk::TaskId> connectRetryTimer_;
   std::vector<Ovk::Ptr<Connection>> connections_;
   std::string lastError_;
   NeighborCounters counters_;
};

} // namespace Flowspecd
