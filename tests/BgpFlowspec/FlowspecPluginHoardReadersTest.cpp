#include "BgpFlowspec/FlowspecPluginHoardReaders.h"

#include <gtest/gtest.h>

#include <typeindex>
#include <typeinfo>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/hoard/AttributeCache.h"
#include "host/hoard/Store.h"

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using Ovk::Ptr;
using Routing::Bgp::Afi;
using Routing::Bgp::GenNexthop;
using Routing::Bgp::GenNexthopHoardReader;

Ovnet::IpGenAddr const none;

class FlowspecPluginHoardReadersTest : public ::testing::Test {
 protected:
   void SetUp() override { FlowspecOrreryInitializer::initialize(); }

   Ptr<GenNexthopHoardReader const> readerOf(GenNexthop const& nh) const {
      return Hoard::NameMap::instance().findAs<GenNexthopHoardReader>(nh.fwkType().name());
   }

   // Keeps `nh` in the store as an image of its concrete type, as the store holds it.
   void const* keep(Ptr<GenNexthop const> const& nh) {
      if (auto reject = Ovk::ptrCast<FlowspecPolicyRejectNexthop const>(nh)) return store_->keep(reject);
      if (auto self = Ovk::ptrCast<FlowspecNexthopSelf const>(nh)) return store_->keep(self);
      return store_->keep(Ovk::ptrCastChecked<FlowspecGenNexthop const>(nh));
   }

   // Stores `nh` and reads it back through the reader registered under its type's name.
   Ptr<GenNexthop> roundTrip(Ptr<GenNexthop const> const& nh) {
      void const* image = keep(nh);
      auto reader = readerOf(*nh);
      EXPECT_TRUE(reader);
      return reader ? reader->dehoard(image, manager_) : nullptr;
   }

   Ptr<Hoard::MemoryStore> store_ = Hoard::MemoryStore::create();
   Ptr<Hoard::StoreManager> manager_ = Hoard::StoreManager::create(store_);
};

TEST_F(FlowspecPluginHoardReadersTest, InitializingAgainLeavesTheFirstReadersInPlace) {
   auto first = Hoard::NameMap::instance().find(FlowspecGenNexthop::classFwkType().name());
   ASSERT_TRUE(first);
   std::size_t const size = Hoard::NameMap::instance().size();
   FlowspecOrreryInitializer::initialize();
   EXPECT_EQ(Hoard::NameMap::instance().size(), size);
   EXPECT_EQ(Hoard::NameMap::instance().find(FlowspecGenNexthop::classFwkType().name()).ptr(), first.ptr());
}

TEST_F(FlowspecPluginHoardReadersTest, RestoredNextHopsEqualTheStoredOnes) {
   auto table4 = flowspecGenNexthopDedupTableFactory(
       Routing::Bgp::BgpL3VrfId::defaultVrfId(), Routing::Bgp::AfiSafi::ipv4Flowspec(),
       flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "t"), nullptr);
   Ptr<GenNexthop const> const stored[] = {
       flowspecGenNexthopFactory(Afi::afiIpv4, *Ovnet::IpGenAddr::parse("10.0.0.1"), {})->dedup(table4, false),
       flowspecGenNexthopFactory(Afi::afiIpv6, *Ovnet::IpGenAddr::parse("2001:db8::1"), {}),
       table4->emptyNexthop(),
       table4->policyRejectNexthop(),
       table4->nexthopSelf(),
       flowspecNexthopSelfFactory(Afi::afiIpv6),
   };
   for (auto const& nh : stored) {
      std::ostringstream name;
      name << *nh;
      SCOPED_TRACE(name.str());
      Ptr<GenNexthop> restored = roundTrip(nh);
      ASSERT_TRUE(restored);
      EXPECT_NE(restored.ptr(), nh.ptr());
      EXPECT_EQ(std::type_index(typeid(*restored)), std::type_index(typeid(*nh)));
      EXPECT_EQ(restored->hash(), nh->hash());
      EXPECT_TRUE(restored->compareDerived(nh.ptr()));
      EXPECT_TRUE(restored->compare(nh.ptr()));
      EXPECT_EQ(restored->dedupState(), Ovk::dedupHandleStateNeverDeduped());
      EXPECT_FALSE(restored->getLifeTimeNotifier());
      // Back in a table that has the original, it finds the original.
      if (nh->dedupTable() == table4.ptr()) {
         EXPECT_EQ(restored->dedup(table4, false).ptr(), nh.ptr());
      }
   }
}

TEST_F(FlowspecPluginHoardReadersTest, RawBytesAreNotRestored) {
   auto bytesOnly = flowspecGenNexthopFactory(Afi::afiIpv6, none, Ovk::String("\x0a\xff"));
   ASSERT_FALSE(bytesOnly->serialize().empty());
   auto restored = Ovk::ptrCast<FlowspecGenNexthop>(roundTrip(bytesOnly));
   ASSERT_TRUE(restored);
   EXPECT_TRUE(restored->serialize().empty());
   EXPECT_TRUE(restored->nexthopBytes().empty());
   EXPECT_EQ(restored->afi(), Afi::afiIpv6);
   EXPECT_TRUE(restored->compareDerived(flowspecGenNexthopFactory(Afi::afiIpv6, none, {}).ptr()));
}

// A validator that rejects every read, and counts how often it was asked.
class RejectingValidator : public Hoard::AnchorValidator {
 public:
   void validate(Hoard::Store const&, Hoard::Anchor const&) const override {
      ++calls;
      throw Hoard::ImageChanged("rejected");
   }
   mutable int calls = 0;
};

TEST_F(FlowspecPluginHoardReadersTest, ARejectedReadReleasesTheNewObjectAndPassesTheError) {
   // Without the sanitizers' leak check this shows only that the error passes; with it, a
   // next hop left behind fails the run.
   auto validator = Ovk::makePtr<RejectingValidator>();
   auto manager = Hoard::StoreManager::create(store_, validator);
   for (Ptr<GenNexthop const> nh : {Ptr<GenNexthop const>(flowspecGenNexthopFactory(Afi::afiIpv4, none, {})),
                                    Ptr<GenNexthop const>(flowspecPolicyRejectNexthopFactory(Afi::afiIpv4)),
                                    Ptr<GenNexthop const>(flowspecNexthopSelfFactory(Afi::afiIpv4))}) {
      void const* image = keep(nh);
      auto reader = readerOf(*nh);
      ASSERT_TRUE(reader);
      int const before = validator->calls;
      EXPECT_THROW(reader->dehoard(image, manager), Hoard::ImageChanged);
      EXPECT_EQ(validator->calls, before + 1);
   }

   int stray = 0;
   EXPECT_THROW(FlowspecNexthopSelf::dehoard(&stray, manager_), Hoard::ImageNotFound);
}

} // namespace
