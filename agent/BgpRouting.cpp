#include "agent/BgpRouting.h"

#include <algorithm>
#include <malloc.h>

#include "host/fwk/FlatPtrMap.h"

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
   // (reimport null), those of the current session its import now refuses, or, with
   // `staleOf`, only the stale paths of that family.
   struct Purge {
      Ovk::Ptr<RibTable> table;
      Ovk::Ptr<RouteKey const> cursor;
      Ovk::Ptr<AdjRibin> reimport;
      std::optional<AfiSafi> staleOf;
   };
   std::vector<Purge> purges;
   // What its last session negotiated.
   Negotiated negotiated;
   // Graceful restart, per family it ever touched.
   struct Gr {
      GrState state = GrState::live;
      Ovk::Ptr<RibTable> table;
      // Keys announced since the peer came back, each referenced, with a path of the peer:
      // its other paths are stale. Kept up to date while `tracking`.
      Ovk::FlatPtrSet<RouteKey> refreshed;
      bool sweeping = false; // a purge of the stale paths is under way
      std::optional<Ovk::TaskId> timer;
      char const* timerName = "";
      Ovk::Clock::time_point deadline{};
      std::uint64_t staleRemoved = 0;
      std::uint64_t restarts = 0;
      bool tracking() const { return state == GrState::waitingEndOfRib || sweeping; }
      void forget() {
         refreshed.forEach([](RouteKey const* k) { k->deleteRef(); });
         refreshed.clear();
      }
   };
   std::map<AfiSafi, Gr> gr;

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
   for (auto const& [id, p] : peers_) {
      for (auto& [family, g] : p->gr) {
         if (g.timer) context_->taskScheduler()->cancel(*g.timer);
         g.forget();
         // Paths kept for a restart whose session's tables went with it leave here too.
         if (g.table && p->tables.count(family) == 0) g.table->pathDelAll(p->source);
      }
   }
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
   p.negotiated = negotiated;

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
   // RFC 4724 section 4.2: families kept for the restart wait for End-of-RIB when the peer
   // kept their forwarding state, and lose their stale paths at once otherwise (and when
   // the session left the family out).
   for (auto& [family, g] : p.gr) {
      if (g.state != GrState::restarting) continue;
      GrEvent const e = p.tables.count(family) ? sessionUpEvent(negotiated, family) : GrEvent::sessionUp;
      grEvent(p, family, e,
              e == GrEvent::sessionUp ? "back without its forwarding state kept" : "back, forwarding state kept");
   }
   if (convergence_) convergence_->sessionUp(from.address, negotiated);
}

void BgpRouting::handleRouteRefresh(BgpPeer const& from, AfiSafi family) {
   Peer* const p = peerOf(from);
   if (!p || !p->established) return;
   ribOuts_.routeRefresh(p->identity, family);
}

void BgpRouting::handleSessionDown(BgpPeer const& from, SessionEnd const& end) {
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
   // RFC 4271 section 8.2.2: the peer's routes go with its session, unless it restarts
   // gracefully (RFC 4724 section 4.2). A million of them take a while, so they go a slice
   // per turn of the event loop: keepalives, the other sessions and the control socket are
   // served in between. Their removal takes the place of any walk of a new import policy.
   std::erase_if(p->purges, [](Peer::Purge const& w) { return w.reimport != nullptr; });
   for (auto const& [family, table] : p->tables) {
      p->gr[family].table = table;
      std::string why;
      GrEvent const e = sessionLossEvent(p->negotiated, family, end, &why);
      grEvent(*p, family, e, why);
   }
   schedulePurge();
}

void BgpRouting::grTimerIs(Peer& p, AfiSafi family, char const* name, std::chrono::seconds after, GrEvent event) {
   Peer::Gr& g = p.gr[family];
   if (g.timer) context_->taskScheduler()->cancel(*g.timer);
   g.timerName = name;
   g.deadline = context_->taskScheduler()->now() + after;
   PeerId const id{p.identity.address, p.identity.vrfId};
   g.timer = context_->taskScheduler()->postAfter(
       after,
       [this, id, family, event, name] {
          auto const it = peers_.find(id);
          if (it == peers_.end()) return;
          Peer& peer = *it->second;
          peer.gr[family].timer.reset();
          grEvent(peer, family, event, std::string(name) + " over");
          schedulePurge();
       },
       "gracefulRestart");
}

std::size_t BgpRouting::stalePaths(Peer const& p, AfiSafi family) const {
   auto const it = p.gr.find(family);
   if (it == p.gr.end() || !it->second.table) return 0;
   Peer::Gr const& g = it->second;
   std::size_t const paths = g.table->pathsOf(p.source);
   if (g.state == GrState::restarting) return paths;
   if (!g.tracking()) return 0;
   return paths > g.refreshed.size() ? paths - g.refreshed.size() : 0;
}

void BgpRouting::grEvent(Peer& p, AfiSafi family, GrEvent event, std::string const& why) {
   Peer::Gr& g = p.gr[family];
   GrStep const step = grStep(g.state, event);
   std::string const who = p.identity.address.str();
   std::string const fam = familyName(family);
   auto const cancelTimer = [&] {
      if (g.timer) context_->taskScheduler()->cancel(*g.timer);
      g.timer.reset();
   };
   auto const sweepStale = [&] {
      g.sweeping = true;
      p.purges.push_back(Peer::Purge{g.table, nullptr, nullptr, family});
   };
   std::size_t const stale = stalePaths(p, family);
   std::size_t const held = g.table ? g.table->pathsOf(p.source) : 0;
   g.state = step.next;
   switch (step.action) {
   case GrAction::none: break;
   case GrAction::purgeAll:
      cancelTimer();
      g.forget();
      g.sweeping = false;
      if (g.table) p.purges.push_back(Peer::Purge{g.table, nullptr, nullptr, std::nullopt});
      if (held != 0 && p.negotiated.peerGracefulRestart) {
         logger_.log(who, "graceful restart: " + fam + ": " + std::to_string(held) + " rule(s) go with the session (" +
                              why + ")");
      }
      break;
   case GrAction::keepAsStale:
   case GrAction::purgeStaleAgain: {
      cancelTimer();
      ++g.restarts;
      if (step.action == GrAction::purgeStaleAgain) {
         // The paths not announced again since the last restart go; the others turn stale
         // once that sweep is over.
         logger_.log(who, "graceful restart: " + fam + ": lost again before End-of-RIB: " + std::to_string(stale) +
                              " stale rule(s) go");
         sweepStale();
      } else {
         g.forget();
      }
      std::uint16_t const restartTime = p.negotiated.peerGracefulRestart ? p.negotiated.peerGracefulRestart->restartTime : 0;
      logger_.log(who, "graceful restart: " + fam + ": " + std::to_string(held - (step.action == GrAction::keepAsStale ? 0 : stale)) +
                           " rule(s) kept as stale for up to " + std::to_string(restartTime) + " s (" + why + ")");
      // RFC 4724 section 4.2: the peer has its restart time to come back; a time of 0 gives
      // it none.
      grTimerIs(p, family, "restart-time", std::chrono::seconds(restartTime), GrEvent::restartTimeOver);
      break;
   }
   case GrAction::purgeStale:
      cancelTimer();
      logger_.log(who, "graceful restart: " + fam + ": " + why + ": " + std::to_string(stale) +
                           " stale rule(s) go, " + std::to_string(held - stale) + " kept");
      g.staleRemoved += stale;
      sweepStale();
      break;
   }
   if (step.next == GrState::waitingEndOfRib && g.state == GrState::waitingEndOfRib && !g.timer) {
      logger_.log(who, "graceful restart: " + fam + ": " + why + "; waiting up to " +
                           std::to_string(grConfig_.staleRoutesTime) + " s for End-of-RIB");
      grTimerIs(p, family, "stale-routes-time", std::chrono::seconds(grConfig_.staleRoutesTime),
                GrEvent::staleTimeOver);
   }
}

bool BgpRouting::pathIsStale(RibTable const& table, RouteKey const& key, RibSource source) const {
   for (auto const& [id, p] : peers_) {
      if (p->source != source) continue;
      auto const it = p->gr.find(table.afiSafi());
      if (it == p->gr.end() || it->second.table.ptr() != &table) return false;
      Peer::Gr const& g = it->second;
      if (g.state == GrState::restarting) return true;
      return g.tracking() && !g.refreshed.contains(&key);
   }
   return false;
}

bool BgpRouting::purgeStep(Peer& p, std::size_t budget) {
   if (p.purges.empty()) return false;
   std::size_t left = budget;
   while (!p.purges.empty() && left > 0) {
      Peer::Purge& purge = p.purges.front();
      std::size_t const slice = std::min(left, kPurgeKeysPerSlice);
      if (purge.reimport) {
         purge.reimport->reimportSome(purge.cursor, slice);
      } else if (purge.staleOf) {
         Peer::Gr& g = p.gr[*purge.staleOf];
         purge.table->pathDelSome(p.source, purge.cursor, slice, [&g](RouteKey const& key, RibPath const&) {
            return !g.refreshed.contains(&key);
         });
      } else {
         purge.table->pathDelSome(p.source, purge.cursor, slice);
      }
      left -= slice;
      if (!purge.cursor) {
         // A sweep of stale paths is over: what is left is fresh (or, after a second loss,
         // all stale again).
         if (purge.staleOf) {
            Peer::Gr& g = p.gr[*purge.staleOf];
            g.sweeping = false;
            g.forget();
         }
         p.purges.erase(p.purges.begin());
      }
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
   // Graceful restart: while stale paths of a family are around, what the peer announces
   // again is fresh and what it withdraws is gone.
   auto const tracked = [p](AdjRibin const& r) -> Peer::Gr* {
      if (p->gr.empty() || !r.ribTable()) return nullptr;
      auto const it = p->gr.find(r.ribTable()->afiSafi());
      return it != p->gr.end() && it->second.tracking() ? &it->second : nullptr;
   };
   for (BgpParsedNlri const& n : u.nlri) {
      if (!n.routeKey || (n.reachable && !withdrawAll)) continue;
      AdjRibin* const r = p->adjRibinOf(*n.routeKey);
      if (!r) continue;
      r->withdraw(*n.routeKey);
      if (Peer::Gr* g = tracked(*r); g && g->refreshed.erase(n.routeKey.ptr())) n.routeKey->deleteRef();
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
         if (Peer::Gr* g = tracked(*r); g && r->ribTable()->path(*n.routeKey, p->source) &&
                                        g->refreshed.insert(n.routeKey.ptr())) {
            n.routeKey->newRef();
         }
      }
   }
   flush(*p);
   if (auto const eor = u.endOfRib()) {
      if (auto const it = p->gr.find(*eor); it != p->gr.end() && it->second.state == GrState::waitingEndOfRib) {
         grEvent(*p, *eor, GrEvent::endOfRib, "End-of-RIB");
         schedulePurge();
      }
      if (convergence_) convergence_->endOfRib(from.address, *eor);
   }
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
         peer.purges.push_back(Peer::Purge{adjRibin->ribTable(), nullptr, adjRibin, std::nullopt});
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
   auto const now = context_->taskScheduler()->now();
   for (auto const& [family, g] : p.gr) {
      GrView& gv = v.gracefulRestart[family];
      gv.state = g.state;
      gv.stalePaths = stalePaths(p, family);
      gv.stalePathsRemoved = g.staleRemoved;
      gv.gracefulRestarts = g.restarts;
      if (g.timer) {
         gv.timer = g.timerName;
         auto const left = std::chrono::ceil<std::chrono::seconds>(g.deadline - now).count();
         gv.secondsLeft = left > 0 ? static_cast<std::uint64_t>(left) : 0;
      }
      // Paths kept from a session whose tables are gone still count as received.
      if (!p.tables.count(family) && g.table) v.received[family] = g.table->pathsOf(p.source);
   }
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
