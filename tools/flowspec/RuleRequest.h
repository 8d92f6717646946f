// What `flowspec rule` sends the agent and how it prints the answers (RuleCommand.cpp).
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "host/fwk/Result.h"

namespace FlowspecTool {

// "rule add {JSON}" from the words after the family: the match is every word before "then",
// the actions what follows it (grouped by their keywords). The reason, for a usage error,
// when "then" is missing or either side is empty, or `expires` is not a lifetime
// (Flowspecd::parseLifetime); an empty `expires` gives the rule no lifetime.
Ovk::Result<std::string, std::string> ruleAddRequest(std::string const& family, std::vector<std::string> const& words,
                                                     std::string const& expires = {});
// "rule delete {JSON}" of the match words.
std::string ruleDeleteRequest(std::string const& family, std::vector<std::string> const& words);

// Prints the agent's answer to a rule request: the JSON as is (json), or for people: a list
// as a table, an add or delete as one line. A refusal ({"ok": false, "error"}) or an answer
// of another shape goes to `err`. Returns the exit status: 0, or 1 for a refusal.
int printRuleAnswer(std::string const& answer, bool json, std::ostream& out, std::ostream& err);

} // namespace FlowspecTool
