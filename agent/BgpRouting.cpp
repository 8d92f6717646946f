#include "agent/BgpRouting.h"

#include <algorithm>
#include <malloc.h>

namespace Flowspecd {

namespace {

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
   BgpUpdateDecoderCounters previousSessions;
   std::map<AfiSafi, std::uint64_t> unknownWithdrawals;
   std::uint64_t attributeSetsBuilt = 0;
   std::uint64_t attributeSetsReused = 0;
   std::map<AfiSafi, Ovk::Ptr<SessionRibOut>> ribOuts; // of the established session
   std::map<AfiSafi, RibOutCounters> sentBefore;       // by the sessions before it
   // The paths of a session that went down, still leaving the tables a slice at a time.
   struct Purge {
      Ovk::Ptr<RibTable> table;
      Ovk::Ptr<RouteKey const> cursor;
   };
   std::vector<Purge> purges;
};

BgpRouting::BgpRouting(Logger& logger, Ovk::Ptr<Plugin::Context> context)
    : logger_(logger), context_(std::move(context)) {
   OVK_ASSERT(context_);
}

BgpRouting::~BgpRouting() {
   if (purgeTask_) context_->taskScheduler()->cancel(*purgeTask_);
   if (refusalTimer_) context_->taskScheduler()->cancel(*refusalTimer_);
   // The sessions' paths go before the tables and keys they point into.
   for (auto const& [address, p] : peers_) stopRibOuts(*p);
   for (auto const& [address, p] : peers_) p->purges.clear();
   for (auto const& [address, p] : peers_) {
      for (auto const& [family, table] : p->tables) table->pathDelAll(p->source);
   }
   peers_.clear();
}

Ovk::Ptr<RibTable> BgpRouting::ribTable(AfiSafi family) const { return Plugin::defaultVrfRibTable(*context_, family); }

BgpRouting::Peer* BgpRouting::peerOf(BgpPeer const& from) const {
   auto const it = peers_.find(from.address);
   return it == peers_.end() ? nullptr : it->second.get();
}

void BgpRouting::handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) {
   std::unique_ptr<Peer>& slot = peers_[from.address];
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
      if (auto adjRibin = p.adjRibins->adjRibin(fromAfiSafi(family))) adjRibin->sourceIs(p.source);
      p.tables[family] = table;
   }
   p.attributes = std::make_unique<PathAttributesBuilder>(context_->rtAttrDedupTable(), context_->coreDedupTables(),
                                                          context_->parseExtCommRuleCollections());
   startRibOuts(p, negotiated, output);
}

void BgpRouting::startRibOuts(Peer& p, Negotiated const& negotiated, BgpPeerOutput& output) {
   auto const options = ribOutOptions_.find(p.identity.address);
   SessionRibOut::Options const o = options == ribOutOptions_.end() ? SessionRibOut::Options{} : options->second;
   UpdateSession const session{negotiated.fourOctetAs, p.identity.internal()};
   auto const transport = IpPlugin::IpGenNexthop::create(output.localAddress());
   for (AfiSafi const family : negotiated.families) {
      auto const it = p.tables.find(family);
      if (it == p.tables.end()) {
         output.sendEndOfRib(family); // nothing serves the family: nothing to send
         continue;
      }
      Ovk::Ptr<GenNexthop const> nexthop;
      if (auto helpers = context_->afiSafiTable()->helpers(family)) {
         if (auto hook = helpers->hookAs<Plugin::TransportNexthopPluginBase>(Plugin::HookId::transportNexthop)) {
            nexthop = hook->transportAddrToLocalNexthop(transport, context_->dedupTablesVrf(p.identity.vrfId));
         }
      }
      auto ribOut = Ovk::makePtr<SessionRibOut>(p.identity, p.source, session, it->second, nexthop,
                                                context_->rtAttrDedupTable(), output, context_->taskScheduler(), o);
      p.ribOuts[family] = ribOut;
      context_->ribOutIs(ribOut);
      ribOut->start();
   }
}

void BgpRouting::stopRibOuts(Peer& p) {
   for (auto const& [family, ribOut] : p.ribOuts) {
      ribOut->stop();
      context_->ribOutDel(*ribOut);
      p.sentBefore[family] += ribOut->counters();
   }
   p.ribOuts.clear();
}

void BgpRouting::handleRouteRefresh(BgpPeer const& from, AfiSafi family) {
   Peer* const p = peerOf(from);
   if (!p || !p->established) return;
   auto const it = p->ribOuts.find(family);
   if (it != p->ribOuts.end()) it->second->routeRefresh();
}

void BgpRouting::ribOutOptionsIs(Ovnet::IpGenAddr const& neighbor, SessionRibOut::Options options) {
   ribOutOptions_[neighbor] = options;
}

SessionRibOut const* BgpRouting::ribOut(Ovnet::IpGenAddr const& neighbor, AfiSafi family) const {
   auto const it = peers_.find(neighbor);
   if (it == peers_.end()) return nullptr;
   auto const r = it->second->ribOuts.find(family);
   return r == it->second->ribOuts.end() ? nullptr : r->second.ptr();
}

void BgpRouting::handleSessionDown(BgpPeer const& from) {
   Peer* const p = peerOf(from);
   if (!p || !p->established) return;
   p->established = false;
   stopRibOuts(*p);
   // The session's decoder, whose last result still holds rules, and its attributes go;
   // their counts stay.
   p->previousSessions += p->decoder->counters();
   p->attributeSetsBuilt += p->attributes->built();
   p->attributeSetsReused += p->attributes->reused();
   p->decoder = nullptr;
   p->attributes = nullptr;
   p->adjRibins = nullptr;
   // RFC 4271 section 8.2.2: the peer's routes go with its session. A million of them take
   // a while, so they go a slice per turn of the event loop: keepalives, the other sessions
   // and the control socket are served in between.
   for (auto const& [family, table] : p->tables) p->purges.push_back(Peer::Purge{table, nullptr});
   schedulePurge();
}

bool BgpRouting::purgeStep(Peer& p, std::size_t budget) {
   if (p.purges.empty()) return false;
   std::size_t left = budget;
   while (!p.purges.empty() && left > 0) {
      Peer::Purge& purge = p.purges.front();
      std::size_t const slice = std::min(left, kPurgeKeysPerSlice);
      purge.table->pathDelSome(p.source, purge.cursor, slice);
      left -= slice;
      if (!purge.cursor) p.purges.erase(p.purges.begin());
   }
   flush(p);
   if (!p.purges.empty()) return true;
   // The session's paths, and the keys and attributes only it held, are freed by now: give
   // the freed heap back, so that a table that went with its peer leaves the RSS.
   ::malloc_trim(0);
   return false;
}

void BgpRouting::schedulePurge() {
   if (purgeTask_) return;
   purgeTask_ = context_->taskScheduler()->post(
       [this] {
          purgeTask_.reset();
          bool more = false;
          for (auto const& [address, p] : peers_) {
             if (purgeStep(*p, kPurgeKeysPerSlice)) more = true;
          }
          if (more) schedulePurge();
       },
       "ribPurge");
}

std::size_t BgpRouting::purgesPending() const {
   std::size_t n = 0;
   for (auto const& [address, p] : peers_) n += p->purges.size();
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
   RibTable* table = nullptr;
   AfiSafi tableFamily;
   auto tableOf = [&](AfiSafi family) -> RibTable* {
      if (table && tableFamily == family) return table;
      auto const it = p->tables.find(family);
      tableFamily = family;
      table = it == p->tables.end() ? nullptr : it->second.ptr();
      return table;
   };
   for (BgpParsedNlri const& n : u.nlri) {
      if (!n.routeKey || (n.reachable && !withdrawAll)) continue;
      RibTable* const t = tableOf(n.afiSafi);
      if (t && !t->pathDel(*n.routeKey, p->source)) ++p->unknownWithdrawals[n.afiSafi];
   }
   if (!withdrawAll) {
      Ovk::Ptr<RtAttr const> attrs;
      Ovk::Ptr<AdjRibin> adjRibin;
      for (BgpParsedNlri const& n : u.nlri) {
         if (!n.routeKey || !n.reachable) continue;
         RibTable* const t = tableOf(n.afiSafi);
         if (!t) continue;
         if (!attrs) attrs = p->attributes->rtAttrOf(*u.attributes);
         if (!adjRibin || adjRibin->nlriType() != n.routeKey->nlriType()) {
            adjRibin = p->adjRibins->adjRibin(n.routeKey->nlriType());
            if (!adjRibin) continue;
         }
         AdjRibinPath const path =
             adjRibin->instantiateRibinPathFromNlriResults(PathKey{n.routeKey.ptr(), p->source, n.pathId}, attrs, n);
         t->pathIs(*path.routeKey, path.source, path.attrs);
      }
   }
   flush(*p);
   return UpdateOutcome::of(u);
}

void BgpRouting::flush(Peer& p) {
   bool changed = false;
   for (auto const& [family, t] : p.tables) {
      if (t->pendingChanges() == 0) continue;
      t->flushChanges();
      changed = true;
   }
   if (changed) noteRefusals();
}

Ovk::Ptr<FwdTgtRouteConfigSm> BgpRouting::exportSm(AfiSafi family) const {
   return context_->routeConfigSm(ForwardingTarget::flowspec, BgpL3VrfId::defaultVrfId(), family);
}

std::uint64_t BgpRouting::fsibRefusals() const {
   std::uint64_t refused = 0;
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto sm = exportSm(family)) refused += sm->exportCounters().refusedFull;
   }
   return refused;
}

void BgpRouting::noteRefusals() {
   // The first refusal is said at once; while they go on, what came since is said every
   // kRefusalReport, so that the counts of the lines add up to what was refused.
   if (refusalTimer_) return;
   std::uint64_t const refused = fsibRefusals();
   if (refused == refusalsLogged_) return;
   logger_.log("-", "FSIB full: " + std::to_string(refused - refusalsLogged_) +
                        " rule(s) refused (flowspec fsib and show summary count them)");
   refusalsLogged_ = refused;
   armRefusalTimer();
}

void BgpRouting::armRefusalTimer() {
   refusalTimer_ = context_->taskScheduler()->postAfter(
       kRefusalReport,
       [this] {
          refusalTimer_.reset();
          std::uint64_t const refused = fsibRefusals();
          if (refused == refusalsLogged_) return; // the burst is over
          logger_.log("-", "FSIB full: " + std::to_string(refused - refusalsLogged_) +
                               " more rule(s) refused since the last report");
          refusalsLogged_ = refused;
          armRefusalTimer();
       },
       "fsibRefusals");
}

std::optional<BgpRouting::PeerView> BgpRouting::peer(Ovnet::IpGenAddr const& neighbor) const {
   auto const it = peers_.find(neighbor);
   if (it == peers_.end()) return std::nullopt;
   Peer const& p = *it->second;
   PeerView v;
   v.counters = p.previousSessions;
   if (p.decoder) v.counters += p.decoder->counters();
   v.unknownWithdrawals = p.unknownWithdrawals;
   v.sent = p.sentBefore;
   for (auto const& [family, ribOut] : p.ribOuts) {
      v.sent[family] += ribOut->counters();
      v.advertised[family] = ribOut->advertisedRoutes();
   }
   for (auto const& [family, table] : p.tables) {
      v.received[family] = table->pathsOf(p.source);
      v.accepted[family] = table->bestOf(p.source);
      auto const sm = exportSm(family);
      if (!sm) continue;
      auto const& by = sm->exportCounters().refusedFullBySource;
      auto const refused = by.find(p.source);
      v.fsibRefusals[family] = refused == by.end() ? 0 : refused->second;
   }
   return v;
}

nlohmann::json BgpRouting::updatesJson() const {
   nlohmann::json neighbors = nlohmann::json::array();
   for (auto const& [address, p] : peers_) {
      PeerView const v = *peer(address);
      nlohmann::json outcomes;
      for (BgpUpdateAction const a : {BgpUpdateAction::accept, BgpUpdateAction::attributeDiscard,
                                      BgpUpdateAction::treatAsWithdraw, BgpUpdateAction::sessionReset}) {
         outcomes[toStrep(a)] = v.counters.action(a);
      }
      nlohmann::json families = nlohmann::json::object();
      for (auto const& [family, f] : v.counters.families) {
         auto const rules = v.received.find(family);
         auto const unknown = v.unknownWithdrawals.find(family);
         families[familyName(family)] = {
             {"updates", f.updates},
             {"announced", f.announced},
             {"withdrawn", f.withdrawn},
             {"refused", f.refused},
             {"withdrawnUnknown", unknown == v.unknownWithdrawals.end() ? 0 : unknown->second},
             {"rules", rules == v.received.end() ? 0 : rules->second}};
      }
      nlohmann::json reasons = nlohmann::json::object();
      for (auto const& [reason, n] : v.counters.reasons) reasons[toStrep(reason)] = n;
      neighbors.push_back({{"address", address.str()},
                           {"messages", v.counters.messages},
                           {"outcomes", outcomes},
                           {"families", families},
                           {"reasons", reasons}});
   }
   return {{"neighbors", neighbors}};
}

nlohmann::json BgpRouting::summaryJson() const {
   nlohmann::json vrfs = nlohmann::json::array();
   for (auto const& [vrfId, vrf] : context_->allVrfInstanceStatus()) {
      nlohmann::json families = nlohmann::json::object();
      for (auto const& [family, table] : vrf->ribTables()) {
         nlohmann::json f = {{"rules", table->routes()}, {"paths", table->paths()}, {"indexBytes", table->bytes()}};
         if (auto sm = context_->routeConfigSm(ForwardingTarget::flowspec, vrfId, family)) {
            auto const& c = sm->exportCounters();
            f["fsib"] = {{"added", c.added},
                         {"replaced", c.replaced},
                         {"deleted", c.deleted},
                         {"refusedFull", c.refusedFull},
                         {"displaced", c.displaced},
                         {"refilled", c.refilled},
                         {"notExportable", c.notExportable}};
         }
         families[familyName(family)] = f;
      }
      vrfs.push_back({{"name", vrf->name()}, {"id", vrfId.value()}, {"families", families}});
   }
   std::uint64_t built = 0;
   std::uint64_t reused = 0;
   for (auto const& [address, p] : peers_) {
      built += p->attributeSetsBuilt + (p->attributes ? p->attributes->built() : 0);
      reused += p->attributeSetsReused + (p->attributes ? p->attributes->reused() : 0);
   }
   return {{"vrfs", vrfs},
           {"attributeSets", context_->rtAttrDedupTable()->size()},
           {"attributeSetsBuilt", built},
           {"attributeSetsReused", reused}};
}

} // namespace Flowspecd
