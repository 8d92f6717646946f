#include "agent/UpdateDecoding.h"

#include <gtest/gtest.h>

#include "tests/host/bgp/UpdateBuilder.h"

namespace Flowspecd {
namespace {

using namespace BgpTest;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::BgpParseCountReason;
using Routing::Bgp::BgpUpdateAction;

class Lines : public Logger {
 public:
   void log(std::string_view who, std::string_view event) override { lines.push_back(std::string(who) + " " + std::string(event)); }
   std::vector<std::string> lines;
};

// A peer as the sink sees it: its address and AS; ours is 65001.
BgpPeer peer(std::uint32_t remoteAs) {
   return BgpPeer{*Ovnet::IpGenAddr::parse("127.0.0.2"), remoteAs, 65001, 2, BgpL3VrfId::defaultVrfId()};
}

// A way out that takes everything and keeps nothing.
class NoOutput : public BgpPeerOutput {
 public:
   void sendUpdate(std::span<std::uint8_t const>) override {}
   void sendEndOfRib(AfiSafi) override {}
   std::size_t queuedBytes() const override { return 0; }
   void drainedCallbackIs(std::function<void()>) override {}
};

Negotiated session(bool fourOctetAs, std::vector<AfiSafi> families = {kIpv4Flowspec, kIpv6Flowspec}) {
   Negotiated n;
   n.fourOctetAs = fourOctetAs;
   n.families = std::move(families);
   return n;
}

constexpr char const* kRule = "0501180a0000"; // 10.0.0.0/24
constexpr char const* kOther = "0501180b0000"; // 11.0.0.0/24

struct Fixture {
   explicit Fixture(std::uint32_t remoteAs = 65001) : from(peer(remoteAs)) {}
   std::optional<Notification> update(Bytes bytes) {
      return decoding.handleUpdate(from, MessageView{MessageType::update, bytes}).reset;
   }
   void established(Negotiated const& n) { decoding.handleEstablished(from, n, output); }
   std::size_t rules(AfiSafi family = kIpv4Flowspec) {
      auto const p = decoding.peer(from.address);
      if (!p) return 0;
      auto const it = p->rules.find(family);
      return it == p->rules.end() ? 0 : it->second;
   }
   Lines logger;
   UpdateDecoding decoding{logger};
   BgpPeer from;
   NoOutput output;
};

TEST(UpdateDecodingTest, RulesComeAndGoWithTheirUpdates) {
   Fixture f;
   f.established(session(true));
   EXPECT_EQ(f.update(announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build()), std::nullopt);
   EXPECT_EQ(f.rules(), 2u);
   EXPECT_EQ(f.update(UpdateBuilder().mpUnreach(1, 133, kRule).build()), std::nullopt);
   EXPECT_EQ(f.rules(), 1u);
   EXPECT_TRUE(f.logger.lines.empty());
   f.decoding.handleSessionDown(f.from);
   EXPECT_EQ(f.rules(), 0u);
}

// RFC 7606: treat-as-withdraw takes the announced rules as withdrawn, and is logged.
TEST(UpdateDecodingTest, TreatAsWithdrawWithdrawsWhatTheUpdateAnnounces) {
   Fixture f;
   f.established(session(true));
   (void)f.update(announcing().mpReach(1, 133, "", std::string(kRule) + kOther).build());
   EXPECT_EQ(f.update(UpdateBuilder().origin(7).asPath({65002}).mpReach(1, 133, "", kRule).build()), std::nullopt);
   EXPECT_EQ(f.rules(), 1u);
   ASSERT_EQ(f.logger.lines.size(), 1u);
   EXPECT_EQ(f.logger.lines[0], "127.0.0.2 UPDATE treat-as-withdraw: originValue (ORIGIN value is undefined): treat-as-withdraw");
   auto const p = f.decoding.peer(f.from.address);
   EXPECT_EQ(p->counters.action(BgpUpdateAction::treatAsWithdraw), 1u);
   EXPECT_EQ(p->counters.reasons.at(BgpParseCountReason::originValue), 1u);
}

// A session reset answers with the NOTIFICATION the decoder chose: a flowspec NLRI whose
// length runs past its attribute is Optional Attribute Error with the attribute as data.
TEST(UpdateDecodingTest, SessionResetAnswersWithTheDecodersNotification) {
   Fixture f;
   f.established(session(true));
   auto const n = f.update(announcing().mpReach(1, 133, "", "09ee").build());
   ASSERT_TRUE(n);
   EXPECT_EQ(*n, (Notification{3, 9, hexBytes("800e07000185000009ee")}));
   EXPECT_EQ(f.rules(), 0u);
   EXPECT_EQ(f.logger.lines.back(), "127.0.0.2 UPDATE refused: flowspecNlriLenMismatch: session-reset");
}

// The decoder of a session reads what the session negotiated: 2-octet AS numbers, the
// families agreed on, LOCAL_PREF of an external peer discarded.
TEST(UpdateDecodingTest, EachSessionIsDecodedAsNegotiated) {
   Fixture f(65002);
   f.established(session(false, {kIpv4Flowspec}));
   Bytes const twoOctet = UpdateBuilder().origin().asPath({65002}, false).attr(kWellKnown, 5, "00000064").mpReach(1, 133, "", kRule).build();
   EXPECT_EQ(f.update(twoOctet), std::nullopt);
   EXPECT_EQ(f.rules(), 1u);
   EXPECT_EQ(f.logger.lines.back(), "127.0.0.2 UPDATE attribute-discard: localPrefFromExternal (LOCAL_PREF from an external peer): attribute-discard");
   // IPv6 flowspec was not agreed on: skipped.
   (void)f.update(UpdateBuilder().origin().asPath({65002}, false).mpReach(2, 133, "", "00").build());
   EXPECT_EQ(f.rules(kIpv6Flowspec), 0u);
   // The next session agrees on 4-octet AS numbers; counts carry over.
   f.decoding.handleSessionDown(f.from);
   f.established(session(true));
   EXPECT_EQ(f.update(twoOctet), std::nullopt);
   auto const p = f.decoding.peer(f.from.address);
   EXPECT_EQ(p->counters.messages, 3u);
   EXPECT_EQ(p->counters.reasons.at(BgpParseCountReason::mpFamilyWithoutRule), 1u);
   EXPECT_EQ(p->counters.reasons.at(BgpParseCountReason::asPathMalformed), 1u);
   auto const j = f.decoding.json();
   EXPECT_EQ(j["neighbors"][0]["families"]["ipv4-flowspec"]["announced"], 2);
   EXPECT_EQ(j["neighbors"][0]["families"]["ipv4-flowspec"]["rules"], 0);
   EXPECT_EQ(j["neighbors"][0]["outcomes"]["treat-as-withdraw"], 1);
}

} // namespace
} // namespace Flowspecd
