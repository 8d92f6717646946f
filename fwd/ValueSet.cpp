#include "fwd/ValueSet.h"

#include <algorithm>

namespace Fwd {

using Flowspec::MatchOpVal;

IntervalSet IntervalSet::range(std::uint32_t lo, std::uint32_t hi) {
   IntervalSet s;
   if (lo <= hi) s.iv_.push_back({lo, hi});
   return s;
}

IntervalSet IntervalSet::of(std::vector<Interval> intervals) {
   std::erase_if(intervals, [](Interval const& i) { return i.lo > i.hi; });
   std::sort(intervals.begin(), intervals.end(), [](Interval const& a, Interval const& b) { return a.lo < b.lo; });
   IntervalSet s;
   for (Interval const& i : intervals) {
      // Merge what overlaps or touches the last interval (hi + 1 == lo; no overflow since
      // lo > last.hi only when last.hi < UINT32_MAX).
      if (!s.iv_.empty() && (i.lo <= s.iv_.back().hi || i.lo - 1 == s.iv_.back().hi)) {
         s.iv_.back().hi = std::max(s.iv_.back().hi, i.hi);
      } else {
         s.iv_.push_back(i);
      }
   }
   return s;
}

bool IntervalSet::contains(std::uint32_t v) const {
   return std::any_of(iv_.begin(), iv_.end(), [v](Interval const& i) { return i.lo <= v && v <= i.hi; });
}

IntervalSet IntervalSet::unite(IntervalSet const& o) const {
   std::vector<Interval> all = iv_;
   all.insert(all.end(), o.iv_.begin(), o.iv_.end());
   return of(std::move(all));
}

IntervalSet IntervalSet::intersect(IntervalSet const& o) const {
   IntervalSet s;
   std::size_t i = 0;
   std::size_t j = 0;
   while (i < iv_.size() && j < o.iv_.size()) {
      std::uint32_t const lo = std::max(iv_[i].lo, o.iv_[j].lo);
      std::uint32_t const hi = std::min(iv_[i].hi, o.iv_[j].hi);
      if (lo <= hi) s.iv_.push_back({lo, hi});
      if (iv_[i].hi < o.iv_[j].hi) {
         ++i;
      } else {
         ++j;
      }
   }
   return s;
}

IntervalSet IntervalSet::complement(std::uint32_t max) const {
   IntervalSet s;
   std::uint64_t next = 0; // the first value not yet covered
   for (Interval const& i : iv_) {
      if (i.lo > max) break;
      if (i.lo > next) s.iv_.push_back({static_cast<std::uint32_t>(next), i.lo - 1});
      next = std::uint64_t{i.hi} + 1;
   }
   if (next <= max) s.iv_.push_back({static_cast<std::uint32_t>(next), max});
   return s;
}

IntervalSet IntervalSet::shiftedDown(std::uint32_t by) const {
   IntervalSet s;
   for (Interval const& i : iv_) {
      if (i.hi < by) continue;
      s.iv_.push_back({i.lo < by ? 0 : i.lo - by, i.hi - by});
   }
   return s;
}

namespace {

// The values in [0, max] one numeric pair accepts: lt, gt and eq each add their part.
IntervalSet pairAccepted(MatchOpVal const& p, std::uint32_t max) {
   std::uint32_t const v = p.value;
   std::vector<Interval> parts;
   if ((p.op & Flowspec::opLt) != 0 && v > 0) parts.push_back({0, std::min(v - 1, max)});
   if ((p.op & Flowspec::opGt) != 0 && v < max) parts.push_back({v + 1, max});
   if ((p.op & Flowspec::opEq) != 0 && v <= max) parts.push_back({v, v});
   return IntervalSet::of(std::move(parts));
}

bool pairAccepts(MatchOpVal const& p, std::uint32_t data) {
   bool const hit = (p.op & Flowspec::opMatch) != 0 ? (data & p.value) == p.value : (data & p.value) != 0;
   return (p.op & Flowspec::opNot) != 0 ? !hit : hit;
}

} // namespace

IntervalSet numericAccepted(std::span<MatchOpVal const> pairs, std::uint32_t max) {
   IntervalSet result;
   IntervalSet group;
   for (std::size_t i = 0; i < pairs.size(); ++i) {
      IntervalSet const one = pairAccepted(pairs[i], max);
      if (i == 0 || (pairs[i].op & Flowspec::opAnd) == 0) {
         if (i != 0) result = result.unite(group);
         group = one;
      } else {
         group = group.intersect(one);
      }
   }
   if (!pairs.empty()) result = result.unite(group);
   return result;
}

bool bitmaskAccepts(std::span<MatchOpVal const> pairs, std::uint32_t data) {
   // AND binds tighter than OR: the list is true when some AND-group is wholly true.
   bool result = false;
   bool group = true;
   for (std::size_t i = 0; i < pairs.size(); ++i) {
      bool const one = pairAccepts(pairs[i], data);
      if (i == 0 || (pairs[i].op & Flowspec::opAnd) == 0) {
         if (i != 0) result = result || group;
         group = one;
      } else {
         group = group && one;
      }
   }
   return !pairs.empty() && (result || group);
}

MaskedValues bitmaskAccepted(std::span<MatchOpVal const> pairs, std::uint32_t fieldMask) {
   MaskedValues out;
   for (MatchOpVal const& p : pairs) out.mask |= p.value & fieldMask;
   // Walk every subset of the mask's bits in ascending order (the standard subset walk).
   std::uint32_t sub = 0;
   while (true) {
      if (bitmaskAccepts(pairs, sub)) out.values.push_back(sub);
      if (sub == out.mask) break;
      sub = (sub - out.mask) & out.mask;
   }
   return out;
}

} // namespace Fwd
