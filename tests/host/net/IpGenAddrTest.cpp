#include "host/net/IpGenAddr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using Ovnet::IpGenAddr;
using Ovnet::IpGenPrefix;

IpGenPrefix P(char const* s) {
   auto p = IpGenPrefix::parse(s);
   EXPECT_TRUE(p) << s;
   return p.value_or(IpGenPrefix());
}

TEST(IpGenAddrTest, ParsesAndPrintsBothFamilies) {
   for (char const* text : {"10.1.2.3", "0.0.0.0", "2001:db8::1", "::", "::ffff:1.2.3.4"}) {
      auto a = IpGenAddr::parse(text);
      ASSERT_TRUE(a) << text;
      EXPECT_EQ(a->str(), text);
   }
   for (char const* bad : {"", "1.2.3", "1.2.3.256", "2001:db8:::1", "x", "1.2.3.4 "}) {
      EXPECT_FALSE(IpGenAddr::parse(bad)) << bad;
   }
   EXPECT_EQ(IpGenAddr::parse("10.1.1.1")->ipv4HostOrder(), 0x0a010101u);
   EXPECT_EQ(IpGenAddr::parse("::")->size(), 16u);
   EXPECT_EQ(IpGenAddr().size(), 0u);
}

TEST(IpGenAddrTest, UnspecifiedDiffersFromAllZeroAddresses) {
   EXPECT_FALSE(IpGenAddr() == *IpGenAddr::parse("0.0.0.0"));
   EXPECT_FALSE(IpGenPrefix() == P("0.0.0.0/0"));
   EXPECT_FALSE(P("0.0.0.0/0") == P("::/0"));
   EXPECT_TRUE(IpGenPrefix().isUnset());
}

TEST(IpGenAddrTest, LayoutIsFixedSoHashesOfEqualValuesAgree) {
   // Built by different routes, equal values have equal bytes and so equal hashes.
   IpGenPrefix a = P("192.168.77.5/20");
   a.clearLowerAddrBits();
   IpGenPrefix b(*IpGenAddr::parse("192.168.64.0"), 20);
   EXPECT_EQ(a, b);
   EXPECT_EQ(a.hash(), b.hash());
   EXPECT_EQ(a.str(), "192.168.64.0/20");
   EXPECT_NE(P("10.0.0.0/8").hash(), P("10.0.0.0/9").hash());
}

TEST(IpGenAddrTest, PrefixLengthsAndHostBits) {
   EXPECT_FALSE(IpGenPrefix::parse("10.0.0.0/33"));
   EXPECT_FALSE(IpGenPrefix::parse("::/129"));
   EXPECT_FALSE(IpGenPrefix::parse("10.0.0.0/"));
   EXPECT_FALSE(IpGenPrefix::parse("10.0.0.1/24", true));
   EXPECT_EQ(P("10.0.0.1").len(), 32);
   IpGenPrefix p = P("2001:db8:ffff::/128");
   p.maskIs(33);
   p.clearLowerAddrBits();
   EXPECT_EQ(p.str(), "2001:db8:8000::/33");
   p.maskIs(200);
   EXPECT_EQ(p.len(), 128);
}

TEST(IpGenAddrTest, ContainmentAndOrder) {
   EXPECT_TRUE(P("10.0.0.0/8").contains(P("10.1.0.0/16")));
   EXPECT_TRUE(P("10.0.0.0/8").contains(P("10.0.0.0/8")));
   EXPECT_FALSE(P("10.1.0.0/16").contains(P("10.0.0.0/8")));
   EXPECT_FALSE(P("10.0.0.0/8").contains(P("11.0.0.0/16")));
   EXPECT_FALSE(P("0.0.0.0/0").contains(P("::/0")));
   EXPECT_TRUE(P("0.0.0.0/0").contains(P("1.2.3.4/32")));
   std::vector<IpGenPrefix> v{P("10.0.0.0/16"), P("::/0"), P("10.0.0.0/8"), IpGenPrefix(), P("9.0.0.0/8")};
   std::sort(v.begin(), v.end());
   EXPECT_EQ(v[0], IpGenPrefix());
   EXPECT_EQ(v[1], P("9.0.0.0/8"));
   EXPECT_EQ(v[2], P("10.0.0.0/8"));
   EXPECT_EQ(v[3], P("10.0.0.0/16"));
   EXPECT_EQ(v[4], P("::/0"));
}

} // namespace
