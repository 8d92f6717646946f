// flowspec show neighbors [--json]: the agent's neighbors, as a table or as the agent's
// JSON answer. flowspec show updates [--json]: what the agent's UPDATE decoder made of each
// neighbor's UPDATEs (outcomes, per-family counts, rules held, count reasons). flowspec show
// summary [--json]: per VRF and family, the rules in the best-path table, the paths behind
// them and what the forwarding export did with them. flowspec show unicast ipv4|ipv6 [PREFIX]
// [--json]: the unicast routes rules are validated against.
#include <iostream>
#include <memory>
#include <string>

#include "agent/ControlProtocol.h"
#include "tools/flowspec/ShowFlowspec.h"
#include "tools/flowspec/ShowPrinters.h"
#include "tools/flowspec/Subcommand.h"

namespace {

int showAnswer(FlowspecTool::Options const& options, std::string const& request, bool json,
               FlowspecTool::ShowPrinter print) {
   auto answer = Flowspecd::controlRequest(options.socketPath, request);
   if (!answer) {
      std::cerr << "flowspec: " << answer.reason() << '\n';
      return 1;
   }
   return FlowspecTool::printAnswer(answer.value(), json, print, std::cout, std::cerr);
}

// One "show WHAT [--json]" subcommand asking the agent `request`.
void addShowSubcommand(CLI::App& show, FlowspecTool::Options& options, char const* what, char const* help,
                       std::string request, FlowspecTool::ShowPrinter print) {
   auto* sub = show.add_subcommand(what, help);
   CLI::Option* json = sub->add_flag("--json")->description("print the agent's JSON answer");
   sub->callback([&options, json, request, print] {
      bool const asJson = json->count() > 0;
      options.run = [&options, asJson, request, print] { return showAnswer(options, request, asJson, print); };
   });
}

void addShowCommand(CLI::App& app, FlowspecTool::Options& options) {
   auto* show = app.add_subcommand("show", "show what the agent knows");
   show->require_subcommand(1);
   addShowSubcommand(*show, options, "neighbors", "the BGP neighbors and their sessions", "show neighbors",
                     FlowspecTool::printNeighbors);
   addShowSubcommand(*show, options, "updates", "what the UPDATE decoder made of each neighbor's UPDATEs",
                     "show updates", FlowspecTool::printUpdates);
   addShowSubcommand(*show, options, "summary", "per VRF and family: rules, paths and the FSIB export", "show summary",
                     FlowspecTool::printSummary);
   auto* unicast = show->add_subcommand(
       "unicast", "the unicast routes flowspec rules are validated against: unicast ipv4|ipv6 [PREFIX]");
   auto family = std::make_shared<std::string>();
   auto prefix = std::make_shared<std::string>();
   unicast->add_option("family", *family, "ipv4 or ipv6")->required()->check(CLI::IsMember({"ipv4", "ipv6"}));
   unicast->add_option("prefix", *prefix, "its best match and the routes inside it");
   CLI::Option* json = unicast->add_flag("--json")->description("print the agent's JSON answer");
   unicast->callback([&options, json, family, prefix] {
      bool const asJson = json->count() > 0;
      std::string const request = "show unicast " + *family + (prefix->empty() ? "" : " " + *prefix);
      options.run = [&options, asJson, request] {
         return showAnswer(options, request, asJson, FlowspecTool::printUnicast);
      };
   });
   FlowspecTool::addShowFlowspecCommand(*show, options);
}

const FlowspecTool::SubcommandRegistration registration{"show", addShowCommand};

} // namespace
