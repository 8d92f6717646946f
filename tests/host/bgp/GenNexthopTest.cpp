#include "host/bgp/GenNexthop.h"

#include <gtest/gtest.h>

namespace {

using Ovk::Ptr;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::GenNexthop;
using Routing::Bgp::GenNexthopIdAllocator;

int liveNexthops = 0;

// A next hop with an address, optionally marked as policy reject.
class TestNexthop : public GenNexthop {
 public:
   explicit TestNexthop(char const* addr, bool reject = false)
       : addr_(*Ovnet::IpGenAddr::parse(addr)), reject_(reject) {
      ++liveNexthops;
   }
   std::uint32_t hash() const override { return addr_.hash(); }
   bool compareDerived(GenNexthop const* o) const override {
      auto const* t = static_cast<TestNexthop const*>(o);
      return addr_ == t->addr_ && reject_ == t->reject_;
   }
   AfiSafi afisafi() const override { return AfiSafi(Routing::Bgp::Afi::afiIpv4, 1); }
   Ovk::String serialize() const override { return {}; }
   bool isPolicyReject() const override { return reject_; }

 protected:
   ~TestNexthop() override { --liveNexthops; }

 private:
   Ovnet::IpGenAddr addr_;
   bool reject_;
};

class TestTable : public Routing::Bgp::GenNexthopDedupTable {
 public:
   explicit TestTable(Ptr<GenNexthopIdAllocator> ids = nullptr)
       : GenNexthopDedupTable(Routing::Bgp::BgpL3VrfId::defaultVrfId(), AfiSafi(0x101), nullptr, std::move(ids)) {}
};

Ptr<GenNexthop const> dedup(Ptr<TestTable> const& t, char const* addr, bool lookupOnly = false) {
   return Ovk::makePtr<TestNexthop>(addr)->dedup(t, lookupOnly);
}

class GenNexthopTest : public ::testing::Test {
 protected:
   void TearDown() override { EXPECT_EQ(liveNexthops, 0); }
};

TEST_F(GenNexthopTest, LookupOnlyFindsOrMakesAnOrphanButNeverEnters) {
   auto t = Ovk::makePtr<TestTable>();
   auto entered = dedup(t, "10.0.0.1");
   EXPECT_EQ(dedup(t, "10.0.0.1", true).ptr(), entered.ptr());
   auto probe = dedup(t, "10.0.0.9", true);
   EXPECT_EQ(probe->dedupState(), Ovk::dedupHandleStateOrphan());
   EXPECT_EQ(probe->dedupTable(), t.ptr());
   EXPECT_EQ(t->size(), 1u);
   // The orphan holds its table: it may outlive every other holder.
   t = nullptr;
   EXPECT_EQ(probe->dedupTable()->size(), 1u);
}

TEST_F(GenNexthopTest, EntriesHoldIdsOnlyWhileInTheTable) {
   auto ids = GenNexthopIdAllocator::create();
   auto t = Ovk::makePtr<TestTable>(ids);
   auto a = dedup(t, "10.0.0.1");
   auto b = dedup(t, "10.0.0.2");
   EXPECT_EQ(a->nexthopId(), 1u);
   EXPECT_EQ(b->nexthopId(), 2u);
   a = nullptr;
   EXPECT_EQ(ids->inUse(), 1u);
   EXPECT_EQ(dedup(t, "10.0.0.3")->nexthopId(), 1u); // the freed id first
   // A table that dies first returns the ids of what it still holds; the next hops live on.
   t = nullptr;
   EXPECT_EQ(ids->inUse(), 0u);
   EXPECT_EQ(b->nexthopId(), 0u);
   EXPECT_EQ(b->dedupTable(), nullptr);
}

TEST_F(GenNexthopTest, MarkersMustBeEntriesOfTheirOwnTableOfTheRightKind) {
   auto t = Ovk::makePtr<TestTable>();
   auto reject = Ovk::makePtr<TestNexthop>("0.0.0.0", true)->dedup(t, false);
   t->policyRejectNexthopIs(reject);
   reject = nullptr;
   EXPECT_EQ(t->size(), 1u); // the table keeps its marker
   EXPECT_TRUE(t->policyRejectNexthop()->isPolicyReject());

   auto other = Ovk::makePtr<TestTable>();
   auto foreign = Ovk::makePtr<TestNexthop>("0.0.0.0", true)->dedup(other, false);
   EXPECT_DEATH(t->policyRejectNexthopIs(foreign),
                "Assertion `nh == nullptr \\|\\| nh->dedupTable\\(\\) == this' failed");
   auto plain = dedup(t, "0.0.0.0");
   EXPECT_DEATH(t->nexthopSelfIs(plain), "Assertion `nh == nullptr \\|\\| nh->isNexthopSelf\\(\\)' failed");
}

TEST_F(GenNexthopTest, IdAllocatorHandsOutTheLowestFreeIdAndRefusesDoubleReturns) {
   auto ids = GenNexthopIdAllocator::create();
   for (std::uint32_t expected : {1u, 2u, 3u}) EXPECT_EQ(ids->allocate(), expected);
   ids->release(3);
   ids->release(1);
   EXPECT_EQ(ids->inUse(), 1u);
   for (std::uint32_t expected : {1u, 3u, 4u}) EXPECT_EQ(ids->allocate(), expected);
   ids->release(2);
   EXPECT_DEATH(ids->release(2), "Assertion `returned' failed");
   EXPECT_DEATH(ids->release(9), "Assertion `id != 0 && id < next_' failed");
}

} // namespace
