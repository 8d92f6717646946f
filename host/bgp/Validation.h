// Validation of flowspec rules against the unicast table (RFC 8955 section 6 as RFC 9117
// revises it; RFC 8956 section 5 for IPv6).
//
// A rule from a validating session is feasible when it has a destination prefix (IPv6:
// with offset 0), the best-match unicast route of that prefix (the longest unicast prefix
// holding it) exists and
//   - its best path came from the rule's originator: the same session, or a session with
//     the same BGP identifier; or, for a rule from an external peer, the left-most AS of the
//     rule's AS_PATH equals that of the route's best path (RFC 9117 section 4.2); or the
//     rule's AS_PATH is empty or holds only confederation segments (RFC 9117 section 4.1,
//     b.2: originated inside the AS or the confederation);
//   - and no unicast route strictly inside the destination prefix has its best path from a
//     neighboring AS other than the best-match route's.
// The neighboring AS of a unicast path is the left-most AS of its AS_SEQUENCE, or, when its
// AS_PATH starts otherwise, the AS of the session it came from.
//
// RuleValidation keeps, per family, a longest-prefix structure of the unicast prefixes that
// have a best path (it follows the unicast RIB tables as their reactor) and an index of the
// rules of validating RIB-ins by destination. When a unicast route appears, changes its
// best path or goes, the rules whose destination holds it or lies in it are judged again by
// their RIB-ins (revalidate), and only those: a rule that becomes feasible enters the RIB
// without the peer sending it again, one that stops being feasible leaves it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/bgp/ImportPolicy.h"
#include "host/bgp/PrefixTrie.h"
#include "host/bgp/Rib.h"
#include "host/fwk/Ptr.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

class AdjRibin;

class RuleValidation : public Ovk::PtrInterface, public RibTable::Reactor {
 public:
   // Follows the unicast RIB tables given (either may be null: no route of that family).
   RuleValidation(Ovk::Ptr<RibTable> ipv4Unicast, Ovk::Ptr<RibTable> ipv6Unicast);

   // The judgement of a rule sent by `source` with `attrs`: nothing when it is feasible.
   std::optional<ImportRefusal> judge(RouteKey const& rule, PathAttributesContents const& attrs,
                                      RibSource source) const;

   // The rules of validating RIB-ins, feasible or not, by destination. ruleIs of a rule
   // already there does nothing. A rule without a destination to judge by is not indexed:
   // no unicast change can make it feasible.
   void ruleIs(RouteKey const& rule, AdjRibin* ribin);
   void ruleDel(RouteKey const& rule, AdjRibin* ribin);
   // Every rule of `ribin` leaves the index (the RIB-in goes, or stops validating).
   void ribinDel(AdjRibin const* ribin);
   std::size_t rules() const { return rules_; }

   // The unicast tables' reactor: the best path of `key` changed. The prefix structure
   // follows at once; the rules it concerns are judged at the next revalidate().
   void handleRouteEntry(RouteKey const* key) override;
   // Judges again the rules the unicast changes since the last call concern, each once;
   // the number judged. The caller flushes the flowspec tables after.
   std::size_t revalidate();

   // The best-match unicast route of `prefix` (the longest prefix that holds it), or null.
   RouteKey const* bestMatch(Ovnet::IpGenPrefix const& prefix) const;
   // Unicast prefixes with a best path, per family, and the bytes the structures take.
   std::size_t routes(Afi afi) const { return afi == Afi::afiIpv6 ? routes6_.size() : routes4_.size(); }
   std::size_t bytes() const;

   struct Counters {
      std::uint64_t judged = 0;         // judgements made
      std::uint64_t unicastChanges = 0; // unicast best-path changes heard
      std::uint64_t revalidated = 0;    // rules judged again on those changes
   };
   Counters const& counters() const { return counters_; }

 protected:
   ~RuleValidation() override;

 private:
   struct RuleRef {
      AdjRibin* ribin;
      RouteKey const* rule;
      friend bool operator==(RuleRef const&, RuleRef const&) = default;
   };
   using RuleList = std::vector<RuleRef>;
   // A unicast prefix whose best path changed, waiting for revalidate().
   struct Changed {
      bool v6;
      std::array<std::uint8_t, 16> addr;
      std::uint8_t len;
   };
   RibTable const* tableOf(bool v6) const { return (v6 ? ipv6_ : ipv4_).ptr(); }
   // The neighboring AS of a unicast path.
   std::uint32_t neighborAs(RibPath const& path) const;

   Ovk::Ptr<RibTable> ipv4_;
   Ovk::Ptr<RibTable> ipv6_;
   PrefixTrie<4, RouteKey const*> routes4_;
   PrefixTrie<16, RouteKey const*> routes6_;
   PrefixTrie<4, RuleList> rules4_;
   PrefixTrie<16, RuleList> rules6_;
   std::size_t rules_ = 0;
   std::vector<Changed> changed_;
   mutable Counters counters_;
};

} // namespace Routing::Bgp
