// A plugin context with a flowspec RIB filled by hand, for the show tables' tests, golden
// files and benchmark: two peers as path sources, rules made from text, paths with the
// attributes a show lists, and a fake RIB-out per peer.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/AdjRibOut.h"
#include "host/ovrow/BgpRows.h"
#include "host/plugin/OvrowPlugin.h"
#include "tests/fakes/PluginContext.h"

namespace Routing::Bgp::Fakes {

// What a peer was sent, kept by key.
class FakeAdjRibOut : public AdjRibOut {
 public:
   FakeAdjRibOut(BgpPeer peer, AfiSafi afiSafi) : peer_(std::move(peer)), afiSafi_(afiSafi) {}
   BgpPeer const& peer() const override { return peer_; }
   AfiSafi afiSafi() const override { return afiSafi_; }
   AdvertisedPath const* findAdvertisedPath(RouteKey const& key) const override {
      auto const it = sent_.find(&key);
      return it == sent_.end() ? nullptr : &it->second;
   }
   std::size_t advertisedRoutes() const override { return sent_.size(); }
   void sentIs(RouteKey const* key, AdvertisedPath path) { sent_[key] = std::move(path); }

 private:
   BgpPeer peer_;
   AfiSafi afiSafi_;
   std::map<RouteKey const*, AdvertisedPath> sent_;
};

struct PathSpec {
   std::vector<std::uint32_t> asPath;
   std::optional<std::uint32_t> localPref;
   std::optional<std::uint32_t> med;
   char const* nexthop = nullptr;
   std::vector<std::uint64_t> extComms;
   std::vector<std::uint32_t> communities;
};

class FlowspecShowEnv : public PluginContext {
 public:
   explicit FlowspecShowEnv(std::string const& who) : PluginContext(who) {
      second = context->ribSources()->sourceIs(
          BgpPeer{*Ovnet::IpGenAddr::parse("192.0.2.10"), 65003, 65001, 10, BgpVrfIdBase{}});
   }

   static AfiSafi family(bool v6) { return v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec(); }
   RibTable& table(bool v6 = false) const {
      return *context->allVrfInstanceStatus().at(BgpVrfIdBase{})->ribTable(family(v6));
   }
   DedupTablesVrfAfiSafi const& dedupTables(bool v6) const {
      return *context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(family(v6));
   }
   // The table's key of rule text (entered in the dedup table).
   // `wontExport` flags it as the parser flags a rule forwarding cannot honour.
   FlowspecPlugin::FlowspecRouteKey::PtrConst key(std::string const& text, bool v6 = false,
                                                  std::uint32_t wontExport = 0) const {
      auto k = FlowspecPlugin::flowspecRouteKeyFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4);
      OVK_ASSERT_MSG(k->copyInStrCli(text), "rule text of a test");
      if (wontExport) k->wontExportReasonIs(FlowspecPlugin::FlowspecWontExportReason(wontExport));
      auto canonical = k->dedupRouteKey(dedupTables(v6).routeKeyDedupTableRawPtr());
      return FlowspecPlugin::FlowspecRouteKey::PtrConst(
          static_cast<FlowspecPlugin::FlowspecRouteKey const*>(canonical.ptr()));
   }
   Ovk::Ptr<RtAttr const> attrs(PathSpec const& p, bool v6 = false) const {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      if (!p.asPath.empty()) {
         std::string seg{2, static_cast<char>(p.asPath.size())};
         for (std::uint32_t as : p.asPath) {
            for (int shift = 24; shift >= 0; shift -= 8) seg += static_cast<char>((as >> shift) & 0xff);
         }
         c.asPath = Ovk::String(seg);
         c.asPathLength = static_cast<std::uint32_t>(p.asPath.size());
         c.neighborAs = p.asPath.front();
      }
      c.localPref = p.localPref;
      c.med = p.med;
      c.communities = p.communities;
      auto const* rules = context->parseExtCommRuleCollections().ptr();
      for (std::uint64_t v : p.extComms) c.extCommList.push(context->coreDedupTables()->extCommIs(rules->create(v)));
      Ovnet::IpGenAddr const addr = p.nexthop ? *Ovnet::IpGenAddr::parse(p.nexthop) : Ovnet::IpGenAddr();
      auto nh = FlowspecPlugin::flowspecGenNexthopFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4, addr, Ovk::String());
      c.nexthop = nh->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(dedupTables(v6).nexthopDedupTableRawPtr()), false);
      return context->rtAttrDedupTable()->rtAttrIs(std::move(c));
   }
   FlowspecPlugin::FlowspecRouteKey::PtrConst announce(std::string const& rule, RibSource from, PathSpec const& p,
                                                       bool v6 = false, std::uint32_t wontExport = 0) const {
      auto k = key(rule, v6, wontExport);
      table(v6).pathIs(*k, from, attrs(p, v6));
      table(v6).flushChanges();
      return k;
   }
   // The row database of a show command of `family`, with the plugin's tables registered
   // through hook 18.
   Ovrow::LocalOvdb showDb(AfiSafi afiSafi) const {
      auto db = Ovk::makePtr<Ovrow::Ovdb>();
      Ovrow::Bgp::registerBgpRowTypes(*db);
      Ovrow::LocalOvdb local(db);
      if (auto helpers = context->afiSafiTable()->helpers(afiSafi)) {
         auto hook = helpers->hookAs<Plugin::OvrowPluginBase>(Plugin::HookId::ovrow);
         hook->registerOvrowTables(Ovk::makePtr<Plugin::ShowCmdContext>(context, afiSafi), &local);
      }
      return local;
   }
   // A RIB-out of the peer of `source`, registered with the context.
   Ovk::Ptr<FakeAdjRibOut> ribOutOf(RibSource from, bool v6 = false) const {
      auto out = Ovk::makePtr<FakeAdjRibOut>(context->ribSources()->peer(from), family(v6));
      context->ribOutIs(out);
      return out;
   }

   RibSource second = 0;
};

} // namespace Routing::Bgp::Fakes
