#include "host/bgp/Serialize.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Routing::Bgp::Serialize;

TEST(SerializeTest, KeepsEveryByteAcrossTheInlineBufferBoundary) {
   // Fill up to just below, or exactly to, the inline capacity, then cross it.
   for (std::size_t before : {Serialize::kInlineCapacity - 3, Serialize::kInlineCapacity}) {
      SCOPED_TRACE(before);
      Serialize s;
      std::vector<std::uint8_t> expected;
      for (std::size_t i = 0; i < before; ++i) {
         expected.push_back(static_cast<std::uint8_t>(i * 7));
         s.addU8(expected.back());
      }
      s.addIpGenAddr(*Ovnet::IpGenAddr::parse("2001:db8::1"));
      s.addString(Ovk::String("\x01\x02"));
      std::uint8_t const tail[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 2};
      expected.insert(expected.end(), tail, tail + sizeof(tail));
      ASSERT_EQ(s.size(), expected.size());
      EXPECT_EQ(std::vector<std::uint8_t>(s.bytes().begin(), s.bytes().end()), expected);
      EXPECT_EQ(s.serializedString(), Ovk::String(expected.data(), expected.size()));
   }
}

} // namespace
