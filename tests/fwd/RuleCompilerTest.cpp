// The rule compiler: rule text and actions in, nftables rule text (or the exact reason the
// rule is not installed) out. One row per component and operator kind and per action.
// FwdTableTest loads every row's output into a real kernel, so the text here is also text
// nftables takes.
#include "fwd/RuleCompiler.h"

#include <gtest/gtest.h>

#include "tests/fwd/FwdTestRules.h"

namespace {

using Fwd::CompileConfig;
using Fwd::CompiledRule;
using Fwd::Test::CompilerRow;

std::string joined(std::vector<std::string> const& lines) {
   std::string s;
   for (auto const& l : lines) s += l + "\n";
   return s;
}

std::string compiled(CompilerRow const& row) {
   CompileConfig cfg;
   cfg.vrfTables = {{7, 100}};
   cfg.nflogGroup = 5;
   if (row.hook != nullptr) cfg.hook = *Fwd::hookFromName(row.hook);
   CompiledRule const c = Fwd::compileRule(Fwd::Test::ruleOf(row.text, row.actions), cfg);
   switch (c.kind) {
   case CompiledRule::Kind::install: return joined(Fwd::ruleBodies(c, "c", 7, 0x46530001));
   case CompiledRule::Kind::neverMatches: return "never: " + c.reason;
   case CompiledRule::Kind::refused: return "refused: " + c.reason;
   }
   return "?";
}

TEST(RuleCompilerTest, Rows) {
   for (CompilerRow const& row : Fwd::Test::compilerRows()) {
      SCOPED_TRACE(std::string(row.name) + ": " + row.text + " / " + row.actions);
      EXPECT_EQ(compiled(row), row.want);
   }
}

TEST(RuleCompilerTest, HookNames) {
   for (auto h : {Fwd::Hook::prerouting, Fwd::Hook::input, Fwd::Hook::forward}) {
      EXPECT_EQ(Fwd::hookFromName(Fwd::toStrep(h)), h);
   }
   EXPECT_FALSE(Fwd::hookFromName("output"));
}

} // namespace
