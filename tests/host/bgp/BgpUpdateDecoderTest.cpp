#include "host/bgp/BgpUpdateDecoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/host/bgp/UpdateBuilder.h"

namespace {

using namespace Routing::Bgp;
using namespace BgpTest;
using Ovk::Ptr;

// ---- A family of fake rules ----
//
// NLRI of the fake family are framed as flowspec NLRI (a one- or two-byte length), so the
// decoder knows where each ends; a body starting with 0xee is refused with reason 218 after
// the rule has read into it. Next-hop fields are read whole, or refused with reason 228 when
// the packet holds less than declared.

class BytesKey : public RouteKey {
 public:
   explicit BytesKey(Bytes b) : b_(std::move(b)) {}
   std::uint32_t hash() const override { return static_cast<std::uint32_t>(b_.size()); }
   bool compare(Ovk::DedupHandle const* o) const override { return static_cast<BytesKey const*>(o)->b_ == b_; }
   Bytes b_;
};

class BytesKeyTable : public RouteKeyDedupTable {
 public:
   BytesKeyTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId()) {}
};

class FakeNlriRule : public BgpParseUpdateNlriRuleBase {
 public:
   explicit FakeNlriRule(Ptr<BytesKeyTable> table) : table_(std::move(table)) {}
   BgpParseUpdateNlriReturn inhale(Ptr<BgpParseContext> const&, BgpParsePktPosition* const& position, bool,
                                   Ptr<BgpParseUpdateResults> const& results) const override {
      std::uint8_t len = 0;
      if (!position->consumeU8(&len)) {
         results->countReasonIs(BgpParseCountReason::flowspecNlriLenMissing);
         return {};
      }
      if (len > position->bytesLeft()) {
         results->countReasonIs(BgpParseCountReason::flowspecNlriLenMismatch);
         return {};
      }
      BytePtrConst const body = position->consumeData(len);
      if (body && len > 0 && body[0] == 0xee) {
         results->countReasonIs(BgpParseCountReason::flowspecComponentTypeInvalid);
         return {};
      }
      auto key = newRouteKey<BytesKey>(Bytes(body, body + len));
      return {key->dedupRouteKey(table_.ptr()), nullptr, false};
   }
   // A length byte and that many bytes, as flowspec NLRI are framed.
   std::optional<std::size_t> nlriExtent(BgpParsePktPosition const& position) const override {
      BgpParsePktPosition pos = position;
      std::uint8_t len = 0;
      if (!pos.consumeU8(&len) || len > pos.bytesLeft()) return std::nullopt;
      return 1u + len;
   }

 private:
   Ptr<BytesKeyTable> table_;
};

class FakeNextHopRule : public BgpParseUpdateAttributeMpReachNlriNextHopRuleBase {
 public:
   BgpNotificationErrorUpdateMessageSubcode inhale(
       Ptr<BgpParseContext> const&, BgpParsePktPosition* const& position,
       Ptr<BgpParseUpdateAttributesScratchpad> const& scratchpad) const override {
      std::size_t const n = position->bytesLeft();
      if (!position->consumeData(n)) {
         scratchpad->results()->countReasonIs(BgpParseCountReason::flowspecNexthopShort);
         return BgpNotificationErrorUpdateMessageSubcode::optionalAttributeError;
      }
      ++calls;
      return BgpNotificationErrorUpdateMessageSubcode::noError;
   }
   mutable int calls = 0;
};

// A plugin state machine that answers with the fake rules.
class FakePluginSm : public BgpParsePluginBaseSm {
 public:
   FakePluginSm(Ptr<BgpParseRuleCollections const> c, bool startNow) : BgpParsePluginBaseSm(std::move(c)) {
      if (startNow) handleStartup();
   }
   void start() { handleStartup(); }
   void instantiateNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey key,
                                  BgpParseControl const&) const override {
      log.push_back("nexthop " + str(key));
      addNextHopSubRule(key, nextHopRule);
   }
   void instantiateNlriSubRule(BgpParseUpdateMessageRuleKey key, BgpParseControl const& control) const override {
      log.push_back("nlri " + str(key) + (control.addPathReceive ? " (addPath)" : ""));
      addNlriSubRule(key, Ovk::makePtr<FakeNlriRule>(table));
   }
   template <class K>
   static std::string str(K const& k) {
      std::ostringstream os;
      os << k;
      return os.str();
   }
   mutable std::vector<std::string> log;
   Ptr<BytesKeyTable> table = Ovk::makePtr<BytesKeyTable>();
   Ptr<FakeNextHopRule> nextHopRule = Ovk::makePtr<FakeNextHopRule>();
};

constexpr std::uint16_t kAfi = 1;
constexpr std::uint8_t kSafi = 133;

struct Env {
   explicit Env(BgpUpdateDecoder::Options options = {}, BgpParseControl control = {})
       : decoder(Ovk::makePtr<BgpParseContext>(Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId()), "test"),
                 options) {
      sm = Ovk::makePtr<FakePluginSm>(collections, true);
      sm->hasNotificationActiveIs(true);
      decoder.ruleCollectionsIs(collections, control);
   }
   BgpParsedUpdate const& decode(Bytes const& m) {
      message = m;
      return decoder.decode(message);
   }
   Ptr<BgpParseRuleCollections> collections = BgpParseRuleCollections::create(AfiSafi::ipv4Flowspec());
   Ptr<FakePluginSm> sm;
   BgpUpdateDecoder decoder;
   Bytes message;
};

// "reason:action" for each error, in the order met.
std::string errors(BgpParsedUpdate const& u) {
   std::string out;
   for (BgpUpdateError const& e : u.errors) {
      if (!out.empty()) out += ' ';
      out += toStrep(e.reason) + ":" + toStrep(e.action);
   }
   return out;
}

std::string notification(BgpParsedUpdate const& u) {
   if (!u.notification) return "";
   return std::to_string(u.notification->code) + "/" + std::to_string(u.notification->subcode) + " " +
          hexText(u.notification->data);
}

// ---- RFC 7606 decisions ----

struct Row {
   char const* name;
   std::function<Bytes()> message;
   char const* action;
   char const* errors;
   char const* notification = ""; // "code/subcode data-hex"
   BgpUpdateDecoder::Options options = {};
};

Bytes header(std::string_view hex) { return hexBytes(hex); }

std::vector<Row> const& rows() {
   static std::vector<Row> const r = {
       {"announce", [] { return announcing().mpReach(kAfi, kSafi, "", "020102 00").build(); }, "accept", ""},
       {"withdraw without attributes", [] { return UpdateBuilder().mpUnreach(kAfi, kSafi, "020102").build(); },
        "accept", ""},
       // Header (RFC 4271 section 6.1).
       {"shorter than a header", [] { return header("ffffffffffffffffffffffffffffffff0013"); }, "session-reset",
        "updateHeaderShort:session-reset", "1/2 "},
       {"marker",
        [] {
           Bytes m = UpdateBuilder().build();
           m[3] = 0;
           return m;
        },
        "session-reset", "updateMarker:session-reset", "1/1 "},
       {"length field",
        [] {
           Bytes m = UpdateBuilder().build();
           m.push_back(0);
           return m;
        },
        "session-reset", "updateLength:session-reset", "1/2 0017"},
       {"type",
        [] {
           Bytes m = UpdateBuilder().build();
           m[18] = 4;
           return m;
        },
        "session-reset", "updateType:session-reset", "1/3 04"},
       {"above the largest message", [] { return announcing().attr(kOptional, 99, Bytes(5000, 0)).build(); },
        "session-reset", "updateLength:session-reset", "1/2 13b0"},
       // Lengths of the body (RFC 4271 section 6.3).
       {"withdrawn routes length",
        [] {
           Bytes m = UpdateBuilder().build();
           m[20] = 9;
           return m;
        },
        "session-reset", "withdrawnRoutesLength:session-reset", "3/1 "},
       {"total attribute length",
        [] {
           Bytes m = UpdateBuilder().build();
           m[22] = 9;
           return m;
        },
        "session-reset", "pathAttributesLength:session-reset", "3/1 "},
       {"withdrawn prefix longer than 32", [] { return UpdateBuilder().withdrawn("210a000000").build(); },
        "session-reset", "withdrawnRoutesInvalid:session-reset", "3/10 "},
       {"NLRI prefix cut short", [] { return announcing().attr(kWellKnown, 3, "0a000001").nlri("180a00").build(); },
        "session-reset", "nlriInvalid:session-reset", "3/10 "},
       {"IPv4 NLRI", [] { return announcing().attr(kWellKnown, 3, "0a000001").nlri("180a0000").build(); }, "accept",
        ""},
       // Attribute framing (RFC 7606 section 4).
       {"bytes too few for an attribute header",
        [] { return announcing().mpReach(kAfi, kSafi, "", "00").rawAttributes("4001").build(); }, "treat-as-withdraw",
        "attributeHeaderShort:treat-as-withdraw"},
       {"attribute runs past the attributes",
        [] { return announcing().mpReach(kAfi, kSafi, "", "00").rawAttributes("c0100800").build(); },
        "treat-as-withdraw", "attributeLengthOverrun:treat-as-withdraw"},
       {"MP_REACH_NLRI runs past the attributes", [] { return announcing().rawAttributes("800e2000018500").build(); },
        "session-reset", "attributeLengthOverrun:session-reset", "3/1 "},
       // Flags (RFC 7606 section 3.c).
       {"ORIGIN flagged optional",
        [] {
           return UpdateBuilder().attr(kOptionalTransitive, 1, "00").asPath({1}).mpReach(kAfi, kSafi, "", "00").build();
        },
        "treat-as-withdraw", "attributeFlags:treat-as-withdraw"},
       {"AGGREGATOR flagged well-known", [] { return announcing().attr(kWellKnown, 7, "0000fde90a000001").build(); },
        "attribute-discard", "attributeFlags:attribute-discard"},
       // Wrong flags cost what a malformed value of the attribute costs, and the value is
       // still judged unless the attribute is discarded.
       {"AS4_PATH flagged well-known", [] { return announcing().attr(kWellKnown, 17, "0201000000fd").build(); },
        "attribute-discard", "attributeFlags:attribute-discard"},
       {"AS4_AGGREGATOR flagged non-transitive",
        [] { return announcing().attr(kOptional, 18, "0000fde90a000001").build(); }, "attribute-discard",
        "attributeFlags:attribute-discard"},
       {"ATOMIC_AGGREGATE flagged optional and too long",
        [] { return announcing().attr(kOptionalTransitive, 6, "00").build(); }, "attribute-discard",
        "attributeFlags:attribute-discard"},
       {"MULTI_EXIT_DISC flagged transitive and too short",
        [] { return announcing().attr(kOptionalTransitive, 4, "000001").build(); }, "treat-as-withdraw",
        "attributeFlags:treat-as-withdraw medLength:treat-as-withdraw"},
       {"LOCAL_PREF flagged optional from an external peer",
        [] { return announcing().attr(kOptional, 5, "00000064").build(); },
        "treat-as-withdraw",
        "attributeFlags:treat-as-withdraw localPrefFromExternal:attribute-discard",
        "",
        {.externalPeer = true}},
       // Repeats (RFC 7606 section 3.g).
       {"ORIGIN twice", [] { return announcing().origin(1).mpReach(kAfi, kSafi, "", "00").build(); },
        "attribute-discard", "attributeDuplicate:attribute-discard"},
       {"MP_REACH_NLRI twice",
        [] { return announcing().mpReach(kAfi, kSafi, "", "00").mpReach(kAfi, kSafi, "", "00").build(); },
        "session-reset", "mpAttributeDuplicate:session-reset", "3/1 "},
       {"unrecognized well-known", [] { return announcing().attr(kWellKnown, 99, "0102").build(); }, "session-reset",
        "unrecognizedWellKnown:session-reset", "3/2 4063020102"},
       {"unrecognized optional", [] { return announcing().attr(kOptionalTransitive, 99, "0102").build(); }, "accept",
        ""},
       // Attribute by attribute (RFC 7606 section 7).
       {"ORIGIN length", [] { return UpdateBuilder().attr(kWellKnown, 1, "0000").asPath({1}).build(); },
        "treat-as-withdraw", "originLength:treat-as-withdraw"},
       {"ORIGIN value", [] { return UpdateBuilder().origin(3).asPath({1}).build(); }, "treat-as-withdraw",
        "originValue:treat-as-withdraw"},
       {"AS_PATH unknown segment type",
        [] { return UpdateBuilder().origin().attr(kWellKnown, 2, "050100000001").build(); }, "treat-as-withdraw",
        "asPathMalformed:treat-as-withdraw"},
       {"AS_PATH segment of no AS", [] { return UpdateBuilder().origin().attr(kWellKnown, 2, "0200").build(); },
        "treat-as-withdraw", "asPathMalformed:treat-as-withdraw"},
       {"AS_PATH segment overrun", [] { return UpdateBuilder().origin().attr(kWellKnown, 2, "020200000001").build(); },
        "treat-as-withdraw", "asPathMalformed:treat-as-withdraw"},
       {"AS_PATH one byte left", [] { return UpdateBuilder().origin().attr(kWellKnown, 2, "02010000000102").build(); },
        "treat-as-withdraw", "asPathMalformed:treat-as-withdraw"},
       {"AS_PATH of 2-octet numbers on a 4-octet session",
        [] { return UpdateBuilder().origin().asPath({65001}, false).build(); }, "treat-as-withdraw",
        "asPathMalformed:treat-as-withdraw"},
       {"AS_PATH of 2-octet numbers on a 2-octet session",
        [] {
           return UpdateBuilder().origin().asPath({65001, 65002}, false).mpReach(kAfi, kSafi, "", "00").build();
        },
        "accept",
        "",
        "",
        {.fourOctetAs = false}},
       {"NEXT_HOP length", [] { return announcing().attr(kWellKnown, 3, "0a0000").build(); }, "treat-as-withdraw",
        "nextHopLength:treat-as-withdraw"},
       {"MULTI_EXIT_DISC length", [] { return announcing().attr(kOptional, 4, "0000").build(); }, "treat-as-withdraw",
        "medLength:treat-as-withdraw"},
       {"LOCAL_PREF length", [] { return announcing().attr(kWellKnown, 5, "000064").build(); }, "treat-as-withdraw",
        "localPrefLength:treat-as-withdraw"},
       {"LOCAL_PREF from an external peer",
        [] { return announcing().attr(kWellKnown, 5, "00000064").build(); },
        "attribute-discard",
        "localPrefFromExternal:attribute-discard",
        "",
        {.externalPeer = true}},
       {"ATOMIC_AGGREGATE length", [] { return announcing().attr(kWellKnown, 6, "00").build(); }, "attribute-discard",
        "atomicAggregateLength:attribute-discard"},
       {"AGGREGATOR length", [] { return announcing().attr(kOptionalTransitive, 7, "fde90a000001").build(); },
        "attribute-discard", "aggregatorLength:attribute-discard"},
       {"COMMUNITIES empty", [] { return announcing().attr(kOptionalTransitive, 8, "").build(); }, "treat-as-withdraw",
        "communitiesLength:treat-as-withdraw"},
       {"COMMUNITIES length", [] { return announcing().attr(kOptionalTransitive, 8, "fde80064ff").build(); },
        "treat-as-withdraw", "communitiesLength:treat-as-withdraw"},
       {"EXTENDED_COMMUNITIES length",
        [] { return announcing().attr(kOptionalTransitive, 16, "800600000000000000000000").build(); },
        "treat-as-withdraw", "extCommunitiesLength:treat-as-withdraw"},
       {"IPv6 extended communities length",
        [] { return announcing().attr(kOptionalTransitive, 25, "000c20010db8000000000000000000000001000000").build(); },
        "treat-as-withdraw", "ipv6ExtCommunitiesLength:treat-as-withdraw"},
       // Mandatory attributes (RFC 7606 section 3.d).
       {"ORIGIN missing", [] { return UpdateBuilder().asPath({1}).mpReach(kAfi, kSafi, "", "00").build(); },
        "treat-as-withdraw", "missingOrigin:treat-as-withdraw"},
       {"AS_PATH missing", [] { return UpdateBuilder().origin().mpReach(kAfi, kSafi, "", "00").build(); },
        "treat-as-withdraw", "missingAsPath:treat-as-withdraw"},
       {"NEXT_HOP missing for IPv4 NLRI", [] { return announcing().nlri("080a").build(); }, "treat-as-withdraw",
        "missingNextHop:treat-as-withdraw"},
       {"a bad ORIGIN is not also a missing one",
        [] { return UpdateBuilder().attr(kWellKnown, 1, "").asPath({1}).mpReach(kAfi, kSafi, "", "00").build(); },
        "treat-as-withdraw", "originLength:treat-as-withdraw"},
       // MP_REACH_NLRI and MP_UNREACH_NLRI (RFC 4760 section 7, RFC 7606 section 5.3).
       {"MP_REACH_NLRI without next-hop length", [] { return announcing().attr(kOptional, 14, "000185").build(); },
        "session-reset", "mpReachShort:session-reset", "3/9 800e03000185"},
       {"MP_REACH_NLRI without reserved byte", [] { return announcing().attr(kOptional, 14, "00018500").build(); },
        "session-reset", "mpReachShort:session-reset", "3/9 800e0400018500"},
       {"next hop longer than the attribute", [] { return announcing().attr(kOptional, 14, "0001850401").build(); },
        "session-reset", "flowspecNexthopShort:session-reset", "3/9 800e050001850401"},
       {"next hop longer than the attribute, family without rules",
        [] { return announcing().attr(kOptional, 14, "0001010401").build(); }, "session-reset",
        "mpReachNexthopOverrun:session-reset", "3/9 800e050001010401"},
       {"MP_UNREACH_NLRI without SAFI", [] { return UpdateBuilder().attr(kOptional, 15, "0001").build(); },
        "session-reset", "mpUnreachShort:session-reset", "3/9 800f020001"},
       {"family without rules",
        [] { return announcing().mpReach(2, 1, "20010db8000000000000000000000001", "4020010db8").build(); }, "accept",
        "mpFamilyWithoutRule:accept"},
       // NLRI the rule refuses: within their own length the next NLRI is still found; a
       // length past the attribute loses the rest.
       {"NLRI refused within its length",
        [] { return announcing().mpReach(kAfi, kSafi, "", "03ee0102 020a0b").build(); }, "treat-as-withdraw",
        "flowspecComponentTypeInvalid:treat-as-withdraw"},
       {"withdrawn NLRI refused within its length",
        [] { return UpdateBuilder().mpUnreach(kAfi, kSafi, "02ee01 020a0b").build(); }, "treat-as-withdraw",
        "flowspecComponentTypeInvalid:treat-as-withdraw"},
       {"NLRI length past the attribute", [] { return announcing().mpReach(kAfi, kSafi, "", "020a0b 09ee").build(); },
        "session-reset", "flowspecNlriLenMismatch:session-reset", "3/9 800e0a0001850000020a0b09ee"},
       // Several errors: the strongest approach wins (RFC 7606 section 3.f); the first reset
       // chooses the NOTIFICATION and ends the decoding.
       {"discard and withdraw", [] { return announcing().attr(kWellKnown, 6, "00").attr(kOptional, 4, "00").build(); },
        "treat-as-withdraw", "atomicAggregateLength:attribute-discard medLength:treat-as-withdraw"},
       {"withdraw then reset",
        [] { return announcing().attr(kOptional, 4, "00").attr(kWellKnown, 99, "").attr(kWellKnown, 98, "").build(); },
        "session-reset", "medLength:treat-as-withdraw unrecognizedWellKnown:session-reset", "3/2 406300"},
   };
   return r;
}

TEST(BgpUpdateDecoderTest, Rfc7606Decisions) {
   for (Row const& row : rows()) {
      SCOPED_TRACE(row.name);
      Env env(row.options);
      Bytes const m = row.message();
      BgpParsedUpdate const& u = env.decode(m);
      EXPECT_STREQ(toStrep(u.action), row.action) << hexText(m);
      EXPECT_EQ(errors(u), row.errors) << hexText(m);
      EXPECT_EQ(notification(u), row.notification) << hexText(m);
      // Every reason the decoder recorded is counted once on the UPDATE's results.
      EXPECT_EQ(u.attributes->results()->totalCount(), u.errors.size());
   }
}

// ---- What comes out ----

TEST(BgpUpdateDecoderTest, AttributesAndNlriComeOutAsViews) {
   Env env;
   Bytes const m = UpdateBuilder()
                       .origin(2)
                       .asPath({65001, 4200000000})
                       .attr(kOptional, 4, "00000064")
                       .attr(kWellKnown, 5, "000000c8")
                       .attr(kWellKnown, 6, "")
                       .attr(kOptionalTransitive, 8, "fde80064")
                       .extCommunities({0x8006000000000000ull})
                       .attr(kOptionalTransitive, 25,
                             "000c20010db8000000000000000000000001000"
                             "0")
                       .mpReach(kAfi, kSafi, "c0000201", "020a0b 00")
                       .mpUnreach(kAfi, kSafi, "020c0d")
                       .build();
   BgpParsedUpdate const& u = env.decode(m);
   ASSERT_EQ(u.action, BgpUpdateAction::accept) << errors(u);
   BgpParseUpdateAttributesScratchpad const& a = *u.attributes;
   EXPECT_EQ(a.origin, 2);
   EXPECT_EQ(asPathText(a.asPath.value, a.asPathFourOctet), "65001 4200000000");
   EXPECT_EQ(a.med, 100u);
   EXPECT_EQ(a.localPref, 200u);
   EXPECT_TRUE(a.atomicAggregate);
   EXPECT_EQ(hexText(a.communities.value), "fde80064");
   EXPECT_EQ(hexText(a.extCommunities.value), "8006000000000000");
   EXPECT_EQ(a.ipv6ExtCommunities.value.size(), 20u);
   EXPECT_EQ(u.mpReach.afiSafi, AfiSafi::ipv4Flowspec());
   EXPECT_EQ(hexText(u.mpReach.nextHop), "c0000201");
   EXPECT_EQ(env.sm->nextHopRule->calls, 1);
   ASSERT_EQ(u.nlri.size(), 3u);
   std::vector<std::string> got;
   for (BgpParsedNlri const& n : u.nlri) got.push_back((n.reachable ? "+" : "-") + hexText(n.bytes));
   EXPECT_EQ(got, (std::vector<std::string>{"+020a0b", "+00", "-020c0d"}));
   // The same NLRI twice give the same interned key.
   Ptr<RouteKey const> const first = u.nlri[0].routeKey;
   EXPECT_EQ(env.decode(m).nlri[0].routeKey.ptr(), first.ptr());
   EXPECT_FALSE(u.endOfRib());
}

TEST(BgpUpdateDecoderTest, RefusedNlriKeepTheirBytesAndReason) {
   Env env;
   BgpParsedUpdate const& u = env.decode(announcing().mpReach(kAfi, kSafi, "", "03ee0102 020a0b 05ee").build());
   ASSERT_EQ(u.nlri.size(), 3u);
   EXPECT_EQ(hexText(u.nlri[0].bytes), "03ee0102");
   EXPECT_EQ(u.nlri[0].reason, BgpParseCountReason::flowspecComponentTypeInvalid);
   EXPECT_EQ(u.nlri[0].routeKey, nullptr);
   EXPECT_NE(u.nlri[1].routeKey, nullptr);
   // The last one's length runs past the attribute: its bytes are the rest.
   EXPECT_EQ(hexText(u.nlri[2].bytes), "05ee");
   EXPECT_EQ(u.action, BgpUpdateAction::sessionReset);
}

TEST(BgpUpdateDecoderTest, PathIdentifiersWhenTheSessionReceivesThem) {
   Env env({}, BgpParseControl{.addPathReceive = true});
   EXPECT_EQ(env.sm->log, (std::vector<std::string>{"nexthop ipv4Flowspec", "nlri ipv4Flowspec addPath (addPath)"}));
   BgpParsedUpdate const& u = env.decode(announcing().mpReach(kAfi, kSafi, "", "00000007 020a0b 00000009 00").build());
   ASSERT_EQ(u.action, BgpUpdateAction::accept) << errors(u);
   ASSERT_EQ(u.nlri.size(), 2u);
   EXPECT_EQ(u.nlri[0].pathId, 7u);
   EXPECT_EQ(u.nlri[1].pathId, 9u);
   EXPECT_EQ(hexText(u.nlri[1].bytes), "00");
   BgpParsedUpdate const& cut = env.decode(announcing().mpReach(kAfi, kSafi, "", "00000007 00 0000").build());
   EXPECT_EQ(errors(cut), "nlriPathIdShort:session-reset");
}

TEST(BgpUpdateDecoderTest, EndOfRib) {
   Env env;
   EXPECT_EQ(env.decode(UpdateBuilder().build()).endOfRib(), AfiSafi(Afi::afiIpv4, Safi::unicast));
   EXPECT_EQ(env.decode(UpdateBuilder().mpUnreach(kAfi, kSafi, "").build()).endOfRib(), AfiSafi::ipv4Flowspec());
   EXPECT_EQ(env.decode(UpdateBuilder().mpUnreach(kAfi, kSafi, "00").build()).endOfRib(), std::nullopt);
   EXPECT_EQ(env.decode(UpdateBuilder().origin().mpUnreach(kAfi, kSafi, "").build()).endOfRib(), std::nullopt);
}

TEST(BgpUpdateDecoderTest, CountersPerFamilyAndAction) {
   Env env;
   (void)env.decode(announcing().mpReach(kAfi, kSafi, "", "020a0b 00").build());
   (void)env.decode(UpdateBuilder().mpUnreach(kAfi, kSafi, "020a0b").build());
   (void)env.decode(announcing().mpReach(kAfi, kSafi, "", "02ee00").build());
   (void)env.decode(announcing().attr(kWellKnown, 99, "").build());
   BgpUpdateDecoderCounters const& c = env.decoder.counters();
   EXPECT_EQ(c.messages, 4u);
   EXPECT_EQ(c.action(BgpUpdateAction::accept), 2u);
   EXPECT_EQ(c.action(BgpUpdateAction::treatAsWithdraw), 1u);
   EXPECT_EQ(c.action(BgpUpdateAction::sessionReset), 1u);
   BgpUpdateDecoderCounters::Family const& f = c.families.at(AfiSafi::ipv4Flowspec());
   EXPECT_EQ(f.updates, 3u);
   EXPECT_EQ(f.announced, 2u);
   EXPECT_EQ(f.withdrawn, 1u);
   EXPECT_EQ(f.refused, 1u);
   EXPECT_EQ(c.reasons.at(BgpParseCountReason::flowspecComponentTypeInvalid), 1u);
   EXPECT_EQ(c.reasons.at(BgpParseCountReason::unrecognizedWellKnown), 1u);
}

// Counters of several sessions add up count by count; a family or reason only one side
// has is taken over.
TEST(BgpUpdateDecoderTest, CountersAddUp) {
   AfiSafi const v4 = AfiSafi::ipv4Flowspec();
   AfiSafi const v6 = AfiSafi::ipv6Flowspec();
   BgpUpdateDecoderCounters a;
   a.messages = 3;
   a.actions = {1, 0, 1, 1};
   a.families[v4] = {.announced = 5, .withdrawn = 1, .refused = 2, .updates = 3};
   a.reasons[BgpParseCountReason::originLength] = 1;
   BgpUpdateDecoderCounters b;
   b.messages = 4;
   b.actions = {2, 1, 0, 1};
   b.families[v4] = {.announced = 1, .withdrawn = 2, .refused = 3, .updates = 4};
   b.families[v6] = {.announced = 7, .withdrawn = 0, .refused = 0, .updates = 1};
   b.reasons[BgpParseCountReason::originLength] = 2;
   b.reasons[BgpParseCountReason::flowspecNexthopShort] = 1;
   a += b;
   a += BgpUpdateDecoderCounters{};
   EXPECT_EQ(a.messages, 7u);
   EXPECT_EQ(a.actions, (std::array<std::uint64_t, 4>{3, 1, 1, 2}));
   BgpUpdateDecoderCounters::Family const& f4 = a.families.at(v4);
   EXPECT_EQ(std::tuple(f4.announced, f4.withdrawn, f4.refused, f4.updates), std::tuple(6u, 3u, 5u, 7u));
   BgpUpdateDecoderCounters::Family const& f6 = a.families.at(v6);
   EXPECT_EQ(std::tuple(f6.announced, f6.withdrawn, f6.refused, f6.updates), std::tuple(7u, 0u, 0u, 1u));
   EXPECT_EQ(a.reasons, (std::map<BgpParseCountReason, std::uint64_t>{{BgpParseCountReason::originLength, 3},
                                                                      {BgpParseCountReason::flowspecNexthopShort, 1}}));
}

// Every cut of a good UPDATE (with its length field made to agree) decodes to some answer
// without reading outside the message, and no cut is accepted with NLRI it does not hold.
TEST(BgpUpdateDecoderTest, EveryTruncationIsHandled) {
   Env env;
   Bytes const full = UpdateBuilder()
                          .origin()
                          .asPath({65001})
                          .extCommunities({0x8006000000000000ull})
                          .mpReach(kAfi, kSafi, "c0000201", "020a0b 03010203 00")
                          .mpUnreach(kAfi, kSafi, "020c0d")
                          .build();
   for (std::size_t n = 0; n < full.size(); ++n) {
      SCOPED_TRACE(n);
      // Heap copies of exactly n bytes, so that ASan sees any read beyond them.
      Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
      if (n >= 18) {
         cut[16] = static_cast<std::uint8_t>(n >> 8);
         cut[17] = static_cast<std::uint8_t>(n);
      }
      BgpParsedUpdate const& u = env.decode(cut);
      EXPECT_NE(u.action, BgpUpdateAction::accept) << hexText(cut);
      for (BgpParsedNlri const& nlri : u.nlri) {
         EXPECT_GE(nlri.bytes.data(), env.message.data());
         EXPECT_LE(nlri.bytes.data() + nlri.bytes.size(), env.message.data() + env.message.size());
      }
   }
   EXPECT_EQ(env.decode(full).action, BgpUpdateAction::accept);
}

TEST(BgpUpdateDecoderTest, Ipv4PrefixesAndAsPathText) {
   std::vector<std::string> got;
   forEachIpv4Prefix(hexBytes("00 080a 11c0a880 200a000001"), [&](Ovnet::IpGenAddr const& a, std::uint8_t len) {
      got.push_back(a.str() + "/" + std::to_string(len));
   });
   EXPECT_EQ(got, (std::vector<std::string>{"0.0.0.0/0", "10.0.0.0/8", "192.168.128.0/17", "10.0.0.1/32"}));
   EXPECT_EQ(asPathText(hexBytes("0202fde9fdea 0102fdebfdec 0301fded 0402fdeefdef"), false),
             "65001 65002 {65003,65004} (65005) [65006,65007]");
   EXPECT_EQ(asPathText({}, true), "");
}

// An AS_PATH that does not frame with 4-octet numbers is read with 2-octet ones when the
// session's capabilities are unknown.
TEST(BgpUpdateDecoderTest, AsNumberWidthDetection) {
   Env env({.detectAsWidth = true});
   BgpParsedUpdate const& two = env.decode(UpdateBuilder().origin().asPath({65001, 65002}, false).build());
   EXPECT_EQ(two.action, BgpUpdateAction::accept);
   EXPECT_FALSE(two.attributes->asPathFourOctet);
   EXPECT_EQ(asPathText(two.attributes->asPath.value, false), "65001 65002");
   BgpParsedUpdate const& four = env.decode(UpdateBuilder().origin().asPath({65001, 65002}).build());
   EXPECT_TRUE(four.attributes->asPathFourOctet);
}

// ---- Rule collections and the plugin base ----

TEST(BgpParseRulesTest, InstancesDeclaredBeforeStartupAreServedByIt) {
   auto collections = BgpParseRuleCollections::create(AfiSafi::ipv4Flowspec());
   collections->updateMessageRuleInstanceIs({AfiSafi::ipv4Flowspec(), false}, {});
   collections->mpReachNlriNextHopRuleInstanceIs({AfiSafi::ipv4Flowspec()}, {});
   auto sm = Ovk::makePtr<FakePluginSm>(collections, false);
   EXPECT_TRUE(sm->log.empty());
   sm->start();
   EXPECT_EQ(sm->log, (std::vector<std::string>{"nexthop ipv4Flowspec", "nlri ipv4Flowspec"}));
   EXPECT_NE(collections->nlriSubRule({AfiSafi::ipv4Flowspec(), false}), nullptr);
   EXPECT_EQ(collections->nlriSubRule({AfiSafi::ipv4Flowspec(), true}), nullptr);
   EXPECT_NE(collections->nextHopSubRule({AfiSafi::ipv4Flowspec()}), nullptr);
   EXPECT_EQ(collections->pluginSms(), 1u);
}

TEST(BgpParseRulesTest, LaterInstancesWaitForTheNotificationSwitch) {
   auto collections = BgpParseRuleCollections::create(AfiSafi::ipv4Flowspec());
   auto sm = Ovk::makePtr<FakePluginSm>(collections, true);
   BgpParseUpdateMessageRuleKey const plain{AfiSafi::ipv4Flowspec(), false};
   BgpParseUpdateMessageRuleKey const addPath{AfiSafi::ipv4Flowspec(), true};
   collections->updateMessageRuleInstanceIs(plain, {});
   EXPECT_TRUE(sm->log.empty()) << "notification is off";
   sm->hasNotificationActiveIs(true);
   EXPECT_EQ(sm->log, (std::vector<std::string>{"nlri ipv4Flowspec"}));
   collections->updateMessageRuleInstanceIs(addPath, {.addPathReceive = true});
   collections->updateMessageRuleInstanceIs(addPath, {.addPathReceive = true}); // no change: not told again
   EXPECT_EQ(sm->log, (std::vector<std::string>{"nlri ipv4Flowspec", "nlri ipv4Flowspec addPath (addPath)"}));
   // Switching off and on again serves nothing twice.
   sm->hasNotificationActiveIs(false);
   sm->hasNotificationActiveIs(true);
   EXPECT_EQ(sm->log.size(), 2u);
   EXPECT_EQ(collections->nlriSubRules(), 2u);
   // A state machine that goes leaves its sub-rules with the collections.
   sm = nullptr;
   EXPECT_EQ(collections->pluginSms(), 0u);
   EXPECT_NE(collections->nlriSubRule(plain), nullptr);
   collections->updateMessageRuleInstanceIs({AfiSafi::ipv4Flowspec(), false}, {.addPathReceive = true});
}

} // namespace
