// What a neighbor's received routes may be: the import decisions an adjacency RIB-in makes
// before a path reaches the RIB (AdjRibin::announce), and why it refuses one.
//
//   ImportPolicy     allowed destinations (per address family, a prefix list with ge/le
//                    lengths), allowed actions (the rule actions a path's flowspec extended
//                    communities ask for) and a minimum rate for rate limits;
//   RuleLimit        the most routes one session may hold in one family, what happens past
//                    it, and the share of it that earns a warning;
//   GlobalRuleLimit  the most routes every session together may hold;
//   ImportControl    what one neighbor's sessions are held to: its policy, its limit and the
//                    global limit, with whoever hears of limit crossings.
//
// A route is refused whole, with one ImportRefusal; the reasons' names and texts are one
// table (toStrep, importRefusalText). A decision that comes later (validation against the
// unicast routes, say) is one more reason of the same enum, counted and shown the same way.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/bgp/PathAttributes.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

class RibTable;

// Why a received route stays out of the RIB.
enum class ImportRefusal : std::uint8_t {
   destinationNotAllowed, // its destination is outside the allowed prefixes of its family
   noDestination,         // it has no destination prefix, and the allowed prefixes need one
   actionNotAllowed,      // it asks for an action the policy does not allow
   rateBelowMinimum,      // it rate-limits below the policy's minimum rate
   ruleLimit,             // the session holds its family's max-rules (action discard)
   globalRuleLimit,       // every session together holds the global max-rules
   // Validation against the unicast table (host/bgp/Validation.h): the rule is infeasible.
   unvalidatableDestination, // no destination prefix, or an IPv6 one with a non-zero offset
   noUnicastRoute,           // no unicast route covers the destination
   notOriginator,            // the best-match unicast route came from elsewhere
   moreSpecificOtherAs,      // a more-specific unicast route came from another neighboring AS
};
inline constexpr std::size_t kImportRefusalCount = 10;
// The reason's name, as show commands key their counts ("destinationNotAllowed").
char const* toStrep(ImportRefusal r);
// What it means, for people ("the destination is outside the allowed prefixes").
char const* importRefusalText(ImportRefusal r);
// Every reason, in enum order.
std::array<ImportRefusal, kImportRefusalCount> const& allImportRefusals();
using ImportRefusalCounts = std::array<std::uint64_t, kImportRefusalCount>;

// The rule actions, by the names the configuration's [[rule]] tables give them.
enum class RuleAction : std::uint8_t {
   discard,
   rateLimit,
   mark,
   sample,
   terminal,
   redirectVrf,
   redirectIp,
   redirectNexthop,
};
inline constexpr std::size_t kRuleActionCount = 8;
// "discard", "rate-limit", "mark", "sample", "terminal", "redirect-vrf", "redirect-ip",
// "redirect-nexthop".
char const* ruleActionName(RuleAction a);
std::optional<RuleAction> ruleActionFromName(std::string_view name);
// Every name, in enum order: "discard, rate-limit, ..., redirect-nexthop".
std::string ruleActionNamesText();

class RuleActionSet {
 public:
   constexpr RuleActionSet() = default;
   void add(RuleAction a) { bits_ |= bit(a); }
   bool has(RuleAction a) const { return (bits_ & bit(a)) != 0; }
   bool empty() const { return bits_ == 0; }
   // True when every action of this set is in `allowed`.
   bool within(RuleActionSet allowed) const { return (bits_ & ~allowed.bits_) == 0; }
   // The names of the actions, in enum order.
   std::vector<std::string> names() const;
   friend bool operator==(RuleActionSet, RuleActionSet) = default;

 private:
   static constexpr std::uint16_t bit(RuleAction a) { return static_cast<std::uint16_t>(1u << static_cast<unsigned>(a)); }
   std::uint16_t bits_ = 0;
};

// The actions a path's flowspec extended communities ask for, as the forwarding export reads
// them: a traffic rate of exactly 0 discards, any other (NaN included) rate-limits, in bytes
// or packets; the traffic-action flags sample and terminal; marking; a redirect to a VRF (any
// route-target form, the IPv6 one included), to an address, or to the next hop.
struct PathRuleActions {
   RuleActionSet actions;
   // The lowest bytes-per-second rate of its rate limits; NaN when one is NaN.
   std::optional<float> lowestRate;
};
PathRuleActions ruleActionsOf(PathAttributesContents const& attrs);

// One entry of a prefix list: "PREFIX [ge N] [le M]". It takes a destination prefix of its
// family inside PREFIX whose length is between ge and le; without them, PREFIX's length
// alone (ge alone runs to the address size, le alone starts at PREFIX's length).
struct PrefixRange {
   Ovnet::IpGenPrefix prefix;
   std::uint8_t ge = 0;
   std::uint8_t le = 0;
   bool covers(Ovnet::IpGenPrefix const& p) const;
   // The canonical text: "10.0.0.0/8 le 32", "2001:db8::/32 ge 48 le 128", "10.0.0.0/8".
   std::string str() const;
   friend bool operator==(PrefixRange const&, PrefixRange const&) = default;
};
// Reads one entry; the reason names what is wrong (bits beyond the length, a length out of
// order or beyond the address size, an unknown word).
Ovk::Result<PrefixRange, std::string> parsePrefixRange(std::string_view text);

class ImportPolicy : public Ovk::PtrInterface {
 public:
   struct Options {
      // Unset: any destination. Set: each family takes the entries of its own and nothing
      // else (a family without entries takes no route at all).
      std::optional<std::vector<PrefixRange>> destinations;
      // Unset: any action.
      std::optional<RuleActionSet> actions;
      // Unset: any rate; else a rate limit below it (bytes per second) is refused.
      std::optional<float> minimumRate;
      friend bool operator==(Options const&, Options const&) = default;
   };
   static Ovk::Ptr<ImportPolicy const> create(Options options);
   explicit ImportPolicy(Options options) : options_(std::move(options)) {}
   Options const& options() const { return options_; }

   // Why `key` may not be imported for its destination (RouteKeyBase::importDestination):
   // nothing when it may.
   std::optional<ImportRefusal> destinationRefusal(RouteKey const& key) const;
   // Why a path with `attrs` may not be imported for its actions; nothing when it may.
   std::optional<ImportRefusal> actionRefusal(PathAttributesContents const& attrs) const;
   bool checksActions() const { return options_.actions || options_.minimumRate; }

 private:
   Options options_;
};

enum class RuleLimitAction : std::uint8_t {
   warning,  // log and count each crossing; every route comes in
   discard,  // routes past the limit stay out, counted
   teardown, // the session ends with Cease 6/1 (RFC 4486) and stays down for restartSeconds
};
// "warning", "discard", "teardown".
char const* toStrep(RuleLimitAction a);
std::optional<RuleLimitAction> ruleLimitActionFromName(std::string_view name);

inline constexpr std::uint8_t kDefaultLimitWarningPercent = 75;

struct RuleLimit {
   std::uint32_t maxRules = 0; // at least 1
   RuleLimitAction action = RuleLimitAction::discard;
   std::uint8_t warningPercent = kDefaultLimitWarningPercent; // 1 to 100
   std::uint32_t restartSeconds = 60;                         // teardown only
   // The number of routes whose reaching earns the warning: warningPercent of maxRules,
   // rounded up, at least 1.
   std::uint64_t warningAt() const;
   friend bool operator==(RuleLimit const&, RuleLimit const&) = default;
};

// What every session together may hold: the received paths of the tables it is given, both
// families counted together. Changed in place (a reload); the RIB-ins read it as they go.
class GlobalRuleLimit : public Ovk::PtrInterface {
 public:
   GlobalRuleLimit();
   ~GlobalRuleLimit() override;
   // Nothing: no limit.
   void limitIs(std::optional<RuleLimit> limit) { limit_ = limit; }
   std::optional<RuleLimit> const& limit() const { return limit_; }
   // A table whose received paths count (the agent's own paths do not).
   void tableIs(Ovk::Ptr<RibTable> table);
   std::uint64_t held() const;

   // Where the count stands against the limit, so that each crossing is heard once.
   bool aboveWarning = false;
   bool reached = false;

 private:
   std::optional<RuleLimit> limit_;
   std::vector<Ovk::Ptr<RibTable>> tables_;
};

// A crossing of a limit or of its warning threshold, as the RIB-in that saw it tells.
struct LimitEvent {
   enum class Kind : std::uint8_t {
      warning,          // the session's routes of the family reached the warning share
      exceeded,         // past the limit (warning), or a route refused at it (discard)
      teardown,         // the session ends for it
      globalWarning,    // the same for the global limit
      globalReached,
   };
   Kind kind;
   AfiSafi family;
   std::uint64_t held = 0; // routes held when it happened
   RuleLimit limit;
};

// What one neighbor's sessions are held to. Immutable once set on a RIB-in; a reload sets a
// new one.
struct ImportControl : public Ovk::PtrInterface {
   Ovk::Ptr<ImportPolicy const> policy;  // null: every route
   std::optional<RuleLimit> limit;       // per family
   Ovk::Ptr<GlobalRuleLimit> global;     // null: no global limit
   std::function<void(LimitEvent const&)> heard; // may be empty
};

} // namespace Routing::Bgp
