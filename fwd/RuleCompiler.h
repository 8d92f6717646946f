// Compiles one FSIB rule into nftables rule text, or says exactly why it cannot be installed.
//
// The match: every component's operator/value list becomes the exact set of values it
// accepts (ValueSet.h), and each set becomes as few nftables conditions on its field as
// possible: nothing for the whole domain, one value or range, a range with holes cut out
// (`th dport 80-443 th dport != 81-442`) while that takes at most four conditions, else an
// anonymous set (`th dport { 80, 443, 8080 }`, or `!= { ... }` when the complement is
// smaller). Sets stay rare on purpose: the kernel names each anonymous set by scanning the
// table's sets, so a table with a set per rule takes tens of seconds to load.
//
// Some components need a disjunction, which one nftables rule cannot say: Port (source OR
// destination port) and IPv6 Fragment (no fragment header OR a header of some kind). Those
// compile to several alternatives that exclude each other (`th sport S` and
// `th sport != S th dport S`), so a packet matches at most one of the rule's nftables rules;
// all of them count into the rule's one counter. At most `maxAlternatives` per rule.
//
// Components imply a protocol: Port needs TCP or UDP, TCP Flags TCP, ICMP type/code ICMP
// (ICMPv6 in IPv6 rules); these sets are intersected with the rule's own protocol list.
//
// Outcomes:
//   install       `matches` holds the alternatives, the actions are below;
//   neverMatches  some component (or the protocols the components imply) accepts nothing:
//                 the rule cannot match a packet, nothing needs programming, and `reason`
//                 says which component;
//   refused       the dataplane cannot honour the rule exactly (an action it cannot perform,
//                 a redirect it has no table for, a match it cannot express); `reason` says
//                 what. Nothing of a refused rule is ever installed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fwd/ValueSet.h"
#include "host/flowspec/Rule.h"
#include "host/net/IpGenAddr.h"

namespace Fwd {

enum class Hook : std::uint8_t { prerouting, input, forward };
char const* toStrep(Hook h);
std::optional<Hook> hookFromName(std::string_view name);

struct CompileConfig {
   Hook hook = Hook::prerouting;
   std::map<std::uint32_t, std::uint32_t> vrfTables; // VRF id -> Linux routing table
   std::uint16_t nflogGroup = 0;                     // where sampled packets go
};

// Where a redirecting rule sends its packets. The table layer gives each distinct target a
// firewall mark and programs the policy routing (or the copy) for it.
enum class RedirectKind : std::uint8_t {
   vrf,     // mark -> ip rule -> the VRF's table (`table`)
   address, // mark -> ip rule -> a table of ours with a default route via `address`
   copy,    // mark -> `dup to address` in the family's copy chain; the original goes on
};
struct RedirectTarget {
   RedirectKind kind = RedirectKind::vrf;
   std::uint32_t vrfId = 0;  // with vrf
   std::uint32_t table = 0;  // with vrf: the configured Linux table
   Ovnet::IpGenAddr address; // with address and copy
   std::string str() const;  // "VRF 7 (table 100)", "192.0.2.1", "copy to 192.0.2.1"
   friend auto operator<=>(RedirectTarget const&, RedirectTarget const&) = default;
   friend bool operator==(RedirectTarget const&, RedirectTarget const&) = default;
};

enum class Verdict : std::uint8_t {
   drop,   // discard
   accept, // stop flowspec evaluation; the packet goes on to the host's other rules
   next,   // continue with the next flowspec rule (terminal bit set)
};

struct CompiledRule {
   enum class Kind : std::uint8_t { install, neverMatches, refused };
   Kind kind = Kind::refused;
   std::string reason;               // with neverMatches and refused
   std::vector<std::string> matches; // with install: alternatives, never empty text
   bool sample = false;              // log to the nflog group
   std::uint16_t nflogGroup = 0;     // with sample
   std::optional<std::uint8_t> dscp; // DSCP to set
   std::optional<RedirectTarget> redirect;
   std::optional<std::uint64_t> policeRate; // bytes per second; packets above it are dropped
   Verdict verdict = Verdict::accept;
   Ovnet::AddressFamily af = Ovnet::AddressFamily::unspecified;

   friend bool operator==(CompiledRule const&, CompiledRule const&) = default;
};

inline constexpr std::size_t maxAlternatives = 16;
// The highest police rate the compiler passes on (1 TiB/s); nftables counts rates in 64
// bits, but a float rate beyond this is not a policer anyone configured.
inline constexpr double maxPoliceRate = 1099511627776.0;

CompiledRule compileRule(Flowspec::Rule const& rule, CompileConfig const& cfg);

// The exact sets of values a rule's match accepts, field by field: what every dataplane
// programs (nftables as conditions, XDP as value classes). A field that is absent accepts
// every value, and packets that lack the field (a first fragment's ports, say) too; a
// present field never accepts a packet that lacks it.
struct MatchSets {
   CompiledRule::Kind kind = CompiledRule::Kind::install; // install, or why not
   std::string reason;
   Ovnet::AddressFamily af = Ovnet::AddressFamily::unspecified;
   std::optional<Ovnet::IpGenPrefix> dest; // absent: any (a /0 counts as absent)
   std::optional<Ovnet::IpGenPrefix> source;
   IntervalSet protocols; // the rule's protocol lists and what its components imply
   // Destination and source port, ICMP type and code, DSCP, flow label; packet length is the
   // whole packet's (for IPv6 too, within [40, 65535]). Only the constrained ones, intersected.
   std::map<Flowspec::MatchCompType, IntervalSet> numeric;
   std::vector<IntervalSet> ports;          // one per Port component (source or destination)
   std::vector<MaskedValues> tcpFlags;      // one per TCP Flags component, over 12 bits
   std::vector<std::uint32_t> fragments;    // one per Fragment component: fragmentKinds()
};

// Fragment kinds a fragment component accepts. IPv4: bit (DF | MF << 1 | later << 2) for
// each of the eight combinations of Don't Fragment, More Fragments and a non-zero offset.
// IPv6: bit 8 no Fragment header, 9 an atomic fragment (offset 0, M 0), 10 a first
// fragment, 11 a middle one, 12 the last.
std::uint32_t fragmentKinds(std::span<Flowspec::MatchOpVal const> pairs, bool v6);

MatchSets matchSets(Flowspec::FlowspecKey const& key);

// The actions of a rule as every dataplane performs them (the match fields of `c` are left
// alone); `c.kind` turns refused with the reason when no dataplane can.
void compileActions(Flowspec::Rule const& r, CompileConfig const& cfg, CompiledRule& c);

// The nftables rule bodies (the text after "add rule inet TABLE CHAIN ") of a rule compiled
// to `install`: one or two per alternative (a policed rule that stops evaluation needs a
// second rule to accept what the policer lets through). Every body counts into element
// `counterId` of the table's counter set `counterSet`; `mark` is the redirect target's
// firewall mark (ignored when the rule does not redirect).
std::vector<std::string> ruleBodies(CompiledRule const& c, std::string_view counterSet, std::uint32_t counterId,
                                    std::uint32_t mark);

} // namespace Fwd
