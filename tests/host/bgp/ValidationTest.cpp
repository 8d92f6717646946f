// Validation of rules against the unicast table: the decision table, and revalidation when
// unicast routes come, change and go.
#include "host/bgp/Validation.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/bgp/AdjRibin.h"
#include "host/bgp/UnicastRouteKey.h"

namespace Routing::Bgp {
namespace {

// A rule reduced to what validation reads: its destination, and whether that has an offset
// (the flowspec key answers validationDestination the same way; its own test covers the
// wire forms).
class RuleKey : public RouteKey {
 public:
   RuleKey(std::optional<Ovnet::IpGenPrefix> dest, std::uint8_t offset) : dest_(dest), offset_(offset) {}
   std::uint32_t hash() const override { return dest_ ? dest_->hash() ^ offset_ : 1; }
   bool compare(Ovk::DedupHandle const* other) const override {
      auto const* o = static_cast<RuleKey const*>(other);
      return o->dest_ == dest_ && o->offset_ == offset_;
   }
   Afi afi() const override { return dest_ && dest_->af() == Ovnet::AddressFamily::ipv6 ? Afi::afiIpv6 : Afi::afiIpv4; }
   std::uint8_t safi() const override { return Safi::flowspec; }
   NlriType nlriType() const override { return NlriType::ipv4Flowspec; }
   int orderCompare(RouteKeyBase const& other) const override {
      auto const& o = static_cast<RuleKey const&>(other);
      return hash() < o.hash() ? -1 : hash() > o.hash() ? 1 : 0;
   }
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override { return orderCompare(*other) <= 0; }
   std::optional<Ovnet::IpGenPrefix> validationDestination() const override {
      return offset_ == 0 ? dest_ : std::nullopt;
   }

 private:
   std::optional<Ovnet::IpGenPrefix> dest_;
   std::uint8_t offset_;
};

class RuleKeyTable : public RouteKeyDedupTable {
 public:
   RuleKeyTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId()) {}
};

class RuleRibin : public AdjRibin {
 public:
   using AdjRibin::AdjRibin;
   AdjRibinPath instantiateRibinPathFromNlriResults(PathKey const& k, Ovk::Ptr<RtAttr const> const& attrs,
                                                    BgpParseNlriResults const&) const override {
      return AdjRibinPath{k.routeKey, attrs, k.source};
   }
};

BgpPeer peer(char const* addr, std::uint32_t as, std::uint32_t id) {
   return BgpPeer{*Ovnet::IpGenAddr::parse(addr), as, 65000, id, BgpL3VrfId::defaultVrfId()};
}

struct Env {
   Ovk::Ptr<RibSources> sources = RibSources::create(peer("0.0.0.0", 65000, 100));
   // External: A and A2 in AS 65001 (A2 another speaker), B in 65002; internal: I, and I2,
   // another session of I's speaker (a route reflector's client seen twice).
   RibSource A = sources->sourceIs(peer("192.0.2.1", 65001, 1));
   RibSource A2 = sources->sourceIs(peer("192.0.2.11", 65001, 11));
   RibSource B = sources->sourceIs(peer("192.0.2.2", 65002, 2));
   RibSource I = sources->sourceIs(peer("10.0.0.3", 65000, 3));
   RibSource I2 = sources->sourceIs(peer("10.0.0.13", 65000, 3));
   std::map<bool, Ovk::Ptr<RibTable>> unicast{
       {false, Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), AfiSafi::ipv4Unicast(), sources)},
       {true, Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), AfiSafi::ipv6Unicast(), sources)}};
   std::map<bool, Ovk::Ptr<UnicastRouteKeyDedupTable>> unicastKeys{
       {false, Ovk::makePtr<UnicastRouteKeyDedupTable>(AfiSafi::ipv4Unicast(), BgpL3VrfId::defaultVrfId())},
       {true, Ovk::makePtr<UnicastRouteKeyDedupTable>(AfiSafi::ipv6Unicast(), BgpL3VrfId::defaultVrfId())}};
   Ovk::Ptr<RuleKeyTable> ruleKeys = Ovk::makePtr<RuleKeyTable>();
   Ovk::Ptr<RibTable> rules = Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), AfiSafi::ipv4Flowspec(), sources);
   Ovk::Ptr<RtAttrDedupTable> attrTable = RtAttrDedupTable::create();
   Ovk::Ptr<RuleValidation> validation = Ovk::makePtr<RuleValidation>(unicast[false], unicast[true]);

   // Attributes with an AS_SEQUENCE of `path` (empty: an empty AS_PATH).
   Ovk::Ptr<RtAttr const> attrs(std::vector<std::uint32_t> const& path) {
      PathAttributesContents c;
      c.asPathLength = static_cast<std::uint32_t>(path.size());
      c.neighborAs = path.size() ? *path.begin() : 0;
      std::string text;
      for (std::uint32_t as : path) text += std::to_string(as) + " ";
      c.asPath = Ovk::String(text);
      return attrTable->rtAttrIs(std::move(c));
   }
   Ovk::Ptr<RouteKey const> unicastKey(char const* prefix) {
      auto const p = *Ovnet::IpGenPrefix::parse(prefix);
      return unicastRouteKeyFactory(p)->dedupRouteKey(unicastKeys[p.af() == Ovnet::AddressFamily::ipv6].ptr());
   }
   void route(char const* prefix, RibSource from, std::vector<std::uint32_t> const& path) {
      auto const k = unicastKey(prefix);
      tableOf(*k).pathIs(*k, from, attrs(path));
   }
   void unroute(char const* prefix, RibSource from) {
      auto const k = unicastKey(prefix);
      tableOf(*k).pathDel(*k, from);
   }
   RibTable& tableOf(RouteKey const& k) { return *unicast[k.afi() == Afi::afiIpv6]; }
   // What the agent does after each UPDATE: unicast first, the rules they concern judged
   // again, then the rules' table. The number of rules judged again.
   std::size_t flush() {
      for (auto& [v6, t] : unicast) t->flushChanges();
      std::size_t const n = validation->revalidate();
      rules->flushChanges();
      return n;
   }
   Ovk::Ptr<RouteKey const> rule(char const* dest, std::uint8_t offset = 0) {
      std::optional<Ovnet::IpGenPrefix> const p = *dest ? Ovnet::IpGenPrefix::parse(dest) : std::nullopt;
      return newRouteKey<RuleKey>(p, offset)->dedupRouteKey(ruleKeys.ptr());
   }
   std::string judge(RouteKey const& rule, RibSource from, std::vector<std::uint32_t> const& path) {
      std::optional<ImportRefusal> const why = validation->judge(rule, attrs(path)->contents(), from);
      return why ? toStrep(*why) : "feasible";
   }
};

struct Route {
   char const* prefix;
   char const* from; // "A", "A2", "B", "I", "I2"
   std::vector<std::uint32_t> path;
};

TEST(ValidationTest, DecisionTable) {
   struct Row {
      char const* name;
      std::vector<Route> routes;
      char const* dest; // "" for none
      std::uint8_t offset;
      char const* from;
      std::vector<std::uint32_t> path;
      char const* outcome;
   };
   Row const rows[] = {
       {"no destination prefix", {{"10.0.0.0/8", "A", {65001}}}, "", 0, "A", {65001}, "unvalidatableDestination"},
       {"no unicast route", {{"192.168.0.0/16", "A", {65001}}}, "10.1.0.0/16", 0, "A", {65001}, "noUnicastRoute"},
       {"route from the same neighbor", {{"10.0.0.0/8", "A", {65001}}}, "10.1.0.0/16", 0, "A", {65001}, "feasible"},
       {"exact prefix", {{"10.1.0.0/16", "A", {65001}}}, "10.1.0.0/16", 0, "A", {65001}, "feasible"},
       {"route from another AS", {{"10.0.0.0/8", "B", {65002}}}, "10.1.0.0/16", 0, "A", {65001}, "notOriginator"},
       {"external: same left-most AS, other speaker", {{"10.0.0.0/8", "A2", {65001, 65010}}}, "10.1.0.0/16", 0, "A",
        {65001}, "feasible"},
       {"the longest match decides", {{"10.0.0.0/8", "A", {65001}}, {"10.1.0.0/16", "B", {65002}}}, "10.1.2.0/24", 0,
        "A", {65001}, "notOriginator"},
       {"a shorter route from elsewhere does not matter", {{"10.0.0.0/8", "B", {65002}}, {"10.1.0.0/16", "A", {65001}}},
        "10.1.2.0/24", 0, "A", {65001}, "feasible"},
       {"more-specific from another AS", {{"10.0.0.0/8", "A", {65001}}, {"10.1.2.0/24", "B", {65002}}}, "10.1.0.0/16",
        0, "A", {65001}, "moreSpecificOtherAs"},
       {"more-specific from the same AS", {{"10.0.0.0/8", "A", {65001}}, {"10.1.2.0/24", "A2", {65001}}},
        "10.1.0.0/16", 0, "A", {65001}, "feasible"},
       {"other AS's route outside the destination", {{"10.0.0.0/8", "A", {65001}}, {"10.2.0.0/16", "B", {65002}}},
        "10.1.0.0/16", 0, "A", {65001}, "feasible"},
       {"internal rule with an empty AS_PATH", {{"10.0.0.0/8", "B", {65002}}}, "10.1.0.0/16", 0, "I", {}, "feasible"},
       {"internal rule from outside, route from elsewhere", {{"10.0.0.0/8", "B", {65002}}}, "10.1.0.0/16", 0, "I",
        {65001}, "notOriginator"},
       {"internal rule and route from one speaker's two sessions", {{"10.0.0.0/8", "I2", {65002}}}, "10.1.0.0/16", 0,
        "I", {65002}, "feasible"},
       {"internal route, internal more-specific from the same AS", {{"10.0.0.0/8", "I", {}}, {"10.1.2.0/24", "I2", {}}},
        "10.1.0.0/16", 0, "I", {}, "feasible"},
       // IPv6, offsets included: a destination with an offset matches whatever its leading
       // bits are, so no route vouches for it, however well its pattern looks covered.
       {"IPv6 route from the same neighbor", {{"2001:db8::/32", "A", {65001}}}, "2001:db8:1::/48", 0, "A", {65001},
        "feasible"},
       {"IPv6 offset, covered pattern", {{"2001:db8::/32", "A", {65001}}}, "2001:db8:1::/48", 16, "A", {65001},
        "unvalidatableDestination"},
       {"IPv6 offset, default route from the same neighbor", {{"::/0", "A", {65001}}}, "2001:db8:1::/48", 64, "A",
        {65001}, "unvalidatableDestination"},
       {"IPv6 more-specific from another AS", {{"2001:db8::/32", "A", {65001}}, {"2001:db8:1:2::/64", "B", {65002}}},
        "2001:db8:1::/48", 0, "A", {65001}, "moreSpecificOtherAs"},
       {"IPv6 rule, only IPv4 routes", {{"0.0.0.0/0", "A", {65001}}}, "2001:db8::/32", 0, "A", {65001},
        "noUnicastRoute"},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Env env;
      std::map<std::string, RibSource> const by{{"A", env.A}, {"A2", env.A2}, {"B", env.B}, {"I", env.I}, {"I2", env.I2}};
      for (Route const& u : r.routes) env.route(u.prefix, by.at(u.from), u.path);
      env.flush();
      EXPECT_EQ(env.judge(*env.rule(r.dest, r.offset), by.at(r.from), r.path), r.outcome);
   }
}

// ---- Revalidation ----

struct RibinEnv : Env {
   Ovk::Ptr<RuleRibin> ribin = Ovk::makePtr<RuleRibin>(AdjRibinType::received, NlriType::ipv4Flowspec,
                                                       BgpInstanceEpoch{}, nullptr, nullptr);
   RibinEnv() {
      ribin->sourceIs(A);
      ribin->ribTableIs(rules);
      ribin->validationIs(validation);
   }
   AdjRibin::Announced announce(Ovk::Ptr<RouteKey const> const& k) {
      BgpParsedNlri n;
      n.reachable = true;
      n.routeKey = k;
      auto const a = ribin->announce(n, attrs({65001}));
      flush();
      return a;
   }
   // "in" when the rule is a best path, else the reason it waits aside for.
   std::string state(Ovk::Ptr<RouteKey const> const& k) const {
      if (rules->routePresent(*k)) return "in";
      for (AdjRibin::Refused const& r : ribin->refused()) {
         if (r.key == k) return toStrep(r.reason);
      }
      return "gone";
   }
};

TEST(ValidationTest, UnicastChangesMoveRulesInAndOutWithoutAResend) {
   RibinEnv env;
   auto const rule = env.rule("10.1.0.0/16");
   auto const elsewhere = env.rule("192.168.1.0/24");
   EXPECT_EQ(env.announce(rule), AdjRibin::Announced::refused);
   EXPECT_EQ(env.announce(elsewhere), AdjRibin::Announced::refused);
   EXPECT_EQ(env.state(rule), "noUnicastRoute");
   struct Step {
      char const* name;
      std::function<void(RibinEnv&)> change;
      char const* state;
      std::size_t judged; // rules judged again: only those the change concerns
   };
   Step const steps[] = {
       {"the covering route arrives after the rule", [](RibinEnv& e) { e.route("10.0.0.0/8", e.A, {65001}); }, "in", 1},
       {"a more-specific from another AS", [](RibinEnv& e) { e.route("10.1.5.0/24", e.B, {65002}); },
        "moreSpecificOtherAs", 1},
       {"it goes", [](RibinEnv& e) { e.unroute("10.1.5.0/24", e.B); }, "in", 1},
       {"a route elsewhere concerns no rule", [](RibinEnv& e) { e.route("172.16.0.0/12", e.B, {65002}); }, "in", 0},
       {"the best path moves to another AS", [](RibinEnv& e) {
           e.route("10.0.0.0/8", e.B, {65002});
           e.unroute("10.0.0.0/8", e.A);
        }, "notOriginator", 1},
       {"it moves back", [](RibinEnv& e) { e.route("10.0.0.0/8", e.A, {65001}); }, "in", 1},
       {"a longer match inside the rule's destination from the same AS", [](RibinEnv& e) {
           e.route("10.1.0.0/16", e.A2, {65001});
        }, "in", 1},
       {"the route is withdrawn", [](RibinEnv& e) {
           e.unroute("10.1.0.0/16", e.A2);
           e.unroute("10.0.0.0/8", e.A);
           e.unroute("10.0.0.0/8", e.B);
        }, "noUnicastRoute", 1},
   };
   for (Step const& s : steps) {
      SCOPED_TRACE(s.name);
      s.change(env);
      EXPECT_EQ(env.flush(), s.judged);
      EXPECT_EQ(env.state(rule), s.state);
      EXPECT_EQ(env.state(elsewhere), "noUnicastRoute");
   }
   EXPECT_EQ(env.ribin->counters().becameFeasible, 3u);
   EXPECT_EQ(env.ribin->counters().becameInfeasible, 3u);
   // A withdrawn infeasible rule leaves the index: nothing is judged for it again.
   EXPECT_EQ(env.validation->rules(), 2u);
   EXPECT_FALSE(env.ribin->withdraw(*rule));
   EXPECT_EQ(env.state(rule), "gone");
   EXPECT_EQ(env.validation->rules(), 1u);
   env.route("10.0.0.0/8", env.A, {65001});
   EXPECT_EQ(env.flush(), 0u);
   EXPECT_FALSE(env.rules->routePresent(*rule));
}

TEST(ValidationTest, StoppingValidationLetsTheInfeasibleRulesIn) {
   RibinEnv env;
   auto const rule = env.rule("10.1.0.0/16");
   env.announce(rule);
   EXPECT_EQ(env.state(rule), "noUnicastRoute");
   env.ribin->validationIs(nullptr);
   env.flush();
   EXPECT_EQ(env.state(rule), "in");
   EXPECT_EQ(env.validation->rules(), 0u);
   // Starting again judges the rules kept aside; held paths are judged by reimportSome.
   env.ribin->validationIs(env.validation);
   Ovk::Ptr<RouteKey const> cursor;
   env.ribin->reimportSome(cursor, 100);
   env.flush();
   EXPECT_EQ(env.state(rule), "noUnicastRoute");
}

} // namespace
} // namespace Routing::Bgp
