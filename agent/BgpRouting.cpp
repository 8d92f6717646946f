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
   // What the sessions before this one did.
   BgpUpdateDecoderCounters previousSessions;
   std::map<AfiSafi, AdjRibin::Counters> ribinBefore;
   std::uint64_t attributeSetsBuilt = 0;
   std::uint64_t attributeSetsReused = 0;
   // The paths of a session that went down, still leaving the tables a slice at a time.
   struct Purge {
      Ovk::Ptr<RibTable> table;
      Ovk::Ptr<RouteKey const> cursor;
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
      refusalLog_(logger, context_->taskScheduler(), [this] { return fsibRefusals(); }) {
   OVK_ASSERT(context_);
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
      }
      p.tables[family] = table;
   }
   p.attributes = std::make_unique<PathAttributesBuilder>(context_->rtAttrDedupTable(), context_->coreDedupTables(),
                                                          context_->parseExtCommRuleCollections());
   ribOuts_.start(p.identity, p.source, negotiated, output, p.tables);
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
   if (!withdrawAll) {
      Ovk::Ptr<RtAttr const> attrs;
      for (BgpParsedNlri const& n : u.nlri) {
         if (!n.routeKey || !n.reachable) continue;
         AdjRibin* const r = p->adjRibinOf(*n.routeKey);
         if (!r) continue;
         if (!attrs) attrs = p->attributes->rtAttrOf(*u.attributes);
         r->announce(n, attrs);
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
