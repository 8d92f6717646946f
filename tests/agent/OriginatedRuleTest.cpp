// Originated rules as written: actions to communities and back, matches and their refusals.
#include "agent/OriginatedRule.h"

#include <gtest/gtest.h>

#include "host/bgp/BgpMessage.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace Flowspecd {
namespace {

using BgpTest::hexText;
using Routing::Bgp::kIpv4Flowspec;
using Routing::Bgp::kIpv6Flowspec;

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
      auto rule = originatedRuleOf(row.family, row.text, {"discard"});
      ASSERT_FALSE(rule.ok());
      EXPECT_EQ(rule.reason().rfind(row.why, 0), 0u) << rule.reason();
   }
   EXPECT_EQ(originatedRuleOf(kIpv4Flowspec, "destination 10.0.0.0/8", {}).reason(),
             "then: a rule needs at least one action");
   // An NLRI beyond its length field is refused as such.
   std::string ports = "destination-port";
   for (int p = 0; p < 1400; ++p) ports += " =" + std::to_string(1000 + p);
   auto const tooLong = originatedRuleOf(kIpv4Flowspec, ports, {"discard"});
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
