#include "agent/BgpRouting.h"

#include <algorithm>
#include <malloc.h>

namespace Flowspecd {

namespace {

// The import controls (policy, limits) are the flowspec families': unicast routes come in
// as sent.
bool importControlled(AfiSafi family) { return family.safi() == Safi::flowspec; }

std::string errorsText(BgpParsedUpdate const& u) {
   std::string text;
   for (BgpUpdateError const& e : u.errors) {
      if (!text.empty()) text += ", ";
      text += toStrep(e.reason);
      if (char const* const t = bgpUpdateErrorText(e.reason); *t) text += std::string(" (") + t + ")";
      text += std::string(": ") + toStrep(e.action);
   }
   return text;
}

} // namespace

// One neighbor: its source in the RIB, and what its current session reads with.
struct BgpRouting::Peer {
   BgpPeer identity;
   RibSource source = kLocalRibSource;
   bool established = false;
   std::unique_ptr<BgpUpdateDecoder> decoder;
   Ovk::Ptr<AdjRibinCollection> adjRibins;
   std::unique_ptr<PathAttributesBuilder> attributes;
   std::map<AfiSafi, Ovk::Ptr<RibTable>> tables; // the families of the session
   BgpPeerOutput* output = nullptr;               // the established session's way out
   bool routeRefresh = false;                     // the session negotiated route refresh
   // What the sessions before this one did.
   BgpUpdateDecoderCounters previousSessions;
   std::map<AfiSafi, AdjRibin::Counters> ribinBefore;
   std::uint64_t attributeSetsBuilt = 0;
   std::uint64_t attributeSetsReused = 0;
   // Walks of the tables a slice at a time: the paths of a session that went down leaving
   // (reimport null), or those of the current session its import now refuses.
   struct Purge {
      Ovk::Ptr<RibTable> table;
      Ovk::Ptr<RouteKey const> cursor;
      Ovk::Ptr<AdjRibin> reimport;
   };
   std::vector<Purge> purges;

   AdjRibin* adjRibinOf(RouteKey const& key) const {
      if (!adjRibins) return nullptr;
      auto const& all = adjRibins->adjRibins();
      auto const it = all.find(key.nlriType());
      return it == all.end() ? nullptr : it->second.ptr();
   }
};

BgpRouting::BgpRouting(Logger& logger, Ovk::Ptr<Plugin::Context> context)
    : logger_(logger), context_(std::move(context)), ribOuts_(context_),
      refusalLog_(logger, context_->taskScheduler(), [this] { return fsibRefusals(); }),
      globalLimit_(Ovk::makePtr<GlobalRuleLimit>()) {
   OVK_ASSERT(context_);
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto table = ribTable(family)) globalLimit_->tableIs(table);
   }
   Ovk::Ptr<RibTable> const v4 = ribTable(kIpv4Unicast);
   Ovk::Ptr<RibTable> const v6 = ribTable(kIpv6Unicast);
   if (v4 || v6) validation_ = Ovk::makePtr<RuleValidation>(v4, v6);
}

BgpRouting::~BgpRouting() {
   if (purgeTask_) context_->taskScheduler()->cancel(*purgeTask_);
   // The sessions' paths go before the tables and keys they point into, and nothing is sent
   // of their going.
   for (auto const& [id, p] : peers_) ribOuts_.stop(p->identity);
   for (auto const& [id, p] : peers_) p->purges.clear();
   for (auto const& [id, p] : peers_) {
      for (auto const& [family, table] : p->tables) table->pathDelAll(p->source);
   }
   peers_.clear();
}

Ovk::Ptr<RibTable> BgpRouting::ribTable(AfiSafi family) const { return Plugin::defaultVrfRibTable(*context_, family); }

Ovk::Ptr<FwdTgtRouteConfigSm> BgpRouting::exportSm(AfiSafi family) const {
   return context_->routeConfigSm(ForwardingTarget::flowspec, BgpL3VrfId::defaultVrfId(), family);
}

BgpRouting::Peer* BgpRouting::peerOf(BgpPeer const& from) const {
   auto const it = peers_.find({from.address, from.vrfId});
   return it == peers_.end() ? nullptr : it->second.get();
}

void BgpRouting::handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) {
   std::unique_ptr<Peer>& slot = peers_[{from.address, from.vrfId}];
   if (!slot) slot = std::make_unique<Peer>();
   Peer& p = *slot;
   if (p.established) handleSessionDown(p.identity);
   // What the last session left must be gone before this one's paths come: they share the
   // source.
   while (purgeStep(p, SIZE_MAX)) {
   }
   p.identity = from;
   p.source = context_->ribSources()->sourceIs(from);
   p.established = true;
   p.output = &output;
   p.routeRefresh = negotiated.routeRefresh;
   Ovk::Ptr<ImportControl const> const control = importControlOf(from.address);

   BgpUpdateDecoder::Options options;
   options.fourOctetAs = negotiated.fourOctetAs;
   options.externalPeer = !from.internal();
   auto parseContext = Ovk::makePtr<BgpParseContext>(context_->dedupTablesVrf(from.vrfId), from.address.str());
   p.decoder = std::make_unique<BgpUpdateDecoder>(parseContext, options);
   p.adjRibins = AdjRibinCollection::create();
   p.tables.clear();
   auto const inputTables = context_->inputDedupTables(from.vrfId);
   for (AfiSafi const family : negotiated.families) {
      Ovk::Ptr<Plugin::AfiSafiHelpers> const helpers = context_->afiSafiTable()->helpers(family);
      auto const hook =
          helpers
              ? helpers->hookAs<Plugin::BgpInputConstructAdjRibinAfiSafiPluginBase>(Plugin::HookId::constructAdjRibin)
              : nullptr;
      Ovk::Ptr<RibTable> const table = ribTable(family);
      if (!hook || !table) continue; // no plugin serves the family: its NLRI are skipped
      p.decoder->ruleCollectionsIs(context_->parseRuleCollections(family), {});
      hook->instantiateAdjRibin(AdjRibinType::received, p.adjRibins, inputTables);
      if (auto adjRibin = p.adjRibins->adjRibin(fromAfiSafi(family))) {
         adjRibin->sourceIs(p.source);
         adjRibin->ribTableIs(table);
         if (importControlled(family)) {
            adjRibin->importControlIs(control);
            adjRibin->validationIs(validationOf(from));
         }
      }
      p.tables[family] = table;
   }
   p.attributes = std::make_unique<PathAttributesBuilder>(context_->rtAttrDedupTable(), context_->coreDedupTables(),
                                                          context_->parseExtCommRuleCollections());
   // Unicast routes are learnt, not advertised: the session is sent only its End-of-RIB.
   std::map<AfiSafi, Ovk::Ptr<RibTable>> advertised = p.tables;
   std::erase_if(advertised, [](auto const& entry) { return entry.first.safi() == Safi::unicast; });
   ribOuts_.start(p.identity, p.source, negotiated, output, advertised);
}

void BgpRouting::handleRouteRefresh(BgpPeer const& from, AfiSafi family) {
   Peer* const p = peerOf(from);
   if (!p || !p->established) return;
   ribOuts_.routeRefresh(p->identity, family);
}

void BgpRouting::handleSessionDown(BgpPeer const& from) {
   Peer* const p = peerOf(from);
   if (!p || !p->established) return;
   p->established = false;
   p->output = nullptr;
   ribOuts_.stop(p->identity);
   // The session's decoder, whose last result still holds rules, its RIB-ins and its
   // attributes go; their counts stay.
   p->previousSessions += p->decoder->counters();
   p->attributeSetsBuilt += p->attributes->built();
   p->attributeSetsReused += p->attributes->reused();
   for (auto const& [type, adjRibin] : p->adjRibins->adjRibins()) {
      if (adjRibin->ribTable()) p->ribinBefore[adjRibin->ribTable()->afiSafi()] += adjRibin->counters();
   }
   p->decoder = nullptr;
   p->attributes = nullptr;
   p->adjRibins = nullptr;
   // RFC 4271 section 8.2.2: the peer's routes go with its session. A million of them take
   // a while, so they go a slice per turn of the event loop: keepalives, the other sessions
   // and the control socket are served in between. Their removal takes the place of any
   // walk of a new import policy.
   std::erase_if(p->purges, [](Peer::Purge const& w) { return w.reimport != nullptr; });
   for (auto const& [family, table] : p->tables) p->purges.push_back(Peer::Purge{table, nullptr, nullptr});
   schedulePurge();
}

bool BgpRouting::purgeStep(Peer& p, std::size_t budget) {
   if (p.purges.empty()) return false;
   std::size_t left = budget;
   while (!p.purges.empty() && left > 0) {
      Peer::Purge& purge = p.purges.front();
      std::size_t const slice = std::min(left, kPurgeKeysPerSlice);
      if (purge.reimport) {
         purge.reimport->reimportSome(purge.cursor, slice);
      } else {
         purge.table->pathDelSome(p.source, purge.cursor, slice);
      }
      left -= slice;
      if (!purge.cursor) p.purges.erase(p.purges.begin());
   }
   flush(p);
   if (!p.purges.empty()) return true;
   // The session's paths, and the keys and attributes only it held, are freed by now: give
   // the freed heap back, so that a table that went with its peer leaves the RSS.
   if (!p.established) ::malloc_trim(0);
   return false;
}

void BgpRouting::schedulePurge() {
   if (purgeTask_) return;
   purgeTask_ = context_->taskScheduler()->post(
       [this] {
          purgeTask_.reset();
          bool more = false;
          for (auto const& [id, p] : peers_) {
             if (purgeStep(*p, kPurgeKeysPerSlice)) more = true;
          }
          if (more) schedulePurge();
       },
       "ribPurge");
}

std::size_t BgpRouting::purgesPending() const {
   std::size_t n = 0;
   for (auto const& [id, p] : peers_) n += p->purges.size();
   return n;
}

UpdateOutcome BgpRouting::handleUpdate(BgpPeer const& from, MessageView const& update) {
   Peer* const p = peerOf(from);
   // Sessions are known from their Established on: anything else is a broken invariant.
   OVK_ASSERT(p && p->established);
   BgpParsedUpdate const& u = p->decoder->decode(update.bytes);
   if (u.action == BgpUpdateAction::sessionReset) {
      logger_.log(from.address.str(), "UPDATE refused: " + errorsText(u));
      return UpdateOutcome::of(u);
   }
   if (!u.errors.empty()) {
      logger_.log(from.address.str(), "UPDATE " + std::string(toStrep(u.action)) + ": " + errorsText(u));
   }
   // RFC 7606 section 2: under treat-as-withdraw the announced rules are withdrawn too.
   bool const withdrawAll = u.announcedWithdrawn();
   for (BgpParsedNlri const& n : u.nlri) {
      if (!n.routeKey || (n.reachable && !withdrawAll)) continue;
      if (AdjRibin* const r = p->adjRibinOf(*n.routeKey)) r->withdraw(*n.routeKey);
   }
   AdjRibin* tornDown = nullptr;
   if (!withdrawAll) {
      Ovk::Ptr<RtAttr const> attrs;
      for (BgpParsedNlri const& n : u.nlri) {
         if (!n.routeKey || !n.reachable) continue;
         AdjRibin* const r = p->adjRibinOf(*n.routeKey);
         if (!r) continue;
         if (!attrs) attrs = p->attributes->rtAttrOf(*u.attributes);
         if (r->announce(n, attrs) == AdjRibin::Announced::teardown) {
            tornDown = r;
            break;
         }
      }
   }
   flush(*p);
   UpdateOutcome outcome = UpdateOutcome::of(u);
   if (tornDown) {
      // RFC 4486 section 4: Cease 6/1 with the family and the limit; the neighbor stays down
      // for the limit's restart time.
      RuleLimit const& limit = *tornDown->importControl()->limit;
      outcome.reset = ceaseMaxPrefixes(tornDown->ribTable()->afiSafi(), limit.maxRules);
      outcome.idleHoldSeconds = limit.restartSeconds;
   }
   return outcome;
}

Ovk::Ptr<RuleValidation> BgpRouting::validationOf(BgpPeer const& peer) const {
   auto const it = importSettings_.find(peer.address);
   std::optional<bool> const set = it == importSettings_.end() ? std::nullopt : it->second.validate;
   return set.value_or(validationDefault_ && !peer.internal()) ? validation_ : nullptr;
}

Ovk::Ptr<ImportControl const> BgpRouting::importControlOf(Ovnet::IpGenAddr const& neighbor) const {
   auto const it = importSettings_.find(neighbor);
   ImportSettings const none;
   ImportSettings const& s = it == importSettings_.end() ? none : it->second;
   bool const global = globalLimit_->limit().has_value();
   if (!s.policy && !s.limit && !global) return nullptr;
   auto control = Ovk::makePtr<ImportControl>();
   control->policy = s.policy;
   control->limit = s.limit;
   if (global) control->global = globalLimit_;
   control->heard = [this, neighbor](LimitEvent const& e) { logLimitEvent(neighbor, e); };
   return control;
}

void BgpRouting::logLimitEvent(Ovnet::IpGenAddr const& neighbor, LimitEvent const& e) const {
   std::string const family = familyName(e.family);
   std::string const max = std::to_string(e.limit.maxRules);
   std::string const held = std::to_string(e.held);
   switch (e.kind) {
   case LimitEvent::Kind::warning:
      logger_.log(neighbor.str(), family + ": " + held + " rule(s) reach " + std::to_string(e.limit.warningPercent) +
                                      "% of max-rules " + max);
      return;
   case LimitEvent::Kind::exceeded:
      logger_.log(neighbor.str(), e.limit.action == RuleLimitAction::warning
                                      ? family + ": " + held + " rule(s) exceed max-rules " + max +
                                            " (max-rules-action warning: they are kept)"
                                      : family + ": max-rules " + max +
                                            " reached: rules beyond it are refused (max-rules-action discard)");
      return;
   case LimitEvent::Kind::teardown:
      logger_.log(neighbor.str(), family + ": a rule beyond max-rules " + max +
                                      ": the session ends (max-rules-action teardown) and stays down for " +
                                      std::to_string(e.limit.restartSeconds) + " s");
      return;
   case LimitEvent::Kind::globalWarning:
      logger_.log("-", "the neighbors' rules reach " + std::to_string(e.limit.warningPercent) +
                           "% of the global max-rules " + max + " (" + held + " held; " + neighbor.str() +
                           " sent the last)");
      return;
   case LimitEvent::Kind::globalReached:
      logger_.log("-", "the global max-rules " + max + " is reached: rules beyond it are refused (first from " +
                           neighbor.str() + ")");
      return;
   }
}

void BgpRouting::importSettingsIs(Ovnet::IpGenAddr const& neighbor, ImportSettings settings) {
   auto const it = importSettings_.find(neighbor);
   if (it != importSettings_.end() && it->second == settings) return;
   importSettings_[neighbor] = std::move(settings);
   auto const p = peers_.find({neighbor, BgpL3VrfId::defaultVrfId()});
   if (p == peers_.end() || !p->second->established) return;
   Peer& peer = *p->second;
   Ovk::Ptr<ImportControl const> const control = importControlOf(neighbor);
   std::erase_if(peer.purges, [](Peer::Purge const& w) { return w.reimport != nullptr; });
   for (auto const& [type, adjRibin] : peer.adjRibins->adjRibins()) {
      if (!adjRibin->ribTable() || !importControlled(adjRibin->ribTable()->afiSafi())) continue;
      adjRibin->importControlIs(control);
      adjRibin->validationIs(validationOf(peer.identity));
      if ((control && control->policy) || adjRibin->validation()) {
         peer.purges.push_back(Peer::Purge{adjRibin->ribTable(), nullptr, adjRibin});
      }
   }
   schedulePurge();
   std::string families;
   if (peer.routeRefresh && peer.output) {
      for (auto const& [family, table] : peer.tables) {
         if (!importControlled(family)) continue;
         peer.output->sendRouteRefresh(family);
         families += (families.empty() ? "" : ", ") + familyName(family);
      }
   }
   logger_.log(neighbor.str(), "import settings changed: rules now refused leave; " +
                                   (families.empty() ? std::string("the session does not do route refresh: rules now "
                                                                   "allowed come in when the peer announces them again")
                                                     : "asked for " + families + " again (ROUTE-REFRESH)"));
}

void BgpRouting::globalRuleLimitIs(std::optional<RuleLimit> limit) {
   bool const had = globalLimit_->limit().has_value();
   globalLimit_->limitIs(limit);
   if (had == limit.has_value()) return; // the RIB-ins read the limit in place
   // The global limit comes or goes: every session's control changes with it.
   for (auto const& [id, p] : peers_) {
      if (!p->established) continue;
      Ovk::Ptr<ImportControl const> const control = importControlOf(id.first);
      for (auto const& [type, adjRibin] : p->adjRibins->adjRibins()) {
         if (adjRibin->ribTable() && importControlled(adjRibin->ribTable()->afiSafi())) {
            adjRibin->importControlIs(control);
         }
      }
   }
}

std::map<AfiSafi, BgpRouting::RefusedView> BgpRouting::refused(Ovnet::IpGenAddr const& neighbor,
                                                               BgpVrfIdBase vrf) const {
   std::map<AfiSafi, RefusedView> out;
   auto const it = peers_.find({neighbor, vrf});
   if (it == peers_.end() || !it->second->adjRibins) return out;
   for (auto const& [type, adjRibin] : it->second->adjRibins->adjRibins()) {
      if (!adjRibin->ribTable()) continue;
      out[adjRibin->ribTable()->afiSafi()] = RefusedView{adjRibin->refused(), adjRibin->refusedNotKept()};
   }
   return out;
}

void BgpRouting::flush(Peer& p) {
   bool changed = false;
   // Unicast first: validation hears its changes, and the rules they concern move in or out
   // of the flowspec tables before those flush.
   for (auto const& [family, t] : p.tables) {
      if (family.safi() != Safi::unicast || t->pendingChanges() == 0) continue;
      t->flushChanges();
   }
   if (validation_) validation_->revalidate();
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      Ovk::Ptr<RibTable> const t = ribTable(family);
      if (!t || t->pendingChanges() == 0) continue;
      t->flushChanges();
      changed = true;
   }
   if (changed) noteRefusals();
}

std::uint64_t BgpRouting::fsibRefusals() const {
   std::uint64_t refused = 0;
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto sm = exportSm(family)) refused += sm->exportCounters().refusedFull;
   }
   return refused;
}

std::optional<BgpRouting::PeerView> BgpRouting::peer(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const {
   auto const it = peers_.find({neighbor, vrf});
   if (it == peers_.end()) return std::nullopt;
   Peer const& p = *it->second;
   PeerView v;
   v.counters = p.previousSessions;
   if (p.decoder) v.counters += p.decoder->counters();
   v.ribin = p.ribinBefore;
   if (p.adjRibins) {
      for (auto const& [type, adjRibin] : p.adjRibins->adjRibins()) {
         if (adjRibin->ribTable()) v.ribin[adjRibin->ribTable()->afiSafi()] += adjRibin->counters();
      }
   }
   v.sent = ribOuts_.sent(neighbor, vrf);
   v.advertised = ribOuts_.advertised(neighbor, vrf);
   for (auto const& [family, table] : p.tables) {
      v.received[family] = table->pathsOf(p.source);
      v.accepted[family] = table->bestOf(p.source);
      auto const sm = exportSm(family);
      if (!sm) continue;
      v.fsibRefusals[family] = sm->exportCounters().refusedFullOf(p.source);
   }
   return v;
}

std::vector<std::pair<Ovnet::IpGenAddr, BgpRouting::PeerView>> BgpRouting::peers() const {
   std::vector<std::pair<Ovnet::IpGenAddr, PeerView>> all;
   for (auto const& [id, p] : peers_) all.emplace_back(id.first, *peer(id.first, id.second));
   return all;
}

std::uint64_t BgpRouting::attributeSetsBuilt() const {
   std::uint64_t n = 0;
   for (auto const& [id, p] : peers_) n += p->attributeSetsBuilt + (p->attributes ? p->attributes->built() : 0);
   return n;
}

std::uint64_t BgpRouting::attributeSetsReused() const {
   std::uint64_t n = 0;
   for (auto const& [id, p] : peers_) n += p->attributeSetsReused + (p->attributes ? p->attributes->reused() : 0);
   return n;
}

} // namespace Flowspecd
