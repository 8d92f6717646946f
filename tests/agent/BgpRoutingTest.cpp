// The agent's routing over the real plugin library and a real context: UPDATEs of sessions become paths in the default
// VRF's RIB tables.
#include "agent/BgpRouting.h"
#include "agent/RoutingShow.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
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
void loadPlugin() {
   static bool const loaded = Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY).ok();
   EXPECT_TRUE(loaded);
}

Ovk::Ptr<Plugin::Context> startContext() {
   loadPlugin();
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
   Ovk::ManualScheduler& scheduler() { return static_cast<Ovk::ManualScheduler&>(*context->taskScheduler()); }

   Fakes::Lines logger;
   Ovk::Ptr<Plugin::Context> context;
   BgpRouting routing;
   Fakes::RecordingOutput output;
};

TEST(BgpRoutingTest, RulesComeAndGoWithTheirUpdatesAndTheirSession) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65001);
   f.routing.handleEstablished(a, session(), f.output);
   // An empty table: End-of-RIB for each family.
   f.scheduler().runReady();
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
   EXPECT_EQ(f.routing.peer(a.address)->ribin.at(kIpv4Flowspec).unknownWithdrawals, 1u);
   EXPECT_TRUE(f.logger.lines.empty());
   f.routing.handleSessionDown(a);
   f.scheduler().runReady();
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
   auto const j = updatesJson(f.routing);
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
   auto const s = summaryJson(f.routing);
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
   f.scheduler().runReady();
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.table().paths(), 0u);
   DedupTablesVrf const* vrf = f.context->dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(kIpv4Flowspec)->routeKeyDedupTableRawPtr()->size(), 0u);
}

// The UPDATEs of `count` rules 10.x.y.0/24 from `first` on, 600 to a message.
std::vector<Bytes> manyRules(std::uint32_t first, std::uint32_t count) {
   std::vector<Bytes> updates;
   for (std::uint32_t i = 0; i < count; i += 600) {
      std::string nlri;
      for (std::uint32_t n = first + i; n < first + std::min(count, i + 600); ++n) {
         char b[24];
         std::snprintf(b, sizeof b, "0501180a%04x", n);
         nlri += b;
      }
      updates.push_back(announcing().mpReach(1, 133, "", nlri).build());
   }
   return updates;
}

// A session of many rules goes a slice per turn of the event loop: the other peer is sent
// the withdrawals, and a session that comes back meanwhile starts from a clean slate.
TEST(BgpRoutingTest, ASessionOfManyRulesGoesASliceAtATime) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   BgpPeer const b = peer("127.0.0.3", 65003);
   Fakes::RecordingOutput toB;
   f.routing.handleEstablished(a, session(), f.output);
   f.routing.handleEstablished(b, session(), toB);
   constexpr std::uint32_t kRules = 40000;
   for (Bytes const& u : manyRules(0, kRules)) ASSERT_EQ(f.update(a, u), std::nullopt);
   f.scheduler().runReady();
   ASSERT_EQ(f.routing.peer(b.address)->advertised.at(kIpv4Flowspec), kRules);

   f.routing.handleSessionDown(a);
   EXPECT_EQ(f.received(a), kRules); // nothing yet: the event loop goes on first
   EXPECT_GT(f.routing.purgesPending(), 0u);
   EXPECT_GE(f.scheduler().runReady(), kRules / BgpRouting::kPurgeKeysPerSlice);
   EXPECT_EQ(f.routing.purgesPending(), 0u);
   EXPECT_EQ(f.table().routes(), 0u);
   EXPECT_EQ(f.routing.peer(b.address)->advertised.at(kIpv4Flowspec), 0u);
   EXPECT_EQ(f.routing.peer(b.address)->sent.at(kIpv4Flowspec).withdrawn, kRules);

   f.routing.handleEstablished(a, session(), f.output);
   for (Bytes const& u : manyRules(0, kRules)) ASSERT_EQ(f.update(a, u), std::nullopt);
   f.routing.handleSessionDown(a);
   f.routing.handleEstablished(a, session(), f.output);
   EXPECT_EQ(f.received(a), 0u);
   for (Bytes const& u : manyRules(7, 1)) ASSERT_EQ(f.update(a, u), std::nullopt);
   f.scheduler().runReady();
   EXPECT_EQ(f.received(a), 1u);
   EXPECT_EQ(f.routing.purgesPending(), 0u);
}

// A full FSIB: the log says how many rules it refused, in lines whose counts add up to what
// was refused; room made later takes the refused rules in, no one sending them again.
TEST(BgpRoutingTest, AFullFsibSaysWhatItRefusedAndRefillsWhenRoomIsMade) {
   std::string const prefix = "routingtest-full-" + std::to_string(::getpid());
   loadPlugin();
   Plugin::Context::Options o;
   o.taskScheduler = Ovk::ManualScheduler::create();
   o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   o.local = BgpPeer{Ovnet::IpGenAddr(), 65001, 65001, 1, BgpL3VrfId::defaultVrfId()};
   o.entityManager = Ovk::makePtr<Mnemo::EntityManager>(prefix);
   auto context = Plugin::startPlugins(std::move(o));
   auto& scheduler = static_cast<Ovk::ManualScheduler&>(*context->taskScheduler());
   {
      Fakes::Lines logger;
      BgpRouting routing(logger, context);
      Fakes::RecordingOutput output;
      BgpPeer const a = peer("127.0.0.2", 65002);
      routing.handleEstablished(a, session(), output);
      constexpr std::uint32_t kRules = 13000;
      for (Bytes const& u : manyRules(0, kRules)) {
         ASSERT_EQ(routing.handleUpdate(a, MessageView{MessageType::update, u}).reset, std::nullopt);
      }
      scheduler.advance(std::chrono::seconds(30));
      std::uint64_t said = 0;
      for (std::string const& line : logger.lines) {
         auto const at = line.find("FSIB full: ");
         if (at != std::string::npos) said += std::stoull(line.substr(at + 11));
      }
      std::uint32_t const refused = kRules - Mnemo::fsibRuleCount;
      EXPECT_EQ(said, refused) << ::testing::PrintToString(logger.lines);
      auto sm = routing.exportSm(kIpv4Flowspec);
      ASSERT_TRUE(sm);
      EXPECT_EQ(sm->exportCounters().refusedFull, refused);
      EXPECT_EQ(routing.peer(a.address)->fsibRefusals.at(kIpv4Flowspec), refused);
      // 1000 rules go: the refused ones come in.
      std::string withdrawn;
      for (std::uint32_t n = 0; n < 1000; ++n) {
         char b[16];
         std::snprintf(b, sizeof b, "0501180a%04x", n);
         withdrawn += b;
         if (withdrawn.size() >= 600 * 12 || n == 999) {
            (void)routing.handleUpdate(a, MessageView{MessageType::update, UpdateBuilder().mpUnreach(1, 133, withdrawn).build()});
            withdrawn.clear();
         }
      }
      scheduler.runReady();
      // The refill waits for withdrawals to stop.
      scheduler.advance(std::chrono::seconds(1));
      auto const fsib = Mnemo::fsibOf(*context->entityManager());
      EXPECT_EQ(fsib->ruleCount(), kRules - 1000);
      EXPECT_EQ(sm->exportCounters().refilled, refused);
   }
   context->shutdown();
   if (auto name = Mnemo::EntityManager(prefix).segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
}

// ---- What the agent sends ----

// A session's way out, in the order things were sent: "EoR ipv4-flowspec", or the UPDATE.
struct OrderedOutput : BgpPeerOutput {
   explicit OrderedOutput(char const* address) : local(*Ovnet::IpGenAddr::parse(address)) {}
   void sendUpdate(std::span<std::uint8_t const> m) override { sent.emplace_back(m.begin(), m.end()); }
   void sendEndOfRib(AfiSafi family) override {
      std::string const text = "EoR " + familyName(family);
      sent.emplace_back(text.begin(), text.end());
   }
   void sendRouteRefresh(AfiSafi) override {}
   std::size_t queuedBytes() const override { return 0; }
   void drainedCallbackIs(std::function<void()>) override {}
   Ovnet::IpGenAddr localAddress() const override { return local; }
   // What was sent since the last call: End-of-RIB markers as text, UPDATEs as "U".
   std::vector<std::string> take() {
      std::vector<std::string> out;
      for (Bytes const& m : sent) out.push_back(m.size() >= 3 && m[0] == 'E' ? std::string(m.begin(), m.end()) : "U");
      sent.swap(updates);
      std::erase_if(updates, [](Bytes const& m) { return m.size() < 19; });
      sent.clear();
      return out;
   }
   Ovnet::IpGenAddr local;
   std::vector<Bytes> sent;
   std::vector<Bytes> updates; // those of the last take()
};

// Reads what a peer was sent as the peer's own session would: with the plugin's rules.
struct PeerReader {
   explicit PeerReader(Plugin::Context& context, bool fourOctetAs = true) {
      BgpUpdateDecoder::Options o;
      o.fourOctetAs = fourOctetAs;
      o.externalPeer = true;
      decoder = std::make_unique<BgpUpdateDecoder>(
          Ovk::makePtr<BgpParseContext>(context.dedupTablesVrf(BgpL3VrfId::defaultVrfId()), "reader"), o);
      for (AfiSafi f : {kIpv4Flowspec, kIpv6Flowspec}) decoder->ruleCollectionsIs(context.parseRuleCollections(f), {});
   }
   // "+nlri" / "-nlri" per rule, after the AS_PATH and the next hop: "as=65001 65002 nh=7f000001 +0501180a0000".
   std::string read(Bytes const& m) {
      BgpParsedUpdate const& u = decoder->decode(m);
      std::string text;
      for (BgpUpdateError const& e : u.errors) text += std::string("error=") + toStrep(e.reason) + " ";
      if (u.mpReach.present) {
         PathAttributesBuilder b(RtAttrDedupTable::create(), CoreDedupTables::create(), nullptr);
         text += "as=" + b.rtAttrOf(*u.attributes)->contents().asPathText() + " nh=" + hexText(u.mpReach.nextHop) + " ";
      }
      for (BgpParsedNlri const& n : u.nlri) {
         text += std::string(n.reachable ? "+" : "-") + hexText(n.bytes) + (n.routeKey ? "" : "(refused)");
      }
      return text;
   }
   std::unique_ptr<BgpUpdateDecoder> decoder;
};

// A rule learnt from one external peer goes to another with our AS in front, our address as
// next hop and its NLRI bytes unchanged; never back to where it came from.
TEST(BgpRoutingTest, RulesLearntAreSentToOtherPeersAndNotBack) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   BgpPeer const b = peer("127.0.0.3", 65003);
   OrderedOutput toA("127.0.0.1");
   OrderedOutput toB("127.0.0.1");
   f.routing.handleEstablished(a, session(), toA);
   f.routing.handleEstablished(b, session(), toB);
   f.scheduler().runReady();
   EXPECT_EQ(toB.take(), (std::vector<std::string>{"EoR ipv4-flowspec", "EoR ipv6-flowspec"}));
   EXPECT_EQ(toA.take().size(), 2u);
   ASSERT_EQ(f.update(a, UpdateBuilder()
                             .origin()
                             .asPath({65002})
                             .extCommunities({0x8006000000000000ull})
                             .mpReach(1, 133, "", std::string(kRule) + kOther)
                             .build()),
             std::nullopt);
   f.scheduler().runReady();
   EXPECT_EQ(toA.take(), std::vector<std::string>{});
   ASSERT_EQ(toB.take(), std::vector<std::string>{"U"});
   PeerReader reader(*f.context);
   EXPECT_EQ(reader.read(toB.updates[0]), "as=65001 65002 nh=7f000001 +0501180a0000+0501180b0000");
   EXPECT_NE(f.context->ribOut(b.address, BgpL3VrfId::defaultVrfId(), kIpv4Flowspec), nullptr);
   auto const v = f.routing.peer(b.address);
   EXPECT_EQ(v->sent.at(kIpv4Flowspec).updates, 1u);
   EXPECT_EQ(v->sent.at(kIpv4Flowspec).advertised, 2u);
   EXPECT_EQ(v->advertised.at(kIpv4Flowspec), 2u);
   // A withdrawal follows.
   (void)f.update(a, UpdateBuilder().mpUnreach(1, 133, kRule).build());
   f.scheduler().runReady();
   ASSERT_EQ(toB.take(), std::vector<std::string>{"U"});
   EXPECT_EQ(reader.read(toB.updates[0]), "-0501180a0000");
   // The peer's session goes: its rules are withdrawn from the other.
   f.routing.handleSessionDown(a);
   f.scheduler().runReady();
   ASSERT_EQ(toB.take(), std::vector<std::string>{"U"});
   EXPECT_EQ(reader.read(toB.updates[0]), "-0501180b0000");
   EXPECT_EQ(f.routing.peer(b.address)->advertised.at(kIpv4Flowspec), 0u);
}

// A restarted session gets the table again, then End-of-RIB; a route refresh gets the table
// alone; a session without 4-octet AS numbers reads AS_TRANS.
TEST(BgpRoutingTest, RestartAndRefreshSendTheTableAgain) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   BgpPeer const b = peer("127.0.0.3", 65003);
   OrderedOutput toA("127.0.0.1");
   OrderedOutput toB("127.0.0.1");
   f.routing.handleEstablished(a, session(), toA);
   (void)f.update(a, UpdateBuilder().origin().asPath({65002, 4200000000u}).mpReach(1, 133, "", kRule).build());
   f.routing.handleEstablished(b, session(), toB);
   f.scheduler().runReady();
   EXPECT_EQ(toB.take(), (std::vector<std::string>{"U", "EoR ipv4-flowspec", "EoR ipv6-flowspec"}));
   f.routing.handleSessionDown(b);
   EXPECT_EQ(f.context->ribOut(b.address, BgpL3VrfId::defaultVrfId(), kIpv4Flowspec), nullptr);
   f.routing.handleEstablished(b, session(false, {kIpv4Flowspec}), toB);
   f.scheduler().runReady();
   EXPECT_EQ(toB.take(), (std::vector<std::string>{"U", "EoR ipv4-flowspec"}));
   PeerReader reader(*f.context, false);
   EXPECT_EQ(reader.read(toB.updates[0]), "as=65001 65002 23456 nh=7f000001 +0501180a0000");
   f.routing.handleRouteRefresh(b, kIpv4Flowspec);
   f.scheduler().runReady();
   EXPECT_EQ(toB.take(), std::vector<std::string>{"U"});
   // Counts add up over the sessions.
   auto const v = f.routing.peer(b.address);
   EXPECT_EQ(v->sent.at(kIpv4Flowspec).updates, 3u);
   EXPECT_EQ(v->sent.at(kIpv4Flowspec).endOfRibs, 2u);
}

// ---- What a neighbor may import ----

constexpr std::uint64_t kDiscard = 0x8006000000000000ull;
constexpr std::uint64_t kRedirectVrf = 0x8008fde800000064ull; // 65000:100

BgpRouting::ImportSettings customerPolicy(std::optional<RuleLimit> limit = {}) {
   ImportPolicy::Options o;
   o.destinations = std::vector<PrefixRange>{parsePrefixRange("10.0.0.0/8 le 32").value(),
                                             parsePrefixRange("2001:db8::/32 ge 48 le 128").value()};
   o.actions.emplace();
   o.actions->add(RuleAction::discard);
   o.actions->add(RuleAction::rateLimit);
   return {ImportPolicy::create(o), limit};
}

RuleLimit limitOf(std::uint32_t max, RuleLimitAction action) {
   RuleLimit l;
   l.maxRules = max;
   l.action = action;
   l.restartSeconds = 30;
   return l;
}

// A rule of the wire (family, NLRI hex, communities), the customer policy, the outcome and
// its reason: the destination the plugin's key gives, the actions of its communities.
TEST(BgpRoutingImportTest, PolicyVerdictOfRealRulesOneRowEach) {
   struct Row {
      char const* name;
      std::uint16_t afi;
      char const* nlri;
      std::vector<std::uint64_t> comms;
      char const* shown; // the rule as the refused view shows it
      std::optional<ImportRefusal> refused;
   };
   std::vector<Row> const rows{
       {"IPv4 inside, discard", 1, "0501180a0000", {kDiscard}, "", {}},
       {"IPv4 outside", 1, "0501180b0000", {kDiscard}, "11.0.0.0/24;*;", ImportRefusal::destinationNotAllowed},
       {"IPv4 without a destination", 1, "03038106", {kDiscard}, "*;*;protocol =6;", ImportRefusal::noDestination},
       {"IPv4 inside with a redirect", 1, "0501180a0000", {kDiscard, kRedirectVrf}, "10.0.0.0/24;*;",
        ImportRefusal::actionNotAllowed},
       {"IPv6 inside at 48", 2, "0901300020010db80001", {kDiscard}, "", {}},
       {"IPv6 too short", 2, "0801280020010db800", {kDiscard}, "2001:db8::/40;*;", ImportRefusal::destinationNotAllowed},
       {"IPv6 with an offset: any leading bits", 2, "07014020deadbeef", {kDiscard}, nullptr,
        ImportRefusal::destinationNotAllowed},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Fixture f;
      BgpPeer const a = peer("127.0.0.2", 65002);
      f.routing.importSettingsIs(a.address, customerPolicy());
      f.routing.handleEstablished(a, session(), f.output);
      AfiSafi const family = r.afi == 1 ? kIpv4Flowspec : kIpv6Flowspec;
      std::vector<std::uint64_t> const& c = r.comms;
      UpdateBuilder u;
      u.origin().asPath({65002});
      if (c.size() == 1) u.extCommunities({c[0]});
      if (c.size() == 2) u.extCommunities({c[0], c[1]});
      ASSERT_EQ(f.update(a, u.mpReach(r.afi, 133, "", r.nlri).build()), std::nullopt);
      auto const view = f.routing.peer(a.address);
      EXPECT_EQ(f.received(a, family), r.refused ? 0u : 1u);
      EXPECT_EQ(f.table(family).routes(), r.refused ? 0u : 1u);
      std::uint64_t const counted = view->ribin.at(family).refusedTotal();
      EXPECT_EQ(counted, r.refused ? 1u : 0u);
      nlohmann::json const shown = refusedJson(f.routing, a.address)["families"][familyName(family)]["rules"];
      if (!r.refused) {
         EXPECT_TRUE(shown.empty());
         continue;
      }
      EXPECT_EQ(view->ribin.at(family).refused[static_cast<std::size_t>(*r.refused)], 1u);
      ASSERT_EQ(shown.size(), 1u);
      EXPECT_EQ(shown[0]["reason"], toStrep(*r.refused));
      if (r.shown) {
         EXPECT_EQ(shown[0]["rule"], r.shown);
      }
      EXPECT_EQ(updatesJson(f.routing)["neighbors"][0]["families"][familyName(family)]["importRefused"]
                                    [toStrep(*r.refused)],
                1);
   }
}

// Past a teardown limit the UPDATE ends the session: Cease 6/1 with the family and the limit
// (RFC 4486), and the hold in Idle the neighbor is to keep.
TEST(BgpRoutingImportTest, TeardownLimitEndsTheSessionWithCease61) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   f.routing.importSettingsIs(a.address, {nullptr, limitOf(2, RuleLimitAction::teardown)});
   f.routing.handleEstablished(a, session(), f.output);
   UpdateOutcome const o = f.routing.handleUpdate(
       a, MessageView{MessageType::update, announcing().mpReach(1, 133, "", "0501180a00000501180b00000501180c0000").build()});
   ASSERT_TRUE(o.reset);
   EXPECT_EQ(*o.reset, (Notification{6, 1, hexBytes("00018500000002")}));
   EXPECT_EQ(o.idleHoldSeconds, 30u);
   EXPECT_TRUE(f.logger.contains("127.0.0.2 ipv4-flowspec: a rule beyond max-rules 2: the session ends "
                                 "(max-rules-action teardown) and stays down for 30 s"));
   EXPECT_EQ(f.routing.peer(a.address)->ribin.at(kIpv4Flowspec).limitExceeded, 1u);
}

// A peer that sends ten times its discard limit costs the limit's worth of rules: the keys of
// the rules beyond are not kept anywhere.
TEST(BgpRoutingImportTest, RulesBeyondADiscardLimitAreNotStored) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   f.routing.importSettingsIs(a.address, {nullptr, limitOf(100, RuleLimitAction::discard)});
   f.routing.handleEstablished(a, session(), f.output);
   for (Bytes const& u : manyRules(0, 1000)) ASSERT_EQ(f.update(a, u), std::nullopt);
   // The decoder holds the keys of its last UPDATE until the next one.
   ASSERT_EQ(f.update(a, UpdateBuilder().build()), std::nullopt);
   EXPECT_EQ(f.received(a), 100u);
   DedupTablesVrf const* vrf = f.context->dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(kIpv4Flowspec)->routeKeyDedupTableRawPtr()->size(), 100u);
   auto const ribin = f.routing.peer(a.address)->ribin.at(kIpv4Flowspec);
   EXPECT_EQ(ribin.refused[static_cast<std::size_t>(ImportRefusal::ruleLimit)], 900u);
   EXPECT_EQ(ribin.limitExceeded, 1u);
   EXPECT_EQ(std::count_if(f.logger.lines.begin(), f.logger.lines.end(),
                           [](std::string const& l) { return l.find("max-rules 100 reached") != std::string::npos; }),
             1);
}

// A new policy on a live session: what it refuses leaves, the peer is asked for its routes
// again (ROUTE-REFRESH) and what it sends again goes through the new import; and back.
TEST(BgpRoutingImportTest, PolicyChangesApplyToTheLiveSession) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   Negotiated withRefresh = session();
   withRefresh.routeRefresh = true;
   f.routing.handleEstablished(a, withRefresh, f.output);
   Bytes const table = UpdateBuilder()
                           .origin()
                           .asPath({65002})
                           .extCommunities({kDiscard})
                           .mpReach(1, 133, "", std::string(kRule) + kOther)
                           .build();
   ASSERT_EQ(f.update(a, table), std::nullopt);
   ASSERT_EQ(f.received(a), 2u);
   // Allowed to refused: 11.0.0.0/24 leaves, a slice at a time, counted and shown.
   f.routing.importSettingsIs(a.address, customerPolicy());
   EXPECT_EQ(f.output.routeRefreshes, (std::vector<AfiSafi>{kIpv4Flowspec, kIpv6Flowspec}));
   EXPECT_TRUE(f.logger.contains("127.0.0.2 import settings changed: rules now refused leave; asked for "
                                 "ipv4-flowspec, ipv6-flowspec again (ROUTE-REFRESH)"));
   f.scheduler().runReady();
   EXPECT_EQ(f.received(a), 1u);
   EXPECT_EQ(f.table().routes(), 1u);
   auto const view = f.routing.peer(a.address);
   EXPECT_EQ(view->ribin.at(kIpv4Flowspec).refused[static_cast<std::size_t>(ImportRefusal::destinationNotAllowed)], 1u);
   EXPECT_EQ(refusedJson(f.routing, a.address)["families"]["ipv4-flowspec"]["rules"][0]["rule"], "11.0.0.0/24;*;");
   // The peer answers the refresh with its table: the refused rule is refused again.
   ASSERT_EQ(f.update(a, table), std::nullopt);
   EXPECT_EQ(f.received(a), 1u);
   // Refused to allowed: nothing is kept to let in, the refresh brings it.
   f.routing.importSettingsIs(a.address, {});
   EXPECT_EQ(f.output.routeRefreshes.size(), 4u);
   EXPECT_EQ(f.received(a), 1u);
   ASSERT_EQ(f.update(a, table), std::nullopt);
   EXPECT_EQ(f.received(a), 2u);
   EXPECT_TRUE(refusedJson(f.routing, a.address)["families"]["ipv4-flowspec"]["rules"].empty());
   // The same settings again change nothing and ask for nothing.
   f.routing.importSettingsIs(a.address, {});
   EXPECT_EQ(f.output.routeRefreshes.size(), 4u);
}

// A session that does not do route refresh keeps what the new policy allows and is told of it.
TEST(BgpRoutingImportTest, WithoutRouteRefreshThePolicyStillTakesRulesOut) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   f.routing.handleEstablished(a, session(), f.output);
   ASSERT_EQ(f.update(a, announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build()), std::nullopt);
   f.routing.importSettingsIs(a.address, customerPolicy());
   f.scheduler().runReady();
   EXPECT_TRUE(f.output.routeRefreshes.empty());
   EXPECT_TRUE(f.logger.contains("the session does not do route refresh"));
   // No community: no action, which the policy allows; 11.0.0.0/24 is outside.
   EXPECT_EQ(f.received(a), 1u);
   // The session goes down while a new policy's walk is pending: the purge takes over.
   f.routing.importSettingsIs(a.address, {});
   f.routing.importSettingsIs(a.address, customerPolicy());
   EXPECT_GT(f.routing.purgesPending(), 0u);
   f.routing.handleSessionDown(a);
   f.scheduler().runReady();
   EXPECT_EQ(f.received(a), 0u);
   EXPECT_EQ(f.routing.purgesPending(), 0u);
}

// The global limit holds every neighbor's rules together, and comes and goes with a reload.
TEST(BgpRoutingImportTest, GlobalLimitAcrossNeighbors) {
   Fixture f;
   BgpPeer const a = peer("127.0.0.2", 65002);
   BgpPeer const b = peer("127.0.0.3", 65003);
   f.routing.handleEstablished(a, session(), f.output);
   f.routing.handleEstablished(b, session(), f.output);
   f.routing.globalRuleLimitIs(limitOf(3, RuleLimitAction::discard));
   ASSERT_EQ(f.update(a, announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build()), std::nullopt);
   ASSERT_EQ(f.update(b, announcing().mpReach(1, 133, "", "0501180c00000501180d0000").build()), std::nullopt);
   EXPECT_EQ(f.received(a) + f.received(b), 3u);
   EXPECT_EQ(f.routing.peer(b.address)->ribin.at(kIpv4Flowspec).refused[static_cast<std::size_t>(
                 ImportRefusal::globalRuleLimit)],
             1u);
   EXPECT_TRUE(f.logger.contains("the global max-rules 3 is reached: rules beyond it are refused (first from 127.0.0.3)"));
   f.routing.globalRuleLimitIs(std::nullopt);
   ASSERT_EQ(f.update(b, announcing().mpReach(1, 133, "", "0501180d0000").build()), std::nullopt);
   EXPECT_EQ(f.received(a) + f.received(b), 4u);
}

} // namespace
} // namespace Flowspecd

namespace Flowspecd {
namespace {

// ---- Validation against the unicast table, over the real plugin and the host's unicast ----

Negotiated withUnicast() {
   return session(true, {kIpv4Flowspec, kIpv6Flowspec, kIpv4Unicast, kIpv6Unicast});
}

// A unicast route of the UPDATE's own NLRI field, from AS `as`.
Bytes unicast4(std::uint32_t as, char const* nlriHex) {
   return UpdateBuilder().origin().asPath({as}).attr(kWellKnown, 3, "7f000002").nlri(nlriHex).build();
}

// "in" when the rule (its NLRI bytes) is a best path, the reason it waits aside for, or "gone".
std::string ruleState(Fixture& f, BgpPeer const& from, AfiSafi family, char const* nlriHex) {
   RibTable& t = f.table(family);
   for (RouteKey const* k : t.order()) {
      if (hexText(std::span<std::uint8_t const>(reinterpret_cast<std::uint8_t const*>(
                                                     k->serialize(RouteKey::SerializeOperation::advertise, nullptr).data()),
                                                 k->serialize(RouteKey::SerializeOperation::advertise, nullptr).size())) ==
          nlriHex) {
         return "in";
      }
   }
   for (auto const& [fam, view] : f.routing.refused(from.address)) {
      if (fam != family) continue;
      for (AdjRibin::Refused const& r : view.rules) {
         Ovk::String const s = r.key->serialize(RouteKey::SerializeOperation::advertise, nullptr);
         if (hexText(std::span<std::uint8_t const>(reinterpret_cast<std::uint8_t const*>(s.data()), s.size())) == nlriHex) {
            return toStrep(r.reason);
         }
      }
   }
   return "gone";
}

TEST(BgpRoutingValidationTest, RulesOnlyFromWhoRoutesTheirDestination) {
   Fixture f;
   f.routing.validationDefaultIs(true);
   BgpPeer const a = peer("127.0.0.2", 65002, 2);
   BgpPeer const b = peer("127.0.0.3", 65003, 3);
   BgpPeer const inside = peer("127.0.0.4", 65001, 4);
   f.routing.handleEstablished(a, withUnicast(), f.output);
   f.routing.handleEstablished(b, withUnicast(), f.output);
   f.routing.handleEstablished(inside, withUnicast(), f.output);
   f.scheduler().runReady();
   // Unicast is never advertised: each session is sent only its End-of-RIB.
   EXPECT_EQ(std::count(f.output.endOfRibs.begin(), f.output.endOfRibs.end(), kIpv4Unicast), 3);
   EXPECT_EQ(f.update(a, unicast4(65002, "080a")), std::nullopt); // 10.0.0.0/8 from A
   EXPECT_EQ(f.received(a, kIpv4Unicast), 1u);
   EXPECT_EQ(f.routing.validation()->routes(Afi::afiIpv4), 1u);

   // Only the neighbor that routes 10.0.0.0/8 may send a rule for 10.0.0.0/24.
   (void)f.update(b, UpdateBuilder().origin().asPath({65003}).mpReach(1, 133, "", kRule).build());
   EXPECT_EQ(ruleState(f, b, kIpv4Flowspec, kRule), "notOriginator");
   (void)f.update(a, UpdateBuilder().origin().asPath({65002}).mpReach(1, 133, "", kRule).build());
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kRule), "in");
   EXPECT_EQ(f.routing.peer(b.address)->ribin.at(kIpv4Flowspec).refused[static_cast<std::size_t>(
                 ImportRefusal::notOriginator)],
             1u);

   // A rule that comes before its route waits, and comes in with the route: no resend.
   (void)f.update(a, UpdateBuilder().origin().asPath({65002}).mpReach(1, 133, "", kOther).build());
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kOther), "noUnicastRoute");
   (void)f.update(a, unicast4(65002, "080b")); // 11.0.0.0/8
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kOther), "in");
   // A more-specific route from another AS takes it out; its withdrawal brings it back.
   (void)f.update(b, unicast4(65003, "190b000080")); // 11.0.0.128/25, inside the rule's 11.0.0.0/24
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kOther), "moreSpecificOtherAs");
   // What the show command says of it.
   nlohmann::json const shown = unicastJson(f.routing, "ipv4 11.0.0.0/8");
   EXPECT_EQ(shown["bestMatch"], "11.0.0.0/8");
   EXPECT_EQ(shown["entries"].dump(),
             R"([{"asPath":"65002","from":"127.0.0.2","paths":1,"prefix":"11.0.0.0/8"},)"
             R"({"asPath":"65003","from":"127.0.0.3","paths":1,"prefix":"11.0.0.128/25"}])");
   EXPECT_EQ(unicastJson(f.routing, "ipv4 11.0.0.192/26")["bestMatch"], "11.0.0.128/25");
   EXPECT_EQ(unicastJson(f.routing, "ipv4")["shown"], 3);
   EXPECT_EQ(unicastJson(f.routing, "ipv4", 2)["truncated"], true);
   EXPECT_TRUE(unicastJson(f.routing, "ipv4 2001:db8::/32").contains("error"));
   EXPECT_TRUE(unicastJson(f.routing, "ipv5").contains("error"));
   (void)f.update(b, UpdateBuilder().withdrawn("190b000080").build());
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kOther), "in");
   // The route's withdrawal takes the rule out; so does the end of A's session.
   (void)f.update(a, UpdateBuilder().withdrawn("080b").build());
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kOther), "noUnicastRoute");

   // Internal neighbors are not validated by default.
   (void)f.update(inside, UpdateBuilder().origin().asPath({}).mpReach(1, 133, "", "0501180c0000").build());
   EXPECT_EQ(ruleState(f, inside, kIpv4Flowspec, "0501180c0000"), "in");

   f.routing.handleSessionDown(a);
   f.scheduler().runReady();
   EXPECT_EQ(ruleState(f, a, kIpv4Flowspec, kRule), "gone");
   EXPECT_EQ(f.routing.validation()->routes(Afi::afiIpv4), 0u);
   EXPECT_EQ(f.routing.validation()->rules(), 1u) << "B's infeasible rule";
}

// RFC 8956: an IPv6 destination with a non-zero offset validates nothing, however well its
// pattern looks covered by the sender's own route.
TEST(BgpRoutingValidationTest, Ipv6DestinationsWithAnOffsetAreInfeasible) {
   Fixture f;
   f.routing.validationDefaultIs(true);
   BgpPeer const a = peer("127.0.0.2", 65002, 2);
   f.routing.handleEstablished(a, withUnicast(), f.output);
   (void)f.update(a, UpdateBuilder().origin().asPath({65002}).mpReach(2, 1, "20010db8000000000000000000000001",
                                                                      "2020010db8 00").build()); // 2001:db8::/32, ::/0
   EXPECT_EQ(f.received(a, kIpv6Unicast), 2u);
   struct Row {
      char const* name;
      char const* nlri;
      char const* state;
   };
   Row const rows[] = {
       {"offset 0", "09013000" "20010db80001", "in"}, // 2001:db8:1::/48
       {"offset 16, the pattern of the same /48", "07013010" "0db80001", "unvalidatableDestination"},
       {"offset 32", "07014020" "0000000a", "unvalidatableDestination"},
       {"no destination", "03038106", "unvalidatableDestination"}, // next header 6 only
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      (void)f.update(a, UpdateBuilder().origin().asPath({65002}).mpReach(2, 133, "", r.nlri).build());
      EXPECT_EQ(ruleState(f, a, kIpv6Flowspec, r.nlri), r.state);
   }
}

} // namespace
} // namespace Flowspecd
