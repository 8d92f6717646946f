#include "host/flowspec/RuleSet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Flowspec;

Rule ruleFor(char const* text, std::uint32_t id) {
   FlowspecKey k;
   EXPECT_TRUE(k.copyInStrCli(text)) << text;
   Rule r;
   r.key.copyInFlowspecKey(k);
   r.ruleId = id;
   r.actions.set(actionDrop);
   return r;
}

std::vector<std::uint32_t> ids(RuleSet const& set) {
   std::vector<std::uint32_t> out;
   set.forEachRule([&](Rule const& r) {
      out.push_back(r.ruleId);
      return true;
   });
   return out;
}

TEST(RuleSetTest, AddReplaceLookupDelete) {
   Ovk::Ptr<RuleSet> set = Ovk::makePtr<InProcessRuleSet>();
   Rule const a = ruleFor("10.0.0.0/8;*;", 1);
   EXPECT_EQ(set->ruleIs(a), RuleIsResult::added);
   Rule a2 = a;
   a2.ruleId = 2;
   EXPECT_EQ(set->ruleIs(a2), RuleIsResult::replaced);
   EXPECT_EQ(set->ruleCount(), 1u);
   ASSERT_TRUE(set->rule(a.key));
   EXPECT_EQ(*set->rule(a.key), a2);
   Rule const b = ruleFor("10.0.0.0/8;*;protocol 6;", 3);
   EXPECT_FALSE(set->rule(b.key));
   EXPECT_FALSE(set->ruleDel(b.key));
   EXPECT_EQ(set->ruleIs(b), RuleIsResult::added);
   EXPECT_TRUE(set->ruleDel(a.key));
   EXPECT_FALSE(set->rule(a.key));
   EXPECT_EQ(ids(*set), std::vector<std::uint32_t>{3});
   set->ruleDelAll();
   EXPECT_EQ(set->ruleCount(), 0u);
}

TEST(RuleSetTest, IterationFollowsRulePrecedenceAndCanStop) {
   InProcessRuleSet set;
   char const* const texts[] = {"*;*;",
                                "10.0.0.0/8;*;",
                                "10.1.0.0/16;*;",
                                "10.0.0.0/8;*;protocol 6;",
                                "9.0.0.0/8;*;port 80;",
                                "10.0.0.0/8;*;protocol 1;"};
   std::uint32_t id = 0;
   for (char const* t : texts) ASSERT_EQ(set.ruleIs(ruleFor(t, id++)), RuleIsResult::added);
   // 9/8 (lower address), 10.1/16 (inside 10/8, so before it), then 10/8 with components
   // before 10/8 without, lower operator/value bytes first, then the rule with no prefix.
   EXPECT_EQ(ids(set), (std::vector<std::uint32_t>{4, 2, 5, 3, 1, 0}));
   std::vector<std::uint32_t> firstTwo;
   set.forEachRule([&](Rule const& r) {
      firstTwo.push_back(r.ruleId);
      return firstTwo.size() < 2;
   });
   EXPECT_EQ(firstTwo, (std::vector<std::uint32_t>{4, 2}));
}

TEST(RuleSetTest, AFullSetRefusesNewKeysButStillReplaces) {
   InProcessRuleSet set(2);
   EXPECT_EQ(set.ruleCapacity(), 2u);
   EXPECT_EQ(set.ruleIs(ruleFor("1.0.0.0/8;*;", 1)), RuleIsResult::added);
   EXPECT_EQ(set.ruleIs(ruleFor("2.0.0.0/8;*;", 2)), RuleIsResult::added);
   EXPECT_EQ(set.ruleIs(ruleFor("3.0.0.0/8;*;", 3)), RuleIsResult::refusedFull);
   EXPECT_EQ(set.ruleIs(ruleFor("2.0.0.0/8;*;", 4)), RuleIsResult::replaced);
   EXPECT_EQ(ids(set), (std::vector<std::uint32_t>{1, 4}));
   EXPECT_STREQ(toStrep(RuleIsResult::refusedFull), "refusedFull");
}

TEST(RuleSetTest, ADetachedSetRefusesWritesAndKeepsItsRules) {
   InProcessRuleSet set;
   Rule const a = ruleFor("1.0.0.0/8;*;", 1);
   ASSERT_EQ(set.ruleIs(a), RuleIsResult::added);
   set.detach();
   set.detach();
   EXPECT_TRUE(set.isDetached());
   EXPECT_EQ(set.ruleIs(ruleFor("2.0.0.0/8;*;", 2)), RuleIsResult::refusedDetached);
   EXPECT_FALSE(set.ruleDel(a.key));
   set.ruleDelAll();
   EXPECT_EQ(set.ruleCount(), 1u);
   EXPECT_TRUE(set.rule(a.key));
}

} // namespace
