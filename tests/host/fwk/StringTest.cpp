#include "host/fwk/String.h"

#include <gtest/gtest.h>

#include "host/fwk/ValueText.h"

namespace {

TEST(StringTest, InlineAndHeapStringsBehaveAlike) {
   for (std::size_t n : {0u, 1u, 11u, 12u, 13u, 100u}) {
      SCOPED_TRACE(n);
      std::string raw(n, '\0');
      for (std::size_t i = 0; i < n; ++i) raw[i] = static_cast<char>(i * 37);
      Ovk::String s(raw);
      EXPECT_EQ(s.size(), n);
      EXPECT_EQ(s.view(), raw);
      EXPECT_EQ(s.heapBytes(), n > Ovk::String::kInlineCapacity ? n : 0);
      Ovk::String copy = s;
      EXPECT_EQ(copy, s);
      EXPECT_EQ(copy.hash(), s.hash());
      Ovk::String moved = std::move(copy);
      EXPECT_EQ(moved, s);
      EXPECT_TRUE(copy.empty());
      copy = moved; // assign into a moved-from string
      EXPECT_EQ(copy, s);
   }
}

TEST(StringTest, HashIsDeterministicAndSeparatesValues) {
   EXPECT_EQ(Ovk::String().hash(), 0u);
   EXPECT_EQ(Ovk::String("abc").hash(), 0x1a47e90bu); // FNV-1a, fixed across runs
   EXPECT_NE(Ovk::String(std::string_view("\x81\x06", 2)).hash(), Ovk::String(std::string_view("\x81\x11", 2)).hash());
}

TEST(StringTest, QuotedFormRoundTripsEveryByte) {
   std::string all;
   for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
   std::string const text = Ovk::quoted(all);
   char const* pos = text.data();
   Ovk::ValueTextParser p(pos, text.data() + text.size());
   EXPECT_EQ(p.string().view(), all);
   EXPECT_TRUE(p.atEnd());
   EXPECT_EQ(Ovk::quoted(std::string_view("a'\\\x01", 4)), "'a\\'\\\\\\x01'");
}

} // namespace
