// Import decisions: prefix ranges, the actions a path's communities ask for, the policy's
// verdicts, and the adjacency RIB-in that applies them with its limits, over keys of a test
// family whose destination is set by hand.
#include "host/bgp/ImportPolicy.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <set>

#include "host/bgp/AdjRibin.h"

namespace Routing::Bgp {
namespace {

Ovnet::IpGenPrefix P(char const* text) { return *Ovnet::IpGenPrefix::parse(text); }

// ---- Prefix ranges ----

TEST(PrefixRangeTest, ReadsEachFormAndRefusesEachMistake) {
   struct Row {
      char const* text;
      char const* canonical; // null: refused
      char const* says;      // part of the reason when refused
   };
   Row const rows[] = {
       {"10.0.0.0/8", "10.0.0.0/8", nullptr},
       {"10.0.0.0/8 le 32", "10.0.0.0/8 le 32", nullptr},
       {"  10.0.0.0/8   le 24 ", "10.0.0.0/8 le 24", nullptr},
       {"10.0.0.0/8 ge 16", "10.0.0.0/8 ge 16", nullptr},
       {"10.0.0.0/8 ge 16 le 24", "10.0.0.0/8 ge 16 le 24", nullptr},
       {"10.0.0.0/8 le 24 ge 16", "10.0.0.0/8 ge 16 le 24", nullptr},
       {"10.0.0.0/8 ge 24 le 24", "10.0.0.0/8 ge 24 le 24", nullptr},
       {"10.0.0.0/8 ge 32", "10.0.0.0/8 ge 32", nullptr},
       {"2001:db8::/32 ge 48 le 128", "2001:db8::/32 ge 48", nullptr},
       {"0.0.0.0/0 le 32", "0.0.0.0/0 le 32", nullptr},
       {"", nullptr, "an empty prefix"},
       {"10.0.0.1", nullptr, "is not a prefix"},
       {"ten/8", nullptr, "is not a prefix"},
       {"10.1.0.0/8 le 32", nullptr, "has address bits beyond its length (10.0.0.0/8?)"},
       {"10.0.0.0/8 le 33", nullptr, "le 33: a length from 8 to 32"},
       {"2001:db8::/32 le 129", nullptr, "le 129: a length from 32 to 128"},
       {"10.0.0.0/16 ge 8", nullptr, "ge 8 is shorter than 10.0.0.0/16 itself"},
       {"10.0.0.0/8 ge 24 le 16", nullptr, "le 16 is shorter than ge 24"},
       {"10.0.0.0/16 le 8", nullptr, "le 8 is shorter than 10.0.0.0/16 itself"},
       {"10.0.0.0/8 le", nullptr, "le needs a length"},
       {"10.0.0.0/8 le x", nullptr, "le x: a length"},
       {"10.0.0.0/8 le 24 le 28", nullptr, "each once"},
       {"10.0.0.0/8 to 24", nullptr, "\"to\" where"},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.text);
      auto const got = parsePrefixRange(r.text);
      if (r.canonical) {
         ASSERT_TRUE(got.ok()) << got.reason();
         EXPECT_EQ(got.value().str(), r.canonical);
         // The canonical text reads back as the same range.
         auto const again = parsePrefixRange(got.value().str());
         ASSERT_TRUE(again.ok());
         EXPECT_EQ(again.value(), got.value());
      } else {
         ASSERT_FALSE(got.ok());
         EXPECT_NE(got.reason().find(r.says), std::string::npos) << got.reason();
      }
   }
}

TEST(PrefixRangeTest, CoversPrefixesInsideWithTheirLengthInRange) {
   struct Row {
      char const* range;
      char const* prefix;
      bool covered;
   };
   Row const rows[] = {
       {"10.0.0.0/8", "10.0.0.0/8", true},
       {"10.0.0.0/8", "10.1.0.0/16", false}, // exact length only
       {"10.0.0.0/8 le 32", "10.1.2.3/32", true},
       {"10.0.0.0/8 le 32", "11.0.0.0/8", false},
       {"10.0.0.0/8 le 32", "0.0.0.0/0", false}, // wider than the range's prefix
       {"10.0.0.0/8 ge 16 le 24", "10.1.0.0/16", true},
       {"10.0.0.0/8 ge 16 le 24", "10.1.2.0/24", true},
       {"10.0.0.0/8 ge 16 le 24", "10.1.2.0/25", false},
       {"10.0.0.0/8 ge 16 le 24", "10.0.0.0/8", false},
       {"2001:db8::/32 ge 48", "2001:db8:1::/48", true},
       {"2001:db8::/32 ge 48", "2001:db9::/48", false},
       {"10.0.0.0/8 le 32", "::/0", false}, // another family
       {"0.0.0.0/0 le 32", "0.0.0.0/0", true},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(std::string(r.range) + " / " + r.prefix);
      EXPECT_EQ(parsePrefixRange(r.range).value().covers(P(r.prefix)), r.covered);
   }
}

// ---- Actions of a path ----

std::uint64_t rate(float bytesPerSecond, std::uint16_t type = 0x8006) {
   std::uint32_t bits;
   std::memcpy(&bits, &bytesPerSecond, sizeof bits);
   return (std::uint64_t{type} << 48) | bits;
}

PathAttributesContents withCommunities(std::vector<std::uint64_t> const& comms,
                                       std::initializer_list<char const*> ipv6Redirects = {}) {
   PathAttributesContents c;
   for (std::uint64_t v : comms) c.extCommList.push(ExtComm::create(v));
   for (char const* a : ipv6Redirects) {
      std::array<std::uint8_t, 20> b{0x00, 0x0c};
      auto const addr = *Ovnet::IpGenAddr::parse(a);
      std::copy(addr.bytes().begin(), addr.bytes().end(), b.begin() + 2);
      c.extCommIp6List.push(ExtCommIp6::create(b));
   }
   return c;
}

TEST(RuleActionsTest, EachCommunityIsTheActionItsRuleWouldName) {
   struct Row {
      char const* name;
      PathAttributesContents attrs;
      std::vector<std::string> actions;
      std::optional<float> lowestRate;
   };
   std::vector<Row> const rows{
       {"none", withCommunities({}), {}, std::nullopt},
       {"rate 0 discards", withCommunities({rate(0)}), {"discard"}, std::nullopt},
       {"rate limits", withCommunities({rate(1000), rate(500)}), {"rate-limit"}, 500.0f},
       {"a packet rate limits, without a byte rate", withCommunities({rate(10, 0x800c)}), {"rate-limit"}, std::nullopt},
       {"a packet rate of 0 discards", withCommunities({rate(0, 0x800c)}), {"discard"}, std::nullopt},
       {"traffic-action bits", withCommunities({0x8007000000000003ull}), {"sample", "terminal"}, std::nullopt},
       {"traffic-action without bits", withCommunities({0x8007000000000000ull}), {}, std::nullopt},
       {"marking", withCommunities({0x800900000000000aull}), {"mark"}, std::nullopt},
       {"redirect to VRF, 2-octet AS", withCommunities({0x8008fde800000064ull}), {"redirect-vrf"}, std::nullopt},
       {"redirect to VRF, IPv4", withCommunities({0x8108c00002010007ull}), {"redirect-vrf"},
        std::nullopt},
       {"redirect to VRF, 4-octet AS", withCommunities({0x8208fa56ea000001ull}), {"redirect-vrf"}, std::nullopt},
       {"redirect to an IPv4 address", withCommunities({0x010cc00002010000ull}), {"redirect-ip"}, std::nullopt},
       {"redirect to an IPv6 address", withCommunities({}, {"2001:db8::1"}), {"redirect-ip"}, std::nullopt},
       {"redirect to the next hop", withCommunities({0x0800000000000000ull}), {"redirect-nexthop"}, std::nullopt},
       {"route targets are no action", withCommunities({0x0002fde800000064ull}), {}, std::nullopt},
       {"several", withCommunities({rate(0), 0x800900000000000aull, 0x8008fde800000064ull}),
        {"discard", "mark", "redirect-vrf"}, std::nullopt},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      PathRuleActions const a = ruleActionsOf(r.attrs);
      EXPECT_EQ(a.actions.names(), r.actions);
      EXPECT_EQ(a.lowestRate, r.lowestRate);
   }
   // A NaN rate stays the lowest, whatever comes after it.
   auto const nan = ruleActionsOf(withCommunities({rate(std::nanf("")), rate(5)}));
   ASSERT_TRUE(nan.lowestRate);
   EXPECT_TRUE(std::isnan(*nan.lowestRate));
}

// A community classified flowspec that names no action is a broken invariant of ExtComm.h.
class StrayFlowspecComm : public ExtComm {
 public:
   using ExtComm::ExtComm;
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
};

TEST(RuleActionsDeathTest, AFlowspecCommunityOfNoKnownActionIsFatal) {
   PathAttributesContents c;
   c.extCommList.push(Ovk::makePtr<StrayFlowspecComm>(0x80ff000000000000ull));
   EXPECT_DEATH(ruleActionsOf(c), "a flowspec community of no known action");
}

TEST(RuleActionsTest, NamesReadBackAndLimitActionsToo) {
   for (std::size_t i = 0; i < kRuleActionCount; ++i) {
      auto const a = static_cast<RuleAction>(i);
      EXPECT_EQ(ruleActionFromName(ruleActionName(a)), a);
   }
   EXPECT_FALSE(ruleActionFromName("drop"));
   for (RuleLimitAction a : {RuleLimitAction::warning, RuleLimitAction::discard, RuleLimitAction::teardown}) {
      EXPECT_EQ(ruleLimitActionFromName(toStrep(a)), a);
   }
   EXPECT_FALSE(ruleLimitActionFromName("shutdown"));
   // One name and one text per reason, all different.
   std::set<std::string> names, texts;
   for (ImportRefusal r : allImportRefusals()) {
      names.insert(toStrep(r));
      texts.insert(importRefusalText(r));
   }
   EXPECT_EQ(names.size(), kImportRefusalCount);
   EXPECT_EQ(texts.size(), kImportRefusalCount);
}

TEST(RuleLimitTest, WarningShareIsRoundedUpAndAtLeastOne) {
   struct Row {
      std::uint32_t max;
      std::uint8_t percent;
      std::uint64_t at;
   };
   for (Row const r : {Row{50, 75, 38}, Row{4, 75, 3}, Row{100, 100, 100}, Row{1, 1, 1}, Row{3, 1, 1},
                       Row{4294967295u, 100, 4294967295u}}) {
      RuleLimit l;
      l.maxRules = r.max;
      l.warningPercent = r.percent;
      EXPECT_EQ(l.warningAt(), r.at) << r.max << " at " << int(r.percent) << "%";
   }
}

// ---- Keys, a RIB-in and a table ----

// A key of a test family: identity and order by `id`, its destination set by hand.
class DestKey : public RouteKey {
 public:
   DestKey(std::uint32_t id, std::optional<Ovnet::IpGenPrefix> dest, Afi afi)
       : id_(id), dest_(std::move(dest)), afi_(afi) {}
   std::uint32_t hash() const override { return id_ * 2654435761u; }
   bool compare(Ovk::DedupHandle const* other) const override {
      auto const* o = dynamic_cast<DestKey const*>(other);
      return o && o->id_ == id_;
   }
   Afi afi() const override { return afi_; }
   std::uint8_t safi() const override { return Safi::flowspec; }
   NlriType nlriType() const override { return NlriType::ipv4Flowspec; }
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override {
      return id_ <= static_cast<DestKey const&>(*other).id_;
   }
   std::optional<Ovnet::IpGenPrefix> importDestination() const override { return dest_; }
   std::string displayText() const override { return "key" + std::to_string(id_); }

 private:
   std::uint32_t id_;
   std::optional<Ovnet::IpGenPrefix> dest_;
   Afi afi_;
};

class DestTable : public RouteKeyDedupTable {
 public:
   DestTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpVrfIdBase{}) {}
};

// The RIB-in of the test family: the path is the key and the attributes.
class TestAdjRibin : public AdjRibin {
 public:
   TestAdjRibin() : AdjRibin(AdjRibinType::received, NlriType::ipv4Flowspec, {}, nullptr, nullptr) {}
   AdjRibinPath instantiateRibinPathFromNlriResults(PathKey const& k, Ovk::Ptr<RtAttr const> const& attrs,
                                                    BgpParseNlriResults const&) const override {
      return AdjRibinPath{k.routeKey, attrs, k.source};
   }
};

struct Env {
   Env() {
      source = sources->sourceIs(BgpPeer{*Ovnet::IpGenAddr::parse("10.0.0.2"), 65002, 65001, 2, BgpVrfIdBase{}});
      other = sources->sourceIs(BgpPeer{*Ovnet::IpGenAddr::parse("10.0.0.3"), 65003, 65001, 3, BgpVrfIdBase{}});
      ribin->sourceIs(source);
      ribin->ribTableIs(table);
   }
   ~Env() {
      table->pathDelAll(source);
      table->pathDelAll(other);
   }
   Ovk::Ptr<RouteKey const> key(std::uint32_t id, std::optional<char const*> dest = {}, Afi afi = Afi::afiIpv4) {
      return newRouteKey<DestKey>(id, dest ? std::optional(P(*dest)) : std::nullopt, afi)->dedupRouteKey(keys.ptr());
   }
   Ovk::Ptr<RtAttr const> attrs(std::vector<std::uint64_t> const& comms = {rate(0)}) {
      PathAttributesContents c = withCommunities(comms);
      return attrTable->rtAttrIs(std::move(c));
   }
   AdjRibin::Announced announce(Ovk::Ptr<RouteKey const> const& k, Ovk::Ptr<RtAttr const> const& a) {
      BgpParseNlriResults n;
      n.routeKey = k;
      n.reachable = true;
      return ribin->announce(n, a);
   }
   AdjRibin::Announced announce(std::uint32_t id) { return announce(key(id, "10.0.0.0/24"), attrs()); }
   std::uint64_t refused(ImportRefusal r) const { return ribin->counters().refused[static_cast<std::size_t>(r)]; }
   void control(std::optional<ImportPolicy::Options> policy, std::optional<RuleLimit> limit = {},
                Ovk::Ptr<GlobalRuleLimit> global = nullptr) {
      auto c = Ovk::makePtr<ImportControl>();
      if (policy) c->policy = ImportPolicy::create(*policy);
      c->limit = limit;
      c->global = std::move(global);
      c->heard = [this](LimitEvent const& e) { events.push_back(e); };
      ribin->importControlIs(c);
   }

   Ovk::Ptr<DestTable> keys = Ovk::makePtr<DestTable>();
   Ovk::Ptr<RtAttrDedupTable> attrTable = RtAttrDedupTable::create();
   Ovk::Ptr<RibSources> sources = RibSources::create(BgpPeer{});
   Ovk::Ptr<RibTable> table = Ovk::makePtr<RibTable>(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
   Ovk::Ptr<TestAdjRibin> ribin = Ovk::makePtr<TestAdjRibin>();
   RibSource source = 0;
   RibSource other = 0;
   std::vector<LimitEvent> events;
};

ImportPolicy::Options destinations(std::vector<char const*> ranges) {
   ImportPolicy::Options o;
   o.destinations.emplace();
   for (char const* r : ranges) o.destinations->push_back(parsePrefixRange(r).value());
   return o;
}

ImportPolicy::Options actions(std::vector<RuleAction> allowed, std::optional<float> minimumRate = {}) {
   ImportPolicy::Options o;
   o.actions.emplace();
   for (RuleAction a : allowed) o.actions->add(a);
   o.minimumRate = minimumRate;
   return o;
}

// Each row: a rule (destination, communities), a policy, the outcome and its reason.
TEST(AdjRibinImportTest, PolicyVerdictOneRowEach) {
   struct Row {
      char const* name;
      std::optional<char const*> dest;
      Afi afi;
      std::vector<std::uint64_t> comms;
      ImportPolicy::Options policy;
      std::optional<ImportRefusal> refused;
   };
   auto const customer = destinations({"10.0.0.0/8 le 32", "2001:db8::/32 ge 48 le 128"});
   auto const dropOrLimit = actions({RuleAction::discard, RuleAction::rateLimit}, 1000.0f);
   std::vector<Row> const rows{
       {"inside", "10.1.2.0/24", Afi::afiIpv4, {rate(0)}, customer, {}},
       {"outside", "11.1.2.0/24", Afi::afiIpv4, {rate(0)}, customer, ImportRefusal::destinationNotAllowed},
       {"wider than allowed", "10.0.0.0/7", Afi::afiIpv4, {rate(0)}, customer, ImportRefusal::destinationNotAllowed},
       {"no destination", {}, Afi::afiIpv4, {rate(0)}, customer, ImportRefusal::noDestination},
       {"no destination, the whole space allowed", {}, Afi::afiIpv4, {rate(0)}, destinations({"0.0.0.0/0 le 32"}), {}},
       {"IPv6 inside at 48", "2001:db8:1::/48", Afi::afiIpv6, {rate(0)}, customer, {}},
       {"IPv6 too short", "2001:db8::/40", Afi::afiIpv6, {rate(0)}, customer, ImportRefusal::destinationNotAllowed},
       {"IPv6 rule, only IPv4 entries", "2001:db8:1::/48", Afi::afiIpv6, {rate(0)}, destinations({"10.0.0.0/8 le 32"}),
        ImportRefusal::destinationNotAllowed},
       {"discard allowed", "10.0.0.0/24", Afi::afiIpv4, {rate(0)}, dropOrLimit, {}},
       {"rate limit allowed", "10.0.0.0/24", Afi::afiIpv4, {rate(5000)}, dropOrLimit, {}},
       {"rate at the minimum", "10.0.0.0/24", Afi::afiIpv4, {rate(1000)}, dropOrLimit, {}},
       {"rate below the minimum", "10.0.0.0/24", Afi::afiIpv4, {rate(999)}, dropOrLimit, ImportRefusal::rateBelowMinimum},
       {"NaN rate", "10.0.0.0/24", Afi::afiIpv4, {rate(std::nanf(""))}, dropOrLimit, ImportRefusal::rateBelowMinimum},
       {"a redirect with an allowed action: refused whole", "10.0.0.0/24", Afi::afiIpv4,
        {rate(0), 0x8008fde800000064ull}, dropOrLimit, ImportRefusal::actionNotAllowed},
       {"marking not allowed", "10.0.0.0/24", Afi::afiIpv4, {0x800900000000000aull}, dropOrLimit,
        ImportRefusal::actionNotAllowed},
       {"no action at all", "10.0.0.0/24", Afi::afiIpv4, {}, dropOrLimit, {}},
       {"no policy keys", "99.0.0.0/24", Afi::afiIpv4, {0x010cc00002010000ull}, ImportPolicy::Options{}, {}},
   };
   std::uint32_t id = 0;
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Env env;
      env.control(r.policy);
      auto const k = env.key(++id, r.dest, r.afi);
      AdjRibin::Announced const got = env.announce(k, env.attrs(r.comms));
      if (r.refused) {
         EXPECT_EQ(got, AdjRibin::Announced::refused);
         EXPECT_FALSE(env.table->path(*k, env.source));
         EXPECT_EQ(env.refused(*r.refused), 1u);
         EXPECT_EQ(env.ribin->counters().refusedTotal(), 1u);
         ASSERT_EQ(env.ribin->refused().size(), 1u);
         EXPECT_EQ(env.ribin->refused()[0].reason, *r.refused);
      } else {
         EXPECT_EQ(got, AdjRibin::Announced::path);
         EXPECT_TRUE(env.table->path(*k, env.source));
         EXPECT_EQ(env.ribin->counters().refusedTotal(), 0u);
      }
   }
}

// A rule the peer had announced with an allowed action and announces again with a refused
// one loses its path: the announcement replaced it. Withdrawn, it leaves the refused ones.
TEST(AdjRibinImportTest, ARefusedAnnouncementReplacesThePathItWasFor) {
   Env env;
   env.control(actions({RuleAction::discard}));
   auto const k = env.key(1, "10.0.0.0/24");
   ASSERT_EQ(env.announce(k, env.attrs({rate(0)})), AdjRibin::Announced::path);
   EXPECT_EQ(env.announce(k, env.attrs({0x8008fde800000064ull})), AdjRibin::Announced::refused);
   EXPECT_FALSE(env.table->path(*k, env.source));
   EXPECT_EQ(env.ribin->counters().withdrawn, 1u);
   ASSERT_EQ(env.ribin->refused().size(), 1u);
   EXPECT_EQ(env.ribin->refused()[0].key->displayText(), "key1");
   EXPECT_EQ(env.ribin->refused()[0].attrs, env.attrs({0x8008fde800000064ull}));
   // Announced again as allowed: in, and no longer kept aside.
   EXPECT_EQ(env.announce(k, env.attrs({rate(0)})), AdjRibin::Announced::path);
   EXPECT_TRUE(env.ribin->refused().empty());
   EXPECT_EQ(env.announce(k, env.attrs({0x8008fde800000064ull})), AdjRibin::Announced::refused);
   // The peer withdraws what was refused: no unknown withdrawal, nothing kept aside.
   EXPECT_FALSE(env.ribin->withdraw(*k));
   EXPECT_TRUE(env.ribin->refused().empty());
   EXPECT_EQ(env.ribin->counters().unknownWithdrawals, 0u);
   EXPECT_FALSE(env.ribin->withdraw(*k));
   EXPECT_EQ(env.ribin->counters().unknownWithdrawals, 1u);
   EXPECT_EQ(env.refused(ImportRefusal::actionNotAllowed), 2u);
}

// A new control re-reads what is kept aside: the reason of the policy in force, and nothing
// of what it allows (the peer's routes come again through import).
TEST(AdjRibinImportTest, RefusedRulesKeptAsideFollowThePolicyInForce) {
   Env env;
   env.control(destinations({"10.0.0.0/8 le 32"}));
   ASSERT_EQ(env.announce(env.key(1, "11.0.0.0/24"), env.attrs({0x800900000000000aull})), AdjRibin::Announced::refused);
   ASSERT_EQ(env.announce(env.key(2, "12.0.0.0/24"), env.attrs({rate(0)})), AdjRibin::Announced::refused);
   env.control(actions({RuleAction::discard}));
   auto kept = env.ribin->refused();
   ASSERT_EQ(kept.size(), 1u);
   EXPECT_EQ(kept[0].key->displayText(), "key1");
   EXPECT_EQ(kept[0].reason, ImportRefusal::actionNotAllowed);
   env.ribin->importControlIs(nullptr);
   EXPECT_TRUE(env.ribin->refused().empty());
}

// What is kept aside is bounded: refusals beyond are counted only.
TEST(AdjRibinImportTest, RefusedRulesKeptAsideAreBounded) {
   Env env;
   env.control(destinations({"10.0.0.0/8 le 32"}));
   std::size_t const sent = AdjRibin::kRefusedKept + 10;
   for (std::uint32_t i = 0; i < sent; ++i) {
      ASSERT_EQ(env.announce(env.key(i, "11.0.0.0/24"), env.attrs()), AdjRibin::Announced::refused);
   }
   EXPECT_EQ(env.ribin->refused().size(), AdjRibin::kRefusedKept);
   EXPECT_EQ(env.ribin->refusedNotKept(), 10u);
   EXPECT_EQ(env.refused(ImportRefusal::destinationNotAllowed), sent);
   // In the family's order.
   auto const kept = env.ribin->refused();
   EXPECT_EQ(kept.front().key->displayText(), "key0");
   EXPECT_EQ(kept.back().key->displayText(), "key" + std::to_string(AdjRibin::kRefusedKept - 1));
}

RuleLimit limitOf(std::uint32_t max, RuleLimitAction action, std::uint8_t warningPercent = 75) {
   RuleLimit l;
   l.maxRules = max;
   l.action = action;
   l.warningPercent = warningPercent;
   l.restartSeconds = 7;
   return l;
}

std::vector<LimitEvent::Kind> kinds(std::vector<LimitEvent> const& events) {
   std::vector<LimitEvent::Kind> out;
   for (auto const& e : events) out.push_back(e.kind);
   return out;
}

using Kind = LimitEvent::Kind;

// Discard: the rules beyond stay out, each counted; the crossing is heard once, and again
// after the count went under the limit and back.
TEST(AdjRibinImportTest, DiscardLimitRefusesTheRulesBeyondAndHearsEachCrossingOnce) {
   Env env;
   env.control(std::nullopt, limitOf(4, RuleLimitAction::discard));
   for (std::uint32_t i = 0; i < 2; ++i) ASSERT_EQ(env.announce(i), AdjRibin::Announced::path);
   EXPECT_TRUE(env.events.empty());
   ASSERT_EQ(env.announce(2), AdjRibin::Announced::path); // 3 of 4: the 75% warning
   EXPECT_EQ(kinds(env.events), std::vector<Kind>{Kind::warning});
   ASSERT_EQ(env.announce(3), AdjRibin::Announced::path);
   for (std::uint32_t i = 4; i < 40; ++i) EXPECT_EQ(env.announce(i), AdjRibin::Announced::refused);
   EXPECT_EQ(env.table->pathsOf(env.source), 4u);
   EXPECT_EQ(env.refused(ImportRefusal::ruleLimit), 36u);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::warning, Kind::exceeded}));
   EXPECT_EQ(env.events.back().held, 4u);
   EXPECT_EQ(env.events.back().family, AfiSafi::ipv4Flowspec());
   // Nothing of them is kept: no memory for what is beyond the limit.
   EXPECT_TRUE(env.ribin->refused().empty());
   EXPECT_EQ(env.ribin->refusedNotKept(), 0u);
   // A rule held may change its path: no room taken.
   EXPECT_EQ(env.announce(env.key(3, "10.0.0.0/24"), env.attrs({rate(5)})), AdjRibin::Announced::path);
   // Room made: the next rule comes in, and the limit reached again is heard again.
   ASSERT_TRUE(env.ribin->withdraw(*env.key(0, "10.0.0.0/24")));
   EXPECT_EQ(env.announce(50), AdjRibin::Announced::path);
   EXPECT_EQ(env.announce(51), AdjRibin::Announced::refused);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::warning, Kind::exceeded, Kind::exceeded}));
   EXPECT_EQ(env.ribin->counters().limitExceeded, 2u);
   EXPECT_EQ(env.ribin->counters().limitWarnings, 1u);
   // A withdrawal of a rule refused for the limit is one of a rule never held.
   EXPECT_FALSE(env.ribin->withdraw(*env.key(51, "10.0.0.0/24")));
   EXPECT_EQ(env.ribin->counters().unknownWithdrawals, 1u);
}

// Warning: every rule comes in; going past the limit is heard once per crossing.
TEST(AdjRibinImportTest, WarningLimitKeepsEveryRuleAndHearsTheCrossing) {
   Env env;
   env.control(std::nullopt, limitOf(3, RuleLimitAction::warning, 100));
   for (std::uint32_t i = 0; i < 3; ++i) ASSERT_EQ(env.announce(i), AdjRibin::Announced::path);
   EXPECT_EQ(kinds(env.events), std::vector<Kind>{Kind::warning}); // at 100%: the limit itself
   for (std::uint32_t i = 3; i < 10; ++i) ASSERT_EQ(env.announce(i), AdjRibin::Announced::path);
   EXPECT_EQ(env.table->pathsOf(env.source), 10u);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::warning, Kind::exceeded}));
   EXPECT_EQ(env.events.back().held, 4u); // the count the crossing made
   EXPECT_EQ(env.ribin->counters().refusedTotal(), 0u);
   // Back to the limit, then past it again.
   for (std::uint32_t i = 0; i < 7; ++i) ASSERT_TRUE(env.ribin->withdraw(*env.key(i, "10.0.0.0/24")));
   ASSERT_EQ(env.announce(20), AdjRibin::Announced::path);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::warning, Kind::exceeded, Kind::exceeded}));
}

// Teardown: the rule beyond changes nothing and asks for the session's end.
TEST(AdjRibinImportTest, TeardownLimitAsksForTheSessionsEnd) {
   Env env;
   env.control(std::nullopt, limitOf(2, RuleLimitAction::teardown));
   ASSERT_EQ(env.announce(0), AdjRibin::Announced::path);
   ASSERT_EQ(env.announce(1), AdjRibin::Announced::path);
   EXPECT_EQ(env.announce(2), AdjRibin::Announced::teardown);
   EXPECT_EQ(env.table->pathsOf(env.source), 2u);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::warning, Kind::teardown}));
   EXPECT_EQ(env.events.back().limit.restartSeconds, 7u);
   EXPECT_EQ(env.ribin->counters().limitExceeded, 1u);
   EXPECT_EQ(env.ribin->counters().refusedTotal(), 0u);
}

// Policy first: a rule refused by policy takes no room under the limit.
TEST(AdjRibinImportTest, PolicyComesBeforeTheLimit) {
   Env env;
   env.control(destinations({"10.0.0.0/8 le 32"}), limitOf(1, RuleLimitAction::discard));
   EXPECT_EQ(env.announce(env.key(1, "11.0.0.0/24"), env.attrs()), AdjRibin::Announced::refused);
   EXPECT_EQ(env.announce(env.key(2, "10.0.0.0/24"), env.attrs()), AdjRibin::Announced::path);
   EXPECT_EQ(env.announce(env.key(3, "10.0.1.0/24"), env.attrs()), AdjRibin::Announced::refused);
   EXPECT_EQ(env.refused(ImportRefusal::destinationNotAllowed), 1u);
   EXPECT_EQ(env.refused(ImportRefusal::ruleLimit), 1u);
}

// The global limit counts every neighbor's rules, not the agent's own.
TEST(AdjRibinImportTest, GlobalLimitCountsEveryNeighborsRules) {
   Env env;
   auto global = Ovk::makePtr<GlobalRuleLimit>();
   global->tableIs(env.table);
   global->limitIs(limitOf(3, RuleLimitAction::discard, 50));
   env.control(std::nullopt, std::nullopt, global);
   env.table->pathIs(*env.key(100, "10.0.0.0/24"), env.other, env.attrs());
   env.table->pathIs(*env.key(101, "10.0.0.0/24"), kLocalRibSource, env.attrs());
   EXPECT_EQ(global->held(), 1u);
   ASSERT_EQ(env.announce(0), AdjRibin::Announced::path);
   EXPECT_EQ(kinds(env.events), std::vector<Kind>{Kind::globalWarning});
   ASSERT_EQ(env.announce(1), AdjRibin::Announced::path);
   EXPECT_EQ(env.announce(2), AdjRibin::Announced::refused);
   EXPECT_EQ(env.announce(3), AdjRibin::Announced::refused);
   EXPECT_EQ(env.refused(ImportRefusal::globalRuleLimit), 2u);
   EXPECT_EQ(kinds(env.events), (std::vector<Kind>{Kind::globalWarning, Kind::globalReached}));
   // The other neighbor's rule goes (its session went, say): room again.
   env.table->pathDel(*env.key(100, "10.0.0.0/24"), env.other);
   EXPECT_EQ(env.announce(2), AdjRibin::Announced::path);
   env.table->pathDel(*env.key(101, "10.0.0.0/24"), kLocalRibSource);
}

// A new policy applied to what the session holds: the rules it refuses leave, counted and
// kept aside; a slice at a time.
TEST(AdjRibinImportTest, ReimportTakesOutWhatANewPolicyRefuses) {
   Env env;
   for (std::uint32_t i = 0; i < 10; ++i) {
      ASSERT_EQ(env.announce(env.key(i, i % 2 ? "11.0.0.0/24" : "10.0.0.0/24"), env.attrs()), AdjRibin::Announced::path);
   }
   env.table->pathIs(*env.key(1, "11.0.0.0/24"), env.other, env.attrs()); // another peer's path stays
   env.control(destinations({"10.0.0.0/8 le 32"}));
   Ovk::Ptr<RouteKey const> cursor;
   EXPECT_EQ(env.ribin->reimportSome(cursor, 4), 2u); // keys 0..3
   ASSERT_TRUE(cursor);
   std::size_t slices = 1;
   std::size_t removed = 2;
   while (cursor) {
      removed += env.ribin->reimportSome(cursor, 4);
      ++slices;
   }
   EXPECT_EQ(removed, 5u);
   EXPECT_EQ(slices, 3u);
   EXPECT_EQ(env.table->pathsOf(env.source), 5u);
   EXPECT_TRUE(env.table->path(*env.key(1, "11.0.0.0/24"), env.other));
   EXPECT_EQ(env.refused(ImportRefusal::destinationNotAllowed), 5u);
   EXPECT_EQ(env.ribin->refused().size(), 5u);
   // Without a policy the walk ends at once.
   env.ribin->importControlIs(nullptr);
   Ovk::Ptr<RouteKey const> none;
   EXPECT_EQ(env.ribin->reimportSome(none, 4), 0u);
   EXPECT_FALSE(none);
}

// Without a control the RIB-in takes everything and keeps nothing aside.
TEST(AdjRibinImportTest, WithoutAControlEverythingComesIn) {
   Env env;
   EXPECT_EQ(env.ribin->importControl(), nullptr);
   for (std::uint32_t i = 0; i < 100; ++i) ASSERT_EQ(env.announce(i), AdjRibin::Announced::path);
   EXPECT_EQ(env.ribin->counters().announced, 100u);
   EXPECT_TRUE(env.ribin->refused().empty());
}

} // namespace
} // namespace Routing::Bgp
