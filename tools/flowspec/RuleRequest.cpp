#include "tools/flowspec/RuleRequest.h"
#include "host/fwk/JsonText.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <ostream>

#include <nlohmann/json.hpp>

#include "agent/OriginatedRule.h"

namespace FlowspecTool {

namespace {

std::string joined(std::vector<std::string>::const_iterator begin, std::vector<std::string>::const_iterator end) {
   std::string text;
   for (auto it = begin; it != end; ++it) text += (text.empty() ? "" : " ") + *it;
   return text;
}

// "45s", "12m30s", "3h05m", "2d04h": the time left, to the second below an hour.
std::string timeLeft(std::uint64_t s) {
   char text[32];
   if (s < 60) {
      std::snprintf(text, sizeof(text), "%llus", static_cast<unsigned long long>(s));
   } else if (s < 3600) {
      std::snprintf(text, sizeof(text), "%llum%02llus", static_cast<unsigned long long>(s / 60),
                    static_cast<unsigned long long>(s % 60));
   } else if (s < 86400) {
      std::snprintf(text, sizeof(text), "%lluh%02llum", static_cast<unsigned long long>(s / 3600),
                    static_cast<unsigned long long>(s / 60 % 60));
   } else {
      std::snprintf(text, sizeof(text), "%llud%02lluh", static_cast<unsigned long long>(s / 86400),
                    static_cast<unsigned long long>(s / 3600 % 24));
   }
   return text;
}

void printList(nlohmann::json const& answer, std::ostream& os) {
   auto const& rules = answer.at("rules");
   if (rules.empty()) {
      os << "no originated rules\n";
      return;
   }
   os << std::left << std::setw(18) << "Source" << std::setw(15) << "Family" << std::setw(6) << "Best" << std::setw(6)
      << "FSIB" << std::setw(10) << "Expires"
      << "Rule\n";
   for (auto const& r : rules) {
      std::string source = r.at("source").get<std::string>();
      if (source == "config") source += ":" + std::to_string(r.at("line").get<std::uint32_t>());
      if (!r.at("inForce").get<bool>()) source += "*";
      std::string actions;
      for (auto const& a : r.at("actions")) actions += (actions.empty() ? "" : ", ") + a.get<std::string>();
      os << std::left << std::setw(18) << source << std::setw(15) << r.at("family").get<std::string>() << std::setw(6)
         << (r.at("best").get<bool>() ? "yes" : "no") << std::setw(6) << (r.at("fsib").get<bool>() ? "yes" : "no")
         << std::setw(10) << (r.contains("expiresIn") ? timeLeft(r.at("expiresIn").get<std::uint64_t>()) : "-")
         << r.at("match").get<std::string>() << " then " << actions << '\n';
   }
   bool const shadowed = std::any_of(rules.begin(), rules.end(), [](auto const& r) { return !r.at("inForce"); });
   if (shadowed) os << "* not in force: a rule added with `flowspec rule add` has the same match\n";
}

} // namespace

Ovk::Result<std::string, std::string> ruleAddRequest(std::string const& family, std::vector<std::string> const& words,
                                                     std::string const& expires) {
   auto const then = std::find(words.begin(), words.end(), "then");
   if (then == words.end()) return Ovk::failure(std::string("no \"then\": write MATCH... then ACTION..."));
   if (then == words.begin()) return Ovk::failure(std::string("no MATCH before \"then\""));
   if (then + 1 == words.end()) return Ovk::failure(std::string("no ACTION after \"then\""));
   nlohmann::json request = {{"family", family},
                             {"match", joined(words.begin(), then)},
                             {"then", Flowspecd::actionsOfWords({then + 1, words.end()})}};
   if (!expires.empty()) {
      if (!Flowspecd::parseLifetime(expires)) {
         return Ovk::failure("--expires " + expires + ": seconds or a duration such as 90s, 15m, 2h or 1d, at most "
                                                      "365 days");
      }
      request["expires"] = expires;
   }
   return "rule add " + Ovk::jsonText(request);
}

std::string ruleDeleteRequest(std::string const& family, std::vector<std::string> const& words) {
   return "rule delete " + Ovk::jsonText(nlohmann::json{{"family", family}, {"match", joined(words.begin(), words.end())}});
}

int printRuleAnswer(std::string const& answer, bool json, std::ostream& out, std::ostream& err) {
   nlohmann::json const j = nlohmann::json::parse(answer, nullptr, false);
   if (!j.is_object()) {
      err << "flowspec: the agent's answer is not JSON: " << answer << '\n';
      return 1;
   }
   if (j.contains("error")) {
      err << "flowspec: refused: " << j["error"].get<std::string>() << '\n';
      return 1;
   }
   if (json) {
      out << Ovk::jsonText(j) << '\n';
      return 0;
   }
   try {
      if (j.contains("rules")) {
         printList(j, out);
      } else {
         out << j.at("result").get<std::string>();
         if (j.contains("rule")) {
            std::string actions;
            for (auto const& a : j.at("actions")) actions += (actions.empty() ? "" : ", ") + a.get<std::string>();
            out << ": " << j.at("rule").get<std::string>() << " then " << actions;
         }
         out << '\n';
      }
   } catch (nlohmann::json::exception const& e) {
      err << "flowspec: unexpected answer from the agent (" << e.what() << "): " << answer << '\n';
      return 1;
   }
   return 0;
}

} // namespace FlowspecTool
