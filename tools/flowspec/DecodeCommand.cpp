// flowspec decode --afi 1|2 [--json] HEX...: each argument (or each line of standard input
// when the only argument is "-") is the NLRI field of one attribute; the NLRI parse rule
// reads one NLRI from it. Prints one line per input, or one JSON object per line. Exit
// status: 0 when every input decoded, 1 when one did not, 2 on bad hex.
#include <iostream>
#include <string>
#include <vector>

#include "tools/flowspec/NlriCodec.h"
#include "tools/flowspec/Subcommand.h"

namespace {

using FlowspecTool::Json;

// Reads the inputs: the arguments, or the lines of standard input (blank lines and lines
// starting with '#' skipped). False, after saying why, on bad hex.
bool readInputs(std::vector<std::string> const& args, std::vector<std::vector<std::uint8_t>>& inputs) {
   std::vector<std::pair<std::string, std::string>> texts; // where, text
   if (args.size() == 1 && args[0] == "-") {
      std::string line;
      for (int n = 1; std::getline(std::cin, line); ++n) {
         auto const first = line.find_first_not_of(" \t\r");
         if (first == std::string::npos || line[first] == '#') continue;
         texts.emplace_back("line " + std::to_string(n), line);
      }
   } else {
      for (std::size_t i = 0; i < args.size(); ++i) texts.emplace_back("argument " + std::to_string(i + 1), args[i]);
   }
   for (auto const& [where, text] : texts) {
      std::string whyNot;
      auto bytes = FlowspecTool::bytesOfHex(text, whyNot);
      if (!bytes) {
         std::cerr << "flowspec decode: bad hex in " << where << " (\"" << text << "\"): " << whyNot << "\n";
         return false;
      }
      inputs.push_back(std::move(*bytes));
   }
   return true;
}

void addDecodeCommand(CLI::App& app, FlowspecTool::Options& options) {
   struct Args {
      int afi = 0;
      bool json = false;
      std::vector<std::string> inputs;
   };
   auto args = std::make_shared<Args>();
   CLI::App* cmd = app.add_subcommand("decode", "decode flowspec NLRI given in hex (length field included)");
   cmd->add_option("--afi", args->afi, "address family: 1 IPv4, 2 IPv6")->required()->check(CLI::IsMember({1, 2}));
   cmd->add_flag("--json", args->json, "one JSON object per input");
   cmd->add_option("nlri", args->inputs, "NLRI in hex, or - to read one per line from standard input")->required();
   cmd->callback([args, &options] {
      options.run = [args] {
         std::vector<std::vector<std::uint8_t>> inputs;
         if (!readInputs(args->inputs, inputs)) return 2;
         FlowspecTool::NlriDecoder const decoder(static_cast<Routing::Bgp::Afi>(args->afi));
         int status = 0;
         for (auto const& bytes : inputs) {
            Json const decoded = decoder.decode(bytes);
            if (!decoded["ok"].get<bool>()) status = 1;
            std::cout << (args->json ? decoded.dump() : FlowspecTool::decodedLine(decoded)) << "\n";
         }
         return status;
      };
   });
}

const FlowspecTool::SubcommandRegistration registration{"decode", addDecodeCommand};

} // namespace
