// The forwarding export over a real context (the plugin started as the agent starts it), a
// real RIB table and the FSIB in shared memory under a prefix of the test's own.
#include "BgpFlowspec/FlowspecFsibExport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <functional>
#include <cstring>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "host/fwk/Trace.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
#include "host/plugin/PluginHost.h"
#include "tests/fakes/PluginContext.h"

namespace Routing::Bgp::FlowspecPlugin {
namespace {

using Flowspec::ActionFieldSet;

// Community values.
std::uint64_t rate(float bytesPerSecond) {
   return std::uint64_t{0x8006} << 48 | std::uint64_t{std::bit_cast<std::uint32_t>(bytesPerSecond)};
}
std::uint64_t trafficAction(std::uint8_t flags) { return std::uint64_t{0x8007} << 48 | flags; }
std::uint64_t marking(std::uint8_t dscp) { return std::uint64_t{0x8009} << 48 | dscp; }
std::uint64_t redirectIpv4(char const* addr, bool copy) {
   return std::uint64_t{0x010c} << 48 | std::uint64_t{Ovnet::IpGenAddr::parse(addr)->ipv4HostOrder()} << 16 |
          (copy ? 1u : 0u);
}
std::uint64_t redirectNexthop(bool copy) { return std::uint64_t{0x0800} << 48 | (copy ? 1u : 0u); }
std::uint64_t redirectVrf(std::uint16_t as, std::uint32_t local) {
   return std::uint64_t{0x8008} << 48 | std::uint64_t{as} << 32 | local;
}
std::array<std::uint8_t, 20> redirectIpv6(char const* addr, bool copy) {
   std::array<std::uint8_t, 20> b{};
   b[1] = 0x0c;
   Ovnet::IpGenAddr const a = *Ovnet::IpGenAddr::parse(addr);
   std::memcpy(b.data() + 2, a.bytes().data(), 16);
   b[19] = copy ? 1 : 0;
   return b;
}

class ExportEnv : public Fakes::PluginContext {
 public:
   ExportEnv() : PluginContext("exporttest") {}

   RibTable& table(bool v6 = false) const {
      return *context->allVrfInstanceStatus()
                  .at(BgpVrfIdBase{})
                  ->ribTable(v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec());
   }
   FlowspecRouteConfigSm& sm(bool v6 = false) const {
      auto sm = context->routeConfigSm(ForwardingTarget::flowspec, BgpVrfIdBase{},
                                       v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec());
      auto* export_ = dynamic_cast<FlowspecRouteConfigSm*>(sm.ptr());
      OVK_ASSERT(export_ != nullptr);
      return *export_;
   }
   FlowspecRouteKey::PtrConst key(char const* text, bool v6 = false) const {
      auto const* tables = context->dedupTablesVrf(BgpVrfIdBase{})
                               ->dedupTablesVrfAfiSafi(v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec());
      FlowspecRouteKey::Ptr k = flowspecRouteKeyFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4);
      EXPECT_TRUE(k->copyInStrCli(text)) << text;
      auto canonical = k->dedupRouteKey(tables->routeKeyDedupTableRawPtr());
      return FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(canonical.ptr()));
   }
   Ovk::Ptr<RtAttr const> attrs(std::vector<std::uint64_t> comms, std::vector<std::array<std::uint8_t, 20>> comms6 = {},
                                char const* nexthop = nullptr, bool v6 = false) const {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      auto const* rules = context->parseExtCommRuleCollections().ptr();
      for (std::uint64_t v : comms) c.extCommList.push(context->coreDedupTables()->extCommIs(rules->create(v)));
      for (auto const& b : comms6) c.extCommIp6List.push(context->coreDedupTables()->extCommIp6Is(rules->create(b)));
      auto const* tables = context->dedupTablesVrf(BgpVrfIdBase{})
                               ->dedupTablesVrfAfiSafi(v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec());
      Ovnet::IpGenAddr const addr = nexthop ? *Ovnet::IpGenAddr::parse(nexthop) : Ovnet::IpGenAddr();
      auto nh = flowspecGenNexthopFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4, addr, Ovk::String());
      c.nexthop = nh->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(tables->nexthopDedupTableRawPtr()), false);
      return context->rtAttrDedupTable()->rtAttrIs(std::move(c));
   }
   void announce(FlowspecRouteKey const& k, Ovk::Ptr<RtAttr const> const& a, bool v6 = false) const {
      table(v6).pathIs(k, source, a);
      table(v6).flushChanges();
   }
   void withdraw(FlowspecRouteKey const& k, bool v6 = false) const {
      table(v6).pathDel(k, source);
      table(v6).flushChanges();
   }
   std::optional<Flowspec::Rule> rule(FlowspecRouteKey const& k, bool v6 = false) const {
      Flowspec::FlowspecSlateKey slate;
      slate.copyInFlowspecKey(k.slateKey());
      return sm(v6).fsib()->rule(slate);
   }
   // Route target `value` imported by VRF `vrfId` in both families, or none when 0.
   void importIs(std::uint64_t rt, std::uint32_t vrfId) const {
      for (auto [rtFamily, vpnFamily] :
           {std::pair{kIpv4UnicastAfiSafi, kVpnIpv4AfiSafi}, std::pair{kIpv6UnicastAfiSafi, kVpnIpv6AfiSafi}}) {
         RtToVrfIdList& top = *context->rtToVrfIdList();
         if (!top.find(rtFamily)) top.set(rtFamily, AfiSafiRtToVrfIdList::create());
         AfiSafiRtToVrfIdList& byVpn = **top.find(rtFamily);
         if (!byVpn.find(vpnFamily)) byVpn.set(vpnFamily, VpnRtToVrfIdList::create());
         VpnRtToVrfIdList& byRt = **byVpn.find(vpnFamily);
         auto const key = context->coreDedupTables()->extCommIs(ExtComm::createBase(rt));
         if (vrfId == 0) {
            byRt.del(key);
         } else {
            auto list = VrfIdList::create();
            list->vrfs[vrfId] = BgpVrfIdBase(vrfId);
            byRt.set(key, list);
         }
      }
   }

 private:
};

constexpr std::uint64_t kRt100 = std::uint64_t{0x0002} << 48 | std::uint64_t{65000} << 32 | 100; // 65000:100

// ---- Translation: one row per community kind and per combination that matters ----

TEST(FlowspecFsibExportTest, TranslationTable) {
   ExportEnv env;
   env.importIs(kRt100, 10);
   struct Row {
      char const* name;
      std::vector<std::uint64_t> comms;
      std::vector<std::array<std::uint8_t, 20>> comms6;
      char const* nexthop;
      std::uint32_t actions;
      float rate;
      std::uint32_t trafficAction;
      std::uint8_t dscp;
      std::uint32_t vrf;
      char const* address; // "" for none
      bool copy;
   };
   constexpr std::uint32_t none = Flowspec::TrafficRedirect::noVrfId;
   Row const rows[] = {
       {"no community", {}, {}, nullptr, Flowspec::actionNone, 0, 0, 0, none, "", false},
       {"rate 0 drops", {rate(0)}, {}, nullptr, Flowspec::actionDrop, 0, 0, 0, none, "", false},
       {"rate polices", {rate(1250)}, {}, nullptr, Flowspec::actionPolice, 1250, 0, 0, none, "", false},
       {"zero and non-zero rate",
        {rate(0), rate(500)},
        {},
        nullptr,
        Flowspec::actionDrop | Flowspec::actionPolice,
        500,
        0,
        0,
        none,
        "",
        false},
       {"both traffic-action flags",
        {trafficAction(3)},
        {},
        nullptr,
        Flowspec::actionTrafficAction,
        0,
        3,
        0,
        none,
        "",
        false},
       {"no traffic-action flag", {trafficAction(0)}, {}, nullptr, Flowspec::actionNone, 0, 0, 0, none, "", false},
       {"a later empty traffic-action clears",
        {trafficAction(2), trafficAction(0)},
        {},
        nullptr,
        Flowspec::actionTrafficAction,
        0,
        0,
        0,
        none,
        "",
        false},
       {"DSCP 0xff is 0x3f", {marking(0xff)}, {}, nullptr, Flowspec::actionSetDscp, 0, 0, 0x3f, none, "", false},
       {"redirect to IP gets this VRF",
        {redirectIpv4("198.51.100.1", false)},
        {},
        nullptr,
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "198.51.100.1",
        false},
       {"VRF then IPv4 redirect: both",
        {redirectVrf(65000, 100), redirectIpv4("198.51.100.1", false)},
        {},
        nullptr,
        Flowspec::actionRedirect,
        0,
        0,
        0,
        10,
        "198.51.100.1",
        false},
       {"next hop then VRF in one list: only the VRF",
        {redirectNexthop(false), redirectVrf(65000, 100)},
        {},
        "192.0.2.7",
        Flowspec::actionRedirect,
        0,
        0,
        0,
        10,
        "",
        false},
       {"next hop, then a VRF that resolves and one that does not: the first VRF",
        {redirectNexthop(false), redirectVrf(65000, 100), redirectVrf(65000, 999)},
        {},
        "192.0.2.7",
        Flowspec::actionRedirect,
        0,
        0,
        0,
        10,
        "",
        false},
       {"two non-copy IPv4: the later",
        {redirectIpv4("198.51.100.1", false), redirectIpv4("198.51.100.2", false)},
        {},
        nullptr,
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "198.51.100.2",
        false},
       {"copy after non-copy is ignored",
        {redirectIpv4("198.51.100.1", false), redirectIpv4("198.51.100.2", true)},
        {},
        nullptr,
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "198.51.100.1",
        false},
       {"non-copy after copy takes over",
        {redirectIpv4("198.51.100.1", true), redirectIpv4("198.51.100.2", false)},
        {},
        nullptr,
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "198.51.100.2",
        false},
       {"two next hops of one copy flag: the first",
        {redirectIpv4("198.51.100.1", false), redirectNexthop(false)},
        {},
        "192.0.2.7",
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "198.51.100.1",
        false},
       {"next hop without address",
        {redirectNexthop(false)},
        {},
        nullptr,
        Flowspec::actionNone,
        0,
        0,
        0,
        none,
        "",
        false},
       {"non-copy next hop over a copy address",
        {redirectIpv4("198.51.100.1", true), redirectNexthop(false)},
        {},
        "192.0.2.7",
        Flowspec::actionRedirect,
        0,
        0,
        0,
        0,
        "192.0.2.7",
        false},
       {"IPv6 redirect on IPv4 flowspec",
        {},
        {redirectIpv6("2001:db8::1", false)},
        nullptr,
        Flowspec::actionNone,
        0,
        0,
        0,
        none,
        "",
        false},
       {"unresolved VRF redirect",
        {redirectVrf(65000, 999)},
        {},
        nullptr,
        Flowspec::actionNone,
        0,
        0,
        0,
        none,
        "",
        false},
   };
   int i = 0;
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      auto const k = env.key(("10.0." + std::to_string(i++) + ".0/24;*;").c_str());
      env.announce(*k, env.attrs(r.comms, r.comms6, r.nexthop));
      auto const rule = env.rule(*k);
      ASSERT_TRUE(rule);
      EXPECT_EQ(rule->actions, ActionFieldSet(r.actions));
      EXPECT_EQ(rule->rate, r.rate);
      EXPECT_EQ(rule->trafficAction, r.trafficAction);
      EXPECT_EQ(rule->dscp, r.dscp);
      EXPECT_EQ(rule->trafficRedirect.vrfId, r.vrf);
      EXPECT_EQ(rule->trafficRedirect.address.isUnspecified() ? "" : rule->trafficRedirect.address.str(), r.address);
      EXPECT_EQ(rule->trafficRedirect.copy, r.copy);
      EXPECT_EQ(rule->ruleId, static_cast<std::uint32_t>(k->ruleId()));
      // The route table shows the VRF the FSIB redirects to.
      FlowspecRedirVrfId const shown = env.sm().rkToRedirVrfId()->map(k.ptr());
      if (r.vrf != none && r.vrf != 0) {
         EXPECT_EQ(shown.vrfId, r.vrf);
      } else {
         EXPECT_TRUE(shown.empty());
      }
   }
   // An IPv4 redirect on IPv6 flowspec is never exported either.
   auto const k6 = env.key("2001:db8::/32;*;", true);
   env.announce(*k6, env.attrs({redirectIpv4("198.51.100.1", false)}, {}, nullptr, true), true);
   EXPECT_EQ(env.rule(*k6, true)->actions, ActionFieldSet(Flowspec::actionNone));
   env.announce(*k6, env.attrs({}, {redirectIpv6("2001:db8::1", true)}, nullptr, true), true);
   EXPECT_EQ(env.rule(*k6, true)->trafficRedirect.address.str(), "2001:db8::1");
   EXPECT_TRUE(env.rule(*k6, true)->trafficRedirect.copy);
}

// Which IP redirect takes the rule's redirect, and what each decision traces, from
// shouldExport itself.
TEST(FlowspecFsibExportTest, ShouldExportDecidesAndTraces) {
   ExportEnv env;
   auto const* rules = env.context->parseExtCommRuleCollections().ptr();
   auto v4 = [&](bool copy) { return Ovk::ptrCast<FlowspecExtCommRedirectIpv4 const>(rules->create(redirectIpv4("198.51.100.1", copy))); };
   auto v6 = [&](bool copy) {
      return Ovk::ptrCast<FlowspecExtCommRedirectIpv6 const>(rules->create(redirectIpv6("2001:db8::1", copy)));
   };
   auto nh = [&](bool copy) { return Ovk::ptrCast<FlowspecExtCommRedirectNexthop const>(rules->create(redirectNexthop(copy))); };
   auto current = [](char const* address, bool copy) {
      Flowspec::TrafficRedirect r;
      if (address) r.address = *Ovnet::IpGenAddr::parse(address);
      r.copy = copy;
      return r;
   };
   Ovnet::IpGenAddr const nexthop = *Ovnet::IpGenAddr::parse("192.0.2.7");
   struct Row {
      char const* name;
      std::function<bool()> decide;
      bool exported;
      char const* traced; // "" for nothing
   };
   AfiSafi const f4 = AfiSafi::ipv4Flowspec();
   AfiSafi const f6 = AfiSafi::ipv6Flowspec();
   std::vector<Row> const rows{
       {"IPv4 on IPv6 flowspec", [&] { return shouldExport(f6, v4(false).ptr(), current(nullptr, false)); }, false,
        "IPv6 flowspec shouldn't use redirect-extcomm-ipv4"},
       {"IPv6 on IPv4 flowspec", [&] { return shouldExport(f4, v6(false).ptr(), current(nullptr, false)); }, false,
        "IPv4 flowspec shouldn't use redirect-extcomm-ipv6"},
       {"first IPv4", [&] { return shouldExport(f4, v4(true).ptr(), current(nullptr, false)); }, true, ""},
       {"same copy flag: the later", [&] { return shouldExport(f4, v4(true).ptr(), current("10.0.0.1", true)); }, true,
        ""},
       {"non-copy over copy", [&] { return shouldExport(f6, v6(false).ptr(), current("2001:db8::9", true)); }, true,
        "preferring non-copy redirect-ip"},
       {"copy never over non-copy", [&] { return shouldExport(f4, v4(true).ptr(), current("10.0.0.1", false)); },
        false, "preferring non-copy redirect-ip"},
       {"next hop without an address", [&] { return shouldExport(nh(false).ptr(), Ovnet::IpGenAddr(), current(nullptr, false)); },
        false, "ignoring invalid nexthopAddr"},
       {"next hop, first", [&] { return shouldExport(nh(true).ptr(), nexthop, current(nullptr, false)); }, true, ""},
       {"next hop, non-copy over copy", [&] { return shouldExport(nh(false).ptr(), nexthop, current("10.0.0.1", true)); },
        true, "preferring non-copy redirect-ip"},
       {"next hop, a tie keeps the first", [&] { return shouldExport(nh(false).ptr(), nexthop, current("10.0.0.1", false)); },
        false, "ignoring "},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.name);
      Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
      EXPECT_EQ(row.decide(), row.exported);
      if (*row.traced == '\0') {
         EXPECT_TRUE(cap.lines().empty());
         continue;
      }
      ASSERT_EQ(cap.lines().size(), 1u);
      EXPECT_EQ(cap.lines()[0].text.rfind(row.traced, 0), 0u) << cap.lines()[0].text;
      EXPECT_NE(cap.lines()[0].line.find(":FlowspecPlugin::shouldExport "), std::string::npos) << cap.lines()[0].line;
   }
}

// A rule forwarding cannot honour never reaches the FSIB, and says why.
TEST(FlowspecFsibExportTest, UnexportableRulesStayOut) {
   ExportEnv env;
   auto const k = env.key("10.0.0.0/8;*;protocol =6;");
   auto const* tables = env.context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec());
   FlowspecRouteKey::Ptr odd = flowspecRouteKeyFactory(Afi::afiIpv4);
   odd->copyInStrCli("10.9.0.0/16;*;protocol =6;");
   FlowspecWontExportReason reason;
   reason.componentTypeMoreThanOnceIs(true);
   odd->wontExportReasonIs(reason);
   auto canonical = odd->dedupRouteKey(tables->routeKeyDedupTableRawPtr());
   auto const& unexportable = static_cast<FlowspecRouteKey const&>(*canonical);
   env.announce(unexportable, env.attrs({rate(0)}));
   env.announce(*k, env.attrs({rate(0)}));
   EXPECT_FALSE(env.rule(unexportable));
   EXPECT_TRUE(env.rule(*k));
   EXPECT_EQ(env.sm().notInForwardingReason(unexportable), "cannot be forwarded: component type repeated");
   EXPECT_EQ(env.sm().notInForwardingReason(*k), "");
   EXPECT_EQ(env.sm().exportCounters().notExportable, 1u);
}

// Withdrawals and best-path changes follow; the FSIB holds exactly the best routes.
TEST(FlowspecFsibExportTest, RulesFollowTheirBestRoutes) {
   ExportEnv env;
   auto const k = env.key("192.0.2.0/24;*;destination-port =80;");
   env.announce(*k, env.attrs({rate(0)}));
   EXPECT_EQ(env.rule(*k)->actions, ActionFieldSet(Flowspec::actionDrop));
   env.announce(*k, env.attrs({rate(100)}));
   EXPECT_EQ(env.rule(*k)->actions, ActionFieldSet(Flowspec::actionPolice));
   EXPECT_EQ(env.sm().fsib()->ruleCount(), 1u);
   env.withdraw(*k);
   EXPECT_FALSE(env.rule(*k));
   EXPECT_EQ(env.sm().notInForwardingReason(*k), "no best path");
   auto const& c = env.sm().exportCounters();
   EXPECT_EQ(c.added, 1u);
   EXPECT_EQ(c.replaced, 1u);
   EXPECT_EQ(c.deleted, 1u);
}

// A full FSIB holds the rules that come first in precedence, whatever order they came in:
// a rule of higher precedence displaces the last one held, one of lower precedence is
// refused, both counted by the best path's source. A rule that leaves makes room for the
// first refused one, with no one sending it again.
TEST(FlowspecFsibExportTest, AFullFsibHoldsTheRulesThatComeFirst) {
   for (bool const reversed : {false, true}) {
      SCOPED_TRACE(reversed ? "announced last rule first" : "announced in rule order");
      ExportEnv env;
      std::vector<FlowspecRouteKey::PtrConst> keys; // in rule order
      auto const a = env.attrs({rate(0)});
      for (std::uint32_t i = 0; i < Mnemo::fsibRuleCount + 2; ++i) {
         std::string const text = "10." + std::to_string(i >> 8) + "." + std::to_string(i & 0xff) + ".0/24;*;";
         keys.push_back(env.key(text.c_str()));
      }
      for (std::size_t n = 0; n < keys.size(); ++n) {
         env.table().pathIs(*keys[reversed ? keys.size() - 1 - n : n], env.source, a);
      }
      env.table().flushChanges();
      EXPECT_EQ(env.sm().fsib()->ruleCount(), Mnemo::fsibRuleCount);
      auto const& c = env.sm().exportCounters();
      EXPECT_EQ(c.refusedFull, 2u);
      EXPECT_EQ(c.displaced, reversed ? 2u : 0u);
      EXPECT_EQ(c.refusedFullOf(env.source), 2u);
      // A reader of the segment sees the refusals too.
      auto reader = Mnemo::SlateRuleSetReader::open(*env.segmentName());
      ASSERT_TRUE(reader.ok());
      EXPECT_EQ(reader.value().counters().refusals, 2u);
      EXPECT_TRUE(env.rule(*keys[Mnemo::fsibRuleCount - 1]));
      EXPECT_FALSE(env.rule(*keys[Mnemo::fsibRuleCount]));
      EXPECT_EQ(env.sm().notInForwardingReason(*keys.back()), "FSIB full");
      // Room: the first refused rule goes in, and only it.
      env.withdraw(*keys.front());
      EXPECT_TRUE(env.rule(*keys[Mnemo::fsibRuleCount]));
      EXPECT_FALSE(env.rule(*keys.back()));
      EXPECT_EQ(c.refilled, 1u);
      EXPECT_EQ(env.sm().fsib()->ruleCount(), Mnemo::fsibRuleCount);
      // A change of a refused rule changes nothing; back, the withdrawn rule displaces again.
      env.announce(*keys.back(), env.attrs({rate(5)}));
      EXPECT_FALSE(env.rule(*keys.back()));
      env.announce(*keys.front(), a);
      EXPECT_TRUE(env.rule(*keys.front()));
      EXPECT_FALSE(env.rule(*keys[Mnemo::fsibRuleCount]));
   }
}

// Both families share the FSIB: precedence between them is the FSIB's own order, in which a
// rule with a destination prefix comes before one without.
TEST(FlowspecFsibExportTest, FamiliesShareTheFullFsibByPrecedence) {
   ExportEnv env;
   auto const a = env.attrs({rate(0)});
   auto const a6 = env.attrs({rate(0)}, {}, nullptr, true);
   std::vector<FlowspecRouteKey::PtrConst> v6;
   for (std::uint32_t i = 0; i < Mnemo::fsibRuleCount; ++i) {
      char text[64];
      std::snprintf(text, sizeof text, "2001:db8:%x::/48;*;", i);
      v6.push_back(env.key(text, true));
      env.table(true).pathIs(*v6.back(), env.source, a6);
   }
   env.table(true).flushChanges();
   auto const noDest = env.key("*;*;protocol =17;");
   env.announce(*noDest, a);
   EXPECT_FALSE(env.rule(*noDest));
   EXPECT_EQ(env.sm().exportCounters().refusedFull, 1u);
   auto const withDest = env.key("192.0.2.0/24;*;");
   env.announce(*withDest, a);
   EXPECT_TRUE(env.rule(*withDest));
   EXPECT_FALSE(env.rule(*v6.back(), true));
   EXPECT_EQ(env.sm(true).exportCounters().displaced, 1u);
   // The IPv6 rule that left takes the room the IPv4 one makes.
   env.withdraw(*withDest);
   EXPECT_TRUE(env.rule(*v6.back(), true));
   EXPECT_FALSE(env.rule(*noDest));
}

// ---- Redirect to VRF follows the import configuration, level by level ----

TEST(FlowspecFsibExportTest, ImportChangesRetranslateExactlyTheDependentRules) {
   ExportEnv env;
   auto const redirected = env.key("10.1.0.0/16;*;");
   auto const other = env.key("10.2.0.0/16;*;");
   env.announce(*redirected, env.attrs({redirectVrf(65000, 100)}));
   env.announce(*other, env.attrs({rate(0)}));
   // Nothing imports the route target: no redirect, but the rule waits for it.
   EXPECT_EQ(env.rule(*redirected)->actions, ActionFieldSet(Flowspec::actionNone));
   // Only the rule that named the route target depends on it.
   ASSERT_EQ(env.sm().rtToRouteKeySets().size(), 1u);
   EXPECT_EQ(env.sm().rtToRouteKeySets().begin()->second->routeKey(),
             (std::unordered_set<FlowspecRouteKey const*>{redirected.ptr()}));
   // A VRF starts importing it: the waiting rule gains its redirect.
   env.importIs(kRt100, 12);
   EXPECT_EQ(env.rule(*redirected)->trafficRedirect.vrfId, 12u);
   EXPECT_EQ(env.sm().rkToRedirVrfId()->map(redirected.ptr()), (FlowspecRedirVrfId{12, redirectVrf(65000, 100)}));
   // Another VRF with a lower id imports it too: the lowest wins.
   {
      RtToVrfIdList& top = *env.context->rtToVrfIdList();
      VpnRtToVrfIdList& byRt = **(*top.find(kIpv4UnicastAfiSafi))->find(kVpnIpv4AfiSafi);
      auto list = VrfIdList::create();
      list->vrfs[12] = BgpVrfIdBase(12);
      list->vrfs[11] = BgpVrfIdBase(11);
      byRt.set(env.context->coreDedupTables()->extCommIs(ExtComm::createBase(kRt100)), list);
   }
   EXPECT_EQ(env.rule(*redirected)->trafficRedirect.vrfId, 11u);
   // The route target goes: the redirect goes.
   env.importIs(kRt100, 0);
   EXPECT_EQ(env.rule(*redirected)->actions, ActionFieldSet(Flowspec::actionNone));
   EXPECT_TRUE(env.sm().rkToRedirVrfId()->map(redirected.ptr()).empty());
   // Back, then the whole VPN family goes, then the unicast family's entry.
   env.importIs(kRt100, 12);
   EXPECT_EQ(env.rule(*redirected)->trafficRedirect.vrfId, 12u);
   (*env.context->rtToVrfIdList()->find(kIpv4UnicastAfiSafi))->del(kVpnIpv4AfiSafi);
   EXPECT_EQ(env.rule(*redirected)->actions, ActionFieldSet(Flowspec::actionNone));
   env.importIs(kRt100, 12);
   EXPECT_EQ(env.rule(*redirected)->trafficRedirect.vrfId, 12u);
   env.context->rtToVrfIdList()->del(kIpv4UnicastAfiSafi);
   EXPECT_EQ(env.rule(*redirected)->actions, ActionFieldSet(Flowspec::actionNone));
   // The other rule was never translated again.
   EXPECT_EQ(env.rule(*other)->actions, ActionFieldSet(Flowspec::actionDrop));
   // Withdrawn, the rule leaves the route target's set.
   env.withdraw(*redirected);
   EXPECT_TRUE(env.sm().rtToRouteKeySets().empty());
}

// ---- Life cycle ----

TEST(FlowspecFsibExportTest, StartEmptiesTheFsibAndEndsWithIt) {
   std::string const prefix = "exporttest-life-" + std::to_string(getpid());
   auto em = Ovk::makePtr<Mnemo::EntityManager>(prefix);
   ASSERT_EQ(Mnemo::mountFsib(*em), Mnemo::MountStatus::mounted);
   auto stale = Mnemo::fsibOf(*em);
   Flowspec::Rule r;
   Flowspec::FlowspecKey fk;
   ASSERT_TRUE(fk.copyInStrCli("203.0.113.0/24;*;"));
   r.key.copyInFlowspecKey(fk);
   ASSERT_EQ(stale->ruleIs(r), Flowspec::RuleIsResult::added);
   {
      Plugin::Context::Options o;
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      o.entityManager = em;
      auto context = Plugin::startPlugins(std::move(o));
      // The export started from an empty FSIB: the stale rule is gone.
      EXPECT_EQ(stale->ruleCount(), 0u);
      auto sm = Ovk::ptrCast<FlowspecRouteConfigSm>(
          context->routeConfigSm(ForwardingTarget::flowspec, BgpVrfIdBase{}, AfiSafi::ipv4Flowspec()));
      ASSERT_TRUE(sm);
      sm->handleDestroyed();
      EXPECT_FALSE(sm->fsib());
      // After the end, changes are deferred and change nothing.
      Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
      auto k = flowspecRouteKeyFactory(Afi::afiIpv4);
      k->copyInStrCli("10.0.0.0/8;*;");
      auto const* t = context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec());
      auto canonical = k->dedupRouteKey(t->routeKeyDedupTableRawPtr());
      sm->handleRouteEntry(canonical.ptr());
      EXPECT_TRUE(cap.contains("FSIB is not initialized yet, deferring", 8));
      // Detaching a state machine without a mount does nothing.
      auto factory = context->afiSafiTable()
                         ->helpers(AfiSafi::ipv4Flowspec())
                         ->hookAs<FlowspecRouteConfigSmFactory>(Plugin::HookId::routeConfigSmFactory);
      ASSERT_TRUE(factory);
      factory->detach(sm);
      context->shutdown();
   }
   em->doUnmount(Mnemo::fsibPath);
   if (auto name = em->segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
}

// Both families' machines write one FSIB: one that starts while the other has rules in it
// deletes no rule but those of its own family, and one that ends leaves no redirect-VRF entry
// of its keys behind.
TEST(FlowspecFsibExportTest, AMachineStartingAfterTheOtherKeepsItsRules) {
   ExportEnv env;
   env.importIs(kRt100, 10);
   auto const k4 = env.key("10.1.0.0/16;*;");
   env.announce(*k4, env.attrs({redirectVrf(65000, 100)}));
   auto const k6 = env.key("2001:db8::/32;*;", true);
   env.announce(*k6, env.attrs({rate(0)}, {}, nullptr, true), true);
   ASSERT_EQ(env.sm().fsib()->ruleCount(), 2u);
   // The IPv6 machine starts again: the IPv4 rule stays, and is still known as held.
   auto factory = env.context->afiSafiTable()
                      ->helpers(AfiSafi::ipv6Flowspec())
                      ->hookAs<FlowspecRouteConfigSmFactory>(Plugin::HookId::routeConfigSmFactory);
   env.sm(true).handleDestroyed();
   auto restarted = factory->instantiate(BgpVrfIdBase{}, env.sm(true).routeTable(), nullptr);
   EXPECT_TRUE(env.rule(*k4));
   EXPECT_TRUE(env.rule(*k6)); // one FSIB for both families
   EXPECT_EQ(env.sm().notInForwardingReason(*k4), "");
   EXPECT_EQ(restarted->notInForwardingReason(*k6), "");
   EXPECT_EQ(env.sm().fsib()->ruleCount(), 2u);
   // The IPv4 machine ends: its key's redirect VRF is forgotten with it.
   ASSERT_FALSE(env.sm().rkToRedirVrfId()->map(k4.ptr()).empty());
   env.sm().handleDestroyed();
   EXPECT_TRUE(env.sm().rkToRedirVrfId()->map(k4.ptr()).empty());
   restarted->handleDestroyed();
}

// Redirect to a VRF looks route targets up in the unicast family of IPv4 or IPv6: an export
// of any other address family is a broken invariant.
TEST(FlowspecFsibExportDeathTest, RedirectFamiliesExistForIpv4AndIpv6Only) {
   ExportEnv env;
   env.importIs(kRt100, 10);
   AfiSafi const l2vpn(static_cast<Afi>(25), 133);
   auto factory = Ovk::makePtr<FlowspecRouteConfigSmFactory>(l2vpn, env.context->entityManager(),
                                                             env.context->rtToVrfIdList(), env.context->coreDedupTables(),
                                                             nullptr);
   EXPECT_DEATH(factory->instantiate(BgpVrfIdBase{}, env.sm().routeTable(), nullptr),
                R"(afiSafi\(\).afi\(\) == Afi::afiIpv4_ \|\| afiSafi\(\).afi\(\) == Afi::afiIpv6_)");
}

TEST(FlowspecFsibExportDeathTest, DetachOfAnotherKindOfStateMachine) {
   class Other : public FwdTgtRouteConfigSm {
    public:
      Other() : FwdTgtRouteConfigSm(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), ForwardingTarget::flowspec, nullptr) {}
      void handleRouteEntry(RouteKey const*) override {}
   };
   auto factory =
       Ovk::makePtr<FlowspecRouteConfigSmFactory>(AfiSafi::ipv4Flowspec(), nullptr, nullptr, nullptr, nullptr);
   EXPECT_DEATH(factory->detach(Ovk::makePtr<Other>()), "Assertion `configSm' failed");
}

} // namespace
} // namespace Routing::Bgp::FlowspecPlugin
