#include "host/fwk/Dedup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace {

using Ovk::DedupHandle;
using Ovk::DedupHandleState;
using Ovk::Ptr;

int liveValues = 0;

struct Value : DedupHandle {
   explicit Value(int v, std::uint32_t forcedHash = 0) : v_(v), forcedHash_(forcedHash) { ++liveValues; }
   ~Value() override { --liveValues; }
   std::uint32_t hash() const override {
      return forcedHash_ ? forcedHash_ : static_cast<std::uint32_t>(v_) * 2654435761u;
   }
   bool compare(DedupHandle const* o) const override { return static_cast<Value const*>(o)->v_ == v_; }
   int v_;
   std::uint32_t forcedHash_;
};

Ptr<Value const> dedup(Ptr<Ovk::SimpleDedupHashTable> const& t, int v, std::uint32_t h = 0) {
   return Ovk::ptrCast<Value const>(t->lookupOrInsert(Ovk::makePtr<Value>(v, h)));
}

// Records what the table tells it, and anchors a reference to each entry while it is in
// the table, as a life-time notifier does.
struct Recorder : Ovk::DedupTableNotifiee {
   void handleInsert(Ptr<DedupHandle> const& h) override {
      inserts.push_back(h.ptr());
      held.insert(h.ptr());
      h->newRef();
      h->anchoredReferenceInc();
   }
   void handleRemove(DedupHandle* h) override {
      removes.push_back(h);
      ASSERT_EQ(held.erase(h), 1u);
      h->anchoredReferenceDec();
      h->deleteRef();
   }
   void handleNotificationStop(Ptr<Ovk::DedupHashTable const> const&) override { ++stops; }
   std::vector<DedupHandle*> inserts, removes;
   std::set<DedupHandle*> held;
   int stops = 0;
};

class DedupTest : public ::testing::Test {
 protected:
   void TearDown() override { EXPECT_EQ(liveValues, 0); }
};

TEST_F(DedupTest, EqualValuesShareOneInstanceThatLeavesOnTheLastRelease) {
   auto t = Ovk::SimpleDedupHashTable::create();
   auto a = dedup(t, 1);
   auto b = dedup(t, 1);
   auto c = dedup(t, 2);
   EXPECT_EQ(a.ptr(), b.ptr());
   EXPECT_NE(a.ptr(), c.ptr());
   EXPECT_EQ(a->dedupState(), DedupHandleState::deduped);
   EXPECT_EQ(a->dedupTable(), t.ptr());
   EXPECT_EQ(t->size(), 2u);
   EXPECT_EQ(t->counters().hits, 1u);
   a = nullptr;
   EXPECT_EQ(t->size(), 2u);
   b = nullptr;
   EXPECT_EQ(t->size(), 1u);
   EXPECT_EQ(t->counters().removes, 1u);
   EXPECT_EQ(t->lookup(Value(2))->dedupState(), DedupHandleState::deduped);
   EXPECT_FALSE(t->lookup(Value(1)));
}

TEST_F(DedupTest, OrphansHoldTheirTableButNeverEnterIt) {
   auto t = Ovk::SimpleDedupHashTable::create();
   auto orphan = Ovk::makePtr<Value>(5);
   orphan->orphanIs(t);
   EXPECT_EQ(orphan->dedupState(), Ovk::dedupHandleStateOrphan());
   EXPECT_EQ(t->size(), 0u);
   EXPECT_EQ(t->references(), 2u);
   Ovk::DedupHashTable const* raw = t.ptr();
   t = nullptr; // the orphan keeps the table alive
   EXPECT_EQ(orphan->dedupTable(), raw);
   EXPECT_EQ(raw->size(), 0u);
   orphan = nullptr;
}

TEST_F(DedupTest, OnlyNeverDedupedHandlesMayBeInserted) {
   auto t = Ovk::SimpleDedupHashTable::create();
   auto v = Ovk::makePtr<Value>(1);
   t->lookupOrInsert(v);
   EXPECT_DEATH(t->lookupOrInsert(v), "Assertion `handle->state_ == DedupHandleState::neverDeduped' failed");
   auto o = Ovk::makePtr<Value>(2);
   o->orphanIs(t);
   EXPECT_DEATH(t->lookupOrInsert(o), "neverDeduped' failed");
}

TEST_F(DedupTest, NotifieeHearsInsertsAndRemovesOneForOne) {
   auto t = Ovk::SimpleDedupHashTable::create();
   auto rec = Ovk::makePtr<Recorder>();
   t->notifieeIs(rec);
   {
      auto a = dedup(t, 1);
      auto a2 = dedup(t, 1); // a hit: no second insert
      auto b = dedup(t, 2);
      EXPECT_EQ(rec->inserts.size(), 2u);
      EXPECT_TRUE(rec->removes.empty());
   }
   // The anchored references alone did not keep the entries in the table.
   EXPECT_EQ(t->size(), 0u);
   EXPECT_EQ(rec->removes.size(), 2u);
   EXPECT_TRUE(rec->held.empty());
   t->notifieeIs(nullptr);
   EXPECT_EQ(rec->stops, 1);
}

TEST_F(DedupTest, TableDyingFirstDetachesItsEntries) {
   auto t = Ovk::SimpleDedupHashTable::create();
   auto rec = Ovk::makePtr<Recorder>();
   t->notifieeIs(rec);
   auto survivor = dedup(t, 42);
   t = nullptr;
   EXPECT_EQ(rec->removes.size(), 1u);
   EXPECT_EQ(survivor->dedupTable(), nullptr);
   EXPECT_EQ(survivor->dedupState(), DedupHandleState::deduped);
   survivor = nullptr; // must not touch the dead table
}

// A table that keeps one of its own entries (a singleton) while a notifiee anchors it: the
// table's last release must not reach the dying table through the entry's release.
struct TableWithSingleton : Ovk::SimpleDedupHashTable {
   Ptr<Value const> singleton;
};

TEST_F(DedupTest, TableKeepingItsOwnAnchoredEntryDiesCleanly) {
   auto t = Ovk::makePtr<TableWithSingleton>();
   auto rec = Ovk::makePtr<Recorder>();
   t->notifieeIs(rec);
   t->singleton = Ovk::ptrCast<Value const>(t->lookupOrInsert(Ovk::makePtr<Value>(1)));
   auto outside = dedup(t, 2);
   t = nullptr;
   // Both entries heard their removal; the singleton died with the table, the other lives on.
   EXPECT_EQ(rec->removes.size(), 2u);
   EXPECT_TRUE(rec->held.empty());
   EXPECT_EQ(liveValues, 1);
   EXPECT_EQ(outside->dedupTable(), nullptr);
}

TEST_F(DedupTest, CollidingHashesAndRandomLifetimesKeepTheTableConsistent) {
   std::mt19937 rng(7);
   auto t = Ovk::SimpleDedupHashTable::create();
   auto rec = Ovk::makePtr<Recorder>();
   t->notifieeIs(rec);
   std::vector<Ptr<Value const>> held;
   for (int round = 0; round < 20000; ++round) {
      int const v = static_cast<int>(rng() % 500);
      // A few hash values only, so probe chains are long and deletions shift entries.
      std::uint32_t const h = 1 + static_cast<std::uint32_t>(v % 7);
      if (held.empty() || rng() % 3 != 0) {
         auto p = dedup(t, v, h);
         ASSERT_EQ(p->v_, v);
         held.push_back(p);
      } else {
         std::swap(held[rng() % held.size()], held.back());
         held.pop_back();
      }
      if (round % 997 == 0) {
         std::set<int> distinct;
         for (auto const& p : held) distinct.insert(p->v_);
         ASSERT_EQ(t->size(), distinct.size());
         for (int d : distinct) ASSERT_TRUE(t->lookup(Value(d, 1 + static_cast<std::uint32_t>(d % 7))));
      }
   }
   held.clear();
   EXPECT_EQ(t->size(), 0u);
   EXPECT_EQ(t->capacity(), 16u); // the index shrank with its entries
   EXPECT_EQ(rec->inserts.size(), rec->removes.size());
   EXPECT_EQ(t->counters().inserts, t->counters().removes);
}

} // namespace
