// The values a flowspec operator/value list accepts, computed exactly over a field's domain.
//
// A numeric list (RFC 8955 section 4.2.1.1) accepts a union of intervals of the field: each
// pair accepts up to three intervals (below, at and above its value), the AND bit joins a
// pair to the group before it, and groups are ORed. A bitmask list (section 4.2.1.2) looks
// only at the bits its values name, so it accepts a set of values of `field & mask`; those
// are found by evaluating the list on every combination of the named bits (at most 2^12,
// for the 12 bits of the TCP flags field).
//
// Everything here is a pure function of its input; the compiler (RuleCompiler.h) turns the
// sets into nftables match expressions.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "host/flowspec/FlowspecKey.h"

namespace Fwd {

// A closed interval [lo, hi] of field values.
struct Interval {
   std::uint32_t lo = 0;
   std::uint32_t hi = 0;
   friend bool operator==(Interval const&, Interval const&) = default;
};

// A set of values as sorted, disjoint, non-adjacent intervals.
class IntervalSet {
 public:
   IntervalSet() = default;
   static IntervalSet range(std::uint32_t lo, std::uint32_t hi);
   // The set of the given intervals (in any order, overlapping or not).
   static IntervalSet of(std::vector<Interval> intervals);

   std::vector<Interval> const& intervals() const { return iv_; }
   bool empty() const { return iv_.empty(); }
   // True when the set is all of [0, max].
   bool isWhole(std::uint32_t max) const { return iv_.size() == 1 && iv_[0].lo == 0 && iv_[0].hi == max; }
   bool contains(std::uint32_t v) const;

   IntervalSet unite(IntervalSet const& o) const;
   IntervalSet intersect(IntervalSet const& o) const;
   // [0, max] less this set.
   IntervalSet complement(std::uint32_t max) const;
   // Every value moved down by `by`; values below `by` are dropped.
   IntervalSet shiftedDown(std::uint32_t by) const;

   friend bool operator==(IntervalSet const&, IntervalSet const&) = default;

 private:
   std::vector<Interval> iv_;
};

// The values in [0, max] that the numeric pairs accept. The AND bit of the first pair is
// ignored (RFC 8955 section 4.2.1.1: it is treated as unset). An empty list accepts nothing.
IntervalSet numericAccepted(std::span<Flowspec::MatchOpVal const> pairs, std::uint32_t max);

// True when the bitmask pairs accept `data` (bits outside the field are zero in `data`).
bool bitmaskAccepts(std::span<Flowspec::MatchOpVal const> pairs, std::uint32_t data);

// The values of `field & mask` a bitmask list accepts, where `mask` is every bit of
// `fieldMask` that some pair names. Acceptance depends on those bits only, so a packet
// matches exactly when `field & mask` is one of `values`. `values` are ascending.
struct MaskedValues {
   std::uint32_t mask = 0;
   std::vector<std::uint32_t> values;
};
MaskedValues bitmaskAccepted(std::span<Flowspec::MatchOpVal const> pairs, std::uint32_t fieldMask);

} // namespace Fwd
