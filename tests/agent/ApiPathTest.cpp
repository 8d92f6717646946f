// API paths read into rule words: the actions each community becomes, the match text of the
// NLRI, and the refusals, both packages' type names.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/api/ApiPath.h"

namespace {

using namespace Flowspecd::Api;
using google::protobuf::Any;

Any anyOf(google::protobuf::Message const& m, std::string_view package = "apipb") {
   Any a;
   pack(a, m, Dialect{package});
   return a;
}

apipb::Family v4() {
   apipb::Family f;
   f.set_afi(apipb::Family::AFI_IP);
   f.set_safi(apipb::Family::SAFI_FLOW_SPEC_UNICAST);
   return f;
}

Any prefixComponent(std::string const& prefix, std::uint32_t len, std::uint32_t type = 1, std::uint32_t offset = 0) {
   apipb::FlowSpecIPPrefix p;
   p.set_type(type);
   p.set_prefix(prefix);
   p.set_prefix_len(len);
   p.set_offset(offset);
   return anyOf(p);
}

Any itemsComponent(std::uint32_t type, std::vector<std::pair<std::uint32_t, std::uint64_t>> items) {
   apipb::FlowSpecComponent c;
   c.set_type(type);
   for (auto [op, value] : items) {
      auto* i = c.add_items();
      i->set_op(op);
      i->set_value(value);
   }
   return anyOf(c);
}

apipb::Path pathOf(std::vector<Any> rules, std::vector<Any> communities, apipb::Family family = v4(),
                   std::string_view package = "apipb") {
   apipb::FlowSpecNLRI nlri;
   for (auto& r : rules) *nlri.add_rules() = r;
   apipb::Path p;
   *p.mutable_family() = family;
   pack(*p.mutable_nlri(), nlri, Dialect{package});
   apipb::ExtendedCommunitiesAttribute ext;
   for (auto& c : communities) *ext.add_communities() = c;
   pack(*p.add_pattrs(), ext, Dialect{package});
   return p;
}

template <class M>
Any community(M m) {
   return anyOf(m);
}

apipb::TrafficRateExtended rate(float r, std::uint32_t as = 0) {
   apipb::TrafficRateExtended m;
   m.set_rate(r);
   m.set_as(as);
   return m;
}

TEST(ApiPath, CommunitiesBecomeActions) {
   apipb::TrafficActionExtended both;
   both.set_sample(true);
   both.set_terminal(true);
   apipb::TrafficRemarkExtended mark;
   mark.set_dscp(46);
   apipb::RedirectTwoOctetAsSpecificExtended rt2;
   rt2.set_as(65000);
   rt2.set_local_admin(100);
   apipb::RedirectIPv4AddressSpecificExtended rt4;
   rt4.set_address("192.0.2.1");
   rt4.set_local_admin(7);
   struct Case {
      std::vector<Any> communities;
      std::vector<std::string> then;
   };
   std::vector<Case> const cases = {
      {{community(rate(0))}, {"discard"}},
      {{community(rate(1000))}, {"rate-limit 1000"}},
      {{community(both)}, {"sample", "terminal"}},
      {{community(mark)}, {"mark 46"}},
      {{community(rt2)}, {"redirect-vrf 65000:100"}},
      {{community(rt4), community(mark)}, {"redirect-vrf 192.0.2.1:7", "mark 46"}},
   };
   for (auto const& c : cases) {
      auto const r = ruleOfPath(pathOf({prefixComponent("10.0.0.0", 24)}, c.communities), std::nullopt, true);
      ASSERT_TRUE(r) << r.reason().message;
      EXPECT_EQ(r.value().then, c.then);
      EXPECT_EQ(r.value().family, Routing::Bgp::AfiSafi::ipv4Flowspec());
   }
}

TEST(ApiPath, NlriBecomesRuleTextInEitherPackage) {
   for (std::string_view package : {"apipb", "gobgpapi"}) {
      auto const p = pathOf({prefixComponent("10.0.0.0", 24), itemsComponent(3, {{0x01, 6}}),
                             itemsComponent(5, {{0x03, 80}, {0x03, 1024}, {0x04 | 0x40, 2048}})},
                            {community(rate(0))}, v4(), package);
      auto const r = ruleOfPath(p, std::nullopt, true);
      ASSERT_TRUE(r) << package << ": " << r.reason().message;
      EXPECT_EQ(r.value().match, "10.0.0.0/24;*;protocol =6;destination-port >=80 >=1024&<2048;") << package;
   }
}

TEST(ApiPath, RefusesWhatTheAgentCannotOriginate) {
   apipb::Family unicast = v4();
   unicast.set_safi(apipb::Family::SAFI_UNICAST);
   apipb::FlowSpecMAC mac;
   mac.set_type(15);
   mac.set_address("00:11:22:33:44:55");
   apipb::FourOctetAsSpecificExtended rt;
   rt.set_as(4200000000);
   rt.set_local_admin(1);
   apipb::UnknownExtended odd;
   odd.set_type(0x43);
   odd.set_value(std::string(7, '\1'));
   struct Case {
      char const* what;
      apipb::Path path;
   };
   apipb::Path garbage = pathOf({prefixComponent("10.0.0.0", 24)}, {community(rate(0))});
   garbage.mutable_nlri()->set_value("\xff\xff\xff");
   std::vector<Case> const cases = {
      {"unicast family", pathOf({prefixComponent("10.0.0.0", 24)}, {community(rate(0))}, unicast)},
      {"garbage NLRI", garbage},
      {"MAC component", pathOf({anyOf(mac)}, {community(rate(0))})},
      {"IPv4 prefix longer than 32", pathOf({prefixComponent("10.0.0.0", 33)}, {community(rate(0))})},
      {"value wider than 32 bits", pathOf({itemsComponent(5, {{0x01, 1ull << 33}})}, {community(rate(0))})},
      {"traffic-rate with an AS", pathOf({prefixComponent("10.0.0.0", 24)}, {community(rate(0, 65000))})},
      {"negative rate", pathOf({prefixComponent("10.0.0.0", 24)}, {community(rate(-1))})},
      {"route target as a community", pathOf({prefixComponent("10.0.0.0", 24)}, {community(rt)})},
      {"unknown extended community", pathOf({prefixComponent("10.0.0.0", 24)}, {community(odd)})},
   };
   for (auto const& c : cases) {
      auto const r = ruleOfPath(c.path, std::nullopt, true);
      EXPECT_FALSE(r) << c.what << ": read as " << (r ? r.value().match : "");
      if (!r) {
         EXPECT_EQ(r.reason().code, Code::invalidArgument) << c.what;
         EXPECT_FALSE(r.reason().message.empty()) << c.what;
      }
   }
}

} // namespace
