// The plugin frame over a real context: what each family registers with and without an
// FSIB, that flowspec lives in the default VRF alone, and the local next hops of hook 1.
#include "BgpFlowspec/FlowspecPlugin.h"

#include <gtest/gtest.h>

#include <set>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/fwk/Trace.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/plugin/PluginHost.h"
#include "tests/fakes/PluginContext.h"

namespace Routing::Bgp::FlowspecPlugin {
namespace {

std::set<Plugin::HookId> hooksOf(Plugin::Context const& context, AfiSafi family) {
   std::set<Plugin::HookId> ids;
   for (auto const& [id, hook] : context.afiSafiTable()->helpers(family)->hooks()) ids.insert(id);
   return ids;
}

// Without an entity manager there is no FSIB to export to: every hook but the export's, and
// the plugin says why.
TEST(FlowspecPluginTest, WithoutAnFsibEveryHookButTheExport) {
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 3);
   Plugin::Context::Options o;
   o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   auto context = Plugin::startPlugins(std::move(o));
   std::set<Plugin::HookId> const expected{Plugin::HookId::constructAdjRibin, Plugin::HookId::ovrow,
                                           Plugin::HookId::transportNexthop, Plugin::HookId::show};
   for (AfiSafi const family : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
      SCOPED_TRACE(toStrep(family));
      EXPECT_EQ(hooksOf(*context, family), expected);
   }
   EXPECT_EQ(cap.lines().size(), 2u); // once per family
   EXPECT_TRUE(cap.contains("No entityManager, not creating routeConfigSmFactory", 3));
   // Both families share the one forwarding-target helper of the host.
   EXPECT_EQ(context->fwdTgtHelpers().size(), 1u);
   context->shutdown();
}

// With an FSIB: the export's hook too, and still one forwarding-target helper.
TEST(FlowspecPluginTest, WithAnFsibTheExportToo) {
   Fakes::PluginContext env("plugintest");
   for (AfiSafi const family : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
      EXPECT_EQ(hooksOf(*env.context, family).count(Plugin::HookId::routeConfigSmFactory), 1u);
   }
   EXPECT_EQ(env.context->fwdTgtHelpers().size(), 1u);
}

// Flowspec lives in the default VRF alone: another VRF gets neither tables nor an export,
// so its machine could never empty the FSIB the default VRF's machines share.
TEST(FlowspecPluginTest, AnotherVrfGetsNoFlowspecTables) {
   Fakes::PluginContext env("pluginvrf");
   auto const fsib = Mnemo::fsibOf(*env.context->entityManager());
   Flowspec::FlowspecKey k;
   ASSERT_TRUE(k.copyInStrCli("203.0.113.0/24;*;"));
   Flowspec::Rule r;
   r.key.copyInFlowspecKey(k);
   ASSERT_EQ(fsib->ruleIs(r), Flowspec::RuleIsResult::added);
   env.context->vrfIs(BgpVrfIdBase(10), "blue");
   auto const blue = env.context->dedupTablesVrf(BgpVrfIdBase(10));
   for (AfiSafi const family : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
      EXPECT_EQ(blue->dedupTablesVrfAfiSafi(family), nullptr);
      EXPECT_EQ(env.context->routeConfigSm(ForwardingTarget::flowspec, BgpVrfIdBase(10), family), nullptr);
   }
   EXPECT_EQ(fsib->ruleCount(), 1u);
}

// Hook 1: the next hop the agent advertises flowspec routes with, from the session's local
// address.
TEST(FlowspecPluginTest, LocalNextHopsOfTheTransport) {
   Fakes::PluginContext env("pluginnexthop");
   auto hook = [&](AfiSafi family) {
      return env.context->afiSafiTable()->helpers(family)->hookAs<Plugin::TransportNexthopPluginBase>(
          Plugin::HookId::transportNexthop);
   };
   auto local = [&](AfiSafi family, char const* address, BgpVrfIdBase vrf = BgpVrfIdBase{}) {
      auto const transport = IpPlugin::IpGenNexthop::create(address ? *Ovnet::IpGenAddr::parse(address) : Ovnet::IpGenAddr());
      return hook(family)->transportAddrToLocalNexthop(transport, env.context->dedupTablesVrf(vrf));
   };
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
   // IPv6 flowspec over an IPv4 session gets the IPv4 address.
   auto const v6OverV4 = Ovk::ptrCast<FlowspecGenNexthop const>(local(AfiSafi::ipv6Flowspec(), "192.0.2.1"));
   ASSERT_TRUE(v6OverV4);
   EXPECT_EQ(v6OverV4->addr().str(), "192.0.2.1");
   EXPECT_EQ(v6OverV4->afi(), Afi::afiIpv6);
   // IPv4 flowspec over an IPv6 session gets none.
   EXPECT_EQ(local(AfiSafi::ipv4Flowspec(), "2001:db8::1"), nullptr);
   EXPECT_TRUE(cap.contains("Cannot send a v6 nexthop on a v4 transport"));
   EXPECT_EQ(local(AfiSafi::ipv4Flowspec(), nullptr), nullptr);
   EXPECT_TRUE(cap.contains("no localAddress provided"));
   // Deduplicated: the same address gives the same next hop.
   auto const a = local(AfiSafi::ipv4Flowspec(), "192.0.2.1");
   ASSERT_TRUE(a);
   EXPECT_EQ(local(AfiSafi::ipv4Flowspec(), "192.0.2.1").ptr(), a.ptr());
   // Another VRF has no flowspec tables: no next hop.
   env.context->vrfIs(BgpVrfIdBase(10), "blue");
   EXPECT_EQ(local(AfiSafi::ipv4Flowspec(), "192.0.2.1", BgpVrfIdBase(10)), nullptr);
}

TEST(FlowspecPluginDeathTest, OnlyFlowspecNlriTypesNeedARibTable) {
   Fakes::PluginContext env("pluginnlri");
   auto helpers = env.context->afiSafiTable()->helpers(AfiSafi::ipv4Flowspec());
   EXPECT_TRUE(helpers->nlriTypeRequiresRibTable(NlriType::ipv6Flowspec));
   EXPECT_DEATH(helpers->nlriTypeRequiresRibTable(fromAfiSafi(kIpv4UnicastAfiSafi)),
                "\\( nlriType == NlriType::ipv4Flowspec_ \\) \\|\\| \\( nlriType == NlriType::ipv6Flowspec_ \\)");
}

} // namespace
} // namespace Routing::Bgp::FlowspecPlugin
