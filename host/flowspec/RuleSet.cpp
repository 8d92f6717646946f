#include "host/flowspec/RuleSet.h"

namespace Flowspec {

char const* toStrep(RuleIsResult r) {
   switch (r) {
   case RuleIsResult::added: return "added";
   case RuleIsResult::replaced: return "replaced";
   case RuleIsResult::refusedFull: return "refusedFull";
   case RuleIsResult::refusedDetached: return "refusedDetached";
   }
   return "?";
}

RuleIsResult InProcessRuleSet::ruleIs(Rule const& rule) {
   if (detached_) return RuleIsResult::refusedDetached;
   auto it = rules_.find(rule.key);
   if (it != rules_.end()) {
      it->second = rule;
      return RuleIsResult::replaced;
   }
   if (rules_.size() >= capacity_) return RuleIsResult::refusedFull;
   rules_.emplace(rule.key, rule);
   return RuleIsResult::added;
}

bool InProcessRuleSet::ruleDel(FlowspecSlateKey const& key) { return !detached_ && rules_.erase(key) != 0; }

void InProcessRuleSet::ruleDelAll() {
   if (!detached_) rules_.clear();
}

std::optional<Rule> InProcessRuleSet::rule(FlowspecSlateKey const& key) const {
   auto it = rules_.find(key);
   if (it == rules_.end()) return std::nullopt;
   return it->second;
}

void InProcessRuleSet::forEachRule(std::function<bool(Rule const&)> const& visit) const {
   for (auto const& [key, rule] : rules_) {
      if (!visit(rule)) break;
   }
}

} // namespace Flowspec
