// flowspec show neighbors [--json]: the agent's neighbors, as a table or as the agent's
// JSON answer. flowspec show updates [--json]: what the agent's UPDATE decoder made of each
// neighbor's UPDATEs (outcomes, per-family counts, rules held, count reasons).
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "agent/ControlSocket.h"
#include "tools/flowspec/Subcommand.h"

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

// A human table of the JSON answer. Throws nlohmann's exceptions on an answer of another shape.
void printTable(nlohmann::json const& answer, std::ostream& os) {
   os << std::left << std::setw(26) << "Neighbor" << std::setw(11) << "AS" << std::setw(12) << "State"
      << std::setw(10) << "Up" << std::right << std::setw(8) << "MsgIn" << std::setw(8) << "MsgOut" << std::setw(8)
      << "UpdIn" << std::setw(8) << "UpdOut" << "  " << std::left << "Families\n";
   for (auto const& n : answer.at("neighbors")) {
      std::string const address = n.at("address").get<std::string>();
      std::string const name = address.find(':') != std::string::npos
                                  ? "[" + address + "]:" + std::to_string(n.at("port").get<int>())
                                  : address + ":" + std::to_string(n.at("port").get<int>());
      os << std::left << std::setw(26) << name << std::setw(11) << n.at("remoteAs").get<std::uint64_t>()
         << std::setw(12) << n.at("state").get<std::string>() << std::setw(10)
         << uptimeText(n.at("state") == "Established", n.at("uptimeSeconds").get<std::uint64_t>()) << std::right << std::setw(8)
         << n.at("messagesIn").get<std::uint64_t>() << std::setw(8) << n.at("messagesOut").get<std::uint64_t>()
         << std::setw(8) << n.at("updatesIn").get<std::uint64_t>() << std::setw(8)
         << n.at("updatesOut").get<std::uint64_t>() << "  " << std::left << joined(n.at("families")) << '\n';
      if (auto const d = n.at("description").get<std::string>(); !d.empty()) os << "  description: " << d << '\n';
      if (auto const e = n.at("lastError").get<std::string>(); !e.empty()) os << "  last error: " << e << '\n';
   }
}

// Lines of the "show updates" answer.
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

int showAnswer(FlowspecTool::Options const& options, std::string const& request, bool json,
               void (*print)(nlohmann::json const&, std::ostream&)) {
   auto answer = Flowspecd::controlRequest(options.socketPath, request);
   if (!answer) {
      std::cerr << "flowspec: " << answer.reason() << '\n';
      return 1;
   }
   auto const parsed = nlohmann::json::parse(answer.value(), nullptr, false);
   if (parsed.is_discarded() || !parsed.is_object()) {
      std::cerr << "flowspec: the agent's answer is not JSON\n";
      return 1;
   }
   if (parsed.contains("error")) {
      std::cerr << "flowspec: " << parsed["error"].get<std::string>() << '\n';
      return 1;
   }
   if (json) {
      std::cout << parsed.dump() << '\n';
      return 0;
   }
   try {
      print(parsed, std::cout);
   } catch (nlohmann::json::exception const& e) {
      std::cerr << "flowspec: unexpected answer from the agent: " << e.what() << '\n';
      return 1;
   }
   return 0;
}

void addShowCommand(CLI::App& app, FlowspecTool::Options& options) {
   auto* show = app.add_subcommand("show", "show what the agent knows");
   show->require_subcommand(1);
   auto* neighbors = show->add_subcommand("neighbors", "the BGP neighbors and their sessions");
   CLI::Option* json = neighbors->add_flag("--json")->description("print the agent's JSON answer");
   neighbors->callback([&options, json] {
      bool const asJson = json->count() > 0;
      options.run = [&options, asJson] { return showAnswer(options, "show neighbors", asJson, printTable); };
   });
   auto* updates = show->add_subcommand("updates", "what the UPDATE decoder made of each neighbor's UPDATEs");
   CLI::Option* updatesJson = updates->add_flag("--json")->description("print the agent's JSON answer");
   updates->callback([&options, updatesJson] {
      bool const asJson = updatesJson->count() > 0;
      options.run = [&options, asJson] { return showAnswer(options, "show updates", asJson, printUpdates); };
   });
}

const FlowspecTool::SubcommandRegistration registration{"show", addShowCommand};

} // namespace
