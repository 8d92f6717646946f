#include "host/fwk/ValueText.h"

#include <gtest/gtest.h>

namespace {

struct Parsed {
   bool flag;
   std::int64_t number;
   std::string bytes;
};

// A sample value type's parser, as value types write them.
Parsed parseSample(std::string const& text) {
   char const* pos = text.data();
   Ovk::ValueTextParser p(pos, text.data() + text.size());
   Parsed r{};
   p.literal(Ovk::valueTypeHeader("Ns::Sample"));
   p.literal("'flag': ");
   r.flag = p.boolean();
   p.literal(", 'number': ");
   r.number = p.integer();
   p.literal(", 'bytes': ");
   r.bytes = p.string().str();
   p.literal("})");
   return r;
}

TEST(ValueTextTest, WriterOutputParsesBack) {
   std::string const text = Ovk::ValueTextWriter("Ns::Sample")
                                .field("flag", Ovk::boolText(true))
                                .field("number", "-12")
                                .field("bytes", Ovk::quoted(std::string_view("\x81\x06", 2)))
                                .str();
   EXPECT_EQ(text, "Value('Ns::Sample', ** {'flag': True, 'number': -12, 'bytes': '\\x81\\x06'})");
   Parsed p = parseSample(text);
   EXPECT_TRUE(p.flag);
   EXPECT_EQ(p.number, -12);
   EXPECT_EQ(p.bytes, std::string("\x81\x06", 2));
}

TEST(ValueTextTest, ParseErrorsPointAtTheMissingLiteral) {
   struct Case {
      std::string text;
      std::size_t position;
   };
   std::string const head = "Value('Ns::Sample', ** {";
   for (auto const& c : {
            Case{"Value('Ns::Other', ** {", 0},
            Case{head + "'flag' True", head.size()},
            Case{head + "'flag': Maybe", head.size() + 8},
            Case{head + "'flag': True; 'number': 1", head.size() + 12},
            Case{head + "'flag': True, 'number': x", head.size() + 24},
            Case{head + "'flag': True, 'number': 1, 'bytes': 'ab", head.size() + 39},
            Case{head + "'flag': True, 'number': 1, 'bytes': 'ab'", head.size() + 40},
        }) {
      SCOPED_TRACE(c.text);
      try {
         parseSample(c.text);
         ADD_FAILURE() << "parsed";
      } catch (Ovk::ParseError const& e) {
         EXPECT_EQ(e.position(), c.position) << e.what();
      }
   }
}

TEST(ValueTextTest, NumbersOutOfRangeRaiseRangeErrors) {
   std::string const text = "300";
   char const* pos = text.data();
   Ovk::ValueTextParser p(pos, text.data() + text.size());
   EXPECT_THROW(p.unsignedInteger(255), Ovk::RangeError);
   std::string const huge = "99999999999999999999999";
   char const* hp = huge.data();
   Ovk::ValueTextParser hpp(hp, huge.data() + huge.size());
   EXPECT_THROW(hpp.integer(), Ovk::RangeError);
}

} // namespace
