// Originated rules in the RIB of a real context over the real plugin library, with the FSIB
// the export writes: each action reaches the FSIB as that action, reloads change only what
// changed, run-time rules take precedence over configured ones, and the agent's paths
// compete with its peers'.
#include "agent/Origination.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/BgpRouting.h"
#include "host/flowspec/FlowspecSlateKey.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
#include "host/plugin/PluginHost.h"
#include "tests/fakes/AgentFakes.h"
#include "tests/host/bgp/UpdateBuilder.h"
#include "tools/flowspec/NlriCodec.h"

namespace Flowspecd {
namespace {

using namespace BgpTest;
using BgpTest::hexText;

struct Fixture {
   explicit Fixture(std::uint32_t localAs = 65001) {
      static bool const loaded = Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY).ok();
      EXPECT_TRUE(loaded);
      entityManager = Ovk::makePtr<Mnemo::EntityManager>("originationtest-" + std::to_string(getpid()));
      EXPECT_EQ(Mnemo::mountFsib(*entityManager), Mnemo::MountStatus::mounted);
      Plugin::Context::Options o;
      o.taskScheduler = Ovk::ManualScheduler::create();
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      o.local = BgpPeer{Ovnet::IpGenAddr(), localAs, localAs, 1, BgpL3VrfId::defaultVrfId()};
      o.entityManager = entityManager;
      context = Plugin::startPlugins(std::move(o));
      origination = std::make_unique<Origination>(context, entityManager);
   }
   ~Fixture() {
      origination = nullptr;
      context->shutdown();
      auto const name = entityManager->segmentName(Mnemo::fsibPath);
      Mnemo::unmountFsib(*entityManager);
      if (name) Mnemo::unlinkSlateSegment(*name);
   }

   static OriginatedRule rule(std::string const& family, std::string const& match, std::vector<std::string> then) {
      auto r = originatedRuleOf(*ruleFamilyOf(family), match, then);
      EXPECT_TRUE(r.ok()) << r.reason();
      return r.value();
   }
   static RuleConfig configured(std::uint32_t line, std::string const& match, std::vector<std::string> then) {
      return RuleConfig{rule("ipv4", match, std::move(then)), line};
   }
   // The FSIB's rule of `match`, if any.
   std::optional<Flowspec::Rule> fsib(std::string const& family, std::string const& match) const {
      Flowspec::FlowspecKey k;
      k.afIs(family == "ipv4" ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
      EXPECT_TRUE(k.copyInStrCli(match));
      Flowspec::FlowspecSlateKey slate;
      slate.copyInFlowspecKey(k);
      return Mnemo::fsibOf(*entityManager)->rule(slate);
   }
   std::size_t fsibRules() const { return Mnemo::fsibOf(*entityManager)->ruleCount(); }
   RibTable& table(AfiSafi family = kIpv4Flowspec) const {
      auto const& vrfs = context->allVrfInstanceStatus();
      return *Plugin::getBribTable(*context, *vrfs.at(BgpL3VrfId::defaultVrfId()), family);
   }

   Ovk::Ptr<Mnemo::EntityManager> entityManager;
   Ovk::Ptr<Plugin::Context> context;
   std::unique_ptr<Origination> origination;
};

// Each action of an originated rule lands in the FSIB as the action the forwarding plane
// reads: the actions the forwarding library's own text names for it.
TEST(Origination, EachActionReachesTheFsib) {
   struct Row {
      std::string family;
      std::string match;
      std::vector<std::string> then;
      std::string fsibActions; // Flowspec::ruleActionsFromText
   };
   std::vector<Row> const rows{
       {"ipv4", "destination 10.1.0.0/24", {"discard"}, "drop"},
       {"ipv4", "destination 10.2.0.0/24 protocol tcp", {"rate-limit 125000"}, "police=125000"},
       {"ipv4", "destination 10.3.0.0/24", {"mark 10"}, "dscp=10"},
       {"ipv4", "destination 10.4.0.0/24", {"sample"}, "sample"},
       {"ipv4", "destination 10.5.0.0/24", {"terminal", "sample"}, "sample terminal"},
       {"ipv4", "destination 10.6.0.0/24", {"redirect-ip 192.0.2.1"}, "redirect-ip=192.0.2.1"},
       {"ipv4", "destination 10.7.0.0/24", {"redirect-ip 192.0.2.1 copy"}, "redirect-ip=192.0.2.1 copy"},
       {"ipv4", "destination 10.8.0.0/24", {"redirect-nexthop 192.0.2.9"}, "redirect-ip=192.0.2.9"},
       {"ipv4", "destination 10.9.0.0/24", {"rate-limit 1000", "mark 46"}, "police=1000 dscp=46"},
       {"ipv6", "destination 2001:db8:1::/48", {"redirect-ip 2001:db8::1 copy"}, "redirect-ip=2001:db8::1 copy"},
       {"ipv6", "destination 2001:db8:2::/48", {"redirect-nexthop 2001:db8::9"}, "redirect-ip=2001:db8::9"},
       {"ipv6", "destination 2001:db8:3::/48", {"discard"}, "drop"},
       // Without an address the agent has nothing to redirect to: the rule is there, and
       // forwards (the community still goes to peers, whose next hop is this agent).
       {"ipv4", "destination 10.10.0.0/24", {"redirect-nexthop"}, "accept"},
   };
   Fixture f;
   for (Row const& row : rows) {
      SCOPED_TRACE(row.match);
      auto const added = f.origination->runtimeRuleIs(Fixture::rule(row.family, row.match, row.then));
      ASSERT_TRUE(added.ok()) << added.reason();
      EXPECT_EQ(added.value().result, "added");
      auto const got = f.fsib(row.family, row.match);
      ASSERT_TRUE(got);
      Flowspec::Rule want;
      std::string whyNot;
      ASSERT_TRUE(Flowspec::ruleActionsFromText(row.fsibActions, want, &whyNot)) << whyNot;
      EXPECT_EQ(got->actions, want.actions) << got->str();
      EXPECT_EQ(got->rate, want.rate);
      EXPECT_EQ(got->dscp, want.dscp);
      EXPECT_EQ(got->trafficAction, want.trafficAction);
      EXPECT_EQ(got->trafficRedirect.address, want.trafficRedirect.address);
      EXPECT_EQ(got->trafficRedirect.copy, want.trafficRedirect.copy);
   }
   EXPECT_EQ(f.fsibRules(), rows.size());
   EXPECT_EQ(f.origination->inForce(), rows.size());
   // The agent's paths: ORIGIN IGP, no AS_PATH, no LOCAL_PREF.
   RouteKey const* key = *f.table().order().begin();
   auto const best = f.table().bestPath(*key);
   ASSERT_TRUE(best);
   EXPECT_EQ(best->source, kLocalRibSource);
   EXPECT_EQ(best->contents().origin, BgpOrigin::igp);
   EXPECT_EQ(best->contents().asPathLength, 0u);
   EXPECT_FALSE(best->contents().localPref);
}

// A reload adds, withdraws and replaces only what changed; a kept rule keeps its path.
TEST(Origination, ReloadChangesOnlyWhatChanged) {
   Fixture f;
   std::vector<RuleConfig> first{Fixture::configured(3, "destination 10.1.0.0/24", {"discard"}),
                                 Fixture::configured(7, "destination 10.2.0.0/24", {"discard"}),
                                 Fixture::configured(11, "destination 10.3.0.0/24", {"discard"})};
   EXPECT_EQ(f.origination->configuredRulesIs(first, "a.toml"), (Origination::Diff{3, 0, 0, 0}));
   EXPECT_EQ(f.table().routes(), 3u);
   RouteKey const* kept = *f.table().order().begin();
   ASSERT_TRUE(kept);
   RtAttr const* keptAttrs = f.table().bestPath(*kept)->attrs;

   std::vector<RuleConfig> second{Fixture::configured(3, "destination 10.1.0.0/24", {"discard"}),
                                  Fixture::configured(7, "destination 10.2.0.0/24", {"mark 5"}),
                                  Fixture::configured(9, "destination 10.4.0.0/24", {"sample"})};
   EXPECT_EQ(f.origination->configuredRulesIs(second, "a.toml"), (Origination::Diff{1, 1, 1, 1}));
   EXPECT_EQ(f.table().routes(), 3u);
   EXPECT_EQ(f.table().bestPath(*kept)->attrs, keptAttrs);
   EXPECT_FALSE(f.fsib("ipv4", "destination 10.3.0.0/24"));
   EXPECT_EQ(f.fsib("ipv4", "destination 10.2.0.0/24")->dscp, 5);
   EXPECT_TRUE(f.fsib("ipv4", "destination 10.4.0.0/24"));
   EXPECT_EQ(f.fsibRules(), 3u);
   // The same file again changes nothing.
   EXPECT_EQ(f.origination->configuredRulesIs(second, "a.toml"), (Origination::Diff{0, 0, 0, 3}));
   EXPECT_EQ(f.origination->configuredRulesIs({}, "a.toml"), (Origination::Diff{0, 3, 0, 0}));
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.fsibRules(), 0u);
}

// A run-time rule with a configured rule's match is in force while it exists, across reloads;
// deleting it puts the configured one back.
TEST(Origination, RuntimeRuleTakesPrecedenceOverTheConfiguredOne) {
   Fixture f;
   std::string const match = "destination 10.1.0.0/24";
   (void)f.origination->configuredRulesIs({Fixture::configured(3, match, {"discard"})}, "a.toml");
   EXPECT_EQ(f.origination->runtimeRuleIs(Fixture::rule("ipv4", match, {"mark 10"})).value().result, "added");
   EXPECT_EQ(f.fsib("ipv4", match)->dscp, 10);
   EXPECT_EQ(f.origination->runtimeRuleIs(Fixture::rule("ipv4", match, {"mark 12"})).value().result, "replaced");
   EXPECT_EQ(f.fsib("ipv4", match)->dscp, 12);
   // A reload that changes the configured rule leaves the run-time one in force.
   EXPECT_EQ(f.origination->configuredRulesIs({Fixture::configured(4, match, {"rate-limit 99"})}, "a.toml"),
             (Origination::Diff{0, 0, 1, 0}));
   EXPECT_EQ(f.fsib("ipv4", match)->dscp, 12);
   auto const list = f.origination->listJson()["rules"];
   ASSERT_EQ(list.size(), 2u);
   EXPECT_EQ(list[0]["source"], "config");
   EXPECT_EQ(list[0]["line"], 4);
   EXPECT_EQ(list[0]["inForce"], false);
   EXPECT_EQ(list[1]["source"], "cli");
   EXPECT_EQ(list[1]["best"], true);
   EXPECT_EQ(list[1]["fsib"], true);
   EXPECT_EQ(list[1]["actions"], nlohmann::json::array({"mark 12"}));

   auto const deleted = f.origination->runtimeRuleDel(kIpv4Flowspec, "destination 10.1.0.0/24");
   ASSERT_TRUE(deleted.ok()) << deleted.reason();
   EXPECT_EQ(deleted.value(), "deleted; the configured rule of line 4 is in force again");
   EXPECT_EQ(f.fsib("ipv4", match)->rate, 99.0f);
   EXPECT_EQ(f.table().paths(), 1u);
   // Only run-time rules are deleted at run time.
   auto const again = f.origination->runtimeRuleDel(kIpv4Flowspec, match);
   ASSERT_FALSE(again.ok());
   EXPECT_EQ(again.reason(), "no rule ipv4-flowspec 10.1.0.0/24;*; was added at run time (it is configured in "
                             "a.toml line 4; change the file and reload)");
   EXPECT_EQ(f.origination->runtimeRuleDel(kIpv4Flowspec, "destination 10.1.0.0/33").reason().rfind("match: ", 0), 0u);
   // A reload without the configured rule, while a run-time one of another match stays.
   (void)f.origination->runtimeRuleIs(Fixture::rule("ipv4", "destination 10.2.0.0/24", {"discard"}));
   (void)f.origination->configuredRulesIs({}, "a.toml");
   EXPECT_EQ(f.table().routes(), 1u);
   EXPECT_TRUE(f.fsib("ipv4", "destination 10.2.0.0/24"));
}

// The agent's path competes in best path: a peer's path with a higher LOCAL_PREF wins, and
// at equal attributes the agent's own wins.
TEST(Origination, OriginatedPathsCompeteWithPeers) {
   Fixture f;
   Fakes::Lines logger;
   Fakes::RecordingOutput output;
   BgpRouting routing(logger, f.context);
   BgpPeer const peer{*Ovnet::IpGenAddr::parse("127.0.0.2"), 65001, 65001, 2, BgpL3VrfId::defaultVrfId()};
   Negotiated session;
   session.fourOctetAs = true;
   session.families = {kIpv4Flowspec};
   routing.handleEstablished(peer, session, output);
   std::string const match = "destination 10.0.0.0/24";
   constexpr char const* kNlri = "0501180a0000";
   std::uint64_t const police1000 = 0x80060000447a0000ull;
   auto const preferred = UpdateBuilder()
                              .origin()
                              .asPath({})
                              .attr(kWellKnown, 5, "000000c8")
                              .extCommunities({police1000})
                              .mpReach(1, 133, "", kNlri)
                              .build();
   auto const equal =
       UpdateBuilder().origin().asPath({}).extCommunities({police1000}).mpReach(1, 133, "", kNlri).build();

   ASSERT_EQ(routing.handleUpdate(peer, MessageView{MessageType::update, preferred}).reset, std::nullopt);
   (void)f.origination->runtimeRuleIs(Fixture::rule("ipv4", match, {"discard"}));
   EXPECT_EQ(f.table().paths(), 2u);
   EXPECT_TRUE(f.fsib("ipv4", match)->actions.has(Flowspec::actionPolice));
   EXPECT_EQ(f.origination->listJson()["rules"][0]["best"], false);
   EXPECT_EQ(f.origination->listJson()["rules"][0]["fsib"], false);

   (void)routing.handleUpdate(peer, MessageView{MessageType::update, equal});
   EXPECT_TRUE(f.fsib("ipv4", match)->actions.has(Flowspec::actionDrop));
   EXPECT_EQ(f.origination->listJson()["rules"][0]["best"], true);
   // Withdrawn, the agent's rule leaves the peer's path in force.
   (void)f.origination->runtimeRuleDel(kIpv4Flowspec, match);
   EXPECT_TRUE(f.fsib("ipv4", match)->actions.has(Flowspec::actionPolice));
   routing.handleSessionDown(peer);
}

// The plugin makes the rule's route: the NLRI its key writes are what `flowspec encode`
// prints for the same text, for both families and both length forms.
TEST(Origination, TheRulesNlriIsWhatTheRouteKeyWrites) {
   Fixture f;
   std::string manyPorts = "destination-port";
   for (int p = 1000; p < 1100; ++p) manyPorts += " =" + std::to_string(p);
   struct Row {
      char const* family;
      std::string text;
   };
   std::vector<Row> const rows{
       {"ipv4", "destination 192.0.2.0/24 protocol tcp destination-port =80"},
       {"ipv4", "source 10.0.0.1/32 destination 0.0.0.0/0"},
       {"ipv4", "destination 10.0.0.0/8 port >=1024&<=2048 tcp-flags =syn packet-length >1000"},
       {"ipv4", "fragment =first-fragment dscp =10 icmp-type =3 icmp-code =1"},
       {"ipv4", manyPorts}, // two-byte length
       {"ipv6", "destination 2001:db8::/32 source 2001:db8:1::/48 next-header =6"},
       {"ipv6", "destination ::/0 flow-label =12345"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.text);
      auto const bound = f.origination->bind(Fixture::rule(row.family, row.text, {"discard"}));
      ASSERT_TRUE(bound.ok()) << bound.reason();
      auto const encoded = FlowspecTool::encodeRule(ruleFamilyOf(row.family)->afi(), row.text);
      ASSERT_TRUE(encoded["ok"].get<bool>()) << encoded.dump();
      EXPECT_EQ(hexText(bound.value().nlri), encoded["nlri"].get<std::string>());
   }
}

// A rule whose NLRI fits its length field but whose UPDATE does not fit one message is
// refused with the size it would need; one a little shorter is taken.
TEST(Origination, ARuleThatCannotFitOneUpdateIsRefused) {
   auto ports = [](int n) {
      std::string text = "destination-port";
      for (int p = 0; p < n; ++p) text += " =" + std::to_string(1000 + p); // 3 bytes each
      return text;
   };
   auto fits = [](Fixture& f, char const* family, std::string const& match, std::vector<std::string> then) {
      return f.origination->bind(Fixture::rule(family, match, std::move(then)));
   };
   {
      Fixture f;
      // NLRI: 2 length bytes, 1 type byte, 3 per value. The tightest session is iBGP: header
      // 23, ORIGIN 4, empty AS_PATH 3, LOCAL_PREF 7, one community 11, MP_REACH_NLRI 4 + 9
      // with a 4-byte next hop: 61 bytes beside the NLRI. 4096 - 61 = 4035 = 2 + 1 + 3 * 1344.
      auto const ok = fits(f, "ipv4", ports(1344), {"discard"});
      ASSERT_TRUE(ok.ok()) << ok.reason();
      EXPECT_EQ(ok.value().nlri.size(), 4035u);
      EXPECT_EQ(fits(f, "ipv4", ports(1345), {"discard"}).reason(),
                "the rule's UPDATE would need 4099 bytes with its attributes, more than one 4096-byte message holds");
      // IPv6: a 16-byte next hop (+12) and an IPv6 address specific community (+23): 96
      // beside the NLRI, so 4000 holds 2 + 1 + 3 * 1332.
      std::vector<std::string> const redirect{"redirect-ip 2001:db8::1", "discard"};
      EXPECT_TRUE(fits(f, "ipv6", ports(1332), redirect).ok());
      auto const v6 = fits(f, "ipv6", ports(1333), redirect);
      ASSERT_FALSE(v6.ok());
      EXPECT_NE(v6.reason().find("would need 4098 bytes"), std::string::npos) << v6.reason();
      // The configuration's check says it with the rule's file and line; the rule is not
      // originated.
      auto const errors = f.origination->check({Fixture::configured(7, ports(1345), {"discard"})}, "a.toml");
      ASSERT_EQ(errors.size(), 1u);
      EXPECT_EQ(errors[0].str(), "a.toml:7: rule the rule's UPDATE would need 4099 bytes with its attributes, more "
                                 "than one 4096-byte message holds");
      EXPECT_EQ(f.origination->configuredRulesIs({Fixture::configured(7, ports(1345), {"discard"})}, "a.toml").refused,
                1u);
   }
   // A local AS beyond 16 bits costs an eBGP session without 4-octet AS numbers AS_TRANS and
   // an AS4_PATH (7 + 9 bytes): 67 beside the NLRI, so 4029 = 2 + 1 + 3 * 1342.
   Fixture wide(4200000000u);
   EXPECT_TRUE(fits(wide, "ipv4", ports(1342), {"discard"}).ok());
   EXPECT_FALSE(fits(wide, "ipv4", ports(1343), {"discard"}).ok());
}

// Ended, the origination takes every path and key it made with it.
TEST(Origination, EndingLeavesNothingBehind) {
   Fixture f;
   (void)f.origination->configuredRulesIs({Fixture::configured(1, "destination 10.1.0.0/24", {"discard"})}, "a");
   (void)f.origination->runtimeRuleIs(Fixture::rule("ipv6", "destination 2001:db8::/32", {"discard"}));
   EXPECT_EQ(f.fsibRules(), 2u);
   f.origination = nullptr;
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.table(kIpv6Flowspec).routes(), 0u);
   EXPECT_EQ(f.fsibRules(), 0u);
   DedupTablesVrf const* vrf = f.context->dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(kIpv4Flowspec)->routeKeyDedupTableRawPtr()->size(), 0u);
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(kIpv6Flowspec)->routeKeyDedupTableRawPtr()->size(), 0u);
}

} // namespace
} // namespace Flowspecd
