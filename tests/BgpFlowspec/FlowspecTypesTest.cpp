#include "BgpFlowspec/FlowspecTypes.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "host/fwk/ValueText.h"

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using Flowspec::MatchCompType;

template <class T>
T parse(std::string const& text, std::size_t* consumed = nullptr) {
   char const* pos = text.data();
   T value(pos, text.data() + text.size());
   if (consumed) *consumed = static_cast<std::size_t>(pos - text.data());
   return value;
}

TEST(FlowspecOpValComponentTest, NegationIsTrueOnlyForTheDefault) {
   EXPECT_TRUE(!FlowspecOpValComponent());
   EXPECT_FALSE(!FlowspecOpValComponent(Flowspec::none_, "\x81"));
   EXPECT_FALSE(!FlowspecOpValComponent(Flowspec::destPort_, ""));
}

TEST(FlowspecOpValComponentTest, EqualityNeedsTypeAndBytes) {
   FlowspecOpValComponent const a(Flowspec::destPort_, "\x81\x50");
   EXPECT_EQ(a, FlowspecOpValComponent(Flowspec::destPort_, "\x81\x50"));
   EXPECT_NE(a, FlowspecOpValComponent(Flowspec::srcPort_, "\x81\x50"));
   EXPECT_NE(a, FlowspecOpValComponent(Flowspec::destPort_, "\x81\x51"));
}

TEST(FlowspecOpValComponentTest, TextFormAndParseBack) {
   FlowspecOpValComponent const c(Flowspec::destPort_, Ovk::String(std::string_view("\x91\x01\xbb", 3)));
   std::string const text = c.valueToStrep();
   EXPECT_EQ(text, "Value('Routing::Bgp::FlowspecPlugin::FlowspecOpValComponent', ** {'type': Destination Port, "
                   "'opValuePairsNbo': '\\x91\\x01\\xbb'})");
   std::ostringstream os;
   os << c;
   EXPECT_EQ(os.str(), text);

   // Every type the library names, with bytes of every kind, reads back whole; the parser
   // stops right after the text.
   // Types beyond the named ones too (a key's components never have them, but the value type
   // promises that its text reads back).
   for (std::uint32_t const t : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 14u, 255u, 70000u}) {
      FlowspecOpValComponent const v(static_cast<MatchCompType>(t),
                                     Ovk::String(std::string_view("\0'\\\x80\x81 z", 7)));
      std::size_t consumed = 0;
      EXPECT_EQ(parse<FlowspecOpValComponent>(v.valueToStrep() + "tail", &consumed), v) << t;
      EXPECT_EQ(consumed, v.valueToStrep().size());
   }
   EXPECT_EQ(parse<FlowspecOpValComponent>(FlowspecOpValComponent().valueToStrep()), FlowspecOpValComponent());
}

TEST(FlowspecOpValComponentTest, ParseErrorsNameWhatIsWrong) {
   std::string const good = FlowspecOpValComponent(Flowspec::dscp_, "\x81\x2e").valueToStrep();
   // A missing literal: the parse error points where it was expected.
   std::string const header = "Value('Routing::Bgp::FlowspecPlugin::FlowspecOpValComponent', ** {";
   try {
      parse<FlowspecOpValComponent>(header + "'kind': DSCP})");
      FAIL();
   } catch (Ovk::ParseError const& e) {
      EXPECT_EQ(e.position(), header.size());
   }
   EXPECT_THROW(parse<FlowspecOpValComponent>("Value('Other', ** {'type': DSCP"), Ovk::ParseError);
   EXPECT_THROW(parse<FlowspecOpValComponent>(good.substr(0, good.size() - 1)), Ovk::ParseError);
   // An unknown type is an attribute error naming "type".
   try {
      parse<FlowspecOpValComponent>(header + "'type': Colour, 'opValuePairsNbo': ''})");
      FAIL();
   } catch (Ovk::AttributeError const& e) {
      EXPECT_EQ(e.attribute(), "type");
   }
}

TEST(FlowspecWontExportReasonTest, BitsValueAndEquality) {
   FlowspecWontExportReason a;
   EXPECT_TRUE(a.empty());
   a.unrecognizedTailIs(true);
   a.componentTypeMoreThanOnceIs(true);
   EXPECT_EQ(a.value(), 5u);
   EXPECT_EQ(a, FlowspecWontExportReason(5));
   FlowspecWontExportReason b;
   b.attributeIs("componentTypeMoreThanOnce_", 1);
   b.attributeIs("unrecognizedTail_", 1);
   EXPECT_EQ(a, b);
   b.unrecognizedTailIs(false);
   EXPECT_NE(a, b);
   EXPECT_EQ(b.value(), FlowspecWontExportReason::componentTypeMoreThanOnce_);
}

TEST(FlowspecWontExportReasonTest, ValueAboveSevenIsARangeError) {
   FlowspecWontExportReason r(3);
   try {
      r.valueIs(8);
      FAIL();
   } catch (Ovk::RangeError const& e) {
      EXPECT_STREQ(e.what(), "FlowspecWontExportReason::value > 0x7 not allowed");
   }
   EXPECT_EQ(r.value(), 3u);
   EXPECT_THROW(FlowspecWontExportReason(0x100), Ovk::RangeError);
   EXPECT_THROW(r.attributeIs("value", 9), Ovk::RangeError);
   EXPECT_THROW(r.attributeIs("nonZeroIpv6Offset_", 2), Ovk::RangeError);
   EXPECT_EQ(r.value(), 3u);
}

TEST(FlowspecWontExportReasonTest, AttributesAreTheBitsOfTheValue) {
   FlowspecWontExportReason r;
   r.attributeIs("value", 6);
   EXPECT_EQ(r.attribute("value"), 6u);
   EXPECT_EQ(r.attribute("unrecognizedTail_"), 0u);
   EXPECT_EQ(r.attribute("nonZeroIpv6Offset_"), 1u);
   EXPECT_EQ(r.attribute("componentTypeMoreThanOnce_"), 1u);
   EXPECT_THROW(r.attribute("unrecognizedTail"), Ovk::AttributeError);
}

TEST(FlowspecWontExportReasonTest, TextFormAndParseBack) {
   std::string const text = FlowspecWontExportReason(5).valueToStrep();
   EXPECT_EQ(text, "Value('Routing::Bgp::FlowspecPlugin::FlowspecWontExportReason', ** {'unrecognizedTail': True, "
                   "'nonZeroIpv6Offset': False, 'componentTypeMoreThanOnce': True})");
   for (std::uint32_t v = 0; v <= 7; ++v) {
      FlowspecWontExportReason const r(v);
      std::ostringstream os;
      os << r;
      EXPECT_EQ(os.str(), r.valueToStrep());
      EXPECT_EQ(parse<FlowspecWontExportReason>(r.valueToStrep()), r) << v;
   }
   std::string const header = "Value('Routing::Bgp::FlowspecPlugin::FlowspecWontExportReason', ** {";
   try {
      parse<FlowspecWontExportReason>(header + "'unrecognizedTail': Maybe");
      FAIL();
   } catch (Ovk::ParseError const& e) {
      EXPECT_EQ(e.position(), header.size() + std::string("'unrecognizedTail': ").size());
   }
   EXPECT_THROW(parse<FlowspecWontExportReason>(text.substr(0, text.size() - 2)), Ovk::ParseError);
}

} // namespace
