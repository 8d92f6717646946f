// The follower against a real FSIB segment and a dataplane that records what it is handed:
// across a writer's restart the dataplane sees exactly the real differences.
#include "fwd/Forwarder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "host/mnemo/SlateRuleSet.h"
#include "tests/fwd/FwdTestRules.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace Fwd {
namespace {

using Flowspec::FlowspecSlateKey;
using Flowspec::Rule;
using Test::ruleOf;

// Holds what it was handed and logs each call as "apply N" or "+KEY" / "-KEY" lines.
class RecordingBackend : public Backend {
 public:
   std::string describe() const override { return "recording"; }
   std::string dataplane() const override { return "recording"; }
   ApplyReport apply(std::vector<Rule> const& rules) override {
      held_.clear();
      for (Rule const& r : rules) held_.insert_or_assign(r.key, r);
      calls.push_back("apply " + std::to_string(rules.size()));
      return ok();
   }
   ApplyReport change(std::vector<Rule> const& upserts, std::vector<FlowspecSlateKey> const& removed) override {
      std::vector<std::string> lines;
      for (FlowspecSlateKey const& k : removed) {
         if (held_.erase(k)) lines.push_back("-" + name(k));
      }
      for (Rule const& r : upserts) {
         held_.insert_or_assign(r.key, r);
         lines.push_back("+" + name(r.key));
      }
      std::sort(lines.begin(), lines.end());
      for (auto& l : lines) calls.push_back(std::move(l));
      return ok();
   }
   std::vector<RuleStatus> statuses() const override { return {}; }
   std::size_t programmedRules() const override { return held_.size(); }
   void remove() override { held_.clear(); }

   // The test's names of keys: the destination's third octet.
   static std::string name(FlowspecSlateKey const& k) { return std::to_string(names().at(k)); }
   static std::unordered_map<FlowspecSlateKey, int>& names() {
      static std::unordered_map<FlowspecSlateKey, int> m;
      return m;
   }
   std::vector<std::string> take() { return std::exchange(calls, {}); }
   std::vector<std::string> calls;

 private:
   static ApplyReport ok() {
      ApplyReport r;
      r.ok = true;
      return r;
   }
   std::unordered_map<FlowspecSlateKey, Rule> held_;
};

Rule rule(int n, char const* action = "drop") {
   Rule r = ruleOf("198.19." + std::to_string(n) + ".0/24;*;", action);
   RecordingBackend::names()[r.key] = n;
   return r;
}

struct Fixture {
   Mnemo::Test::ScopedSegment seg{"follow"};
   RecordingBackend dataplane;
   std::ostringstream log;
   Forwarder fwd{FollowConfig{seg.name(), "", 1000, 5000}, dataplane, log};
   Ovk::Ptr<Mnemo::SlateRuleSet> writer() {
      auto w = Mnemo::SlateRuleSet::attach(seg.name(), 64);
      EXPECT_TRUE(w.ok());
      return w.ok() ? w.value() : nullptr;
   }
};

// The agent's restart as the FSIB shows it: the writer finds the rules, says it rebuilds,
// empties the table and writes it again (some rules as they were, one changed, one new, one
// not at all), then says it has converged. The dataplane gets the new and the changed rule
// while the writer rebuilds, and loses the one rule nobody announced again only at the end.
TEST(ForwarderRestartTest, AWriterRestartHandsTheDataplaneOnlyTheDifference) {
   Fixture f;
   {
      auto w = f.writer();
      for (int n : {1, 2, 3, 4}) ASSERT_EQ(w->ruleIs(rule(n)), Flowspec::RuleIsResult::added);
      EXPECT_EQ(f.fwd.step(), Forwarder::Step::applied);
      EXPECT_EQ(f.dataplane.take(), std::vector<std::string>{"apply 4"});
   } // the first run goes (SIGKILL or SIGTERM alike: the segment stays)

   auto w = f.writer();
   ASSERT_TRUE(w->foundExisting());
   w->convergedIs(false);
   w->ruleDelAll();
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::holding);
   EXPECT_TRUE(f.dataplane.take().empty()) << "an emptied FSIB while rebuilding removes nothing";
   EXPECT_TRUE(f.fwd.counters().holding);

   ASSERT_EQ(w->ruleIs(rule(1)), Flowspec::RuleIsResult::added);           // as before
   ASSERT_EQ(w->ruleIs(rule(2, "accept")), Flowspec::RuleIsResult::added); // changed
   ASSERT_EQ(w->ruleIs(rule(5)), Flowspec::RuleIsResult::added);           // new
   ASSERT_EQ(w->ruleIs(rule(4)), Flowspec::RuleIsResult::added);           // as before
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::holding);
   EXPECT_EQ(f.dataplane.take(), (std::vector<std::string>{"+2", "+5"}));
   EXPECT_EQ(f.dataplane.programmedRules(), 5u) << "rule 3 is kept while the writer rebuilds";

   w->convergedIs(true);
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::applied);
   EXPECT_EQ(f.dataplane.take(), std::vector<std::string>{"-3"});
   EXPECT_FALSE(f.fwd.counters().holding);
   EXPECT_EQ(f.fwd.counters().removed, 1u);
   EXPECT_EQ(f.fwd.counters().fullInstalls, 1u);

   // Converged, changes are followed one by one again.
   ASSERT_TRUE(w->ruleDel(rule(5).key));
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::applied);
   EXPECT_EQ(f.dataplane.take(), std::vector<std::string>{"-5"});
}

// A follower that starts while the writer rebuilds keeps the dataplane an earlier run left
// (it hands over nothing) and installs once the writer converged.
TEST(ForwarderRestartTest, AFollowerStartingDuringARebuildWaitsForConvergence) {
   Fixture f;
   auto w = f.writer();
   ASSERT_EQ(w->ruleIs(rule(1)), Flowspec::RuleIsResult::added);
   w->convergedIs(false);
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::holding);
   ASSERT_EQ(w->ruleIs(rule(2)), Flowspec::RuleIsResult::added);
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::holding);
   EXPECT_TRUE(f.dataplane.take().empty());
   w->convergedIs(true);
   EXPECT_EQ(f.fwd.step(), Forwarder::Step::applied);
   EXPECT_EQ(f.dataplane.take(), std::vector<std::string>{"apply 2"});
}

} // namespace
} // namespace Fwd
