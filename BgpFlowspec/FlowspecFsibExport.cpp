#include "BgpFlowspec/FlowspecFsibExport.h"
#include "host/fwk/FwkType.h"

#include <algorithm>
#include <ostream>
#include <vector>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

bool unset(Flowspec::TrafficRedirect const& r) { return r.address == Ovnet::IpGenAddr(); }

} // namespace

// The two address kinds: the family test, then the copy-flag rules. Each traces from
// shouldExport itself.
bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv4 const* extComm,
                  Flowspec::TrafficRedirect const& current) {
   if (afiSafi.afi() == Afi::afiIpv6) {
      OVK_TRACE(flowspecTraceFacility(), 8, "IPv6 flowspec shouldn't use redirect-extcomm-ipv4");
      return false;
   }
   if (unset(current) || current.copy == extComm->copy()) return true;
   OVK_TRACE(flowspecTraceFacility(), 8, "preferring non-copy redirect-ip");
   return !extComm->copy();
}

bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv6 const* extComm,
                  Flowspec::TrafficRedirect const& current) {
   if (afiSafi.afi() == Afi::afiIpv4) {
      OVK_TRACE(flowspecTraceFacility(), 8, "IPv4 flowspec shouldn't use redirect-extcomm-ipv6");
      return false;
   }
   if (unset(current) || current.copy == extComm->copy()) return true;
   OVK_TRACE(flowspecTraceFacility(), 8, "preferring non-copy redirect-ip");
   return !extComm->copy();
}

bool shouldExport(FlowspecExtCommRedirectNexthop const* extComm, Ovnet::IpGenAddr const& nexthopAddr,
                  Flowspec::TrafficRedirect const& current) {
   if (nexthopAddr == Ovnet::IpGenAddr()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "ignoring invalid nexthopAddr");
      return false;
   }
   if (unset(current)) return true;
   if (!extComm->copy() && current.copy) {
      OVK_TRACE(flowspecTraceFacility(), 8, "preferring non-copy redirect-ip");
      return true;
   }
   // Unlike the address kinds, the earlier redirect wins a tie.
   OVK_TRACE(flowspecTraceFacility(), 8, "ignoring " << extComm->toStrep());
   return false;
}

template <class C>
void translateExtComm(FlowspecRouteConfigSm& sm, C const* extComm, PathAttributesContents const& pathAttrs,
                      Flowspec::Rule& rule, Flowspec::ActionFieldSet& actions, bool& redirectNexthopIpSet,
                      FlowspecRouteKey const& routeKey) {
   OVK_ASSERT(extComm->classification() == extCommClassificationFlowspec());
   if (auto const* rate = dynamic_cast<FlowspecExtCommTrafficRate const*>(extComm)) {
      float const r = rate->rateBytesPerSec();
      if (r == 0.0f) {
         actions.set(Flowspec::actionDrop);
      } else {
         // NaN included: only an exact zero drops.
         actions.set(Flowspec::actionPolice);
         rule.rate = r;
      }
   } else if (auto const* action = dynamic_cast<FlowspecExtCommTrafficAction const*>(extComm)) {
      std::uint32_t v = 0;
      if (action->actionFlags() & FlowspecExtCommTrafficAction::sampleFlag) {
         v |= Flowspec::trafficActionSample;
         actions.set(Flowspec::actionTrafficAction);
      }
      if (action->actionFlags() & FlowspecExtCommTrafficAction::terminalFlag) {
         v |= Flowspec::trafficActionTerminal;
         actions.set(Flowspec::actionTrafficAction);
      }
      // Written even when 0: a later community without flags clears an earlier one's.
      rule.trafficAction = v;
   } else if (auto const* marking = dynamic_cast<FlowspecExtCommTrafficMarking const*>(extComm)) {
      actions.set(Flowspec::actionSetDscp);
      rule.dscp = static_cast<std::uint8_t>(marking->dscp() & 0x3f);
   } else if (auto const* v4 = dynamic_cast<FlowspecExtCommRedirectIpv4 const*>(extComm)) {
      if (shouldExport(sm.afiSafi(), v4, rule.trafficRedirect)) {
         rule.trafficRedirect.address = v4->address();
         rule.trafficRedirect.copy = v4->copy();
         actions.set(Flowspec::actionRedirect);
      }
   } else if (auto const* v6 = dynamic_cast<FlowspecExtCommRedirectIpv6 const*>(extComm)) {
      if (shouldExport(sm.afiSafi(), v6, rule.trafficRedirect)) {
         rule.trafficRedirect.address = v6->address();
         rule.trafficRedirect.copy = v6->copy();
         actions.set(Flowspec::actionRedirect);
      }
   } else if (auto const* nh = dynamic_cast<FlowspecExtCommRedirectNexthop const*>(extComm)) {
      auto const* genNexthop = dynamic_cast<FlowspecGenNexthop const*>(pathAttrs.nexthop.ptr());
      OVK_ASSERT(genNexthop);
      if (shouldExport(nh, genNexthop->addr(), rule.trafficRedirect)) {
         actions.set(Flowspec::actionRedirect);
         redirectNexthopIpSet = true;
         rule.trafficRedirect.address = genNexthop->addr();
         rule.trafficRedirect.copy = nh->copy();
      }
   } else if (auto const* vrfAs = dynamic_cast<FlowspecExtCommRedirectVrfRdAs const*>(extComm)) {
      translateRedirVrf(sm, rule, actions, redirectNexthopIpSet, routeKey, vrfAs->isAs4() ? 2 : 0, 0x02,
                        vrfAs->value());
      // The next-hop redirect is withdrawn once: a later VRF community that does not resolve
      // leaves the redirect an earlier one set.
      redirectNexthopIpSet = false;
   } else if (auto const* vrfIp = dynamic_cast<FlowspecExtCommRedirectVrfRdIpv4 const*>(extComm)) {
      translateRedirVrf(sm, rule, actions, redirectNexthopIpSet, routeKey, 1, 0x02, vrfIp->value());
      redirectNexthopIpSet = false;
   } else {
      OVK_ASSERT(false && "Unhandled rule with classification flowspec");
   }
}

template void translateExtComm<ExtComm>(FlowspecRouteConfigSm&, ExtComm const*, PathAttributesContents const&,
                                        Flowspec::Rule&, Flowspec::ActionFieldSet&, bool&, FlowspecRouteKey const&);
template void translateExtComm<ExtCommIp6>(FlowspecRouteConfigSm&, ExtCommIp6 const*, PathAttributesContents const&,
                                           Flowspec::Rule&, Flowspec::ActionFieldSet&, bool&, FlowspecRouteKey const&);

// ---- FlowspecFsibAdmission ----

namespace {

constexpr char const* kAdmissionAttachment = "flowspecAdmission";

std::uint32_t slateFamily(Flowspec::FlowspecSlateKey const& k) { return k.empty() ? 0 : k.words()[0] & 0xffu; }

Flowspec::FlowspecSlateKey slateKeyOf(FlowspecRouteKey const& key) {
   Flowspec::FlowspecSlateKey s;
   s.copyInFlowspecKey(key.slateKey());
   return s;
}

} // namespace

FlowspecFsibAdmission::FlowspecFsibAdmission(Ovk::Ptr<Flowspec::RuleSet> fsib, Ovk::Ptr<Ovk::TaskScheduler> scheduler)
    : fsib_(std::move(fsib)), scheduler_(std::move(scheduler)) {
   OVK_ASSERT(fsib_);
}

FlowspecFsibAdmission::~FlowspecFsibAdmission() {
   *alive_ = false;
   if (refillTask_ && scheduler_) scheduler_->cancel(*refillTask_);
   for (Writer& w : writers_) {
      w.held.forEach([](FlowspecRouteKey const* k) { k->deleteRef(); });
   }
}

Ovk::Ptr<FlowspecFsibAdmission> FlowspecFsibAdmission::of(Mnemo::EntityManager& em,
                                                           Ovk::Ptr<Ovk::TaskScheduler> const& scheduler) {
   auto existing = Ovk::ptrCast<FlowspecFsibAdmission>(em.attachment(Mnemo::fsibPath, kAdmissionAttachment));
   if (existing) return existing;
   auto fsib = Mnemo::fsibOf(em);
   if (!fsib) return nullptr;
   auto made = Ovk::makePtr<FlowspecFsibAdmission>(fsib, scheduler);
   em.attachmentIs(Mnemo::fsibPath, kAdmissionAttachment, made);
   return made;
}

FlowspecFsibAdmission::Writer* FlowspecFsibAdmission::writerOf(FlowspecRouteConfigSm const& sm) {
   for (Writer& w : writers_) {
      if (w.sm == &sm) return &w;
   }
   return nullptr;
}

FlowspecFsibAdmission::Writer const* FlowspecFsibAdmission::writerOf(FlowspecRouteConfigSm const& sm) const {
   for (Writer const& w : writers_) {
      if (w.sm == &sm) return &w;
   }
   return nullptr;
}

void FlowspecFsibAdmission::writerIs(FlowspecRouteConfigSm& sm) {
   if (writerOf(sm)) return;
   // What an earlier writer of the family left goes: the FSIB's keys carry their family.
   std::uint32_t const family =
       static_cast<std::uint32_t>(sm.afiSafi().afi() == Afi::afiIpv4 ? Ovnet::AddressFamily::ipv4
                                                                      : Ovnet::AddressFamily::ipv6);
   // (Unless a writer of the family writes now: its rules are not stale.)
   bool const familyWritten = std::any_of(writers_.begin(), writers_.end(),
                                          [&](Writer const& w) { return w.sm->afiSafi() == sm.afiSafi(); });
   std::vector<Flowspec::FlowspecSlateKey> stale;
   if (!familyWritten) {
      fsib_->forEachRule([&](Flowspec::Rule const& r) {
         if (slateFamily(r.key) == family) stale.push_back(r.key);
         return true;
      });
   }
   if (stale.size() == fsib_->ruleCount()) {
      fsib_->ruleDelAll();
   } else {
      for (auto const& k : stale) fsib_->ruleDel(k);
   }
   writers_.push_back(Writer{&sm, {}, {}, nullptr, false});
   tailKnown_ = false;
   restartWalks();
   if (!stale.empty()) refusedWaiting_ = true; // room for the others' refused rules
   scheduleRefill();
}

void FlowspecFsibAdmission::writerDel(FlowspecRouteConfigSm& sm) {
   auto it = std::find_if(writers_.begin(), writers_.end(), [&](Writer const& w) { return w.sm == &sm; });
   if (it == writers_.end()) return;
   it->held.forEach([](FlowspecRouteKey const* k) { k->deleteRef(); });
   writers_.erase(it);
   tailKnown_ = false;
   restartWalks();
}

bool FlowspecFsibAdmission::holds(FlowspecRouteConfigSm const& sm, FlowspecRouteKey const& key) const {
   Writer const* w = writerOf(sm);
   return w && w->held.contains(&key);
}

std::size_t FlowspecFsibAdmission::held(FlowspecRouteConfigSm const& sm) const {
   Writer const* w = writerOf(sm);
   return w ? w->held.size() : 0;
}

bool FlowspecFsibAdmission::precedes(Writer const& wa, FlowspecRouteKey const& a, Writer const& wb,
                                     FlowspecRouteKey const& b) const {
   if (wa.sm->afiSafi() == wb.sm->afiSafi()) return RouteOrderIndex::less(&a, &b);
   return slateKeyOf(a) < slateKeyOf(b);
}

FlowspecFsibAdmission::Writer* FlowspecFsibAdmission::lastWriter() {
   Writer* last = nullptr;
   for (Writer& w : writers_) {
      if (w.order.empty()) continue;
      if (!last || precedes(*last, **last->order.rbegin(), w, **w.order.rbegin())) last = &w;
   }
   return last;
}

void FlowspecFsibAdmission::restartWalks() {
   for (Writer& w : writers_) {
      w.scan = nullptr;
      w.scanDone = false;
   }
}

bool FlowspecFsibAdmission::install(Writer& w, FlowspecRouteKey const& key, bool isNew) {
   FlowspecRouteConfigSm& sm = *w.sm;
   switch (fsib_->ruleIs(sm.ruleOf(key))) {
   case Flowspec::RuleIsResult::added:
   case Flowspec::RuleIsResult::replaced:
      if (isNew) {
         ++sm.counters_.added;
         key.newRef();
         w.held.insert(&key);
         w.order.insert(&key);
         tailKnown_ = false;
      } else {
         ++sm.counters_.replaced;
      }
      return true;
   case Flowspec::RuleIsResult::refusedFull:
      // Out of shared memory with slots free: nothing to displace for.
      sm.countRefusedFull(key);
      refusedWaiting_ = true;
      return false;
   case Flowspec::RuleIsResult::refusedDetached: return false;
   }
   return false;
}

void FlowspecFsibAdmission::release(Writer& w, FlowspecRouteKey const& key) {
   fsib_->ruleDel(slateKeyOf(key));
   // Out of the FSIB, its redirects depend on the import configuration no more.
   w.sm->forgetRedirects(key);
   w.order.erase(&key);
   w.held.erase(&key);
   tailKnown_ = false;
   key.deleteRef();
}

void FlowspecFsibAdmission::refuse(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key) {
   // Counted without the rule being built: at a million rules most are refused.
   fsib_->refusalNote();
   sm.countRefusedFull(key);
   refusedWaiting_ = true;
}

FlowspecFsibAdmission::Tail const& FlowspecFsibAdmission::tail() {
   if (!tailKnown_) {
      tail_ = Tail{};
      if (Writer* last = lastWriter()) {
         tail_.writer = last;
         tail_.key = *last->order.rbegin();
         tail_.prefix = tail_.key->orderPrefix();
      }
      tailKnown_ = true;
   }
   return tail_;
}

void FlowspecFsibAdmission::routePresent(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key) {
   Writer* w = writerOf(sm);
   if (!w) return;
   bool const full = fsib_->ruleCount() >= fsib_->ruleCapacity();
   if (full) {
      // The commonest answer at a million rules first: a rule of the last rule's table that
      // comes after it is not held, and is refused without a lookup.
      Tail const& t = tail();
      if (t.writer == w && &key != t.key) {
         std::uint64_t const prefix = key.orderPrefix();
         if (prefix > t.prefix || (prefix == t.prefix && RouteOrderIndex::less(t.key, &key))) {
            restartWalks();
            refuse(sm, key);
            return;
         }
      }
   }
   if (w->held.contains(&key)) {
      (void)install(*w, key, false);
      return;
   }
   restartWalks();
   if (full) {
      Tail const t = tail();
      if (!t.key || !precedes(*w, key, *t.writer, *t.key)) {
         refuse(sm, key);
         return;
      }
      // The last rule held makes room: the FSIB holds the rules that come first.
      Writer& last = *t.writer;
      FlowspecRouteConfigSm& lastSm = *last.sm;
      Ovk::Ptr<RouteKey const> const keep(t.key);
      release(last, *t.key);
      fsib_->refusalNote();
      ++lastSm.counters_.displaced;
      lastSm.countRefusedFull(*t.key);
      refusedWaiting_ = true;
   }
   (void)install(*w, key, true);
}

void FlowspecFsibAdmission::routeGone(FlowspecRouteConfigSm& sm, FlowspecRouteKey const& key) {
   Writer* w = writerOf(sm);
   if (!w || !w->held.contains(&key)) return;
   release(*w, key);
   ++sm.counters_.deleted;
   restartWalks();
   scheduleRefill();
}

void FlowspecFsibAdmission::scheduleRefill() {
   if (!refusedWaiting_) return;
   if (!scheduler_) {
      while (refill(SIZE_MAX)) {
      }
      return;
   }
   // The walk waits for rules to stop leaving, within the most it may wait.
   Ovk::Clock::time_point const now = scheduler_->now();
   if (refillTask_) {
      if (now - refillAsked_ >= kRefillMaxDelay) return; // due soon anyway
      scheduler_->cancel(*refillTask_);
      refillTask_.reset();
   } else {
      refillAsked_ = now;
   }
   Ovk::Duration const left = refillAsked_ + kRefillMaxDelay - now;
   postRefill(std::min<Ovk::Duration>(kRefillSettle, left));
}

void FlowspecFsibAdmission::postRefill(Ovk::Duration delay) {
   refillTask_ = scheduler_->postAfter(
       delay,
       [this, alive = alive_] {
          if (!*alive) return;
          refillTask_.reset();
          // A walk longer than a slice goes on at the next turn.
          if (refill(kRefillKeysPerSlice)) postRefill(Ovk::Duration::zero());
       },
       "fsibRefill");
}

FlowspecRouteKey const* FlowspecFsibAdmission::nextRefused(Writer& w, std::size_t& budget) {
   if (w.scanDone) return nullptr;
   if (!w.sm->routeTable()) {
      w.scanDone = true;
      return nullptr;
   }
   RouteOrderIndex const& order = w.sm->routeTable()->ribTable().order();
   RouteOrderIndex::Iterator it;
   if (w.scan) {
      it = order.lowerBound(*w.scan);
   } else if (w.order.empty()) {
      it = order.begin();
   } else {
      it = order.lowerBound(**w.order.rbegin());
   }
   for (; it != order.end(); ++it) {
      if (budget == 0) {
         w.scan = Ovk::Ptr<RouteKey const>(*it);
         return nullptr;
      }
      --budget;
      auto const* key = static_cast<FlowspecRouteKey const*>(*it);
      if (key->wontExportReason().empty() && !w.held.contains(key)) {
         w.scan = Ovk::Ptr<RouteKey const>(key);
         return key;
      }
   }
   w.scan = nullptr;
   w.scanDone = true;
   return nullptr;
}

bool FlowspecFsibAdmission::refill(std::size_t budget) {
   while (fsib_->ruleCount() < fsib_->ruleCapacity()) {
      Writer* best = nullptr;
      FlowspecRouteKey const* bestKey = nullptr;
      for (Writer& w : writers_) {
         FlowspecRouteKey const* k = nextRefused(w, budget);
         // A walk the budget cut short may yet find a rule before the others' candidates.
         if (!k && !w.scanDone) return true;
         if (k && (!best || precedes(w, *k, *best, *bestKey))) {
            best = &w;
            bestKey = k;
         }
      }
      if (!best) {
         refusedWaiting_ = false; // nothing refused is left
         return false;
      }
      if (!install(*best, *bestKey, true)) return false;
      ++best->sm->counters_.refilled;
   }
   return false;
}

// ---- FlowspecRouteConfigSm ----

class FlowspecRouteConfigSm::RtAfiSafiReactor : public RtToVrfIdList::Reactor {
 public:
   RtAfiSafiReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<RtToVrfIdList> list) : Reactor(std::move(list)), sm_(sm) {}
   ~RtAfiSafiReactor() override { hasNotificationActiveIs(false); }
   void handleKey(AfiSafi const& afiSafi) override { sm_.handleRtAfiSafi(afiSafi); }

 private:
   FlowspecRouteConfigSm& sm_;
};

FlowspecRouteConfigSm::FlowspecRouteConfigSm(BgpVrfIdBase vrfIdBase, AfiSafi afiSafi,
                                             Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable,
                                             Ovk::Ptr<Mnemo::EntityManager> entityManager,
                                             Ovk::Ptr<RtToVrfIdList> rtToVrfIdList,
                                             Ovk::Ptr<CoreDedupTables> coreDedupTables,
                                             Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId,
                                             Ovk::Ptr<Ovk::TaskScheduler> scheduler)
    : FwdTgtRouteConfigSm(vrfIdBase, afiSafi, ForwardingTarget::flowspec, std::move(routeTable)),
      entityManager_(std::move(entityManager)), rtToVrfIdList_(std::move(rtToVrfIdList)),
      coreDedupTables_(std::move(coreDedupTables)), rkToRedirVrfId_(std::move(rkToRedirVrfId)),
      scheduler_(std::move(scheduler)) {
   if (rtToVrfIdList_) rtAfiSafiReactor_ = std::make_unique<RtAfiSafiReactor>(*this, rtToVrfIdList_);
   handleInitialized();
}

FlowspecRouteConfigSm::~FlowspecRouteConfigSm() {
   if (admission_) admission_->writerDel(*this);
   vpnAfiSafiReactor_ = nullptr;
   rtAfiSafiReactor_ = nullptr;
}

OVK_FWK_TYPE(FlowspecRouteConfigSm, "Routing::Bgp::FlowspecPlugin::FlowspecRouteConfigSm")

AfiSafi FlowspecRouteConfigSm::redirVrfRtAfiSafi() const {
   OVK_ASSERT_MSG(afiSafi().afi() == Afi::afiIpv4 || afiSafi().afi() == Afi::afiIpv6,
                  "afiSafi().afi() == Afi::afiIpv4_ || afiSafi().afi() == Afi::afiIpv6_");
   return afiSafi().afi() == Afi::afiIpv4 ? kIpv4UnicastAfiSafi : kIpv6UnicastAfiSafi;
}

AfiSafi FlowspecRouteConfigSm::redirVrfVpnAfiSafi() const {
   OVK_ASSERT_MSG(afiSafi().afi() == Afi::afiIpv4 || afiSafi().afi() == Afi::afiIpv6,
                  "afiSafi().afi() == Afi::afiIpv4_ || afiSafi().afi() == Afi::afiIpv6_");
   return afiSafi().afi() == Afi::afiIpv4 ? kVpnIpv4AfiSafi : kVpnIpv6AfiSafi;
}

void FlowspecRouteConfigSm::vpnAfiSafiReactorIs(std::unique_ptr<FlowspecVpnAfiSafiReactor> reactor) {
   // The old one goes first: it may re-translate while it detaches nothing.
   vpnAfiSafiReactor_ = nullptr;
   vpnAfiSafiReactor_ = std::move(reactor);
   if (vpnAfiSafiReactor_) vpnAfiSafiReactor_->hasNotificationActiveIs(true);
}

FlowspecRouteKeySet* FlowspecRouteConfigSm::rtToRouteKeySet(ExtComm const* rt) const {
   auto const it = rtToRouteKeySet_.find(rt);
   return it == rtToRouteKeySet_.end() ? nullptr : it->second.ptr();
}

FlowspecRouteKeySet& FlowspecRouteConfigSm::rtToRouteKeySetIs(Ovk::Ptr<ExtComm const> const& rt) {
   Ovk::Ptr<FlowspecRouteKeySet>& set = rtToRouteKeySet_[rt.ptr()];
   if (!set) set = Ovk::makePtr<FlowspecRouteKeySet>(rt);
   return *set;
}

void FlowspecRouteConfigSm::rtToRouteKeySetDel(ExtComm const* rt) { rtToRouteKeySet_.erase(rt); }

void FlowspecRouteConfigSm::forgetRedirects(FlowspecRouteKey const& key) {
   for (auto it = rtToRouteKeySet_.begin(); it != rtToRouteKeySet_.end();) {
      it->second->routeKeyDel(&key);
      if (it->second->routeKeys() == 0) {
         it = rtToRouteKeySet_.erase(it);
      } else {
         ++it;
      }
   }
   if (rkToRedirVrfId_ && rkToRedirVrfId_->size() != 0) rkToRedirVrfId_->mapDel(&key);
}

void FlowspecRouteConfigSm::retranslateAll() {
   std::vector<Ovk::Ptr<RouteKey const>> keys;
   for (auto const& [rt, set] : rtToRouteKeySet_) {
      for (FlowspecRouteKey const* k : set->routeKey()) keys.emplace_back(k);
   }
   for (auto const& k : keys) handleRouteEntry(k.ptr());
}

void FlowspecRouteConfigSm::handleRouteEntry(RouteKey const* baseRouteKey) {
   if (!fsib_) {
      OVK_TRACE(flowspecTraceFacility(), 8, "FSIB is not initialized yet, deferring");
      return;
   }
   OVK_ASSERT(baseRouteKey);
   // The keys of a flowspec table are flowspec keys: the family says so without a cast
   // across libraries, which costs a string comparison per rule.
   OVK_ASSERT(baseRouteKey->safi() == Safi::flowspec);
   auto const* routeKey = static_cast<FlowspecRouteKey const*>(baseRouteKey);
   forgetRedirects(*routeKey);
   if (!routeKey->wontExportReason().empty()) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "Ignoring rule with routeKey " << *routeKey << " (" << routeKey->wontExportReason() << ")");
      ++counters_.notExportable;
      return;
   }
   if (routeTable() && routeTable()->routeKeyPresent(*routeKey)) {
      admission_->routePresent(*this, *routeKey);
   } else {
      admission_->routeGone(*this, *routeKey);
   }
}

Flowspec::Rule FlowspecRouteConfigSm::ruleOf(FlowspecRouteKey const& key) {
   forgetRedirects(key);
   PathAttributesContents const* pathAttrs = routeTable()->getEffectivePathAttrs(key);
   OVK_ASSERT(pathAttrs);
   Flowspec::Rule rule;
   rule.key.copyInFlowspecKey(key.slateKey());
   Flowspec::ActionFieldSet actions(Flowspec::actionNone);
   // The two lists have a next-hop flag each: a next-hop redirect of the first list is not
   // withdrawn by a redirect to a VRF in the second.
   bool redirectNexthopIpSet = false;
   for (ExtCommIp6 const* c : pathAttrs->extCommIp6List.classificationList(extCommClassificationFlowspec())) {
      translateExtComm(*this, c, *pathAttrs, rule, actions, redirectNexthopIpSet, key);
   }
   redirectNexthopIpSet = false;
   for (ExtComm const* c : pathAttrs->extCommList.classificationList(extCommClassificationFlowspec())) {
      translateExtComm(*this, c, *pathAttrs, rule, actions, redirectNexthopIpSet, key);
   }
   if (actions.any(0x7d)) actions.clear(Flowspec::actionNone);
   // A redirect to an address without a VRF goes to this VRF's table.
   if (actions.has(Flowspec::actionRedirect) && rule.trafficRedirect.vrfId == Flowspec::TrafficRedirect::noVrfId) {
      rule.trafficRedirect.vrfId = vrfIdBase().value();
   }
   rule.actions = actions;
   rule.ruleId = static_cast<std::uint32_t>(key.ruleId());
   return rule;
}

void FlowspecRouteConfigSm::countRefusedFull(FlowspecRouteKey const& key) {
   ++counters_.refusedFull;
   if (auto const source = routeTable()->ribTable().bestSource(key)) {
      auto& by = counters_.refusedFullBySource;
      if (*source >= by.size()) by.resize(*source + 1);
      ++by[*source];
   }
}

void FlowspecRouteConfigSm::handleInitialized() {
   OVK_TRACE(flowspecTraceFacility(), 8, "FlowspecRouteConfigSm(" << afiSafi() << " vrf=" << vrfIdBase() << ")");
   OVK_ASSERT(entityManager_);
   Mnemo::mountFsib(*entityManager_);
   fsib_ = Mnemo::fsibOf(*entityManager_);
   OVK_ASSERT_MSG(fsib_, "fsib()");
   // Every start begins from an FSIB without rules of its family: an earlier run's rules are
   // removed, not reconciled. The other family's rules stay.
   admission_ = FlowspecFsibAdmission::of(*entityManager_, scheduler_);
   admission_->writerIs(*this);
   hasNotificationActiveIs(true);
   handleRouteEntryAll();
   handleRtAfiSafiAll();
}

void FlowspecRouteConfigSm::handleDestroyed() {
   OVK_TRACE(flowspecTraceFacility(), 8, "FlowspecRouteConfigSm(" << afiSafi() << " vrf=" << vrfIdBase() << ")");
   if (admission_) admission_->writerDel(*this);
   admission_ = nullptr;
   if (entityManager_ && fsib_) Mnemo::unmountFsib(*entityManager_);
   fsib_ = nullptr;
   vpnAfiSafiReactor_ = nullptr;
   if (rtAfiSafiReactor_) rtAfiSafiReactor_->hasNotificationActiveIs(false);
   // The redirect-VRF map is the family's, shared with other state machines: only the
   // entries of this one's keys go (every key with an entry is in some route target's set).
   if (rkToRedirVrfId_) {
      for (auto const& [rt, set] : rtToRouteKeySet_) {
         for (FlowspecRouteKey const* key : set->routeKey()) rkToRedirVrfId_->mapDel(key);
      }
   }
   rtToRouteKeySet_.clear();
}

void FlowspecRouteConfigSm::handleRtAfiSafi(AfiSafi afiSafi) {
   if (afiSafi != redirVrfRtAfiSafi()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "ignoring " << afiSafi);
      return;
   }
   OVK_TRACE(flowspecTraceFacility(), 8, afiSafi);
   Ovk::Ptr<AfiSafiRtToVrfIdList> const* list = rtToVrfIdList_ ? rtToVrfIdList_->find(afiSafi) : nullptr;
   if (list && *list) {
      vpnAfiSafiReactorIs(std::make_unique<FlowspecVpnAfiSafiReactor>(*this, *list));
      return;
   }
   vpnAfiSafiReactorIs(nullptr);
   retranslateAll();
}

void FlowspecRouteConfigSm::handleRtAfiSafiAll() {
   if (!rtAfiSafiReactor_) return;
   if (!rtAfiSafiReactor_->notificationActive()) {
      // Switching the reactor on runs this for every family of the list.
      rtAfiSafiReactor_->hasNotificationActiveIs(true);
      return;
   }
   std::vector<AfiSafi> families;
   for (auto const& [f, l] : rtToVrfIdList_->entries()) families.push_back(f);
   for (AfiSafi const f : families) handleRtAfiSafi(f);
}

std::string FlowspecRouteConfigSm::notInForwardingReason(RouteKey const& key) const {
   auto const* routeKey = dynamic_cast<FlowspecRouteKey const*>(&key);
   if (!routeKey) return "not a flowspec rule";
   if (!routeKey->wontExportReason().empty()) {
      std::string why;
      FlowspecWontExportReason const r = routeKey->wontExportReason();
      if (r.unrecognizedTail()) why += "unrecognized component";
      if (r.nonZeroIpv6Offset()) why += std::string(why.empty() ? "" : ", ") + "IPv6 prefix offset";
      if (r.componentTypeMoreThanOnce()) why += std::string(why.empty() ? "" : ", ") + "component type repeated";
      return "cannot be forwarded: " + why;
   }
   if (!fsib_ || !admission_) return "FSIB not mounted";
   if (admission_->holds(*this, *routeKey)) return {};
   if (!routeTable() || !routeTable()->routeKeyPresent(key)) return "no best path";
   return "FSIB full";
}

// ---- FlowspecRouteConfigSmFactory ----

FlowspecRouteConfigSmFactory::FlowspecRouteConfigSmFactory(AfiSafi afiSafi,
                                                           Ovk::Ptr<Mnemo::EntityManager> entityManager,
                                                           Ovk::Ptr<RtToVrfIdList> rtToVrfIdList,
                                                           Ovk::Ptr<CoreDedupTables> coreDedupTables,
                                                           Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId,
                                                           Ovk::Ptr<Ovk::TaskScheduler> scheduler)
    : RouteConfigSmFactoryBase(afiSafi), entityManager_(std::move(entityManager)),
      rtToVrfIdList_(std::move(rtToVrfIdList)), coreDedupTables_(std::move(coreDedupTables)),
      rkToRedirVrfId_(std::move(rkToRedirVrfId)), scheduler_(std::move(scheduler)) {}

OVK_FWK_TYPE(FlowspecRouteConfigSmFactory, "Routing::Bgp::FlowspecPlugin::FlowspecRouteConfigSmFactory")

Ovk::Ptr<FwdTgtRouteConfigSm> FlowspecRouteConfigSmFactory::instantiate(
    BgpVrfIdBase const& vrfIdBase, Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> const& routeTable,
    Ovk::Ptr<NexthopListMapBase const> const&) {
   return Ovk::makePtr<FlowspecRouteConfigSm>(vrfIdBase, afiSafi(), routeTable, entityManager_, rtToVrfIdList_,
                                              coreDedupTables_, rkToRedirVrfId_, scheduler_);
}

void FlowspecRouteConfigSmFactory::detach(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm) {
   auto const configSm = Ovk::ptrCast<FlowspecRouteConfigSm>(sm);
   OVK_ASSERT_MSG(configSm, "configSm");
   if (configSm->fsib()) configSm->fsib()->detach();
}

} // namespace Routing::Bgp::FlowspecPlugin
