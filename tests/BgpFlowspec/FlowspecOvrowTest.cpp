// The flowspec show tables over a real context: registration by family, the route table's
// walk in rule order from any start, its rows, and the peer-egress lookup's failures.
#include "BgpFlowspec/FlowspecOvrow.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "BgpFlowspec/FlowspecPlugin.h"
#include "host/fwk/Trace.h"
#include "host/ovrow/Render.h"
#include "tests/fakes/FlowspecShowEnv.h"

namespace Routing::Bgp::FlowspecPlugin {
namespace {

using Fakes::FlowspecShowEnv;
using Fakes::PathSpec;

std::vector<std::string> walk(Ovrow::Table& t, Ovrow::Row* start = nullptr) {
   std::vector<std::string> rules;
   auto c = start ? t.cursorLowerBound(*start) : t.cursorBegin();
   if (!c) return rules;
   do rules.push_back(*c->row().get<std::string>("rule"));
   while (c->next());
   return rules;
}

Ovrow::Row routeKeyRow(char const* rule, char const* dest = nullptr) {
   Ovrow::Row r(Ovrow::Bgp::bgpFlowspecRouteRowType());
   if (rule) r.columnIs("rule", std::string(rule));
   if (dest) r.columnIs("destPrefix", *Ovnet::IpGenPrefix::parse(dest));
   return r;
}

TEST(FlowspecOvrowTest, RegistersTheTablesOfTheCommandsFamilyOnly) {
   FlowspecShowEnv env("ovrowreg");
   struct Case {
      AfiSafi afiSafi;
      std::vector<std::string> paths;
   } const cases[] = {
       {AfiSafi::ipv4Flowspec(), {kBgpFlowspecIpv4PeerEgressPath, kBgpFlowspecIpv4RoutePath}},
       {AfiSafi::ipv6Flowspec(), {kBgpFlowspecIpv6PeerEgressPath, kBgpFlowspecIpv6RoutePath}},
       {AfiSafi(Afi::afiIpv4, 1), {}},
       {AfiSafi(Afi::afiIpv4, 134), {}},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(toStrep(c.afiSafi));
      auto db = Ovk::makePtr<Ovrow::Ovdb>();
      Ovrow::Bgp::registerBgpRowTypes(*db);
      Ovrow::LocalOvdb local(db);
      FlowspecOvrowPlugin(AfiSafi::ipv4Flowspec())
          .registerOvrowTables(Ovk::makePtr<Plugin::ShowCmdContext>(env.context, c.afiSafi), &local);
      EXPECT_EQ(db->tables(), c.paths.size());
      for (auto const& p : c.paths) EXPECT_NE(db->table(p), nullptr) << p;
      // The compact trace ring has the family of every registration, as numbers.
      auto const records = Ovk::Blink::instance().records();
      ASSERT_FALSE(records.empty());
      Ovk::Blink::Record const& last = records.back();
      EXPECT_STREQ(last.function, "FlowspecOvrowPlugin::registerOvrowTables");
      EXPECT_EQ(std::string(last.payload.data(), last.size),
                "AFI=" + std::to_string(static_cast<unsigned>(c.afiSafi.afi())) + " SAFI=" +
                    std::to_string(c.afiSafi.safi()));
   }
}

// Without the command's own row type the tables cannot be registered: a broken invariant of
// the host.
TEST(FlowspecOvrowDeathTest, TheCommandsRowTypeIsLookedUp) {
   FlowspecShowEnv env("ovrowtype");
   auto db = Ovk::makePtr<Ovrow::Ovdb>();
   db->rowTypeIs(Ovrow::Bgp::bgpFlowspecRouteRowType());
   db->rowTypeIs(Ovrow::Bgp::bgpFlowspecPeerEgressRowType());
   Ovrow::LocalOvdb local(db);
   EXPECT_DEATH(FlowspecOvrowPlugin(AfiSafi::ipv4Flowspec())
                    .registerOvrowTables(Ovk::makePtr<Plugin::ShowCmdContext>(env.context, AfiSafi::ipv4Flowspec()),
                                         &local),
                "row type Bgp::showBgpFlowspec registered");
}

TEST(FlowspecOvrowTest, HooksAndSummaryLabels) {
   FlowspecShowEnv env("ovrowhooks");
   for (AfiSafi f : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
      auto helpers = env.context->afiSafiTable()->helpers(f);
      ASSERT_NE(helpers, nullptr);
      EXPECT_NE(helpers->hookAs<FlowspecOvrowPlugin>(Plugin::HookId::ovrow), nullptr);
      auto show = helpers->hookAs<Plugin::ShowPluginBase>(Plugin::HookId::show);
      ASSERT_NE(show, nullptr);
      EXPECT_EQ(show->rcvdSummaryStr(), "RulesRcd");
      EXPECT_EQ(show->accSummaryStr(), "RulesAcc");
      EXPECT_EQ(show->numExtraSummaryAttrs(), 2u);
      EXPECT_FALSE(show->shouldResetSummaryPrefixCounts());
   }
}

// Rules in an order unlike rule order; the walk must agree with a sort of the same keys by
// the keys' own comparison, made strict.
TEST(FlowspecOvrowTest, WalkIsRuleOrderFromAnyStart) {
   FlowspecShowEnv env("ovroworder");
   std::vector<std::string> const texts = {
       "10.0.0.0/8;*;",
       "10.1.0.0/16;*;proto=6",
       "10.1.0.0/16;*;proto=17",
       "*;192.0.2.0/24;",
       "10.1.2.0/24;*;dport=80",
       "10.1.2.0/24;*;",
       "10.1.2.128/25;*;",
       "172.16.0.0/12;*;icmp-type=8",
       "*;*;proto=1",
       "10.1.2.0/24;10.9.0.0/16;",
       "10.1.2.3/32;*;",
   };
   std::vector<FlowspecRouteKey::PtrConst> keys;
   for (auto const& t : texts) keys.push_back(env.announce(t, env.source, {}));
   std::sort(keys.begin(), keys.end(), [](auto const& a, auto const& b) {
      return a->lessThan(Ovk::Ptr<RouteKeyBase const>(b.ptr())) && !b->lessThan(Ovk::Ptr<RouteKeyBase const>(a.ptr()));
   });
   std::vector<std::string> expected;
   for (auto const& k : keys) expected.push_back(k->toStrepCli());

   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv4RoutePath);
   ASSERT_NE(table, nullptr);
   EXPECT_EQ(walk(*table), expected);
   // From each rule (given as text), the walk is the tail of the whole.
   for (std::size_t i = 0; i < expected.size(); ++i) {
      Ovrow::Row start = routeKeyRow(expected[i].c_str());
      EXPECT_EQ(walk(*table, &start), std::vector<std::string>(expected.begin() + static_cast<long>(i), expected.end()))
          << expected[i];
   }
}

TEST(FlowspecOvrowTest, DestinationStartClearsHostBits) {
   FlowspecShowEnv env("ovrowdest");
   env.announce("9.0.0.0/8;*;", env.source, {});
   env.announce("10.1.2.0/24;*;proto=6", env.source, {});
   env.announce("10.1.3.0/24;*;", env.source, {});
   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv4RoutePath);
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
   Ovrow::Row start = routeKeyRow(nullptr, "10.1.2.77/24");
   auto rules = walk(*table, &start);
   ASSERT_FALSE(rules.empty());
   EXPECT_EQ(rules.front(), env.key("10.1.2.0/24;*;proto=6")->toStrepCli());
   EXPECT_EQ(rules.size(), 2u);
   EXPECT_TRUE(cap.contains("Dest prefix provided, starting iterator at nlri 10.1.2.0/32;*;"));
   // The rule text wins over the destination.
   Ovrow::Row both = routeKeyRow("10.1.3.0/24;*;", "9.0.0.0/8");
   EXPECT_EQ(walk(*table, &both).size(), 1u);
}

TEST(FlowspecOvrowTest, ExactLookup) {
   FlowspecShowEnv env("ovrowget");
   env.announce("10.1.0.0/16;*;", env.source, {});
   env.announce("10.3.0.0/16;*;", env.source, {});
   // As a peer may send it: the port in two bytes.
   env.announce("10.5.0.0/16;*;protocol =6;destination-port =80{len=2};", env.source, {});
   env.announce("10.5.0.0/16;*;protocol =6;destination-port =81;", env.source, {});
   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv4RoutePath);
   struct Case {
      char const* rule;
      char const* found; // the rule's text as the table has it; null: not found
   } const cases[] = {
       {"10.1.0.0/16;*;", "10.1.0.0/16;*;"},
       {"10.1.0.0/16 ; * ;", "10.1.0.0/16;*;"}, // the same rule, spelled otherwise
       {"10.2.0.0/16;*;", nullptr},             // not there, though 10.3.0.0/16 follows it
       {"10.4.0.0/16;*;", nullptr},             // after the last
       {"destination 10.5.0.0/16 protocol =6 destination-port =80",
        "10.5.0.0/16;*;protocol =6;destination-port =80{len=2};"}, // means the same
       {"destination 10.5.0.0/16 protocol =6 destination-port =82", nullptr},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.rule);
      Ovrow::Row row = routeKeyRow(c.rule);
      EXPECT_EQ(table->lookup(row), c.found != nullptr);
      if (c.found) {
         EXPECT_EQ(*row.get<std::string>("rule"), env.key(c.found)->toStrepCli());
      }
   }
   auto* impl = dynamic_cast<BgpFlowspecRouteImpl*>(table.ptr());
   ASSERT_NE(impl, nullptr);
   EXPECT_THROW(impl->getRow(nullptr), Ovrow::NullRowException);
   try {
      auto state = impl->newIterState();
      impl->lowerBoundIterState(nullptr, state);
   } catch (Ovrow::NullRowException const& e) {
      EXPECT_STREQ(e.what(), "null row");
   }
}

TEST(FlowspecOvrowTest, EmptyTable) {
   FlowspecShowEnv env("ovrowempty");
   auto db = env.showDb(AfiSafi::ipv6Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv6RoutePath);
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
   EXPECT_EQ(table->cursorBegin(), nullptr);
   Ovrow::Row start = routeKeyRow("2001:db8::/32;*;");
   EXPECT_EQ(table->cursorLowerBound(start), nullptr);
   EXPECT_TRUE(cap.contains("BgpFlowspecRouteImpl: beginIterState returning end()"));
   EXPECT_TRUE(cap.contains("lowerBoundIterState returning end()"));
}

TEST(FlowspecOvrowTest, RowOfARule) {
   FlowspecShowEnv env("ovrowrow");
   env.context->vrfIs(BgpVrfIdBase(10), "blue");
   auto const k =
       env.announce("10.1.0.0/16;*;proto=6", env.source,
                    {{65002, 65010}, 200, 5, "192.0.2.9", {std::uint64_t{0x8006} << 48}, {65002u << 16 | 7}});
   env.announce("10.1.0.0/16;*;proto=6", env.second, {{65003}, 100, std::nullopt, "192.0.2.10", {}, {}});
   auto main = Ovk::ptrCast<FlowspecPluginMain>(env.context->pluginMain(AfiSafi::ipv4Flowspec()));
   main->rkToRedirVrfId()->mapIs(k.ptr(), FlowspecRedirVrfId{10, 1});
   env.announce("10.2.0.0/16;*;", env.source, {}, false, 4);

   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv4RoutePath);
   auto c = table->cursorBegin();
   ASSERT_NE(c, nullptr);
   Ovrow::Row const& r = c->row();
   EXPECT_EQ(*r.get<std::uint64_t>("ruleId"), static_cast<std::uint32_t>(k->ruleId())); // as the FSIB has it
   EXPECT_EQ(*r.get<std::string>("redirectVrf"), "blue");
   EXPECT_EQ(r.get<std::string>("nlri"), nullptr);
   auto const& paths = *r.get<std::vector<Ovrow::Row>>("paths");
   ASSERT_EQ(paths.size(), 2u);
   // The higher LOCAL_PREF wins.
   EXPECT_EQ(*paths[0].get<std::string>("peer"), "192.0.2.9");
   EXPECT_TRUE(*paths[0].get<bool>("best"));
   EXPECT_EQ(*paths[0].get<std::string>("asPath"), "65002 65010");
   EXPECT_EQ(*paths[0].get<std::uint64_t>("med"), 5u);
   EXPECT_EQ(*paths[0].get<std::string>("nextHop"), "192.0.2.9");
   EXPECT_EQ(paths[0].get<std::vector<std::string>>("communities")->size(), 2u);
   EXPECT_EQ(*paths[1].get<std::string>("peer"), "192.0.2.10");
   EXPECT_FALSE(*paths[1].get<bool>("best"));
   EXPECT_EQ(paths[1].get<std::uint64_t>("med"), nullptr);
   EXPECT_TRUE(*r.get<bool>("inFsib"));
   EXPECT_EQ(r.get<std::string>("notInFsibReason"), nullptr);

   ASSERT_TRUE(c->next());
   Ovrow::Row const& unexportable = c->row();
   EXPECT_FALSE(*unexportable.get<bool>("inFsib"));
   EXPECT_NE(unexportable.get<std::string>("nlri"), nullptr);
   EXPECT_NE(unexportable.get<std::string>("notInFsibReason")->find("cannot be forwarded"), std::string::npos);
   EXPECT_FALSE(c->next());
}

// A walk paused while its rule goes resumes at the rule that followed it.
TEST(FlowspecOvrowTest, ResumeAfterTheTableChanged) {
   FlowspecShowEnv env("ovrowresume");
   for (char const* t : {"10.1.0.0/16;*;", "10.2.0.0/16;*;", "10.3.0.0/16;*;", "10.4.0.0/16;*;"}) {
      env.announce(t, env.source, {});
   }
   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto c = db.database().table(kBgpFlowspecIpv4RoutePath)->cursorBegin();
   ASSERT_TRUE(c->next()); // at 10.2
   env.table().pathDel(*env.key("10.2.0.0/16;*;"), env.source);
   env.table().pathDel(*env.key("10.1.0.0/16;*;"), env.source);
   env.table().flushChanges();
   c->resume();
   ASSERT_TRUE(c->next());
   EXPECT_EQ(*c->row().get<std::string>("rule"), env.key("10.3.0.0/16;*;")->toStrepCli());
   c->resume();
   ASSERT_TRUE(c->next());
   EXPECT_EQ(*c->row().get<std::string>("rule"), env.key("10.4.0.0/16;*;")->toStrepCli());
   EXPECT_FALSE(c->next());
}

TEST(FlowspecOvrowTest, PeerEgressFailuresOnePerRow) {
   FlowspecShowEnv env("ovrowegress");
   auto const sent =
       env.announce("10.1.0.0/16;*;", env.source, {{65001}, std::nullopt, std::nullopt, "192.0.2.1", {}, {}});
   env.announce("10.2.0.0/16;*;", env.source, {});
   auto out = env.ribOutOf(env.second);
   out->sentIs(sent.ptr(),
               AdvertisedPath{env.attrs({{65001, 65002}, std::nullopt, 3, "192.0.2.1", {}, {}}), env.source});
   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   auto table = db.database().table(kBgpFlowspecIpv4PeerEgressPath);
   struct Case {
      char const* name;
      char const* vrf;
      char const* peer;
      char const* rule;
      char const* trace; // the failure's trace; null: a row
   } const cases[] = {
       {"unknown VRF", "red", "192.0.2.10", "10.1.0.0/16;*;", " no instanceStatus for red"},
       {"unknown peer", nullptr, "192.0.2.99", "10.1.0.0/16;*;", " no peerStatus nlriType=20 peerVrfAddr=192.0.2.99"},
       {"no RIB-out", nullptr, "192.0.2.9", "10.1.0.0/16;*;", " getRibOutSm failed vrfId=0 nlriType=20"},
       {"rule not held", nullptr, "192.0.2.10", "10.9.0.0/16;*;", " toBribPath failed vrfId=0 nlriType=20"},
       {"not advertised", nullptr, "192.0.2.10", "10.2.0.0/16;*;", "found bribPath"},
       {"advertised", "default", "192.0.2.10", "10.1.0.0/16 ; * ;", nullptr},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      Ovrow::Row row(Ovrow::Bgp::bgpFlowspecPeerEgressRowType());
      if (c.vrf) row.columnIs("vrf", std::string(c.vrf));
      row.columnIs("peer", std::string(c.peer));
      row.columnIs("rule", std::string(c.rule));
      Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
      bool const found = table->lookup(row);
      EXPECT_EQ(found, c.trace == nullptr);
      if (c.trace) {
         EXPECT_TRUE(cap.contains(c.trace)) << ::testing::PrintToString(cap.texts());
         continue;
      }
      EXPECT_EQ(*row.get<std::string>("rule"), sent->toStrepCli());
      EXPECT_EQ(*row.get<std::string>("source"), "192.0.2.9");
      EXPECT_EQ(*row.get<std::string>("asPath"), "65001 65002");
      EXPECT_EQ(*row.get<std::uint64_t>("med"), 3u);
   }
}

TEST(FlowspecOvrowTest, PeerEgressCannotBeWalked) {
   FlowspecShowEnv env("ovrowegresswalk");
   env.announce("10.1.0.0/16;*;", env.source, {});
   auto db = env.showDb(AfiSafi::ipv4Flowspec());
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
   EXPECT_EQ(db.database().table(kBgpFlowspecIpv4PeerEgressPath)->cursorBegin(), nullptr);
   // The operation's line, then why: two lines, not one text run together.
   EXPECT_EQ(cap.texts(), (std::vector<std::string>{"BgpFlowspecPeerEgressImpl: beginIterState",
                                                    "iteration of entire table is not supported"}));
}

TEST(FlowspecOvrowDeathTest, UnknownPeerEgressPath) {
   EXPECT_DEATH(BgpFlowspecPeerEgressImpl::getNlriTypeFromTablePath("ov/Bgp/other"), "Unknown table path");
}

} // namespace
} // namespace Routing::Bgp::FlowspecPlugin
