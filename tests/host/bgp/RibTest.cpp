// The RIB table, its decision process and its order index, over keys of a test family whose
// order is a number (with a coarse order prefix, and ties the order holds equal).
#include "host/bgp/Rib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "host/bgp/FwdTgt.h"

namespace Routing::Bgp {
namespace {

// A key whose order is `rank` (lower first) and whose identity is (rank, tag): keys of one
// rank and different tags are distinct keys the order holds equal.
class RankKey : public RouteKey {
 public:
   RankKey(std::uint32_t rank, std::uint32_t tag) : rank_(rank), tag_(tag) {}
   std::uint32_t hash() const override { return rank_ * 2654435761u ^ tag_; }
   bool compare(Ovk::DedupHandle const* other) const override {
      auto const* o = dynamic_cast<RankKey const*>(other);
      return o && o->rank_ == rank_ && o->tag_ == tag_;
   }
   Afi afi() const override { return Afi::afiIpv4; }
   std::uint8_t safi() const override { return Safi::flowspec; }
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override {
      return rank_ <= static_cast<RankKey const&>(*other).rank_;
   }
   // Coarse: only the high bits, so that many keys share a prefix (a wide summary tells
   // more of them apart, not all).
   std::uint64_t orderPrefix() const override { return rank_ >> 8; }
   OrderSummary orderSummary() const override { return {rank_ >> 8, (rank_ >> 4) & 0xf}; }
   std::uint32_t rank() const { return rank_; }

 private:
   std::uint32_t rank_;
   std::uint32_t tag_;
};

class RankTable : public RouteKeyDedupTable {
 public:
   RankTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpVrfIdBase{}) {}
};

struct Env {
   Ovk::Ptr<RankTable> keys = Ovk::makePtr<RankTable>();
   Ovk::Ptr<RouteKey const> key(std::uint32_t rank, std::uint32_t tag = 0) {
      auto k = newRouteKey<RankKey>(rank, tag);
      return k->dedupRouteKey(keys.ptr());
   }
   Ovk::Ptr<RtAttrDedupTable> attrs = RtAttrDedupTable::create();
   Ovk::Ptr<RtAttr const> attr(std::uint32_t localPref, std::uint32_t asPathLength = 1,
                               BgpOrigin origin = BgpOrigin::igp, std::optional<std::uint32_t> med = {},
                               std::uint32_t neighborAs = 65002) {
      PathAttributesContents c;
      c.localPref = localPref;
      c.asPathLength = asPathLength;
      c.asPath = Ovk::String(std::to_string(asPathLength) + "/" + std::to_string(neighborAs));
      c.origin = origin;
      c.med = med;
      c.neighborAs = neighborAs;
      return attrs->rtAttrIs(std::move(c));
   }
};

BgpPeer peerOf(char const* addr, std::uint32_t as, std::uint32_t id) {
   return BgpPeer{*Ovnet::IpGenAddr::parse(addr), as, 65001, id, BgpVrfIdBase{}};
}

// ---- Decision process: one row per tie-break ----

TEST(RibTest, DecisionProcessOneRowPerTieBreak) {
   Env env;
   auto sources = RibSources::create(BgpPeer{});
   RibSource const ext1 = sources->sourceIs(peerOf("10.0.0.1", 65002, 5));
   RibSource const ext2 = sources->sourceIs(peerOf("10.0.0.2", 65003, 4));
   RibSource const int1 = sources->sourceIs(peerOf("10.0.0.3", 65001, 3));
   RibSource const ext3 = sources->sourceIs(peerOf("10.0.0.4", 65002, 5));
   // The rows point at attribute sets the table would hold; here `held` holds them.
   std::vector<Ovk::Ptr<RtAttr const>> held;
   auto hold = [&held](Ovk::Ptr<RtAttr const> a) -> Ovk::Ptr<RtAttr const> const& {
      return held.emplace_back(std::move(a));
   };
   struct Row {
      char const* name;
      RibPath winner;
      RibPath loser;
   };
   Row const rows[] = {
       {"higher LOCAL_PREF", {hold(env.attr(200, 5)).ptr(), ext1}, {hold(env.attr(100, 1)).ptr(), ext2}},
       {"shorter AS_PATH", {hold(env.attr(100, 1)).ptr(), ext1}, {hold(env.attr(100, 2)).ptr(), ext2}},
       {"lower ORIGIN",
        {hold(env.attr(100, 1, BgpOrigin::igp)).ptr(), ext1},
        {hold(env.attr(100, 1, BgpOrigin::egp)).ptr(), ext2}},
       {"lower MED, same neighbour AS",
        {hold(env.attr(100, 1, BgpOrigin::igp, 5)).ptr(), ext1},
        {hold(env.attr(100, 1, BgpOrigin::igp, 10)).ptr(), ext3}},
       {"the agent's own path", {hold(env.attr(100, 1)).ptr(), kLocalRibSource}, {hold(env.attr(100, 1)).ptr(), ext1}},
       {"external over internal",
        {hold(env.attr(100, 1)).ptr(), ext1},
        {hold(env.attr(100, 1, BgpOrigin::igp, {}, 65001)).ptr(), int1}},
       {"lower router id (MED of other ASes ignored)",
        {hold(env.attr(100, 1, BgpOrigin::igp, 50, 65003)).ptr(), ext2},
        {hold(env.attr(100, 1, BgpOrigin::igp, 5, 65002)).ptr(), ext1}},
       {"lower peer address", {hold(env.attr(100, 1)).ptr(), ext1}, {hold(env.attr(100, 1)).ptr(), ext3}},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      EXPECT_TRUE(betterPath(r.winner, r.loser, *sources));
      EXPECT_FALSE(betterPath(r.loser, r.winner, *sources));
   }
}

// ---- The table ----

class Recorder : public RibTable::Reactor {
 public:
   void handleRouteEntry(RouteKey const* key) override { keys.push_back(static_cast<RankKey const*>(key)->rank()); }
   std::vector<std::uint32_t> keys;
};

TEST(RibTest, BestPathFollowsPathsAndChangesAreToldOncePerFlush) {
   Env env;
   auto sources = RibSources::create(BgpPeer{});
   RibSource const a = sources->sourceIs(peerOf("10.0.0.1", 65002, 1));
   RibSource const b = sources->sourceIs(peerOf("10.0.0.2", 65003, 2));
   RibTable table(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
   Recorder r;
   table.reactorIs(&r);
   auto const k = env.key(7);
   EXPECT_TRUE(table.pathIs(*k, a, env.attr(100)));
   EXPECT_TRUE(table.pathIs(*k, b, env.attr(200)));
   EXPECT_FALSE(table.pathIs(*k, b, env.attr(200))); // the same again
   EXPECT_EQ(table.bestPath(*k)->source, b);
   EXPECT_EQ(table.paths(), 2u);
   EXPECT_EQ(table.bestOf(b), 1u);
   EXPECT_EQ(table.bestOf(a), 0u);
   table.flushChanges();
   EXPECT_EQ(r.keys, std::vector<std::uint32_t>{7});
   // A change of a path that is not best is no change of the route.
   table.pathIs(*k, a, env.attr(150));
   table.flushChanges();
   EXPECT_EQ(r.keys.size(), 1u);
   // The best goes: the other takes over.
   EXPECT_TRUE(table.pathDel(*k, b));
   EXPECT_FALSE(table.pathDel(*k, b));
   EXPECT_EQ(table.bestPath(*k)->source, a);
   EXPECT_EQ(table.getEffectivePathAttrs(*k)->localPref, 150u);
   table.flushChanges();
   EXPECT_EQ(r.keys.size(), 2u);
   // The last path goes: the route goes, and the reactor hears of it with the route absent.
   EXPECT_TRUE(table.pathDel(*k, a));
   EXPECT_FALSE(table.routePresent(*k));
   EXPECT_EQ(table.routes(), 0u);
   table.flushChanges();
   EXPECT_EQ(r.keys.size(), 3u);
   table.reactorDel(&r);
}

// The table holds its keys and attributes, and lets them go: a key with no path and no
// other holder leaves its dedup table.
TEST(RibTest, KeysAndAttributesLiveWhileTheyHavePaths) {
   Env env;
   auto sources = RibSources::create(BgpPeer{});
   RibSource const a = sources->sourceIs(peerOf("10.0.0.1", 65002, 1));
   RibSource const b = sources->sourceIs(peerOf("10.0.0.2", 65002, 2));
   {
      RibTable table(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
      for (std::uint32_t i = 0; i < 100; ++i) {
         table.pathIs(*env.key(i), a, env.attr(100));
         if (i % 3 == 0) table.pathIs(*env.key(i), b, env.attr(100 + i));
      }
      EXPECT_EQ(env.keys->size(), 100u);
      EXPECT_EQ(table.pathDelAll(a), 100u);
      table.flushChanges();
      EXPECT_EQ(table.routes(), 34u);
      EXPECT_EQ(env.keys->size(), 34u);
   }
   // The table went with paths in it.
   EXPECT_EQ(env.keys->size(), 0u);
   EXPECT_EQ(env.attrs->size(), 0u);
}

// ---- Order index: against an independent sort, through random inserts and erases ----

void orderIndexKeepsTheOrder(RouteOrderIndex::Summary summary);

TEST(RibTest, OrderIndexKeepsTheOrderAndFindsLowerBounds) {
   for (auto const summary : {RouteOrderIndex::Summary::narrow, RouteOrderIndex::Summary::wide}) {
      SCOPED_TRACE(summary == RouteOrderIndex::Summary::wide ? "wide" : "narrow");
      orderIndexKeepsTheOrder(summary);
   }
}

void orderIndexKeepsTheOrder(RouteOrderIndex::Summary summary) {
   Env env;
   std::mt19937 rng(11);
   RouteOrderIndex index(summary);
   std::vector<Ovk::Ptr<RouteKey const>> held;
   std::set<RouteKey const*> in;
   auto const expected = [&] {
      std::vector<RouteKey const*> v(in.begin(), in.end());
      std::sort(v.begin(), v.end(), RouteOrderIndex::less);
      return v;
   };
   for (int round = 0; round < 6000; ++round) {
      bool const add = in.empty() || rng() % 3 != 0;
      if (add) {
         // Ascending runs (a table sent in order) and random ones, with equal ranks.
         std::uint32_t const rank =
             round < 2000 ? static_cast<std::uint32_t>(round) : static_cast<std::uint32_t>(rng() % 3000);
         auto k = env.key(rank, static_cast<std::uint32_t>(rng() % 3u));
         if (in.insert(k.ptr()).second) {
            index.insert(k.ptr());
            held.push_back(k);
         }
      } else {
         auto it = in.begin();
         std::advance(it, static_cast<long>(rng() % in.size()));
         index.erase(*it);
         in.erase(it);
      }
      ASSERT_EQ(index.size(), in.size());
   }
   std::vector<RouteKey const*> walked;
   for (auto it = index.begin(); it != index.end(); ++it) walked.push_back(*it);
   ASSERT_EQ(walked, expected());
   for (RouteKey const* k : walked) ASSERT_NE(index.find(k), index.end());
   // Lower bounds of keys not in the index: the first key of equal or greater rank.
   for (std::uint32_t rank : {0u, 17u, 1500u, 2999u, 5000u}) {
      auto const probe = newRouteKey<RankKey>(rank, 99u);
      auto const it = index.lowerBound(*probe);
      auto const want = std::find_if(walked.begin(), walked.end(),
                                     [&](RouteKey const* k) { return static_cast<RankKey const*>(k)->rank() >= rank; });
      if (want == walked.end()) {
         EXPECT_EQ(it, index.end()) << rank;
      } else {
         ASSERT_NE(it, index.end()) << rank;
         EXPECT_EQ(*it, *want) << rank;
      }
   }
   for (RouteKey const* k : walked) index.erase(k);
   EXPECT_EQ(index.size(), 0u);
   EXPECT_EQ(index.begin(), index.end());
   EXPECT_EQ(index.bytes(), 0u);
}

// A key's RIB slot is one table's: the keys of a dedup table can have paths in one RIB table
// at a time; a second table is a broken invariant. Once the first table is gone, another
// may take the keys.
TEST(RibDeathTest, OneRibTablePerDedupTable) {
   Env env;
   auto sources = RibSources::create(BgpPeer{});
   RibSource const a = sources->sourceIs(peerOf("10.0.0.2", 65002, 2));
   auto const k = env.key(1);
   {
      RibTable first(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
      first.pathIs(*k, a, env.attr(100));
      RibTable second(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
      EXPECT_DEATH(second.pathIs(*env.key(2), a, env.attr(100)), "one RIB table per route-key dedup table");
   }
   RibTable next(BgpVrfIdBase{}, AfiSafi::ipv4Flowspec(), sources);
   EXPECT_TRUE(next.pathIs(*k, a, env.attr(100)));
   next.pathDelAll(a);
}

} // namespace
} // namespace Routing::Bgp
