#include "host/flowspec/MatchCompType.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "host/fwk/ValueText.h"

namespace {

using namespace Flowspec;

TEST(MatchCompTypeTest, EveryTypePrintsAndParsesBack) {
   for (std::uint32_t n = 0; n <= maxMatchCompType; ++n) {
      auto const t = static_cast<MatchCompType>(n);
      std::ostringstream os;
      os << t;
      std::string const text = os.str() + "', more";
      char const* pos = text.data();
      EXPECT_EQ(parseMatchCompType(pos, text.data() + text.size()), t) << text;
      EXPECT_EQ(std::string(pos), "', more") << "the parser stops right after the name";
      EXPECT_EQ(matchCompTypeFromName(os.str()), t);
   }
}

TEST(MatchCompTypeTest, NamesAreTheStandardsAndSharedStartsTakeTheLongest) {
   EXPECT_EQ(toStrep(destPort_), "Destination Port");
   EXPECT_EQ(toStrep(destPrefix_), "Destination Prefix");
   EXPECT_EQ(toStrep(none_), "none");
   std::string const text = "Destination Prefix";
   char const* pos = text.data();
   EXPECT_EQ(parseMatchCompType(pos, text.data() + text.size()), destPrefix_);
}

TEST(MatchCompTypeTest, UnknownTextIsARangeErrorAndUnknownNumbersPrintAsSuch) {
   for (std::string text : {"", "Destination", "port", "Flowlabel", "unknown(13)", "unknown(014)", "unknown()",
                            "unknown(14", "unknown(4294967296)"}) {
      char const* pos = text.data();
      EXPECT_THROW(parseMatchCompType(pos, text.data() + text.size()), Ovk::RangeError) << text;
      EXPECT_FALSE(matchCompTypeFromName(text));
   }
   EXPECT_EQ(toStrep(static_cast<MatchCompType>(14)), "unknown(14)");
   EXPECT_FALSE(matchCompTypeFromName("unknown(14)"));
}

// A type beyond the named ones prints as "unknown(N)", which must read back as N, so that a
// component of any type round-trips through its text form.
TEST(MatchCompTypeTest, NumbersBeyondTheNamesReadBackFromTheirText) {
   for (std::uint32_t n : {14u, 200u, 255u, 4294967295u}) {
      std::string const text = toStrep(static_cast<MatchCompType>(n)) + ", rest";
      char const* pos = text.data();
      EXPECT_EQ(parseMatchCompType(pos, text.data() + text.size()), static_cast<MatchCompType>(n)) << text;
      EXPECT_EQ(std::string_view(pos), ", rest") << text;
   }
}

} // namespace
