// The rules the agent originates, in its RIB: those of the configuration's [[rule]] tables
// and those added at run time over the control socket.
//
// Each rule is one path of the agent itself (kLocalRibSource) in the default VRF's RIB table
// of its family: ORIGIN IGP, an empty AS_PATH, the communities of its actions and, for
// "redirect-nexthop ADDR", that next hop. The path is made the way the plugin makes a peer's:
// the family's route-key dedup table makes the key of the rule's match (dedupFromRule), the
// next-hop table its next hop (nexthopOfAddress), and the host's attribute builder its attributes,
// each community of the kind an UPDATE's would be. The path then competes in best path like
// any other, and each change is flushed to the export at once.
//
// The agent holds one path per key, so a configured rule and a run-time rule with the same
// family and match cannot both be in force: the run-time rule is, for as long as it exists;
// deleting it puts the configured one back. A reload changes configured rules only.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/Config.h"
#include "agent/OriginatedRule.h"
#include "host/bgp/PathAttributes.h"
#include "host/mnemo/EntityManager.h"
#include "host/plugin/Plugin.h"

namespace Flowspecd {

// Who added a run-time rule, and for how long.
struct RuntimeRuleOptions {
   std::string source = "cli"; // "cli" (the control socket) or "api" (the gRPC API)
   std::string client;         // the API caller's address, for `rule list`
   // The rule withdraws itself once this has passed; forever without one.
   std::optional<std::chrono::seconds> lifetime;
};

class Origination {
 public:
   // `entityManager`, when given, is where the FSIB is read for `list`.
   Origination(Ovk::Ptr<Plugin::Context> context, Ovk::Ptr<Mnemo::EntityManager> entityManager = nullptr);
   // Withdraws every originated rule.
   ~Origination();
   Origination(Origination const&) = delete;
   Origination& operator=(Origination const&) = delete;

   // A rule as the plugin makes it: its key (interned), its NLRI as the key writes it, and
   // the agent's path attributes for it.
   struct Bound {
      Ovk::Ptr<RouteKey const> key;
      std::vector<std::uint8_t> nlri;
      Ovk::Ptr<RtAttr const> attrs;
   };
   // Binds `rule` to its family's plugin; the reason when no plugin serves the family, the
   // plugin makes no key of it, or its UPDATE would not fit one message to every peer it may
   // go to (fitsOneUpdate, the UPDATE writer's own check) with the size it would need.
   Ovk::Result<Bound, std::string> bind(OriginatedRule const& rule) const;
   // The mistakes of configured rules only the plugin can find (what bind refuses), each
   // with the file and line of its [[rule]].
   ConfigErrors check(std::vector<RuleConfig> const& rules, std::string const& file) const;

   // What configuredRulesIs changed.
   struct Diff {
      std::size_t added = 0;
      std::size_t withdrawn = 0;
      std::size_t changed = 0; // same match, other actions
      std::size_t kept = 0;
      std::size_t refused = 0; // not bound (check() says why)
      friend bool operator==(Diff const&, Diff const&) = default;
   };
   // Makes the configured rules `rules` (each family and match once): new ones are
   // originated, gone ones withdrawn, changed ones replaced; run-time rules stay.
   Diff configuredRulesIs(std::vector<RuleConfig> const& rules, std::string const& file);

   using RuntimeOptions = RuntimeRuleOptions;
   // A rule's identity for the API: 16 bytes derived from its family and NLRI, the same
   // whoever adds it and however often.
   using Uuid = std::array<std::uint8_t, 16>;
   struct Added {
      std::string result; // "added", or "replaced" when one with its match existed
      Uuid uuid{};
   };
   // A run-time rule; a refused rule's reason otherwise. Adding a rule that exists replaces
   // its actions, source and lifetime.
   Ovk::Result<Added, std::string> runtimeRuleIs(OriginatedRule rule, RuntimeOptions options = {});
   // Deletes the run-time rule of `family` and `match` (rule text); the reason when there is
   // none (or the match does not parse).
   Ovk::Result<std::string, std::string> runtimeRuleDel(AfiSafi family, std::string_view match);
   // Deletes the run-time rule of `uuid`; false when there is none.
   bool runtimeRuleDel(Uuid const& uuid);
   // Deletes every run-time rule of `family` added by `source`; how many.
   std::size_t runtimeRulesDel(AfiSafi family, std::string_view source);
   // True when a run-time rule of `family` has this match (rule text that parses).
   bool hasRuntimeRule(AfiSafi family, std::string_view match) const;

   // The run-time rule whose path the agent holds for `key` (a key of the family's table),
   // when there is one: where it came from and its identity, for the API's listing.
   struct RuntimeInfo {
      std::string source;
      Uuid uuid{};
      std::chrono::system_clock::time_point added;
   };
   std::optional<RuntimeInfo> runtimeInfo(AfiSafi family, RouteKey const& key) const;

   // Called with each rule that withdrew itself at the end of its lifetime ("ipv4-flowspec
   // MATCH"), after the RIB took the change.
   void expiryHandlerIs(std::function<void(std::string const&)> handler) { onExpired_ = std::move(handler); }
   // Rules with a lifetime, and those that ran out.
   std::size_t expiring() const { return expiries_.size(); }
   std::uint64_t expired() const { return expired_; }

   // {"rules": [{"family", "match", "actions", "nlri", "source": "config" | "cli" | "api",
   // "file", "line" (config), "client" (api), "expiresIn" (seconds left, for a rule with a
   // lifetime), "inForce" (its path is the agent's path in the RIB), "best" (that path is the
   // best of the rule), "fsib" (the rule is in the FSIB)}]}, configured rules first, each kind
   // in family and NLRI order.
   nlohmann::json listJson() const;

   // The rules whose path is in the RIB now.
   std::size_t inForce() const;
   // Run-time rules, by source ("cli", "api").
   std::map<std::string, std::size_t> runtimeBySource() const;
   std::size_t configured() const { return configured_.size(); }

 private:
   struct Entry {
      OriginatedRule rule;
      std::string file;
      std::uint32_t line = 0; // configured rules
      Bound bound;
      bool inRib = false; // its path is the agent's path of its key
      // Run-time rules.
      std::string source;
      std::string client;
      std::optional<Ovk::Clock::time_point> expires;
      Uuid uuid{};
      std::chrono::system_clock::time_point added;
   };
   // Family, then NLRI: one rule per key.
   using RuleId = std::pair<std::uint16_t, std::vector<std::uint8_t>>;
   static RuleId idOf(Entry const& e) { return {static_cast<std::uint16_t>(e.rule.family.afi()), e.bound.nlri}; }

   // Puts the path of `e` into the RIB (replacing the agent's path of its key).
   void install(Entry& e);
   // Takes the path of `e` out of the RIB.
   void uninstall(Entry& e);
   // The entry whose path should be in force for `id`: the run-time one, else the configured.
   Entry* winner(RuleId const& id);
   void flush();
   static Uuid uuidOf(RuleId const& id);
   // Takes the run-time rule `it` out (the configured rule of its match back in force); the
   // result text of a deletion.
   std::string eraseRuntime(std::map<RuleId, Entry>::iterator it);
   // Keeps one task armed for the earliest lifetime's end.
   void armExpiry();
   void expireDue();

   Ovk::Ptr<Plugin::Context> context_;
   Ovk::Ptr<Mnemo::EntityManager> entityManager_;
   std::unique_ptr<PathAttributesBuilder> attributes_;
   std::map<RuleId, Entry> configured_;
   std::map<RuleId, Entry> runtime_;
   std::set<std::pair<Ovk::Clock::time_point, RuleId>> expiries_;
   std::optional<Ovk::TaskId> expiryTask_;
   Ovk::Clock::time_point expiryArmedFor_{};
   std::uint64_t expired_ = 0;
   std::function<void(std::string const&)> onExpired_;
};

} // namespace Flowspecd
