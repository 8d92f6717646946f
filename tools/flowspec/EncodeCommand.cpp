// flowspec encode --afi 1|2 [--json] TEXT...: reads each rule text into a route key of the
// family and prints the NLRI the key writes, in hex (or one JSON object per text). Exit
// status: 0 when every text was read, 1 when one was not.
#include <iostream>
#include "host/fwk/JsonText.h"
#include <string>
#include <vector>

#include "tools/flowspec/NlriCodec.h"
#include "tools/flowspec/Subcommand.h"

namespace {

void addEncodeCommand(CLI::App& app, FlowspecTool::Options& options) {
   struct Args {
      int afi = 0;
      bool json = false;
      std::vector<std::string> texts;
   };
   auto args = std::make_shared<Args>();
   CLI::App* cmd =
       app.add_subcommand("encode", "write the NLRI of flowspec rules given as text (docs/rule-grammar.md)");
   cmd->add_option("--afi", args->afi, "address family: 1 IPv4, 2 IPv6")->required()->check(CLI::IsMember({1, 2}));
   cmd->add_flag("--json", args->json, "one JSON object per text");
   cmd->add_option("rule", args->texts, "rule text, e.g. \"destination 10.0.0.0/24 protocol tcp dport 80\"")
       ->required();
   cmd->callback([args, &options] {
      options.run = [args] {
         int status = 0;
         for (auto const& text : args->texts) {
            FlowspecTool::Json const encoded =
                FlowspecTool::encodeRule(static_cast<Routing::Bgp::Afi>(args->afi), text);
            if (!encoded["ok"].get<bool>()) status = 1;
            std::cout << (args->json ? Ovk::jsonText(encoded) : FlowspecTool::encodedLine(encoded)) << "\n";
         }
         return status;
      };
   });
}

const FlowspecTool::SubcommandRegistration registration{"encode", addEncodeCommand};

} // namespace
