#include "host/bgp/BgpParse.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

using namespace Routing::Bgp;

TEST(BgpParseTest, PositionReadsBigEndianAndNeverPastTheEnd) {
   std::vector<std::uint8_t> const bytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09,
                                            0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x11};
   BgpParsePktPosition p(bytes);
   std::uint8_t u8 = 0;
   std::uint16_t u16 = 0;
   std::uint32_t u32 = 0;
   std::uint64_t u64 = 0;
   ASSERT_TRUE(p.consumeU8(&u8));
   ASSERT_TRUE(p.consumeU16ntoh(&u16));
   ASSERT_TRUE(p.consumeU32ntoh(&u32));
   ASSERT_TRUE(p.consumeU64ntoh(&u64));
   EXPECT_EQ(u8, 0x01);
   EXPECT_EQ(u16, 0x0203);
   EXPECT_EQ(u32, 0x04050607u);
   EXPECT_EQ(u64, 0x08090a0b0c0d0e0full);
   EXPECT_EQ(p.bytesLeft(), 2u);
   // Reads that do not fit fail whole and leave the position where it was.
   BytePtrConst const at = p.currentPosition();
   EXPECT_FALSE(p.consumeU32ntoh(&u32));
   EXPECT_FALSE(p.consumeU64ntoh(&u64));
   EXPECT_EQ(p.consumeData(3), nullptr);
   Ovnet::IpGenAddr a;
   EXPECT_FALSE(p.consumeIpv4GenAddress(&a));
   EXPECT_EQ(p.currentPosition(), at);
   EXPECT_EQ(u32, 0x04050607u);
   EXPECT_TRUE(p.consumeU16ntoh(&u16));
   EXPECT_EQ(u16, 0x1011);
   EXPECT_FALSE(p.consumeU8(&u8));
   EXPECT_NE(p.consumeData(0), nullptr);
   EXPECT_EQ(p.bytesLeft(), 0u);

   BgpParsePktPosition q(bytes);
   ASSERT_TRUE(q.consumeIpv4GenAddress(&a));
   EXPECT_EQ(a.str(), "1.2.3.4");
   EXPECT_FALSE(q.consumeIpv6GenAddress(&a));
   BgpParsePktPosition r(bytes);
   ASSERT_TRUE(r.consumeIpv6GenAddress(&a));
   EXPECT_EQ(a.str(), "102:304:506:708:90a:b0c:d0e:f10");
}

TEST(BgpParseTest, ResultsCountEachReason) {
   auto results = BgpParseUpdateResults::create();
   EXPECT_EQ(results->lastReason(), BgpParseCountReason::none);
   results->countReasonIs(BgpParseCountReason::flowspecNlriLenMismatch);
   results->countReasonIs(BgpParseCountReason::flowspecValueTooLong);
   results->countReasonIs(BgpParseCountReason::flowspecNlriLenMismatch);
   EXPECT_EQ(results->count(BgpParseCountReason::flowspecNlriLenMismatch), 2u);
   EXPECT_EQ(results->count(BgpParseCountReason::flowspecValueTooLong), 1u);
   EXPECT_EQ(results->count(BgpParseCountReason::flowspecIpv6FragmentDf), 0u);
   EXPECT_EQ(results->totalCount(), 3u);
   EXPECT_EQ(results->lastReason(), BgpParseCountReason::flowspecNlriLenMismatch);
   EXPECT_EQ(static_cast<int>(BgpParseCountReason::flowspecNlriLenMissing), 215);
   EXPECT_EQ(static_cast<int>(BgpParseCountReason::flowspecNexthopShort), 228);
   EXPECT_EQ(toStrep(BgpParseCountReason::flowspecIpv6FragmentDf), "flowspecIpv6FragmentDf");
   EXPECT_EQ(toStrep(static_cast<BgpParseCountReason>(999)), "999");
}

// One table gives every reason its name and the decoder's reasons their texts; the reasons
// the families' rules count have no decoder text (the rules give theirs).
TEST(BgpParseTest, ReasonNamesAndTexts) {
   using R = BgpParseCountReason;
   for (unsigned n = 1; n <= static_cast<unsigned>(R::nlriPathIdShort); ++n) {
      auto const r = static_cast<R>(n);
      SCOPED_TRACE(n);
      EXPECT_NE(toStrep(r), std::to_string(n));
      EXPECT_STRNE(bgpUpdateErrorText(r), "");
   }
   for (unsigned n = static_cast<unsigned>(R::flowspecNlriLenMissing);
        n <= static_cast<unsigned>(R::flowspecNexthopShort); ++n) {
      auto const r = static_cast<R>(n);
      SCOPED_TRACE(n);
      EXPECT_EQ(toStrep(r).rfind("flowspec", 0), 0u);
      EXPECT_STREQ(bgpUpdateErrorText(r), "");
   }
   EXPECT_STREQ(bgpUpdateErrorText(R::originLength), "ORIGIN length is not 1");
   EXPECT_STREQ(bgpUpdateErrorText(R::none), "");
   EXPECT_STREQ(bgpUpdateErrorText(static_cast<R>(38)), "");
   EXPECT_EQ(toStrep(static_cast<R>(38)), "38");
}

TEST(BgpParseTest, VrfRegistryFindsTablesByFamily) {
   EXPECT_EQ(AfiSafiDedupTablesHash()(AfiSafi::ipv4Flowspec()), 0x85u ^ 0x01u);
   EXPECT_EQ(AfiSafiDedupTablesHash()(AfiSafi::ipv6Flowspec()), 0x85u ^ 0x02u);
   auto vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
   auto v4 = Ovk::makePtr<DedupTablesVrfAfiSafi>(AfiSafi::ipv4Flowspec(), nullptr, nullptr);
   vrf->dedupTablesVrfAfiSafiIs(v4);
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec()), v4.ptr());
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(AfiSafi::ipv6Flowspec()), nullptr);
   vrf->dedupTablesVrfAfiSafiDel(AfiSafi::ipv4Flowspec());
   EXPECT_EQ(vrf->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec()), nullptr);

   auto ctx = Ovk::makePtr<BgpParseContext>(vrf, "peer 192.0.2.1");
   std::ostringstream os;
   os << *ctx;
   EXPECT_EQ(os.str(), "peer 192.0.2.1 vrf=0");
   EXPECT_EQ(ctx->flowspecRouteKeyDedupTableRawPtr(AfiSafi::ipv4Flowspec()), nullptr);
}

} // namespace
