// Originated rules as written: actions to communities, matches to NLRI, the size limits.
#include "agent/OriginatedRule.h"

#include <gtest/gtest.h>

#include "host/bgp/BgpMessage.h"
#include "tests/host/bgp/UpdateBuilder.h"
#include "tools/flowspec/NlriCodec.h"

namespace Flowspecd {
namespace {

using BgpTest::hexText;
using Routing::Bgp::kIpv4Flowspec;
using Routing::Bgp::kIpv6Flowspec;

constexpr std::uint32_t kAs = 65001;

std::string hex16(std::uint64_t v) {
   char b[17];
   std::snprintf(b, sizeof b, "%016llx", static_cast<unsigned long long>(v));
   return b;
}

// Each action, alone and in the combinations that share a community, to the communities it
// writes (as hex) and back to its canonical text.
TEST(OriginatedRule, ActionsWriteTheirCommunities) {
   struct Row {
      AfiSafi family;
      std::vector<std::string> then;
      std::vector<std::string> ext; // hex, in value order
      std::string ext6;             // hex of the one IPv6 community, or empty
      std::vector<std::string> back;
   };
   std::vector<Row> const rows{
       {kIpv4Flowspec, {"discard"}, {"8006000000000000"}, "", {"discard"}},
       // 125000 is 0x47f42400 as an IEEE single.
       {kIpv4Flowspec, {"rate-limit 125000"}, {"8006000047f42400"}, "", {"rate-limit 125000"}},
       {kIpv4Flowspec, {"rate-limit   2.5"}, {"8006000040200000"}, "", {"rate-limit 2.5"}},
       {kIpv4Flowspec, {"mark 10"}, {"800900000000000a"}, "", {"mark 10"}},
       {kIpv4Flowspec, {"sample"}, {"8007000000000002"}, "", {"sample"}},
       {kIpv4Flowspec, {"terminal"}, {"8007000000000001"}, "", {"terminal"}},
       // Sample and terminal: one community with both bits.
       {kIpv4Flowspec, {"terminal", "sample"}, {"8007000000000003"}, "", {"sample", "terminal"}},
       {kIpv4Flowspec, {"redirect-vrf 65000:100"}, {"8008fde800000064"}, "", {"redirect-vrf 65000:100"}},
       {kIpv4Flowspec, {"redirect-vrf 192.0.2.1:7"}, {"8108c00002010007"}, "", {"redirect-vrf 192.0.2.1:7"}},
       {kIpv6Flowspec, {"redirect-vrf 4200000000:1"}, {"8208fa56ea000001"}, "", {"redirect-vrf 4200000000:1"}},
       {kIpv4Flowspec, {"redirect-ip 198.51.100.1"}, {"010cc63364010000"}, "", {"redirect-ip 198.51.100.1"}},
       {kIpv4Flowspec, {"redirect-ip 198.51.100.1 copy"}, {"010cc63364010001"}, "", {"redirect-ip 198.51.100.1 copy"}},
       {kIpv6Flowspec,
        {"redirect-ip 2001:db8::1 copy"},
        {},
        "000c20010db80000000000000000000000010001",
        {"redirect-ip 2001:db8::1 copy"}},
       {kIpv4Flowspec, {"redirect-nexthop"}, {"0800000000000000"}, "", {"redirect-nexthop"}},
       {kIpv4Flowspec, {"redirect-nexthop 10.1.1.1"}, {"0800000000000000"}, "", {"redirect-nexthop 10.1.1.1"}},
       {kIpv4Flowspec,
        {"mark 63", "rate-limit 1000", "redirect-ip 10.0.0.1"},
        {"010c0a0000010000", "80060000447a0000", "800900000000003f"},
        "",
        {"redirect-ip 10.0.0.1", "rate-limit 1000", "mark 63"}},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.then.front());
      auto c = communitiesOf(row.family, row.then);
      ASSERT_TRUE(c.ok()) << c.reason();
      std::vector<std::string> ext;
      for (std::uint64_t v : c.value().extComms) ext.push_back(hex16(v));
      EXPECT_EQ(ext, row.ext);
      EXPECT_EQ(c.value().ip6ExtComms.empty() ? "" : hexText(c.value().ip6ExtComms.front()), row.ext6);
      EXPECT_EQ(actionTexts(c.value()), row.back);
      // The canonical texts read back to the same communities.
      EXPECT_EQ(communitiesOf(row.family, row.back).value(), c.value());
   }
}

TEST(OriginatedRule, ActionsThatAreRefusedSayWhy) {
   struct Row {
      AfiSafi family;
      std::vector<std::string> then;
      std::string why;
   };
   std::vector<Row> const rows{
       {kIpv4Flowspec, {"drop"}, "unknown action \"drop\""},
       {kIpv4Flowspec, {""}, "an action is empty"},
       {kIpv4Flowspec, {"rate-limit"}, "write it as \"rate-limit BYTES_PER_SECOND\""},
       {kIpv4Flowspec, {"rate-limit 0"}, "the rate is a positive number"},
       {kIpv4Flowspec, {"rate-limit 1e40"}, "the rate is a positive number"},
       {kIpv4Flowspec, {"rate-limit fast"}, "the rate is a positive number"},
       {kIpv4Flowspec, {"mark 64"}, "DSCP is a number from 0 to 63"},
       {kIpv4Flowspec, {"mark -1"}, "DSCP is a number from 0 to 63"},
       {kIpv4Flowspec, {"sample 1"}, "write it as \"sample\""},
       {kIpv4Flowspec, {"redirect-vrf 70000:70000"}, "a route target is"},
       {kIpv4Flowspec, {"redirect-ip 2001:db8::1"}, "an IPv6 address in an IPv4 rule"},
       {kIpv6Flowspec, {"redirect-ip 192.0.2.1"}, "an IPv4 address in an IPv6 rule"},
       {kIpv6Flowspec, {"redirect-nexthop 192.0.2.1"}, "an IPv4 address in an IPv6 rule"},
       {kIpv4Flowspec, {"redirect-ip 192.0.2.1 mirror"}, "redirect-ip ADDRESS [copy]"},
       {kIpv4Flowspec, {"redirect-ip host"}, "\"host\" is not an IP address"},
       {kIpv4Flowspec, {"rate-limit 5", "rate-limit 6"}, "\"rate-limit 6\" conflicts with \"rate-limit 5\""},
       {kIpv4Flowspec, {"discard", "rate-limit 6"}, "\"rate-limit 6\" conflicts with \"discard\""},
       {kIpv4Flowspec, {"mark 1", "mark 2"}, "conflicts with \"mark 1\""},
       {kIpv4Flowspec, {"sample", "sample"}, "\"sample\" is given twice"},
       {kIpv4Flowspec, {"redirect-vrf 65000:1", "redirect-ip 10.0.0.1"}, "conflicts with \"redirect-vrf 65000:1\""},
       {kIpv4Flowspec, {"redirect-ip 10.0.0.1", "redirect-nexthop"}, "conflicts with \"redirect-ip 10.0.0.1\""},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.then.back());
      auto c = communitiesOf(row.family, row.then);
      ASSERT_FALSE(c.ok());
      EXPECT_NE(c.reason().find(row.why), std::string::npos) << c.reason();
   }
}

TEST(OriginatedRule, WordsAfterThenGroupIntoActions) {
   EXPECT_EQ(actionsOfWords({"rate-limit", "1000", "mark", "10", "redirect-ip", "10.0.0.1", "copy", "terminal"}),
             (std::vector<std::string>{"rate-limit 1000", "mark 10", "redirect-ip 10.0.0.1 copy", "terminal"}));
   // Words before any keyword make an action of their own, which is then refused by name.
   EXPECT_EQ(actionsOfWords({"fly", "away", "discard"}), (std::vector<std::string>{"fly away", "discard"}));
}

// The NLRI written here are the bytes the plugin's route key writes for the same text
// (what `flowspec encode` prints), for both families and both length forms.
TEST(OriginatedRule, NlriIsWhatTheRouteKeyWrites) {
   std::string manyPorts = "destination-port";
   for (int p = 1000; p < 1100; ++p) manyPorts += " =" + std::to_string(p);
   struct Row {
      AfiSafi family;
      std::string text;
   };
   std::vector<Row> const rows{
       {kIpv4Flowspec, "destination 192.0.2.0/24 protocol tcp destination-port =80"},
       {kIpv4Flowspec, "source 10.0.0.1/32 destination 0.0.0.0/0"},
       {kIpv4Flowspec, "destination 10.0.0.0/8 port >=1024&<=2048 tcp-flags =syn packet-length >1000"},
       {kIpv4Flowspec, "fragment =first-fragment dscp =10 icmp-type =3 icmp-code =1"},
       {kIpv4Flowspec, manyPorts}, // two-byte length
       {kIpv6Flowspec, "destination 2001:db8::/32 source 2001:db8:1::/48 next-header =6"},
       {kIpv6Flowspec, "destination ::/0 flow-label =12345"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.text);
      auto rule = originatedRuleOf(row.family, row.text, {"discard"}, kAs);
      ASSERT_TRUE(rule.ok()) << rule.reason();
      auto const encoded = FlowspecTool::encodeRule(row.family.afi(), row.text);
      ASSERT_TRUE(encoded["ok"].get<bool>()) << encoded.dump();
      EXPECT_EQ(hexText(rule.value().nlri), encoded["nlri"].get<std::string>());
   }
}

TEST(OriginatedRule, MatchesThatAreRefusedSayWhy) {
   struct Row {
      AfiSafi family;
      std::string text;
      std::string why;
   };
   std::vector<Row> const rows{
       {kIpv4Flowspec, "destinatio 10.0.0.0/8", "match: cannot read"},
       {kIpv4Flowspec, "destination 2001:db8::/32", "match: "},
       {kIpv4Flowspec, "flow-label =1", "match: flow-label exists only in IPv6 rules"},
       // The same component twice cannot be one NLRI component.
       {kIpv4Flowspec, "protocol =6 destination-port =80 protocol =17", "match: a component is given more than once"},
       {kIpv4Flowspec, "protocol =6 protocol =17", "match: a component is given more than once"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.text);
      auto rule = originatedRuleOf(row.family, row.text, {"discard"}, kAs);
      ASSERT_FALSE(rule.ok());
      EXPECT_EQ(rule.reason().rfind(row.why, 0), 0u) << rule.reason();
   }
   EXPECT_EQ(originatedRuleOf(kIpv4Flowspec, "destination 10.0.0.0/8", {}, kAs).reason(),
             "then: a rule needs at least one action");
}

// A rule whose NLRI fits its length field but whose UPDATE does not fit one message is
// refused with both sizes named; one a little shorter is taken.
TEST(OriginatedRule, RuleThatCannotFitOneUpdateIsRefused) {
   auto ports = [](int n) {
      std::string text = "destination-port";
      for (int p = 0; p < n; ++p) text += " =" + std::to_string(1000 + p); // 3 bytes each
      return text;
   };
   // NLRI: 2 length bytes, 1 type byte, 3 per value. The tightest session is iBGP: header 23,
   // ORIGIN 4, empty AS_PATH 3, LOCAL_PREF 7, one community 11, MP_REACH_NLRI 4 + 9 with a
   // 4-byte next hop: 61 bytes beside the NLRI. 4096 - 61 = 4035 = 2 + 1 + 3 * 1344.
   auto fits = originatedRuleOf(kIpv4Flowspec, ports(1344), {"discard"}, kAs);
   ASSERT_TRUE(fits.ok()) << fits.reason();
   EXPECT_EQ(fits.value().nlri.size(), 4035u);
   auto const tooBig = originatedRuleOf(kIpv4Flowspec, ports(1345), {"discard"}, kAs);
   ASSERT_FALSE(tooBig.ok());
   EXPECT_EQ(tooBig.reason(), "the rule's UPDATE would need 4099 bytes with its attributes, more than one 4096-byte "
                              "message holds");
   // A local AS beyond 16 bits costs an eBGP session without 4-octet AS numbers AS_TRANS and
   // an AS4_PATH (7 + 9 bytes): 67 beside the NLRI, so 4029 = 2 + 1 + 3 * 1342.
   EXPECT_TRUE(originatedRuleOf(kIpv4Flowspec, ports(1342), {"discard"}, 4200000000u).ok());
   EXPECT_FALSE(originatedRuleOf(kIpv4Flowspec, ports(1343), {"discard"}, 4200000000u).ok());
   // IPv6: a 16-byte next hop (+12) and an IPv6 address specific community (+23): 96 beside
   // the NLRI, so 4000 holds 2 + 1 + 3 * 1332.
   std::vector<std::string> const redirect{"redirect-ip 2001:db8::1", "discard"};
   EXPECT_TRUE(originatedRuleOf(kIpv6Flowspec, ports(1332), redirect, kAs).ok());
   auto const v6 = originatedRuleOf(kIpv6Flowspec, ports(1333), redirect, kAs);
   ASSERT_FALSE(v6.ok());
   EXPECT_NE(v6.reason().find("would need 4098 bytes"), std::string::npos) << v6.reason();
   // An NLRI beyond its length field is refused as such.
   auto const tooLong = originatedRuleOf(kIpv4Flowspec, ports(1400), {"discard"}, kAs);
   ASSERT_FALSE(tooLong.ok());
   EXPECT_NE(tooLong.reason().find("4095"), std::string::npos) << tooLong.reason();
}

TEST(OriginatedRule, FamilyNames) {
   EXPECT_EQ(ruleFamilyOf("ipv4"), kIpv4Flowspec);
   EXPECT_EQ(ruleFamilyOf("ipv6-flowspec"), kIpv6Flowspec);
   EXPECT_EQ(ruleFamilyOf("ipv4-unicast"), std::nullopt);
}

} // namespace
} // namespace Flowspecd
