#include "host/flowspec/Rule.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace {

using namespace Flowspec;

TEST(RuleTest, ActionBitsAndTheirText) {
   ActionFieldSet a;
   EXPECT_TRUE(a.empty());
   EXPECT_EQ(a.str(), "0");
   a.set(actionNone);
   a.set(actionDrop);
   a.set(actionPolice);
   EXPECT_EQ(a.value(), 0x0eu);
   EXPECT_TRUE(a.any(0x7d));
   a.clear(actionNone);
   EXPECT_FALSE(a.has(actionNone));
   EXPECT_EQ(a.str(), "actionDrop|actionPolice");
   EXPECT_EQ(ActionFieldSet(0x7f).str(),
             "actionReserved|actionNone|actionDrop|actionPolice|actionTrafficAction|actionRedirect|actionSetDscp");
   EXPECT_EQ(ActionFieldSet(0x180).str(), "0x180");
   EXPECT_EQ(ActionFieldSet(0x104).str(), "actionDrop|0x100");
   EXPECT_EQ(ActionFieldSet(0x2), ActionFieldSet(0x2));
}

TEST(RuleTest, TrafficRedirectDefaultsToNothingChosen) {
   TrafficRedirect r;
   EXPECT_EQ(r.vrfId, 0xffffffu);
   EXPECT_TRUE(r.address.isUnspecified());
   EXPECT_FALSE(r.copy);
   EXPECT_EQ(r.str(),
             "Value('Flowspec::TrafficRedirect', ** {'vrfId': 16777215, 'address': unspecified, 'copy': False})");
   TrafficRedirect other = r;
   other.copy = true;
   EXPECT_FALSE(other == r);
   other = r;
   other.address = *Ovnet::IpGenAddr::parse("192.0.2.1");
   EXPECT_FALSE(other == r);
}

TEST(RuleTest, EqualityComparesEveryFieldAndRatesByTheirBits) {
   Rule base;
   FlowspecKey k;
   ASSERT_TRUE(k.copyInStrCli("10.0.0.0/8;*;protocol 6;"));
   base.key.copyInFlowspecKey(k);
   base.rate = std::nanf("");
   EXPECT_EQ(base, base) << "a NaN rate (police) must not make a rule differ from itself";
   Rule r = base;
   r.rate = -std::nanf("");
   EXPECT_FALSE(r == base);
   auto differs = [&](auto change) {
      Rule x = base;
      change(x);
      return !(x == base);
   };
   EXPECT_TRUE(differs([](Rule& x) { x.key = FlowspecSlateKey(); }));
   EXPECT_TRUE(differs([](Rule& x) { x.ruleId = 1; }));
   EXPECT_TRUE(differs([](Rule& x) { x.reserved = 1; }));
   EXPECT_TRUE(differs([](Rule& x) { x.actions.set(actionDrop); }));
   EXPECT_TRUE(differs([](Rule& x) { x.trafficAction = trafficActionSample; }));
   EXPECT_TRUE(differs([](Rule& x) { x.trafficRedirect.vrfId = 7; }));
   EXPECT_TRUE(differs([](Rule& x) { x.dscp = 46; }));
}

TEST(RuleTest, TextFormShowsEveryField) {
   Rule r;
   FlowspecKey k;
   ASSERT_TRUE(k.copyInStrCli("10.0.0.0/8;*;protocol 6;"));
   r.key.copyInFlowspecKey(k);
   r.ruleId = 42;
   r.actions.set(actionPolice);
   r.rate = 125000.5f;
   r.trafficAction = trafficActionSample | trafficActionTerminal;
   r.trafficRedirect.address = *Ovnet::IpGenAddr::parse("2001:db8::1");
   r.dscp = 46;
   std::ostringstream os;
   os << r;
   EXPECT_EQ(os.str(),
             "Value('Flowspec::Rule', ** {'key': '10.0.0.0/8;*;protocol =6;', 'ruleId': 42, 'reserved': 0, "
             "'actions': actionPolice, 'rate': 125000.5, 'trafficAction': 3, 'trafficRedirect': "
             "Value('Flowspec::TrafficRedirect', ** {'vrfId': 16777215, 'address': 2001:db8::1, 'copy': False}), "
             "'dscp': 46})");
}

} // namespace

TEST(RuleTest, ActionsFromText) {
   struct Row {
      char const* text;
      bool ok;
      std::uint32_t actions;
      std::uint32_t trafficAction = 0;
   } const rows[] = {
       {"", true, Flowspec::actionDrop},
       {"accept", true, Flowspec::actionNone},
       {"police=1000,terminal", true, Flowspec::actionPolice | Flowspec::actionTrafficAction,
        Flowspec::trafficActionTerminal},
       {"sample drop", true, Flowspec::actionTrafficAction | Flowspec::actionDrop, Flowspec::trafficActionSample},
       {"redirect-ip=192.0.2.1 copy dscp=46", true, Flowspec::actionRedirect | Flowspec::actionSetDscp},
       {"bits=0x81", true, 0x81},
       {"dscp=64", false, 0},
       {"police=fast", false, 0},
       {"redirect-vrf=16777215", false, 0},
       {"discard", false, 0},
   };
   for (auto const& row : rows) {
      SCOPED_TRACE(row.text);
      Flowspec::Rule r;
      r.dscp = 3;
      std::string why;
      EXPECT_EQ(Flowspec::ruleActionsFromText(row.text, r, &why), row.ok);
      if (!row.ok) {
         EXPECT_EQ(r.dscp, 3) << "a refused text leaves the rule as it was";
         EXPECT_NE(why, "");
         continue;
      }
      EXPECT_EQ(r.actions.value(), row.actions);
      EXPECT_EQ(r.trafficAction, row.trafficAction);
   }
   Flowspec::Rule r;
   ASSERT_TRUE(Flowspec::ruleActionsFromText("redirect-ip=192.0.2.1 copy police=125.5", r));
   EXPECT_EQ(r.trafficRedirect.address.str(), "192.0.2.1");
   EXPECT_TRUE(r.trafficRedirect.copy);
   EXPECT_EQ(r.rate, 125.5f);
}
