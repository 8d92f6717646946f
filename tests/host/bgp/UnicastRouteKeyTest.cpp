#include "host/bgp/UnicastRouteKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "host/bgp/BgpUpdateDecoder.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace {

using namespace Routing::Bgp;
using namespace BgpTest;
using Ovk::Ptr;

std::string text(RouteKeyBase const& k) {
   std::ostringstream os;
   k.formatDerivedType(os);
   return os.str();
}

// ---- One prefix as NLRI carry it ----

TEST(UnicastRouteKeyTest, ReadPrefix) {
   struct Row {
      char const* name;
      Afi afi;
      char const* hex;
      BgpParseCountReason reason;
      char const* prefix; // when read
      std::size_t used;   // bytes read
   };
   using R = BgpParseCountReason;
   Row const rows[] = {
       {"default route", Afi::afiIpv4, "00", R::none, "0.0.0.0/0", 1},
       {"whole bytes", Afi::afiIpv4, "100a01", R::none, "10.1.0.0/16", 3},
       {"host bits cleared", Afi::afiIpv4, "0affff", R::none, "255.192.0.0/10", 3},
       {"host route", Afi::afiIpv4, "200a000001", R::none, "10.0.0.1/32", 5},
       {"followed by more", Afi::afiIpv4, "080a18", R::none, "10.0.0.0/8", 2},
       {"longer than IPv4", Afi::afiIpv4, "210a00000100", R::unicastPrefixLength, "", 0},
       {"cut short", Afi::afiIpv4, "180a01", R::unicastPrefixShort, "", 0},
       {"no length byte", Afi::afiIpv4, "", R::unicastPrefixShort, "", 0},
       {"IPv6 /32", Afi::afiIpv6, "2020010db8", R::none, "2001:db8::/32", 5},
       {"IPv6 /128", Afi::afiIpv6, "8020010db8000000000000000000000001", R::none, "2001:db8::1/128", 17},
       {"IPv6 /129", Afi::afiIpv6, "8120010db800000000000000000000000100", R::unicastPrefixLength, "", 0},
       {"IPv6 /64 cut short", Afi::afiIpv6, "4020010db8", R::unicastPrefixShort, "", 0},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Bytes const bytes = hexBytes(r.hex);
      BgpParsePktPosition pos(bytes);
      UnicastPrefix p;
      EXPECT_EQ(readUnicastPrefix(pos, r.afi, &p), r.reason);
      if (r.reason != R::none) {
         EXPECT_EQ(pos.dataLeft(), bytes.size()) << "a failed read leaves the position";
         continue;
      }
      EXPECT_EQ(text(*unicastRouteKeyFactory(r.afi, p)), r.prefix);
      EXPECT_EQ(bytes.size() - pos.dataLeft(), r.used);
   }
}

// ---- Keys: dedup, wire form, order, containment ----

Ptr<UnicastRouteKeyDedupTable> table(AfiSafi f) {
   return Ovk::makePtr<UnicastRouteKeyDedupTable>(f, BgpL3VrfId::defaultVrfId());
}

Ovnet::IpGenPrefix prefixOf(std::string const& s) { return *Ovnet::IpGenPrefix::parse(s); }

TEST(UnicastRouteKeyTest, HostBitsMakeNoSecondRoute) {
   auto const t = table(AfiSafi::ipv4Unicast());
   auto const a = unicastRouteKeyFactory(prefixOf("10.1.2.3/8"))->dedupRouteKey(t.ptr());
   auto const b = unicastRouteKeyFactory(prefixOf("10.0.0.0/8"))->dedupRouteKey(t.ptr());
   EXPECT_EQ(a.ptr(), b.ptr());
   EXPECT_EQ(t->size(), 1u);
   EXPECT_EQ(t->dedupFromCommandParams("10.0.0.0/8").ptr(), a.ptr());
   EXPECT_EQ(t->dedupFromCommandParams("2001:db8::/32"), nullptr) << "another family";
   EXPECT_EQ(t->dedupFromCommandParams("bad"), nullptr);
}

// Random prefixes of both families with many shared leading bits, so that containment and
// order meet their edge cases (equal addresses of other lengths, nested prefixes).
std::vector<Ovnet::IpGenPrefix> randomPrefixes(bool v6, std::size_t n, std::mt19937& rng) {
   std::vector<Ovnet::IpGenPrefix> out;
   unsigned const bits = v6 ? 128 : 32;
   for (std::size_t i = 0; i < n; ++i) {
      std::array<std::uint8_t, 16> a{};
      for (std::size_t j = 0; j < (v6 ? 16u : 4u); ++j) a[j] = static_cast<std::uint8_t>(rng() % 4 == 0 ? rng() : 0x0a);
      auto const len = static_cast<std::uint8_t>(rng() % (bits + 1));
      Ovnet::IpGenAddr const addr =
          v6 ? Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(a)) : Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(a.data(), 4));
      Ovnet::IpGenPrefix p(addr, len);
      p.clearLowerAddrBits();
      out.push_back(p);
   }
   return out;
}

TEST(UnicastRouteKeyTest, PropertiesAgainstThePrefixes) {
   std::mt19937 rng(7);
   for (bool const v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      auto const t = table(v6 ? AfiSafi::ipv6Unicast() : AfiSafi::ipv4Unicast());
      auto const prefixes = randomPrefixes(v6, 300, rng);
      std::vector<Ptr<RouteKey const>> keys;
      for (auto const& p : prefixes) keys.push_back(unicastRouteKeyFactory(p)->dedupRouteKey(t.ptr()));
      for (std::size_t i = 0; i < keys.size(); ++i) {
         auto const& a = static_cast<UnicastRouteKey const&>(*keys[i]);
         // The wire form reads back to the same key.
         Ovk::String const wire = a.serialize(RouteKey::SerializeOperation::advertise, nullptr);
         BgpParsePktPosition pos(std::span<std::uint8_t const>(reinterpret_cast<std::uint8_t const*>(wire.data()), wire.size()));
         UnicastPrefix back;
         ASSERT_EQ(readUnicastPrefix(pos, a.afi(), &back), BgpParseCountReason::none);
         EXPECT_EQ(unicastRouteKeyFactory(a.afi(), back)->dedupRouteKey(t.ptr()).ptr(), &a);
         EXPECT_EQ(pos.dataLeft(), 0u);
         for (std::size_t j = 0; j < keys.size(); ++j) {
            auto const& b = static_cast<UnicastRouteKey const&>(*keys[j]);
            Ovnet::IpGenPrefix const& pa = prefixes[i];
            Ovnet::IpGenPrefix const& pb = prefixes[j];
            bool const same = pa == pb;
            ASSERT_EQ(&a == &b, same) << pa << " " << pb;
            ASSERT_EQ(a.isMoreSpecific(b), !same && pb.contains(pa)) << pa << " " << pb;
            ASSERT_EQ(a.isOverlapping(b), pa.contains(pb) || pb.contains(pa)) << pa << " " << pb;
            // The order is (address, length), and the summary never contradicts it.
            int const c = a.orderCompare(b);
            bool const less = std::lexicographical_compare(pa.addr().bytes().begin(), pa.addr().bytes().end(),
                                                           pb.addr().bytes().begin(), pb.addr().bytes().end()) ||
                              (pa.addr() == pb.addr() && pa.len() < pb.len());
            ASSERT_EQ(c < 0, less) << pa << " " << pb;
            ASSERT_EQ(c == 0, same);
            if (a.orderPrefix() < b.orderPrefix() || a.orderSummary() < b.orderSummary()) {
               ASSERT_LT(c, 0) << pa << " " << pb;
            }
         }
      }
   }
}

// ---- The decoder with the unicast rules ----

struct Session {
   explicit Session(bool unicast) {
      auto const vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
      decoder = std::make_unique<BgpUpdateDecoder>(Ovk::makePtr<BgpParseContext>(vrf, "test"), BgpUpdateDecoder::Options{});
      if (!unicast) return;
      for (AfiSafi const f : {AfiSafi::ipv4Unicast(), AfiSafi::ipv6Unicast()}) {
         vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(f, table(f), nullptr));
         auto const c = BgpParseRuleCollections::create(f);
         sms.push_back(Ovk::makePtr<UnicastParseSm>(c));
         decoder->ruleCollectionsIs(c, {});
      }
   }
   // "+10.0.0.0/8 -10.1.0.0/16 !reason" for each NLRI in the order given.
   std::string decode(Bytes const& m) {
      message = m;
      BgpParsedUpdate const& u = decoder->decode(message);
      std::string out = toStrep(u.action);
      for (BgpParsedNlri const& n : u.nlri) {
         out += n.routeKey ? std::string(" ") + (n.reachable ? "+" : "-") + text(*n.routeKey) : " !" + toStrep(n.reason);
      }
      return out;
   }
   std::vector<Ptr<UnicastParseSm>> sms;
   std::unique_ptr<BgpUpdateDecoder> decoder;
   Bytes message;
};

TEST(UnicastRouteKeyTest, DecoderReadsBothFamiliesWhereverTheyCome) {
   Session s(true);
   EXPECT_EQ(s.decode(announcing().attr(kWellKnown, 3, "c0000201").withdrawn("0a1400").nlri("080a 100a01").build()),
             "accept -20.0.0.0/10 +10.0.0.0/8 +10.1.0.0/16");
   EXPECT_EQ(s.decode(announcing().mpReach(2, 1, "20010db8000000000000000000000001", "2020010db8 00").build()),
             "accept +2001:db8::/32 +::/0");
   EXPECT_EQ(s.decode(UpdateBuilder().mpUnreach(2, 1, "2020010db8").build()), "accept -2001:db8::/32");
   EXPECT_EQ(s.decoder->counters().families.at(AfiSafi::ipv4Unicast()).announced, 2u);
   EXPECT_EQ(s.decoder->counters().families.at(AfiSafi::ipv4Unicast()).updates, 1u);
   EXPECT_EQ(s.decoder->counters().families.at(AfiSafi::ipv6Unicast()).withdrawn, 1u);
   // A prefix that does not frame loses the rest of its attribute: the session resets, as
   // for the UPDATE's own NLRI field.
   EXPECT_EQ(s.decode(announcing().mpReach(2, 1, "20010db8000000000000000000000001", "8120010db8").build()),
             "session-reset !unicastPrefixLength");
   EXPECT_EQ(s.decode(announcing().attr(kWellKnown, 3, "c0000201").nlri("210a000001").build()), "session-reset");
}

TEST(UnicastRouteKeyTest, SessionWithoutUnicastSkipsAndCountsIt) {
   Session s(false);
   EXPECT_EQ(s.decode(announcing().attr(kWellKnown, 3, "c0000201").nlri("080a").build()), "accept");
   EXPECT_TRUE(s.decoder->decode(s.message).errors.empty()) << "nothing logged per UPDATE";
   EXPECT_EQ(s.decoder->counters().reasons.at(BgpParseCountReason::unicastNotNegotiated), 2u);
   EXPECT_EQ(s.decode(announcing().mpReach(2, 1, "20010db8000000000000000000000001", "2020010db8").build()), "accept");
   EXPECT_EQ(s.decoder->counters().reasons.at(BgpParseCountReason::mpFamilyWithoutRule), 1u);
}

} // namespace
