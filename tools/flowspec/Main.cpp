// flowspec: the command-line tool of the flowspec agent. Subcommands register themselves
// (see Subcommand.h); this file only parses the common options and dispatches. Usage errors
// (an unknown option, a missing or bad value) exit with status 2.
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string_view>

#include "agent/ControlProtocol.h"
#include "fs/Version.h"
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
   // An installed agent listens where a packaged daemon keeps its socket; a build tree's in
   // /tmp. Without --socket, the packaged one when it is there and the other is not.
   if (std::error_code ec; !std::filesystem::exists(options.socketPath, ec) &&
                           std::filesystem::exists(Flowspecd::kPackagedControlSocket, ec)) {
      options.socketPath = Flowspecd::kPackagedControlSocket;
   }
   app.add_option("--socket", options.socketPath, "the agent's control socket")->capture_default_str();
   app.set_version_flag("--version", std::string("flowspec ") + Fs::kVersionText);
   app.require_subcommand(1);
   for (auto const& s : FlowspecTool::registeredSubcommands()) s.add(app, options);
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      // Help asked for exits 0; any usage error exits 2, whatever CLI11's own code for it.
      return app.exit(e) == 0 ? 0 : 2;
   }
   if (!options.run) {
      std::cerr << app.help();
      return 2;
   }
   return options.run();
}
