// flowspec decode --afi 1|2 [--json] HEX...: each argument (or each line of standard input
// when the only argument is "-") is the NLRI field of one attribute; the NLRI parse rule
// reads one NLRI from it. Prints one line per input, or one JSON object per line. Exit
// status: 0 when every input decoded, 1 when one did not, 2 on bad hex.
//
// flowspec decode [--json] --update HEX | --mrt FILE | --pcap FILE (each may repeat): whole
// UPDATE messages, from the command line, an MRT dump or a packet capture, through the
// host's UPDATE decoder and the flowspec plugin (UpdateReport.h). Exit status: 0 when every
// UPDATE was accepted whole, 1 when one was not, 2 when an input could not be read.
#include <iostream>
#include "host/fwk/JsonText.h"
#include <string>
#include <vector>

#include "tools/flowspec/UpdateReport.h"
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
      std::vector<std::string> updates;
      std::vector<std::string> mrt;
      std::vector<std::string> pcap;
   };
   auto args = std::make_shared<Args>();
   CLI::App* cmd = app.add_subcommand(
       "decode", "decode flowspec NLRI given in hex (length field included), or whole UPDATE messages");
   cmd->add_option("--afi", args->afi, "address family of the NLRI: 1 IPv4, 2 IPv6")->check(CLI::IsMember({1, 2}));
   cmd->add_flag("--json", args->json, "one JSON object per NLRI or UPDATE");
   cmd->add_option("nlri", args->inputs, "NLRI in hex, or - to read one per line from standard input");
   cmd->add_option("--update", args->updates, "a whole BGP UPDATE message in hex, header included");
   cmd->add_option("--mrt", args->mrt, "an MRT file of BGP4MP / BGP4MP_ET message records");
   cmd->add_option("--pcap", args->pcap, "a packet capture of BGP sessions (pcap or pcapng)");
   cmd->callback([args, &options] {
      options.run = [args] {
         bool const messages = !args->updates.empty() || !args->mrt.empty() || !args->pcap.empty();
         if (messages) {
            if (!args->inputs.empty()) {
               std::cerr << "flowspec decode: give NLRI or messages (--update, --mrt, --pcap), not both\n";
               return 2;
            }
            std::vector<FlowspecTool::UpdateInput> inputs;
            for (auto const& u : args->updates) inputs.push_back({FlowspecTool::UpdateInput::Kind::hex, u});
            for (auto const& f : args->mrt) inputs.push_back({FlowspecTool::UpdateInput::Kind::mrt, f});
            for (auto const& f : args->pcap) inputs.push_back({FlowspecTool::UpdateInput::Kind::pcap, f});
            return FlowspecTool::decodeUpdates(inputs, args->json, std::cout, std::cerr);
         }
         if (args->afi == 0 || args->inputs.empty()) {
            std::cerr << "flowspec decode: NLRI need --afi 1|2 and at least one NLRI; messages need --update, "
                         "--mrt or --pcap\n";
            return 2;
         }
         std::vector<std::vector<std::uint8_t>> inputs;
         if (!readInputs(args->inputs, inputs)) return 2;
         FlowspecTool::NlriDecoder const decoder(static_cast<Routing::Bgp::Afi>(args->afi));
         int status = 0;
         for (auto const& bytes : inputs) {
            Json const decoded = decoder.decode(bytes);
            if (!decoded["ok"].get<bool>()) status = 1;
            std::cout << (args->json ? Ovk::jsonText(decoded) : FlowspecTool::decodedLine(decoded)) << "\n";
         }
         return status;
      };
   });
}

const FlowspecTool::SubcommandRegistration registration{"decode", addDecodeCommand};

} // namespace
