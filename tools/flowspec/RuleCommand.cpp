// flowspec rule add ipv4|ipv6 MATCH... then ACTION... [--expires DURATION]: originates a rule
// from the agent (for DURATION only, when given).
// flowspec rule delete ipv4|ipv6 MATCH...: withdraws a rule added this way.
// flowspec rule list [--json]: the rules the agent originates, from its configuration and
// from this command, with their actions and whether each is the best path and in the FSIB.
//
// Exit status: 0 done; 1 the agent refused the rule (it says why) or could not be reached;
// 2 a usage error.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/ControlProtocol.h"
#include "agent/OriginatedRule.h"
#include "tools/flowspec/RuleRequest.h"
#include "tools/flowspec/Subcommand.h"

namespace {

constexpr char const* kActionsHelp =
    "ACTION is one of: discard | rate-limit BYTES_PER_SECOND | mark DSCP | sample | terminal |\n"
    "redirect-vrf RT (65000:100, 192.0.2.1:7, 4200000000:1) | redirect-ip ADDR [copy] |\n"
    "redirect-nexthop [ADDR]; an action keyword starts the next action.";

int ask(FlowspecTool::Options const& options, std::string const& request, bool json) {
   auto answer = Flowspecd::controlRequest(options.socketPath, request);
   if (!answer) {
      std::cerr << "flowspec: " << answer.reason() << '\n';
      return 1;
   }
   return FlowspecTool::printRuleAnswer(answer.value(), json, std::cout, std::cerr);
}

void addRuleCommand(CLI::App& app, FlowspecTool::Options& options) {
   auto* rule = app.add_subcommand("rule", "originate flowspec rules from the agent, and list them");
   rule->require_subcommand(1);

   struct Args {
      std::string family;
      std::vector<std::string> words;
      std::string expires;
   };
   auto args = std::make_shared<Args>();
   auto* add = rule->add_subcommand("add", "originate a rule: flowspec rule add ipv4|ipv6 MATCH... then ACTION...");
   add->footer(std::string("MATCH is rule text (docs/rule-grammar.md), e.g. destination 192.0.2.0/24 protocol tcp "
                           "destination-port =80.\n") +
               kActionsHelp +
               "\nExample: flowspec rule add ipv4 destination 192.0.2.0/24 then rate-limit 125000 mark 10");
   add->add_option("family", args->family, "ipv4 or ipv6")->required()->check(CLI::IsMember({"ipv4", "ipv6"}));
   add->add_option("words", args->words, "MATCH... then ACTION...")->required();
   add->add_option("--expires", args->expires,
                   "the agent withdraws the rule after this long: seconds, or 90s, 15m, 2h, 1d, 1h30m");
   add->callback([args, &options] {
      auto request = FlowspecTool::ruleAddRequest(args->family, args->words, args->expires);
      options.run = [request, &options] {
         if (!request) {
            std::cerr << "flowspec rule add: " << request.reason() << "\n" << kActionsHelp << '\n';
            return 2;
         }
         return ask(options, request.value(), false);
      };
   });

   auto delArgs = std::make_shared<Args>();
   auto* del = rule->add_subcommand("delete", "withdraw a rule added with rule add: flowspec rule delete ipv4|ipv6 "
                                              "MATCH...");
   del->add_option("family", delArgs->family, "ipv4 or ipv6")->required()->check(CLI::IsMember({"ipv4", "ipv6"}));
   del->add_option("match", delArgs->words, "the rule's MATCH, as given to rule add")->required();
   del->callback([delArgs, &options] {
      std::string const request = FlowspecTool::ruleDeleteRequest(delArgs->family, delArgs->words);
      options.run = [request, &options] { return ask(options, request, false); };
   });

   auto* list = rule->add_subcommand("list", "the rules the agent originates (configuration and rule add)");
   CLI::Option* json = list->add_flag("--json")->description("print the agent's JSON answer");
   list->callback([json, &options] {
      bool const asJson = json->count() > 0;
      options.run = [asJson, &options] { return ask(options, "rule list", asJson); };
   });
}

const FlowspecTool::SubcommandRegistration registration{"rule", addRuleCommand};

} // namespace
