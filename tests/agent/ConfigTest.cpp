#include "agent/Config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sys/stat.h>

namespace Flowspecd {
namespace {

constexpr char const* kGood = R"(router-id = "192.0.2.1"
local-as = 4200000001
listen = ["127.0.0.10:1179", "[::1]:1179", "127.0.0.11"]
control-socket = "/tmp/x.sock"

[[neighbor]]
address = "127.0.0.20"
port = 1790
remote-as = 65020
passive = true
hold-time = 3
families = ["ipv4-flowspec"]
description = "GoBGP"
connect-retry = 1
min-route-advertisement-interval = 30

[[neighbor]]
address = "::1"
remote-as = 65021
local-address = "::1"
)";

TEST(Config, ReadsEveryKey) {
   auto r = parseConfig(kGood, "good.toml");
   ASSERT_TRUE(r.ok()) << r.reason().front().str();
   AgentConfig const& c = r.value();
   EXPECT_EQ(c.routerId, 0xc0000201u);
   EXPECT_EQ(c.localAs, 4200000001u);
   ASSERT_EQ(c.listen.size(), 3u);
   EXPECT_EQ(c.listen[0].str(), "127.0.0.10:1179");
   EXPECT_EQ(c.listen[1].str(), "[::1]:1179");
   EXPECT_EQ(c.listen[2].str(), "127.0.0.11:179");
   EXPECT_EQ(c.controlSocket, "/tmp/x.sock");
   ASSERT_EQ(c.neighbors.size(), 2u);
   NeighborConfig const& a = c.neighbors[0];
   EXPECT_EQ(a.address.str(), "127.0.0.20");
   EXPECT_EQ(a.port, 1790);
   EXPECT_EQ(a.remoteAs, 65020u);
   EXPECT_TRUE(a.passive);
   EXPECT_EQ(a.holdTime, 3);
   EXPECT_EQ(a.families, std::vector<AfiSafi>{kIpv4Flowspec});
   EXPECT_EQ(a.description, "GoBGP");
   EXPECT_EQ(a.connectRetrySeconds, 1);
   EXPECT_EQ(a.minRouteAdvertisementSeconds, 30);
   EXPECT_EQ(a.line, 6u);
   NeighborConfig const& b = c.neighbors[1];
   EXPECT_EQ(b.port, kBgpPort);
   EXPECT_FALSE(b.passive);
   EXPECT_EQ(b.holdTime, 90);
   EXPECT_EQ(b.minRouteAdvertisementSeconds, 0);
   EXPECT_EQ(b.families, (std::vector<AfiSafi>{kIpv4Flowspec, kIpv6Flowspec}));
   // Sources: the first non-wildcard listen address of the family, or local-address.
   EXPECT_EQ(sourceAddress(c, a)->str(), "127.0.0.10");
   EXPECT_EQ(sourceAddress(c, b)->str(), "::1");
}

TEST(Config, DefaultsWithoutOptionalKeys) {
   auto r = parseConfig("router-id = \"1.2.3.4\"\nlocal-as = 1\n", "min.toml");
   ASSERT_TRUE(r.ok());
   EXPECT_EQ(r.value().controlSocket, kDefaultControlSocket);
   ASSERT_EQ(r.value().listen.size(), 2u);
   EXPECT_EQ(r.value().listen[0].str(), "0.0.0.0:179");
   EXPECT_EQ(r.value().listen[1].str(), "[::]:179");
   NeighborConfig n;
   n.address = *Ovnet::IpGenAddr::parse("10.0.0.1");
   EXPECT_FALSE(sourceAddress(r.value(), n)); // only wildcards: the kernel chooses
}

TEST(Config, EmbeddedDefaultIsValidPassiveAndOnLoopback) {
   auto r = parseConfig(embeddedDefaultConfig(), kEmbeddedConfigName);
   ASSERT_TRUE(r.ok()) << r.reason().front().str();
   for (auto const& l : r.value().listen) {
      EXPECT_TRUE(l.address.str() == "127.0.0.1" || l.address.str() == "::1") << l.str();
   }
   ASSERT_FALSE(r.value().neighbors.empty());
   for (auto const& n : r.value().neighbors) EXPECT_TRUE(n.passive);
}

struct BadCase {
   char const* name;
   std::string text;
   std::uint32_t line;
   char const* says;
};

TEST(Config, EveryMistakeNamesFileLineAndWhat) {
   std::string const head = "router-id = \"1.2.3.4\"\nlocal-as = 65001\n"; // lines 1-2
   std::vector<BadCase> const cases{
       {"syntax", "router-id = \"1.2.3.4\"\nlocal-as = = 3\n", 2, "TOML syntax error"},
       // A key that starts with U+0296 where the library looks for whitespace.
       {"a non-ASCII character before a key", "router-id = \"1.2.3.4\"\nlocal-as = 1\n\xca\x96" "d = 2\n", 3,
        "TOML syntax error"},
       {"unknown top-level key", "router-id = \"1.2.3.4\"\nlocal-as = 1\nlisten-port = 3\n", 3,
        "unknown key 'listen-port'"},
       {"missing router-id", "local-as = 1\n", 1, "missing router-id"},
       {"missing local-as", "router-id = \"1.2.3.4\"\n", 1, "missing local-as"},
       {"router-id not IPv4", "router-id = \"::1\"\nlocal-as = 1\n", 1, "router-id must be a non-zero IPv4 address"},
       {"router-id zero", "router-id = \"0.0.0.0\"\nlocal-as = 1\n", 1, "router-id must be a non-zero IPv4 address"},
       {"router-id a number", "router-id = 5\nlocal-as = 1\n", 1, "router-id must be a string"},
       {"local-as zero", "router-id = \"1.2.3.4\"\nlocal-as = 0\n", 2,
        "local-as must be between 1 and 4294967295, not 0"},
       {"local-as too big", "router-id = \"1.2.3.4\"\nlocal-as = 4294967296\n", 2, "local-as must be between"},
       {"local-as AS_TRANS", "router-id = \"1.2.3.4\"\nlocal-as = 23456\n", 2, "AS_TRANS"},
       {"local-as as text", "router-id = \"1.2.3.4\"\nlocal-as = \"65001\"\n", 2, "local-as must be an integer"},
       {"listen not a list", "listen = \"127.0.0.1:179\"\n", 3, "listen must be a list"},
       {"listen bad port", "listen = [\n\"127.0.0.1:99999\"]\n", 4, "listen entries must be \"ADDR:PORT\""},
       {"listen unbracketed v6 port", "listen = [\"::1:179\", \"[::1]:0\"]\n", 3, "[::1]:0"},
       {"listen twice", "listen = [\"127.0.0.1:1\", \"127.0.0.1:1\"]\n", 3, "listed twice"},
       {"control-socket empty", "control-socket = \"\"\n", 3, "control-socket must not be empty"},
       {"control-socket too long", "control-socket = \"/tmp/" + std::string(110, 'x') + "\"\n", 3,
        "a Unix socket's path holds at most 107"},
       {"neighbor is the agent", "listen = [\"127.0.0.1:179\"]\n[[neighbor]]\naddress = \"127.0.0.1\"\nremote-as = 2\n", 4,
        "neighbor 127.0.0.1:179 is the agent itself: it listens there"},
       {"neighbor as a table", "[neighbor]\naddress = \"1.1.1.1\"\n", 3, "[[neighbor]] tables"},
       {"neighbor without address", "[[neighbor]]\nremote-as = 2\n", 3, "neighbor has no address"},
       {"neighbor without remote-as", "[[neighbor]]\naddress = \"1.1.1.1\"\n", 3, "neighbor has no remote-as"},
       {"neighbor bad address", "[[neighbor]]\naddress = \"1.1.1\"\nremote-as = 2\n", 4,
        "address must be an IPv4 or IPv6 address, not \"1.1.1\""},
       {"neighbor typo", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nhold_time = 3\n", 6,
        "unknown key 'hold_time' in [[neighbor]]"},
       {"port zero", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nport = 0\n", 6,
        "port must be between 1 and 65535"},
       {"passive as text", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\npassive = \"yes\"\n", 6,
        "passive must be true or false"},
       {"hold-time 2", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nhold-time = 2\n", 6,
        "hold-time must be 0 or at least 3"},
       {"hold-time too big", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nhold-time = 70000\n", 6,
        "hold-time must be between 0 and 65535"},
       {"unknown family", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nfamilies = [\"ipv4-multicast\"]\n", 6,
        "not \"ipv4-multicast\""},
       {"family twice",
        "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nfamilies = [\"ipv4-flowspec\", \"ipv4-flowspec\"]\n", 6,
        "listed twice"},
       {"no family", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nfamilies = []\n", 6, "at least one family"},
       {"local-address of the other family",
        "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nlocal-address = \"::1\"\n", 6, "not of the family"},
       {"connect-retry zero", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nconnect-retry = 0\n", 6,
        "connect-retry must be between 1"},
       {"interval too long",
        "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmin-route-advertisement-interval = 601\n", 6,
        "min-route-advertisement-interval must be between 0 and 600"},
       {"duplicate neighbor",
        "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\n[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 3\n", 6,
        "neighbor 1.1.1.1 is already defined on line 3"},
       // What a neighbor may import, its limits and its session security.
       {"prefix of a family the neighbor does not negotiate",
        "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nfamilies = [\"ipv4-flowspec\"]\nallowed-destinations = [\"2001:db8::/32 le 64\"]\n", 7,
        "allowed-destinations entry \"2001:db8::/32 le 64\" is of ipv6-flowspec, which the neighbor's families do not hold"},
       {"prefix with host bits", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-destinations = [\n\"10.1.0.0/8 le 32\"]\n", 7,
        "allowed-destinations \"10.1.0.0/8 le 32\": 10.1.0.0/8 has address bits beyond its length (10.0.0.0/8?)"},
       {"prefix length beyond the address", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-destinations = [\"10.0.0.0/8 le 40\"]\n", 6,
        "le 40: a length from 8 to 32"},
       {"not a prefix", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-destinations = [\"customer-a\"]\n", 6, "\"customer-a\" is not a prefix"},
       {"destinations not a list", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-destinations = \"10.0.0.0/8\"\n", 6,
        "allowed-destinations must be a list"},
       {"unknown action", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-actions = [\"discard\", \"drop\"]\n", 6,
        "allowed-actions may hold discard, rate-limit, mark, sample, terminal, redirect-vrf, redirect-ip, "
        "redirect-nexthop; not \"drop\""},
       {"action twice", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nallowed-actions = [\"discard\", \"discard\"]\n", 6, "lists \"discard\" twice"},
       {"minimum rate 0", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nminimum-rate = 0\n", 6, "minimum-rate must be a positive number"},
       {"limit of 0", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmax-rules = 0\n", 6, "max-rules must be between 1 and 4294967295, not 0"},
       {"unknown limit action", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmax-rules = 5\nmax-rules-action = \"drop\"\n", 7,
        "max-rules-action is \"warning\", \"discard\" or \"teardown\", not \"drop\""},
       {"limit action without a limit", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmax-rules-action = \"teardown\"\n", 6, "max-rules-action needs max-rules"},
       {"restart of 0", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmax-rules = 5\nmax-rules-restart = 0\n", 7, "max-rules-restart must be between 1 and 86400"},
       {"warning above 100%", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nmax-rules = 5\nmax-rules-warning = 101\n", 7,
        "max-rules-warning must be between 1 and 100"},
       {"global limit of 0", "max-rules = 0\n", 3, "max-rules must be between 1 and 4294967295, not 0"},
       {"global warning without a limit", "max-rules-warning = 50\n", 3, "max-rules-warning needs max-rules"},
       {"password longer than the kernel takes", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\npassword = \"" + std::string(81, 'p') + "\"\n", 6,
        "password is 81 bytes long; the kernel takes at most 80 (TCP_MD5SIG_MAXKEYLEN)"},
       {"empty password", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\npassword = \"\"\n", 6, "password must not be empty"},
       {"ttl-security not a boolean", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nttl-security = 1\n", 6, "ttl-security must be true or false"},
       {"hops without ttl-security", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nttl-security-hops = 1\n", 6, "ttl-security-hops needs ttl-security = true"},
       {"hops beyond 254", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nttl-security = true\nttl-security-hops = 255\n", 7,
        "ttl-security-hops must be between 0 and 254"},
       {"import policy not defined", "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nimport-policy = \"gold\"\n", 6,
        "import-policy \"gold\" is not an [[import-policy]] of this file"},
       {"import policy without a name", "[[import-policy]]\nallowed-actions = [\"discard\"]\n", 3,
        "an [[import-policy]] needs a name"},
       {"import policy twice", "[[import-policy]]\nname = \"a\"\n[[import-policy]]\nname = \"a\"\n", 5,
        "import policy a is already defined on line 3"},
       {"import policy key unknown", "[[import-policy]]\nname = \"a\"\nmax-rules = 5\n", 5,
        "unknown key 'max-rules' in [[import-policy]]"},
       {"named policy's prefix of another family", "[[import-policy]]\nname = \"v6\"\nallowed-destinations = "
        "[\"2001:db8::/32 le 128\"]\n" "[[neighbor]]\naddress = \"1.1.1.1\"\nremote-as = 2\nfamilies = [\"ipv4-flowspec\"]\nimport-policy = \"v6\"\n", 10,
        "allowed-destinations entry \"2001:db8::/32 le 128\" is of ipv6-flowspec"},
       // [[rule]]: each mistake on the line of the key at fault.
       {"rule as a table", "[rule]\nfamily = \"ipv4-flowspec\"\n", 3, "[[rule]] tables"},
       {"rule without family", "[[rule]]\nmatch = \"destination 10.0.0.0/8\"\nthen = [\"discard\"]\n", 3,
        "needs a family"},
       {"rule family short", "[[rule]]\nfamily = \"ipv4\"\nmatch = \"destination 10.0.0.0/8\"\nthen = [\"discard\"]\n",
        4, "not \"ipv4\""},
       {"rule without match", "[[rule]]\nfamily = \"ipv4-flowspec\"\nthen = [\"discard\"]\n", 3, "needs a match"},
       {"rule without then", "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\n", 3,
        "needs then"},
       {"rule then not a list",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\nthen = \"discard\"\n", 6,
        "then must be a list"},
       {"rule then of numbers",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\nthen = [\n5]\n", 7,
        "then holds action strings"},
       {"rule match that does not parse",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/33\"\nthen = [\"discard\"]\n", 5,
        "rule match: "},
       {"rule match of the other family",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 2001:db8::/32\"\nthen = [\"discard\"]\n", 5,
        "rule match: "},
       {"rule action of the other family",
        "[[rule]]\nfamily = \"ipv6-flowspec\"\nmatch = \"destination 2001:db8::/32\"\n\nthen = [\"redirect-ip "
        "10.0.0.1\"]\n",
        7, "rule then: \"redirect-ip 10.0.0.1\": an IPv4 address in an IPv6 rule"},
       {"rule unknown action",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\nthen = [\"police 5\"]\n", 6,
        "rule then: unknown action \"police 5\""},
       {"rule conflicting actions",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\nthen = [\"rate-limit 1\", "
        "\"rate-limit 2\"]\n",
        6, "conflicts with \"rate-limit 1\""},
       {"rule typo", "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8\"\nactions = []\n", 6,
        "unknown key 'actions' in [[rule]]"},
       // The same rule written twice, even in other words.
       {"duplicate rule",
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.0.0.0/8 protocol tcp\"\nthen = [\"discard\"]\n"
        "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"protocol =6 destination 10.0.0.0/8\"\nthen = [\"mark 1\"]\n",
        7, "rule ipv4-flowspec 10.0.0.0/8;*;protocol =6; is already defined on line 3"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      std::string text = c.text;
      // Cases that only concern later keys get the required head.
      if (text.find("router-id") == std::string::npos && text.find("local-as") == std::string::npos) text = head + text;
      auto r = parseConfig(text, "bad.toml");
      ASSERT_FALSE(r.ok());
      auto const& errors = r.reason();
      bool found = false;
      for (auto const& e : errors) {
         EXPECT_EQ(e.file, "bad.toml");
         if (e.line == c.line && e.text.find(c.says) != std::string::npos) found = true;
      }
      std::string all;
      for (auto const& e : errors) all += e.str() + "\n";
      EXPECT_TRUE(found) << "wanted line " << c.line << ": " << c.says << "\ngot:\n" << all;
   }
}

TEST(Config, ReadsRules) {
   auto r = parseConfig(std::string(kGood) + R"(
[[rule]]
family = "ipv4-flowspec"
match = "destination 192.0.2.0/24 protocol tcp destination-port =80"
then = ["rate-limit 125000", "mark 10"]

[[rule]]
family = "ipv6-flowspec"
match = "destination 2001:db8::/32"
then = ["redirect-ip 2001:db8::1 copy"]

[[rule]]
family = "ipv4-flowspec"
match = "destination 192.0.2.0/24 protocol tcp destination-port =80"
then = ["discard"]
)",
                        "rules.toml");
   // Lines are counted from the end of the good head.
   std::string_view const goodHead(kGood);
   auto const head = static_cast<std::size_t>(std::count(goodHead.begin(), goodHead.end(), '\n'));
   // The same match in the other family is another rule; the same in the same family is not.
   ASSERT_FALSE(r.ok());
   ASSERT_EQ(r.reason().size(), 1u);
   EXPECT_EQ(r.reason()[0].str(), "rules.toml:" + std::to_string(head + 12) +
                                      ": rule ipv4-flowspec 192.0.2.0/24;*;protocol =6;destination-port =80; "
                                      "is already defined on line " +
                                      std::to_string(head + 2));
   std::string good(kGood);
   good += "[[rule]]\nfamily = \"ipv6-flowspec\"\nmatch = \"destination 2001:db8::/32\"\nthen = [\"sample\", "
           "\"terminal\"]\n";
   auto ok = parseConfig(good, "rules.toml");
   ASSERT_TRUE(ok.ok()) << ok.reason().front().str();
   ASSERT_EQ(ok.value().rules.size(), 1u);
   RuleConfig const& rule = ok.value().rules[0];
   EXPECT_EQ(rule.line, head + 1);
   EXPECT_EQ(rule.rule.family, kIpv6Flowspec);
   EXPECT_EQ(rule.rule.match, "2001:db8::/32;*;");
   EXPECT_EQ(rule.rule.actions, (std::vector<std::string>{"sample", "terminal"}));
}

// A named policy gives its keys to the neighbors that refer to it, each neighbor's own keys
// taking precedence one by one; limits and session security as written.
TEST(Config, ReadsImportPoliciesLimitsAndSessionSecurity) {
   auto r = parseConfig(R"(router-id = "192.0.2.1"
local-as = 65001
max-rules = 100000
max-rules-warning = 90

[[import-policy]]
name = "customer"
allowed-destinations = ["10.0.0.0/8 le 32", "2001:db8::/32 ge 48 le 128"]
allowed-actions = ["discard", "rate-limit"]
minimum-rate = 1000

[[neighbor]]
address = "127.0.0.2"
remote-as = 65002
import-policy = "customer"
allowed-actions = ["discard"]
max-rules = 50
max-rules-action = "teardown"
max-rules-restart = 120
password = "s3cret"
ttl-security = true
ttl-security-hops = 1

[[neighbor]]
address = "127.0.0.3"
remote-as = 65003
max-rules = 10
)",
                        "trust.toml");
   ASSERT_TRUE(r.ok()) << r.reason().front().str();
   AgentConfig const& c = r.value();
   ASSERT_TRUE(c.maxRules);
   EXPECT_EQ(c.maxRules->maxRules, 100000u);
   EXPECT_EQ(c.maxRules->warningPercent, 90);
   NeighborConfig const& a = c.neighbors[0];
   EXPECT_EQ(a.importPolicy, "customer");
   ASSERT_TRUE(a.policy.destinations);
   ASSERT_EQ(a.policy.destinations->size(), 2u);
   EXPECT_EQ((*a.policy.destinations)[1].str(), "2001:db8::/32 ge 48");
   EXPECT_EQ(a.policy.actions->names(), std::vector<std::string>{"discard"}); // its own
   EXPECT_EQ(a.policy.minimumRate, 1000.0f);                                // the policy's
   ASSERT_TRUE(a.maxRules);
   EXPECT_EQ(a.maxRules->maxRules, 50u);
   EXPECT_EQ(a.maxRules->action, RuleLimitAction::teardown);
   EXPECT_EQ(a.maxRules->restartSeconds, 120u);
   EXPECT_EQ(a.maxRules->warningPercent, kDefaultLimitWarningPercent);
   EXPECT_EQ(a.password, "s3cret");
   EXPECT_TRUE(a.ttlSecurity);
   EXPECT_EQ(a.ttlSecurityHops, 1);
   EXPECT_TRUE(a.importLimited());
   NeighborConfig const& b = c.neighbors[1];
   EXPECT_FALSE(b.policy.destinations || b.policy.actions || b.policy.minimumRate);
   EXPECT_EQ(b.maxRules->action, RuleLimitAction::discard); // the default
   EXPECT_EQ(b.maxRules->restartSeconds, 60u);
   EXPECT_TRUE(b.password.empty());
   EXPECT_FALSE(b.ttlSecurity);
}

// The connection carries the session's security: a change of it resets; what the neighbor
// may import changes in place. A password is named, never written.
TEST(Config, ChangesOfSecurityResetAndChangesOfImportDoNot) {
   NeighborConfig from;
   from.address = *Ovnet::IpGenAddr::parse("127.0.0.2");
   struct Row {
      char const* name;
      std::function<void(NeighborConfig&)> change;
      std::vector<std::string> reset;
      std::vector<std::string> inPlace;
      bool importChanged;
   };
   auto const limit = [](std::uint32_t max) {
      RuleLimit l;
      l.maxRules = max;
      return l;
   };
   std::vector<Row> const rows{
       {"password set", [](NeighborConfig& n) { n.password = "one"; }, {"password set"}, {}, false},
       {"ttl-security", [](NeighborConfig& n) { n.ttlSecurity = true; }, {"ttl-security false -> true"}, {}, false},
       {"allowed destinations",
        [](NeighborConfig& n) { n.policy.destinations = {parsePrefixRange("10.0.0.0/8 le 32").value()}; },
        {},
        {"allowed-destinations any -> [10.0.0.0/8 le 32]"},
        true},
       {"allowed actions",
        [](NeighborConfig& n) {
           n.policy.actions.emplace();
           n.policy.actions->add(RuleAction::discard);
        },
        {},
        {"allowed-actions any -> [discard]"},
        true},
       {"minimum rate", [](NeighborConfig& n) { n.policy.minimumRate = 1500.0f; }, {}, {"minimum-rate none -> 1500"},
        true},
       {"max-rules", [&](NeighborConfig& n) { n.maxRules = limit(50); }, {},
        {"max-rules none -> 50 (discard, restart 60 s, warning at 75%)"}, true},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      NeighborConfig to = from;
      r.change(to);
      NeighborChanges const c = neighborChanges(from, to);
      EXPECT_EQ(c.reset, r.reset);
      EXPECT_EQ(c.inPlace, r.inPlace);
      EXPECT_EQ(c.importChanged, r.importChanged);
   }
   NeighborConfig one = from;
   one.password = "first-secret";
   NeighborConfig two = from;
   two.password = "second-secret";
   EXPECT_EQ(neighborChanges(one, two).reset, std::vector<std::string>{"password changed"});
   EXPECT_EQ(neighborChanges(one, from).reset, std::vector<std::string>{"password removed"});
   EXPECT_TRUE(neighborChanges(one, one).empty());
}

// A file that holds a password earns a warning when users other than its owner may read it.
TEST(Config, APasswordInAFileOthersMayReadIsWarnedOf) {
   std::string const path = testing::TempDir() + "/flowspecd-config-password.toml";
   std::string const text = "router-id = \"1.2.3.4\"\nlocal-as = 1\n[[neighbor]]\naddress = \"10.0.0.2\"\nremote-as = 2\n";
   struct Row {
      bool password;
      mode_t mode;
      bool warned;
   };
   for (Row const r : {Row{true, 0644, true}, Row{true, 0640, true}, Row{true, 0600, false}, Row{false, 0644, false}}) {
      SCOPED_TRACE(std::to_string(r.password) + " " + std::to_string(r.mode));
      std::ofstream(path) << text << (r.password ? "password = \"hunter2\"\n" : "");
      ASSERT_EQ(::chmod(path.c_str(), r.mode), 0);
      auto config = loadConfigFile(path);
      ASSERT_TRUE(config.ok());
      std::string const w = passwordExposure(config.value());
      EXPECT_EQ(!w.empty(), r.warned) << w;
      EXPECT_EQ(w.find("hunter2"), std::string::npos);
      EXPECT_EQ(w.find("chmod 600") != std::string::npos, r.warned);
   }
   std::remove(path.c_str());
}

TEST(Config, ReportsAllMistakesAtOnce) {
   auto r = parseConfig("router-id = 1\nlocal-as = 0\n[[neighbor]]\naddress = \"x\"\nremote-as = -1\n", "f.toml");
   ASSERT_FALSE(r.ok());
   EXPECT_EQ(r.reason().size(), 4u);
   EXPECT_EQ(r.reason()[0].str().substr(0, 9), "f.toml:1:");
}

TEST(Config, UnreadableFileIsOneErrorWithoutLine) {
   auto r = loadConfigFile("/nonexistent/flowspecd.toml");
   ASSERT_FALSE(r.ok());
   ASSERT_EQ(r.reason().size(), 1u);
   EXPECT_EQ(r.reason()[0].str(), "/nonexistent/flowspecd.toml: cannot read the file");
}

TEST(Config, LoadsAFile) {
   std::string const path = testing::TempDir() + "/flowspecd-config-test.toml";
   std::ofstream(path) << kGood;
   auto r = loadConfigFile(path);
   std::remove(path.c_str());
   ASSERT_TRUE(r.ok());
   EXPECT_EQ(r.value().source, path);
}

TEST(Config, Endpoints) {
   struct Case {
      char const* text;
      char const* expect; // nullptr: rejected
   };
   std::vector<Case> const cases{
       {"10.0.0.1", "10.0.0.1:179"}, {"10.0.0.1:1", "10.0.0.1:1"},
       {"[::1]", "[::1]:179"},       {"[2001:db8::1]:65535", "[2001:db8::1]:65535"},
       {"::", "[::]:179"},           {"10.0.0.1:0", nullptr},
       {"10.0.0.1:", nullptr},       {"10.0.0.1:x", nullptr},
       {"[10.0.0.1]:5", nullptr},    {"[::1", nullptr},
       {"[::1]x", nullptr},          {"", nullptr},
       {"host:179", nullptr},        {"10.0.0.1:123456", nullptr},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.text);
      auto e = parseEndpoint(c.text);
      if (!c.expect) {
         EXPECT_FALSE(e);
      } else {
         ASSERT_TRUE(e);
         EXPECT_EQ(e->str(), c.expect);
      }
   }
}

TEST(Config, GracefulRestart) {
   std::string const head = "router-id = \"1.2.3.4\"\nlocal-as = 65001\n[graceful-restart]\n"; // lines 1-3
   auto ok = parseConfig(head + "enabled = false\nrestart-time = 0\nstale-routes-time = 5\n"
                                "selection-deferral-time = 7\nnotification = false\n",
                         "gr.toml");
   ASSERT_TRUE(ok.ok());
   GracefulRestartConfig const& gr = ok.value().gracefulRestart;
   EXPECT_FALSE(gr.enabled);
   EXPECT_EQ(gr.restartTime, 0);
   EXPECT_EQ(gr.staleRoutesTime, 5);
   EXPECT_EQ(gr.selectionDeferralTime, 7);
   EXPECT_FALSE(gr.notification);
   EXPECT_EQ(gr.line, 3u);
   // Without the table: on, with the defaults.
   auto plain = parseConfig("router-id = \"1.2.3.4\"\nlocal-as = 65001\n", "gr.toml");
   ASSERT_TRUE(plain.ok());
   EXPECT_EQ(plain.value().gracefulRestart, GracefulRestartConfig{});
   EXPECT_TRUE(plain.value().gracefulRestart.enabled);
   std::vector<BadCase> const cases{
       {"restart time past 12 bits", head + "restart-time = 4096\n", 4, "restart-time must be between 0 and 4095"},
       {"stale time 0", head + "stale-routes-time = 0\n", 4, "stale-routes-time must be between 1 and 65535"},
       {"deferral as text", head + "selection-deferral-time = \"5\"\n", 4, "must be an integer"},
       {"enabled as a number", head + "enabled = 1\n", 4, "enabled must be true or false"},
       {"unknown key", head + "restart = 5\n", 4, "unknown key 'restart' in [graceful-restart]"},
       {"not a table", "router-id = \"1.2.3.4\"\nlocal-as = 65001\ngraceful-restart = true\n", 3,
        "[graceful-restart] table"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto r = parseConfig(c.text, "gr.toml");
      ASSERT_FALSE(r.ok());
      ASSERT_EQ(r.reason().size(), 1u) << r.reason()[0].str();
      EXPECT_EQ(r.reason()[0].line, c.line);
      EXPECT_NE(r.reason()[0].text.find(c.says), std::string::npos) << r.reason()[0].text;
   }
}

} // namespace
} // namespace Flowspecd
