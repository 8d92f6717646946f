#include "BgpFlowspec/FlowspecRouteKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <random>
#include <sstream>
#include <vector>

#include "BgpFlowspec/FlowspecOvrow.h"
#include "tests/BgpFlowspec/RouteKeyTestHelpers.h"
#include "tests/host/flowspec/KeyTestHelpers.h"

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using namespace FlowspecTest;
using Ovk::Ptr;
using Routing::Bgp::Afi;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::BgpL3VrfId;
using Routing::Bgp::RouteKey;
using Routing::Bgp::RouteKeyBase;

Ptr<FlowspecRouteKeyDedupTable> table(bool v6 = false) {
   return flowspecRouteKeyDedupTableFactory(v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec(),
                                            BgpL3VrfId::defaultVrfId());
}

FlowspecRouteKey::PtrConst dedup(FlowspecRouteKey::Ptr const& key, Ptr<FlowspecRouteKeyDedupTable> const& t) {
   return FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(key->dedupRouteKey(t.ptr()).ptr()));
}

FlowspecRouteKey::Ptr fromText(std::string_view text, bool v6 = false) {
   auto key = flowspecRouteKeyFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4);
   EXPECT_TRUE(key->copyInStrCli(text)) << text;
   return key;
}

bool less(FlowspecRouteKey const& a, FlowspecRouteKey const& b) { return a.lessThan(Ptr<RouteKeyBase const>(&b)); }

template <class T>
std::string text(T const& value) {
   std::ostringstream os;
   os << value;
   return os.str();
}

// ---- Fields and their storage ----

TEST(FlowspecRouteKeyTest, FreshKeysAreEmptyAndAnswerTheirFamily) {
   auto v4 = flowspecV4RouteKeyFactory();
   auto v6 = flowspecV6RouteKeyFactory();
   EXPECT_EQ(v4->afi(), Afi::afiIpv4);
   EXPECT_EQ(v6->afi(), Afi::afiIpv6);
   EXPECT_EQ(v4->safi(), 133);
   EXPECT_EQ(v4->afiSafi(), AfiSafi::ipv4Flowspec());
   EXPECT_EQ(v6->afiSafi(), AfiSafi::ipv6Flowspec());
   EXPECT_EQ(v4->nlriType(), Routing::Bgp::NlriType::ipv4Flowspec);
   EXPECT_EQ(v6->nlriType(), Routing::Bgp::NlriType::ipv6Flowspec);
   EXPECT_EQ(v4->slateKeyAf(), Ovnet::AddressFamily::ipv4);
   EXPECT_EQ(v6->slateKeyAf(), Ovnet::AddressFamily::ipv6);
   EXPECT_EQ(v4->fwkType().name(), "Routing::Bgp::FlowspecPlugin::FlowspecV4RouteKey");
   EXPECT_EQ(v6->fwkType().name(), "Routing::Bgp::FlowspecPlugin::FlowspecV6RouteKey");
   for (FlowspecRouteKey const* k :
        {static_cast<FlowspecRouteKey const*>(v4.ptr()), static_cast<FlowspecRouteKey const*>(v6.ptr())}) {
      KeyModel m;
      m.v6 = k == v6.ptr();
      EXPECT_EQ(KeyModel::of(*k), m);
      EXPECT_EQ(k->opValComponentCount(), 0u);
      EXPECT_TRUE(k->storedBytes().empty());
      EXPECT_EQ(k->slateKey(), [&] {
         Flowspec::FlowspecKey s;
         s.afIs(k->slateKeyAf());
         return s;
      }());
   }
}

// Whatever goes in through the setters comes back out through the getters, in every order
// of setting, in place and on the heap.
TEST(FlowspecRouteKeyTest, FieldsReadBackAsSet) {
   std::mt19937 rng(7);
   for (int i = 0; i < 3000; ++i) {
      KeyModel const m = randomModel(rng, i % 2 == 1);
      auto key = m.build();
      ASSERT_EQ(KeyModel::of(*key), m) << toHex(key->storedBytes());
      // Replace the prefixes and the tail after the components went in.
      KeyModel const n = randomModel(rng, m.v6);
      KeyModel expected = m;
      expected.dest = n.dest;
      expected.destOffset = n.destOffset;
      expected.tail = n.tail;
      key->unrecognizedTailIs(n.tail);
      key->destPrefixIs(n.dest, n.destOffset);
      ASSERT_EQ(KeyModel::of(*key), expected) << toHex(key->storedBytes());
      std::size_t const heap = key->heapBytes();
      key->shrinkToFit();
      ASSERT_EQ(KeyModel::of(*key), expected);
      ASSERT_LE(key->heapBytes(), heap);
      // A key made without a known size holds 16 bytes in place.
      ASSERT_EQ(key->heapBytes(), key->storedBytes().size() > 16 ? key->storedBytes().size() : 0u);
   }
}

TEST(FlowspecRouteKeyTest, PrefixesAreStoredCanonically) {
   auto key = flowspecV4RouteKeyFactory();
   // Host bits beyond the mask are not kept.
   key->destPrefixIs(Ovnet::IpGenPrefix(*Ovnet::IpGenAddr::parse("10.1.3.7"), 23));
   EXPECT_EQ(key->destPrefix(), prefix("10.1.2.0/23"));
   EXPECT_EQ(toHex(key->storedBytes()), "01170a0102");
   // 0.0.0.0/0 is a prefix, distinct from none.
   key->srcPrefixIs(prefix("0.0.0.0/0"));
   EXPECT_FALSE(key->srcPrefix().isUnset());
   EXPECT_EQ(toHex(key->storedBytes()), "01170a01020200");
   key->srcPrefixIs({});
   EXPECT_TRUE(key->srcPrefix().isUnset());

   // An IPv6 pattern with an offset: mask 64, offset 32, four pattern bytes at the start.
   auto v6 = flowspecV6RouteKeyFactory();
   Ovnet::IpGenPrefix const pattern(*Ovnet::IpGenAddr::parse("1234:5678:ffff::"), 64);
   v6->srcPrefixIs(pattern, 32);
   EXPECT_EQ(v6->srcPrefixOffset(), 32);
   EXPECT_EQ(v6->srcPrefix(), Ovnet::IpGenPrefix(*Ovnet::IpGenAddr::parse("1234:5678::"), 64));
   // The offset byte is kept only when it is not 0 (the tag says which form follows).
   EXPECT_EQ(toHex(v6->storedBytes()), "82402012345678");
   v6->destPrefixIs(prefix("2001:db8::/32"));
   EXPECT_EQ(toHex(v6->storedBytes()), "01202001"
                                       "0db8"
                                       "82402012345678");
   EXPECT_EQ(v6->destPrefixOffset(), 0);
   EXPECT_EQ(v6->srcPrefixOffset(), 32);

   // The commonest IPv6 rule, a host and two single-value components, stays in place in a
   // key made for its size, and spills to the heap from a key made without one.
   for (std::size_t const room : {std::size_t{0}, std::size_t{24}}) {
      auto host = room ? flowspecRouteKeyFactory(Afi::afiIpv6, room) : flowspecRouteKeyFactory(Afi::afiIpv6);
      host->destPrefixIs(prefix("2001:db8::1/128"));
      host->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06"));
      host->addOpValComponent(Flowspec::destPort_, fromHex("81 50"));
      EXPECT_EQ(host->storedBytes().size(), 24u);
      EXPECT_EQ(host->heapBytes(), room ? 0u : 32u) << room;
   }
}

TEST(FlowspecRouteKeyTest, ComponentsComeBackInOrderWithTheirBytes) {
   auto key = flowspecV4RouteKeyFactory();
   Bytes const port = fromHex("91 03 ff 54 04 00");
   key->addOpValComponent(Flowspec::port_, port);
   key->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06")); // not sorted
   key->addOpValComponent(Flowspec::port_, port);                   // not merged
   std::vector<FlowspecOpValComponent> got;
   for (auto c : key->opValComponents()) got.push_back(c.value());
   std::vector<FlowspecOpValComponent> const want = {{Flowspec::port_, Ovk::String(port.data(), port.size())},
                                                     {Flowspec::ipProtocol_, "\x81\x06"},
                                                     {Flowspec::port_, Ovk::String(port.data(), port.size())}};
   EXPECT_EQ(got, want);
   EXPECT_EQ(key->opValComponentCount(), 3u);
}

// ---- Hash and dedup equality ----

// The packed key hashes and compares exactly as its fields one by one would.
TEST(FlowspecRouteKeyTest, HashAndCompareMatchTheFieldByFieldDefinitions) {
   std::mt19937 rng(11);
   std::vector<KeyModel> models;
   std::vector<FlowspecRouteKey::Ptr> keys;
   for (int i = 0; i < 400; ++i) {
      models.push_back(randomModel(rng, i % 5 == 0));
      keys.push_back(models.back().build());
      ASSERT_EQ(keys.back()->hash(), models.back().referenceHash()) << toHex(keys.back()->storedBytes());
   }
   int equalPairs = 0;
   for (std::size_t i = 0; i < keys.size(); ++i) {
      for (std::size_t j = 0; j < keys.size(); ++j) {
         bool const eq = models[i].referenceEqual(models[j]);
         ASSERT_EQ(keys[i]->compare(keys[j].ptr()), eq) << i << " " << j;
         if (eq) {
            ASSERT_EQ(keys[i]->hash(), keys[j]->hash());
            equalPairs += i != j;
         }
      }
   }
   EXPECT_GT(equalPairs, 0); // the domain is small enough for equal keys to occur
}

TEST(FlowspecRouteKeyTest, IdentityCountsReasonAndComponentOrder) {
   // Equal prefixes and nothing else: one rule.
   EXPECT_TRUE(fromText("10.0.0.0/8;*;")->compare(fromText("destination 10.0.0.0/8").ptr()));
   auto a = fromText("10.0.0.0/8;*;protocol =6;destination-port =80;");
   auto b = fromText("10.0.0.0/8;*;protocol =6;destination-port =80;");
   ASSERT_TRUE(a->compare(b.ptr()));
   // Only the reason differs.
   b->wontExportReasonIs(FlowspecWontExportReason(FlowspecWontExportReason::nonZeroIpv6Offset_));
   EXPECT_FALSE(a->compare(b.ptr()));
   EXPECT_NE(a->hash(), b->hash());
   // The same components in the other order.
   auto c = flowspecV4RouteKeyFactory();
   auto d = flowspecV4RouteKeyFactory();
   c->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06"));
   c->addOpValComponent(Flowspec::destPort_, fromHex("81 50"));
   d->addOpValComponent(Flowspec::destPort_, fromHex("81 50"));
   d->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06"));
   EXPECT_FALSE(c->compare(d.ptr()));
   // The slate key's family takes no part where there is no prefix to carry it.
   auto e = flowspecV6RouteKeyFactory();
   e->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06"));
   e->addOpValComponent(Flowspec::destPort_, fromHex("81 50"));
   EXPECT_TRUE(c->compare(e.ptr()));
}

// ---- Dedup, rule id, orphans ----

TEST(FlowspecRouteKeyTest, TextAndHandBuiltKeysDedupToOneInstanceWithAStableRuleId) {
   auto t = table();
   auto byText = fromText("destination 10.0.0.0/24 protocol tcp dport 80,443");
   auto byHand = flowspecV4RouteKeyFactory();
   byHand->destPrefixIs(prefix("10.0.0.0/24"));
   byHand->addOpValComponent(Flowspec::ipProtocol_, fromHex("81 06"));
   byHand->addOpValComponent(Flowspec::destPort_, fromHex("01 50 91 01 bb"));
   auto first = dedup(byText, t);
   auto second = dedup(byHand, t);
   EXPECT_EQ(first.ptr(), second.ptr());
   EXPECT_EQ(first.ptr(), byText.ptr());
   EXPECT_EQ(t->size(), 1u);
   std::uintptr_t const id = first->ruleId();
   EXPECT_EQ(id, reinterpret_cast<std::uintptr_t>(first.ptr()));
   EXPECT_EQ(dedup(fromText("10.0.0.0/24;*;protocol =6;destination-port =80 =443;"), t)->ruleId(), id);
   // The hand-built key's slate key is the text's, map included.
   EXPECT_EQ(byHand->slateKey(), byText->slateKey());
}

TEST(FlowspecRouteKeyTest, DedupReleasesSpareCapacity) {
   auto t = table();
   auto key = flowspecV4RouteKeyFactory();
   for (int i = 0; i < 20; ++i) key->addOpValComponent(Flowspec::packetLength_, fromHex("91 05 dc"));
   EXPECT_GT(key->heapBytes(), key->storedBytes().size());
   auto canonical = dedup(key, t);
   EXPECT_EQ(canonical->heapBytes(), canonical->storedBytes().size());
   EXPECT_EQ(canonical->storedBytes().size(), 80u);
}

TEST(FlowspecRouteKeyTest, OrphansFromTextAreFoundOrMadeNeverEntered) {
   auto t = table();
   Ovk::TraceCapture cap(flowspecTraceFacility());
   auto orphan = t->lookupOrCreateOrphanFromRkAttrs("10.1.0.0/16;*;dscp =46;");
   EXPECT_EQ(orphan->dedupState(), Ovk::dedupHandleStateOrphan());
   EXPECT_EQ(orphan->ruleId(), 0u);
   EXPECT_EQ(t->size(), 0u);
   EXPECT_EQ(orphan->dedupTable(), t.ptr());
   EXPECT_TRUE(cap.contains(text(*t) + " Created rk:Flowspec;ruleId=0;10.1.0.0/16;*;dscp =46;", 8));

   auto entered = dedup(fromText("destination 10.1.0.0/16 dscp 46"), t);
   cap.clear();
   EXPECT_EQ(t->lookupOrCreateOrphanFromRkAttrs("10.1.0.0/16;*;dscp =46;").ptr(), entered.ptr());
   EXPECT_TRUE(cap.lines().empty());

   // Rejected text: traced, and the key of what was read (the empty rule) all the same.
   auto empty = dedup(flowspecV4RouteKeyFactory(), t);
   auto fromBad = t->lookupOrCreateOrphanFromRkAttrs("protocol banana");
   EXPECT_EQ(fromBad.ptr(), empty.ptr());
   EXPECT_TRUE(cap.contains(text(*t) + " Could not instantiate rk from protocol banana", 3));
   // An IPv4 table refuses an IPv6 rule the same lenient way.
   EXPECT_EQ(t->lookupOrCreateOrphanFromRkAttrs("2001:db8::/32;*;").ptr(), empty.ptr());

   // Through the show tables' helper.
   EXPECT_EQ(dedupFlowspecRouteKey(t, "10.1.0.0/16;*;dscp =46;").ptr(), entered.ptr());
   auto t6 = table(true);
   auto orphan6 = dedupFlowspecRouteKey(t6, "2001:db8::/32;*;");
   EXPECT_EQ(orphan6->afi(), Afi::afiIpv6);
   EXPECT_EQ(orphan6->destPrefix(), prefix("2001:db8::/32"));
}

// ---- Text ----

TEST(FlowspecRouteKeyTest, CopyInStrCliBuildsComponentsFromTheLibrarysPairs) {
   struct Case {
      char const* text;
      char const* components; // "type:hex type:hex ..."
   };
   Case const cases[] = {
       {"destination 10.0.0.0/8 source 20.0.0.0/8", ""},
       {"port 80", "4:8150"},
       {"port =80{len=2}", "4:910050"},
       // Two values of one type: one component holding both pairs.
       {"destination-port 80 443", "5:01509101bb"},
       // A type named twice: consecutive pairs of one type, still one component.
       {"protocol 6; protocol 17", "3:81068111"},
       {"protocol 6 dport 80 sport 1024 dscp 46", "3:8106 5:8150 6:910400 11:812e"},
       {"packet-length >=64&<=1500", "10:0340d505dc"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.text);
      auto key = fromText(c.text);
      std::string got;
      for (auto comp : key->opValComponents()) {
         got += (got.empty() ? "" : " ") + std::to_string(comp.type) + ":" + toHex(comp.opValuePairsNbo);
      }
      EXPECT_EQ(got, c.components);
      EXPECT_EQ(key->destPrefixOffset(), 0);
      EXPECT_EQ(key->srcPrefixOffset(), 0);
      EXPECT_TRUE(key->wontExportReason().empty());
      EXPECT_TRUE(key->unrecognizedTail().empty());
   }
   auto rejected = flowspecV4RouteKeyFactory();
   EXPECT_FALSE(rejected->copyInStrCli("dport 80 protocol"));
   EXPECT_EQ(rejected->opValComponentCount(), 0u);
   EXPECT_TRUE(rejected->storedBytes().empty());
}

// Every key of the shapes an NLRI gives, turned into components and back into the library's
// key, is the key it came from: the slate key is rebuilt from the components losslessly.
TEST(FlowspecRouteKeyTest, SlateKeyRebuildsTheLibrarysKey) {
   std::mt19937 rng(3);
   for (int i = 0; i < 2000; ++i) {
      bool const v6 = i % 2 == 1;
      Flowspec::FlowspecKey const slate =
          Flowspec::Gen::randomNlriKey(rng, v6 ? Ovnet::AddressFamily::ipv6 : Ovnet::AddressFamily::ipv4);
      auto key = flowspecRouteKeyFactory(v6 ? Afi::afiIpv6 : Afi::afiIpv4);
      key->copyInFlowspecKey(slate);
      ASSERT_EQ(key->slateKey(), slate) << Flowspec::Gen::pairsText(slate);
      ASSERT_EQ(key->toStrepCli(), slate.toStrepCli());
      ASSERT_EQ(key->toStrepCliDetail(), slate.toStrepCliDetail());
      // And the text reads back to an equal route key.
      auto again = fromText(key->toStrepCli(), v6);
      ASSERT_TRUE(again->compare(key.ptr())) << key->toStrepCli();
   }
}

TEST(FlowspecRouteKeyTest, DisplayFormsRestoreTheStreamsFormat) {
   auto t = table();
   auto key = dedup(fromText("10.0.0.0/8;*;protocol =6;"), t);
   std::uintptr_t const id = key->ruleId();
   std::ostringstream os;
   os << std::hex << std::setfill('*');
   key->formatDerivedType(os);
   os << ' ' << 255;
   std::ostringstream want;
   want << "Flowspec;ruleId=" << std::hex << id << ";10.0.0.0/8;*;protocol =6; ff";
   EXPECT_EQ(os.str(), want.str());
   EXPECT_EQ(os.fill(), '*');

   std::ostringstream plain;
   key->formatWithoutVrf(plain);
   EXPECT_EQ(plain.str(), ";ruleId=" + std::to_string(id) + ";10.0.0.0/8;*;protocol =6;");
   EXPECT_EQ(key->toStrepImpl(), "Flowspec" + plain.str());
}

TEST(FlowspecRouteKeyTest, BlinkRecordIsTheRuleIdAndAZeroWord) {
   auto t = table();
   auto key = dedup(fromText("protocol 6"), t);
   auto& blink = Ovk::Blink::instance();
   blink.begin("test");
   key->blinkPut(blink);
   auto const records = blink.records();
   auto const& r = records.back();
   ASSERT_EQ(r.size, 8u);
   std::uint32_t words[2];
   std::memcpy(words, r.payload.data(), 8);
   EXPECT_EQ(words[0], static_cast<std::uint32_t>(key->ruleId()));
   EXPECT_EQ(words[1], 0u);
}

// ---- Rule order ----

TEST(FlowspecRouteKeyTest, FlowspecMemcmp) {
   struct Case {
      char const* a;
      char const* b;
      int sign;
   } const cases[] = {
       {"", "", 0},         {"8106", "8106", 0},      {"8106", "8111", -1},
       {"8111", "8106", 1}, {"01068111", "0106", -1}, {"0106", "01068111", 1},
       {"", "00", 1},       {"00", "", -1},
   };
   for (auto const& c : cases) {
      int const got = flowspecMemcmp(fromHex(c.a), fromHex(c.b));
      EXPECT_EQ((got > 0) - (got < 0), c.sign) << c.a << " vs " << c.b;
   }
}

TEST(FlowspecRouteKeyTest, LessThanCases) {
   struct Case {
      char const* name;
      KeyModel a, b;
      bool aLess, bLess;
   };
   auto comps = [](std::vector<Component> c) {
      KeyModel m;
      m.dest = prefix("10.0.0.0/8");
      m.components = std::move(c);
      return m;
   };
   KeyModel narrow = comps({{3, {0x81, 0x06}}});
   narrow.dest = prefix("10.1.0.0/16");
   KeyModel wide = comps({{3, {0x81, 0x06}}, {5, {0x81, 0x50}}});
   KeyModel reasonOnly = comps({{3, {0x81, 0x06}}});
   reasonOnly.reason = 4;
   KeyModel withTail = comps({});
   withTail.tail = {0x0e, 0x81, 0x01};
   KeyModel v6Offset, v6Plain;
   v6Offset.v6 = v6Plain.v6 = true;
   v6Plain.dest = prefix("2001::/32");
   v6Offset.dest = prefix("2001::/32");
   v6Offset.destOffset = 16;
   Case const cases[] = {
       // The more specific destination first, whatever the components.
       {"destination decides", narrow, wide, true, false},
       {"fewer components sort after", comps({{3, {0x81, 0x06}}}), comps({{3, {0x81, 0x06}}, {5, {0x81, 0x50}}}), false,
        true},
       {"lower type first", comps({{3, {0x81, 0x06}}}), comps({{4, {0x81, 0x06}}}), true, false},
       {"bytes decide", comps({{3, {0x81, 0x06}}}), comps({{3, {0x81, 0x11}}}), true, false},
       {"longer bytes first", comps({{3, {0x01, 0x06, 0x81, 0x11}}}), comps({{3, {0x01, 0x06}}}), true, false},
       {"tail decides last", withTail, comps({}), true, false},
       {"reason is not read", comps({{3, {0x81, 0x06}}}), reasonOnly, true, true},
       {"offset is not read", v6Plain, v6Offset, true, true},
       {"equal keys", wide, wide, true, true},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.name);
      auto a = c.a.build();
      auto b = c.b.build();
      EXPECT_EQ(less(*a, *b), c.aLess);
      EXPECT_EQ(less(*b, *a), c.bLess);
      EXPECT_EQ(c.a.referenceLess(c.b), c.aLess);
   }
}

TEST(FlowspecRouteKeyTest, EqualKeysAreLessBothWaysWithOneTraceLine) {
   // Two canonical keys of equal content (from two tables), so that the line tells which key
   // is which by its rule id.
   auto t1 = table();
   auto t2 = table();
   auto a = dedup(fromText("10.0.0.0/8;*;protocol =6;"), t1);
   auto b = dedup(fromText("10.0.0.0/8;*;protocol =6;"), t2);
   ASSERT_NE(a->ruleId(), b->ruleId());
   Ovk::TraceCapture cap(flowspecTraceFacility(), 1u << 8);
   EXPECT_TRUE(less(*a, *b));
   auto const lines = cap.texts(8);
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0], text(*a) + " is equal to " + text(*b));
   EXPECT_EQ(cap.lines()[0].line.rfind("FlowspecRouteKey:", 0), 0u);
}

// The order prefix summarises the rule order: a lower prefix means an earlier rule, and
// keys the order holds apart never get prefixes the other way round.
TEST(FlowspecRouteKeyTest, OrderPrefixAgreesWithTheRuleOrder) {
   std::mt19937 rng(7);
   for (bool v6 : {false, true}) {
      std::vector<FlowspecRouteKey::Ptr> keys;
      for (int i = 0; i < 300; ++i) keys.push_back(randomModel(rng, v6).build());
      for (auto const& a : keys) {
         for (auto const& b : keys) {
            bool const strictlyBefore = less(*a, *b) && !less(*b, *a);
            if (a->orderPrefix() < b->orderPrefix()) {
               ASSERT_TRUE(strictlyBefore);
            }
            if (strictlyBefore) {
               ASSERT_LE(a->orderPrefix(), b->orderPrefix());
            }
            // The wide summary in the same way, and its first word is the prefix.
            ASSERT_EQ(a->orderSummary().hi, a->orderPrefix());
            if (a->orderSummary() < b->orderSummary()) {
               ASSERT_TRUE(strictlyBefore) << text(*a) << " / " << text(*b);
            }
            if (strictlyBefore) {
               ASSERT_LE(a->orderSummary(), b->orderSummary());
            }
         }
      }
   }
   // Exact for IPv4: the longer of two nested prefixes first, unset last.
   auto const p = [](char const* text) { return fromText(text)->orderPrefix(); };
   EXPECT_LT(p("10.1.0.0/16;*;"), p("10.0.0.0/8;*;"));
   EXPECT_LT(p("9.255.0.0/16;*;"), p("10.0.0.0/8;*;"));
   EXPECT_LT(p("0.0.0.0/0;*;"), p("*;*;"));
   // IPv6 hosts under one /96 are told apart by the second word.
   auto const w = [](char const* text) { return fromText(text, true)->orderSummary(); };
   EXPECT_LT(w("fd00::1/128;*;"), w("fd00::2/128;*;"));
   EXPECT_EQ(w("fd00::1/128;*;").hi, w("fd00::2/128;*;").hi);
   EXPECT_LT(w("fd00::ffff:0/112;*;"), w("fd00::/64;*;"));
}

// lessThan against the order as described, and the properties sorting relies on: for keys
// that differ in what it reads, exactly one of a<b and b<a holds, and the order is
// transitive.
TEST(FlowspecRouteKeyTest, LessThanIsAStrictWeakOrderOnDistinctKeys) {
   std::mt19937 rng(5);
   for (bool v6 : {false, true}) {
      std::vector<KeyModel> models;
      std::vector<FlowspecRouteKey::Ptr> keys;
      for (int i = 0; i < 150; ++i) {
         models.push_back(randomModel(rng, v6));
         keys.push_back(models.back().build());
      }
      auto same = [&](std::size_t i, std::size_t j) { return less(*keys[i], *keys[j]) && less(*keys[j], *keys[i]); };
      for (std::size_t i = 0; i < keys.size(); ++i) {
         for (std::size_t j = 0; j < keys.size(); ++j) {
            bool const ij = less(*keys[i], *keys[j]);
            ASSERT_EQ(ij, models[i].referenceLess(models[j]));
            // The three-way answer the order index uses says the same in one call.
            int const c = keys[i]->orderCompare(*keys[j]);
            ASSERT_EQ(c < 0, ij && !less(*keys[j], *keys[i]));
            ASSERT_EQ(c == 0, same(i, j));
            if (!same(i, j)) {
               ASSERT_NE(ij, less(*keys[j], *keys[i]));
            }
            for (std::size_t k = 0; k < keys.size(); k += 7) {
               if (ij && less(*keys[j], *keys[k]) && !same(i, j) && !same(j, k)) {
                  ASSERT_TRUE(less(*keys[i], *keys[k]) && !less(*keys[k], *keys[i]));
               }
            }
         }
      }
   }
}

// ---- Broken invariants ----

class NotFlowspecKey : public RouteKey {
 public:
   std::uint32_t hash() const override { return 0; }
   bool compare(Ovk::DedupHandle const*) const override { return false; }
};

class BareFlowspecKey : public FlowspecRouteKey {};

TEST(FlowspecRouteKeyDeathTest, Assertions) {
   auto key = fromText("protocol 6");
   auto other = Ovk::makePtr<NotFlowspecKey>();
   EXPECT_DEATH(key->compare(other.ptr()), "Assertion `other' failed");
   EXPECT_DEATH((void)key->ruleId(), "Assertion `__null == \\( this \\) \\|\\| \\( this \\)->dedupState\\(\\) != "
                                     "Ovk::dedupHandleStateNeverDeduped\\(\\)' failed");
   EXPECT_DEATH(key->isOverlapping(*key), "Must override in derived class");
   EXPECT_DEATH(key->isMoreSpecific(*key), "Must override in derived class");
   EXPECT_DEATH(key->getOneBitShorterMaskRouteKey(), "Must override in derived class");
   auto bare = Routing::Bgp::newRouteKey<BareFlowspecKey>();
   EXPECT_EQ(bare->safi(), 133);
   EXPECT_DEATH(bare->afi(), "Must override in derived class");
   EXPECT_DEATH(bare->nlriType(), "Must override in derived class");
   EXPECT_DEATH(table()->dedupFromCommandParams("protocol 6"), "Must override in derived class");

   class OtherTable : public Routing::Bgp::RouteKeyDedupTable {
    public:
      OtherTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId()) {}
   };
   EXPECT_DEATH(dedupFlowspecRouteKey(Ovk::makePtr<OtherTable>(), "protocol 6"),
                "FlowspecOvrow.h:[0-9]+: .*Assertion `flowspecRouteKeyDedupTable' failed");

   // An eight-byte value length never comes from the library's text.
   Flowspec::FlowspecKey slate;
   slate.afIs(Ovnet::AddressFamily::ipv4);
   slate.setOpVal(0, Flowspec::port_, 0xb1, 80);
   EXPECT_DEATH(flowspecV4RouteKeyFactory()->copyInFlowspecKey(slate),
                "FlowspecRouteKey.cpp:[0-9]+: .*Assertion `false' failed");

   // Keys are filled before dedup only, with prefixes of their own family.
   auto t = table();
   auto canonical = dedup(fromText("protocol 6"), t);
   EXPECT_DEATH(ptrConstCast(canonical)->addOpValComponent(Flowspec::dscp_, fromHex("81 2e")), "dedupState");
   EXPECT_DEATH(flowspecV4RouteKeyFactory()->destPrefixIs(prefix("2001:db8::/32")),
                "prefix.af\\(\\) == slateKeyAf\\(\\)");
   EXPECT_DEATH(flowspecV4RouteKeyFactory()->destPrefixIs(prefix("10.0.0.0/8"), 4), "offset == 0 \\|\\| isV6\\(\\)");
}

} // namespace
