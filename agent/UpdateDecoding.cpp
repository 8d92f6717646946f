#include "agent/UpdateDecoding.h"

#include <algorithm>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "host/bgp/BgpVrfId.h"

namespace Flowspecd {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

namespace {

void add(BgpUpdateDecoderCounters& into, BgpUpdateDecoderCounters const& from) {
   into.messages += from.messages;
   for (std::size_t i = 0; i < into.actions.size(); ++i) into.actions[i] += from.actions[i];
   for (auto const& [family, f] : from.families) {
      BgpUpdateDecoderCounters::Family& t = into.families[family];
      t.announced += f.announced;
      t.withdrawn += f.withdrawn;
      t.refused += f.refused;
      t.updates += f.updates;
   }
   for (auto const& [reason, n] : from.reasons) into.reasons[reason] += n;
}

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

// The plugin as the agent runs it: the default VRF's flowspec tables and, per family, the
// rule collections with the flowspec parse plugin state machine listening.
struct UpdateDecoding::Plugin {
   Plugin() : vrf(Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId())) {
      auto const notifiee = flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "flowspecd");
      for (AfiSafi const family : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
         vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(
             family, flowspecRouteKeyDedupTableFactory(family, BgpL3VrfId::defaultVrfId()),
             flowspecGenNexthopDedupTableFactory(BgpL3VrfId::defaultVrfId(), family, notifiee, nullptr)));
         auto c = BgpParseRuleCollections::create(family);
         sms.push_back(flowspecParsePluginSmFactory(c, family));
         collections[family] = c;
      }
   }
   Ovk::Ptr<DedupTablesVrf> vrf;
   std::map<AfiSafi, Ovk::Ptr<BgpParseRuleCollections>> collections;
   std::vector<Ovk::Ptr<FlowspecParsePluginSm>> sms;
};

struct UpdateDecoding::Peer {
   Ovk::Ptr<BgpParseContext> context;
   std::unique_ptr<BgpUpdateDecoder> decoder;
   BgpUpdateDecoderCounters earlier; // of the sessions before this one
   std::map<AfiSafi, std::unordered_set<Ovk::Ptr<RouteKey const>>> rules;
};

UpdateDecoding::UpdateDecoding(Logger& logger) : logger_(logger), plugin_(std::make_unique<Plugin>()) {}

UpdateDecoding::~UpdateDecoding() {
   // Keys go before the tables that hold them.
   peers_.clear();
}

UpdateDecoding::Peer& UpdateDecoding::peerOf(BgpPeer const& from) {
   std::unique_ptr<Peer>& p = peers_[from.address];
   if (!p) {
      p = std::make_unique<Peer>();
      p->context = Ovk::makePtr<BgpParseContext>(plugin_->vrf, from.address.str());
   }
   if (!p->decoder) startSession(*p, from, nullptr);
   return *p;
}

void UpdateDecoding::startSession(Peer& peer, BgpPeer const& from, Negotiated const* negotiated) {
   if (peer.decoder) add(peer.earlier, peer.decoder->counters());
   BgpUpdateDecoder::Options options;
   options.fourOctetAs = negotiated ? negotiated->fourOctetAs : true;
   options.externalPeer = !from.internal();
   peer.decoder = std::make_unique<BgpUpdateDecoder>(peer.context, options);
   // The families the session agreed on; without a session, both.
   for (auto const& [family, collections] : plugin_->collections) {
      bool const agreed = !negotiated || std::find(negotiated->families.begin(), negotiated->families.end(),
                                                   family) != negotiated->families.end();
      if (agreed) peer.decoder->ruleCollectionsIs(collections, {});
   }
}

void UpdateDecoding::handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) {
   Peer& peer = peerOf(from);
   startSession(peer, from, &negotiated);
   UpdateSink::handleEstablished(from, negotiated, output);
}

void UpdateDecoding::handleSessionDown(BgpPeer const& from) {
   auto const it = peers_.find(from.address);
   if (it == peers_.end()) return;
   // RFC 4271 section 8.2.2 (Established, on any event ending the session): the peer's routes
   // go with it.
   it->second->rules.clear();
}

UpdateOutcome UpdateDecoding::handleUpdate(BgpPeer const& from, MessageView const& update) {
   Peer& peer = peerOf(from);
   BgpParsedUpdate const& u = peer.decoder->decode(update.bytes);
   if (u.action == BgpUpdateAction::sessionReset) {
      logger_.log(from.address.str(), "UPDATE refused: " + errorsText(u));
      return UpdateOutcome::of(u);
   }
   if (!u.errors.empty()) logger_.log(from.address.str(), "UPDATE " + std::string(toStrep(u.action)) + ": " + errorsText(u));
   // RFC 7606 section 2: under treat-as-withdraw the announced routes are withdrawn too.
   bool const withdrawAll = u.announcedWithdrawn();
   for (BgpParsedNlri const& n : u.nlri) {
      if (!n.routeKey) continue;
      auto& rules = peer.rules[n.afiSafi];
      if (n.reachable && !withdrawAll) {
         rules.insert(n.routeKey);
      } else {
         rules.erase(n.routeKey);
      }
   }
   return UpdateOutcome::of(u);
}

std::optional<UpdateDecoding::PeerView> UpdateDecoding::peer(Ovnet::IpGenAddr const& neighbor) const {
   auto const it = peers_.find(neighbor);
   if (it == peers_.end()) return std::nullopt;
   Peer const& p = *it->second;
   PeerView v;
   v.counters = p.earlier;
   if (p.decoder) add(v.counters, p.decoder->counters());
   for (auto const& [family, rules] : p.rules) v.rules[family] = rules.size();
   return v;
}

nlohmann::json UpdateDecoding::json() const {
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
         auto const rules = v.rules.find(family);
         families[familyName(family)] = {{"updates", f.updates},
                                         {"announced", f.announced},
                                         {"withdrawn", f.withdrawn},
                                         {"refused", f.refused},
                                         {"rules", rules == v.rules.end() ? 0 : rules->second}};
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

} // namespace Flowspecd
