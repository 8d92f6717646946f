#include "host/bgp/GenNexthop.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

using Ovk::Ptr;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::GenNexthop;
using Routing::Bgp::GenNexthopIdAllocator;
using Routing::Bgp::GenNexthopLifeTimeNotifier;

int liveNexthops = 0;

// A next hop with an address, and a marker type of the same content.
class TestNexthop : public GenNexthop {
 public:
   explicit TestNexthop(char const* addr) : addr_(*Ovnet::IpGenAddr::parse(addr)) { ++liveNexthops; }
   std::uint32_t hash() const override { return addr_.hash(); }
   bool compareDerived(GenNexthop const* o) const override {
      return addr_ == static_cast<TestNexthop const*>(o)->addr_;
   }
   AfiSafi afisafi() const override { return AfiSafi(Routing::Bgp::Afi::afiIpv4, 1); }
   Ovnet::IpGenAddr addrOrNone() const override { return addr_; }
   Ovk::String serialize() const override { return Ovk::String(addr_.bytes().data(), addr_.size()); }
   void formatDerivedType(std::ostream& os) const override { os << addr_; }
   Ptr<GenNexthopLifeTimeNotifier> getLifeTimeNotifier() const override { return notifier_; }

   Ptr<GenNexthopLifeTimeNotifier> notifier_;

 protected:
   ~TestNexthop() override { --liveNexthops; }

 private:
   Ovnet::IpGenAddr addr_;
};

class TestSelfNexthop : public TestNexthop {
 public:
   using TestNexthop::TestNexthop;
   bool isNexthopSelf() const override { return true; }
};

class TestRejectNexthop : public TestNexthop {
 public:
   using TestNexthop::TestNexthop;
   bool isPolicyReject() const override { return true; }
};

// Gives every entering next hop a notifier and records the order of events.
class TestNotifiee : public Routing::Bgp::GenNexthopLifeTimeNotifiee {
 public:
   TestNotifiee() : GenNexthopLifeTimeNotifiee(false, nullptr, "test") {}
   void handleInsert(Ptr<Ovk::DedupHandle> const& h) override {
      auto* nh = static_cast<TestNexthop*>(h.ptr());
      events.push_back("insert " + std::to_string(nh->nexthopId()));
      nh->notifier_ = Ovk::makePtr<GenNexthopLifeTimeNotifier>(h);
   }
   void handleRemove(Ovk::DedupHandle* h) override {
      auto* nh = static_cast<TestNexthop*>(h);
      events.push_back("remove " + std::to_string(nh->nexthopId()));
      nh->notifier_ = nullptr;
   }
   void handleNotificationStop(Ptr<Ovk::DedupHashTable const> const&) override {}
   std::vector<std::string> events;
};

class TestTable : public Routing::Bgp::GenNexthopDedupTable {
 public:
   TestTable(Ptr<Routing::Bgp::GenNexthopLifeTimeNotifiee const> n, Ptr<GenNexthopIdAllocator> ids)
       : GenNexthopDedupTable(Routing::Bgp::BgpL3VrfId::defaultVrfId(), AfiSafi(0x101), std::move(n), std::move(ids)) {}
};

Ptr<TestTable> table(Ptr<TestNotifiee> const& n = nullptr, Ptr<GenNexthopIdAllocator> const& ids = nullptr) {
   return Ovk::makePtr<TestTable>(n, ids);
}

class GenNexthopTest : public ::testing::Test {
 protected:
   void TearDown() override { EXPECT_EQ(liveNexthops, 0); }
};

TEST_F(GenNexthopTest, OnlyNextHopsOfOneConcreteTypeAreEqual) {
   auto plain = Ovk::makePtr<TestNexthop>("10.0.0.1");
   auto self = Ovk::makePtr<TestSelfNexthop>("10.0.0.1");
   EXPECT_EQ(plain->hash(), self->hash());
   EXPECT_TRUE(plain->compareDerived(self.ptr()));
   EXPECT_FALSE(plain->compare(self.ptr()));
   EXPECT_FALSE(self->compare(plain.ptr()));
   EXPECT_TRUE(plain->compare(Ovk::makePtr<TestNexthop>("10.0.0.1").ptr()));
   EXPECT_FALSE(plain->compare(Ovk::makePtr<TestNexthop>("10.0.0.2").ptr()));

   // So a table keeps both, though they share a hash.
   auto t = table();
   auto a = plain->dedup(t, false);
   auto b = self->dedup(t, false);
   EXPECT_NE(a.ptr(), b.ptr());
   EXPECT_EQ(t->size(), 2u);
}

TEST_F(GenNexthopTest, DedupSharesEqualNextHopsAndLookupOnlyMakesOrphans) {
   auto t = table();
   auto first = Ovk::makePtr<TestNexthop>("10.0.0.1")->dedup(t, false);
   auto again = Ovk::makePtr<TestNexthop>("10.0.0.1")->dedup(t, false);
   EXPECT_EQ(first.ptr(), again.ptr());
   EXPECT_EQ(first->dedupState(), Ovk::dedupHandleStateDeduped());

   auto found = Ovk::makePtr<TestNexthop>("10.0.0.1")->dedup(t, true);
   EXPECT_EQ(found.ptr(), first.ptr());
   auto probe = Ovk::makePtr<TestNexthop>("10.0.0.9");
   auto orphan = probe->dedup(t, true);
   EXPECT_EQ(orphan.ptr(), probe.ptr());
   EXPECT_EQ(orphan->dedupState(), Ovk::dedupHandleStateOrphan());
   EXPECT_EQ(t->size(), 1u);

   first = again = found = nullptr;
   EXPECT_EQ(t->size(), 0u);
}

TEST_F(GenNexthopTest, EntriesHoldIdsAndNotifiersOnlyWhileInTheTable) {
   auto ids = GenNexthopIdAllocator::create();
   auto notifiee = Ovk::makePtr<TestNotifiee>();
   auto t = table(notifiee, ids);
   auto a = Ovk::makePtr<TestNexthop>("10.0.0.1")->dedup(t, false);
   auto b = Ovk::makePtr<TestNexthop>("10.0.0.2")->dedup(t, false);
   EXPECT_EQ(a->nexthopId(), 1u);
   EXPECT_EQ(b->nexthopId(), 2u);
   ASSERT_TRUE(a->getLifeTimeNotifier());
   EXPECT_EQ(a->getLifeTimeNotifier()->nexthop(), a.ptr());

   // The notifier's reference is anchored: the last outside release still empties the entry.
   a = nullptr;
   EXPECT_EQ(t->size(), 1u);
   EXPECT_EQ(ids->inUse(), 1u);
   // The freed id is handed out again first.
   auto c = Ovk::makePtr<TestNexthop>("10.0.0.3")->dedup(t, false);
   EXPECT_EQ(c->nexthopId(), 1u);
   // The notifiee sees the id on the way in and on the way out.
   EXPECT_EQ(notifiee->events, (std::vector<std::string>{"insert 1", "insert 2", "remove 1", "insert 1"}));

   // A table that dies first lets go of what it still holds; the next hops live on.
   t = nullptr;
   EXPECT_EQ(ids->inUse(), 0u);
   EXPECT_FALSE(b->getLifeTimeNotifier());
   EXPECT_EQ(b->nexthopId(), 0u);
   EXPECT_EQ(b->dedupTable(), nullptr);
}

TEST_F(GenNexthopTest, MarkersAreEntriesOfTheirOwnTable) {
   auto t = table(Ovk::makePtr<TestNotifiee>());
   auto reject = Ovk::makePtr<TestRejectNexthop>("0.0.0.0")->dedup(t, false);
   auto self = Ovk::makePtr<TestSelfNexthop>("0.0.0.0")->dedup(t, false);
   t->policyRejectNexthopIs(reject);
   t->nexthopSelfIs(self);
   EXPECT_EQ(t->policyRejectNexthop().ptr(), reject.ptr());
   EXPECT_EQ(t->nexthopSelf().ptr(), self.ptr());
   reject = self = nullptr;
   EXPECT_EQ(t->size(), 2u); // the table keeps its markers

   auto other = table();
   auto foreign = Ovk::makePtr<TestRejectNexthop>("0.0.0.0")->dedup(other, false);
   EXPECT_DEATH(t->policyRejectNexthopIs(foreign), "Assertion `nh == nullptr \\|\\| nh->dedupTable\\(\\) == this' failed");
   auto plain = Ovk::makePtr<TestNexthop>("0.0.0.0")->dedup(t, false);
   EXPECT_DEATH(t->nexthopSelfIs(plain), "Assertion `nh == nullptr \\|\\| nh->isNexthopSelf\\(\\)' failed");
}

TEST_F(GenNexthopTest, IdAllocatorHandsOutTheLowestFreeIdAndRefusesDoubleReturns) {
   auto ids = GenNexthopIdAllocator::create();
   EXPECT_EQ(ids->allocate(), 1u);
   EXPECT_EQ(ids->allocate(), 2u);
   EXPECT_EQ(ids->allocate(), 3u);
   ids->release(3);
   ids->release(1);
   EXPECT_EQ(ids->inUse(), 1u);
   EXPECT_EQ(ids->allocate(), 1u);
   EXPECT_EQ(ids->allocate(), 3u);
   EXPECT_EQ(ids->allocate(), 4u);
   ids->release(2);
   EXPECT_DEATH(ids->release(2), "Assertion `returned' failed");
   EXPECT_DEATH(ids->release(9), "Assertion `id != 0 && id < next_' failed");
}

TEST_F(GenNexthopTest, TextFormIsTheGenericPrefixThenTheDerivedText) {
   std::ostringstream os;
   os << *Ovk::makePtr<TestNexthop>("10.0.0.1") << ' ' << *Ovk::makePtr<TestSelfNexthop>("10.0.0.2") << ' '
      << *Ovk::makePtr<TestRejectNexthop>("10.0.0.3");
   EXPECT_EQ(os.str(),
             "Routing::Bgp::GenNexthop(ipv4Unicast 10.0.0.1) Routing::Bgp::GenNexthop(ipv4Unicast nexthopSelf 10.0.0.2) "
             "Routing::Bgp::GenNexthop(ipv4Unicast policyReject 10.0.0.3)");
}

} // namespace
