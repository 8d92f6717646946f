#include "tools/flowspec/ShowFlowspec.h"
#include "host/fwk/JsonText.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "agent/ControlProtocol.h"
#include "agent/ControlStream.h"
#include "tools/flowspec/ShowPrinters.h"
#include "host/net/IpGenAddr.h"

namespace FlowspecTool {

void StreamedAnswerPrinter::data(std::string_view piece) {
   if (headDone_) {
      if (status_ == 0) out_ << piece << std::flush;
      return;
   }
   head_.append(piece);
   auto const nl = head_.find('\n');
   if (nl == std::string::npos) return;
   headDone_ = true;
   auto const j = nlohmann::json::parse(head_.substr(0, nl), nullptr, false);
   if (!j.is_object() || !j.contains("status") || !j["status"].is_number_integer()) {
      err_ << "flowspec: the agent's answer is not understood\n";
      status_ = 1;
      return;
   }
   status_ = j["status"].get<int>();
   if (status_ != 0) {
      err_ << "flowspec: " << j.value("error", std::string("failed")) << '\n';
      if (status_ == 2) err_ << "Run 'flowspec show flowspec --help' for usage.\n";
      return;
   }
   out_ << std::string_view(head_).substr(nl + 1) << std::flush;
}

int StreamedAnswerPrinter::finish() {
   if (!headDone_) {
      err_ << "flowspec: the agent closed the connection without an answer\n";
      return 1;
   }
   return status_;
}

namespace {

int runStream(Options const& options, nlohmann::json const& request) {
   StreamedAnswerPrinter printer(std::cout, std::cerr);
   auto const r = Flowspecd::controlStreamRequest(options.socketPath, Ovk::jsonText(request),
                                                  [&printer](std::string_view piece) { printer.data(piece); });
   if (!r) {
      std::cerr << "flowspec: " << r.reason() << '\n';
      return 1;
   }
   return printer.finish();
}

std::string checkAddress(std::string const& text) {
   return Ovnet::IpGenAddr::parse(text) ? std::string() : "not an IP address: " + text;
}
std::string checkPrefix(std::string const& text) {
   return Ovnet::IpGenPrefix::parse(text) ? std::string() : "not an IP prefix: " + text;
}

void addFamily(CLI::App& flowspec, Options& options, char const* family) {
   auto* fam = flowspec.add_subcommand(family, std::string("the ") + family + " flowspec rules in rule order");
   struct Args {
      bool json = false;
      std::string from, dest, rule, neighbor;
      std::uint64_t limit = 0;
   };
   auto args = std::make_shared<Args>();
   fam->add_flag("--json", args->json, "print JSON: {\"rules\": [...]} in rule order");
   auto* from = fam->add_option("--from", args->from, "start at this rule (rule text, docs/rule-grammar.md)");
   fam->add_option("--dest", args->dest, "start at the first rule for this destination prefix")
       ->check(CLI::Validator(checkPrefix, "PREFIX"))
       ->excludes(from);
   fam->add_option("--limit", args->limit, "show at most N rules")->check(CLI::PositiveNumber);

   auto* rule = fam->add_subcommand("rule", "one rule, or a message when it is not there");
   rule->add_option("RULE", args->rule, "rule text")->required();
   rule->add_flag("--json", args->json, "print JSON");

   auto* adv = fam->add_subcommand("advertised", "what NEIGHBOR was sent for RULE");
   adv->add_option("NEIGHBOR", args->neighbor, "neighbor address")
       ->required()
       ->check(CLI::Validator(checkAddress, "ADDRESS"));
   adv->add_option("RULE", args->rule, "rule text")->required();
   adv->add_flag("--json", args->json, "print JSON");

   auto* refused = fam->add_subcommand("refused", "the rules NEIGHBOR sent that import refused, with the reason");
   refused->add_option("NEIGHBOR", args->neighbor, "neighbor address")
       ->required()
       ->check(CLI::Validator(checkAddress, "ADDRESS"));
   refused->add_flag("--json", args->json, "print JSON: {\"neighbor\", \"family\", \"rules\": [...], \"notKept\"}");
   fam->require_subcommand(0, 1);

   fam->callback([&options, args, rule, adv, refused, family = std::string(family)] {
      if (refused->parsed()) {
         options.run = [&options, args, family] {
            auto answer = Flowspecd::controlRequest(options.socketPath, "show refused " + args->neighbor);
            if (!answer) {
               std::cerr << "flowspec: " << answer.reason() << '\n';
               return 1;
            }
            return printAnswer(refusedOfFamily(answer.value(), family + "-flowspec"), args->json, printRefused,
                               std::cout, std::cerr);
         };
         return;
      }
      nlohmann::json req{{"family", family}, {"format", args->json ? "json" : "text"}};
      if (rule->parsed()) {
         req["show"] = "flowspec-rule";
         req["rule"] = args->rule;
      } else if (adv->parsed()) {
         req["show"] = "flowspec-advertised";
         req["neighbor"] = args->neighbor;
         req["rule"] = args->rule;
      } else {
         req["show"] = "flowspec";
         if (!args->from.empty()) req["from"] = args->from;
         if (!args->dest.empty()) req["dest"] = args->dest;
         if (args->limit > 0) req["limit"] = args->limit;
      }
      options.run = [&options, req] { return runStream(options, req); };
   });
}

} // namespace

void addShowFlowspecCommand(CLI::App& show, Options& options) {
   auto* flowspec = show.add_subcommand(
       "flowspec", "the flowspec rules in the order forwarding applies them (RFC 8955 section 5.1), with their paths, "
                   "redirect VRF and FSIB status");
   flowspec->require_subcommand(1);
   addFamily(*flowspec, options, "ipv4");
   addFamily(*flowspec, options, "ipv6");
}

} // namespace FlowspecTool
