#include "host/flowspec/FlowspecKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/host/flowspec/KeyTestHelpers.h"

namespace {

using namespace Flowspec;
using Ovnet::IpGenPrefix;

IpGenPrefix P(char const* s) {
   if (*s == '\0') return IpGenPrefix();
   auto p = IpGenPrefix::parse(s);
   EXPECT_TRUE(p) << s;
   return p.value_or(IpGenPrefix());
}

std::string walk(FlowspecKey const& k) { return Gen::pairsText(k, true); }

TEST(FlowspecKeyTest, DefaultKeyHasNothingSet) {
   FlowspecKey k;
   EXPECT_EQ(k.af(), Ovnet::AddressFamily::unspecified);
   EXPECT_TRUE(k.destPrefix().isUnset());
   EXPECT_TRUE(k.srcPrefix().isUnset());
   EXPECT_TRUE(k.getOptVal(0).atEnd());
   EXPECT_EQ(k.getOptVal(0), MatchOpValResult::end());
   EXPECT_EQ(k.opValCount(), 0u);
}

TEST(FlowspecKeyTest, WalkFollowsIndexOrderWhateverTheOrderOfSetting) {
   FlowspecKey k;
   EXPECT_EQ(k.setOpVal(0, ipProtocol_, 0x81, 6), 1);
   EXPECT_EQ(k.setOpVal(5, destPort_, 0x91, 443), 6);
   EXPECT_EQ(k.setOpVal(3, port_, 0x01, 80), 4);
   EXPECT_EQ(k.setOpVal(4, port_, 0x81, 8080), 5);
   EXPECT_EQ(walk(k), "0:3:81:6 3:4:01:80 4:4:81:8080 5:5:91:443");
   // An index between entries finds the next one; past the last, the end result.
   EXPECT_EQ(k.getOptVal(1).index(), 3);
   EXPECT_EQ(k.getOptVal(1).nextIndex(), 4);
   EXPECT_TRUE(k.getOptVal(6).atEnd());
   // Setting an index again replaces its pair.
   k.setOpVal(3, port_, 0x01, 81);
   EXPECT_EQ(walk(k), "0:3:81:6 3:4:01:81 4:4:81:8080 5:5:91:443");
   EXPECT_EQ(k.opValCount(), 4u);
}

TEST(FlowspecKeyTest, TwoPairsLiveInTheKeyMoreGoToTheHeap) {
   FlowspecKey k;
   k.setOpVal(0, port_, 0x01, 1);
   k.setOpVal(1, port_, 0x81, 2);
   EXPECT_EQ(k.heapBytes(), 0u);
   for (MatchOpValIndex i = 2; i < 40; ++i) k.setOpVal(i, port_, 0x01, i);
   EXPECT_GE(k.heapBytes(), 40 * 8u);
   k.shrinkToFit();
   EXPECT_EQ(k.heapBytes(), 40 * 8u);
   FlowspecKey copy = k;
   EXPECT_EQ(copy, k);
   copy.opValDelAll();
   EXPECT_EQ(copy.heapBytes(), 0u);
   EXPECT_EQ(k.opValCount(), 40u) << "a copy owns its own pairs";
   FlowspecKey moved = std::move(k);
   EXPECT_EQ(moved.opValCount(), 40u);
   EXPECT_EQ(walk(moved).substr(0, 17), "0:4:01:1 1:4:81:2");
   copy = moved; // heap into a key with inline storage
   EXPECT_EQ(copy, moved);
   moved = FlowspecKey();
   EXPECT_EQ(moved.opValCount(), 0u);
}

TEST(FlowspecKeyTest, ShrinkingBackToTwoPairsReturnsToInlineStorage) {
   FlowspecKey k;
   for (MatchOpValIndex i = 0; i < 5; ++i) k.setOpVal(i, dscp_, 0x01, i);
   FlowspecKey small;
   small.setOpVal(0, dscp_, 0x81, 46);
   k = small;
   k.shrinkToFit();
   EXPECT_EQ(k.heapBytes(), 0u);
   EXPECT_EQ(walk(k), "0:11:81:46");
}

TEST(FlowspecKeyTest, EqualityCoversFamilyPrefixesAndEveryPairField) {
   FlowspecKey base;
   base.afIs(Ovnet::AddressFamily::ipv4);
   base.destPrefixIs(P("10.0.0.0/8"));
   base.setOpVal(0, port_, 0x01, 80);
   base.setOpVal(1, port_, 0x81, 443);
   auto variant = [&](auto change) {
      FlowspecKey k = base;
      change(k);
      return k;
   };
   FlowspecKey const others[] = {
       variant([](FlowspecKey& k) { k.afIs(Ovnet::AddressFamily::ipv6); }),
       variant([](FlowspecKey& k) { k.destPrefixIs(P("10.0.0.0/9")); }),
       variant([](FlowspecKey& k) { k.srcPrefixIs(P("0.0.0.0/0")); }),
       variant([](FlowspecKey& k) { k.setOpVal(1, destPort_, 0x81, 443); }),
       variant([](FlowspecKey& k) { k.setOpVal(1, port_, 0xc1, 443); }),
       variant([](FlowspecKey& k) { k.setOpVal(1, port_, 0x81, 444); }),
       variant([](FlowspecKey& k) { k.setOpVal(2, port_, 0x81, 443); }),
       variant([](FlowspecKey& k) {
          k.opValDelAll();
          k.setOpVal(0, port_, 0x01, 80);
          k.setOpVal(2, port_, 0x81, 443); // the same pairs under other indices
       }),
   };
   EXPECT_EQ(FlowspecKey(base), base);
   for (auto const& o : others) EXPECT_FALSE(o == base) << walk(o);
}

TEST(FlowspecKeyDeathTest, OnlyOperatorValueTypesAndIndicesBelowTheLimit) {
   FlowspecKey k;
   EXPECT_DEATH(k.setOpVal(0, destPrefix_, 0x81, 1), "Assertion `isOpValType\\(type\\)' failed");
   EXPECT_DEATH(k.setOpVal(0, static_cast<MatchCompType>(14), 0x81, 1), "isOpValType");
   EXPECT_DEATH(k.setOpVal(maxMatchOpValIndex, port_, 0x81, 1), "Assertion `index < maxMatchOpValIndex' failed");
   EXPECT_DEATH((void)MatchOpValResult::end().value(), "Assertion `!atEnd_' failed");
}

// cmpPrefix rows: p1, p2, expected sign of cmpPrefix(p1, p2).
struct PrefixRow {
   char const* name;
   char const* p1;
   char const* p2;
   int sign;
};

TEST(FlowspecKeyTest, CmpPrefixFollowsFlowspecPrecedence) {
   PrefixRow const rows[] = {
       {"equal", "10.0.0.0/8", "10.0.0.0/8", 0},
       {"both unset", "", "", 0},
       {"nested: more specific first", "10.1.0.0/16", "10.0.0.0/8", -1},
       {"nested at the same address", "10.0.0.0/9", "10.0.0.0/8", -1},
       {"nested, deeper bits", "10.0.0.128/25", "10.0.0.0/24", -1},
       {"disjoint: lower address first", "10.0.0.0/8", "11.0.0.0/8", -1},
       {"disjoint: the lower address even when shorter", "10.0.0.0/9", "10.128.0.0/16", -1},
       {"disjoint in the last common bit", "10.0.0.0/9", "10.128.0.0/9", -1},
       {"default route after any other prefix", "192.168.0.0/16", "0.0.0.0/0", -1},
       {"host route before its covering /31", "10.0.0.1/32", "10.0.0.0/31", -1},
       {"set before unset", "10.0.0.0/8", "", -1},
       {"default route before unset", "0.0.0.0/0", "", -1},
       {"IPv6 default route before unset", "::/0", "", -1},
       {"IPv6 nested", "2001:db8:1::/48", "2001:db8::/32", -1},
       {"IPv6 disjoint", "2001:db8::/32", "2001:db9::/32", -1},
       {"IPv4 before IPv6", "255.0.0.0/8", "::/0", -1},
   };
   for (auto const& r : rows) {
      SCOPED_TRACE(r.name);
      IpGenPrefix const a = P(r.p1);
      IpGenPrefix const b = P(r.p2);
      EXPECT_EQ(FlowspecKey::cmpPrefix(a, b), r.sign);
      EXPECT_EQ(FlowspecKey::cmpPrefix(b, a), -r.sign);
   }
}

TEST(FlowspecKeyTest, CmpPrefixIsATotalOrderOverMaskedPrefixes) {
   std::mt19937 rng(11);
   std::vector<IpGenPrefix> v{IpGenPrefix(), P("0.0.0.0/0"), P("::/0")};
   for (int i = 0; i < 300; ++i) {
      auto const af = i % 3 == 0 ? Ovnet::AddressFamily::ipv6 : Ovnet::AddressFamily::ipv4;
      IpGenPrefix p = Gen::randomPrefix(rng, af);
      // Short prefixes over few distinct bits, so that nesting is common.
      p.maskIs(static_cast<std::uint8_t>(p.len() % 12));
      p.clearLowerAddrBits();
      v.push_back(p);
   }
   std::sort(v.begin(), v.end(), [](auto const& a, auto const& b) { return FlowspecKey::cmpPrefix(a, b) < 0; });
   for (std::size_t i = 0; i < v.size(); ++i) {
      for (std::size_t j = i; j < v.size(); ++j) {
         int const c = FlowspecKey::cmpPrefix(v[i], v[j]);
         ASSERT_LE(c, 0) << v[i] << " " << v[j];
         ASSERT_EQ(c == 0, v[i] == v[j]) << v[i] << " " << v[j];
         if (v[j].contains(v[i]) && !(v[i] == v[j])) {
            ASSERT_LT(c, 0);
         }
      }
   }
}

} // namespace
