#include "agent/SessionRibOuts.h"

namespace Flowspecd {

SessionRibOuts::SessionRibOuts(Ovk::Ptr<Plugin::Context> context) : context_(std::move(context)) {
   OVK_ASSERT(context_);
}

SessionRibOuts::~SessionRibOuts() {
   for (auto& [id, n] : neighbors_) {
      for (auto const& [family, ribOut] : n.live) {
         ribOut->stop();
         context_->ribOutDel(*ribOut);
      }
   }
}

void SessionRibOuts::optionsIs(Ovnet::IpGenAddr const& neighbor, SessionRibOut::Options options) {
   options_[neighbor] = options;
}

void SessionRibOuts::start(BgpPeer const& peer, RibSource source, Negotiated const& negotiated,
                           BgpPeerOutput& output, std::map<AfiSafi, Ovk::Ptr<RibTable>> const& tables) {
   Neighbor& n = neighbors_[{peer.address, peer.vrfId}];
   auto const options = options_.find(peer.address);
   SessionRibOut::Options const o = options == options_.end() ? SessionRibOut::Options{} : options->second;
   UpdateSession const session{negotiated.fourOctetAs, peer.internal()};
   auto const transport = IpPlugin::IpGenNexthop::create(output.localAddress());
   for (AfiSafi const family : negotiated.families) {
      auto const it = tables.find(family);
      if (it == tables.end()) {
         output.sendEndOfRib(family); // nothing serves the family: nothing to send
         continue;
      }
      Ovk::Ptr<GenNexthop const> nexthop;
      if (auto helpers = context_->afiSafiTable()->helpers(family)) {
         if (auto hook = helpers->hookAs<Plugin::TransportNexthopPluginBase>(Plugin::HookId::transportNexthop)) {
            nexthop = hook->transportAddrToLocalNexthop(transport, context_->dedupTablesVrf(peer.vrfId));
         }
      }
      auto ribOut = Ovk::makePtr<SessionRibOut>(peer, source, session, it->second, nexthop,
                                                context_->rtAttrDedupTable(), output, context_->taskScheduler(), o);
      n.live[family] = ribOut;
      context_->ribOutIs(ribOut);
      ribOut->start();
   }
}

void SessionRibOuts::stop(BgpPeer const& peer) {
   auto const it = neighbors_.find({peer.address, peer.vrfId});
   if (it == neighbors_.end()) return;
   Neighbor& n = it->second;
   for (auto const& [family, ribOut] : n.live) {
      ribOut->stop();
      context_->ribOutDel(*ribOut);
      n.before[family] += ribOut->counters();
   }
   n.live.clear();
}

void SessionRibOuts::routeRefresh(BgpPeer const& peer, AfiSafi family) {
   auto const it = neighbors_.find({peer.address, peer.vrfId});
   if (it == neighbors_.end()) return;
   auto const r = it->second.live.find(family);
   if (r != it->second.live.end()) r->second->routeRefresh();
}

SessionRibOuts::Neighbor const* SessionRibOuts::find(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const {
   auto const it = neighbors_.find({neighbor, vrf});
   return it == neighbors_.end() ? nullptr : &it->second;
}

SessionRibOut const* SessionRibOuts::ribOut(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf, AfiSafi family) const {
   Neighbor const* n = find(neighbor, vrf);
   if (!n) return nullptr;
   auto const r = n->live.find(family);
   return r == n->live.end() ? nullptr : r->second.ptr();
}

std::map<AfiSafi, RibOutCounters> SessionRibOuts::sent(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const {
   Neighbor const* n = find(neighbor, vrf);
   if (!n) return {};
   std::map<AfiSafi, RibOutCounters> all = n->before;
   for (auto const& [family, ribOut] : n->live) all[family] += ribOut->counters();
   return all;
}

std::map<AfiSafi, std::size_t> SessionRibOuts::advertised(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const {
   Neighbor const* n = find(neighbor, vrf);
   std::map<AfiSafi, std::size_t> out;
   if (!n) return out;
   for (auto const& [family, ribOut] : n->live) out[family] = ribOut->advertisedRoutes();
   return out;
}

} // namespace Flowspecd
