#include "host/fwk/Trace.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Routing::Bgp::FlowspecPlugin {
// A function in the plugin's namespace, to check how trace lines name it.
struct Sample {
   static void run(Ovk::TraceFacility& f, int level) { OVK_TRACE(f, level, "value=" << 42); }
};
} // namespace Routing::Bgp::FlowspecPlugin

namespace {

int evaluations = 0;
int expensive() {
   ++evaluations;
   return 1;
}

TEST(TraceTest, LinesNameFileLineAndQualifiedFunction) {
   Ovk::TraceFacility f("TestFacility", "testfacility");
   Ovk::TraceCapture cap(f, 1u << 8);
   Routing::Bgp::FlowspecPlugin::Sample::run(f, 8);
   Routing::Bgp::FlowspecPlugin::Sample::run(f, 3); // level 3 is off
   auto lines = cap.lines();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 8);
   EXPECT_EQ(lines[0].text, "value=42");
   EXPECT_EQ(lines[0].line.substr(0, 10), "TraceTest:");
   EXPECT_NE(lines[0].line.find(":FlowspecPlugin::Sample::run value=42"), std::string::npos) << lines[0].line;
   EXPECT_EQ(f.ring().lines().back(), lines[0].line);
   auto blink = Ovk::Blink::instance().records().back();
   EXPECT_STREQ(blink.function, "FlowspecPlugin::Sample::run");
   EXPECT_EQ(std::string(blink.payload.data(), blink.size), "value=42");
}

TEST(TraceTest, DisabledLevelsBuildNoText) {
   Ovk::TraceFacility f("Quiet", "quiet");
   evaluations = 0;
   OVK_TRACE(f, 5, "x" << expensive());
   EXPECT_EQ(evaluations, 0);
   f.levelIs(5);
   OVK_TRACE(f, 5, "x" << expensive());
   EXPECT_EQ(evaluations, 1);
   EXPECT_EQ(f.enabledLevels(), 0x3fu);
}

void timedBlock(Ovk::TraceFacility& f) { OVK_TRACE_BLOCK_TIMER(f); }

TEST(TraceTest, BlockTimerWritesOnlyWhenItsLevelIsOn) {
   Ovk::TraceFacility f("Timed", "timed");
   Ovk::TraceCapture cap(f, 0x1ff); // levels 0 to 8
   timedBlock(f);
   EXPECT_TRUE(cap.lines().empty());
   f.levelIs(9);
   timedBlock(f);
   auto const lines = cap.lines();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 9);
   EXPECT_TRUE(lines[0].text.starts_with("took ") && lines[0].text.ends_with(" ns")) << lines[0].text;
   EXPECT_NE(lines[0].line.find(":timedBlock took "), std::string::npos) << lines[0].line;
}

TEST(TraceTest, SettingsEnableNamedFacilitiesAndRejectBadSyntax) {
   Ovk::TraceFacility a("Alpha", "alpha"), b("Beta", "beta");
   EXPECT_TRUE(Ovk::TraceFacility::configure("Alpha=0-2,8; Beta=9"));
   EXPECT_EQ(a.enabledLevels(), 0x107u);
   EXPECT_EQ(b.enabledLevels(), 0x200u);
   for (char const* bad : {"Alpha", "Alpha=10", "Alpha=3-1", "Alpha=x", "Alpha=1;Beta"}) {
      SCOPED_TRACE(bad);
      EXPECT_FALSE(Ovk::TraceFacility::configure(bad));
   }
   EXPECT_EQ(a.enabledLevels(), 0x107u); // a rejected setting changes nothing
   EXPECT_TRUE(Ovk::TraceFacility::configure("*=3"));
   EXPECT_EQ(b.enabledLevels(), 0x8u);
}

TEST(TraceTest, RingKeepsTheNewestLines) {
   Ovk::TraceFacility f("Ring", "ring", 3);
   f.levelIs(9);
   for (int i = 0; i < 5; ++i) OVK_TRACE(f, 1, "n" << i);
   auto lines = f.ring().lines();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_NE(lines[0].find("n2"), std::string::npos);
   EXPECT_EQ(f.ring().written(), 5u);
   std::ostringstream os;
   f.ring().dump(os);
   EXPECT_NE(os.str().find("n4\n"), std::string::npos);
}

TEST(TraceTest, QualifiedNamesFromPrettyFunctions) {
   struct Case {
      char const* pretty;
      char const* name;
   };
   for (auto const& c : {
            Case{"void Routing::Bgp::FlowspecPlugin::FlowspecPluginMain::handleInitialized()",
                 "FlowspecPlugin::FlowspecPluginMain::handleInitialized"},
            Case{"Ovk::Ptr<const T> Routing::Bgp::X::f(int) const [with T = int]", "X::f"},
            Case{"bool A::operator()(int) const", "A::operator()"},
            Case{"std::map<int, int>* ns::g(std::vector<int>)", "ns::g"},
            Case{"int main()", "main"},
        }) {
      EXPECT_EQ(Ovk::qualifiedFunctionName(c.pretty), c.name);
   }
   EXPECT_EQ(Ovk::sourceBaseName("/a/b/FlowspecParseNlri.cpp"), "FlowspecParseNlri");
}

} // namespace
