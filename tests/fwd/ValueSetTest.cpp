// The value sets of operator lists: interval arithmetic at the domain's edges, and the
// accepted sets checked against a plain evaluation of the list at every value.
#include "fwd/ValueSet.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Flowspec::MatchOpVal;
using Fwd::Interval;
using Fwd::IntervalSet;

TEST(IntervalSetTest, MergesSortsAndComplementsAtTheDomainEdges) {
   IntervalSet const s = IntervalSet::of({{10, 20}, {0, 3}, {21, 25}, {4, 4}, {30, 29}});
   EXPECT_EQ(s.intervals(), (std::vector<Interval>{{0, 4}, {10, 25}}));
   IntervalSet const t = IntervalSet::of({{3, 12}, {100, 0xffffffff}});
   EXPECT_EQ(t.complement(0xffffffff).intervals(), (std::vector<Interval>{{0, 2}, {13, 99}}));
   EXPECT_EQ(t.complement(50).intervals(), (std::vector<Interval>{{0, 2}, {13, 50}}));
   EXPECT_TRUE(IntervalSet().complement(7).isWhole(7));
   EXPECT_TRUE(IntervalSet::range(0, 7).complement(7).empty());
   EXPECT_EQ(s.intersect(t).intervals(), (std::vector<Interval>{{3, 4}, {10, 12}}));
   EXPECT_EQ(s.unite(t).intervals(), (std::vector<Interval>{{0, 25}, {100, 0xffffffff}}));
   EXPECT_EQ(IntervalSet::of({{30, 50}, {60, 70}}).shiftedDown(40).intervals(),
             (std::vector<Interval>{{0, 10}, {20, 30}}));
}

// The list evaluated on one value, as RFC 8955 reads it: AND binds tighter than OR, and the
// first pair's AND bit counts as clear.
bool numericEval(std::vector<MatchOpVal> const& pairs, std::uint32_t x) {
   bool result = false;
   bool group = true;
   for (std::size_t i = 0; i < pairs.size(); ++i) {
      auto const& p = pairs[i];
      bool const one = ((p.op & Flowspec::opLt) != 0 && x < p.value) || ((p.op & Flowspec::opGt) != 0 && x > p.value) ||
                       ((p.op & Flowspec::opEq) != 0 && x == p.value);
      if (i == 0 || (p.op & Flowspec::opAnd) == 0) {
         result = result || (i != 0 && group);
         group = one;
      } else {
         group = group && one;
      }
   }
   return !pairs.empty() && (result || group);
}

TEST(ValueSetTest, NumericListsAgreeWithEvaluationAtEveryValue) {
   std::mt19937 gen(18);
   auto const rng = [&gen] { return static_cast<std::uint32_t>(gen()); };
   constexpr std::uint32_t max = 300;
   for (int round = 0; round < 2000; ++round) {
      std::vector<MatchOpVal> pairs(1 + rng() % 5);
      for (auto& p : pairs) {
         p.type = Flowspec::destPort_;
         p.op = static_cast<std::uint8_t>((rng() % 2 != 0 ? Flowspec::opAnd : 0) | (rng() % 8));
         p.value = rng() % 4 == 0 ? (rng() % 2 == 0 ? 0u : max + rng() % 3) : rng() % (max + 1);
      }
      IntervalSet const s = Fwd::numericAccepted(pairs, max);
      for (std::uint32_t x = 0; x <= max; ++x) {
         ASSERT_EQ(s.contains(x), numericEval(pairs, x)) << "round " << round << " value " << x;
      }
      ASSERT_FALSE(s.contains(max + 1));
   }
}

TEST(ValueSetTest, NumericListRows) {
   using P = MatchOpVal;
   constexpr auto lt = Flowspec::opLt;
   constexpr auto gt = Flowspec::opGt;
   constexpr auto eq = Flowspec::opEq;
   constexpr auto a = Flowspec::opAnd;
   struct Row {
      char const* name;
      std::vector<P> pairs;
      std::vector<Interval> want;
   } const rows[] = {
       {"eq", {{Flowspec::port_, eq, 80}}, {{80, 80}}},
       {">24&<30 or =80",
        {{Flowspec::port_, gt, 24}, {Flowspec::port_, a | lt, 30}, {Flowspec::port_, eq, 80}},
        {{25, 29}, {80, 80}}},
       {"!= 0", {{Flowspec::port_, lt | gt, 0}}, {{1, 0xffff}}},
       {"always", {{Flowspec::port_, lt | gt | eq, 5}}, {{0, 0xffff}}},
       {"never", {{Flowspec::port_, 0, 5}}, {}},
       {"first AND bit ignored", {{Flowspec::port_, a | eq, 7}}, {{7, 7}}},
       {"value above the domain", {{Flowspec::port_, lt, 70000}}, {{0, 0xffff}}},
       {"empty AND", {{Flowspec::port_, lt, 10}, {Flowspec::port_, a | gt, 20}}, {}},
   };
   for (auto const& r : rows) {
      SCOPED_TRACE(r.name);
      EXPECT_EQ(Fwd::numericAccepted(r.pairs, 0xffff).intervals(), r.want);
   }
}

TEST(ValueSetTest, BitmaskListsLookOnlyAtTheBitsTheyName) {
   using P = MatchOpVal;
   constexpr auto m = Flowspec::opMatch;
   constexpr auto n = Flowspec::opNot;
   struct Row {
      char const* name;
      std::vector<P> pairs;
      std::uint32_t mask;
      std::vector<std::uint32_t> values;
      std::uint32_t fieldMask = 0xff;
   } const rows[] = {
       {"any of syn|ack", {{Flowspec::tcpFlags_, 0, 0x12}}, 0x12, {0x02, 0x10, 0x12}},
       {"all of syn|ack", {{Flowspec::tcpFlags_, m, 0x12}}, 0x12, {0x12}},
       {"none of rst", {{Flowspec::tcpFlags_, n, 0x04}}, 0x04, {0x00}},
       {"not all of syn|ack", {{Flowspec::tcpFlags_, n | m, 0x12}}, 0x12, {0x00, 0x02, 0x10}},
       {"syn and not ack",
        {{Flowspec::tcpFlags_, m, 0x02}, {Flowspec::tcpFlags_, Flowspec::opAnd | n, 0x10}},
        0x12,
        {0x02}},
       {"bits outside the field never set", {{Flowspec::fragment_, m, 0x30}}, 0x00, {}, 0x0f},
       {"not of bits outside the field", {{Flowspec::fragment_, n, 0x30}}, 0x00, {0x00}, 0x0f},
   };
   for (auto const& r : rows) {
      SCOPED_TRACE(r.name);
      Fwd::MaskedValues const mv = Fwd::bitmaskAccepted(r.pairs, r.fieldMask);
      EXPECT_EQ(mv.mask, r.mask);
      EXPECT_EQ(mv.values, r.values);
      for (std::uint32_t d = 0; d <= r.fieldMask; ++d) {
         if ((d & r.fieldMask) != d) continue;
         bool const listed = std::find(mv.values.begin(), mv.values.end(), d & mv.mask) != mv.values.end();
         ASSERT_EQ(listed, Fwd::bitmaskAccepts(r.pairs, d)) << "data " << d;
      }
   }
}

} // namespace
