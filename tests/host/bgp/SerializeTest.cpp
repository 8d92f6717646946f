#include "host/bgp/Serialize.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Routing::Bgp::Serialize;

TEST(SerializeTest, WritesBytesStringsAndAddressesInOrder) {
   Serialize s;
   s.addU8(0x04);
   s.addIpGenAddr(*Ovnet::IpGenAddr::parse("10.1.1.1"));
   s.addString(Ovk::String("\xAB\xCD"));
   s.addIpGenAddr(Ovnet::IpGenAddr()); // the unspecified address has no bytes
   s.addIpGenAddr(*Ovnet::IpGenAddr::parse("2001:db8::1"));
   std::vector<std::uint8_t> const expected = {0x04, 10, 1, 1, 1, 0xab, 0xcd, 0x20, 0x01, 0x0d, 0xb8,
                                               0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
   EXPECT_EQ(std::vector<std::uint8_t>(s.bytes().begin(), s.bytes().end()), expected);
   EXPECT_EQ(s.serializedString(), Ovk::String(expected.data(), expected.size()));
   EXPECT_TRUE(Serialize().serializedString().empty());
}

TEST(SerializeTest, KeepsEveryByteAcrossTheInlineBufferBoundary) {
   // Fill up to just below the inline capacity, then cross it with one write.
   for (std::size_t before : {Serialize::kInlineCapacity - 3, Serialize::kInlineCapacity}) {
      SCOPED_TRACE(before);
      Serialize s;
      std::vector<std::uint8_t> expected;
      for (std::size_t i = 0; i < before; ++i) {
         auto const b = static_cast<std::uint8_t>(i * 7);
         s.addU8(b);
         expected.push_back(b);
      }
      std::uint8_t const tail[] = {1, 2, 3, 4, 5, 6, 7, 8};
      s.addData(tail, sizeof(tail));
      expected.insert(expected.end(), tail, tail + sizeof(tail));
      s.addU8(9);
      expected.push_back(9);
      ASSERT_EQ(s.size(), expected.size());
      EXPECT_EQ(std::vector<std::uint8_t>(s.bytes().begin(), s.bytes().end()), expected);
      EXPECT_EQ(s.serializedString().view(),
                std::string_view(reinterpret_cast<char const*>(expected.data()), expected.size()));
   }
}

} // namespace
