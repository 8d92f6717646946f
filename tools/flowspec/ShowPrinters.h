// How `flowspec show ...` prints the agent's answers: the agent answers each show request
// with one JSON object; the tool prints it as is (--json) or as lines for people.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace FlowspecTool {

// Each printer throws nlohmann::json::exception on an answer of another shape.
using ShowPrinter = void (*)(nlohmann::json const& answer, std::ostream& os);

// The answer to "show neighbors" as a table, one row a neighbor.
void printNeighbors(nlohmann::json const& answer, std::ostream& os);
// The answer to "show updates": per neighbor its UPDATE outcomes, per-family counts and
// count reasons.
void printUpdates(nlohmann::json const& answer, std::ostream& os);
// The answer to "show summary": per VRF and family the rules, paths and FSIB export counts.
void printSummary(nlohmann::json const& answer, std::ostream& os);
// The answer to "show unicast ipv4|ipv6 [PREFIX]": the best match (with PREFIX), a line per
// route (prefix, where its best path came from, its AS_PATH, its paths), and validation's
// counts.
void printUnicast(nlohmann::json const& answer, std::ostream& os);
// One family of the answer to "show refused ADDRESS", as refusedOfFamily gives it:
// {"neighbor", "family", "rules": [...], "notKept"}; a line per rule with its reason.
void printRefused(nlohmann::json const& answer, std::ostream& os);
// The answer to "show refused ADDRESS" cut to `family` ("ipv4-flowspec"), in printRefused's
// shape; an answer with an "error" stays as it is.
std::string refusedOfFamily(std::string const& answer, std::string const& family);

// The agent's answer text as `flowspec show` prints it: its JSON on one line (json), or
// through `print`. An answer that is not a JSON object, carries an "error" or is of another
// shape than `print` reads is reported on `err`. Returns the tool's exit status.
int printAnswer(std::string const& answer, bool json, ShowPrinter print, std::ostream& out, std::ostream& err);

} // namespace FlowspecTool
