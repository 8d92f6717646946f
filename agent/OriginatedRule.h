// Rules the agent originates, as an operator writes them: a family, a match in the rule text
// (docs/rule-grammar.md) and a list of actions, each of which becomes a flowspec extended
// community (RFC 8955 section 7) that the forwarding export reads back as that action:
//
//   "discard"                      traffic-rate-bytes 0x8006, rate 0
//   "rate-limit BYTES_PER_SECOND"  traffic-rate-bytes 0x8006, the rate as an IEEE float
//   "sample", "terminal"           one traffic-action 0x8007 with the sample / terminal bits
//   "mark DSCP"                    traffic-marking 0x8009, DSCP 0 to 63
//   "redirect-vrf RT"              redirect 0x8008 / 0x8108 / 0x8208 (the route target's
//                                  2-octet AS, IPv4 and 4-octet AS forms)
//   "redirect-ip ADDR [copy]"      IPv4: redirect-to-IPv4 0x010c; IPv6: the IPv6 address
//                                  specific community 0x000c; the copy flag in the last bit
//   "redirect-nexthop [ADDR]"      redirect-to-next-hop 0x0800; ADDR, when given, is the
//                                  next hop of the agent's own path (without one the agent's
//                                  FSIB has nothing to redirect to)
//
// Everything here is pure: the configuration reads rules with it before the plugins are
// loaded, and the control socket checks rules added at run time with it. What only the
// plugin knows (the rule's NLRI and whether its UPDATE fits one message) is checked when the
// rule is bound to it (Origination::bind).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/flowspec/FlowspecKey.h"
#include "host/fwk/Result.h"
#include "host/net/IpGenAddr.h"

namespace Flowspecd {

using Routing::Bgp::AfiSafi;

// The largest BGP message (RFC 4271 section 4.1).
inline constexpr std::size_t kMaxMessage = 4096;

// The communities of a rule's actions, and the next hop of its path.
struct RuleCommunities {
   std::vector<std::uint64_t> extComms; // sorted by value
   std::vector<std::array<std::uint8_t, 20>> ip6ExtComms;
   std::optional<Ovnet::IpGenAddr> nexthop;
   friend bool operator==(RuleCommunities const&, RuleCommunities const&) = default;
};

// Reads `then` for a rule of `family` (kIpv4Flowspec or kIpv6Flowspec). The reason names
// the action at fault: unknown, malformed, for the other family, or in conflict with an
// earlier one (two rate-limits, discard and rate-limit, two redirects, one action twice).
Ovk::Result<RuleCommunities, std::string> communitiesOf(AfiSafi family, std::vector<std::string> const& then);

// Groups the words after "then" into actions: each action keyword starts one, the words
// that follow belong to it ("rate-limit 1000 mark 10" -> "rate-limit 1000", "mark 10").
std::vector<std::string> actionsOfWords(std::vector<std::string> const& words);

// The actions of communities, as communitiesOf reads them ("rate-limit 125000", "mark 10").
std::vector<std::string> actionTexts(RuleCommunities const& c);

// A rule ready to originate, as the operator wrote it. Its route key, NLRI and path are the
// plugin's to make (agent/Origination.h).
struct OriginatedRule {
   AfiSafi family;
   Flowspec::FlowspecKey key;      // the match as the forwarding library reads it
   std::string match;              // its canonical text: one text per rule
   RuleCommunities communities;
   std::vector<std::string> actions; // canonical action texts
};

// "ipv4-flowspec" / "ipv6-flowspec", and the short "ipv4" / "ipv6" the CLI uses.
std::optional<AfiSafi> ruleFamilyOf(std::string_view name);

// Reads a whole rule. The reason says what is wrong, starting with "match: " or "then: ": a
// match that does not parse (the grammar's message) or gives a component twice (an NLRI
// carries each type once, in ascending order), an action that cannot be read.
Ovk::Result<OriginatedRule, std::string> originatedRuleOf(AfiSafi family, std::string_view match,
                                                          std::vector<std::string> const& then);

// A rule's lifetime as written: seconds ("90"), or numbers with units run together ("90s",
// "15m", "2h", "1d", "1h30m"). From 1 second to 365 days; nothing for anything else.
std::optional<std::chrono::seconds> parseLifetime(std::string_view text);
inline constexpr std::chrono::seconds kMaxLifetime{365 * 24 * 3600};

} // namespace Flowspecd
