// The agent's routing: received UPDATEs into the RIB through the plugins, per session.
//
// BgpRouting is the sessions' UpdateSink. For each established session it makes an UPDATE
// decoder over the context's rule collections of the families the session negotiated (the
// plugins' parse rules are installed there), the session's adjacency RIB-ins (each family's
// hook 0, each writing the default VRF's RIB table of its family under the session's source)
// and a builder of its interned path attributes. Each accepted UPDATE goes to the RIB-ins:
// withdrawals (and, under RFC 7606 treat-as-withdraw, the announcements too) first, then
// announcements, so that an UPDATE that announces and withdraws one rule leaves it announced
// (RFC 4271 section 4.3 for the like case of IPv4 prefixes). The tables' changes are then
// flushed to the forwarding export and the RIB-outs, in the same pass of the event loop.
//
// A session that goes down takes its paths with it (RFC 4271 section 8.2.2), a slice of the
// tables per turn of the event loop, so that a million routes never hold the loop; unless the
// peer restarts gracefully (RFC 4724, GracefulRestart.h): its paths then stay in the tables
// under its source, stale, and what it announces after it came back replaces them; at its
// End-of-RIB (or when a timer runs out) the stale paths it did not announce again leave, a
// slice at a time too. Which paths are stale is kept here, beside the RIB: the peer's
// state per family and the keys it announced again. What each
// session is sent is SessionRibOuts'; the "FSIB full" lines are FsibRefusalLog's; the show
// commands' JSON is RoutingShow's. Neighbors are keyed as the RIB's sources are: by address
// and VRF.
//
// What a neighbor may import (host/bgp/ImportPolicy.h: its policy, its rule limit, the
// global limit) is set on its sessions' RIB-ins, which decide each route before best path. A
// neighbor without any of them gets none, and its routes cost nothing more. A session whose
// family goes past a teardown limit ends with Cease 6/1 (RFC 4486) and asks its neighbor to
// stay down for the limit's restart time (UpdateOutcome::idleHoldSeconds).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "agent/FsibRefusalLog.h"
#include "agent/GracefulRestart.h"
#include "agent/Neighbor.h"
#include "agent/SessionRibOuts.h"
#include "host/bgp/AdjRibin.h"
#include "host/bgp/BgpUpdateDecoder.h"
#include "host/bgp/ImportPolicy.h"
#include "host/plugin/Plugin.h"

namespace Flowspecd {

class BgpRouting : public UpdateSink {
 public:
   BgpRouting(Logger& logger, Ovk::Ptr<Plugin::Context> context);
   ~BgpRouting() override;
   BgpRouting(BgpRouting const&) = delete;
   BgpRouting& operator=(BgpRouting const&) = delete;

   UpdateOutcome handleUpdate(BgpPeer const& from, MessageView const& update) override;
   void handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) override;
   void handleSessionDown(BgpPeer const& from, SessionEnd const& end = {}) override;
   void handleRouteRefresh(BgpPeer const& from, AfiSafi family) override;

   Plugin::Context& context() const { return *context_; }
   // The default VRF's RIB table of `family`; null when no plugin serves it.
   Ovk::Ptr<RibTable> ribTable(AfiSafi family) const;
   // The export state machine of the default VRF's `family`; null when nothing exports.
   Ovk::Ptr<FwdTgtRouteConfigSm> exportSm(AfiSafi family) const;

   // What a neighbor's sessions may import; the default imports everything.
   struct ImportSettings {
      Ovk::Ptr<ImportPolicy const> policy; // null: every route
      std::optional<RuleLimit> limit;      // per family
      // Validation of its rules against the unicast table; nothing: validationDefault().
      std::optional<bool> validate = std::nullopt;
      friend bool operator==(ImportSettings const& a, ImportSettings const& b) {
         bool const samePolicy = a.policy == b.policy || (a.policy && b.policy && a.policy->options() == b.policy->options());
         return samePolicy && a.limit == b.limit && a.validate == b.validate;
      }
   };
   // Sets what `neighbor`'s sessions may import. A live session takes it without a reset:
   // the rules it holds that the policy now refuses leave (a slice of the table per turn of
   // the event loop), and, when the session negotiated route refresh, the peer is asked for
   // each family again (RFC 2918) so that what is allowed now comes in through the same
   // import as any announcement. Refused rules are not kept to be let in later.
   void importSettingsIs(Ovnet::IpGenAddr const& neighbor, ImportSettings settings);
   // The limit of the rules every neighbor together may hold, both families counted together
   // (action always discard); nothing: none.
   void globalRuleLimitIs(std::optional<RuleLimit> limit);
   // Whether the rules of external neighbors without a `validate` setting are validated
   // (internal neighbors' are not, unless set). Applies to sessions established after.
   void validationDefaultIs(bool on) { validationDefault_ = on; }
   bool validationDefault() const { return validationDefault_; }
   // The unicast table as validation reads it (host/bgp/Validation.h); null when the host
   // has no unicast family.
   RuleValidation const* validation() const { return validation_.ptr(); }

   SessionRibOuts& ribOuts() { return ribOuts_; }
   SessionRibOuts const& ribOuts() const { return ribOuts_; }
   // Rules the full FSIB refused, both families.
   std::uint64_t fsibRefusals() const;
   // Logs refusals of the full FSIB (FsibRefusalLog). Runs after every UPDATE; callers that
   // change the RIB otherwise (originated rules) call it too.
   void noteRefusals() { refusalLog_.note(); }

   // Keys of the table's order a purge of a session's paths visits per turn of the event
   // loop: about 10 ms of work.
   static constexpr std::size_t kPurgeKeysPerSlice = 16384;
   // Tables whose paths of a session that went down (or stale paths) are still being removed.
   std::size_t purgesPending() const;

   // ---- Graceful restart ----

   // The helper side's settings (stale-routes-time; `enabled` is the sessions' matter).
   void gracefulRestartIs(GracefulRestartConfig const& config) { grConfig_ = config; }
   // Hears of sessions and End-of-RIBs for the agent's own restart; null: nobody.
   void convergenceIs(RestartConvergence* convergence) { convergence_ = convergence; }
   // True when the path of `source` for `key` in `table` is kept from a session that went
   // and was not announced again.
   bool pathIsStale(RibTable const& table, RouteKey const& key, RibSource source) const;
   // One family of a neighbor as graceful restart holds it.
   struct GrView {
      GrState state = GrState::live;
      std::size_t stalePaths = 0;
      // The timer running: "restart-time" or "stale-routes-time", and the seconds left.
      std::string timer;
      std::uint64_t secondsLeft = 0;
      std::uint64_t stalePathsRemoved = 0; // over the agent's life
      std::uint64_t gracefulRestarts = 0;  // sessions lost with the paths kept
   };

   // What one neighbor's UPDATEs gave, over all its sessions.
   struct PeerView {
      BgpUpdateDecoderCounters counters;
      std::map<AfiSafi, std::size_t> received; // paths in the RIB now, per family
      std::map<AfiSafi, std::size_t> accepted; // of them, the best paths of their rules
      std::map<AfiSafi, AdjRibin::Counters> ribin; // what its RIB-ins did
      std::map<AfiSafi, std::uint64_t> fsibRefusals; // its best rules the full FSIB refused
      std::map<AfiSafi, RibOutCounters> sent;        // what its sessions were sent
      std::map<AfiSafi, std::size_t> advertised;     // rules its session holds from us now
      std::map<AfiSafi, GrView> gracefulRestart;      // families graceful restart ever touched
   };
   // Empty for a neighbor that never had a session.
   std::optional<PeerView> peer(Ovnet::IpGenAddr const& neighbor,
                                BgpVrfIdBase vrf = BgpL3VrfId::defaultVrfId()) const;
   // The rules `neighbor`'s current session sent that import refused and kept aside, per
   // family, with the refusals that found no room aside (AdjRibin::refused).
   struct RefusedView {
      std::vector<AdjRibin::Refused> rules;
      std::uint64_t notKept = 0;
   };
   std::map<AfiSafi, RefusedView> refused(Ovnet::IpGenAddr const& neighbor,
                                          BgpVrfIdBase vrf = BgpL3VrfId::defaultVrfId()) const;
   // Every neighbor that had a session, in address order.
   std::vector<std::pair<Ovnet::IpGenAddr, PeerView>> peers() const;
   // Attribute sets the sessions built, and those a session's last one answered.
   std::uint64_t attributeSetsBuilt() const;
   std::uint64_t attributeSetsReused() const;

 private:
   struct Peer;
   using PeerId = std::pair<Ovnet::IpGenAddr, BgpVrfIdBase>;
   Peer* peerOf(BgpPeer const& from) const;
   void flush(Peer& p);
   // Walks a slice of at most `budget` keys of the tables: the paths of `p`'s last session
   // leave, and those of its current one its import now refuses; then flushes. True when
   // some walk is not done.
   bool purgeStep(Peer& p, std::size_t budget);
   void schedulePurge();
   // The import control of `neighbor`'s sessions: null when nothing limits them.
   Ovk::Ptr<ImportControl const> importControlOf(Ovnet::IpGenAddr const& neighbor) const;
   // The validation `peer`'s flowspec RIB-ins judge with: null when it does not validate.
   Ovk::Ptr<RuleValidation> validationOf(BgpPeer const& peer) const;
   // Logs a limit crossing heard from a RIB-in of `neighbor`.
   void logLimitEvent(Ovnet::IpGenAddr const& neighbor, LimitEvent const& e) const;
   // Runs `event` of the graceful-restart table for `family` of `p` and does what it says.
   void grEvent(Peer& p, AfiSafi family, GrEvent event, std::string const& why);
   void grTimerIs(Peer& p, AfiSafi family, char const* name, std::chrono::seconds after, GrEvent event);
   std::size_t stalePaths(Peer const& p, AfiSafi family) const;

   Logger& logger_;
   Ovk::Ptr<Plugin::Context> context_;
   std::map<PeerId, std::unique_ptr<Peer>> peers_;
   SessionRibOuts ribOuts_;
   FsibRefusalLog refusalLog_;
   std::optional<Ovk::TaskId> purgeTask_;
   std::map<Ovnet::IpGenAddr, ImportSettings> importSettings_;
   Ovk::Ptr<GlobalRuleLimit> globalLimit_;
   Ovk::Ptr<RuleValidation> validation_;
   bool validationDefault_ = false;
   GracefulRestartConfig grConfig_;
   RestartConvergence* convergence_ = nullptr;
};

} // namespace Flowspecd
