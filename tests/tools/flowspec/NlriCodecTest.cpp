#include "tools/flowspec/NlriCodec.h"

#include <gtest/gtest.h>

namespace {

using namespace FlowspecTool;
using Routing::Bgp::Afi;

std::vector<std::uint8_t> bytes(std::string_view hex) {
   std::string why;
   return *bytesOfHex(hex, why);
}

// The JSON contract of `flowspec decode --json`, field by field and in order.
TEST(NlriCodecTest, DecodedJson) {
   NlriDecoder const v6(Afi::afiIpv6);
   EXPECT_EQ(
       v6.decode(bytes("0f 01 40 20 12 34 56 78 03 81 06 03 81 11 0e 00 ff")).dump(),
       R"j({"ok":true,"afi":2,"rule":"1234:5678::/64;*;protocol =6;protocol =17;",)j"
       R"j("detail":"family ipv6; destination 1234:5678::/64; source *; protocol =6 (81 06); protocol =17 (81 11)",)j"
       R"j("wontExportReason":7,"destPrefix":"1234:5678::/64","srcPrefix":null,"destPrefixOffset":32,)j"
       R"j("srcPrefixOffset":0,"components":[{"type":3,"name":"IP Protocol","opValuePairs":"8106"},)j"
       R"j({"type":3,"name":"IP Protocol","opValuePairs":"8111"}],"unrecognizedTail":"0e00",)j"
       R"j("nlri":"0f014020123456780381060381110e00ff","reencoded":"0f014020123456780381060381110e00",)j"
       R"j("trailing":"ff"})j");
}

TEST(NlriCodecTest, FailuresCarryReasonAndMessage) {
   NlriDecoder const v4(Afi::afiIpv4);
   // The last value lies beyond the NLRI's length, in bytes the attribute still has.
   EXPECT_EQ(v4.decode(bytes("02 03 81 06")).dump(),
             R"j({"ok":false,"afi":1,"nlri":"02038106","reason":216,)j"
             R"j("message":"parsing component 3 required consuming 1 more byte(s) than nlriLen"})j");
   EXPECT_EQ(decodedLine(v4.decode(bytes("10 01 18 0a"))),
             "1001180a -> error 216: encoded nlriLen (16) > bytesLeft (3)");
   EXPECT_EQ(decodedLine(v4.decode(bytes("05 01 17 0a 01 03"))),
             "0501170a0103 -> 10.1.2.0/23;*; [written back as 0501170a0102]");
   EXPECT_EQ(
       decodedLine(v4.decode(bytes("06 01 08 0a 0d 81 05 00"))),
       "0601080a0d810500 -> 10.0.0.0/8;*; [won't export: unrecognizedTail] [unrecognized: 0d8105] [trailing: 00]");
}

TEST(NlriCodecTest, EncodedJson) {
   EXPECT_EQ(
       encodeRule(Afi::afiIpv4, "destination 10.0.0.0/24 protocol tcp dport 80").dump(),
       R"j({"ok":true,"afi":1,"text":"destination 10.0.0.0/24 protocol tcp dport 80","nlri":"0b01180a0000038106058150"})j");
   EXPECT_EQ(encodeRule(Afi::afiIpv4, "flow-label 5").dump(),
             R"j({"ok":false,"afi":1,"text":"flow-label 5","message":"flow-label exists only in IPv6 rules"})j");
   EXPECT_EQ(encodedLine(encodeRule(Afi::afiIpv6, "10.0.0.0/8;*;")),
             "error: an ipv4 prefix in an ipv6 rule in \"10.0.0.0/8;*;\"");
   // Two separate protocol components would read back as one component and a tail.
   Json const twice = encodeRule(Afi::afiIpv4, "protocol 6; protocol 17");
   EXPECT_FALSE(twice["ok"].get<bool>());
   EXPECT_NE(twice["message"].get<std::string>().find("more than once"), std::string::npos);
   EXPECT_TRUE(encodeRule(Afi::afiIpv4, "protocol =6 =17")["ok"].get<bool>());
}

TEST(NlriCodecTest, Hex) {
   std::string why;
   EXPECT_EQ(hexOf(*bytesOfHex("0x0E 01\t18", why)), "0e0118");
   EXPECT_FALSE(bytesOfHex("0e0", why));
   EXPECT_EQ(why, "odd number of hex digits (3)");
   EXPECT_FALSE(bytesOfHex("0g", why));
   EXPECT_EQ(why, "'g' is not a hex digit");
   EXPECT_TRUE(bytesOfHex("", why)->empty());
}

} // namespace
