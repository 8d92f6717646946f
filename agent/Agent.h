// The agent: its neighbors, the TCP listeners that hand incoming connections to them, and
// the control socket, all on one event loop.
//
// At the edge: a connection from an address that is no neighbor is closed the moment it is
// accepted (logged a line per source and interval: RateLimitedLog); the listeners hold every
// neighbor's TCP MD5 key and, while a neighbor of their family has ttl-security, send with
// TTL 255 and check each SYN's TTL before the connection reaches its neighbor; what each
// neighbor may import is set on the routing, and changes with a reload without a reset.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "agent/AsioTransport.h"
#include "agent/Config.h"
#include "agent/ControlSocket.h"
#include "agent/EventLoop.h"
#include "agent/BgpRouting.h"
#include "agent/GracefulRestart.h"
#include "agent/Neighbor.h"
#include "agent/Origination.h"
#include "agent/TrustLogs.h"
#include "host/mnemo/SlateRuleSet.h"

namespace Flowspecd {

class Agent : public Ovk::PtrInterface {
 public:
   Agent(asio::io_context& io, AgentConfig config, Logger& logger);
   ~Agent() override;

   // The mistakes of `config` only the plugins find (originated rules whose UPDATE would not
   // fit one message, say), with file and line: `flowspecd --check` loads the plugin library
   // and starts the plugins without an FSIB to ask them.
   static ConfigErrors checkWithPlugins(AgentConfig const& config);

   // Loads the plugin library and starts the plugins (default VRF, RIB, export), opens the
   // listeners and the control socket and starts every neighbor. The reason when the plugin
   // library cannot be loaded or a socket cannot be opened (the agent is then stopped, with
   // nothing half-built).
   Ovk::Result<bool, std::string> start();
   // Sends a Cease (Administrative Shutdown) to every peer and closes every socket. The
   // event loop then runs out of work once the last bytes are written.
   void stop();

   // Reads `file` again and applies what may change while running (VRFs and their imports,
   // the configured rules: new ones originated, gone ones withdrawn; neighbors, what they may
   // import and the global rule limit);
   // a file with mistakes is refused whole and the running configuration stays. False when
   // nothing was applied.
   bool reload(std::string const& file);
   // The routing the sessions feed; null before start().
   BgpRouting* routing() const { return routing_.get(); }
   std::vector<NeighborStatus> neighbors() const;
   // The rules the agent originates; null before start().
   Origination* origination() const { return origination_.get(); }
   // Answers one control request line: "show neighbors", "show updates", "show summary",
   // "show refused ADDRESS" (RoutingShow.h), "rule list", "rule add {JSON}" ({"family",
   // "match", "then": [...]}) and "rule delete {JSON}" ({"family", "match"}). A rule request
   // is answered {"ok": true, "result", "rule"} or {"ok": false, "error"}.
   std::string handleControl(std::string_view request);
   // A rule added at run time, through the control socket or the API: read as `flowspec
   // rule add` reads it (originatedRuleOf), originated, logged as `who` asked for it. The
   // refusal's reason otherwise.
   Ovk::Result<Origination::Added, std::string> ruleAdd(AfiSafi family, std::string_view match,
                                                        std::vector<std::string> const& then,
                                                        Origination::RuntimeOptions options);
   // Deletes a rule added at run time; the reason when there is none.
   Ovk::Result<std::string, std::string> ruleDelete(AfiSafi family, std::string_view match, std::string_view who);
   AgentConfig const& config() const { return config_; }
   // When the agent object was made (the process's start, for the metrics).
   std::chrono::system_clock::time_point startedAt() const { return startedAt_; }
   // Where the FSIB is mounted; null before start().
   Mnemo::EntityManager* entityManager() const { return entityManager_.ptr(); }
   // Control-socket requests answered, by kind ("show neighbors", "rule add", "show table",
   // "other"), and of them those answered with an error.
   struct ControlCounts {
      std::uint64_t requests = 0;
      std::uint64_t errors = 0;
   };
   std::map<std::string, ControlCounts> const& controlCounts() const { return controlCounts_; }
   Ovk::Ptr<EventLoopScheduler> const& scheduler() const { return scheduler_; }
   // The agent's own restart (graceful restart, restarting side): null before start().
   RestartConvergence const* convergence() const { return convergence_.get(); }

 private:
   void handleAccept(Ovk::Ptr<Transport> t);
   // Decides on a connection just accepted (AsioListener::Screen).
   std::optional<TcpSecurity> screen(AsioListener::Incoming const& in);
   // Makes the listeners' MD5 keys and TTL handling those of `next`'s neighbors, removing the
   // keys of `before`'s that have none now. Each failure is one text.
   std::vector<std::string> applyListenerSecurity(std::vector<NeighborConfig> const& before,
                                                  std::vector<NeighborConfig> const& next);
   // What `n`'s sessions may import, on the routing.
   void applyImport(NeighborConfig const& n);
   // Makes the context's VRFs and route-target imports those of the configuration.
   void applyVrfs();
   // Makes the originated rules of the configuration those in the RIB, and logs what changed.
   void applyRules(std::string_view why);
   // Makes the neighbors those of `next` and logs each change: new ones start, gone ones are
   // stopped with a Cease (Peer De-configured), changed ones take the change as they run or,
   // when the OPEN or the connection carries it, start again after a Cease (Other
   // Configuration Change).
   void applyNeighbors(std::vector<NeighborConfig> const& next);
   Ovk::Ptr<Neighbor> makeNeighbor(NeighborConfig const& n);
   std::string handleRuleRequest(std::string_view verb, std::string_view body);
   // Graceful restart: what our OPENs carry for `families`.
   std::optional<GracefulRestartCapability> gracefulRestartCapability(std::vector<AfiSafi> const& families) const;
   // The restarting side: holds the FSIB unconverged when the agent found an earlier run's
   // rules, and waits for the RIB to be back (RestartConvergence).
   void startConvergence();
   void checkConvergence();
   void handleConverged(std::string const& why);
   nlohmann::json restartJson() const;
   std::string answerControl(std::string_view request);

   asio::io_context& io_;
   AgentConfig config_;
   Logger& logger_;
   Ovk::Ptr<EventLoopScheduler> scheduler_;
   Ovk::Ptr<AsioConnector> connector_;
   // Before the neighbors, which hold it as their UPDATE sink: it outlives them.
   Ovk::Ptr<Mnemo::EntityManager> entityManager_;
   Ovk::Ptr<Plugin::Context> context_;
   std::unique_ptr<BgpRouting> routing_;
   // After the routing: its paths leave the RIB first.
   std::unique_ptr<Origination> origination_;
   std::vector<Ovk::Ptr<AsioListener>> listeners_;
   Ovk::Ptr<ControlServer> control_;
   std::vector<Ovk::Ptr<Neighbor>> neighbors_;
   std::map<Ovnet::IpGenAddr, Neighbor*> byAddress_;
   // Connections turned away at the listeners: from strangers, and for their TTL.
   std::unique_ptr<RateLimitedLog> strangers_;
   std::unique_ptr<RateLimitedLog> lowTtl_;
   std::unique_ptr<Md5DropLog> md5Drops_;
   // Graceful restart, restarting side.
   Ovk::Ptr<Mnemo::SlateRuleSet> slate_; // the FSIB's writer; null without shared memory
   bool forwardingKept_ = false;         // the FSIB was there at start, rules and all
   std::unique_ptr<RestartConvergence> convergence_;
   std::optional<Ovk::TaskId> deferralTask_;
   std::optional<Ovk::TaskId> convergenceCheck_;
   Ovk::Clock::time_point deferralEnds_{};
   std::map<std::string, ControlCounts> controlCounts_;
   std::chrono::system_clock::time_point startedAt_ = std::chrono::system_clock::now();
};

// Log lines on standard error: "2024-05-01T10:00:00.123Z 127.0.0.2 state Idle -> Connect".
class StderrLogger : public Logger {
 public:
   void log(std::string_view who, std::string_view event) override;
};

} // namespace Flowspecd
