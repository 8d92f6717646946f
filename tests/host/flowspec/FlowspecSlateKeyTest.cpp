#include "host/flowspec/FlowspecSlateKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/host/flowspec/KeyTestHelpers.h"

namespace {

using namespace Flowspec;
using Ovnet::AddressFamily;

FlowspecKey keyFromText(std::string const& text) {
   FlowspecKey k;
   EXPECT_TRUE(k.copyInStrCli(text)) << text;
   return k;
}

FlowspecSlateKey slate(FlowspecKey const& k) {
   FlowspecSlateKey s;
   s.copyInFlowspecKey(k);
   return s;
}

FlowspecSlateKey slate(std::string const& text) { return slate(keyFromText(text)); }

TEST(FlowspecSlateKeyTest, LayoutIsHeaderPrefixWordsThenPairWords) {
   FlowspecKey k;
   k.afIs(AddressFamily::ipv4);
   k.destPrefixIs(*Ovnet::IpGenPrefix::parse("10.1.2.0/24"));
   k.srcPrefixIs(*Ovnet::IpGenPrefix::parse("2001:db8::/33"));
   k.setOpVal(0, port_, 0x01, 80);
   k.setOpVal(1, port_, 0xa3, 70000);
   std::vector<std::uint32_t> const expected = {
       0x09211801,             // src family 2, dest family 1, src /33, dest /24, key family 1
       0x0a010200,             // destination address
       0x20010db8, 0x00000000, // source address, two words for 33 bits
       0x04010050,             // port, operator 0x01, value 80
       0x84a30000, 70000,      // a value beyond 16 bits takes a second word
   };
   FlowspecSlateKey const s = slate(k);
   EXPECT_EQ(std::vector<std::uint32_t>(s.words().begin(), s.words().end()), expected);
   EXPECT_EQ(slate(FlowspecKey()).words().size(), 1u);
   EXPECT_TRUE(FlowspecSlateKey().empty());
}

TEST(FlowspecSlateKeyTest, RoundTripsNlriShapedKeysAndTheirWords) {
   std::mt19937 rng(5);
   for (int i = 0; i < 5000; ++i) {
      FlowspecKey const k = Gen::randomNlriKey(rng, i % 2 ? AddressFamily::ipv6 : AddressFamily::ipv4);
      FlowspecSlateKey const s = slate(k);
      ASSERT_EQ(s.flowspecKey(), k) << k;
      auto const again = FlowspecSlateKey::fromWords(s.words());
      ASSERT_TRUE(again) << k;
      ASSERT_EQ(*again, s);
      ASSERT_EQ(again->hash(), s.hash());
   }
}

TEST(FlowspecSlateKeyTest, HostBitsAndMatchIndicesAreNotPartOfTheSlateKey) {
   FlowspecKey a;
   a.afIs(AddressFamily::ipv4);
   a.destPrefixIs(*Ovnet::IpGenPrefix::parse("10.1.2.3/16"));
   a.setOpVal(7, port_, 0x81, 80);
   FlowspecKey const b = keyFromText("10.1.0.0/16;*;port 80;");
   EXPECT_FALSE(a == b);
   EXPECT_EQ(slate(a), slate(b));
   EXPECT_EQ(slate(a).flowspecKey(), b);
}

TEST(FlowspecSlateKeyTest, MalformedWordsAreRefused) {
   std::vector<std::uint32_t> const good = {0x01001801, 0x0a010200, 0x04810050, 0x84a20000, 70000};
   ASSERT_TRUE(FlowspecSlateKey::fromWords(good));
   struct Row {
      char const* name;
      std::size_t word;
      std::uint32_t value;
   };
   Row const rows[] = {
       {"high header bits", 0, 0x11001801},
       {"family 3", 0, 0x01001803},
       {"prefix family 3", 0, 0x03001801},
       {"IPv4 length 33", 0, 0x01002101},
       {"host bits", 1, 0x0a010201},
       {"prefix length with no prefix", 0, 0x00001801},
       {"type 2", 2, 0x02810050},
       {"type 14", 2, 0x0e810050},
       {"long value that fits 16 bits", 4, 80},
       {"long word with low bits", 3, 0x84a20001},
   };
   for (auto const& r : rows) {
      std::vector<std::uint32_t> w = good;
      w[r.word] = r.value;
      EXPECT_FALSE(FlowspecSlateKey::fromWords(w)) << r.name;
   }
   EXPECT_FALSE(FlowspecSlateKey::fromWords(std::vector<std::uint32_t>(good.begin(), good.end() - 1)))
       << "long value cut off";
   EXPECT_FALSE(FlowspecSlateKey::fromWords(std::vector<std::uint32_t>(good.begin(), good.begin() + 1)))
       << "prefix cut off";
   EXPECT_FALSE(FlowspecSlateKey::fromWords({}));
   EXPECT_FALSE(FlowspecSlateKey::fromWords(std::vector<std::uint32_t>(2049, 0x04810050)));
}

TEST(FlowspecSlateKeyTest, EqualKeysHashEqualAndDistinctKeysDiffer) {
   std::mt19937 rng(9);
   std::set<std::uint32_t> hashes;
   std::set<std::vector<std::uint32_t>> distinct;
   for (int i = 0; i < 3000; ++i) {
      FlowspecKey const k = Gen::randomNlriKey(rng, AddressFamily::ipv4);
      FlowspecSlateKey const a = slate(k);
      FlowspecSlateKey const b = slate(FlowspecKey(k));
      ASSERT_EQ(a, b);
      ASSERT_EQ(a.hash(), b.hash());
      distinct.insert({a.words().begin(), a.words().end()});
      hashes.insert(a.hash());
   }
   EXPECT_GE(hashes.size() + 2, distinct.size()) << "hash collisions should be rare";
}

TEST(FlowspecSlateKeyTest, TheLargestNlriFitsTheBound) {
   // One component of 2047 one-byte pairs fills an NLRI body of 4095 bytes.
   FlowspecKey k;
   MatchOpValIndex i = 0;
   for (int n = 0; n < 2047; ++n) i = k.setOpVal(i, port_, n == 2046 ? 0x81 : 0x01, 1);
   EXPECT_EQ(slate(k).words().size(), slateKeyMaxWords);
}

TEST(FlowspecSlateKeyDeathTest, ALongerKeyIsTheSizeError) {
   FlowspecKey k;
   MatchOpValIndex i = 0;
   for (int n = 0; n < 2048; ++n) i = k.setOpVal(i, port_, 0x01, 1);
   FlowspecSlateKey s;
   EXPECT_DEATH(s.copyInFlowspecKey(k),
                "PodArray::set expected size <= 2048, instead got 2049\\. Buffer is at address: 0x[0-9a-f]+ "
                "with contents: 00 00 00 00 01 00 01 04 01 00 01 04");
}

// Order rows: a sorts strictly before b.
struct OrderRow {
   char const* name;
   char const* a;
   char const* b;
};

TEST(FlowspecSlateKeyTest, KeyOrderIsRulePrecedence) {
   OrderRow const rows[] = {
       {"destination decides first", "10.1.0.0/16;*;", "10.0.0.0/8;1.0.0.0/8;protocol 1;"},
       {"a rule with a destination before one without", "0.0.0.0/0;*;", "*;1.0.0.0/8;"},
       {"then the source", "10.0.0.0/8;1.0.0.0/8;port 99;", "10.0.0.0/8;2.0.0.0/8;protocol 1;"},
       {"more components first", "*;*;protocol 6;port 80;", "*;*;protocol 6;"},
       {"lower type first", "*;*;protocol 6;", "*;*;port 1;"},
       {"operator bytes compare as bytes", "*;*;protocol =6;", "*;*;protocol =17;"},
       {"the end-of-list bit is part of the bytes", "*;*;protocol =6 =17;", "*;*;protocol =6;"},
       {"a longer value length is part of the bytes", "*;*;port =80;", "*;*;port =80{len=2};"},
   };
   for (auto const& r : rows) {
      SCOPED_TRACE(r.name);
      FlowspecSlateKey const a = slate(std::string(r.a));
      FlowspecSlateKey const b = slate(std::string(r.b));
      EXPECT_LT(FlowspecSlateKey::cmp(a, b), 0);
      EXPECT_GT(FlowspecSlateKey::cmp(b, a), 0);
      EXPECT_TRUE(a < b);
      EXPECT_FALSE(b < a);
   }
   // Where one component's bytes begin the other's, the longer sorts first: 01 06 81 11
   // before 01 06 (a pair without end-of-list, which only a hand-built key has).
   FlowspecKey longer;
   longer.setOpVal(longer.setOpVal(0, port_, 0x01, 6), port_, 0x81, 17);
   FlowspecKey shorter;
   shorter.setOpVal(0, port_, 0x01, 6);
   EXPECT_LT(FlowspecSlateKey::cmp(slate(longer), slate(shorter)), 0);
   EXPECT_GT(FlowspecSlateKey::cmp(slate(shorter), slate(longer)), 0);

   FlowspecKey v4 = keyFromText("*;*;");
   FlowspecKey v6 = v4;
   v4.afIs(AddressFamily::ipv4);
   v6.afIs(AddressFamily::ipv6);
   EXPECT_LT(FlowspecSlateKey::cmp(slate(v4), slate(v6)), 0) << "keys that rank equal still order by their words";
}

TEST(FlowspecSlateKeyTest, KeyOrderIsTotal) {
   std::mt19937 rng(3);
   std::vector<FlowspecSlateKey> v;
   for (int i = 0; i < 400; ++i) {
      FlowspecKey k = Gen::randomNlriKey(rng, AddressFamily::ipv4);
      // Few distinct prefixes, so that later steps of the order get to decide.
      k.destPrefixIs(*Ovnet::IpGenPrefix::parse(i % 3 ? "10.0.0.0/8" : "10.0.0.0/9"));
      v.push_back(slate(k));
   }
   std::sort(v.begin(), v.end());
   for (std::size_t i = 0; i < v.size(); ++i) {
      for (std::size_t j = i; j < v.size(); ++j) {
         int const c = FlowspecSlateKey::cmp(v[i], v[j]);
         ASSERT_LE(c, 0) << v[i] << " / " << v[j];
         ASSERT_EQ(c == 0, v[i] == v[j]);
         ASSERT_EQ(FlowspecSlateKey::cmp(v[j], v[i]), -c);
      }
   }
}

} // namespace
