#include "host/bgp/ExtComm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Routing::Bgp;

std::vector<std::uint8_t> fromHex(std::string const& h) {
   std::vector<std::uint8_t> b;
   for (std::size_t i = 0; i + 1 < h.size(); i += 2)
      b.push_back(static_cast<std::uint8_t>(std::stoul(h.substr(i, 2), nullptr, 16)));
   return b;
}

Ovk::Ptr<ExtComm> comm(std::string const& hex) {
   auto b = fromHex(hex);
   return ExtComm::create(std::span<std::uint8_t const, 8>(b.data(), 8));
}

Ovk::Ptr<ExtCommIp6> comm6(std::string const& hex) {
   auto b = fromHex(hex);
   return ExtCommIp6::create(std::span<std::uint8_t const, 20>(b.data(), 20));
}

// Communities as real speakers sent them, with their meaning.
TEST(ExtCommTest, DecodesTheKindsSpeakersSend) {
   struct Case {
      char const* hex;
      ExtCommClassification cls;
      char const* text;
   };
   auto const fs = ExtCommClassification::flowspec;
   for (auto const& c : {
            Case{"8006000000000000", fs, "traffic-rate(as=0, rateBytesPerSec=0)"},
            Case{"80060000447a0000", fs, "traffic-rate(as=0, rateBytesPerSec=1000)"},
            Case{"8006fde94e6e6b28", fs, "traffic-rate(as=65001, rateBytesPerSec=1e+09)"},
            Case{"800600007fc00000", fs, "traffic-rate(as=0, rateBytesPerSec=nan)"},
            Case{"8007000000000003", fs, "traffic-action(sample=true, terminal=true)"},
            Case{"8007000000000001", fs, "traffic-action(sample=false, terminal=true)"},
            Case{"80090000000000ff", fs, "traffic-marking(dscp=63)"},
            Case{"8008fde800000064", fs, "redirect-vrf(routeTarget=65000:100, as=65000, local=100, as4=false)"},
            Case{"8208fa56ea000007", fs, "redirect-vrf(routeTarget=4200000000.4:7, as=4200000000, local=7, as4=true)"},
            Case{"8108c0000201007b", fs, "redirect-vrf(routeTarget=192.0.2.1:123, address=192.0.2.1, local=123)"},
            Case{"010cc00002010001", fs, "redirect-ipv4(address=192.0.2.1, copy=true)"},
            Case{"0800000000000000", fs, "redirect-nexthop(copy=false)"},
            Case{"800c000042c80000", ExtCommClassification::flowspecUnsupported,
                 "traffic-rate-packets(as=0, ratePacketsPerSec=100)"},
            Case{"0002fde800000064", ExtCommClassification::routeTarget, "route-target(as=65000, local=100)"},
            Case{"0102c0000201007b", ExtCommClassification::routeTarget, "route-target(address=192.0.2.1, local=123)"},
            Case{"0003fde800000064", ExtCommClassification::other, "unknown(type=0, subtype=3)"},
        }) {
      SCOPED_TRACE(c.hex);
      auto e = comm(c.hex);
      EXPECT_EQ(e->classification(), c.cls);
      EXPECT_EQ(e->toStrep(), c.text);
      auto b = e->bytes();
      EXPECT_EQ(std::vector<std::uint8_t>(b.begin(), b.end()), fromHex(c.hex));
   }
}

TEST(ExtCommTest, FieldsTheExportReads) {
   auto ip = Ovk::ptrCast<FlowspecExtCommRedirectIpv4>(comm("010cc00002010000"));
   ASSERT_TRUE(ip);
   EXPECT_EQ(ip->address().str(), "192.0.2.1");
   EXPECT_FALSE(ip->copy());
   auto rate = Ovk::ptrCast<FlowspecExtCommTrafficRate>(comm("80060000447a0000"));
   ASSERT_TRUE(rate);
   EXPECT_EQ(rate->rateBytesPerSec(), 1000.0f);
   auto as2 = Ovk::ptrCast<FlowspecExtCommRedirectVrfRdAs>(comm("8008ffff00000009"));
   ASSERT_TRUE(as2);
   EXPECT_FALSE(as2->isAs4());
   EXPECT_EQ(as2->asn(), 65535u);
   EXPECT_EQ(as2->localAdmin(), 9u);
}

TEST(ExtCommTest, Ipv6AddressSpecificKinds) {
   auto r = comm6("000c20010db80000000000000000000000100001");
   auto redirect = Ovk::ptrCast<FlowspecExtCommRedirectIpv6>(r);
   ASSERT_TRUE(redirect);
   EXPECT_EQ(redirect->classification(), ExtCommClassification::flowspec);
   EXPECT_EQ(redirect->toStrep(), "redirect-ipv6(address=2001:db8::10, copy=true)");
   for (char const* rt : {"000d20010db80000000000000000000000010064", "800b20010db80000000000000000000000010064"}) {
      auto v = comm6(rt);
      EXPECT_EQ(v->classification(), ExtCommClassification::flowspecUnsupported) << rt;
      EXPECT_EQ(v->kindName(), std::string("redirect-vrf-ipv6"));
   }
   EXPECT_EQ(comm6("0002" + std::string(36, '0'))->classification(), ExtCommClassification::other);
}

TEST(ExtCommTest, ListsFilterByClassificationInOrderAndDeduplicate) {
   ExtCommList list;
   for (char const* h : {"8006000000000000", "0002fde800000064", "8007000000000001"}) list.push(comm(h));
   auto flowspec = list.classificationList(extCommClassificationFlowspec());
   ASSERT_EQ(flowspec.size(), 2u);
   EXPECT_EQ(flowspec[0]->kindName(), std::string("traffic-rate"));
   EXPECT_EQ(flowspec[1]->kindName(), std::string("traffic-action"));

   auto table = Ovk::SimpleDedupHashTable::create();
   auto a = table->lookupOrInsert(comm("8006000000000000"));
   auto b = table->lookupOrInsert(comm("8006000000000000"));
   auto c = table->lookupOrInsert(comm6("000c20010db80000000000000000000000100001"));
   EXPECT_EQ(a.ptr(), b.ptr());
   EXPECT_EQ(table->size(), 2u);
}

} // namespace
