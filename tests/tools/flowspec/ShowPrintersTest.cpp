// `flowspec show neighbors | updates | summary`, text and --json, on fixed answers of the
// agent's shape, against golden files: a change of a column width, a word or the order of
// the lines shows up as a diff. With FS_UPDATE_GOLDEN=1 in the environment the test writes
// the golden files instead (to take a change of output on purpose).
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/tools/flowspec/Golden.h"
#include "tools/flowspec/ShowPrinters.h"

namespace {

using FlowspecTest::golden;
using FlowspecTool::printAnswer;

// Two neighbors up, one over IPv6 with a 4-byte AS and an uptime over a day, one that was
// sent rules; one down with a description, a last error and no family negotiated, whose
// rules are kept stale while it restarts; the agent itself waits for it after a restart.
constexpr char const* kNeighbors = R"J({"neighbors":[
 {"address":"192.0.2.1","port":179,"remoteAs":65001,"description":"","passive":false,"state":"Established",
  "uptimeSeconds":3725,"lastError":"","messagesIn":1234,"messagesOut":987,"updatesIn":1200,"updatesOut":1,
  "keepalivesIn":33,"keepalivesOut":985,"notificationsIn":0,"notificationsOut":0,"routeRefreshesIn":0,
  "establishedTransitions":1,"families":["ipv4-flowspec","ipv6-flowspec"],
  "configuredFamilies":["ipv4-flowspec","ipv6-flowspec"],"capabilities":["multiprotocol","route-refresh"],
  "holdTime":90,"keepaliveTime":30,"remoteRouterId":"192.0.2.1","localEndpoint":"192.0.2.254:40000",
  "remoteEndpoint":"192.0.2.1:179","familyUpdatesIn":{"ipv4-flowspec":1100,"ipv6-flowspec":100},
  "endOfRibIn":{"ipv4-flowspec":1,"ipv6-flowspec":1},"rulesReceived":{"ipv4-flowspec":1050,"ipv6-flowspec":90},
  "rulesAccepted":{"ipv4-flowspec":1049,"ipv6-flowspec":90},"fsibRefusals":{"ipv4-flowspec":2},
  "familyUpdatesOut":{"ipv4-flowspec":12},"rulesSent":{"ipv4-flowspec":2400},
  "rulesAdvertised":{"ipv4-flowspec":2300},"endOfRibOut":{"ipv4-flowspec":1}},
 {"address":"2001:db8::2","port":1179,"remoteAs":4200000000,"description":"","passive":true,"state":"Established",
  "uptimeSeconds":90061,"lastError":"","messagesIn":5,"messagesOut":4,"updatesIn":2,"updatesOut":0,
  "keepalivesIn":2,"keepalivesOut":3,"notificationsIn":0,"notificationsOut":0,"routeRefreshesIn":0,
  "establishedTransitions":3,"families":["ipv6-flowspec"],"configuredFamilies":["ipv6-flowspec"],
  "capabilities":["multiprotocol"],"holdTime":180,"keepaliveTime":60,"remoteRouterId":"198.51.100.2",
  "localEndpoint":"[2001:db8::1]:1179","remoteEndpoint":"[2001:db8::2]:50123",
  "familyUpdatesIn":{"ipv6-flowspec":2},"endOfRibIn":{},"rulesReceived":{"ipv6-flowspec":1},
  "rulesAccepted":{"ipv6-flowspec":1},"fsibRefusals":{}},
 {"address":"198.51.100.7","port":179,"remoteAs":64512,"description":"lab route server","passive":false,
  "state":"Active","uptimeSeconds":0,"lastError":"hold timer expired","messagesIn":0,"messagesOut":0,
  "updatesIn":0,"updatesOut":0,"keepalivesIn":0,"keepalivesOut":0,"notificationsIn":0,"notificationsOut":1,
  "routeRefreshesIn":0,"establishedTransitions":0,"families":[],"configuredFamilies":["ipv4-flowspec"],
  "capabilities":[],"holdTime":0,"keepaliveTime":0,"remoteRouterId":"","localEndpoint":null,
  "remoteEndpoint":null,"familyUpdatesIn":{},"endOfRibIn":{},"rulesReceived":{},"rulesAccepted":{},
  "fsibRefusals":{},"idleHoldSeconds":42,"tcpMd5":true,"ttlSecurity":1,
  "importPolicy":{"name":"customer","allowedDestinations":["10.0.0.0/8 le 32","2001:db8::/32 ge 48"],
                  "allowedActions":["discard","rate-limit"],"minimumRate":1000,
                  "maxRules":{"limit":50,"action":"teardown","restartSeconds":60,"warningPercent":75}},
  "import":{"ipv4-flowspec":{"refused":{"destinationNotAllowed":3,"noDestination":0,"actionNotAllowed":1,
                                        "rateBelowMinimum":0,"ruleLimit":0,"globalRuleLimit":0},
                             "refusedTotal":4,"limitWarnings":1,"limitExceeded":1},
            "ipv6-flowspec":{"refused":{"destinationNotAllowed":0,"noDestination":0,"actionNotAllowed":0,
                                        "rateBelowMinimum":0,"ruleLimit":0,"globalRuleLimit":0},
                             "refusedTotal":0,"limitWarnings":0,"limitExceeded":0}},
  "gracefulRestart":{"ipv4-flowspec":{"state":"restarting","stalePaths":12,
  "timer":"restart-time","secondsLeft":87,"stalePathsRemoved":0,"gracefulRestarts":1}}}],
 "restart":{"restarting":true,"converged":false,"forwardingKept":true,
  "waitingFor":["198.51.100.7 (no session yet)"],"deferralSecondsLeft":40}})J";

// One neighbor with UPDATEs of every outcome and count reasons; one that has sent nothing.
constexpr char const* kUpdates = R"({"neighbors":[
 {"address":"192.0.2.1","messages":1207,
  "outcomes":{"accept":1200,"attribute-discard":2,"treat-as-withdraw":4,"session-reset":1},
  "families":{"ipv4-flowspec":{"updates":1100,"announced":1500,"withdrawn":450,"refused":3,"withdrawnUnknown":7,
                               "rules":1050,"importRefused":{"destinationNotAllowed":12,"ruleLimit":0,
                                                             "globalRuleLimit":2}},
              "ipv6-flowspec":{"updates":100,"announced":95,"withdrawn":5,"refused":0,"withdrawnUnknown":0,
                               "rules":90}},
  "reasons":{"attributeFlags":2,"communitiesLength":1,"mpReachNexthopOverrun":4}},
 {"address":"2001:db8::2","messages":0,
  "outcomes":{"accept":0,"attribute-discard":0,"treat-as-withdraw":0,"session-reset":0},
  "families":{},"reasons":{}}]})";

// The default VRF exporting both families (one with refusals), a second VRF with a family
// the export does not serve.
constexpr char const* kSummary = R"({"vrfs":[
 {"name":"default","id":0,
  "families":{"ipv4-flowspec":{"rules":1050,"paths":1062,"indexBytes":81920,
                               "fsib":{"added":1100,"replaced":12,"deleted":50,"refusedFull":2,"displaced":1,
                                       "refilled":1,"notExportable":1}},
              "ipv6-flowspec":{"rules":91,"paths":91,"indexBytes":8192,
                               "fsib":{"added":91,"replaced":0,"deleted":0,"refusedFull":0,"displaced":0,
                                       "refilled":0,"notExportable":0}}}},
 {"name":"blue","id":17,
  "families":{"ipv4-flowspec":{"rules":3,"paths":4,"indexBytes":512}}}],
 "attributeSets":42,"attributeSetsBuilt":1300,"attributeSetsReused":1258})";

// What one neighbor sent that import refused, as the agent answers "show refused ADDRESS",
// cut to one family by the tool.
std::string const kRefused = FlowspecTool::refusedOfFamily(R"({"neighbor":"192.0.2.1","families":{
 "ipv4-flowspec":{"rules":[
   {"rule":"11.0.0.0/24;*;","reason":"destinationNotAllowed","reasonText":"the destination is outside the allowed prefixes","actions":["discard"]},
   {"rule":"10.0.0.0/24;*;protocol =6;","reason":"actionNotAllowed","reasonText":"an action is not among the allowed actions","actions":["discard","redirect-vrf"]}],
  "notKept":5},
 "ipv6-flowspec":{"rules":[],"notKept":0}}})",
                                                           "ipv4-flowspec");

// The same neighbors with the flowspec plugin's summary labels.
std::string const kNeighborsLabelled =
    std::string(R"({"summaryLabels":{"ipv4-flowspec":{"received":"RulesRcd","accepted":"RulesAcc"},)"
                R"("ipv6-flowspec":{"received":"RulesRcd","accepted":"RulesAcc"}},)") +
    (kNeighbors + 1);

struct Printed {
   int status;
   std::string out;
   std::string err;
};

Printed printed(std::string const& answer, bool json, FlowspecTool::ShowPrinter print) {
   std::ostringstream out;
   std::ostringstream err;
   int const status = printAnswer(answer, json, print, out, err);
   return {status, out.str(), err.str()};
}

struct ShowCase {
   char const* name; // the golden files are show-NAME.txt and show-NAME.json
   char const* answer;
   FlowspecTool::ShowPrinter print;
};

class ShowGoldenTest : public ::testing::TestWithParam<ShowCase> {};

TEST_P(ShowGoldenTest, textAndJsonMatchGolden) {
   auto const& c = GetParam();
   for (bool const json : {false, true}) {
      auto const p = printed(c.answer, json, c.print);
      std::string const file = std::string("show-") + c.name + (json ? ".json" : ".txt");
      EXPECT_EQ(p.status, 0) << file;
      EXPECT_EQ(p.err, "") << file;
      EXPECT_EQ(p.out, golden(file, p.out)) << file;
   }
}

// Every answer shape is read by its own printer only: another shape is an error, with
// nothing on the error stream but the one report.
TEST_P(ShowGoldenTest, answerOfAnotherShapeIsReported) {
   auto const& c = GetParam();
   auto const p = printed(R"({"something":[]})", false, c.print);
   EXPECT_EQ(p.status, 1);
   EXPECT_EQ(p.err.rfind("flowspec: unexpected answer from the agent: ", 0), 0u) << p.err;
}

INSTANTIATE_TEST_SUITE_P(Show, ShowGoldenTest,
                         ::testing::Values(ShowCase{"neighbors", kNeighbors, FlowspecTool::printNeighbors},
                                           ShowCase{"neighbors_labelled", kNeighborsLabelled.c_str(),
                                                    FlowspecTool::printNeighbors},
                                           ShowCase{"updates", kUpdates, FlowspecTool::printUpdates},
                                           ShowCase{"summary", kSummary, FlowspecTool::printSummary},
                                           ShowCase{"refused", kRefused.c_str(), FlowspecTool::printRefused}),
                         [](auto const& p) { return std::string(p.param.name); });

TEST(ShowAnswerTest, answersThatAreNotShownAreReported) {
   struct Case {
      char const* answer;
      bool json;
      char const* err;
   };
   for (Case const c : {
            Case{"", false, "flowspec: the agent's answer is not JSON\n"},
            Case{"{\"neighbors\":", true, "flowspec: the agent's answer is not JSON\n"},
            Case{"[1,2]", true, "flowspec: the agent's answer is not JSON\n"},
            Case{R"({"error":"unknown request: show nothing"})", false, "flowspec: unknown request: show nothing\n"},
            Case{R"({"error":"unknown request: show nothing"})", true, "flowspec: unknown request: show nothing\n"},
        }) {
      auto const p = printed(c.answer, c.json, FlowspecTool::printNeighbors);
      EXPECT_EQ(p.status, 1) << c.answer;
      EXPECT_EQ(p.out, "") << c.answer;
      EXPECT_EQ(p.err, c.err) << c.answer;
   }
}

// A family the neighbor sent nothing refused of; an error stays the agent's error.
TEST(ShowAnswerTest, refusedOfAFamilyWithNothingRefused) {
   std::string const answer = R"({"neighbor":"192.0.2.1","families":{"ipv4-flowspec":{"rules":[],"notKept":0}}})";
   auto const p = printed(FlowspecTool::refusedOfFamily(answer, "ipv6-flowspec"), false, FlowspecTool::printRefused);
   EXPECT_EQ(p.status, 0);
   EXPECT_EQ(p.out, "Rules 192.0.2.1 sent that import refused (ipv6-flowspec): 0\n");
   auto const e = printed(FlowspecTool::refusedOfFamily(R"({"error":"unknown neighbor 1.2.3.4"})", "ipv4-flowspec"),
                          false, FlowspecTool::printRefused);
   EXPECT_EQ(e.status, 1);
   EXPECT_EQ(e.err, "flowspec: unknown neighbor 1.2.3.4\n");
}

TEST(ShowAnswerTest, noNeighborsIsTheHeaderAlone) {
   auto const p = printed(R"({"neighbors":[]})", false, FlowspecTool::printNeighbors);
   EXPECT_EQ(p.status, 0);
   EXPECT_EQ(p.out,
             "Neighbor                  AS         State       Up           MsgIn  MsgOut   UpdIn  UpdOut  Families\n");
}

} // namespace
