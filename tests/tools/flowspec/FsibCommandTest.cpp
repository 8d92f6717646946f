// The `flowspec fsib` subcommand, run as a program against a segment this test writes.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "host/mnemo/SlateRuleSet.h"
#include "tests/host/mnemo/SlateTestHelpers.h"
#include "tests/tools/flowspec/Golden.h"

namespace {

using namespace Mnemo;
using namespace Mnemo::Test;
using FlowspecTest::golden;

Flowspec::Rule ruleFor(char const* text) {
   Flowspec::FlowspecKey k;
   EXPECT_TRUE(k.copyInStrCli(text)) << text;
   Flowspec::Rule r;
   r.key.copyInFlowspecKey(k);
   return r;
}

// Runs `args` through the tool and returns what it printed and its exit status.
std::pair<std::string, int> run(std::string const& args) {
   std::string const cmd = std::string("timeout 20 ") + FS_FLOWSPEC_TOOL + " " + args + " 2>&1";
   FILE* p = ::popen(cmd.c_str(), "r");
   std::string out;
   char buf[4096];
   while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
   int const status = ::pclose(p);
   return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

std::string replaced(std::string text, std::string const& what, std::string const& with) {
   for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
      text.replace(at, what.size(), with);
   }
   return text;
}

class FsibCommandTest : public ::testing::Test {
 protected:
   // Four rules of every kind of action and one refusal, by a writer that has let go.
   void fill() {
      auto set = SlateRuleSet::attach(seg_.name(), 4);
      ASSERT_TRUE(set.ok());
      Flowspec::Rule drop = ruleFor("10.0.0.0/8;*;protocol =6;destination-port =80 =443;");
      drop.ruleId = 1;
      drop.actions.set(Flowspec::actionDrop);
      Flowspec::Rule police = ruleFor("192.0.2.0/24;198.51.100.0/24;");
      police.ruleId = 2;
      police.actions.set(Flowspec::actionPolice);
      police.rate = 1250.5f;
      Flowspec::Rule redirect = ruleFor("2001:db8::/32;*;next-header =17;");
      redirect.ruleId = 3;
      redirect.actions.set(Flowspec::actionRedirect);
      redirect.trafficRedirect.vrfId = 7;
      redirect.trafficRedirect.address = *Ovnet::IpGenAddr::parse("2001:db8::1");
      redirect.trafficRedirect.copy = true;
      Flowspec::Rule mark = ruleFor("*;*;packet-length >=1000;");
      mark.ruleId = 4;
      mark.actions = Flowspec::ActionFieldSet(Flowspec::actionSetDscp | Flowspec::actionTrafficAction);
      mark.dscp = 46;
      mark.trafficAction = Flowspec::trafficActionSample | Flowspec::trafficActionTerminal;
      for (auto const& r : {drop, police, redirect, mark})
         ASSERT_EQ(set.value()->ruleIs(r), Flowspec::RuleIsResult::added);
      ASSERT_EQ(set.value()->ruleIs(ruleFor("*;*;protocol =1;")), Flowspec::RuleIsResult::refusedFull);
      set.value()->detach();
   }
   ScopedSegment seg_{"tool"};
};

TEST_F(FsibCommandTest, ListsRulesAndCountersAsTextAndJson) {
   fill();
   auto const [text, rc] = run("fsib --prefix " + seg_.prefix());
   EXPECT_EQ(rc, 0);
   std::string const shownText = replaced(text, seg_.name(), "SEGMENT");
   EXPECT_EQ(shownText, golden("fsib.txt", shownText));
   auto const [json, jrc] = run("fsib --json --prefix " + seg_.prefix());
   EXPECT_EQ(jrc, 0);
   std::string const shownJson = replaced(json, seg_.name(), "SEGMENT");
   EXPECT_EQ(shownJson, golden("fsib.json", shownJson));
}

TEST_F(FsibCommandTest, RefusesWhatItCannotRead) {
   auto const [missing, rc] = run("fsib --prefix " + seg_.prefix());
   EXPECT_EQ(rc, 1);
   EXPECT_NE(missing.find("no such segment"), std::string::npos) << missing;
   auto const [bad, brc] = run("fsib --prefix bad.prefix");
   EXPECT_EQ(brc, 2);
   EXPECT_NE(bad.find("cannot prefix a segment name"), std::string::npos) << bad;
}

TEST_F(FsibCommandTest, WatchShowsWhatAnotherWriterDoes) {
   auto set = SlateRuleSet::attach(seg_.name(), 16);
   ASSERT_TRUE(set.ok());
   std::string const cmd = std::string("timeout 20 ") + FS_FLOWSPEC_TOOL +
                           " fsib --watch --interval-ms 10 --max-reports 2 --prefix " + seg_.prefix();
   FILE* p = ::popen(cmd.c_str(), "r");
   ASSERT_NE(p, nullptr);
   char buf[4096];
   auto const lineStartingWith = [&](char const* start) {
      while (std::fgets(buf, sizeof buf, p) != nullptr) {
         if (std::string(buf).starts_with(start)) return std::string(buf);
      }
      return std::string("(end of output)");
   };
   EXPECT_EQ(lineStartingWith("counters"),
             "counters  adds 0  replaces 0  deletes 0  delete-alls 0  refusals 0  writer-attaches 1\n");
   Flowspec::Rule r = ruleFor("10.1.0.0/16;*;protocol =17;");
   r.actions.set(Flowspec::actionDrop);
   ASSERT_EQ(set.value()->ruleIs(r), Flowspec::RuleIsResult::added);
   EXPECT_EQ(lineStartingWith("+"), "+ 10.1.0.0/16;*;protocol =17;\n");
   ASSERT_TRUE(set.value()->ruleDel(r.key));
   EXPECT_EQ(lineStartingWith("- 1"), "- 10.1.0.0/16;*;protocol =17;\n");
   int const status = ::pclose(p);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace
