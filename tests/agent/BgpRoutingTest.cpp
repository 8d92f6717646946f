// The agent's routing over the real plugin library and a real context: UPDATEs of sessions become paths in the default
// VRF's RIB tables.
#include "agent/BgpRouting.h"

#include <gtest/gtest.h>

#include "host/plugin/PluginHost.h"
#include "tests/fakes/AgentFakes.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace Flowspecd {
namespace {

using namespace BgpTest;

// A peer as the sink sees it; we are AS 65001.
BgpPeer peer(char const* address, std::uint32_t remoteAs, std::uint32_t routerId = 2) {
   return BgpPeer{*Ovnet::IpGenAddr::parse(address), remoteAs, 65001, routerId, BgpL3VrfId::defaultVrfId()};
}

Negotiated session(bool fourOctetAs = true, std::vector<AfiSafi> families = {kIpv4Flowspec, kIpv6Flowspec}) {
   Negotiated n;
   n.fourOctetAs = fourOctetAs;
   n.families = std::move(families);
   return n;
}

constexpr char const* kRule = "0501180a0000";  // 10.0.0.0/24
constexpr char const* kOther = "0501180b0000"; // 11.0.0.0/24

// The plugin library is loaded as the agent loads it.
Ovk::Ptr<Plugin::Context> startContext() {
   static bool const loaded = Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY).ok();
   EXPECT_TRUE(loaded);
   Plugin::Context::Options o;
   o.taskScheduler = Ovk::ManualScheduler::create();
   o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   o.local = BgpPeer{Ovnet::IpGenAddr(), 65001, 65001, 1, BgpL3VrfId::defaultVrfId()};
   return Plugin::startPlugins(std::move(o));
}

struct Fixture {
   Fixture() : context(startContext()), routing(logger, context) {}
   ~Fixture() { context->shutdown(); }
   std::optional<Notification> update(BgpPeer const& from, Bytes bytes) {
      return routing.handleUpdate(from, MessageView{MessageType::update, bytes}).reset;
   }
   std::size_t received(BgpPeer const& from, AfiSafi family = kIpv4Flowspec) {
      auto const p = routing.peer(from.address);
      return p && p->received.count(family) ? p->received.at(family) : 0;
   }
   RibTable& table(AfiSafi family = kIpv4Flowspec) { return *routing.ribTable(family); }

   Fakes::Lines logger;
   Ovk::Ptr<Plugin::Context> context;
   BgpRouting routing;
   Fakes::RecordingOutput output;
};

TEST(BgpRoutingTest, RulesComeAndGoWithTheirUpdatesAndTheirSession) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65001);
   f.routing.handleEstablished(a, session(), f.output);
   // No RIB-out yet: End-of-RIB for each family at once.
   EXPECT_EQ(f.output.endOfRibs, (std::vector<AfiSafi>{kIpv4Flowspec, kIpv6Flowspec}));
   EXPECT_EQ(f.update(a, announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build()), std::nullopt);
   EXPECT_EQ(f.received(a), 2u);
   EXPECT_EQ(f.table().routes(), 2u);
   // Every path of one UPDATE shares one attribute object.
   RouteKey const* first = *f.table().order().begin();
   EXPECT_EQ(f.table().bestPath(*first)->contents().asPathText(), "65001");
   EXPECT_EQ(f.update(a, UpdateBuilder().mpUnreach(1, 133, kRule).build()), std::nullopt);
   EXPECT_EQ(f.received(a), 1u);
   // A withdrawal of a rule never announced is counted, and changes nothing.
   EXPECT_EQ(f.update(a, UpdateBuilder().mpUnreach(1, 133, kRule).build()), std::nullopt);
   EXPECT_EQ(f.routing.peer(a.address)->unknownWithdrawals.at(kIpv4Flowspec), 1u);
   EXPECT_TRUE(f.logger.lines.empty());
   f.routing.handleSessionDown(a);
   EXPECT_EQ(f.received(a), 0u);
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.table().paths(), 0u);
}

// RFC 7606: treat-as-withdraw takes the announced rules as withdrawn, and is logged.
TEST(BgpRoutingTest, TreatAsWithdrawWithdrawsWhatTheUpdateAnnounces) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65001);
   f.routing.handleEstablished(a, session(), f.output);
   (void)f.update(a, announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build());
   EXPECT_EQ(f.update(a, UpdateBuilder().origin(7).asPath({65002}).mpReach(1, 133, "", kRule).build()), std::nullopt);
   EXPECT_EQ(f.received(a), 1u);
   ASSERT_EQ(f.logger.lines.size(), 1u);
   EXPECT_EQ(f.logger.lines[0],
             "127.0.0.2 UPDATE treat-as-withdraw: originValue (ORIGIN value is undefined): treat-as-withdraw");
   auto const p = f.routing.peer(a.address);
   EXPECT_EQ(p->counters.action(BgpUpdateAction::treatAsWithdraw), 1u);
}

// An UPDATE that announces and withdraws one rule leaves it announced, whatever the order of
// its two attributes.
TEST(BgpRoutingTest, AnnouncedAndWithdrawnInOneUpdateIsAnnounced) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65001);
   f.routing.handleEstablished(a, session(), f.output);
   EXPECT_EQ(f.update(a, announcing().mpUnreach(1, 133, kRule).mpReach(1, 133, "", kRule).build()), std::nullopt);
   EXPECT_EQ(f.received(a), 1u);
   EXPECT_EQ(f.update(a, announcing().mpReach(1, 133, "", kOther).mpUnreach(1, 133, kOther).build()), std::nullopt);
   EXPECT_EQ(f.received(a), 2u);
}

// A session reset answers with the NOTIFICATION the decoder chose.
TEST(BgpRoutingTest, SessionResetAnswersWithTheDecodersNotification) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65001);
   f.routing.handleEstablished(a, session(), f.output);
   auto const n = f.update(a, announcing().mpReach(1, 133, "", "09ee").build());
   ASSERT_TRUE(n);
   EXPECT_EQ(*n, (Notification{3, 9, hexBytes("800e07000185000009ee")}));
   EXPECT_EQ(f.received(a), 0u);
   EXPECT_EQ(f.logger.lines.back(), "127.0.0.2 UPDATE refused: flowspecNlriLenMismatch: session-reset");
}

// The decoder of a session reads what the session negotiated: 2-octet AS numbers, the
// families agreed on, LOCAL_PREF of an external peer discarded.
TEST(BgpRoutingTest, EachSessionIsDecodedAsNegotiated) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   f.routing.handleEstablished(a, session(false, {kIpv4Flowspec}), f.output);
   Bytes const twoOctet = UpdateBuilder()
                              .origin()
                              .asPath({65002}, false)
                              .attr(kWellKnown, 5, "00000064")
                              .mpReach(1, 133, "", kRule)
                              .build();
   EXPECT_EQ(f.update(a, twoOctet), std::nullopt);
   EXPECT_EQ(f.received(a), 1u);
   EXPECT_EQ(f.logger.lines.back(), "127.0.0.2 UPDATE attribute-discard: localPrefFromExternal (LOCAL_PREF from an "
                                    "external peer): attribute-discard");
   // IPv6 flowspec was not agreed on: skipped.
   (void)f.update(a, UpdateBuilder().origin().asPath({65002}, false).mpReach(2, 133, "", "00").build());
   EXPECT_EQ(f.table(kIpv6Flowspec).routes(), 0u);
   // The next session agrees on 4-octet AS numbers; counts carry over.
   f.routing.handleSessionDown(a);
   f.routing.handleEstablished(a, session(true), f.output);
   EXPECT_EQ(f.update(a, twoOctet), std::nullopt);
   auto const p = f.routing.peer(a.address);
   EXPECT_EQ(p->counters.messages, 3u);
   EXPECT_EQ(p->counters.reasons.at(BgpParseCountReason::mpFamilyWithoutRule), 1u);
   EXPECT_EQ(p->counters.reasons.at(BgpParseCountReason::asPathMalformed), 1u);
   auto const j = f.routing.updatesJson();
   EXPECT_EQ(j["neighbors"][0]["families"]["ipv4-flowspec"]["announced"], 2);
   EXPECT_EQ(j["neighbors"][0]["families"]["ipv4-flowspec"]["rules"], 0);
}

// Two peers announce the same rule; the decision process picks; the RIB tells which peer's
// path is best, and the other takes over when it goes.
TEST(BgpRoutingTest, BestPathAcrossPeers) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002, 9);
   BgpPeer const b = peer("127.0.0.3", 65003, 3);
   f.routing.handleEstablished(a, session(), f.output);
   f.routing.handleEstablished(b, session(), f.output);
   (void)f.update(a, UpdateBuilder().origin().asPath({65002}).mpReach(1, 133, "", kRule).build());
   (void)f.update(b, UpdateBuilder().origin().asPath({65003, 65010}).mpReach(1, 133, "", kRule).build());
   EXPECT_EQ(f.table().routes(), 1u);
   EXPECT_EQ(f.table().paths(), 2u);
   RouteKey const* key = *f.table().order().begin();
   // The shorter AS_PATH wins, although b's identifier is lower.
   EXPECT_EQ(f.context->ribSources()->peer(f.table().bestPath(*key)->source).address, a.address);
   EXPECT_EQ(f.routing.peer(a.address)->accepted.at(kIpv4Flowspec), 1u);
   EXPECT_EQ(f.routing.peer(b.address)->accepted.at(kIpv4Flowspec), 0u);
   EXPECT_EQ(f.routing.peer(b.address)->received.at(kIpv4Flowspec), 1u);
   (void)f.update(a, UpdateBuilder().mpUnreach(1, 133, kRule).build());
   EXPECT_EQ(f.context->ribSources()->peer(f.table().bestPath(*key)->source).address, b.address);
   EXPECT_EQ(f.routing.peer(b.address)->accepted.at(kIpv4Flowspec), 1u);
   auto const s = f.routing.summaryJson();
   EXPECT_EQ(s["vrfs"][0]["name"], "default");
   EXPECT_EQ(s["vrfs"][0]["families"]["ipv4-flowspec"]["rules"], 1);
   EXPECT_EQ(s["vrfs"][0]["families"]["ipv4-flowspec"]["paths"], 1);
}

// A peer that comes and goes, sending its rules each time, leaves nothing behind: no path,
// no route, no interned key.
TEST(BgpRoutingTest, AFlappingPeerLeavesNoPathBehind) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   std::string nlri;
   for (int i = 0; i < 50; ++i)
      nlri += "0501180a" + std::string(i < 16 ? "0" : "") + [i] {
         char b[3];
         std::snprintf(b, sizeof b, "%x", i);
         return std::string(b);
      }() + "00";
   for (int flap = 0; flap < 60; ++flap) {
      f.routing.handleEstablished(a, session(), f.output);
      ASSERT_EQ(f.update(a, announcing().mpReach(1, 133, "", nlri).build()), std::nullopt);
      ASSERT_EQ(f.received(a), 50u);
      f.routing.handleSessionDown(a);
   }
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.table().paths(), 0u);
   DedupTablesVrf const* vrf = f.context->dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(kIpv4Flowspec)->routeKeyDedupTableRawPtr()->size(), 0u);
}

} // namespace
} // namespace Flowspecd
