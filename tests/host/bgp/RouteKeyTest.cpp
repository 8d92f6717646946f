#include "host/bgp/RouteKey.h"

#include <gtest/gtest.h>

#include <sstream>

#include "host/bgp/BgpTrace.h"

namespace {

using namespace Routing::Bgp;
using Ovk::Ptr;

// A key with nothing but a value, as a family that overrides only hash and compare.
class PlainKey : public RouteKey {
 public:
   explicit PlainKey(int v) : v_(v) {}
   std::uint32_t hash() const override { return static_cast<std::uint32_t>(v_); }
   bool compare(Ovk::DedupHandle const* o) const override { return static_cast<PlainKey const*>(o)->v_ == v_; }
   int v_;
};

class PlainTable : public RouteKeyDedupTable {
 public:
   PlainTable() : RouteKeyDedupTable(AfiSafi(Afi::afiIpv4, Safi::unicast), BgpL3VrfId(7)) {}
};

TEST(RouteKeyTest, DedupRouteKeyReturnsTheCanonicalKey) {
   auto table = Ovk::makePtr<PlainTable>();
   auto a = newRouteKey<PlainKey>(1);
   auto b = newRouteKey<PlainKey>(1);
   Ptr<RouteKey const> const first = a->dedupRouteKey(table.ptr());
   EXPECT_EQ(first.ptr(), a.ptr());
   EXPECT_EQ(b->dedupRouteKey(table.ptr()).ptr(), a.ptr());
   EXPECT_EQ(b->dedupState(), Ovk::dedupHandleStateNeverDeduped());
   EXPECT_EQ(table->lookupRouteKey(*b).ptr(), a.ptr());
   EXPECT_EQ(table->lookupRouteKey(PlainKey(2)).ptr(), nullptr);
   EXPECT_EQ(table->size(), 1u);
   EXPECT_EQ(table->afiSafi(), AfiSafi(Afi::afiIpv4, Safi::unicast));
   EXPECT_EQ(table->vrfId(), BgpL3VrfId(7));
   std::ostringstream os;
   os << *table;
   EXPECT_EQ(os.str(), "Routing::Bgp::RouteKeyDedupTable(ipv4Unicast vrf=7)");
}

TEST(RouteKeyTest, DefaultsOfKeysWithoutPrefixes) {
   auto key = newRouteKey<PlainKey>(3);
   EXPECT_FALSE(key->overlappingRouteKeysSupported());
   EXPECT_FALSE(key->isDefaultPrefix());
   EXPECT_FALSE(key->isValidLocalLabel(key->getLocalLabelForRkPartitionThread()));
   EXPECT_TRUE(key->matchesFilter(PlainKey(3)));
   EXPECT_FALSE(key->matchesFilter(PlainKey(4)));
   EXPECT_TRUE(key->compareByContent(key.ptr()));
   EXPECT_FALSE(key->isEorReadySignal());
   EXPECT_EQ(key->iarNhlDependencyLink(), nullptr);
   EXPECT_EQ(key->toStrepImpl(), "Routing::Bgp::RouteKey");
   EXPECT_EQ(&key->traceFacility(), &bgpTraceFacility());
}

TEST(RouteKeyDeathTest, QuestionsADerivedKeyMustAnswer) {
   auto key = newRouteKey<PlainKey>(3);
   EXPECT_DEATH(key->afi(), "Must override in derived class");
   EXPECT_DEATH(key->safi(), "Must override in derived class");
   EXPECT_DEATH(key->nlriType(), "Must override in derived class");
   EXPECT_DEATH(key->lessThan(key), "Must override in derived class");
   EXPECT_DEATH(key->isOverlapping(*key), "Must override in derived class");
   EXPECT_DEATH(key->isMoreSpecific(*key), "Must override in derived class");
   EXPECT_DEATH(key->getOneBitShorterMaskRouteKey(), "Must override in derived class");
   EXPECT_DEATH(key->serialize(RouteKey::SerializeOperation::advertise, nullptr), "Must override in derived class");
   EXPECT_DEATH(Ovk::makePtr<PlainTable>()->dedupFromCommandParams("x"), "Must override in derived class");
}

} // namespace
