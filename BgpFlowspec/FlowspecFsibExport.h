// The forwarding export: the best route of every flowspec rule becomes one Flowspec::Rule in
// the FSIB, with the rule's match and the actions its communities ask for.
//
// One FlowspecRouteConfigSm runs per VRF and flowspec family (the agent makes them through
// FlowspecRouteConfigSmFactory, hook 6). It mounts the FSIB when it starts, empties it and
// walks every route of its table; from then on each change of a best route (handleRouteEntry)
// adds, replaces or deletes exactly that rule. Communities are read IPv6-address-specific
// list first, then the other list, each in its own order:
//   traffic-rate 0          drop;       any other rate  police at that rate (bytes/s);
//   traffic-action          sample and terminal flags;  traffic-marking  set DSCP;
//   redirect to IPv4/IPv6   the address, chosen among several by shouldExport (below);
//   redirect to next hop    the path's next hop, likewise;
//   redirect to VRF         through the route-target import configuration
//                           (FlowspecRedirectVrfId.h).
// Rules the forwarding plane cannot honour (a won't-export reason) never reach the FSIB.
// Which rules a full FSIB holds is FlowspecFsibAdmission's (below): the first in precedence.
#pragma once

#include <cstdint>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "BgpFlowspec/FlowspecRedirectVrfId.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/FwdTgt.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/RouteOrderIndex.h"
#include "host/bgp/RtImport.h"
#include "host/flowspec/RuleSet.h"
#include "host/fwk/FlatPtrMap.h"
#include "host/fwk/Scheduler.h"
#include "host/mnemo/EntityManager.h"
#include "host/plugin/Plugin.h"

namespace Routing::Bgp::FlowspecPlugin {

// ---- Which redirect wins ----

// Whether a redirect to an IPv4 address may set the rule's redirect, given the redirect
// chosen so far: never on IPv6 flowspec; always when none is chosen; on equal copy flags the
// later one wins; otherwise only a non-copy redirect replaces a copy one.
bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv4 const* extComm,
                  Flowspec::TrafficRedirect const& current);
// The same for an IPv6 address, never on IPv4 flowspec.
bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv6 const* extComm,
                  Flowspec::TrafficRedirect const& current);
// Whether a redirect to the path's next hop (at `nexthopAddr`) may set the redirect: never
// without an address; always when none is chosen; over a copy redirect when it is not one;
// otherwise the earlier redirect stays (a tie keeps the first, unlike the address kinds).
bool shouldExport(FlowspecExtCommRedirectNexthop const* extComm, Ovnet::IpGenAddr const& nexthopAddr,
                  Flowspec::TrafficRedirect const& current);

class FlowspecVpnAfiSafiReactor;
class FlowspecRouteConfigSm;

// ---- Which rules the FSIB holds ----

// The export state machines of every family and VRF write one FSIB and share its capacity.
// When more rules are exportable than it holds, it holds those that come first in rule
// precedence (RFC 8955 section 5.1), the same rules whatever order they came in:
//   - a rule that comes to a full FSIB takes the place of the last rule held when it
//     precedes it (that rule is then refused in its turn, "displaced"), and is refused
//     otherwise;
//   - a rule that leaves makes room: the first refused rule goes in, found by walking the
//     tables in rule order from the last rule held, a slice of keys per turn of the
//     scheduler (at once without one). The walk waits until rules have stopped leaving for
//     kRefillSettle, kRefillMaxDelay at most: a table being withdrawn (a million rules going
//     with their session) would otherwise pull in each refused rule just before its turn to
//     go.
// Precedence between families is the FSIB's own order (Flowspec::FlowspecSlateKey); within a
// family it is the table's order, which agrees with it for every exportable rule.
//
// One admission per FSIB mount, kept with the mount (Mnemo::EntityManager::attachment); it is
// also the one record of which rules are in the FSIB, whichever state machine wrote them.
class FlowspecFsibAdmission : public Ovk::PtrInterface {
 public:
   // Keys a refill walks per turn of the scheduler.
   static constexpr std::size_t kRefillKeysPerSlice = 16384;
   static constexpr std::chrono::milliseconds kRefillSettle{100};
   static constexpr std::chrono::milliseconds kRefillMaxDelay{1000};

   FlowspecFsibAdmission(Ovk::Ptr<Flowspec::RuleSet> fsib, Ovk::Ptr<Ovk::TaskScheduler> scheduler);
   ~FlowspecFsibAdmission() override;
   // The admission of the FSIB mounted in `em` (made with `scheduler` on first use); null
   // when the FSIB is not mounted.
   static Ovk::Ptr<FlowspecFsibAdmission> of(Mnemo::EntityManager& em, Ovk::Ptr<Ovk::TaskScheduler> const& scheduler);

   // `sm` writes from now on: the rules of its family an earlier writer left (a run before
   // this one, or an earlier machine of the family) are deleted first; other families' rules
   // stay.
   void writerIs(FlowspecRouteConfigSm& sm);
   // `sm` writes no more; the rules it wrote stay in the FSIB, no longer counted as held.
   void writerDel(FlowspecRouteConfigSm& sm);

   // The best route of `key` (exportable) is there, new or changed: its rule goes in or is
   // replaced, displaces the last rule held, or is refused.
   void routePresent(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key);
   // The best route of `key` went: its rule leaves, and a refused rule may take its place.
   void routeGone(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key);

   bool holds(FlowspecRouteConfigSm const& sm, FlowspecRouteKey const& key) const;
   // Rules of `sm` held.
   std::size_t held(FlowspecRouteConfigSm const& sm) const;
   // True while a refill waits for its next slice.
   bool refillPending() const { return refillTask_.has_value(); }

 private:
   struct OrderLess {
      bool operator()(RouteKey const* a, RouteKey const* b) const { return RouteOrderIndex::less(a, b); }
   };
   struct Writer {
      FlowspecRouteConfigSm* sm = nullptr;
      Ovk::FlatPtrSet<FlowspecRouteKey> held;             // each referenced
      std::set<FlowspecRouteKey const*, OrderLess> order; // the same keys in the table's order
      // Where the refill's walk goes on; null: after the last key held.
      Ovk::Ptr<RouteKey const> scan;
      bool scanDone = false;
   };
   Writer* writerOf(FlowspecRouteConfigSm const& sm);
   Writer const* writerOf(FlowspecRouteConfigSm const& sm) const;
   // True when `a` of `wa` precedes `b` of `wb`.
   bool precedes(Writer const& wa, FlowspecRouteKey const& a, Writer const& wb, FlowspecRouteKey const& b) const;
   // The writer of the last rule held, null when none is.
   Writer* lastWriter();
   // The last rule held, its writer and its order prefix (all null when none is), kept
   // until a rule goes in or out or a writer comes or goes.
   struct Tail {
      Writer* writer = nullptr;
      FlowspecRouteKey const* key = nullptr;
      std::uint64_t prefix = 0;
   };
   Tail const& tail();
   void refuse(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key);
   bool install(Writer& w, FlowspecRouteKey const& key, bool isNew);
   void release(Writer& w, FlowspecRouteKey const& key);
   // Something changed since the walks began: they start again from the last rule held.
   void restartWalks();
   void scheduleRefill();
   void postRefill(Ovk::Duration delay);
   // One slice of refill; true when more may be done.
   bool refill(std::size_t budget);
   // The next refused rule of `w`, walking at most `budget` keys; null when the walk ended or
   // the budget did.
   FlowspecRouteKey const* nextRefused(Writer& w, std::size_t& budget);

   Ovk::Ptr<Flowspec::RuleSet> fsib_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   std::vector<Writer> writers_;
   Tail tail_;
   bool tailKnown_ = false;
   // A rule was refused or displaced since the last walk that found none.
   bool refusedWaiting_ = false;
   std::optional<Ovk::TaskId> refillTask_;
   Ovk::Clock::time_point refillAsked_{}; // when the pending refill was first asked for
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

class FlowspecRouteConfigSm : public FwdTgtRouteConfigSm {
 public:
   // Builds the state machine, mounts the FSIB and starts the export (handleInitialized).
   FlowspecRouteConfigSm(BgpVrfIdBase vrfIdBase, AfiSafi afiSafi, Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable,
                         Ovk::Ptr<Mnemo::EntityManager> entityManager, Ovk::Ptr<RtToVrfIdList> rtToVrfIdList,
                         Ovk::Ptr<CoreDedupTables> coreDedupTables, Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId,
                         Ovk::Ptr<Ovk::TaskScheduler> scheduler = nullptr);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   // The best route of `key` changed: the FSIB's rule of it follows.
   void handleRouteEntry(RouteKey const* baseRouteKey) override;
   // Mounts "routing/bgp/flowspec", empties it, walks every route, attaches the import
   // configuration's reactors.
   void handleInitialized();
   // Unmounts the FSIB and drops the reactors; later changes are deferred.
   void handleDestroyed() override;

   // The reactions to the top level of the import configuration.
   void handleRtAfiSafi(AfiSafi afiSafi);
   void handleRtAfiSafiAll();

   Ovk::Ptr<Flowspec::RuleSet> const& fsib() const { return fsib_; }
   void fsibIs(Ovk::Ptr<Flowspec::RuleSet> fsib) { fsib_ = std::move(fsib); }
   FlowspecVpnAfiSafiReactor* vpnAfiSafiReactor() const { return vpnAfiSafiReactor_.get(); }
   void vpnAfiSafiReactorIs(std::unique_ptr<FlowspecVpnAfiSafiReactor> reactor);
   Ovk::Ptr<Mnemo::EntityManager> const& entityManager() const { return entityManager_; }
   Ovk::Ptr<RtToVrfIdList> const& rtToVrfIdList() const { return rtToVrfIdList_; }
   Ovk::Ptr<CoreDedupTables> const& coreDedupTables() const { return coreDedupTables_; }
   Ovk::Ptr<FlowspecRkToRedirVrfId> const& rkToRedirVrfId() const { return rkToRedirVrfId_; }

   // The unicast and VPN families redirect-to-VRF route targets are looked up in.
   AfiSafi redirVrfRtAfiSafi() const;
   AfiSafi redirVrfVpnAfiSafi() const;

   // Route target -> the rules that named it.
   FlowspecRouteKeySet* rtToRouteKeySet(ExtComm const* rt) const;
   FlowspecRouteKeySet& rtToRouteKeySetIs(Ovk::Ptr<ExtComm const> const& rt);
   void rtToRouteKeySetDel(ExtComm const* rt);
   void rtToRouteKeySetDelAll() { rtToRouteKeySet_.clear(); }
   std::unordered_map<ExtComm const*, Ovk::Ptr<FlowspecRouteKeySet>> const& rtToRouteKeySets() const {
      return rtToRouteKeySet_;
   }
   // Re-translates every rule of every route target's set.
   void retranslateAll();

   // Empty when the rule is in the FSIB; else why not: the won't-export reason, no best
   // route, the FSIB full, or not mounted.
   std::string notInForwardingReason(RouteKey const& key) const override;
   // False while refused rules wait for the room made for them.
   bool exportSettled() const override { return !admission_ || !admission_->refillPending(); }

   // The FSIB rule of `key`'s best route, which must be there: its match and the actions of
   // its communities.
   Flowspec::Rule ruleOf(FlowspecRouteKey const& key);
   FlowspecFsibAdmission* admission() const { return admission_.ptr(); }

 protected:
   ~FlowspecRouteConfigSm() override;

 private:
   friend class FlowspecFsibAdmission;
   class RtAfiSafiReactor;
   // Removes the key from every route target's set, and from the redirect-VRF map.
   void forgetRedirects(FlowspecRouteKey const& key);
   // A rule the full FSIB did not take: counted, and by its best path's source.
   void countRefusedFull(FlowspecRouteKey const& key);

   Ovk::Ptr<Mnemo::EntityManager> entityManager_;
   Ovk::Ptr<RtToVrfIdList> rtToVrfIdList_;
   std::unique_ptr<RtAfiSafiReactor> rtAfiSafiReactor_;
   Ovk::Ptr<CoreDedupTables> coreDedupTables_;
   std::unordered_map<ExtComm const*, Ovk::Ptr<FlowspecRouteKeySet>> rtToRouteKeySet_;
   Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId_;
   Ovk::Ptr<Flowspec::RuleSet> fsib_;
   std::unique_ptr<FlowspecVpnAfiSafiReactor> vpnAfiSafiReactor_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   Ovk::Ptr<FlowspecFsibAdmission> admission_;
};

// One community of the flowspec classification, applied to the rule being built (one
// instantiation per list kind, with one body).
template <class C>
void translateExtComm(FlowspecRouteConfigSm& sm, C const* extComm, PathAttributesContents const& pathAttrs,
                      Flowspec::Rule& rule, Flowspec::ActionFieldSet& actions, bool& redirectNexthopIpSet,
                      FlowspecRouteKey const& routeKey);

// A redirect-to-VRF community (its route target's type, subtype and the community's value).
void translateRedirVrf(FlowspecRouteConfigSm& sm, Flowspec::Rule& rule, Flowspec::ActionFieldSet& actions,
                       bool redirectNexthopIpSet, FlowspecRouteKey const& routeKey, std::uint8_t rtType,
                       std::uint8_t rtSubtype, std::uint64_t value);

// Hook 6: the export state machine of each VRF's flowspec table.
class FlowspecRouteConfigSmFactory : public Plugin::RouteConfigSmFactoryBase {
 public:
   FlowspecRouteConfigSmFactory(AfiSafi afiSafi, Ovk::Ptr<Mnemo::EntityManager> entityManager,
                                Ovk::Ptr<RtToVrfIdList> rtToVrfIdList, Ovk::Ptr<CoreDedupTables> coreDedupTables,
                                Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId,
                                Ovk::Ptr<Ovk::TaskScheduler> scheduler = nullptr);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   Ovk::Ptr<FwdTgtRouteConfigSm> instantiate(BgpVrfIdBase const& vrfIdBase,
                                             Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> const& routeTable,
                                             Ovk::Ptr<NexthopListMapBase const> const& nexthopListMap) override;
   // The FSIB stays as it is for the forwarding plane; the state machine writes no more.
   void detach(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm) override;

 protected:
   ~FlowspecRouteConfigSmFactory() override = default;

 private:
   Ovk::Ptr<Mnemo::EntityManager> entityManager_;
   Ovk::Ptr<RtToVrfIdList> rtToVrfIdList_;
   Ovk::Ptr<CoreDedupTables> coreDedupTables_;
   Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
};

} // namespace Routing::Bgp::FlowspecPlugin
