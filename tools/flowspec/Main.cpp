// flowspec: the command-line tool of the flowspec agent. Subcommands register themselves
// (see Subcommand.h); this file only parses the common options and dispatches.
#include <algorithm>
#include <iostream>
#include <string_view>

#include "agent/Config.h"
#include "tools/flowspec/Subcommand.h"

namespace FlowspecTool {

namespace {
std::vector<RegisteredSubcommand>& registry() {
   static std::vector<RegisteredSubcommand> all;
   return all;
}
} // namespace

SubcommandRegistration::SubcommandRegistration(char const* name, AddSubcommand add) {
   registry().push_back({name, add});
}

std::vector<RegisteredSubcommand> registeredSubcommands() {
   auto all = registry();
   std::sort(all.begin(), all.end(), [](auto const& a, auto const& b) { return std::string_view(a.name) < b.name; });
   return all;
}

} // namespace FlowspecTool

int main(int argc, char** argv) {
   CLI::App app{"flowspec: talk to the flowspec agent and work with flowspec data"};
   FlowspecTool::Options options;
   options.socketPath = Flowspecd::kDefaultControlSocket;
   app.add_option("--socket", options.socketPath, "the agent's control socket")->capture_default_str();
   app.require_subcommand(1);
   for (auto const& s : FlowspecTool::registeredSubcommands()) s.add(app, options);
   CLI11_PARSE(app, argc, argv);
   if (!options.run) {
      std::cerr << app.help();
      return 2;
   }
   return options.run();
}
