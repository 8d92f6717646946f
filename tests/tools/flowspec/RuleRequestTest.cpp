// What `flowspec rule` sends the agent, and how it prints the answers.
#include "tools/flowspec/RuleRequest.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/tools/flowspec/Golden.h"

namespace FlowspecTool {
namespace {

TEST(RuleRequest, AddSplitsMatchAndActions) {
   auto r = ruleAddRequest("ipv4", {"destination", "10.0.0.0/8", "protocol", "tcp", "then", "rate-limit", "1000",
                                    "redirect-ip", "10.0.0.1", "copy", "sample"});
   ASSERT_TRUE(r.ok()) << r.reason();
   EXPECT_EQ(r.value(), R"(rule add {"family":"ipv4","match":"destination 10.0.0.0/8 protocol tcp",)"
                        R"("then":["rate-limit 1000","redirect-ip 10.0.0.1 copy","sample"]})");
   // A match given as one quoted word reads the same.
   EXPECT_EQ(ruleAddRequest("ipv6", {"destination 2001:db8::/32", "then", "discard"}).value(),
             R"(rule add {"family":"ipv6","match":"destination 2001:db8::/32","then":["discard"]})");
   EXPECT_EQ(ruleDeleteRequest("ipv4", {"destination", "10.0.0.0/8"}),
             R"(rule delete {"family":"ipv4","match":"destination 10.0.0.0/8"})");
}

TEST(RuleRequest, AddWithoutBothSidesIsAUsageError) {
   struct Row {
      std::vector<std::string> words;
      std::string why;
   };
   std::vector<Row> const rows{
       {{"destination", "10.0.0.0/8"}, "no \"then\""},
       {{"then", "discard"}, "no MATCH before \"then\""},
       {{"destination", "10.0.0.0/8", "then"}, "no ACTION after \"then\""},
   };
   for (Row const& row : rows) {
      auto r = ruleAddRequest("ipv4", row.words);
      ASSERT_FALSE(r.ok());
      EXPECT_EQ(r.reason().rfind(row.why, 0), 0u) << r.reason();
   }
}

int print(std::string const& answer, bool json, std::string& out, std::string& err) {
   std::ostringstream o, e;
   int const status = printRuleAnswer(answer, json, o, e);
   out = o.str();
   err = e.str();
   return status;
}

TEST(RuleRequest, PrintsAnswers) {
   std::string const list =
       R"({"rules":[{"family":"ipv4-flowspec","match":"192.0.2.0/24;*;protocol =6;","actions":["rate-limit 125000",)"
       R"("mark 10"],"nlri":"0801...","source":"config","file":"a.toml","line":11,"inForce":false,"best":false,)"
       R"("fsib":false},{"family":"ipv4-flowspec","match":"192.0.2.0/24;*;protocol =6;","actions":["discard"],)"
       R"("nlri":"0801...","source":"cli","inForce":true,"best":true,"fsib":true},{"family":"ipv6-flowspec",)"
       R"("match":"2001:db8::/32;*;","actions":["redirect-ip 2001:db8::1 copy"],"nlri":"07...","source":"cli",)"
       R"("inForce":true,"best":false,"fsib":false}]})";
   std::string out, err;
   EXPECT_EQ(print(list, false, out, err), 0);
   EXPECT_EQ(out, FlowspecTest::golden("rule-list.txt", out));
   EXPECT_EQ(print(list, true, out, err), 0);
   EXPECT_EQ(nlohmann::json::parse(out), nlohmann::json::parse(list));
   EXPECT_EQ(print(R"({"rules":[]})", false, out, err), 0);
   EXPECT_EQ(out, "no originated rules\n");
   EXPECT_EQ(print(R"({"ok":true,"result":"added","rule":"ipv4-flowspec 10.0.0.0/8;*;","actions":["discard"]})", false,
                   out, err),
             0);
   EXPECT_EQ(out, "added: ipv4-flowspec 10.0.0.0/8;*; then discard\n");
   EXPECT_EQ(print(R"({"ok":true,"result":"deleted"})", false, out, err), 0);
   EXPECT_EQ(out, "deleted\n");
   // Refusals and answers of another shape exit 1 with a message.
   EXPECT_EQ(print(R"({"ok":false,"error":"then: unknown action \"fly\""})", false, out, err), 1);
   EXPECT_EQ(err, "flowspec: refused: then: unknown action \"fly\"\n");
   EXPECT_EQ(print("garbage", false, out, err), 1);
   EXPECT_EQ(print(R"({"rules":[{"family":1}]})", false, out, err), 1);
   EXPECT_NE(err.find("unexpected answer"), std::string::npos);
}

} // namespace
} // namespace FlowspecTool
