#include "BgpFlowspec/FlowspecParseNlri.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include <nlohmann/json.hpp>

#include "tests/BgpFlowspec/ParseTestHelpers.h"
#include "tests/host/flowspec/KeyTestHelpers.h"

namespace {

using namespace FlowspecTest;
using Reason = BgpParseCountReason;

// "ok <reencoded hex>" or "<reason number> <message>"; then " +<hex>" for bytes left after it.
std::string summary(ParseEnv::Outcome const& o, Bytes const& input) {
   std::string out;
   if (o.result) {
      out = "ok " + ParseEnv::nlriHex(*o.result.value());
   } else {
      out = std::to_string(static_cast<unsigned>(o.result.reason().reason())) + " " + o.result.reason().message();
   }
   if (o.result && o.left) out += " +" + toHex(std::span(input).last(o.left));
   return out;
}

std::string repeat(std::string const& s, std::size_t n) {
   std::string out;
   for (std::size_t i = 0; i < n; ++i) out += s;
   return out;
}

// ---- Malformed NLRI: one vector per failure, with its reason and message ----

TEST(FlowspecParseNlriTest, EveryFailureCountsItsReasonWithItsMessage) {
   struct Row {
      char const* name;
      bool v6;
      std::string hex;
      Reason reason;
      char const* message;
      std::size_t consumed; // where the position is left
   };
   Row const rows[] = {
       {"no length", false, "", Reason::flowspecNlriLenMissing, "not enough data for NLRI length", 0},
       {"no second length byte", false, "f0", Reason::flowspecNlriLenMissing, "not enough data for NLRI length addend",
        1},
       {"length past the attribute", false, "10 01 18 0a", Reason::flowspecNlriLenMismatch,
        "encoded nlriLen (16) > bytesLeft (3)", 1},
       {"two-byte length past the attribute", false, "f1 00 01 00", Reason::flowspecNlriLenMismatch,
        "encoded nlriLen (256) > bytesLeft (2)", 2},
       // The value of the last pair lies beyond the NLRI, within the attribute.
       {"component past the length", false, "02 03 81 06", Reason::flowspecNlriLenMismatch,
        "parsing component 3 required consuming 1 more byte(s) than nlriLen", 4},
       // The same past the end of a long component: the body must not take more than one
       // NLRI's worth before the overrun is found (a peer's 4098 bytes here).
       {"long component past the length", false, "0103" + repeat("0006", 2047) + "8006",
        Reason::flowspecNlriLenMismatch, "parsing component 3 required consuming 4096 more byte(s) than nlriLen", 4098},
       {"long IPv6 component past the length", true, "0103" + repeat("0006", 4000) + "8006",
        Reason::flowspecNlriLenMismatch, "parsing component 3 required consuming 8002 more byte(s) than nlriLen", 8004},
       {"type 0", false, "01 00", Reason::flowspecComponentTypeInvalid, "invalid component type (0", 2},
       {"descending types", false, "06 03 81 06 01 08 0a", Reason::flowspecComponentTypeOrder,
        "component type 1 appeared after 3", 5},
       {"no mask", false, "01 01", Reason::flowspecPrefixMaskMissing, "not enough data for prefix mask length", 2},
       {"no offset", true, "02 01 20", Reason::flowspecPrefixOffsetMissing, "not enough data for IPv6 prefix offset",
        3},
       {"offset above mask", true, "03 01 08 09", Reason::flowspecPrefixOffsetAboveMask,
        "not sensible for offset to be greater than mask", 4},
       {"IPv4 mask 33", false, "07 01 21 0a 00 00 00 00", Reason::flowspecPrefixInvalid,
        "could not parse prefix: invalid masklength ", 3},
       {"IPv6 mask 129", true, "04 01 81 00 20", Reason::flowspecPrefixInvalid,
        "could not parse prefix: invalid masklength ", 4},
       {"IPv6 mask 200 with offset 100", true, "10 01 c8 64 00 00 00 00 00 00 00 00 00 00 00 00 00",
        Reason::flowspecPrefixInvalid, "could not parse prefix: invalid masklength ", 4},
       {"pattern cut short", false, "03 01 18 0a", Reason::flowspecPrefixInvalid,
        "could not parse prefix: not enough data ", 3},
       {"no operator", false, "01 03", Reason::flowspecOperatorMissing, "not enough data for component op", 2},
       {"no end of list", false, "03 03 01 06", Reason::flowspecOperatorMissing, "not enough data for component op", 4},
       {"no value", false, "02 03 81", Reason::flowspecValueMissing, "not enough data for component value", 3},
       {"eight-byte port", false, "0a 04 b1 00 00 00 00 00 00 00 50", Reason::flowspecValueTooLong,
        "value has too many bytes 8 for type 4", 3},
       {"two-byte DSCP", false, "04 0b 91 00 2e", Reason::flowspecValueTooLong,
        "value has too many bytes 2 for type 11", 3},
       {"IPv4 flow label is a tail, IPv6 takes 4 bytes only", true, "06 0d b1 00 00 00 00",
        Reason::flowspecValueTooLong, "value has too many bytes 8 for type 13", 3},
       {"IPv6 fragment with DF", true, "03 0c 81 01", Reason::flowspecIpv6FragmentDf,
        "IPv6 nlri fragment: DF bit is 1, but MUST be 0", 4},
   };
   ParseEnv env;
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 3);
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      env.results = BgpParseUpdateResults::create();
      cap.clear();
      Bytes const bytes = fromHex(r.hex);
      BgpParsePktPosition pos(bytes);
      BgpParsePktPosition* p = &pos;
      BgpParseUpdateNlriReturn const ret = env.rules[r.v6]->inhale(env.contexts[r.v6], p, true, env.results);
      EXPECT_EQ(ret.routeKey, nullptr);
      EXPECT_EQ(ret.results, nullptr);
      EXPECT_FALSE(ret.treatAsUnreach);
      EXPECT_EQ(env.results->count(r.reason), 1u);
      EXPECT_EQ(env.results->totalCount(), 1u);
      EXPECT_EQ(bytes.size() - pos.bytesLeft(), r.consumed);
      auto const lines = cap.lines();
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].text, std::string("parseCtx: ") + (r.v6 ? "test v6" : "test v4") + " vrf=0 " + r.message);
      EXPECT_TRUE(lines[0].line.starts_with("FlowspecParseNlri:")) << lines[0].line;
      auto const o = env.parse(r.v6, bytes);
      ASSERT_FALSE(o.result);
      EXPECT_EQ(o.result.reason().message(), r.message);
   }
   EXPECT_EQ(env.tables[0]->size() + env.tables[1]->size(), 0u);
}

// A position that declares more bytes than arrived: an unrecognised tail keeps only the bytes
// that are there, and the NLRI is then found cut short (reason 217), with nothing read past
// the packet.
TEST(FlowspecParseNlriTest, TailOfAPositionDeclaringMoreThanArrived) {
   ParseEnv env;
   Bytes const packet = fromHex("05 0e aa bb");
   BgpParsePktPosition pos = BgpParsePktPosition::declared(packet, 6);
   BgpParsePktPosition* p = &pos;
   BgpParseUpdateNlriReturn const ret = env.rules[0]->inhale(env.contexts[0], p, true, env.results);
   EXPECT_EQ(ret.routeKey, nullptr);
   EXPECT_EQ(env.results->count(Reason::flowspecComponentTypeMissing), 1u);
   EXPECT_EQ(pos.dataLeft(), 0u);
}

// Every cut of a rule's body, its length field set to the cut: the failure each step meets.
TEST(FlowspecParseNlriTest, TruncationSweep) {
   Bytes const body = fromHex("01 18 0a 00 00 02 20 14 00 00 01 03 81 06");
   char const* const expected[] = {
       "ok 00",
       "220 not enough data for prefix mask length",
       "223 could not parse prefix: not enough data ",
       "223 could not parse prefix: not enough data ",
       "223 could not parse prefix: not enough data ",
       "ok 0501180a0000",
       "220 not enough data for prefix mask length",
       "223 could not parse prefix: not enough data ",
       "223 could not parse prefix: not enough data ",
       "223 could not parse prefix: not enough data ",
       "223 could not parse prefix: not enough data ",
       "ok 0b01180a00000220140000 01",
       "224 not enough data for component op",
       "225 not enough data for component value",
       "ok 0e01180a0000022014000001038106",
   };
   ParseEnv env;
   for (std::size_t cut = 0; cut <= body.size(); ++cut) {
      Bytes nlri = {static_cast<std::uint8_t>(cut)};
      nlri.insert(nlri.end(), body.begin(), body.begin() + static_cast<std::ptrdiff_t>(cut));
      std::string want = expected[cut];
      std::erase(want, ' ');
      std::string got = summary(env.parse(false, nlri), nlri);
      std::erase(got, ' ');
      EXPECT_EQ(got.substr(0, want.size()), want) << "cut " << cut << ": " << summary(env.parse(false, nlri), nlri);
   }
}

// ---- Well-formed NLRI ----

TEST(FlowspecParseNlriTest, WellFormedEdgeCases) {
   ParseEnv env;
   struct Row {
      char const* name;
      bool v6;
      char const* hex;
      std::uint32_t reason;
      char const* reencoded; // null: the input
      char const* tail;
   };
   Row const rows[] = {
       {"zero length", false, "00", 0, nullptr, ""},
       {"two-byte zero length", false, "f0 00", 0, "00", ""},
       {"host bits cleared", false, "05 01 17 0a 01 03", 0, "05 01 17 0a 01 02", ""},
       {"0.0.0.0/0 is a prefix", false, "02 01 00", 0, nullptr, ""},
       {"repeated type", false, "09 01 08 0a 03 81 06 03 81 11", 4, nullptr, ""},
       {"repeated prefix keeps the later", false, "07 01 08 0a 01 10 0a 0b", 4, "04 01 10 0a 0b", ""},
       {"IPv4 flow label starts the tail", false, "06 01 08 0a 0d 81 05", 1, nullptr, "0d 81 05"},
       {"IPv6 flow label", true, "06 0d a1 00 01 00 00", 0, nullptr, ""},
       {"IPv4 fragment with DF", false, "03 0c 81 01", 0, nullptr, ""},
       {"IPv6 offset", true, "07 01 40 20 12 34 56 78", 2, nullptr, ""},
       {"IPv6 offset, pattern bits cleared", true, "08 02 44 20 12 34 56 78 ff", 2, "08 02 44 20 12 34 56 78 f0", ""},
       {"IPv6 2001:db8::/32", true, "07 01 20 00 20 01 0d b8", 0, nullptr, ""},
       // The later source prefix has no offset; the flags stay as read.
       {"repeated IPv6 prefix, offset first", true, "06 02 02 02 02 00 00", 6, "03 02 00 00", ""},
       {"unknown type first: all is tail", false, "03 0e 01 02", 1, nullptr, "0e 01 02"},
       {"unknown type hides malformed bytes", true, "05 01 00 00 ff 00", 1, nullptr, "ff 00"},
       {"port >1023 &<=2047", false, "07 04 12 03 ff d5 07 ff", 0, nullptr, ""},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Bytes const bytes = fromHex(r.hex);
      auto const o = env.parse(r.v6, bytes);
      ASSERT_TRUE(o.result) << o.result.reason().message();
      FlowspecRouteKey const& key = *o.result.value();
      EXPECT_EQ(key.wontExportReason().value(), r.reason);
      EXPECT_EQ(toHex(key.unrecognizedTail()), toHex(fromHex(r.tail)));
      EXPECT_EQ(ParseEnv::nlriHex(key), toHex(fromHex(r.reencoded ? r.reencoded : r.hex)));
      EXPECT_EQ(o.left, 0u);
   }
   // What the steps keep: the prefix with its offset, the pattern at the start of the address.
   auto k = env.key(true, "07 01 40 20 12 34 56 78");
   EXPECT_EQ(k->destPrefix(), prefix("1234:5678::/64"));
   EXPECT_EQ(k->destPrefixOffset(), 32);
   auto repeated = env.key(false, "09 01 08 0a 03 81 06 03 81 11");
   EXPECT_EQ(repeated->opValComponentCount(), 2u);
   EXPECT_EQ(env.key(false, "05 01 17 0a 01 03")->destPrefix(), prefix("10.1.2.0/23"));
}

TEST(FlowspecParseNlriTest, BytesAfterTheNlriAreLeftForTheNext) {
   ParseEnv env;
   Bytes const field = fromHex("03 03 81 06 02 01 00");
   auto const first = env.parse(false, field);
   ASSERT_TRUE(first.result);
   EXPECT_EQ(first.consumed, 4u);
   EXPECT_EQ(summary(first, field), "ok 03038106 +020100");
}

TEST(FlowspecParseNlriTest, SameBytesGiveTheSameKeyAndTheTableIsFoundOnce) {
   ParseEnv env;
   AfiSafi const v4 = AfiSafi::ipv4Flowspec();
   EXPECT_EQ(env.contexts[0]->flowspecRouteKeyDedupTableRawPtr(v4), nullptr);
   auto a = env.key(false, "0e01180a0000022014000001038106");
   EXPECT_EQ(env.contexts[0]->flowspecRouteKeyDedupTableRawPtr(v4), env.tables[0].ptr());
   auto b = env.key(false, "0e01180a0000022014000001038106");
   EXPECT_EQ(a.ptr(), b.ptr());
   EXPECT_TRUE(a->isDeduped());
   EXPECT_EQ(a->afi(), Afi::afiIpv4);
   EXPECT_EQ(env.tables[0]->size(), 1u);
   EXPECT_EQ(env.results->totalCount(), 0u);
   // When the VRF's tables are replaced, the cache lets go of the old ones: the next NLRI
   // lands in the new table.
   auto replacement = flowspecRouteKeyDedupTableFactory(v4, BgpL3VrfId::defaultVrfId());
   env.vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(v4, replacement, nullptr));
   EXPECT_EQ(env.contexts[0]->flowspecRouteKeyDedupTableRawPtr(v4), nullptr);
   auto c = env.key(false, "0e01180a0000022014000001038106");
   EXPECT_NE(c.ptr(), a.ptr());
   EXPECT_EQ(c->dedupTable(), replacement.ptr());
}

// A session parses both families through one parse context. Whichever family comes first,
// each NLRI and each next hop lands in its own family's table: the same bytes make a key of
// each family, and an IPv6 rule is one canonical key whatever the session parsed before it.
TEST(FlowspecParseNlriTest, BothFamiliesThroughOneContextUseTheirOwnTables) {
   auto vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<FlowspecRouteKeyDedupTable> keys[2];
   Ovk::Ptr<FlowspecGenNexthopDedupTable> nexthops[2];
   Ovk::Ptr<FlowspecParseUpdateNlriRule> nlriRules[2];
   Ovk::Ptr<FlowspecParseUpdateNextHopRule> nexthopRules[2];
   for (bool v6 : {false, true}) {
      AfiSafi const family = v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec();
      keys[v6] = flowspecRouteKeyDedupTableFactory(family, BgpL3VrfId::defaultVrfId());
      nexthops[v6] = flowspecGenNexthopDedupTableFactory(
          BgpL3VrfId::defaultVrfId(), family, flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "bgp"),
          nullptr);
      vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(family, keys[v6], nexthops[v6]));
      nlriRules[v6] = Ovk::makePtr<FlowspecParseUpdateNlriRule>(BgpParseControl{}, family);
      nexthopRules[v6] = Ovk::makePtr<FlowspecParseUpdateNextHopRule>(BgpParseControl{}, family);
   }
   auto const results = BgpParseUpdateResults::create();
   auto const scratchpad = Ovk::makePtr<BgpParseUpdateAttributesScratchpad>(results);
   // Parses next hop `nh` and NLRI `nlri` of one family in `context`.
   auto update = [&](Ovk::Ptr<BgpParseContext> const& context, bool v6, std::string_view nh, std::string_view nlri) {
      Bytes const field = fromHex(nh);
      BgpParsePktPosition nhPos(field);
      BgpParsePktPosition* p = &nhPos;
      EXPECT_EQ(nexthopRules[v6]->inhale(context, p, scratchpad), BgpNotificationErrorUpdateMessageSubcode::noError);
      Bytes const bytes = fromHex(nlri);
      BgpParsePktPosition pos(bytes);
      p = &pos;
      return nlriRules[v6]->inhale(context, p, true, results).routeKey;
   };
   std::string const noPrefix = "03 03 81 06";
   std::string const v6Rule = "13 01 80 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
   Ovk::Ptr<RouteKey const> v6Keys[2];
   for (bool v6First : {false, true}) {
      SCOPED_TRACE(v6First ? "IPv6 first" : "IPv4 first");
      auto const context = Ovk::makePtr<BgpParseContext>(vrf, "peer");
      for (bool v6 : {v6First, !v6First}) {
         Afi const afi = v6 ? Afi::afiIpv6 : Afi::afiIpv4;
         for (std::string_view nh :
              {std::string_view(""), std::string_view(v6 ? "20010db8000000000000000000000001" : "c0000201")}) {
            auto const key = update(context, v6, nh, noPrefix);
            ASSERT_NE(key, nullptr);
            EXPECT_EQ(key->afi(), afi);
            EXPECT_EQ(key->dedupTable(), keys[v6].ptr());
            GenNexthop const* const nexthop = scratchpad->nexthop().ptr();
            ASSERT_NE(nexthop, nullptr);
            EXPECT_EQ(nexthop->afisafi().afi(), afi);
            EXPECT_EQ(nexthop->dedupTable(), nexthops[v6].ptr());
         }
         if (v6) v6Keys[v6First] = update(context, true, "", v6Rule);
      }
   }
   ASSERT_NE(v6Keys[0], nullptr);
   EXPECT_EQ(v6Keys[0].ptr(), v6Keys[1].ptr());
   EXPECT_EQ(results->totalCount(), 0u);
}

TEST(FlowspecParseNlriTest, TracesTheLengthsRepeatsOffsetsAndTails) {
   ParseEnv env;
   Ovk::TraceCapture cap(flowspecTraceFacility());
   env.key(true, "0f 01 40 20 12 34 56 78 03 81 06 03 81 11 0e 00");
   std::vector<std::string> const want = {
       "parseCtx: test v6 vrf=0 nlriLen=15, remainingOtherNlriLen=0",
       "parseCtx: test v6 vrf=0 IPv6 prefix offset=32, will not export",
       "parseCtx: test v6 vrf=0 3 repeated, not exporting to slate",
       "parseCtx: test v6 vrf=0 unrecognized component type: 14, storing 2 byte(s) as unrecognized...",
   };
   std::vector<std::string> got;
   for (auto const& l : cap.lines()) {
      if (l.level != 9) got.push_back(l.text);
   }
   EXPECT_EQ(got, want);
   EXPECT_EQ(cap.texts(6).size(), 1u);
}

// ---- Writer ----

TEST(FlowspecParseNlriTest, LengthFieldTakesOneByteBelow240AndTwoUpTo4095) {
   // A Port component of n one-byte pairs has a body of 1 + 2n bytes; a tail pads it to the
   // length wanted.
   for (std::size_t body : {std::size_t{0}, std::size_t{1}, std::size_t{239}, std::size_t{240}, std::size_t{4095}}) {
      auto key = flowspecV4RouteKeyFactory();
      if (body) {
         Bytes tail(body, 0x41);
         tail[0] = 0x0e;
         key->unrecognizedTailIs(tail);
      }
      std::string const hex = ParseEnv::nlriHex(*key);
      std::string const want =
          body < 240
              ? toHex(Bytes{static_cast<std::uint8_t>(body)})
              : toHex(Bytes{static_cast<std::uint8_t>(0xf0 | body >> 8), static_cast<std::uint8_t>(body & 0xff)});
      EXPECT_EQ(hex.substr(0, want.size()), want) << body;
      EXPECT_EQ(hex.size(), want.size() + 2 * body);
   }
   ParseEnv env;
   Bytes long4095(4097, 0x41);
   long4095[0] = 0xff;
   long4095[1] = 0xff;
   long4095[2] = 0x0e;
   auto const o = env.parse(false, long4095);
   ASSERT_TRUE(o.result);
   EXPECT_EQ(o.result.value()->unrecognizedTail().size(), 4095u);
}

TEST(FlowspecParseNlriTest, PrefixWriter) {
   Routing::Bgp::Serialize out;
   serializePrefix(out, 1, 0, prefix("2001:db8::/32"));
   serializePrefix(out, 2, 0, prefix("10.1.2.0/23"));
   serializePrefix(out, 1, 0, prefix("0.0.0.0/0"));
   EXPECT_EQ(toHex(out.bytes()), "01200020010db8"
                                 "02170a0102"
                                 "0100");
   EXPECT_EQ(prefixContentNumBytes(prefix("::/104"), 64), 5);
   EXPECT_EQ(prefixContentNumBytes(prefix("::/64"), 64), 0);
}

// ---- Properties ----

// Random rules of every shape the wire carries, with IPv6 offsets and tails: written, read
// back, they are the same rule (the same interned key), and the map the forwarding library
// would have been given pair by pair is what the key rebuilds.
TEST(FlowspecParseNlriTest, WrittenRulesReadBackToTheSameKey) {
   ParseEnv env;
   std::mt19937 rng(17);
   for (int i = 0; i < 3000; ++i) {
      bool const v6 = i % 2 == 1;
      auto key = flowspecRouteKeyFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4);
      // The library's pairs as an NLRI carries them: a component ends at its end-of-list
      // bit, so a repeated type is a component of its own. (Rule text joins consecutive
      // pairs of one type into one component instead.)
      Flowspec::FlowspecKey const slate =
          Flowspec::Gen::randomNlriKey(rng, v6 ? Ovnet::AddressFamily::ipv6 : Ovnet::AddressFamily::ipv4);
      key->destPrefixIs(slate.destPrefix());
      key->srcPrefixIs(slate.srcPrefix());
      Bytes run;
      for (auto r = slate.getOptVal(0); !r.atEnd(); r = slate.getOptVal(r.nextIndex())) {
         run.push_back(r.op());
         for (unsigned k = Flowspec::opValueBytes(r.op()); k-- > 0;)
            run.push_back(static_cast<std::uint8_t>(r.value() >> (8 * k)));
         if (r.op() & Flowspec::opEndOfList) {
            key->addOpValComponent(r.type(), run);
            run.clear();
         }
      }
      std::uint32_t reason = 0;
      if (v6 && !key->destPrefix().isUnset() && rng() % 3 == 0) {
         Ovnet::IpGenPrefix p = key->destPrefix();
         auto const offset = static_cast<std::uint8_t>(rng() % (p.len() + 1u));
         Ovnet::IpGenPrefix pattern(p.addr(), static_cast<std::uint8_t>(p.len() - offset));
         pattern.clearLowerAddrBits();
         key->destPrefixIs(Ovnet::IpGenPrefix(pattern.addr(), p.len()), offset);
         if (offset) reason |= FlowspecWontExportReason::nonZeroIpv6Offset_;
      }
      std::uint8_t prev = 0;
      for (auto c : key->opValComponents()) {
         if (c.type == prev) reason |= FlowspecWontExportReason::componentTypeMoreThanOnce_;
         prev = static_cast<std::uint8_t>(c.type);
      }
      if (rng() % 4 == 0) {
         key->unrecognizedTailIs(Bytes{static_cast<std::uint8_t>(14 + rng() % 200), 0x01, 0x02});
         reason |= FlowspecWontExportReason::unrecognizedTail_;
      }
      key->wontExportReasonIs(FlowspecWontExportReason(reason));
      auto const wire = key->serialize(RouteKey::SerializeOperation::advertise, nullptr);
      auto const o = env.parse(v6, Bytes(wire.bytes(), wire.bytes() + wire.size()));
      ASSERT_TRUE(o.result) << toHex(wire.span()) << ": " << o.result.reason().message() << " stored "
                            << toHex(key->storedBytes());
      FlowspecRouteKey const& back = *o.result.value();
      ASSERT_TRUE(back.compare(key.ptr())) << toHex(wire.span());
      ASSERT_EQ(back.hash(), key->hash());

      Flowspec::FlowspecKey map;
      map.afIs(key->slateKeyAf());
      map.destPrefixIs(key->destPrefix());
      map.srcPrefixIs(key->srcPrefix());
      Flowspec::MatchOpValIndex index = 0;
      for (auto c : back.opValComponents()) {
         auto const b = c.opValuePairsNbo;
         for (std::size_t j = 0; j < b.size();) {
            std::uint32_t v = 0;
            std::size_t const n = Flowspec::opValueBytes(b[j]);
            for (std::size_t k = 0; k < n; ++k) v = v << 8 | b[j + 1 + k];
            index = map.setOpVal(index, c.type, b[j], v);
            j += 1 + n;
         }
      }
      ASSERT_EQ(back.slateKey(), map);
   }
}

// ---- Captured NLRI ----

// The NLRI the capture's own decoder describes, written as a sender that clears host bits
// and uses the shortest length field would write it.
Bytes canonicalNlri(nlohmann::json const& record) {
   Bytes body;
   for (auto const& c : record["components"]) {
      unsigned const type = c["type"];
      body.push_back(static_cast<std::uint8_t>(type));
      if (type <= 2) {
         unsigned const len = c["prefix_len"];
         unsigned const offset = c.value("offset", 0u);
         body.push_back(static_cast<std::uint8_t>(len));
         if (record["afi"] == 2) body.push_back(static_cast<std::uint8_t>(offset));
         Bytes pattern = fromHex(c["prefix_bytes"].get<std::string>());
         if (unsigned const bits = (len - offset) % 8; bits != 0)
            pattern.back() &= static_cast<std::uint8_t>(0xff << (8 - bits));
         body.insert(body.end(), pattern.begin(), pattern.end());
         continue;
      }
      for (auto const& op : c["ops"]) {
         body.push_back(fromHex(op["op"].get<std::string>())[0]);
         unsigned const n = op["len"];
         std::uint64_t const v = op["value"];
         for (unsigned i = n; i-- > 0;) body.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
      }
   }
   Bytes out;
   if (body.size() < 240) {
      out.push_back(static_cast<std::uint8_t>(body.size()));
   } else {
      out.push_back(static_cast<std::uint8_t>(0xf0 | body.size() >> 8));
      out.push_back(static_cast<std::uint8_t>(body.size() & 0xff));
   }
   out.insert(out.end(), body.begin(), body.end());
   return out;
}

// The records whose bytes do not follow the RFCs, read NLRI after NLRI as the host reads an
// attribute's NLRI field, up to the end or the first failure.
std::map<std::string, std::vector<std::string>> const kMalformed = {
    // GoBGP's long rules: a 4-byte length 00 00 00 xx over the start of the rule. Three empty
    // rules; then xx is a length of its own.
    // f5 0a: a two-byte length of 1290.
    {"gobgp-v4-35-0000", {"ok 00", "ok 00", "ok 00", "216 encoded nlriLen (1290) > bytesLeft (242)"}},
    {"gobgp-v4-59-0000", {"ok 00", "ok 00", "ok 00", "216 encoded nlriLen (1290) > bytesLeft (242)"}},
    // ee: a one-byte length of 238.
    {"gobgp-v4-36-0000", {"ok 00", "ok 00", "ok 00", "216 encoded nlriLen (238) > bytesLeft (237)"}},
    // f0 0a: a two-byte length of 10, whose body starts with type 0x62: all tail. Then 04
    // (a tail of type 0x4e), then 11: a Port list whose operators 0x50, 0x51 ... run on past
    // the NLRI until 0x60 asks for a 4-byte value.
    {"gobgp-v4-37-0000",
     {"ok 00", "ok 00", "ok 00", "ok 0a62010411044c11044d11", "ok 044e11044f",
      "226 value has too many bytes 4 for type 4"}},
    // 00 00, 01 18 (a tail of type 0x18), 00; then 20: type 1, mask 13, offset 184.
    {"gobgp-v6-54-0000", {"ok 00", "ok 00", "ok 0118", "ok 00", "222 not sensible for offset to be greater than mask"}},
    // GoBGP and ExaBGP send the whole IPv6 prefix, not the pattern after the offset: read as
    // RFC 8956 says, the pattern ends early and a zero byte of the address is taken for a type.
    {"gobgp-v6-41-0000", {"218 invalid component type (0"}},
    {"gobgp-v6-57-0000", {"218 invalid component type (0"}},
    {"exabgp-v6-55-0000", {"218 invalid component type (0"}},
    {"gobgp-v6-42-0000", {"218 invalid component type (0"}},
    {"gobgp-v6-43-0000", {"218 invalid component type (0"}},
    {"exabgp-v6-40-0000", {"218 invalid component type (0"}},
};

TEST(FlowspecParseNlriTest, CapturedNlriDecodeAndRoundTrip) {
   std::string const path = std::string(FS_TESTDATA_DIR) + "/flowspec-nlri.jsonl";
   ASSERT_TRUE(std::filesystem::exists(path)) << "no test data at " << path;
   ParseEnv env;
   std::ifstream in(path);
   std::string line;
   int wellFormed = 0;
   int malformed = 0;
   while (std::getline(in, line)) {
      auto const record = nlohmann::json::parse(line);
      std::string const id = record["id"];
      SCOPED_TRACE(id);
      bool const v6 = record["afi"] == 2;
      Bytes const bytes = fromHex(record["nlri_hex"].get<std::string>());
      if (!record["malformed"].get<bool>()) {
         auto const o = env.parse(v6, bytes);
         ASSERT_TRUE(o.result) << o.result.reason().message();
         EXPECT_EQ(o.left, 0u);
         EXPECT_EQ(ParseEnv::nlriHex(*o.result.value()), toHex(canonicalNlri(record)));
         ++wellFormed;
         continue;
      }
      ++malformed;
      std::vector<std::string> got;
      BgpParsePktPosition pos(bytes);
      while (pos.bytesLeft() > 0) {
         BgpParsePktPosition* p = &pos;
         auto const r = env.rules[v6]->parse(env.contexts[v6], p, env.results);
         if (!r) {
            got.push_back(std::to_string(static_cast<unsigned>(r.reason().reason())) + " " + r.reason().message());
            break;
         }
         got.push_back("ok " + ParseEnv::nlriHex(*r.value()));
      }
      EXPECT_EQ(got, kMalformed.at(id));
   }
   EXPECT_EQ(wellFormed, 99);
   EXPECT_EQ(malformed, 11);
}

// ---- Broken invariants ----

TEST(FlowspecParseNlriDeathTest, Assertions) {
   Bytes const bytes = fromHex("01 02 03");
   BgpParsePktPosition pos(bytes);
   BgpParsePktPosition* p = &pos;
   std::uint64_t v = 0;
   EXPECT_DEATH(consumeOpValValue(p, 3, &v),
                "Assertion `numBytes == 1 \\|\\| numBytes == 2 \\|\\| numBytes == 4 \\|\\| numBytes == 8' failed");

   auto big = flowspecV4RouteKeyFactory();
   Bytes tail(4096, 0x41);
   tail[0] = 0x0e;
   big->unrecognizedTailIs(tail);
   EXPECT_DEATH(big->serialize(RouteKey::SerializeOperation::advertise, nullptr),
                "Assertion `expectedNlriLen <= 0x0fff' failed");

   Routing::Bgp::Serialize out;
   EXPECT_DEATH(serializePrefix(out, 1, 33, prefix("10.0.0.0/32")),
                "Assertion `prefix.len\\(\\) >= ipv6PrefixOffset' failed");
   EXPECT_DEATH(serializePrefix(out, 1, 0, Ovnet::IpGenPrefix()),
                "Assertion `prefix.af\\(\\) == Ovnet::AddressFamily::ipv6_' failed");

   // A VRF without the family's route-key table.
   ParseEnv env;
   env.vrf->dedupTablesVrfAfiSafiDel(AfiSafi::ipv6Flowspec());
   EXPECT_DEATH(env.key(true, "00"), "Assertion `routeKeyDedupTable != nullptr' failed");
}

} // namespace

// ---- The next-hop rule ----

namespace {

// The default VRF's flowspec tables of both families with next-hop tables, a parse context
// per family, a next-hop rule per family and one scratchpad.
struct NextHopEnv {
   NextHopEnv() {
      for (bool v6 : {false, true}) {
         AfiSafi const family = v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec();
         nexthops[v6] = flowspecGenNexthopDedupTableFactory(
             BgpL3VrfId::defaultVrfId(), family, flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "bgp"),
             nullptr);
         vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(
             family, flowspecRouteKeyDedupTableFactory(family, BgpL3VrfId::defaultVrfId()), nexthops[v6]));
         contexts[v6] = Ovk::makePtr<BgpParseContext>(vrf, v6 ? "test v6" : "test v4");
         rules[v6] = Ovk::makePtr<FlowspecParseUpdateNextHopRule>(BgpParseControl{}, family);
      }
   }
   // Runs the rule over a field of `declared` bytes of which `hex` were received.
   BgpNotificationErrorUpdateMessageSubcode run(bool v6, std::string_view hex, std::size_t declared) {
      Bytes const bytes = fromHex(hex);
      BgpParsePktPosition pos = BgpParsePktPosition::declared(bytes, declared);
      BgpParsePktPosition* p = &pos;
      return rules[v6]->inhale(contexts[v6], p, scratchpad);
   }
   BgpNotificationErrorUpdateMessageSubcode run(bool v6, std::string_view hex) {
      return run(v6, hex, fromHex(hex).size());
   }
   FlowspecGenNexthop const* nexthop() const {
      return dynamic_cast<FlowspecGenNexthop const*>(scratchpad->nexthop().ptr());
   }

   Ovk::Ptr<DedupTablesVrf> vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<FlowspecGenNexthopDedupTable> nexthops[2];
   Ovk::Ptr<BgpParseContext> contexts[2];
   Ovk::Ptr<FlowspecParseUpdateNextHopRule> rules[2];
   Ovk::Ptr<BgpParseUpdateAttributesScratchpad> scratchpad =
       Ovk::makePtr<BgpParseUpdateAttributesScratchpad>(BgpParseUpdateResults::create());
};

constexpr auto kAccepted = BgpNotificationErrorUpdateMessageSubcode::noError;

} // namespace

TEST(FlowspecParseNextHopTest, AcceptedFields) {
   struct Case {
      char const* name;
      bool v6;
      char const* field;
      char const* addr;  // "" when the next hop has none
      char const* bytes; // raw bytes kept
   };
   Case const cases[] = {
       {"IPv4 address", false, "c0000201", "192.0.2.1", ""},
       {"IPv6 address", true, "20010db8000000000000000000000049", "2001:db8::49", ""},
       {"IPv6 address in the IPv4 family", false, "20010db8000000000000000000000049", "",
        "20010db8000000000000000000000049"},
       {"IPv4 address in the IPv6 family", true, "c0000201", "", "c0000201"},
       {"global and link-local: no link-local handling", true,
        "20010db8000000000000000000000049fe800000000000000000000000000001", "",
        "20010db8000000000000000000000049fe800000000000000000000000000001"},
       {"odd length", false, "c000020101", "", "c000020101"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.name);
      NextHopEnv env;
      Ovk::TraceCapture trace(flowspecTraceFacility());
      ASSERT_EQ(env.run(c.v6, c.field), kAccepted);
      FlowspecGenNexthop const* nh = env.nexthop();
      ASSERT_NE(nh, nullptr);
      EXPECT_EQ(nh->afi(), c.v6 ? Afi::afiIpv6 : Afi::afiIpv4);
      EXPECT_EQ(nh->addr().isUnspecified() ? "" : nh->addr().str(), c.addr);
      EXPECT_EQ(toHex(nh->nexthopBytes().span()), c.bytes);
      EXPECT_EQ(nh->dedupState(), Ovk::dedupHandleStateDeduped());
      EXPECT_EQ(trace.contains(std::string("Received a non-empty, but invalid IP-address nexthop 0x") + c.bytes, 4),
                *c.bytes != '\0');
      EXPECT_EQ(env.scratchpad->results()->totalCount(), 0u);
   }
}

TEST(FlowspecParseNextHopTest, EmptyFieldGivesTheTablesEmptyNexthop) {
   NextHopEnv env;
   for (bool v6 : {false, true}) {
      ASSERT_EQ(env.run(v6, ""), kAccepted);
      EXPECT_EQ(env.scratchpad->nexthop().ptr(), env.nexthops[v6]->emptyNexthop().ptr());
   }
}

TEST(FlowspecParseNextHopTest, EqualFieldsShareOneNexthopAndReplacingReleases) {
   NextHopEnv env;
   std::size_t const markers = env.nexthops[0]->size();
   ASSERT_EQ(env.run(false, "c0000201"), kAccepted);
   Ovk::Ptr<GenNexthop const> first = env.scratchpad->nexthop();
   ASSERT_EQ(env.run(false, "c0000201"), kAccepted);
   EXPECT_EQ(env.scratchpad->nexthop().ptr(), first.ptr());
   EXPECT_EQ(env.nexthops[0]->size(), markers + 1);
   // The table is looked up once per context.
   EXPECT_EQ(env.contexts[0]->flowspecNexthopDedupTableRawPtr(AfiSafi::ipv4Flowspec()), env.nexthops[0].ptr());
   ASSERT_EQ(env.run(false, "c0000202"), kAccepted);
   EXPECT_NE(env.scratchpad->nexthop().ptr(), first.ptr());
   EXPECT_EQ(env.nexthops[0]->size(), markers + 2);
   // The scratchpad let go of the first next hop: when this test does too, it leaves the
   // table.
   first = nullptr;
   EXPECT_EQ(env.nexthops[0]->size(), markers + 1);
}

TEST(FlowspecParseNextHopTest, FieldLongerThanThePacket) {
   NextHopEnv env;
   ASSERT_EQ(env.run(false, "c0000201"), kAccepted);
   Ovk::Ptr<GenNexthop const> const before = env.scratchpad->nexthop();
   for (bool v6 : {false, true}) {
      Ovk::TraceCapture trace(flowspecTraceFacility());
      // An address's length, and any other, cut short.
      EXPECT_EQ(env.run(v6, "c00002", v6 ? 16 : 4), BgpNotificationErrorUpdateMessageSubcode::optionalAttributeError);
      EXPECT_TRUE(trace.contains(std::string("Could not read next-hop data of length ") + (v6 ? "16" : "4"), 3));
      EXPECT_EQ(env.run(v6, "c00002", 7), BgpNotificationErrorUpdateMessageSubcode::optionalAttributeError);
      EXPECT_EQ(env.scratchpad->nexthop().ptr(), before.ptr());
   }
   EXPECT_EQ(env.scratchpad->results()->count(Reason::flowspecNexthopShort), 4u);
   // The reason's text is the plugin's; the NLRI's reasons have none of their own, their
   // failures' messages say what went wrong.
   EXPECT_STREQ(flowspecAttributeReasonText(Reason::flowspecNexthopShort),
                "Could not read next-hop data: it runs past the attribute");
   for (Reason r : {Reason::flowspecNlriLenMissing, Reason::flowspecIpv6FragmentDf, Reason::mpReachNexthopOverrun}) {
      EXPECT_EQ(flowspecAttributeReasonText(r), nullptr) << r;
   }
}

TEST(FlowspecParseNextHopDeathTest, VrfWithoutTheFamilysNexthopTable) {
   NextHopEnv env;
   env.vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(AfiSafi::ipv4Flowspec(), nullptr, nullptr));
   EXPECT_DEATH(env.run(false, ""), "Assertion `nexthopDedupTable != nullptr' failed");
}

// ---- The parse plugin state machine ----

TEST(FlowspecParsePluginSmTest, ServesInstancesPresentAtConstructionBeforeAnyNotification) {
   auto collections = BgpParseRuleCollections::create(AfiSafi::ipv6Flowspec());
   collections->updateMessageRuleInstanceIs({AfiSafi::ipv6Flowspec(), false}, {});
   collections->mpReachNlriNextHopRuleInstanceIs({AfiSafi::ipv6Flowspec()}, {});
   Ovk::TraceCapture trace(flowspecTraceFacility());
   auto sm = Ovk::makePtr<FlowspecParsePluginSm>(collections, AfiSafi::ipv6Flowspec());
   EXPECT_FALSE(sm->notificationActive());
   auto const* nlri =
       dynamic_cast<FlowspecParseUpdateNlriRule const*>(collections->nlriSubRule({AfiSafi::ipv6Flowspec(), false}));
   ASSERT_NE(nlri, nullptr);
   EXPECT_EQ(nlri->afiSafi(), AfiSafi::ipv6Flowspec());
   auto const* nexthop =
       dynamic_cast<FlowspecParseUpdateNextHopRule const*>(collections->nextHopSubRule({AfiSafi::ipv6Flowspec()}));
   ASSERT_NE(nexthop, nullptr);
   EXPECT_EQ(nexthop->afiSafi(), AfiSafi::ipv6Flowspec());
   EXPECT_TRUE(trace.contains("FlowspecParsePluginSm(ipv6Flowspec) ruleKey: ipv6Flowspec", 8));
   // Without notification later instances wait.
   collections->updateMessageRuleInstanceIs({AfiSafi::ipv6Flowspec(), true}, {.addPathReceive = true});
   EXPECT_EQ(collections->nlriSubRules(), 1u);
}

TEST(FlowspecParsePluginSmTest, FactoryListensAndRulesCarryTheMachinesFamily) {
   auto collections = BgpParseRuleCollections::create(AfiSafi::ipv4Flowspec());
   auto sm = flowspecParsePluginSmFactory(collections, AfiSafi::ipv4Flowspec());
   EXPECT_TRUE(sm->notificationActive());
   collections->updateMessageRuleInstanceIs({AfiSafi::ipv4Flowspec(), true}, {.addPathReceive = true});
   auto const* rule =
       dynamic_cast<FlowspecParseUpdateNlriRule const*>(collections->nlriSubRule({AfiSafi::ipv4Flowspec(), true}));
   ASSERT_NE(rule, nullptr);
   EXPECT_TRUE(rule->parseControl().addPathReceive);
   // Whatever family a key names, the rules parse the machine's own.
   sm->instantiateNlriSubRule({AfiSafi::ipv6Flowspec(), false}, {});
   sm->instantiateNextHopSubRule({AfiSafi::ipv6Flowspec()}, {});
   auto const* other =
       dynamic_cast<FlowspecParseUpdateNlriRule const*>(collections->nlriSubRule({AfiSafi::ipv6Flowspec(), false}));
   ASSERT_NE(other, nullptr);
   EXPECT_EQ(other->afiSafi(), AfiSafi::ipv4Flowspec());
   auto const* otherNexthop =
       dynamic_cast<FlowspecParseUpdateNextHopRule const*>(collections->nextHopSubRule({AfiSafi::ipv6Flowspec()}));
   ASSERT_NE(otherNexthop, nullptr);
   EXPECT_EQ(otherNexthop->afiSafi(), AfiSafi::ipv4Flowspec());
   EXPECT_EQ(sm->fwkType().name(), "Routing::Bgp::FlowspecPlugin::FlowspecParsePluginSm");
}
