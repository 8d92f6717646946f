#include "tools/flowspec/ShowPrinters.h"
#include "host/fwk/JsonText.h"

#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>
#include <vector>

namespace FlowspecTool {

namespace {

std::string uptimeText(bool established, std::uint64_t s) {
   if (!established) return "-";
   std::ostringstream os;
   os << s / 3600 << ':' << std::setw(2) << std::setfill('0') << (s / 60) % 60 << ':' << std::setw(2)
      << std::setfill('0') << s % 60;
   return os.str();
}

std::string joined(nlohmann::json const& list) {
   std::string text;
   for (auto const& item : list) text += (text.empty() ? "" : ",") + item.get<std::string>();
   return text.empty() ? "-" : text;
}

// A neighbor's count of `family` in the object `field`; "-" when it has none.
std::string countText(nlohmann::json const& n, char const* field, std::string const& family) {
   auto const it = n.find(field);
   if (it == n.end() || !it->contains(family)) return "-";
   return std::to_string(it->at(family).get<std::uint64_t>());
}

// "a 2, b 1" of the non-zero counts of an object; empty when all are 0.
std::string nonZero(nlohmann::json const& counts) {
   std::string text;
   for (auto const& [name, count] : counts.items()) {
      if (count.get<std::uint64_t>() == 0) continue;
      text += (text.empty() ? "" : ", ") + name + " " + std::to_string(count.get<std::uint64_t>());
   }
   return text;
}

// A neighbor's session security, what it may import and what import did, when any of it is
// there.
void printTrust(nlohmann::json const& n, std::ostream& os) {
   std::string security;
   if (n.value("tcpMd5", false)) security = "TCP MD5";
   if (auto const it = n.find("ttlSecurity"); it != n.end() && !it->is_null()) {
      security += (security.empty() ? "" : ", ") + std::string("ttl-security (") + std::to_string(it->get<int>()) +
                  " hop(s))";
   }
   if (!security.empty()) os << "  security: " << security << '\n';
   if (auto const it = n.find("importPolicy"); it != n.end() && it->is_object()) {
      auto const& p = *it;
      std::string text;
      auto const add = [&](std::string const& part) { text += (text.empty() ? "" : "; ") + part; };
      if (!p.at("name").is_null()) add("policy " + p.at("name").get<std::string>());
      if (!p.at("allowedDestinations").is_null()) add("destinations " + joined(p.at("allowedDestinations")));
      if (!p.at("allowedActions").is_null()) add("actions " + joined(p.at("allowedActions")));
      if (!p.at("minimumRate").is_null()) {
         std::ostringstream rate;
         rate << p.at("minimumRate").get<double>();
         add("minimum rate " + rate.str());
      }
      if (!p.at("maxRules").is_null()) {
         auto const& m = p.at("maxRules");
         add("max-rules " + std::to_string(m.at("limit").get<std::uint64_t>()) + " (" +
             m.at("action").get<std::string>() + ")");
      }
      if (!text.empty()) os << "  import: " << text << '\n';
   }
   if (auto const it = n.find("import"); it != n.end()) {
      for (auto const& [family, f] : it->items()) {
         std::uint64_t const warnings = f.at("limitWarnings").get<std::uint64_t>();
         std::uint64_t const exceeded = f.at("limitExceeded").get<std::uint64_t>();
         std::string const refused = nonZero(f.at("refused"));
         if (refused.empty() && warnings == 0 && exceeded == 0) continue;
         os << "  import " << family << ": " << f.at("refusedTotal").get<std::uint64_t>() << " refused";
         if (!refused.empty()) os << " (" << refused << ")";
         if (warnings != 0 || exceeded != 0) {
            os << ", max-rules warned " << warnings << ", exceeded " << exceeded;
         }
         os << '\n';
      }
   }
}

} // namespace

void printNeighbors(nlohmann::json const& answer, std::ostream& os) {
   // Per family whose plugin labels its counts (hook 17): received and accepted rules, under
   // the family's name.
   std::vector<std::pair<std::string, nlohmann::json>> labelled;
   if (auto const it = answer.find("summaryLabels"); it != answer.end()) {
      for (auto const& [family, l] : it->items()) labelled.emplace_back(family, l);
   }
   if (!labelled.empty()) {
      std::string line(26 + 11 + 12 + 10 + 4 * 8, ' ');
      for (auto const& [family, l] : labelled) {
         line += "  " + family;
         line.append(family.size() < 18 ? 18 - family.size() : 0, ' ');
      }
      while (line.back() == ' ') line.pop_back();
      os << line << '\n';
   }
   os << std::left << std::setw(26) << "Neighbor" << std::setw(11) << "AS" << std::setw(12) << "State" << std::setw(10)
      << "Up" << std::right << std::setw(8) << "MsgIn" << std::setw(8) << "MsgOut" << std::setw(8) << "UpdIn"
      << std::setw(8) << "UpdOut";
   for (auto const& [family, l] : labelled) {
      os << "  " << std::setw(8) << l.at("received").get<std::string>() << std::setw(10)
         << l.at("accepted").get<std::string>();
   }
   os << "  " << std::left << "Families\n";
   for (auto const& n : answer.at("neighbors")) {
      std::string const address = n.at("address").get<std::string>();
      std::string const name = address.find(':') != std::string::npos
                                   ? "[" + address + "]:" + std::to_string(n.at("port").get<int>())
                                   : address + ":" + std::to_string(n.at("port").get<int>());
      os << std::left << std::setw(26) << name << std::setw(11) << n.at("remoteAs").get<std::uint64_t>()
         << std::setw(12) << n.at("state").get<std::string>() << std::setw(10)
         << uptimeText(n.at("state") == "Established", n.at("uptimeSeconds").get<std::uint64_t>()) << std::right
         << std::setw(8) << n.at("messagesIn").get<std::uint64_t>() << std::setw(8)
         << n.at("messagesOut").get<std::uint64_t>() << std::setw(8) << n.at("updatesIn").get<std::uint64_t>()
         << std::setw(8) << n.at("updatesOut").get<std::uint64_t>();
      for (auto const& [family, l] : labelled) {
         os << "  " << std::setw(8) << countText(n, "rulesReceived", family) << std::setw(10)
            << countText(n, "rulesAccepted", family);
      }
      os << "  " << std::left << joined(n.at("families")) << '\n';
      if (auto const d = n.at("description").get<std::string>(); !d.empty()) os << "  description: " << d << '\n';
      if (auto const e = n.at("lastError").get<std::string>(); !e.empty()) os << "  last error: " << e << '\n';
      if (auto const hold = n.value("idleHoldSeconds", std::uint64_t{0}); hold != 0) {
         os << "  held in Idle for " << hold << " s more (max-rules-action teardown)\n";
      }
      printTrust(n, os);
      // What the agent sent: UPDATEs and rules per family (agents before the RIB-out sent none).
      if (n.contains("familyUpdatesOut")) {
         for (auto const& item : n.at("familyUpdatesOut").items()) {
            std::string const& family = item.key();
            auto const& updates = item.value();
            auto const count = [&](char const* key) -> std::uint64_t {
               auto const& o = n.at(key);
               return o.contains(family) ? o.at(family).get<std::uint64_t>() : 0;
            };
            os << "  sent " << family << ": " << updates.get<std::uint64_t>() << " UPDATE(s), " << count("rulesSent")
               << " rule(s) announced, " << count("rulesAdvertised") << " held by the peer\n";
         }
      }
      // Graceful restart: a family whose peer restarts, or whose stale rules still wait.
      if (auto const it = n.find("gracefulRestart"); it != n.end() && it->is_object()) {
         for (auto const& [family, g] : it->items()) {
            std::string const state = g.at("state").get<std::string>();
            std::uint64_t const stale = g.at("stalePaths").get<std::uint64_t>();
            if (state == "live" && stale == 0) continue;
            os << "  graceful restart " << family << ": " << state << ", " << stale << " stale rule(s)";
            if (g.contains("timer") && g.at("timer").is_string()) {
               os << ", " << g.at("timer").get<std::string>() << " " << g.at("secondsLeft").get<std::uint64_t>()
                  << " s left";
            }
            os << '\n';
         }
      }
   }
   // The agent's own restart, while its RIB is not back.
   if (auto const it = answer.find("restart"); it != answer.end() && it->is_object() && !it->at("converged").get<bool>()) {
      os << "restart: forwarding held until End-of-RIB from " << joined(it->at("waitingFor")) << " (at most "
         << it->at("deferralSecondsLeft").get<std::uint64_t>() << " s more)\n";
   }
}

void printUpdates(nlohmann::json const& answer, std::ostream& os) {
   for (auto const& n : answer.at("neighbors")) {
      os << n.at("address").get<std::string>() << ": " << n.at("messages").get<std::uint64_t>() << " UPDATE(s):";
      char const* sep = " ";
      for (auto const& [outcome, count] : n.at("outcomes").items()) {
         os << sep << outcome << ' ' << count.get<std::uint64_t>();
         sep = ", ";
      }
      os << '\n';
      for (auto const& [family, f] : n.at("families").items()) {
         os << "  " << family << ": " << f.at("updates").get<std::uint64_t>() << " UPDATE(s), "
            << f.at("announced").get<std::uint64_t>() << " announced, " << f.at("withdrawn").get<std::uint64_t>()
            << " withdrawn, " << f.at("refused").get<std::uint64_t>() << " refused, "
            << f.at("rules").get<std::uint64_t>() << " rule(s) held\n";
         if (auto const it = f.find("importRefused"); it != f.end()) {
            if (std::string const refused = nonZero(*it); !refused.empty()) {
               os << "    refused by import: " << refused << '\n';
            }
         }
      }
      if (!n.at("reasons").empty()) {
         os << "  count reasons:";
         sep = " ";
         for (auto const& [reason, count] : n.at("reasons").items()) {
            os << sep << reason << ' ' << count.get<std::uint64_t>();
            sep = ", ";
         }
         os << '\n';
      }
   }
}

void printSummary(nlohmann::json const& answer, std::ostream& os) {
   for (auto const& v : answer.at("vrfs")) {
      os << "VRF " << v.at("name").get<std::string>() << " (id " << v.at("id").get<std::uint64_t>() << ")\n";
      for (auto const& [family, f] : v.at("families").items()) {
         os << "  " << std::left << std::setw(15) << family << std::right << std::setw(9)
            << f.at("rules").get<std::uint64_t>() << " rule(s) " << std::setw(9) << f.at("paths").get<std::uint64_t>()
            << " path(s)";
         if (f.contains("fsib")) {
            auto const& x = f.at("fsib");
            os << "  FSIB: added " << x.at("added").get<std::uint64_t>() << ", replaced "
               << x.at("replaced").get<std::uint64_t>() << ", deleted " << x.at("deleted").get<std::uint64_t>()
               << ", refused (full) " << x.at("refusedFull").get<std::uint64_t>() << " (displaced "
               << x.value("displaced", std::uint64_t{0}) << ", in later " << x.value("refilled", std::uint64_t{0})
               << "), not exportable " << x.at("notExportable").get<std::uint64_t>();
         }
         os << '\n';
      }
   }
   os << "attribute sets: " << answer.at("attributeSets").get<std::uint64_t>() << " held, "
      << answer.at("attributeSetsBuilt").get<std::uint64_t>() << " built, "
      << answer.at("attributeSetsReused").get<std::uint64_t>() << " reused\n";
}

void printUnicast(nlohmann::json const& answer, std::ostream& os) {
   os << answer.at("family").get<std::string>() << ": " << answer.at("routes").get<std::uint64_t>() << " route(s)";
   if (answer.contains("bestMatch")) {
      auto const& m = answer.at("bestMatch");
      os << ", best match " << (m.is_null() ? std::string("none") : m.get<std::string>());
   }
   os << '\n';
   auto const& entries = answer.at("entries");
   if (!entries.empty()) {
      os << std::left << std::setw(44) << "Prefix" << std::setw(40) << "From" << std::setw(7) << "Paths"
         << "AS path\n";
   }
   for (auto const& e : entries) {
      os << std::left << std::setw(44) << e.at("prefix").get<std::string>() << std::setw(40)
         << e.at("from").get<std::string>() << std::setw(7) << e.at("paths").get<std::uint64_t>()
         << e.at("asPath").get<std::string>() << '\n';
   }
   os << std::right;
   if (answer.at("truncated").get<bool>()) os << "(first " << entries.size() << " shown)\n";
   if (answer.contains("validation")) {
      auto const& v = answer.at("validation");
      os << "validation: " << v.at("rules").get<std::uint64_t>() << " rule(s) indexed, "
         << v.at("judged").get<std::uint64_t>() << " judgement(s), " << v.at("unicastChanges").get<std::uint64_t>()
         << " unicast change(s), " << v.at("revalidated").get<std::uint64_t>() << " rule(s) judged again, "
         << v.at("bytes").get<std::uint64_t>() << " bytes\n";
   }
}

void printRefused(nlohmann::json const& answer, std::ostream& os) {
   auto const& rules = answer.at("rules");
   os << "Rules " << answer.at("neighbor").get<std::string>() << " sent that import refused ("
      << answer.at("family").get<std::string>() << "): " << rules.size() << '\n';
   std::size_t width = 4;
   for (auto const& r : rules) width = std::max(width, r.at("rule").get<std::string>().size());
   if (!rules.empty()) {
      os << std::left << std::setw(static_cast<int>(width + 2)) << "Rule" << std::setw(23) << "Reason"
         << "Actions\n";
   }
   for (auto const& r : rules) {
      os << std::left << std::setw(static_cast<int>(width + 2)) << r.at("rule").get<std::string>() << std::setw(23)
         << r.at("reason").get<std::string>() << joined(r.at("actions")) << '\n';
   }
   if (auto const notKept = answer.at("notKept").get<std::uint64_t>(); notKept != 0) {
      os << notKept << " more refusal(s) found no room to be kept and are counted only\n";
   }
}

std::string refusedOfFamily(std::string const& answer, std::string const& family) {
   auto const j = nlohmann::json::parse(answer, nullptr, false);
   if (!j.is_object() || j.contains("error") || !j.contains("families") || !j["families"].is_object()) return answer;
   nlohmann::json out{{"neighbor", j.value("neighbor", std::string())}, {"family", family}};
   auto const f = j["families"].find(family);
   out["rules"] = f != j["families"].end() ? f->value("rules", nlohmann::json::array()) : nlohmann::json::array();
   out["notKept"] = f != j["families"].end() ? f->value("notKept", std::uint64_t{0}) : std::uint64_t{0};
   return Ovk::jsonText(out);
}

int printAnswer(std::string const& answer, bool json, ShowPrinter print, std::ostream& out, std::ostream& err) {
   auto const parsed = nlohmann::json::parse(answer, nullptr, false);
   if (parsed.is_discarded() || !parsed.is_object()) {
      err << "flowspec: the agent's answer is not JSON\n";
      return 1;
   }
   if (parsed.contains("error")) {
      err << "flowspec: " << parsed["error"].get<std::string>() << '\n';
      return 1;
   }
   if (json) {
      out << Ovk::jsonText(parsed) << '\n';
      return 0;
   }
   try {
      print(parsed, out);
   } catch (nlohmann::json::exception const& e) {
      err << "flowspec: unexpected answer from the agent: " << e.what() << '\n';
      return 1;
   }
   return 0;
}

} // namespace FlowspecTool
