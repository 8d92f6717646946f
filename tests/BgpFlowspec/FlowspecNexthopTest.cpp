#include "BgpFlowspec/FlowspecNexthop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <random>
#include <sstream>
#include <vector>

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using Ovk::Ptr;
using Routing::Bgp::Afi;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::GenNexthop;
using Routing::Bgp::GenNexthopIdAllocator;

Ovnet::IpGenAddr addr(char const* text) { return *Ovnet::IpGenAddr::parse(text); }
Ovnet::IpGenAddr const none;

Ovk::String bytes(std::vector<std::uint8_t> const& b) { return Ovk::String(b.data(), b.size()); }

std::string hex(Ovk::String const& s) {
   std::ostringstream os;
   for (std::uint8_t b : s.span()) os << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(b);
   return os.str();
}

std::string derivedText(GenNexthop const& nh) {
   std::ostringstream os;
   nh.formatDerivedType(os);
   return os.str();
}

Ptr<FlowspecGenNexthopLifeTimeNotifiee> notifiee() {
   return flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "bgp");
}

Ptr<FlowspecGenNexthopDedupTable> table(AfiSafi afiSafi = AfiSafi::ipv4Flowspec(),
                                        Ptr<FlowspecGenNexthopLifeTimeNotifiee> const& n = notifiee(),
                                        Ptr<GenNexthopIdAllocator> const& ids = nullptr) {
   return flowspecGenNexthopDedupTableFactory(Routing::Bgp::BgpL3VrfId::defaultVrfId(), afiSafi, n, ids);
}

Ptr<FlowspecGenNexthop const> dedup(Ptr<FlowspecGenNexthopDedupTable> const& t, Ptr<FlowspecGenNexthop> const& nh) {
   return Ovk::ptrCast<FlowspecGenNexthop const>(nh->dedup(t, false));
}

TEST(FlowspecNexthopTest, WireAndTextForms) {
   struct Row {
      char const* name;
      Afi afi;
      Ovnet::IpGenAddr addr;
      Ovk::String nexthopBytes;
      char const* wire; // hex
      char const* text;
   };
   std::vector<std::uint8_t> linkLocalPair(32);
   for (std::size_t i = 0; i < linkLocalPair.size(); ++i) linkLocalPair[i] = static_cast<std::uint8_t>(i);
   Row const rows[] = {
       {"empty", Afi::afiIpv4, none, {}, "", ""},
       {"bytes only", Afi::afiIpv4, none, bytes({0x0a, 0xff}), "020aff", "addr=0x0aff"},
       {"ipv4", Afi::afiIpv4, addr("10.1.1.1"), {}, "040a010101", "addr=10.1.1.1"},
       {"address wins over bytes", Afi::afiIpv4, addr("10.1.1.1"), bytes({0x0a, 0xff}), "040a010101", "addr=10.1.1.1"},
       {"ipv6", Afi::afiIpv6, addr("2001:db8::1"), {}, "1020010db8000000000000000000000001", "addr=2001:db8::1"},
       {"ipv6 global plus link-local kept as bytes (leading zero byte too)", Afi::afiIpv6, none, bytes(linkLocalPair),
        "20000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
        "addr=0x000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      auto nh = flowspecGenNexthopFactory(r.afi, r.addr, r.nexthopBytes);
      EXPECT_EQ(hex(nh->serialize()), r.wire);
      EXPECT_EQ(derivedText(*nh), r.text);
      EXPECT_EQ(nh->addrOrNone(), r.addr);
   }
}

TEST(FlowspecNexthopTest, FormattingLeavesTheCallersStreamFormatAlone) {
   for (auto const& nh : {flowspecGenNexthopFactory(Afi::afiIpv4, none, bytes({0xab, 0x0c})),
                          flowspecGenNexthopFactory(Afi::afiIpv4, addr("192.0.2.1"), {})}) {
      std::ostringstream os;
      os << std::uppercase << std::left << std::setfill('*');
      os.width(6);
      nh->formatDerivedType(os);
      // Unpadded, lower case, whatever the caller had set...
      EXPECT_TRUE(os.str() == "addr=0xab0c" || os.str() == "addr=192.0.2.1") << os.str();
      // ...and the caller's flags, fill and pending width apply to what the caller writes next.
      EXPECT_EQ(os.width(), 6);
      os << 255 << std::hex << 255;
      EXPECT_TRUE(os.str().ends_with("255***FF")) << os.str();
   }
}

TEST(FlowspecNexthopTest, FullTextFormNamesTheTypeFamilyAndMarker) {
   std::ostringstream os;
   os << *flowspecGenNexthopFactory(Afi::afiIpv4, addr("10.1.1.1"), {}) << ' '
      << *flowspecPolicyRejectNexthopFactory(Afi::afiIpv6);
   EXPECT_EQ(os.str(), "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthop(ipv4Flowspec addr=10.1.1.1) "
                       "Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthop(ipv6Flowspec policyReject)");
}

// The hash is persisted with the next hops, so its bytes are pinned: Jenkins one-at-a-time
// over four words, each as its four little-endian bytes.
std::uint32_t referenceHash(std::uint32_t afi, std::uint32_t bytesHash, std::uint32_t addrHash, std::uint32_t reject) {
   std::vector<std::uint8_t> b;
   for (std::uint32_t w : {afi, bytesHash, addrHash, reject}) {
      for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(w >> (8 * i)));
   }
   return Ovnet::oneAtATimeFinal(Ovnet::oneAtATimeMix(0, b.data(), b.size()));
}

TEST(FlowspecNexthopTest, HashCoversFamilyBytesAddressAndPolicyReject) {
   auto const raw = bytes({1, 2, 3});
   auto const a = addr("2001:db8::7");
   EXPECT_EQ(flowspecGenNexthopFactory(Afi::afiIpv6, a, raw)->hash(), referenceHash(2, raw.hash(), a.hash(), 0));
   EXPECT_EQ(flowspecGenNexthopFactory(Afi::afiIpv4, none, {})->hash(), referenceHash(1, 0, none.hash(), 0));
   EXPECT_EQ(flowspecPolicyRejectNexthopFactory(Afi::afiIpv4)->hash(), referenceHash(1, 0, none.hash(), 1));
}

TEST(FlowspecNexthopTest, MarkersAgainstTheEmptyNextHop) {
   for (Afi afi : {Afi::afiIpv4, Afi::afiIpv6}) {
      SCOPED_TRACE(static_cast<int>(afi));
      auto empty = flowspecGenNexthopFactory(afi, none, {});
      auto reject = flowspecPolicyRejectNexthopFactory(afi);
      auto self = flowspecNexthopSelfFactory(afi);
      // Policy reject is part of the value.
      EXPECT_NE(reject->hash(), empty->hash());
      EXPECT_FALSE(reject->compareDerived(empty.ptr()));
      EXPECT_FALSE(empty->compareDerived(reject.ptr()));
      // Next-hop-self is not: only its type keeps it apart in a table.
      EXPECT_EQ(self->hash(), empty->hash());
      EXPECT_TRUE(self->compareDerived(empty.ptr()));
      EXPECT_TRUE(empty->compareDerived(self.ptr()));
      EXPECT_FALSE(self->compare(empty.ptr()));
   }
}

TEST(FlowspecNexthopTest, EqualNextHopsHashAlikeAndCompareBothWays) {
   std::vector<Ptr<FlowspecGenNexthop>> all;
   for (Afi afi : {Afi::afiIpv4, Afi::afiIpv6}) {
      for (int copy = 0; copy < 2; ++copy) {
         all.push_back(flowspecGenNexthopFactory(afi, none, {}));
         all.push_back(flowspecGenNexthopFactory(afi, none, bytes({0x0a, 0xff})));
         all.push_back(flowspecGenNexthopFactory(afi, none, bytes({0x0a, 0xfe})));
         all.push_back(flowspecGenNexthopFactory(afi, addr("10.1.1.1"), {}));
         all.push_back(flowspecGenNexthopFactory(afi, addr("10.1.1.1"), bytes({0x0a, 0xff})));
         all.push_back(flowspecGenNexthopFactory(afi, addr("::a01:101"), {}));
         all.push_back(flowspecGenNexthopFactory(afi, addr("0.0.0.0"), {})); // not the unspecified address
         all.push_back(flowspecPolicyRejectNexthopFactory(afi));
         all.push_back(flowspecNexthopSelfFactory(afi));
      }
   }
   for (auto const& a : all) {
      int equals = 0;
      for (auto const& b : all) {
         bool const eq = a->compare(b.ptr());
         EXPECT_EQ(eq, b->compare(a.ptr())) << *a << " vs " << *b;
         if (eq) {
            EXPECT_EQ(a->hash(), b->hash()) << *a << " vs " << *b;
            ++equals;
         }
      }
      EXPECT_EQ(equals, 2) << *a; // itself and its copy
   }
}

TEST(FlowspecNexthopTest, FamilyAndResolution) {
   auto v6 = flowspecNexthopSelfFactory(Afi::afiIpv6);
   EXPECT_EQ(flowspecGenNexthopFactory(Afi::afiIpv4, none, {})->afisafi().value(), 389u);
   EXPECT_EQ(v6->afisafi().value(), 645u);
   EXPECT_TRUE(v6->isPreResolved());
   EXPECT_EQ(v6->currentMetric(), v6->preResolvedMetric());
}

TEST(FlowspecNexthopTest, TableMakesItsThreeSingletonsInOrder) {
   auto ids = GenNexthopIdAllocator::create();
   auto t = table(AfiSafi::ipv6Flowspec(), notifiee(), ids);
   EXPECT_EQ(t->size(), 3u);
   EXPECT_TRUE(t->notificationActive());
   EXPECT_EQ(t->fwkType().name(), "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopDedupTable");
   Ptr<GenNexthop const> const singletons[] = {t->emptyNexthop(), t->policyRejectNexthop(), t->nexthopSelf()};
   for (std::uint32_t i = 0; i < 3; ++i) {
      auto const& nh = singletons[i];
      ASSERT_TRUE(nh);
      EXPECT_EQ(nh->dedupTable(), t.ptr());
      EXPECT_EQ(nh->afisafi(), AfiSafi::ipv6Flowspec());
      EXPECT_EQ(nh->nexthopId(), i + 1) << "built out of order: " << *nh;
      ASSERT_TRUE(nh->getLifeTimeNotifier());
      EXPECT_EQ(nh->getLifeTimeNotifier()->nexthop(), nh.ptr());
   }
   EXPECT_FALSE(singletons[0]->isPolicyReject() || singletons[0]->isNexthopSelf());
   EXPECT_TRUE(singletons[1]->isPolicyReject());
   EXPECT_TRUE(singletons[2]->isNexthopSelf());

   // Parsing the same content again finds the singletons.
   EXPECT_EQ(dedup(t, flowspecGenNexthopFactory(Afi::afiIpv6, none, {})).ptr(), t->emptyNexthop().ptr());
   EXPECT_EQ(flowspecNexthopSelfFactory(Afi::afiIpv6)->dedup(t, false).ptr(), t->nexthopSelf().ptr());
   EXPECT_EQ(flowspecPolicyRejectNexthopFactory(Afi::afiIpv6)->dedup(t, false).ptr(), t->policyRejectNexthop().ptr());
   EXPECT_EQ(t->size(), 3u);
}

TEST(FlowspecNexthopTest, CallbacksRunInlineWhateverTheThreadingFlag) {
   auto scheduler = Ovk::ManualScheduler::create();
   auto t = table(AfiSafi::ipv4Flowspec(), flowspecGenNexthopLifeTimeNotifieeFactory(true, scheduler, "bgp"));
   EXPECT_TRUE(dedup(t, flowspecGenNexthopFactory(Afi::afiIpv4, addr("10.0.0.1"), {}))->lifeTimeNotifier());
   EXPECT_EQ(scheduler->pending(), 0u);
}

// Many next hops, deduplicated and released in random order, with tables sharing one
// notifiee and one id allocator: only the singletons stay, and (under the sanitizers)
// nothing leaks.
TEST(FlowspecNexthopTest, RandomLifetimesLeaveOnlyTheSingletons) {
   std::mt19937 rng(20240611);
   auto n = notifiee();
   auto ids = GenNexthopIdAllocator::create();
   auto t4 = table(AfiSafi::ipv4Flowspec(), n, ids);
   auto t6 = table(AfiSafi::ipv6Flowspec(), n, ids);
   std::vector<Ptr<FlowspecGenNexthop const>> held;
   for (int round = 0; round < 20000; ++round) {
      if (held.empty() || rng() % 5 < 3) {
         bool const v6 = rng() % 2 != 0;
         Afi const afi = v6 ? Afi::afiIpv6 : Afi::afiIpv4;
         auto const value = static_cast<std::uint32_t>(rng() % 300);
         Ptr<FlowspecGenNexthop> nh;
         switch (rng() % 5) {
         case 0: nh = flowspecGenNexthopFactory(afi, Ovnet::IpGenAddr::ipv4(value), {}); break;
         case 1: nh = flowspecGenNexthopFactory(afi, none, bytes({static_cast<std::uint8_t>(value), 1, 2})); break;
         case 2: nh = flowspecGenNexthopFactory(afi, none, {}); break;
         case 3: nh = flowspecPolicyRejectNexthopFactory(afi); break;
         default: nh = flowspecNexthopSelfFactory(afi); break;
         }
         auto const& t = v6 ? t6 : t4;
         auto shared = dedup(t, nh);
         ASSERT_TRUE(shared->compare(nh.ptr()));
         ASSERT_TRUE(shared->lifeTimeNotifier());
         held.push_back(shared);
      } else {
         std::swap(held[rng() % held.size()], held.back());
         held.pop_back();
      }
      if (round % 1000 == 0) {
         ASSERT_EQ(ids->inUse(), t4->size() + t6->size());
      }
   }
   std::shuffle(held.begin(), held.end(), rng);
   held.clear();
   EXPECT_EQ(t4->size(), 3u);
   EXPECT_EQ(t6->size(), 3u);
   EXPECT_EQ(ids->inUse(), 6u);
   EXPECT_EQ(t4->counters().inserts - t4->counters().removes, 3u);
}

TEST(FlowspecNexthopDeathTest, NotifierMustBeAbsentOnInsertAndPresentOnRemove) {
   auto n = notifiee();
   auto t = table(AfiSafi::ipv4Flowspec(), n);
   auto nh = dedup(t, flowspecGenNexthopFactory(Afi::afiIpv4, addr("10.0.0.1"), {}));
   Ptr<Ovk::DedupHandle> handle(Ovk::ptrConstCast(nh).ptr());
   EXPECT_DEATH(n->handleInsert(handle),
                "FlowspecNexthop.cpp:[0-9]+: .*FlowspecGenNexthopLifeTimeNotifiee::handleInsert.*: "
                "Assertion `nh->lifeTimeNotifier\\(\\) == nullptr' failed\\.");

   // A next hop of a table without this notifiee never got a notifier.
   auto bare = table(AfiSafi::ipv4Flowspec(), nullptr);
   auto plain = dedup(bare, flowspecGenNexthopFactory(Afi::afiIpv4, addr("10.0.0.2"), {}));
   EXPECT_DEATH(n->handleRemove(Ovk::ptrConstCast(plain).ptr()),
                "FlowspecNexthop.cpp:[0-9]+: .*FlowspecGenNexthopLifeTimeNotifiee::handleRemove.*: "
                "Assertion `lifeTimeNotifier != nullptr' failed\\.");
}

} // namespace
