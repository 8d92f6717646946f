#include "host/bgp/AfiSafi.h"

#include <gtest/gtest.h>

#include <sstream>

#include "host/bgp/BgpMetricPref.h"

namespace {

using Routing::Bgp::Afi;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::NlriType;

TEST(AfiSafiTest, PacksAfiAboveSafiAndNamesTheFamilies) {
   struct Row {
      AfiSafi afiSafi;
      std::uint32_t value;
      Afi afi;
      unsigned safi;
      char const* text;
      NlriType nlriType;
   };
   Row const rows[] = {
       {AfiSafi::ipv4Flowspec(), 389, Afi::afiIpv4, 133, "ipv4Flowspec", NlriType::ipv4Flowspec},
       {AfiSafi::ipv6Flowspec(), 645, Afi::afiIpv6, 133, "ipv6Flowspec", NlriType::ipv6Flowspec},
       {AfiSafi(0x186), 0x186, Afi::afiIpv4, 134, "ipv4FlowspecVpn", NlriType::nlriTypeUnknown},
       {AfiSafi(Afi::afiIpv6, 1), 0x201, Afi::afiIpv6, 1, "ipv6Unicast", NlriType::ipv6Unicast},
       {AfiSafi(Afi::afiIpv4, 2), 0x102, Afi::afiIpv4, 2, "afi1Safi2", NlriType::nlriTypeUnknown},
       {AfiSafi(25u << 8 | 70), 0x1946, Afi{25}, 70, "afi25Safi70", NlriType::nlriTypeUnknown},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.text);
      EXPECT_EQ(r.afiSafi.value(), r.value);
      EXPECT_EQ(r.afiSafi.afi(), r.afi);
      EXPECT_EQ(r.afiSafi.safi(), r.safi);
      std::ostringstream os;
      os << r.afiSafi;
      EXPECT_EQ(os.str(), r.text);
      EXPECT_EQ(Routing::Bgp::fromAfiSafi(r.afiSafi), r.nlriType);
   }
   EXPECT_EQ(static_cast<int>(NlriType::ipv4Flowspec), 20);
   EXPECT_EQ(static_cast<int>(NlriType::ipv6Flowspec), 21);
}

TEST(AfiSafiTest, MetricsOrderByPreferenceFirst) {
   using Routing::Bgp::BgpMetricPref;
   EXPECT_LT(BgpMetricPref(100, 1), BgpMetricPref(1, 2));
   EXPECT_LT(BgpMetricPref(1, 2), BgpMetricPref(2, 2));
   EXPECT_LT(BgpMetricPref(0, 0), BgpMetricPref::unresolved());
}

} // namespace
